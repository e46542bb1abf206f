// A map as a person names it on the command line of `map diff`: live, persisted, kept:N, an image
// file, or a pair of JSON files written SIZE,DATA.
#pragma once

#include <string>

#include "perm_tree.h"

namespace kvadmin {

struct ChosenMap {
    std::string title;  // "the live map (table 0)", "kept map 4", the file, the pair
    PermTree tree;
};

// `command` names who asks for the live map, which is root's.
ChosenMap choose_map(const std::string& text, std::string_view command);

}  // namespace kvadmin
