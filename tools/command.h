// What every sub-command of kavrinctl shares: exit codes, the one way to fail, and how a command
// is put into the command tree. A command parses nothing itself (CLI11 does), prints its result to
// standard output and everything else to standard error.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <string_view>

#include "failure.h"
#include "use_library.h"

namespace kvadmin {

// Lets `command` run `body` when it is the one chosen; its result is kavrinctl's exit code.
void on_run(CLI::App& command, std::function<Exit()> body);

// Adds --json to a command that reads.
void add_json_option(CLI::App& command, bool& json);

// Adds --socket to a command that asks the service.
void add_socket_option(CLI::App& command, std::string& socket);

// One function a file; each adds its command to the tree.
void register_map_scan(CLI::App& map);
void register_map_lint(CLI::App& map);
void register_map_build(CLI::App& map);  // build and load
void register_map_verify(CLI::App& map);
void register_map_info(CLI::App& map);
void register_map_tree(CLI::App& map);
void register_map_apply(CLI::App& map);  // apply, reload, rollback and history
void register_status(CLI::App& app);
void register_doctor(CLI::App& app);
void register_events_flush(CLI::App& events);
void register_config_debug_level(CLI::App& config);
void register_map_acl(CLI::App& map);
void register_map_diff(CLI::App& map);
void register_who_can(CLI::App& app);
void register_access(CLI::App& app);
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

}  // namespace kvadmin
