// Full disks and folders that are not there: what was served is served on, no pair and no event is
// lost, and with room again the work goes on.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "service_survival.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

class ServiceDisk : public SurvivalTest {
protected:
    static void mount_small_disk(const char* folder, const char* size) {
        fs::create_directories(folder);
        ASSERT_EQ(mount("small", folder, "tmpfs", 0, size), 0) << std::strerror(errno);
    }
    // Until not one byte more goes in.
    static void fill_disk(const std::string& folder) {
        std::FILE* const file = std::fopen((folder + "/.filler").c_str(), "wb");
        ASSERT_NE(file, nullptr);
        setbuf(file, nullptr);
        const std::string block(4096, 'x');
        while (std::fwrite(block.data(), 1, block.size(), file) == block.size()) {
        }
        EXPECT_EQ(errno, ENOSPC);
        std::fclose(file);
    }
    static void make_room(const std::string& folder) { fs::remove(folder + "/.filler"); }

    // Both files lie somewhere below the incoming folder as they were delivered.
    static bool pair_is_there(const Pair& pair) {
        bool size = false;
        bool data = false;
        std::error_code error;
        for (const auto& entry : fs::recursive_directory_iterator(kIncoming, error)) {
            if (!entry.is_regular_file(error)) continue;
            const std::string content = read_file(entry.path());
            size = size || content == pair.size_json;
            data = data || content == pair.data_json;
        }
        return size && data;
    }
    static bool is_idle() {
        const Json status = status_now();
        return status.is_object() && status["service"]["state"] == "idle" &&
               status["service"]["queued"] == 0;
    }
    static int failures() { return status_now()["counters"]["build_failures"]; }
};

TEST_F(ServiceDisk, WithoutRoomForThePersistedMapTheOldMapIsServedOn) {
    mount_small_disk("/etc/kavrin", "size=96k");
    start();
    serve(1);
    const std::string before = read_file(kPersisted);
    const Pair big = pair_of_generation(2, 40, 40);
    deliver(big, "big");
    EXPECT_TRUE(within(seconds(10), [&] { return is_quarantined(big, "disk"); }))
        << service().log();
    EXPECT_EQ(served_generation(), 1);
    EXPECT_TRUE(read_file(kPersisted) == before);
    EXPECT_EQ(failures(), 1);
    expect_nothing_left();
    serve(3);
    ASSERT_EQ(mount("small", "/etc/kavrin", "tmpfs", MS_REMOUNT, "size=1m"), 0);
    serve(4, 40, 40);
    expect_nothing_left();
    expect_persisted_is_served();
}

TEST_F(ServiceDisk, OnAFullDiskOfTheConfigurationEverythingServedStays) {
    mount_small_disk("/etc/kavrin", "size=64k");
    start();
    serve(1);
    const std::string before = read_file(kPersisted);
    fill_disk("/etc/kavrin");
    const Pair pair = pair_of_generation(2);
    deliver(pair, "g2");
    EXPECT_TRUE(within(seconds(10), [] { return failures() == 1; })) << service().log();
    EXPECT_TRUE(is_quarantined(pair, ""));
    EXPECT_EQ(served_generation(), 1);
    EXPECT_TRUE(read_file(kPersisted) == before);
    service().kill_it();  // and a start on the full disk
    start();
    EXPECT_EQ(served_generation(), 1);
    EXPECT_TRUE(read_file(kPersisted) == before);
    make_room("/etc/kavrin");
    serve(3);
    expect_nothing_left();
}

// The pair came while there was room, or its producer made it elsewhere and linked it.
TEST_F(ServiceDisk, OnAFullDiskOfThePairsNoPairIsLost) {
    mount_small_disk("/var/lib/kavrin", "size=256k");
    start();
    serve(1);
    const Pair pair = pair_of_generation(2);
    write_file(kIncoming + "/.g2.size.json", pair.size_json);
    write_file(kIncoming + "/.g2.data.json", pair.data_json);
    fill_disk("/var/lib/kavrin");
    for (const char* file : {"g2.size.json", "g2.data.json"})
        fs::rename(kIncoming + "/." + file, kIncoming + "/" + file);
    EXPECT_TRUE(within(seconds(10), [] { return served_generation() == 2 || failures() == 1; }))
        << service().log();
    EXPECT_TRUE(within(seconds(10), is_idle));
    EXPECT_TRUE(served_generation() == 2 || pair_is_there(pair)) << service().log();
    EXPECT_TRUE(served_generation() == 2 || served_generation() == 1);
    EXPECT_TRUE(service().running());
    expect_persisted_is_served();
    make_room("/var/lib/kavrin");
    serve(3);
    expect_nothing_left();
    ASSERT_EQ(ask({{"command", "rollback"}}).value("ok", false), true);
    EXPECT_LT(served_generation(), 3);
}

