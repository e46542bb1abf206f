// The name of an audit file when somebody else has it, before the flush or in the middle of it, and
// when the file system refuses it. Another process's file is never replaced.
#include <fstream>

#include "audit_fixture.h"

namespace {

using namespace kvtest;

TEST_F(AuditFlush, TakenNameIsReportedAndLeavesTheTemporary) {
    write_file(folder + "/" + kName, "of another process");
    EXPECT_EQ(flush_audit_buffer(), -1);
    EXPECT_EQ(logged("dump file " + folder + "/" + kName + " already exists.\n"), 1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(content(kName), "of another process");
    EXPECT_EQ(count("adtemp"), 1);
    expect_kept();
    clock.set(kNow, 43);
    EXPECT_EQ(flush_audit_buffer(), 0);
    EXPECT_EQ(content("pending_1700000000.000043"), record);
    EXPECT_EQ(count("adtemp"), 1);
}

TEST_F(AuditFlush, NameTakenInTheMeantimeIsNotReplaced) {
    {
        WriteProbe probe(folder);
        probe.answer = [&](std::size_t asked) {
            std::ofstream(folder + "/" + kName) << "of another process";
            clock.set(kNow, 43);
            return static_cast<ssize_t>(asked);
        };
        EXPECT_EQ(flush_audit_buffer(), 0);
    }
    EXPECT_EQ(names(), (std::vector<std::string>{kName, "pending_1700000000.000043"}));
    EXPECT_EQ(content(kName), "of another process");
    EXPECT_EQ(content("pending_1700000000.000043"), record);
    expect_empty();
}

TEST_F(AuditFlush, ClockThatStandsStillGivesANameWithoutATime) {
    {
        WriteProbe probe(folder);
        probe.answer = [&](std::size_t asked) {
            std::ofstream(folder + "/" + kName) << "of another process";
            return static_cast<ssize_t>(asked);
        };
        EXPECT_EQ(flush_audit_buffer(), 0);
    }
    EXPECT_EQ(names().size(), 2u);
    EXPECT_EQ(content(kName), "of another process");
    for (const std::string& name : names())
        if (name != kName) {
            EXPECT_EQ(name.substr(0, 17), "pending_unk_time_");
            EXPECT_EQ(content(name), record);
        }
    EXPECT_TRUE(log_lines().empty());
    expect_empty();
}

TEST_F(AuditFlush, FailedRenameRemovesTheTemporaryAndLosesTheRecords) {
    // A name is cut at 255 characters, so that of this folder lies outside of it: on another disk.
    const std::string parent = folder + "/" + std::string(200, 'p');
    folder = parent + "/" + std::string(60, 'q');
    ASSERT_TRUE(std::filesystem::create_directories(folder));
    config.set_string(PARAM_AUDITING_DIR, folder);
    expect_in_child([&] {
        hide_folder(folder);
        EXPECT_EQ(flush_audit_buffer(), 0);
        EXPECT_EQ(logged_matching(log_lines(), "cannot rename " + folder + "/adtemp.{6} to " +
                                                   (folder + "/" + kName).substr(0, 255) +
                                                   ", errno = 18\n"),
                  1);
        EXPECT_EQ(log_lines().size(), 1u);
        EXPECT_EQ(names().size(), 0u);
        expect_empty();
        EXPECT_EQ(flush_audit_buffer(), 1);
    });
}

TEST_F(AuditFlush, BufferIsNewBeforeTheFileHasItsName) {
    // The folder goes away in the middle: the records are lost, and so is their count.
    {
        WriteProbe probe(folder);
        probe.answer = [&](std::size_t asked) {
            std::filesystem::rename(folder, folder + ".away");
            return static_cast<ssize_t>(asked);
        };
        EXPECT_EQ(flush_audit_buffer(), 0);
    }
    std::filesystem::rename(folder + ".away", folder);
    EXPECT_EQ(logged_part("cannot rename "), 1);
    EXPECT_EQ(count("pending_"), 0);
    expect_empty();
}

}  // namespace
