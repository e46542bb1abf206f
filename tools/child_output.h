// What another program, or a piece of work that may end its process, says: it runs in a child with
// a time limit.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace kvadmin {

struct ProgramOutput {
    std::string text;   // its standard output
    bool done = false;  // it ended with exit code 0 within the limit
};

// Runs a program by its path, standard input and standard error closed off.
ProgramOutput run_program(const std::vector<std::string>& arguments, std::chrono::seconds limit);

// Runs `body` in a child; what it returns is the text.
ProgramOutput run_apart(const std::function<std::string()>& body, std::chrono::seconds limit);

}  // namespace kvadmin
