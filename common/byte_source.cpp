// See byte_source.h.
#include "byte_source.h"

#include <unistd.h>

#include <cerrno>

namespace kvadmin {
namespace {

constexpr std::size_t kBufferSize = std::size_t{1} << 18;

}  // namespace

ByteSource::ByteSource(int fd) : fd_(fd), buffer_(kBufferSize) {}

std::string_view ByteSource::next() {
    const std::string_view stretch = fd_ < 0 ? text_.substr(0, stretch_) : read_stretch();
    if (fd_ < 0) text_.remove_prefix(stretch.size());
    given_ += stretch.size();
    if (told_) told_(given_);
    return stretch;
}

// Fills the buffer: only the last stretch of a file is a short one.
std::string_view ByteSource::read_stretch() {
    std::size_t size = 0;
    while (error_ == 0 && size < buffer_.size()) {
        const ssize_t got = read(fd_, buffer_.data() + size, buffer_.size() - size);
        if (got == 0) break;
        if (got > 0)
            size += static_cast<std::size_t>(got);
        else if (errno != EINTR)
            error_ = errno;
    }
    return {buffer_.data(), error_ == 0 ? size : 0};
}

}  // namespace kvadmin
