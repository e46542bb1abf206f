// A look between the staging buffer's code and the kernel: the calls it makes pass through here,
// are counted, and can be refused, cut short, or accompanied by something of a test's choosing (the
// end of the process included). What is let pass reaches the C library unchanged.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kvtest {

enum class Call { clock, write, close, sync, make_temporary, rename, ftok, shmget, shmat, semop };

struct CallMade {
    Call kind;
    int nth = 0;            // of its kind since the probe began, from 1
    long target = 0;        // descriptor, id or key; project of ftok; direction of semop
    std::string path = {};  // name of the temporary, source of a rename
    std::string to = {};    // goal of a rename
};

// Watches while it lives; one at a time. A child inherits its parent's.
class CallProbe {
public:
    CallProbe();
    ~CallProbe();
    CallProbe(const CallProbe&) = delete;
    CallProbe& operator=(const CallProbe&) = delete;
    // Asked before each call: an errno refuses it, 0 lets it pass. Its own calls are not watched.
    std::function<int(const CallMade&)> before = [](const CallMade&) { return 0; };
    // Told after each call that passed.
    std::function<void(const CallMade&)> after = [](const CallMade&) {};
    // What the clock shows; the real one when it says false.
    std::function<bool(timeval&)> clock = [](timeval&) { return false; };
    std::size_t longest_write = SIZE_MAX;  // no call to write() takes more
    bool write_nothing = false;            // write() gives 0

    const std::vector<CallMade>& calls() const { return calls_; }
    int count(Call kind) const;
    int admit(CallMade& call);  // of the intercepted calls
    void told(const CallMade& call);

private:
    std::vector<CallMade> calls_;
    bool inside_ = false;
};

// Refuses every call of that kind, or only the nth.
std::function<int(const CallMade&)> refuse(Call kind, int error, int nth = 0);

// A clock that stands still, for as many looks as said.
std::function<bool(timeval&)> standing_clock(long seconds, long microseconds, int looks = 1 << 30);

}  // namespace kvtest
