// The verdict on a path that is described by what the enforcement would find out about it, without
// a question to the enforcement: for every path of a map at once, for trustees that no account
// stands for, and for maps that are not in force. Which rights an operation needs comes from the
// enforcement's own table; the rules of the share are written down a second time here, and tests
// ask both for every element of random maps.
#pragma once

#include <cstdint>
#include <string_view>

#include "caller_masks.h"
#include "kavrin_perms.h"
#include "kavrin_structs.h"

namespace kvadmin {

// Where in the share a path lies.
enum class Zone : std::uint8_t {
    kRoot,      // the share itself
    kShared,    // Shared
    kPrivate,   // Private
    kOutside,   // anything else at the top, and below it
    kInShared,  // directly in Shared
    kBelowShared,
    kInPrivate,  // a user's folder
    kBelowPrivate
};

// The zone of a child with that name.
Zone zone_of_child(Zone folder, std::string_view name);
// Of a path relative to the share, "." for the share.
Zone zone_of(std::string_view path);

inline bool in_private(Zone zone) {
    return zone == Zone::kInPrivate || zone == Zone::kBelowPrivate;
}

// Whose the user's folder in Private is.
enum class Ownership : std::uint8_t { kUnknown, kMissing, kCallers, kSomebodyElses };

struct Situation {
    Zone zone = Zone::kOutside;
    e_file_type_t type = FSTYPE_FILE;
    bool special = false;    // a name that clients keep for themselves
    bool wild_card = false;  // the last component is "*"
    std::uint32_t mask = 0;  // at the path; counts for folders
    std::uint32_t parent_mask = 0;
    Ownership ownership = Ownership::kUnknown;
};

struct Ruling {
    enum class Answer : std::uint8_t { kDenied, kAllowed, kOwnerDecides };
    Answer answer = Answer::kDenied;
    bool navigation_only = false;
    const char* rule = "";  // what settled it, one sentence
    bool by_masks = false;  // the caller's rights in the map settled it

    bool allowed() const { return answer == Answer::kAllowed; }
};

// `op` must be one that may be asked for.
Ruling ruling(const Caller& caller, const Situation& at, e_fsop_type_t op);

}  // namespace kvadmin
