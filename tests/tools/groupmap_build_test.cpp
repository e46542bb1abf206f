// kavrinctl groupmap build: from JSON files good and bad, from the account database of a machine
// made up here, and what is on the disk before, after and in between.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>

#include "groupmap_fixture.h"

namespace {

using kvtest::ChildResult;
using kvtest::expect_refused;
using kvtest::Gids;
using kvtest::MappedGroups;
using kvtest::run_tool;
using kvtest::write_file;

const std::string kMap = kvadmin::kGroupMapPath;

ChildResult build_from(const std::string& json) {
    write_file("/tmp/groups.json", json);
    return run_tool({"groupmap", "build", "--from", "/tmp/groups.json"});
}

// A refused file leaves no trace: neither of its own, nor on what was there.
void expect_json_refused(const std::string& json, const std::string& message, int code = 3) {
    SCOPED_TRACE(json);
    write_file(kMap, "as it was");
    expect_refused(build_from(json), code, "/tmp/groups.json:" + message + "; nothing was written");
    EXPECT_EQ(kvtest::read_file(kMap), "as it was");
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/etc/kavrin"))
        files += entry.exists() ? 1 : 0;
    EXPECT_EQ(files, 1u);
}

// Gives the sandbox's machine these accounts and groups besides root.
void make_machine(const std::string& accounts, const std::string& groups) {
    ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr);
    write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\n");
    write_file("/etc/passwd", "root:x:0:0::/root:/bin/sh\n" + accounts);
    write_file("/etc/group", "root:x:0:\n" + groups);
}

constexpr const char* kPeople =
    "daemon:x:2:2::/:/bin/false\n"
    "anna:x:1001:2000::/:/bin/sh\n"
    "bert:x:1002:2000::/:/bin/sh\n";
constexpr const char* kGroups =
    "daemon:x:2:\nstaff:x:2000:\nprojects:x:2001:anna,bert\n"
    "kavrin-admins:x:3000:\nkavrin-powerusers:x:3001:bert\n";

std::string wrote(const std::string& what) {
    return "wrote /etc/kavrin/groupmap_refresh: " + what + "\n";
}

}  // namespace

TEST(GroupMapBuild, WritesWhatTheJsonFileSays) {
    const ChildResult result = build_from(
        "{\"reserved\": {\"kavrin-admins\": 3001, \"kavrin-powerusers\": 3002},\n"
        " \"users\": {\"alice\": [1000, 3001], \"j\\u00f6rg\": [], \"x$\": [0, 4294967294]}}\n");
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, wrote("2 reserved groups, 3 users, 4 group ids, 8192 bytes"));
    const MappedGroups map(kMap);
    const kvtest::QuietReader quiet;
    EXPECT_EQ(map.gids("ALICE"), (Gids{1000, 3001}));
    EXPECT_EQ(map.gids("j\xC3\xB6rg"), Gids{});
    EXPECT_EQ(map.gids("X$"), (Gids{0, 4294967294}));
    EXPECT_EQ(map.gids("bob"), std::nullopt);
    EXPECT_EQ(map.reserved("kavrin-admins"), 3001u);
    EXPECT_EQ(map.reserved("Kavrin-PowerUsers"), 3002u);
    EXPECT_EQ(map.reserved("kavrin-others"), 0u);
}

TEST(GroupMapBuild, AJsonFileMaySayNothing) {
    EXPECT_EQ(build_from("{\"users\": {}}").out,
              wrote("0 reserved groups, 0 users, 0 group ids, 8192 bytes"));
    EXPECT_EQ(build_from("/* none */ {\"reserved\": {}, \"users\": {}} // yet\n").exit_code, 0);
}

TEST(GroupMapBuild, TellsWhoMovesUpWhenAReservedGroupIsMissing) {
    const ChildResult result =
        build_from("{\"reserved\": {\"kavrin-admins\": 5}, \"users\": {\"eve\": [7, 0]}}");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err,
              "kavrinctl: there is no reserved group kavrin-powerusers, which the reader takes for "
              "group 0: \"eve\" counts as a member\n");
}

