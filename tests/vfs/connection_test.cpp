// A connection's record and its start: what connecting looks up, in which order, and what it leaves
// in the record when it fails half-way.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstddef>
#include <type_traits>

#include "connection_fixture.h"

namespace kvtest {
namespace {

// The record, as the module is compiled against it ------------------------------------------------

using Record = kv_connection_private_data_t;
static_assert(offsetof(Record, user_name_as_passed_in) == 0);
static_assert(offsetof(Record, config) == 8 && sizeof(kavrin_config) == 4);
static_assert(offsetof(Record, refresh_creds) == 16 && sizeof(refresh_crendetials_t) == 24);
static_assert(offsetof(Record, groupmap) == 40 && sizeof(process_trustees_t) == 40);
static_assert(offsetof(Record, vfs_table_cache) == 80 && sizeof(kv_vfs_table_cache_t) == 28680);
static_assert(offsetof(Record, pmodify) == 28760 && sizeof(Record) == 28768);
static_assert(std::is_same_v<decltype(Record::user_name_as_passed_in), char*>);
static_assert(std::is_same_v<decltype(Record::pmodify), modify_file_evt_s_t*>);
static_assert(std::is_same_v<decltype(kavrin_config::allow_computeracct), std::int32_t>);

using Creds = refresh_crendetials_t;
static_assert(offsetof(Creds, permmap_refresh) == 0 && offsetof(Creds, groupmap_refresh) == 8);
static_assert(offsetof(Creds, euid) == 16 && offsetof(Creds, tlb_owner) == 20);
static_assert(std::is_same_v<decltype(Creds::permmap_refresh), time_t>);
static_assert(std::is_same_v<decltype(Creds::groupmap_refresh), time_t>);
static_assert(std::is_same_v<decltype(Creds::euid), uid_t>);
static_assert(std::is_same_v<decltype(Creds::tlb_owner), uid_t>);

using Identity = process_trustees_t;
static_assert(offsetof(Identity, euid) == 0 && offsetof(Identity, egid) == 4);
static_assert(offsetof(Identity, num_sup_gids) == 8 && offsetof(Identity, gids) == 16);
static_assert(offsetof(Identity, admin) == 24 && offsetof(Identity, poweruser) == 28);
static_assert(offsetof(Identity, is_computer_acct) == 32);
static_assert(offsetof(Identity, is_global_map_in_use) == 36);
static_assert(std::is_same_v<decltype(Identity::num_sup_gids), std::int32_t>);

using Cache = kv_vfs_table_cache_t;
static_assert(offsetof(Cache, tlb_perms) == 0 && sizeof(Cache::tlb_perms) == 16384);
static_assert(offsetof(Cache, tlb_paths) == 16384 && sizeof(Cache::tlb_paths) == 8192);
static_assert(offsetof(Cache, tlb_index_table) == 24576);
static_assert(offsetof(Cache, flush_tlb) == 28672 && offsetof(Cache, vfs_tlb_end) == 28676);
static_assert(std::is_same_v<decltype(Cache::tlb_index_table), std::int32_t[1024]>);
static_assert(std::is_same_v<decltype(Cache::flush_tlb), std::int32_t>);
static_assert(std::is_same_v<decltype(Cache::vfs_tlb_end), std::int32_t>);
static_assert(offsetof(tlb_perms_t, set) == 0 && offsetof(tlb_perms_t, value) == 8);
static_assert(std::is_same_v<decltype(tlb_perms_t::set), std::uint32_t[2]>);

using Modified = modify_file_evt_s_t;
static_assert(offsetof(Modified, path) == 0 && offsetof(Modified, is_modified) == 8);
static_assert(offsetof(Modified, is_nav_cache) == 12 && sizeof(Modified) == 16);
static_assert(std::is_same_v<decltype(Modified::is_modified), std::int32_t>);
static_assert(std::is_same_v<decltype(Modified::is_nav_cache), std::int32_t>);

const std::string kSemaphoreFailed = "init_perm_map_semaphore FAILED ";

int semaphore_set() {
    return semget(ftok("/dev/null", 7065), 0, 0666);
}
void remove_semaphore_set() {
    if (semaphore_set() >= 0) semctl(semaphore_set(), 0, IPC_RMID);
}

class Connecting : public ConnectionTest {
protected:
    Connecting() { write_default_markers(); }
    ~Connecting() override { remove_semaphore_set(); }

