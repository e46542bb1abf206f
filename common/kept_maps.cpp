// See kept_maps.h.
#include "kept_maps.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "digest.h"
#include "whole_file.h"

namespace kvadmin {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

std::string record_path(unsigned number) {
    return fmt::format("{}/{}.json", kKeptFolder, number);
}

// The number that a file name of the folder begins with, and the rest; 0 for other names.
unsigned number_of(const std::string& name, std::string& rest) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    rest = error == std::errc{} ? std::string(end, name.data() + name.size()) : name;
    return error == std::errc{} ? number : 0;
}

std::optional<MapRecord> read_record(unsigned number) {
    std::ifstream file(record_path(number));
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    std::optional<MapRecord> record = record_from(Json::parse(text, nullptr, false));
    if (record) record->number = number;
    return record;
}

void write_record(const MapRecord& record) {
    write_whole_file(record_path(record.number),
                     as_json(record).dump(2, ' ', false, Json::error_handler_t::replace) + "\n",
                     0600);
}

std::vector<std::string> names_of_folder() {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(kKeptFolder, error), end; !error && entry != end;
         entry.increment(error))
        names.push_back(entry->path().filename());
    return names;
}

void remove_kept(unsigned number) {
    unlink(record_path(number).c_str());
    unlink(kept_image_path(number).c_str());
}

std::string text_of(const char* field, std::size_t size) {
    return {field, strnlen(field, size)};
}

}  // namespace

Json as_json(const MapRecord& record) {
    return {{"number", record.number},       {"name", record.name},
            {"version", record.version},     {"generation", record.generation},
            {"sha256", record.sha256},       {"source", record.source},
            {"built", record.built},         {"built_by", record.built_by},
            {"published", record.published}, {"elements", record.elements},
            {"aces", record.aces},           {"bytes", record.bytes},
            {"seconds", record.seconds}};
}

std::optional<MapRecord> record_from(const Json& json) {
    if (!json.is_object()) return std::nullopt;
    MapRecord record;
    try {
        record.number = json.at("number");
        record.name = json.at("name");
        record.version = json.at("version");
        record.generation = json.at("generation");
        record.sha256 = json.at("sha256");
        record.source = json.at("source");
        record.built = json.at("built");
        record.built_by = json.at("built_by");
        record.published = json.at("published");
        record.elements = json.at("elements");
        record.aces = json.at("aces");
        record.bytes = json.at("bytes");
        record.seconds = json.at("seconds");
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
    return record;
}

MapRecord describe_image(std::span<const std::uint8_t> image) {
    MapRecord record;
    kavrin_be_header_t header{};
    if (image.size() < sizeof header) return record;
    std::memcpy(&header, image.data(), sizeof header);
    record.name = text_of(header.mapname, sizeof header.mapname);
    record.version = text_of(header.version, sizeof header.version);
    record.generation = header.generationnum;
    record.elements = header.total_fselems;
    record.aces = header.total_aces;
    record.bytes = static_cast<std::uint32_t>(image.size());
    record.sha256 = sha256_of(image);
    return record;
}

std::string kept_image_path(unsigned number) {
    return fmt::format("{}/{}.map", kKeptFolder, number);
}

std::vector<MapRecord> kept_maps() {
    std::vector<MapRecord> records;
    for (const std::string& name : names_of_folder()) {
        std::string rest;
        const unsigned number = number_of(name, rest);
        if (number == 0 || rest != ".json") continue;
        if (std::optional<MapRecord> record = read_record(number)) records.push_back(*record);
    }
    std::sort(records.begin(), records.end(),
              [](const MapRecord& a, const MapRecord& b) { return a.number > b.number; });
    return records;
}

std::optional<MapRecord> record_of(const std::string& sha256) {
    std::optional<MapRecord> found;
    for (const MapRecord& record : kept_maps()) {
        if (record.sha256 != sha256) continue;
        if (!found || record.published > found->published) found = record;
    }
    return found;
}

unsigned keep_map(MapRecord record, std::span<const std::uint8_t> image) {
    make_folder(kKeptFolder, 0700);
    const std::vector<MapRecord> known = kept_maps();
    if (!known.empty() && known.front().sha256 == record.sha256) {
        record.number = known.front().number;
        record.published = known.front().published;
        write_whole_file(kept_image_path(record.number), image, 0600);  // whatever lies there
        write_record(record);
        return record.number;
    }
    record.number = 1;
    for (const std::string& name : names_of_folder()) {
        std::string rest;
        record.number = std::max(record.number, number_of(name, rest) + 1);
    }
    write_whole_file(kept_image_path(record.number), image, 0600);
    write_record(record);
    return record.number;
}

void mark_published(unsigned number) {
    std::optional<MapRecord> record = read_record(number);
    if (!record) return;
    record->published = std::time(nullptr);
    write_record(*record);
}

void prune_kept_maps(unsigned count, unsigned served) {
    unsigned kept = 0;
    for (const MapRecord& record : kept_maps())
        if (++kept > count && record.number != served) remove_kept(record.number);
    for (const std::string& name : names_of_folder()) {
        std::string rest;
        const unsigned number = number_of(name, rest);
        const bool lost = rest == ".map" && access(record_path(number).c_str(), F_OK) != 0;
        if (number != 0 && (lost || rest.ends_with(".tmp")))
            unlink(fmt::format("{}/{}", kKeptFolder, name).c_str());
    }
}

void drop_unpublished_maps(unsigned served) {
    for (const MapRecord& record : kept_maps())
        if (record.published == 0 && record.number != served) remove_kept(record.number);
}

}  // namespace kvadmin
