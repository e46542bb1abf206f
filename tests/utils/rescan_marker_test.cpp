// The rescan marker: what lies in the file after each mark, and what is said when it cannot be
// opened, written or closed.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "call_probe.h"
#include "provoke.h"
#include "staging_fixture.h"

namespace {

using kvtest::Call;
using kvtest::CallProbe;
using kvtest::expect_in_child;
using kvtest::kMarker;
using kvtest::kMarkerFolder;
using kvtest::log_lines;
using kvtest::logged;
using kvtest::marker;

const std::string kFile = std::string("event status file '") + kMarker + "'";
const std::string kEnd("\0", 1);

class RescanMarker : public kvtest::StagingTest {};

TEST_F(RescanMarker, HoldsTheReasonAndItsTerminator) {
    mark_event_db_as_rescan_needed("events were lost\n");
    EXPECT_EQ(marker(), "events were lost\n" + kEnd);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(RescanMarker, IsMadeForItsOwnerToWriteAndAllToRead) {
    const mode_t mask = umask(0);
    mark_event_db_as_rescan_needed("x");
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(kMarker, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0744u);
}

TEST_F(RescanMarker, KeepsTheRestOfALongerReason) {
    mark_event_db_as_rescan_needed("a long reason\n");
    mark_event_db_as_rescan_needed("short\n");
    EXPECT_EQ(marker(), "short\n" + kEnd + "reason\n" + kEnd);
    mark_event_db_as_rescan_needed("a reason longer than both\n");
    EXPECT_EQ(marker(), "a reason longer than both\n" + kEnd);
}

TEST_F(RescanMarker, KeepsTheModeOfAFileThatIsThere) {
    kvtest::write_file(kMarker, "");
    ASSERT_EQ(chmod(kMarker, 0600), 0);
    mark_event_db_as_rescan_needed("x");
    struct stat status {};
    ASSERT_EQ(stat(kMarker, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(RescanMarker, WithoutItsFolderOnlyLogs) {
    std::filesystem::remove_all(kMarkerFolder);
    mark_event_db_as_rescan_needed("x");
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("Cannot open " + kFile +
                     " to mark rescan needed (-1). errno = 2(No such file "
                     "or directory)\n"),
              1);
    EXPECT_FALSE(std::filesystem::exists(kMarkerFolder));
}

TEST_F(RescanMarker, WithAFolderInItsPlaceOnlyLogs) {
    std::filesystem::create_directory(kMarker);
    mark_event_db_as_rescan_needed("x");
    EXPECT_EQ(logged("Cannot open " + kFile +
                     " to mark rescan needed (-1). errno = 21(Is a "
                     "directory)\n"),
              1);
}

TEST_F(RescanMarker, IsNotForUsers) {
    const kvtest::ChildResult child = expect_in_child([] {
        kvtest::become_user(4001, 4002, {});
        mark_event_db_as_rescan_needed("x");
    });
    EXPECT_EQ(child.logged("Cannot open " + kFile +
                           " to mark rescan needed (-1). errno = "
                           "13(Permission denied)\n"),
              1);
    EXPECT_EQ(marker(), "(none)");
}

TEST_F(RescanMarker, OnAFullDiskOnlyLogsAndKeepsTheDescriptor) {
    kvtest::SmallDisk disk(kMarkerFolder, 4096);
    disk.fill();
    const kvtest::ChildResult child = expect_in_child([] {
        const int before = kvtest::open_files();
        mark_event_db_as_rescan_needed("x");
        EXPECT_EQ(kvtest::open_files(), before + 1);
    });
    EXPECT_EQ(child.log.size(), 1u);
    EXPECT_EQ(child.logged("Cannot write " + kFile +
                           " to mark rescan needed (-1). errno = 28(No "
                           "space left on device)\n"),
              1);
}

TEST_F(RescanMarker, ThatCannotBeClosedIsThereAllTheSame) {
    leaves_open_files_ = true;
    {
        CallProbe probe;
        probe.before = kvtest::refuse(Call::close, EIO);
        mark_event_db_as_rescan_needed("x");
    }
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("Close of " + kFile + " failed. errno = 5(Input/output error)\n"), 1);
    EXPECT_EQ(marker(), "x" + kEnd);
}

TEST_F(RescanMarker, FailuresAreSilentBelowLevelZero) {
    table_.set_debug_level(-1);
    std::filesystem::remove_all(kMarkerFolder);
    mark_event_db_as_rescan_needed("x");
    EXPECT_TRUE(log_lines().empty());
}

}  // namespace
