// A flush that fails: for each reason the words in the log, the words in the marker, and that the
// records stay and the first flush after the repair writes all of them, or that their loss is told.
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "call_probe.h"
#include "identity_fixture.h"
#include "provoke.h"
#include "staging_fixture.h"

namespace {

namespace fs = std::filesystem;

using kvtest::append;
using kvtest::Call;
using kvtest::CallMade;
using kvtest::CallProbe;
using kvtest::files_in;
using kvtest::held;
using kvtest::log_lines;
using kvtest::logged;
using kvtest::logged_matching;
using kvtest::marker;
using kvtest::pending_in;
using kvtest::pending_payloads;
using kvtest::reason;
using kvtest::refuse;
using kvtest::standing_clock;

using Texts = std::vector<std::string>;

const std::string kEnd("\0", 1);
constexpr const char* kRetry =
    "staging buffer could not finish write, perhaps interrupted by a signal. retrying errno = ";

class StagingFailure : public kvtest::StagingTest {
protected:
    void SetUp() override {
        StagingTest::SetUp();
        ASSERT_EQ(append("before"), 0);
    }
    // The flush fails, leaves this reason, and the buffer keeps its record.
    void expect_failure(const std::string& expected_reason) {
        EXPECT_EQ(flush_staging_buffer(), -1);
        EXPECT_EQ(marker(), expected_reason.empty() ? "(none)" : expected_reason + kEnd);
        EXPECT_EQ(held().num_records, 1u);
        EXPECT_EQ(held().records(), kvtest::frame("before"));
        EXPECT_EQ(kvtest::semaphore_value(), 1);
    }
    // The next flush writes what was kept and what came since.
    void expect_recovery() {
        ASSERT_EQ(append("after"), 0);
        EXPECT_EQ(flush_staging_buffer(), 1);
        EXPECT_EQ(pending_payloads(folder_), (Texts{"before", "after"}));
        EXPECT_EQ(held().num_records, 0u);
    }
};

TEST_F(StagingFailure, MissingFolder) {
    fs::remove(folder_);
    expect_failure("missing staging directory\n");
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("missing staging directory " + folder_ + "\n"), 1);
    EXPECT_FALSE(fs::exists(folder_)) << "a flush must not create it";
    fs::create_directory(folder_);
    expect_recovery();
}

TEST_F(StagingFailure, FileInTheFoldersPlace) {
    fs::remove(folder_);
    kvtest::write_file(folder_, "a file");
    expect_failure("missing staging directory\n");
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("missing staging directory " + folder_ + "\n"), 1);
    fs::remove(folder_);
    fs::create_directory(folder_);
    expect_recovery();
}

TEST_F(StagingFailure, FolderThatIsNotConfigured) {
    table_.set_string(PARAM_STAGING_DIR, "");
    expect_failure("missing staging directory\n");
    EXPECT_EQ(logged("missing staging directory \n"), 1);
    table_.set_string(PARAM_STAGING_DIR, folder_);
    expect_recovery();
}

TEST_F(StagingFailure, ReadOnlyFolder) {
    kvtest::SmallDisk disk(folder_, 65536);
    disk.make_read_only(true);
    expect_failure("cannot open tmpfile\n");
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged_matching(log_lines(), "cannot openfile " + folder_ +
                                               "/kvtemp.{6}\\. errno = 30\\(Read-only file "
                                               "system\\)\n"),
              1);
    disk.make_read_only(false);
    expect_recovery();
}

TEST_F(StagingFailure, FullDiskFailsTheSecondAttemptToo) {
    kvtest::SmallDisk disk(folder_, 8192);
    disk.fill();
    CallProbe probe;
    expect_failure("staging buffer write error\n");
    EXPECT_EQ(probe.count(Call::make_temporary), 2) << "two attempts";
    EXPECT_EQ(probe.count(Call::sync), 0);
    ASSERT_EQ(log_lines().size(), 4u);
    const std::string failed =
        "Failed to write to fd. nwritten=-1, nleft=14, size=14, errno=28(No space left on "
        "device)\n";
    EXPECT_EQ(log_lines()[0].message, failed);
    EXPECT_EQ(log_lines()[1].message, kRetry + std::string("28(No space left on device)\n"));
    EXPECT_EQ(log_lines()[2].message, failed);
    EXPECT_EQ(log_lines()[3].message,
              "staging buffer write failed sizewr = -1 size = 14. errno = 28(No space left on "
              "device)\n");
    EXPECT_EQ(files_in(folder_), Texts{"filler"});
    disk.empty();
    expect_recovery();
}

