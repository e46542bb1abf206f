// Random maps for the tests that hold one judgement of rights against another: names that differ in
// letter case alone or outside ASCII, ACLs of every shape, names that clients keep for themselves.
// The seeds are the tests', so a failure can be had again.
#pragma once

#include <string>
#include <vector>

#include "chance.h"
#include "support.h"

namespace kvtest {

inline const std::vector<std::uint32_t> kMapUsers = {2001, 2002, 2003, 2004};
inline const std::vector<std::uint32_t> kMapGroups = {7003, 7004, 7005, 7100};

inline void fill_random_acl(Chance& dice, Node& node) {
    static const std::vector<std::uint32_t> masks = {0,  1,  3, 7,  7, 8, 8, 8,
                                                     16, 16, 9, 24, 2, 4, 6, 31};
    node.users.clear();
    node.groups.clear();
    if (dice.one_in(3)) return;
    for (unsigned n = dice.below(4); n > 0; --n)
        node.users.emplace_back(dice.of(kMapUsers), dice.of(masks));
    for (unsigned n = dice.below(4); n > 0; --n)
        node.groups.emplace_back(dice.of(kMapGroups), dice.of(masks));
}

inline void add_random_children(Chance& dice, Node& node, unsigned depth, unsigned most) {
    static const std::vector<std::string> names = {
        "Docs",  "docs2",       "Plan",         "a",
        "A b",   "report.txt",  "x.y.z",        "deep",
        "_",     "Caf\xc3\xa9", "\xc3\x84rger", "na\xc3\xafve",
        ".sb-1", ".DS_Store",   "u2001",        "u2002",
        "*",     "NeW"};
    if (depth == 0) return;
    for (unsigned n = dice.below(most + 1); n > 0; --n) {
        Node child{dice.recased(dice.of(names)), {}, {}, {}};
        fill_random_acl(dice, child);
        add_random_children(dice, child, depth - 1, most);
        node.children.push_back(std::move(child));
    }
}

inline Node random_map(Chance& dice) {
    Node root{"/", {}, {}, {}};
    fill_random_acl(dice, root);
    for (const char* name : {"Shared", "Private", "Shared"}) {
        if (dice.one_in(4)) continue;
        Node top{dice.one_in(2) ? name : dice.recased(name), {}, {}, {}};
        fill_random_acl(dice, top);
        add_random_children(dice, top, 2 + dice.below(3), 2 + dice.below(4));
        root.children.push_back(std::move(top));
    }
    add_random_children(dice, root, 2, 2);
    return root;
}

}  // namespace kvtest
