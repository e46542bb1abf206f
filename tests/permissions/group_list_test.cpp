// The groups of a user in a group map: what is found, what is refused with which words, and which
// fields nobody looks at.
#include "group_map_fixture.h"
#include "provoke.h"

namespace {

using namespace kvtest;

TEST(GroupList, HoldsAUsersGroupsInTheirOrder) {
    const ExampleMap map;
    EXPECT_EQ(groups(map, "alice").gids, (Gids{5001, 4000000000u}));
    EXPECT_EQ(groups(map, "Bob").gids, (Gids{5003}));
}

TEST(GroupList, IsPrinted) {
    const ExampleMap map;
    EXPECT_EQ(groups(map, "alice").said,
              "New gid list begins for user alice = 0x2\n"
              "gid[0] = 5001\tgid[1] = 4000000000\t\nEnd of Gid List\n");
    EXPECT_EQ(groups(map, "carol").said,
              "New gid list begins for user carol = 0x0\n\nEnd of Gid List\n");
}

TEST(GroupList, CountIsPrintedInBaseSixteen) {
    ExampleMap map;
    map.word(kUsersAt + 12, 27);
    const Groups answer = groups(map, "alice");
    EXPECT_EQ(answer.gids.size(), 27u);
    EXPECT_EQ(answer.said.rfind("New gid list begins for user alice = 0x1b\n", 0), 0u);
    EXPECT_NE(answer.said.find("\tgid[26] = 0\t\n"), std::string::npos);
}

TEST(GroupList, LetterCaseOfTheUserDoesNotMatter) {
    const ExampleMap map;
    EXPECT_EQ(groups(map, "Alice").gids, (Gids{5001, 4000000000u}));
    EXPECT_EQ(groups(map, "bOB").gids, (Gids{5003}));
}

TEST(GroupList, UnknownUserHasNone) {
    const ExampleMap map;
    for (const char* name : {"dave", "alic", "alice2", "lice", ""}) {
        const Groups answer = groups(map, name);
        EXPECT_FALSE(answer.found) << name;
        EXPECT_EQ(answer.said, "") << name;
    }
}

TEST(GroupList, UserWithoutGroupsHasAnEmptyList) {
    const ExampleMap map;
    const Groups answer = groups(map, "carol");
    EXPECT_TRUE(answer.found);
    EXPECT_EQ(answer.gids, Gids{});
}

TEST(GroupList, FirstOfEqualUsersWins) {
    ExampleMap map;
    map.text(kNamesAt + 96, "ALICE");
    EXPECT_EQ(groups(map, "ALICE").gids, (Gids{5001, 4000000000u}));
}

TEST(GroupList, IsACopy) {
    ExampleMap map;
    std::uint32_t count = 0;
    gid_t* list = nullptr;
    said_by([&] { list = kavrin_getgrouplist(map.bytes(), kSize, "alice", &count); });
    map.words(kIdsAt, {1, 2});
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(list[0], 5001u);
    list[0] = 3;
    EXPECT_EQ(groups(map, "alice").gids, (Gids{1, 2}));
    free(list);
}

TEST(GroupList, MapBelowTwoPagesIsTooShort) {
    ExampleMap map;
    for (const std::uint32_t size : {0u, 16u, 4096u, 8191u}) {
        map.mapsize = size;
        const Groups answer = groups(map, "alice");
        EXPECT_FALSE(answer.found) << size;
        EXPECT_EQ(answer.said, "map too short, bail\n") << size;
    }
}

TEST(GroupList, EmptyTableHasNoUsers) {
    ExampleMap map;
    map.word(12, 0);
    const Groups answer = groups(map, "alice");
    EXPECT_FALSE(answer.found);
    EXPECT_EQ(answer.said, "");
}

TEST(GroupList, NoMoreUsersAreReadThanThereAre) {
    ExampleMap map;
    map.word(12, 1);
    EXPECT_TRUE(groups(map, "alice").found);
    EXPECT_FALSE(groups(map, "Bob").found);
}

TEST(GroupList, NameBeyondTheMapEndsTheSearch) {
    ExampleMap map;
    map.words(kUsersAt, {kSize, 5, kIdsAt, 2});
    Groups answer = groups(map, "Bob");
    EXPECT_FALSE(answer.found);
    EXPECT_EQ(answer.said, "user item 0 name beyond map, bail\n");

    map.words(kUsersAt, {kNamesAt + 64, 5, kIdsAt, 2});
    map.word(kUsersAt + 16, 0xFFFFFFFF);
    answer = groups(map, "carol");
    EXPECT_FALSE(answer.found);
    EXPECT_EQ(answer.said, "user item 1 name beyond map, bail\n");
    EXPECT_TRUE(groups(map, "alice").found);  // found before the search gets there
}

TEST(GroupList, NameThatEndsBeyondTheMapEndsTheSearch) {
    ExampleMap map;
    map.word(kUsersAt + 4, kLimit - (kNamesAt + 64) + 1);
    const Groups answer = groups(map, "alice");
    EXPECT_FALSE(answer.found);
    EXPECT_EQ(answer.said, "user item 0 name beyond map, bail\n");
    map.word(kUsersAt + 4, kLimit - (kNamesAt + 64));
    EXPECT_EQ(groups(map, "alice").gids, (Gids{5001, 4000000000u}));
}

TEST(GroupList, LengthOfTheNameIsForTheBoundsOnly) {
    ExampleMap map;
    for (const std::uint32_t length : {0u, 1u, 1000u}) {
        map.word(kUsersAt + 4, length);
        EXPECT_EQ(groups(map, "alice").gids, (Gids{5001, 4000000000u})) << length;
    }
}

TEST(GroupList, EndOfTheNameIsWorkedOutInThirtyTwoBits) {
    ExampleMap map;
    map.word(kUsersAt + 4, 0xFFFFFFFF);  // the sum wraps to one below the offset
    EXPECT_EQ(groups(map, "alice").gids, (Gids{5001, 4000000000u}));
    map.word(kUsersAt + 4, 0x80000000);  // a large sum that does not
    EXPECT_EQ(groups(map, "alice").said, "user item 0 name beyond map, bail\n");
}

TEST(GroupList, NumberOfGroupsIsBoundedFromTheNamesOffset) {
    ExampleMap map;
    constexpr std::uint32_t kName = 103;  // from here to the last byte, a multiple of four
    map.text(kName, "erin");
    map.words(kUsersAt, {kName, 4, 16, (kLimit - kName) / 4});
    EXPECT_EQ(groups(map, "erin").gids.size(), 2022u);
    map.words(kUsersAt, {kName, 4, 16, (kLimit - kName) / 4 + 1});
    const Groups answer = groups(map, "erin");
    EXPECT_FALSE(answer.found);
    EXPECT_EQ(answer.said, "group item 0 name beyond map, bail\n");
}

TEST(GroupList, NumberOfGroupsIsCheckedBeforeTheNameIsCompared) {
    ExampleMap map;
    map.word(kUsersAt + 16 + 12, 3000);
    const Groups answer = groups(map, "carol");
    EXPECT_FALSE(answer.found);
    EXPECT_EQ(answer.said, "group item 1 name beyond map, bail\n");
}

TEST(GroupList, NumberOfGroupsIsBoundedInThirtyTwoBits) {
    ExampleMap map;
    for (const std::uint32_t count : {0x40000000u, 0x3FFFFFFFu, 0x80000001u}) {
        map.word(kUsersAt + 12, count);
        EXPECT_EQ(groups(map, "Bob").gids, (Gids{5003})) << count;
    }
    map.word(kUsersAt + 12, 0x20000000);
    EXPECT_EQ(groups(map, "Bob").said, "group item 0 name beyond map, bail\n");
}

TEST(GroupList, PlaceOfTheGroupIdsIsNotLookedAt) {
    ExampleMap map(kSize + 4096);
    map.words(kUsersAt, {kNamesAt + 64, 5, 0, 4});  // the header's words
    EXPECT_EQ(groups(map, "alice").gids, (Gids{kReservedAt, 2, kUsersAt, 3}));
    map.words(kUsersAt, {kNamesAt + 64, 5, kSize, 2});  // beyond what counts as the map
    map.words(kSize, {6001, 6002});
    EXPECT_EQ(groups(map, "alice").gids, (Gids{6001, 6002}));
    map.words(kUsersAt, {kNamesAt + 64, 5, kSize + 4096 - 8, 2});
    map.words(kSize + 4096 - 8, {6003, 6004});
    EXPECT_EQ(groups(map, "alice").gids, (Gids{6003, 6004}));
}

TEST(GroupList, PlaceOfTheUserTableIsNotLookedAt) {
    ExampleMap map(kSize + 4096);
    map.word(8, kSize);
    map.words(kSize, {kNamesAt + 96, 3, kIdsAt, 1});
    map.word(12, 1);
    EXPECT_EQ(groups(map, "Bob").gids, (Gids{5001}));
}

TEST(GroupList, TablesAndIdsNeedNoAlignment) {
    ExampleMap map;
    map.header(kReservedAt, 2, 2001, 1);
    map.words(2001, {kNamesAt + 64, 5, 3003, 2});
    map.words(3003, {1, 0x01020304});
    EXPECT_EQ(groups(map, "alice").gids, (Gids{1, 0x01020304}));
}

TEST(GroupList, NameWithoutAnEndIsReadNoFurtherThanTheMap) {
    ExampleMap map;
    std::memcpy(map.bytes() + kSize - 3, "ali", 3);
    map.words(kUsersAt, {kSize - 3, 0, kIdsAt, 0});
    EXPECT_FALSE(groups(map, "alice").found);
    EXPECT_EQ(groups(map, "Bob").gids, (Gids{5003}));
}

TEST(GroupList, WithoutMemoryThereIsNone) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const ExampleMap map;
    std::uint32_t count = 77;
    gid_t* list = nullptr;
    int asked = 0;
    const std::string said = said_by([&] {
        const kvtest::RefusedAllocation refused(1);
        list = kavrin_getgrouplist(map.bytes(), kSize, "alice", &count);
        asked = kvtest::RefusedAllocation::count();
    });
    EXPECT_GE(asked, 1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(said.find("New gid list"), std::string::npos);
}

}  // namespace