TEST_F(StagingFailure, DiskThatFillsInTheMiddleLeavesNoHalfFile) {
    configure(20000, 99);
    const std::string large(9000, 'l');
    ASSERT_EQ(append(large), 0);
    {
        const kvtest::SmallDisk disk(folder_, 8192);
        EXPECT_EQ(flush_staging_buffer(), -1);
        EXPECT_TRUE(files_in(folder_).empty());
        EXPECT_EQ(held().records(), kvtest::frame(large));
        EXPECT_EQ(reason(), "staging buffer write error\n");
    }
    EXPECT_EQ(kvtest::logged_part("will try to write rest of buffer. nwritten=8192, nleft=816, "
                                  "size=9008"),
              2);
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(pending_payloads(folder_), Texts{large});
}

TEST_F(StagingFailure, InterruptedWriteIsTriedOnceMoreWithNewNames) {
    CallProbe probe;
    Texts temporaries;
    int value_between = -1;
    int moment = 0;
    probe.clock = [&](timeval& now) {
        now = {1700000000, ++moment};
        return true;
    };
    probe.before = [&](const CallMade& call) {
        if (call.kind == Call::clock && call.nth == 2) {
            value_between = kvtest::semaphore_value();
            EXPECT_EQ(kvtest::attachments(), 0);
            EXPECT_TRUE(files_in(folder_).empty()) << "the first temporary is gone";
            EXPECT_EQ(append("between"), 0);
        }
        if (call.kind == Call::write) {
            const Texts found = files_in(folder_);
            temporaries.insert(temporaries.end(), found.begin(), found.end());
        }
        return call.kind == Call::write && call.nth == 1 ? EINTR : 0;
    };
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(value_between, 1);
    ASSERT_EQ(temporaries.size(), 2u);
    EXPECT_NE(temporaries[0], temporaries[1]);
    EXPECT_EQ(files_in(folder_), Texts{"pending_1700000000.000002"});
    EXPECT_EQ(pending_payloads(folder_), (Texts{"before", "between"}));
    EXPECT_EQ(logged(kRetry + std::string("4(Interrupted system call)\n")), 1);
    EXPECT_EQ(marker(), "(none)");
}

TEST_F(StagingFailure, WriteThatIsInterruptedTwiceIsNotTriedAgain) {
    CallProbe probe;
    // The marker is written with write() too.
    probe.before = [&](const CallMade& call) {
        return call.kind == Call::write && call.nth <= 2 ? EINTR : 0;
    };
    expect_failure("staging buffer write error\n");
    EXPECT_EQ(probe.count(Call::make_temporary), 2);
    EXPECT_TRUE(files_in(folder_).empty());
    EXPECT_EQ(logged("staging buffer write failed sizewr = -1 size = 14. errno = 4(Interrupted "
                     "system call)\n"),
              1);
    probe.before = [](const CallMade&) { return 0; };
    expect_recovery();
}

TEST_F(StagingFailure, SyncIsTriedOnce) {
    {
        CallProbe probe;
        probe.before = refuse(Call::sync, EIO);
        expect_failure("staging buffer fdatasync error\n");
        EXPECT_EQ(probe.count(Call::sync), 1);
    }
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("staging buffer fdatasync error. errno = 5(Input/output error)\n"), 1);
    EXPECT_TRUE(files_in(folder_).empty());
    expect_recovery();
}

TEST_F(StagingFailure, NameThatIsTaken) {
    const std::string name = folder_ + "/pending_1700000000.000042";
    kvtest::write_file(name, "of another");
    {
        CallProbe probe;
        probe.clock = standing_clock(1700000000, 42);
        expect_failure("tmp file already exists\n");
        EXPECT_EQ(probe.count(Call::make_temporary), 0);
    }
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("tmp file " + name + " already exists.\n"), 1);
    EXPECT_EQ(kvtest::read_file(name), "of another");
    fs::remove(name);
    expect_recovery();
}

