// kavrinctl status: what the service says of itself and of the map, in plain words. Without the
// service it shows what can be seen without it: the live map with the record kept of it, the
// staging buffer and the files that wait for the event store.
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <memory>

#include "command.h"
#include "kept_maps.h"
#include "kernel_objects.h"
#include "map_query.h"
#include "map_source.h"
#include "pending_folder.h"
#include "service_client.h"
#include "utf8.h"

namespace kvadmin {
namespace {

using Json = nlohmann::json;

constexpr std::chrono::seconds kLimit{10};

struct Options {
    std::string socket;
    bool json = false;
};

// What the service would say and can be seen without it. ---------------------------------------

// Null when no map is served; why not is a remark.
Json map_without_service() {
    try {
        const MapSource source = MapSource::open("", "status");
        const MapRecord image = describe_image(source.bytes());
        const auto kept = record_of(image.sha256);
        Json map = as_json(kept.value_or(image));
        if (!kept)
            for (const char* unknown :
                 {"number", "source", "built", "built_by", "published", "seconds"})
                map[unknown] = nullptr;
        map["table"] = source.live()->table;
        map["segment"] = source.live()->segment_id;
        map["readers"] = source.live()->readers;
        return map;
    } catch (const CommandError& error) {
        note(error.message);
        return nullptr;
    }
}

std::string folder_of_table() {
    const auto table = config_table_copy();
    if (!table) return "";
    const char* const text = (*table)[PARAM_STAGING_DIR].value.strval;
    return std::string(text, strnlen(text, KAVRIN_PARAM_STRLEN));
}

Json staging_without_service() {
    const SegmentState segment = staging_segment();
    if (!segment.exists()) return nullptr;
    const SegmentView buffer(segment);
    const auto header = staging_header(buffer.bytes());
    if (!header) return nullptr;
    return {{"records", header->records},
            {"used", header->next_offset - std::min<std::uint32_t>(header->next_offset, 16)},
            {"size", segment.bytes()},
            {"folder", folder_of_table()}};
}

Json pending_without_service() {
    const std::string folder = folder_of_table();
    if (folder.empty()) return nullptr;
    int error = 0;
    std::int64_t files = 0;
    std::time_t oldest = std::time(nullptr);
    const std::time_t now = oldest;
    for (const std::string& name : names_in(folder, error)) {
        struct stat status {};
        if (!name.starts_with(kPendingPrefix) || lstat((folder + "/" + name).c_str(), &status) != 0)
            continue;
        ++files;
        oldest = std::min(oldest, status.st_mtime);
    }
    if (error != 0) return nullptr;
    return {{"files", files}, {"oldest_age", now - oldest}};
}

Json status_without_service() {
    return {{"service", nullptr},      {"map", map_without_service()},
            {"last_failure", nullptr}, {"staging", staging_without_service()},
            {"counters", nullptr},     {"pending", pending_without_service()},
            {"halves", nullptr},       {"group_map", nullptr}};
}

// The text. ------------------------------------------------------------------------------------

void row(std::string_view label, std::string_view text) {
    fmt::print("{:<13} {}\n", label, printable(text));
}

std::string word(const Json& status, const char* pointer, const char* otherwise = "unknown") {
    if (const auto text = text_at(status, pointer)) return *text;
    if (const auto number = number_at(status, pointer)) return std::to_string(*number);
    return otherwise;
}

std::string moment(const Json& status, const char* pointer) {
    const auto seconds = number_at(status, pointer);
    return seconds ? utc_text(*seconds) : "unknown";
}

std::string count_at(const Json& status, const char* pointer, std::string_view noun) {
    return counted(number_at(status, pointer).value_or(0), noun);
}

bool is_null(const Json& status, const char* name) {
    return !status.contains(name) || status[name].is_null();
}

void print_service(const Json& status) {
    if (is_null(status, "service")) {
        row("service", "not running");
        return;
    }
    row("service",
        fmt::format("{}, process {}, version {}, since {}", word(status, "/service/state"),
                    word(status, "/service/pid"), word(status, "/service/version"),
                    moment(status, "/service/started")));
    row("configuration", word(status, "/service/config"));
    if (number_at(status, "/service/job/number"))
        row("job", fmt::format("{}: {} of {}, since {}", word(status, "/service/job/number"),
                               word(status, "/service/job/kind"),
                               word(status, "/service/job/source", "the persisted map"),
                               moment(status, "/service/job/since")));
    if (number_at(status, "/service/queued").value_or(0) > 0)
        row("queued", count_at(status, "/service/queued", "job"));
}

void print_map(const Json& status) {
    if (is_null(status, "map")) {
        row("map", "none is served");
        return;
    }
    const auto number = number_at(status, "/map/number");
    row("map", fmt::format("{}\"{}\", version {}, generation {}",
                           number ? fmt::format("{}: ", *number) : "", word(status, "/map/name"),
                           word(status, "/map/version"), word(status, "/map/generation")));
    row("", fmt::format("{} elements, {} ACEs, {} bytes", word(status, "/map/elements"),
                        word(status, "/map/aces"), word(status, "/map/bytes")));
    row("", fmt::format("table {}, segment {}, {} attached", word(status, "/map/table"),
                        word(status, "/map/segment"), count_at(status, "/map/readers", "reader")));
    row("", fmt::format("sha256 {}", word(status, "/map/sha256")));
    if (!number) {
        row("", "nobody kept a record of where it comes from");
        return;
    }
    const auto seconds = real_at(status, "/map/seconds");
    row("", fmt::format("built by {}, {}{}, from {}", word(status, "/map/built_by"),
                        moment(status, "/map/built"),
                        seconds ? fmt::format(", in {:.2f} s", *seconds) : "",
                        word(status, "/map/source")));
    row("", fmt::format("served since {}", moment(status, "/map/published")));
}

void print_work(const Json& status) {
    if (!is_null(status, "last_failure")) {
        row("last failure",
            fmt::format("{}, {}: {}", moment(status, "/last_failure/time"),
                        word(status, "/last_failure/source"), word(status, "/last_failure/error")));
        if (const auto folder = text_at(status, "/last_failure/quarantine"))
            row("", "set aside in " + *folder);
    }
    if (is_null(status, "counters")) return;
    row("since start",
        fmt::format("{}, {} failed, {} superseded", count_at(status, "/counters/builds", "build"),
                    word(status, "/counters/build_failures"),
                    word(status, "/counters/superseded")));
    row("", fmt::format("{} written in {} of the staging buffer, {} failed",
                        count_at(status, "/counters/events_flushed", "event"),
                        number_at(status, "/counters/flushes") == 1
                            ? "1 flush"
                            : word(status, "/counters/flushes") + " flushes",
                        word(status, "/counters/flush_failures")));
}

void print_events(const Json& status) {
    if (is_null(status, "staging")) {
        row("staging", "there is no staging buffer");
    } else {
        const std::int64_t used = number_at(status, "/staging/used").value_or(0);
        const std::int64_t size = number_at(status, "/staging/size").value_or(0);
        row("staging",
            fmt::format(
                "{}, {} of {} bytes ({:.1f}%), flushed into {}",
                count_at(status, "/staging/records", "record"), used, size,
                size > 0 ? 100.0 * static_cast<double>(used) / static_cast<double>(size) : 0.0,
                word(status, "/staging/folder")));
    }
    const std::int64_t files = number_at(status, "/pending/files").value_or(0);
    if (is_null(status, "pending"))
        row("pending", "unknown: the staging folder cannot be read");
    else if (files == 0)
        row("pending", "no file waits for the event store");
    else
        row("pending",
            fmt::format("{}, the oldest for {}", counted(files, "file"),
                        duration_text(number_at(status, "/pending/oldest_age").value_or(0))));
}

void print_waiting(const Json& status) {
    if (!is_null(status, "halves") && status["halves"].is_array())
        for (const Json& half : status["halves"])
            row("waiting",
                fmt::format("{}, since {}: {}{}", word(half, "/file"), moment(half, "/since"),
                            word(half, "/why"), is_set(half, "/stale") ? " (for too long)" : ""));
    if (is_null(status, "group_map")) return;
    const auto error = text_at(status, "/group_map/error");
    row("group map",
        error ? "failed: " + *error
              : fmt::format("{}, written {}", count_at(status, "/group_map/users", "user"),
                            moment(status, "/group_map/written")));
}

void print_text(const Json& status) {
    print_service(status);
    print_map(status);
    print_work(status);
    print_events(status);
    print_waiting(status);
}

Exit status(const Options& options) {
    require_root("status");
    use_library();
    Json status;
    Exit exit = Exit::kDone;
    try {
        status = ask_service(service_socket(options.socket), {{"command", "status"}}, kLimit);
    } catch (const CommandError& error) {
        note(error.message);
        status = status_without_service();
        exit = Exit::kFailure;
    }
    if (options.json)
        print_json(status);
    else
        print_text(status);
    return exit;
}

}  // namespace

void add_socket_option(CLI::App& command, std::string& socket) {
    command
        .add_option("--socket", socket,
                    "The service's socket (default: that of the configuration table, else "
                    "/run/kavrin/kavrind.sock)")
        ->type_name("PATH");
}

void register_status(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("status", "Show what the service does, and which map is served");
    const auto options = std::make_shared<Options>();
    add_socket_option(*command, options->socket);
    add_json_option(*command, options->json);
    on_run(*command, [options] { return status(*options); });
}

}  // namespace kvadmin