TEST(GroupMapBuild, BadJsonIsToldWithItsPlace) {
    const std::string cut = "; the rest of the file was not checked";
    expect_json_refused("", "1:1: the file is empty" + cut);
    expect_json_refused("[]", "1:1: the document must be an object, not an array");
    expect_json_refused("{\"users\": {\"a\": [1,]}}", "1:20: expected a value, found ']'" + cut);
    expect_json_refused("{\n \"users\": {\"a\": [1}}",
                        "2:19: expected ',' or ']' after an item, found '}'" + cut);
    expect_json_refused(
        "{\"users\": {\"a\": [1]}",
        "1:21: expected ',' or '}' after a member, found the end of the file" + cut);
    expect_json_refused("{\"users\": {}} {}",
                        "1:15: found an object behind the end of the document; remove it" + cut);
    expect_json_refused("{\"users\": {\"\xFF\": [1]}}",
                        "1:13: the key holds bytes that are not UTF-8; write it in UTF-8");
    expect_json_refused("\xEF\xBB\xBF{\"users\": {}}",
                        "1:1: begins with a byte order mark; save it as UTF-8 without one");
}

TEST(GroupMapBuild, WrongKeysAndKindsAreTold) {
    expect_json_refused("{}",
                        "1:2: \"users\" is missing; add it, as {} if there are to be no users");
    expect_json_refused("{\"user\": {}, \"users\": {}}",
                        "1:2: unknown key \"user\"; there are \"reserved\" and \"users\" only");
    expect_json_refused("{\"users\": {}, \"users\": {}}",
                        "1:15: \"users\" is given twice; put both into one");
    expect_json_refused("{\"users\": []}", "1:11: \"users\" must be an object, not an array");
    expect_json_refused("{\"users\": {\"a\": 5}}",
                        "1:17: the groups of \"a\" must be an array, not a number");
    expect_json_refused("{\"users\": {\"a\": [\"5\"]}}",
                        "1:18: a group of \"a\" must be a number, not a string");
    expect_json_refused("{\"reserved\": {\"g\": [5]}, \"users\": {}}",
                        "1:20: the id of \"g\" must be a number, not an array");
}

TEST(GroupMapBuild, NamesThatLookUpsTakeForOneAreAnError) {
    expect_json_refused("{\"users\": {\"alice\": [1],\n \"alice\": [1]}}",
                        "2:2: \"alice\" is given twice, first in line 1; keep one");
    expect_json_refused("{\"users\": {\"alice\": [1],\n \"b\": [], \"ALICE\": [2]}}",
                        "2:11: \"ALICE\" differs only by letter case from \"alice\" in line 1, and "
                        "look-ups take them for one; keep one");
    expect_json_refused(
        "{\"reserved\": {\"g\": 1, \"G\": 2}, \"users\": {}}",
        "1:23: \"G\" differs only by letter case from \"g\" in line 1, and look-ups "
        "take them for one; keep one");
    // Escapes are spellings of the same name.
    expect_json_refused("{\"users\": {\"a\": [1], \"\\u0061\": [1]}}",
                        "1:22: \"a\" is given twice, first in line 1; keep one");
    // Outside ASCII case counts, for look-ups as here.
    EXPECT_EQ(build_from("{\"users\": {\"\xC3\x84\": [1], \"\xC3\xA4\": [2]}}").exit_code, 0);
    const MappedGroups map(kMap);
    const kvtest::QuietReader quiet;
    EXPECT_EQ(map.gids("\xC3\xA4"), Gids{2});
}

