// The group-map file on its way into memory, and the reserved groups in it: what is found, and what
// is refused with which words.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "group_map_fixture.h"
#include "provoke.h"

namespace {

using namespace kvtest;

// Reserved groups -----------------------------------------------------------------------------

TEST(ReservedGid, IsFoundByItsName) {
    const ExampleMap map;
    EXPECT_EQ(reserved(map, "kavrin-powerusers").gid, 7002u);
    EXPECT_EQ(reserved(map, "kavrin-admins").gid, 7001u);
    EXPECT_EQ(reserved(map, "kavrin-admins").said, "");
}

TEST(ReservedGid, LetterCaseOfTheNameDoesNotMatter) {
    ExampleMap map;
    EXPECT_EQ(reserved(map, "KAVRIN-Admins").gid, 7001u);
    map.text(kNamesAt + 32, "Kavrin-ADMINS");
    EXPECT_EQ(reserved(map, "kavrin-admins").gid, 7001u);
}

TEST(ReservedGid, PartOfANameIsAnotherName) {
    const ExampleMap map;
    for (const char* name : {"kavrin", "kavrin-admin", "kavrin-admins2", "", "avrin-admins"}) {
        const Reserved answer = reserved(map, name);
        EXPECT_EQ(answer.gid, 0u) << name;
        EXPECT_EQ(answer.said, "") << name;
    }
}

TEST(ReservedGid, FirstOfEqualNamesWins) {
    ExampleMap map;
    map.text(kNamesAt + 32, "KAVRIN-POWERUSERS");
    EXPECT_EQ(reserved(map, "kavrin-powerusers").gid, 7002u);
}

TEST(ReservedGid, GroupWithTheIdZeroLooksLikeAMissingOne) {
    ExampleMap map;
    map.word(kReservedAt + 4, 0);
    const Reserved answer = reserved(map, "kavrin-powerusers");
    EXPECT_EQ(answer.gid, 0u);
    EXPECT_EQ(answer.said, "");
}

TEST(ReservedGid, IdUsesAllThirtyTwoBits) {
    ExampleMap map;
    map.word(kReservedAt + 4, 0xFFFFFFFE);
    EXPECT_EQ(reserved(map, "kavrin-powerusers").gid, 0xFFFFFFFEu);
}

TEST(ReservedGid, EmptyTableHasNoGroups) {
    ExampleMap map;
    map.word(4, 0);
    const Reserved answer = reserved(map, "kavrin-admins");
    EXPECT_EQ(answer.gid, 0u);
    EXPECT_EQ(answer.said, "");
}

TEST(ReservedGid, MapBelowTwoPagesIsTooShort) {
    ExampleMap map;
    for (const std::uint32_t size : {0u, 16u, 4096u, 8191u}) {
        map.mapsize = size;
        const Reserved answer = reserved(map, "kavrin-admins");
        EXPECT_EQ(answer.gid, 0u) << size;
        EXPECT_EQ(answer.said, "map too short, bail\n") << size;
    }
    map.mapsize = kSize;
    EXPECT_EQ(reserved(map, "kavrin-admins").gid, 7001u);
}

TEST(ReservedGid, TableThatEndsWithTheMapIsRead) {
    ExampleMap map;
    map.header(kSize - 16, 2, kUsersAt, 3);
    map.words(kSize - 16, {kNamesAt, 7002, kNamesAt + 32, 7001});
    const Reserved answer = reserved(map, "kavrin-admins");
    EXPECT_EQ(answer.gid, 7001u);
    EXPECT_EQ(answer.said, "");
}

TEST(ReservedGid, TableThatEndsBeyondTheMapIsRefusedWhole) {
    const char* const kBeyond = "reserved group table beyond map, bail\n";
    ExampleMap map;
    for (const std::uint32_t offset : {kSize - 15, kSize - 8, kSize, kSize + 1, 0xFFFFFFF8u}) {
        map.header(offset, 2, kUsersAt, 3);
        const Reserved answer = reserved(map, "kavrin-admins");
        EXPECT_EQ(answer.gid, 0u) << offset;
        EXPECT_EQ(answer.said, kBeyond) << offset;
    }
    map.header(kReservedAt, (kSize - kReservedAt) / 8 + 1, kUsersAt, 3);
    EXPECT_EQ(reserved(map, "kavrin-admins").said, kBeyond);
}

TEST(ReservedGid, TableSizeThatWrapsIsStillBeyondTheMap) {
    ExampleMap map;
    for (const std::uint32_t count : {0x20000000u, 0x1FFFFFFFu, 0x20000001u, 0xFFFFFFFFu}) {
        map.header(kReservedAt, count, kUsersAt, 3);
        const Reserved answer = reserved(map, "kavrin-admins");
        EXPECT_EQ(answer.gid, 0u) << count;
        EXPECT_EQ(answer.said, "reserved group table beyond map, bail\n") << count;
    }
}

TEST(ReservedGid, PlaceOfAnEmptyTableIsChecked) {
    ExampleMap map;
    map.header(kSize, 0, kUsersAt, 3);
    EXPECT_EQ(reserved(map, "kavrin-admins").said, "");
    map.header(kSize + 1, 0, kUsersAt, 3);
    const Reserved answer = reserved(map, "kavrin-admins");
    EXPECT_EQ(answer.gid, 0u);
    EXPECT_EQ(answer.said, "reserved group table beyond map, bail\n");
}

TEST(ReservedGid, NameBeyondTheMapEndsTheSearch) {
    ExampleMap map;
    map.word(kReservedAt, kSize);
    Reserved answer = reserved(map, "kavrin-admins");
    EXPECT_EQ(answer.gid, 0u);
    EXPECT_EQ(answer.said, "reserved group item 0 beyond map, bail\n");

    map.words(kReservedAt, {kNamesAt, 7002, 0xFFFFFFFF, 7001});
    answer = reserved(map, "kavrin-admins");
    EXPECT_EQ(answer.gid, 0u);
    EXPECT_EQ(answer.said, "reserved group item 1 beyond map, bail\n");
    answer = reserved(map, "kavrin-powerusers");  // found before the search gets there
    EXPECT_EQ(answer.gid, 7002u);
    EXPECT_EQ(answer.said, "");
}

TEST(ReservedGid, NameMayBeTheLastByteOfTheMap) {
    ExampleMap map;
    map.words(kReservedAt, {kLimit, 7009});
    EXPECT_EQ(reserved(map, "").gid, 7009u);
    EXPECT_EQ(reserved(map, "kavrin-admins").gid, 7001u);
}

TEST(ReservedGid, NameWithoutAnEndIsReadNoFurtherThanTheMap) {
    ExampleMap map;
    std::memcpy(map.bytes() + kSize - 6, "kavrin", 6);
    map.words(kReservedAt, {kSize - 6, 7009});
    EXPECT_EQ(reserved(map, "kavrin-powerusers").gid, 0u);
    EXPECT_EQ(reserved(map, "kavrin-admins").gid, 7001u);
}

// The file ------------------------------------------------------------------------------------

struct Mapped {
    void* map = nullptr;
    std::uint32_t size = 77;
    std::string said;
};
Mapped map_file(const std::string& path) {
    Mapped mapped;
    mapped.said = said_by([&] { mapped.map = kavrin_mapfile(path.c_str(), &mapped.size); });
    return mapped;
}
std::string file_of(std::size_t size) {
    const std::string path = make_temp_dir() + "/groupmap_refresh";
    write_file(path, std::string(size, 'x'));
    return path;
}
std::ptrdiff_t open_files() {
    const std::filesystem::directory_iterator fds("/proc/self/fd");
    return std::distance(begin(fds), end(fds));
}

TEST(GroupMapFile, MissingOneIsPassedOverInSilence) {
    const Mapped mapped = map_file(make_temp_dir() + "/nothing");
    EXPECT_EQ(mapped.map, nullptr);
    EXPECT_EQ(mapped.size, 77u);
    EXPECT_EQ(mapped.said, "");
}

TEST(GroupMapFile, BelowTwoPagesIsTooShort) {
    for (const std::size_t size : {0u, 1u, 4096u, 8191u}) {
        const Mapped mapped = map_file(file_of(size));
        EXPECT_EQ(mapped.map, nullptr) << size;
        EXPECT_EQ(mapped.said, "File too short\n") << size;
    }
}

TEST(GroupMapFile, PartOfAPageIsNotAligned) {
    for (const std::size_t size : {8193u, 8194u, 10240u, 12287u, 12289u}) {
        const Mapped mapped = map_file(file_of(size));
        EXPECT_EQ(mapped.map, nullptr) << size;
        EXPECT_EQ(mapped.said, "File not aligned\n") << size;
    }
}

TEST(GroupMapFile, WholePagesAreMapped) {
    for (const std::size_t size : {8192u, 12288u, 16384u, 1048576u}) {
        const Mapped mapped = map_file(file_of(size));
        ASSERT_NE(mapped.map, nullptr) << size;
        EXPECT_EQ(mapped.size, size);
        EXPECT_EQ(mapped.said, "");
        EXPECT_EQ(std::string_view(static_cast<char*>(mapped.map), size), std::string(size, 'x'));
        kavrin_unmap(mapped.map, mapped.size);
    }
}

TEST(GroupMapFile, UnreadableOneIsReported) {
    const std::string path = file_of(8192);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    expect_in_child([&] {
        kvtest::become_user(4001, 4002, {});
        const Mapped mapped = map_file(path);
        EXPECT_EQ(mapped.map, nullptr);
        EXPECT_EQ(mapped.said, "Failed to open " + path + ": Permission denied");
    });
}

TEST(GroupMapFile, OneThatTheKernelDoesNotMapIsHandedOutAsAFailedMapping) {
    const std::string path = file_of(67108864);
    expect_in_child([&] {
        kvtest::freeze_address_space();
        std::uint32_t size = 77;
        EXPECT_EQ(kavrin_mapfile(path.c_str(), &size), MAP_FAILED);
        EXPECT_EQ(size, 67108864u);
    });
}

TEST(GroupMapFile, MappingIsSharedAndReadOnly) {
    const std::string path = file_of(8192);
    const Mapped mapped = map_file(path);
    ASSERT_NE(mapped.map, nullptr);
    // One line of the process's maps: range, access, then the file.
    char range[64];
    const auto start = reinterpret_cast<std::uintptr_t>(mapped.map);
    std::snprintf(range, sizeof range, "%lx-%lx r--s ", start, start + 8192);
    const std::string maps = read_file("/proc/self/maps");
    const std::size_t found = maps.find(range);
    ASSERT_NE(found, std::string::npos) << maps;
    EXPECT_NE(maps.substr(found, maps.find('\n', found) - found).find(path), std::string::npos);

    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(5000);
    file << "later";
    file.close();
    EXPECT_EQ(std::memcmp(static_cast<char*>(mapped.map) + 5000, "later", 5), 0);
    kavrin_unmap(mapped.map, mapped.size);
    EXPECT_EQ(read_file("/proc/self/maps").find(range), std::string::npos);
}

TEST(GroupMapFile, StaysMappedWhenTheFileIsReplaced) {
    const std::string path = file_of(8192);
    const Mapped mapped = map_file(path);
    ASSERT_NE(mapped.map, nullptr);
    ASSERT_EQ(unlink(path.c_str()), 0);
    write_file(path, std::string(8192, 'y'));
    EXPECT_EQ(static_cast<char*>(mapped.map)[8191], 'x');
    kavrin_unmap(mapped.map, mapped.size);
}

TEST(GroupMapFile, NoDescriptorStaysOpen) {
    const std::string good = file_of(8192);
    const std::string bad = file_of(8191);
    const std::ptrdiff_t before = open_files();
    const Mapped mapped = map_file(good);
    EXPECT_EQ(open_files(), before);
    map_file(bad);
    EXPECT_EQ(open_files(), before);
    kavrin_unmap(mapped.map, mapped.size);
}

TEST(GroupMapFile, LookUpsWorkInTheMapping) {
    const ExampleMap example;
    const std::string path = make_temp_dir() + "/groupmap_refresh";
    write_file(path, example.content());
    const Mapped mapped = map_file(path);
    ASSERT_NE(mapped.map, nullptr);
    EXPECT_EQ(kavrin_reserved_gid(mapped.map, mapped.size, "kavrin-admins"), 7001u);
    std::uint32_t count = 0;
    gid_t* list = nullptr;
    said_by([&] { list = kavrin_getgrouplist(mapped.map, mapped.size, "bob", &count); });
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(list[0], 5003u);
    free(list);
    kavrin_unmap(mapped.map, mapped.size);
}

TEST(GroupMapFile, FailureToUnmapIsReported) {
    const Mapped mapped = map_file(file_of(8192));
    ASSERT_NE(mapped.map, nullptr);
    EXPECT_EQ(said_by([&] { kavrin_unmap(static_cast<char*>(mapped.map) + 1, 4096); }),
              "unmapping group map Invalid argument");
    EXPECT_EQ(said_by([&] { kavrin_unmap(mapped.map, mapped.size); }), "");
}

TEST(GroupMapFile, NothingGoesToTheSystemLog) {
    const kvtest::ConfigTable config(10);
    ExampleMap map;
    groups(map, "alice");
    map.mapsize = 1;
    groups(map, "alice");
    reserved(map, "kavrin-admins");
    map_file(file_of(1));
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST(DebugPrintf, FormatsToStandardError) {
    EXPECT_EQ(said_by([] { debug_printf("%s is %d of %u%%\n", "this", -5, 4000000000u); }),
              "this is -5 of 4000000000%\n");
}

}  // namespace
