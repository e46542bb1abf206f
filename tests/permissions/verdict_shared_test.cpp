// The top level and the Shared tree: what the fixed rules allow, which mask an ACL gives to whom,
// and when access counts as mere navigation.
#include "verdict_fixture.h"

namespace kvtest {
namespace {

// --- the top level ---------------------------------------------------------------------------

TEST_F(Verdict, TheEmptyPathIsTheShareItself) {
    for (const char* path : {"", ".", "./", "x/.."}) {
        EXPECT_EQ(verdict(power_user(), path, FSOP_STAT), KVPERMS_HAS_PERMS) << path;
        EXPECT_EQ(verdict(power_user(), path, FSOP_OPENDIR), KVPERMS_HAS_PERMS) << path;
        EXPECT_EQ(verdict(power_user(), path, FSOP_RMDIR), KVPERMS_NO_PERM) << path;
        EXPECT_EQ(verdict(standard_user(), path, FSOP_STAT), KVPERMS_NO_PERM) << path;
    }
}

TEST_F(Verdict, TheTwoTopFoldersAreReadOnlyInAnyLetterCase) {
    for (const char* path : {"Shared", "shared", "SHARED", "Private", "pRIVATE", "Shared/"})
        for (const Who& who : {power_user(), power_user(3999), admin()}) {
            EXPECT_EQ(verdict(who, path, FSOP_STAT, FSTYPE_FOLDER), KVPERMS_HAS_PERMS) << path;
            EXPECT_EQ(verdict(who, path, FSOP_READDIR, FSTYPE_FOLDER), KVPERMS_HAS_PERMS) << path;
            for (const int op : {FSOP_RMDIR, FSOP_RENAME_SRC, FSOP_RENAME_DEST, FSOP_MKDIR,
                                 FSOP_MOVE_SRC, FSOP_CREATE})
                EXPECT_EQ(verdict(who, path, op, FSTYPE_FOLDER), KVPERMS_NO_PERM)
                    << path << " " << op;
        }
}

TEST_F(Verdict, NoFileMayLieAtTheTopLevel) {
    for (const Who& who : {power_user(), admin()}) {
        for (const char* path : {"Shared", "Private", ".", "note.txt"}) {
            EXPECT_EQ(verdict(who, path, FSOP_CREATE), KVPERMS_NO_PERM) << path;
            EXPECT_EQ(verdict(who, path, FSOP_STAT, FSTYPE_FILE), KVPERMS_NO_PERM) << path;
            EXPECT_EQ(verdict(who, path, FSOP_OPEN_CHATTR, FSTYPE_FILE), KVPERMS_NO_PERM) << path;
        }
    }
}

TEST_F(Verdict, OtherNamesAtTheTopLevelAreDeniedEvenToAdministrators) {
    make_folder("Other");
    make_folder("Sharedx");
    for (const Who& who : {power_user(), admin()})
        for (const char* path : {"Other", "Sharedx", "Share", "Privat", "Private2", "missing"})
            for (const int op : {FSOP_STAT, FSOP_OPENDIR, FSOP_MKDIR, FSOP_UNLINK})
                EXPECT_EQ(verdict(who, path, op), KVPERMS_NO_PERM) << path << " " << op;
}

TEST_F(Verdict, DeeperPathsOutsideTheTwoTreesAreDenied) {
    for (const char* path : {"Other/x", "Sharedx/y/z", "./Other/x"})
        for (const Who& who : {power_user(), admin()})
            EXPECT_EQ(verdict(who, path, FSOP_STAT), KVPERMS_NO_PERM) << path;
}

TEST_F(Verdict, AnAbsolutePathIsNoNameOfTheTopLevel) {
    for (const char* path : {"/Shared", "/", "/Shared/Projects", "/Private"})
        EXPECT_EQ(verdict(admin(), path, FSOP_STAT, FSTYPE_FOLDER), KVPERMS_NO_PERM) << path;
}

// --- Shared ----------------------------------------------------------------------------------

TEST_F(Verdict, NoFileMayLieDirectlyInShared) {
    make_file("Shared/note.txt");
    for (const Who& who : {power_user(), admin()}) {
        EXPECT_EQ(verdict(who, "Shared/note.txt", FSOP_STAT), KVPERMS_NO_PERM);
        EXPECT_EQ(verdict(who, "Shared/new.txt", FSOP_CREATE), KVPERMS_NO_PERM);
        EXPECT_EQ(verdict(who, "sHARED/Projects", FSOP_CREATE), KVPERMS_NO_PERM);
        EXPECT_EQ(verdict(who, "Shared/Projects", FSOP_OPEN_CHATTR, FSTYPE_FILE), KVPERMS_NO_PERM);
    }
}

TEST_F(Verdict, AdministratorsMayDoEverythingInShared) {
    for (const char* path : {"Shared/Projects", "Shared/Closed", "Shared/Closed/deep/er"})
        for (const int op : {FSOP_MKDIR, FSOP_RMDIR, FSOP_RENAME_SRC, FSOP_RENAME_DEST, FSOP_STAT,
                             FSOP_UNLINK, FSOP_MOVE_SRC, FSOP_MOVE_DEST, FSOP_OPENDIR})
            EXPECT_EQ(verdict(admin(), path, op, FSTYPE_FOLDER), KVPERMS_HAS_PERMS)
                << path << " " << op;
    EXPECT_EQ(verdict(admin(), "Shared/Closed/new.txt", FSOP_CREATE), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(admin(), "Shared/new", FSOP_MKDIR), KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, OthersMayNotChangeWhatLiesDirectlyInShared) {
    EXPECT_EQ(verdict(power_user(), "Shared/Projects", FSOP_STAT), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "Shared/Projects", FSOP_READDIR), KVPERMS_HAS_PERMS);
    for (const int op :
         {FSOP_MKDIR, FSOP_RMDIR, FSOP_RENAME_SRC, FSOP_RENAME_DEST, FSOP_MOVE_SRC, FSOP_MOVE_DEST})
        EXPECT_EQ(verdict(power_user(), "Shared/Projects", op), KVPERMS_NO_PERM) << op;
    EXPECT_EQ(verdict(power_user(), "Shared/new", FSOP_MKDIR), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(power_user(), "Shared/new", FSOP_RENAME_DEST), KVPERMS_NO_PERM);
}

TEST_F(Verdict, AFullRightGovernsBelowAFolder) {
    EXPECT_EQ(verdict(power_user(), "Shared/Projects/new.txt", FSOP_CREATE), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "Shared/Projects/plan.txt", FSOP_UNLINK), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "shared/PROJECTS/plan.txt", FSOP_UNLINK, FSTYPE_FILE),
              KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "Shared/Projects/inside", FSOP_RMDIR), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "Shared/Projects/inside", FSOP_RENAME_SRC), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "Shared/Projects/deep/er/still", FSOP_MKDIR),
              KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(3999), "Shared/Projects/new.txt", FSOP_CREATE), KVPERMS_NO_PERM);
}

