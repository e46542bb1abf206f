// map verify, info, tree and acl end to end: on the live map, on a map file, and where there is
// nothing to read.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "image_bytes.h"
#include "tool_run.h"

using namespace kvtest;

namespace {

constexpr int kDone = 0;
constexpr int kFailure = 1;
constexpr int kInvalid = 3;
constexpr int kUsage = 64;

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

key_t semaphore_key() {
    return ftok("/dev/null", 7065);
}

Node small_tree() {
    return {"/",
            {},
            {{1000, 8}},
            {{"Shared",
              {{1001, 7}},
              {{1000, 1}},
              {{"Docs", {{1002, 3}}, {}, {{"report.txt", {}, {}, {}}}},
               {"Ärger", {}, {}, {{"own.txt", {{1003, 0}, {1004, 25}}, {}, {}}}}}},
             {"Private", {}, {}, {}}}};
}

class MapFile : public testing::Test {
protected:
    // Writes the image into a file of its own and returns its path.
    static std::string file(const Image& image) {
        const std::string path = make_temp_dir() + "/map";
        write_file(path, {reinterpret_cast<const char*>(image.data()), image.size()});
        return path;
    }
    ConfigTable config_{-1};
    Image image_ = build_image(small_tree());
};

class LiveMap : public testing::Test {
protected:
    ConfigTable config_{-1};
};

}  // namespace

TEST_F(MapFile, VerifyFindsASoundFileSound) {
    const ChildResult run = run_tool({"map", "verify", file(image_)});
    EXPECT_EQ(run.exit_code, kDone) << run.err;
    EXPECT_TRUE(contains(run.out, "is sound: 7 elements, 6 ACEs")) << run.out;
}

TEST_F(MapFile, VerifyNamesDamageAndEndsWithThree) {
    put32(image_, acl_at(image_, 2), 1);
    put32(image_, element_at(2) + 20, 4);
    const ChildResult run = run_tool({"map", "verify", file(image_)});
    EXPECT_EQ(run.exit_code, kInvalid);
    EXPECT_TRUE(contains(run.out, "of /Shared/Docs: its signature is 0x00000001")) << run.out;
    EXPECT_TRUE(contains(run.out, "element 48 (byte 224) of /Shared/Docs: its flags")) << run.out;
    EXPECT_TRUE(contains(run.out, "is damaged: 2 faults found")) << run.out;
}

TEST_F(MapFile, VerifyShowsAHundredFindingsAndCountsAll) {
    Node root{"/", {}, {}, {}};
    for (int i = 0; i < 150; ++i) root.children.push_back({"f" + std::to_string(i), {}, {}, {}});
    image_ = build_image(root);
    for (std::size_t i = 1; i <= 150; ++i) put32(image_, element_at(i), 0);
    const ChildResult run = run_tool({"map", "verify", file(image_)});
    EXPECT_EQ(run.exit_code, kInvalid);
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 102) << run.out;
    EXPECT_TRUE(contains(run.out, "and 50 more")) << run.out;
    EXPECT_TRUE(contains(run.out, "150 faults")) << run.out;
}

TEST_F(MapFile, VerifyGivesOneDocument) {
    put32(image_, name_at(image_, 1) + 8, 7);
    const ChildResult run = run_tool({"map", "verify", "--json", file(image_)});
    EXPECT_EQ(run.exit_code, kInvalid);
    const auto document = nlohmann::json::parse(run.out);
    EXPECT_EQ(document["sound"], false);
    EXPECT_EQ(document["findings_total"], 1);
    EXPECT_EQ(document["findings"][0]["record"], "name");
    EXPECT_EQ(document["findings"][0]["path"], "/Shared");
    EXPECT_EQ(document["findings"][0]["file_offset"], name_at(image_, 1));
}

TEST_F(MapFile, VerifyRefusesWhatIsTooShortOrNoMap) {
    EXPECT_EQ(run_tool({"map", "verify", file({})}).exit_code, kInvalid);
    EXPECT_EQ(run_tool({"map", "verify", file(Image(581, 0))}).exit_code, kInvalid);
    image_.resize(100);
    const ChildResult run = run_tool({"map", "verify", file(image_)});
    EXPECT_EQ(run.exit_code, kInvalid);
    EXPECT_TRUE(contains(run.out, "image: it has 100 bytes")) << run.out;
    EXPECT_TRUE(contains(run.out, "records were not looked at")) << run.out;
}

