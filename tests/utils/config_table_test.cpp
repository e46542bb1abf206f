// The shared configuration table against real System V segments: its byte layout, what the creator
// writes and what a reader copies.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "config_table_fixture.h"
#include "provoke.h"
#include "support.h"

namespace {

using kvtest::ConfigTableTest;
using kvtest::expect_in_child;
using kvtest::find_segment;
using kvtest::kSlotSize;
using kvtest::kTableSize;
using kvtest::logged;
using kvtest::make_segment;

struct ExpectedSlot {
    int index;
    const char* key;
    std::uint32_t type;
};
constexpr ExpectedSlot kSlots[] = {
    {0, "VFS:default user", 1},
    {1, "VFS:default group", 1},
    {2, "VFS:exception pattern file", 2},
    {3, "SWEEPER:disable sweeper flush", 3},
    {4, "SWEEPER:staging buffer size", 1},
    {5, "SWEEPER:flush period", 1},
    {6, "SWEEPER:staging dir", 2},
    {7, "SWEEPER:flush fill threshold pct", 1},
    {8, "MESSENGER:socket backlog", 1},
    {9, "MESSENGER:socket message size", 1},
    {10, "MESSENGER:socket path", 2},
    {11, nullptr, 0},
    {12, nullptr, 0},
    {13, "VFS:check regex unlink", 1},
    {14, "VFS:debug level", 1},
    {15, "VFS:enable forbidden rmdir", 3},
    {16, "SWEEPER:auditing dir", 2},
    {17, "SWEEPER:auditing buffer size", 1},
    {18, "SWEEPER:auditing flush interval", 1},
};
static_assert(std::size(kSlots) == 19);

shmid_ds segment_state(int id) {
    shmid_ds state{};
    EXPECT_EQ(shmctl(id, IPC_STAT, &state), 0);
    return state;
}

// The segment as bytes, attached for the object's life.
class Attached {
public:
    explicit Attached(int id) : base_(static_cast<char*>(shmat(id, nullptr, 0))) {
        EXPECT_NE(base_, reinterpret_cast<char*>(-1));
    }
    ~Attached() { shmdt(base_); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;
    char* at(std::size_t offset) const { return base_ + offset; }
    void put_int(int slot, std::int32_t value) const {
        std::memcpy(at(static_cast<std::size_t>(slot) * kSlotSize + 16), &value, sizeof value);
    }

private:
    char* base_;
};

template <typename T>
T value_at(const void* table, std::size_t offset) {
    T value;
    std::memcpy(&value, static_cast<const char*>(table) + offset, sizeof value);
    return value;
}

bool all_zero(const void* bytes, std::size_t size) {
    const char* p = static_cast<const char*>(bytes);
    for (std::size_t i = 0; i < size; ++i) {
        if (p[i] != 0) return false;
    }
    return true;
}

TEST(ConfigTableLayout, SlotIs1040BytesWithItsFieldsInPlace) {
    EXPECT_EQ(sizeof(global_param_t), kSlotSize);
    EXPECT_EQ(offsetof(global_param_t, type), 0u);
    EXPECT_EQ(sizeof(global_param_t::type), 4u);
    EXPECT_EQ(offsetof(global_param_t, varname), 8u);
    EXPECT_EQ(offsetof(global_param_t, value), 16u);
    EXPECT_EQ(offsetof(global_param_t, value.intval), 16u);
    EXPECT_EQ(offsetof(global_param_t, value.strval), 16u);
    EXPECT_EQ(sizeof(global_param_t::value), 1024u);
    EXPECT_EQ(sizeof(global_param_t) * PARAM_MAX_INDEX, kTableSize);
}

TEST(ConfigTableLayout, SlotsAndTypesHaveTheirNumbers) {
    EXPECT_EQ(PARAM_MIN_INDEX, 0);
    EXPECT_EQ(PARAM_DEFAULT_USER_ID, 0);
    EXPECT_EQ(PARAM_DEFAULT_GROUP_ID, 1);
    EXPECT_EQ(PARAM_REGEX_FILE_NAME, 2);
    EXPECT_EQ(PARAM_DISABLE_SWEEPER_FLUSH, 3);
    EXPECT_EQ(PARAM_STAGING_BUFFER_SIZE, 4);
    EXPECT_EQ(PARAM_FLUSH_PERIOD, 5);
    EXPECT_EQ(PARAM_STAGING_DIR, 6);
    EXPECT_EQ(PARAM_FLUSH_FILL_THRESHOLD, 7);
    EXPECT_EQ(PARAM_SOCKET_BACKLOG, 8);
    EXPECT_EQ(PARAM_SOCKET_MESSAGE_SIZE, 9);
    EXPECT_EQ(PARAM_SOCKET_PATH, 10);
    EXPECT_EQ(PARAM_PERMISSION_MAP_PATH, 11);
    EXPECT_EQ(PARAM_MESSENGER_LOCKFILE_PATH, 12);
    EXPECT_EQ(PARAM_CHECK_REGEX_UNLINK, 13);
    EXPECT_EQ(PARAM_DEBUG_LEVEL, 14);
    EXPECT_EQ(PARAM_ENABLE_FORBIDDEN_RMDIR, 15);
    EXPECT_EQ(PARAM_AUDITING_DIR, 16);
    EXPECT_EQ(PARAM_AUDITING_BUFFER_SIZE, 17);
    EXPECT_EQ(PARAM_AUDITING_FLUSH_INTERVAL, 18);
    EXPECT_EQ(PARAM_MAX_INDEX, 19);
    EXPECT_EQ(PARAM_VAL_TYPE_UNDEF, 0);
    EXPECT_EQ(PARAM_VAL_TYPE_INT, 1);
    EXPECT_EQ(PARAM_VAL_TYPE_STRING, 2);
    EXPECT_EQ(PARAM_VAL_TYPE_BOOLEAN, 3);
}

TEST_F(ConfigTableTest, CreatedSegmentHasTheTablesSizeModeAndOneAttachment) {
    ASSERT_EQ(create_config_buffer(), 0);
    const int id = find_segment();
    ASSERT_GE(id, 0);
    const shmid_ds state = segment_state(id);
    EXPECT_EQ(state.shm_segsz, kTableSize);
    EXPECT_EQ(state.shm_perm.mode & 0777, 0666);
    EXPECT_EQ(state.shm_nattch, 1u);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(ConfigTableTest, CreatorFillsInEveryTypeAndKeyAndNoValue) {
    ASSERT_EQ(create_config_buffer(), 0);
    ASSERT_NE(global_params, nullptr);
    for (const ExpectedSlot& slot : kSlots) {
        SCOPED_TRACE(slot.index);
        const std::size_t base = static_cast<std::size_t>(slot.index) * kSlotSize;
        EXPECT_EQ(value_at<std::uint32_t>(global_params, base), slot.type);
        EXPECT_EQ(value_at<std::uint32_t>(global_params, base + 4), 0u);
        const char* key = value_at<const char*>(global_params, base + 8);
        if (slot.key == nullptr) {
            EXPECT_EQ(key, nullptr);
        } else {
            EXPECT_STREQ(key, slot.key);
        }
        EXPECT_TRUE(all_zero(reinterpret_cast<const char*>(global_params) + base + 16, 1024));
    }
}

TEST_F(ConfigTableTest, CreatorsTableIsTheSegmentItself) {
    ASSERT_EQ(create_config_buffer(), 0);
    const Attached segment(find_segment());
    segment.put_int(PARAM_STAGING_BUFFER_SIZE, 1234567);
    EXPECT_EQ(global_params[PARAM_STAGING_BUFFER_SIZE].value.intval, 1234567);
    std::strcpy(global_params[PARAM_AUDITING_DIR].value.strval, "/audit");
    EXPECT_STREQ(segment.at(16 * kSlotSize + 16), "/audit");
}

TEST_F(ConfigTableTest, SecondCreateRemovesTheFirstTableAndStartsAfresh) {
    ASSERT_EQ(create_config_buffer(), 0);
    const int first = find_segment();
    global_params[PARAM_FLUSH_PERIOD].value.intval = 77;
    kvtest::clear_log();
    int result = -2;
    const double seconds = kvtest::seconds_of([&] { result = create_config_buffer(); });
    EXPECT_EQ(result, 0);
    EXPECT_GE(seconds, 1.9);
    EXPECT_NE(find_segment(), first);
    EXPECT_EQ(segment_state(first).shm_perm.mode & SHM_DEST, SHM_DEST);
    EXPECT_EQ(global_params[PARAM_FLUSH_PERIOD].value.intval, 0);
    EXPECT_STREQ(global_params[PARAM_DEBUG_LEVEL].varname, "VFS:debug level");
    const std::string failed =
        "create_config_buffer: cannot create shared memory for global param error_no=17 "
        "error_sz=File exists";
    ASSERT_EQ(kvtest::log_lines().size(), 3u);
    EXPECT_EQ(kvtest::log_lines()[0].message, failed + "\n");
    EXPECT_EQ(kvtest::log_lines()[1].message, failed + " will remove and retry\n");
    EXPECT_EQ(kvtest::log_lines()[2].message,
              "create_config_buffer: success removing shared memory for global param will try to "
              "re-create.\n");
}

TEST_F(ConfigTableTest, RemoveTakesTheSegmentAwayAndCopiesStayUsable) {
    ASSERT_GE(make_segment(kTableSize, 0666), 0);
    {
        const Attached segment(find_segment());
        segment.put_int(PARAM_FLUSH_PERIOD, 31);
    }
    ASSERT_EQ(read_kavrin_config(), 0);
    EXPECT_EQ(remove_config_buffer(), 0);
    EXPECT_EQ(find_segment(), -1);
    EXPECT_EQ(global_params[PARAM_FLUSH_PERIOD].value.intval, 31);
    EXPECT_EQ(remove_config_buffer(), -1);
    EXPECT_EQ(logged("remove_config_buffer: cannot get shared memory for global param\n"), 1);
    std::free(global_params);
}

TEST_F(ConfigTableTest, RefusedRemovalIsStillASuccess) {
    ASSERT_GE(make_segment(kTableSize, 0666), 0);
    expect_in_child([] {
        kvtest::become_user(4001, 4001, {});
        EXPECT_EQ(remove_config_buffer(), 0);
    });
    EXPECT_GE(find_segment(), 0);
}

TEST_F(ConfigTableTest, ReaderWithoutASegmentCreatesAnEmptyOne) {
    ASSERT_EQ(read_kavrin_config(), 0);
    ASSERT_NE(global_params, nullptr);
    EXPECT_TRUE(all_zero(global_params, kTableSize));
    const int id = find_segment();
    ASSERT_GE(id, 0);
    const shmid_ds state = segment_state(id);
    EXPECT_EQ(state.shm_segsz, kTableSize);
    EXPECT_EQ(state.shm_perm.mode & 0777, 0666);
    EXPECT_EQ(state.shm_nattch, 0u);
    const Attached segment(id);
    EXPECT_TRUE(all_zero(segment.at(0), kTableSize));
    EXPECT_TRUE(kvtest::log_lines().empty());
    std::free(global_params);
}

TEST_F(ConfigTableTest, ReaderCopiesEveryByteIntoAPrivateTable) {
    const int id = make_segment(kTableSize, 0666);
    ASSERT_GE(id, 0);
    const Attached segment(id);
    for (std::size_t i = 0; i < kTableSize; ++i)
        *segment.at(i) = static_cast<char>(i * 7 + i / 251);
    segment.put_int(PARAM_DEBUG_LEVEL, 0);
    ASSERT_EQ(read_kavrin_config(), 0);
    EXPECT_EQ(std::memcmp(global_params, segment.at(0), kTableSize), 0);
    EXPECT_EQ(segment_state(id).shm_nattch, 1u);  // this test's own attachment
    for (int slot = 0; slot < PARAM_MAX_INDEX; ++slot) {
        EXPECT_EQ(
            global_params[slot].value.intval,
            value_at<std::int32_t>(segment.at(0), static_cast<std::size_t>(slot) * 1040 + 16));
    }
    std::free(global_params);
}

TEST_F(ConfigTableTest, CopyIsASnapshotUntilTheNextRead) {
    const int id = make_segment(kTableSize, 0666);
    ASSERT_GE(id, 0);
    const Attached segment(id);
    segment.put_int(PARAM_FLUSH_PERIOD, 5);
    ASSERT_EQ(read_kavrin_config(), 0);
    segment.put_int(PARAM_FLUSH_PERIOD, 6);
    EXPECT_EQ(global_params[PARAM_FLUSH_PERIOD].value.intval, 5);
    ASSERT_EQ(read_kavrin_config(), 0);
    EXPECT_EQ(global_params[PARAM_FLUSH_PERIOD].value.intval, 6);
    global_params[PARAM_FLUSH_PERIOD].value.intval = 99;
    EXPECT_EQ(value_at<std::int32_t>(segment.at(0), 5 * kSlotSize + 16), 6);
    std::free(global_params);
}

TEST_F(ConfigTableTest, CreatedTableReachesAnotherProcessThroughTheSegment) {
    ASSERT_EQ(create_config_buffer(), 0);
    std::strcpy(global_params[PARAM_STAGING_DIR].value.strval, "/var/staging");
    expect_in_child([] {
        kvtest::become_user(4001, 4001, {});
        global_params = nullptr;
        ASSERT_EQ(read_kavrin_config(), 0);
        EXPECT_STREQ(global_params[PARAM_STAGING_DIR].value.strval, "/var/staging");
        EXPECT_EQ(global_params[PARAM_STAGING_DIR].type, 2u);
    });
}

TEST_F(ConfigTableTest, SuccessfulReadIsToldFromLevelFiveOfTheNewTable) {
    const int id = make_segment(kTableSize, 0666);
    ASSERT_GE(id, 0);
    const Attached segment(id);
    const std::string message = "kavrin:read_kavrin_config have read kavrin config\n";
    const kvtest::ConfigTable table(10);
    segment.put_int(PARAM_DEBUG_LEVEL, 4);
    ASSERT_EQ(read_kavrin_config(), 0);
    EXPECT_EQ(logged(message), 0);
    segment.put_int(PARAM_DEBUG_LEVEL, 5);
    ASSERT_EQ(read_kavrin_config(), 0);
    EXPECT_EQ(logged(message), 1);
    EXPECT_EQ(kvtest::log_lines().back().priority, 6);
    EXPECT_EQ(kvtest::log_lines().back().function, "read_kavrin_config");
}

}  // namespace
