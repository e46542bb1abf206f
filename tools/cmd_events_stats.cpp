// kavrinctl events stats: what pending files hold, counted by type, user and folder.
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <unordered_map>

#include "command.h"
#include "event_text.h"
#include "kavrin_utils.h"
#include "map_query.h"
#include "pending_folder.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Options {
    std::vector<std::string> arguments;
    std::size_t top = 10;
    bool json = false;
};

using Counts = std::unordered_map<std::string, std::uint64_t>;
using Count = std::pair<std::string, std::uint64_t>;
using Moment = std::pair<std::int64_t, std::int64_t>;

struct Totals {
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;  // of whole records
    Counts types;
    Counts users;
    Counts folders;
    Moment first{INT64_MAX, 0};
    Moment last{INT64_MIN, 0};

    void add(const VFSEvent& event) {
        ++records;
        ++types[event_type(event.optype)];
        ++users[event_user(event)];
        const std::unique_ptr<char, void (*)(void*)> parent(parent_dir_from_path(event.path),
                                                            std::free);
        ++folders[parent == nullptr ? "" : parent.get()];
        const Moment when(event.time_sec, event.time_usec);
        first = std::min(first, when);
        last = std::max(last, when);
    }
};

// The largest first, equal ones in alphabetical order.
std::vector<Count> largest(const Counts& counts, std::size_t limit) {
    std::vector<Count> sorted(counts.begin(), counts.end());
    std::sort(sorted.begin(), sorted.end(), [](const Count& left, const Count& right) {
        return left.second == right.second ? left.first < right.first : left.second > right.second;
    });
    sorted.resize(std::min(limit, sorted.size()));
    return sorted;
}

void print_counts(std::string_view title, const Counts& counts, std::size_t limit) {
    const std::vector<Count> shown = largest(counts, limit);
    fmt::print("\n{}\n", title);
    for (const auto& [name, count] : shown)
        fmt::print("{:>12}  {}\n", count, name.empty() ? "(top level)" : printable(name));
    if (shown.size() < counts.size())
        fmt::print("{:>12}  more; see --top\n", counts.size() - shown.size());
}

void print_text(const Totals& totals, const RecordInput& input, const Options& options) {
    fmt::print("files       {}\n", input.files_read());
    if (input.damaged() > 0) fmt::print("damaged     {}\n", input.damaged());
    fmt::print("bytes       {}\n", totals.bytes);
    fmt::print("records     {}\n", totals.records);
    if (totals.records == 0) return;
    fmt::print("first       {}\n", local_time(totals.first.first, totals.first.second));
    fmt::print("last        {}\n", local_time(totals.last.first, totals.last.second));
    print_counts("by type", totals.types, totals.types.size());
    print_counts("by user", totals.users, totals.users.size());
    print_counts("by folder", totals.folders, options.top);
}

nlohmann::json counts_document(const char* key, const Counts& counts, std::size_t limit) {
    nlohmann::json document = nlohmann::json::array();
    for (const auto& [name, count] : largest(counts, limit))
        document.push_back({{key, name}, {"records", count}});
    return document;
}

nlohmann::json moment_document(const Moment& moment) {
    return {{"time_sec", moment.first}, {"time_usec", moment.second}};
}

void print_document(const Totals& totals, const RecordInput& input, const Options& options) {
    nlohmann::json document = {
        {"files", input.files_read()},
        {"damaged", input.damaged()},
        {"bytes", totals.bytes},
        {"records", totals.records},
        {"types", counts_document("type", totals.types, totals.types.size())},
        {"users", counts_document("user", totals.users, totals.users.size())},
        {"folders", counts_document("folder", totals.folders, options.top)},
        {"folders_total", totals.folders.size()}};
    if (totals.records > 0) {
        document["first"] = moment_document(totals.first);
        document["last"] = moment_document(totals.last);
    }
    print_json(document);
}

Exit count(const Options& options) {
    use_library();  // it knows what a path's folder is
    Totals totals;
    RecordInput input;
    for (const RecordPath& file : input.files(options.arguments)) {
        const RecordWalk walk =
            input.read<VFSEvent>(file, [&](const VFSEvent& event) { totals.add(event); });
        totals.bytes += walk.end;
    }
    if (options.json)
        print_document(totals, input, options);
    else
        print_text(totals, input, options);
    return input.exit();
}

}  // namespace

void register_events_stats(CLI::App& events) {
    CLI::App* command = events.add_subcommand(
        "stats", "Count the events of pending files by type, user and folder");
    const auto options = std::make_shared<Options>();
    command
        ->add_option("files", options->arguments,
                     "Files of events, and folders, which stand for their pending files")
        ->required();
    command->add_option("--top", options->top, "Show so many folders (default: 10)")
        ->check(CLI::NonNegativeNumber);
    add_json_option(*command, options->json);
    on_run(*command, [options] { return count(*options); });
}

}  // namespace kvadmin
