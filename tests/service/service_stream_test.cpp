// Producers that do not wait: many pairs a second, pairs that are replaced while they are built,
// and writers that go on writing into files that were taken. Whatever is served is one whole pair.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "service_watch.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr unsigned kStream = 60;
constexpr milliseconds kBeat{50};  // 20 a second

class ServiceStream : public WatchTest {
protected:
    // Delivers generations 1 to kStream, one a beat, while every map that is served is looked at.
    // Gives the generations that were seen.
    static std::set<long> deliver_stream(const std::function<std::string(unsigned)>& name_of) {
        std::vector<Pair> pairs;
        for (unsigned i = 1; i <= kStream; ++i) pairs.push_back(pair_of_generation(i));
        std::atomic<bool> over{false};
        std::thread producer([&] {
            auto next = std::chrono::steady_clock::now();
            for (unsigned i = 1; i <= kStream; ++i) {
                std::this_thread::sleep_until(next += kBeat);
                deliver(pairs[i - 1], name_of(i));
            }
            over = true;
        });
        std::set<long> seen;
        while (!over) seen.insert(served_generation());
        producer.join();
        EXPECT_TRUE(within(seconds(20), [&seen] {
            const long served = served_generation();
            seen.insert(served);
            return served == kStream;
        })) << served_generation();
        return seen;
    }

    static void expect_no_failure() {
        EXPECT_TRUE(is_idle()) << status_now();
        expect_nothing_left();
        EXPECT_EQ(left_in_incoming(), std::vector<std::string>{});
        EXPECT_EQ(names_in(kQuarantine), std::vector<std::string>{});
        EXPECT_EQ(counter("build_failures"), 0U);
        EXPECT_TRUE(status_now()["last_failure"].is_null()) << status_now()["last_failure"];
        EXPECT_TRUE(status_now()["halves"].empty()) << status_now()["halves"];
    }

    static bool builds_a_pair() {
        const Json status = status_now();
        return status.is_object() && status["service"]["job"].is_object() &&
               status["service"]["job"]["kind"] == "pair";
    }

    // A pair was moved into the work folder.
    static bool is_taken(const std::string& name) {
        return within(seconds(5), [&name] {
            for (const std::string& entry : names_in(kWork))
                if (entry.starts_with("pair-") && entry.ends_with("-" + name)) return true;
            return false;
        });
    }

    // Writes over the file where it lies: same inode, same length.
    static void write_over(const std::string& path, const std::string& content) {
        const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(write(file, content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
        close(file);
    }
};

TEST_F(ServiceStream, TwentyPairsASecondUnderOneNameAreServedWhole) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    deliver_stream([](unsigned) { return "same"; });
    expect_no_failure();
    EXPECT_TRUE(counter("builds") >= 1 && !HasFailure()) << service.log();
}

TEST_F(ServiceStream, TwentyPairsASecondUnderTheirOwnNamesAreAllAccountedFor) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const std::set<long> seen =
        deliver_stream([](unsigned i) { return "pair" + std::to_string(i); });
    expect_no_failure();
    EXPECT_GE(seen.size(), 5U) << "hardly anything was served meanwhile";
    EXPECT_EQ(counter("builds") + counter("superseded"), kStream);
    EXPECT_EQ(occurrences(service.log(), " is superseded by "), counter("superseded"));
    EXPECT_GE(counter("builds"), 5U);
}

TEST_F(ServiceStream, APairThatIsReplacedWhileItIsBuiltIsTheNextPair) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    deliver(pair_of_generation(1, 300, 150));
    ASSERT_TRUE(within(seconds(10), builds_a_pair));
    deliver(pair_of_generation(2, 300, 150));
    EXPECT_TRUE(serves(2)) << service.log();
    expect_no_failure();
    EXPECT_EQ(counter("builds"), 2U);
    EXPECT_EQ(counter("superseded"), 0U);
}

