// Reading the current table: what is attached, how often a missing one is looked for, and what a
// reader does when a swap comes between its steps.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "ipc_probe.h"

namespace kvtest {
namespace {

const std::string kLabel = "PERM_MAP kavrin_messenger:";
std::string error_text(int error) {
    return "code=" + std::to_string(error) + " (" + std::strerror(error) + ")\n";
}

class Reader : public SwapTest {
protected:
    // One call and what it found, detached again.
    static std::string read_map() {
        void* address = get_perm_map_addr();
        const std::string content = content_of(address);
        put_perm_map_addr(address);
        return content;
    }
    static std::string retrying(int table, int error = ENOENT) {
        std::string text = kLabel + "shared memory get failed - retrying, " + error_text(error);
        text.back() = ' ';
        return text + "key " + (table == 0 ? "0x70657269" : "0x7065726a") + " index " +
               std::to_string(table) + "\n";
    }
    static std::string gave_up(int error = ENOENT) {
        return kLabel + "shared memory get retry failed, " + error_text(error);
    }
};

TEST_F(Reader, AttachesTheCurrentTable) {
    for (const char* content : {"first", "second", "third"}) {
        publish_text(content);
        const int id = segment(value(0));
        IpcProbe probe;
        void* address = get_perm_map_addr();
        EXPECT_EQ(content_of(address), content);
        EXPECT_EQ(probe.count(Ipc::shmat), 1);
        EXPECT_EQ(probe.last(Ipc::shmat).first, 0) << "no address is asked for";
        EXPECT_EQ(probe.last(Ipc::shmat).flags, 0);
        EXPECT_EQ(probe.last(Ipc::shmget).first, 0);
        EXPECT_EQ(probe.last(Ipc::shmget).flags, 0);
        EXPECT_EQ(attached(id), 1);
        put_perm_map_addr(address);
        EXPECT_EQ(attached(id), 0);
        EXPECT_EQ(segment(1 - value(0)), -1) << "the table before is gone";
    }
    EXPECT_EQ(logged_part("retry"), 0);
}

TEST_F(Reader, AnotherProcessReadsThroughASwap) {
    publish_text("first");
    int go[2];
    int answer[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe(answer), 0);
    const pid_t reader = fork();
    ASSERT_GE(reader, 0);
    if (reader == 0) {
        char byte = 0;
        void* held = get_perm_map_addr();
        bool good = content_of(held) == "first" && write(answer[1], "a", 1) == 1 &&
                    read(go[0], &byte, 1) == 1;
        good = good && content_of(held) == "first";  // retired, but still there
        void* next = get_perm_map_addr();
        good = good && content_of(next) == "second";
        put_perm_map_addr(held);
        put_perm_map_addr(next);
        _exit(good ? 0 : 1);
    }
    char byte = 0;
    ASSERT_EQ(read(answer[0], &byte, 1), 1);
    const int retired = segment(1);
    publish_text("second");
    EXPECT_EQ(attached(retired), 1) << "removed for newcomers only";
    ASSERT_EQ(write(go[1], "g", 1), 1);
    int status = -1;
    ASSERT_EQ(waitpid(reader, &status, 0), reader);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(attached(retired), -1) << "the last one to detach takes it along";
}

TEST_F(Reader, WithoutAPersistedMapNothingIsTrusted) {
    publish_text("current");
    unlink(kMapFile);
    const int id = segment(1);
    EXPECT_EQ(get_perm_map_addr(), nullptr);
    EXPECT_EQ(logged("PERM_MAP get_perm_map_addr: No permission map file\n"), 1);
    EXPECT_EQ(attached(id), 0);
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(get_perm_map_addr(), nullptr);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Reader, WithoutASetThereIsNoMap) {
    publish_text("current");
    destroy_perm_map();
    clear_log();
    EXPECT_EQ(get_perm_map_addr(), nullptr);
    EXPECT_EQ(logged("PERM_MAP get_perm_map_addr: get_current_perm_table_index failed\n"), 1);
    EXPECT_EQ(logged_part("PRIOR to map_initialize"), 1);
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(get_perm_map_addr(), nullptr);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Reader, LooksForAMissingSegmentThreeTimes) {
    for (const int table : {0, 1}) {
        set_value(0, table);
        clear_log();
        const IpcProbe probe;
        EXPECT_EQ(get_perm_map_addr(), nullptr);
        EXPECT_EQ(probe.count(Ipc::shmget), 3);
        EXPECT_EQ(probe.count(Ipc::shmat), 0);
        EXPECT_EQ(probe.count(Ipc::semget), 3) << "the index is read before each attempt";
        EXPECT_EQ(logged(retrying(table)), 2);
        EXPECT_EQ(logged(gave_up()), 1);
    }
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(get_perm_map_addr(), nullptr);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Reader, RetriesWhateverTheFailure) {
    publish_text("current");
    IpcProbe probe;
    probe.before = refuse(Ipc::shmget, EACCES);
    EXPECT_EQ(get_perm_map_addr(), nullptr);
    EXPECT_EQ(probe.count(Ipc::shmget), 3);
    EXPECT_EQ(logged(retrying(1, EACCES)), 2);
    EXPECT_EQ(logged(gave_up(EACCES)), 1);
}

TEST_F(Reader, ThirdAttemptMaySucceed) {
    publish_text("current");
    IpcProbe probe;
    probe.before = [](const IpcCall& call) {
        return call.kind == Ipc::shmget && call.nth < 3 ? ENOENT : 0;
    };
    EXPECT_EQ(read_map(), "current");
    EXPECT_EQ(probe.count(Ipc::shmget), 3);
    EXPECT_EQ(logged(retrying(1)), 2);
    EXPECT_EQ(logged_part("retry failed"), 0);
}

TEST_F(Reader, RetryFollowsTheIndex) {
    publish_text("old");
    IpcProbe probe;
    probe.before = [](const IpcCall& call) {
        if (call.kind == Ipc::shmget && call.nth == 1) publish_text("new");
        return 0;
    };
    EXPECT_EQ(read_map(), "new");
    EXPECT_EQ(probe.count(Ipc::shmget), 2) << "the segment looked for was swapped out";
    EXPECT_EQ(logged(retrying(1)), 1);
}

TEST_F(Reader, UnprivilegedReaderCannotAttach) {
    publish_text("current");
    const ChildResult child = expect_in_child([] {
        become_user(1001, 1001, {});
        EXPECT_EQ(get_perm_map_addr(), nullptr);
    });
    EXPECT_EQ(child.logged(kLabel + "shared memory attach failed, " + error_text(EACCES)), 1);
    config_.set_debug_level(-1);
    const ChildResult quiet = expect_in_child([] {
        become_user(1001, 1001, {});
        EXPECT_EQ(get_perm_map_addr(), nullptr);
    });
    EXPECT_TRUE(quiet.log.empty());
}

TEST_F(Reader, SwapBetweenIndexAndAttachIsNoticed) {
    config_.set_debug_level(10);
    publish_text("old");
    const int old = segment(1);
    IpcProbe probe;
    probe.before = [](const IpcCall& call) {
        if (call.kind == Ipc::semget && call.nth == 2) publish_text("new");
        return 0;
    };
    EXPECT_EQ(read_map(), "new");
    EXPECT_EQ(probe.count(Ipc::shmat), 2);
    EXPECT_EQ(probe.count(Ipc::shmdt), 2);
    EXPECT_EQ(attached(old), -1) << "the retired table is let go";
    EXPECT_EQ(logged_part("PERM_MAP 0x"), 1);
    EXPECT_EQ(logged_part(" shared memory segment was swapped out, retry\n"), 1);
    EXPECT_EQ(logged_part("retrying"), 0);
}

TEST_F(Reader, FollowsAnyNumberOfSwaps) {
    config_.set_debug_level(10);
    publish_text("0");
    IpcProbe probe;
    int swaps = 0;
    probe.before = [&](const IpcCall& call) {
        // Every second look-up of the set is the one behind an attach.
        if (call.kind == Ipc::semget && call.nth % 2 == 0 && swaps < 60)
            publish_text(std::to_string(++swaps));
        return 0;
    };
    EXPECT_EQ(read_map(), "60");
    EXPECT_EQ(probe.count(Ipc::shmat), 61);
    EXPECT_EQ(probe.count(Ipc::shmdt), 61);
    EXPECT_EQ(logged_part("swapped out, retry"), 60);
}

TEST_F(Reader, SwapGrantsThreeNewAttempts) {
    config_.set_debug_level(10);
    publish_text("old");
    IpcProbe probe;
    probe.before = [](const IpcCall& call) {
        if (call.kind == Ipc::semget && call.nth == 4) publish_text("new");  // behind the attach
        const bool missing = call.kind == Ipc::shmget && call.nth != 3 && call.nth != 6;
        return missing ? ENOENT : 0;
    };
    EXPECT_EQ(read_map(), "new");
    EXPECT_EQ(probe.count(Ipc::shmget), 6);
    EXPECT_EQ(logged_part("retrying"), 4);
    EXPECT_EQ(logged_part("swapped out, retry"), 1);
}

TEST_F(Reader, SetThatVanishesBehindTheAttachMeansNoMap) {
    publish_text("current");
    const int id = segment(1);
    IpcProbe probe;
    probe.before = [](const IpcCall& call) {
        if (call.kind == Ipc::semget && call.nth == 2) semctl(set_id(), 0, IPC_RMID);
        return 0;
    };
    EXPECT_EQ(get_perm_map_addr(), nullptr);
    EXPECT_EQ(logged("PERM_MAP get_current_perm_table_index failed\n"), 1);
    EXPECT_EQ(attached(id), 0);
}

TEST_F(Reader, SurvivesASetRemovedAndRecreated) {
    publish_text("old");
    EXPECT_EQ(read_map(), "old");
    const ChildResult builder = run_child([] {
        destroy_perm_map();
        for (const int table : {0, 1}) shmctl(segment(table), IPC_RMID, nullptr);
        if (create_perm_map_semaphore() != 0) return 1;
        publish_text("new");
        return testing::Test::HasFailure() ? 1 : 0;
    });
    ASSERT_EQ(builder.exit_code, 0) << builder.out;
    EXPECT_EQ(read_map(), "new");
}

TEST_F(Reader, NeverRaisesTheInitialisedMark) {
    make_table(0, "current");
    EXPECT_EQ(read_map(), "current");
    EXPECT_EQ(value(1), 0);
    EXPECT_EQ(init_perm_map_semaphore(), 0);
    EXPECT_EQ(value(1), 0);
}

TEST_F(Reader, MapsBuiltFromPairsAreSwappedAndRead) {
    unlink(kMapFile);
    publish(Pair{kExampleSize, kExampleData});
    void* first = get_perm_map_addr();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::memcmp(first, kExampleImage.data(), kExampleImage.size()), 0);
    publish(Node{"/", {}, {}, {{"Shared", {}, {}, {}}}});
    void* second = get_perm_map_addr();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(u32_at(second, 112), 2u);
    EXPECT_EQ(std::memcmp(first, kExampleImage.data(), kExampleImage.size()), 0);
    put_perm_map_addr(first);
    put_perm_map_addr(second);
    EXPECT_EQ(value(0), 0);
    EXPECT_EQ(value(1), 1);
}

}  // namespace
}  // namespace kvtest
