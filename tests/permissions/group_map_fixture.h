// Group maps in memory, laid out as their writer does, and what the readers answer and say about
// them.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "support.h"

namespace kvtest {

constexpr std::uint32_t kSize = 8192;
constexpr std::uint32_t kLimit = kSize - 1;

using Gids = std::vector<gid_t>;

// A map in memory that ends where a page without access begins, so that reading on is noticed.
// `mapsize` is what the readers are told; there may be more behind it.
class MapInMemory {
public:
    explicit MapInMemory(std::uint32_t bytes = kSize) : whole_(bytes + 4096) {
        void* const address =
            mmap(nullptr, whole_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(address, MAP_FAILED);
        bytes_ = static_cast<char*>(address);
        EXPECT_EQ(mprotect(bytes_ + bytes, 4096, PROT_NONE), 0);
    }
    ~MapInMemory() { munmap(bytes_, whole_); }
    MapInMemory(const MapInMemory&) = delete;
    MapInMemory& operator=(const MapInMemory&) = delete;

    void word(std::uint32_t offset, std::uint32_t value) {
        std::memcpy(bytes_ + offset, &value, sizeof value);
    }
    void text(std::uint32_t offset, std::string_view name) {
        std::memcpy(bytes_ + offset, name.data(), name.size());
        bytes_[offset + name.size()] = 0;
    }
    void header(std::uint32_t roffs, std::uint32_t rnum, std::uint32_t uoffs, std::uint32_t unum) {
        words(0, {roffs, rnum, uoffs, unum});
    }
    void words(std::uint32_t offset, std::initializer_list<std::uint32_t> values) {
        for (const std::uint32_t value : values) {
            word(offset, value);
            offset += 4;
        }
    }
    char* bytes() const { return bytes_; }
    std::string_view content() const { return {bytes_, whole_ - 4096}; }

    std::uint32_t mapsize = kSize;

private:
    std::size_t whole_;
    char* bytes_ = nullptr;
};

// Runs `body` with standard error going to a file, and returns what was said there.
template <typename Body>
std::string said_by(Body body) {
    const int file = memfd_create("stderr", MFD_CLOEXEC);
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    body();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), 0);
    EXPECT_EQ(pread(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    close(file);
    return text;
}

struct Reserved {
    gid_t gid = 77;
    std::string said;
};
inline Reserved reserved(const MapInMemory& map, const char* name) {
    Reserved answer;
    answer.said =
        said_by([&] { answer.gid = kavrin_reserved_gid(map.bytes(), map.mapsize, name); });
    return answer;
}

struct Groups {
    bool found = false;
    Gids gids;
    std::string said;
};
inline Groups groups(const MapInMemory& map, const char* name) {
    Groups answer;
    std::uint32_t count = 77;
    gid_t* list = nullptr;
    answer.said =
        said_by([&] { list = kavrin_getgrouplist(map.bytes(), map.mapsize, name, &count); });
    answer.found = list != nullptr;
    if (answer.found) {
        answer.gids.assign(list, list + count);
    } else {
        EXPECT_EQ(count, 0u);
    }
    free(list);
    return answer;
}

// Two reserved groups and three users, as a writer lays them out.
constexpr std::uint32_t kReservedAt = 16;
constexpr std::uint32_t kUsersAt = 32;
constexpr std::uint32_t kNamesAt = 128;
constexpr std::uint32_t kIdsAt = 1024;
struct ExampleMap : MapInMemory {
    explicit ExampleMap(std::uint32_t bytes = kSize) : MapInMemory(bytes) {
        header(kReservedAt, 2, kUsersAt, 3);
        words(kReservedAt, {kNamesAt, 7002, kNamesAt + 32, 7001});
        text(kNamesAt, "kavrin-powerusers");
        text(kNamesAt + 32, "kavrin-admins");
        words(kUsersAt, {kNamesAt + 64, 5, kIdsAt, 2});
        words(kUsersAt + 16, {kNamesAt + 96, 3, kIdsAt + 8, 1});
        words(kUsersAt + 32, {kNamesAt + 128, 5, kIdsAt + 12, 0});
        text(kNamesAt + 64, "alice");
        text(kNamesAt + 96, "Bob");
        text(kNamesAt + 128, "carol");
        words(kIdsAt, {5001, 4000000000u, 5003});
    }
};

}  // namespace kvtest