    int connect(const char* user, kv_connection_private_data_t& record, int audit = 0) {
        return connect_preprocess(user, &record, audit, &users);
    }

    int users = 6;
};

// The record's start ------------------------------------------------------------------------------

TEST_F(Connecting, InitialisingTouchesFiveFieldsAndNothingElse) {
    Connection record = new_connection(anna);
    std::memset(static_cast<void*>(record.get()), 0xA5, sizeof *record);
    std::vector<char> expected = bytes_of(*record);
    const auto put = [&](std::size_t offset, auto value) {
        std::memcpy(expected.data() + offset, &value, sizeof value);
    };
    put(0, static_cast<char*>(nullptr));
    put(16 + 16, std::uint32_t{0xFFFFFFFF});
    put(80 + 28672, std::int32_t{9});
    put(80 + 28676, std::int32_t{0});
    put(28760, static_cast<modify_file_evt_s_t*>(nullptr));
    init_private_data(record.get());
    EXPECT_TRUE(bytes_of(*record) == expected);
    std::memset(static_cast<void*>(record.get()), 0, sizeof *record);
}

// Connecting --------------------------------------------------------------------------------------

TEST_F(Connecting, UserIsResolvedAndGroupsAreLoaded) {
    const Connection record = new_connection(anna);
    modify_file_evt_s_t file{};
    record->pmodify = &file;
    record->config.allow_computeracct = 3;
    record->refresh_creds.tlb_owner = 77;
    record->groupmap.is_computer_acct = 1;
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(connect("anna", *record), 0);
    const std::time_t after = std::time(nullptr);

    EXPECT_EQ(users, 7);
    const refresh_crendetials_t& creds = record->refresh_creds;
    EXPECT_GE(creds.permmap_refresh, before);
    EXPECT_LE(creds.permmap_refresh, after);
    EXPECT_EQ(creds.groupmap_refresh, creds.permmap_refresh);
    EXPECT_EQ(creds.euid, kAnna);
    EXPECT_EQ(creds.tlb_owner, 77u) << "only a flush takes the cache over";
    EXPECT_EQ(record->groupmap.euid, kAnna);
    EXPECT_EQ(record->groupmap.egid, getgid());
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    EXPECT_EQ(record->groupmap.is_computer_acct, 0);
    expect_empty(record->vfs_table_cache);
    EXPECT_EQ(record->vfs_table_cache.flush_tlb, 9);
    EXPECT_EQ(record->user_name_as_passed_in, anna.data());
    EXPECT_EQ(record->pmodify, &file);
    EXPECT_EQ(record->config.allow_computeracct, 3);
}

TEST_F(Connecting, ArgumentNamesTheUserAndTheRecordNamesTheGroups) {
    const Connection record = new_connection(boris);
    EXPECT_EQ(connect("anna", *record), 0);
    EXPECT_EQ(record->refresh_creds.euid, kAnna);
    EXPECT_EQ(gids_of(*record), GidList{5003});
}

TEST_F(Connecting, ProgressIsToldInItsOrder) {
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 4096);
    config.set_debug_level(1);
    const Connection record = new_connection(anna);
    clear_log();
    ASSERT_EQ(connect("anna", *record, 2), 0);
    const std::string connected = "kavrin_connect: pid=" + std::to_string(getpid()) +
                                  " (user=anna) current number of connected users=7";
    EXPECT_EQ(logged("audit level is 2"), 1);
    EXPECT_EQ(logged(connected), 1);
    const std::vector<std::string> order = {"audit level is", "Allocating 4096 for audit buffer",
                                            "kavrin_connect:", "Loaded 2 groups at "};
    EXPECT_EQ(logged_in_order(order), order);
}

TEST_F(Connecting, ProgressIsToldFromLevelOne) {
    const Connection record = new_connection(anna);
    const auto body = [&] { EXPECT_EQ(connect("anna", *record), 0); };
    expect_logged_from(1, "audit level is 0", body);
    expect_logged_from(1,
                       "kavrin_connect: pid=\\d+ \\(user=anna\\) current number of connected "
                       "users=\\d+",
                       body);
    config.set_debug_level(0);
    clear_log();
    body();
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Connecting, CacheIsEmptiedButAPendingFlushStays) {
    const Connection record = new_connection(anna);
    init_tlb(&record->vfs_table_cache);
    fill_cache(record->vfs_table_cache);
    record->vfs_table_cache.flush_tlb = 21;
    ASSERT_EQ(connect("anna", *record), 0);
    expect_empty(record->vfs_table_cache);
    EXPECT_EQ(record->vfs_table_cache.flush_tlb, 21);
}

TEST_F(Connecting, SemaphoreSetIsOpenedAndNotReset) {
    remove_semaphore_set();
    const Connection record = new_connection(anna);
    ASSERT_EQ(connect("anna", *record), 0);
    ASSERT_GE(semaphore_set(), 0) << "a missing set is made anew";
    ASSERT_EQ(semctl(semaphore_set(), 0, SETVAL, 1), 0);
    ASSERT_EQ(connect("anna", *record), 0);
    EXPECT_EQ(semctl(semaphore_set(), 0, GETVAL), 1);
}

TEST_F(Connecting, WithoutTheSemaphoreSetTheConnectionIsRefused) {
    remove_semaphore_set();
    const KernelSetting no_semaphores("/proc/sys/kernel/sem", "32000 1024000000 500 0");
    const Connection record = ready_connection(anna, kBoris);
    fill_cache(record->vfs_table_cache);
    record->refresh_creds.permmap_refresh = 11;
    record->refresh_creds.groupmap_refresh = 12;
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 4096);
    const auto body = [&] { EXPECT_EQ(connect("nobody-of-this-name", *record, 1), -1); };
    expect_logged_from(0, literal(kSemaphoreFailed), body);
    expect_empty(record->vfs_table_cache);
    EXPECT_EQ(users, 6);
    EXPECT_EQ(record->refresh_creds.permmap_refresh, 11);
    EXPECT_EQ(record->refresh_creds.groupmap_refresh, 12);
    EXPECT_EQ(record->refresh_creds.euid, kBoris);
    EXPECT_EQ(record->groupmap.gids, nullptr);
    EXPECT_EQ(global_read_audit_buffer, nullptr);
    EXPECT_EQ(logged_part("cound not resolve"), 0);
}

