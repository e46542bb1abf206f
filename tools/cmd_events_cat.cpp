// kavrinctl events cat: the events of pending files, in the order in which they lie there.
#include <memory>

#include "command.h"
#include "event_filter.h"
#include "event_text.h"
#include "pending_folder.h"

namespace kavrinctl {
namespace {

struct Options {
    std::vector<std::string> arguments;
    EventFilter filter;
    bool json = false;
};

Exit show(Options& options) {
    options.filter.prepare();
    MessagePrinter<VFSEvent> printer(options.json);
    RecordInput input;
    for (const RecordPath& file : input.files(options.arguments)) {
        input.read<VFSEvent>(file, [&](const VFSEvent& event) {
            if (options.filter.shows(event)) printer.print(event);
        });
    }
    return input.exit();
}

}  // namespace

void register_events_cat(CLI::App& events) {
    CLI::App* command = events.add_subcommand("cat", "Show the events of pending files");
    const auto options = std::make_shared<Options>();
    command
        ->add_option("files", options->arguments,
                     "Files of events, and folders, which stand for their pending files")
        ->required();
    options->filter.add_event_options(*command);
    options->filter.add_common_options(*command);
    command->add_flag("--json", options->json, "Print one JSON object a line instead of a table");
    on_run(*command, [options] { return show(*options); });
}

}  // namespace kavrinctl
