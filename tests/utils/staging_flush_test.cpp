// A flush that works: what the pending file holds, whose it is, in which order things happen and
// what the semaphore covers. Failures are in staging_failures_test.cpp.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <regex>

#include "call_probe.h"
#include "provoke.h"
#include "staging_fixture.h"

namespace {

using kvtest::append;
using kvtest::Call;
using kvtest::CallMade;
using kvtest::CallProbe;
using kvtest::held;
using kvtest::log_lines;
using kvtest::pending_in;
using kvtest::pending_payloads;
using kvtest::standing_clock;

using Texts = std::vector<std::string>;

class StagingFlush : public kvtest::StagingTest {};

TEST_F(StagingFlush, OfAnEmptyBufferMakesNoFile) {
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_TRUE(kvtest::files_in(folder_).empty());
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(kvtest::marker(), "(none)");
}

TEST_F(StagingFlush, MovesTheRecordsAsTheyLieIntoOneFile) {
    append("one");
    append(std::string("t\0wo", 4));
    append(std::string(900, '3'));
    const std::string bytes = held().records();
    CallProbe probe;
    probe.clock = standing_clock(1700000000, 42);
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(kvtest::files_in(folder_), Texts{"pending_1700000000.000042"});
    EXPECT_EQ(kvtest::read_file(folder_ + "/pending_1700000000.000042"), bytes);
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(kvtest::marker(), "(none)");
}

TEST_F(StagingFlush, LeavesAnEmptyBufferOfZeros) {
    append("one");
    EXPECT_EQ(flush_staging_buffer(), 1);
    const kvtest::Held look = held();
    EXPECT_EQ(look.num_records, 0u);
    EXPECT_EQ(look.next_offset, 16u);
    EXPECT_EQ(look.last_flush_time, 0u);
    EXPECT_EQ(look.data, std::string(kSize - 16, 0));
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(pending_in(folder_).size(), 1u);
}

TEST_F(StagingFlush, EachMakesAFileOfItsOwnInTheOrderOfTime) {
    for (const char* text : {"one", "two", "three"}) {
        append(text);
        EXPECT_EQ(flush_staging_buffer(), 1);
    }
    EXPECT_EQ(pending_in(folder_).size(), 3u);
    EXPECT_EQ(pending_payloads(folder_), (Texts{"one", "two", "three"}));
}

TEST_F(StagingFlush, FileHasARandomNameWithoutAClock) {
    append("one");
    CallProbe probe;
    probe.before = kvtest::refuse(Call::clock, EFAULT);
    EXPECT_EQ(flush_staging_buffer(), 1);
    ASSERT_EQ(pending_in(folder_).size(), 1u);
    EXPECT_TRUE(
        std::regex_match(pending_in(folder_)[0], std::regex("pending_unk_time_[a-zA-Z0-9+;]{7}")));
    EXPECT_EQ(pending_payloads(folder_), Texts{"one"});
}

TEST_F(StagingFlush, OfAUserMakesRootsFileAndGivesTheIdentityBack) {
    append("one");
    kvtest::expect_in_child([&] {
        kvtest::become_user(4001, 4002, {});
        EXPECT_EQ(flush_staging_buffer(), 1);
        uid_t ids[3] = {};
        ASSERT_EQ(getresuid(&ids[0], &ids[1], &ids[2]), 0);
        EXPECT_EQ(ids[0], 0u);
        EXPECT_EQ(ids[1], 4001u);
        EXPECT_EQ(ids[2], 0u);
        EXPECT_EQ(getegid(), 4002u);
    });
    ASSERT_EQ(pending_in(folder_).size(), 1u);
    struct stat status {};
    ASSERT_EQ(stat((folder_ + "/" + pending_in(folder_)[0]).c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
    EXPECT_EQ(pending_payloads(folder_), Texts{"one"});
}

TEST_F(StagingFlush, HoldsTheSemaphoreForTheBufferAndItsFileOnly) {
    append("one");
    CallProbe probe;
    struct Step {
        Call kind;
        int semaphore;
        std::uint32_t records;
    };
    std::vector<Step> steps;
    probe.before = [&](const CallMade& call) {
        if (call.kind != Call::ftok && call.kind != Call::shmget && call.kind != Call::shmat &&
            call.kind != Call::close)
            steps.push_back({call.kind, kvtest::semaphore_value(), held().num_records});
        return 0;
    };
    EXPECT_EQ(flush_staging_buffer(), 1);
    constexpr Step kExpected[] = {
        {Call::clock, 1, 1},  {Call::make_temporary, 1, 1}, {Call::semop, 1, 1},
        {Call::write, 0, 1},  {Call::sync, 0, 1},           {Call::semop, 0, 0},
        {Call::rename, 1, 0},
    };
    ASSERT_EQ(steps.size(), std::size(kExpected));
    for (std::size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(steps[i].kind, kExpected[i].kind);
        EXPECT_EQ(steps[i].semaphore, kExpected[i].semaphore);
        EXPECT_EQ(steps[i].records, kExpected[i].records);
    }
}

TEST_F(StagingFlush, WritesAndSyncsATemporaryInTheSameFolderBeforeItIsRenamed) {
    append("one");
    CallProbe probe;
    long written = -1;
    long synced = -2;
    std::string from;
    std::string content;
    Texts seen;
    probe.before = [&](const CallMade& call) {
        if (call.kind == Call::make_temporary) {
            EXPECT_EQ(call.path, folder_ + "/kvtempXXXXXX");
        }
        if (call.kind == Call::write) written = call.target;
        if (call.kind == Call::sync) synced = call.target;
        if (call.kind == Call::rename) {
            from = call.path;
            seen = kvtest::files_in(folder_);
            content = kvtest::read_file(from);
        }
        return 0;
    };
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(written, synced);
    EXPECT_TRUE(std::regex_match(from, std::regex(folder_ + "/kvtemp[A-Za-z0-9]{6}"))) << from;
    ASSERT_EQ(seen.size(), 1u) << "nothing but the temporary before the rename";
    EXPECT_EQ(folder_ + "/" + seen[0], from);
    EXPECT_EQ(content, kvtest::frame("one"));
}

TEST_F(StagingFlush, WritesOnBehindWhatTheDiskTookAtOnce) {
    const std::string large(3000, 'l');
    append(large);
    CallProbe probe;
    probe.longest_write = 1000;
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(pending_payloads(folder_), Texts{large});
    EXPECT_EQ(probe.count(Call::make_temporary), 1);
}

TEST_F(StagingFlush, TakesAFolderBehindALink) {
    const std::string link = kvtest::make_temp_dir() + "/link";
    std::filesystem::create_directory_symlink(folder_, link);
    table_.set_string(PARAM_STAGING_DIR, link);
    append("one");
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(pending_payloads(folder_), Texts{"one"});
}

TEST_F(StagingFlush, TakesRecordsWithoutASignatureAlong) {
    kvtest::Frame odd("odd", 7);
    ASSERT_EQ(write_to_staging_buffer(odd.get()), 0);
    ASSERT_EQ(append("even"), 0);
    EXPECT_EQ(flush_staging_buffer(), 1);
    ASSERT_EQ(pending_in(folder_).size(), 1u);
    EXPECT_EQ(kvtest::read_file(folder_ + "/" + pending_in(folder_)[0]),
              odd.text() + kvtest::frame("even"));
}

}  // namespace
