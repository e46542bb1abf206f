// who-can and access on the stage of the check tests: named people of every standing, and a map
// that gives them different rights.
#include <algorithm>

#include "check_fixture.h"
#include "tool_run.h"

namespace kvtest {
namespace {

using Json = nlohmann::json;

class WhoCan : public CheckTest {
protected:
    Json who_can(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "who-can");
        arguments.insert(arguments.end(), {"--json", "--root", share});
        const ChildResult run = run_tool(arguments);
        EXPECT_EQ(run.exit_code, 0) << run.err;
        return Json::parse(run.out, nullptr, false);
    }
    static std::vector<std::string> names(const Json& document) {
        std::vector<std::string> all;
        for (const Json& user : document["users"]) all.push_back(user["user"]);
        return all;
    }
    static const Json& user(const Json& document, const std::string& name) {
        static const Json none;
        const Json& users = document["users"];
        const auto found = std::find_if(users.begin(), users.end(),
                                        [&](const Json& one) { return one["user"] == name; });
        return found == users.end() ? none : *found;
    }
    std::string map_file() const {
        const std::vector<std::uint8_t> image = build_image(map());
        const std::string path = make_temp_dir() + "/map";
        write_file(path, {reinterpret_cast<const char*>(image.data()), image.size()});
        return path;
    }
};

using Names = std::vector<std::string>;

TEST_F(WhoCan, NamesThoseWhoMayWriteAFileAndWhy) {
    const Json found = who_can({"/Shared/Docs/report.txt", "write"});
    EXPECT_EQ(found["op"], "open_write");
    EXPECT_EQ(found["type"], "file");
    EXPECT_EQ(found["enforcement_asked"], true);
    EXPECT_EQ(found["everybody"], nullptr);
    // Carol is of the staff but a standard user; alice's staff only reads.
    EXPECT_EQ(names(found), (Names{"root", "bob", "dave"}));
    EXPECT_EQ(user(found, "bob")["standing"], "administrator");
    EXPECT_EQ(user(found, "bob")["rule"], "an administrator has RDWRDEL everywhere below Shared");
    EXPECT_EQ(user(found, "dave")["standing"], "power user");
    EXPECT_EQ(user(found, "dave")["entries"],
              Json::parse(R"([{"type":"group","id":3002,"mask":3,"rights":"RDWR",
                               "path":"/Shared"}])"));
    ASSERT_EQ(found["trustees"].size(), 1u);
    EXPECT_EQ(found["trustees"][0]["name"], "editors");
}

TEST_F(WhoCan, ReadingIsAskedWhenNothingIs) {
    const Json found = who_can({"Shared/Docs/report.txt"});
    EXPECT_EQ(found["asked"], "read");
    EXPECT_EQ(names(found), (Names{"root", "alice", "bob", "dave"}));
}

TEST_F(WhoCan, NavigationIsToldApart) {
    const Json found = who_can({"/Shared/Walk", "list"});
    EXPECT_EQ(names(found), (Names{"root", "alice", "bob"}));
    EXPECT_EQ(user(found, "alice")["navigation_only"], true);
    EXPECT_EQ(user(found, "bob")["navigation_only"], false);
}

TEST_F(WhoCan, BelowPrivateTheOwnerAndAdministratorsMay) {
    const Json found = who_can({"/Private/alice/diary.txt", "delete"});
    EXPECT_EQ(names(found), (Names{"root", "alice", "bob"}));
    EXPECT_EQ(user(found, "alice")["rule"],
              "a power user may do everything below his own folder in Private");
    EXPECT_TRUE(found["trustees"].empty()) << "no ACL is asked there";
    const ChildResult run = run_tool({"who-can", "/Private/alice/diary.txt"});
    EXPECT_EQ(run.exit_code, 64);
    EXPECT_NE(run.err.find("--root"), std::string::npos) << run.err;
}

TEST_F(WhoCan, WhatIsOpenToEverybodyIsSaidSo) {
    EXPECT_EQ(who_can({"/Shared/Walk", "open_read"})["everybody"],
              "opening a folder for reading is always allowed");
    EXPECT_EQ(who_can({"/.DS_Store", "open_write", "--type", "file"})["everybody"],
              "a name that clients keep for themselves is always allowed");
}

