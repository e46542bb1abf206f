// Two maps compared by the rights that are in force in them: at every path that either holds, who
// gained and who lost what. An element without entries has its nearest ancestor's, and so has a
// path that only one of the maps holds; entries with navigation count where they stand and not
// below. The rules of the share that no map changes are left out.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

#include "perm_tree.h"

namespace kvadmin {

// What changed for one user or group. Masks are what the ACL in force gives, 0 without an entry.
struct TrusteeChange {
    bool is_group = false;
    std::uint32_t id = 0;
    std::uint32_t before = 0;
    std::uint32_t after = 0;
    std::uint32_t gained = 0;
    std::uint32_t lost = 0;
    // Of a user: what he gains or loses beside that if he is in groups of the ACL, because his own
    // entry, which keeps their rights away from him, went or came.
    std::uint32_t gained_from_groups = 0;
    std::uint32_t lost_from_groups = 0;

    bool widens() const { return (gained | gained_from_groups) != 0; }
    auto operator<=>(const TrusteeChange&) const = default;
};
using Changes = std::vector<TrusteeChange>;  // users, then groups, by id

// One path at which something changed that what is above it does not let expect.
struct DiffLine {
    enum class Kind : std::uint8_t { kChanged, kAdded, kRemoved };
    Kind kind = Kind::kChanged;
    std::string path;         // as the second map spells it, or the first when it is gone there
    std::size_t changes = 0;  // at the path: index of a set of changes
    std::size_t below = 0;    // of what lies below without entries of its own; mostly the same
    std::uint64_t alike = 0;  // elements below to which the same happened
};

struct MapDiff {
    std::vector<DiffLine> lines;           // parents before children
    std::vector<Changes> sets;             // the first one is empty
    std::uint64_t unreachable_before = 0;  // elements left out: no path leads to them
    std::uint64_t unreachable_after = 0;

    bool widens() const;
};

MapDiff compare_maps(const PermTree& before, const PermTree& after);

}  // namespace kvadmin
