// Every message of a verdict, to the letter and with the debug level it needs. Operators search the
// system's log for these texts, so a reworded one is a defect.
#include <regex.h>
#include <syslog.h>

#include <functional>

#include "verdict_fixture.h"

namespace kvtest {
namespace {

// The least debug level that shows a message.
enum Threshold {
    kAlways = 0,    // failures, and what is told at every level
    kEntry = 1,     // the question itself
    kDecision = 2,  // why a verdict came about
    kTrace = 10,    // the steps on the way
    kStep = -2,     // a step or a decision: shown at 10, not at 1
};

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (std::string_view(".^$|()[]{}*+?\\").find(c) != std::string_view::npos) out += '\\';
        out += c;
    }
    return out;
}

// An extended regular expression that has to match a whole text.
class Pattern {
public:
    explicit Pattern(const std::string& expression) {
        EXPECT_EQ(regcomp(&compiled_, ("^(" + expression + ")$").c_str(), REG_EXTENDED), 0);
    }
    ~Pattern() { regfree(&compiled_); }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;
    bool matches(const std::string& text) const {
        return regexec(&compiled_, text.c_str(), 0, nullptr, 0) == 0;
    }

private:
    regex_t compiled_{};
};

class Messages : public VerdictTest {
protected:
    void SetUp() override {
        Node shared{"Shared", {}, {}, {}};
        shared.children = {
            {"Projects", {{kAlice, 8}}, {{kStaff, 7}}, {{"inside", {}, {}, {}}}},
            {"Leaf", {{kAlice, 7}}, {}, {}},
        };
        publish(Node{"/", {}, {{kStaff, 8}}, {shared}});
        make_folder("Shared/Projects");
        make_folder("Shared/Leaf");
        make_folder("Private/alice", kAlice);
        make_folder("Private/bob", kBob);
    }

    using Asking = std::function<ChildResult()>;

    Asking asking(Who who, std::string path, int op, int type = 0) {
        return [=, this] { return ask(who, path, op, type).child; };
    }

    // The whole message matches the pattern, at the levels that show it and at no lower one.
    void told(const std::string& pattern, Threshold threshold, const Asking& asks) {
        SCOPED_TRACE(pattern);
        const Pattern whole(pattern);
        const auto count = [&](int level) {
            config.set_debug_level(level);
            int found = 0;
            for (const LogLine& line : asks().log)
                if (whole.matches(line.message)) ++found;
            return found;
        };
        const int shown = threshold == kStep ? 10 : static_cast<int>(threshold);
        const int hidden = threshold == kStep ? 1 : shown - 1;
        EXPECT_GT(count(shown), 0) << "missing at level " << shown;
        EXPECT_EQ(count(hidden), 0) << "shown at level " << hidden;
        EXPECT_EQ(count(-1), 0) << "shown at a negative level";
    }
    void told_exactly(std::string_view message, Threshold threshold, const Asking& asks) {
        told(escaped(message), threshold, asks);
    }
};

// --- the question ----------------------------------------------------------------------------

TEST_F(Messages, TheQuestionIsToldFromLevelOne) {
    told("Enforcing permissions for op 16 root " + escaped(share) +
             " path \\./Shared/Projects pid [1-9][0-9]* uid 2001",
         kEntry, asking(power_user(), "./Shared/Projects", FSOP_STAT));
    told("Enforcing permissions for op 7 root " + escaped(share) +
             " path \\.\\./x pid [1-9][0-9]* uid 2001",
         kEntry, asking(power_user(), "../x", FSOP_UNLINK));
}

TEST_F(Messages, ThePidIsTheProcesssOwn) {
    config.set_debug_level(1);
    const ChildResult child = run_child([&] {
        become_user(kAlice, kPrimary, {});
        int nav = 0;
        vfs_enforce_perms(share.c_str(), "Shared", FSOP_STAT, nullptr, 0, &nav);
        return logged("Enforcing permissions for op 16 root " + share + " path Shared pid " +
                      std::to_string(getpid()) + " uid 2001");
    });
    EXPECT_EQ(child.exit_code, 1);
}

