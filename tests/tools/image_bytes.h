// Images to be damaged: where the records of the example image lie, and how to change a field.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "image_check.h"
#include "image_reader.h"
#include "support.h"

namespace kvtest {

using Image = std::vector<std::uint8_t>;

inline kavrin_be_header_t header_of(const Image& image) {
    kavrin_be_header_t header;
    std::memcpy(&header, image.data(), sizeof header);
    return header;
}

inline std::uint32_t get32(const Image& image, std::size_t at) {
    std::uint32_t value;
    std::memcpy(&value, &image.at(at), sizeof value);
    return value;
}
inline void put32(Image& image, std::size_t at, std::uint32_t value) {
    image.at(at + 3) = static_cast<std::uint8_t>(value >> 24);
    std::memcpy(&image.at(at), &value, sizeof value);
}
inline void put16(Image& image, std::size_t at, std::uint16_t value) {
    image.at(at + 1) = static_cast<std::uint8_t>(value >> 8);
    std::memcpy(&image.at(at), &value, sizeof value);
}

// Bytes of the image at which an element's fields and records lie.
inline std::size_t element_at(std::size_t index) {
    return 176 + 24 * index;
}
inline std::size_t name_at(const Image& image, std::size_t index) {
    return header_of(image).nameelem_offset + get32(image, element_at(index) + 8);
}
inline std::size_t list_at(const Image& image, std::size_t index) {
    return header_of(image).list_offset + get32(image, element_at(index) + 12);
}
inline std::size_t acl_at(const Image& image, std::size_t index) {
    return header_of(image).acl_offset + get32(image, element_at(index) + 16);
}

// The elements of the example image in their order.
enum Example : std::size_t { kRoot, kShared, kDocs, kReport, kPrivate };

inline Image example_image() {
    return build_image(kExampleSize, kExampleData);
}

inline std::string all_lines(const kvadmin::ImageReport& report) {
    std::string text;
    for (const auto& finding : report.findings) text += kvadmin::line_for(finding) + "\n";
    return text;
}

}  // namespace kvtest