TEST_F(WhoCan, TrusteesWithoutAnAccountAreWorkedOut) {
    const Node docs{"Docs", {{4711, 7}, {4712, 0}}, {{4713, 1}, {kStaff, 3}}, {{"x", {}, {}, {}}}};
    publish(Node{"/", {}, {}, {{"Shared", {}, {}, {docs}}}});
    const Json found = who_can({"/Shared/Docs/x", "write", "--type", "file"});
    ASSERT_EQ(found["trustees"].size(), 2u) << found.dump(1);
    EXPECT_EQ(found["trustees"][0]["id"], 4711);
    EXPECT_EQ(found["trustees"][0]["name"], nullptr);
    EXPECT_EQ(found["trustees"][1]["name"], "thestaff");
    EXPECT_EQ(names(found), (Names{"root", "alice", "bob"}));
    const ChildResult run =
        run_tool({"who-can", "/Shared/Docs/x", "write", "--type", "file", "--root", share});
    EXPECT_EQ(run.out,
              "write /Shared/Docs/x, a file: opening it to write, open_write\n"
              "entries of the map that allow it to power users\n"
              "  user uid 4711               RDWRDEL on /Shared/Docs; not known to this machine\n"
              "  group thestaff (3001)       RDWR on /Shared/Docs\n"
              "users of this machine\n"
              "  root (0)                    root: root may do everything\n"
              "  alice (2001)                power user: group thestaff (3001) RDWR on "
              "/Shared/Docs\n"
              "  bob (2002)                  administrator: an administrator has RDWRDEL "
              "everywhere below Shared\n");
    EXPECT_EQ(run.err, "");
}

TEST_F(WhoCan, AMapFileGivesTheAnswersOfTheLiveMap) {
    const std::string file = map_file();
    for (const char* path : {"/Shared/Docs/report.txt", "/Shared/Docs", "/Shared/Own/x", "/Shared",
                             "/Shared/Walk/hidden.txt", "/Private/dave", "/", "/Shared/Docs/new"}) {
        for (const char* op : {"read", "write", "delete", "list", "rename_src", "mkdir"}) {
            SCOPED_TRACE(std::string(op) + " " + path);
            Json live = who_can({path, op});
            Json of_file = who_can({path, op, "--map", file});
            EXPECT_EQ(live["enforcement_asked"], true);
            EXPECT_EQ(of_file["enforcement_asked"], false);
            live.erase("enforcement_asked");
            of_file.erase("enforcement_asked");
            EXPECT_EQ(live, of_file);
        }
    }
}

TEST_F(WhoCan, AnElementWithoutChildrenIsTakenForAFile) {
    const ChildResult run = run_tool({"who-can", "/Shared/Docs/report.txt", "--json"});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out)["type"], "file");
    EXPECT_NE(run.err.find("is taken for a file"), std::string::npos) << run.err;
}

TEST_F(WhoCan, WrongOperationsAndUnknownOptionsAreUsageErrors) {
    EXPECT_EQ(run_tool({"who-can", "/Shared", "fly"}).exit_code, 64);
    EXPECT_EQ(run_tool({"who-can", "/Shared", "chmod"}).exit_code, 64);
    EXPECT_EQ(run_tool({"who-can"}).exit_code, 64);
    EXPECT_EQ(run_tool({"who-can", "/Shared", "--root", "/nowhere"}).exit_code, 1);
}

// --- access, map tree --as -------------------------------------------------------------------

class Access : public WhoCan {
protected:
    ChildResult access(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "access");
        return run_tool(arguments);
    }
};

TEST_F(Access, ShowsWhereRightsChange) {
    const ChildResult run = access({"alice", "--root", share});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out,
              "alice (2001): power user\n"
              "MAY                        FILES IN IT                  ALIKE  PATH\n"
              "read, list                 nothing                          2  /\n"
              "read, list                 read, list                       2  /Shared/Docs\n"
              "read, write, list          read, write, delete, list        1  /Shared/Open\n"
              "navigate                   nothing                          1  /Shared/Walk\n"
              "read, list                 read, list                       1  /Shared/Own\n");
    EXPECT_EQ(run.err, "");
}