// --- masks -----------------------------------------------------------------------------------

// The caller's mask on a folder below Shared, found out through the decision table: which
// operations on a file in that folder are allowed tells read, write and delete; opening the folder
// and is_nav tell navigation.
struct Rights {
    bool read, write, remove, opens, nav;
    bool operator==(const Rights&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Rights& r) {
    return out << "{" << r.read << r.write << r.remove << r.opens << r.nav << "}";
}

class Masks : public Verdict {
protected:
    Rights rights(const Who& who, const std::string& folder_path) {
        const std::string file = folder_path + "/file";
        const Reply opened = ask(who, folder_path, FSOP_OPENDIR, FSTYPE_FOLDER);
        return {verdict(who, file, FSOP_OPEN_READ, FSTYPE_FILE) == KVPERMS_HAS_PERMS,
                verdict(who, file, FSOP_OPEN_WRITE, FSTYPE_FILE) == KVPERMS_HAS_PERMS,
                verdict(who, file, FSOP_UNLINK, FSTYPE_FILE) == KVPERMS_HAS_PERMS,
                opened.verdict == KVPERMS_HAS_PERMS, opened.nav == 1};
    }
};

constexpr Rights kNothing{false, false, false, false, false};
constexpr Rights kWalks{false, false, false, true, true};
constexpr Rights kReads{true, false, false, true, false};
constexpr Rights kWrites{true, true, false, true, false};
constexpr Rights kDeletes{true, true, true, true, false};

TEST_F(Masks, AUsersOwnRightWinsOverHisGroups) {
    EXPECT_EQ(rights(power_user(kAlice, {kStaff}), "Shared/Projects"), kDeletes);
    EXPECT_EQ(rights(power_user(kAlice, {kStaff}), "Shared/Reading"), kReads);
    EXPECT_EQ(rights(power_user(kBob, {kStaff}), "Shared/Reading"), kDeletes);
    EXPECT_EQ(rights(power_user(kAlice, {kStaff}), "Shared/Viewed"), kWalks);
}

TEST_F(Masks, AUserWithNoRightIsWidenedByHisGroups) {
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Closed"), kNothing);
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Widened"), kNothing);
    EXPECT_EQ(rights(power_user(kAlice, {kStaff}), "Shared/Widened"), kReads);
    EXPECT_EQ(rights(power_user(kAlice, {kStaff, kSales}), "Shared/Widened"), kWrites);
}

TEST_F(Masks, AUserWhoOnlyNavigatesIsWidenedByHisGroups) {
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Walked"), kWalks);
    // Navigation and reading together: reading, and no longer navigation alone.
    EXPECT_EQ(rights(power_user(kAlice, {kSales}), "Shared/Walked"), kReads);
}

TEST_F(Masks, GroupRightsAddUp) {
    EXPECT_EQ(rights(power_user(kBob, {kStaff}), "Shared/Grouped"), kReads);
    EXPECT_EQ(rights(power_user(kBob, {kSales}), "Shared/Grouped"), kNothing);
    EXPECT_EQ(rights(power_user(kBob, {kStaff, kSales}), "Shared/Grouped"), kDeletes);
    EXPECT_EQ(rights(power_user(kBob, {kSales, kStaff, kSales}), "Shared/Grouped"), kDeletes);
}

TEST_F(Masks, TheEffectiveGroupCountsInAnAcl) {
    EXPECT_EQ(rights(power_user(kBob), "Shared/Primary"), kDeletes);
    EXPECT_EQ(rights({kBob, kSales, {kPowers}, false}, "Shared/Primary"), kNothing);
    EXPECT_EQ(rights({kBob, kSales, {kPowers, kPrimary}, false}, "Shared/Primary"), kDeletes);
}

TEST_F(Masks, TheFirstEntryOfAUserCounts) {
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Twice"), kReads);
}

TEST_F(Masks, NavigationIsInheritedByNobody) {
    // Outer itself may be walked and its only child is named by the map, without an ACL.
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Outer"), kWalks);
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Outer/Inner"), kNothing);
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Outer/Inner/inside"), kNothing);
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Outer/unknown"), kNothing);
    // The ignored right is no right: the group decides, below as well.
    EXPECT_EQ(rights(power_user(kAlice, {kStaff}), "Shared/Outer/Inner"), kReads);
    EXPECT_EQ(rights(power_user(kAlice, {kStaff}), "Shared/Outer/unknown/deep"), kReads);
    // A mask of more bits with navigation among them is ignored as a whole.
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Both/inside"), kNothing);
}

TEST_F(Masks, ViewingIsInherited) {
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Viewed/inside"), kWalks);
}

TEST_F(Masks, TheOwnAclOfAChildlessFolderCountsAsInherited) {
    EXPECT_EQ(rights(power_user(kAlice), "Shared/Leaf"), kNothing);
    EXPECT_EQ(rights(power_user(kAlice, {kSales}), "Shared/Leaf"), kReads);
}

TEST_F(Masks, GroupNavigationOfAnAncestorIsIgnoredToo) {
    // Nothing in Shared speaks of Bob there, and Shared's navigation for the staff is not
    // inherited.
    EXPECT_EQ(rights(power_user(kBob, {kStaff}), "Shared/unknown"), kNothing);
}

TEST_F(Verdict, WhatDoesNotExistHasEveryRightOnItself) {
    // The parent alone decides: may Bob move something to a name that is free?
    EXPECT_EQ(verdict(power_user(kAlice), "Shared/Projects/free", FSOP_RENAME_DEST),
              KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(kAlice), "Shared/Reading/free", FSOP_RENAME_DEST),
              KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(power_user(kBob), "Shared/Closed/free", FSOP_STAT), KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, AFilesOwnEntryInTheMapIsNeverConsulted) {
    // "inside" is named by the map; as a file only Projects' mask counts.
    EXPECT_EQ(verdict(power_user(kAlice), "Shared/Projects/inside", FSOP_UNLINK, FSTYPE_FILE),
              KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(kAlice), "Shared/Reading/inside", FSOP_UNLINK, FSTYPE_FILE),
              KVPERMS_NO_PERM);
}

