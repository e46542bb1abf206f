// The check of group-map files: each law broken once, every cut, every header word at its extremes
// and every bit flipped; and whenever a damaged file is still called sound, the library's reader
// agrees with what it says.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "groupmap_fixture.h"

namespace {

using kvadmin::check_groupmap;
using kvadmin::GroupMapContent;
using kvadmin::GroupMapReport;
using kvtest::Bytes;
using kvtest::bytes_of;
using kvtest::get32;
using kvtest::put32;

// Header; reserved groups at 16 and 24; users at 32, 48 and 64; names from 80 on:
// kavrin-admins 80, kavrin-powerusers 94, alice 112, bob 118, carol 122; ids from 128 on.
const GroupMapContent& content() {
    static const GroupMapContent kContent{
        {{"kavrin-admins", 3001}, {"kavrin-powerusers", 3002}},
        {{"alice", {1000, 3001}}, {"bob", {1000}}, {"carol", {1000, 1005, 3002}}}};
    return kContent;
}
Bytes honest() {
    static const Bytes kBytes = bytes_of(content());
    return kBytes;
}

std::vector<std::string> lines(const GroupMapReport& report) {
    std::vector<std::string> list;
    for (const auto& finding : report.findings)
        list.push_back((finding.fault ? "" : "remark: ") + line_for(finding));
    return list;
}

// The honest file with one word changed gives these lines and no others.
void expect_lines(std::size_t at, std::uint32_t value, const std::vector<std::string>& expected) {
    Bytes bytes = honest();
    put32(bytes, at, value);
    EXPECT_EQ(lines(check_groupmap(bytes)), expected) << "word " << at << " = " << value;
}

// What a file says, read without the library: by the records alone, the first of a name counting.
void expect_reader_agrees(const Bytes& bytes) {
    // No byte behind the end, so that a memory checker sees a reader that leaves the file.
    const auto exact = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), exact.get());
    const auto name_at = [&](std::size_t at) {
        return std::string(reinterpret_cast<const char*>(bytes.data() + at));
    };
    const kvtest::QuietReader quiet;
    for (std::uint32_t i = 0; i < get32(bytes, 12); ++i) {
        const std::size_t at = get32(bytes, 8) + i * sizeof(uitem);
        kvtest::Gids gids;
        for (std::uint32_t k = 0; k < get32(bytes, at + 12); ++k)
            gids.push_back(get32(bytes, get32(bytes, at + 8) + k * sizeof(gid_t)));
        ASSERT_EQ(kvtest::read_gids(exact.get(), bytes.size(), name_at(get32(bytes, at))), gids);
    }
    for (std::uint32_t i = 0; i < get32(bytes, 4); ++i) {
        const std::size_t at = get32(bytes, 0) + i * sizeof(ritem);
        const std::string name = name_at(get32(bytes, at));
        ASSERT_EQ(kavrin_reserved_gid(exact.get(), static_cast<std::uint32_t>(bytes.size()),
                                      name.c_str()),
                  get32(bytes, at + 4));
    }
}

// Checks the bytes; counts whether they pass, and holds the reader against those that do.
void check(const Bytes& bytes, int& sound) {
    const GroupMapReport report = check_groupmap(bytes);
    ASSERT_EQ(report.sound(), kvadmin::first_fault(report).empty());
    if (!report.sound()) return;
    ++sound;
    expect_reader_agrees(bytes);
}

}  // namespace

TEST(GroupMapCheck, AnHonestFileIsSound) {
    const GroupMapReport report = check_groupmap(honest());
    EXPECT_TRUE(report.sound());
    EXPECT_TRUE(report.findings.empty());
    EXPECT_EQ(report.users, 3u);
    EXPECT_EQ(report.reserved, 2u);
    EXPECT_EQ(report.bytes, 8192u);
    expect_reader_agrees(honest());
}

