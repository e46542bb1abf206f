// Five hundred maps one after another under readers: everybody always has a whole one, and the
// service is at the end what it was at the beginning.
#include <signal.h>

#include "service_readers.h"
#include "service_survival.h"

namespace kvtest {
namespace {

using std::chrono::seconds;

class Service500Generations : public SurvivalTest {
protected:
    static constexpr unsigned kGenerations = 500;
    static constexpr unsigned kWarm = 20;             // until then memory may grow to its size
    static constexpr long kGrowthKib = kKeptKib / 4;  // for 480 generations

    // Every tenth one comes through the incoming folder; for the others nobody waits for quiet.
    void publish_generation(unsigned generation) {
        const Pair pair = pair_of_generation(generation, 3 + generation % 11, 2 + generation % 7);
        if (generation % 10 == 0) {
            deliver(pair, "g" + std::to_string(generation));
            EXPECT_TRUE(serves(generation)) << service().log();
            return;
        }
        write_file(folder_ + "/size.json", pair.size_json);
        write_file(folder_ + "/data.json", pair.data_json);
        const Json answer = ask({{"command", "load"},
                                 {"size", folder_ + "/size.json"},
                                 {"data", folder_ + "/data.json"},
                                 {"wait", true}});
        ASSERT_EQ(answer.value("ok", false), true) << answer;
        EXPECT_EQ(served_generation(), generation);
    }

    const std::string folder_ = make_temp_dir();
};

TEST_F(Service500Generations, EachIsServedWholeToEveryReader) {
    start();
    publish_generation(1);
    Readers readers;
    std::size_t descriptors = 0;
    long resident = 0;
    for (unsigned generation = 2; generation <= kGenerations; ++generation) {
        publish_generation(generation);
        if (HasFailure()) return;
        if (generation != kWarm) continue;
        descriptors = descriptors_of(service().pid());
        resident = resident_kib_of(service().pid());
    }
    EXPECT_TRUE(readers.all_see(kGenerations));
    readers.expect_unhurt();
    expect_nothing_left();
    expect_persisted_is_served();
    EXPECT_TRUE(within(seconds(5), [&] { return descriptors_of(service().pid()) <= descriptors; }))
        << descriptors_of(service().pid()) << " descriptors instead of " << descriptors;
    EXPECT_LE(resident_kib_of(service().pid()), resident + kGrowthKib);
    EXPECT_EQ(system_v_objects("shm").size(), 3U);
    EXPECT_EQ(system_v_objects("sem").size(), 2U);
    EXPECT_EQ(status_now()["counters"]["builds"], kGenerations);
    EXPECT_EQ(status_now()["counters"]["build_failures"], 0);
    EXPECT_EQ(kept_numbers().size(), 5U);
    RecordProperty("resident_growth_kib",
                   std::to_string(resident_kib_of(service().pid()) - resident));
}

}  // namespace
}  // namespace kvtest
