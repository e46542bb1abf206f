// To root with a context to come back from: all three user and group ids before, during and after,
// from every identity a connection can have, and on every failure.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "identity_fixture.h"

namespace {

using namespace kvtest;

TEST(BecomeRoot, TakesRealAndEffectiveUidAndNothingElse) {
    const kvtest::ConfigTable config;
    for (const Way& way : kWays) {
        expect_in_child([&] {
            take_ids(way.before);
            kv_perm_ctx_t* context = nullptr;
            ASSERT_EQ(kavrin_become_root(&context), 0);
            ASSERT_NE(context, nullptr);
            EXPECT_EQ(thread_ids(), way.during);
            EXPECT_EQ(ids_of(*context), way.before);
            EXPECT_EQ(kavrin_unbecome_root(context), 0);
            EXPECT_EQ(thread_ids(), way.before);
            EXPECT_TRUE(kvtest::log_lines().empty());
            free(context);
        });
    }
}

TEST(BecomeRoot, FillsTheContextItIsGiven) {
    expect_in_child([] {
        take_ids(kConnection);
        kv_perm_ctx_t own{1, 2, 3, 4, 5, 6};
        kv_perm_ctx_t* context = &own;
        ASSERT_EQ(kavrin_become_root(&context), 0);
        EXPECT_EQ(context, &own);
        EXPECT_EQ(ids_of(own), kConnection);
        EXPECT_EQ(kavrin_unbecome_root(&own), 0);
        EXPECT_EQ(thread_ids(), kConnection);
    });
}

TEST(BecomeRoot, IsRealForTheKernel) {
    const std::string dir = kvtest::make_temp_dir();
    const std::string secret = dir + "/secret";
    kvtest::write_file(secret, "x");
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    expect_in_child([&] {
        kvtest::become_user(kUser, kGroup, {5001});
        EXPECT_EQ(access(secret.c_str(), F_OK), 0);
        EXPECT_EQ(open(secret.c_str(), O_RDONLY), -1);
        kv_perm_ctx_t* const context = kavrin_vfs_become_root();
        ASSERT_NE(context, nullptr);
        const int made = open((dir + "/made").c_str(), O_CREAT | O_WRONLY, 0600);
        struct stat owner {};
        ASSERT_EQ(fstat(made, &owner), 0);
        EXPECT_EQ(owner.st_uid, 0u);
        EXPECT_EQ(owner.st_gid, kGroup);
        gid_t groups[4];
        EXPECT_EQ(getgroups(4, groups), 1);
        EXPECT_EQ(groups[0], 5001u);
        EXPECT_EQ(kavrin_vfs_unbecome_root(context), 0);
        EXPECT_EQ(open(secret.c_str(), O_RDONLY), -1);
    });
}

TEST(BecomeRoot, RootStaysRootAndComesBackToRoot) {
    for (const Ids& root : {Ids{0, 0, 0, 0, 0, 0}, Ids{kUser, 0, 0, kGroup, kGroup, kGroup},
                            Ids{0, 0, kUser, kGroup, 0, kGroup}}) {
        expect_in_child([&] {
            take_ids(root);
            kv_perm_ctx_t own{1, 2, 3, 44, 55, 66};
            kv_perm_ctx_t* context = &own;
            EXPECT_EQ(kavrin_become_root(&context), 0);
            EXPECT_EQ(thread_ids(), root);
            // The uids are noted, the gids not even read.
            EXPECT_EQ(ids_of(own), (Ids{root[0], root[1], root[2], 44, 55, 66}));
            EXPECT_EQ(kavrin_unbecome_root(context), 0);
            EXPECT_EQ(thread_ids(), root);
        });
    }
}

TEST(BecomeRoot, WithoutMemoryNothingChanges) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kConnection);
        kv_perm_ctx_t* context = nullptr;
        int result = 0;
        {
            const kvtest::RefusedAllocation refused(1);
            result = kavrin_become_root(&context);
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(thread_ids(), kConnection);
        EXPECT_EQ(logged("Cannot allocate memory"), 1);
    });
}

