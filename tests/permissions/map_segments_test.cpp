// The two segments, on real System V objects: their keys, sizes and modes, and every failure of
// creating or finding one with its message.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ipc_probe.h"

namespace kvtest {
namespace {

const std::string kLabel = "PERM_MAP kavrin_messenger:";
std::string error_text(int error) {
    return "code=" + std::to_string(error) + " (" + std::strerror(error) + ")\n";
}

class Segments : public SegmentTest {};

TEST_F(Segments, NextTableIsTheOther) {
    EXPECT_EQ(get_next_perm_table_key(0), 0x7065726A);
    EXPECT_EQ(get_next_perm_table_key(1), 0x70657269);
}

TEST_F(Segments, TableNumberOutsideTheTwoEndsTheProcess) {
    const std::string_view text = "current == 0 || current == 1";
    for (const int current : {-1, 2, 7}) {
        EXPECT_TRUE(run_child([=] { return get_next_perm_table_key(current); }).asserted(text));
        EXPECT_TRUE(
            run_child([=] { return get_current_perm_table_shmid(current); }).asserted(text));
    }
}

TEST_F(Segments, SegmentOfATable) {
    const int zero = make_table(0, "zero");
    const int one = make_table(1, "one");
    const IpcProbe probe;
    EXPECT_EQ(get_current_perm_table_shmid(0), zero);
    EXPECT_EQ(get_current_perm_table_shmid(1), one);
    ASSERT_EQ(probe.count(Ipc::shmget), 2);
    for (const IpcCall& call : probe.calls()) {
        EXPECT_EQ(call.first, 0) << "size";
        EXPECT_EQ(call.flags, 0);
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Segments, MissingSegmentIsMinusTwo) {
    const std::string message =
        kLabel +
        "shared memory get failed with ENOENT, assume the first shared memory segment has not been "
        "initialized\n";
    EXPECT_EQ(get_current_perm_table_shmid(0), -2);
    EXPECT_EQ(logged(message), 1);
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(get_current_perm_table_shmid(1), -2);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Segments, OtherFailureIsMinusOne) {
    IpcProbe probe;
    probe.before = refuse(Ipc::shmget, EACCES);
    EXPECT_EQ(get_current_perm_table_shmid(0), -1);
    EXPECT_EQ(logged(kLabel + "shared memory get failed, " + error_text(EACCES)), 1);
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(get_current_perm_table_shmid(0), -1);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Segments, NewSegmentIsExactAndWithoutPermissionBits) {
    const mode_t previous = umask(0);
    for (const int table : {0, 1}) {
        int id = -1;
        const IpcProbe probe;
        void* address = create_perm_map_shm(kTableKey[table], 581, &id);
        ASSERT_NE(address, nullptr);
        EXPECT_EQ(probe.calls().front().flags, IPC_CREAT | IPC_EXCL);
        EXPECT_EQ(id, segment(table));
        shmid_ds status{};
        ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
        EXPECT_EQ(status.shm_segsz, 581u);
        EXPECT_EQ(status.shm_perm.mode & 0777, 0u);
        EXPECT_EQ(status.shm_nattch, 1u);
        std::memset(address, 0x5A, 581);
        put_perm_map_addr(address);
        EXPECT_EQ(attached(id), 0);
    }
    umask(previous);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Segments, UnprivilegedProcessCannotAttachOne) {
    const int id = make_table(0, "secret");
    expect_in_child([&] {
        become_user(1001, 1001, {});
        EXPECT_EQ(shmat(id, nullptr, SHM_RDONLY), reinterpret_cast<void*>(-1));
        EXPECT_EQ(errno, EACCES);
    });
}

TEST_F(Segments, NewSegmentNeedsAPlaceForItsId) {
    EXPECT_EQ(create_perm_map_shm(kTableKey[0], 581, nullptr), nullptr);
    EXPECT_EQ(logged(kLabel + "input address to create_perm_map_shm() for shmid is NULL\n"), 1);
    EXPECT_EQ(segment(0), -1);
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(create_perm_map_shm(kTableKey[0], 581, nullptr), nullptr);
    EXPECT_TRUE(log_lines().empty());
}

// What a builder that died between creation and swap leaves behind.
TEST_F(Segments, StaleSegmentIsNeverReused) {
    const int stale = make_table(1, "stale");
    int id = 99;
    EXPECT_EQ(create_perm_map_shm(kTableKey[1], 581, &id), nullptr);
    EXPECT_EQ(id, -1);
    EXPECT_EQ(logged(kLabel +
                     "shared memory segment already exists for key 0x7065726a, must not have been "
                     "cleaned up or is already be getting created, " +
                     error_text(EEXIST)),
              1);
    EXPECT_EQ(segment(1), stale);
    EXPECT_EQ(attached(stale), 0);
    ASSERT_EQ(shmctl(stale, IPC_RMID, nullptr), 0);
    void* address = create_perm_map_shm(kTableKey[1], 581, &id);
    ASSERT_NE(address, nullptr);
    EXPECT_EQ(id, segment(1));
    put_perm_map_addr(address);
}

TEST_F(Segments, NewSegmentNeedsASize) {
    int id = 99;
    EXPECT_EQ(create_perm_map_shm(kTableKey[0], 0, &id), nullptr);
    EXPECT_EQ(id, -1);
    EXPECT_EQ(logged(kLabel + "shared memory creation failed for key 0x70657269 size 0, " +
                     error_text(EINVAL)),
              1);
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(create_perm_map_shm(kTableKey[0], 0, &id), nullptr);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Segments, FailureTellsTheSize) {
    IpcProbe probe;
    probe.before = refuse(Ipc::shmget, ENOSPC);
    int id = 99;
    EXPECT_EQ(create_perm_map_shm(kTableKey[1], 4000000000u, &id), nullptr);
    EXPECT_EQ(logged(kLabel + "shared memory creation failed for key 0x7065726a size 4000000000, " +
                     error_text(ENOSPC)),
              1);
}

TEST_F(Segments, SegmentThatCannotBeAttachedIsRemoved) {
    IpcProbe probe;
    probe.before = refuse(Ipc::shmat, ENOMEM);
    int id = -1;
    EXPECT_EQ(create_perm_map_shm(kTableKey[0], 581, &id), nullptr);
    EXPECT_EQ(logged(kLabel + "cannot attach shared memory, " + error_text(ENOMEM)), 1);
    EXPECT_EQ(segment(0), -1);
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(create_perm_map_shm(kTableKey[0], 581, &id), nullptr);
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(segment(0), -1);
}

TEST_F(Segments, PuttingDetaches) {
    const int id = make_table(0, "text");
    void* address = shmat(id, nullptr, 0);
    EXPECT_EQ(attached(id), 1);
    put_perm_map_addr(address);
    EXPECT_EQ(attached(id), 0);
    put_perm_map_addr(nullptr);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Segments, MessagesHaveTheirPriorityAndPrefix) {
    EXPECT_EQ(get_current_perm_table_shmid(0), -2);
    ASSERT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(log_lines()[0].priority, 6);
    EXPECT_EQ(log_lines()[0].function, "get_current_perm_table_shmid");
    EXPECT_GT(log_lines()[0].line, 0);
}

}  // namespace
}  // namespace kvtest
