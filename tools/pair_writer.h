// Writes a permission map's pair of JSON files: the data file element by element as the caller
// walks its tree, counting what the size file announces. Because the counts come from what was
// written, a pair from here is always honest.
//
// Each file is a temporary beside its target until the caller puts it in place, so that whoever
// waits for the target never sees half of it, and a run that fails leaves what was there before.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "posix_fold.h"

namespace kvadmin {

class PendingFile {
public:
    // Creates the temporary, readable by its owner only: a pair names every file of a share.
    explicit PendingFile(std::string target);
    ~PendingFile();  // removes it unless it was put in place
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    void write(std::string_view text);
    void complete();      // everything is on the disk when this returns
    void put_in_place();  // needs complete()

    std::uint64_t bytes() const { return bytes_; }
    // True for the temporary itself, which a walk may meet.
    bool is(const struct stat& status) const;

private:
    void flush();

    std::string target_;
    std::string path_;
    Descriptor file_;
    struct stat identity_ {};
    std::string buffer_;
    std::uint64_t bytes_ = 0;
};

struct PairCounts {
    std::uint64_t elements = 0;
    std::uint64_t aces = 0;
    std::uint64_t name_bytes = 0;  // each name and its terminator

    // What the image of such a pair takes.
    std::uint64_t image_bytes() const { return name_bytes + 60 * elements + 12 * aces + 176; }
};

// What the size file says besides the counts.
struct MapIdentity {
    std::string name;
    std::uint32_t generation = 1;
    std::int64_t timestamp = 0;
};

// `text` as a JSON string with its quotes; the text must be valid UTF-8.
void append_json_string(std::string& out, std::string_view text);

class DataWriter {
public:
    explicit DataWriter(PendingFile& file);

    // Opens an element; `children` elements and close_element() follow. The first one is the root.
    // Fails when the map outgrows the 4 GiB that its offsets reach.
    void open_element(std::string_view name, const FoldedAcl& acl, std::size_t children);
    void close_element();
    void end_document();

    const PairCounts& counts() const { return counts_; }

private:
    PendingFile& file_;
    PairCounts counts_;
    std::string text_;  // kept for its capacity
};

void write_size_file(PendingFile& file, const MapIdentity& identity, const PairCounts& counts);

}  // namespace kvadmin
