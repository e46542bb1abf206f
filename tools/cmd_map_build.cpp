// kavrinctl map build and map load: the command line around map_publish.h.
#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "command.h"
#include "map_publish.h"
#include "terminal.h"
#include "utf8.h"

namespace kvadmin {
namespace {

// What filling an image takes on top of the data file, which is read as a whole: far more than it
// was ever seen to need, far less than would hurt a file server.
constexpr std::uint64_t kSpareMiB = 256;
constexpr unsigned kDefaultSeconds = 600;
constexpr const char* kProgram = "kavrinctl";

struct Options {
    std::string size_path;
    std::string data_path;
    bool keep = false;
    bool json = false;
    std::optional<std::uint64_t> memory_mib;
    unsigned seconds = kDefaultSeconds;
};

std::uint64_t size_in_mib(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return 0;
    return static_cast<std::uint64_t>(st.st_size) >> 20;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void print(const PublishedMap& map, double seconds, bool json, std::string_view verb) {
    const MapRecord& record = map.record;
    if (!json) {
        fmt::print(
            "{} \"{}\", generation {}, as table {}: {} elements, {} ACEs, {} bytes, {:.2f} s\n",
            verb, printable(record.name), record.generation, map.table, record.elements,
            record.aces, record.bytes, seconds);
        return;
    }
    const nlohmann::ordered_json document{
        {"map", record.name},        {"number", record.number},
        {"version", record.version}, {"generation", record.generation},
        {"sha256", record.sha256},   {"elements", record.elements},
        {"aces", record.aces},       {"bytes", record.bytes},
        {"seconds", seconds},        {"table", map.table},
        {"segment", map.segment},    {"remarks", map.remarks}};
    fmt::print("{}\n",
               document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

Exit build(const Options& options) {
    require_root("map build");
    use_library();
    const auto start = std::chrono::steady_clock::now();
    BuildRequest request;
    request.size_path = options.size_path;
    request.data_path = options.data_path;
    request.built_by = kProgram;
    request.keep = options.keep;
    const std::uint64_t data_mib = size_in_mib(options.data_path);
    request.limits = {options.memory_mib.value_or(kSpareMiB + 2 * data_mib), options.seconds};
    struct stat st {};
    const bool known = stat(options.data_path.c_str(), &st) == 0;
    auto progress =
        std::make_unique<Progress>("checking", known ? static_cast<std::uint64_t>(st.st_size) : 0);
    request.on_checked_bytes = [&progress](std::uint64_t bytes) { progress->update(bytes); };
    request.on_step = [&progress](BuildStep step) {
        if (step == BuildStep::kChecked) progress.reset();
    };
    const PublishedMap map = build_map(request);
    print(map, seconds_since(start), options.json, "published");
    return Exit::kDone;
}

Exit load(const Options& options) {
    require_root("map load");
    use_library();
    const auto start = std::chrono::steady_clock::now();
    PublishOptions request;
    request.limits = {options.memory_mib.value_or(kSpareMiB), options.seconds};
    request.built_by = kProgram;
    const PublishedMap map = load_map(request);
    print(map, seconds_since(start), options.json, "loaded");
    return Exit::kDone;
}

void add_limits(CLI::App& command, Options& options, const std::string& memory_default) {
    command
        .add_option("--memory-limit", options.memory_mib,
                    "Private memory that filling the image may take, the image itself not "
                    "counted; 0: no limit (default: " +
                        memory_default + ")")
        ->type_name("MiB");
    command
        .add_option("--time-limit", options.seconds,
                    fmt::format("End a build that takes longer; 0: no limit (default: {})",
                                kDefaultSeconds))
        ->type_name("SECONDS");
    add_json_option(command, options.json);
}

}  // namespace

void register_map_build(CLI::App& map) {
    auto options = std::make_shared<Options>();
    CLI::App* command = map.add_subcommand(
        "build", "Check a pair of files, build the map from it and switch readers over");
    command->add_option("SIZE", options->size_path, "Size file")->required();
    command->add_option("DATA", options->data_path, "Data file")->required();
    command->add_flag("--keep", options->keep, "Leave both files where they are after success");
    add_limits(*command, *options, "256 and twice the data file's size");
    on_run(*command, [options] { return build(*options); });

    auto load_options = std::make_shared<Options>();
    CLI::App* load_command = map.add_subcommand(
        "load", "Switch readers over to the persisted map, as after a restart of the machine");
    add_limits(*load_command, *load_options, "256");
    on_run(*load_command, [load_options] { return load(*load_options); });
}

}  // namespace kvadmin
