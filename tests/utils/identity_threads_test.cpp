// One thread is root now and then while four others work on files: not one of them may ever be
// anybody but the user, in its own eyes, in the kernel's, or by what it may open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "provoke.h"
#include "support.h"

namespace {

using kvtest::expect_in_child;

constexpr uid_t kUser = 4001;
constexpr gid_t kGroup = 4002;
constexpr int kWorkers = 4;
constexpr int kSwitches = 3000;
constexpr int kWaitEvery = 50;  // so often every worker gets to work while this thread is root

// Asked of the kernel directly, for the calling thread.
bool is_the_user() {
    std::array<unsigned, 6> ids{};
    syscall(SYS_getresuid, &ids[0], &ids[1], &ids[2]);
    syscall(SYS_getresgid, &ids[3], &ids[4], &ids[5]);
    return ids == std::array<unsigned, 6>{0, kUser, 0, kGroup, kGroup, kGroup};
}

bool status_says_the_user() {
    char text[4096];
    const int file = open("/proc/thread-self/status", O_RDONLY);
    const ssize_t size = read(file, text, sizeof text);
    close(file);
    return std::string_view(text, size < 0 ? 0 : static_cast<std::size_t>(size))
               .find("\nUid:\t0\t4001\t0\t4001\nGid:\t4002\t4002\t4002\t4002\n") !=
           std::string_view::npos;
}

// Writes a file, looks whose it is, reads it back and removes it.
bool file_is_the_users(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    struct stat owner {};
    char back[5] = {};
    const bool fine = file >= 0 && write(file, "event", 5) == 5 && fstat(file, &owner) == 0 &&
                      owner.st_uid == kUser && owner.st_gid == kGroup &&
                      pread(file, back, 5, 0) == 5 && std::string_view(back, 5) == "event";
    close(file);
    return unlink(path.c_str()) == 0 && fine;
}

bool is_kept_out(const std::string& secret) {
    const int file = open(secret.c_str(), O_RDONLY);
    if (file < 0) return errno == EACCES;
    close(file);
    return false;
}

// Four threads that work until the object ends, and what they noticed.
class Workers {
public:
    Workers(const std::string& folder, const std::string& secret) {
        for (int i = 0; i < kWorkers; ++i)
            threads_[i] = std::thread([=, this] { work(i, folder, secret); });
        wait_for_rounds(1);
    }
    ~Workers() { stop(); }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    // Every worker ends so many more rounds, the first of them perhaps begun before.
    void wait_for_rounds(long count) {
        std::array<long, kWorkers> goal;
        for (int i = 0; i < kWorkers; ++i) goal[i] = rounds_[i] + count;
        for (int i = 0; i < kWorkers; ++i)
            while (rounds_[i] < goal[i]) std::this_thread::yield();
    }
    void stop() {
        done_ = true;
        for (std::thread& thread : threads_)
            if (thread.joinable()) thread.join();
    }
    bool noticed() const { return other_ids_ + other_status_ + other_owner_ + let_in_ > 0; }
    void expect_nothing_was_noticed() {
        stop();
        EXPECT_EQ(other_ids_, 0);
        EXPECT_EQ(other_status_, 0);
        EXPECT_EQ(other_owner_, 0);
        EXPECT_EQ(let_in_, 0);
    }

private:
    void work(int number, const std::string& folder, const std::string& secret) {
        const std::string own = folder + "/worker" + std::to_string(number);
        while (!done_) {
            if (!is_the_user()) ++other_ids_;
            if (!status_says_the_user()) ++other_status_;
            if (!file_is_the_users(own)) ++other_owner_;
            if (!is_kept_out(secret)) ++let_in_;
            ++rounds_[number];
        }
    }

    std::array<std::thread, kWorkers> threads_;
    std::array<std::atomic<long>, kWorkers> rounds_{};
    std::atomic<bool> done_{false};
    std::atomic<int> other_ids_{0}, other_status_{0}, other_owner_{0}, let_in_{0};
};

class IdentityAndThreads : public testing::Test {
protected:
    // Runs `switching`, which is called for each switch with its number, beside the workers. It
    // calls the function it is handed while it is root.
    void beside_workers(int switches,
                        const std::function<void(int, const std::function<void()>&)>& switching) {
        const std::string folder = kvtest::make_temp_dir();
        const std::string secret = folder + "/secret";
        kvtest::write_file(secret, "x");
        ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
        ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
        expect_in_child([&] {
            kvtest::become_user(kUser, kGroup, {5001});
            Workers workers(folder, secret);
            for (int i = 0; i < switches && !HasFailure() && !workers.noticed(); ++i) {
                ASSERT_TRUE(is_the_user()) << i;
                int was_root = 0;
                switching(i, [&] {
                    ++was_root;
                    ASSERT_EQ(syscall(SYS_geteuid), 0) << i;
                    if (i % kWaitEvery == 0) {
                        ASSERT_FALSE(is_kept_out(secret));
                        workers.wait_for_rounds(2);
                    }
                });
                ASSERT_EQ(was_root, 1) << i;
                ASSERT_TRUE(is_the_user()) << i;
            }
            workers.expect_nothing_was_noticed();
        });
    }
};

TEST_F(IdentityAndThreads, SwitchesWithAContextAreTheCallingThreadsOnly) {
    beside_workers(kSwitches, [](int i, const std::function<void()>& while_root) {
        kv_perm_ctx_t* context = nullptr;
        if (i % 3 == 0) {
            ASSERT_EQ(raise_permissions(&context), 1);
        } else if (i % 3 == 1) {
            ASSERT_NE(context = kavrin_vfs_become_root(), nullptr);
        } else {
            ASSERT_EQ(kavrin_become_root(&context), 0);
        }
        while_root();
        ASSERT_EQ(kavrin_vfs_unbecome_root(context), 0);
    });
}

TEST_F(IdentityAndThreads, SwitchesOfAVerdictAreTheCallingThreadsOnly) {
    beside_workers(kSwitches, [](int, const std::function<void()>& while_root) {
        _change_id(5);
        while_root();
        _change_id(6);
    });
}

TEST_F(IdentityAndThreads, VerdictsLeaveTheOtherThreadsAlone) {
    const kvtest::ConfigTable config;
    const std::string share = kvtest::make_temp_dir();
    ASSERT_EQ(mkdir((share + "/Shared").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((share + "/Shared/Docs").c_str(), 0700), 0);
    vfs_set_admins_powerusers(5002, 5001);
    const kvtest::Node docs{"Docs", {{kUser, 7}}, {}, {}};
    const kvtest::Node shared{"Shared", {}, {{5001, 7}}, {docs}};
    kvtest::publish({"/", {}, {{5001, 7}}, {shared}});
    const std::string folder = kvtest::make_temp_dir();
    const std::string secret = folder + "/secret";
    kvtest::write_file(secret, "x");
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    expect_in_child([&] {
        kvtest::become_user(kUser, kGroup, {5001});
        Workers workers(folder, secret);
        for (int i = 0; i < kSwitches && !workers.noticed(); ++i) {
            int is_nav = 0;
            // The folders on disk are root's alone, so the answer needs root's look at them.
            ASSERT_EQ(
                vfs_enforce_perms(share.c_str(), "Shared/Docs", FSOP_OPENDIR, nullptr, 0, &is_nav),
                KVPERMS_HAS_PERMS);
            ASSERT_TRUE(is_the_user()) << i;
            if (i % kWaitEvery == 0) workers.wait_for_rounds(1);
        }
        workers.expect_nothing_was_noticed();
    });
}

}  // namespace
