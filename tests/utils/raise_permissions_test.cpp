// Root's identity as hooks take it: a context of the library's own making, which it frees, and an
// errno for the client when the switch is refused.
#include <malloc.h>

#include <cerrno>
#include <utility>

#include "identity_fixture.h"

namespace {

using namespace kvtest;

TEST(VfsBecomeRoot, HandsOutWhatItSaved) {
    const kvtest::ConfigTable config;
    for (const Way& way : kWays) {
        expect_in_child([&] {
            take_ids(way.before);
            kv_perm_ctx_t* const context = kavrin_vfs_become_root();
            ASSERT_NE(context, nullptr);
            EXPECT_EQ(thread_ids(), way.during);
            EXPECT_EQ(ids_of(*context), way.before);
            EXPECT_EQ(kavrin_vfs_unbecome_root(context), 0);
            EXPECT_EQ(thread_ids(), way.before);
            EXPECT_TRUE(kvtest::log_lines().empty());
        });
    }
}

TEST(VfsBecomeRoot, ContextOfRootHasNoGids) {
    expect_in_child([] {
        take_ids({0, 0, 0, kGroup, kGroup, kGroup});
        kv_perm_ctx_t* const context = kavrin_vfs_become_root();
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(ids_of(*context), (Ids{0, 0, 0, 0, 0, 0}));
        EXPECT_EQ(kavrin_vfs_unbecome_root(context), 0);
        EXPECT_EQ(thread_ids(), (Ids{0, 0, 0, kGroup, kGroup, kGroup}));
    });
}

TEST(VfsBecomeRoot, RefusalLeavesTheProcessUnchanged) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kStranger);
        EXPECT_EQ(kavrin_vfs_become_root(), nullptr);
        EXPECT_EQ(thread_ids(), kStranger);
        EXPECT_EQ(logged(kNoSwitch), 1);
        EXPECT_EQ(logged(kNoRoot), 1);
    });
    for (const auto& [call, message] :
         {std::pair(SYS_getresuid, kNoUids), std::pair(SYS_getresgid, kNoGids),
          std::pair(SYS_setresuid, kNoSwitch)}) {
        expect_in_child([call = call, message = message] {
            take_ids(kConnection);
            const std::string before = status_line("Uid:");
            refuse_call(static_cast<unsigned>(call), EIO);
            EXPECT_EQ(kavrin_vfs_become_root(), nullptr);
            EXPECT_EQ(status_line("Uid:"), before);
            EXPECT_EQ(logged(message), 1);
            EXPECT_EQ(logged(kNoRoot), 1);
        });
    }
}

TEST(VfsBecomeRoot, WithoutMemoryNothingChanges) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kConnection);
        kv_perm_ctx_t* context = nullptr;
        {
            const kvtest::RefusedAllocation refused(1);
            context = kavrin_vfs_become_root();
        }
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(thread_ids(), kConnection);
        EXPECT_EQ(logged("Could not allocate memory for permission context"), 1);
        EXPECT_EQ(kvtest::log_lines().size(), 1u);
    });
}

TEST(VfsBecomeRoot, ContextsAreFreedOnEveryWay) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const kvtest::ConfigTable config(-1);
    constexpr int kTimes = 1000;
    const auto growth = [](auto&& body) {
        // The allocator first fills the lists of free blocks that it counts as used.
        for (int i = 0; i < 20; ++i) body();
        const std::size_t before = mallinfo2().uordblks;
        for (int i = 0; i < kTimes; ++i) body();
        return static_cast<long>(mallinfo2().uordblks) - static_cast<long>(before);
    };
    expect_in_child([&] {
        take_ids(kConnection);
        EXPECT_LT(growth([] { kavrin_vfs_unbecome_root(kavrin_vfs_become_root()); }), kTimes);
    });
    expect_in_child([&] {
        take_ids(kStranger);
        EXPECT_LT(growth([] { kavrin_vfs_become_root(); }), kTimes);
    });
    expect_in_child([&] {
        refuse_call(SYS_setresuid, EAGAIN);
        EXPECT_LT(growth([] { kavrin_vfs_unbecome_root(kavrin_vfs_become_root()); }), kTimes);
    });
}

