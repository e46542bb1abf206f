// The verifier of permission map images. Readers and the library trust every count and offset of an
// image; this is the one place that trusts none, and the law is: an image that is sound() can be
// walked by any of them, and says exactly what an honest pair of files could have said.
//
// Time and memory are linear in the image, whatever its bytes are: each record is looked at once,
// and beside the image stand two bits for every place where a record may begin and four bytes an
// element.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kvadmin {

enum class ImageRecord : std::uint8_t { kImage, kHeader, kElement, kName, kAcl, kChildList };

// "element", "child list", … as findings name a record.
std::string_view word_for(ImageRecord record);

// One record that breaks a law of the format. Both offsets are those of the record, for the header
// those of its field; the region's offset counts from the start of the record's own region.
struct ImageFinding {
    ImageRecord record = ImageRecord::kImage;
    std::uint64_t region_offset = 0;
    std::uint64_t file_offset = 0;
    std::string path;     // of the element that the record belongs to; empty when none is known
    std::string message;  // what is wrong
};

struct ImageReport {
    static constexpr std::size_t kKeptFindings = 100;

    std::vector<ImageFinding> findings;  // the first ones; findings_total counts all
    std::uint64_t findings_total = 0;
    bool walked = false;  // the regions lie inside the bytes, and every record was looked at
    std::uint64_t elements = 0;
    std::uint64_t aces = 0;

    bool sound() const { return findings_total == 0; }
    // The first finding as one line; empty when there is none.
    std::string first_line() const;
};

// The finding as one line of text: record, both offsets, path, what is wrong.
std::string line_for(const ImageFinding& finding);

ImageReport check_image(std::span<const std::uint8_t> bytes);

}  // namespace kvadmin
