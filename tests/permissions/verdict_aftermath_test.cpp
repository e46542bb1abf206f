// The map behind a verdict, and what a call leaves behind: identity, groups, attachments, memory.
#include <grp.h>
#include <sys/resource.h>

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define KV_TEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KV_TEST_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef KV_TEST_ADDRESS_SANITIZER
// gcc ships the routine without its header.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

#include "verdict_fixture.h"

namespace kvtest {
namespace {

// --- the map ---------------------------------------------------------------------------------

TEST_F(VerdictWithoutMap, WithoutAMapTheVerdictIsAnErrorAndNoDenial) {
    for (const char* path : {"Shared", "Shared/x", ".", "elsewhere", "Shared/.DS_Store"})
        EXPECT_EQ(verdict(admin(), path, FSOP_OPENDIR), KVPERMS_ACLBUF_ERR) << path;
    EXPECT_EQ(verdict(standard_user(), "Shared", FSOP_OPENDIR), KVPERMS_NO_PERM);
    EXPECT_EQ(verdict(admin(), "Private/x", FSOP_OPENDIR, FSTYPE_FOLDER), KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, WithoutThePersistedMapFileNoSegmentIsTrusted) {
    EXPECT_EQ(verdict(admin(), "Shared/Projects", FSOP_STAT), KVPERMS_HAS_PERMS);
    ASSERT_EQ(rename("/etc/kavrin/.permbe_map", "/etc/kavrin/moved"), 0);
    EXPECT_EQ(verdict(admin(), "Shared/Projects", FSOP_STAT), KVPERMS_ACLBUF_ERR);
    ASSERT_EQ(rename("/etc/kavrin/moved", "/etc/kavrin/.permbe_map"), 0);
    EXPECT_EQ(verdict(admin(), "Shared/Projects", FSOP_STAT), KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, ANewMapCountsFromTheNextVerdictOn) {
    EXPECT_EQ(verdict(power_user(), "Shared/Closed", FSOP_OPENDIR), KVPERMS_NO_PERM);
    Node root = shared_tree();
    root.children[0].children[2].users = {{kAlice, 1}};
    publish(root);
    EXPECT_EQ(verdict(power_user(), "Shared/Closed", FSOP_OPENDIR), KVPERMS_HAS_PERMS);
}

TEST_F(Verdict, ADamagedMapEndsTheProcess) {
    const int id = shmget(get_next_perm_table_key(1 - get_current_perm_table_index()), 0, 0);
    ASSERT_GE(id, 0);
    auto* header = static_cast<kavrin_be_header_t*>(shmat(id, nullptr, 0));
    ASSERT_NE(header, reinterpret_cast<kavrin_be_header_t*>(-1));
    header->signature = 0;
    shmdt(header);
    const Reply reply = ask(admin(), "Shared/Projects", FSOP_STAT);
    EXPECT_TRUE(reply.child.aborted()) << reply;
    EXPECT_TRUE(reply.said("ENFORCE_PERMS Cannot find path in permission map 3"));
}

// --- what a call leaves behind ---------------------------------------------------------------

TEST_F(Verdict, TheIdentityIsTheProcesssOwnWhenNoneIsGiven) {
    // Alice's record handed over by Bob's process, and Bob's own.
    const auto as_bob = [&](bool hand_over_alice) {
        return run_child([&] {
                   vfs_set_admins_powerusers(kAdmins, kPowers);
                   become_user(kBob, kPrimary, {kPowers});
                   gid_t gids[] = {kPowers, kSales, kStaff};
                   process_trustees_t trustees{kBob, kPrimary, 3, gids, 0, 0, 0, 0};
                   int nav = 0;
                   return vfs_enforce_perms(share.c_str(), "Shared/Grouped", FSOP_OPENDIR,
                                            hand_over_alice ? &trustees : nullptr, 0, &nav);
               })
            .exit_code;
    };
    EXPECT_EQ(as_bob(true), KVPERMS_HAS_PERMS) << "the groups given";
    EXPECT_EQ(as_bob(false), KVPERMS_NO_PERM) << "the groups of the process";
}

TEST_F(Verdict, ManyGroupsOfTheProcessAreAllCounted) {
    std::vector<gid_t> groups;
    for (gid_t g = 20000; g < 20500; ++g) groups.push_back(g);
    groups.push_back(kStaff);
    groups.push_back(kPowers);
    EXPECT_EQ(verdict({kBob, kPrimary, groups, false}, "Shared/Grouped", FSOP_OPENDIR),
              KVPERMS_HAS_PERMS);
    EXPECT_EQ(verdict({kBob, kPrimary, {}, false}, "Shared/Grouped", FSOP_OPENDIR),
              KVPERMS_NO_PERM);
}

TEST_F(Verdict, AGroupThatTheKernelDoesNotGiveBackStaysZero) {
    const ChildResult child = run_child([&] {
        vfs_set_admins_powerusers(kAdmins, kPowers);
        const gid_t groups[] = {kPowers};
        if (setgroups(1, groups) != 0 || setresgid(0, kPrimary, 0) != 0 ||
            setresuid(0, kBob, 0) != 0)
            return 100;
        int nav = 0;
        // The type is given, so the first switch comes after the groups were asked for.
        const int first = vfs_enforce_perms(share.c_str(), "Shared/Primary", FSOP_OPENDIR, nullptr,
                                            FSTYPE_FOLDER, &nav);
        const Ids ids = current_ids();
        if (!(ids == Ids{0, kBob, 0, 0, 0, 0})) return 101;
        const int second = vfs_enforce_perms(share.c_str(), "Shared/Primary", FSOP_OPENDIR, nullptr,
                                             FSTYPE_FOLDER, &nav);
        return first == KVPERMS_HAS_PERMS && second == KVPERMS_NO_PERM ? 0 : 102;
    });
    EXPECT_EQ(child.exit_code, 0);
}

TEST_F(VerdictWithoutMap, EveryCommonExitSwitchesIdentityAndADirectReturnDoesNot) {
    const auto egid_after = [&](const std::string& path, int op, int type) {
        return run_child([&] {
                   if (setresgid(0, 77, 0) != 0 || setresuid(0, kBob, 0) != 0) return 100;
                   int nav = 0;
                   vfs_enforce_perms(share.c_str(), path.c_str(), static_cast<e_fsop_type_t>(op),
                                     nullptr, type, &nav);
                   if (geteuid() != kBob) return 101;
                   return static_cast<int>(getegid());
               })
            .exit_code;
    };
    // Group 77 is only the effective one, so the kernel does not give it back.
    EXPECT_EQ(egid_after(share, FSOP_STAT, 0), 0) << "the share root";
    EXPECT_EQ(egid_after("Shared/*", FSOP_STAT, FSTYPE_FOLDER), 0) << "a wildcard";
    EXPECT_EQ(egid_after("Shared", FSOP_OPEN_READ, FSTYPE_FOLDER), 0) << "a folder for reading";
    EXPECT_EQ(egid_after("Shared", FSOP_STAT, FSTYPE_FOLDER), 0) << "a standard user";
    EXPECT_EQ(egid_after("../x", FSOP_STAT, FSTYPE_FOLDER), 77) << "an unusable path";
    EXPECT_EQ(egid_after("Shared", FSOP_INVAL, FSTYPE_FOLDER), 77) << "a bad operation";
}

TEST_F(Verdict, ALookAtTheDiskComesBeforeTheGroupsAreAskedFor) {
    const ChildResult child = run_child([&] {
        vfs_set_admins_powerusers(kAdmins, kPowers);
        const gid_t groups[] = {kPowers};
        if (setgroups(1, groups) != 0 || setresgid(0, kPrimary, 0) != 0 ||
            setresuid(0, kBob, 0) != 0)
            return 100;
        int nav = 0;
        return static_cast<int>(
            vfs_enforce_perms(share.c_str(), "Shared/Primary", FSOP_OPENDIR, nullptr, 0, &nav));
    });
    EXPECT_EQ(child.exit_code, KVPERMS_NO_PERM);
}

std::size_t heap_in_use() {
#ifdef KV_TEST_ADDRESS_SANITIZER
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

TEST_F(Verdict, NoWayOutLeavesMemoryOrAnAttachmentBehind) {
    struct Way {
        const char* name;
        std::string root, path;
        int op, type;
        Who who;
    };
    make_folder("Private/alice", kAlice);
    const std::vector<Way> ways = {
        {"no operation", share, "Shared", 30, 0, admin()},
        {"climbing path", share, "../x", FSOP_STAT, 0, admin()},
        {"bad root", "../x", "Shared", FSOP_STAT, 0, admin()},
        {"root", share, share, FSOP_STAT, 0, admin()},
        {"overlong", share, std::string(5000, 'x'), FSOP_STAT, 0, admin()},
        {"bad stat", share, std::string(300, 'x'), FSOP_STAT, 0, admin()},
        {"wildcard", share, "Shared/*", FSOP_STAT, 0, admin()},
        {"folder", share, "Shared", FSOP_OPEN_READ, 0, admin()},
        {"standard user", share, "Shared", FSOP_STAT, 0, standard_user()},
        {"empty", share, "", FSOP_STAT, 0, power_user()},
        {"administrator", share, "Shared/Projects/inside", FSOP_STAT, 0, admin()},
        {"power user", share, "Shared/Projects/inside", FSOP_STAT, 0, power_user()},
        {"denied", share, "Shared/Closed", FSOP_STAT, 0, power_user()},
        {"overturned", share, ".DS_Store", FSOP_CREATE, 0, power_user()},
        {"not a tree", share, "Other/x", FSOP_STAT, 0, power_user()},
        {"private", share, "Private/alice/x", FSOP_STAT, 0, power_user()},
        {"private folder", share, "Private/alice", FSOP_STAT, 0, power_user()},
        {"private missing", share, "Private/nobody", FSOP_STAT, 0, power_user()}};
    config.set_debug_level(-1);
    for (const Way& way : ways)
        for (const bool hand_over : {false, true}) {
            Who who = way.who;
            who.hand_over = hand_over;
            const ChildResult child = run_child([&] {
                vfs_set_admins_powerusers(kAdmins, kPowers);
                become_user(who.uid, who.gid, who.groups);
                std::size_t before = 0;
                for (int i = 0; i < 40; ++i) {
                    if (ask_here(way.root, who, way.path, way.op, way.type) >= kBroken &&
                        way.op != 30 && way.path != "../x")
                        return 1;
                    if (i == 9) before = heap_in_use();
                }
                return heap_in_use() == before ? 0 : 2;
            });
            EXPECT_EQ(child.exit_code, 0) << way.name << (hand_over ? " handed over" : "");
        }
}

#ifndef KV_TEST_ADDRESS_SANITIZER
TEST_F(VerdictWithoutMap, APathTooLargeForTheMemoryIsAMallocError) {
    const ChildResult child = run_child([&] {
        const std::string path(256u << 20, 'x');
        become_user(kAlice, kPrimary, {kPowers});
        // Room for what is there, and for nothing of that size again.
        const rlimit limit{320u << 20, 320u << 20};
        if (setrlimit(RLIMIT_AS, &limit) != 0) return 100;
        int nav = 7;
        return static_cast<int>(
            vfs_enforce_perms(share.c_str(), path.c_str(), FSOP_STAT, nullptr, 0, &nav));
    });
    EXPECT_EQ(child.exit_code, KVPERMS_MALLOC_ERR) << child.err;
    EXPECT_EQ(child.logged_part("ENFORCE_PERMS path normalization failed "), 1);
    EXPECT_EQ(child.logged_part("ENFORCE_PERMS path normalization failed for "), 0);
}
#endif

}  // namespace
}  // namespace kvtest
