// The intercepted calls end in system calls of their own, never in the C library's: an interrupted
// or refused call looks exactly as the kernel would have it.
#include "file_probe.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <utility>

namespace kvtest {
namespace {

struct Time {
    bool steered = false;
    bool broken = false;
    long long seconds = 0;
    int microseconds = 0;
};
Time steered;
WriteProbe* probe = nullptr;

}  // namespace

SteeredClock::SteeredClock(long long seconds, int microseconds) {
    steered = {true, false, seconds, microseconds};
}
SteeredClock::~SteeredClock() {
    steered = {};
}
void SteeredClock::set(long long seconds, int microseconds) {
    steered.seconds = seconds;
    steered.microseconds = microseconds;
}
void SteeredClock::break_time_of_day() {
    steered.broken = true;
}

WriteProbe::WriteProbe(std::string part) : part_(std::move(part)) {
    probe = this;
}
WriteProbe::~WriteProbe() {
    probe = nullptr;
}
bool WriteProbe::concerns(int fd, std::string& path) const {
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t size = readlink(link.c_str(), target, sizeof target);
    path.assign(target, size < 0 ? 0 : static_cast<size_t>(size));
    return path.find(part_) != std::string::npos;
}

}  // namespace kvtest

using kvtest::probe;
using kvtest::steered;

extern "C" {

int gettimeofday(timeval* now, void*) noexcept {
    if (!steered.steered) {
        timespec real;
        const long result = syscall(SYS_clock_gettime, CLOCK_REALTIME, &real);
        *now = {real.tv_sec, real.tv_nsec / 1000};
        return static_cast<int>(result);
    }
    if (steered.broken) {
        errno = EFAULT;
        return -1;
    }
    *now = {steered.seconds, steered.microseconds};
    return 0;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (!steered.steered || (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE))
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (steered.broken) {
        errno = EFAULT;
        return -1;
    }
    *now = {steered.seconds, steered.microseconds * 1000L};
    return 0;
}

time_t time(time_t* now) noexcept {
    timespec real;
    syscall(SYS_clock_gettime, CLOCK_REALTIME, &real);
    const time_t seconds = steered.steered ? static_cast<time_t>(steered.seconds) : real.tv_sec;
    if (now != nullptr) *now = seconds;
    return seconds;
}

ssize_t write(int fd, const void* bytes, size_t count) {
    std::string path;
    if (probe == nullptr || !probe->concerns(fd, path)) return syscall(SYS_write, fd, bytes, count);
    probe->sizes.push_back(count);
    probe->paths.push_back(path);
    kvtest::WriteProbe* const asked = std::exchange(probe, nullptr);  // may write itself
    const ssize_t allowed = asked->answer(count);
    probe = asked;
    if (allowed < 0) {
        errno = static_cast<int>(-allowed);
        return -1;
    }
    return syscall(SYS_write, fd, bytes, std::min(count, static_cast<size_t>(allowed)));
}

int fsync(int fd) {
    std::string path;
    if (probe != nullptr && probe->concerns(fd, path)) ++probe->syncs;
    return static_cast<int>(syscall(SYS_fsync, fd));
}
int fdatasync(int fd) {
    std::string path;
    if (probe != nullptr && probe->concerns(fd, path)) ++probe->syncs;
    return static_cast<int>(syscall(SYS_fdatasync, fd));
}
}
