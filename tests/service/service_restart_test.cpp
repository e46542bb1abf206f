// Ends, kills and new starts under readers, after a reboot, beside objects that are there already.
#include <signal.h>
#include <sys/shm.h>

#include <filesystem>
#include <thread>

#include "service_readers.h"
#include "service_survival.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

using ServiceRestart = SurvivalTest;

TEST_F(ServiceRestart, ReadersNoticeNeitherEndNorKillNorStart) {
    start();
    serve(1);
    const SharedIds before = shared_ids();
    Readers readers;
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        if (round % 2 == 0)
            service().kill_it();
        else
            EXPECT_EQ(service().end(), 0) << service().log();
        if (round % 3 == 2) {  // and another one in the middle of its start
            launch();
            std::this_thread::sleep_for(milliseconds(round * 2));
            service().signal(round % 2 == 0 ? SIGKILL : SIGTERM);
            service().wait_for_end();
        }
        EXPECT_TRUE(readers.look_again()) << "while there is no service";
        start();
        EXPECT_TRUE(readers.look_again());
        EXPECT_EQ(shared_ids(), before);
        EXPECT_EQ(served_generation(), 1);
    }
    serve(2);
    EXPECT_TRUE(readers.all_see(2));
    readers.expect_unhurt();
    expect_nothing_left();
}

TEST_F(ServiceRestart, ReadersSeeEachMapWholeWhileTheServiceIsKilledBetweenBuilds) {
    start();
    serve(1);
    Readers readers;
    for (unsigned generation = 2; generation < 10; ++generation) {
        serve(generation, 20, 20);
        if (generation % 2 == 0)
            service().kill_it();
        else
            EXPECT_EQ(service().end(), 0);
        EXPECT_TRUE(readers.all_see(generation));
        start();
    }
    readers.expect_unhurt();
    expect_nothing_left();
}

// The readers themselves: what they are there to find they do find.
TEST_F(ServiceRestart, ReadersWouldNoticeAMapThatIsNone) {
    start();
    serve(1);
    {
        const Readers readers(1);
        EXPECT_EQ(readers.hurts(), 0U);
        fs::rename(kPersisted, kPersisted + ".away");  // without it no map is there for the library
        EXPECT_TRUE(within(seconds(5), [&] { return readers.hurts() > 2; }));
        fs::rename(kPersisted + ".away", kPersisted);
    }
    const std::string one = image_of(1);
    const std::string other = image_of(4);  // of the same shape
    ASSERT_EQ(one.size(), other.size());
    const auto generation = [](const std::string& image) {
        return whole_generation(
            {reinterpret_cast<const std::uint8_t*>(image.data()), image.size()});
    };
    EXPECT_EQ(generation(one), 1);
    EXPECT_EQ(generation(other), 4);
    int torn = 0;
    for (std::size_t cut = 0; cut < one.size(); cut += 13) {
        const std::string mixed = other.substr(0, cut) + one.substr(cut);
        if (mixed == one || mixed == other) continue;
        EXPECT_EQ(generation(mixed), -1) << cut;
        ++torn;
    }
    EXPECT_GT(torn, 20);
}

TEST_F(ServiceRestart, WithoutAMapARestartChangesNothing) {
    start();
    const SharedIds before = shared_ids();
    EXPECT_EQ(service().end(), 0);
    start();
    EXPECT_EQ(shared_ids(), before);
    EXPECT_TRUE(status_now()["map"].is_null());
}

TEST_F(ServiceRestart, AfterARebootThePersistedMapIsServed) {
    start();
    serve(3);
    const Json before = status_now()["map"];
    EXPECT_EQ(service().end(), 0);
    restart_machine();
    EXPECT_EQ(served_generation(), -1);
    start();
    EXPECT_EQ(served_generation(), 3) << service().log();
    const Json after = status_now()["map"];
    for (const char* member : {"number", "name", "sha256", "generation", "built", "source"})
        EXPECT_EQ(after[member], before[member]) << member;
    expect_nothing_left();
    expect_persisted_is_served();
}

TEST_F(ServiceRestart, AfterARebootThePersistedMapComesBeforeWaitingPairs) {
    start();
    serve(3);
    service().kill_it();
    restart_machine();
    deliver(pair_of_generation(4, 120, 120), "waiting");
    launch();
    long first = -1;
    EXPECT_TRUE(within(seconds(10), [&] { return (first = served_generation()) != -1; }));
    EXPECT_EQ(first, 3);
    EXPECT_TRUE(serves(4)) << service().log();
    expect_nothing_left();
}

TEST_F(ServiceRestart, AfterARebootOfAKilledBuildTheOldPersistedMapIsServed) {
    start();
    serve(3);
    const std::string sound = read_file(kPersisted);
    service().kill_it();
    restart_machine();
    write_file(kPersisted, sound.substr(0, sound.size() / 2));
    write_file(kPersisted + ".previous", sound);
    start();
    EXPECT_EQ(served_generation(), 3) << service().log();
    expect_persisted_is_served();
    expect_nothing_left();
}

