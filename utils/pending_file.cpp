// Names and writes of the files in which events travel. Whatever reads a folder of them sees a name
// that begins with "pending_" only on a complete file.
#include "utils/pending_file.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "kavrin_utils.h"
#include "utils/trace.h"

namespace {

using kavrin::HeapString;
using kavrin::kAlways;

constexpr const char* kPrefix = "pending_";
constexpr std::size_t kNameSize = 256;

// Random characters of a name without a time, and their terminator.
constexpr std::size_t kRandomSize = 8;

// No "/": the characters end up in a file name.
constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+;";
static_assert(sizeof kAlphabet == 64 + 1);

// The name of a file whose time is not known. Negative when it cannot be formatted.
int write_untimed_name(char* name, const char* folder) {
    char random[kRandomSize];
    return std::snprintf(name, kNameSize, "%s/%sunk_time_%s", folder, kPrefix,
                         rand_string(random, sizeof random));
}

// Renames without ever replacing a file. Where the file system cannot, a second link does the same
// in two steps: the file has both names for a moment.
bool rename_to_free_name(const char* from, const char* to) {
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (link(from, to) != 0) return false;
    unlink(from);  // a first name that stays is told from lost records by its being a copy
    return true;
}

}  // namespace

namespace kavrin {

std::int32_t share_of(std::int32_t buffer_size, std::int32_t percent) {
    const std::int64_t product = std::int64_t{buffer_size} * percent;
    if (product != static_cast<std::int32_t>(product)) return buffer_size;
    return static_cast<std::int32_t>(product) / 100;
}

bool file_exists(const char* path) {
    struct stat status;
    return lstat(path, &status) == 0;
}

bool is_folder(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

HeapString temporary_name(const char* folder, const char* name_template) {
    const std::size_t size = std::strlen(folder) + std::strlen(name_template) + 1;
    HeapString name(static_cast<char*>(std::malloc(size)));
    if (name != nullptr) std::snprintf(name.get(), size, "%s%s", folder, name_template);
    return name;
}

bool rename_to_pending(const char* temporary, HeapString& name, const char* folder) {
    // Names differ by the microsecond, so waiting for another one ends every collision, unless the
    // clock stands still: then a name without a time does.
    constexpr int kTimedTries = 64;
    constexpr int kTries = 2 * kTimedTries;
    for (int attempt = 1;; ++attempt) {
        if (rename_to_free_name(temporary, name.get())) return true;
        if (errno != EEXIST || attempt == kTries) return false;
        const timespec moment{.tv_sec = 0, .tv_nsec = 1000};
        nanosleep(&moment, nullptr);
        if (attempt < kTimedTries) {
            HeapString next(get_dumpfname(folder));
            if (next == nullptr) return false;
            name = std::move(next);
        } else {
            write_untimed_name(name.get(), folder);
        }
    }
}

}  // namespace kavrin

extern "C" char* rand_string(char* s, size_t size) {
    if (size == 0) return s;
    for (std::size_t i = 0; i < size - 1; ++i) s[i] = kAlphabet[std::rand() & 63];
    s[size - 1] = '\0';
    return s;
}

extern "C" char* get_dumpfname(const char* prefix) {
    if (prefix == nullptr) {
        KV_TRACE(kAlways, "prefix is NULL");
        prefix = "unk";
    }
    HeapString name(static_cast<char*>(std::calloc(kNameSize, 1)));
    if (name == nullptr) {
        KV_TRACE(kAlways, "failed to calloc for dumpfname, errno = %d (%s)\n", errno,
                 std::strerror(errno));
        return nullptr;
    }
    timeval now;
    int written = -1;
    if (gettimeofday(&now, nullptr) == 0) {
        written = std::snprintf(name.get(), kNameSize, "%s/%s%d.%06d", prefix, kPrefix,
                                static_cast<int>(now.tv_sec), static_cast<int>(now.tv_usec));
    } else {
        KV_TRACE(kAlways, "gettimeofday failed. errno = %d (%s)\n", errno, std::strerror(errno));
        written = write_untimed_name(name.get(), prefix);
    }
    if (written < 0) {
        KV_TRACE(kAlways, "failed to encode dumpfname, errno = %d (%s)\n", errno,
                 std::strerror(errno));
        return nullptr;
    }
    return name.release();
}

extern "C" ssize_t write_all(int fd, const void* buf, size_t n) {
    const char* next = static_cast<const char*>(buf);
    std::size_t left = n;
    while (left > 0) {
        const ssize_t written = write(fd, next, left);
        if (written <= 0) {
            KV_TRACE(kAlways,
                     "Failed to write to fd. nwritten=%d, nleft=%d, size=%d, errno=%d(%s)\n",
                     static_cast<int>(written), static_cast<int>(left), static_cast<int>(n), errno,
                     std::strerror(errno));
            return -1;
        }
        next += written;
        left -= static_cast<std::size_t>(written);
        if (left > 0)
            KV_TRACE(kAlways,
                     "will try to write rest of buffer. nwritten=%d, nleft=%d, size=%d, "
                     "errno=%d(%s)\n",
                     static_cast<int>(written), static_cast<int>(left), static_cast<int>(n), errno,
                     std::strerror(errno));
    }
    return static_cast<ssize_t>(n);
}