TEST_F(MapFile, WhatCannotBeReadIsAFailure) {
    for (const char* path : {"/nowhere/map", "/tmp", "/dev/null"}) {
        const ChildResult run = run_tool({"map", "verify", path});
        EXPECT_EQ(run.exit_code, kFailure) << path;
        EXPECT_TRUE(contains(run.err, path)) << run.err;
    }
}

TEST_F(MapFile, InfoTellsCountsRegionsAndFile) {
    const std::string path = file(image_);
    const ChildResult run = run_tool({"map", "info", "--file", path});
    EXPECT_EQ(run.exit_code, kDone) << run.err;
    for (const char* part : {"name        test_map\n", "generation  1\n",
                             "timestamp   1700000000 (2023-11-14 22:13:20 UTC)\n",
                             "elements    7\n", "ACEs        6\n"})
        EXPECT_TRUE(contains(run.out, part)) << run.out;
    EXPECT_TRUE(contains(run.out, "source      file " + path)) << run.out;
    EXPECT_TRUE(contains(run.out, "elements             176         168         168  100.0%"))
        << run.out;
}

TEST_F(MapFile, InfoGivesOneDocument) {
    const std::string path = file(image_);
    const auto document =
        nlohmann::json::parse(run_tool({"map", "info", "--json", "--file", path}).out);
    EXPECT_EQ(document["name"], "test_map");
    EXPECT_EQ(document["elements"], 7);
    EXPECT_EQ(document["bytes"], image_.size());
    EXPECT_EQ(document["live"], false);
    EXPECT_EQ(document["source"]["file"], path);
    EXPECT_EQ(document["regions"][3]["used"], header_of(image_).next_free_list);
}

TEST_F(MapFile, InfoRefusesAFileWithoutTheMark) {
    put32(image_, 172, 0);
    const std::string path = file(image_);
    const ChildResult run = run_tool({"map", "info", "--file", path});
    EXPECT_EQ(run.exit_code, kInvalid);
    EXPECT_TRUE(contains(run.err, "kavrinctl map verify " + path)) << run.err;
}

TEST_F(MapFile, InfoSurvivesATimeThatNoCalendarHolds) {
    for (std::size_t i = 104; i < 112; ++i) image_[i] = i == 111 ? 0x7F : 0xFF;
    const ChildResult run = run_tool({"map", "info", "--file", file(image_)});
    EXPECT_EQ(run.exit_code, kDone) << run.err;
    EXPECT_TRUE(contains(run.out, "timestamp   9223372036854775807\n")) << run.out;
}

TEST_F(MapFile, TreeShowsEveryElementWithItsRights) {
    const ChildResult run = run_tool({"map", "tree", "--file", file(image_)});
    EXPECT_EQ(run.exit_code, kDone) << run.err;
    EXPECT_EQ(
        run.out,
        "/  1 ACE, own: group 1000 NAVIGATE\n"
        "├── Shared  2 ACEs, own: user 1001 RDWRDEL, group 1000 RDONLY\n"
        "│   ├── Docs  1 ACE, own: user 1002 RDWR\n"
        "│   │   └── report.txt [childless]  0 ACEs, inherited from /Shared/Docs: user 1002 "
        "RDWR\n"
        "│   └── Ärger  0 ACEs, inherited from /Shared: user 1001 RDWRDEL, group 1000 RDONLY\n"
        "│       └── own.txt [childless]  2 ACEs, own: user 1003 NOPERM, user 1004 "
        "RDONLY+NAVIGATE+VIEWER_ONLY\n"
        "└── Private [childless]  0 ACEs, inherited from /: group 1000 NAVIGATE\n");
}