TEST(GroupMapCheck, SizesThatTheReaderRefusesAreFaults) {
    Bytes bytes = honest();
    bytes.resize(8191);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              std::vector<std::string>{
                  "byte 0, file: it has 8191 bytes; the reader refuses files of fewer than 8192"});
    bytes.resize(8193);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              std::vector<std::string>{
                  "byte 0, file: it has 8193 bytes, no multiple of 4096; the reader refuses it"});
    bytes.resize(12288);
    EXPECT_TRUE(check_groupmap(bytes).sound());
    bytes.resize(15);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              std::vector<std::string>{
                  "byte 0, file: it has 15 bytes, too few for the header of a group map"});
}

TEST(GroupMapCheck, TablesStayInTheFile) {
    expect_lines(0, 8177,
                 {"byte 0, header: the table of 2 reserved groups at byte 8177 leaves the file of "
                  "8192 bytes; the reader finds no reserved group"});
    expect_lines(4, 1'100,
                 {"byte 0, header: the table of 1100 reserved groups at byte 16 leaves the file of "
                  "8192 bytes; the reader finds no reserved group"});
    expect_lines(
        8, 8145,
        {"byte 8, header: the table of 3 users at byte 8145 leaves the file of 8192 bytes; "
         "the reader does not check this and reads beyond the file"});
    expect_lines(
        12, UINT32_MAX,
        {"byte 8, header: the table of 4294967295 users at byte 32 leaves the file of 8192 "
         "bytes; the reader does not check this and reads beyond the file"});
}

TEST(GroupMapCheck, ATableMayEndWithTheFile) {
    Bytes bytes = honest();
    std::copy(bytes.begin() + 16, bytes.begin() + 32, bytes.end() - 16);
    put32(bytes, 0, 8192 - 16);
    EXPECT_TRUE(check_groupmap(bytes).sound()) << lines(check_groupmap(bytes))[0];
    expect_reader_agrees(bytes);
}

TEST(GroupMapCheck, TablesDoNotOverlap) {
    const auto has = [](std::size_t at, std::uint32_t value, const std::string& line) {
        Bytes bytes = honest();
        put32(bytes, at, value);
        const auto found = lines(check_groupmap(bytes));
        EXPECT_NE(std::find(found.begin(), found.end(), line), found.end()) << line;
    };
    has(0, 8, "byte 8, header: the table of reserved groups overlaps the header");
    has(8, 12, "byte 12, header: the table of users overlaps the header");
    has(8, 24, "byte 24, header: the table of users overlaps the table of reserved groups");
    has(0, 72, "byte 32, header: the table of users overlaps the table of reserved groups");
    has(16, 40, "byte 16, reserved group 0: its name at byte 40 overlaps the table of users");
    has(32, 17, "byte 32, user 0: its name at byte 17 overlaps the table of reserved groups");
    has(40, 4, "byte 32, user 0: its list of groups at byte 4 overlaps the header");
    has(40, 60, "byte 32, user 0: its list of groups at byte 60 overlaps the table of users");
}

TEST(GroupMapCheck, NamesAndListsDoNotOverlap) {
    expect_lines(40, 108, {"byte 108, file: a name and a list of groups overlap here"});
    expect_lines(72, 120, {"byte 120, file: a name and a list of groups overlap here"});
}

TEST(GroupMapCheck, ListsMayBeShared) {
    Bytes bytes = honest();
    put32(bytes, 56, get32(bytes, 40));  // bob reads the beginning of alice's list
    EXPECT_TRUE(check_groupmap(bytes).sound());
    expect_reader_agrees(bytes);
}