TEST_F(Messages, EveryMessageIsInformationWithTheFunctionsName) {
    config.set_debug_level(10);
    const ChildResult child = asking(power_user(kAlice, {kStaff}), "Shared/Projects", FSOP_STAT)();
    ASSERT_GT(child.log.size(), 5u);
    for (const LogLine& line : child.log) {
        EXPECT_EQ(line.priority, LOG_INFO);
        EXPECT_GT(line.line, 0) << line.text;
        EXPECT_NE(line.file.find(".cpp"), std::string::npos) << line.text;
        EXPECT_FALSE(line.function.empty()) << line.text;
    }
}

TEST_F(Messages, ANullPathIsNoTroubleForTheQuestion) {
    config.set_debug_level(10);
    const ChildResult child = run_child([&] {
        int nav = 0;
        return vfs_enforce_perms(share.c_str(), nullptr, FSOP_STAT, nullptr, 0, &nav);
    });
    EXPECT_EQ(child.exit_code, KVPERMS_INVALID_ARGS);
}

// --- arguments and paths ---------------------------------------------------------------------

TEST_F(Messages, InvalidArgumentsAreToldAtEveryLevel) {
    const auto call = [&](const char* path, int op, bool with_nav) {
        return [=, this] {
            return run_child([=, this] {
                int nav = 0;
                return vfs_enforce_perms(share.c_str(), path, static_cast<e_fsop_type_t>(op),
                                         nullptr, 0, with_nav ? &nav : nullptr);
            });
        };
    };
    told_exactly("ENFORCE_PERMS Invalid argument path NULL acl 16", kAlways,
                 call(nullptr, FSOP_STAT, true));
    told_exactly("ENFORCE_PERMS Invalid argument path Shared/x acl 30", kAlways,
                 call("Shared/x", 30, true));
    told_exactly("ENFORCE_PERMS Invalid argument path Shared/x acl 0", kAlways,
                 call("Shared/x", 0, true));
    told_exactly("ENFORCE_PERMS Invalid argument path Shared/x acl -1", kAlways,
                 call("Shared/x", -1, true));
    told_exactly("ENFORCE_PERMS Invalid argument path Shared/x acl 16", kAlways,
                 call("Shared/x", FSOP_STAT, false));
}

TEST_F(Messages, RootIsToldAsADecision) {
    told_exactly("Running as root, allow operation", kDecision, [&] {
        return run_child([&] {
            int nav = 0;
            return vfs_enforce_perms(share.c_str(), "Shared", FSOP_STAT, nullptr, 0, &nav);
        });
    });
}

TEST_F(Messages, AnUnusablePathIsATrace) {
    told_exactly(
        "returning HAS_PERMS, path normalization returned an unusable path ../x: "
        "No such file or directory",
        kTrace, asking(power_user(), "../x", FSOP_STAT));
}

TEST_F(Messages, AnUnusableShareRootIsToldAtEveryLevel) {
    told_exactly("ENFORCE_PERMS normalize(../x) failed for root: No such file or directory",
                 kAlways, [&] { return ask_at("../x", power_user(), "Shared", FSOP_STAT).child; });
}

TEST_F(Messages, TheShareRootIsADecision) {
    told_exactly("ENFORCE_PERMS Kavrin path matches root (" + share + "), return HAS_PERMS",
                 kDecision, asking(power_user(), share, FSOP_STAT));
}

TEST_F(Messages, AFailedStatIsToldAtEveryLevel) {
    const std::string longer = "Shared/" + std::string(300, 'n');
    told_exactly(
        "ENFORCE_PERMS stat(" + share + "/" + longer + ") failed, code=36 (File name too long)",
        kAlways, asking(power_user(), longer, FSOP_STAT));
}

TEST_F(Messages, AnAbsentElementIsAStep) {
    told("stat\\(" + escaped(share) + "/Shared/free\\) returned (-1|2), does not exist", kStep,
         asking(power_user(), "Shared/free", FSOP_STAT));
}

TEST_F(Messages, WildcardsAndFoldersForReadingAreDecisions) {
    told_exactly("Allow for stat of * component: Shared/*", kDecision,
                 asking(standard_user(), "Shared//*", FSOP_STAT));
    told_exactly("OPEN_READ on a folder, returning HAS_PERMS", kDecision,
                 asking(standard_user(), "Shared", FSOP_OPEN_READ));
}

// --- who asks --------------------------------------------------------------------------------

