// kavrinctl events tail: the last events of the staging folder, and those that come.
#include <deque>
#include <memory>
#include <optional>

#include "command.h"
#include "event_follow.h"
#include "event_text.h"
#include "pending_folder.h"

namespace kvadmin {
namespace {

struct Options {
    std::string folder;
    std::size_t count = 10;
    bool follow = false;
    bool json = false;
};

using Lines = std::deque<std::string>;

// The last `count` events of one file.
Lines last_lines(const RecordPath& file, std::size_t count, RecordInput& input,
                 const MessagePrinter<VFSEvent>& printer) {
    Lines lines;
    input.read<VFSEvent>(file, [&](const VFSEvent& event) {
        lines.push_back(printer.line(event));
        if (lines.size() > count) lines.pop_front();
    });
    return lines;
}

// Prints the last events of the files that there are, and takes all of them for read.
void print_last(const Options& options, RecordInput& input, PendingFollower* follower,
                MessagePrinter<VFSEvent>& printer) {
    const std::vector<std::string> names = pending_names(options.folder);
    if (follower != nullptr)
        for (const std::string& name : names) follower->pass(name);
    Lines lines;
    for (auto name = names.rbegin(); name != names.rend() && lines.size() < options.count; ++name) {
        const Lines earlier = last_lines({options.folder + "/" + *name, true},
                                         options.count - lines.size(), input, printer);
        lines.insert(lines.begin(), earlier.begin(), earlier.end());
    }
    for (const std::string& line : lines) printer.print_line(line);
    std::fflush(stdout);
}

Exit tail(Options& options) {
    options.folder = staging_folder(options.folder);
    RecordInput input;
    MessagePrinter<VFSEvent> printer(options.json);
    std::optional<PendingFollower> follower;
    if (options.follow) follower.emplace(options.folder, input);
    print_last(options, input, follower ? &*follower : nullptr, printer);
    if (follower) follower->follow([&](const VFSEvent& event) { printer.print(event); });
    return input.exit();
}

}  // namespace

void register_events_tail(CLI::App& events) {
    CLI::App* command =
        events.add_subcommand("tail", "Show the last events of the staging folder, and what comes");
    const auto options = std::make_shared<Options>();
    command->add_option("folder", options->folder,
                        "The folder (default: the staging folder of the configuration table)");
    command->add_option("-n,--lines", options->count, "Show so many events (default: 10)")
        ->check(CLI::NonNegativeNumber);
    command->add_flag("-f,--follow", options->follow, "Go on with the events that come");
    command->add_flag("--json", options->json, "Print one JSON object a line instead of a table");
    on_run(*command, [options] { return tail(*options); });
}

}  // namespace kvadmin
