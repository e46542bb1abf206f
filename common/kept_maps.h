// The maps that were served before, kept for a way back: each an image beside a record of where it
// came from. The record is written last and removed first, so an image with a record is whole.
//
// A map is kept before readers switch to it and its record is marked when they have; so whatever is
// served is kept, and a record without a mark was never served.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "mkperms_shm.h"

namespace kvadmin {

inline constexpr const char* kKeptFolder = "/var/lib/kavrin/maps";
inline constexpr unsigned kDefaultKeptMaps = 5;

struct MapRecord {
    unsigned number = 0;  // counts the maps of this server; 0: not kept
    std::string name;
    std::string version;
    std::uint32_t generation = 0;
    std::string sha256;          // of the image
    std::string source;          // the data file's path
    std::int64_t built = 0;      // seconds since the epoch
    std::string built_by;        // the program
    std::int64_t published = 0;  // when readers were switched to it last; 0: never
    std::uint32_t elements = 0;
    std::uint32_t aces = 0;
    std::uint32_t bytes = 0;
    double seconds = 0;  // what the build took
};

nlohmann::ordered_json as_json(const MapRecord& record);

// The record that as_json() made; nothing when it is none.
std::optional<MapRecord> record_from(const nlohmann::ordered_json& json);

// What an image says of itself; all else is left empty.
MapRecord describe_image(std::span<const std::uint8_t> image);

// Where the image of a kept map lies.
std::string kept_image_path(unsigned number);

// All records that can be read, the highest number first.
std::vector<MapRecord> kept_maps();

// The record of that image, by its digest: the one published last. Nothing when there is none.
std::optional<MapRecord> record_of(const std::string& sha256);

// Keeps an image under the next number, which is given back; an image equal to the newest one takes
// that one's place. Fails by CommandError.
unsigned keep_map(MapRecord record, std::span<const std::uint8_t> image);

// Marks a kept map as published now. Fails by CommandError.
void mark_published(unsigned number);

// Removes what is more than `count` maps, the lowest numbers first and never `served`, and what
// interrupted writers left. Never fails: what cannot be removed is tried again the next time.
void prune_kept_maps(unsigned count, unsigned served);

// Removes the kept maps that were never published but for `served`.
void drop_unpublished_maps(unsigned served);

}  // namespace kvadmin
