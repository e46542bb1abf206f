// The permission-load log: the line byte by byte, the file it is appended to, and every problem
// that must end in a trace instead of in the caller.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "provoke.h"
#include "support.h"

namespace {

using kvtest::expect_in_child;
using kvtest::logged;

constexpr const char* kLogFile = "/var/log/kavrin_perms.log";
constexpr std::size_t kTimeTextSize = 24;  // "Tue Nov 14 22:13:20 2023"

struct Line {
    std::string text;
    unsigned size = 0;
    std::string buffer;  // all of it, what lies behind the terminator included
};

Line make_line(unsigned severity, const std::string& text, int index) {
    char* message = nullptr;
    Line line;
    EXPECT_EQ(create_sweeperlog_msg(severity, text.c_str(), index, &message, &line.size), 0);
    if (message == nullptr) return line;
    line.text = message;
    line.buffer.assign(message, line.size);
    std::free(message);
    return line;
}

std::string ctime_text(std::time_t time) {
    std::string text = std::ctime(&time);
    text.pop_back();
    return text;
}

// Checks both time fields against the clock and each other; returns what follows them.
std::string after_time_fields(const std::string& line, std::time_t earliest) {
    const std::size_t comma = line.find(',');
    EXPECT_NE(comma, std::string::npos) << line;
    if (comma == std::string::npos || line.size() < comma + 1 + kTimeTextSize) return "";
    const std::time_t seconds = std::stoll(line.substr(0, comma));
    EXPECT_EQ(line.substr(0, comma), std::to_string(seconds));
    EXPECT_GE(seconds, earliest);
    EXPECT_LE(seconds, std::time(nullptr));
    EXPECT_EQ(line.substr(comma + 1, kTimeTextSize), ctime_text(seconds));
    return line.substr(comma + 1 + kTimeTextSize);
}

std::size_t open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

class SweeperLogTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr) << "run this through scripts/sandbox";
        std::filesystem::remove_all(kLogFile);
    }
    void TearDown() override { std::filesystem::remove_all(kLogFile); }
    kvtest::ConfigTable table_{0};
};

TEST(SweeperLogNumbers, SeveritiesAndIndicesAreFixed) {
    EXPECT_EQ(SWEEPER_LOGSEV_OK, 0);
    EXPECT_EQ(SWEEPER_LOGSEV_INFO, 1);
    EXPECT_EQ(SWEEPER_LOGSEV_WARN, 2);
    EXPECT_EQ(SWEEPER_LOGSEV_ERR, 3);
    EXPECT_EQ(SWEEPER_LOGSEV_CRIT, 4);
    EXPECT_EQ(SWEEPER_LOGSEV_FATAL, 5);
    EXPECT_EQ(PERMISSION_MAP_SUCCESS, 0);
    EXPECT_EQ(MISSING_JSON_FILES, 1);
    EXPECT_EQ(CORRUPTED_PERMISSION_MAP, 2);
    EXPECT_EQ(OUT_OF_MEMORY, 3);
    EXPECT_EQ(CONFIG_FILE_ERROR, 4);
    EXPECT_EQ(CANNOT_READ_JSON_FILE, 5);
    EXPECT_EQ(CANNOT_UNLINK_JSON_FILES, 6);
}

TEST(SweeperLogNumbers, DictionaryHoldsTheFirstThreeTexts) {
    ASSERT_EQ(std::size(messgage_dictionary), 3u);
    EXPECT_STREQ(messgage_dictionary[0],
                 "Successfully loaded permission map from cloud filesystem");
    EXPECT_STREQ(messgage_dictionary[1],
                 "Missing or corrupted temporary files created to import permission map from cloud "
                 "filesystem. Please reset permissions");
    EXPECT_STREQ(messgage_dictionary[2],
                 "The created permission map is corrupted. To regain access to the share please "
                 "reset permissions");
}

TEST_F(SweeperLogTest, LineHasItsFiveFields) {
    const std::time_t earliest = std::time(nullptr);
    const Line line = make_line(5, "Missing JSON size file", 1);
    EXPECT_EQ(after_time_fields(line.text, earliest), ",5,Missing JSON size file,1\n");
    const std::regex pattern(
        "[0-9]+,(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
        "[ 123][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4},5,Missing JSON size file,1\n");
    EXPECT_TRUE(std::regex_match(line.text, pattern)) << line.text;
}

