// One instance at a time, and what --teardown takes away, refuses to take, and leaves.
#include <signal.h>
#include <sys/shm.h>

#include <filesystem>

#include "service_readers.h"
#include "service_survival.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

using ServiceInstance = SurvivalTest;
using ServiceTeardown = SurvivalTest;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(ServiceInstance, ASecondOneRefusesAndNamesTheFirst) {
    start();
    serve(1);
    const SharedIds before = shared_ids();
    const std::vector<std::string> ways[] = {{"--foreground"}, {}};
    for (const std::vector<std::string>& options : ways) {
        const ProgramResult second = run_service(options);
        EXPECT_EQ(second.exit_code, 1);
        EXPECT_TRUE(contains(second.err, std::to_string(service().pid()))) << second.err;
    }
    EXPECT_TRUE(service().running());
    EXPECT_EQ(status_now()["service"]["pid"], service().pid());
    EXPECT_EQ(shared_ids(), before);
    serve(2);
}

TEST_F(ServiceInstance, AfterAKillTheLockIsFreeAtOnce) {
    start();
    for (int round = 0; round < 5; ++round) {
        const pid_t before = service().pid();
        service().kill_it();
        start();
        EXPECT_NE(service().pid(), before);
        EXPECT_EQ(status_now()["service"]["pid"], service().pid());
    }
}

// Of many that are started at once one remains, and it works.
TEST_F(ServiceInstance, OfManyThatAreStartedAtOnceOneRemains) {
    std::vector<std::unique_ptr<RunningService>> all;
    for (int i = 0; i < 6; ++i) all.push_back(std::make_unique<RunningService>());
    RunningService* left = nullptr;
    EXPECT_TRUE(within(seconds(10), [&] {
        int running = 0;
        for (const auto& one : all)
            if (one->running()) {
                ++running;
                left = one.get();
            }
        return running == 1;
    }));
    ASSERT_NE(left, nullptr);
    EXPECT_TRUE(left->ready()) << left->log();
    for (const auto& one : all) {
        if (one.get() == left) continue;
        EXPECT_EQ(one->wait_for_end(), 1) << one->log();
    }
    deliver(pair_of_generation(1));
    EXPECT_TRUE(serves(1)) << left->log();
}

TEST_F(ServiceTeardown, RemovesEverythingAfterALastFlush) {
    start();
    serve(1);
    EXPECT_EQ(service().end(), 0);
    stage_events(0, 7);
    EXPECT_EQ(system_v_objects("shm").size(), 3U);
    EXPECT_EQ(system_v_objects("sem").size(), 2U);
    const ProgramResult result = run_service({"--teardown"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_TRUE(system_v_objects("shm").empty());
    EXPECT_TRUE(system_v_objects("sem").empty());
    EXPECT_EQ(events_in_files(), 7U);
    EXPECT_EQ(persisted_generation(), 1) << "files stay";
    start();
    EXPECT_EQ(served_generation(), 1);
}

TEST_F(ServiceTeardown, OnAMachineWithoutObjectsThereIsNothingToDo) {
    for (int i = 0; i < 2; ++i) {
        const ProgramResult result = run_service({"--teardown"});
        EXPECT_EQ(result.exit_code, 0) << result.err;
        EXPECT_TRUE(system_v_objects("shm").empty());
        EXPECT_TRUE(system_v_objects("sem").empty());
    }
}

TEST_F(ServiceTeardown, IsRefusedWhileAServiceRuns) {
    start();
    serve(1);
    const SharedIds before = shared_ids();
    const ProgramResult result = run_service({"--teardown"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_TRUE(contains(result.err, std::to_string(service().pid()))) << result.err;
    EXPECT_EQ(shared_ids(), before);
    EXPECT_EQ(served_generation(), 1);
    serve(2);
}

TEST_F(ServiceTeardown, IsRefusedWhileAReaderIsAttachedUnlessForced) {
    start();
    serve(1);
    EXPECT_EQ(service().end(), 0);
    stage_events(0, 3);
    ASSERT_EQ(init_perm_map_semaphore(), 0);
    void* const map = get_perm_map_addr();
    ASSERT_NE(map, nullptr);
    const SharedIds before = shared_ids();
    const ProgramResult refused = run_service({"--teardown"});
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_TRUE(contains(refused.err, "attached")) << refused.err;
    EXPECT_EQ(shared_ids(), before);
    EXPECT_EQ(served_generation(), 1);

    const ProgramResult forced = run_service({"--teardown", "--force"});
    EXPECT_EQ(forced.exit_code, 0) << forced.err;
    EXPECT_EQ(shared_ids().table, -1);
    EXPECT_EQ(events_in_files(), 3U);
    EXPECT_EQ(static_cast<kavrin_be_header_t*>(map)->generationnum, 1U)
        << "who has a map attached keeps it";
    put_perm_map_addr(map);
    EXPECT_TRUE(system_v_objects("shm").empty());
}

// Nobody loses events without having asked for it.
TEST_F(ServiceTeardown, IsRefusedWhenEventsCannotBeFlushedUnlessForced) {
    start();
    EXPECT_EQ(service().end(), 0);
    stage_events(0, 3);
    fs::remove_all("/kavrin/staging");
    write_file("/kavrin/staging", "no folder");
    const SharedIds before = shared_ids();
    const ProgramResult refused = run_service({"--teardown"});
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_EQ(shared_ids().staging, before.staging);
    fs::remove("/kavrin/staging");
    fs::create_directory("/kavrin/staging");
    EXPECT_EQ(run_service({"--teardown"}).exit_code, 0);
    EXPECT_EQ(events_in_files(), 3U);
    EXPECT_TRUE(system_v_objects("shm").empty());
}

}  // namespace
}  // namespace kvtest
