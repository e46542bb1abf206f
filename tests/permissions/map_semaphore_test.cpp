// The semaphore set that tells which table is current: opening on both sides, the index and the
// initialised mark, with the values before and after and every failure with its message.
#include <gtest/gtest.h>

#include <algorithm>

#include "ipc_probe.h"

namespace kvtest {
namespace {

std::string hex(long value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%lx", value & 0xFFFFFFFFL);
    return text;
}
const std::string kLabel = "PERM_MAP kavrin_messenger:";
std::string error_text(int error) {
    return "code=" + std::to_string(error) + " (" + std::strerror(error) + ")\n";
}

class SemaphoreSet : public SegmentTest {
protected:
    // One failing call: its result is -1, its message appears once, and not at a negative level.
    void expect_failure(const std::function<int()>& call,
                        const std::function<int(const IpcCall&)>& rule,
                        const std::string& message) {
        IpcProbe probe;
        probe.before = rule;
        clear_log();
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(logged(message), 1) << message;
        config_.set_debug_level(-1);
        clear_log();
        probe.forget();
        EXPECT_EQ(call(), -1);
        EXPECT_TRUE(log_lines().empty());
        config_.set_debug_level(0);
    }
};

// Opening -----------------------------------------------------------------------------------------

TEST_F(SemaphoreSet, BuilderCreatesTwoSemaphoresAtZero) {
    EXPECT_EQ(set_id(), -1);
    EXPECT_EQ(create_perm_map_semaphore(), 0);
    semid_ds status{};
    ASSERT_EQ(semctl(set_id(), 0, IPC_STAT, &status), 0);
    EXPECT_EQ(status.sem_nsems, 2u);
    EXPECT_EQ(status.sem_perm.mode & 0777, 0666u);
    EXPECT_EQ(value(0), 0);
    EXPECT_EQ(value(1), 0);
    EXPECT_EQ(get_current_perm_table_index_for_fill(), 0) << "the set is the process's own now";
}

TEST_F(SemaphoreSet, BuilderReopensAndResets) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    const int id = set_id();
    set_value(0, 1);
    set_value(1, 1);
    EXPECT_EQ(create_perm_map_semaphore(), 0);
    EXPECT_EQ(set_id(), id);
    EXPECT_EQ(value(0), 0);
    EXPECT_EQ(value(1), 0);
}

TEST_F(SemaphoreSet, ReaderOpensWithoutTouching) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    set_value(0, 1);
    set_value(1, 1);
    const IpcProbe probe;
    EXPECT_EQ(init_perm_map_semaphore(), 0);
    ASSERT_EQ(probe.count(Ipc::semget), 1);
    const auto open = std::find_if(probe.calls().begin(), probe.calls().end(),
                                   [](const IpcCall& call) { return call.kind == Ipc::semget; });
    EXPECT_EQ(open->first, 0);
    EXPECT_EQ(open->flags, 0666);
    EXPECT_EQ(value(0), 1);
    EXPECT_EQ(value(1), 1);
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(get_current_perm_table_index_for_fill(), 1);
}

TEST_F(SemaphoreSet, ReaderRecreatesAMissingSet) {
    config_.set_debug_level(10);
    EXPECT_EQ(init_perm_map_semaphore(), 0);
    const std::string key = hex(set_key());
    EXPECT_EQ(logged(" kavrin_messenger: PERM_MAP cannot get the permission map semaphore, code=2 "
                     "(No such file or directory) key=" +
                     key + " will recreate\n"),
              1);
    EXPECT_EQ(logged("PERM_MAP kavrin_messenger: recreate success key=" + key + "\n"), 1);
    EXPECT_EQ(
        logged("PERM_MAP kavrin_messenger: recreate success assigning to map  key=" + key + "\n"),
        1);
    EXPECT_EQ(value(0), 0);
    EXPECT_EQ(value(1), 0);
    EXPECT_EQ(get_current_perm_table_index_for_fill(), 0);
}

TEST_F(SemaphoreSet, WorkerServesBothSides) {
    EXPECT_EQ(_init_perm_map_semaphore(1), 0);
    set_value(0, 1);
    EXPECT_EQ(_init_perm_map_semaphore(0), 0);
    EXPECT_EQ(value(0), 1);
    EXPECT_EQ(_init_perm_map_semaphore(1), 0);
    EXPECT_EQ(value(0), 0);
}

TEST_F(SemaphoreSet, KeyCannotBeMade) {
    const std::string message = kLabel +
                                "cannot generate semaphore key for /dev/null/7065, error_code=2 "
                                "(No such file or directory)\n";
    const auto no_key = refuse(Ipc::ftok, ENOENT);
    expect_failure(create_perm_map_semaphore, no_key, message);
    expect_failure(init_perm_map_semaphore, no_key, message);
    EXPECT_EQ(set_id(), -1);
}

TEST_F(SemaphoreSet, BuilderCannotCreate) {
    expect_failure(create_perm_map_semaphore, refuse(Ipc::semget, ENOSPC),
                   kLabel + "cannot create the permission map semaphore, " + error_text(ENOSPC));
}

