// The switch to root and back, seen from the kernel: all three user and group ids before, during
// and after, in children with real identities, and beside threads that must not notice.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <regex>
#include <thread>
#include <vector>

#include "provoke.h"
#include "support.h"

namespace {

using kvtest::expect_in_child;

constexpr uid_t kUser = 4001;
constexpr gid_t kGroup = 4002;

// Real, effective and saved user ids, then group ids, of the calling thread.
using Ids = std::array<unsigned, 6>;

Ids thread_ids() {
    Ids ids{};
    syscall(SYS_getresuid, &ids[0], &ids[1], &ids[2]);
    syscall(SYS_getresgid, &ids[3], &ids[4], &ids[5]);
    return ids;
}

std::vector<gid_t> thread_groups() {
    std::vector<gid_t> groups(64);
    const long count = syscall(SYS_getgroups, groups.size(), groups.data());
    EXPECT_GE(count, 0);
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

constexpr Ids kConnection = {0, kUser, 0, kGroup, kGroup, kGroup};

TEST(ChangeId, FiveBecomesRootAndTheOtherValueRestores) {
    expect_in_child([] {
        kvtest::become_user(kUser, kGroup, {5001, 5002});
        ASSERT_EQ(thread_ids(), kConnection);
        _change_id(5);
        EXPECT_EQ(thread_ids(), (Ids{0, 0, 0, kGroup, 0, kGroup}));
        EXPECT_EQ(thread_groups(), (std::vector<gid_t>{5001, 5002}));
        _change_id(6);
        EXPECT_EQ(thread_ids(), kConnection);
        EXPECT_EQ(thread_groups(), (std::vector<gid_t>{5001, 5002}));
    });
}

TEST(ChangeId, AnyValueButFiveRestores) {
    for (const int which : {6, 0, 1, 4, -5, 7, 2147483647}) {
        SCOPED_TRACE(which);
        expect_in_child([&] {
            kvtest::become_user(kUser, kGroup, {});
            _change_id(5);
            _change_id(which);
            EXPECT_EQ(thread_ids(), kConnection);
        });
    }
}

TEST(ChangeId, SwitchIsRealForTheKernel) {
    const std::string dir = kvtest::make_temp_dir();
    const std::string secret = dir + "/secret";
    kvtest::write_file(secret, "x");
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    expect_in_child([&] {
        kvtest::become_user(kUser, kGroup, {});
        EXPECT_EQ(open(secret.c_str(), O_RDONLY), -1);
        _change_id(5);
        const int readable = open(secret.c_str(), O_RDONLY);
        EXPECT_GE(readable, 0);
        close(readable);
        const int made = open((dir + "/made").c_str(), O_CREAT | O_WRONLY, 0600);
        struct stat owner {};
        EXPECT_EQ(fstat(made, &owner), 0);
        EXPECT_EQ(owner.st_uid, 0u);
        EXPECT_EQ(owner.st_gid, 0u);
        close(made);
        _change_id(6);
        EXPECT_EQ(open(secret.c_str(), O_RDONLY), -1);
    });
}

TEST(ChangeId, PairsAlternateForAsLongAsTheProcessLives) {
    expect_in_child([] {
        kvtest::become_user(kUser, kGroup, {});
        for (int i = 0; i < 100; ++i) {
            _change_id(5);
            ASSERT_EQ(thread_ids()[1], 0u);
            _change_id(6);
            ASSERT_EQ(thread_ids(), kConnection);
        }
    });
}

TEST(ChangeId, RootStaysRoot) {
    expect_in_child([] {
        const Ids before = thread_ids();
        ASSERT_EQ(before, (Ids{0, 0, 0, 0, 0, 0}));
        _change_id(5);
        EXPECT_EQ(thread_ids(), before);
        _change_id(6);
        EXPECT_EQ(thread_ids(), before);
    });
}

TEST(ChangeId, GroupThatOnlyRootMayTakeIsNotGivenBack) {
    expect_in_child([] {
        ASSERT_EQ(setgroups(0, nullptr), 0);
        ASSERT_EQ(setresgid(0, kGroup, 0), 0);
        ASSERT_EQ(setresuid(0, kUser, 0), 0);
        ASSERT_EQ(thread_ids(), (Ids{0, kUser, 0, 0, kGroup, 0}));
        _change_id(5);
        EXPECT_EQ(thread_ids(), (Ids{0, 0, 0, 0, 0, 0}));
        _change_id(6);
        // The user comes back first, and then may no longer choose a group.
        EXPECT_EQ(thread_ids(), (Ids{0, kUser, 0, 0, 0, 0}));
        _change_id(5);  // nothing is saved: the pair was complete all the same
        _change_id(6);
        EXPECT_EQ(thread_ids(), (Ids{0, kUser, 0, 0, 0, 0}));
    });
}

TEST(ChangeId, SavedGroupIsGivenBackThoughItIsNotTheRealOne) {
    expect_in_child([] {
        ASSERT_EQ(setresgid(7001, kGroup, kGroup), 0);
        ASSERT_EQ(setresuid(0, kUser, 0), 0);
        _change_id(5);
        EXPECT_EQ(thread_ids(), (Ids{0, 0, 0, 7001, 0, kGroup}));
        _change_id(6);
        EXPECT_EQ(thread_ids(), (Ids{0, kUser, 0, 7001, kGroup, kGroup}));
    });
}

TEST(ChangeId, ProcessThatNeverWasRootStaysAsItIs) {
    expect_in_child([] {
        ASSERT_EQ(setgroups(0, nullptr), 0);
        ASSERT_EQ(setresgid(kGroup, kGroup, kGroup), 0);
        ASSERT_EQ(setresuid(kUser, kUser, kUser), 0);
        const Ids before = thread_ids();
        _change_id(5);
        EXPECT_EQ(thread_ids(), before);
        _change_id(6);
        EXPECT_EQ(thread_ids(), before);
    });
}

TEST(ChangeId, SecondSwitchToRootIsAnAssertion) {
    const kvtest::ChildResult child = kvtest::run_child_void([] {
        _change_id(5);
        _change_id(5);
    });
    EXPECT_TRUE(child.asserted("save_uid == -1 && save_gid == -1"));
    EXPECT_TRUE(std::regex_search(child.err, std::regex("[a-z_]+\\.cpp:[0-9]+"))) << child.err;
}

TEST(ChangeId, RestoreWithoutASwitchIsAnAssertion) {
    const kvtest::ChildResult child = kvtest::run_child_void([] { _change_id(6); });
    EXPECT_TRUE(child.asserted("save_uid != -1 && save_gid != -1"));
    const kvtest::ChildResult twice = kvtest::run_child_void([] {
        _change_id(5);
        _change_id(6);
        _change_id(6);
    });
    EXPECT_TRUE(twice.asserted("save_uid != -1 && save_gid != -1"));
}

TEST(ChangeId, OtherThreadsKeepTheirIdentity) {
    expect_in_child([] {
        kvtest::become_user(kUser, kGroup, {5001});
        std::atomic<bool> done{false};
        std::atomic<int> ready{0};
        std::atomic<long> looks{0};
        std::atomic<int> changes{0};
        std::vector<std::thread> watchers;
        for (int i = 0; i < 3; ++i) {
            watchers.emplace_back([&] {
                ++ready;
                while (!done) {
                    if (thread_ids() != kConnection) ++changes;
                    ++looks;
                }
            });
        }
        while (ready < 3) std::this_thread::yield();
        // Every watcher gets to look while this thread is root, on a machine of any size.
        for (int i = 0; i < 300; ++i) {
            _change_id(5);
            const long before = looks;
            while (looks < before + 3) std::this_thread::yield();
            ASSERT_EQ(thread_ids()[1], 0u);
            _change_id(6);
            ASSERT_EQ(thread_ids(), kConnection);
        }
        done = true;
        for (std::thread& watcher : watchers) watcher.join();
        EXPECT_EQ(changes, 0);
        EXPECT_GE(looks, 900);
    });
}

}  // namespace
