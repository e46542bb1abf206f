// Runs kavrinctl as a user would, in a child process of its own: arguments in, exit code and both
// streams out.
#pragma once

#include <string>
#include <vector>

#include "command.h"
#include "support.h"

namespace kvtest {

inline ChildResult run_tool(const std::vector<std::string>& arguments) {
    return run_child([&] {
        std::vector<const char*> words{"kavrinctl"};
        for (const std::string& argument : arguments) words.push_back(argument.c_str());
        return kvadmin::run(static_cast<int>(words.size()), words.data());
    });
}

}  // namespace kvtest
