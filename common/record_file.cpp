// See record_file.h.
#include "record_file.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kvadmin {
namespace {

constexpr std::size_t kHeader = sizeof(staging_data_t);
constexpr std::size_t kChunk = 256 << 10;
constexpr const char* kBecameShorter = "the record is cut off: the file became shorter meanwhile";

}  // namespace

RecordReader::RecordReader(int file, std::uint64_t offset)
    : file_(file), offset_(offset), previous_(offset) {
    struct stat status;
    if (fstat(file, &status) != 0) {
        error_ = errno;
        return;
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
}

// Has at least `size` bytes of the next record in the buffer, or fails: the file became shorter, or
// it cannot be read.
bool RecordReader::fetch(std::size_t size) {
    if (end_ - begin_ >= size) return true;
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
    end_ -= begin_;
    begin_ = 0;
    const std::uint64_t left = size_ - offset_;
    const std::size_t wanted = std::max<std::size_t>(size, std::min<std::uint64_t>(left, kChunk));
    if (buffer_.size() < wanted) buffer_.resize(wanted);
    while (end_ < size) {
        const ssize_t got =
            pread(file_, buffer_.data() + end_, wanted - end_, static_cast<off_t>(offset_ + end_));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) error_ = errno;
        if (got <= 0) return false;
        end_ += static_cast<std::size_t>(got);
    }
    return true;
}

std::nullopt_t RecordReader::stop(RecordDamage::Kind kind, std::string what) {
    if (error_ == 0) damage_ = RecordDamage{kind, offset_, std::move(what)};
    return std::nullopt;
}

void RecordReader::refuse(std::string what) {
    begin_ = end_ = 0;
    offset_ = previous_;
    damage_ = RecordDamage{RecordDamage::Kind::kPayload, offset_, std::move(what)};
}

std::optional<std::span<const std::uint8_t>> RecordReader::next() {
    using Kind = RecordDamage::Kind;
    if (damage_ || error_ != 0 || offset_ >= size_) return std::nullopt;
    const std::uint64_t left = size_ - offset_;
    if (left < kHeader)
        return stop(Kind::kCutOff,
                    fmt::format("the record is cut off: {} of the {} bytes of its header are there",
                                left, kHeader));
    if (!fetch(kHeader)) return stop(Kind::kCutOff, kBecameShorter);
    staging_data_t header;
    std::memcpy(&header, buffer_.data() + begin_, kHeader);
    const std::uint32_t signature = header.sig;
    const std::uint32_t size = header.size;
    if (signature != STAGING_DATA_SIG)
        return stop(Kind::kSignature, fmt::format("its signature is 0x{:08x} and not 0x{:08x}",
                                                  signature, STAGING_DATA_SIG));
    if (size == 0) return stop(Kind::kSize, "its size is 0, and no record is empty");
    if (size > left - kHeader)
        return stop(Kind::kCutOff, fmt::format("the record is cut off: its size is {} and the file "
                                               "has {} bytes left",
                                               size, left - kHeader));
    if (size > kLargestPayload)
        return stop(Kind::kSize, fmt::format("its size is {}, and no event is larger than {}", size,
                                             kLargestPayload));
    if (!fetch(kHeader + size)) return stop(Kind::kCutOff, kBecameShorter);
    const std::span<const std::uint8_t> payload(buffer_.data() + begin_ + kHeader, size);
    previous_ = offset_;
    begin_ += kHeader + size;
    offset_ += kHeader + size;
    return payload;
}

}  // namespace kvadmin