TEST_F(StagingFailure, EachMissingPieceOfMemory) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "a sanitizer owns the allocator";
    const auto flush_without = [&](int nth) {
        kvtest::clear_log();
        fs::remove(kvtest::kMarker);
        const kvtest::RefusedAllocation refused(nth);
        return flush_staging_buffer();
    };
    EXPECT_EQ(flush_without(1), -1);
    EXPECT_EQ(logged("Cannot allocate memory"), 1);
    EXPECT_EQ(marker(), "(none)");
    EXPECT_EQ(flush_without(2), -1);
    EXPECT_EQ(logged("failed to calloc for dumpfname, errno = 12 (Cannot allocate memory)\n"), 1);
    EXPECT_EQ(logged("get_dumpfname failed\n"), 1);
    EXPECT_EQ(marker(), "get_dumpfname failed\n" + kEnd);
    EXPECT_EQ(flush_without(3), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("out of memory creating tempfile name\n"), 1);
    EXPECT_EQ(marker(), "out of memory creating tempfile name\n" + kEnd);
    EXPECT_TRUE(files_in(folder_).empty());
    expect_recovery();
}

TEST_F(StagingFailure, MissingSegment) {
    ASSERT_EQ(shmctl(kvtest::segment_id(), IPC_RMID, nullptr), 0);
    EXPECT_EQ(flush_staging_buffer(), -1);
    EXPECT_EQ(logged("cannot access staging buffer.\n"), 1);
    EXPECT_EQ(marker(), "cannot access staging buffer\n" + kEnd);
    EXPECT_EQ(kvtest::semaphore_value(), 1);
    EXPECT_TRUE(files_in(folder_).empty());
}

TEST_F(StagingFailure, MissingSemaphore) {
    ASSERT_EQ(semctl(kvtest::semaphore_id(), 0, IPC_RMID), 0);
    {
        CallProbe probe;
        EXPECT_EQ(flush_staging_buffer(), -1);
        EXPECT_EQ(probe.count(Call::shmat), 0) << "the buffer was touched without the semaphore";
        EXPECT_EQ(probe.count(Call::semop), 1) << "what was not taken was given back";
    }
    EXPECT_EQ(kvtest::logged_part("cannot wait for the staging buffer semaphore"), 1);
    EXPECT_EQ(marker(), "cannot wait for the staging buffer semaphore\n" + kEnd);
    EXPECT_TRUE(files_in(folder_).empty());
    ASSERT_EQ(create_eventstore_staging_semaphore(), 1);
    expect_recovery();
}

TEST_F(StagingFailure, RenameLosesTheEventsAndSaysSo) {
    CallProbe probe;
    probe.clock = standing_clock(1700000000, 42);
    probe.before = refuse(Call::rename, EIO);
    EXPECT_EQ(flush_staging_buffer(), -1);
    EXPECT_EQ(
        logged_matching(log_lines(), "cannot rename " + folder_ + "/kvtemp.{6} to " + folder_ +
                                         "/pending_1700000000\\.000042\\. errno = "
                                         "5\\(Input/output error\\)\n"),
        1);
    EXPECT_EQ(marker(), "cannot rename tempfile to the actual dump file name\n" + kEnd);
    EXPECT_TRUE(files_in(folder_).empty()) << "the temporary file is left";
    EXPECT_EQ(held().num_records, 0u);
    EXPECT_EQ(held().next_offset, 16u);
}

TEST_F(StagingFailure, FolderThatVanishesBeforeTheRename) {
    CallProbe probe;
    probe.before = [&](const CallMade& call) {
        if (call.kind == Call::rename && call.nth == 1) fs::rename(folder_, folder_ + ".gone");
        return 0;
    };
    EXPECT_EQ(flush_staging_buffer(), -1);
    EXPECT_EQ(reason(), "cannot rename tempfile to the actual dump file name\n");
    fs::remove_all(folder_ + ".gone");
    fs::create_directory(folder_);
    ASSERT_EQ(append("after"), 0);
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(pending_payloads(folder_), Texts{"after"});
}

