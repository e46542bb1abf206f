// Status, change of folder, file-system statistics: which code is asked, with which errno it
// is refused, and who the process is afterwards.
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

#include "hook_fixture.h"

namespace kvtest {
namespace {

class MetadataHooks : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
    static std::vector<Asked> one(int op, const std::string& path) { return {{op, path}}; }

    int stat(std::string path) {
        return stat_preprocess(connection.get(), path.data(), share.c_str(), &context);
    }
    int lstat(std::string path) {
        return lstat_preprocess(share.c_str(), path.data(), &context, connection.get());
    }
    int chdir(std::string path) {
        return chdir_preprocess(path.data(), share.c_str(), connection.get(), &context);
    }
    int statvfs(std::string path) {
        return statvfs_preprocess(share.c_str(), path.data(), connection.get(), &context);
    }
    // The only codes that the cache has a verdict for, on any path.
    std::uint32_t cached_codes() {
        std::uint32_t codes = 0;
        for (const tlb_perms_t& perms : connection->vfs_table_cache.tlb_perms)
            codes |= perms.set[0];
        return codes;
    }
    void touch(const char* marker, time_t when) {
        const AsRoot root;
        const timespec times[2] = {{when, 0}, {when, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, marker, times, 0), 0);
    }
};

// --- stat ------------------------------------------------------------------------------------

TEST_F(MetadataHooks, AStatAsksForNavigationOnFolderAndParent) {
    for (const std::string& path : {grid(8, 8), grid(1, 16), file_in(1),
                                    std::string("Shared/P0/gone"), std::string("Shared/P0/*")}) {
        const Outcome outcome = allowed([&] { return stat(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_STAT, path));
    }
    for (const std::string& path : {grid(7, 2), grid(7, 0), grid(0, 7), file_in(8), file_in(6)}) {
        const Outcome outcome = refused(EPERM, [&] { return stat(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_STAT, path));
        EXPECT_EQ(logged("stat_preprocess: EPERM"), 1);
    }
    EXPECT_EQ(cached_codes(), 1u << FSOP_STAT);
}

TEST_F(MetadataHooks, AStatIsAnsweredFromTheCache) {
    allowed([&] { return stat(grid(7, 7)); });
    refused(EPERM, [&] { return stat(grid(0, 7)); });
    EXPECT_TRUE(allowed([&] { return stat(grid(7, 7)); }).asked.empty());
    EXPECT_TRUE(refused(EPERM, [&] { return stat(grid(0, 7)); }).asked.empty());
}

TEST_F(MetadataHooks, EveryStatLooksAtTheRefreshMarkersFirst) {
    allowed([&] { return stat(grid(7, 7)); });
    touch("/etc/kavrin/permission_refresh", time(nullptr) + 1000);
    const Outcome outcome = allowed([&] { return stat(grid(7, 7)); });
    EXPECT_EQ(outcome.asked, one(FSOP_STAT, grid(7, 7))) << "remembered verdicts are gone";
    EXPECT_EQ(logged_part("Resetting Kavrin permission caches"), 1);
}

TEST_F(MetadataHooks, AStatWithoutANameRefreshesAllTheSame) {
    touch("/etc/kavrin/permission_refresh", time(nullptr) + 1000);
    config.set_debug_level(1);
    refused(ENOMEM,
            [&] { return stat_preprocess(connection.get(), nullptr, share.c_str(), &context); });
    EXPECT_EQ(logged("stat_preprocess: base_name null"), 1);
    EXPECT_EQ(logged_part("Resetting Kavrin permission caches"), 1);
}

TEST_F(MetadataHooks, AStatFollowsTheProcessToAnotherUser) {
    become({0, kBob.uid, 0, kPrimary, kPrimary, kPrimary});
    EXPECT_EQ(call([&] { return stat(grid(7, 7)); }).result, -1);
    EXPECT_EQ(connection->refresh_creds.euid, kBob.uid);
    EXPECT_EQ(connection->groupmap.euid, kBob.uid);
}

TEST_F(MetadataHooks, AComputersStatIsRefusedUnasked) {
    serve(kComputer);
    ASSERT_EQ(connection->groupmap.is_computer_acct, 1);
    for (const char* path : {"Shared", ".", "Shared/*"}) {
        const Outcome outcome = refused(EPERM, [&] { return stat(path); });
        EXPECT_TRUE(outcome.asked.empty());
    }
}

TEST_F(MetadataHooks, RootsStatIsAllowedUnasked) {
    become(kRoot);
    for (const std::string& path : {grid(0, 0), std::string("Private/kvbob/x")}) {
        const Outcome outcome = allowed([&] { return stat(path); });
        EXPECT_TRUE(outcome.asked.empty());
    }
    EXPECT_EQ(connection->refresh_creds.euid, kAlice.uid) << "root is nobody's user";
}

TEST_F(MetadataHooks, AStatWithoutRootIsRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EPERM, [&] { return stat("Private/kvalice/doc"); });
        EXPECT_EQ(
            logged("Could not switch to root for stat operation for nlpath=Private/kvalice/doc"),
            1);
        EXPECT_EQ(heap_growth([&] { stat("Private/kvalice/doc"); }), 0);
    });
}