TEST(GroupMapBuild, NumbersOutsideTheirRangeAreRefused) {
    const std::string plain =
        "; write it in decimal digits alone, without sign, leading zero, fraction or exponent";
    const auto user = [](const std::string& number) {
        return "{\"users\": {\"a\": [" + number + "]}}";
    };
    const std::string too_large = "which does not fit; the largest is 4294967294";
    expect_json_refused(user("4294967295"),
                        "1:18: a group of \"a\" is \"4294967295\", " + too_large);
    expect_json_refused(user("99999999999999999999999"),
                        "1:18: a group of \"a\" is \"99999999999999999999999\", " + too_large);
    expect_json_refused(user("-1"), "1:18: a group of \"a\" is \"-1\"" + plain);
    expect_json_refused(user("1.0"), "1:18: a group of \"a\" is \"1.0\"" + plain);
    expect_json_refused(user("1e3"), "1:18: a group of \"a\" is \"1e3\"" + plain);
    expect_json_refused(user("5, 6, 5"), "1:24: \"a\" is in group 5 twice; keep one");
    expect_json_refused(user("5, 5, 6, 6"),
                        "1:21: \"a\" is in group 5 twice; keep one (and 1 more faults)");
    expect_json_refused("{\"reserved\": {\"g\": 0}, \"users\": {}}",
                        "1:20: the id of \"g\" is 0, which the reader cannot tell from a missing "
                        "group; give the group another id, or leave it out");
    expect_json_refused("{\"reserved\": {\"g\": 4294967295}, \"users\": {}}",
                        "1:20: the id of \"g\" is \"4294967295\", " + too_large);
}

TEST(GroupMapBuild, NamesThatNoAccountHasAreRefused) {
    const std::string advice = "; write it as the account database has it";
    expect_json_refused("{\"users\": {\"\": [1]}}", "1:12: the name of a user is empty" + advice);
    expect_json_refused("{\"users\": {\"a\\u0000b\": [1]}}",
                        "1:12: the name of a user holds a control character" + advice);
    expect_json_refused("{\"reserved\": {\"a\\n\": 1}, \"users\": {}}",
                        "1:15: the name of a reserved group holds a control character" + advice);
    for (const std::size_t length : {1'025u, 100'000u})
        expect_json_refused("{\"users\": {\"" + std::string(length, 'x') + "\": [1]}}",
                            "1:12: the name of a user is longer than 1,024 bytes" + advice);
}

