// Events on their way into framed records: stamps, the filter that drops the service's own work,
// and the frame. What the payload looks like on the wire is in event_wire_test.cpp.
#include <grp.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "file_probe.h"
#include "provoke.h"
#include "support.h"

namespace {

using kvtest::clear_log;
using kvtest::ConfigTable;
using kvtest::expect_in_child;
using kvtest::log_lines;
using kvtest::logged;
using kvtest::SteeredClock;

constexpr uid_t kUser = 4001;
constexpr uid_t kReserved = 8001;

struct FreeRecord {
    void operator()(staging_data_t* record) const { free(record); }
};
using Record = std::unique_ptr<staging_data_t, FreeRecord>;

class EventRecords : public testing::Test {
protected:
    EventRecords() {
        reserved_user_uid = 0;
        vfsevent__init(&event);
        event.client_pid = 77;
        event.path = path;
        event.uid = kUser;
        event.optype = VFSEVENT__OP_TYPE__OPTYPE_CREATE;
        audit_event__init(&audit);
        audit.path = path;
        audit.uid = kUser;
        audit.size = 9;
    }
    ~EventRecords() override { reserved_user_uid = 0; }

    // Expects that `body` logs this message at this debug level and is silent one below.
    template <typename Body>
    void expect_logged_from(int level, const std::string& message, Body body) {
        for (const int at : {level - 1, level, level + 1}) {
            config.set_debug_level(at);
            clear_log();
            body();
            EXPECT_EQ(logged(message), at < level ? 0 : 1) << "at level " << at << ": " << message;
        }
        for (const kvtest::LogLine& line : log_lines()) {
            EXPECT_EQ(line.priority, 6);
            EXPECT_FALSE(line.file.empty());
            EXPECT_GT(line.line, 0);
            EXPECT_FALSE(line.function.empty());
        }
    }

    ConfigTable config;
    char path[16] = "/share/a.txt";
    VFSEvent event;
    AuditEvent audit;
};

// The frame -----------------------------------------------------------------------------------

TEST_F(EventRecords, FrameCountsItselfUntilAMessageIsPacked) {
    const Record record(alloc_staging_data(5));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->size, 13u);
    EXPECT_EQ(record->sig, 0x04012010u);
    EXPECT_GE(malloc_usable_size(record.get()), 13u);
}

TEST_F(EventRecords, FrameIsLittleEndianWithoutGaps) {
    const Record record(alloc_staging_data(300));
    const std::uint8_t expected[9] = {0x34, 0x01, 0, 0, 0x10, 0x20, 0x01, 0x04, 0};
    EXPECT_EQ(std::memcmp(record.get(), expected, sizeof expected), 0);
}

TEST_F(EventRecords, PayloadBeginsAsZeros) {
    // Blocks of this size that are given back full, so that a new one is not zero by chance.
    void* blocks[8];
    for (void*& block : blocks) std::memset(block = malloc(208), 0xFF, 208);
    for (void* block : blocks) free(block);
    for (int i = 0; i < 8; ++i) {
        const Record record(alloc_staging_data(200));
        for (int byte = 0; byte < 200; ++byte) ASSERT_EQ(record->buffer[byte], 0) << byte;
        std::memset(record->buffer, 0xFF, 200);
    }
}

TEST_F(EventRecords, FrameNeedsAPayload) {
    for (const int size : {0, -1, -8, INT_MIN})
        EXPECT_EQ(alloc_staging_data(size), nullptr) << size;
    const Record record(alloc_staging_data(1));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->size, 9u);
}

TEST_F(EventRecords, WithoutMemoryThereIsNoFrame) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const kvtest::RefusedAllocation refused(1);
    EXPECT_EQ(alloc_staging_data(5), nullptr);
}

// Stamps --------------------------------------------------------------------------------------

TEST_F(EventRecords, EventIsStampedWithProcessUserAndTime) {
    const SteeredClock clock(1700000123, 456789);
    expect_in_child([&] {
        kvtest::become_user(kUser, 4002, {});
        event.uid = 1;
        EXPECT_EQ(pop_vfs_event(&event), 0);
        EXPECT_EQ(event.client_pid, getpid());
        EXPECT_EQ(event.uid, kUser);  // the effective one: the real one is root
        EXPECT_EQ(event.time_sec, 1700000123);
        EXPECT_EQ(event.time_usec, 456789);
        EXPECT_STREQ(event.path, path);
        EXPECT_EQ(event.optype, VFSEVENT__OP_TYPE__OPTYPE_CREATE);
    });
}

