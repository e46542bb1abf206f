// Payloads byte by byte, against encodings worked out by hand: other programs read them.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

#include "support.h"

namespace {

// Pieces of a message: bytes of keys and lengths, and text.
std::string bytes(std::initializer_list<int> values) {
    std::string text;
    for (const int value : values) text += static_cast<char>(value);
    return text;
}

std::string payload(staging_data_t* record) {
    if (record == nullptr) return "(no record)";
    std::string text(reinterpret_cast<const char*>(record->buffer), record->size);
    free(record);
    return text;
}

class EventWire : public testing::Test {
protected:
    EventWire() {
        vfsevent__init(&event);
        event.path = path;
        event.uid = 1;
        audit_event__init(&audit);
        audit.path = path;
        audit.uid = 1;
    }
    std::string packed() { return payload(create_staging_data_buf(&event)); }
    std::string packed_audit() { return payload(create_audit_data_buf(&audit)); }

    kvtest::ConfigTable config;
    char path[8] = "/a/b";
    VFSEvent event;
    AuditEvent audit;
};

TEST_F(EventWire, EveryFieldOfAnEventHasItsPlace) {
    char renamed[] = "/c";
    char user[] = "ann";
    event.client_pid = 300;
    event.uid = 4001;
    event.rename_path = renamed;
    event.optype = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
    event.time_sec = 1700000000;
    event.time_usec = 999999;
    event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;
    event.kavrin_user = user;
    EXPECT_EQ(packed(), bytes({0x08, 0xAC, 0x02,                    // pid 300
                               0x12, 4,    '/',  'a',  '/',  'b',   // path
                               0x18, 0xA1, 0x1F,                    // uid 4001
                               0x22, 2,    '/',  'c',               // new path
                               0x28, 7,                             // rename
                               0x30, 0x80, 0xE2, 0xCF, 0xAA, 0x06,  // seconds
                               0x38, 0xBF, 0x84, 0x3D,              // microseconds
                               0x40, 1,                             // folder
                               0x4A, 3,    'a',  'n',  'n'}));      // account
}

TEST_F(EventWire, OptionalFieldsOfAnEventAreLeftOut) {
    EXPECT_EQ(packed(), bytes({0x08, 0, 0x12, 4, '/', 'a', '/', 'b', 0x18, 1, 0x28, 0, 0x30, 0,
                               0x38, 0, 0x40, 0}));
}

TEST_F(EventWire, OptionalFieldsOfAnEventAreIndependent) {
    const std::string start = bytes({0x08, 0, 0x12, 4, '/', 'a', '/', 'b', 0x18, 1});
    const std::string rest = bytes({0x28, 0, 0x30, 0, 0x38, 0, 0x40, 0});
    char text[] = "z";
    event.rename_path = text;
    EXPECT_EQ(packed(), start + bytes({0x22, 1, 'z'}) + rest);
    event.rename_path = nullptr;
    event.kavrin_user = text;
    EXPECT_EQ(packed(), start + rest + bytes({0x4A, 1, 'z'}));
    char empty[] = "";
    event.kavrin_user = empty;  // there, and empty
    EXPECT_EQ(packed(), start + rest + bytes({0x4A, 0}));
}

TEST_F(EventWire, EventWithoutOptionalFieldsIsReadBack) {
    staging_data_t* const record = create_staging_data_buf(&event);
    ASSERT_NE(record, nullptr);
    VFSEvent* const back = vfsevent__unpack(nullptr, record->size, record->buffer);
    ASSERT_NE(back, nullptr);
    EXPECT_STREQ(back->path, "/a/b");
    EXPECT_EQ(back->rename_path, nullptr);
    EXPECT_EQ(back->kavrin_user, nullptr);
    vfsevent__free_unpacked(back, nullptr);
    free(record);
}

TEST_F(EventWire, OperationsHaveTheirNumbers) {
    const VFSEvent__OpType operations[] = {
        VFSEVENT__OP_TYPE__OPTYPE_CONNECT, VFSEVENT__OP_TYPE__OPTYPE_DISCONNECT,
        VFSEVENT__OP_TYPE__OPTYPE_OPENDIR, VFSEVENT__OP_TYPE__OPTYPE_MKDIR,
        VFSEVENT__OP_TYPE__OPTYPE_RMDIR,   VFSEVENT__OP_TYPE__OPTYPE_OPEN,
        VFSEVENT__OP_TYPE__OPTYPE_CLOSE,   VFSEVENT__OP_TYPE__OPTYPE_RENAME,
        VFSEVENT__OP_TYPE__OPTYPE_UNLINK,  VFSEVENT__OP_TYPE__OPTYPE_CHMOD,
        VFSEVENT__OP_TYPE__OPTYPE_CREATE};
    char number = 0;
    for (const VFSEvent__OpType operation : operations) {
        event.optype = operation;
        const std::string message = packed();
        EXPECT_EQ(message[10], 0x28);
        EXPECT_EQ(message[11], number++);
    }
    EXPECT_EQ(number, 11);
}

TEST_F(EventWire, FileIsZeroAndFolderIsOne) {
    event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE;
    EXPECT_EQ(packed().substr(16), bytes({0x40, 0}));
    event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;
    EXPECT_EQ(packed().substr(16), bytes({0x40, 1}));
}

TEST_F(EventWire, NumbersTakeAsManyBytesAsTheyNeed) {
    event.client_pid = INT_MAX;
    event.uid = 0xFFFFFFFF;
    event.time_sec = -1;  // signed numbers below zero take ten bytes
    event.time_usec = 128;
    EXPECT_EQ(packed(),
              bytes({0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0x07, 0x12, 4,    '/',  'a',  '/',  'b',
                     0x18, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0x28, 0,    0x30, 0xFF, 0xFF, 0xFF,
                     0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x38, 0x80, 0x01, 0x40, 0}));
}

TEST_F(EventWire, TextIsCopiedByteForByte) {
    std::string name = "/\xC3\xA9\xFF\n";
    name += std::string(200, 'n');
    event.path = name.data();
    EXPECT_EQ(packed().substr(2, 208), bytes({0x12, 0xCD, 0x01}) + name);
}

TEST_F(EventWire, EveryFieldOfAnAuditEventHasItsPlace) {
    char address[] = "::1";
    audit.uid = 4001;
    audit.time_sec = 1700000000;
    audit.ip_address = address;
    audit.size = 4096;
    EXPECT_EQ(packed_audit(), bytes({0x0A, 4,    '/',  'a',  '/',  'b',   // path
                                     0x10, 0xA1, 0x1F,                    // uid
                                     0x18, 0x80, 0xE2, 0xCF, 0xAA, 0x06,  // seconds
                                     0x22, 3,    ':',  ':',  '1',         // address
                                     0x28, 0x80, 0x20}));                 // bytes
}

TEST_F(EventWire, AddressOfAnAuditEventIsOptional) {
    EXPECT_EQ(packed_audit(), bytes({0x0A, 4, '/', 'a', '/', 'b', 0x10, 1, 0x18, 0, 0x28, 0}));
}

TEST_F(EventWire, SizeOfAnAuditEventHasSixtyFourBits) {
    static_assert(std::is_same_v<decltype(AuditEvent::size), std::uint64_t>);
    audit.size = 0xFFFFFFFFFFFFFFFFull;
    audit.time_sec = INT_MIN;
    EXPECT_EQ(packed_audit(), bytes({0x0A, 4,    '/',  'a',  '/',  'b',  0x10, 1,    0x18, 0x80,
                                     0x80, 0x80, 0x80, 0xF8, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x28,
                                     0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}));
}

}  // namespace
