// kavrinctl map info: what an image says of itself, and where it is served from. Only the header is
// read, so that it costs nothing and tells about a damaged map, too.
#include <fmt/core.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "command.h"
#include "map_query.h"
#include "map_source.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Options {
    std::string file;
    bool json = false;
};

struct RegionLine {
    const char* name;
    std::uint32_t start;
    std::uint32_t size;
    std::uint32_t used;
};

std::vector<RegionLine> regions_of(const kavrin_be_header_t& header) {
    return {
        {"elements", header.fselem_offset, header.fselem_size, header.next_free_fselem},
        {"names", header.nameelem_offset, header.nameelem_size, header.next_free_nameelem},
        {"ACLs", header.acl_offset, header.acl_size, header.next_free_acl},
        {"child lists", header.list_offset, header.list_size, header.next_free_list},
    };
}

template <std::size_t Size>
std::string field_text(const char (&field)[Size]) {
    return std::string(field, std::find(field, field + Size, '\0'));
}

// "2023-11-14 22:13:20 UTC"; empty for a time that no calendar holds.
std::string utc(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    char text[64];
    if (gmtime_r(&time, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
        return "";
    return text;
}

double percent(std::uint32_t used, std::uint32_t size) {
    return size == 0 ? 0.0 : 100.0 * used / size;
}

ImageReader require_header(const MapSource& source) {
    const auto image = ImageReader::open(source.bytes());
    if (!image)
        fail(Exit::kInvalidInput, "{} has {} bytes, too few for a permission map; see '{}'",
             source.name(), source.bytes().size(), source.verify_command());
    if (image->header().signature != KAVRIN_BE_HEADER_SIGNATURE)
        fail(Exit::kInvalidInput,
             "{} does not bear the mark of a finished permission map; see '{}'", source.name(),
             source.verify_command());
    return *image;
}

void print_source(const MapSource& source) {
    if (source.file()) {
        fmt::print("source      file {}, written {}\n", printable(source.file()->path),
                   utc(source.file()->modified));
        return;
    }
    const MapSource::Live& live = *source.live();
    fmt::print("source      live: table {}, key {:#010x}, segment {}, {} {} attached, {}\n",
               live.table, static_cast<unsigned>(live.key), live.segment_id, live.readers,
               live.readers == 1 ? "reader" : "readers",
               live.initialised ? "initialised" : "not initialised");
}

void print_text(const MapSource& source, const kavrin_be_header_t& header) {
    const std::string time = utc(header.timestamp);
    fmt::print("name        {}\n", printable(field_text(header.mapname)));
    fmt::print("version     {}\n", printable(field_text(header.version)));
    fmt::print("generation  {}\n", header.generationnum);
    fmt::print("timestamp   {}{}\n", header.timestamp, time.empty() ? "" : " (" + time + ")");
    fmt::print("elements    {}\n", header.total_fselems);
    fmt::print("ACEs        {}\n", header.total_aces);
    fmt::print("bytes       {}\n", source.bytes().size());
    print_source(source);
    fmt::print("\n{:<12}{:>12}{:>12}{:>12}{:>8}\n", "region", "start", "size", "used", "fill");
    for (const RegionLine& region : regions_of(header))
        fmt::print("{:<12}{:>12}{:>12}{:>12}{:>7.1f}%\n", region.name, region.start, region.size,
                   region.used, percent(region.used, region.size));
}

nlohmann::json source_document(const MapSource& source) {
    if (source.file())
        return {{"file", source.file()->path},
                {"modified", source.file()->modified},
                {"modified_utc", utc(source.file()->modified)}};
    const MapSource::Live& live = *source.live();
    return {{"table", live.table},
            {"key", static_cast<std::uint32_t>(live.key)},
            {"segment", live.segment_id},
            {"readers", live.readers},
            {"initialised", live.initialised}};
}

void print_document(const MapSource& source, const kavrin_be_header_t& header) {
    nlohmann::json regions = nlohmann::json::array();
    for (const RegionLine& region : regions_of(header))
        regions.push_back({{"name", region.name},
                           {"start", region.start},
                           {"size", region.size},
                           {"used", region.used}});
    print_json({{"name", field_text(header.mapname)},
                {"version", field_text(header.version)},
                {"generation", header.generationnum},
                {"timestamp", header.timestamp},
                {"timestamp_utc", utc(header.timestamp)},
                {"elements", header.total_fselems},
                {"aces", header.total_aces},
                {"bytes", source.bytes().size()},
                {"regions", regions},
                {"live", source.live().has_value()},
                {"source", source_document(source)}});
}

Exit info(const Options& options) {
    use_library();
    const MapSource source = MapSource::open(options.file, "map info");
    const ImageReader image = require_header(source);
    if (options.json) {
        print_document(source, image.header());
    } else {
        print_text(source, image.header());
    }
    return Exit::kDone;
}

}  // namespace

void register_map_info(CLI::App& map) {
    CLI::App* command =
        map.add_subcommand("info", "Show a map's name, generation, counts and fill");
    const auto options = std::make_shared<Options>();
    command->add_option("--file", options->file,
                        "Read this map file (default: the live map, as root)");
    add_json_option(*command, options->json);
    on_run(*command, [options] { return info(*options); });
}

}  // namespace kvadmin
