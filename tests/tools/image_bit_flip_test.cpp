// Every single bit of an image, flipped. Which flips no law forbids is worked out here a second
// time, from the bytes of an image known to be honest and with rules of this file's own; the
// verifier must find all others, and none of these.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "image_bytes.h"

using namespace kvadmin;
using namespace kvtest;

namespace {

// Decodes to code points and encodes again: text that comes back the same is well formed.
bool survives_decoding(const std::string& text) {
    std::string again;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const int extra = lead < 0x80   ? 0
                          : lead < 0xC0 ? -1
                          : lead < 0xE0 ? 1
                          : lead < 0xF0 ? 2
                                        : 3;
        if (extra < 0 || lead >= 0xF8) return false;
        std::uint32_t point = extra == 0 ? lead : lead & (0x3Fu >> extra);
        for (int k = 1; k <= extra; ++k) {
            if (i + static_cast<std::size_t>(k) >= text.size()) return false;
            const auto next = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
            if (next / 64 != 2) return false;
            point = point * 64 + next % 64;
        }
        i += static_cast<std::size_t>(extra) + 1;
        if (point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
        if (point < 0x80) {
            again += static_cast<char>(point);
        } else if (point < 0x800) {
            again += static_cast<char>(0xC0 + point / 64);
            again += static_cast<char>(0x80 + point % 64);
        } else if (point < 0x10000) {
            again += static_cast<char>(0xE0 + point / 4096);
            again += static_cast<char>(0x80 + point / 64 % 64);
            again += static_cast<char>(0x80 + point % 64);
        } else {
            again += static_cast<char>(0xF0 + point / 262144);
            again += static_cast<char>(0x80 + point / 4096 % 64);
            again += static_cast<char>(0x80 + point / 64 % 64);
            again += static_cast<char>(0x80 + point % 64);
        }
    }
    return again == text;
}

// Where the flip of a bit leaves an image as lawful as it was.
class FreeBits {
public:
    explicit FreeBits(const Image& image) : image_(image), free_(image.size() * 8, false) {
        text_field(0, 32, 31);
        text_field(32, 36, 36);
        whole_bytes(100, 12);  // generation and time: any value
        const kavrin_be_header_t header = header_of(image);
        for (std::size_t at = header.nameelem_offset; at < header.acl_offset;) at = name(at);
        for (std::size_t at = header.acl_offset; at < header.list_offset;) at = acl(at);
    }
    bool at(std::size_t bit) const { return free_[bit]; }
    std::size_t count() const {
        return static_cast<std::size_t>(std::count(free_.begin(), free_.end(), true));
    }

private:
    void whole_bytes(std::size_t at, std::size_t size) {
        for (std::size_t bit = at * 8; bit < (at + size) * 8; ++bit) free_[bit] = true;
    }

    // The text up to the first zero must be well formed, no longer than `longest`, and only zeros
    // may follow.
    void text_field(std::size_t at, std::size_t size, std::size_t longest) {
        for (std::size_t bit = 0; bit < size * 8; ++bit) {
            std::string field(image_.begin() + static_cast<std::ptrdiff_t>(at),
                              image_.begin() + static_cast<std::ptrdiff_t>(at + size));
            field[bit / 8] = static_cast<char>(field[bit / 8] ^ (1 << bit % 8));
            const std::string text(field.c_str());
            const bool padded =
                std::all_of(field.begin() + static_cast<std::ptrdiff_t>(text.size()), field.end(),
                            [](char c) { return c == 0; });
            free_[at * 8 + bit] = padded && text.size() <= longest && survives_decoding(text);
        }
    }

    // In a name a letter's case is free, and bytes beyond ASCII as long as the text stays well
    // formed: neither changes the hash.
    std::size_t name(std::size_t at) {
        const std::size_t length = image_[at] + 256u * image_[at + 1];
        const std::string text(reinterpret_cast<const char*>(&image_[at + 12]), length);
        for (std::size_t i = 0; i < length; ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            const bool letter = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
            if (letter) free_[(at + 12 + i) * 8 + 5] = true;
            if (byte < 0x80) continue;
            for (std::size_t bit = 0; bit < 8; ++bit) {
                std::string flipped = text;
                flipped[i] = static_cast<char>(byte ^ (1u << bit));
                if (survives_decoding(flipped)) free_[(at + 12 + i) * 8 + bit] = true;
            }
        }
        return at + 12 + length + 1;
    }

    // An entry's id and mask may be anything.
    std::size_t acl(std::size_t at) {
        const std::uint32_t entries = get32(image_, at + 4);
        for (std::size_t i = 0; i < entries; ++i) whole_bytes(at + 8 + 12 * i + 4, 6);
        return at + 8 + 12 * std::size_t{entries};
    }

