// The Private tree: folders that belong to whoever owns them on disk. No map is ever asked for
// here, so none is published in most of these tests.
#include "verdict_fixture.h"

namespace kvtest {
namespace {

class PrivateTree : public VerdictTest {
protected:
    void SetUp() override {
        make_folder("Private/alice", kAlice);
        make_folder("Private/alice/papers", kAlice);
        make_file("Private/alice/papers/letter", kAlice);
        make_folder("Private/bob", kBob);
        make_folder("Private/bob/papers", kAlice);  // Alice's, in Bob's folder
        make_file("Private/bob/letter", kBob);
    }
};

constexpr int kReading[] = {FSOP_STAT, FSOP_LSTAT, FSOP_OPENDIR, FSOP_READDIR, FSOP_CHDIR};
constexpr int kChanging[] = {FSOP_MKDIR,       FSOP_RMDIR,    FSOP_RENAME_SRC,
                             FSOP_RENAME_DEST, FSOP_MOVE_SRC, FSOP_MOVE_DEST};

TEST_F(PrivateTree, NoFileMayLieDirectlyInPrivate) {
    make_file("Private/note.txt", kAlice);
    for (const Who& who : {power_user(), admin()}) {
        for (const int op : {FSOP_STAT, FSOP_OPEN_READ, FSOP_UNLINK, FSOP_OPEN_CHATTR})
            EXPECT_EQ(verdict(who, "Private/note.txt", op), KVPERMS_NO_PERM) << op;
        EXPECT_EQ(verdict(who, "Private/new.txt", FSOP_CREATE), KVPERMS_NO_PERM);
        EXPECT_EQ(verdict(who, "Private/alice", FSOP_CREATE), KVPERMS_NO_PERM);
        EXPECT_EQ(verdict(who, "Private/alice", FSOP_STAT, FSTYPE_FILE), KVPERMS_NO_PERM);
    }
}

TEST_F(PrivateTree, APowerUserReadsHisOwnFolderButCannotChangeIt) {
    for (const int op : kReading)
        EXPECT_EQ(verdict(power_user(), "Private/alice", op), KVPERMS_HAS_PERMS) << op;
    for (const int op : kChanging)
        EXPECT_EQ(verdict(power_user(), "Private/alice", op), KVPERMS_NO_PERM) << op;
}

TEST_F(PrivateTree, APowerUserHasEveryRightBelowHisOwnFolder) {
    for (const char* path :
         {"Private/alice/papers", "Private/alice/papers/letter", "Private/alice/new",
          "Private/alice/deep/er/still", "Private/alice/papers/../new"})
        for (int op = FSOP_MIN; op < FSOP_INVAL; ++op)
            EXPECT_EQ(ask(power_user(), path, op).verdict, KVPERMS_HAS_PERMS) << path << " " << op;
}

TEST_F(PrivateTree, OperationsWithoutARuleAreAllowedBelowTheOwnFolder) {
    EXPECT_EQ(verdict(power_user(), "Private/alice/papers", FSOP_CHOWN), KVPERMS_HAS_PERMS);
    EXPECT_TRUE(ask(power_user(), "Private/alice", FSOP_CHOWN).child.aborted());
    EXPECT_TRUE(ask(admin(), "Private/alice/papers", FSOP_CHOWN).child.aborted());
}

TEST_F(PrivateTree, AForeignFolderIsDenied) {
    for (const char* path : {"Private/bob", "Private/bob/letter", "Private/bob/papers",
                             "Private/bob/papers/mine", "Private/bob/new"})
        for (const int op : {FSOP_STAT, FSOP_UNLINK, FSOP_OPENDIR, FSOP_MKDIR, FSOP_CHOWN})
            EXPECT_EQ(verdict(power_user(), path, op), KVPERMS_NO_PERM) << path << " " << op;
    EXPECT_EQ(verdict(power_user(kBob), "Private/bob/papers/mine", FSOP_CREATE), KVPERMS_HAS_PERMS)
        << "whoever owns what lies below";
}

TEST_F(PrivateTree, AMissingFolderIsDeniedToAPowerUser) {
    for (const char* path : {"Private/nobody", "Private/nobody/x", "Private/nobody/x/y"})
        for (const int op : {FSOP_STAT, FSOP_MKDIR, FSOP_UNLINK})
            EXPECT_EQ(verdict(power_user(), path, op), KVPERMS_NO_PERM) << path << " " << op;
}

TEST_F(PrivateTree, AdministratorsReadAFolderOfPrivateWhetherItIsThereOrNot) {
    for (const int op : kReading)
        EXPECT_EQ(verdict(admin(), "Private/bob", op), KVPERMS_HAS_PERMS) << op;
    for (const int op : kChanging) {
        EXPECT_EQ(verdict(admin(), "Private/bob", op), KVPERMS_NO_PERM) << op;
        EXPECT_EQ(verdict(admin(), "Private/alice", op), KVPERMS_NO_PERM) << "even his own " << op;
    }
    EXPECT_EQ(verdict(admin(), "Private/nobody", FSOP_STAT), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(admin(), "Private/nobody", FSOP_MKDIR), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(admin(), "Private/nobody", FSOP_RENAME_DEST), KVPERMS_NO_PERM);
}

TEST_F(PrivateTree, AdministratorsMayDoEverythingBelowAnExistingFolder) {
    for (const char* path : {"Private/bob/letter", "Private/bob/new", "Private/bob/papers/x/y"})
        for (const int op : {FSOP_STAT, FSOP_UNLINK, FSOP_CREATE, FSOP_MKDIR, FSOP_RENAME_SRC,
                             FSOP_MOVE_DEST, FSOP_RMDIR})
            EXPECT_EQ(verdict(admin(), path, op), KVPERMS_HAS_PERMS) << path << " " << op;
    for (const int op : {FSOP_STAT, FSOP_CREATE, FSOP_MKDIR})
        EXPECT_EQ(verdict(admin(), "Private/nobody/x", op), KVPERMS_NO_PERM) << op;
}

TEST_F(PrivateTree, AnAdministratorWhoIsAlsoAPowerUserIsAnAdministrator) {
    const Who both{kAlice, kPrimary, {kPowers, kAdmins}, false};
    EXPECT_EQ(verdict(both, "Private/bob/letter", FSOP_UNLINK), KVPERMS_HAS_PERMS);
    EXPECT_TRUE(ask(both, "Private/alice/papers", FSOP_CHOWN).child.aborted())
        << "the decision table is asked";
}

TEST_F(PrivateTree, StandardUsersHaveNothingEvenInTheirOwnFolder) {
    for (const char* path : {"Private/alice", "Private/alice/papers/letter", "Private/alice/new"})
        EXPECT_EQ(verdict(standard_user(), path, FSOP_STAT), KVPERMS_NO_PERM) << path;
}

TEST_F(PrivateTree, TheFirstComponentMayBeSpelledInAnyLetterCase) {
    // The disk is asked for the spelling of the path, so the folder has to be there as spelled.
    make_folder("PRIVATE");
    make_folder("PRIVATE/alice", kAlice);
    EXPECT_EQ(verdict(power_user(), "PRIVATE/alice/x", FSOP_CREATE), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "PRIVATE/alice", FSOP_STAT), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "private/alice/x", FSOP_CREATE), KVPERMS_NO_PERM);
}

