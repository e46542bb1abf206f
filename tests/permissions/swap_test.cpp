// Switching tables, the builder's side: what a swap does in which order, and what each failure of
// it leaves behind.
#include <gtest/gtest.h>

#include "ipc_probe.h"

namespace kvtest {
namespace {

const std::string kLabel = "PERM_MAP kavrin_messenger:";
std::string error_text(int error) {
    return "code=" + std::to_string(error) + " (" + std::strerror(error) + ")\n";
}

class Swap : public SwapTest {
protected:
    // Kinds of the calls that change something, in order.
    static std::vector<Ipc> changes(const IpcProbe& probe) {
        std::vector<Ipc> kinds;
        for (const IpcCall& call : probe.calls()) {
            if (call.kind == Ipc::semop || call.kind == Ipc::shmctl) kinds.push_back(call.kind);
        }
        return kinds;
    }
};

TEST_F(Swap, FirstSwapRemovesNothing) {
    const int old = make_table(0, "old");
    IpcProbe probe;
    EXPECT_EQ(swap_maps(0), 0);
    EXPECT_EQ(changes(probe), std::vector<Ipc>{Ipc::semop});
    EXPECT_EQ(probe.count(Ipc::shmget), 0) << "not even looked up";
    EXPECT_EQ(segment(0), old);
    EXPECT_EQ(value(0), 1);
    EXPECT_EQ(value(1), 0);
}

TEST_F(Swap, LaterSwapsFlipFirstAndThenRemove) {
    for (const int current : {0, 1}) {
        const int old = make_table(current, "old");
        make_table(1 - current, "new");
        set_value(0, current);
        set_value(1, 1);
        IpcProbe probe;
        EXPECT_EQ(swap_maps(current), 0);
        EXPECT_EQ(changes(probe), (std::vector<Ipc>{Ipc::semop, Ipc::shmctl}));
        const IpcCall flip = probe.last(Ipc::semop);
        EXPECT_EQ(flip.count, 1u);
        EXPECT_EQ(flip.first, 0);
        EXPECT_EQ(flip.second, current == 1 ? -1 : 1);
        EXPECT_EQ(flip.flags, 0);
        EXPECT_EQ(probe.last(Ipc::shmctl).target, old);
        EXPECT_EQ(probe.last(Ipc::shmctl).first, IPC_RMID);
        EXPECT_EQ(value(0), 1 - current);
        EXPECT_EQ(segment(current), -1);
        EXPECT_GE(segment(1 - current), 0);
        ASSERT_EQ(shmctl(segment(1 - current), IPC_RMID, nullptr), 0);
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Swap, NeverTouchesTheInitialisedMark) {
    int current = 0;
    for (int round = 0; round < 6; ++round, current = 1 - current) {
        ASSERT_EQ(swap_maps(current), 0);
        EXPECT_EQ(value(1), 0);
        EXPECT_EQ(map_initialized(0), 0);
    }
    set_value(1, 1);
    EXPECT_EQ(swap_maps(current), 0);
    EXPECT_EQ(value(1), 1);
}

TEST_F(Swap, MissingOldSegmentIsAccepted) {
    set_value(1, 1);
    IpcProbe probe;
    EXPECT_EQ(swap_maps(0), 0);
    EXPECT_EQ(changes(probe), std::vector<Ipc>{Ipc::semop});
    EXPECT_EQ(logged_part("shared memory get failed with ENOENT"), 1);
    EXPECT_EQ(value(0), 1);
}

TEST_F(Swap, UnknownOldSegmentStopsTheSwap) {
    set_value(1, 1);
    const int old = make_table(0, "old");
    {
        IpcProbe probe;
        probe.before = refuse(Ipc::shmget, EACCES);
        EXPECT_EQ(swap_maps(0), -1);
        EXPECT_TRUE(changes(probe).empty());
    }
    EXPECT_EQ(logged(kLabel + "get_current_perm_table_shmid failed\n"), 1);
    EXPECT_EQ(value(0), 0);
    EXPECT_EQ(segment(0), old);
}

TEST_F(Swap, IndexThatCannotBeFlippedKeepsTheOldSegment) {
    set_value(1, 1);
    const int old = make_table(0, "old");
    {
        IpcProbe probe;
        probe.before = refuse(Ipc::semop, EINTR);
        EXPECT_EQ(swap_maps(0), -1);
    }
    EXPECT_EQ(logged(kLabel + "cannot update semaphore value, " + error_text(EINTR)), 1);
    EXPECT_EQ(value(0), 0);
    EXPECT_EQ(segment(0), old);
}

TEST_F(Swap, OldSegmentThatCannotBeRemovedIsReportedAfterTheFlip) {
    set_value(1, 1);
    make_table(0, "old");
    {
        IpcProbe probe;
        probe.before = refuse(Ipc::shmctl, EPERM);
        EXPECT_EQ(swap_maps(0), -1);
    }
    EXPECT_EQ(logged(kLabel + "cannot remove old shared memory segment, " + error_text(EPERM)), 1);
    EXPECT_EQ(value(0), 1);
}

TEST_F(Swap, NegativeLevelSilencesTheFailures) {
    set_value(1, 1);
    make_table(0, "old");
    config_.set_debug_level(-1);
    for (const Ipc kind : {Ipc::shmget, Ipc::semop, Ipc::shmctl}) {
        IpcProbe probe;
        probe.before = refuse(kind, EPERM);
        EXPECT_EQ(swap_maps(0), -1);
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Swap, TableNumberOutsideTheTwoEndsTheProcess) {
    for (const int current : {-1, 2}) {
        const ChildResult result = run_child([=] { return swap_maps(current); });
        EXPECT_TRUE(result.asserted("current == 0 || current == 1")) << result.err;
    }
    EXPECT_EQ(value(0), 0);
}

TEST_F(Swap, LoweringAnIndexOfZeroBlocksTheBuilder) {
    const ChildResult blocked = run_child([] {
        alarm(1);
        return swap_maps(1);
    });
    EXPECT_EQ(blocked.signal, SIGALRM) << "exit code " << blocked.exit_code;
    EXPECT_EQ(value(0), 0);
}

TEST_F(Swap, RaisingAnIndexOfOneStopsTheNextReader) {
    set_value(0, 1);
    EXPECT_EQ(swap_maps(0), 0);
    EXPECT_EQ(value(0), 2);
    EXPECT_TRUE(
        run_child_void([] { get_perm_map_addr(); }).asserted("current == 0 || current == 1"));
}

}  // namespace
}  // namespace kvtest