TEST_F(MapFile, TreeBeginsAtAPathAndEndsAtADepth) {
    const std::string path = file(image_);
    EXPECT_EQ(run_tool({"map", "tree", "shared//./DOCS/", "--file", path}).out,
              "/Shared/Docs  1 ACE, own: user 1002 RDWR\n"
              "└── report.txt [childless]  0 ACEs, inherited from /Shared/Docs: user 1002 RDWR\n");
    EXPECT_EQ(run_tool({"map", "tree", "--depth", "0", "/Shared", "--file", path}).out,
              "/Shared  2 ACEs, own: user 1001 RDWRDEL, group 1000 RDONLY\n");
    const std::string two = run_tool({"map", "tree", "--depth", "1", "--file", path}).out;
    EXPECT_EQ(std::count(two.begin(), two.end(), '\n'), 3) << two;
    EXPECT_EQ(run_tool({"map", "tree", "/Shared/Docs/report.txt", "--file", path}).out,
              "/Shared/Docs/report.txt [childless]  0 ACEs, inherited from /Shared/Docs: user 1002 "
              "RDWR\n");
}

TEST_F(MapFile, TreeGivesOneDocument) {
    const auto document =
        nlohmann::json::parse(run_tool({"map", "tree", "--json", "--file", file(image_)}).out);
    ASSERT_EQ(document.size(), 7u);
    EXPECT_EQ(document[3]["path"], "/Shared/Docs/report.txt");
    EXPECT_EQ(document[3]["depth"], 3);
    EXPECT_EQ(document[3]["childless"], true);
    EXPECT_EQ(document[3]["own_aces"], 0);
    EXPECT_EQ(document[3]["governing"], "/Shared/Docs");
    EXPECT_EQ(document[3]["entries"][0]["rights"], "RDWR");
    EXPECT_EQ(document[4]["path"], "/Shared/Ärger");
}

TEST_F(MapFile, TreeOfAPathThatIsNotMappedNamesTheNearestAncestor) {
    const std::string path = file(image_);
    for (const char* missing : {"/Shared/Docs/new.txt", "/Shared/Docs/report.txt/x"}) {
        const ChildResult run = run_tool({"map", "tree", missing, "--file", path});
        EXPECT_EQ(run.exit_code, kFailure);
        EXPECT_TRUE(
            contains(run.err, "is not in the map; the nearest mapped ancestor is /Shared/Docs"))
            << run.err;
        EXPECT_EQ(run.out, "");
    }
}

TEST_F(MapFile, TreeWalksATreeOfAnyDepth) {
    Node leaf{"leaf", {}, {}, {}};
    for (int i = 0; i < 1500; ++i) {
        Node folder{"d", {}, {}, {}};
        folder.children.push_back(std::move(leaf));
        leaf = std::move(folder);
    }
    Node root{"/", {{1, 1}}, {}, {}};
    root.children.push_back(std::move(leaf));
    const ChildResult run = run_tool({"map", "tree", "--file", file(build_image(root))});
    EXPECT_EQ(run.exit_code, kDone) << run.err;
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1502);
    EXPECT_TRUE(contains(
        run.out, "… depth 1501: leaf [childless]  0 ACEs, inherited from /: user 1 RDONLY"));
}

TEST_F(MapFile, AclShowsOwnAndGoverningEntries) {
    const std::string path = file(image_);
    const ChildResult own = run_tool({"map", "acl", "/Shared", "--file", path});
    EXPECT_EQ(own.exit_code, kDone) << own.err;
    EXPECT_TRUE(contains(own.out, "element with children")) << own.out;
    EXPECT_TRUE(contains(own.out, "governing ACL: its own")) << own.out;
    EXPECT_TRUE(contains(own.out, "RDWRDEL")) << own.out;
    EXPECT_TRUE(contains(own.out, "0x0007  explicit")) << own.out;
    const ChildResult inherited =
        run_tool({"map", "acl", "/Shared/Docs/report.txt", "--file", path});
    EXPECT_TRUE(contains(inherited.out, "own ACL: no entries")) << inherited.out;
    EXPECT_TRUE(contains(inherited.out, "governing ACL: that of /Shared/Docs")) << inherited.out;
    EXPECT_TRUE(contains(inherited.out, "0x0003  inherited")) << inherited.out;
}