TEST_F(SemaphoreSet, BuilderMeetsASetThatExists) {
    // Taken for success, so that the reset is the one to fail: there is no id.
    expect_failure(create_perm_map_semaphore, refuse(Ipc::semget, EEXIST),
                   kLabel + "cannot set the permission map semaphore, " + error_text(EINVAL));
}

TEST_F(SemaphoreSet, BuilderCannotReset) {
    expect_failure(create_perm_map_semaphore, refuse(Ipc::semctl, EACCES),
                   kLabel + "cannot set the permission map semaphore, " + error_text(EACCES));
}

TEST_F(SemaphoreSet, BuilderMeetsAForeignSetOfOneSemaphore) {
    ASSERT_GE(semget(set_key(), 1, IPC_CREAT | 0666), 0);
    clear_log();
    EXPECT_EQ(create_perm_map_semaphore(), -1);
    EXPECT_EQ(logged(kLabel + "cannot create the permission map semaphore, " + error_text(EINVAL)),
              1);
}

TEST_F(SemaphoreSet, ReaderCannotRecreate) {
    expect_failure(init_perm_map_semaphore, refuse(Ipc::semget, ENOSPC),
                   "PERM_MAP kavrin_messenger: recreate failed cannot create the permission map "
                   "semaphore, " +
                       error_text(ENOSPC));
    EXPECT_EQ(set_id(), -1);
}

TEST_F(SemaphoreSet, ReaderCannotReset) {
    expect_failure(
        [] {
            semctl(set_id(), 0, IPC_RMID);  // nothing to open, each time
            return init_perm_map_semaphore();
        },
        [](const IpcCall& call) {
            return call.kind == Ipc::semctl && call.second == SETALL ? EACCES : 0;
        },
        "PERM_MAP kavrin_messenger: recreate cannot set the permission map semaphore, " +
            error_text(EACCES));
}

TEST_F(SemaphoreSet, ReaderCannotReopenWhatItRecreated) {
    IpcProbe probe;
    probe.before = refuse(Ipc::semget, EACCES, 3);
    EXPECT_EQ(init_perm_map_semaphore(), -1);
    EXPECT_EQ(probe.count(Ipc::semget), 3);
    EXPECT_EQ(logged_part("recreate success assigning"), 0);
}

TEST_F(SemaphoreSet, RecreationGivesTheId) {
    config_.set_debug_level(10);
    int id = -1;
    key_t key = set_key();
    EXPECT_EQ(_recreate_perm_map_semaphore(&id, &key), 0);
    EXPECT_EQ(id, set_id());
    EXPECT_EQ(logged("PERM_MAP kavrin_messenger: recreate success key=" + hex(key) + "\n"), 1);
    int again = -1;
    EXPECT_EQ(_recreate_perm_map_semaphore(&again, &key), 0) << "a set that is there will do";
    EXPECT_EQ(again, id);
}

TEST_F(SemaphoreSet, RecreationTakesAnExistingSetForSuccess) {
    IpcProbe probe;
    probe.before = refuse(Ipc::semget, EEXIST);
    int id = -1;
    key_t key = set_key();
    EXPECT_EQ(_recreate_perm_map_semaphore(&id, &key), 0);
    EXPECT_EQ(logged_part("recreate failed"), 0);
    probe.before = refuse(Ipc::semget, ENOSPC);
    EXPECT_EQ(_recreate_perm_map_semaphore(&id, &key), -1);
    EXPECT_EQ(logged("PERM_MAP kavrin_messenger: recreate failed cannot create the permission map "
                     "semaphore, " +
                     error_text(ENOSPC)),
              1);
}

TEST_F(SemaphoreSet, DestroyRemovesTheSetAlone) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    const int table = make_table(0, "kept");
    destroy_perm_map();
    EXPECT_EQ(set_id(), -1);
    EXPECT_EQ(segment(0), table);
    EXPECT_EQ(init_perm_map_semaphore(), 0) << "a reader makes it anew";
    EXPECT_EQ(value(0), 0);
}

// The index ---------------------------------------------------------------------------------------

TEST_F(SemaphoreSet, IndexIsReadByBothSides) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    for (const int index : {0, 1}) {
        set_value(0, index);
        EXPECT_EQ(get_current_perm_table_index(), index);
        EXPECT_EQ(get_current_perm_table_index_for_fill(), index);
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(SemaphoreSet, ReaderLooksTheSetUpEachTimeAndTheBuilderNever) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    IpcProbe probe;
    EXPECT_EQ(get_current_perm_table_index(), 0);
    EXPECT_EQ(get_current_perm_table_index(), 0);
    EXPECT_EQ(probe.count(Ipc::ftok), 2);
    EXPECT_EQ(probe.count(Ipc::semget), 2);
    probe.forget();
    EXPECT_EQ(get_current_perm_table_index_for_fill(), 0);
    EXPECT_EQ(probe.count(Ipc::ftok), 1);
    EXPECT_EQ(probe.count(Ipc::semget), 0);
}

