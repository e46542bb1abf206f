// The audit buffer in memory: how it comes to be and what a write appends. When a write flushes
// first is in audit_room_test.cpp, the files are in audit_flush_test.cpp.
#include <climits>

#include "audit_fixture.h"

namespace {

using namespace kvtest;

// Making one ----------------------------------------------------------------------------------

TEST_F(AuditTest, BeginsWithoutABuffer) {
    EXPECT_EQ(global_read_audit_buffer, nullptr);
}

TEST_F(AuditTest, NewBufferIsEmptyFromNowOn) {
    void* const block = std::malloc(kSize);  // a block of its size that is not zero by chance
    std::memset(block, 0xFF, kSize);
    std::free(block);
    init_audit_buffer();
    ASSERT_NE(global_read_audit_buffer, nullptr);
    EXPECT_EQ(fill(), (Fill{0, kFirst, kNow}));
    for (std::uint32_t i = 0; i < kSize - kFirst; ++i)
        ASSERT_EQ(global_read_audit_buffer->data[i], 0) << i;
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(AuditTest, MakingABufferIsTracedAtLevelOne) {
    config.set_debug_level(1);
    init_audit_buffer();
    ASSERT_EQ(log_lines().size(), 2u);
    EXPECT_EQ(log_lines()[0].message, "Allocating 1000 for audit buffer\n");
    EXPECT_EQ(log_lines()[1].message,
              "Finished  allocating 1000 for audit buffer flush time 1700000000\n");
    EXPECT_EQ(log_lines()[0].priority, 6);
}

TEST_F(AuditBuffer, SecondInitOfAnEmptyOneRestartsItsClock) {
    staging_buffer_t* const before = global_read_audit_buffer;
    clock.set(kNow + 1000);
    config.set_debug_level(1);
    init_audit_buffer();
    EXPECT_EQ(global_read_audit_buffer, before);
    EXPECT_EQ(fill(), (Fill{0, kFirst, kNow + 1000}));
    EXPECT_EQ(names().size(), 0u);
    ASSERT_EQ(log_lines().size(), 3u);
    EXPECT_EQ(log_lines()[0].message, "Allocating 1000 for audit buffer\n");
    EXPECT_EQ(log_lines()[1].message, "Got an init but nothing in the buffer\n");
    EXPECT_EQ(log_lines()[2].message,
              "Finished  allocating 1000 for audit buffer flush time 1700001000\n");
}

TEST_F(AuditFlush, SecondInitOfAFilledOneFlushesIt) {
    clock.set(kNow + 1000);
    config.set_debug_level(1);
    init_audit_buffer();
    EXPECT_EQ(names(), std::vector<std::string>{"pending_1700001000.000042"});
    EXPECT_EQ(content("pending_1700001000.000042"), record);
    expect_empty(kNow + 1000);
    EXPECT_EQ(logged("Got an init force flush temp_offset 37, flush_time 1700000000\n"), 1);
    EXPECT_EQ(logged("Got an init but nothing in the buffer\n"), 0);
    EXPECT_EQ(log_lines().back().message,
              "Finished  allocating 1000 for audit buffer flush time 1700001000\n");
}

TEST_F(AuditFlush, SecondInitDropsWhatItCannotFlushButKeepsTheCount) {
    config.set_string(PARAM_AUDITING_DIR, folder + "/nothing");
    clock.set(kNow + 1000);
    init_audit_buffer();
    ASSERT_NE(global_read_audit_buffer, nullptr);
    EXPECT_EQ(fill(), (Fill{1, kFirst, kNow + 1000}));
    const std::string later = framed("later");
    EXPECT_EQ(write_record(later), 0);
    EXPECT_EQ(held(), later);
    EXPECT_EQ(fill().records, 2u);
}

TEST_F(AuditFlush, InitAfterAFailedOneHasNothingToFlush) {
    config.set_string(PARAM_AUDITING_DIR, folder + "/nothing");
    init_audit_buffer();
    config.set_string(PARAM_AUDITING_DIR, folder);
    config.set_debug_level(1);
    clear_log();
    init_audit_buffer();
    EXPECT_EQ(logged("Got an init but nothing in the buffer\n"), 1);
    EXPECT_EQ(names().size(), 0u);
    EXPECT_EQ(fill().records, 1u);
}

TEST_F(AuditFlush, TracesOfInitAreSilentAtLevelZero) {
    init_audit_buffer();
    init_audit_buffer();
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(AuditTest, WithoutMemoryThereIsNoBuffer) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    {
        const RefusedAllocation refused(1);
        init_audit_buffer();
    }
    EXPECT_EQ(global_read_audit_buffer, nullptr);
    EXPECT_EQ(logged("Unable to allocate buffer for auditing\n"), 1);
    init_audit_buffer();
    EXPECT_NE(global_read_audit_buffer, nullptr);
}

TEST_F(AuditTest, SizeThatHoldsNoHeaderMakesNoBuffer) {
    for (const int size : {INT_MIN, -1, 0, 15}) {
        config.set_int(PARAM_AUDITING_BUFFER_SIZE, size);
        clear_log();
        init_audit_buffer();
        EXPECT_EQ(global_read_audit_buffer, nullptr) << size;
        EXPECT_EQ(logged("Unable to allocate buffer for auditing\n"), 1) << size;
    }
}

// Appending -----------------------------------------------------------------------------------

TEST_F(AuditBuffer, RecordsLieOneBehindTheOther) {
    const std::string first = framed("abc");
    const std::string second = framed(std::string("\0\xFF", 2));
    EXPECT_EQ(write_record(first), 0);
    EXPECT_EQ(fill(), (Fill{1, kFirst + 11, kNow}));
    EXPECT_EQ(write_record(second), 0);
    EXPECT_EQ(fill(), (Fill{2, kFirst + 21, kNow}));
    EXPECT_EQ(held(), first + second);
    EXPECT_EQ(names().size(), 0u);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(AuditBuffer, RecordIsCopied) {
    std::string record = framed("abc");
    const std::string before = record;
    EXPECT_EQ(write_to_audit_buffer(reinterpret_cast<staging_data_t*>(record.data())), 0);
    EXPECT_EQ(record, before);
    record.assign(record.size(), 'x');
    EXPECT_EQ(held(), before);
}

TEST_F(AuditBuffer, NothingIsNoRecord) {
    EXPECT_EQ(write_to_audit_buffer(nullptr), -1);
    EXPECT_EQ(logged("null staging data\n"), 1);
    EXPECT_EQ(fill(), (Fill{0, kFirst, kNow}));
}

TEST_F(AuditBuffer, RecordNeedsAPayload) {
    for (const std::uint32_t size : {0u, 0x80000000u, 0xFFFFFFFFu, 0xFFFFFFF8u}) {
        clear_log();
        staging_data_t record{size, STAGING_DATA_SIG};
        EXPECT_EQ(write_to_audit_buffer(&record), -1) << size;
        EXPECT_EQ(logged("invalid data size\n"), 1) << size;
        EXPECT_EQ(fill(), (Fill{0, kFirst, kNow}));
    }
}

TEST_F(AuditTest, WriteNeedsABuffer) {
    EXPECT_EQ(write_record(framed("abc")), -1);
    EXPECT_EQ(logged("Auditing buffer is NULL\n"), 1);
    EXPECT_EQ(log_lines().size(), 1u);
}

TEST_F(AuditTest, RecordIsLookedAtBeforeTheBuffer) {
    EXPECT_EQ(write_to_audit_buffer(nullptr), -1);
    staging_data_t record{0, STAGING_DATA_SIG};
    EXPECT_EQ(write_to_audit_buffer(&record), -1);
    EXPECT_EQ(logged("null staging data\n"), 1);
    EXPECT_EQ(logged("invalid data size\n"), 1);
    EXPECT_EQ(logged("Auditing buffer is NULL\n"), 0);
}

TEST_F(AuditBuffer, UnknownSignatureIsReportedAndWritten) {
    for (const std::uint32_t signature : {0u, 0x10200104u, 0x04012011u}) {
        clear_log();
        const std::string before = held();
        const std::string odd = framed("abc", signature);
        EXPECT_EQ(write_record(odd), 0);
        EXPECT_EQ(held(), before + odd);
        EXPECT_EQ(logged("Writing to audit buffer without a proper signature\n"), 1);
    }
}

TEST_F(AuditBuffer, NegativeDebugLevelSilencesEveryRefusal) {
    config.set_debug_level(-1);
    EXPECT_EQ(write_to_audit_buffer(nullptr), -1);
    EXPECT_EQ(write_record(framed("")), -1);
    EXPECT_EQ(write_record(framed("abc", 1)), 0);
    config.set_string(PARAM_AUDITING_DIR, "/nothing");
    EXPECT_EQ(flush_audit_buffer(), -1);
    EXPECT_TRUE(log_lines().empty());
}

// Sending -------------------------------------------------------------------------------------

class AuditSend : public AuditBuffer {
protected:
    AuditSend() {
        audit_event__init(&event);
        event.path = path;
        event.uid = 1;
    }
    char path[4] = "/a";
    AuditEvent event;
};

TEST_F(AuditSend, EventOfTheUserIsBuffered) {
    EXPECT_EQ(send_audit_vfs_event(&event, 4001), 0);
    EXPECT_EQ(event.uid, 4001u);
    EXPECT_EQ(held(), framed(std::string("\x0A\x02/a\x10\xA1\x1F\x18\0\x28\0", 11)));
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(AuditSend, IsTracedAtLevelOne) {
    config.set_debug_level(1);
    EXPECT_EQ(send_audit_vfs_event(&event, 4001), 0);
    ASSERT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(log_lines()[0].message, "send_audit_vfs_event: send audit event\n");
}

TEST_F(AuditSend, GivenUserDecidesWhatIsDropped) {
    reserved_user_uid = 8001;
    EXPECT_EQ(send_audit_vfs_event(&event, 8001), -1);
    EXPECT_EQ(send_audit_vfs_event(&event, 0), -1);
    EXPECT_EQ(fill().records, 0u);
    event.uid = 8001;
    EXPECT_EQ(send_audit_vfs_event(&event, 4001), 0);
    EXPECT_EQ(fill().records, 1u);
    reserved_user_uid = 0;
}

TEST_F(AuditSend, NoEventIsAFailure) {
    EXPECT_EQ(send_audit_vfs_event(nullptr, 4001), -1);
    EXPECT_EQ(logged("vfsevent is null\n"), 1);
    EXPECT_EQ(fill().records, 0u);
}

TEST_F(AuditSend, RefusalOfTheBufferIsNotTheCallers) {
    std::free(std::exchange(global_read_audit_buffer, nullptr));
    EXPECT_EQ(send_audit_vfs_event(&event, 4001), 0);
    EXPECT_EQ(logged("Auditing buffer is NULL\n"), 1);
}

}  // namespace
