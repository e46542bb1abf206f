// See persisted_copy.h.
#include "persisted_copy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "descriptor.h"
#include "digest.h"
#include "failure.h"
#include "image_check.h"
#include "kavrin.h"
#include "kept_maps.h"
#include "map_tables.h"

namespace kvadmin {
namespace {

// The copy is written under the first name and renamed to the second: what has the second name is
// whole.
std::string unfinished_path() {
    return persisted_map_path() + ".previous.new";
}
std::string copy_path() {
    return persisted_map_path() + ".previous";
}

void flush_folder() {
    const std::string path = persisted_map_path();
    const Descriptor folder(
        open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.valid()) fsync(folder.get());
}

bool write_all(int to, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t put = write(to, data, size);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        data += put;
        size -= static_cast<std::size_t>(put);
    }
    return true;
}

bool copy_by_hand(int from, int to) {
    char buffer[65536];
    for (;;) {
        const ssize_t got = read(from, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got == 0;
        if (!write_all(to, buffer, static_cast<std::size_t>(got))) return false;
    }
}

// Shares the blocks where the file system can, else lets the kernel copy, else copies.
bool copy_content(int from, int to) {
    if (ioctl(to, FICLONE, from) == 0) return true;
    for (;;) {
        const ssize_t moved = copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
        if (moved > 0) continue;
        if (moved == 0) return copy_by_hand(from, to);  // some kernels copy nothing and say so
        if (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL)
            return copy_by_hand(from, to);
        if (errno != EINTR) return false;
    }
}

// errno tells why not.
bool make_copy(int from) {
    struct stat st {};
    const Descriptor to(
        open(unfinished_path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    return to.valid() && fstat(from, &st) == 0 && copy_content(from, to.get()) &&
           fchown(to.get(), st.st_uid, st.st_gid) == 0 &&
           fchmod(to.get(), st.st_mode & 07777) == 0 && fsync(to.get()) == 0 &&
           rename(unfinished_path().c_str(), copy_path().c_str()) == 0;
}

bool is_live(std::span<const std::uint8_t> image) {
    const std::optional<int> segment = live_segment();
    if (!segment) return false;
    const AttachedSegment live(*segment);
    return live.bytes().size() == image.size() &&
           std::memcmp(live.bytes().data(), image.data(), image.size()) == 0;
}

// Whether readers were switched to the persisted map. A sound image alone says little: one of a
// document that was cut short is sound, too.
bool was_served(const std::string& path) {
    const MappedFile file(path, true);
    if (!file.exists() || !check_image(file.bytes()).sound()) return false;
    if (is_live(file.bytes())) return true;
    const std::optional<MapRecord> record = record_of(sha256_of(file.bytes()));
    return record && record->published != 0;
}

}  // namespace

MappedFile::MappedFile(const std::string& path, bool missing_is_empty) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid() && errno == ENOENT && missing_is_empty) return;
    struct stat st {};
    if (!file.valid() || fstat(file.get(), &st) != 0)
        fail(Exit::kFailure, "cannot read {}: {}", path, std::strerror(errno));
    exists_ = true;
    if (st.st_size == 0) return;
    const std::size_t size = static_cast<std::size_t>(st.st_size);
    void* memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
    if (memory == MAP_FAILED)
        fail(Exit::kFailure, "cannot read {}: {}", path, std::strerror(errno));
    bytes_ = {static_cast<const std::uint8_t*>(memory), size};
}

MappedFile::~MappedFile() {
    if (!bytes_.empty()) munmap(const_cast<std::uint8_t*>(bytes_.data()), bytes_.size());
}

std::string persisted_map_path() {
    const std::unique_ptr<char, void (*)(void*)> path(get_permbe_map_location(), std::free);
    if (path == nullptr) fail(Exit::kFailure, "out of memory");
    return path.get();
}

std::vector<std::string> recover_persisted_map() {
    std::vector<std::string> remarks;
    unlink(unfinished_path().c_str());
    unlink((persisted_map_path() + ".tmp").c_str());
    if (access(copy_path().c_str(), F_OK) != 0) return remarks;
    if (was_served(persisted_map_path())) {
        if (unlink(copy_path().c_str()) != 0)
            fail(Exit::kFailure, "cannot remove {}: {}", copy_path(), std::strerror(errno));
        remarks.push_back(fmt::format("removed {}, left by an interrupted build", copy_path()));
    } else {
        if (rename(copy_path().c_str(), persisted_map_path().c_str()) != 0)
            fail(Exit::kFailure, "cannot put {} back: {}", copy_path(), std::strerror(errno));
        remarks.push_back(
            fmt::format("put {} back as it was before an interrupted build", persisted_map_path()));
    }
    flush_folder();
    return remarks;
}

PersistedCopy::PersistedCopy() {
    const Descriptor from(open(persisted_map_path().c_str(), O_RDONLY | O_CLOEXEC));
    if (!from.valid() && errno == ENOENT) return;
    if (!from.valid() || !make_copy(from.get())) {
        const int error = errno;
        unlink(unfinished_path().c_str());
        fail(Exit::kFailure, "cannot keep a copy of {} for the time of the build: {}",
             persisted_map_path(), std::strerror(error));
    }
    existed_ = true;
    flush_folder();
}

PersistedCopy::~PersistedCopy() {
    if (!armed_) return;
    const std::string persisted = persisted_map_path();
    const bool done = existed_ ? rename(copy_path().c_str(), persisted.c_str()) == 0
                               : unlink(persisted.c_str()) == 0 || errno == ENOENT;
    if (!done) note(fmt::format("cannot restore {}: {}", persisted, std::strerror(errno)));
    flush_folder();
}

bool PersistedCopy::drop() {
    armed_ = false;
    if (!existed_) return true;
    const bool removed = unlink(copy_path().c_str()) == 0;
    flush_folder();
    return removed;
}

void flush_persisted_map() {
    const Descriptor file(open(persisted_map_path().c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid() || fsync(file.get()) != 0)
        fail(Exit::kFailure, "cannot make {} durable: {}", persisted_map_path(),
             std::strerror(errno));
    flush_folder();
}

}  // namespace kvadmin
