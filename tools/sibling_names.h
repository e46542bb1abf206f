// Which child of a folder a name leads to, by the rules of the lookup that verdicts use: letter
// case does not matter, and of several siblings that a name fits only the first is ever found. The
// others, and elements whose names no path can hold, are in a map without governing anything.
#pragma once

#include <string_view>
#include <vector>

#include "perm_tree.h"

namespace kvadmin {

class SiblingIndex {
public:
    SiblingIndex(const PermTree& tree, PermTree::Id folder);

    // The child that a lookup of `name` finds, or kNone.
    PermTree::Id find(std::string_view name) const;

private:
    friend std::vector<PermTree::Id> first_siblings(const PermTree& tree);

    struct Key {
        std::uint32_t hash;
        std::uint32_t length;
        PermTree::Id child;
    };
    static bool before(const Key& a, const Key& b);

    const PermTree& tree_;
    std::vector<Key> keys_;  // by hash and length, then in the order of the children
};

// Whether a path can hold the name as one component.
bool can_be_in_a_path(std::string_view name);

// By element: the sibling, mostly itself, that a lookup of its name finds in its folder; kNone for
// a name that no path can hold.
std::vector<PermTree::Id> first_siblings(const PermTree& tree);

}  // namespace kvadmin
