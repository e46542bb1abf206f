// See utf8.h.
#include "utf8.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace kvadmin {
namespace {

// The forms of a character by its first byte. Of the second byte only some values are well formed
// after certain first bytes; every later one is 0x80 to 0xBF.
struct Form {
    std::uint8_t first_low, first_high;
    std::uint8_t length;
    std::uint8_t second_low, second_high;
};
constexpr Form kForms[] = {
    {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF}, {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF}, {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

std::uint8_t byte(std::string_view text, std::size_t index) {
    return static_cast<std::uint8_t>(text[index]);
}

bool is_control(std::string_view text, std::size_t length) {
    if (length == 1) return byte(text, 0) < 0x20 || byte(text, 0) == 0x7F;
    return length == 2 && byte(text, 0) == 0xC2 && byte(text, 1) < 0xA0;
}

}  // namespace

std::size_t utf8_length(std::string_view text) {
    if (text.empty()) return 0;
    const std::uint8_t first = byte(text, 0);
    if (first < 0x80) return 1;
    for (const Form& form : kForms) {
        if (first < form.first_low || first > form.first_high) continue;
        if (text.size() < form.length) return 0;
        if (byte(text, 1) < form.second_low || byte(text, 1) > form.second_high) return 0;
        for (std::size_t i = 2; i < form.length; ++i)
            if ((byte(text, i) & 0xC0) != 0x80) return 0;
        return form.length;
    }
    return 0;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string printable(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const std::size_t step = std::max<std::size_t>(length, 1);
        if (length != 0 && !is_control(text, length)) {
            out += text.substr(0, step);
        } else {
            for (std::size_t i = 0; i < step; ++i) out += fmt::format("\\x{:02x}", byte(text, i));
        }
        text.remove_prefix(step);
    }
    return out;
}

}  // namespace kvadmin
