// See caller_masks.h.
#include "caller_masks.h"

#include <algorithm>
#include <unordered_map>

#include "kavrin_perms.h"
#include "sibling_names.h"

namespace kvadmin {
namespace {

bool is_in(const Caller& caller, std::uint32_t gid) {
    return gid == caller.gid ||
           std::find(caller.groups.begin(), caller.groups.end(), gid) != caller.groups.end();
}

}  // namespace

bool is_skipped(const PermTree::Entry& entry, bool inherited) {
    return inherited && (entry.mask & KAVRIN_PERM_MASK_NAVIGATE) != 0;
}

bool groups_are_asked(std::uint32_t own_mask) {
    return own_mask == 0 || (own_mask & KAVRIN_PERM_MASK_NAVIGATE) != 0;
}

std::uint32_t mask_of(std::span<const PermTree::Entry> acl, bool inherited, const Caller& caller) {
    std::uint32_t mask = 0;
    for (const PermTree::Entry& entry : acl) {
        if (entry.is_group || entry.id != caller.uid || is_skipped(entry, inherited)) continue;
        mask = entry.mask;
        break;
    }
    if (!groups_are_asked(mask)) return mask;
    for (const PermTree::Entry& entry : acl) {
        if (entry.is_group && !is_skipped(entry, inherited) && is_in(caller, entry.id))
            mask |= entry.mask;
    }
    return mask;
}

CallerMasks::CallerMasks(const PermTree& tree, const Caller& caller) {
    work_out_acls(tree, caller);
    work_out_lookups(tree);
    masks_.resize(tree.size());
    for (PermTree::Id id = 0; id < tree.size(); ++id) {
        const auto [element, whole] = lookups_[id];
        if (element == PermTree::kNone) continue;
        // An element without children and the root are never found as exact matches.
        const bool exact = whole && element != PermTree::kRoot && !tree.childless(element);
        masks_[id] =
            exact && governing_[element] == element ? explicit_[element] : inherited_of(element);
    }
}

void CallerMasks::work_out_acls(const PermTree& tree, const Caller& caller) {
    governing_.resize(tree.size());
    explicit_.resize(tree.size());
    inherited_.resize(tree.size());
    for (PermTree::Id id = 0; id < tree.size(); ++id) {
        const auto acl = tree.acl(id);
        if (id != PermTree::kRoot && acl.empty()) {
            governing_[id] = governing_[tree.parent(id)];
            continue;
        }
        governing_[id] = id;
        explicit_[id] = mask_of(acl, false, caller);
        inherited_[id] = mask_of(acl, true, caller);
    }
}

void CallerMasks::work_out_lookups(const PermTree& tree) {
    const std::vector<PermTree::Id> first = first_siblings(tree);
    std::unordered_map<PermTree::Id, SiblingIndex> indexes;
    lookups_.resize(tree.size());
    lookups_[PermTree::kRoot] = {PermTree::kRoot, true};
    for (PermTree::Id id = 1; id < tree.size(); ++id) {
        const PermTree::Id parent = tree.parent(id);
        const Lookup above = lookups_[parent];
        if (first[id] == PermTree::kNone || above.element == PermTree::kNone) {
            lookups_[id] = {PermTree::kNone, false};
        } else if (above.element == parent) {
            lookups_[id] = {first[id], true};
        } else {
            // Below a folder that is hidden by a sibling: the way goes on below the sibling.
            PermTree::Id found = PermTree::kNone;
            if (above.whole && !tree.childless(above.element))
                found = indexes.try_emplace(above.element, tree, above.element)
                            .first->second.find(tree.name(id));
            lookups_[id] =
                found != PermTree::kNone ? Lookup{found, true} : Lookup{above.element, false};
        }
    }
}

}  // namespace kvadmin