TEST_F(ServiceDisk, AStartOnAFullDiskServesWhatIsThere) {
    mount_small_disk("/var/lib/kavrin", "size=128k");
    start();
    serve(1);
    EXPECT_EQ(service().end(), 0);
    fill_disk("/var/lib/kavrin");
    restart_machine();
    start();
    EXPECT_EQ(served_generation(), 1);
    service().kill_it();
    start();
    EXPECT_EQ(served_generation(), 1);
    make_room("/var/lib/kavrin");
    serve(2);
    expect_nothing_left();
}

TEST_F(ServiceDisk, OnAFullDiskOfTheEventsTheyStayInTheBuffer) {
    mount_small_disk("/kavrin/staging", "size=64k");
    configure("[SWEEPER]\nflush period = 86400\n");
    start();
    stage_events(0, 100);
    fill_disk("/kavrin/staging");
    const Json answer = ask({{"command", "flush"}});
    EXPECT_EQ(answer.value("ok", true), false) << answer;
    EXPECT_EQ(answer["code"], 1);
    EXPECT_EQ(status_now()["staging"]["records"], 100);
    EXPECT_EQ(status_now()["counters"]["flush_failures"], 1);
    serve(1);
    make_room("/kavrin/staging");
    EXPECT_EQ(ask({{"command", "flush"}})["result"]["records"], 100);
    EXPECT_EQ(events_in_files(), 100U);
}

TEST_F(ServiceDisk, WithoutAStagingFolderEventsStayInTheBuffer) {
    configure("[SWEEPER]\nflush period = 86400\n");
    start();
    stage_events(0, 9);
    fs::remove_all("/kavrin/staging");
    const Json answer = ask({{"command", "flush"}});
    if (answer.value("ok", false)) {
        EXPECT_EQ(events_in_files(), 9U);  // it was made again
    } else {
        EXPECT_EQ(status_now()["staging"]["records"], 9);
        fs::create_directory("/kavrin/staging");
        EXPECT_EQ(ask({{"command", "flush"}})["result"]["records"], 9);
    }
    EXPECT_EQ(events_in_files(), 9U);
    fs::remove_all("/kavrin/staging");
    service().kill_it();
    start();
    EXPECT_TRUE(fs::is_directory("/kavrin/staging")) << "a start makes it";
}

TEST_F(ServiceDisk, AnIncomingFolderThatWasTakenAwayComesBack) {
    start();
    serve(1);
    for (unsigned generation = 2; generation < 5; ++generation) {
        SCOPED_TRACE(generation);
        if (generation == 4)
            fs::rename(kIncoming, kIncoming + ".old");
        else
            fs::remove_all(generation == 2 ? kIncoming : "/var/lib/kavrin");
        EXPECT_TRUE(within(seconds(5), [] {
            return fs::is_directory(kQuarantine) && fs::is_directory(kWork);
        })) << service().log();
        EXPECT_EQ(served_generation(), generation - 1);
        serve(generation);
        expect_nothing_left();
    }
}

// It stands for a disk that is mounted too late.
TEST_F(ServiceDisk, AFolderOfTheConfigurationThatIsMissingAtTheStartIsMade) {
    start();
    serve(1);
    service().kill_it();
    ASSERT_EQ(umount2("/etc/kavrin", MNT_DETACH), 0) << std::strerror(errno);
    ASSERT_EQ(rmdir("/etc/kavrin"), 0) << std::strerror(errno);
    start();
    EXPECT_EQ(served_generation(), 1) << service().log();
    expect_persisted_is_served();
    serve(2);
    expect_nothing_left();
}

TEST_F(ServiceDisk, AFolderOfTheConfigurationThatWasTakenAwayCostsNoPair) {
    ASSERT_EQ(umount2("/etc/kavrin", MNT_DETACH), 0) << std::strerror(errno);
    start();
    serve(1);
    fs::remove_all("/etc/kavrin");
    const Pair pair = pair_of_generation(2);
    deliver(pair, "g2");
    EXPECT_TRUE(within(seconds(10), [] { return is_idle() && failures() == 1; }) ||
                served_generation() == 2)
        << service().log();
    EXPECT_TRUE(served_generation() == 2 || is_quarantined(pair, "/etc/kavrin"));
    EXPECT_TRUE(service().running());
    service().kill_it();
    start();
    EXPECT_GE(served_generation(), 1) << service().log();
    serve(3);
    expect_nothing_left();
}

}  // namespace
}  // namespace kvtest
