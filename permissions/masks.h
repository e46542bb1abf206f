// A caller's rights out of one ACL.
#pragma once

#include <cstdint>

#include "kavrin_perms.h"
#include "kavrin_structs.h"
#include "permissions/verdict_trail.h"

namespace kavrin {

// Which of the two masks is worked out: they differ in their messages only.
enum class MaskOf { kPath, kParent };

struct CallerMask {
    bool user_found = false;
    std::uint32_t mask = 0;
};

// The right of the first ACE of the caller's own. An inherited ACE that grants navigation does not
// count, here and below.
CallerMask mask_of_user(const kavrin_acl_t& acl, const process_trustees_t& caller, MaskOf which);

// Whether the groups have a say: the user has no ACE, or one that grants nothing or navigation.
bool groups_are_asked(const CallerMask& caller_mask);

// Adds the rights of every ACE of the caller's groups, if they are asked.
void add_groups(const kavrin_acl_t& acl, const process_trustees_t& caller, MaskOf which,
                CallerMask& caller_mask);

// Writes down what became of each ACE on the way to `caller_mask`.
void note_aces(const kavrin_acl_t& acl, const process_trustees_t& caller,
               const CallerMask& user_mask, const CallerMask& caller_mask, AclTrail& trail);

}  // namespace kavrin