TEST_F(MapFile, AclNamesTrusteesThatTheMachineKnows) {
    image_ = build_image(Node{"/", {{0, 7}, {4000123, 1}}, {{0, 1}}, {{"Shared", {}, {}, {}}}});
    const ChildResult run = run_tool({"map", "acl", "/", "--file", file(image_)});
    EXPECT_TRUE(contains(run.out, "user  root (0)")) << run.out;
    EXPECT_TRUE(contains(run.out, "group root (0)")) << run.out;
    EXPECT_TRUE(contains(run.out, "user  4000123 ")) << run.out;
}

// A verdict takes the ACL of an element without children for inherited; so the command must, too.
TEST_F(MapFile, AclMarksEntriesAsVerdictsTakeThem) {
    const auto document =
        nlohmann::json::parse(run_tool({"map", "acl", "--json", "/Shared/Private/../Ärger/OWN.txt",
                                        "--file", file(image_)})
                                  .out);
    EXPECT_EQ(document["path"], "/Shared/Ärger/OWN.txt");
    EXPECT_EQ(document["element"]["path"], "/Shared/Ärger/own.txt");
    EXPECT_EQ(document["mapped"], true);
    EXPECT_EQ(document["governing"]["is_own"], true);
    ASSERT_EQ(document["own"].size(), 2u);
    EXPECT_EQ(document["own"][0]["id"], 1003);
    EXPECT_FALSE(document["own"][0].contains("inherited"));
    EXPECT_EQ(document["governing"]["entries"][0]["inherited"], true);
    EXPECT_EQ(document["governing"]["entries"][1]["rights"], "RDONLY+NAVIGATE+VIEWER_ONLY");
}

TEST_F(MapFile, AclOfAPathThatIsNotMappedIsTheNearestAncestors) {
    const std::string path = file(image_);
    const ChildResult run = run_tool({"map", "acl", "/Shared/Docs/new/deep.txt", "--file", path});
    EXPECT_EQ(run.exit_code, kDone) << run.err;
    EXPECT_TRUE(contains(run.out, "not in the map; the nearest mapped ancestor is /Shared/Docs"))
        << run.out;
    EXPECT_TRUE(contains(run.out, "governing ACL: that of /Shared/Docs")) << run.out;
    // An element without children that is mapped is not one that is missing.
    const ChildResult mapped = run_tool({"map", "acl", "/Private", "--file", path});
    EXPECT_TRUE(contains(mapped.out, "childless element")) << mapped.out;
}

TEST_F(MapFile, PathsThatNoLookupTakesAreUsageErrors) {
    const std::string path = file(image_);
    for (const char* command : {"tree", "acl"}) {
        for (const std::string& wrong :
             {"/" + std::string(4095, 'x'), std::string("../x"), std::string()})
            EXPECT_EQ(run_tool({"map", command, wrong, "--file", path}).exit_code, kUsage)
                << command << " " << wrong;
        EXPECT_NE(run_tool({"map", command, std::string(4095, 'x'), "--file", path}).exit_code,
                  kUsage);
    }
}

