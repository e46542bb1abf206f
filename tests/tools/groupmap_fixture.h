// What the tests of group-map files share: contents, bytes with one place changed, and the
// library's reader over bytes in memory or over a file, its messages captured.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "groupmap_check.h"
#include "groupmap_file.h"
#include "kavrin_getgrouplist.h"
#include "tool_run.h"

namespace kvtest {

using Gids = std::vector<gid_t>;
using Bytes = std::vector<std::uint8_t>;

inline Bytes bytes_of(const kvadmin::GroupMapContent& content) {
    const std::string text = kvadmin::encode_groupmap(content);
    return Bytes(text.begin(), text.end());
}

inline void put32(Bytes& bytes, std::size_t at, std::uint32_t value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
}

inline std::uint32_t get32(const Bytes& bytes, std::size_t at) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

// The reader lists on standard error what it finds; nobody wants that of a hundred thousand users.
class QuietReader {
public:
    QuietReader() : saved_(dup(STDERR_FILENO)) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~QuietReader() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    QuietReader(const QuietReader&) = delete;
    QuietReader& operator=(const QuietReader&) = delete;

private:
    int saved_;
};

// What the library's reader finds for a user; nothing for an unknown one.
inline std::optional<Gids> read_gids(const void* map, std::size_t size, const std::string& user) {
    std::uint32_t count = 0;
    gid_t* const gids =
        kavrin_getgrouplist(map, static_cast<std::uint32_t>(size), user.c_str(), &count);
    if (gids == nullptr) return std::nullopt;
    Gids list(gids, gids + count);
    std::free(gids);
    return list;
}

// A file as the library maps it.
class MappedGroups {
public:
    explicit MappedGroups(const std::string& path) : map_(kavrin_mapfile(path.c_str(), &size_)) {
        EXPECT_NE(map_, nullptr);
        EXPECT_NE(map_, MAP_FAILED);
    }
    ~MappedGroups() { kavrin_unmap(map_, size_); }
    MappedGroups(const MappedGroups&) = delete;
    MappedGroups& operator=(const MappedGroups&) = delete;

    std::optional<Gids> gids(const std::string& user) const { return read_gids(map_, size_, user); }
    gid_t reserved(const std::string& group) const {
        return kavrin_reserved_gid(map_, size_, group.c_str());
    }
    Bytes bytes() const {
        const auto* start = static_cast<const std::uint8_t*>(map_);
        return Bytes(start, start + size_);
    }

private:
    std::uint32_t size_ = 0;
    void* map_;
};

// Reads every user back through the library. A look-up walks from the first entry on, so to ask for
// each of many thousands that way takes forever: the walk over all is done once, for the last user
// and for one who is not there, and the others are asked for with the table's start moved up to
// them, which leaves every bound that the reader checks as it is.
inline void expect_all_readable(Bytes bytes, const kvadmin::GroupMapContent& content) {
    const QuietReader quiet;
    const auto& users = content.users;
    if (!users.empty()) {
        ASSERT_EQ(read_gids(bytes.data(), bytes.size(), users.back().name), users.back().gids);
    }
    ASSERT_EQ(read_gids(bytes.data(), bytes.size(), "no such user"), std::nullopt);
    for (const auto& group : content.reserved)
        ASSERT_EQ(kavrin_reserved_gid(bytes.data(), static_cast<std::uint32_t>(bytes.size()),
                                      group.name.c_str()),
                  group.gid);
    const std::uint32_t table = get32(bytes, offsetof(mapheader, uoffs));
    const auto count = static_cast<std::uint32_t>(users.size());
    ASSERT_EQ(get32(bytes, offsetof(mapheader, unum)), count);
    for (std::uint32_t i = 0; i < count; ++i) {
        put32(bytes, offsetof(mapheader, uoffs), table + i * std::uint32_t{sizeof(uitem)});
        put32(bytes, offsetof(mapheader, unum), count - i);
        ASSERT_EQ(read_gids(bytes.data(), bytes.size(), users[i].name), users[i].gids)
            << "user " << i;
    }
}

inline void expect_refused(const ChildResult& result, int code, const std::string& message) {
    EXPECT_EQ(result.exit_code, code) << result.err;
    EXPECT_EQ(result.err, "kavrinctl: " + message + "\n");
    EXPECT_EQ(result.out, "");
}

}  // namespace kvtest
