// Each failure of the shared configuration table that the kernel can be made to give: its result,
// its message, and what becomes of the table in use.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

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
using kvtest::logged_part;
using kvtest::make_segment;
using kvtest::seconds_of;

constexpr const char* kSegmentLimit = "/proc/sys/kernel/shmmni";

TEST_F(ConfigTableTest, SegmentThatCannotBeRemovedFailsTheCreate) {
    ASSERT_GE(make_segment(100, 0666), 0);  // too small to be found by the table's size
    const double seconds = seconds_of([] { EXPECT_EQ(create_config_buffer(), -1); });
    EXPECT_GE(seconds, 0.9);
    EXPECT_EQ(logged_part("error_no=17 error_sz=File exists\n"), 1);
    EXPECT_EQ(logged_part(" will remove and retry\n"), 1);
    EXPECT_EQ(logged("remove_config_buffer: cannot get shared memory for global param\n"), 1);
    EXPECT_EQ(logged("create_config_buffer: cannot remove shared memory for global param.\n"), 1);
    EXPECT_EQ(logged_part("success removing"), 0);
    EXPECT_EQ(global_params, nullptr);
    EXPECT_GE(find_segment(), 0);
}

TEST_F(ConfigTableTest, SecondAttemptIsTheLast) {
    const int first = make_segment(kTableSize, 0666);
    ASSERT_GE(first, 0);
    std::thread rival([] {
        while (make_segment(kTableSize, 0666) < 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    const double seconds = seconds_of([] { EXPECT_EQ(create_config_buffer(), -1); });
    rival.join();
    EXPECT_GE(seconds, 1.9);
    EXPECT_EQ(logged_part("cannot create shared memory for global param error_no=17 "
                          "error_sz=File exists\n"),
              2);
    EXPECT_EQ(logged_part(" will remove and retry\n"), 1);
    EXPECT_EQ(logged_part("success removing"), 1);
    EXPECT_EQ(global_params, nullptr);
    EXPECT_NE(find_segment(), first);
}

TEST_F(ConfigTableTest, AnotherFailureOfCreationIsNotRetried) {
    const kvtest::KernelSetting no_segments(kSegmentLimit, "0");
    EXPECT_EQ(create_config_buffer(), -1);
    ASSERT_EQ(kvtest::log_lines().size(), 1u);
    EXPECT_EQ(kvtest::log_lines()[0].message,
              "create_config_buffer: cannot create shared memory for global param error_no=28 "
              "error_sz=No space left on device\n");
    EXPECT_EQ(global_params, nullptr);
}

TEST_F(ConfigTableTest, FailedAttachOfTheCreatorLeavesTheFailedAddress) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the address space";
    const kvtest::ChildResult child = expect_in_child([] {
        const kvtest::ConfigTable table(0);
        kvtest::freeze_address_space();
        const int result = create_config_buffer();
        const bool failed_address = global_params == reinterpret_cast<global_param_t*>(-1);
        global_params = nullptr;
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(failed_address);
    });
    EXPECT_EQ(child.logged("create_config_buffer: cannot attach to shm Errno 12\n"), 1);
}

TEST_F(ConfigTableTest, RefusedSegmentFailsTheReadAndKeepsTheOldCopy) {
    ASSERT_GE(make_segment(kTableSize, 0600), 0);
    const kvtest::ChildResult child = expect_in_child([] {
        const kvtest::ConfigTable table(0);
        global_params[PARAM_FLUSH_PERIOD].value.intval = 12;
        kvtest::become_user(4001, 4001, {});
        EXPECT_EQ(read_kavrin_config(), -1);
        ASSERT_NE(global_params, nullptr);
        EXPECT_EQ(global_params[PARAM_FLUSH_PERIOD].value.intval, 12);
    });
    EXPECT_EQ(child.logged("cannot create shared memory for global param. errno = 13(Permission "
                           "denied)\n"),
              1);
}

TEST_F(ConfigTableTest, FullKernelFailsTheReadWithItsReason) {
    const kvtest::KernelSetting no_segments(kSegmentLimit, "0");
    kvtest::ConfigTable table(0);
    EXPECT_EQ(read_kavrin_config(), -1);
    EXPECT_EQ(logged("cannot create shared memory for global param. errno = 28(No space left on "
                     "device)\n"),
              1);
}

TEST_F(ConfigTableTest, FailedAttachFailsTheRead) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the address space";
    const kvtest::ChildResult child = expect_in_child([] {
        const kvtest::ConfigTable table(0);
        kvtest::freeze_address_space();
        EXPECT_EQ(read_kavrin_config(), -1);
        EXPECT_NE(global_params, nullptr);
    });
    EXPECT_EQ(child.logged("cannot attach to shm. errno = 12(Cannot allocate memory)\n"), 1);
}

TEST_F(ConfigTableTest, ReaderWithoutMemoryLosesItsTable) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    global_params = static_cast<global_param_t*>(std::calloc(PARAM_MAX_INDEX, kSlotSize));
    int result = 0;
    {
        const kvtest::RefusedAllocation first(1);
        result = read_kavrin_config();
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(global_params, nullptr);
    EXPECT_EQ(logged("could not allocate global_params buffer\n"), 1);
    EXPECT_EQ(find_segment(), -1);
}

TEST_F(ConfigTableTest, WithoutTheKeysFileEveryCallFails) {
    ASSERT_GE(make_segment(kTableSize, 0666), 0);
    const kvtest::ChildResult child = expect_in_child([] {
        const kvtest::ConfigTable table(0);
        kvtest::hide_folder("/dev");
        EXPECT_EQ(create_config_buffer(), -1);
        EXPECT_EQ(remove_config_buffer(), -1);
        EXPECT_EQ(read_kavrin_config(), -1);
    });
    EXPECT_EQ(child.logged("create_config_buffer: cannot create sema key for shm\n"), 1);
    EXPECT_EQ(child.logged("remove_config_buffer: cannot get sema key for shm\n"), 1);
    EXPECT_EQ(
        child.logged("cannot create sema key for shm. errno = 2(No such file or directory)\n"), 1);
    EXPECT_GE(find_segment(), 0);
}

TEST_F(ConfigTableTest, NegativeLevelSilencesTheFailures) {
    const kvtest::KernelSetting no_segments(kSegmentLimit, "0");
    kvtest::ConfigTable table(-1);
    EXPECT_EQ(create_config_buffer(), -1);
    EXPECT_EQ(remove_config_buffer(), -1);
    EXPECT_EQ(read_kavrin_config(), -1);
    EXPECT_TRUE(kvtest::log_lines().empty());
    table.set_debug_level(0);
    EXPECT_EQ(create_config_buffer(), -1);
    EXPECT_EQ(remove_config_buffer(), -1);
    EXPECT_EQ(read_kavrin_config(), -1);
    EXPECT_EQ(kvtest::log_lines().size(), 3u);
}

}  // namespace
