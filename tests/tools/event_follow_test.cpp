// kavrinctl events tail: the last events, and a follower beside processes that flush: each event
// once, none missed, whatever way the files come.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "event_files.h"
#include "tool_run.h"

namespace {

using namespace std::chrono_literals;
using kvtest::frame;
using kvtest::lines_of;
using kvtest::numbered_event;
using kvtest::numbered_file;
using kvtest::run_tool;

std::vector<std::string> paths_in(const std::string& json_lines) {
    std::vector<std::string> paths;
    for (const std::string& line : lines_of(json_lines))
        paths.push_back(nlohmann::json::parse(line)["path"]);
    return paths;
}

std::vector<std::string> numbered_paths(int first, int count) {
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) paths.push_back(numbered_event(first + i).path);
    return paths;
}

// Gives up after a minute, so that what never comes is a failed test and no endless one.
template <typename Condition>
bool wait_until(Condition&& condition) {
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// kavrinctl events tail --follow in a process of its own, its streams in files.
class Follower {
public:
    explicit Follower(const std::string& folder,
                      const std::vector<std::string>& more = {"--json"}) {
        const std::string place = kvtest::make_temp_dir();
        out_ = place + "/out";
        err_ = place + "/err";
        pid_ = fork();
        if (pid_ != 0) return;
        const int out = open(out_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const int err = open(err_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        std::vector<const char*> words{"kavrinctl", "events", "tail", "--follow", folder.c_str()};
        for (const std::string& word : more) words.push_back(word.c_str());
        const int code = kvadmin::run(static_cast<int>(words.size()), words.data());
        std::fflush(nullptr);
        _exit(code);
    }
    ~Follower() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    pid_t pid() const { return pid_; }
    std::string out() const { return kvtest::file_exists(out_) ? kvtest::read_file(out_) : ""; }
    std::string err() const { return kvtest::file_exists(err_) ? kvtest::read_file(err_) : ""; }
    // Waits until so many events are printed.
    bool has(std::size_t events) const {
        return wait_until([&] {
            const std::string text = out();
            return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) >= events;
        });
    }
    // The exit code; -1 when a signal ended it.
    int end(int signal = 0) {
        if (signal != 0) kill(pid_, signal);
        int status = 0;
        const pid_t pid = std::exchange(pid_, 0);
        const bool ended = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; });
        EXPECT_TRUE(ended);
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    std::string out_;
    std::string err_;
    pid_t pid_;
};

class Tail : public ::testing::Test {
protected:
    // As the library does it: complete under another name first.
    void appear(const std::string& name, const std::string& bytes) {
        kvtest::write_file(folder_ + "/kvtempAbCdEf", bytes);
        std::filesystem::rename(folder_ + "/kvtempAbCdEf", folder_ + "/" + name);
    }

    kvtest::ConfigTable table_{-1};
    const std::string folder_ = kvtest::make_temp_dir();
};

}  // namespace

TEST_F(Tail, ShowsTheLastEventsOfAllFiles) {
    appear("pending_1.000000", numbered_file(0, 8));
    appear("pending_2.000000", numbered_file(8, 5));
    appear("pending_10.000000", numbered_file(13, 4));
    EXPECT_EQ(paths_in(run_tool({"events", "tail", "--json", folder_}).out), numbered_paths(7, 10));
    EXPECT_EQ(paths_in(run_tool({"events", "tail", "--json", "-n", "3", folder_}).out),
              numbered_paths(14, 3));
    EXPECT_EQ(paths_in(run_tool({"events", "tail", "--json", "-n", "5", folder_}).out),
              numbered_paths(12, 5));
    EXPECT_EQ(paths_in(run_tool({"events", "tail", "--json", "-n", "1000", folder_}).out),
              numbered_paths(0, 17));
    EXPECT_EQ(run_tool({"events", "tail", "-n", "0", folder_}).out, "");
}

TEST_F(Tail, ADamagedFileIsToldAndItsWholeRecordsCount) {
    appear("pending_1.000000", numbered_file(0, 2));
    appear("pending_2.000000", numbered_file(2, 1) + "torn");
    const kvtest::ChildResult result = run_tool({"events", "tail", "--json", "-n", "2", folder_});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_EQ(paths_in(result.out), numbered_paths(1, 2));
    EXPECT_NE(result.err.find("/pending_2.000000: byte "), std::string::npos) << result.err;
}

TEST_F(Tail, TakesTheStagingFolderOfTheConfigurationTable) {
    appear("pending_1.000000", numbered_file(0, 1));
    ASSERT_EQ(run_tool({"config", "create", "--set", "SWEEPER:staging dir=" + folder_}).exit_code,
              0);
    EXPECT_EQ(paths_in(run_tool({"events", "tail", "--json"}).out), numbered_paths(0, 1));
}

