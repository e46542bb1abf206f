// When a write to the audit buffer flushes it first, and what it refuses for want of room.
#include <climits>

#include "audit_fixture.h"

namespace {

using namespace kvtest;

// Flushing first ------------------------------------------------------------------------------

// What the trace of a write says for a buffer of this size and this percentage.
class AuditThreshold : public AuditTest {
protected:
    std::string traced(int size, int percent) {
        std::free(std::exchange(global_read_audit_buffer, nullptr));
        config.set_int(PARAM_AUDITING_BUFFER_SIZE, size);
        config.set_int(PARAM_FLUSH_FILL_THRESHOLD, percent);
        init_audit_buffer();
        config.set_debug_level(8);
        clear_log();
        write_record(framed("abcde"));
        config.set_debug_level(0);
        for (const LogLine& line : log_lines()) {
            const std::size_t found = line.message.find("write threshold ");
            if (found != std::string::npos) return line.message.substr(found + 16);
        }
        return "(no trace)";
    }
};

TEST_F(AuditThreshold, IsThatPercentageOfTheBuffer) {
    EXPECT_EQ(traced(1000, 0), "0\n");
    EXPECT_EQ(traced(1000, 1), "10\n");
    EXPECT_EQ(traced(1000, 50), "500\n");
    EXPECT_EQ(traced(1000, 99), "990\n");
    EXPECT_EQ(traced(1001, 33), "330\n");
    EXPECT_EQ(traced(999, 99), "989\n");
}

TEST_F(AuditThreshold, IsHalfTheBufferForAHundredAndMore) {
    EXPECT_EQ(traced(1000, 100), "500\n");
    EXPECT_EQ(traced(1000, 150), "500\n");
    EXPECT_EQ(traced(999, 100), "499\n");
    EXPECT_EQ(traced(1000, INT_MAX), "500\n");
}

TEST_F(AuditThreshold, IsTheBufferWhereTheProductLeavesThirtyTwoBits) {
    EXPECT_EQ(traced(40000000, 50), "20000000\n");
    EXPECT_EQ(traced(50000000, 50), "50000000\n");
    EXPECT_EQ(traced(90000000, 99), "90000000\n");
}

TEST_F(AuditBuffer, WriteIsTracedAtLevelEight) {
    write_record(framed("abc"));
    clock.set(kNow + 30);
    config.set_debug_level(7);
    write_record(framed("abcd"));
    EXPECT_TRUE(log_lines().empty());
    config.set_debug_level(8);
    write_record(framed("abcde"));
    EXPECT_EQ(logged("audit: last flush time 1700000000, flush interval 60, current time "
                     "1700000030, current offset 39, data size 5, write threshold 900\n"),
              1);
}

TEST_F(AuditBuffer, ReachedThresholdFlushesTheEarlierRecords) {
    const std::string earlier = fill_to(kThreshold);
    const std::string later = framed("later");
    EXPECT_EQ(write_record(later), 0);
    EXPECT_EQ(names(), std::vector<std::string>{kName});
    EXPECT_EQ(content(kName), earlier);
    EXPECT_EQ(held(), later);
    EXPECT_EQ(fill().records, 1u);
}

TEST_F(AuditBuffer, OneByteBelowTheThresholdDoesNot) {
    const std::string earlier = fill_to(kThreshold - 1);
    const std::string later = framed("later");  // crosses it, which the next write will see
    EXPECT_EQ(write_record(later), 0);
    EXPECT_EQ(names().size(), 0u);
    EXPECT_EQ(held(), earlier + later);
    EXPECT_EQ(write_record(later), 0);
    EXPECT_EQ(content(kName), earlier + later);
    EXPECT_EQ(held(), later);
}

TEST_F(AuditBuffer, HalfIsEnoughForAThresholdAboveAHundred) {
    config.set_int(PARAM_FLUSH_FILL_THRESHOLD, 150);
    fill_to(499);
    EXPECT_EQ(write_record(framed("x")), 0);
    EXPECT_EQ(names().size(), 0u);
    EXPECT_EQ(write_record(framed("x")), 0);
    EXPECT_EQ(names(), std::vector<std::string>{kName});
}

TEST_F(AuditBuffer, ThresholdOfZeroFlushesBeforeEveryWrite) {
    config.set_int(PARAM_FLUSH_FILL_THRESHOLD, 0);
    EXPECT_EQ(write_record(framed("one")), 0);
    EXPECT_EQ(names().size(), 0u);  // nothing to flush yet, and no failure
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(write_record(framed("two")), 0);
    EXPECT_EQ(content(kName), framed("one"));
    EXPECT_EQ(held(), framed("two"));
}

TEST_F(AuditFlush, ExpiredIntervalFlushesTheEarlierRecords) {
    const std::string later = framed("later");
    clock.set(kNow + kInterval);
    EXPECT_EQ(write_record(later), 0);
    EXPECT_EQ(names().size(), 0u);  // the last second of the interval
    EXPECT_EQ(fill(), (Fill{2, kFirst + 21 + 13, kNow}));
    clock.set(kNow + kInterval + 1);
    EXPECT_EQ(write_record(framed("last")), 0);
    EXPECT_EQ(names(), std::vector<std::string>{"pending_1700000061.000042"});
    EXPECT_EQ(content("pending_1700000061.000042"), record + later);
    EXPECT_EQ(held(), framed("last"));
    EXPECT_EQ(fill(), (Fill{1, kFirst + 12, kNow + kInterval + 1}));
}

TEST_F(AuditFlush, IntervalBeginsAnewWithTheBuffer) {
    clock.set(kNow + 100);
    write_record(framed("a"));
    clock.set(kNow + 100 + kInterval);
    write_record(framed("b"));
    EXPECT_EQ(names().size(), 1u);
    EXPECT_EQ(held(), framed("a") + framed("b"));
}

TEST_F(AuditFlush, ClockThatWentBackExpiresNothing) {
    clock.set(kNow - 100000);
    EXPECT_EQ(write_record(framed("later")), 0);
    EXPECT_EQ(names().size(), 0u);
    EXPECT_EQ(fill().records, 2u);
}

TEST_F(AuditFlush, FailedFlushIsReportedAndTheWriteGoesOn) {
    config.set_string(PARAM_AUDITING_DIR, folder + "/nothing");
    clock.set(kNow + 1000);
    EXPECT_EQ(write_record(framed("later")), 0);
    EXPECT_EQ(held(), record + framed("later"));
    EXPECT_EQ(fill(), (Fill{2, kFirst + 21 + 13, kNow}));
    EXPECT_EQ(
        logged_matching(log_lines(), "Failed to flush audit buffer\\. errno = \\d+\\(.+\\)\n"), 1);
    clear_log();
    config.set_string(PARAM_AUDITING_DIR, folder);
    EXPECT_EQ(write_record(framed("last")), 0);  // tries again
    EXPECT_EQ(content("pending_1700001000.000042"), record + framed("later"));
    EXPECT_EQ(held(), framed("last"));
}

// Room ----------------------------------------------------------------------------------------

TEST_F(AuditBuffer, RecordMayEndWhereTheBufferEnds) {
    const std::string record = framed(std::string(kSize - kFirst - kFrame, 'r'));
    EXPECT_EQ(write_record(record), 0);
    EXPECT_EQ(held(), record);
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(content(kName), record);
}

TEST_F(AuditBuffer, RecordThatIsTooLargeIsRefused) {
    EXPECT_EQ(write_record(framed(std::string(kSize - kFirst - kFrame + 1, 'r'))), -1);
    EXPECT_EQ(fill(), (Fill{0, kFirst, kNow}));
    EXPECT_FALSE(log_lines().empty());
    EXPECT_EQ(names().size(), 0u);
    staging_data_t huge{INT_MAX, STAGING_DATA_SIG};
    EXPECT_EQ(write_to_audit_buffer(&huge), -1);
    EXPECT_EQ(fill(), (Fill{0, kFirst, kNow}));
}

TEST_F(AuditBuffer, EarlierRecordsMakeRoomForOneThatDoesNotFit) {
    const std::string earlier = fill_to(kThreshold - 1);
    const std::string later = framed(std::string(200, 'l'));
    EXPECT_EQ(write_record(later), 0);
    EXPECT_EQ(content(kName), earlier);
    EXPECT_EQ(held(), later);
}

TEST_F(AuditBuffer, RecordWithoutRoomIsRefusedWhenTheFlushFailed) {
    const std::string earlier = fill_to(kThreshold - 1);
    config.set_string(PARAM_AUDITING_DIR, folder + "/nothing");
    EXPECT_EQ(write_record(framed(std::string(94, 'l'))), -1);  // one byte too many
    EXPECT_EQ(held(), earlier);
    EXPECT_EQ(fill().records, 1u);
    EXPECT_EQ(write_record(framed(std::string(93, 'l'))), 0);
    EXPECT_EQ(fill().offset, static_cast<std::uint32_t>(kSize));
}

TEST_F(AuditBuffer, GrownConfigurationDoesNotGrowTheBufferInUse) {
    const std::string earlier = fill_to(kSize - 200);
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 100000);
    const std::string later = framed(std::string(5000, 'l'));
    EXPECT_EQ(write_record(later), 0);
    EXPECT_EQ(content(kName), earlier);
    EXPECT_EQ(held(), later);
}

TEST_F(AuditFlush, WriteWhoseFlushLeavesNoBufferIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    clock.set(kNow + 1000);
    const std::string later = framed("later");
    int flushes_without_buffer = 0;
    for (int nth = 1; nth < 12; ++nth) {
        std::filesystem::remove_all(folder);
        ASSERT_TRUE(std::filesystem::create_directory(folder));
        clock.set(kNow);
        std::free(std::exchange(global_read_audit_buffer, nullptr));
        init_audit_buffer();
        write_record(record);
        clock.set(kNow + 1000);
        int result = 0;
        {
            const RefusedAllocation refused(nth);
            result = write_record(later);
        }
        if (global_read_audit_buffer != nullptr) {
            EXPECT_EQ(result, 0) << nth;
            continue;
        }
        EXPECT_EQ(result, -1) << nth;
        EXPECT_EQ(content("pending_1700001000.000042"), record) << nth;
        ++flushes_without_buffer;
    }
    EXPECT_EQ(flushes_without_buffer, 1);
}

}  // namespace