    const Image& image_;
    std::vector<bool> free_;
};

// First byte of the record in which a byte lies; of the header, the field's; of unused space, the
// byte itself.
class Records {
public:
    explicit Records(const Image& image) : start_(image.size()) {
        for (std::size_t i = 0; i < image.size(); ++i) start_[i] = i;
        static constexpr std::array<std::size_t, 20> kFields = {0,   32,  68,  100, 104, 112, 116,
                                                                120, 124, 128, 132, 136, 140, 144,
                                                                148, 152, 156, 160, 164, 168};
        for (std::size_t i = 0; i < kFields.size(); ++i)
            cover(kFields[i], (i + 1 < kFields.size() ? kFields[i + 1] : 172) - kFields[i]);
        cover(172, 4);
        const kavrin_be_header_t header = header_of(image);
        for (std::size_t i = 0; i < header.total_fselems; ++i) cover(element_at(i), 24);
        for (std::size_t at = header.nameelem_offset; at < header.acl_offset;)
            at = cover(at, 13u + image[at] + 256u * image[at + 1]);
        for (std::size_t at = header.acl_offset; at < header.list_offset;)
            at = cover(at, 8 + 12 * std::size_t{get32(image, at + 4)});
        for (std::size_t at = header.list_offset; at < header.list_offset + header.next_free_list;)
            at = cover(at, 12 + 4 * std::size_t{get32(image, at + 4)});
    }
    std::size_t start_of(std::size_t byte) const { return start_[byte]; }

private:
    std::size_t cover(std::size_t at, std::size_t size) {
        for (std::size_t i = at; i < at + size; ++i) start_.at(i) = at;
        return at + size;
    }
    std::vector<std::size_t> start_;
};

// Two elements that claim one record are told of in the finding about that record.
bool tells_of(const ImageFinding& finding, std::size_t record) {
    if (finding.file_offset == record) return true;
    const std::string element = std::to_string(record - 176);
    return finding.message.find("elements at " + element + " and") != std::string::npos ||
           finding.message.find("and " + element + " both refer") != std::string::npos;
}

void flip_every_bit(Image image, const char* what) {
    ASSERT_TRUE(check_image(image).sound());
    const FreeBits free(image);
    const Records records(image);
    std::size_t found = 0;
    for (std::size_t bit = 0; bit < image.size() * 8; ++bit) {
        const auto flip = static_cast<std::uint8_t>(1u << bit % 8);
        image[bit / 8] ^= flip;
        const ImageReport report = check_image(image);
        ASSERT_EQ(!report.sound(), !free.at(bit))
            << "byte " << bit / 8 << " bit " << bit % 8 << "\n"
            << all_lines(report);
        if (!report.sound()) {
            ++found;
            const std::size_t record = records.start_of(bit / 8);
            ASSERT_TRUE(std::any_of(report.findings.begin(), report.findings.end(),
                                    [&](const auto& f) { return tells_of(f, record); }))
                << "byte " << bit / 8 << " bit " << bit % 8 << ", record at " << record << "\n"
                << all_lines(report);
        }
        image[bit / 8] ^= flip;
    }
    EXPECT_EQ(found + free.count(), image.size() * 8);
    std::printf("%s: %zu bits, %zu found, %zu free by the laws\n", what, image.size() * 8, found,
                free.count());
}

}  // namespace

TEST(BitFlip, EveryBitOfTheExampleIsJudgedRight) {
    const ConfigTable config(-1);
    flip_every_bit(example_image(), "example image");
}

TEST(BitFlip, EveryBitOfNamesOutsideAsciiIsJudgedRight) {
    const ConfigTable config(-1);
    const Node root{"/",
                    {{0, 31}},
                    {},
                    {{"Ärger", {{1001, 7}, {1002, 3}}, {{100, 1}}, {{"日本語.txt", {}, {}, {}}}},
                     {"ÿ𝛑Z", {}, {{0xFFFFFFFF, 0xFFFF}}, {{"ß", {}, {}, {{"`@[{", {}, {}, {}}}}}},
                     {"leer", {}, {}, {}}}};
    const Pair pair = to_pair(root, "Größe é𝛑");
    flip_every_bit(build_image(pair.size_json, pair.data_json), "image with other letters");
}

TEST(BitFlip, EveryBitOfAnImageOfOneElementIsJudgedRight) {
    const ConfigTable config(-1);
    const Pair pair = to_pair(Node{"/", {}, {}, {}}, "@");  // one bit from a name of no bytes
    flip_every_bit(build_image(pair.size_json, pair.data_json), "image of one element");
}
