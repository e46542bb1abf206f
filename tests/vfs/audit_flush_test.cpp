// Audit files: what a flush writes and under which names, and what each failure leaves in the
// buffer and on disk.
#include <fcntl.h>
#include <malloc.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <set>

#include "audit_fixture.h"

namespace {

using namespace kvtest;

std::ptrdiff_t open_files() {
    const std::filesystem::directory_iterator fds("/proc/self/fd");
    return std::distance(begin(fds), end(fds));
}

// Puts a file system of its own, mounted this way, over a folder. Call in a child.
void mount_over(const std::string& folder, unsigned long flags, const char* options) {
    hide_folder(folder);
    ASSERT_EQ(mount("none", folder.c_str(), nullptr, MS_REMOUNT | flags, options), 0);
}

// What a flush writes -------------------------------------------------------------------------

TEST_F(AuditTest, FlushNeedsABuffer) {
    EXPECT_EQ(flush_audit_buffer(), -1);
    EXPECT_EQ(logged("cannot access staging buffer.\n"), 1);
    EXPECT_EQ(log_lines().size(), 1u);
}

TEST_F(AuditBuffer, FlushOfAnEmptyBufferMakesNoFile) {
    EXPECT_EQ(flush_audit_buffer(), 1);
    EXPECT_EQ(names().size(), 0u);
    config.set_string(PARAM_AUDITING_DIR, "/nothing");  // and needs no folder
    EXPECT_EQ(flush_audit_buffer(), 1);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(AuditFlush, FileHoldsTheRecordsAndNothingElse) {
    const std::string odd = framed("odd", 5);
    EXPECT_EQ(write_record(odd), 0);
    clear_log();
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(names(), std::vector<std::string>{kName});
    EXPECT_EQ(content(kName), record + odd);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(AuditFlush, FileIsReadRecordByRecord) {
    EXPECT_EQ(flush_audit_buffer(), 0);
    char path[16] = "/share/file0";
    for (int i = 0; i < 5; ++i) {
        AuditEvent event;
        audit_event__init(&event);
        path[11] = static_cast<char>('0' + i);
        event.path = path;
        event.size = static_cast<std::uint64_t>(i) << 40;
        EXPECT_EQ(send_audit_vfs_event(&event, 4001), 0);
    }
    clock.set(kNow + 1);
    EXPECT_EQ(flush_audit_buffer(), 0);
    const std::string file = content("pending_1700000001.000042");
    std::size_t at = 0;
    for (int i = 0; i < 5; ++i) {
        std::uint32_t header[2];
        ASSERT_LE(at + sizeof header, file.size());
        std::memcpy(header, file.data() + at, sizeof header);
        EXPECT_EQ(header[1], 0x04012010u);
        at += sizeof header;
        ASSERT_LE(at + header[0], file.size());
        AuditEvent* const event = audit_event__unpack(
            nullptr, header[0], reinterpret_cast<const std::uint8_t*>(file.data() + at));
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(event->path, "/share/file" + std::to_string(i));
        EXPECT_EQ(event->uid, 4001u);
        EXPECT_EQ(event->size, static_cast<std::uint64_t>(i) << 40);
        audit_event__free_unpacked(event, nullptr);
        at += header[0];
    }
    EXPECT_EQ(at, file.size());
}

TEST_F(AuditFlush, BufferIsANewOneOfTheConfiguredSize) {
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 200000);
    clock.set(kNow + 5);
    EXPECT_EQ(flush_audit_buffer(), 0);
    expect_empty(kNow + 5);
    for (int i = 0; i < 184; ++i) ASSERT_EQ(global_read_audit_buffer->data[i], 0) << i;
    const std::string large = framed(std::string(150000, 'l'));
    EXPECT_EQ(write_record(large), 0);
    EXPECT_EQ(held(), large);
}

TEST_F(AuditFlush, NameIsTheTimeToTheMicrosecond) {
    clock.set(5, 7);
    EXPECT_EQ(flush_audit_buffer(), 0);
    write_record(record);
    clock.set(5, 123456);
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(names(), (std::vector<std::string>{"pending_5.000007", "pending_5.123456"}));
}

TEST_F(AuditFlush, NameIsRandomWithoutAClock) {
    clock.break_time_of_day();
    EXPECT_EQ(flush_audit_buffer(), 0);
    ASSERT_EQ(names().size(), 1u);
    const std::string name = names()[0];
    EXPECT_EQ(name.rfind("pending_unk_time_", 0), 0u) << name;
    EXPECT_EQ(name.size(), 17u + 7u) << name;
    EXPECT_EQ(
        name.substr(17).find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                          "0123456789+;"),
        std::string::npos)
        << name;
    EXPECT_EQ(content(name), record);
}

TEST_F(AuditFlush, FileIsWrittenAtOnceUnderATemporaryNameAndNotSynced) {
    WriteProbe probe(folder);
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(probe.sizes, std::vector<std::size_t>{record.size()});
    EXPECT_EQ(probe.syncs, 0);
    ASSERT_EQ(probe.paths.size(), 1u);
    const std::regex temporary(folder + "/adtemp[A-Za-z0-9]{6}");
    EXPECT_TRUE(std::regex_match(probe.paths[0], temporary)) << probe.paths[0];
}

TEST_F(AuditFlush, IsTracedAtLevelThree) {
    config.set_debug_level(2);
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(logged_part("writing to"), 0);
    clock.set(kNow + 1);
    write_record(record);
    config.set_debug_level(3);
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(logged_matching(log_lines(), "flush_audit_buffer: writing to " + folder +
                                               "/adtemp[A-Za-z0-9]{6} would rename to filename " +
                                               folder + "/pending_1700000001\\.000042 size 21 \n"),
              1);
}

// A folder that does not serve ----------------------------------------------------------------

TEST_F(AuditFlush, MissingFolderIsReported) {
    config.set_string(PARAM_AUDITING_DIR, folder + "/nothing");
    EXPECT_EQ(flush_audit_buffer(), -1);
    EXPECT_EQ(logged("missing auditing directory " + folder + "/nothing\n"), 1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_FALSE(file_exists(folder + "/nothing"));
    expect_kept();
}

TEST_F(AuditFlush, FileInTheFoldersPlaceIsReported) {
    write_file(folder + "/file", "x");
    config.set_string(PARAM_AUDITING_DIR, folder + "/file");
    EXPECT_EQ(flush_audit_buffer(), -1);
    EXPECT_EQ(logged("missing auditing directory " + folder + "/file\n"), 1);
    EXPECT_EQ(content("file"), "x");
    expect_kept();
}

TEST_F(AuditFlush, ReadOnlyFolderIsReported) {
    expect_in_child([&] {
        mount_over(folder, MS_RDONLY, nullptr);
        EXPECT_EQ(flush_audit_buffer(), -1);
        EXPECT_EQ(logged_matching(log_lines(),
                                  "cannot openfile " + folder +
                                      "/adtemp.{6}\\. errno = 30\\(Read-only file system\\)\n"),
                  1);
        EXPECT_EQ(names().size(), 0u);
        expect_kept();
    });
}

TEST_F(AuditFlush, FullFolderKeepsTheRecordsAndTheTemporary) {
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 10000);
    clock.set(kNow + 1);
    EXPECT_EQ(flush_audit_buffer(), 0);  // now there is a larger buffer
    record = framed(std::string(6000, 'r'));
    EXPECT_EQ(write_record(record), 0);
    expect_in_child([&] {
        mount_over(folder, 0, "size=4k");
        config.set_debug_level(9);
        EXPECT_EQ(flush_audit_buffer(), -1);  // a short write
        EXPECT_EQ(logged("staging buffer could not finish write\n"), 0);
        EXPECT_EQ(held(), record);
        ASSERT_EQ(names().size(), 1u);
        EXPECT_EQ(names()[0].rfind("adtemp", 0), 0u);
        EXPECT_EQ(content(names()[0]), record.substr(0, 4096));
        config.set_debug_level(10);
        EXPECT_EQ(flush_audit_buffer(), -1);  // none at all
        EXPECT_EQ(logged("staging buffer could not finish write\n"), 1);
        EXPECT_EQ(held(), record);
        EXPECT_EQ(fill().records, 1u);
        EXPECT_EQ(count("adtemp"), 2);
        EXPECT_EQ(count("pending_"), 0);
        config.set_debug_level(0);
        ASSERT_EQ(mount("none", folder.c_str(), nullptr, MS_REMOUNT, "size=64k"), 0);
        EXPECT_EQ(flush_audit_buffer(), 0);
        EXPECT_EQ(content("pending_1700000001.000042"), record);
        EXPECT_EQ(count("adtemp"), 2);
    });
}

TEST_F(AuditFlush, ShortWriteIsNotContinued) {
    WriteProbe probe(folder);
    probe.answer = [](std::size_t) { return 5; };
    EXPECT_EQ(flush_audit_buffer(), -1);
    EXPECT_EQ(probe.sizes, std::vector<std::size_t>{record.size()});
    EXPECT_EQ(count("adtemp"), 1);
    EXPECT_EQ(count("pending_"), 0);
    EXPECT_TRUE(log_lines().empty());
    expect_kept();
}

TEST_F(AuditFlush, RefusedWriteIsNotRepeated) {
    for (const int error : {EINTR, EIO, ENOSPC}) {
        WriteProbe probe(folder);
        probe.answer = [=](std::size_t) { return -error; };
        EXPECT_EQ(flush_audit_buffer(), -1);
        EXPECT_EQ(probe.sizes.size(), 1u);
        expect_kept();
    }
    EXPECT_EQ(count("adtemp"), 3);
    EXPECT_EQ(count("pending_"), 0);
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(content(kName), record);
    EXPECT_EQ(count("adtemp"), 3);
}

// What is left behind -------------------------------------------------------------------------

TEST_F(AuditFlush, CountWithoutRecordsMakesAnEmptyFile) {
    config.set_string(PARAM_AUDITING_DIR, folder + "/nothing");
    init_audit_buffer();
    config.set_string(PARAM_AUDITING_DIR, folder);
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(content(kName), "");
    expect_empty();
}

TEST_F(AuditFlush, MemoryMayRunOutAnywhere) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    std::set<std::string> reasons;
    bool refused_all = false;
    for (int nth = 1; !refused_all && nth < 20; ++nth) {
        SCOPED_TRACE(nth);
        free(std::exchange(global_read_audit_buffer, nullptr));
        init_audit_buffer();
        EXPECT_EQ(write_record(record), 0);
        clock.set(kNow, nth);
        clear_log();
        const int temporaries = count("adtemp");
        const int files = count("pending_");
        int result = 0;
        {
            const RefusedAllocation refused(nth);
            result = flush_audit_buffer();
            refused_all = RefusedAllocation::count() < nth;
        }
        const std::string reason = log_lines().empty() ? "" : log_lines()[0].message;
        reasons.insert(reason.substr(0, reason.find(',')));
        EXPECT_EQ(count("pending_"), files + (result == 0 ? 1 : 0));
        if (result == 0) {
            EXPECT_EQ(count("adtemp"), temporaries);
            EXPECT_EQ(global_read_audit_buffer == nullptr,
                      reason == "Unable to allocate buffer for auditing\n");
        } else {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(held(), record);
            EXPECT_EQ(fill().records, 1u);
        }
    }
    EXPECT_TRUE(refused_all);
    for (const char* reason :
         {"Cannot allocate memory", "Out of memory for creating tmpfname\n",
          "failed to calloc for dumpfname", "Unable to allocate buffer for auditing\n", ""})
        EXPECT_EQ(reasons.count(reason), 1u) << reason;
}