TEST_F(StagingFailure, FileSystemThatCannotRefuseToReplaceStillGetsTheFile) {
    for (const int error : {EINVAL, ENOSYS}) {
        CallProbe probe;
        probe.before = refuse(Call::rename, error, 1);
        ASSERT_EQ(append("more"), 0);
        EXPECT_EQ(flush_staging_buffer(), 1);
    }
    EXPECT_EQ(pending_payloads(folder_), (Texts{"before", "more", "more"}));
    EXPECT_EQ(files_in(folder_).size(), 2u);
    EXPECT_EQ(marker(), "(none)");
}

TEST_F(StagingFailure, NameThatIsCutIsStillOneWholeFileThatNothingReplaces) {
    // The name is cut at 256 bytes, inside the folder's own: the file lies beside the folder.
    const std::string deep = folder_ + "/" + std::string(120, 'a') + "/" + std::string(120, 'b');
    fs::create_directories(deep);
    table_.set_string(PARAM_STAGING_DIR, deep);
    EXPECT_EQ(flush_staging_buffer(), 1);
    const std::string cut = deep.substr(0, 255);
    EXPECT_EQ(kvtest::read_file(cut), kvtest::frame("before"));
    ASSERT_EQ(append("after"), 0);
    EXPECT_EQ(flush_staging_buffer(), -1);
    EXPECT_EQ(reason(), "tmp file already exists\n");
    EXPECT_EQ(kvtest::read_file(cut), kvtest::frame("before"));
    EXPECT_EQ(held().records(), kvtest::frame("after"));
    EXPECT_TRUE(files_in(deep).empty());
}

TEST_F(StagingFailure, DamagedHeaderIsEmptiedAndTold) {
    for (const std::uint32_t offset : {kSize + 1u, 0x80000000u, 0xFFFFFFFFu, 0u, 15u}) {
        SCOPED_TRACE(offset);
        kvtest::clear_log();
        fs::remove(kvtest::kMarker);
        kvtest::set_header(1, offset);
        EXPECT_EQ(flush_staging_buffer(), -1);
        EXPECT_EQ(log_lines().size(), 1u);
        EXPECT_NE(marker(), "(none)");
        EXPECT_EQ(held().num_records, 0u);
        EXPECT_EQ(held().next_offset, 16u);
        EXPECT_TRUE(files_in(folder_).empty());
        ASSERT_EQ(append("kept"), 0);
        EXPECT_EQ(held().records(), kvtest::frame("kept"));
    }
}

TEST_F(StagingFailure, DamagedHeaderOfAnEmptyBufferIsSetRightAndTold) {
    for (const std::uint32_t offset : {0u, 15u, 17u, kSize + 1u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(offset);
        fs::remove(kvtest::kMarker);
        kvtest::set_header(0, offset);
        EXPECT_EQ(flush_staging_buffer(), 1);
        EXPECT_EQ(reason(), "staging buffer header is damaged\n");
        EXPECT_EQ(held().next_offset, 16u);
        EXPECT_TRUE(files_in(folder_).empty());
    }
}

TEST_F(StagingFailure, KernelThatRefusesRootChangesNothing) {
    kvtest::expect_in_child([&] {
        kvtest::take_ids(kvtest::kConnection);
        kvtest::refuse_call(SYS_setresuid, EPERM);
        EXPECT_EQ(flush_staging_buffer(), -1);
        EXPECT_EQ(logged("setresuid failed. Cannot change to root"), 1);
        EXPECT_EQ(kvtest::thread_ids(), kvtest::kConnection);
    });
    EXPECT_TRUE(files_in(folder_).empty());
    EXPECT_EQ(marker(), "(none)");
    expect_recovery();
}

TEST_F(StagingFailure, OfAUserIsMarkedByRootAndGivesTheIdentityBack) {
    fs::remove(folder_);
    kvtest::expect_in_child([] {
        kvtest::take_ids(kvtest::kConnection);
        EXPECT_EQ(flush_staging_buffer(), -1);
        EXPECT_EQ(kvtest::thread_ids(), kvtest::kConnection);
    });
    struct stat status {};
    ASSERT_EQ(stat(kvtest::kMarker, &status), 0);
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(marker(), "missing staging directory\n" + kEnd);
}

TEST_F(StagingFailure, IsSilentBelowLevelZeroAndMarksAllTheSame) {
    table_.set_debug_level(-1);
    fs::remove(folder_);
    expect_failure("missing staging directory\n");
    EXPECT_TRUE(log_lines().empty());
}

}  // namespace
