// Keeping up with the group map and the permission map: what a flush reloads and asks for, and
// which markers and which uids a refresh takes notice of. Markers have real times, users real
// accounts, the signal is a real one.
#include <csignal>

#include "connection_fixture.h"

namespace kvtest {
namespace {

// Flushing ----------------------------------------------------------------------------------------

const std::string kPid = std::to_string(getpid());

class Flush : public ConnectionTest {
protected:
    Flush() : record(ready_connection(anna, kAnna)) {
        write_default_markers();
        record->refresh_creds.tlb_owner = 77;
    }

    void expect_flushed(uid_t owner) const {
        EXPECT_EQ(record->vfs_table_cache.flush_tlb, 21);
        EXPECT_EQ(record->refresh_creds.tlb_owner, owner);
    }
    void expect_not_flushed() const {
        EXPECT_EQ(record->vfs_table_cache.flush_tlb, 9);
        EXPECT_EQ(record->refresh_creds.tlb_owner, 77u);
    }
    static std::string resetting(const std::string& pid = std::to_string(getpid())) {
        return "Resetting Kavrin permission caches and group maps for process " + pid;
    }
    static std::string was_reset() {
        return "Kavrin permission caches and group maps for process " + std::to_string(getpid()) +
               " was reset.";
    }

    Connection record;
};

TEST_F(Flush, GroupsAreReloadedAndTheCacheIsAskedToEmptyItself) {
    add_tlb_entry(anna.data(), -1, FSOP_STAT, KVPERMS_HAS_PERMS, &record->vfs_table_cache);
    flush_perms_handler(10, record.get());
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    expect_flushed(kAnna);
    EXPECT_EQ(record->vfs_table_cache.vfs_tlb_end, 1) << "emptied by its next look-up";
    int index = 5;
    EXPECT_EQ(check_tlb(anna.data(), FSOP_STAT, &index, &record->vfs_table_cache),
              KVPERMS_NOT_FOUND);
    EXPECT_EQ(record->vfs_table_cache.flush_tlb, 9);
}

TEST_F(Flush, ItsCourseIsTold) {
    expect_logged_from(1, literal(resetting()), [&] { flush_perms_handler(10, record.get()); });
    expect_logged_from(1, literal(was_reset()), [&] { flush_perms_handler(10, record.get()); });
    record->refresh_creds.tlb_owner = 77;
    config.set_debug_level(3);
    clear_log();
    flush_perms_handler(10, record.get());
    EXPECT_EQ(logged("Flushing from tlb owner 77 to new owner 4101 permissions for " + kPid +
                     ", flush_tlb: 21, flush_tlb addr: " +
                     pointer_text(&record->vfs_table_cache.flush_tlb)),
              1);
    const std::vector<std::string> order = {"Resetting Kavrin", "Loaded 2 groups", "was reset.",
                                            "Flushing from tlb owner"};
    EXPECT_EQ(logged_in_order(order), order);
    expect_logged_from(3, "Flushing from tlb owner 4101 to new owner 4101 .*",
                       [&] { flush_perms_handler(10, record.get()); });
}

TEST_F(Flush, OtherSignalsAreReportedAndIgnored) {
    for (const int signal : {0, 1, SIGUSR2, -10, 21}) {
        const std::vector<char> before = bytes_of(*record);
        expect_logged_from(0, literal("Unexpected signal " + std::to_string(signal) + " caught "),
                           [&] { flush_perms_handler(signal, record.get()); });
        EXPECT_EQ(logged(resetting()), 1) << "told before the signal is looked at";
        EXPECT_EQ(logged(was_reset()), 0);
        EXPECT_TRUE(bytes_of(*record) == before);
        EXPECT_EQ(g_kavrin_grouplist_map, nullptr);
    }
}

TEST_F(Flush, FailedResetLeavesStaleGroupsAndStillFlushes) {
    ASSERT_EQ(reset_groupmap(record.get()), 0);
    record->refresh_creds.euid = kStrangerUid;
    expect_logged_from(0, "Could not reset global groupmap\\. Permissions are stale",
                       [&] { flush_perms_handler(10, record.get()); });
    EXPECT_EQ(logged(was_reset()), 1);
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    expect_flushed(kStrangerUid);
}

TEST_F(Flush, MissingGroupMapIsNoFailure) {
    unlink(kGroupMapFile);
    flush_perms_handler(10, record.get());
    EXPECT_EQ(logged_part("Could not reset"), 0);
    expect_flushed(kAnna);
}

TEST_F(Flush, ComputerAccountReloadsItsGroupsOnly) {
    record->refresh_creds.euid = kHost;
    config.set_debug_level(10);
    clear_log();
    flush_perms_handler(10, record.get());
    EXPECT_EQ(record->groupmap.is_computer_acct, 1);
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    expect_not_flushed();
    EXPECT_EQ(logged(was_reset()), 1);
    EXPECT_EQ(logged_part("Flushing from"), 0);
}

TEST_F(Flush, ComputerAccountThatBecameAUserIsFlushed) {
    record->groupmap.is_computer_acct = 1;
    flush_perms_handler(10, record.get());
    expect_flushed(kAnna);
}

kv_connection_private_data_t* connection_of_the_process = nullptr;
void on_signal(int signal) {
    flush_perms_handler(signal, connection_of_the_process);
}

TEST_F(Flush, SignalFlushesTheConnection) {
    expect_in_child([&] {
        connection_of_the_process = record.get();
        struct sigaction action {};
        action.sa_handler = on_signal;
        ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
        ASSERT_EQ(sigaction(SIGUSR2, &action, nullptr), 0);
        become_user(kAnna, 4100, {});
        ASSERT_EQ(raise(SIGUSR2), 0);
        expect_not_flushed();
        ASSERT_EQ(raise(SIGUSR1), 0);
        expect_flushed(kAnna);
        EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    });
}

TEST_F(Flush, SignalToAComputerAccountReloadsItsGroupsOnly) {
    expect_in_child([&] {
        connection_of_the_process = record.get();
        record->refresh_creds.euid = kHost;
        struct sigaction action {};
        action.sa_handler = on_signal;
        ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
        ASSERT_EQ(raise(SIGUSR1), 0);
        expect_not_flushed();
        EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    });
}

// Refreshing --------------------------------------------------------------------------------------

constexpr std::time_t kMark = 1600000000;

class Refresh : public Flush {
protected:
    // Both marks and both files at one time in the past; nothing to take notice of.
    Refresh() {
        set_mark(kMark);
        set_time(kGroupMapFile, kMark);
        set_time(kMapMarkerFile, kMark);
    }
    void set_mark(std::time_t seconds) {
        record->refresh_creds.groupmap_refresh = seconds;
        record->refresh_creds.permmap_refresh = seconds;
    }
    // Refreshes at trace level and counts the flushes.
    int flushes() {
        config.set_debug_level(10);
        clear_log();
        started = std::time(nullptr);
        refresh_credentials(record.get());
        ended = std::time(nullptr);
        return logged(resetting());
    }
    void expect_of_this_check(std::time_t mark) const {
        EXPECT_GE(mark, started);
        EXPECT_LE(mark, ended);
    }
    static int groups_told() {
        const std::string pid = std::to_string(getpid());
        return logged_matching(log_lines(), "Kavrin Group map will be refreshed  for process " +
                                                pid + " \\d+ for pid " + pid + " ");
    }
    static int map_told() {
        const std::string pid = std::to_string(getpid());
        return logged_matching(log_lines(),
                               "Kavrin Permissions map will be refreshed for process " + pid +
                                   " \\d+ for pid " + pid + " ");
    }
    const refresh_crendetials_t& creds() const { return record->refresh_creds; }