TEST_F(AuditFlush, NoDescriptorStaysOpen) {
    const std::ptrdiff_t before = open_files();
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(open_files(), before);
    write_record(record);
    EXPECT_EQ(flush_audit_buffer(), -1);  // the name is taken
    EXPECT_EQ(open_files(), before);
    clock.set(kNow + 1);
    {
        WriteProbe probe(folder);
        probe.answer = [](std::size_t) { return 1; };
        EXPECT_EQ(flush_audit_buffer(), -1);
    }
    EXPECT_EQ(open_files(), before);
    config.set_string(PARAM_AUDITING_DIR, "/nothing");
    EXPECT_EQ(flush_audit_buffer(), -1);
    EXPECT_EQ(open_files(), before);
}

TEST_F(AuditFlush, MemoryIsGivenBackOnEveryWay) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    config.set_debug_level(-1);
    constexpr int kTimes = 200;
    const auto growth = [](auto&& body) {
        // The allocator first fills the lists of free blocks that it counts as used.
        for (int i = 1; i <= 20; ++i) body(-i);
        const std::size_t before = mallinfo2().uordblks;
        for (int i = 1; i <= kTimes; ++i) body(i);
        return static_cast<long>(mallinfo2().uordblks) - static_cast<long>(before);
    };
    EXPECT_LT(growth([&](int i) {
                  clock.set(kNow + i);
                  flush_audit_buffer();
                  write_record(record);
              }),
              kTimes);
    EXPECT_LT(growth([&](int) { flush_audit_buffer(); }), kTimes);  // the name is taken
    config.set_string(PARAM_AUDITING_DIR, "/nothing");
    EXPECT_LT(growth([&](int) { flush_audit_buffer(); }), kTimes);
}

}  // namespace
