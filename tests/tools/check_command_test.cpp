// kavrinctl check: it says what a file server would be told, for every kind of user and operation,
// and its exit code says it, too.
#include <sys/shm.h>

#include <map>

#include "check_fixture.h"
#include "kavrin.h"
#include "operations.h"
#include "permissions/decision_table.h"

namespace kvtest {
namespace {

using kvadmin::Exit;

constexpr int kDone = static_cast<int>(Exit::kDone);
constexpr int kFailure = static_cast<int>(Exit::kFailure);
constexpr int kDenied = static_cast<int>(Exit::kDenied);
constexpr int kUsage = static_cast<int>(Exit::kUsage);

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Check : public CheckTest {};

struct Person {
    const char* name;
    uid_t uid;
    std::vector<gid_t> groups;
};
const std::vector<Person> kPeople = {{"alice", kAlice, {kUsers, kStaff, kPowers}},
                                     {"bob", kBob, {kUsers, kAdmins}},
                                     {"carol", kCarol, {kUsers, kStaff}},
                                     {"dave", kDave, {kUsers, kEditors, kSales, kPowers}},
                                     {"root", 0, {0}}};

// Verdicts of all operations on a path, as a file server asks for them: 'y', 'n', or 'e'.
std::string asked_directly(const std::string& share, const Person& person, const std::string& path,
                           const std::vector<int>& ops) {
    const ChildResult child = run_child([&] {
        vfs_set_admins_powerusers(kAdmins, kPowers);
        become_user(person.uid, person.uid == 0 ? 0 : kUsers, person.groups);
        for (const int op : ops) {
            int nav = 0;
            const int verdict = vfs_enforce_perms(share.c_str(), path.c_str(),
                                                  static_cast<e_fsop_type_t>(op), nullptr, 0, &nav);
            std::putchar(verdict == KVPERMS_HAS_PERMS ? (nav != 0 ? 'v' : 'y')
                         : verdict == KVPERMS_NO_PERM ? 'n'
                                                      : 'e');
        }
        return 0;
    });
    EXPECT_EQ(child.exit_code, 0) << child.err;
    return child.out;
}

std::string in_short(const nlohmann::json& results) {
    std::string text;
    for (const auto& result : results) {
        const std::string verdict = result["verdict"];
        text += verdict == "denied" ? 'n' : verdict == "error" ? 'e' : 'y';
        if (result["navigation_only"]) text.back() = 'v';
    }
    return text;
}

TEST_F(Check, EveryUserAndOperationIsAnsweredAsAFileServerIs) {
    std::vector<int> ops;
    std::vector<std::string> names{"--json"};
    for (int op = FSOP_MIN; op < FSOP_INVAL; ++op) {
        const auto code = static_cast<e_fsop_type_t>(op);
        if (kavrin::decision_row(code, FSTYPE_FILE).need == kavrin::Need::kProgrammingError)
            continue;
        ops.push_back(op);
        names.push_back(kvadmin::operation_name(code));
    }
    ASSERT_EQ(ops.size(), 16u);
    int allowed = 0;
    int denied = 0;
    for (const Person& person : kPeople) {
        for (const char* path : {".",
                                 "Shared",
                                 "Private",
                                 "Shared/Docs",
                                 "Shared/Docs/report.txt",
                                 "Shared/Docs/new",
                                 "Shared/Open",
                                 "Shared/Open/note.txt",
                                 "Shared/Open/new",
                                 "Shared/Walk",
                                 "Shared/Walk/hidden.txt",
                                 "Shared/Own",
                                 "Shared/Own/new",
                                 "Shared/new",
                                 "Private/alice",
                                 "Private/alice/diary.txt",
                                 "Private/dave",
                                 "Private/nobody",
                                 "Other",
                                 "Shared/.DS_Store",
                                 "../up"}) {
            SCOPED_TRACE(std::string(person.name) + " on " + path);
            const std::string expected = asked_directly(share, person, path, ops);
            const ChildResult result = check(person.name, path, names);
            const nlohmann::json document = nlohmann::json::parse(result.out);
            EXPECT_EQ(in_short(document["results"]), expected);
            EXPECT_EQ(expected.find('e'), std::string::npos);
            const bool any_denied = expected.find('n') != std::string::npos;
            EXPECT_EQ(result.exit_code, any_denied ? kDenied : kDone);
            for (const char c : expected) ++(c == 'n' ? denied : allowed);
        }
    }
    EXPECT_GT(allowed, 500);
    EXPECT_GT(denied, 300);
}

TEST_F(Check, KnownCasesComeOutAsTheMapSays) {
    const struct {
        const char* user;
        const char* path;
        const char* op;
        int exit_code;
    } cases[] = {
        {"alice", "Shared/Docs/report.txt", "open_read", kDone},
        {"alice", "Shared/Docs/report.txt", "open_write", kDenied},
        {"dave", "Shared/Docs/report.txt", "open_write", kDone},
        {"dave", "Shared/Docs/report.txt", "unlink", kDenied},
        {"bob", "Shared/Docs/report.txt", "unlink", kDone},
        {"carol", "Shared/Docs/report.txt", "open_read", kDenied},
        {"carol", "Shared/.DS_Store", "open_read", kDone},
        {"alice", "Shared/Open/note.txt", "unlink", kDone},
        {"alice", "Shared/Own/new", "create", kDenied},
        {"alice", "Shared/Walk", "opendir", kDone},
        {"alice", "Shared/Walk/hidden.txt", "open_read", kDenied},
        {"alice", "Private/alice/diary.txt", "unlink", kDone},
        {"dave", "Private/alice/diary.txt", "open_read", kDenied},
        {"bob", "Private/alice/diary.txt", "unlink", kDone},
        {"alice", "Shared/new", "mkdir", kDenied},
        {"bob", "Shared/new", "mkdir", kDone},
        {"root", "Shared/new", "mkdir", kDone},
    };
    for (const auto& known : cases) {
        const ChildResult result = check(known.user, known.path, {known.op});
        EXPECT_EQ(result.exit_code, known.exit_code)
            << known.user << " " << known.path << " " << known.op << "\n"
            << result.out << result.err;
    }
}

TEST_F(Check, TextNamesUserPathAndEachVerdict) {
    const ChildResult result =
        check("alice", "Shared/Docs/report.txt", {"FSOP_OPEN_READ", "Open_Write", "UNLINK"});
    EXPECT_EQ(result.exit_code, kDenied);
    EXPECT_EQ(result.out,
              "alice (2001) on Shared/Docs/report.txt (a file):\n"
              "open_read   allowed\nopen_write  denied\nunlink      denied\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(Check, NavigationOnlyIsSaid) {
    const ChildResult result = check("alice", "Shared/Walk", {"opendir"});
    EXPECT_EQ(result.exit_code, kDone);
    EXPECT_TRUE(contains(result.out, "allowed, for navigation or viewing only")) << result.out;
}

TEST_F(Check, WordsAskTheObviousOperation) {
    const struct {
        const char* path;
        const char* word;
        const char* op;
        const char* asked_path;
    } words[] = {{"Shared/Docs", "read", "readdir", "Shared/Docs"},
                 {"Shared/Docs", "list", "opendir", "Shared/Docs"},
                 {"Shared/Docs", "write", "create", "Shared/Docs/new"},
                 {"Shared/Docs", "delete", "rmdir", "Shared/Docs"},
                 {"Shared/Docs/report.txt", "read", "open_read", "Shared/Docs/report.txt"},
                 {"Shared/Docs/report.txt", "write", "open_write", "Shared/Docs/report.txt"},
                 {"Shared/Docs/report.txt", "delete", "unlink", "Shared/Docs/report.txt"},
                 {"Shared/Docs/report.txt", "list", "stat", "Shared/Docs/report.txt"}};
    for (const auto& word : words) {
        const ChildResult result = check("dave", word.path, {word.word, "--json"});
        const nlohmann::json answer = nlohmann::json::parse(result.out)["results"][0];
        EXPECT_EQ(answer["asked"], word.word);
        EXPECT_EQ(answer["op"], word.op);
        EXPECT_EQ(answer["path"], word.asked_path);
    }
    EXPECT_EQ(check("alice", "Shared/Docs", {"write"}).exit_code, kDenied);
    EXPECT_EQ(check("dave", "Shared/Docs", {"write"}).exit_code, kDone);
}

TEST_F(Check, WithoutOperationsTheUsualOnesAreAsked) {
    const std::map<std::string, std::size_t> expected = {
        {"Shared/Docs", 6}, {"Shared/Docs/report.txt", 6}, {"Shared/Docs/new", 5}};
    for (const auto& [path, count] : expected) {
        const ChildResult result = check("bob", path, {"--json"});
        EXPECT_EQ(result.exit_code, kDone) << result.out;
        EXPECT_EQ(nlohmann::json::parse(result.out)["results"].size(), count);
    }
}

TEST_F(Check, TypeReplacesTheLookAtTheDisk) {
    const std::string path = "Shared/Docs/nothing";
    EXPECT_EQ(check("alice", path, {"unlink"}).exit_code, kDone);
    EXPECT_EQ(check("alice", path, {"--type=file", "unlink"}).exit_code, kDenied);
    EXPECT_EQ(check("alice", path, {"--type=folder", "unlink"}).exit_code, kDone);
    EXPECT_EQ(check("alice", "Shared/Docs/report.txt", {"--type=missing", "unlink"}).exit_code,
              kDone);
    EXPECT_EQ(check("alice", path, {"--type=socket", "unlink"}).exit_code, kUsage);
}

TEST_F(Check, LeadingSlashIsTheSharesTop) {
    for (const std::string& path :
         {std::string("/Shared/Docs/report.txt"), std::string("//Shared/Docs/report.txt"),
          share + "/Shared/Docs/report.txt"}) {
        const ChildResult result = check("dave", path, {"open_write", "--json"});
        EXPECT_EQ(result.exit_code, kDone) << result.out;
        EXPECT_EQ(nlohmann::json::parse(result.out)["results"][0]["path"],
                  "Shared/Docs/report.txt");
    }
    EXPECT_EQ(check("carol", share, {"opendir"}).exit_code, kDone);
    EXPECT_EQ(check("carol", "/", {"opendir"}).exit_code, kDenied);
}

TEST_F(Check, IdentityByIdsNeedsNoDatabase) {
    const std::vector<std::string> start = {"--root", share,     "--uid", "9001",    "--gid",
                                            "3000",   "--admin", "3100",  "--power", "3101"};
    const auto with_groups = [&start](const std::string& groups, const std::string& op) {
        std::vector<std::string> arguments = start;
        arguments.insert(arguments.end(), {"--groups", groups, "Shared/Docs/report.txt", op});
        return tool(arguments).exit_code;
    };
    EXPECT_EQ(with_groups("3101,3002", "open_write"), kDone);
    EXPECT_EQ(with_groups("3101,editors", "open_write"), kDone);
    EXPECT_EQ(with_groups("3101,3001", "open_write"), kDenied);
    EXPECT_EQ(with_groups("3002", "open_write"), kDenied);
    EXPECT_EQ(with_groups("3100", "unlink"), kDone);
}

TEST_F(Check, KnownUidTakesItsGroupsFromTheDatabase) {
    const ChildResult result =
        tool({"--root", share, "--uid", "2004", "--json", "Shared/Docs/report.txt", "open_write"});
    EXPECT_EQ(result.exit_code, kDone) << result.err;
    const nlohmann::json document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["user"], "dave");
    EXPECT_EQ(document["gid"], kUsers);
    EXPECT_EQ(document["admins_gid"], kAdmins);
    EXPECT_EQ(document["powerusers_gid"], kPowers);
    EXPECT_TRUE(document["remarks"].empty());
}

TEST_F(Check, PrimaryGroupGivesRightsButNoStanding) {
    const std::vector<std::string> rest = {"--root", share, "Shared/Docs/report.txt", "open_write"};
    std::vector<std::string> primary{"--uid", "9001", "--gid", "3002", "--groups", "3101"};
    primary.insert(primary.end(), rest.begin(), rest.end());
    EXPECT_EQ(tool(primary).exit_code, kDone);
    std::vector<std::string> standing{"--uid", "9001", "--gid", "3101", "--groups", "3002"};
    standing.insert(standing.end(), rest.begin(), rest.end());
    EXPECT_EQ(tool(standing).exit_code, kDenied);
}

TEST_F(Check, MissingReservedGroupsAreRemarked) {
    write_file("/etc/group", "root:x:0:\npeople:x:3000:\n");
    const ChildResult result = check("alice", "Shared/Docs", {"opendir"});
    EXPECT_EQ(result.exit_code, kDenied);
    EXPECT_TRUE(contains(result.err, "there is no group kavrin-admins")) << result.err;
    EXPECT_TRUE(contains(result.err, "there is no group kavrin-powerusers")) << result.err;
}

TEST_F(Check, CommandLineMistakesAreUsageErrors) {
    const std::string report = "Shared/Docs/report.txt";
    EXPECT_EQ(check("nobody-of-that-name", report, {"stat"}).exit_code, kUsage);
    EXPECT_EQ(tool({"--root", share, report, "stat"}).exit_code, kUsage);
    EXPECT_EQ(tool({"--user", "alice", "--uid", "5", "--root", share, report}).exit_code, kUsage);
    EXPECT_EQ(tool({"--user", "alice", "--gid", "5", "--root", share, report}).exit_code, kUsage);
    EXPECT_EQ(tool({"--user", "alice", report}).exit_code, kUsage);
    EXPECT_EQ(tool({"--uid", "-1", "--root", share, report}).exit_code, kUsage);
    EXPECT_EQ(tool({"--uid", "4294967295", "--root", share, report}).exit_code, kUsage);
    EXPECT_EQ(tool({"--uid", "1", "--groups", "12x", "--root", share, report}).exit_code, kUsage);
    EXPECT_EQ(check("alice", report, {"stat", "--admin=no-such-group"}).exit_code, kUsage);
    const ChildResult unknown = check("alice", report, {"fly"});
    EXPECT_EQ(unknown.exit_code, kUsage);
    EXPECT_TRUE(contains(unknown.err, "'fly'")) << unknown.err;
    EXPECT_TRUE(contains(unknown.err, "rename_src")) << unknown.err;
}

TEST_F(Check, OperationsWithoutARuleAreRefusedByName) {
    int refused = 0;
    for (int op = FSOP_MIN; op < FSOP_INVAL; ++op) {
        const auto code = static_cast<e_fsop_type_t>(op);
        if (kavrin::decision_row(code, FSTYPE_FILE).need != kavrin::Need::kProgrammingError)
            continue;
        const std::string name = kvadmin::operation_name(code);
        const ChildResult result = check("alice", "Shared/Docs", {"stat", name});
        EXPECT_EQ(result.exit_code, kUsage);
        EXPECT_TRUE(contains(result.err, "'" + name + "'")) << result.err;
        EXPECT_EQ(result.out, "");
        ++refused;
    }
    EXPECT_EQ(refused, 13);
}

TEST_F(Check, TooLongAPathIsRefused) {
    std::string path = "Shared";
    while (path.size() < 4095) path += "/x";
    path.resize(4095);
    EXPECT_NE(check("alice", path, {"stat"}).exit_code, kUsage);
    EXPECT_EQ(check("alice", path + "y", {"stat"}).exit_code, kUsage);
}

TEST_F(Check, MissingShareIsAFailure) {
    EXPECT_EQ(tool({"--user", "alice", "--root", share + "/none", "Shared"}).exit_code, kFailure);
    EXPECT_EQ(tool({"--user", "alice", "--root", "/etc/passwd", "Shared"}).exit_code, kFailure);
}

TEST_F(Check, WithoutAMapTheVerdictIsAnErrorThatIsNamed) {
    std::filesystem::remove("/etc/kavrin/.permbe_map");
    const ChildResult result = check("alice", "Shared/Docs", {"opendir", "open_read"});
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.out, "opendir    error KVPERMS_ACLBUF_ERR (9)")) << result.out;
    EXPECT_TRUE(contains(result.out, "open_read  allowed")) << result.out;
    EXPECT_TRUE(contains(result.err, "map load")) << result.err;
    EXPECT_EQ(check("root", "Shared/Docs", {"opendir"}).exit_code, kDone);
}