TEST_F(Messages, BadTrusteesAreToldAtEveryLevel) {
    const auto call = [&](int count) {
        return [=, this] {
            return run_child([=, this] {
                become_user(kAlice, kPrimary, {});
                process_trustees_t trustees{};
                trustees.num_sup_gids = count;
                int nav = 0;
                return vfs_enforce_perms(share.c_str(), "Shared", FSOP_STAT, &trustees, 0, &nav);
            });
        };
    };
    told_exactly("ENFORCE_PERMS Invalid argument pts->num_sup_gids -1 pts->gids (nil)", kAlways,
                 call(-1));
    told_exactly("ENFORCE_PERMS Invalid argument pts->num_sup_gids 3 pts->gids (nil)", kAlways,
                 call(3));
}

TEST_F(Messages, TheGroupsHandedOverAreListedFromLevelTwo) {
    const Asking given =
        asking(handing_over(power_user(kAlice, {kStaff})), "Shared/Projects", FSOP_STAT);
    told_exactly("Number of supplementary gids = 2", kDecision, given);
    told_exactly("GIDs: ", kDecision, given);
    told_exactly("7003 ", kDecision, given);
    told_exactly("7002 ", kDecision, given);
    const ChildResult own = asking(power_user(), "Shared/Projects", FSOP_STAT)();
    EXPECT_EQ(own.logged("GIDs: "), 0) << "only those handed over";
}

TEST_F(Messages, StandingIsATrace) {
    told("[^ ]+: admin=0 power_user=1", kTrace, asking(power_user(), "Shared", FSOP_STAT));
    told("[^ ]+: admin=1 power_user=0", kTrace, asking(admin(), "Shared", FSOP_STAT));
    told("[^ ]+: admin=0 power_user=0", kTrace, asking(standard_user(), "Shared", FSOP_STAT));
}

TEST_F(Messages, ADeniedStandardUserIsToldAtEveryLevel) {
    told_exactly("ENFORCE_PERMS standard users always have no permission", kAlways,
                 asking(standard_user(), "Shared", FSOP_STAT));
}

TEST_F(Messages, TheGroupsOfStandingAreTracedWhenSet) {
    told("\n[^ ]+: kavrin_admins_gid=7001 kavrin_powerusers_gid=7002", kTrace,
         [] { return run_child_void([] { vfs_set_admins_powerusers(kAdmins, kPowers); }); });
}

TEST_F(Messages, TheParentIsATrace) {
    told_exactly("Real parent 'Shared' of real path 'Shared/Projects'", kTrace,
                 asking(power_user(), "Shared//Projects/", FSOP_STAT));
    told_exactly("Real parent '/' of real path '.'", kTrace, asking(power_user(), "", FSOP_STAT));
}

// --- the map and the masks -------------------------------------------------------------------

TEST_F(Messages, AMissingMapIsToldAtEveryLevel) {
    ASSERT_EQ(unlink("/etc/kavrin/.permbe_map"), 0);
    told_exactly("ENFORCE_PERMS Cannot access the permission map", kAlways,
                 asking(power_user(), "Shared/Projects", FSOP_STAT));
}

TEST_F(Messages, EveryMaskOnTheWayIsTold) {
    const Who alice = power_user(kAlice, {kStaff});
    const Asking inside = asking(alice, "Shared/Projects/inside", FSOP_STAT, FSTYPE_FOLDER);
    told_exactly("Parent User is found, perm is: 10", kStep, inside);  // octal
    told_exactly("Parent Group is found, perm is now: 17", kStep, inside);
    told_exactly("Group is found, perm is now: 7", kStep, inside);
    const Asking projects = asking(alice, "Shared/Projects", FSOP_STAT);
    told_exactly("User is found, perm is: 10", kStep, projects);
    told_exactly("Group is found, perm is now: 17", kStep, projects);
    told_exactly("Setting permissions to RWD for non-existent path", kStep,
                 asking(alice, "Shared/Projects/free", FSOP_STAT));
}