TEST_F(SweeperLogTest, SecondFieldIsLocalTime) {
    expect_in_child([] {
        std::vector<std::string> local;
        for (const char* zone : {"UTC0", "EST+5", "XYZ-9:30"}) {
            ASSERT_EQ(setenv("TZ", zone, 1), 0);  // a change of zone is noticed by itself
            const std::time_t earliest = std::time(nullptr);
            const Line line = make_line(1, "t", 0);
            EXPECT_EQ(after_time_fields(line.text, earliest), ",1,t,0\n");
            local.push_back(line.text.substr(line.text.find(',') + 1, kTimeTextSize - 11));
        }
        EXPECT_NE(local[0], local[1]);
        EXPECT_NE(local[0], local[2]);
    });
}

TEST_F(SweeperLogTest, BufferHoldsTheTimeTheTextAndThirtyTwoBytes) {
    for (const std::size_t length : {0u, 1u, 22u, 1000u, 70000u}) {
        const std::string text(length, 'x');
        const Line line = make_line(4, text, 2);
        EXPECT_EQ(line.size, kTimeTextSize + length + 32);
        EXPECT_TRUE(line.text.ends_with(",4," + text + ",2\n"));
    }
}

TEST_F(SweeperLogTest, BufferBehindTheLineIsZero) {
    const Line line = make_line(1, "text", 0);
    for (std::size_t i = line.text.size(); i < line.buffer.size(); ++i)
        ASSERT_EQ(line.buffer[i], 0) << i;
}

TEST_F(SweeperLogTest, GivenBufferIsReallocated) {
    char* message = static_cast<char*>(std::malloc(3));
    unsigned size = 0;
    ASSERT_EQ(create_sweeperlog_msg(2, "reused", 6, &message, &size), 0);
    EXPECT_EQ(size, kTimeTextSize + 6 + 32);
    EXPECT_TRUE(std::string(message).ends_with(",2,reused,6\n"));
    ASSERT_EQ(create_sweeperlog_msg(3, "once more", 5, &message, &size), 0);
    EXPECT_EQ(size, kTimeTextSize + 9 + 32);
    EXPECT_TRUE(std::string(message).ends_with(",3,once more,5\n"));
    std::free(message);
}

TEST_F(SweeperLogTest, TrailingNewlineOfTheTextBreaksTheLine) {
    const Line line = make_line(5, "broken\n", 1);
    EXPECT_TRUE(line.text.ends_with(",5,broken\n,1\n")) << line.text;
    EXPECT_EQ(line.size, kTimeTextSize + 7 + 32);
}

TEST_F(SweeperLogTest, TextIsTakenAsItIs) {
    const std::string text = "100%s %n, \"quoted\", Ä,,";
    const Line line = make_line(1, text, 0);
    EXPECT_TRUE(line.text.ends_with(",1," + text + ",0\n")) << line.text;
}

TEST_F(SweeperLogTest, LineThatDoesNotFitIsTruncated) {
    const Line line = make_line(0x80000000u, "text", INT_MIN);
    EXPECT_EQ(line.size, kTimeTextSize + 4 + 32);
    EXPECT_EQ(line.text.size(), line.size - 1);
    const std::string whole = line.text.substr(0, line.text.find(',') + 1 + kTimeTextSize) +
                              ",-2147483648,text,-2147483648\n";
    EXPECT_EQ(line.text, whole.substr(0, line.size - 1));
}

TEST_F(SweeperLogTest, ExhaustedMemoryFailsTheLine) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    std::time(nullptr);
    make_line(1, "the zone files are read by now", 0);
    // The C library may allocate for the time's text; what is refused there costs no line.
    int lines_lost = 0;
    for (int nth = 1; nth < 10; ++nth) {
        kvtest::clear_log();
        char* message = nullptr;
        unsigned size = 0;
        int result = 0;
        {
            const kvtest::RefusedAllocation refused(nth);
            result = create_sweeperlog_msg(1, "text", 0, &message, &size);
        }
        std::free(message);
        if (result == 0) continue;
        ++lines_lost;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(logged("sweeper: Cannot allocate memory for sweeper log buffer\n"), 1);
    }
    EXPECT_EQ(lines_lost, 1);
}

