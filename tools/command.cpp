// The frame of kavrinctl: the command tree and the way out of it.
#include "command.h"

#include <cstdio>
#include <exception>

namespace kvadmin {
namespace {

Exit chosen_exit = Exit::kDone;

constexpr const char* kFooter =
    "\nExit codes: 0 done or allowed, 1 failure, 2 denied or errors found, 3 input invalid, 64 "
    "usage.";

void give_footer(CLI::App& app) {
    app.footer(kFooter);
    for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) give_footer(*sub);
}

}  // namespace

void on_run(CLI::App& command, std::function<Exit()> body) {
    command.callback([body = std::move(body)] { chosen_exit = body(); });
}

void add_json_option(CLI::App& command, bool& json) {
    command.add_flag("--json", json, "Print one JSON document instead of text");
}

int run(int argc, const char* const* argv) {
    CLI::App app{"kavrinctl: permission maps of a kavrin share, and the verdicts they give",
                 "kavrinctl"};
    app.set_version_flag("--version", "kavrinctl " KAVRIN_VERSION);
    app.require_subcommand(1);

    CLI::App* map = app.add_subcommand("map", "Make, check, load and read permission maps");
    map->require_subcommand(1);
    register_map_scan(*map);
    register_map_lint(*map);
    register_map_build(*map);
    register_map_verify(*map);
    register_map_info(*map);
    register_map_tree(*map);
    register_map_acl(*map);
    register_map_diff(*map);
    register_map_apply(*map);
    register_status(app);
    register_doctor(app);
    register_check(app);
    register_who_can(app);
    register_access(app);
    register_config(app);
    register_config_debug_level(*app.get_subcommand("config"));
    register_smb_sim(app);
    CLI::App* groupmap = app.add_subcommand("groupmap", "Make, check and read the group map");
    groupmap->require_subcommand(1);
    register_groupmap_build(*groupmap);
    register_groupmap_show(*groupmap);
    register_groupmap_lint(*groupmap);
    CLI::App* events = app.add_subcommand("events", "Read the events of pending files");
    events->require_subcommand(1);
    register_events_cat(*events);
    register_events_tail(*events);
    register_events_stats(*events);
    register_events_recover(*events);
    register_events_flush(*events);
    CLI::App* audit = app.add_subcommand("audit", "Read audit files");
    audit->require_subcommand(1);
    register_audit_cat(*audit);
    give_footer(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
            return app.exit(error);  // --help, --version
        note(fmt::format("{}; see 'kavrinctl --help'", error.what()));
        return static_cast<int>(Exit::kUsage);
    } catch (const CommandError& error) {
        std::fflush(stdout);
        note(error.message);
        return static_cast<int>(error.code);
    } catch (const std::exception& error) {
        note(fmt::format("unexpected failure: {}", error.what()));
        return static_cast<int>(Exit::kFailure);
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        note("cannot write the result to standard output; is its disk full?");
        return static_cast<int>(Exit::kFailure);
    }
    return static_cast<int>(chosen_exit);
}

}  // namespace kvadmin
