// A connection's end: what disconnecting gives back and what it writes out, as whom and in which
// order. And the accounts that are special to a connection.
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "connection_fixture.h"

namespace kvtest {
namespace {

const std::string kNoBuffer = "cannot access staging buffer.\n";

class Disconnecting : public ConnectionTest {
protected:
    Disconnecting() : staging(make_temp_dir()), auditing(make_temp_dir()) {
        config.set_int(PARAM_STAGING_BUFFER_SIZE, 20800);
        config.set_int(PARAM_FLUSH_FILL_THRESHOLD, 80);
        config.set_string(PARAM_STAGING_DIR, staging);
        config.set_string(PARAM_AUDITING_DIR, auditing);
        config.set_int(PARAM_AUDITING_BUFFER_SIZE, 4096);
        config.set_int(PARAM_AUDITING_FLUSH_INTERVAL, 100000);
        EXPECT_EQ(create_eventstore_staging_semaphore(), 1);
        EXPECT_EQ(create_staging_buffer(), 0);
        for (const std::string& folder : {staging, auditing})
            EXPECT_EQ(chmod(folder.c_str(), 0700), 0);
    }
    ~Disconnecting() override {
        remove_staging_buffers();
        destroy_eventstore_staging_buffer_semaphore();
    }

    // A framed record of some payload, and the bytes it is in a file.
    static std::string framed(const std::string& payload) {
        const std::uint32_t words[2] = {static_cast<std::uint32_t>(payload.size()), 0x04012010};
        return std::string(reinterpret_cast<const char*>(words), sizeof words) + payload;
    }
    static void buffer_both(const std::string& event, const std::string& read) {
        init_audit_buffer();
        std::string record = framed(event);
        ASSERT_EQ(write_to_staging_buffer(reinterpret_cast<staging_data_t*>(record.data())), 0);
        record = framed(read);
        ASSERT_EQ(write_to_audit_buffer(reinterpret_cast<staging_data_t*>(record.data())), 0);
    }
    static std::vector<std::string> contents(const std::string& folder) {
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            EXPECT_EQ(entry.path().filename().string().substr(0, 8), "pending_");
            files.push_back(read_file(entry.path()));
        }
        return files;
    }
    static std::uint32_t staged() {
        staging_buffer_t* const buffer = get_eventstore_staging_buffer();
        const std::uint32_t count = buffer->num_records;
        put_eventstore_staging_buffer(buffer);
        return count;
    }