TEST_F(MapFile, ADamagedMapIsNotWalked) {
    put32(image_, list_at(image_, 1) + 4, 0xFFFFFFFF);
    const std::string path = file(image_);
    for (const char* command : {"tree", "acl"}) {
        const ChildResult run = run_tool({"map", command, "/Shared/Docs", "--file", path});
        EXPECT_EQ(run.exit_code, kInvalid);
        EXPECT_TRUE(contains(run.err, "see 'kavrinctl map verify " + path + "'")) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

TEST_F(LiveMap, NothingLoadedIsAFailureAndMakesNothing) {
    for (const char* command : {"verify", "info", "tree"}) {
        const ChildResult run = run_tool({"map", command});
        EXPECT_EQ(run.exit_code, kFailure);
        EXPECT_TRUE(contains(run.err, "no map is loaded")) << run.err;
    }
    EXPECT_EQ(semget(semaphore_key(), 0, 0), -1);
    EXPECT_EQ(shmget(ftok("/dev/null", 3456), 0, 0), -1);
}

TEST_F(LiveMap, ASetWithoutASegmentIsAFailure) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    write_file("/etc/kavrin/.permbe_map", "x");
    const ChildResult run = run_tool({"map", "info"});
    EXPECT_EQ(run.exit_code, kFailure);
    EXPECT_TRUE(contains(run.err, "table 0 is current and has no segment")) << run.err;
}

TEST_F(LiveMap, AMissingPersistedMapIsToldApart) {
    publish(small_tree());
    ASSERT_EQ(unlink("/etc/kavrin/.permbe_map"), 0);
    const ChildResult run = run_tool({"map", "verify"});
    EXPECT_EQ(run.exit_code, kFailure);
    EXPECT_TRUE(contains(run.err, "without the persisted map /etc/kavrin/.permbe_map")) << run.err;
}

TEST_F(LiveMap, ADamagedSemaphoreSetIsAFailureAndNoCrash) {
    publish(small_tree());
    const int set = semget(semaphore_key(), 0, 0);
    ASSERT_EQ(semctl(set, 1, SETVAL, 2), 0);
    const ChildResult run = run_tool({"map", "info"});
    EXPECT_TRUE(run.exited);
    EXPECT_EQ(run.exit_code, kFailure);
    EXPECT_TRUE(contains(run.err, "semaphore 1 of the map's set is 2")) << run.err;
}

TEST_F(LiveMap, TheMapIsReadByEveryCommand) {
    publish(small_tree());
    EXPECT_EQ(run_tool({"map", "verify"}).out,
              "the live map (table 1) is sound: 7 elements, 6 ACEs, " +
                  std::to_string(build_image(small_tree()).size()) + " bytes\n");
    EXPECT_TRUE(contains(run_tool({"map", "tree"}).out, "report.txt [childless]"));
    EXPECT_TRUE(contains(run_tool({"map", "acl", "/Shared/Docs"}).out, "RDWR"));
    // After a second load the other table is the one that is read.
    publish(Node{"/", {}, {}, {{"Shared", {}, {}, {}}}});
    EXPECT_TRUE(contains(run_tool({"map", "verify"}).out, "(table 0) is sound: 2 elements"));
}

TEST_F(LiveMap, InfoTellsTheSegmentAndItsReaders) {
    publish(small_tree());
    const int id = shmget(0x7065726A, 0, 0);
    ASSERT_GE(id, 0);
    const std::string text = run_tool({"map", "info"}).out;
    EXPECT_TRUE(contains(text, "live: table 1, key 0x7065726a, segment " + std::to_string(id) +
                                   ", 0 readers attached, initialised"))
        << text;
    void* reader = get_perm_map_addr();
    ASSERT_NE(reader, nullptr);
    const ChildResult run = run_child([&] {
        put_perm_map_addr(reader);  // the child's share of it
        const char* words[] = {"kavrinctl", "map", "info", "--json"};
        return kvadmin::run(4, words);
    });
    const auto document = nlohmann::json::parse(run.out);
    EXPECT_EQ(document["live"], true);
    EXPECT_EQ(document["source"]["readers"], 1);
    EXPECT_EQ(document["source"]["segment"], id);
    EXPECT_EQ(document["source"]["initialised"], true);
    put_perm_map_addr(reader);
    shmid_ds state{};
    ASSERT_EQ(shmctl(id, IPC_STAT, &state), 0);
    EXPECT_EQ(state.shm_nattch, 0u);
}

TEST_F(LiveMap, DamageInTheSegmentIsFound) {
    publish(small_tree());
    auto* bytes = static_cast<unsigned char*>(get_perm_map_addr());
    ASSERT_NE(bytes, nullptr);
    bytes[176 + 24 + 20] ^= 1;
    EXPECT_EQ(run_tool({"map", "verify"}).exit_code, kInvalid);
    const ChildResult run = run_tool({"map", "tree"});
    EXPECT_EQ(run.exit_code, kInvalid);
    EXPECT_TRUE(contains(run.err, "see 'kavrinctl map verify'")) << run.err;
    put_perm_map_addr(bytes);
}

TEST_F(LiveMap, OthersThanRootAreRefused) {
    publish(small_tree());
    const ChildResult run = run_child([] {
        become_user(1001, 1001, {});
        const char* words[] = {"kavrinctl", "map", "verify"};
        return kvadmin::run(3, words);
    });
    EXPECT_EQ(run.exit_code, kFailure);
    EXPECT_TRUE(contains(run.err, "run it as root (you are uid 1001)")) << run.err;
}