TEST_F(Messages, TheAclsAreDumpedAtLevelTen) {
    const Asking projects = asking(power_user(), "Shared/Projects", FSOP_STAT);
    for (const char* message :
         {"ACL version: 0", "ACL number of aces: 2", "ACE trustee_type: USER",
          "ACE trustee_type: GROUP", "ACE uid: 2001", "ACE gid: 7003", "ACE perm mask: NAVIGATE",
          "ACE perm mask: RDWRDEL", "ACE Type: Explicit"})
        told_exactly(message, kTrace, projects);
    told_exactly("ACE Type: Inherited", kTrace, asking(power_user(), "Shared/Leaf/x", FSOP_STAT));
}

TEST_F(Messages, TheDumpNamesTheFirstCombinationPresentInAMask) {
    struct Name {
        unsigned mask;
        const char* text;
    };
    for (const Name& name :
         {Name{7, "RDWRDEL"}, Name{31, "RDWRDEL"}, Name{3, "RDWR"}, Name{27, "RDWR"},
          Name{1, "RDONLY"}, Name{5, "RDONLY"}, Name{9, "RDONLY"}, Name{16, "VIEWER ONLY"},
          Name{24, "VIEWER ONLY"}, Name{8, "NAVIGATE"}, Name{14, "NAVIGATE"}, Name{0, "NOPERM"},
          Name{2, "NOPERM"}}) {
        kavrin_acl_t* acl = nullptr;
        ASSERT_EQ(create_empty_acl(&acl), SHM_MEMBE_OK);
        add_ace_to_acl(acl, ACE_TYPE_USER, kAlice);
        add_ace_mask(acl, ACE_TYPE_USER, kAlice, name.mask);
        set_inheritance_flag(acl, 0);
        config.set_debug_level(9);
        clear_log();
        _d_print_acl(acl);
        EXPECT_TRUE(log_lines().empty());
        config.set_debug_level(10);
        _d_print_acl(acl);
        EXPECT_EQ(logged_part("ACE perm mask: "), 1) << name.mask;
        EXPECT_EQ(logged(std::string("ACE perm mask: ") + name.text), 1) << name.mask;
        free_ACL(acl);
        free(acl);
    }
}

TEST_F(Messages, AnInheritedAclIsAStep) {
    const Asking unknown = asking(power_user(), "Shared/Projects/free", FSOP_MKDIR);
    const Asking leaf = asking(power_user(), "Shared/Leaf/free", FSOP_MKDIR);
    told_exactly("setting inherited as ret is SHM_MEMBE_OK_NAMEREMAPPED", kStep, leaf);
    told("Setting INHERITED flag .*\\([0-9]+\\)", kStep, leaf);
    config.set_debug_level(10);
    EXPECT_EQ(unknown().logged_part("setting inherited"), 0) << "only the parent's, an exact match";
}

// --- decisions -------------------------------------------------------------------------------

TEST_F(Messages, DenialsInSharedAreDecisions) {
    told_exactly("ENFORCE_PERMS Deny, no files allowed in Shared, type: 3, op: 1", kDecision,
                 asking(admin(), "Shared/new", FSOP_CREATE));
    told_exactly("ENFORCE_PERMS Deny, no files allowed in Shared, type: 1, op: 16", kDecision,
                 asking(power_user(), "Shared/x", FSOP_STAT, FSTYPE_FILE));
}

TEST_F(Messages, DenialsAtTheTopLevelAreDecisions) {
    told_exactly("Deny due to file or file operation in Kavrin root, type: 3, op: 1", kDecision,
                 asking(admin(), "new", FSOP_CREATE));
    told_exactly("Invalid Kavrin path 'Other' under root", kDecision,
                 asking(admin(), "Other", FSOP_STAT));
    told_exactly("Invalid Kavrin path 'Other/x'", kDecision, asking(admin(), "Other/x", FSOP_STAT));
}

TEST_F(Messages, TheFixedRulesOfTheTopLevelAreSteps) {
    told_exactly("admin and power users have R/R permission for /Private", kStep,
                 asking(power_user(), "Private", FSOP_STAT));
    told_exactly("everyone has R/R permission for /Shared", kStep,
                 asking(power_user(), "Shared", FSOP_STAT));
    told_exactly("everyone has R/R permission for '.'", kStep, asking(power_user(), "", FSOP_STAT));
    told_exactly("path is neither in /Shared nor /Private", kStep,
                 asking(power_user(), "Shared", FSOP_STAT));
}