    std::string staging;
    std::string auditing;
};

TEST_F(Disconnecting, BothBuffersAreWrittenOut) {
    const Connection record = new_connection(anna);
    int users = 6;
    ASSERT_EQ(connect_preprocess("anna", record.get(), 1, &users), 0);
    buffer_both("an event", "a read");
    disconnect_preprocess(record.get(), 1);
    EXPECT_EQ(contents(staging), std::vector{framed("an event")});
    EXPECT_EQ(contents(auditing), std::vector{framed("a read")});
    EXPECT_EQ(staged(), 0u);
    EXPECT_EQ(global_read_audit_buffer->num_records, 0u);
    EXPECT_EQ(users, 7) << "the count is the module's to lower";
}

TEST_F(Disconnecting, ReadsAreWrittenOutOnlyWithAuditingOn) {
    const Connection record = ready_connection(anna, kAnna);
    buffer_both("an event", "a read");
    disconnect_preprocess(record.get(), 0);
    EXPECT_EQ(contents(staging), std::vector{framed("an event")});
    EXPECT_TRUE(contents(auditing).empty());
    EXPECT_EQ(global_read_audit_buffer->num_records, 1u);
    disconnect_preprocess(record.get(), -1);
    EXPECT_EQ(contents(auditing), std::vector{framed("a read")});
}

TEST_F(Disconnecting, FilesAreWrittenAsRootAndTheUserIsTheUserAgain) {
    expect_in_child([&] {
        become_user(kAnna, 4100, {});
        const Connection record = ready_connection(anna, kAnna);
        buffer_both("an event", "a read");
        disconnect_preprocess(record.get(), 1);
        EXPECT_EQ(geteuid(), kAnna);
        EXPECT_EQ(global_read_audit_buffer->num_records, 0u);
    });
    EXPECT_EQ(contents(staging), std::vector{framed("an event")});
    EXPECT_EQ(contents(auditing), std::vector{framed("a read")});
}

TEST_F(Disconnecting, EventsAreWrittenBeforeReadsAndReadsEvenWithoutThem) {
    ASSERT_EQ(mkdir("/kavrin/.conf", 0755) == 0 || errno == EEXIST, true);
    const Connection record = ready_connection(anna, kAnna);
    buffer_both("an event", "a read");
    config.set_string(PARAM_STAGING_DIR, "/nonexistent-s");
    config.set_string(PARAM_AUDITING_DIR, "/nonexistent-a");
    clear_log();
    disconnect_preprocess(record.get(), 1);
    const std::vector<std::string> order = {"missing staging directory /nonexistent-s",
                                            "missing auditing directory /nonexistent-a"};
    EXPECT_EQ(logged_in_order(order), order);
}

TEST_F(Disconnecting, CacheIsGivenBackAndAPendingFlushStays) {
    const Connection record = ready_connection(anna, kAnna);
    fill_cache(record->vfs_table_cache);
    record->vfs_table_cache.flush_tlb = 21;
    disconnect_preprocess(record.get(), 0);
    expect_empty(record->vfs_table_cache);
    EXPECT_EQ(record->vfs_table_cache.flush_tlb, 21);
    EXPECT_LT(heap_growth(100,
                          [&] {
                              fill_cache(record->vfs_table_cache, 2000);
                              disconnect_preprocess(record.get(), 0);
                          }),
              200000u)
        << "a round takes 6000 bytes";
}

TEST_F(Disconnecting, WithoutAnAuditBufferThereIsNothingToWrite) {
    const Connection record = ready_connection(anna, kAnna);
    disconnect_preprocess(record.get(), 0);
    EXPECT_EQ(logged(kNoBuffer), 0);
    disconnect_preprocess(record.get(), 1);
    EXPECT_EQ(logged(kNoBuffer), 1);
    EXPECT_TRUE(contents(staging).empty()) << "an empty buffer makes no file";
}

// Special accounts --------------------------------------------------------------------------------

class SpecialAccounts : public ConnectionTest {};

TEST_F(SpecialAccounts, ComputerNameEndsInADollar) {
    EXPECT_EQ(is_computer_name("host$"), 1);
    EXPECT_EQ(is_computer_name("$"), 1);
    EXPECT_EQ(is_computer_name("a$b$"), 1);
    for (const char* name : {"host", "$host", "ho$t", "host$ ", "host$a"})
        EXPECT_EQ(is_computer_name(name), 0) << name;
    EXPECT_EQ(is_computer_name(nullptr), 0);
    const char dollar[] = "$";
    EXPECT_EQ(is_computer_name(dollar + 1), 0) << "an empty name";
}

TEST_F(SpecialAccounts, CheckTellsWhatItFound) {
    expect_logged_from(3, literal("_check_if_special_user: account_name=host$ is a computer acct"),
                       [] { EXPECT_EQ(_check_if_special_user("host$"), 1); });
    expect_logged_from(10,
                       literal("_check_if_special_user: account_name=anna is NOT a computer acct"),
                       [] { EXPECT_EQ(_check_if_special_user("anna"), 0); });
    EXPECT_EQ(_check_if_special_user(nullptr), 0);
}

const std::string kNoReserved =
    "Error: Could not determine kavrin reserved user kavrin_smb_admin_reserved info";

TEST_F(SpecialAccounts, ReservedAccountIsLearnt) {
    add_account("kavrin_smb_admin_reserved", 8001, 300);
    config.set_debug_level(10);
    clear_log();
    set_reserved_user_uid();
    EXPECT_EQ(reserved_user_uid, 8001u);
    EXPECT_EQ(logged(kNoReserved), 0);
}

TEST_F(SpecialAccounts, WithoutTheReservedAccountItsUidStays) {
    add_account("kavrin_smb_admin", 8002);
    for (const uid_t before : {0u, 8009u}) {
        reserved_user_uid = before;
        expect_logged_from(0, literal(kNoReserved), set_reserved_user_uid);
        EXPECT_EQ(reserved_user_uid, before);
    }
}

TEST_F(SpecialAccounts, ReservedAccountTooLongForTheLookUpIsNotLearnt) {
    add_account("kavrin_smb_admin_reserved", 8001, 600);
    reserved_user_uid = 8009;
    expect_logged_from(0, literal(kNoReserved), set_reserved_user_uid);
    EXPECT_EQ(reserved_user_uid, 8009u);
}

}  // namespace
}  // namespace kvtest
