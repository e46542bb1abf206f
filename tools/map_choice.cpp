// See map_choice.h.
#include "map_choice.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "failure.h"
#include "kept_maps.h"
#include "manage_perms.h"
#include "map_source.h"

namespace kvadmin {
namespace {

constexpr std::string_view kKeptPrefix = "kept:";
constexpr std::size_t kMostDigits = 9;

std::string persisted_path() {
    const std::unique_ptr<char, decltype(&std::free)> path(get_permbe_map_location(), &std::free);
    if (path == nullptr) fail(Exit::kFailure, "the persisted map has no place");
    return path.get();
}

std::string kept_path(const std::string& text) {
    const std::string number = text.substr(kKeptPrefix.size());
    const bool digits =
        std::all_of(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (number.empty() || number.size() > kMostDigits || !digits)
        fail(Exit::kUsage, "'{}' is no kept map; write {}NUMBER with a number such as 4", text,
             kKeptPrefix);
    return kept_image_path(static_cast<unsigned>(std::stoul(number)));
}

ChosenMap image_at(const std::string& path, std::string title, std::string_view command) {
    const MapSource source = MapSource::open(path, command);
    if (title.empty()) title = source.name();
    return {std::move(title), PermTree::of_image(source.sound_image())};
}

}  // namespace

ChosenMap choose_map(const std::string& text, std::string_view command) {
    if (text == "live") return image_at("", "", command);
    if (text == "persisted") return image_at(persisted_path(), "the persisted map", command);
    if (text.starts_with(kKeptPrefix))
        return image_at(kept_path(text), "kept map " + text.substr(kKeptPrefix.size()), command);
    const std::size_t comma = text.find(',');
    if (comma == std::string::npos) {
        if (text.empty()) fail(Exit::kUsage, "an empty name is no map");
        return image_at(text, text, command);
    }
    const std::string data = text.substr(comma + 1);
    if (comma == 0 || data.empty() || data.find(',') != std::string::npos)
        fail(Exit::kUsage,
             "'{}' is no pair of files; write the size file, a comma and the data file, neither of "
             "which has a comma in its name",
             text);
    return {text, PermTree::of_pair(text.substr(0, comma), data)};
}

}  // namespace kvadmin
