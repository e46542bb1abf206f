// See masks.h.
#include "permissions/masks.h"

#include <algorithm>

#include "permissions/acl.h"
#include "utils/trace.h"

namespace kavrin {
namespace {

// Navigation is a right on one folder, not on what lies below it.
bool is_skipped(const kavrin_ace_t& ace) {
    return (ace.perm_mask & KAVRIN_PERM_MASK_NAVIGATE) != 0 && ace.ace_type == 1;
}

bool is_own(const kavrin_ace_t& ace, const process_trustees_t& caller) {
    return ace.trustee_type == ACE_TYPE_USER && ace.trustee.uid == caller.euid;
}

bool is_of_group(const kavrin_ace_t& ace, const process_trustees_t& caller) {
    if (ace.trustee_type != ACE_TYPE_GROUP) return false;
    const gid_t gid = ace.trustee.gid;
    return gid == caller.egid || std::find(caller.gids, caller.gids + caller.num_sup_gids, gid) !=
                                     caller.gids + caller.num_sup_gids;
}

void trace_user(MaskOf which, std::uint32_t mask) {
    if (which == MaskOf::kPath) {
        KV_TRACE(kTrace, "User is found, perm is: %o", mask);
    } else {
        KV_TRACE(kTrace, "Parent User is found, perm is: %o", mask);
    }
}

void trace_group(MaskOf which, std::uint32_t mask) {
    if (which == MaskOf::kPath) {
        KV_TRACE(kTrace, "Group is found, perm is now: %o", mask);
    } else {
        KV_TRACE(kTrace, "Parent Group is found, perm is now: %o", mask);
    }
}

// Adds a group's right once for each place where the caller is in it; the mask is a bitwise OR, the
// trace tells each.
void add_group(const kavrin_ace_t& ace, const process_trustees_t& caller, MaskOf which,
               CallerMask& result) {
    for (std::int32_t i = 0; i < caller.num_sup_gids; ++i) {
        if (caller.gids[i] != ace.trustee.gid) continue;
        result.mask |= ace.perm_mask;
        trace_group(which, result.mask);
    }
    if (ace.trustee.gid == caller.egid) {
        result.mask |= ace.perm_mask;
        trace_group(which, result.mask);
    }
}

// The first ACE that speaks of the caller and counts, or null.
const kavrin_ace_t* own_ace(const kavrin_acl_t& acl, const process_trustees_t& caller) {
    for (const kavrin_ace_t& ace : AceRange(acl)) {
        if (is_own(ace, caller) && !is_skipped(ace)) return &ace;
    }
    return nullptr;
}

AceUse use_of(const kavrin_ace_t& ace, const process_trustees_t& caller, const kavrin_ace_t* own,
              bool groups_asked) {
    const bool mine = is_own(ace, caller);
    if (!mine && !is_of_group(ace, caller)) return AceUse::kOtherTrustee;
    if (is_skipped(ace)) return AceUse::kSkippedInheritedNavigate;
    if (mine) return &ace == own ? AceUse::kUser : AceUse::kLaterUser;
    return groups_asked ? AceUse::kGroup : AceUse::kGroupNotAsked;
}

}  // namespace

CallerMask mask_of_user(const kavrin_acl_t& acl, const process_trustees_t& caller, MaskOf which) {
    const kavrin_ace_t* own = own_ace(acl, caller);
    if (own == nullptr) return {};
    trace_user(which, own->perm_mask);
    return {true, own->perm_mask};
}

bool groups_are_asked(const CallerMask& caller_mask) {
    return !caller_mask.user_found || caller_mask.mask == 0 ||
           (caller_mask.mask & KAVRIN_PERM_MASK_NAVIGATE) != 0;
}

void add_groups(const kavrin_acl_t& acl, const process_trustees_t& caller, MaskOf which,
                CallerMask& caller_mask) {
    if (!groups_are_asked(caller_mask)) return;
    for (const kavrin_ace_t& ace : AceRange(acl)) {
        if (ace.trustee_type != ACE_TYPE_GROUP || is_skipped(ace)) continue;
        add_group(ace, caller, which, caller_mask);
    }
}

void note_aces(const kavrin_acl_t& acl, const process_trustees_t& caller,
               const CallerMask& user_mask, const CallerMask& caller_mask, AclTrail& trail) {
    const kavrin_ace_t* own = own_ace(acl, caller);
    for (const kavrin_ace_t& ace : AceRange(acl)) {
        trail.aces.push_back({ace.trustee_type, ace.trustee.uid, ace.perm_mask, ace.ace_type == 1,
                              use_of(ace, caller, own, groups_are_asked(user_mask))});
    }
    trail.user_found = caller_mask.user_found;
    trail.mask = caller_mask.mask;
}

}  // namespace kavrin
