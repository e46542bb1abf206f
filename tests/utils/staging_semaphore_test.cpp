// The semaphore that guards the staging buffer: what the kernel holds after each call, what it
// gives back when a holder dies, and what is said without a key.
#include <signal.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "call_probe.h"
#include "provoke.h"
#include "staging_fixture.h"

namespace {

using kvtest::Call;
using kvtest::CallProbe;
using kvtest::expect_in_child;
using kvtest::log_lines;
using kvtest::logged;
using kvtest::refuse;
using kvtest::semaphore_id;
using kvtest::semaphore_value;

void remove_semaphore() {
    ASSERT_EQ(semctl(semaphore_id(), 0, IPC_RMID), 0);
}

// Starts a process that waits for the semaphore; returns when the kernel has it waiting.
pid_t start_waiter(const std::function<int()>& body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    while (kvtest::waiting_processes() == 0) {
        EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it did not wait";
        if (testing::Test::HasFailure()) break;
        usleep(200);
    }
    return pid;
}
int end_of(pid_t pid) {
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class StagingSemaphore : public kvtest::StagingTest {};

TEST_F(StagingSemaphore, IsOneFreeSemaphoreOpenToAll) {
    semid_ds status{};
    ASSERT_EQ(semctl(semaphore_id(), 0, IPC_STAT, &status), 0);
    EXPECT_EQ(status.sem_nsems, 1u);
    EXPECT_EQ(status.sem_perm.mode & 0777, 0666);
    EXPECT_EQ(semaphore_value(), 1);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(StagingSemaphore, SecondCreationLeavesATakenOneTaken) {
    kvtest::set_semaphore(0);
    EXPECT_EQ(create_eventstore_staging_semaphore(), 1);
    EXPECT_EQ(semaphore_value(), 0);
    EXPECT_TRUE(log_lines().empty());
    kvtest::set_semaphore(1);
}

TEST_F(StagingSemaphore, WaitTakesItAndPostGivesItBack) {
    EXPECT_EQ(wait_eventstore_semaphore(), 0);
    EXPECT_EQ(semaphore_value(), 0);
    EXPECT_EQ(post_eventstore_semaphore(), 0);
    EXPECT_EQ(semaphore_value(), 1);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(StagingSemaphore, AnyUserMayTakeIt) {
    expect_in_child([] {
        kvtest::become_user(4001, 4002, {});
        EXPECT_EQ(wait_eventstore_semaphore(), 0);
        EXPECT_EQ(semaphore_value(), 0);
        EXPECT_EQ(post_eventstore_semaphore(), 0);
    });
}

TEST_F(StagingSemaphore, WaitBlocksWhileItIsTaken) {
    ASSERT_EQ(wait_eventstore_semaphore(), 0);
    const pid_t waiter = start_waiter([] {
        const int taken = wait_eventstore_semaphore();
        return taken == 0 && post_eventstore_semaphore() == 0 ? 0 : 1;
    });
    EXPECT_EQ(semaphore_value(), 0);
    ASSERT_EQ(post_eventstore_semaphore(), 0);
    EXPECT_EQ(end_of(waiter), 0);
}

TEST_F(StagingSemaphore, DeadHolderGivesItBack) {
    const pid_t holder = fork();
    if (holder == 0) {
        wait_eventstore_semaphore();
        raise(SIGKILL);
    }
    EXPECT_EQ(end_of(holder), -1);
    EXPECT_EQ(semaphore_value(), 1);
}

TEST_F(StagingSemaphore, DeadPosterTakesItsPostBack) {
    const pid_t poster = fork();
    if (poster == 0) {
        if (post_eventstore_semaphore() != 0 || semaphore_value() != 2) _exit(1);
        raise(SIGKILL);
    }
    EXPECT_EQ(end_of(poster), -1);
    EXPECT_EQ(semaphore_value(), 1);
}

TEST_F(StagingSemaphore, PairsLeaveNothingToUndo) {
    const pid_t user = fork();
    if (user == 0) {
        for (int i = 0; i < 1000; ++i) {
            wait_eventstore_semaphore();
            post_eventstore_semaphore();
        }
        raise(SIGKILL);
    }
    end_of(user);
    EXPECT_EQ(semaphore_value(), 1);
}

TEST_F(StagingSemaphore, InterruptedWaitTellsSo) {
    kvtest::set_semaphore(0);
    const pid_t waiter = start_waiter([] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        return wait_eventstore_semaphore() == -1 && errno == EINTR ? 0 : 1;
    });
    kill(waiter, SIGUSR1);
    EXPECT_EQ(end_of(waiter), 0);
    kvtest::set_semaphore(1);
}

TEST_F(StagingSemaphore, MissingOneIsAFailure) {
    remove_semaphore();
    EXPECT_EQ(wait_eventstore_semaphore(), -1);
    EXPECT_EQ(post_eventstore_semaphore(), -1);
    EXPECT_EQ(semaphore_id(), -1) << "a user of it must not create it";
}

TEST_F(StagingSemaphore, IsLookedUpAnewOnEveryUse) {
    ASSERT_EQ(wait_eventstore_semaphore(), 0);
    remove_semaphore();
    ASSERT_EQ(create_eventstore_staging_semaphore(), 1);
    EXPECT_EQ(wait_eventstore_semaphore(), 0);
    EXPECT_EQ(semaphore_value(), 0);
    EXPECT_EQ(post_eventstore_semaphore(), 0);
}

TEST_F(StagingSemaphore, DestructionRemovesItAndDoesNotAskWhetherItWasThere) {
    EXPECT_EQ(destroy_eventstore_staging_buffer_semaphore(), 1);
    EXPECT_EQ(semaphore_id(), -1);
    EXPECT_EQ(destroy_eventstore_staging_buffer_semaphore(), 1);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(StagingSemaphore, WithoutAKeyEachCallSaysSoInItsWords) {
    struct Row {
        int (*call)();
        const char* message;
    };
    constexpr const char* kAccess =
        "cannot access the staging buffer semaphore. errno = 13(Permission denied)\n";
    constexpr const char* kCreate =
        "cannot create the staging buffer semaphore. errno = 13(Permission denied)\n";
    const Row rows[] = {{create_eventstore_staging_semaphore, kAccess},
                        {destroy_eventstore_staging_buffer_semaphore, kCreate},
                        {wait_eventstore_semaphore, kCreate},
                        {post_eventstore_semaphore, kCreate}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        for (const int level : {0, -1}) {
            table_.set_debug_level(level);
            kvtest::clear_log();
            CallProbe probe;
            probe.before = refuse(Call::ftok, EACCES);
            EXPECT_EQ(row.call(), -1);
            EXPECT_EQ(log_lines().size(), level < 0 ? 0u : 1u);
            EXPECT_EQ(logged(row.message), level < 0 ? 0 : 1);
        }
    }
    EXPECT_EQ(semaphore_value(), 1);
}

}  // namespace
