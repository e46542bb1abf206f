// Where a command takes a map from: the segment that readers use now, or a file such as the
// persisted map. Looking never changes anything: no System V object is made, and the segment stays
// attached, and so whole, even when a new map takes its place meanwhile.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "image_reader.h"

namespace kvadmin {

class MapSource {
public:
    struct Live {
        int table = 0;
        key_t key = 0;
        int segment_id = -1;
        unsigned long readers = 0;  // attached beside this process
        bool initialised = false;   // the set says that a map has been made available
    };
    struct File {
        std::string path;
        std::time_t modified = 0;
    };

    // The file when `path` is given, else the live map, which is root's: `command` names who asks.
    static MapSource open(const std::string& path, std::string_view command);

    ~MapSource();
    MapSource(MapSource&& other) noexcept;
    MapSource& operator=(MapSource&&) = delete;

    std::span<const std::uint8_t> bytes() const { return bytes_; }
    // For the library's lookups, which take an image by plain address and only read it.
    void* image() const { return const_cast<std::uint8_t*>(bytes_.data()); }

    const std::optional<Live>& live() const { return live_; }
    const std::optional<File>& file() const { return file_; }
    // "the live map (table 1)" or the file's path.
    std::string name() const;
    // The command that tells all about a damaged one.
    std::string verify_command() const;

    // The image for readers that trust it; refuses one that breaks a law of the format.
    ImageReader sound_image() const;

private:
    MapSource() = default;
    static MapSource attach_live(std::string_view command);
    static MapSource read_file(const std::string& path);

    std::optional<Live> live_;
    std::optional<File> file_;
    std::vector<std::uint8_t> content_;  // of a file: a map that is rewritten in place may shrink
    std::span<const std::uint8_t> bytes_;
};

}  // namespace kvadmin
