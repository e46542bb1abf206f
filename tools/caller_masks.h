// The rights that a map gives one caller at every path that it holds, worked out for the whole map
// in one pass. The law is the enforcement's: the caller's own entry first, his groups where it says
// nothing, entries with navigation not below the element that has them. Tests hold the two against
// each other.
#pragma once

#include <cstdint>
#include <vector>

#include "perm_tree.h"

namespace kvadmin {

struct Caller {
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::vector<std::uint32_t> groups;  // supplementary; these alone give a standing
    bool admin = false;
    bool poweruser = false;
};

// The caller's mask out of one ACL. `inherited` says that the ACL does not count as the path's own.
std::uint32_t mask_of(std::span<const PermTree::Entry> acl, bool inherited, const Caller& caller);

// Whether a user's own entry of that mask, 0 for none, leaves his groups a say.
bool groups_are_asked(std::uint32_t own_mask);
// Whether an entry counts for nobody.
bool is_skipped(const PermTree::Entry& entry, bool inherited);

class CallerMasks {
public:
    // The tree must outlive this object.
    CallerMasks(const PermTree& tree, const Caller& caller);

    // The mask at an element's path. A path that leads to another element, since a sibling with the
    // same name comes first, is given what that one has.
    std::uint32_t at(PermTree::Id id) const { return masks_[id]; }
    // The mask at any path below that one that the map does not hold.
    std::uint32_t below(PermTree::Id id) const {
        return on_a_path(id) ? inherited_of(lookups_[id].element) : 0;
    }
    // False for an element whose name, or a name above it, no path can hold.
    bool on_a_path(PermTree::Id id) const { return lookups_[id].element != PermTree::kNone; }

private:
    // Where the path of an element leads: `whole` unless only a part of it is in the map.
    struct Lookup {
        PermTree::Id element;
        bool whole;
    };

    std::uint32_t inherited_of(PermTree::Id id) const { return inherited_[governing_[id]]; }
    void work_out_acls(const PermTree& tree, const Caller& caller);
    void work_out_lookups(const PermTree& tree);

    std::vector<PermTree::Id> governing_;   // whose ACL is in force at an element
    std::vector<std::uint32_t> explicit_;   // what an element's own ACL gives at its own path,
    std::vector<std::uint32_t> inherited_;  // and where it counts as inherited
    std::vector<Lookup> lookups_;
    std::vector<std::uint32_t> masks_;
};

}  // namespace kvadmin