TEST_F(SemaphoreSet, ReaderSurvivesASetThatWasRemovedAndRecreated) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    EXPECT_EQ(get_current_perm_table_index(), 0);
    const ChildResult builder = run_child([] {
        destroy_perm_map();
        if (create_perm_map_semaphore() != 0) return 1;
        return swap_maps(0);
    });
    ASSERT_EQ(builder.exit_code, 0);
    EXPECT_EQ(get_current_perm_table_index_for_fill(), -1) << "the id held before is gone";
    EXPECT_EQ(get_current_perm_table_index(), 1);
    EXPECT_EQ(get_current_perm_table_index_for_fill(), 1)
        << "the reader's look-up stored the new id";
}

TEST_F(SemaphoreSet, ReaderDoesNotRecreateWhileReading) {
    expect_failure(
        get_current_perm_table_index, [](const IpcCall&) { return 0; },
        kLabel + "PRIOR to map_initialize cannot get the permission map semaphore, " +
            error_text(ENOENT));
    EXPECT_EQ(set_id(), -1);
}

TEST_F(SemaphoreSet, IndexNeedsItsKey) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    IpcProbe probe;
    probe.before = refuse(Ipc::ftok, ENOENT);
    EXPECT_EQ(get_current_perm_table_index(), -1);
    EXPECT_EQ(get_current_perm_table_index_for_fill(), -1);
}

TEST_F(SemaphoreSet, IndexCannotBeReadByAReader) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    IpcProbe probe;
    probe.before = [](const IpcCall& call) {
        return call.kind == Ipc::semctl && call.first == 0 && call.second == GETVAL ? EACCES : 0;
    };
    EXPECT_EQ(get_current_perm_table_index(), -1);
    EXPECT_EQ(logged_matching(log_lines(), R"(PERM_MAP kavrin_messenger: \S+ Failed semctl, )"
                                           R"(code=13 \(Permission denied\)\n)"),
              1);
}

TEST_F(SemaphoreSet, InitializedMarkIsReadForItsTraceOnly) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    IpcProbe probe;
    probe.before = [](const IpcCall& call) {
        return call.kind == Ipc::semctl && call.first == 1 ? EACCES : 0;
    };
    EXPECT_EQ(get_current_perm_table_index(), 0);
    EXPECT_EQ(logged(kLabel + "Failed semctl, " + error_text(EACCES)), 1);
}

TEST_F(SemaphoreSet, IndexCannotBeReadByTheBuilder) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    expect_failure(get_current_perm_table_index_for_fill, refuse(Ipc::semctl, EACCES),
                   kLabel + "Failed semctl, " + error_text(EACCES));
}

TEST_F(SemaphoreSet, IndexOfTwoEndsTheProcess) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    set_value(0, 2);
    const std::string_view text = "current == 0 || current == 1";
    EXPECT_TRUE(run_child(get_current_perm_table_index).asserted(text));
    EXPECT_TRUE(run_child(get_current_perm_table_index_for_fill).asserted(text));
}

// The initialised mark ----------------------------------------------------------------------------

TEST_F(SemaphoreSet, MarkIsRaisedOnce) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    EXPECT_EQ(map_initialized(0), 0);
    EXPECT_EQ(value(1), 0) << "asking does not set";
    IpcProbe probe;
    EXPECT_EQ(map_initialized(1), 0);
    ASSERT_EQ(probe.count(Ipc::semop), 1);
    const auto raise = std::find_if(probe.calls().begin(), probe.calls().end(),
                                    [](const IpcCall& call) { return call.kind == Ipc::semop; });
    EXPECT_EQ(raise->count, 1u);
    EXPECT_EQ(raise->first, 1);
    EXPECT_EQ(raise->second, 1);
    EXPECT_EQ(raise->flags, 0);
    EXPECT_EQ(map_initialized(0), 1);
    EXPECT_EQ(map_initialized(1), 0);
    EXPECT_EQ(map_initialized(7), 0) << "any other value than 0 asks for it";
    EXPECT_EQ(probe.count(Ipc::semop), 1) << "a raised mark is not touched";
    EXPECT_EQ(value(1), 1);
    EXPECT_EQ(value(0), 0);
}

TEST_F(SemaphoreSet, MarkOfTwoEndsTheProcess) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    set_value(1, 2);
    for (const int set : {0, 1})
        EXPECT_TRUE(run_child([=] { return map_initialized(set); }).asserted("initialized < 2"));
    EXPECT_TRUE(run_child(get_current_perm_table_index).asserted("initialized < 2"));
}

TEST_F(SemaphoreSet, MarkCannotBeRead) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    for (const int set : {0, 1}) {
        expect_failure([=] { return map_initialized(set); }, refuse(Ipc::semctl, EINVAL),
                       kLabel + "Failed semctl, " + error_text(EINVAL));
    }
}

TEST_F(SemaphoreSet, MarkCannotBeRaised) {
    ASSERT_EQ(create_perm_map_semaphore(), 0);
    expect_failure([] { return map_initialized(1); }, refuse(Ipc::semop, EACCES),
                   kLabel + "cannot update initialized semaphore value, " + error_text(EACCES));
    EXPECT_EQ(value(1), 0);
}

}  // namespace
}  // namespace kvtest
