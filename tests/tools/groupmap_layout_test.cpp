// The bytes of a group map: whatever the users are, the library's reader, whose bounds are not the
// ones that its records suggest, finds each of them.
#include <gtest/gtest.h>

#include <random>

#include "groupmap_fixture.h"

namespace {

using kvadmin::check_groupmap;
using kvadmin::GroupMapContent;
using kvadmin::GroupMapUser;
using kvtest::Bytes;
using kvtest::bytes_of;
using kvtest::get32;

std::vector<std::uint32_t> some_gids(std::size_t count, std::uint32_t from) {
    std::vector<std::uint32_t> gids(count);
    for (std::size_t i = 0; i < count; ++i) gids[i] = from + static_cast<std::uint32_t>(i);
    return gids;
}

void expect_good(const GroupMapContent& content) {
    const Bytes bytes = bytes_of(content);
    const kvadmin::GroupMapReport report = check_groupmap(bytes);
    ASSERT_TRUE(report.sound()) << kvadmin::first_fault(report);
    ASSERT_EQ(bytes.size() % KAVRIN_GROUPMAP_ALIGN, 0u);
    ASSERT_GE(bytes.size(), std::size_t{KAVRIN_GROUPMAP_MIN_SIZE});
    kvtest::expect_all_readable(bytes, content);
}

}  // namespace

TEST(GroupMapLayout, AnEmptyMapIsTwoPages) {
    const Bytes bytes = bytes_of({});
    EXPECT_EQ(bytes.size(), 8192u);
    EXPECT_TRUE(check_groupmap(bytes).sound());
    expect_good({});
}

TEST(GroupMapLayout, PartsFollowOneAnotherAndTheRestIsZero) {
    const Bytes bytes = bytes_of({{{"kavrin-admins", 3001}}, {{"al", {7, 8}}, {"b", {9}}}});
    EXPECT_EQ(get32(bytes, 0), 16u);
    EXPECT_EQ(get32(bytes, 8), 24u);
    const std::string names("kavrin-admins\0al\0b\0", 19);
    EXPECT_EQ(std::string(bytes.begin() + 56, bytes.begin() + 56 + 19), names);
    EXPECT_EQ(get32(bytes, 24 + 8), 76u) << "ids begin at the next multiple of 4";
    EXPECT_EQ(get32(bytes, 76 + 8), 9u);
    for (std::size_t i = 76 + 12; i < bytes.size(); ++i) ASSERT_EQ(bytes[i], 0) << i;
}

TEST(GroupMapLayout, SizesAroundAPageBorderFit) {
    // The end of the ids moves over both borders that matter, in steps of one group.
    for (std::size_t border : {8192u, 12288u})
        for (std::size_t gids = border / 4 - 16; gids <= border / 4 + 4; ++gids)
            expect_good({{}, {{"u", some_gids(gids, 1)}, {"v", {1}}}});
}

