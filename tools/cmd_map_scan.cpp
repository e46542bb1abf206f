// kavrinctl map scan: a pair of JSON files from a real tree. What the walk finds is tree_scan's
// concern and the files are pair_writer's; here stand the command line, the order in which the
// files appear, and the summary.
#include <fmt/core.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "command.h"
#include "mkperms_shm.h"
#include "tree_scan.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr std::size_t kLongestMapName = MAXMAP_NAMELEN - 1;
// Below the largest number: whatever does not fit is read as that one.
constexpr std::int64_t kLatestTime = INT64_MAX - 1;

struct Options {
    std::string folder;
    std::vector<std::string> output;
    std::string name;
    std::uint32_t generation = 1;
    std::int64_t timestamp = -1;
    bool keep_going = false;
    bool json = false;
};

volatile std::sig_atomic_t interrupted = 0;

// While one lives, an interrupt ends the walk at the next element, so that no temporary file stays.
class InterruptWatch {
public:
    InterruptWatch() {
        struct sigaction action {};
        action.sa_handler = [](int) { interrupted = 1; };
        action.sa_flags = SA_RESTART;
        for (std::size_t i = 0; i < std::size(kSignals); ++i)
            sigaction(kSignals[i], &action, &before_[i]);
    }
    ~InterruptWatch() {
        for (std::size_t i = 0; i < std::size(kSignals); ++i)
            sigaction(kSignals[i], &before_[i], nullptr);
    }
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;

private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
    struct sigaction before_[std::size(kSignals)]{};
};

// Each open folder of a walk holds a descriptor, and trees may be deeper than the usual limit.
void raise_descriptor_limit() {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// The base name of the folder, cut to what fits at the end of a character.
std::string default_name(const std::string& folder) {
    std::error_code error;
    std::string base = std::filesystem::canonical(folder, error).filename().string();
    if (base.empty() || !is_utf8(base)) return "scan";
    std::string_view rest = base;
    std::size_t kept = 0;
    while (!rest.empty() && kept + utf8_length(rest) <= kLongestMapName) {
        kept += utf8_length(rest);
        rest.remove_prefix(utf8_length(rest));
    }
    return base.substr(0, kept);
}

MapIdentity identity(const Options& options) {
    MapIdentity map;
    map.name = options.name.empty() ? default_name(options.folder) : options.name;
    if (map.name.size() > kLongestMapName)
        fail(Exit::kUsage, "--name has {} bytes; a map's name has at most {}", map.name.size(),
             kLongestMapName);
    if (!is_utf8(map.name)) fail(Exit::kUsage, "--name is not valid UTF-8");
    map.generation = options.generation;
    map.timestamp = options.timestamp >= 0 ? options.timestamp : std::time(nullptr);
    return map;
}

struct Summary {
    ScanResult result;
    PairCounts counts;
    std::uint64_t data_bytes;
    double seconds;
};

void report_left_out(const ScanResult& result) {
    if (result.links + result.special > 0)
        note(
            fmt::format("left out {} symbolic links and {} devices, sockets and fifos: a map "
                        "holds folders and regular files",
                        result.links, result.special));
    if (result.names > 0)
        note(fmt::format("left out {} elements whose names no map can hold", result.names));
    if (result.twins > kReportedTwins)
        note(fmt::format("{} more elements differ from a sibling only by letter case",
                         result.twins - kReportedTwins));
    if (!result.has_shared)
        note(
            "no folder named Shared at the top level: verdicts use ACLs only there and below, so "
            "this map gives nobody any right");
}

void report_summary(const Summary& summary) {
    note(fmt::format("{} elements, {} ACEs, {} bytes of data for an image of {} bytes, {:.2f} s",
                     summary.counts.elements, summary.counts.aces, summary.data_bytes,
                     summary.counts.image_bytes(), summary.seconds));
}

void print_json(const Options& options, const Summary& summary, bool written) {
    const ScanResult& result = summary.result;
    const auto replace = nlohmann::ordered_json::error_handler_t::replace;
    const nlohmann::ordered_json document = {
        {"written", written},
        {"size_file", options.output[0]},
        {"data_file", options.output[1]},
        {"elements", summary.counts.elements},
        {"folders", result.folders},
        {"files", result.files},
        {"aces", summary.counts.aces},
        {"name_bytes", summary.counts.name_bytes},
        {"data_bytes", summary.data_bytes},
        {"image_bytes", summary.counts.image_bytes()},
        {"left_out",
         {{"links", result.links}, {"special", result.special}, {"names", result.names}}},
        {"twins", result.twins},
        {"unreadable", result.unreadable},
        {"seconds", summary.seconds}};
    fmt::print("{}\n", document.dump(2, ' ', false, replace));
}

// The data file first: whoever waits for the size file then finds its data there.
void put_in_place(PendingFile& size_file, PendingFile& data_file) {
    data_file.put_in_place();
    try {
        size_file.put_in_place();
    } catch (CommandError& error) {
        error.message += "; the data file is the new one already, so scan again before loading";
        throw;
    }
}

Exit scan(const Options& options) {
    if (options.output[0] == options.output[1])
        fail(Exit::kUsage, "the size file and the data file are both '{}'", options.output[0]);
    const MapIdentity map = identity(options);
    const InterruptWatch watch;
    raise_descriptor_limit();
    const auto start = std::chrono::steady_clock::now();

    PendingFile size_file(options.output[0]);
    PendingFile data_file(options.output[1]);
    DataWriter writer(data_file);
    ScanRequest request;
    request.folder = options.folder;
    request.leave_out = {&size_file, &data_file};
    request.report = note;
    request.progress = [](std::uint64_t elements) {
        if (interrupted != 0) fail(Exit::kFailure, "interrupted after {} elements", elements);
    };
    const ScanResult result = scan_tree(request, writer);
    writer.end_document();
    write_size_file(size_file, map, writer.counts());
    data_file.complete();
    size_file.complete();

    // What lies below an unreadable folder would fall to that folder's ACL: nobody gets that
    // without asking for it.
    const bool written = result.unreadable == 0 || options.keep_going;
    if (written) put_in_place(size_file, data_file);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    const Summary summary{result, writer.counts(), data_file.bytes(), taken.count()};
    report_left_out(result);
    report_summary(summary);
    if (options.json) print_json(options, summary, written);
    if (!written)
        fail(Exit::kFailure,
             "{} entries could not be read and no file was written; run it as root, or accept them "
             "as empty with --keep-going",
             result.unreadable);
    return Exit::kDone;
}

}  // namespace

void register_map_scan(CLI::App& map) {
    CLI::App* command = map.add_subcommand(
        "scan", "Write the pair of JSON files that describes a real folder tree");
    const auto options = std::make_shared<Options>();
    command->add_option("folder", options->folder, "The folder that becomes the share's root")
        ->required();
    command
        ->add_option("-o,--output", options->output,
                     "The size file and the data file to write, in this order")
        ->expected(2)
        ->required();
    command->add_option("--name", options->name,
                        "The map's name, at most 31 bytes (default: the folder's base name)");
    command->add_option("--generation", options->generation, "The map's generation number")
        ->capture_default_str();
    command
        ->add_option("--timestamp", options->timestamp,
                     "The map's time in seconds since 1970 (default: now)")
        ->check(CLI::Range(std::int64_t{0}, kLatestTime).description(""));
    command->add_flag("--keep-going", options->keep_going,
                      "Write the pair also when something could not be read, as if it were empty");
    add_json_option(*command, options->json);
    on_run(*command, [options] { return scan(*options); });
}

}  // namespace kvadmin
