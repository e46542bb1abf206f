// The commands that ask the service for work: map apply, map reload, map rollback, events flush and
// config debug-level. And map history, which reads the kept maps itself, so that it answers without
// the service, too.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include "command.h"
#include "kept_maps.h"
#include "map_query.h"
#include "map_source.h"
#include "service_client.h"
#include "utf8.h"

namespace kvadmin {
namespace {

using Json = nlohmann::json;

// A flush writes and syncs one file; a level is one number.
constexpr std::chrono::seconds kLimit{60};

struct Options {
    std::string socket;
    std::string size_path;
    std::string data_path;
    std::optional<unsigned> number;
    int level = 0;
    bool wait = false;
    bool json = false;
};
using SharedOptions = std::shared_ptr<Options>;

Json ask(const Options& options, const Json& request, std::chrono::seconds limit = {}) {
    return ask_service(service_socket(options.socket), request, limit);
}

// The service opens the files, in a folder of its own; what it could not open is told at once.
std::string absolute_path(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0)
        fail(Exit::kFailure, "cannot open {}: {}; nothing was asked for", printable(path),
             std::strerror(errno));
    std::error_code error;
    const std::string absolute = std::filesystem::absolute(path, error);
    if (error)
        fail(Exit::kFailure, "cannot tell where {} lies: {}", printable(path), error.message());
    return absolute;
}

std::string word(const Json& document, const char* pointer) {
    if (const auto text = text_at(document, pointer)) return printable(*text);
    if (const auto number = number_at(document, pointer)) return std::to_string(*number);
    return "?";
}

void print_served(const Json& result, std::string_view verb, bool json) {
    if (json) {
        print_json(result);
        return;
    }
    const auto number = number_at(result, "/map/number");
    fmt::print(
        "{} \"{}\", generation {}, as table {}{}: {} elements, {} ACEs, {} bytes, {:.2f} s\n", verb,
        word(result, "/map/name"), word(result, "/map/generation"), word(result, "/map/table"),
        number ? fmt::format(", kept as {}", *number) : "", word(result, "/map/elements"),
        word(result, "/map/aces"), word(result, "/map/bytes"),
        real_at(result, "/map/seconds").value_or(0));
}

Exit apply(const Options& options) {
    const Json request = {{"command", "load"},
                          {"size", absolute_path(options.size_path)},
                          {"data", absolute_path(options.data_path)},
                          {"wait", options.wait}};
    const Json result = ask(options, request);
    if (options.wait)
        print_served(result, "published", options.json);
    else if (options.json)
        print_json(result);
    else
        fmt::print("queued as job {}; 'kavrinctl status' tells what becomes of it\n",
                   word(result, "/job"));
    return Exit::kDone;
}

Exit reload(const Options& options) {
    print_served(ask(options, {{"command", "reload"}}), "loaded", options.json);
    return Exit::kDone;
}

Exit rollback(const Options& options) {
    Json request = {{"command", "rollback"}};
    if (options.number) request["to"] = *options.number;
    print_served(ask(options, request), "went back to", options.json);
    return Exit::kDone;
}

Exit flush(const Options& options) {
    const Json result = ask(options, {{"command", "flush"}}, kLimit);
    if (options.json)
        print_json(result);
    else
        fmt::print("flushed {} of the staging buffer\n",
                   counted(number_at(result, "/records").value_or(0), "record"));
    return Exit::kDone;
}

Exit set_debug_level(const Options& options) {
    const Json result =
        ask(options, {{"command", "set-debug-level"}, {"level", options.level}}, kLimit);
    fmt::print(
        "debug level {} for connections that begin from now on, until the configuration is "
        "read again\n",
        word(result, "/level"));
    return Exit::kDone;
}

// The number of the kept map that is served; nothing without a live map, or without its record.
std::optional<unsigned> served_number() {
    try {
        const MapSource source = MapSource::open("", "map history");
        const auto record = record_of(describe_image(source.bytes()).sha256);
        if (record) return record->number;
        note("the served map is not among the kept ones");
    } catch (const CommandError& error) {
        note(error.message);
    }
    return std::nullopt;
}

void print_history(const std::vector<MapRecord>& records, std::optional<unsigned> served) {
    if (records.empty()) {
        fmt::print("no map was kept in {}\n", kKeptFolder);
        return;
    }
    fmt::print("  {:>6}  {:<23}  {:>10}  {:>10}  {:>10}  {:<20}  {}\n", "NUMBER", "SERVED FROM",
               "GENERATION", "ELEMENTS", "BYTES", "NAME", "SOURCE");
    for (const MapRecord& record : records)
        fmt::print("{} {:>6}  {:<23}  {:>10}  {:>10}  {:>10}  {:<20}  {}\n",
                   record.number == served ? '*' : ' ', record.number,
                   record.published == 0 ? "never" : utc_text(record.published), record.generation,
                   record.elements, record.bytes, printable(record.name), printable(record.source));
    if (served) fmt::print("* is served now\n");
}

Exit history(const Options& options) {
    require_root("map history");
    use_library();
    const std::vector<MapRecord> records = kept_maps();
    const std::optional<unsigned> served = served_number();
    if (!options.json) {
        print_history(records, served);
        return Exit::kDone;
    }
    Json maps = Json::array();
    for (const MapRecord& record : records) {
        Json entry = as_json(record);
        entry["served"] = record.number == served;
        maps.push_back(std::move(entry));
    }
    print_json({{"maps", maps}});
    return Exit::kDone;
}

// A command that asks the service.
CLI::App* add_command(CLI::App& parent, const char* name, const char* description,
                      const SharedOptions& options, Exit (*body)(const Options&)) {
    CLI::App* command = parent.add_subcommand(name, description);
    add_socket_option(*command, options->socket);
    on_run(*command, [options, body] { return body(*options); });
    return command;
}

}  // namespace

void register_map_apply(CLI::App& map) {
    auto options = std::make_shared<Options>();
    CLI::App* command = add_command(
        map, "apply", "Have the service build the map from a pair and switch readers over", options,
        apply);
    command->add_option("SIZE", options->size_path, "Size file")->required();
    command->add_option("DATA", options->data_path, "Data file")->required();
    command->add_flag("--wait", options->wait, "Come back when the map is served, or has failed");
    add_json_option(*command, options->json);

    options = std::make_shared<Options>();
    command =
        add_command(map, "reload", "Have the service load the persisted map anew", options, reload);
    add_json_option(*command, options->json);

    options = std::make_shared<Options>();
    command =
        add_command(map, "rollback", "Have the service go back to a kept map", options, rollback);
    command->add_option("NUMBER", options->number,
                        "The kept map (default: the newest one older than the served one)");
    add_json_option(*command, options->json);

    options = std::make_shared<Options>();
    command = map.add_subcommand("history", "Show the maps that are kept for a way back");
    add_json_option(*command, options->json);
    on_run(*command, [options] { return history(*options); });
}

void register_events_flush(CLI::App& events) {
    const auto options = std::make_shared<Options>();
    CLI::App* command = add_command(events, "flush",
                                    "Have the service flush the staging buffer into a pending file",
                                    options, flush);
    add_json_option(*command, options->json);
}

void register_config_debug_level(CLI::App& config) {
    const auto options = std::make_shared<Options>();
    CLI::App* command = add_command(config, "debug-level", "Have the service set the debug level",
                                    options, set_debug_level);
    command->add_option("LEVEL", options->level, "-1 to 100")
        ->required()
        ->check(CLI::Range(-1, 100));
}

}  // namespace kvadmin