TEST_F(PrivateTree, TheWholeFirstComponentNamesTheOwner) {
    make_folder("Private/al", kBob);
    EXPECT_EQ(verdict(power_user(), "Private/al/x", FSOP_CREATE), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(power_user(kBob), "Private/al/x", FSOP_CREATE), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "Private/alice", FSOP_STAT), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "Private/alicex/x", FSOP_CREATE), KVPERMS_NO_PERM);
}

TEST_F(PrivateTree, AFolderThatCannotBeLookedAtIsASystemError) {
    ASSERT_EQ(symlink("circle", (share + "/Private/circle").c_str()), 0);
    for (const Who& who : {power_user(), admin()}) {
        EXPECT_EQ(verdict(who, "Private/circle/x", FSOP_CREATE, FSTYPE_DOES_NOT_EXIST),
                  KVPERMS_SYSTEM_ERR);
        EXPECT_EQ(verdict(who, "Private/" + std::string(300, 'n') + "/x", FSOP_CREATE,
                          FSTYPE_DOES_NOT_EXIST),
                  KVPERMS_SYSTEM_ERR);
    }
    EXPECT_EQ(verdict(power_user(), "Private/circle", FSOP_STAT, FSTYPE_FOLDER),
              KVPERMS_SYSTEM_ERR);
    EXPECT_EQ(verdict(admin(), "Private/circle", FSOP_STAT, FSTYPE_FOLDER), KVPERMS_HAS_PERMS);
}