TEST_F(Connecting, UserThatCannotBeLookedUpIsRefused) {
    add_account("lengthy", 4105, 5000);
    remove_semaphore_set();
    const Connection record = ready_connection(anna, kBoris);
    record->refresh_creds.permmap_refresh = 11;
    record->refresh_creds.groupmap_refresh = 12;
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 4096);
    const auto body = [&] { EXPECT_EQ(connect("lengthy", *record, 1), -1); };
    expect_logged_from(0, "Error: cound not resolve user lengthy", body);
    EXPECT_GE(semaphore_set(), 0) << "the set is opened first";
    EXPECT_EQ(users, 6);
    EXPECT_EQ(record->refresh_creds.permmap_refresh, 11);
    EXPECT_EQ(record->refresh_creds.groupmap_refresh, 12);
    EXPECT_EQ(record->refresh_creds.euid, kBoris);
    EXPECT_EQ(record->groupmap.gids, nullptr);
    EXPECT_EQ(global_read_audit_buffer, nullptr);
    EXPECT_EQ(logged_part("audit level"), 0);
}

TEST_F(Connecting, LongAccountIsAcceptedWithFewerRights) {
    // Its entry fits the look-up by name; the one by uid has the system's, smaller, buffer.
    add_account("longish", 4106, 3000);
    std::string name = "longish";
    const Connection record = new_connection(name);
    EXPECT_EQ(connect("longish", *record), 0);
    EXPECT_EQ(record->refresh_creds.euid, 4106u);
    EXPECT_EQ(users, 7);
    EXPECT_EQ(logged_part("Cannot get username for uid 4106"), 1);
    EXPECT_EQ(record->groupmap.gids, nullptr);
}

