// kavrinctl smb-sim: what users may do on a share, tried out by doing it, as the share's module
// does it. The command line; sim_script reads the script and sim_run carries it out.
#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "command.h"
#include "sim_run.h"
#include "sim_script.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Options {
    std::string script;
    SimSettings settings;
    bool times = false;
};

std::string read_script(const std::string& path) {
    errno = 0;
    std::ifstream in(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!in.is_open() || in.bad())
        fail(Exit::kFailure, "cannot read {}: {}", printable(path), std::strerror(errno));
    return text;
}

Exit simulate(const Options& options) {
    if (!options.settings.share.empty() && !options.settings.share.starts_with('/'))
        fail(Exit::kUsage, "--share: '{}' is not absolute", options.settings.share);
    // A script for a sandbox makes accounts and replaces the map.
    if (options.settings.sandboxed && std::getenv("KAVRIN_SANDBOX") == nullptr)
        fail(Exit::kUsage,
             "--sandboxed is for runs inside of 'scripts/sandbox': this machine's own accounts and "
             "map would be changed here");
    const SimLimits limits{options.settings.sandboxed, options.settings.share.empty(),
                           !options.settings.share.empty()};
    const SimScript script = parse_sim_script(read_script(options.script), limits);
    for (const SimError& error : script.errors)
        fmt::print(stderr, "{}:{}:{}: {}\n", printable(options.script), error.line, error.column,
                   printable(error.message));
    if (!script.errors.empty())
        fail(Exit::kInvalidInput, "the script has {} mistakes; nothing of it was run",
             script.errors.size());
    require_root("smb-sim");
    SimRun run(script, options.script, options.settings);
    return run.run(options.times) ? Exit::kDone : Exit::kFailure;
}

}  // namespace

void register_smb_sim(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "smb-sim", "Run a script of file operations on a share, as its users would");
    const auto options = std::make_shared<Options>();
    command->add_option("script", options->script, "The script")->required();
    command->add_option("--share", options->settings.share,
                        "The share's folder (default: a temporary one)");
    command->add_flag("--sandboxed", options->settings.sandboxed,
                      "The script may make accounts, group maps and maps; inside of "
                      "'scripts/sandbox' only");
    command->add_flag("--times", options->times, "Print the times of events");
    command->description(command->get_description() + "\n\nStatements:\n" + sim_statement_list());
    on_run(*command, [options] { return simulate(*options); });
}

}  // namespace kvadmin
