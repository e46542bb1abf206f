// A clock that tests steer, and a look at what is written into files: the calls are defined in the
// test binary, so the library's come by. Without an object of these, everything reaches the kernel.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace kvtest {

// Stands still at this time while it lives, whichever call reads the wall clock.
class SteeredClock {
public:
    explicit SteeredClock(long long seconds = 1700000000, int microseconds = 42);
    ~SteeredClock();
    SteeredClock(const SteeredClock&) = delete;
    SteeredClock& operator=(const SteeredClock&) = delete;
    void set(long long seconds, int microseconds = 42);
    // From here on the time of day cannot be read, only the seconds.
    void break_time_of_day();
};

// Watches the writes into files whose path holds `part`.
class WriteProbe {
public:
    explicit WriteProbe(std::string part);
    ~WriteProbe();
    WriteProbe(const WriteProbe&) = delete;
    WriteProbe& operator=(const WriteProbe&) = delete;
    // How many bytes of a write to let through, fewer than asked for a short one, or -errno.
    std::function<ssize_t(size_t asked)> answer = [](size_t asked) {
        return static_cast<ssize_t>(asked);
    };
    // Bytes asked for in each write so far, and the paths of the files.
    std::vector<size_t> sizes;
    std::vector<std::string> paths;
    int syncs = 0;  // fsync() and fdatasync() of such files
    bool concerns(int fd, std::string& path) const;

private:
    std::string part_;
};

}  // namespace kvtest
