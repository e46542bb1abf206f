// The staging buffer under six processes at once, with a buffer small enough to be flushed all the
// time. The runs are those of ./dev soak, for a bounded time.
#include <cstdlib>

#include "staging_fixture.h"
#include "staging_run.h"

namespace {

using kvsoak::Counts;
using kvsoak::Plan;

class StagingProcesses : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr) << "run this below scripts/sandbox";
        plan_.folder = kvtest::make_temp_dir();
    }
    static void expect_no_violation(const Counts& counts) {
        for (const std::string& violation : counts.violations) ADD_FAILURE() << violation;
    }
    Plan plan_;
};

TEST_F(StagingProcesses, EveryEventOfSixWritersIsInOneFileInItsOrder) {
    plan_.buffer_size = 16 * 1024;
    plan_.events = 20000;
    const Counts counts = kvsoak::run_writers(plan_);
    expect_no_violation(counts);
    EXPECT_EQ(counts.accepted + counts.refused, 6u * plan_.events);
    EXPECT_GT(counts.accepted, 5u * plan_.events);
    EXPECT_GT(counts.files, 100u);
}

TEST_F(StagingProcesses, KilledWritersHarmNobody) {
    plan_.buffer_size = 4 * 1024;
    plan_.events = 500000;
    plan_.milliseconds = 5000;
    const Counts counts = kvsoak::run_kills(plan_);
    expect_no_violation(counts);
    EXPECT_GT(counts.kills, 20u);
    EXPECT_GT(counts.accepted, 1000u);
    EXPECT_LE(counts.unfinished, counts.kills);
}

TEST_F(StagingProcesses, FullDiskLosesOnlyWhatIsRefusedAndMarked) {
    plan_.buffer_size = 8 * 1024;
    plan_.events = 500000;
    plan_.milliseconds = 2000;
    const Counts counts = kvsoak::run_full_disk(plan_);
    expect_no_violation(counts);
    EXPECT_GT(counts.accepted, 1000u);
    EXPECT_GT(counts.refused, 0u) << "the disk never was full";
    EXPECT_EQ(counts.marker, "staging buffer write error\n");
}

}  // namespace