// --- is_nav ----------------------------------------------------------------------------------

TEST_F(Verdict, NavigationIsReportedExactlyForTheMasksNavigateAndViewer) {
    const auto nav = [&](const Who& who, const char* path, int op, int type = FSTYPE_FOLDER) {
        const Reply reply = ask(who, path, op, type);
        const Reply given = ask(handing_over(who), path, op, type);
        EXPECT_EQ(reply.nav, given.nav);
        EXPECT_EQ(reply.verdict, KVPERMS_HAS_PERMS) << path << reply;
        return reply.nav;
    };
    EXPECT_EQ(nav(power_user(), "Shared/Walked", FSOP_OPENDIR), 1);
    EXPECT_EQ(nav(power_user(), "Shared/Walked", FSOP_STAT), 1);
    EXPECT_EQ(nav(power_user(), "Shared/Walked", FSOP_UNLINK), 1);
    EXPECT_EQ(nav(power_user(), "Shared/Viewed", FSOP_OPENDIR), 1);
    EXPECT_EQ(nav(power_user(), "Shared/Viewed/inside", FSOP_STAT), 1);
    EXPECT_EQ(nav(power_user(), "Shared/Both", FSOP_OPENDIR), 0) << "both bits";
    EXPECT_EQ(nav(power_user(kAlice, {kSales}), "Shared/Walked", FSOP_OPENDIR), 0) << "9";
    EXPECT_EQ(nav(power_user(), "Shared/Projects", FSOP_OPENDIR), 0);
    EXPECT_EQ(nav(power_user(), "Shared/Closed", FSOP_OPEN_WRITE), 0) << "no right at all";
    EXPECT_EQ(nav(admin(), "Shared/Walked", FSOP_OPENDIR), 0) << "an administrator in Shared";
    EXPECT_EQ(nav(power_user(), "Shared/Walked", FSOP_OPEN_READ), 0) << "decided before any mask";
    EXPECT_EQ(nav(power_user(), "Shared/Walked", FSOP_STAT, FSTYPE_DOES_NOT_EXIST), 0);
    EXPECT_EQ(ask(power_user(), "Shared/Walked", FSOP_RMDIR).nav, 0) << "denied";
}

