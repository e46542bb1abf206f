// What the commands that read a map share: a path found by the rules of the lookup that verdicts
// use, and rights and trustees in words.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "image_reader.h"
#include "map_source.h"

namespace kvadmin {

// One entry of an ACL, in the data file's order, which is the one that verdicts look in.
struct AclEntry {
    bool is_group = false;
    std::uint32_t id = 0;
    std::uint32_t mask = 0;
    bool inherited = false;
};

struct FoundPath {
    std::string path;  // normalised and absolute
    ElementOffset element = kRootElement;
    bool mapped = false;  // the path itself has an element; else the nearest ancestor's is given
};

// Finds a path, as absolute or as relative to the share's root. Refuses as usage what no lookup
// takes.
FoundPath find_path(const MapSource& source, const ImageReader& image, const std::string& path);

// The entries of an element's own ACL.
std::vector<AclEntry> own_entries(const ImageReader& image, ElementOffset element);

// "user 1001".
std::string trustee(const AclEntry& entry);
// The account's or group's name; empty when the machine knows none.
std::string trustee_name(const AclEntry& entry);

nlohmann::json to_json(const AclEntry& entry);

// One JSON document on standard output; bytes that are no text become U+FFFD.
void print_json(const nlohmann::json& document);

}  // namespace kvadmin
