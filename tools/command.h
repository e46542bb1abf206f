// What every sub-command of kavrinctl shares: exit codes, the one way to fail, and how a command
// is put into the command tree. A command parses nothing itself (CLI11 does), prints its result to
// standard output and everything else to standard error.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace kavrinctl {

// The same for every command, and stated in the help.
enum class Exit : int {
    kDone = 0,          // done, or allowed
    kFailure = 1,       // the machine refused: I/O, permissions, nothing loaded
    kDenied = 2,        // the verdict is a denial
    kInvalidInput = 3,  // a file or image breaks its format
    kUsage = 64         // the command line is wrong
};

// Ends the command: main() prints the message as one line on standard error and exits with the
// code. A message says what is wrong, where, and what to do about it.
struct CommandError {
    Exit code;
    std::string message;
};

template <typename... Args>
[[noreturn]] void fail(Exit code, fmt::format_string<Args...> format, Args&&... args) {
    throw CommandError{code, fmt::format(format, std::forward<Args>(args)...)};
}

// A warning or remark on standard error, prefixed like an error.
void note(std::string_view message);

// Lets `command` run `body` when it is the one chosen; its result is kavrinctl's exit code.
void on_run(CLI::App& command, std::function<Exit()> body);

// Adds --json to a command that reads.
void add_json_option(CLI::App& command, bool& json);

// Makes the library usable: a copy of the shared configuration table when there is one, else a
// private table with every value zero. Never creates a System V object. `debug_level` replaces the
// table's level, so that a command traces only when it is told to.
void use_library(int debug_level = -1);

// Refuses to go on without root, naming the command.
void require_root(std::string_view command);

// One function a file; each adds its command to the tree.
void register_map_scan(CLI::App& map);
void register_map_lint(CLI::App& map);
void register_map_build(CLI::App& map);  // build and load
void register_map_verify(CLI::App& map);
void register_map_info(CLI::App& map);
void register_map_tree(CLI::App& map);
void register_map_acl(CLI::App& map);
void register_check(CLI::App& app);
void register_config(CLI::App& app);
void register_smb_sim(CLI::App& app);
void register_events_cat(CLI::App& events);
void register_events_tail(CLI::App& events);
void register_events_stats(CLI::App& events);
void register_events_recover(CLI::App& events);
void register_audit_cat(CLI::App& audit);
void register_groupmap_build(CLI::App& groupmap);
void register_groupmap_show(CLI::App& groupmap);
void register_groupmap_lint(CLI::App& groupmap);

// The whole program: builds the tree, parses, runs, reports. Returns the exit code.
int run(int argc, const char* const* argv);

}  // namespace kavrinctl