TEST_F(PrivateTree, AFileInPlaceOfPrivateIsASystemErrorBelowIt) {
    ASSERT_EQ(rename((share + "/Private").c_str(), (share + "/aside").c_str()), 0);
    make_file("Private");
    EXPECT_EQ(verdict(power_user(), "Private/alice/x", FSOP_CREATE), KVPERMS_SYSTEM_ERR);
}

TEST_F(PrivateTree, TheFolderIsLookedAtWithRootsRights) {
    ASSERT_EQ(chmod((share + "/Private").c_str(), 0), 0);
    EXPECT_EQ(verdict(power_user(), "Private/alice/papers/letter", FSOP_UNLINK), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(), "Private/bob/letter", FSOP_UNLINK), KVPERMS_NO_PERM);
}

TEST_F(PrivateTree, ALinkToAnOwnFolderIsAnOwnFolder) {
    ASSERT_EQ(symlink("alice", (share + "/Private/link").c_str()), 0);
    ASSERT_EQ(lchown((share + "/Private/link").c_str(), kBob, kPrimary), 0);
    EXPECT_EQ(verdict(power_user(), "Private/link/x", FSOP_CREATE), KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict(power_user(kBob), "Private/link/x", FSOP_CREATE), KVPERMS_NO_PERM);
}

TEST_F(PrivateTree, NothingIsEverReportedAsNavigation) {
    Node root{"/", {{kAlice, 8}}, {}, {}};
    root.children = {{"Private", {{kAlice, 8}}, {}, {{"alice", {{kAlice, 8}}, {}, {}}}}};
    publish(root);
    for (const char* path : {"Private/alice", "Private/alice/papers", "Private/bob/papers"})
        for (const Who& who : {power_user(), admin()})
            EXPECT_EQ(ask(who, path, FSOP_OPENDIR).nav, 0) << path;
    EXPECT_EQ(ask(power_user(), "Private", FSOP_OPENDIR).nav, 1) << "Private itself has an ACL";
}

TEST_F(PrivateTree, SpecialNamesOverturnADenialHereToo) {
    for (const char* path :
         {"Private/.DS_Store", "private/.ds_store", "Private/bob/.sb-1-x", "Private/nobody/y.sb-1"})
        EXPECT_EQ(verdict(power_user(), path, FSOP_CREATE), KVPERMS_HAS_PERMS) << path;
    EXPECT_EQ(verdict(power_user(), "Private/bob/.DS_Store", FSOP_CREATE), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(power_user(), "Private/circle.sb-", FSOP_CREATE), KVPERMS_HAS_PERMS);
}

TEST_F(PrivateTree, AnErrorIsNotOverturnedByASpecialName) {
    ASSERT_EQ(symlink("circle.sb-1", (share + "/Private/circle.sb-1").c_str()), 0);
    EXPECT_EQ(verdict(power_user(), "Private/circle.sb-1/x", FSOP_CREATE, FSTYPE_DOES_NOT_EXIST),
              KVPERMS_SYSTEM_ERR);
}

TEST_F(PrivateTree, TheRuleHoldsForAShareRootSpelledWithATrailingSlash) {
    EXPECT_EQ(ask_at(share + "/", power_user(), "Private/alice/x", FSOP_CREATE).verdict,
              KVPERMS_HAS_PERMS);
    EXPECT_EQ(ask_at(share + "/", power_user(), "Private/bob/x", FSOP_CREATE).verdict,
              KVPERMS_NO_PERM);
    EXPECT_EQ(ask_at(share + "//./", power_user(), "Private/alice/x", FSOP_CREATE).verdict,
              KVPERMS_HAS_PERMS);
}

}  // namespace
}  // namespace kvtest
