// The verdict step by step, up to the point where a tree of the share is looked at: arguments, the
// share root, stats, wildcards, standing, special names. The trees, the messages and what a call
// leaves behind have files of their own.
#include <sys/mman.h>

#include <climits>

#include "verdict_fixture.h"

namespace kvtest {
namespace {

// --- arguments -------------------------------------------------------------------------------

struct Refused {
    int verdict;
    int nav;
    int in_use;
};

Refused call(const char* root, const char* path, int op, int* nav_target, int nav_before) {
    process_trustees_t trustees{};
    trustees.is_global_map_in_use = 5;
    if (nav_target) *nav_target = nav_before;
    const int verdict =
        vfs_enforce_perms(root, path, static_cast<e_fsop_type_t>(op), &trustees, 0, nav_target);
    return {verdict, nav_target ? *nav_target : 0, trustees.is_global_map_in_use};
}

TEST_F(VerdictWithoutMap, BadArgumentsAreRefusedAtOnceEvenForRoot) {
    int nav = 0;
    for (const int op : {0, -1, 30, 31, 1000}) {
        const Refused refused = call(share.c_str(), "Shared", op, &nav, 7);
        EXPECT_EQ(refused.verdict, KVPERMS_INVALID_ARGS) << op;
        EXPECT_EQ(refused.nav, 7) << "is_nav is not touched";
        EXPECT_EQ(refused.in_use, 5) << "the caller's record is not touched";
    }
    EXPECT_EQ(call(share.c_str(), nullptr, FSOP_STAT, &nav, 7).verdict, KVPERMS_INVALID_ARGS);
    EXPECT_EQ(call(share.c_str(), nullptr, FSOP_STAT, &nav, 7).in_use, 5);
    EXPECT_EQ(call(share.c_str(), "Shared", FSOP_STAT, nullptr, 0).verdict, KVPERMS_INVALID_ARGS);
    EXPECT_EQ(call(share.c_str(), nullptr, 0, nullptr, 0).verdict, KVPERMS_INVALID_ARGS);
}

TEST_F(VerdictWithoutMap, RootMayDoAnythingOnAnyPath) {
    int nav = 0;
    for (int op = FSOP_MIN; op < FSOP_INVAL; ++op)
        for (const char* path : {"Shared/x", "../above", "", "nowhere/at/all", "Private/x/y"}) {
            const Refused allowed = call(share.c_str(), path, op, &nav, 7);
            EXPECT_EQ(allowed.verdict, KVPERMS_HAS_PERMS) << path << " op " << op;
            EXPECT_EQ(allowed.nav, 0);
            EXPECT_EQ(allowed.in_use, 0) << "released through the common exit";
        }
    EXPECT_EQ(call("../nonsense", "Shared", FSOP_STAT, &nav, 0).verdict, KVPERMS_HAS_PERMS);
}

TEST_F(VerdictWithoutMap, APathThatClimbsAboveItsStartIsAllowedToAnybody) {
    for (const char* path : {"..", "../x", "./..", "a/../..", "a/b/../../../Shared"}) {
        const Reply reply = ask(standard_user(), path, FSOP_UNLINK);
        EXPECT_EQ(reply.verdict, KVPERMS_HAS_PERMS) << path << reply;
        EXPECT_EQ(reply.nav, 0);
    }
}

TEST_F(VerdictWithoutMap, AClimbingPathReturnsDirectlyWithTheCallersRecordUntouched) {
    const ChildResult child = run_child([&] {
        become_user(kAlice, kPrimary, {kPowers});
        int nav = 7;
        const Refused reply = call(share.c_str(), "../x", FSOP_UNLINK, &nav, 7);
        return reply.verdict == KVPERMS_HAS_PERMS && reply.nav == 0 && reply.in_use == 5 ? 0 : 1;
    });
    EXPECT_EQ(child.exit_code, 0);
}

TEST_F(VerdictWithoutMap, AShareRootThatDoesNotNormaliseIsASystemError) {
    for (const char* root : {"../share", "a/../../b"})
        EXPECT_EQ(ask_at(root, power_user(), "Shared", FSOP_STAT).verdict, KVPERMS_SYSTEM_ERR);
    const ChildResult child = run_child([&] {
        become_user(kAlice, kPrimary, {kPowers});
        int nav = 7;
        return call(nullptr, "Shared", FSOP_STAT, &nav, 7).verdict;
    });
    EXPECT_EQ(child.exit_code, KVPERMS_SYSTEM_ERR);
}

TEST_F(VerdictWithoutMap, TheShareRootItselfIsAllowedToAnybodyInAnyLetterCase) {
    std::string shouted = share;
    for (char& c : shouted) c = static_cast<char>(std::toupper(c));
    for (const std::string& path : {share, shouted, share + "//", share + "/./x/.."})
        for (const int op : {FSOP_CREATE, FSOP_UNLINK, FSOP_CHOWN, FSOP_STAT})
            EXPECT_EQ(ask(standard_user(), path, op).verdict, KVPERMS_HAS_PERMS) << path;
    EXPECT_EQ(ask(standard_user(), share + "x", FSOP_STAT).verdict, KVPERMS_NO_PERM);
}

TEST_F(VerdictWithoutMap, BadTrusteesAreInvalidArguments) {
    struct Case {
        int count;
        bool with_list;
        int expected;
    };
    for (const Case& c :
         {Case{-1, true, KVPERMS_INVALID_ARGS}, Case{1, false, KVPERMS_INVALID_ARGS},
          Case{INT_MIN, false, KVPERMS_INVALID_ARGS}, Case{0, false, KVPERMS_NO_PERM}}) {
        const ChildResult child = run_child([&] {
            become_user(kAlice, kPrimary, {kPowers});
            gid_t gids[] = {kStaff};
            process_trustees_t trustees{};
            trustees.euid = kAlice;
            trustees.egid = kPrimary;
            trustees.num_sup_gids = c.count;
            trustees.gids = c.with_list ? gids : nullptr;
            trustees.is_global_map_in_use = 5;
            int nav = 7;
            const int verdict = vfs_enforce_perms(share.c_str(), "Shared/x", FSOP_STAT, &trustees,
                                                  FSTYPE_FOLDER, &nav);
            return trustees.is_global_map_in_use == 0 && nav == 0 ? verdict : 100;
        });
        EXPECT_EQ(child.exit_code, c.expected) << c.count;
    }
}

TEST_F(VerdictWithoutMap, BadTrusteesOfAWildcardStatAreNeverLookedAt) {
    const ChildResult child = run_child([&] {
        become_user(kAlice, kPrimary, {});
        process_trustees_t trustees{};
        trustees.num_sup_gids = -1;
        int nav = 7;
        return vfs_enforce_perms(share.c_str(), "Shared/*", FSOP_STAT, &trustees, 0, &nav);
    });
    EXPECT_EQ(child.exit_code, KVPERMS_HAS_PERMS);
}

// --- long paths and failing stats ------------------------------------------------------------

// A path below the share whose full form has exactly that many bytes.
std::string path_of_length(const std::string& share, std::size_t full_length) {
    std::string path = "Shared";
    const std::size_t wanted = full_length - share.size() - 1;
    while (path.size() + 202 < wanted) path += "/" + std::string(200, 'n');
    path += "/" + std::string(wanted - path.size() - 1, 'n');
    return path;
}

TEST_F(Verdict, TheLongestFullPathIsFourThousandAndNinetyFiveBytes) {
    const std::string longest = path_of_length(share, 4095);
    ASSERT_EQ((share + "/" + longest).size(), 4095u);
    EXPECT_EQ(verdict(admin(), longest, FSOP_STAT), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(admin(), longest, FSOP_STAT, FSTYPE_FOLDER), KVPERMS_HAS_PERMS);
    for (const std::size_t length : {4096u, 4097u, 5000u, 70000u})
        for (const int type : {0, static_cast<int>(FSTYPE_FOLDER)}) {
            const std::string path = path_of_length(share, length);
            EXPECT_EQ(verdict(admin(), path, FSOP_STAT, type), KVPERMS_SYSTEM_ERR) << length;
        }
}

TEST_F(Verdict, AnOverlongPathIsRefusedBeforeTheWildcardAndFolderRules) {
    const std::string path = path_of_length(share, 5000);
    EXPECT_EQ(verdict(admin(), path + "/*", FSOP_STAT), KVPERMS_SYSTEM_ERR);
    EXPECT_EQ(verdict(admin(), path, FSOP_OPEN_READ, FSTYPE_FOLDER), KVPERMS_SYSTEM_ERR);
}

TEST_F(Verdict, AnOverlongShareRootIsRefused) {
    const std::string root(4200, 'r');
    EXPECT_EQ(ask_at("/" + root, admin(), "Shared/x", FSOP_STAT, FSTYPE_FOLDER).verdict,
              KVPERMS_SYSTEM_ERR);
}

TEST_F(Verdict, AStatThatFailsForAnotherReasonThanAbsenceIsASystemError) {
    EXPECT_EQ(verdict(admin(), "Shared/" + std::string(300, 'n'), FSOP_STAT), KVPERMS_SYSTEM_ERR);
    ASSERT_EQ(symlink("loop", (share + "/Shared/loop").c_str()), 0);
    EXPECT_EQ(verdict(admin(), "Shared/loop", FSOP_STAT), KVPERMS_SYSTEM_ERR);
    EXPECT_EQ(verdict(admin(), "Shared/loop", FSOP_STAT, FSTYPE_FOLDER), KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, APathThroughAFileDoesNotExist) {
    EXPECT_EQ(verdict(admin(), "Shared/Projects/plan.txt/x", FSOP_STAT), KVPERMS_HAS_PERMS);
    const Who nobody = power_user(3999);
    EXPECT_EQ(verdict(nobody, "Shared/Projects/plan.txt/x", FSOP_STAT), KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, TheElementIsLookedAtWithRootsRights) {
    make_folder("Shared/Projects/dark");
    make_file("Shared/Projects/dark/file");
    ASSERT_EQ(chmod((share + "/Shared/Projects/dark").c_str(), 0), 0);
    // As a file its parent's mask counts (none in the map: Projects governs, inherited).
    EXPECT_EQ(verdict(power_user(), "Shared/Projects/dark/file", FSOP_STAT), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(3999), "Shared/Projects/dark/file", FSOP_STAT), KVPERMS_NO_PERM);
}

TEST_F(Verdict, AnyOtherForcedTypeIsJudgedAsAbsentWithoutARightOfItsOwn) {
    for (const int type : {static_cast<int>(FSTYPE_INVAL), 99, -1}) {
        const Reply reply = ask(power_user(), "Shared/Walked", FSOP_STAT, type);
        EXPECT_EQ(reply.verdict, KVPERMS_HAS_PERMS) << type;
        EXPECT_EQ(reply.nav, 0) << "its ACL is not asked";
        EXPECT_EQ(verdict(power_user(), "Shared/Reading/x", FSOP_OPEN_WRITE, type),
                  KVPERMS_NO_PERM);
        EXPECT_EQ(verdict(power_user(), "Shared/Projects/x", FSOP_OPEN_WRITE, type),
                  KVPERMS_HAS_PERMS);
    }
}

TEST_F(Verdict, ASymbolicLinkIsJudgedByWhatItLeadsTo) {
    ASSERT_EQ(symlink("plan.txt", (share + "/Shared/Projects/to_file").c_str()), 0);
    ASSERT_EQ(symlink("inside", (share + "/Shared/Projects/to_folder").c_str()), 0);
    const Who nobody = power_user(3999);
    EXPECT_EQ(verdict(nobody, "Shared/Projects/to_file", FSOP_OPEN_READ), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(nobody, "Shared/Projects/to_folder", FSOP_OPEN_READ), KVPERMS_HAS_PERMS);
}

// --- before standing is asked for ------------------------------------------------------------

TEST_F(VerdictWithoutMap, StatOfAWildcardIsAllowedToAnybody) {
    for (const char* path : {"*", "Shared/*", "Shared/Projects/*", "Private/bob/*", "./*", "a//*"})
        for (const int op : {FSOP_STAT, FSOP_LSTAT})
            EXPECT_EQ(verdict(standard_user(), path, op), KVPERMS_HAS_PERMS) << path;
    for (const char* path : {"x*", "Shared/x*", "*/x", "Shared/**"})
        EXPECT_EQ(verdict(standard_user(), path, FSOP_STAT), KVPERMS_NO_PERM) << path;
    for (const int op : {FSOP_UNLINK, FSOP_OPENDIR, FSOP_OPEN_READ, FSOP_CREATE})
        EXPECT_EQ(verdict(standard_user(), "Shared/*", op), KVPERMS_NO_PERM) << op;
}

TEST_F(VerdictWithoutMap, AFolderMayBeOpenedForReadingByAnybody) {
    EXPECT_EQ(verdict(standard_user(), "Shared", FSOP_OPEN_READ), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(standard_user(), "whatever", FSOP_OPEN_READ, FSTYPE_FOLDER),
              KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(standard_user(), "Shared/new", FSOP_OPEN_READ), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(standard_user(), "Shared", FSOP_OPEN_READ, FSTYPE_FILE), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(standard_user(), "Shared", FSOP_OPENDIR), KVPERMS_NO_PERM);
}

// --- standing --------------------------------------------------------------------------------

TEST_F(Verdict, StandardUsersMayDoNothing) {
    for (const char* path : {"Shared", "Private", ".", "", "Shared/Projects", "Private/alice",
                             "Shared/Projects/plan.txt", "elsewhere"})
        for (const int op : {FSOP_STAT, FSOP_OPENDIR, FSOP_CREATE, FSOP_UNLINK, FSOP_OPEN_CHATTR})
            EXPECT_EQ(verdict(standard_user(), path, op), KVPERMS_NO_PERM) << path << " " << op;
}

TEST_F(Verdict, TheEffectiveGroupGivesNoStanding) {
    EXPECT_EQ(verdict({kAlice, kAdmins, {kStaff}, false}, "Shared", FSOP_STAT), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict({kAlice, kPowers, {}, false}, "Shared", FSOP_STAT), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict({kAlice, kPrimary, {kPowers}, false}, "Shared", FSOP_STAT),
              KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, StandingIsWrittenIntoTheCallersRecord) {
    for (const auto& [group, is_admin, is_power] :
         {std::tuple{kAdmins, 1, 0}, {kPowers, 0, 1}, {kStaff, 0, 0}}) {
        const ChildResult child = run_child([&, group = group] {
            vfs_set_admins_powerusers(kAdmins, kPowers);
            become_user(kAlice, kPrimary, {group});
            gid_t gids[] = {kSales, group};
            process_trustees_t trustees{kAlice, kPrimary, 2, gids, 9, 9, 9, 0};
            int nav = 7;
            vfs_enforce_perms(share.c_str(), "Shared", FSOP_STAT, &trustees, 0, &nav);
            return trustees.admin * 100 + trustees.poweruser * 10 + trustees.is_computer_acct;
        });
        EXPECT_EQ(child.exit_code, is_admin * 100 + is_power * 10 + 9);
    }
}

TEST_F(Verdict, GroupZeroIsTheStandingGroupUntilOneIsSet) {
    const auto standing_of = [&](const std::vector<gid_t>& groups, bool set) {
        return run_child([&] {
                   if (set) vfs_set_admins_powerusers(kAdmins, kPowers);
                   become_user(kAlice, kPrimary, groups);
                   return ask_here(share, {kAlice, kPrimary, groups, true}, "Shared/Closed",
                                   FSOP_STAT, 0);
               })
            .exit_code;
    };
    EXPECT_EQ(standing_of({0}, false), KVPERMS_HAS_PERMS);
    EXPECT_EQ(standing_of({0}, true), KVPERMS_NO_PERM);
    EXPECT_EQ(standing_of({kAdmins}, false), KVPERMS_NO_PERM);
    EXPECT_EQ(standing_of({kAdmins}, true), KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, TheGroupsOfStandingAreReplacedByEachSetting) {
    const ChildResult child = run_child([&] {
        vfs_set_admins_powerusers(kAdmins, kPowers);
        vfs_set_admins_powerusers(kSales, kStaff);
        become_user(kAlice, kPrimary, {kAdmins, kPowers});
        return ask_here(share, {kAlice, kPrimary, {kAdmins, kPowers}, false}, "Shared", FSOP_STAT,
                        0);
    });
    EXPECT_EQ(child.exit_code, KVPERMS_NO_PERM);
}

TEST_F(Verdict, SpecialNamesOverturnADenialForAnybody) {
    for (const char* path :
         {".DS_Store", "._.DS_Store_x", ".trash-1000", "shared/.ds_store", "Private/.DS_Store",
          ".TemporaryItems/folders.501", "Shared/Closed/.sb-123-xyz", "Private/nobody/a.sb-1"})
        for (const Who& who : {standard_user(), power_user(), power_user(3999)}) {
            const Reply reply = ask(who, path, FSOP_CREATE);
            EXPECT_EQ(reply.verdict, KVPERMS_HAS_PERMS) << path << reply;
            EXPECT_EQ(reply.nav, 0) << path;
        }
    for (const char* path : {"Shared/x/.DS_Store", "Shared/x/.SB-1", "Shared/Closed/DS_Store"})
        EXPECT_EQ(verdict(standard_user(), path, FSOP_CREATE), KVPERMS_NO_PERM) << path;
}

// --- while it works ----------------------------------------------------------------------------

TEST_F(Verdict, AnOperationWithoutARuleEndsTheProcessOnceAnElementIsJudged) {
    for (const int op : {FSOP_CHOWN, FSOP_CHMOD, FSOP_STATVFS, FSOP_REALPATH, FSOP_CONNECT}) {
        EXPECT_TRUE(ask(admin(), "Shared/Projects", op).child.aborted()) << op;
        EXPECT_TRUE(ask(power_user(), "Shared", op).child.aborted()) << op;
        EXPECT_EQ(ask(standard_user(), "Shared", op).verdict, KVPERMS_NO_PERM) << op;
        EXPECT_EQ(ask(admin(), "Other", op).verdict, KVPERMS_NO_PERM) << op;
    }
}

TEST_F(Verdict, TheCallersRecordIsMarkedInUseWhileAVerdictIsWorkedOut) {
    void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    auto* trustees = static_cast<process_trustees_t*>(page);
    const ChildResult child = run_child_void([&] {
        vfs_set_admins_powerusers(kAdmins, kPowers);
        become_user(kAlice, kPrimary, {kAdmins});
        gid_t gids[] = {kAdmins};
        *trustees = {kAlice, kPrimary, 1, gids, 0, 0, 0, 0};
        int nav = 7;
        vfs_enforce_perms(share.c_str(), "Shared/Projects", FSOP_CHOWN, trustees, FSTYPE_FOLDER,
                          &nav);
    });
    EXPECT_TRUE(child.aborted());
    EXPECT_EQ(trustees->is_global_map_in_use, 1);
    EXPECT_EQ(trustees->admin, 1);
    munmap(page, 4096);
}

}  // namespace
}  // namespace kvtest