TEST_F(Access, BeginsAtAPathAndTakesAUid) {
    const ChildResult run = access({"2001", "Shared/Open", "--root", share});
    EXPECT_EQ(run.out,
              "alice (2001): power user\n"
              "MAY                        FILES IN IT                  ALIKE  PATH\n"
              "read, write, list          read, write, delete, list        1  /Shared/Open\n");
}

TEST_F(Access, TellsWhenOnlyTheOwnerOfAFolderDecides) {
    const Node mine{"alice", {}, {}, {{"diary.txt", {}, {}, {}}}};
    const Node other{"dave", {}, {}, {{"x", {}, {}, {}}}};
    publish(Node{"/", {}, {}, {{"Private", {}, {}, {mine, other}}}});
    EXPECT_EQ(access({"alice", "/Private", "--root", share}).out,
              "alice (2001): power user\n"
              "MAY                        FILES IN IT                  ALIKE  PATH\n"
              "read, list                 nothing                          0  /Private\n"
              "read, write, list          read, write, delete, list        1  /Private/alice\n"
              "nothing                    nothing                          1  /Private/dave\n");
    EXPECT_NE(access({"alice", "/Private"}).out.find("as owner: read, write, list"),
              std::string::npos);
    EXPECT_NE(access({"bob", "/Private"}).out.find("read, write, delete, list"), std::string::npos);
}

TEST_F(Access, GivesOneDocument) {
    const ChildResult run = access({"dave", "/Shared/Docs", "--json", "--root", share});
    const Json found = Json::parse(run.out);
    EXPECT_EQ(found["user"], "dave");
    EXPECT_EQ(found["standing"], "power user");
    ASSERT_EQ(found["lines"].size(), 1u) << run.out;
    const Json& line = found["lines"][0];
    EXPECT_EQ(line["path"], "/Shared/Docs");
    EXPECT_EQ(line["type"], "folder");
    EXPECT_EQ(line["alike"], 2);
    EXPECT_EQ(line["rights"], Json::parse(R"({"read":true,"write":true,"delete":false,"list":true,
                                              "navigation_only":false})"));
    EXPECT_EQ(line["files"]["write"], true);
    EXPECT_EQ(line["files"]["delete"], false);
}

TEST_F(Access, UnknownUsersAndPathsAreRefused) {
    EXPECT_EQ(access({"nobody-known"}).exit_code, 64);
    EXPECT_EQ(access({"4294967295"}).exit_code, 64);
    EXPECT_EQ(access({"99999999999999999999"}).exit_code, 64);
    EXPECT_EQ(access({"alice", "/Shared/gone"}).exit_code, 1);
    EXPECT_EQ(access({"alice", "--map", "/nowhere"}).exit_code, 1);
    EXPECT_EQ(access({}).exit_code, 64);
}

TEST_F(Access, OfAStandardUserIsNothing) {
    const ChildResult run = access({"carol"});
    EXPECT_NE(run.out.find("carol (2003): standard user\n"), std::string::npos);
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 3) << run.out;
    EXPECT_NE(run.out.find("nothing                    nothing"), std::string::npos) << run.out;
}

TEST_F(Access, TheTreeIsShownAsAUserSeesIt) {
    const ChildResult run =
        run_tool({"map", "tree", "/Shared", "--as", "alice", "--root", share, "--map", map_file()});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out,
              "/Shared  read, list\n"
              "├── Docs  read, list\n"
              "│   ├── report.txt [childless]  read, list\n"
              "│   └── Plans [childless]  read, list\n"
              "├── Open  read, write, list\n"
              "│   └── note.txt [childless]  read, write, delete, list\n"
              "├── Walk  navigate\n"
              "│   └── hidden.txt [childless]  nothing\n"
              "└── Own  read, list\n"
              "    └── x [childless]  read, list\n");
    const ChildResult json = run_tool({"map", "tree", "/Shared/Walk", "--as", "2001", "--json"});
    const Json found = Json::parse(json.out);
    EXPECT_EQ(found[0]["may"]["read"], true);
    EXPECT_EQ(found[0]["may"]["navigation_only"], true);
    EXPECT_EQ(found[1]["may"]["read"], false);
    EXPECT_EQ(run_tool({"map", "tree", "--root", share}).exit_code, 64) << "it needs --as";
}

}  // namespace
}  // namespace kvtest