TEST(GroupMapCheck, ReservedNamesBeyondTheFileHideTheLaterOnes) {
    expect_lines(16, 8192,
                 {"byte 16, reserved group 0: its name at byte 8192 is beyond the file of 8192 "
                  "bytes",
                  "byte 16, reserved group 0: the reader gives up here: 1 later reserved group "
                  "cannot be found"});
    expect_lines(24, UINT32_MAX,
                 {"byte 24, reserved group 1: its name at byte 4294967295 is beyond the file of "
                  "8192 bytes"});
    Bytes bytes = honest();
    bytes.back() = 'x';
    put32(bytes, 24, 8191);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              std::vector<std::string>{"byte 24, reserved group 1: its name at byte 8191 does not "
                                       "end within 4096 bytes and the file"});
}

TEST(GroupMapCheck, ReservedIdsAreOnesThatTheReaderCanTell) {
    expect_lines(20, 0,
                 {"byte 16, reserved group 0: its id is 0, which the reader cannot tell from a "
                  "missing group"});
    expect_lines(20, UINT32_MAX,
                 {"byte 16, reserved group 0: its id is 4294967295, which is no group's"});
}

TEST(GroupMapCheck, AUserThatTheReaderRefusesHidesTheLaterOnes) {
    const std::string hidden =
        "byte 32, user 0: the reader gives up here: 2 later users cannot be found";
    expect_lines(32, 8192,
                 {"byte 32, user 0: its name at byte 8192 with 5 bytes leaves the file of 8192 "
                  "bytes",
                  hidden});
    expect_lines(36, 8080,
                 {"byte 32, user 0: its name at byte 112 with 8080 bytes leaves the file of 8192 "
                  "bytes",
                  hidden, "byte 32, user 0: its name \"alice\" has 5 bytes, not 8080 as it says"});
    expect_lines(64, 9000,
                 {"byte 64, user 2: its name at byte 9000 with 5 bytes leaves the file of 8192 "
                  "bytes"});
}

TEST(GroupMapCheck, TheReadersBoundCountsFromTheName) {
    // 2,000 groups from byte 128 on lie inside the file, and so they do counted from the name.
    Bytes bytes = honest();
    put32(bytes, 44, 2'000);
    EXPECT_TRUE(check_groupmap(bytes).sound());
    expect_reader_agrees(bytes);

    // The same list fits, but the name stands too late for the reader.
    const std::string late = "late";
    std::copy(late.begin(), late.end(), bytes.end() - 8);
    put32(bytes, 32, 8184);
    put32(bytes, 36, 4);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              (std::vector<std::string>{
                  "byte 32, user 0: the reader wants the file to go on behind the name's start, "
                  "byte 8184, for as long as the list of 2000 groups is, and it ends at 8192",
                  "byte 32, user 0: the reader gives up here: 2 later users cannot be found"}));
    const kvtest::QuietReader quiet;
    EXPECT_EQ(kvtest::read_gids(bytes.data(), bytes.size(), "late"), std::nullopt);
    EXPECT_EQ(kvtest::read_gids(bytes.data(), bytes.size(), "bob"), std::nullopt);
}

TEST(GroupMapCheck, ListsStayInTheFileWhereTheReaderDoesNotLook) {
    expect_lines(40, 8188,
                 {"byte 32, user 0: its 2 group ids at byte 8188 leave the file of 8192 bytes; the "
                  "reader does not check this and reads beyond the file"});
    expect_lines(40, UINT32_MAX,
                 {"byte 32, user 0: its 2 group ids at byte 4294967295 leave the file of 8192 "
                  "bytes; the reader does not check this and reads beyond the file"});
    // 4 times this is 0 in 32 bits, so the reader's own bound holds.
    expect_lines(44, 1u << 30,
                 {"byte 32, user 0: its 1073741824 group ids at byte 128 leave the file of 8192 "
                  "bytes; the reader does not check this and reads beyond the file"});
}

TEST(GroupMapCheck, NameLengthsAreTrue) {
    expect_lines(52, 4, {"byte 48, user 1: its name \"bob\" has 3 bytes, not 4 as it says"});
    // Wraps round for the reader, which is content with it.
    expect_lines(52, UINT32_MAX,
                 {"byte 48, user 1: its name \"bob\" has 3 bytes, not 4294967295 as it says"});
    expect_lines(48, 121,
                 {"byte 48, user 1: its name at byte 121 is empty",
                  "byte 48, user 1: its name \"\" has 0 bytes, not 3 as it says"});
}

