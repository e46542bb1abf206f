// The service and its processes killed at any moment: what was served is served on, whole, and what
// a killed build left is gone.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "service_readers.h"
#include "service_survival.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

class ServiceSurvival : public SurvivalTest {
protected:
    // Only builds are children then.
    static void keep_other_work_away() {
        configure("[KAVRIND]\ngroup map = off\n[SWEEPER]\nflush period = 86400\n");
    }
    static pid_t child_of(pid_t process) {
        std::ifstream list("/proc/" + std::to_string(process) + "/task/" + std::to_string(process) +
                           "/children");
        pid_t child = -1;
        list >> child;
        return list ? child : -1;
    }
    static bool is_idle() {
        const Json status = status_now();
        return status.is_object() && status["service"]["state"] == "idle" &&
               status["service"]["queued"] == 0 && names_in(kWork).empty();
    }
    static std::size_t times_in(const std::string& text, const std::string& part) {
        std::size_t times = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++times;
        return times;
    }
    static std::uint32_t generation_in_file() {
        kavrin_be_header_t header{};
        std::ifstream(kPersisted, std::ios::binary)
            .read(reinterpret_cast<char*>(&header), sizeof header);
        return header.generationnum;
    }
    // A pair whose image takes a while to be checked, filled and verified.
    static Pair big_pair(unsigned generation) { return pair_of_generation(generation, 60, 60); }
};

