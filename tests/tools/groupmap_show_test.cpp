// kavrinctl groupmap show and lint as an administrator sees them: the texts, the documents, the
// exit codes, and nothing of what the library's reader says on the way.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "groupmap_fixture.h"

namespace {

using kvtest::Bytes;
using kvtest::ChildResult;
using kvtest::expect_refused;
using kvtest::put32;
using kvtest::run_tool;

const std::string kMap = kvadmin::kGroupMapPath;

void put(const std::string& path, const Bytes& bytes) {
    kvtest::write_file(path, std::string(bytes.begin(), bytes.end()));
}

Bytes example() {
    return kvtest::bytes_of(
        {{{"kavrin-admins", 3000}, {"kavrin-powerusers", 3001}},
         {{"anna", {2000, 3001}}, {"bert", {2000, 3000, 77777}}, {"carl", {}}, {"\x1b[31m", {0}}}});
}

void name_groups() {
    ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr);
    kvtest::write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\n");
    kvtest::write_file("/etc/group",
                       "root:x:0:\nstaff:x:2000:\nkavrin-admins:x:3000:\npower:x:3001:\n");
}

}  // namespace

TEST(GroupMapShow, ListsReservedGroupsAndUsers) {
    name_groups();
    put(kMap, example());
    const ChildResult result = run_tool({"groupmap", "show"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "reserved groups\n"
              "  kavrin-admins         3000 (kavrin-admins)\n"
              "  kavrin-powerusers     3001 (power)\n"
              "\n"
              "users\n"
              "  anna                  2000 (staff), 3001 (power)\n"
              "  bert                  2000 (staff), 3000 (kavrin-admins), 77777\n"
              "  carl                  no groups\n"
              "  \\x1b[31m              0 (root)\n");
}

TEST(GroupMapShow, ListsAsJson) {
    name_groups();
    put("/tmp/map", example());
    const ChildResult result = run_tool({"groupmap", "show", "--file", "/tmp/map", "--json"});
    EXPECT_EQ(result.exit_code, 0);
    const auto document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["file"], "/tmp/map");
    EXPECT_EQ(document["reserved"][1]["name"], "kavrin-powerusers");
    EXPECT_EQ(document["reserved"][1]["gid"], 3001);
    ASSERT_EQ(document["users"].size(), 4u);
    EXPECT_EQ(document["users"][1]["name"], "bert");
    EXPECT_EQ(document["users"][1]["groups"][2]["gid"], 77777);
    EXPECT_EQ(document["users"][1]["groups"][2]["name"], "");
    EXPECT_EQ(document["users"][2]["groups"].size(), 0u);
}

TEST(GroupMapShow, ShowsWhatAConnectionGets) {
    name_groups();
    put(kMap, example());
    ChildResult result = run_tool({"groupmap", "show", "ANNA"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "") << "the reader's own messages are kept away";
    EXPECT_EQ(result.out,
              "user           ANNA\n"
              "groups         2000 (staff), 3001 (power)\n"
              "administrator  no\n"
              "power user     yes\n");
    result = run_tool({"groupmap", "show", "bert", "--json"});
    EXPECT_EQ(result.err, "");
    const auto document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["user"], "bert");
    EXPECT_EQ(document["groups"].size(), 3u);
    EXPECT_EQ(document["administrator"], true);
    EXPECT_EQ(document["power_user"], false);
    EXPECT_EQ(run_tool({"groupmap", "show", "carl"}).out,
              "user           carl\n"
              "groups         no groups\n"
              "administrator  no\n"
              "power user     no\n");
}