TEST(GroupMapCheck, NamesAreTakenAsLookUpsTakeThem) {
    Bytes bytes = honest();
    std::copy_n("ALICE", 5, bytes.begin() + 122);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              std::vector<std::string>{"byte 64, user 2: its name \"ALICE\" is that of user 0 but "
                                       "for case; look-ups find the first one only"});
    put32(bytes, 64, 112);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              std::vector<std::string>{"byte 64, user 2: its name \"alice\" is that of user 0; "
                                       "look-ups find the first one only"});
    bytes = honest();
    put32(bytes, 24, 80);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              std::vector<std::string>{
                  "byte 24, reserved group 1: its name \"kavrin-admins\" is that of reserved group "
                  "0; look-ups find the first one only"});
}

TEST(GroupMapCheck, WhatIsOddButHarmlessIsARemark) {
    Bytes bytes = honest();
    std::copy_backward(bytes.begin() + 128, bytes.begin() + 152, bytes.begin() + 153);
    for (const std::size_t at : {40u, 56u, 72u}) put32(bytes, at, get32(bytes, at) + 1);
    EXPECT_EQ(lines(check_groupmap(bytes)),
              std::vector<std::string>{"remark: byte 8, header: the group ids of 3 users begin at "
                                       "no multiple of 4"});
    EXPECT_TRUE(check_groupmap(bytes).sound());
    expect_reader_agrees(bytes);

    bytes = honest();
    std::copy_n(bytes.begin() + 16, 16, bytes.begin() + 161);
    put32(bytes, 0, 161);
    EXPECT_EQ(
        lines(check_groupmap(bytes)),
        std::vector<std::string>{"remark: byte 0, header: the table of reserved groups begins "
                                 "at byte 161, no multiple of 4"});
    expect_reader_agrees(bytes);
}

TEST(GroupMapCheck, AMissingReservedGroupIsToldWhereItMatters) {
    const Bytes none = bytes_of({{{"kavrin-admins", 5}}, {{"root", {0}}, {"x", {7, 0}}}});
    EXPECT_EQ(lines(check_groupmap(none)),
              std::vector<std::string>{
                  "remark: byte 4, header: there is no reserved group kavrin-powerusers, which the "
                  "reader takes for group 0: \"root\" (and 1 more users in group 0) counts as a "
                  "member"});
    EXPECT_TRUE(check_groupmap(bytes_of({{}, {{"alice", {1000}}}})).findings.empty());
}

