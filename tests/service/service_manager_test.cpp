// The service as a child of others: started in the background by a shell, and told on by the
// system's manager over its notification socket.
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "service_watch.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Ends the service in the background that the status names, whatever becomes of the test.
class InBackground {
public:
    explicit InBackground(pid_t process) : process_(process) {}
    ~InBackground() {
        if (process_ > 0) kill(process_, SIGKILL);
    }
    InBackground(const InBackground&) = delete;
    InBackground& operator=(const InBackground&) = delete;
    bool running() const { return fs::exists("/proc/" + std::to_string(process_) + "/exe"); }
    bool end() {
        kill(process_, SIGTERM);
        const bool ended = within(seconds(10), [this] { return !running(); });
        if (ended) process_ = -1;
        return ended;
    }

private:
    pid_t process_;
};

// The manager's end of the notification socket.
class Manager {
public:
    Manager() : path_(make_temp_dir() + "/notify"), socket_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path_.data(), path_.size());
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const timeval patience{0, 20'000};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~Manager() { close(socket_); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    const std::string& path() const { return path_; }

    // Lines so far, in their order.
    const std::vector<std::string>& lines() {
        char buffer[4096];
        for (;;) {
            const ssize_t got = recv(socket_, buffer, sizeof buffer, 0);
            if (got <= 0) return lines_;
            std::istringstream text(std::string(buffer, static_cast<std::size_t>(got)));
            for (std::string line; std::getline(text, line);) lines_.push_back(line);
        }
    }
    long count(const std::string& line) {
        lines();
        return std::count(lines_.begin(), lines_.end(), line);
    }
    bool hears(const std::string& line, long times = 1, milliseconds time = seconds(10)) {
        return within(time, [&] { return count(line) >= times; });
    }

private:
    std::string path_;
    int socket_;
    std::vector<std::string> lines_;
};

using ServiceManager = WatchTest;

TEST_F(ServiceManager, AServiceInTheBackgroundIsReadyWhenTheCommandReturns) {
    publish(pair_of_generation(3));
    const ProgramResult result = run_service({});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    const Json status = status_now();
    ASSERT_TRUE(status.is_object());
    const pid_t process = status["service"]["pid"];
    InBackground service(process);
    EXPECT_NE(status["service"]["state"], "starting");
    EXPECT_EQ(status["map"]["generation"], 3);
    EXPECT_EQ(getsid(process), process) << "it has a session of its own";
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(process) + "/cwd"), "/");
    for (const char* descriptor : {"0", "1", "2"})
        EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(process) + "/fd/" + descriptor),
                  "/dev/null");
    deliver(pair_of_generation(4));
    EXPECT_TRUE(serves(4));
    EXPECT_TRUE(service.end());
    EXPECT_FALSE(file_exists(kSocket));
}

TEST_F(ServiceManager, AStartThatFailsIsToldBeforeTheCommandReturns) {
    RunningService first;
    ASSERT_TRUE(first.ready()) << first.log();
    for (const std::vector<std::string>& options : {std::vector<std::string>{}, {"--foreground"}}) {
        const ProgramResult second = run_service(options);
        EXPECT_EQ(second.exit_code, 1);
        EXPECT_TRUE(contains(second.err, "another kavrind runs")) << second.err;
        EXPECT_TRUE(contains(second.err, std::to_string(first.pid()))) << second.err;
    }
    deliver(pair_of_generation(1));
    EXPECT_TRUE(serves(1)) << "the first one is unhurt\n" << first.log();
    EXPECT_EQ(first.end(), 0);
    write_file(kSocket, "in the way");
    const ProgramResult blocked = run_service({});
    EXPECT_EQ(blocked.exit_code, 1);
    EXPECT_TRUE(contains(blocked.err, kSocket)) << blocked.err;
    EXPECT_EQ(read_file(kSocket), "in the way") << "it is somebody's";
}

TEST_F(ServiceManager, HearsOfReadinessReloadsAndTheEnd) {
    Manager manager;
    RunningService service({}, [&manager] { setenv("NOTIFY_SOCKET", manager.path().c_str(), 1); });
    ASSERT_TRUE(manager.hears("READY=1")) << service.log();
    EXPECT_EQ(status_now()["service"]["state"], "idle") << "ready means ready";
    EXPECT_EQ(manager.count("RELOADING=1"), 0);
    service.signal(SIGHUP);
    ASSERT_TRUE(manager.hears("READY=1", 2)) << service.log();
    configure("[VFS]\nwrong = 1\n");
    service.signal(SIGHUP);
    ASSERT_TRUE(manager.hears("READY=1", 3)) << "after a failed one, too\n" << service.log();
    EXPECT_EQ(manager.count("WATCHDOG=1"), 0) << "nobody asked for it";
    EXPECT_EQ(service.end(), 0);
    ASSERT_TRUE(manager.hears("STOPPING=1")) << service.log();
    std::vector<std::string> states = manager.lines();
    std::erase_if(states, [](const std::string& line) { return line.starts_with("STATUS="); });
    EXPECT_EQ(states, (std::vector<std::string>{"READY=1", "RELOADING=1", "READY=1", "RELOADING=1",
                                                "READY=1", "STOPPING=1"}));
}

TEST_F(ServiceManager, HearsSignsOfLifeWhenItIsAsked) {
    Manager manager;
    RunningService service({}, [&manager] {
        setenv("NOTIFY_SOCKET", manager.path().c_str(), 1);
        setenv("WATCHDOG_USEC", "400000", 1);
        setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    });
    ASSERT_TRUE(manager.hears("READY=1")) << service.log();
    const long before = manager.count("WATCHDOG=1");
    EXPECT_TRUE(manager.hears("WATCHDOG=1", before + 4, seconds(4))) << service.log();
    deliver(pair_of_generation(2, 600, 200));  // a build takes none of them away
    EXPECT_TRUE(serves(2)) << service.log();
    const long later = manager.count("WATCHDOG=1");
    EXPECT_TRUE(manager.hears("WATCHDOG=1", later + 2, seconds(4))) << service.log();
}

// A manager's wish for another process is not this one's.
TEST_F(ServiceManager, HearsNoSignsOfLifeThatItAskedOfAnother) {
    Manager manager;
    RunningService service({}, [&manager] {
        setenv("NOTIFY_SOCKET", manager.path().c_str(), 1);
        setenv("WATCHDOG_USEC", "100000", 1);
        setenv("WATCHDOG_PID", "1", 1);
    });
    ASSERT_TRUE(manager.hears("READY=1")) << service.log();
    EXPECT_FALSE(manager.hears("WATCHDOG=1", 1, milliseconds(600)));
}

}  // namespace
}  // namespace kvtest