TEST(GroupMapShow, AMissingReservedGroupIsGroupZeroAsForConnections) {
    put(kMap, kvtest::bytes_of({{{"kavrin-powerusers", 5}}, {{"root", {0}}}}));
    const ChildResult result = run_tool({"groupmap", "show", "root", "--json"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(nlohmann::json::parse(result.out)["administrator"], true);
    EXPECT_EQ(nlohmann::json::parse(result.out)["power_user"], false);
}

TEST(GroupMapShow, AnUnknownUserIsAFailureAndTold) {
    put(kMap, example());
    expect_refused(run_tool({"groupmap", "show", "nobody"}), 1,
                   "'nobody' is not in '/etc/kavrin/groupmap_refresh': connections of that user "
                   "have no groups and no rights; 'kavrinctl groupmap build' writes it anew");
}

TEST(GroupMapShow, ErrorsAreHeardAgainAfterTheReaderRan) {
    put(kMap, example());
    const ChildResult result = kvtest::run_child([] {
        const char* words[] = {"kavrinctl", "groupmap", "show", "anna"};
        const int code = kvadmin::run(4, words);
        std::fputs("still here\n", stderr);
        return code;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "still here\n");
}

TEST(GroupMapShow, ADamagedFileIsNotShown) {
    Bytes bytes = example();
    put32(bytes, 8, 8185);
    put(kMap, bytes);
    for (const char* user : {"anna", "--json"})
        expect_refused(
            run_tool({"groupmap", "show", user}), 3,
            "'/etc/kavrin/groupmap_refresh' is damaged (byte 8, header: the table of 4 "
            "users at byte 8185 leaves the file of 8192 bytes; the reader does not check "
            "this and reads beyond the file); see 'kavrinctl groupmap lint "
            "/etc/kavrin/groupmap_refresh'");
}

TEST(GroupMapShow, AMissingFileIsAFailure) {
    expect_refused(run_tool({"groupmap", "show"}), 1,
                   "cannot open '/etc/kavrin/groupmap_refresh': No such file or directory");
    expect_refused(run_tool({"groupmap", "show", "--file", "/tmp"}), 1,
                   "'/tmp' is no regular file; name a group-map file");
    ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
    expect_refused(run_tool({"groupmap", "lint", "/tmp/fifo"}), 1,
                   "'/tmp/fifo' is no regular file; name a group-map file");
}

TEST(GroupMapLint, SaysSound) {
    put(kMap, example());
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"groupmap", "lint"}, {"groupmap", "lint", kMap}}) {
        const ChildResult result = run_tool(words);
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(
            result.out,
            "/etc/kavrin/groupmap_refresh is sound: 2 reserved groups, 4 users, 8192 bytes\n");
    }
}

TEST(GroupMapLint, ListsFaultsWithTheirBytes) {
    Bytes bytes = example();
    put32(bytes, 32 + 16 + 4, 9);
    put32(bytes, 20, 0);
    put("/tmp/map", bytes);
    const ChildResult result = run_tool({"groupmap", "lint", "/tmp/map"});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_EQ(result.out,
              "fault: byte 16, reserved group 0: its id is 0, which the reader cannot tell from a "
              "missing group\n"
              "fault: byte 48, user 1: its name \"bert\" has 4 bytes, not 9 as it says\n"
              "/tmp/map is damaged: 2 faults found\n");
    const ChildResult json = run_tool({"groupmap", "lint", "/tmp/map", "--json"});
    EXPECT_EQ(json.exit_code, 3);
    const auto document = nlohmann::json::parse(json.out);
    EXPECT_EQ(document["sound"], false);
    EXPECT_EQ(document["faults"], 2);
    EXPECT_EQ(document["findings"][1]["offset"], 48);
    EXPECT_EQ(document["findings"][1]["severity"], "fault");
    EXPECT_EQ(document["users"], 4);
}

TEST(GroupMapLint, RemarksDoNotMakeAFileUnsound) {
    put("/tmp/map", kvtest::bytes_of({{{"kavrin-admins", 5}}, {{"root", {0}}}}));
    const ChildResult result = run_tool({"groupmap", "lint", "/tmp/map"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out,
              "remark: byte 4, header: there is no reserved group kavrin-powerusers, which the "
              "reader takes for group 0: \"root\" counts as a member\n"
              "/tmp/map is sound: 1 reserved groups, 1 users, 8192 bytes\n");
}

TEST(GroupMapLint, AnythingMayBeGivenToIt) {
    for (const std::string& text :
         {std::string(), std::string("x"), std::string(20'000, '\xFF'), std::string(8192, '\0')}) {
        kvtest::write_file("/tmp/map", text);
        const ChildResult result = run_tool({"groupmap", "lint", "/tmp/map"});
        EXPECT_TRUE(result.exited);
        EXPECT_EQ(result.exit_code, text == std::string(8192, '\0') ? 0 : 3) << result.out;
    }
    // A hole of more than offsets reach, which takes no room.
    kvtest::write_file("/tmp/huge", "");
    ASSERT_EQ(truncate("/tmp/huge", (std::int64_t{1} << 32) + 4096), 0);
    expect_refused(run_tool({"groupmap", "lint", "/tmp/huge"}), 3,
                   "'/tmp/huge' has 4294971392 bytes, and the reader knows sizes of 32 bits only; "
                   "write it anew with 'kavrinctl groupmap build'");
}