// Ways in which a file is no map.
struct Damage {
    const char* name;
    void (*act)(const std::string& file);
};
constexpr Damage kDamages[] = {
    {"cut", [](const std::string& file) { fs::resize_file(file, fs::file_size(file) / 2); }},
    {"empty", [](const std::string& file) { fs::resize_file(file, 0); }},
    {"gone", [](const std::string& file) { fs::remove(file); }},
    {"longer", [](const std::string& file) { fs::resize_file(file, fs::file_size(file) + 64); }},
    {"mark",
     [](const std::string& file) {
         std::string bytes = read_file(file);
         bytes[172] = 0;
         write_file(file, bytes);
     }},
    {"record",
     [](const std::string& file) {
         std::string bytes = read_file(file);
         bytes[176] = 0;
         write_file(file, bytes);
     }},
};

TEST_F(ServiceRestart, InThePlaceOfADamagedPersistedMapTheNewestKeptOneIsServed) {
    start();
    for (const unsigned generation : {1U, 2U, 3U}) serve(generation);
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.name);
        service().kill_it();
        restart_machine();
        damage.act(kPersisted);
        start();
        EXPECT_EQ(served_generation(), 3) << service().log();
        expect_persisted_is_served();
        EXPECT_EQ(status_now()["map"]["number"], 3);
    }
    expect_nothing_left();
}

TEST_F(ServiceRestart, ADamagedKeptMapIsPassedOver) {
    start();
    for (const unsigned generation : {1U, 2U, 3U}) serve(generation);
    service().kill_it();
    restart_machine();
    damage(kPersisted, 172);
    damage(kept_image(3), 200);
    start();
    EXPECT_EQ(served_generation(), 2) << service().log();
    expect_persisted_is_served();
    expect_nothing_left();
}

TEST_F(ServiceRestart, WithoutAnySoundMapNoneIsServedAndPairsAreTaken) {
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.name);
        start();
        serve(5);
        service().kill_it();
        restart_machine();
        damage.act(kPersisted);
        for (const unsigned number : kept_numbers()) fs::resize_file(kept_image(number), 100);
        start();
        EXPECT_EQ(served_generation(), -1);
        EXPECT_TRUE(status_now()["map"].is_null());
        serve(6);
        expect_nothing_left();
        expect_persisted_is_served();
        service().kill_it();
        restart_machine();
        fs::remove(kPersisted);
        fs::remove_all("/var/lib/kavrin/maps");
    }
}

TEST_F(ServiceRestart, ALiveMapThatIsDamagedIsReplacedByThePersistedOne) {
    start();
    serve(2);
    service().kill_it();
    const int id = segment_of(get_current_perm_table_index());
    auto* const memory = static_cast<unsigned char*>(shmat(id, nullptr, 0));
    memory[176] ^= 0xFF;  // the root's signature
    shmdt(memory);
    start();
    EXPECT_EQ(served_generation(), 2);
    EXPECT_NE(segment_of(get_current_perm_table_index()), id);
    expect_nothing_left();
    expect_persisted_is_served();
}

TEST_F(ServiceRestart, ASegmentUnderTheNextKeyIsRemovedByTheNextBuild) {
    start();
    serve(1);
    for (const uid_t owner : {0U, 1000U}) {
        const long now = served_generation();
        make_segment(kMapKeys[1 - get_current_perm_table_index()], "left by somebody", owner);
        EXPECT_EQ(served_generation(), now);
        serve(static_cast<unsigned>(now) + 1);
        expect_nothing_left();
        EXPECT_EQ(system_v_objects("shm").size(), 3U);
    }
}

TEST_F(ServiceRestart, ASegmentUnderTheNextKeyIsRemovedByTheNextStart) {
    start();
    serve(1);
    service().kill_it();
    make_segment(kMapKeys[1 - get_current_perm_table_index()], image_of(9), 0);
    start();
    EXPECT_EQ(served_generation(), 1);
    expect_nothing_left();
}

TEST_F(ServiceRestart, AnotherUsersSegmentIsNotServedInThePlaceOfThePersistedMap) {
    start();
    serve(5);
    for (const bool give_away : {false, true}) {
        service().kill_it();
        restart_machine();
        make_segment(kMapKeys[0], image_of(66), 1000, give_away);
        start();
        EXPECT_EQ(served_generation(), 5) << service().log();
        expect_nothing_left();
        EXPECT_EQ(system_v_objects("shm").size(), 3U);
    }
}

TEST_F(ServiceRestart, AnotherUsersSegmentIsNotServedWhereThereIsNoMap) {
    make_segment(kMapKeys[0], image_of(66), 1000);
    start();
    EXPECT_EQ(served_generation(), -1);
    EXPECT_TRUE(status_now()["map"].is_null());
    serve(6);
    expect_nothing_left();
    EXPECT_EQ(system_v_objects("shm").size(), 3U);
}

TEST_F(ServiceRestart, AnotherUsersSegmentIsNotServedBesideADamagedPersistedMap) {
    write_file(kPersisted, image_of(5).substr(0, 300));
    make_segment(kMapKeys[0], image_of(66), 1000);
    start();
    EXPECT_EQ(served_generation(), -1) << service().log();
    EXPECT_TRUE(status_now()["map"].is_null());
}

}  // namespace
}  // namespace kvtest
