// kavrinctl events recover: gives the event store what flushes that died left behind. What is done
// with which file is event_recovery.h's; here it is told.
#include <fmt/format.h>

#include <memory>

#include "command.h"
#include "event_recovery.h"
#include "map_query.h"
#include "pending_folder.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Options {
    std::string folder;
    std::int64_t older_than = 10;
    bool dry_run = false;
    bool json = false;
};

std::string count(std::uint64_t number, const char* noun) {
    return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

// "publishes 3 records as pending_1700000000.000042".
std::string words_for(const TemporaryFile& file, const Options& options) {
    const std::string_view would = options.dry_run ? "would be " : "";
    const std::string records = count(file.records, "record");
    switch (file.fate) {
        case TemporaryFate::kPublished:
            return fmt::format("{}, {}published as {}", records, would, file.other);
        case TemporaryFate::kDuplicate:
            return fmt::format("{}, all of them in {} already; {}removed", records,
                               printable(file.other), would);
        case TemporaryFate::kEmpty:
            return fmt::format("empty; {}removed", would);
        case TemporaryFate::kTorn:
            return fmt::format("torn at {}; {}set aside as {} with {}, and the event store {}",
                               file.remark, would, printable(file.other),
                               count(file.records, "whole record"),
                               options.dry_run ? "told to rescan" : "was told to rescan");
        case TemporaryFate::kYoung:
            return fmt::format("left alone: it was written less than {} ago",
                               count(static_cast<std::uint64_t>(options.older_than), "second"));
        case TemporaryFate::kOpen:
            return "left alone: a process has it open for writing";
        case TemporaryFate::kFailed:
            break;
    }
    return "left as it is: " + printable(file.remark);
}

void print_text(const RecoveryReport& report, const Options& options) {
    for (const TemporaryFile& file : report.files)
        fmt::print("{}: {}\n", printable(file.name), words_for(file, options));
    if (report.files.empty())
        fmt::print("no temporary files of events in {}\n", printable(options.folder));
}

void print_document(const RecoveryReport& report, const Options& options) {
    nlohmann::json files = nlohmann::json::array();
    for (const TemporaryFile& file : report.files) {
        nlohmann::json entry = {{"name", file.name},
                                {"fate", fate_name(file.fate)},
                                {"bytes", file.bytes},
                                {"records", file.records}};
        if (!file.other.empty())
            entry[file.fate == TemporaryFate::kDuplicate ? "copy_of" : "new_name"] = file.other;
        if (!file.remark.empty()) entry["remark"] = file.remark;
        files.push_back(std::move(entry));
    }
    print_json({{"folder", options.folder}, {"dry_run", options.dry_run}, {"files", files}});
}

Exit exit_for(const RecoveryReport& report) {
    Exit result = Exit::kDone;
    for (const TemporaryFile& file : report.files) {
        if (file.fate == TemporaryFate::kTorn) return Exit::kInvalidInput;
        if (file.fate == TemporaryFate::kFailed) result = Exit::kFailure;
    }
    return result;
}

Exit recover(Options& options) {
    require_root("events recover");
    options.folder = staging_folder(options.folder);
    const RecoveryReport report =
        recover_events(options.folder, {std::chrono::seconds(options.older_than), options.dry_run});
    if (!report.error.empty()) fail(Exit::kFailure, "{}", printable(report.error));
    if (options.json)
        print_document(report, options);
    else
        print_text(report, options);
    return exit_for(report);
}

}  // namespace

void register_events_recover(CLI::App& events) {
    CLI::App* command =
        events.add_subcommand("recover", "Give the event store what flushes that died left behind");
    const auto options = std::make_shared<Options>();
    command->add_option("folder", options->folder,
                        "The folder (default: the staging folder of the configuration table)");
    command
        ->add_option("--older-than", options->older_than,
                     "Leave files alone that were written later than so many seconds ago (default: "
                     "10)")
        ->check(CLI::Range(std::int64_t{0}, std::int64_t{INT32_MAX}));
    command->add_flag("--dry-run", options->dry_run, "Only tell what would be done");
    add_json_option(*command, options->json);
    on_run(*command, [options] { return recover(*options); });
}

}  // namespace kvadmin
