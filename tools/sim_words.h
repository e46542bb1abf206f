// A line of a script as words, each with its column.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "sim_script.h"

namespace kvadmin {

struct SimWord {
    std::string text;
    std::size_t column = 1;  // where it begins, in bytes from 1
    bool quoted = false;
};

struct SimLine {
    std::vector<SimWord> words;
    std::string text;              // without comment and blanks around it
    std::vector<SimError> errors;  // at most one: the rest of the line cannot be told then
};

SimLine split_sim_line(std::string_view line, std::size_t number);

}  // namespace kvadmin
