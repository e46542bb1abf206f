// kavrinctl check --explain: the way to a verdict in words and as JSON, and the nearest grant after
// a denial. What is promised there is then done, and the verdict asked for again.
#include <fstream>

#include "check_fixture.h"
#include "explain.h"

namespace kvtest {
namespace {

class Explain : public CheckTest {
protected:
    std::string text(const std::string& user, const std::string& path, const std::string& op) {
        return check(user, path, {op, "--explain"}).out;
    }
    std::vector<std::string> advice(const std::string& user, const std::string& path,
                                    const std::string& op) {
        return explained(user, path, op)["explanation"]["advice"];
    }
};

void expect_lines(const std::string& text, const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        EXPECT_NE(("\n" + text).find("\n" + line + "\n"), std::string::npos)
            << "missing: " << line << "\nin:\n"
            << text;
}

using Sentences = std::vector<std::string>;

TEST_F(Explain, DenialOnAFileTellsTheWholeWay) {
    expect_lines(
        text("alice", "Shared/Docs/report.txt", "open_write"),
        {"open_write  denied",
         "  caller      alice (2001), primary group people (3000); supplementary: group people "
         "(3000), group thestaff (3001), group kavrin-powerusers (3101)",
         "  standing    power user: in kavrin-powerusers (3101)",
         "  path        Shared/Docs/report.txt: a file (" + share + "/Shared/Docs/report.txt)",
         "  parent      Shared/Docs: map element /Shared/Docs, the ACL of /Shared governs, "
         "inherited",
         "                group thestaff (3001) RDONLY inherited: counted: a group of the caller's",
         "                group editors (3002) RDWR inherited: not the caller's",
         "                the caller's mask: RDONLY",
         "  rule        below Shared the caller's own masks decide",
         "  decision    open_write on a file needs read and write on the parent folder; there is "
         "NOPERM on itself, RDONLY on the parent",
         "  verdict     denied (KVPERMS_NO_PERM)",
         "  to allow it Docs lacks write for alice: group thestaff (3001) has RDONLY, inherited "
         "from /Shared",
         "              group editors (3002) has RDWR there: adding alice to it, or giving alice "
         "RDWR on /Shared/Docs, would allow this"});
}

TEST_F(Explain, JsonHoldsTheSameWay) {
    const nlohmann::json answer = explained("alice", "Shared/Docs/report.txt", "open_write");
    EXPECT_EQ(answer["verdict"], "denied");
    EXPECT_EQ(answer["code"], "KVPERMS_NO_PERM");
    EXPECT_FALSE(answer.contains("text"));
    const nlohmann::json& way = answer["explanation"];
    EXPECT_EQ(way["path"], "Shared/Docs/report.txt");
    EXPECT_EQ(way["parent_path"], "Shared/Docs");
    EXPECT_EQ(way["type"], "file");
    EXPECT_EQ(way["standing"], "power user");
    EXPECT_TRUE(way["element"].is_null());
    const nlohmann::json& parent = way["parent"];
    EXPECT_EQ(parent["element"], "/Shared/Docs");
    EXPECT_EQ(parent["governing"], "/Shared");
    EXPECT_EQ(parent["inherited"], true);
    EXPECT_EQ(parent["mask"], 1);
    EXPECT_EQ(parent["mask_name"], "RDONLY");
    ASSERT_EQ(parent["entries"].size(), 2u);
    EXPECT_EQ(parent["entries"][0]["type"], "group");
    EXPECT_EQ(parent["entries"][0]["id"], kStaff);
    EXPECT_EQ(parent["entries"][0]["counted"], true);
    EXPECT_EQ(parent["entries"][1]["counted"], false);
    EXPECT_EQ(parent["entries"][1]["use"], "other trustee");
    EXPECT_EQ(way["decision"]["need"], "read and write on the parent folder");
    EXPECT_EQ(way["decision"]["parent_mask"], "RDONLY");
    EXPECT_EQ(way["special_name"], false);
    EXPECT_EQ(way["advice"].size(), 2u);
}

TEST_F(Explain, AllowanceHasNoAdvice) {
    const nlohmann::json answer = explained("dave", "Shared/Docs/report.txt", "open_write");
    EXPECT_EQ(answer["verdict"], "allowed");
    EXPECT_TRUE(answer["explanation"]["advice"].empty());
}

TEST_F(Explain, StandardUserIsToldThatStandingIsMissing) {
    EXPECT_EQ(
        advice("carol", "Shared/Docs/report.txt", "open_read"),
        (Sentences{"carol is neither in kavrin-admins (3100) nor in kavrin-powerusers (3101): "
                   "standard users never have permission",
                   "adding carol to kavrin-powerusers would allow this"}));
    const Sentences more = advice("carol", "Shared/Docs/report.txt", "open_write");
    ASSERT_EQ(more.size(), 4u);
    EXPECT_EQ(more[1], "being in kavrin-powerusers alone would not allow it either:");
    EXPECT_EQ(more[2],
              "Docs lacks write for carol: group thestaff (3001) has RDONLY, inherited from "
              "/Shared");
}

TEST_F(Explain, OwnEntryThatSettlesItIsNamedAndNoGroupSuggested) {
    EXPECT_EQ(advice("alice", "Shared/Own/new", "create"),
              (Sentences{"Own lacks write for alice: alice has RDONLY, explicitly on /Shared/Own; "
                         "group thestaff (3001) has RDWRDEL, explicitly on /Shared/Own, not asked "
                         "because of alice's own entry",
                         "giving alice RDWR on /Shared/Own would allow this"}));
}

TEST_F(Explain, UserWithoutAnyEntryIsToldSo) {
    EXPECT_EQ(advice("dave", "Shared/Open", "opendir"),
              (Sentences{"Open lacks navigation for dave: the ACL of /Shared/Open has no entry for "
                         "dave or a group of dave's",
                         "group thestaff (3001) has RDWRDEL there: adding dave to it, or giving "
                         "dave NAVIGATE on /Shared/Open, would allow this"}));
}

TEST_F(Explain, NavigationThatDoesNotReachDownIsSaid) {
    publish(Node{"/", {}, {{kStaff, 8}}, {{"Shared", {}, {}, {{"Docs", {}, {}, {}}}}}});
    const nlohmann::json answer = explained("alice", "Shared/Docs", "opendir");
    EXPECT_EQ(answer["verdict"], "denied");
    EXPECT_EQ(answer["explanation"]["element"]["entries"][0]["use"],
              "skipped, inherited navigation");
    const Sentences sentences = answer["explanation"]["advice"];
    ASSERT_EQ(sentences.size(), 2u);
    EXPECT_EQ(sentences[0],
              "Docs lacks read for alice: group thestaff (3001) has NAVIGATE, inherited from /, "
              "where navigation does not reach down");
    EXPECT_EQ(sentences[1], "giving alice RDONLY on /Shared/Docs would allow this");
}

TEST_F(Explain, BothFoldersThatLackSomethingAreNamed) {
    const Sentences sentences = advice("dave", "Shared/Walk/inner", "stat");
    EXPECT_TRUE(sentences.empty());  // what does not exist may be looked for
    make_folder("Shared/Walk/inner");
    const Sentences both = advice("dave", "Shared/Walk/inner", "rename_src");
    ASSERT_EQ(both.size(), 5u);
    EXPECT_TRUE(both[0].starts_with("inner lacks read for dave")) << both[0];
    EXPECT_TRUE(both[2].starts_with("Walk lacks read, write and delete for dave")) << both[2];
    EXPECT_EQ(both[3], "giving dave RDWRDEL on /Shared/Walk would supply that");
    EXPECT_EQ(both[4], "both are needed");
}

TEST_F(Explain, RulesOfTheNamespaceAreNotBlamedOnTheMap) {
    const Sentences create = advice("bob", "Shared/new.txt", "create");
    ASSERT_EQ(create.size(), 2u);
    EXPECT_NE(create[0].find("no entry in the map changes that"), std::string::npos);
    EXPECT_EQ(create[1], "the rule binds administrators, too: nobody can do this");

    const Sentences folder = advice("alice", "Shared/newfolder", "mkdir");
    ASSERT_EQ(folder.size(), 2u);
    EXPECT_EQ(folder[1],
              "administrators may: adding alice to kavrin-admins (3100) would allow this");

    const Sentences diary = advice("dave", "Private/alice/diary.txt", "open_read");
    ASSERT_EQ(diary.size(), 2u);
    EXPECT_NE(diary[0].find("owner"), std::string::npos) << diary[0];
    EXPECT_EQ(diary[1], "administrators may: adding dave to kavrin-admins (3100) would allow this");

    const Sentences own = advice("alice", "Private/alice", "rmdir");
    ASSERT_EQ(own.size(), 2u);
    EXPECT_EQ(own[1], "administrators may not do this either");
}

TEST_F(Explain, SpecialNameThatOverturnsADenialIsSaid) {
    const nlohmann::json answer = explained("carol", "Shared/.DS_Store", "open_read");
    EXPECT_EQ(answer["verdict"], "allowed");
    EXPECT_EQ(answer["explanation"]["special_name"], true);
    EXPECT_NE(text("carol", "Shared/.DS_Store", "open_read").find("the denial is overturned"),
              std::string::npos);
}

TEST_F(Explain, RootIsToldToBeAllowedAnyway) {
    const nlohmann::json answer = explained("root", "Shared/Docs/report.txt", "unlink");
    EXPECT_EQ(answer["verdict"], "allowed");
    EXPECT_EQ(answer["explanation"]["rule"], "root may do everything");
}

TEST_F(Explain, PathThatTheMapDoesNotKnowNamesTheNearestElement) {
    make_folder("Shared/Docs/Later");
    const nlohmann::json answer = explained("alice", "Shared/Docs/Later/x", "create");
    EXPECT_EQ(answer["explanation"]["parent"]["element"], "/Shared/Docs");
    EXPECT_EQ(answer["explanation"]["parent"]["governing"], "/Shared");
    const Sentences sentences = answer["explanation"]["advice"];
    EXPECT_TRUE(sentences[0].starts_with("Later lacks write for alice")) << sentences[0];
}

TEST_F(Explain, MasksHaveTheirUsualNames) {
    const std::pair<std::uint32_t, const char*> names[] = {{0, "NOPERM"},
                                                           {1, "RDONLY"},
                                                           {3, "RDWR"},
                                                           {7, "RDWRDEL"},
                                                           {8, "NAVIGATE"},
                                                           {16, "VIEWER_ONLY"},
                                                           {9, "RDONLY+NAVIGATE"},
                                                           {31, "RDWRDEL+NAVIGATE+VIEWER_ONLY"},
                                                           {2, "0x2"},
                                                           {6, "0x6"},
                                                           {0x41, "RDONLY+0x40"}};
    for (const auto& [mask, name] : names) EXPECT_EQ(kvadmin::mask_words(mask), name);
}

// The sentences are promises: every suggested grant and membership is carried out here.
TEST_F(Explain, GrantThatIsSuggestedDoesAllowIt) {
    const struct {
        const char* user;
        const char* path;
        const char* op;
        const char* folder;  // below Shared, where the grant goes
        std::uint32_t mask;
    } cases[] = {{"alice", "Shared/Docs/report.txt", "open_write", "Docs", 3},
                 {"alice", "Shared/Docs/report.txt", "unlink", "Docs", 7},
                 {"alice", "Shared/Own/new", "create", "Own", 3},
                 {"dave", "Shared/Open", "opendir", "Open", 8},
                 {"dave", "Shared/Open/note.txt", "open_read", "Open", 1}};
    for (const auto& denied : cases) {
        publish(map());
        const nlohmann::json before = explained(denied.user, denied.path, denied.op);
        ASSERT_EQ(before["verdict"], "denied");
        const Sentences sentences = before["explanation"]["advice"];
        const std::string promise = std::string("giving ") + denied.user + " " +
                                    kvadmin::mask_words(denied.mask) + " on /Shared/" +
                                    denied.folder;
        EXPECT_NE(sentences.back().find(promise), std::string::npos) << sentences.back();
        Node changed = map();
        for (Node& folder : changed.children[0].children) {
            if (folder.name != denied.folder) continue;
            const uid_t uid = denied.user == std::string("alice") ? kAlice : kDave;
            std::erase_if(folder.users, [uid](const auto& entry) { return entry.first == uid; });
            folder.users.push_back({uid, denied.mask});
        }
        publish(changed);
        EXPECT_EQ(explained(denied.user, denied.path, denied.op)["verdict"], "allowed") << promise;
    }
}

TEST_F(Explain, MembershipThatIsSuggestedDoesAllowIt) {
    EXPECT_EQ(explained("alice", "Shared/Docs/report.txt", "open_write")["verdict"], "denied");
    std::string groups = read_file("/etc/group");
    const std::string editors = "editors:x:3002:dave";
    groups.replace(groups.find(editors), editors.size(), editors + ",alice");
    write_file("/etc/group", groups);
    EXPECT_EQ(explained("alice", "Shared/Docs/report.txt", "open_write")["verdict"], "allowed");
}

}  // namespace
}  // namespace kvtest
