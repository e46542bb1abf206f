// What tells one map from another: the digest of its bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace kvadmin {

// SHA-256 in lower-case hexadecimal.
std::string sha256_of(std::span<const std::uint8_t> bytes);

}  // namespace kvadmin
