// Back to a map that was served before: by default and by number, with what stands in the way, and
// through restarts and reboots; and which maps are kept.
#include <signal.h>

#include <filesystem>

#include "service_survival.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using Numbers = std::vector<unsigned>;

class ServiceRollback : public SurvivalTest {
protected:
    static Json roll_back() { return ask({{"command", "rollback"}}); }
    static Json roll_back_to(unsigned number) {
        return ask({{"command", "rollback"}, {"to", number}});
    }
    // Refused, and nothing is other than before.
    static void expect_refused(const std::function<Json()>& act, int code = 0) {
        const std::string persisted = read_file(kPersisted);
        const Json map = status_now()["map"];
        const Numbers kept = kept_numbers();
        const Json answer = act();
        EXPECT_EQ(answer.value("ok", true), false) << answer;
        if (code != 0) {
            EXPECT_EQ(answer["code"], code) << answer;
        }
        EXPECT_NE(answer.value("code", 0), 0) << answer;
        EXPECT_FALSE(answer.value("error", "").empty());
        EXPECT_TRUE(read_file(kPersisted) == persisted);
        EXPECT_EQ(status_now()["map"], map);
        EXPECT_EQ(kept_numbers(), kept);
        expect_nothing_left();
    }
    void expect_served(long generation, unsigned number) {
        EXPECT_EQ(served_generation(), generation) << service().log();
        EXPECT_EQ(status_now()["map"]["number"], number);
        EXPECT_EQ(status_now()["map"]["generation"], generation);
        expect_persisted_is_served();
        expect_nothing_left();
    }
};

TEST_F(ServiceRollback, GoesToTheNewestOlderMapAndFurther) {
    start();
    for (const unsigned generation : {11U, 12U, 13U}) serve(generation);
    for (const unsigned number : {2U, 1U}) {
        const Json answer = roll_back();
        ASSERT_EQ(answer.value("ok", false), true) << answer;
        EXPECT_EQ(answer["result"]["map"]["number"], number);
        EXPECT_EQ(answer["result"]["map"]["generation"], 10 + number);
        expect_served(10 + number, number);
    }
    expect_refused(roll_back);
    EXPECT_EQ(kept_numbers(), (Numbers{1, 2, 3})) << "a rollback makes no map";
    serve(14);
    expect_served(14, 4);
    ASSERT_EQ(roll_back().value("ok", false), true);
    expect_served(13, 3);
}

TEST_F(ServiceRollback, GoesToANumberForwardAndBack) {
    start();
    for (const unsigned generation : {11U, 12U, 13U}) serve(generation);
    for (const unsigned number : {1U, 3U, 2U, 2U}) {
        const Json answer = roll_back_to(number);
        ASSERT_EQ(answer.value("ok", false), true) << answer;
        expect_served(10 + number, number);
    }
}

TEST_F(ServiceRollback, WithoutAnOlderMapChangesNothing) {
    start();
    EXPECT_EQ(roll_back().value("ok", true), false) << "there is no map at all";
    serve(11);
    expect_refused(roll_back);
}

TEST_F(ServiceRollback, ToAMapThatIsNotKeptChangesNothing) {
    start();
    for (const unsigned generation : {11U, 12U}) serve(generation);
    expect_refused([] { return roll_back_to(99); });
    for (const Json& to : {Json(0), Json(-1), Json("1"), Json(1.5), Json::array({1}), Json(true)})
        expect_refused([&to] { return ask({{"command", "rollback"}, {"to", to}}); });
}

TEST_F(ServiceRollback, ToADamagedMapChangesNothing) {
    start();
    for (const unsigned generation : {11U, 12U, 13U}) serve(generation);
    const std::string sound = read_file(kept_image(1));
    const std::string damaged[] = {sound.substr(0, sound.size() / 2), "", sound + "x",
                                   std::string(sound.size(), '\0'), read_file(kept_image(2))};
    for (const std::string& bytes : damaged) {
        SCOPED_TRACE(bytes.size());
        write_file(kept_image(1), bytes);
        expect_refused([] { return roll_back_to(1); }, 3);
    }
    for (const std::size_t at : {std::size_t{0}, std::size_t{172}, sound.size() - 1}) {
        SCOPED_TRACE(at);
        write_file(kept_image(1), sound);
        damage(kept_image(1), at);
        expect_refused([] { return roll_back_to(1); }, 3);
    }
    fs::remove(kept_image(1));
    expect_refused([] { return roll_back_to(1); });
    write_file(kept_image(1), sound);
    EXPECT_EQ(roll_back_to(1).value("ok", false), true);
    expect_served(11, 1);
}

TEST_F(ServiceRollback, StaysThroughRestartAndReboot) {
    start();
    for (const unsigned generation : {11U, 12U, 13U}) serve(generation);
    ASSERT_EQ(roll_back_to(1).value("ok", false), true);
    service().kill_it();
    start();
    expect_served(11, 1);
    EXPECT_EQ(service().end(), 0);
    restart_machine();
    start();
    expect_served(11, 1);
    ASSERT_EQ(ask({{"command", "reload"}}).value("ok", false), true);
    expect_served(11, 1);
}

TEST_F(ServiceRollback, MapsAreKeptUpToTheirNumberAndTheServedOneAlways) {
    configure("[KAVRIND]\nkept maps = 3\n");
    start();
    for (unsigned generation = 11; generation <= 16; ++generation) {
        serve(generation);
        EXPECT_LE(kept_numbers().size(), 3U);
    }
    EXPECT_EQ(kept_numbers(), (Numbers{4, 5, 6}));
    ASSERT_EQ(roll_back_to(4).value("ok", false), true);
    expect_served(14, 4);
    configure("[KAVRIND]\nkept maps = 1\n");
    service().signal(SIGHUP);
    service().kill_it();
    start();
    expect_served(14, 4);
    EXPECT_EQ(kept_numbers(), (Numbers{4, 6})) << "the newest one and the served one";
    serve(17);
    EXPECT_EQ(kept_numbers(), (Numbers{7}));
    expect_served(17, 7);
}

TEST_F(ServiceRollback, TheKeptMapIsTheServedImageAndItsRecordSaysWhatItIs) {
    start();
    serve(11);
    EXPECT_TRUE(read_file(kept_image(1)) == read_file(kPersisted));
    const Json record = Json::parse(read_file("/var/lib/kavrin/maps/1.json"));
    const Json map = status_now()["map"];
    for (const char* member : {"number", "name", "version", "generation", "sha256", "source",
                               "built", "built_by", "published", "elements", "aces", "bytes"})
        EXPECT_EQ(record[member], map[member]) << member;
    EXPECT_EQ(record["bytes"], fs::file_size(kPersisted));
}

}  // namespace
}  // namespace kvtest
