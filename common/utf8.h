// UTF-8 as the JSON of a map and a terminal want it: no overlong forms, no surrogates, nothing
// above U+10FFFF. A file name may hold any bytes, so every name is asked before it is written.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kvadmin {

// Bytes of the first character, or 0 when the text is empty or does not begin with one.
std::size_t utf8_length(std::string_view text);

bool is_utf8(std::string_view text);

// `text` for a terminal: control characters and bytes that are no UTF-8 as \xNN.
std::string printable(std::string_view text);

}  // namespace kvadmin
