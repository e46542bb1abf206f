// Names of pending files and the loop that writes their bytes: with the clock held still, without
// one, without memory, through pipes and descriptors that take less than they are given.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <regex>
#include <set>

#include "call_probe.h"
#include "provoke.h"
#include "staging_fixture.h"

namespace {

using kvtest::Call;
using kvtest::CallProbe;
using kvtest::log_lines;
using kvtest::logged;
using kvtest::logged_matching;
using kvtest::refuse;
using kvtest::standing_clock;

const std::string kAlphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+;";

struct Freed {
    void operator()(char* p) const { std::free(p); }
};
using Name = std::unique_ptr<char, Freed>;

class PendingName : public testing::Test {
protected:
    kvtest::ConfigTable table_{0};
};

TEST_F(PendingName, IsSecondsAndMicrosecondsPaddedToSix) {
    struct Row {
        long seconds, microseconds;
        const char* name;
    };
    for (const Row& row :
         {Row{1700000000, 42, "/s/pending_1700000000.000042"},
          Row{1700000000, 999999, "/s/pending_1700000000.999999"}, Row{7, 0, "/s/pending_7.000000"},
          Row{2147483647, 100000, "/s/pending_2147483647.100000"}}) {
        CallProbe probe;
        probe.clock = standing_clock(row.seconds, row.microseconds);
        const Name name(get_dumpfname("/s"));
        EXPECT_STREQ(name.get(), row.name);
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(PendingName, IsOfTheTimeOfTheCall) {
    // Not time(): its clock may lag behind.
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_REALTIME, &before);
    const Name name(get_dumpfname("folder"));
    clock_gettime(CLOCK_REALTIME, &after);
    std::cmatch parts;
    ASSERT_TRUE(std::regex_match(name.get(), parts, std::regex("folder/pending_(\\d+)\\.\\d{6}")));
    EXPECT_GE(std::stol(parts[1]), before.tv_sec);
    EXPECT_LE(std::stol(parts[1]), after.tv_sec);
}

TEST_F(PendingName, StandsBelowUnkWithoutAFolder) {
    CallProbe probe;
    probe.clock = standing_clock(1, 2);
    const Name name(get_dumpfname(nullptr));
    EXPECT_STREQ(name.get(), "unk/pending_1.000002");
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("prefix is NULL"), 1);
}

TEST_F(PendingName, IsRandomWhenTheClockCannotBeRead) {
    CallProbe probe;
    probe.before = refuse(Call::clock, EFAULT);
    std::srand(11);
    std::string expected;
    for (int i = 0; i < 7; ++i) expected += kAlphabet[static_cast<unsigned>(std::rand()) & 63];
    std::srand(11);
    const Name name(get_dumpfname("/s"));
    EXPECT_EQ(std::string(name.get()), "/s/pending_unk_time_" + expected);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("gettimeofday failed. errno = 14 (Bad address)\n"), 1);
    const Name other(get_dumpfname("/s"));
    EXPECT_STRNE(name.get(), other.get());
}

TEST_F(PendingName, IsABlockOf256BytesZeroToItsEnd) {
    const Name name(get_dumpfname("/s"));
    EXPECT_GE(malloc_usable_size(name.get()), 256u);
    for (std::size_t i = std::string(name.get()).size(); i < 256; ++i) EXPECT_EQ(name.get()[i], 0);
}

TEST_F(PendingName, IsCutAt256BytesWithoutAWord) {
    CallProbe probe;
    probe.clock = standing_clock(1700000000, 42);
    for (const std::size_t length : {226u, 227u, 228u, 250u, 255u, 256u, 1000u}) {
        const std::string folder = "/" + std::string(length, 'd');
        const std::string whole = folder + "/pending_1700000000.000042";
        const Name name(get_dumpfname(folder.c_str()));
        EXPECT_EQ(std::string(name.get()), whole.substr(0, 255)) << length;
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(PendingName, WithoutMemoryThereIsNone) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "a sanitizer owns the allocator";
    char* name = nullptr;
    {
        const kvtest::RefusedAllocation refused(1);
        name = get_dumpfname("/s");
    }
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("failed to calloc for dumpfname, errno = 12 (Cannot allocate memory)\n"), 1);
}

TEST_F(PendingName, FailuresAreSilentBelowLevelZero) {
    table_.set_debug_level(-1);
    CallProbe probe;
    probe.before = refuse(Call::clock, EFAULT);
    const Name name(get_dumpfname(nullptr));
    char byte = 0;
    EXPECT_EQ(write_all(-1, &byte, 1), -1);
    EXPECT_TRUE(log_lines().empty());
}

TEST(RandomString, FillsAllButTheLastByteFromTheAlphabet) {
    for (const std::size_t size : {2u, 8u, 100u}) {
        std::string expected;
        std::srand(5);
        for (std::size_t i = 0; i + 1 < size; ++i)
            expected += kAlphabet[static_cast<unsigned>(std::rand()) & 63];
        std::srand(5);
        std::string text(size + 1, '#');
        EXPECT_EQ(rand_string(text.data(), size), text.data());
        EXPECT_EQ(text, expected + std::string(1, '\0') + "#");
    }
}