TEST(BecomeRoot, UnreadableUidsAreAFailure) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kConnection);
        const std::string before = status_line("Uid:");
        refuse_call(SYS_getresuid, EIO);
        kv_perm_ctx_t* context = nullptr;
        EXPECT_EQ(kavrin_become_root(&context), -1);
        EXPECT_NE(context, nullptr);  // the caller's to free
        EXPECT_EQ(status_line("Uid:"), before);
        EXPECT_EQ(logged(kNoUids), 1);
        EXPECT_EQ(kvtest::log_lines().size(), 1u);
        free(context);
    });
}

TEST(BecomeRoot, UnreadableGidsAreAFailure) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kConnection);
        const std::string before = status_line("Uid:");
        refuse_call(SYS_getresgid, EIO);
        kv_perm_ctx_t* context = nullptr;
        EXPECT_EQ(kavrin_become_root(&context), -1);
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(context->effective_uid, kUser);
        EXPECT_EQ(status_line("Uid:"), before);
        EXPECT_EQ(logged(kNoGids), 1);
        EXPECT_EQ(kvtest::log_lines().size(), 1u);
        free(context);
    });
}

TEST(BecomeRoot, GidsOfRootNeedNotBeReadable) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        refuse_call(SYS_getresgid, EIO);
        kv_perm_ctx_t* context = nullptr;
        EXPECT_EQ(kavrin_become_root(&context), 0);
        EXPECT_TRUE(kvtest::log_lines().empty());
        free(context);
    });
}

TEST(BecomeRoot, ProcessWithoutAWayToRootIsRefused) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kStranger);
        kv_perm_ctx_t* context = nullptr;
        EXPECT_EQ(kavrin_become_root(&context), -1);
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(ids_of(*context), kStranger);
        EXPECT_EQ(thread_ids(), kStranger);
        EXPECT_EQ(logged(kNoSwitch), 1);
        EXPECT_EQ(kvtest::log_lines().size(), 1u);
        free(context);
    });
}

TEST(BecomeRoot, NegativeDebugLevelSilencesItsFailures) {
    const kvtest::ConfigTable config(-1);
    expect_in_child([] {
        take_ids(kStranger);
        kv_perm_ctx_t* context = nullptr;
        EXPECT_EQ(kavrin_become_root(&context), -1);
        EXPECT_EQ(kavrin_unbecome_root(nullptr), -1);
        EXPECT_EQ(kavrin_vfs_become_root(), nullptr);
        EXPECT_TRUE(kvtest::log_lines().empty());
        free(context);
    });
}

// And back ------------------------------------------------------------------------------------

TEST(UnbecomeRoot, NeedsAContext) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kConnection);
        EXPECT_EQ(kavrin_unbecome_root(nullptr), -1);
        EXPECT_EQ(thread_ids(), kConnection);
        EXPECT_EQ(logged("No permission context"), 1);
    });
}

TEST(UnbecomeRoot, LeavesTheGidsOfTheContextAlone) {
    expect_in_child([] {
        take_ids(kConnection);
        kv_perm_ctx_t* context = nullptr;
        ASSERT_EQ(kavrin_become_root(&context), 0);
        context->real_gid = context->effective_gid = context->saved_gid = 4321;
        EXPECT_EQ(kavrin_unbecome_root(context), 0);
        EXPECT_EQ(thread_ids(), kConnection);
        free(context);
    });
}

TEST(UnbecomeRoot, TakesAllThreeUidsFromTheContext) {
    expect_in_child([] {
        const kv_perm_ctx_t context{4001, 4002, 4003, 1, 2, 3};
        kv_perm_ctx_t copy = context;
        EXPECT_EQ(kavrin_unbecome_root(&copy), 0);
        EXPECT_EQ(thread_ids(), (Ids{4001, 4002, 4003, 0, 0, 0}));
        EXPECT_EQ(ids_of(copy), ids_of(context));
    });
}

TEST(UnbecomeRoot, ProcessThatCannotGoBackStaysRoot) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kConnection);
        kv_perm_ctx_t* context = nullptr;
        ASSERT_EQ(kavrin_become_root(&context), 0);
        refuse_call(SYS_setresuid, EAGAIN);
        EXPECT_EQ(kavrin_unbecome_root(context), -1);
        EXPECT_EQ(thread_ids(), kWays[0].during);
        EXPECT_EQ(logged("Could not switch uids"), 1);
        free(context);
    });
}

}  // namespace
