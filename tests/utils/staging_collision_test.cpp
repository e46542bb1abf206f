// Two flushes that meet on one name: none replaces the other's file, and each ends under a name of
// its own.
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "call_probe.h"
#include "staging_fixture.h"

namespace {

using kvtest::append;
using kvtest::Call;
using kvtest::CallMade;
using kvtest::CallProbe;
using kvtest::held;
using kvtest::pending_in;
using kvtest::pending_payloads;
using kvtest::standing_clock;

using Texts = std::vector<std::string>;

class StagingCollision : public kvtest::StagingTest {
protected:
    // Flushes under a clock that shows one moment for so many looks. Another process appends "late"
    // and flushes it under the very same name, when this one has looked and not yet renamed.
    int flush_late(int looks, int& other) {
        CallProbe probe;
        probe.clock = standing_clock(1700000000, 42, looks);
        probe.before = [&](const CallMade& call) {
            if (call.kind != Call::rename || call.nth != 1) return 0;
            const pid_t child = fork();
            if (child == 0) {
                CallProbe own;
                own.clock = standing_clock(1700000000, 42);
                append("late");
                _exit(flush_staging_buffer() == 1 ? 0 : 1);
            }
            EXPECT_EQ(waitpid(child, &other, 0), child);
            EXPECT_EQ(pending_in(folder_), Texts{"pending_1700000000.000042"});
            return 0;
        };
        return flush_staging_buffer();
    }
};

TEST_F(StagingCollision, LaterFlushTakesANewName) {
    ASSERT_EQ(append("early"), 0);
    int other = -1;
    EXPECT_EQ(flush_late(1, other), 1);
    EXPECT_EQ(other, 0);
    EXPECT_EQ(pending_in(folder_).size(), 2u);
    EXPECT_EQ(kvtest::read_file(folder_ + "/pending_1700000000.000042"), kvtest::frame("late"));
    const Texts all = pending_payloads(folder_);
    EXPECT_EQ((std::set<std::string>(all.begin(), all.end())),
              (std::set<std::string>{"early", "late"}));
    EXPECT_EQ(all.size(), 2u);
    EXPECT_EQ(kvtest::marker(), "(none)");
}

TEST_F(StagingCollision, ClockThatStandsStillGivesANameWithoutATime) {
    ASSERT_EQ(append("early"), 0);
    int other = -1;
    EXPECT_EQ(flush_late(1 << 30, other), 1);
    EXPECT_EQ(other, 0);
    EXPECT_EQ(kvtest::read_file(folder_ + "/pending_1700000000.000042"), kvtest::frame("late"));
    EXPECT_EQ(pending_payloads(folder_).size(), 2u);
    EXPECT_EQ(pending_in(folder_).back().substr(0, 17), "pending_unk_time_");
    EXPECT_EQ(kvtest::marker(), "(none)");
}

TEST_F(StagingCollision, FrozenProcessesNeverReplaceEachOthersFiles) {
    constexpr int kProcesses = 4;
    constexpr int kFlushes = 200;
    pid_t processes[kProcesses];
    for (int i = 0; i < kProcesses; ++i) {
        processes[i] = fork();
        if (processes[i] != 0) continue;
        // The nth flush of each looks at the same moment first, and at the real clock after that.
        CallProbe probe;
        int lost = 0;
        for (int n = 0; n < kFlushes; ++n) {
            probe.clock = standing_clock(1700000000, n, 1);
            append(std::to_string(i) + ":" + std::to_string(n));
            if (flush_staging_buffer() != 1) ++lost;
        }
        _exit(lost);
    }
    int failed = 0;
    for (const pid_t process : processes) {
        int status = -1;
        ASSERT_EQ(waitpid(process, &status, 0), process);
        ASSERT_TRUE(WIFEXITED(status));
        failed += WEXITSTATUS(status);
    }
    EXPECT_EQ(flush_staging_buffer(), 1);
    const Texts all = pending_payloads(folder_);
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), all.size()) << "duplicates";
    // A flush that found its name taken failed and kept the records: another one wrote them.
    EXPECT_EQ(all.size(), std::size_t{kProcesses} * kFlushes);
    EXPECT_GT(failed, 0) << "they never met";
}

}  // namespace
