// See digest.h.
#include "digest.h"

#include <fmt/format.h>
#include <nettle/sha2.h>

#include <array>

namespace kvadmin {

std::string sha256_of(std::span<const std::uint8_t> bytes) {
    sha256_ctx context;
    sha256_init(&context);
    sha256_update(&context, bytes.size(), bytes.data());
    std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest;
    sha256_digest(&context, digest.size(), digest.data());
    std::string text;
    for (const std::uint8_t byte : digest) text += fmt::format("{:02x}", byte);
    return text;
}

}  // namespace kvadmin
