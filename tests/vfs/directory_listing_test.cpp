// Listing folders: where the folder comes from, which entries are shown, and which verdicts are
// remembered.
#include <csignal>
#include <cstring>

#include "hook_fixture.h"

namespace kvtest {
namespace {

// --- listing ---------------------------------------------------------------------------------

class Listing : public FolderHooks {
protected:
    // The verdict on an entry of a folder.
    int show(const std::string& folder, const std::string& entry) {
        int allowed_value = 77;
        std::memset(buffer, 'x', sizeof buffer);
        readir_postprocess(&allowed_value, entry.c_str(), folder.c_str(), buffer, 200,
                           share.c_str(), connection.get());
        return allowed_value;
    }
    // ... and whether it was worked out anew.
    int show(const std::string& folder, const std::string& entry, bool& anew) {
        clear_log();
        const int verdict = show(folder, entry);
        anew = logged_part("Enforcing permissions for op 16 root ") == 1;
        return verdict;
    }
    char buffer[256];
};

TEST_F(Listing, TheFolderIsTheConnectionsRecordsPath) {
    char folder[] = "Shared/P7";
    modify_file_evt_s_t record_of_folder{folder, 5, 6};
    modify_file_evt_s_t* chosen = nullptr;
    char* base = nullptr;
    connection->pmodify = &record_of_folder;
    EXPECT_EQ(readdir_preprocess(&chosen, &base, connection.get()), 0);
    EXPECT_EQ(chosen, &record_of_folder);
    EXPECT_EQ(base, folder);
    EXPECT_EQ(record_of_folder.is_modified, 5);
    EXPECT_EQ(record_of_folder.is_nav_cache, 6);
}

TEST_F(Listing, WithoutARecordTheCallersFolderStands) {
    modify_file_evt_s_t somebodys{};
    modify_file_evt_s_t* chosen = &somebodys;
    char folder[] = "Shared";
    char* base = folder;
    EXPECT_EQ(readdir_preprocess(&chosen, &base, connection.get()), 0);
    EXPECT_EQ(chosen, nullptr);
    EXPECT_EQ(base, folder);
}

TEST_F(Listing, WithoutAnyFolderItFails) {
    config.set_debug_level(0);
    modify_file_evt_s_t* chosen = nullptr;
    char* base = nullptr;
    EXPECT_EQ(readdir_preprocess(&chosen, &base, connection.get()), -1);
    EXPECT_EQ(logged("readdir_preprocess: unexpected base pointer is NULL"), 1);
    char folder[] = "Shared";
    base = folder;
    modify_file_evt_s_t nameless{};
    connection->pmodify = &nameless;
    EXPECT_EQ(readdir_preprocess(&chosen, &base, connection.get()), -1);
    EXPECT_EQ(base, nullptr);
    EXPECT_EQ(chosen, &nameless);
}

TEST_F(Listing, TheEntrysPathIsWrittenIntoAClearedBuffer) {
    show("Shared/P7", "S7");
    EXPECT_STREQ(buffer, "Shared/P7/S7");
    for (std::size_t i = std::strlen(buffer); i < 200; ++i) ASSERT_EQ(buffer[i], 0) << i;
    for (std::size_t i = 200; i < sizeof buffer; ++i) ASSERT_EQ(buffer[i], 'x') << i;
}

TEST_F(Listing, TheBuffersSizeIsNotALimit) {
    char roomy[256];
    std::memset(roomy, 'x', sizeof roomy);
    int verdict = 77;
    readir_postprocess(&verdict, "S7", "Shared/P7", roomy, 4, share.c_str(), connection.get());
    EXPECT_STREQ(roomy, "Shared/P7/S7");
    EXPECT_EQ(verdict, KVPERMS_HAS_PERMS);
}

TEST_F(Listing, AnEntryIsShownToWhomMayStatIt) {
    // Navigation on both, for a folder; reading on the parent, for a file.
    EXPECT_EQ(show("Shared/P8", "S8"), KVPERMS_HAS_PERMS);
    EXPECT_EQ(show("Shared/P8", "S2"), KVPERMS_NO_PERM);
    EXPECT_EQ(show("Shared/P0", "S7"), KVPERMS_NO_PERM);
    EXPECT_EQ(show("Shared/P1", "file"), KVPERMS_HAS_PERMS);
    EXPECT_EQ(show("Shared/P8", "file"), KVPERMS_NO_PERM);
    EXPECT_EQ(show("Shared/P0", "gone"), KVPERMS_HAS_PERMS);
    EXPECT_EQ(show("Shared/P0", "*"), KVPERMS_HAS_PERMS) << "of stats only";
}

TEST_F(Listing, OtherVerdictsAreHandedOverAsTheyAre) {
    connection->groupmap.num_sup_gids = -1;
    EXPECT_EQ(show("Shared/P7", "S7"), KVPERMS_INVALID_ARGS);
}

TEST_F(Listing, VerdictsAreRememberedUntilAFlush) {
    bool anew = false;
    EXPECT_EQ(show("Shared/P7", "S7", anew), KVPERMS_HAS_PERMS);
    EXPECT_TRUE(anew);
    EXPECT_EQ(show("Shared/P7", "S7", anew), KVPERMS_HAS_PERMS);
    EXPECT_FALSE(anew);
    EXPECT_EQ(show("Shared/P0", "S7", anew), KVPERMS_NO_PERM);
    EXPECT_TRUE(anew);
    EXPECT_EQ(show("Shared/P0", "S7", anew), KVPERMS_NO_PERM);
    EXPECT_FALSE(anew);
    flush_perms_handler(SIGUSR1, connection.get());
    EXPECT_EQ(show("Shared/P7", "S7", anew), KVPERMS_HAS_PERMS);
    EXPECT_TRUE(anew);
}

TEST_F(Listing, StatsAndListingsShareTheirVerdicts) {
    std::string name = grid(7, 7);
    ASSERT_EQ(stat_preprocess(connection.get(), name.data(), share.c_str(), &context), 0);
    give_back();
    bool anew = true;
    EXPECT_EQ(show("Shared/P7", "S7", anew), KVPERMS_HAS_PERMS);
    EXPECT_FALSE(anew);
}

TEST_F(Listing, LeavesTheIdentityAlone) {
    record([&] { show("Shared/P7", "S7"); });
    EXPECT_TRUE(events().empty());
    EXPECT_TRUE(reads().empty());
}

}  // namespace
}  // namespace kvtest