TEST_F(MetadataHooks, AStatWithoutMemoryIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    std::string path = "Private/kvalice/doc";
    allowed([&] { return stat(path); });  // what comes by now is the context alone, and the name
    const auto outcomes = starve(
        [] {},
        [&] { return stat_preprocess(connection.get(), path.data(), share.c_str(), &context); },
        [&] { give_back(); });
    ASSERT_EQ(outcomes.size(), 2u);
    for (const Starved& starved : outcomes) {
        EXPECT_EQ(starved.result, -1);
        EXPECT_EQ(starved.error, EPERM);
    }
    EXPECT_TRUE(
        outcomes.back().said("Could not switch to root for stat operation for nlpath=" + path));
}

// --- lstat -----------------------------------------------------------------------------------

TEST_F(MetadataHooks, AnLstatAsksForNavigationOnFolderAndParent) {
    for (const std::string& path : {grid(8, 8), grid(1, 16), file_in(1),
                                    std::string("Shared/P0/gone"), std::string("Shared/P0/*")}) {
        const Outcome outcome = allowed([&] { return lstat(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_LSTAT, path));
    }
    for (const std::string& path : {grid(7, 2), grid(0, 7), file_in(8)}) {
        const Outcome outcome = refused(EACCES, [&] { return lstat(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_LSTAT, path));
    }
}

TEST_F(MetadataHooks, AnLstatIsNeitherCachedNorARefresh) {
    touch("/etc/kavrin/permission_refresh", time(nullptr) + 1000);
    for (int i = 0; i < 2; ++i) {
        const Outcome outcome = allowed([&] { return lstat(grid(7, 7)); });
        EXPECT_EQ(outcome.asked.size(), 1u);
        EXPECT_EQ(logged_part("Resetting Kavrin permission caches"), 0);
    }
    EXPECT_EQ(connection->vfs_table_cache.vfs_tlb_end, 0);
}

TEST_F(MetadataHooks, AnLstatWithoutRootIsRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EACCES, [&] { return lstat("Private/kvalice/doc"); });
        EXPECT_EQ(logged("Could not switch to root for lstat operation, "
                         "base_name=Private/kvalice/doc"),
                  1);
        EXPECT_EQ(heap_growth([&] { lstat("Private/kvalice/doc"); }), 0);
    });
}

// --- chdir -----------------------------------------------------------------------------------

TEST_F(MetadataHooks, AChangeOfFolderAsksForNavigationOnTheFolderAlone) {
    for (const std::string& path : {grid(0, 8), grid(0, 1), grid(0, 16), file_in(0)}) {
        const Outcome outcome = allowed([&] { return chdir(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_CHDIR, path));
        EXPECT_EQ(logged("Enabled chdir for '" + path + "'"), 1);
    }
    for (const std::string& path : {grid(7, 2), grid(7, 0)}) {
        const Outcome outcome = refused(EACCES, [&] { return chdir(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_CHDIR, path));
        EXPECT_EQ(logged_part("Enabled chdir"), 0);
    }
    EXPECT_EQ(connection->vfs_table_cache.vfs_tlb_end, 0);
}

TEST_F(MetadataHooks, AChangeOfFolderWithoutRootIsRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EACCES, [&] { return chdir("Private/kvalice/sub"); });
        EXPECT_EQ(logged("Cannot elevate to root privileges to enforce chdir"), 1);
        EXPECT_EQ(heap_growth([&] { chdir("Private/kvalice/sub"); }), 0);
    });
}

// --- statvfs ---------------------------------------------------------------------------------

TEST_F(MetadataHooks, StatisticsOfWhatIsDecidedEarlyAreAnswered) {
    for (const std::string& path : {share, std::string("Private/kvalice/sub")}) {
        const Outcome outcome = allowed([&] { return statvfs(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_STATVFS, path));
        EXPECT_EQ(logged("Enabled statvfs for " + path), 1);
    }
    serve(kStandard);
    const Outcome outcome = refused(EACCES, [&] { return statvfs("Shared"); });
    EXPECT_EQ(outcome.asked, one(FSOP_STATVFS, "Shared"));
    EXPECT_EQ(logged_part("Enabled statvfs"), 0);
}

TEST_F(MetadataHooks, StatisticsWithoutAMapAreRefused) {
    expect_in_child([&] {
        {
            const AsRoot root;
            ASSERT_EQ(unshare(CLONE_NEWIPC), 0);  // nothing is published there
        }
        const Outcome outcome = call([&] { return statvfs("Shared"); });
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(outcome.error, EACCES);
        become(kRoot);
        allowed([&] { return statvfs("Shared"); });
    });
}

TEST_F(MetadataHooks, StatisticsOfAnythingElseEndTheProcess) {
    for (const std::string& path : {std::string("."), std::string("Shared"), grid(7, 7), file_in(7),
                                    std::string("Shared/P7/gone")}) {
        const ChildResult child = run_child_void([&] { statvfs(path); });
        EXPECT_TRUE(child.asserted("0")) << path << child.err;
        EXPECT_EQ(child.logged_part("Enabled statvfs"), 0);
        EXPECT_EQ(child.logged_part("Enforcing permissions for op 22 root "), 1);
    }
    allowed([&] { return statvfs(share); });
}

TEST_F(MetadataHooks, StatisticsWithoutRootAreRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EACCES, [&] { return statvfs("Private/kvalice/sub"); });
        EXPECT_EQ(logged("Cannot elevate to root privileges to enforce statvfs permissions, "
                         "path=Private/kvalice/sub"),
                  1);
        EXPECT_EQ(heap_growth([&] { statvfs("Private/kvalice/sub"); }), 0);
    });
}