TEST_F(ServiceStream, OnlyTheNewestOfSeveralThatWaitIsBuilt) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    deliver(pair_of_generation(1, 300, 150), "a");
    ASSERT_TRUE(within(seconds(10), builds_a_pair));
    {
        const std::vector<pid_t> workers = children_of(service.pid());
        const Stopped worker(workers.empty() ? -1 : workers.front());
        for (const unsigned generation : {2U, 3U, 4U}) {
            const std::string name = "b" + std::to_string(generation);
            deliver(pair_of_generation(generation), name);
            EXPECT_TRUE(is_taken(name)) << service.log();
        }
    }
    EXPECT_TRUE(serves(4)) << service.log();
    expect_no_failure();
    EXPECT_EQ(counter("builds"), 2U);
    EXPECT_EQ(counter("superseded"), 2U);
    EXPECT_TRUE(service.logs("b2.data.json is superseded by b3.data.json")) << service.log();
    EXPECT_TRUE(service.logs("b3.data.json is superseded by b4.data.json")) << service.log();
}

// The writer has a name of its own for each file, so that taking them does not stop it. Both texts
// are equally long and differ only in the generation, so that a mix would pass every check.
TEST_F(ServiceStream, APairThatIsWrittenToWhileItIsBuiltIsLookedAtAgain) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const std::string own = "/var/lib/kavrin/own.";
    const Pair first = pair_of_generation(3, 300, 150);
    const Pair second = pair_of_generation(6, 300, 150);
    ASSERT_EQ(first.data_json.size(), second.data_json.size());
    const auto looked_again = [&service] {
        return contains(service.log(), "was written to meanwhile and is looked at again");
    };
    for (int round = 0; round < 5 && !looked_again(); ++round) {
        for (const char* file : {"size.json", "data.json"}) {
            fs::remove(own + file);
            write_file(own + file, file[0] == 's' ? first.size_json : first.data_json);
            fs::create_hard_link(own + file, kIncoming + "/" + file);
        }
        ASSERT_TRUE(within(seconds(10), builds_a_pair)) << service.log();
        {
            const std::vector<pid_t> workers = children_of(service.pid());
            const Stopped worker(workers.empty() ? -1 : workers.front());
            write_over(own + "data.json", second.data_json);
            write_over(own + "size.json", second.size_json);
        }
        ASSERT_TRUE(is_idle()) << service.log();
        const long served = served_generation();  // and it is a whole one
        EXPECT_TRUE(served == 6 || (served == 3 && !looked_again())) << served << service.log();
    }
    EXPECT_TRUE(looked_again()) << service.log();
    expect_no_failure();
}

TEST_F(ServiceStream, APairThatIsWrittenToGivesWayToANewerOne) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const std::string own = "/var/lib/kavrin/own.json";
    const Pair pair = pair_of_generation(3, 300, 150);
    write_file(own, pair.data_json);
    fs::create_hard_link(own, kIncoming + "/old.data.json");
    deliver_file("old.size.json", pair.size_json);
    ASSERT_TRUE(within(seconds(10), builds_a_pair)) << service.log();
    {
        const std::vector<pid_t> workers = children_of(service.pid());
        const Stopped worker(workers.empty() ? -1 : workers.front());
        write_over(own, pair.data_json);
        deliver(pair_of_generation(4), "new");
        EXPECT_TRUE(is_taken("new")) << service.log();
    }
    EXPECT_TRUE(serves(4)) << service.log();
    expect_no_failure();
    EXPECT_EQ(counter("builds") + counter("superseded"), 2U);
}

TEST_F(ServiceStream, APairThatIsWrittenToWithoutEndFailsInTheEnd) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    deliver(pair_of_generation(1));
    ASSERT_TRUE(serves(1)) << service.log();
    const std::string own = "/var/lib/kavrin/own.json";
    const Pair pair = pair_of_generation(2, 300, 150);
    write_file(own, pair.data_json);
    fs::create_hard_link(own, kIncoming + "/restless.data.json");
    std::atomic<bool> over{false};
    std::thread writer([&] {
        for (int i = 0; !over; ++i) {
            const timespec times[] = {{i, 0}, {i, 0}};
            utimensat(AT_FDCWD, own.c_str(), times, 0);
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    deliver_file("restless.size.json", pair.size_json);
    const std::string folder = quarantined("restless");
    over = true;
    writer.join();
    ASSERT_NE(folder, "") << service.log();
    EXPECT_TRUE(contains(read_file(folder + "/reason.txt"), "tried 3 times"))
        << read_file(folder + "/reason.txt");
    EXPECT_EQ(read_file(folder + "/data.json"), pair.data_json);
    EXPECT_EQ(served_generation(), 1);
    EXPECT_EQ(counter("build_failures"), 1U);
    expect_nothing_left();
}

}  // namespace
}  // namespace kvtest
