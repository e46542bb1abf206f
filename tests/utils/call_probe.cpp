// The intercepted calls are defined here, so the whole test process, library included, comes by;
// the C library's own are found behind them.
#include "call_probe.h"

#include <dlfcn.h>
#include <stdio.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace kvtest {
namespace {

CallProbe* probe = nullptr;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Lets the call pass, or refuses it with errno and -1.
template <typename Result, typename Pass>
Result watched(CallMade call, Result refused, const Pass& pass) {
    if (probe == nullptr) return pass();
    const int error = probe->admit(call);
    if (error != 0) {
        errno = error;
        return refused;
    }
    const Result result = pass();
    const int saved = errno;
    if (probe != nullptr) probe->told(call);
    errno = saved;
    return result;
}

}  // namespace

CallProbe::CallProbe() {
    probe = this;
}
CallProbe::~CallProbe() {
    probe = nullptr;
}

int CallProbe::count(Call kind) const {
    return static_cast<int>(std::count_if(calls_.begin(), calls_.end(),
                                          [=](const CallMade& call) { return call.kind == kind; }));
}

int CallProbe::admit(CallMade& call) {
    if (inside_) return 0;
    inside_ = true;
    const int saved = errno;
    call.nth = count(call.kind) + 1;
    calls_.push_back(call);
    const int error = before(call);
    errno = saved;
    inside_ = false;
    return error;
}

void CallProbe::told(const CallMade& call) {
    if (inside_) return;
    inside_ = true;
    after(call);
    inside_ = false;
}

std::function<int(const CallMade&)> refuse(Call kind, int error, int nth) {
    return [=](const CallMade& call) {
        return call.kind == kind && (nth == 0 || call.nth == nth) ? error : 0;
    };
}

std::function<bool(timeval&)> standing_clock(long seconds, long microseconds, int looks) {
    return [=](timeval& now) mutable {
        if (looks-- <= 0) return false;
        now = {seconds, microseconds};
        return true;
    };
}

}  // namespace kvtest

using kvtest::Call;
using kvtest::probe;
using kvtest::real;
using kvtest::watched;

extern "C" {

int gettimeofday(timeval* now, void* zone) noexcept {
    static auto* const next = real<int(timeval*, void*)>("gettimeofday");
    return watched({Call::clock}, -1, [=] {
        if (probe != nullptr && probe->clock(*now)) return 0;
        return next(now, zone);
    });
}
ssize_t write(int fd, const void* bytes, size_t size) {
    static auto* const next = real<ssize_t(int, const void*, size_t)>("write");
    return watched({Call::write, 0, fd}, ssize_t{-1}, [=] {
        if (probe != nullptr && probe->write_nothing) return ssize_t{0};
        return next(fd, bytes, probe == nullptr ? size : std::min(size, probe->longest_write));
    });
}
int close(int fd) {
    static auto* const next = real<int(int)>("close");
    return watched({Call::close, 0, fd}, -1, [=] { return next(fd); });
}
int fdatasync(int fd) {
    static auto* const next = real<int(int)>("fdatasync");
    return watched({Call::sync, 0, fd}, -1, [=] { return next(fd); });
}
int mkstemp(char* name) {
    static auto* const next = real<int(char*)>("mkstemp");
    return watched({Call::make_temporary, 0, 0, name}, -1, [=] { return next(name); });
}
int rename(const char* from, const char* to) noexcept {
    static auto* const next = real<int(const char*, const char*)>("rename");
    return watched({Call::rename, 0, 0, from, to}, -1, [=] { return next(from, to); });
}
int renameat2(int from_folder, const char* from, int to_folder, const char* to,
              unsigned flags) noexcept {
    static auto* const next = real<int(int, const char*, int, const char*, unsigned)>("renameat2");
    return watched({Call::rename, 0, 0, from, to}, -1,
                   [=] { return next(from_folder, from, to_folder, to, flags); });
}
key_t ftok(const char* path, int project) noexcept {
    static auto* const next = real<key_t(const char*, int)>("ftok");
    return watched({Call::ftok, 0, project}, key_t{-1}, [=] { return next(path, project); });
}
int shmget(key_t key, size_t size, int flags) noexcept {
    static auto* const next = real<int(key_t, size_t, int)>("shmget");
    return watched({Call::shmget, 0, key}, -1, [=] { return next(key, size, flags); });
}
void* shmat(int id, const void* address, int flags) noexcept {
    static auto* const next = real<void*(int, const void*, int)>("shmat");
    return watched({Call::shmat, 0, id}, reinterpret_cast<void*>(-1),
                   [=] { return next(id, address, flags); });
}
int semop(int id, sembuf* operations, size_t count) noexcept {
    static auto* const next = real<int(int, sembuf*, size_t)>("semop");
    return watched({Call::semop, 0, operations->sem_op}, -1,
                   [=] { return next(id, operations, count); });
}
}
