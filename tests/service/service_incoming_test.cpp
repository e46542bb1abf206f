// The ways in which pairs arrive: every way to put a file into a folder, half pairs, files that are
// somebody else's, and producers that are slow, change their minds or never finish.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "service_watch.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

class ServiceIncoming : public WatchTest {
protected:
    // Another folder of the same file system.
    static std::string elsewhere(const std::string& file) {
        fs::create_directories("/var/lib/kavrin/elsewhere");
        return "/var/lib/kavrin/elsewhere/" + file;
    }
    static void link_into(const std::string& file, const std::string& content) {
        fs::remove(elsewhere(file));
        write_file(elsewhere(file), content);
        fs::create_hard_link(elsewhere(file), kIncoming + "/" + file);
    }
    static void move_into(const std::string& file, const std::string& content) {
        write_file(elsewhere(file), content);
        fs::rename(elsewhere(file), kIncoming + "/" + file);
    }
    static void write_slowly(const std::string& file, const std::string& content) {
        const std::size_t third = content.size() / 3;
        write_in_place(
            kIncoming + "/" + file,
            {content.substr(0, third), content.substr(third, third), content.substr(2 * third)});
    }
    static void expect_not_taken(const std::string& file) {
        EXPECT_TRUE(is_idle());
        EXPECT_TRUE(file_exists(kIncoming + "/" + file)) << file;
    }
};

TEST_F(ServiceIncoming, FilesArriveInEveryWayAndInBothOrders) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    unsigned generation = 0;
    using Put = void (*)(const std::string&, const std::string&);
    for (const Put put : {&deliver_file, &write_slowly, &link_into, &move_into}) {
        for (const bool size_first : {true, false}) {
            const Pair pair = pair_of_generation(++generation);
            if (size_first) put("size.json", pair.size_json);
            put("data.json", pair.data_json);
            if (!size_first) put("size.json", pair.size_json);
            EXPECT_TRUE(serves(generation)) << generation << service.log();
        }
    }
    ASSERT_TRUE(is_idle());
    expect_nothing_left();
    EXPECT_EQ(left_in_incoming(), std::vector<std::string>{});
    EXPECT_EQ(counter("builds"), generation);
    EXPECT_EQ(counter("build_failures"), 0U);
}

TEST_F(ServiceIncoming, APairThatLiesThereAtTheStartIsTaken) {
    fs::create_directories(kIncoming);
    deliver(pair_of_generation(3), "early");
    deliver_file("half.size.json", "{}");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    EXPECT_TRUE(serves(3)) << service.log();
    EXPECT_EQ(status_now()["map"]["source"], kIncoming + "/early.data.json");
    EXPECT_TRUE(waits_for("half.size.json", "half.data.json"));
    EXPECT_EQ(left_in_incoming(), std::vector<std::string>{"half.size.json"});
}

TEST_F(ServiceIncoming, PairsOfDifferentNamesDoNotMix) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Pair unnamed = pair_of_generation(1);
    const Pair named = pair_of_generation(2);
    const Pair other = pair_of_generation(3);
    deliver_file("size.json", unnamed.size_json);
    deliver_file("night.data.json", named.data_json);
    deliver_file("b.night.size.json", other.size_json);
    EXPECT_TRUE(waits_for("size.json", "data.json has not come"));
    EXPECT_TRUE(waits_for("night.data.json", "night.size.json has not come"));
    EXPECT_TRUE(waits_for("b.night.size.json", "b.night.data.json has not come"));
    deliver_file("night.size.json", named.size_json);
    EXPECT_TRUE(serves(2)) << service.log();
    EXPECT_EQ(status_now()["map"]["source"], kIncoming + "/night.data.json");
    expect_not_taken("size.json");
    deliver_file("b.night.data.json", other.data_json);
    EXPECT_TRUE(serves(3)) << service.log();
    expect_not_taken("size.json");
    deliver_file("data.json", unnamed.data_json);
    EXPECT_TRUE(serves(1)) << service.log();
    EXPECT_EQ(status_now()["map"]["source"], kIncoming + "/data.json");
    EXPECT_EQ(counter("build_failures"), 0U);
}

// Two closes are two arrivals; that only one size file comes for them ends nothing.
TEST_F(ServiceIncoming, DataThatIsWrittenInTwoStepsIsTakenWhole) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Pair pair = pair_of_generation(4, 30, 30);
    const std::string path = kIncoming + "/data.json";
    const std::size_t half = pair.data_json.size() / 2;
    write_in_place(path, {pair.data_json.substr(0, half)});
    const int again = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_EQ(write(again, pair.data_json.data() + half, pair.data_json.size() - half),
              static_cast<ssize_t>(pair.data_json.size() - half));
    close(again);
    deliver_file("size.json", pair.size_json);
    EXPECT_TRUE(serves(4)) << service.log();
    EXPECT_EQ(counter("build_failures"), 0U);
}