TEST_F(Tail, NeedsAFolder) {
    const kvtest::ChildResult result = run_tool({"events", "tail"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.err,
              "kavrinctl: no staging folder is configured; name a folder, or set 'SWEEPER:staging "
              "dir' with 'kavrinctl config create'\n");
    EXPECT_EQ(run_tool({"events", "tail", folder_ + "/none"}).exit_code, 1);
    EXPECT_EQ(run_tool({"events", "tail", "--follow", folder_ + "/none"}).exit_code, 1);
}

TEST_F(Tail, FollowGoesOnWithWhatComes) {
    appear("pending_1.000000", numbered_file(0, 20));
    Follower follower(folder_, {"--json", "-n", "2"});
    ASSERT_TRUE(follower.has(2));
    appear("pending_2.000000", numbered_file(20, 3));
    ASSERT_TRUE(follower.has(5));
    appear("pending_3.000000", numbered_file(23, 1));
    ASSERT_TRUE(follower.has(6));
    EXPECT_EQ(paths_in(follower.out()), numbered_paths(18, 6));
    EXPECT_EQ(follower.end(SIGTERM), 0);
    EXPECT_EQ(follower.err(), "");
}

TEST_F(Tail, FollowEndsCleanlyOnAnInterrupt) {
    Follower follower(folder_);
    appear("pending_1.000000", numbered_file(0, 1));
    ASSERT_TRUE(follower.has(1));
    EXPECT_EQ(follower.end(SIGINT), 0);
}

TEST_F(Tail, FollowSeesAFileThatComesAsASecondLink) {
    Follower follower(folder_);
    appear("pending_1.000000", numbered_file(0, 1));
    ASSERT_TRUE(follower.has(1));
    const std::string temporary = folder_ + "/kvtempAbCdEf";
    kvtest::write_file(temporary, numbered_file(1, 2));
    std::filesystem::create_hard_link(temporary, folder_ + "/pending_2.000000");
    std::filesystem::remove(temporary);
    ASSERT_TRUE(follower.has(3));
    EXPECT_EQ(paths_in(follower.out()), numbered_paths(0, 3));
    EXPECT_EQ(follower.end(SIGTERM), 0);
    EXPECT_EQ(follower.err(), "");
}

TEST_F(Tail, FollowReadsAFileThatGrowsUnderItsNameOnce) {
    Follower follower(folder_);
    appear("pending_1.000000", numbered_file(0, 1));
    ASSERT_TRUE(follower.has(1));
    const std::string bytes = numbered_file(1, 50);
    const int file =
        open((folder_ + "/pending_2.000000").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    for (std::size_t at = 0; at < bytes.size(); at += 777) {
        const std::size_t piece = std::min<std::size_t>(777, bytes.size() - at);
        ASSERT_EQ(write(file, bytes.data() + at, piece), static_cast<ssize_t>(piece));
        std::this_thread::sleep_for(1ms);
    }
    close(file);
    ASSERT_TRUE(follower.has(51));
    EXPECT_EQ(paths_in(follower.out()), numbered_paths(0, 51));
    EXPECT_EQ(follower.end(SIGTERM), 0);
    EXPECT_EQ(follower.err(), "");
}

TEST_F(Tail, FollowTellsDamageAndGoesOn) {
    Follower follower(folder_);
    appear("pending_1.000000", numbered_file(0, 1) + kvtest::raw_frame(3, 7, "abc"));
    ASSERT_TRUE(follower.has(1));
    appear("pending_2.000000", numbered_file(1, 1));
    ASSERT_TRUE(follower.has(2));
    EXPECT_EQ(paths_in(follower.out()), numbered_paths(0, 2));
    EXPECT_EQ(follower.end(SIGTERM), 3);
    EXPECT_EQ(lines_of(follower.err()).size(), 1u) << follower.err();
    EXPECT_NE(follower.err().find("its signature is 0x00000007"), std::string::npos);
}

TEST_F(Tail, FollowTellsALinkedFileThatIsTornAtTheEnd) {
    Follower follower(folder_);
    appear("pending_0.000000", numbered_file(0, 1));
    ASSERT_TRUE(follower.has(1));
    kvtest::write_file(folder_ + "/other", numbered_file(1, 1) + "torn");
    std::filesystem::create_hard_link(folder_ + "/other", folder_ + "/pending_1.000000");
    ASSERT_TRUE(follower.has(2));
    EXPECT_EQ(follower.end(SIGTERM), 3);
    EXPECT_NE(follower.err().find("/pending_1.000000: byte "), std::string::npos) << follower.err();
}

TEST_F(Tail, FollowReadsAFileOfANameThatWasThereBefore) {
    Follower follower(folder_);
    appear("pending_1.000000", numbered_file(0, 1));
    ASSERT_TRUE(follower.has(1));
    std::filesystem::remove(folder_ + "/pending_1.000000");
    appear("pending_1.000000", numbered_file(1, 1));
    ASSERT_TRUE(follower.has(2));
    EXPECT_EQ(paths_in(follower.out()), numbered_paths(0, 2));
}

TEST_F(Tail, FollowSaysThatTheFolderWasRemoved) {
    Follower follower(folder_);
    appear("pending_1.000000", numbered_file(0, 1));
    ASSERT_TRUE(follower.has(1));
    std::filesystem::remove_all(folder_);
    EXPECT_EQ(follower.end(), 1);
    EXPECT_EQ(follower.err(), "kavrinctl: the folder " + folder_ + " is gone: it was removed\n");
}

TEST_F(Tail, FollowSaysThatTheFolderWasMovedAway) {
    const std::string inner = folder_ + "/staging";
    std::filesystem::create_directory(inner);
    kvtest::write_file(inner + "/pending_1.000000", numbered_file(0, 1));
    Follower follower(inner);
    ASSERT_TRUE(follower.has(1));
    std::filesystem::rename(inner, folder_ + "/elsewhere");
    EXPECT_EQ(follower.end(), 1);
    EXPECT_EQ(follower.err(), "kavrinctl: the folder " + inner + " is gone: it was moved away\n");
}

TEST_F(Tail, FollowSurvivesAnOverflowOfTheKernelsQueue) {
    appear("pending_1.000000", numbered_file(0, 1));
    Follower follower(folder_);
    ASSERT_TRUE(follower.has(1));
    const int limit = std::stoi(kvtest::read_file("/proc/sys/fs/inotify/max_queued_events"));
    ASSERT_LE(limit, 1 << 20) << "the queue of this kernel is too long to fill";
    kill(follower.pid(), SIGSTOP);
    ASSERT_TRUE(wait_until([&] {
        int status = 0;
        return waitpid(follower.pid(), &status, WNOHANG | WUNTRACED) == follower.pid();
    }));
    appear("pending_2.000000", numbered_file(1, 1));  // in the queue and in the listing
    const std::string here = folder_ + "/a";
    const std::string there = folder_ + "/b";
    kvtest::write_file(here, "");
    for (int i = 0; i <= limit / 2; ++i) {  // each way leaves two events
        ASSERT_EQ(rename(here.c_str(), there.c_str()), 0);
        ASSERT_EQ(rename(there.c_str(), here.c_str()), 0);
    }
    appear("pending_3.000000", numbered_file(2, 1));  // beyond the queue
    std::filesystem::remove(folder_ + "/pending_1.000000");
    kill(follower.pid(), SIGCONT);
    ASSERT_TRUE(follower.has(3));
    appear("pending_4.000000", numbered_file(3, 1));
    ASSERT_TRUE(follower.has(4));
    EXPECT_EQ(paths_in(follower.out()), numbered_paths(0, 4));
    EXPECT_EQ(follower.end(SIGTERM), 0);
    EXPECT_EQ(follower.err(), "");
}

// Two processes write events through the library and flush all the time while one follows.
TEST_F(Tail, FollowSeesEveryEventOfRealWritersOnce) {
    constexpr int kWriters = 2;
    constexpr int kEvents = 1500;
    table_.set_string(PARAM_STAGING_DIR, folder_);
    table_.set_int(PARAM_STAGING_BUFFER_SIZE, 8192);
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 20);
    ASSERT_EQ(create_eventstore_staging_semaphore(), 1);
    ASSERT_EQ(create_staging_buffer(), 0);
    Follower follower(folder_, {"--json", "-n", "1000000"});
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(fork());
        if (writers.back() != 0) continue;
        bool sent = true;
        for (int i = 0; i < kEvents; ++i) {
            kvtest::EventFields fields = numbered_event(i);
            fields.path = "/w" + std::to_string(writer) + "/" + std::to_string(i);
            const std::string bytes = frame(fields);
            std::vector<char> record(bytes.begin(), bytes.end());
            sent = write_to_staging_buffer(reinterpret_cast<staging_data_t*>(record.data())) == 0 &&
                   sent;
        }
        sent = flush_staging_buffer() == 1 && sent;
        _exit(sent ? 0 : 1);
    }
    for (const pid_t writer : writers) {
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(follower.has(kWriters * kEvents));
    EXPECT_EQ(follower.end(SIGTERM), 0);
    EXPECT_EQ(follower.err(), "");
    std::map<std::string, int> seen;
    for (const std::string& path : paths_in(follower.out())) EXPECT_EQ(++seen[path], 1) << path;
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kWriters) * kEvents);
    EXPECT_GT(std::distance(std::filesystem::directory_iterator(folder_), {}), 20)
        << "files came while it followed";
}