TEST(GroupMapBuild, AUserIsInAsManyGroupsAsAProcessMayBe) {
    std::string gids = "1";
    for (int i = 2; i <= 65'536; ++i) gids += "," + std::to_string(i);
    ASSERT_EQ(build_from("{\"users\": {\"a\": [" + gids + "]}}").exit_code, 0);
    {
        const MappedGroups map(kMap);
        const kvtest::QuietReader quiet;
        ASSERT_TRUE(map.gids("a").has_value());
        EXPECT_EQ(map.gids("a")->size(), 65'536u);
    }
    const ChildResult result = build_from("{\"users\": {\"a\": [" + gids + ",65537]}}");
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_NE(result.err.find("\"a\" is in more than 65536 groups, which no process may have"),
              std::string::npos)
        << result.err;
}

TEST(GroupMapBuild, AHundredThousandUsersGoThroughTheTool) {
    kvadmin::GroupMapContent content{{{"kavrin-admins", 3001}}, {}};
    std::string json = "{\"reserved\": {\"kavrin-admins\": 3001}, \"users\": {\n";
    for (std::uint32_t i = 0; i < 100'000; ++i) {
        content.users.push_back({"user" + std::to_string(i), {i, 200'000 + i % 97, 300'001}});
        json += (i == 0 ? "\"" : ",\n\"") + content.users.back().name + "\": [" +
                std::to_string(i) + "," + std::to_string(200'000 + i % 97) + ",300001]";
    }
    const ChildResult result = build_from(json + "}}\n");
    ASSERT_EQ(result.exit_code, 0) << result.err;
    const MappedGroups map(kMap);
    kvtest::expect_all_readable(map.bytes(), content);
}

TEST(GroupMapBuild, UnreadableSourcesAreAFailure) {
    write_file(kMap, "as it was");
    expect_refused(run_tool({"groupmap", "build", "--from", "/nowhere.json"}), 1,
                   "cannot open '/nowhere.json': No such file or directory; nothing was written");
    expect_refused(run_tool({"groupmap", "build", "--from", "/tmp"}), 1,
                   "'/tmp': it cannot be read: Is a directory; nothing was written");
    EXPECT_EQ(kvtest::read_file(kMap), "as it was");
}

TEST(GroupMapBuild, TheFileIsReadableByAllAndWritableByRootOnly) {
    const ChildResult result = kvtest::run_child([] {
        umask(0077);
        write_file("/tmp/groups.json", "{\"users\": {}}");
        const char* words[] = {"kavrinctl", "groupmap", "build", "--from", "/tmp/groups.json"};
        return kvadmin::run(5, words);
    });
    ASSERT_EQ(result.exit_code, 0) << result.err;
    struct stat status;
    ASSERT_EQ(stat(kMap.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0644u);
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(status.st_gid, 0u);
}

TEST(GroupMapBuild, ANewFileIsNewerThanAnyLookAtTheOldOne) {
    struct stat status;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(build_from("{\"users\": {}}").exit_code, 0);
        // A connection that looked just before marked this second or an earlier one, and compares
        // with "later than".
        const std::time_t mark = std::time(nullptr);
        ASSERT_EQ(stat(kMap.c_str(), &status), 0);
        EXPECT_GE(status.st_mtime, mark);
        EXPECT_LE(status.st_mtime, mark + 1) << "it must not lie ahead for long";
    }
}

TEST(GroupMapBuild, AReaderOfTheOldFileKeepsIt) {
    ASSERT_EQ(build_from("{\"users\": {\"a\": [1]}}").exit_code, 0);
    const MappedGroups old(kMap);
    ASSERT_EQ(build_from("{\"users\": {\"a\": [2]}}").exit_code, 0);
    const MappedGroups fresh(kMap);
    const kvtest::QuietReader quiet;
    EXPECT_EQ(old.gids("a"), Gids{1});
    EXPECT_EQ(fresh.gids("a"), Gids{2});
}

TEST(GroupMapBuild, PlacesThatCannotBeWrittenAreTold) {
    write_file("/tmp/groups.json", "{\"users\": {}}");
    const auto output = [](const std::string& path) {
        return run_tool({"groupmap", "build", "--from", "/tmp/groups.json", "--output", path});
    };
    expect_refused(output("/tmp"), 1, "'/tmp' is a folder; name the file to write");
    expect_refused(output("/nowhere/map"), 1,
                   "cannot create a file beside '/nowhere/map': No such file or directory");
    EXPECT_EQ(output("/tmp/map").exit_code, 0);
    EXPECT_TRUE(kvtest::file_exists("/tmp/map"));
    ASSERT_EQ(chdir("/tmp"), 0);
    EXPECT_EQ(output("here").exit_code, 0);
    EXPECT_TRUE(kvtest::file_exists("/tmp/here"));
}

TEST(GroupMapBuild, AFullDiskLeavesTheFileAsItWas) {
    ASSERT_EQ(build_from("{\"users\": {\"a\": [1]}}").exit_code, 0);
    const std::string before = kvtest::read_file(kMap);
    const ChildResult result = kvtest::run_child([] {
        // Every write beyond 4 KiB fails.
        struct rlimit limit {
            4096, 4096
        };
        std::signal(SIGXFSZ, SIG_IGN);
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 99;
        const char* words[] = {"kavrinctl", "groupmap", "build", "--from", "/tmp/groups.json"};
        return kvadmin::run(5, words);
    });
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.err.find("File too large; '/etc/kavrin/groupmap_refresh' is as it was\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(kvtest::read_file(kMap), before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/etc/kavrin"), {}), 1);
}

TEST(GroupMapBuild, TakesTheMachinesAccounts) {
    make_machine(kPeople, kGroups);
    const ChildResult result = run_tool({"groupmap", "build"});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, wrote("2 reserved groups, 4 users, 7 group ids, 8192 bytes"));
    const MappedGroups map(kMap);
    const kvtest::QuietReader quiet;
    EXPECT_EQ(map.gids("root"), Gids{0});
    EXPECT_EQ(map.gids("anna"), (Gids{2000, 2001}));
    EXPECT_EQ(map.gids("Bert"), (Gids{2000, 2001, 3001})) << "the primary one first";
    EXPECT_EQ(map.reserved("kavrin-admins"), 3000u);
    EXPECT_EQ(map.reserved("kavrin-powerusers"), 3001u);
}

