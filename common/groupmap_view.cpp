// The checked way to the bytes of a group-map file; see groupmap_check.h.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "failure.h"
#include "groupmap_check.h"

namespace kvadmin {

GroupMapView::GroupMapView(std::span<const std::uint8_t> bytes) : bytes_(bytes) {
    std::memcpy(&header_, bytes.data(), sizeof header_);
}

std::optional<GroupMapView> GroupMapView::open(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < sizeof(mapheader)) return std::nullopt;
    return GroupMapView(bytes);
}

template <typename Record>
std::optional<Record> GroupMapView::read(std::uint64_t offset) const {
    if (offset > bytes_.size() || bytes_.size() - offset < sizeof(Record)) return std::nullopt;
    Record record;
    std::memcpy(&record, bytes_.data() + offset, sizeof record);
    return record;
}

std::optional<ritem> GroupMapView::reserved(std::uint32_t index) const {
    if (index >= header_.rnum) return std::nullopt;
    return read<ritem>(header_.roffs + std::uint64_t{index} * sizeof(ritem));
}

std::optional<uitem> GroupMapView::user(std::uint32_t index) const {
    if (index >= header_.unum) return std::nullopt;
    return read<uitem>(header_.uoffs + std::uint64_t{index} * sizeof(uitem));
}

std::optional<std::string_view> GroupMapView::name_at(std::uint32_t offset) const {
    if (offset >= bytes_.size()) return std::nullopt;
    const char* start = reinterpret_cast<const char*>(bytes_.data()) + offset;
    const std::size_t room = std::min(bytes_.size() - offset, kLongestName + 1);
    const void* end = std::memchr(start, 0, room);
    if (end == nullptr) return std::nullopt;
    return std::string_view(start, static_cast<std::size_t>(static_cast<const char*>(end) - start));
}

std::optional<std::uint32_t> GroupMapView::gid(const uitem& user, std::uint32_t index) const {
    if (index >= user.glen) return std::nullopt;
    return read<std::uint32_t>(user.goffs + std::uint64_t{index} * sizeof(gid_t));
}

std::vector<std::uint8_t> read_groupmap(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (!file.valid() || fstat(file.get(), &status) != 0)
        fail(Exit::kFailure, "cannot open '{}': {}", path, strerror(errno));
    if (!S_ISREG(status.st_mode))
        fail(Exit::kFailure, "'{}' is no regular file; name a group-map file", path);
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size > UINT32_MAX)
        fail(Exit::kInvalidInput,
             "'{}' has {} bytes, and the reader knows sizes of 32 bits only; write it anew with "
             "'kavrinctl groupmap build'",
             path, size);
    std::vector<std::uint8_t> bytes(size);
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = ::read(file.get(), bytes.data() + filled, bytes.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail(Exit::kFailure, "cannot read '{}': {}", path, strerror(errno));
        if (got == 0) break;  // it was cut meanwhile
        filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    return bytes;
}

}  // namespace kvadmin