TEST_F(SweeperLogTest, ReportsAreAppended) {
    const std::time_t earliest = std::time(nullptr);
    log_perm_error("Missing JSON size file", MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL);
    const std::string first = kvtest::read_file(kLogFile);
    EXPECT_EQ(after_time_fields(first, earliest), ",5,Missing JSON size file,1\n");
    log_perm_error("Successfully processed permission map", PERMISSION_MAP_SUCCESS,
                   SWEEPER_LOGSEV_INFO);
    const std::string both = kvtest::read_file(kLogFile);
    ASSERT_TRUE(both.starts_with(first));
    EXPECT_EQ(after_time_fields(both.substr(first.size()), earliest),
              ",1,Successfully processed permission map,0\n");
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(SweeperLogTest, EveryIndexAndSeverityIsWrittenAsItsNumber) {
    for (int index = 0; index <= 6; ++index) {
        for (int severity = 0; severity <= 5; ++severity)
            log_perm_error("t", index, static_cast<e_sweeper_logmsg_sev_t>(severity));
    }
    std::istringstream lines(kvtest::read_file(kLogFile));
    for (int index = 0; index <= 6; ++index) {
        for (int severity = 0; severity <= 5; ++severity) {
            std::string line;
            ASSERT_TRUE(std::getline(lines, line));
            EXPECT_TRUE(
                line.ends_with("," + std::to_string(severity) + ",t," + std::to_string(index)))
                << line;
        }
    }
}

TEST_F(SweeperLogTest, FileGetsTheDefaultMode) {
    const mode_t mask = umask(0027);
    log_perm_error("t", 0, SWEEPER_LOGSEV_OK);
    umask(mask);
    struct stat state {};
    ASSERT_EQ(stat(kLogFile, &state), 0);
    EXPECT_EQ(state.st_mode & 07777, 0640u);
}

TEST_F(SweeperLogTest, NoHandleIsKeptBetweenReports) {
    const std::size_t before = open_descriptors();
    for (int i = 0; i < 20; ++i) log_perm_error("t", 0, SWEEPER_LOGSEV_OK);
    EXPECT_EQ(open_descriptors(), before);
    std::filesystem::rename(kLogFile, std::string(kLogFile) + ".1");
    log_perm_error("after rotation", 0, SWEEPER_LOGSEV_OK);
    EXPECT_TRUE(kvtest::read_file(kLogFile).ends_with(",0,after rotation,0\n"));
    std::filesystem::remove(std::string(kLogFile) + ".1");
}

TEST_F(SweeperLogTest, UnopenableLogDropsTheReport) {
    std::filesystem::create_directory(kLogFile);
    log_perm_error("t", 0, SWEEPER_LOGSEV_OK);
    EXPECT_EQ(logged("sweeper: Cannot create log file /var/log/kavrin_perms.log. Error: Is a "
                     "directory\n"),
              1);
    EXPECT_EQ(kvtest::log_lines().size(), 1u);
}

TEST_F(SweeperLogTest, UnwritableFolderDropsTheReport) {
    const kvtest::ChildResult child = expect_in_child([] {
        kvtest::become_user(4001, 4001, {});
        log_perm_error("t", 0, SWEEPER_LOGSEV_OK);
    });
    EXPECT_EQ(child.logged("sweeper: Cannot create log file /var/log/kavrin_perms.log. Error: "
                           "Permission denied\n"),
              1);
    EXPECT_FALSE(kvtest::file_exists(kLogFile));
}

TEST_F(SweeperLogTest, ExhaustedMemoryNeverFailsTheReporter) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    log_perm_error("the zone files are read by now", 0, SWEEPER_LOGSEV_OK);
    const std::size_t before = open_descriptors();
    for (int nth = 1; nth < 10; ++nth) {
        const kvtest::RefusedAllocation refused(nth);
        log_perm_error("t", 0, SWEEPER_LOGSEV_OK);
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(logged("sweeper: Cannot create log file handle. No memory\n"), 1);
    EXPECT_EQ(logged("sweeper: Cannot allocate memory for sweeper log buffer\n"), 1);
}

TEST_F(SweeperLogTest, LinesOfSeveralProcessesDoNotMix) {
    constexpr int kProcesses = 4;
    constexpr int kReports = 200;
    const auto text_of = [](int who) {
        return std::string(static_cast<std::size_t>(300 + who), static_cast<char>('a' + who));
    };
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int n = 0; n < kReports; ++n)
                log_perm_error(text_of(i).c_str(), i, SWEEPER_LOGSEV_OK);
            _exit(0);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children) {
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
    }
    std::vector<int> seen(kProcesses);
    std::istringstream lines(kvtest::read_file(kLogFile));
    for (std::string line; std::getline(lines, line);) {
        const int who = line.back() - '0';
        ASSERT_TRUE(who >= 0 && who < kProcesses) << line;
        const std::size_t rest = line.find(',') + 1 + kTimeTextSize;
        ASSERT_EQ(line.substr(rest), ",0," + text_of(who) + "," + std::to_string(who));
        ++seen[static_cast<std::size_t>(who)];
    }
    EXPECT_EQ(seen, std::vector<int>(kProcesses, kReports));
}