TEST_F(Connecting, UserWithoutAnAccountIsAcceptedAsNobody) {
    const Connection record = new_connection(anna);
    EXPECT_EQ(connect("nobody-of-this-name", *record), 0);
    EXPECT_EQ(record->refresh_creds.euid, static_cast<uid_t>(-1));
    EXPECT_EQ(record->groupmap.euid, static_cast<uid_t>(-1));
    EXPECT_EQ(record->groupmap.gids, nullptr);
    EXPECT_EQ(users, 7);
    EXPECT_EQ(logged("reset_groupmap: No user with uid 4294967295"), 1);
}

TEST_F(Connecting, NullUserIsRefused) {
    const Connection record = new_connection(anna);
    EXPECT_EQ(connect(nullptr, *record), -1);
    EXPECT_EQ(users, 6);
}

TEST_F(Connecting, MissingGroupMapMakesNoDifference) {
    unlink(kGroupMapFile);
    const Connection record = new_connection(anna);
    EXPECT_EQ(connect("anna", *record), 0);
    EXPECT_EQ(record->refresh_creds.euid, kAnna);
    EXPECT_EQ(record->groupmap.euid, kAnna);
    EXPECT_EQ(record->groupmap.gids, nullptr);
    EXPECT_EQ(record->groupmap.num_sup_gids, 0);
}

TEST_F(Connecting, RecordWithoutANameIsAcceptedWithoutGroups) {
    const Connection record = new_connection(anna);
    record->user_name_as_passed_in = nullptr;
    EXPECT_EQ(connect("anna", *record), 0);
    EXPECT_EQ(record->refresh_creds.euid, kAnna);
    EXPECT_EQ(record->groupmap.gids, nullptr);
    EXPECT_EQ(users, 7);
}

TEST_F(Connecting, ConnectingTwiceStartsOver) {
    const Connection record = new_connection(anna);
    ASSERT_EQ(connect("anna", *record), 0);
    fill_cache(record->vfs_table_cache);
    record->refresh_creds.permmap_refresh = 5;
    record->user_name_as_passed_in = boris.data();
    ASSERT_EQ(connect("boris", *record), 0);
    expect_empty(record->vfs_table_cache);
    EXPECT_EQ(users, 8);
    EXPECT_EQ(record->refresh_creds.euid, kBoris);
    EXPECT_GT(record->refresh_creds.permmap_refresh, 5);
    EXPECT_EQ(gids_of(*record), GidList{5003});
}

TEST_F(Connecting, ConnectingTwiceGivesTheOldPathsBack) {
    const Connection record = new_connection(anna);
    EXPECT_LT(heap_growth(100,
                          [&] {
                              ASSERT_EQ(connect("anna", *record), 0);
                              fill_cache(record->vfs_table_cache, 2000);
                          }),
              200000u)
        << "a round takes 6000 bytes";
}

// The audit buffer --------------------------------------------------------------------------------

TEST_F(Connecting, AuditBufferIsMadeOnlyWithAuditingOn) {
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 4096);
    const Connection record = new_connection(anna);
    ASSERT_EQ(connect("anna", *record, 0), 0);
    EXPECT_EQ(global_read_audit_buffer, nullptr);
    for (const int enabled : {1, 2, -1}) {
        ASSERT_EQ(connect("anna", *record, enabled), 0);
        ASSERT_NE(global_read_audit_buffer, nullptr) << enabled;
        EXPECT_GE(malloc_usable_size(global_read_audit_buffer), 4096u);
        EXPECT_EQ(global_read_audit_buffer->next_offset, 16u);
        EXPECT_EQ(global_read_audit_buffer->num_records, 0u);
        std::free(std::exchange(global_read_audit_buffer, nullptr));
    }
}

TEST_F(Connecting, AuditBufferThatCannotBeMadeRefusesNobody) {
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 0);
    const Connection record = new_connection(anna);
    EXPECT_EQ(connect("anna", *record, 1), 0);
    EXPECT_EQ(global_read_audit_buffer, nullptr);
    EXPECT_EQ(users, 7);
}

}  // namespace
}  // namespace kvtest