TEST(GroupMapBuild, TakesOnlyTheAccountsThatAreAskedFor) {
    make_machine(kPeople, kGroups);
    EXPECT_EQ(run_tool({"groupmap", "build", "--min-uid", "1000"}).out,
              wrote("2 reserved groups, 2 users, 5 group ids, 8192 bytes"));
    EXPECT_EQ(run_tool({"groupmap", "build", "--users", "bert,root"}).out,
              wrote("2 reserved groups, 2 users, 4 group ids, 8192 bytes"));
    EXPECT_EQ(run_tool({"groupmap", "build", "--users", "bert", "--users", "bert"}).out,
              wrote("2 reserved groups, 1 users, 3 group ids, 8192 bytes"));
    EXPECT_EQ(run_tool({"groupmap", "build", "--reserved", "staff,STAFF"}).out,
              wrote("1 reserved groups, 4 users, 7 group ids, 8192 bytes"));
    const kvtest::QuietReader quiet;
    EXPECT_EQ(MappedGroups(kMap).reserved("staff"), 2000u);
}

TEST(GroupMapBuild, AccountsThatAreNotThereAreRefused) {
    make_machine(kPeople, kGroups);
    write_file(kMap, "as it was");
    expect_refused(run_tool({"groupmap", "build", "--users", "anna,carl"}), 64,
                   "there is no user 'carl'; name users that 'getent passwd' knows; nothing was "
                   "written");
    expect_refused(run_tool({"groupmap", "build", "--min-uid", "5000"}), 1,
                   "no account is left to write; a group map without users would take every group "
                   "from every connection; nothing was written");
    EXPECT_EQ(run_tool({"groupmap", "build", "--users", "anna", "--min-uid", "5"}).exit_code, 64);
    EXPECT_EQ(run_tool({"groupmap", "build", "--from", "x", "--users", "anna"}).exit_code, 64);
    EXPECT_EQ(run_tool({"groupmap", "build", "--from", "x", "--reserved", "g"}).exit_code, 64);
    EXPECT_EQ(run_tool({"groupmap"}).exit_code, 64);
    EXPECT_EQ(kvtest::read_file(kMap), "as it was");
}

