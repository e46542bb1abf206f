// kavrinctl events cat and audit cat: the messages of pending and audit files, in the order in
// which they lie there.
#include <memory>
#include <type_traits>

#include "command.h"
#include "event_filter.h"
#include "event_text.h"
#include "pending_folder.h"

namespace kvadmin {
namespace {

struct Options {
    std::vector<std::string> arguments;
    EventFilter filter;
    bool json = false;
};

template <typename Message>
Exit show(Options& options) {
    options.filter.prepare(std::is_same_v<Message, AuditEvent>);
    MessagePrinter<Message> printer(options.json);
    RecordInput input;
    for (const RecordPath& file : input.files(options.arguments)) {
        input.read<Message>(file, [&](const Message& message) {
            if (options.filter.shows(message)) printer.print(message);
        });
    }
    return input.exit();
}

// What the two commands share.
template <typename Message>
void add_cat(CLI::App& command, const char* files) {
    const auto options = std::make_shared<Options>();
    command.add_option("files", options->arguments, files)->required();
    if constexpr (std::is_same_v<Message, VFSEvent>) options->filter.add_event_options(command);
    options->filter.add_common_options(command);
    command.add_flag("--json", options->json, "Print one JSON object a line instead of a table");
    on_run(command, [options] { return show<Message>(*options); });
}

}  // namespace

void register_events_cat(CLI::App& events) {
    add_cat<VFSEvent>(*events.add_subcommand("cat", "Show the events of pending files"),
                      "Files of events, and folders, which stand for their pending files");
}

void register_audit_cat(CLI::App& audit) {
    add_cat<AuditEvent>(*audit.add_subcommand("cat", "Show the reads that audit files hold"),
                        "Audit files, and folders, which stand for those in them");
}

}  // namespace kvadmin