TEST_F(SweeperLogTest, WriteStopsAtTheTerminatorWhateverTheLength) {
    const std::string path = kvtest::make_temp_dir() + "/log";
    for (const std::size_t length : {std::size_t{1}, std::size_t{4}, SIZE_MAX}) {
        std::filesystem::remove(path);
        sweeper_log_t* handle = open_sweeper_log(path.c_str());
        ASSERT_NE(handle, nullptr);
        char message[] = "four\0more";
        EXPECT_EQ(write_sweeper_log(handle, length, message), 0);
        close_sweeper_log(handle);
        std::free(handle);
        EXPECT_EQ(kvtest::read_file(path), "four");
    }
}

TEST_F(SweeperLogTest, OpenAppends) {
    const std::string path = kvtest::make_temp_dir() + "/log";
    kvtest::write_file(path, "before\n");
    sweeper_log_t* handle = open_sweeper_log(path.c_str());
    ASSERT_NE(handle, nullptr);
    ASSERT_NE(handle->fp, nullptr);
    char message[] = "after\n";
    EXPECT_EQ(write_sweeper_log(handle, 6, message), 0);
    close_sweeper_log(handle);
    std::free(handle);
    EXPECT_EQ(kvtest::read_file(path), "before\nafter\n");
}

TEST_F(SweeperLogTest, WriteRefusesWhatIsMissing) {
    char message[] = "m";
    sweeper_log_t empty{};
    EXPECT_EQ(write_sweeper_log(nullptr, 1, message), -1);
    EXPECT_EQ(logged("sweeper: Null log handle\n"), 1);
    EXPECT_EQ(write_sweeper_log(&empty, 1, message), -1);
    EXPECT_EQ(logged("sweeper: Null log file pointer in handle\n"), 1);
    sweeper_log_t open{tmpfile()};
    ASSERT_NE(open.fp, nullptr);
    EXPECT_EQ(write_sweeper_log(&open, 0, message), -1);
    EXPECT_EQ(logged("Message len is zero. Nothing to write\n"), 1);
    EXPECT_EQ(write_sweeper_log(&open, 1, nullptr), -1);
    EXPECT_EQ(logged("sweeper: Null message. Nothing to write\n"), 1);
    EXPECT_EQ(kvtest::log_lines().size(), 4u);
    EXPECT_EQ(std::ftell(open.fp), 0);
    std::fclose(open.fp);
}

TEST_F(SweeperLogTest, FailedWriteIsReportedWithItsReason) {
    char message[] = "m";
    sweeper_log_t full{std::fopen("/dev/full", "a")};
    ASSERT_NE(full.fp, nullptr);
    std::setvbuf(full.fp, nullptr, _IONBF, 0);
    EXPECT_EQ(write_sweeper_log(&full, 1, message), -1);
    EXPECT_EQ(logged("sweeper: Write to log file failed No space left on device\n"), 1);
    std::fclose(full.fp);
    sweeper_log_t read_only{std::fopen("/dev/null", "r")};
    ASSERT_NE(read_only.fp, nullptr);
    EXPECT_EQ(write_sweeper_log(&read_only, 1, message), -1);
    EXPECT_EQ(logged("sweeper: Write to log file failed Bad file descriptor\n"), 1);
    std::fclose(read_only.fp);
}

TEST_F(SweeperLogTest, OpenRefusesWhatIsMissing) {
    EXPECT_EQ(open_sweeper_log(nullptr), nullptr);
    EXPECT_EQ(logged("sweeper: No file given for sweeper log file\n"), 1);
    EXPECT_EQ(open_sweeper_log("/nowhere/at/all"), nullptr);
    EXPECT_EQ(logged("sweeper: Cannot create log file /nowhere/at/all. Error: No such file or "
                     "directory\n"),
              1);
}

TEST_F(SweeperLogTest, CloseOfNothingIsTraced) {
    close_sweeper_log(nullptr);
    EXPECT_EQ(logged("sweeper: Null sweeper log\n"), 1);
}

TEST_F(SweeperLogTest, NegativeLevelSilencesEveryMessage) {
    table_.set_debug_level(-1);
    char message[] = "m";
    sweeper_log_t empty{};
    sweeper_log_t read_only{std::fopen("/dev/null", "r")};
    ASSERT_NE(read_only.fp, nullptr);
    close_sweeper_log(nullptr);
    open_sweeper_log(nullptr);
    open_sweeper_log("/nowhere/at/all");
    write_sweeper_log(nullptr, 1, message);
    write_sweeper_log(&empty, 1, message);
    write_sweeper_log(&read_only, 0, message);
    write_sweeper_log(&read_only, 1, nullptr);
    write_sweeper_log(&read_only, 1, message);
    std::fclose(read_only.fp);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

}  // namespace