TEST_F(EventRecords, StampIsTheWallClocks) {
    const std::int64_t before = std::time(nullptr);
    EXPECT_EQ(pop_vfs_event(&event), 0);
    EXPECT_EQ(pop_audit_event(&audit), 0);
    const std::int64_t after = std::time(nullptr);
    EXPECT_GE(event.time_sec, before);
    EXPECT_LE(event.time_sec, after);
    EXPECT_GE(audit.time_sec, before);
    EXPECT_LE(audit.time_sec, after);
    EXPECT_GE(event.time_usec, 0);
    EXPECT_LT(event.time_usec, 1000000);
}

TEST_F(EventRecords, StampsAreCutToThirtyTwoBits) {
    const SteeredClock clock(0x180000005LL, 7);
    pop_vfs_event(&event);
    pop_audit_event(&audit);
    EXPECT_EQ(event.time_sec, INT_MIN + 5);
    EXPECT_EQ(audit.time_sec, INT_MIN + 5);
}

TEST_F(EventRecords, EventStampedWhileRootIsDropped) {
    expect_in_child([&] {
        kvtest::become_user(kUser, 4002, {});
        kv_perm_ctx_t* const context = kavrin_vfs_become_root();
        pop_vfs_event(&event);
        EXPECT_EQ(event.uid, 0u);
        kavrin_vfs_unbecome_root(context);
        EXPECT_EQ(create_staging_data_buf(&event), nullptr);
        pop_vfs_event(&event);
        EXPECT_NE(create_staging_data_buf(&event), nullptr);
    });
}

TEST_F(EventRecords, AuditEventIsStampedWithTheTimeOnly) {
    const SteeredClock clock(1700000123, 456789);
    char address[] = "10.0.0.1";
    audit.uid = 31;
    audit.ip_address = address;
    EXPECT_EQ(pop_audit_event(&audit), 0);
    EXPECT_EQ(audit.time_sec, 1700000123);
    EXPECT_EQ(audit.uid, 31u);
    EXPECT_EQ(audit.size, 9u);
    EXPECT_EQ(audit.ip_address, address);
    EXPECT_EQ(audit.path, path);
}

TEST_F(EventRecords, StampsAreTracedAtLevelTen) {
    const SteeredClock clock(1700000123, 45);
    expect_logged_from(10,
                       "pop_vfs_event: Time stamp=1700000123(secs) 45(msecs) uid=0 "
                       "path=/share/a.txt\n",
                       [&] { pop_vfs_event(&event); });
    expect_logged_from(10,
                       "pop_audit_event: Time stamp=1700000123(secs) uid=4001 path=/share/a.txt\n",
                       [&] { pop_audit_event(&audit); });
}

// The filter ----------------------------------------------------------------------------------

TEST_F(EventRecords, WorkOfRootIsDropped) {
    for (const uid_t reserved : {0u, kReserved}) {
        reserved_user_uid = reserved;
        event.uid = audit.uid = 0;
        EXPECT_EQ(create_staging_data_buf(&event), nullptr);
        EXPECT_EQ(create_audit_data_buf(&audit), nullptr);
        EXPECT_TRUE(log_lines().empty());
    }
}

TEST_F(EventRecords, WorkOfTheReservedUserIsDropped) {
    event.uid = audit.uid = kReserved;
    EXPECT_NE(Record(create_staging_data_buf(&event)), nullptr);
    EXPECT_NE(Record(create_audit_data_buf(&audit)), nullptr);
    reserved_user_uid = kReserved;
    EXPECT_EQ(create_staging_data_buf(&event), nullptr);
    EXPECT_EQ(create_audit_data_buf(&audit), nullptr);
    event.uid = audit.uid = kReserved + 1;
    EXPECT_NE(Record(create_staging_data_buf(&event)), nullptr);
    EXPECT_NE(Record(create_audit_data_buf(&audit)), nullptr);
}

TEST_F(EventRecords, DroppedEventsAreTracedAtLevelFive) {
    const std::string message =
        "Ignoring reserved user events [/share/a.txt] pid " + std::to_string(getpid()) + "\n";
    reserved_user_uid = kReserved;
    for (const uid_t uid : {0u, kReserved}) {
        event.uid = audit.uid = uid;
        event.client_pid = 1;
        expect_logged_from(5, message, [&] { create_staging_data_buf(&event); });
        expect_logged_from(5, message, [&] { create_audit_data_buf(&audit); });
    }
}

