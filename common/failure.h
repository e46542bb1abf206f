// The one way to fail, for the tool and the service: a result code and one message that says what
// is wrong, where, and what to do about it. The tool prints it and exits with the code; the service
// writes it down and goes on.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

namespace kvadmin {

// The same for every command, and stated in the help.
enum class Exit : int {
    kDone = 0,          // done, or allowed
    kFailure = 1,       // the machine refused: I/O, permissions, nothing loaded
    kDenied = 2,        // the verdict is a denial
    kInvalidInput = 3,  // a file or image breaks its format
    kUsage = 64         // the command line is wrong
};

struct CommandError {
    Exit code;
    std::string message;
    bool busy = false;  // somebody else is at it: the same may succeed later
};

template <typename... Args>
[[noreturn]] void fail(Exit code, fmt::format_string<Args...> format, Args&&... args) {
    throw CommandError{code, fmt::format(format, std::forward<Args>(args)...)};
}

// What messages begin with: the program's name.
inline const char* program_name = "kavrinctl";

// A warning or remark on standard error, prefixed with the program's name like an error.
void note(std::string_view message);

// Refuses to go on without root, naming who asks.
void require_root(std::string_view who);

}  // namespace kvadmin