TEST(GroupMapLayout, ALastUserWithTheLongestListIsRead) {
    GroupMapContent content;
    for (int i = 0; i < 50; ++i)
        content.users.push_back({"user" + std::to_string(i), {static_cast<std::uint32_t>(i)}});
    content.users.push_back({"busy", some_gids(65'536, 100)});
    expect_good(content);
    EXPECT_GE(bytes_of(content).size(), 65'536u * 4);
}

TEST(GroupMapLayout, ManyUsersWithAsManyGroupsAsThereMayBeAreRead) {
    GroupMapContent content{{{"kavrin-admins", 1}}, {}};
    for (std::uint32_t i = 0; i < 40; ++i)
        content.users.push_back({"user" + std::to_string(i), some_gids(65'536, i * 100'000)});
    expect_good(content);
}

TEST(GroupMapLayout, UsersWithoutGroupsAreReadAsEmptyLists) {
    expect_good({{}, {{"a", {}}, {"b", {}}, {"c", {5}}, {"d", {}}}});
    expect_good({{}, {{"only", {}}}});
}

TEST(GroupMapLayout, ExtremeIdsAndNamesAreKept) {
    expect_good({{{"r", 4'294'967'294}},
                 {{std::string(1024, 'x'), {0, 4'294'967'294, 2'147'483'648}},
                  {"DOMAIN\\j\xC3\xB6rg$", {1}},
                  {"y", {}}}});
}

TEST(GroupMapLayout, RandomSetsAreReadBackWhole) {
    std::mt19937 random(4711);
    const auto pick = [&](std::uint32_t most) {
        return static_cast<std::uint32_t>(random() % (std::uint64_t{most} + 1));
    };
    for (int round = 0; round < 200; ++round) {
        GroupMapContent content;
        for (std::uint32_t i = pick(4); i-- > 0;)
            content.reserved.push_back({"group" + std::to_string(i), 1 + pick(4'000'000'000)});
        const std::uint32_t users = pick(round % 10 == 0 ? 2'000 : 40);
        const std::uint32_t longest = round % 7 == 0 ? 5'000 : 30;
        for (std::uint32_t i = 0; i < users; ++i) {
            GroupMapUser user{std::to_string(i) + std::string(pick(40), 'n'), {}};
            for (std::uint32_t k = users > 100 ? pick(30) : pick(longest); k-- > 0;)
                user.gids.push_back(static_cast<std::uint32_t>(random()) & 0xFFFFFFFEu);
            content.users.push_back(std::move(user));
        }
        SCOPED_TRACE(round);
        expect_good(content);
        if (HasFatalFailure()) return;
    }
}

TEST(GroupMapLayout, AHundredThousandUsersAreReadBack) {
    std::mt19937 random(42);
    GroupMapContent content{{{"kavrin-admins", 3001}, {"kavrin-powerusers", 3002}}, {}};
    for (int i = 0; i < 100'000; ++i) {
        GroupMapUser user{"employee" + std::to_string(i), {}};
        for (std::uint32_t k = 1 + random() % 20; k-- > 0;)
            user.gids.push_back(static_cast<std::uint32_t>(random() % 100'000));
        content.users.push_back(std::move(user));
    }
    expect_good(content);
}

TEST(GroupMapLayout, MoreBytesThanCanBeReadAreRefused) {
    EXPECT_EQ(kvadmin::kLargestGroupMap, 4'294'963'200u);
    const GroupMapContent content{{}, {{"u", some_gids(3'000, 1)}}};
    EXPECT_EQ(kvadmin::encode_groupmap(content, 12'288).size(), 12'288u);
    try {
        kvadmin::encode_groupmap(content, 12'287);
        FAIL();
    } catch (const kvadmin::CommandError& error) {
        EXPECT_EQ(error.code, kvadmin::Exit::kFailure);
        EXPECT_EQ(error.message,
                  "the group map would have 12288 bytes, and no more than 12287 can be read; leave "
                  "users out; nothing was written");
    }
}

TEST(GroupMapNames, FlawsAreNamed) {
    using kvadmin::flaw_of_name;
    EXPECT_EQ(flaw_of_name("DOMAIN\\alice$"), "");
    EXPECT_EQ(flaw_of_name("j\xC3\xB6rg"), "");
    EXPECT_EQ(flaw_of_name(std::string(1024, 'x')), "");
    EXPECT_EQ(flaw_of_name(std::string(1025, 'x')), "is longer than 1,024 bytes");
    EXPECT_EQ(flaw_of_name(""), "is empty");
    EXPECT_EQ(flaw_of_name("a\nb"), "holds a control character");
    EXPECT_EQ(flaw_of_name(std::string_view("a\0b", 3)), "holds a control character");
    EXPECT_EQ(flaw_of_name("a\x7F"), "holds a control character");
}

TEST(GroupMapNames, FoldingIsOfAsciiLettersOnly) {
    EXPECT_EQ(kvadmin::folded_name("AZaz[@\xC3\x84"), "azaz[@\xC3\x84");
}