    std::time_t started = 0;
    std::time_t ended = 0;
};

TEST_F(Refresh, MarkersThatWereNoticedChangeNothing) {
    for (const auto& [seconds, nanoseconds] :
         {std::pair{kMark - 1000, 0L}, {kMark - 1, 999999999L}, {kMark, 0L}, {kMark, 999999999L}}) {
        set_time(kGroupMapFile, seconds, nanoseconds);
        set_time(kMapMarkerFile, seconds, nanoseconds);
        const std::vector<char> before = bytes_of(*record);
        EXPECT_EQ(flushes(), 0) << seconds;
        EXPECT_TRUE(bytes_of(*record) == before);
        EXPECT_TRUE(log_lines().empty());
    }
}

TEST_F(Refresh, GroupMapWrittenLaterIsNoticedOnce) {
    set_time(kGroupMapFile, kMark + 1);
    EXPECT_EQ(flushes(), 1);
    expect_of_this_check(creds().groupmap_refresh);
    EXPECT_EQ(creds().permmap_refresh, kMark);
    EXPECT_EQ(groups_told(), 1);
    EXPECT_EQ(map_told(), 0);
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    expect_flushed(kAnna);
    record->vfs_table_cache.flush_tlb = 9;
    EXPECT_EQ(flushes(), 0);
    EXPECT_EQ(record->vfs_table_cache.flush_tlb, 9);
}

TEST_F(Refresh, MapMarkerTouchedLaterIsNoticedOnce) {
    set_time(kMapMarkerFile, kMark + 1);
    EXPECT_EQ(flushes(), 1);
    expect_of_this_check(creds().permmap_refresh);
    EXPECT_EQ(creds().groupmap_refresh, kMark);
    EXPECT_EQ(groups_told(), 0);
    EXPECT_EQ(map_told(), 1);
    EXPECT_EQ(gids_of(*record), (GidList{5001, 5002}));
    expect_flushed(kAnna);
    EXPECT_EQ(flushes(), 0);
}

TEST_F(Refresh, BothMarkersMakeOneFlush) {
    set_time(kGroupMapFile, kMark + 1);
    set_time(kMapMarkerFile, kMark + 1);
    EXPECT_EQ(flushes(), 1);
    expect_of_this_check(creds().groupmap_refresh);
    expect_of_this_check(creds().permmap_refresh);
    EXPECT_EQ(groups_told(), 1);
    EXPECT_EQ(map_told(), 1);
    EXPECT_EQ(flushes(), 0);
}

TEST_F(Refresh, NoticesAreToldFromLevelOne) {
    const auto body = [&] {
        set_mark(kMark);
        refresh_credentials(record.get());
    };
    set_time(kGroupMapFile, kMark + 1);
    expect_logged_from(1, "Kavrin Group map will be refreshed  for process .*", body);
    set_time(kMapMarkerFile, kMark + 1);
    expect_logged_from(1, "Kavrin Permissions map will be refreshed for process .*", body);
}

TEST_F(Refresh, MarkerFromTheFutureFlushesAtEveryStat) {
    const std::time_t future = std::time(nullptr) + 5000;
    for (const char* marker : {kGroupMapFile, kMapMarkerFile}) {
        set_time(marker, future);
        for (int stat = 0; stat < 3; ++stat) {
            record->vfs_table_cache.flush_tlb = 9;
            EXPECT_EQ(flushes(), 1) << marker << stat;
            expect_flushed(kAnna);
            const bool group_map = marker == kGroupMapFile;
            expect_of_this_check(group_map ? creds().groupmap_refresh : creds().permmap_refresh);
            EXPECT_EQ(group_map ? creds().permmap_refresh : creds().groupmap_refresh, kMark);
        }
        set_time(marker, kMark);
        EXPECT_EQ(flushes(), 0);
        set_mark(kMark);
    }
}

TEST_F(Refresh, ConnectingTakesNoticeOfWhatIsThere) {
    set_time(kGroupMapFile, std::time(nullptr));
    set_time(kMapMarkerFile, std::time(nullptr));
    int users = 0;
    ASSERT_EQ(connect_preprocess("anna", record.get(), 0, &users), 0);
    EXPECT_EQ(flushes(), 0);
    set_time(kMapMarkerFile, creds().permmap_refresh + 1);
    EXPECT_EQ(flushes(), 1);
}

TEST_F(Refresh, MissingGroupMapIsToldAtEveryStatAndNeverFlushes) {
    unlink(kGroupMapFile);
    const auto body = [&] { refresh_credentials(record.get()); };
    expect_logged_from(
        0, literal("Error: Group map refresh file /etc/kavrin/groupmap_refresh is missing"), body);
    EXPECT_EQ(creds().groupmap_refresh, kMark);
    expect_not_flushed();
    set_time(kMapMarkerFile, kMark + 1);
    EXPECT_EQ(flushes(), 1) << "the other marker counts all the same";
    EXPECT_EQ(creds().groupmap_refresh, kMark);
}

TEST_F(Refresh, MissingMapMarkerIsToldAtEveryStatAndNeverFlushes) {
    unlink(kMapMarkerFile);
    const auto body = [&] { refresh_credentials(record.get()); };
    expect_logged_from(
        0, literal("Error: Permission map refresh file /etc/kavrin/permission_refresh is missing"),
        body);
    EXPECT_EQ(creds().permmap_refresh, kMark);
    expect_not_flushed();
    set_time(kGroupMapFile, kMark + 1);
    EXPECT_EQ(flushes(), 1) << "the other marker counts all the same";
    EXPECT_EQ(creds().permmap_refresh, kMark);
}

TEST_F(Refresh, MarkersThatCannotBeLookedAtCountAsMissing) {
    set_time(kGroupMapFile, kMark + 1);
    set_time(kMapMarkerFile, kMark + 1);
    ASSERT_EQ(chmod("/etc/kavrin", 0700), 0);
    expect_in_child([&] {
        become_user(kAnna, 4100, {});
        EXPECT_EQ(flushes(), 0);
        EXPECT_EQ(log_lines().size(), 2u);
        EXPECT_EQ(logged_part(" refresh file "), 2);
        expect_not_flushed();
    });
    ASSERT_EQ(chmod("/etc/kavrin", 0755), 0);
}

TEST_F(Refresh, ChangedUserTakesTheConnectionOver) {
    expect_in_child([&] {
        become_user(kBoris, 4100, {});
        EXPECT_EQ(flushes(), 1);
        EXPECT_EQ(creds().euid, kBoris);
        EXPECT_EQ(record->groupmap.euid, kBoris);
        EXPECT_EQ(record->groupmap.egid, 4100u);
        EXPECT_EQ(gids_of(*record), (GidList{5001, 5002})) << "of the name as passed in";
        expect_flushed(kBoris);
        EXPECT_EQ(creds().groupmap_refresh, kMark);
        EXPECT_EQ(flushes(), 0);
    });
}

TEST_F(Refresh, ChangedUserAndChangedMarkersMakeOneFlush) {
    set_time(kGroupMapFile, kMark + 1);
    set_time(kMapMarkerFile, kMark + 1);
    expect_in_child([&] {
        become_user(kBoris, 4100, {});
        EXPECT_EQ(flushes(), 1);
        EXPECT_EQ(creds().euid, kBoris);
        expect_of_this_check(creds().groupmap_refresh);
        expect_of_this_check(creds().permmap_refresh);
        EXPECT_EQ(flushes(), 0);
    });
}

TEST_F(Refresh, SameUserIsNoChange) {
    expect_in_child([&] {
        become_user(kAnna, 4100, {});
        EXPECT_EQ(flushes(), 0);
        expect_not_flushed();
    });
}

TEST_F(Refresh, UserNoticesMarkersToo) {
    set_time(kMapMarkerFile, kMark + 1);
    expect_in_child([&] {
        become_user(kAnna, 4100, {});
        EXPECT_EQ(flushes(), 1);
        EXPECT_EQ(creds().euid, kAnna);
        expect_flushed(kAnna);
    });
}

TEST_F(Refresh, RootIsNeverAChangedUser) {
    ASSERT_EQ(geteuid(), 0u);
    EXPECT_EQ(flushes(), 0);
    EXPECT_EQ(creds().euid, kAnna);
    set_time(kMapMarkerFile, kMark + 1);
    EXPECT_EQ(flushes(), 1);
    EXPECT_EQ(creds().euid, kAnna);
    EXPECT_EQ(record->groupmap.euid, kAnna);
}

TEST_F(Refresh, ChangeToAComputerAccountFlushesNothing) {
    expect_in_child([&] {
        become_user(kHost, 4100, {});
        EXPECT_EQ(flushes(), 1);
        EXPECT_EQ(creds().euid, kHost);
        EXPECT_EQ(record->groupmap.is_computer_acct, 1);
        expect_not_flushed();
    });
}

TEST_F(Refresh, ChangeToAUserWithoutAnAccountStillFlushes) {
    expect_in_child([&] {
        become_user(kStrangerUid, 4100, {});
        EXPECT_EQ(flushes(), 1);
        EXPECT_EQ(creds().euid, kStrangerUid);
        expect_flushed(kStrangerUid);
        EXPECT_EQ(logged("Could not reset global groupmap. Permissions are stale"), 1);
    });
}

}  // namespace
}  // namespace kvtest
