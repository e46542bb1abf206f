// kavrinctl audit cat: who read what, from audit files.
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
    options.filter.prepare(true);
    MessagePrinter<AuditEvent> printer(options.json);
    RecordInput input;
    for (const RecordPath& file : input.files(options.arguments)) {
        input.read<AuditEvent>(file, [&](const AuditEvent& event) {
            if (options.filter.shows(event)) printer.print(event);
        });
    }
    return input.exit();
}

}  // namespace

void register_audit_cat(CLI::App& audit) {
    CLI::App* command = audit.add_subcommand("cat", "Show the reads that audit files hold");
    const auto options = std::make_shared<Options>();
    command
        ->add_option("files", options->arguments,
                     "Audit files, and folders, which stand for those in them")
        ->required();
    options->filter.add_common_options(*command);
    command->add_flag("--json", options->json, "Print one JSON object a line instead of a table");
    on_run(*command, [options] { return show(*options); });
}

}  // namespace kavrinctl