// --- what they share -------------------------------------------------------------------------

TEST_F(MetadataHooks, NullNamesAreOutOfMemory) {
    const auto null_name = [&](const std::function<int()>& hook) {
        EXPECT_TRUE(refused(ENOMEM, hook).asked.empty());
    };
    null_name([&] { return lstat_preprocess(share.c_str(), nullptr, &context, connection.get()); });
    null_name([&] { return chdir_preprocess(nullptr, share.c_str(), connection.get(), &context); });
    null_name(
        [&] { return statvfs_preprocess(share.c_str(), nullptr, connection.get(), &context); });
}

TEST_F(MetadataHooks, WithoutMemoryTheyAreRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    std::string path = "Private/kvalice/sub";
    struct Hook {
        std::function<int()> call;
        int first_error;
        std::string last_message;
    };
    const Hook hooks[] = {
        {[&] { return lstat_preprocess(share.c_str(), path.data(), &context, connection.get()); },
         ENOMEM, "Could not switch to root for lstat operation, base_name=" + path},
        {[&] { return chdir_preprocess(path.data(), share.c_str(), connection.get(), &context); },
         EACCES, "Cannot elevate to root privileges to enforce chdir"},
        {[&] { return statvfs_preprocess(share.c_str(), path.data(), connection.get(), &context); },
         ENOMEM, "Cannot elevate to root privileges to enforce statvfs permissions, path=" + path},
    };
    for (const Hook& hook : hooks) {
        const auto outcomes = starve([] {}, hook.call, [&] { give_back(); });
        ASSERT_GE(outcomes.size(), 2u);
        for (const Starved& starved : outcomes) {
            EXPECT_EQ(starved.result, -1) << starved.nth;
            EXPECT_EQ(starved.error, starved.nth == 1 ? hook.first_error : EACCES) << starved.nth;
        }
        EXPECT_TRUE(outcomes.back().said(hook.last_message)) << hook.last_message;
    }
}

TEST_F(MetadataHooks, EveryIdentityIsGivenBack) {
    for (const Ids& ids : kIdentities) {
        become(ids);
        allowed([&] { return stat(grid(7, 7)); });
        refused(EPERM, [&] { return stat(grid(0, 7)); });
        allowed([&] { return lstat(grid(7, 7)); });
        refused(EACCES, [&] { return lstat(grid(0, 7)); });
        allowed([&] { return chdir(grid(0, 7)); });
        refused(EACCES, [&] { return chdir(grid(7, 0)); });
        allowed([&] { return statvfs(share); });
    }
    become(kRoot);
    allowed([&] { return lstat(grid(0, 0)); });
    allowed([&] { return chdir(grid(0, 0)); });
    allowed([&] { return statvfs(grid(0, 0)); });
}

TEST_F(MetadataHooks, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EPERM, [&] { return stat(grid(7, 7)); });
    refused(EACCES, [&] { return lstat(grid(7, 7)); });
    refused(EACCES, [&] { return chdir(grid(7, 7)); });
    refused(EACCES, [&] { return statvfs(grid(7, 7)); });
}

TEST_F(MetadataHooks, NothingIsLeftOnTheHeap) {
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(stat(grid(7, 7)), 0);
                  give_back();
                  ASSERT_EQ(stat(grid(0, 0)), -1);
                  ASSERT_EQ(lstat(grid(7, 7)), 0);
                  give_back();
                  ASSERT_EQ(lstat(grid(0, 0)), -1);
                  ASSERT_EQ(chdir(grid(7, 7)), 0);
                  give_back();
                  ASSERT_EQ(chdir(grid(0, 0)), -1);
                  ASSERT_EQ(statvfs(share), 0);
                  give_back();
                  ASSERT_EQ(statvfs("Private/kvbob/x"), -1);
              }),
              0);
}

}  // namespace
}  // namespace kvtest