TEST(VfsUnbecomeRoot, NeedsAContext) {
    expect_in_child([] {
        take_ids(kConnection);
        EXPECT_EQ(kavrin_vfs_unbecome_root(nullptr), -1);
        EXPECT_EQ(thread_ids(), kConnection);
    });
}

TEST(VfsUnbecomeRoot, ProcessThatCannotGoBackStaysRoot) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kConnection);
        kv_perm_ctx_t* const context = kavrin_vfs_become_root();
        refuse_call(SYS_setresuid, EAGAIN);
        EXPECT_EQ(kavrin_vfs_unbecome_root(context), -1);
        EXPECT_EQ(thread_ids(), kWays[0].during);
        EXPECT_EQ(logged("Could not switch uids"), 1);
    });
}

// For a hook ----------------------------------------------------------------------------------

TEST(RaisePermissions, SwitchesAUserAndHandsOutTheContext) {
    for (const Way& way : kWays) {
        expect_in_child([&] {
            take_ids(way.before);
            kv_perm_ctx_t* context = nullptr;
            EXPECT_EQ(raise_permissions(&context), 1);
            ASSERT_NE(context, nullptr);
            EXPECT_EQ(thread_ids(), way.during);
            EXPECT_EQ(kavrin_vfs_unbecome_root(context), 0);
            EXPECT_EQ(thread_ids(), way.before);
        });
    }
}

TEST(RaisePermissions, RootKeepsTheContextItHas) {
    for (const Ids& root : {Ids{0, 0, 0, 0, 0, 0}, Ids{kUser, 0, kUser, kGroup, kGroup, kGroup}}) {
        expect_in_child([&] {
            take_ids(root);
            kv_perm_ctx_t own{1, 2, 3, 4, 5, 6};
            kv_perm_ctx_t* context = &own;
            EXPECT_EQ(raise_permissions(&context), 1);
            EXPECT_EQ(context, &own);
            EXPECT_EQ(ids_of(own), (Ids{1, 2, 3, 4, 5, 6}));
            context = nullptr;
            EXPECT_EQ(raise_permissions(&context), 1);
            EXPECT_EQ(context, nullptr);
            EXPECT_EQ(thread_ids(), root);
        });
    }
}

TEST(RaisePermissions, SecondCallChangesNothing) {
    expect_in_child([] {
        take_ids(kConnection);
        kv_perm_ctx_t* context = nullptr;
        ASSERT_EQ(raise_permissions(&context), 1);
        kv_perm_ctx_t* const first = context;
        EXPECT_EQ(raise_permissions(&context), 1);
        EXPECT_EQ(context, first);
        EXPECT_EQ(kavrin_vfs_unbecome_root(context), 0);
        EXPECT_EQ(thread_ids(), kConnection);
    });
}

TEST(RaisePermissions, RefusalIsEaccesWhateverTheKernelSaid) {
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kStranger);
        kv_perm_ctx_t own{};
        kv_perm_ctx_t* context = &own;
        errno = 0;
        EXPECT_EQ(raise_permissions(&context), 0);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(thread_ids(), kStranger);
        EXPECT_EQ(logged(kNoRoot), 1);
    });
    for (const unsigned call : {SYS_getresuid, SYS_getresgid, SYS_setresuid}) {
        expect_in_child([&] {
            take_ids(kConnection);
            const std::string before = status_line("Uid:");
            refuse_call(call, EIO);
            kv_perm_ctx_t* context = nullptr;
            errno = 0;
            EXPECT_EQ(raise_permissions(&context), 0);
            EXPECT_EQ(errno, EACCES);
            EXPECT_EQ(context, nullptr);
            EXPECT_EQ(status_line("Uid:"), before);
        });
    }
}

TEST(RaisePermissions, WithoutMemoryIsEaccesToo) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const kvtest::ConfigTable config;
    expect_in_child([] {
        take_ids(kConnection);
        kv_perm_ctx_t* context = nullptr;
        int result = 1;
        int error = 0;
        {
            const kvtest::RefusedAllocation refused(1);
            errno = 0;
            result = raise_permissions(&context);
            error = errno;
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(error, EACCES);
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(thread_ids(), kConnection);
    });
}

}  // namespace