TEST_F(ServiceIncoming, AFileThatSomebodyHasOpenForWritingIsNotTaken) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Pair pair = pair_of_generation(5);
    const std::size_t half = pair.data_json.size() / 2;
    const std::string path = kIncoming + "/data.json";
    const int writer = open((path + ".tmp").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(write(writer, pair.data_json.data(), half), static_cast<ssize_t>(half));
    fs::rename(path + ".tmp", path);  // too early
    deliver_file("size.json", pair.size_json);
    EXPECT_TRUE(waits_for("data.json", "open for writing")) << service.log();
    EXPECT_TRUE(file_exists(path));
    EXPECT_EQ(served_generation(), -1);
    EXPECT_EQ(write(writer, pair.data_json.data() + half, pair.data_json.size() - half),
              static_cast<ssize_t>(pair.data_json.size() - half));
    EXPECT_EQ(served_generation(), -1);
    close(writer);
    EXPECT_TRUE(serves(5)) << service.log();
    EXPECT_EQ(counter("build_failures"), 0U);
}

TEST_F(ServiceIncoming, AFileThatIsNeverClosedIsReportedWhenItIsStale) {
    configure("[KAVRIND]\nstale half after = 1\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Pair pair = pair_of_generation(6);
    const int writer =
        open((kIncoming + "/data.json").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GT(write(writer, pair.data_json.data(), pair.data_json.size()), 0);
    deliver_file("size.json", pair.size_json);
    EXPECT_TRUE(waits_for("data.json", "not been closed"));
    EXPECT_TRUE(within(seconds(5), [] { return half_named("data.json").value("stale", false); }));
    EXPECT_TRUE(service.logs("data.json")) << service.log();
    expect_not_taken("data.json");
    close(writer);
    EXPECT_TRUE(serves(6)) << service.log();
}

TEST_F(ServiceIncoming, AHalfAloneIsReportedOnceWhenItIsStaleAndNeverUsed) {
    configure("[KAVRIND]\nstale half after = 1\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Pair pair = pair_of_generation(7);
    deliver_file("slow.data.json", pair.data_json);
    EXPECT_TRUE(waits_for("slow.data.json", "slow.size.json has not come"));
    EXPECT_TRUE(service.logs("slow.data.json waits")) << service.log();
    EXPECT_TRUE(half_named("slow.data.json")["stale"]);
    EXPECT_NEAR(half_named("slow.data.json")["since"].get<double>(),
                static_cast<double>(std::time(nullptr)), 10);
    EXPECT_FALSE(within(milliseconds(2300), [&service] {
        return occurrences(service.log(), "slow.data.json waits") > 1;
    })) << "it is told once";
    expect_not_taken("slow.data.json");
    EXPECT_EQ(served_generation(), -1);
    deliver_file("slow.size.json", pair.size_json);
    EXPECT_TRUE(serves(7)) << service.log();
    EXPECT_TRUE(status_now()["halves"].empty());
}

TEST_F(ServiceIncoming, AFileThatIsTakenBackIsForgotten) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    deliver_file("a.size.json", pair_of_generation(1).size_json);
    EXPECT_TRUE(waits_for("a.size.json", "a.data.json has not come"));
    fs::remove(kIncoming + "/a.size.json");
    EXPECT_TRUE(within(seconds(5), [] { return half_named("a.size.json").is_null(); }));
    const Pair pair = pair_of_generation(2);
    deliver_file("a.data.json", pair.data_json);
    EXPECT_TRUE(waits_for("a.data.json", "a.size.json has not come"));
    fs::rename(kIncoming + "/a.data.json", elsewhere("a.data.json"));
    EXPECT_TRUE(within(seconds(5), [] { return status_now()["halves"].empty(); }));
    fs::rename(elsewhere("a.data.json"), kIncoming + "/a.data.json");
    deliver_file("a.size.json", pair.size_json);
    EXPECT_TRUE(serves(2)) << service.log();
    EXPECT_EQ(counter("build_failures"), 0U);
}

// Whoever is not a plain file under a pair's name stays where it is, and the status says why.
TEST_F(ServiceIncoming, WhatIsNoHalfOfAPairIsLeftAloneAndTold) {
    fs::create_directories(kIncoming);
    write_file(kIncoming + "/before.txt", "x");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    write_file(elsewhere("target"), "precious");
    const std::string long_name = std::string(210, 'n') + ".size.json";
    fs::create_symlink(elsewhere("target"), kIncoming + "/link.data.json");
    fs::create_symlink(elsewhere("target"), kIncoming + "/.moved");
    fs::rename(kIncoming + "/.moved", kIncoming + "/moved.data.json");
    ASSERT_EQ(mkfifo((kIncoming + "/pipe.size.json").c_str(), 0600), 0);
    fs::create_directory(kIncoming + "/folder.data.json");
    deliver_file("notes.txt", "x");
    deliver_file("extra.json", "{}");
    write_file(kIncoming + "/" + long_name, "{}");
    for (const char* other :
         {"link.size.json", "moved.size.json", "pipe.data.json", "folder.size.json"})
        deliver_file(other, "{}");
    EXPECT_TRUE(waits_for("before.txt", "named neither"));
    EXPECT_TRUE(waits_for("notes.txt", "named neither"));
    EXPECT_TRUE(waits_for("extra.json", "named neither"));
    EXPECT_TRUE(waits_for(long_name, "longer than 200 bytes"));
    for (const char* odd : {"link.data.json", "moved.data.json", "pipe.size.json"})
        EXPECT_TRUE(waits_for(odd, "no regular file")) << odd << status_now()["halves"];
    deliver(pair_of_generation(8));  // the service has looked at all that by then
    EXPECT_TRUE(serves(8)) << service.log();
    for (const char* odd : {"before.txt", "link.data.json", "moved.data.json", "pipe.size.json",
                            "folder.data.json", "notes.txt", "extra.json", "link.size.json",
                            "moved.size.json", "pipe.data.json", "folder.size.json"})
        EXPECT_TRUE(file_exists(kIncoming + "/" + odd)) << odd;
    EXPECT_TRUE(file_exists(kIncoming + "/" + long_name));
    EXPECT_EQ(read_file(elsewhere("target")), "precious");
    EXPECT_EQ(counter("build_failures"), 0U);
    EXPECT_TRUE(contains(service.log(), "notes.txt is left alone")) << service.log();
}

TEST_F(ServiceIncoming, AnOddFileIsForgottenWhenItIsGoneAndReplacedByAGoodOne) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Pair pair = pair_of_generation(9);
    fs::create_symlink("nowhere", kIncoming + "/.a");
    fs::create_symlink("nowhere", kIncoming + "/.b");
    fs::rename(kIncoming + "/.a", kIncoming + "/a.size.json");
    fs::rename(kIncoming + "/.b", kIncoming + "/b.size.json");
    EXPECT_TRUE(waits_for("a.size.json", "no regular file"));
    EXPECT_TRUE(waits_for("b.size.json", "no regular file"));
    fs::remove(kIncoming + "/b.size.json");
    EXPECT_TRUE(within(seconds(5), [] { return half_named("b.size.json").is_null(); }))
        << status_now()["halves"];
    deliver_file("a.size.json", pair.size_json);
    EXPECT_TRUE(waits_for("a.size.json", "a.data.json has not come")) << status_now()["halves"];
    deliver_file("a.data.json", pair.data_json);
    EXPECT_TRUE(serves(9)) << service.log();
    EXPECT_TRUE(status_now()["halves"].empty()) << status_now()["halves"];
}

TEST_F(ServiceIncoming, NamesOfUnfinishedFilesAreNobodys) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Pair pair = pair_of_generation(10);
    const std::vector<std::string> names{".a.data.json", ".b.size.json", "a.data.json.part",
                                         "a.data.json.tmp", "a.size.json.tmp"};
    for (const std::string& name : names) write_file(kIncoming + "/" + name, pair.data_json);
    write_file(kIncoming + "/b.size.json.part", pair.size_json);
    write_file(kIncoming + "/b.data.json.part", pair.data_json);
    deliver(pair_of_generation(11));
    EXPECT_TRUE(serves(11)) << service.log();
    EXPECT_TRUE(status_now()["halves"].empty()) << status_now()["halves"];
    for (const std::string& name : names) EXPECT_TRUE(file_exists(kIncoming + "/" + name)) << name;
    for (const char* name : {"b.size.json", "b.data.json"})  // finished now
        fs::rename(kIncoming + "/" + name + ".part", kIncoming + "/" + name);
    EXPECT_TRUE(serves(10)) << service.log();
}

}  // namespace
}  // namespace kvtest