TEST(GroupMapCheck, CutsAreNeverSoundBelowTheSmallestSize) {
    const Bytes whole = honest();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const GroupMapReport report = check_groupmap(std::span(whole).first(size));
        ASSERT_FALSE(report.sound()) << size;
        ASSERT_EQ(report.bytes, size);
    }
    const Bytes large = bytes_of({{}, {{"u", std::vector<std::uint32_t>(4'000, 7)}}});
    ASSERT_EQ(large.size(), 16'384u);
    for (std::size_t size = 8192; size < large.size(); ++size)
        ASSERT_FALSE(check_groupmap(std::span(large).first(size)).sound()) << size;
}

TEST(GroupMapCheck, HeaderWordsAtTheirExtremesAreJudged) {
    int sound = 0;
    const auto size = static_cast<std::uint32_t>(honest().size());
    const std::uint32_t extremes[] = {0,
                                      1,
                                      2,
                                      size - 16,
                                      size - 1,
                                      size,
                                      size + 1,
                                      1u << 29,
                                      (1u << 29) + 1,
                                      1u << 28,
                                      1u << 31,
                                      UINT32_MAX,
                                      UINT32_MAX - 7,
                                      UINT32_MAX - 15};
    for (const std::uint32_t a : extremes)
        for (const std::uint32_t b : extremes)
            for (std::size_t first = 0; first < 16; first += 4)
                for (std::size_t second = 0; second < 16; second += 4) {
                    Bytes bytes = honest();
                    put32(bytes, first, a);
                    put32(bytes, second, b);
                    check(bytes, sound);
                    if (HasFatalFailure()) return;
                }
    // Fewer entries than there are, or none wherever the table may be, make a file that is sound.
    EXPECT_GT(sound, 0);
}

TEST(GroupMapCheck, RecordWordsAtTheirExtremesAreJudged) {
    int sound = 0;
    const auto size = static_cast<std::uint32_t>(honest().size());
    for (std::size_t at = 16; at < 80; at += 4)
        for (const std::uint32_t value :
             {0u, 1u, 15u, 79u, 80u, size - 4, size - 1, size, size + 1, 1u << 30, (1u << 30) + 1,
              1u << 31, UINT32_MAX - 111, UINT32_MAX - 3, UINT32_MAX}) {
            Bytes bytes = honest();
            put32(bytes, at, value);
            check(bytes, sound);
            if (HasFatalFailure()) return;
        }
    EXPECT_GT(sound, 0);
}

TEST(GroupMapCheck, EveryFlippedBitIsToldOrHarmless) {
    int sound = 0;
    int flipped = 0;
    for (std::size_t at = 0; at < 160; ++at)
        for (int bit = 0; bit < 8; ++bit, ++flipped) {
            Bytes bytes = honest();
            bytes[at] ^= static_cast<std::uint8_t>(1 << bit);
            check(bytes, sound);
            if (HasFatalFailure()) return;
        }
    // Other names, other ids, fewer entries; never another place.
    EXPECT_GT(sound, flipped / 8);
    EXPECT_LT(sound, flipped / 2 + flipped / 8);
    // Padding is nobody's.
    Bytes bytes = honest();
    for (std::size_t at = 160; at < bytes.size(); ++at) bytes[at] = 0xA5;
    EXPECT_TRUE(check_groupmap(bytes).sound());
}

TEST(GroupMapCheck, AFloodOfFaultsIsCountedAndKeptInPart) {
    GroupMapContent many;
    for (int i = 0; i < 5'000; ++i) many.users.push_back({"u" + std::to_string(i), {7}});
    Bytes bytes = bytes_of(many);
    for (std::uint32_t i = 0; i < 5'000; ++i) put32(bytes, 16 + i * 16 + 4, 1);
    const GroupMapReport report = check_groupmap(bytes);
    EXPECT_EQ(report.faults, 5'000u);
    EXPECT_EQ(report.findings.size(), GroupMapReport::kKeptFindings);
}

TEST(GroupMapCheck, AWorstCaseFileIsJudgedInLinearTime) {
    // Every user has all of the file as his list, and one name of the longest kind.
    Bytes bytes(std::size_t{1} << 18, 'n');
    put32(bytes, 0, 16);
    put32(bytes, 4, 0);
    put32(bytes, 8, 16);
    const auto users = static_cast<std::uint32_t>(bytes.size() / 32);
    put32(bytes, 12, users);
    for (std::uint32_t i = 0; i < users; ++i) {
        const std::size_t at = 16 + std::size_t{i} * 16;
        put32(bytes, at, static_cast<std::uint32_t>(bytes.size() / 2 + 64 + i));
        put32(bytes, at + 4, 4096);
        put32(bytes, at + 8, 0);
        put32(bytes, at + 12, static_cast<std::uint32_t>(bytes.size() / 4));
    }
    for (std::size_t at = bytes.size() / 2 + 4096; at < bytes.size(); at += 4097) bytes[at] = 0;
    bytes.back() = 0;
    EXPECT_FALSE(check_groupmap(bytes).sound());
}