TEST_F(ServiceSurvival, AHundredKillsAroundBuildsLeaveAWholeMap) {
    std::mt19937 random(20261121);
    start();
    serve(1);
    long before = 1;
    int met_new = 0;
    for (unsigned generation = 2; generation < 102; ++generation) {
        SCOPED_TRACE(testing::Message() << "generation " << generation);
        deliver(pair_of_generation(generation, 2 + random() % 60, 2 + random() % 60),
                "g" + std::to_string(generation));
        const bool let_it_end = generation % 4 == 0;
        if (let_it_end) {
            EXPECT_TRUE(serves(generation)) << service().log();
        }
        std::this_thread::sleep_for(microseconds(random() % 40'000));
        service().kill_it();
        const long left = served_generation();
        EXPECT_GE(left, before);
        if (left == generation) ++met_new;
        start();
        const long served = served_generation();
        EXPECT_TRUE(served >= left && served <= generation) << served;
        before = served;
        if (HasFailure()) return;
    }
    EXPECT_TRUE(serves(101)) << service().log();
    expect_nothing_left();
    expect_persisted_is_served();
    for (const std::string& failed : names_in(kQuarantine)) {
        const std::string reason = read_file(kQuarantine + "/" + failed + "/reason.txt");
        EXPECT_NE(reason.find("tried 3 times"), std::string::npos) << failed << ": " << reason;
    }
    EXPECT_EQ(names_in(kIncoming), (std::vector<std::string>{".work", "quarantine"}));
    EXPECT_EQ(system_v_objects("shm").size(), 3U);
    RecordProperty("maps_switched_to_before_the_kill", met_new);
}

// The process that builds is one thing, its child that fills the image another. A pair is never
// lost, and what was served before it is served on.
TEST_F(ServiceSurvival, ABuildWhoseProcessesAreKilledCostsNothingButItsPair) {
    keep_other_work_away();
    start();
    serve(1);
    serve(2, 60, 60);
    const double whole = status_now()["counters"]["build_seconds"];
    long served = 2;
    int failures = 0;
    std::size_t met = 0;
    for (unsigned round = 0; round < 30; ++round) {
        const unsigned generation = 3 + round;
        SCOPED_TRACE(testing::Message() << "generation " << generation);
        const Pair pair = big_pair(generation);
        deliver(pair, "g" + std::to_string(generation));
        pid_t victim = -1;
        EXPECT_TRUE(within(seconds(5), [&] { return (victim = child_of(service().pid())) > 0; }));
        // The last tenth of a second is only there for readers that are late.
        const double moment = (whole - 0.1) * (round / 2) / 15;
        std::this_thread::sleep_for(std::chrono::duration<double>(moment));
        const bool filling = round % 2 == 1;
        if (filling)
            within(seconds(1),
                   [&] { return child_of(victim) > 0 || child_of(service().pid()) < 0; });
        if (filling) victim = child_of(victim);
        if (victim > 0) kill(victim, SIGKILL);
        EXPECT_TRUE(within(seconds(10), is_idle)) << service().log();
        const std::size_t deaths = times_in(service().log(), "signal 9");
        const bool failed = is_quarantined(pair, "");
        failures += failed;
        EXPECT_EQ(is_quarantined(pair, "signal 9"), failed);
        const long now = served_generation();
        EXPECT_TRUE(now == generation || (failed && now == served)) << now;
        EXPECT_TRUE(!failed || deaths > met) << "it failed for another reason";
        served = now;
        met = deaths;
        EXPECT_TRUE(service().running());
        EXPECT_TRUE(within(seconds(5), [&] {
            return segment_of(1 - get_current_perm_table_index()) == -1;
        })) << "a segment is left";
        expect_persisted_is_served();
        if (HasFailure()) return;
    }
    EXPECT_GE(met, 10U) << "hardly any build was met";
    EXPECT_EQ(status_now()["counters"]["build_failures"], failures);
    serve(1000);
    expect_nothing_left();
}

// The state that a kill leaves between the writing of the persisted map and the switch.
TEST_F(ServiceSurvival, APersistedMapThatIsNotServedIsMadeEqualAtTheNextStart) {
    start();
    serve(1);
    const std::string sound = read_file(kPersisted);
    const std::string ahead = image_of(2);
    struct Left {
        const char* what;
        std::string persisted;
        std::string copy;  // of the persisted map, for the time of a build
    };
    const Left all[] = {
        {"a whole new map", ahead, ""},
        {"a whole new map beside the copy of the old one", ahead, sound},
        {"half a new map beside the copy", ahead.substr(0, ahead.size() / 2), sound},
        {"half a new map", ahead.substr(0, ahead.size() / 2), ""},
        {"an empty file beside the copy", "", sound},
    };
    for (const bool killed : {false, true}) {
        for (const Left& left : all) {
            SCOPED_TRACE(left.what);
            if (killed)
                service().kill_it();
            else
                EXPECT_EQ(service().end(), 0);
            write_file(kPersisted, left.persisted);
            if (!left.copy.empty()) write_file(kPersisted + ".previous", left.copy);
            start();
            EXPECT_EQ(served_generation(), 1);
            EXPECT_TRUE(read_file(kPersisted) == sound);
            expect_nothing_left();
        }
    }
}

// The same state, met in a real build.
TEST_F(ServiceSurvival, AKillBetweenTheFileAndTheSwitchIsUndone) {
    start();
    serve(1);
    int met = 0;
    for (unsigned generation = 2; generation < 12 && met < 2; ++generation) {
        deliver(pair_of_generation(generation, 250, 250), "g" + std::to_string(generation));
        const auto deadline = Clock::now() + seconds(10);
        bool written = false;
        while (!written && Clock::now() < deadline)  // no pause: the moment is a short one
            written = generation_in_file() == generation;
        service().kill_it();
        EXPECT_TRUE(written);
        const long served = served_generation();
        if (served != generation) ++met;
        fs::remove_all(kWork);  // the pair would only be built again
        start();
        EXPECT_EQ(served_generation(), served);
        expect_persisted_is_served();
        expect_nothing_left();
    }
    EXPECT_GT(met, 0);
}

// Killed so often in the middle of one pair that it counts as failed.
TEST_F(ServiceSurvival, APairThatWasTriedThreeTimesIsNotTriedAgain) {
    start();
    serve(1);
    const Pair pair = pair_of_generation(2, 250, 250);  // long enough to be met each time
    deliver(pair, "stubborn");
    int kills = 0;
    const auto is_building = [] {
        const Json status = status_now();
        return !status.is_object() || status["service"]["state"] == "building";
    };
    while (kills < 3 && within(seconds(5), is_building)) {
        service().kill_it();
        ++kills;
        EXPECT_EQ(served_generation(), 1);
        start();
    }
    EXPECT_EQ(kills, 3);
    EXPECT_TRUE(within(seconds(5), [&] { return is_quarantined(pair, "tried 3 times"); }))
        << service().log();
    EXPECT_EQ(served_generation(), 1);
    serve(3);
    expect_nothing_left();
}

}  // namespace
}  // namespace kvtest