TEST_F(EventRecords, SendersReportADroppedEvent) {
    event.uid = 0;
    EXPECT_EQ(send_modify_vfs_event(&event), -1);
    EXPECT_EQ(send_audit_vfs_event(&audit, 0), -1);
    EXPECT_TRUE(log_lines().empty());
}

// The record ----------------------------------------------------------------------------------

TEST_F(EventRecords, SizeOfARecordIsThePayloadsOnly) {
    const Record record(create_staging_data_buf(&event));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->size, vfsevent__get_packed_size(&event));
    EXPECT_EQ(record->sig, 0x04012010u);
    const Record audited(create_audit_data_buf(&audit));
    ASSERT_NE(audited, nullptr);
    EXPECT_EQ(audited->size, audit_event__get_packed_size(&audit));
    EXPECT_EQ(audited->sig, 0x04012010u);
}

TEST_F(EventRecords, MessageIsLeftAsItWas) {
    const VFSEvent event_before = event;
    const AuditEvent audit_before = audit;
    const Record record(create_staging_data_buf(&event));
    const Record audited(create_audit_data_buf(&audit));
    EXPECT_EQ(std::memcmp(&event, &event_before, sizeof event), 0);
    EXPECT_EQ(std::memcmp(&audit, &audit_before, sizeof audit), 0);
    EXPECT_STREQ(path, "/share/a.txt");
}

TEST_F(EventRecords, LongPathsFit) {
    std::string long_path(100000, 'p');
    event.path = audit.path = long_path.data();
    const Record record(create_staging_data_buf(&event));
    ASSERT_NE(record, nullptr);
    VFSEvent* const back = vfsevent__unpack(nullptr, record->size, record->buffer);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->path, long_path);
    vfsevent__free_unpacked(back, nullptr);
    const Record audited(create_audit_data_buf(&audit));
    ASSERT_NE(audited, nullptr);
    EXPECT_GT(audited->size, 100000u);
}

TEST_F(EventRecords, NoMessageIsAFailure) {
    expect_logged_from(0, "vfsevent is null\n",
                       [] { EXPECT_EQ(create_staging_data_buf(nullptr), nullptr); });
    expect_logged_from(0, "vfsevent is null\n",
                       [] { EXPECT_EQ(create_audit_data_buf(nullptr), nullptr); });
    config.set_debug_level(0);
    clear_log();
    EXPECT_EQ(send_modify_vfs_event(nullptr), -1);
    EXPECT_EQ(logged("vfsevent is null\n"), 1);
}

TEST_F(EventRecords, WithoutMemoryThereIsNoRecord) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const std::string reason = " staging data. errno = 12(Cannot allocate memory)\n";
    expect_logged_from(0, "could not allocate event" + reason, [&] {
        staging_data_t* record = nullptr;
        {
            const kvtest::RefusedAllocation refused(1);
            record = create_staging_data_buf(&event);
        }
        EXPECT_EQ(record, nullptr);
    });
    expect_logged_from(0, "could not allocate audit" + reason, [&] {
        staging_data_t* record = nullptr;
        {
            const kvtest::RefusedAllocation refused(1);
            record = create_audit_data_buf(&audit);
        }
        EXPECT_EQ(record, nullptr);
    });
}

TEST_F(EventRecords, SendersReportThatThereWasNoMemory) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    int sent[2];
    {
        const kvtest::RefusedAllocation refused(1);
        sent[0] = send_modify_vfs_event(&event);
    }
    {
        const kvtest::RefusedAllocation refused(1);
        sent[1] = send_audit_vfs_event(&audit, kUser);
    }
    EXPECT_EQ(sent[0], -1);
    EXPECT_EQ(sent[1], -1);
}

TEST_F(EventRecords, RecordsAreTracedAtLevelTen) {
    const std::string event_size = std::to_string(vfsevent__get_packed_size(&event));
    const std::string audit_size = std::to_string(audit_event__get_packed_size(&audit));
    expect_logged_from(10, "event " + event_size + " [/share/a.txt]\n",
                       [&] { const Record record(create_staging_data_buf(&event)); });
    expect_logged_from(10, "audit " + audit_size + " [/share/a.txt]\n",
                       [&] { const Record record(create_audit_data_buf(&audit)); });
}

}  // namespace