TEST(RandomString, ReachesEveryCharacterAndNoOther) {
    std::string text(4000, '#');
    rand_string(text.data(), text.size());
    text.pop_back();
    EXPECT_EQ(std::set<char>(text.begin(), text.end()),
              std::set<char>(kAlphabet.begin(), kAlphabet.end()));
}

TEST(RandomString, OfOneByteIsOnlyTheTerminator) {
    char text[2] = {'#', '#'};
    EXPECT_EQ(rand_string(text, 1), text);
    EXPECT_EQ(text[0], 0);
    EXPECT_EQ(text[1], '#');
}

TEST(RandomString, OfNoBytesTouchesNothing) {
    char text[1] = {'#'};
    EXPECT_EQ(rand_string(text, 0), text);
    EXPECT_EQ(text[0], '#');
}

// A pipe that holds one page.
class Pipe {
public:
    explicit Pipe(int flags) {
        EXPECT_EQ(pipe2(ends_, flags | O_CLOEXEC), 0);
        EXPECT_EQ(fcntl(ends_[1], F_SETPIPE_SZ, 4096), 4096);
    }
    ~Pipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int out() const { return ends_[1]; }
    std::string content() const {
        std::string bytes(10000, 0);
        bytes.resize(static_cast<std::size_t>(read(ends_[0], bytes.data(), bytes.size())));
        return bytes;
    }

private:
    int ends_[2] = {-1, -1};
};

std::string pattern(std::size_t size) {
    std::string bytes(size, 0);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + (i >> 8));
    return bytes;
}

class WriteAll : public PendingName {};

TEST_F(WriteAll, WritesEverything) {
    const Pipe pipe(0);
    const std::string bytes = pattern(4096);
    EXPECT_EQ(write_all(pipe.out(), bytes.data(), bytes.size()), 4096);
    EXPECT_EQ(pipe.content(), bytes);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(WriteAll, OfNothingDoesNotEvenTry) {
    CallProbe probe;
    EXPECT_EQ(write_all(-1, nullptr, 0), 0);
    EXPECT_EQ(probe.count(Call::write), 0);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(WriteAll, GoesOnBehindWhatWasTaken) {
    const Pipe pipe(0);
    const std::string bytes = pattern(3000);
    CallProbe probe;
    probe.longest_write = 1400;
    errno = 0;
    EXPECT_EQ(write_all(pipe.out(), bytes.data(), bytes.size()), 3000);
    EXPECT_EQ(pipe.content(), bytes);
    EXPECT_EQ(log_lines().size(), 2u);
    EXPECT_EQ(logged("will try to write rest of buffer. nwritten=1400, nleft=1600, size=3000, "
                     "errno=0(Success)\n"),
              1);
    EXPECT_EQ(logged("will try to write rest of buffer. nwritten=1400, nleft=200, size=3000, "
                     "errno=0(Success)\n"),
              1);
}

TEST_F(WriteAll, GivesUpWhenNoMoreIsTaken) {
    const Pipe pipe(O_NONBLOCK);
    const std::string bytes = pattern(5000);
    EXPECT_EQ(write_all(pipe.out(), bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(pipe.content(), bytes.substr(0, 4096));
    ASSERT_EQ(log_lines().size(), 2u);
    EXPECT_EQ(logged_matching(log_lines(),
                              "will try to write rest of buffer. nwritten=4096, nleft=904, "
                              "size=5000, errno=\\d+\\(.*\\)\n"),
              1);
    EXPECT_EQ(logged("Failed to write to fd. nwritten=-1, nleft=904, size=5000, "
                     "errno=11(Resource temporarily unavailable)\n"),
              1);
}

TEST_F(WriteAll, FailsOnABadDescriptor) {
    EXPECT_EQ(write_all(-1, "abc", 3), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("Failed to write to fd. nwritten=-1, nleft=3, size=3, "
                     "errno=9(Bad file descriptor)\n"),
              1);
}

TEST_F(WriteAll, TakesAResultOfZeroForAFailure) {
    CallProbe probe;
    probe.write_nothing = true;
    errno = 0;
    EXPECT_EQ(write_all(1, "abc", 3), -1);
    EXPECT_EQ(probe.count(Call::write), 1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("Failed to write to fd. nwritten=0, nleft=3, size=3, errno=0(Success)\n"), 1);
}

TEST_F(WriteAll, DoesNotRepeatAnInterruptedWrite) {
    const Pipe pipe(0);
    const std::string bytes = pattern(4096);
    ASSERT_EQ(write_all(pipe.out(), bytes.data(), bytes.size()), 4096);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval soon{{0, 20000}, {0, 20000}};  // again and again: one alone may come too early
    ASSERT_EQ(setitimer(ITIMER_REAL, &soon, nullptr), 0);
    const ssize_t written = write_all(pipe.out(), "late", 4);
    const int error = errno;
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_EQ(written, -1);
    EXPECT_EQ(error, EINTR);
    EXPECT_EQ(logged("Failed to write to fd. nwritten=-1, nleft=4, size=4, "
                     "errno=4(Interrupted system call)\n"),
              1);
}

}  // namespace