TEST_F(Verdict, NavigationIsReportedAtTheTopLevelForAdministratorsToo) {
    // Shared's own ACL gives the staff navigation; the fixed rule reads.
    for (const Who& who : {power_user(kAlice, {kStaff}), admin()}) {
        const Reply reply = ask(who, "Shared", FSOP_OPENDIR);
        EXPECT_EQ(reply.verdict, KVPERMS_HAS_PERMS);
        EXPECT_EQ(reply.nav, 1) << reply;
    }
    EXPECT_EQ(ask(power_user(), "Shared", FSOP_OPENDIR).nav, 0);
    EXPECT_EQ(ask(power_user(kAlice, {kStaff}), ".", FSOP_OPENDIR).nav, 0)
        << "the share's own ACL is the root's, inherited";
}

TEST_F(Verdict, AnOverturnedDenialIsNoNavigation) {
    Node root = shared_tree();
    root.children[0].children.push_back(folder(".sb-x", {{kAlice, 8}}, {}));
    publish(root);
    const Reply reply = ask(power_user(), "Shared/.sb-x", FSOP_RMDIR, FSTYPE_FOLDER);
    EXPECT_EQ(reply.verdict, KVPERMS_HAS_PERMS);
    EXPECT_EQ(reply.nav, 0);
}

}  // namespace
}  // namespace kvtest