TEST_F(Messages, TheTablesReasonIsADecision) {
    told_exactly("Allow for Nav on self", kDecision,
                 asking(power_user(), "Shared/Projects", FSOP_OPENDIR));
    told_exactly("Deny due to no Read/Write/Delete on parent op=21", kDecision,
                 asking(power_user(), "Shared/Projects", FSOP_RMDIR));
}

TEST_F(Messages, AnOverturnedDenialIsToldAtEveryLevel) {
    told_exactly("ENFORCE_PERMS got NO PERM but path is a special path so overturn verdict",
                 kAlways, asking(standard_user(), ".DS_Store", FSOP_CREATE));
}

TEST_F(Messages, TheVerdictIsATrace) {
    told_exactly("ENFORCE_PERMS Returning verdict 3 path=Shared/Projects in_path=Shared//Projects/",
                 kTrace, asking(power_user(), "Shared//Projects/", FSOP_STAT));
    told_exactly("ENFORCE_PERMS Returning verdict 2 path=. in_path=", kTrace,
                 asking(standard_user(), "", FSOP_STAT));
    told("ENFORCE_PERMS Returning verdict 10 path=.* in_path=Shared", kTrace,
         [&] { return ask_at("../x", power_user(), "Shared", FSOP_STAT).child; });
    told("ENFORCE_PERMS Returning verdict 3 path=.* in_path=Shared", kTrace, [&] {
        return run_child([&] {
            int nav = 0;
            return vfs_enforce_perms(share.c_str(), "Shared", FSOP_STAT, nullptr, 0, &nav);
        });
    });
}

TEST_F(Messages, DirectReturnsHaveNoVerdictTrace) {
    config.set_debug_level(10);
    for (const auto& [path, op] : {std::pair{"../x", FSOP_STAT}, {"Shared", FSOP_INVAL}}) {
        const ChildResult child = run_child([&, path = path, op = op] {
            become_user(kAlice, kPrimary, {kPowers});
            int nav = 0;
            return vfs_enforce_perms(share.c_str(), path, op, nullptr, 0, &nav);
        });
        EXPECT_TRUE(child.exited);
        EXPECT_GT(child.log.size(), 0u);
        EXPECT_EQ(child.logged_part("Returning verdict"), 0) << path;
    }
}

// --- Private ---------------------------------------------------------------------------------

TEST_F(Messages, TheStepsThroughPrivateAreTold) {
    told_exactly("ENFORCE_PERMS disallow file operations in Private", kTrace,
                 asking(power_user(), "Private/alice", FSOP_STAT));
    told_exactly("admin, enforce for R/R", kStep, asking(admin(), "Private/bob", FSOP_STAT));
    told_exactly("admin, enforce for RWD/RWD", kStep, asking(admin(), "Private/bob/x", FSOP_STAT));
    told_exactly("parent is /Private, enforce for R/R", kStep,
                 asking(power_user(), "Private/alice", FSOP_STAT));
    told_exactly("allow for user's own Private subdir", kStep,
                 asking(power_user(), "Private/alice/x", FSOP_STAT));
    told_exactly("Built full private path: '" + share + "/Private/alice'", kStep,
                 asking(power_user(), "Private/alice/x/y", FSOP_STAT));
    told_exactly("Built full private path: '" + share + "/Private/alice'", kStep,
                 asking(power_user(), "Private/alice", FSOP_STAT));
}

TEST_F(Messages, DenialsInPrivateAreTold) {
    told("Private subdir '[^']*nobody' does not exist", kDecision,
         asking(power_user(), "Private/nobody/x", FSOP_STAT));
    told(
        "ENFORCE_PERMS UID (2001 does not match 2002|2002 does not match 2001) for path .*bob.* "
        "in /Private",
        kDecision, asking(power_user(), "Private/bob/x", FSOP_STAT));
}

TEST_F(Messages, AFailedStatInPrivateIsToldAtEveryLevel) {
    ASSERT_EQ(symlink("circle", (share + "/Private/circle").c_str()), 0);
    told_exactly("ENFORCE_PERMS stat(" + share +
                     "/Private/circle) failed: Too many levels of symbolic links",
                 kAlways,
                 asking(power_user(), "Private/circle/x", FSOP_STAT, FSTYPE_DOES_NOT_EXIST));
}

}  // namespace
}  // namespace kvtest
