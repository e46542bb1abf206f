// A reset of a connection's groups: what it reads of the accounts and of the group map, what it
// replaces, and what it leaves alone when it fails half-way.
#include <grp.h>

#include "connection_fixture.h"

namespace kvtest {
namespace {

class GroupReset : public ConnectionTest {
protected:
    GroupReset() { write_default_markers(); }

    // What a reset that fails must leave alone, with values that none would give it.
    static void mark(kv_connection_private_data_t& record) {
        record.groupmap.euid = 61;
        record.groupmap.egid = 62;
        record.groupmap.gids = static_cast<gid_t*>(std::calloc(3, sizeof(gid_t)));
        record.groupmap.num_sup_gids = 3;
        record.groupmap.is_computer_acct = 7;
    }
    // Expects a reset to fail with this message and to have touched euid and egid only.
    void expect_failure(kv_connection_private_data_t& record, const std::string& message,
                        int refused_allocation = 0) {
        ASSERT_NE(g_kavrin_grouplist_map, nullptr) << "of an earlier reset";
        mark(record);
        gid_t* const gids = record.groupmap.gids;
        void* const map = g_kavrin_grouplist_map;
        const std::uint32_t size = g_kavrin_grouplist_map_size;
        const uid_t uid = record.refresh_creds.euid;
        expect_logged_from(0, literal(message), [&] {
            if (refused_allocation == 0) {
                EXPECT_EQ(reset_groupmap(&record), -1);
                return;
            }
            const RefusedAllocation refused(refused_allocation);
            EXPECT_EQ(reset_groupmap(&record), -1);
        });
        EXPECT_EQ(record.groupmap.gids, gids);
        EXPECT_EQ(record.groupmap.num_sup_gids, 3);
        EXPECT_EQ(record.groupmap.is_computer_acct, 7);
        EXPECT_EQ(g_kavrin_grouplist_map, map);
        EXPECT_EQ(g_kavrin_grouplist_map_size, size);
        EXPECT_EQ(record.groupmap.euid, uid);
        EXPECT_EQ(record.groupmap.egid, getgid());
    }
    // A mapping and some groups, as an earlier reset left them.
    Connection loaded_connection() {
        Connection record = ready_connection(anna, kAnna);
        EXPECT_EQ(reset_groupmap(record.get()), 0);
        EXPECT_NE(g_kavrin_grouplist_map, nullptr);
        return record;
    }
};

TEST_F(GroupReset, IdentityIsTheRecordsUidAndTheProcessesRealGroup) {
    expect_in_child([&] {
        ASSERT_EQ(setresgid(4301, 4302, 4303), 0);
        ASSERT_EQ(setresuid(0, kBoris, 0), 0);
        const Connection record = ready_connection(anna, kAnna);
        EXPECT_EQ(reset_groupmap(record.get()), 0);
        EXPECT_EQ(record->groupmap.euid, kAnna);
        EXPECT_EQ(record->groupmap.egid, 4301u);
        EXPECT_EQ(geteuid(), kBoris);
    });
}

TEST_F(GroupReset, GroupsAreThoseOfTheNameAsPassedIn) {
    std::string name = "ANNA";
    const Connection record = ready_connection(name, kBoris);
    EXPECT_EQ(reset_groupmap(record.get()), 0);
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    EXPECT_EQ(record->groupmap.euid, kBoris);
}

TEST_F(GroupReset, OldGroupsAreReplaced) {
    const Connection record = loaded_connection();
    record->groupmap.admin = 4;
    record->groupmap.poweruser = 5;
    record->groupmap.is_global_map_in_use = 6;
    replace_file(kGroupMapFile, group_map({{"anna", {5007}}}, {}, 12288));
    EXPECT_EQ(reset_groupmap(record.get()), 0);
    EXPECT_EQ(gids_of(*record), GidList{5007});
    EXPECT_EQ(g_kavrin_grouplist_map_size, 12288u);
    EXPECT_EQ(mappings_of(kGroupMapFile), 1) << "the old one is given back";
    EXPECT_EQ(record->groupmap.admin, 4) << "standing is the verdict's business";
    EXPECT_EQ(record->groupmap.poweruser, 5);
    EXPECT_EQ(record->groupmap.is_global_map_in_use, 6);
}

TEST_F(GroupReset, UserMissingFromTheMapHasNoGroups) {
    const Connection record = loaded_connection();
    replace_file(kGroupMapFile, group_map({{"boris", {5003}}}));
    EXPECT_EQ(reset_groupmap(record.get()), 0);
    EXPECT_EQ(record->groupmap.gids, nullptr);
    EXPECT_EQ(record->groupmap.num_sup_gids, 0);
}

TEST_F(GroupReset, ReservedGroupsAreHandedToTheEnforcement) {
    const Connection record = loaded_connection();
    expect_logged_from(
        10, "\nvfs_set_admins_powerusers: kavrin_admins_gid=7001 kavrin_powerusers_gid=7002",
        [&] { EXPECT_EQ(reset_groupmap(record.get()), 0); });
    replace_file(kGroupMapFile, group_map({{"anna", {5001}}}, {{"kavrin-admins", 7011}}));
    expect_logged_from(
        10, "\nvfs_set_admins_powerusers: kavrin_admins_gid=7011 kavrin_powerusers_gid=0",
        [&] { EXPECT_EQ(reset_groupmap(record.get()), 0); });
}

TEST_F(GroupReset, ConnectionsKeepTheirGroupsWhenAnotherResets) {
    const Connection record = loaded_connection();
    replace_file(kGroupMapFile, group_map({{"boris", {5009}}}));
    const Connection other = ready_connection(boris, kBoris);
    EXPECT_EQ(reset_groupmap(other.get()), 0);
    EXPECT_EQ(gids_of(*other), GidList{5009});
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    EXPECT_EQ(mappings_of(kGroupMapFile), 1) << "one for the process";
}

TEST_F(GroupReset, ComputerAccountIsToldByTheSystemsName) {
    const Connection host = ready_connection(anna, kHost);
    EXPECT_EQ(reset_groupmap(host.get()), 0);
    EXPECT_EQ(host->groupmap.is_computer_acct, 1);
    EXPECT_EQ(gids_of(*host), (GidList{5001, 5002}));
    std::string name = "host$";
    const Connection user = ready_connection(name, kAnna);
    user->groupmap.is_computer_acct = 1;
    EXPECT_EQ(reset_groupmap(user.get()), 0);
    EXPECT_EQ(user->groupmap.is_computer_acct, 0);
    EXPECT_EQ(gids_of(*user), GidList{5004});
}

TEST_F(GroupReset, RecordWithoutANameIsLeftAlone) {
    const Connection record = loaded_connection();
    record->user_name_as_passed_in = nullptr;
    record->refresh_creds.euid = kBoris;
    record->groupmap.egid = 62;
    replace_file(kGroupMapFile, group_map({}));
    const std::vector<char> before = bytes_of(*record);
    void* const map = g_kavrin_grouplist_map;
    expect_logged_from(
        0, literal("reset_groupmap: user_name is NULL will not continue with reset_groupmap"),
        [&] { EXPECT_EQ(reset_groupmap(record.get()), 0); });
    EXPECT_TRUE(bytes_of(*record) == before);
    EXPECT_EQ(g_kavrin_grouplist_map, map);
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
}

TEST_F(GroupReset, UidWithoutAnAccountFails) {
    const Connection before = loaded_connection();
    const Connection record = ready_connection(anna, kStrangerUid);
    expect_failure(*record, "reset_groupmap: No user with uid 4999");
    EXPECT_EQ(mappings_of(kGroupMapFile), 1);
}

TEST_F(GroupReset, AccountThatCannotBeLookedUpFails) {
    const Connection before = loaded_connection();
    add_account("lengthy", 4105, 20000);
    const Connection record = ready_connection(anna, 4105);
    expect_failure(*record,
                   "Cannot get username for uid 4105 to update user's groups: "
                   "Numerical result out of range");
    EXPECT_EQ(mappings_of(kGroupMapFile), 1);
}

TEST_F(GroupReset, LookUpHasTheBufferTheSystemAsksFor) {
    const long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    const std::size_t room = size == -1 ? 16384 : static_cast<std::size_t>(size);
    add_account("fitting", 4107, room - 200);
    const Connection record = ready_connection(anna, 4107);
    EXPECT_EQ(reset_groupmap(record.get()), 0);
    add_account("bursting", 4108, room);
    record->refresh_creds.euid = 4108;
    EXPECT_EQ(reset_groupmap(record.get()), -1);
}

TEST_F(GroupReset, WithoutMemoryForTheLookUpItFails) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const Connection before = loaded_connection();
    const Connection record = ready_connection(anna, kStrangerUid);
    const long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    expect_failure(
        *record, "Cannot allocate memory of size " + std::to_string(size == -1 ? 16384 : size), 1);
}

TEST_F(GroupReset, NoWayOutKeepsMemory) {
    const Connection record = loaded_connection();
    EXPECT_LT(heap_growth(500, [&] { EXPECT_EQ(reset_groupmap(record.get()), 0); }), 5000u);
    record->refresh_creds.euid = kStrangerUid;
    config.set_debug_level(-1);
    EXPECT_LT(heap_growth(500, [&] { EXPECT_EQ(reset_groupmap(record.get()), -1); }), 5000u);
    EXPECT_EQ(mappings_of(kGroupMapFile), 1);
}

// Group maps that are none ------------------------------------------------------------------------

class NoGroupMap : public GroupReset {
protected:
    // The connection had groups; now it has none, and the standing of all is as it was.
    void expect_no_groups(kv_connection_private_data_t& record) {
        config.set_debug_level(10);
        clear_log();
        EXPECT_EQ(reset_groupmap(&record), 0);
        EXPECT_EQ(record.groupmap.gids, nullptr);
        EXPECT_EQ(record.groupmap.num_sup_gids, 0);
        EXPECT_EQ(g_kavrin_grouplist_map, nullptr);
        EXPECT_EQ(g_kavrin_grouplist_map_size, 0u);
        EXPECT_EQ(mappings_of(kGroupMapFile), 0);
        EXPECT_EQ(logged_part("vfs_set_admins_powerusers"), 0);
        EXPECT_EQ(logged_part("Loaded "), 0);
    }
};

TEST_F(NoGroupMap, MissingFile) {
    const Connection record = loaded_connection();
    unlink(kGroupMapFile);
    expect_no_groups(*record);
}

TEST_F(NoGroupMap, FileOfTheWrongSize) {
    const std::string map = group_map({{"anna", {5001}}}, {}, 12288);
    for (const std::size_t size : {0u, 4096u, 8191u, 8193u, 12287u}) {
        write_default_markers();
        const Connection record = loaded_connection();
        replace_file(kGroupMapFile, map.substr(0, size));
        expect_no_groups(*record);
    }
}

TEST_F(NoGroupMap, FileThatTheUserMayNotRead) {
    const Connection record = loaded_connection();
    ASSERT_EQ(chmod(kGroupMapFile, 0600), 0);
    expect_in_child([&] {
        become_user(kAnna, 4100, {});
        expect_no_groups(*record);
    });
}

TEST_F(NoGroupMap, FileThatTheKernelDoesNotMap) {
    const Connection record = loaded_connection();
    // More than the address space, of which 32 bits would tell 8192.
    unlink(kGroupMapFile);
    write_file(kGroupMapFile, "");
    ASSERT_EQ(truncate(kGroupMapFile, (off_t{1} << 47) + 8192), 0);
    expect_no_groups(*record);
    expect_no_groups(*record);
}

TEST_F(GroupReset, MappingAndGroupsAreTraced) {
    const Connection record = loaded_connection();
    expect_logged_from(5, "New mapping 0x[0-9a-f]+ 8192",
                       [&] { EXPECT_EQ(reset_groupmap(record.get()), 0); });
    config.set_debug_level(5);
    clear_log();
    EXPECT_EQ(reset_groupmap(record.get()), 0);
    EXPECT_EQ(logged("New mapping " + pointer_text(g_kavrin_grouplist_map) + " 8192"), 1);
    EXPECT_EQ(logged("Loaded 2 groups at " + pointer_text(record->groupmap.gids)), 1);
    expect_logged_from(1, "Loaded 2 groups at 0x[0-9a-f]+",
                       [&] { EXPECT_EQ(reset_groupmap(record.get()), 0); });
    unlink(kGroupMapFile);
    expect_logged_from(5, literal("New mapping (nil) 0"),
                       [&] { EXPECT_EQ(reset_groupmap(record.get()), 0); });
}

}  // namespace
}  // namespace kvtest