TEST(GroupMapBuild, ReservedGroupsThatAreNotThereAreToldAndLeftOut) {
    make_machine(kPeople, "staff:x:2000:\n");
    const ChildResult result = run_tool({"groupmap", "build"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err,
              "kavrinctl: there is no group 'kavrin-admins' on this machine; it is left out\n"
              "kavrinctl: there is no group 'kavrin-powerusers' on this machine; it is left out\n"
              "kavrinctl: there is no reserved group kavrin-admins, which the reader takes for "
              "group 0: \"root\" counts as a member\n"
              "kavrinctl: there is no reserved group kavrin-powerusers, which the reader takes for "
              "group 0: \"root\" counts as a member\n");
    EXPECT_EQ(result.out, wrote("0 reserved groups, 4 users, 4 group ids, 8192 bytes"));
}

TEST(GroupMapBuild, AReservedGroupWithTheIdZeroIsRefused) {
    make_machine(kPeople, "kavrin-admins:x:0:\n");
    write_file(kMap, "as it was");
    expect_refused(run_tool({"groupmap", "build"}), 1,
                   "the group 'kavrin-admins' has the id 0, which the reader cannot tell from a "
                   "missing group; give it another id; nothing was written");
    EXPECT_EQ(kvtest::read_file(kMap), "as it was");
}

TEST(GroupMapBuild, AccountsThatDifferByCaseNeverGetEachOthersGroups) {
    make_machine(std::string(kPeople) + "ANNA:x:1003:2000::/:/bin/sh\nBERT:x:1004:2::/:/bin/sh\n",
                 std::string(kGroups) + "more:x:2005:ANNA\n");
    const ChildResult result = run_tool({"groupmap", "build", "--min-uid", "1002"});
    EXPECT_EQ(result.exit_code, 1) << "nobody is left";
    EXPECT_EQ(run_tool({"groupmap", "build"}).err,
              "kavrinctl: the accounts 'anna' and 'ANNA' are one name to the reader; they have "
              "different groups, so both are left out: rename one\n"
              "kavrinctl: the accounts 'bert' and 'BERT' are one name to the reader; they have "
              "different groups, so both are left out: rename one\n");
    const MappedGroups map(kMap);
    const kvtest::QuietReader quiet;
    EXPECT_EQ(map.gids("anna"), std::nullopt);
    EXPECT_EQ(map.gids("BERT"), std::nullopt);
    EXPECT_EQ(map.gids("daemon"), Gids{2});
}

TEST(GroupMapBuild, AccountsThatDifferByCaseMayShareEqualGroups) {
    make_machine(std::string(kPeople) + "ANNA:x:1003:2001::/:/bin/sh\n", kGroups);
    write_file("/etc/group",
               "staff:x:2000:ANNA\nprojects:x:2001:anna\nkavrin-admins:x:3000:\n"
               "kavrin-powerusers:x:3001:\n");
    const ChildResult result = run_tool({"groupmap", "build", "--min-uid", "1001"});
    EXPECT_EQ(result.err,
              "kavrinctl: the accounts 'anna' and 'ANNA' are one name to the reader; they have the "
              "same groups and share an entry\n");
    const MappedGroups map(kMap);
    const kvtest::QuietReader quiet;
    EXPECT_EQ(map.gids("anna"), (Gids{2000, 2001}));
}

TEST(GroupMapBuild, ARepeatedAccountCountsOnce) {
    make_machine(std::string(kPeople) + "anna:x:1001:2000::/:/bin/sh\nbert:x:1009:0::/:/bin/sh\n",
                 kGroups);
    const ChildResult result = run_tool({"groupmap", "build"});
    EXPECT_EQ(result.err,
              "kavrinctl: 'bert' is there twice, with different ids; the first one counts, uid "
              "1002 in group 2000\n");
    EXPECT_EQ(result.out, wrote("2 reserved groups, 4 users, 7 group ids, 8192 bytes"));
}

TEST(GroupMapBuild, AnAccountInThousandsOfGroupsKeepsThemAll) {
    std::string groups = kGroups;
    Gids expected{2000};
    for (gid_t gid = 10'000; gid < 13'000; ++gid) {
        groups += "g" + std::to_string(gid) + ":x:" + std::to_string(gid) + ":anna\n";
        expected.push_back(gid);
    }
    make_machine(kPeople, groups);
    ASSERT_EQ(run_tool({"groupmap", "build"}).exit_code, 0);
    const MappedGroups map(kMap);
    const kvtest::QuietReader quiet;
    Gids found = map.gids("anna").value_or(Gids{});
    EXPECT_EQ(found.front(), 2000u);
    expected.push_back(2001);
    std::sort(found.begin(), found.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(found, expected);
}

TEST(GroupMapBuild, AnyoneMayWriteAFileOfHisOwn) {
    write_file("/tmp/groups.json", "{\"users\": {\"a\": [1]}}");
    const ChildResult result = kvtest::run_child([] {
        if (setresgid(3001, 3001, 3001) != 0 || setresuid(3001, 3001, 3001) != 0) return 99;
        const char* words[] = {"kavrinctl",        "groupmap", "build",    "--from",
                               "/tmp/groups.json", "--output", "/tmp/mine"};
        return kvadmin::run(7, words);
    });
    EXPECT_EQ(result.exit_code, 0) << result.err;
    const ChildResult refused = kvtest::run_child([] {
        if (setresgid(3001, 3001, 3001) != 0 || setresuid(3001, 3001, 3001) != 0) return 99;
        const char* words[] = {"kavrinctl", "groupmap", "build", "--from", "/tmp/groups.json"};
        return kvadmin::run(5, words);
    });
    expect_refused(refused, 1,
                   "cannot create a file beside '/etc/kavrin/groupmap_refresh': Permission denied");
}