TEST_F(Check, DamagedMapIsReportedInsteadOfEndingTheCommand) {
    const int id = shmget(get_current_perm_table_index() == 0 ? 0x70657269 : 0x7065726A, 0, 0);
    char* image = static_cast<char*>(shmat(id, nullptr, 0));
    ASSERT_NE(image, reinterpret_cast<char*>(-1));
    image[176] ^= 1;  // the root element's signature
    shmdt(image);
    for (const bool explain : {false, true}) {
        std::vector<std::string> more{"opendir"};
        if (explain) more.push_back("--explain");
        const ChildResult result = check("alice", "Shared/Docs", more);
        EXPECT_EQ(result.exit_code, kFailure);
        EXPECT_TRUE(contains(result.err, "the library stopped: ")) << result.err;
        EXPECT_TRUE(contains(result.err, "FSELEMSIG")) << result.err;
        EXPECT_TRUE(contains(result.err, "kavrinctl map verify")) << result.err;
    }
}

TEST_F(Check, OnlyRootAsks) {
    const ChildResult result = run_child([this] {
        if (seteuid(kAlice) != 0) return 99;
        const std::string root = share;
        const char* const argv[] = {"kavrinctl", "check",      "--user", "alice",
                                    "--root",    root.c_str(), "Shared"};
        return kvadmin::run(7, argv);
    });
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "root")) << result.err;
}

}  // namespace
}  // namespace kvtest
