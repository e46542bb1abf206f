// See event_loop.h. The function of a source is shared with the call in progress, so that a call
// may remove its own source.
#include "event_loop.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "failure.h"
#include "log.h"

namespace kvservice {
namespace {

using kvadmin::Exit;
using kvadmin::fail;
using std::chrono::microseconds;

void check(int result, const char* what) {
    if (result < 0) fail(Exit::kFailure, "cannot watch {}: {}", what, std::strerror(-result));
}

// What sd-event hands back to a callback: the function, kept until the source is freed.
template <typename Function>
struct Held {
    std::shared_ptr<Function> function;
    static void free(void* held) { delete static_cast<Held*>(held); }
};

template <typename Function>
Held<Function>* hold(Function function) {
    return new Held<Function>{std::make_shared<Function>(std::move(function))};
}

template <typename Function>
std::shared_ptr<Function> held(void* data) {
    return static_cast<Held<Function>*>(data)->function;
}

// Gives the function to the source, which frees it.
template <typename Function>
Source keep(sd_event_source* source, Held<Function>* function) {
    sd_event_source_set_destroy_callback(source, Held<Function>::free);
    sd_event_source_set_userdata(source, function);
    return Source(source);
}

using Ready = std::function<void(std::uint32_t)>;
using Ended = std::function<void(const siginfo_t&)>;

// Nothing may be thrown through sd-event's frames.
template <typename Act>
int guarded(Act&& act) {
    try {
        act();
    } catch (const kvadmin::CommandError& error) {
        log_error("{}", error.message);
    } catch (const std::exception& error) {
        log_error("unexpected failure: {}", error.what());
    }
    return 0;
}

int call_ready(sd_event_source*, int, std::uint32_t events, void* data) {
    const auto call = held<Ready>(data);
    return guarded([&] { (*call)(events); });
}

int call_time(sd_event_source*, std::uint64_t, void* data) {
    const auto call = held<EventLoop::Call>(data);
    return guarded([&] { (*call)(); });
}

struct Periodic {
    EventLoop::Call call;
    microseconds period;
};

int call_period(sd_event_source* source, std::uint64_t, void* data) {
    const std::shared_ptr<Periodic> periodic = held<Periodic>(data);
    sd_event_source_set_time_relative(source, static_cast<std::uint64_t>(periodic->period.count()));
    sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    return guarded([&] { periodic->call(); });
}

int call_signal(sd_event_source*, const signalfd_siginfo*, void* data) {
    const auto call = held<EventLoop::Call>(data);
    return guarded([&] { (*call)(); });
}

int call_child(sd_event_source*, const siginfo_t* info, void* data) {
    const auto call = held<Ended>(data);
    return guarded([&] { (*call)(*info); });
}

constexpr std::uint64_t kAccuracy = 1'000;  // microseconds

std::uint64_t in_microseconds(std::chrono::milliseconds time) {
    return static_cast<std::uint64_t>(microseconds(time).count());
}

}  // namespace

EventLoop::EventLoop() {
    sigset_t children;
    sigemptyset(&children);
    sigaddset(&children, SIGCHLD);
    sigprocmask(SIG_BLOCK, &children, nullptr);
    check(sd_event_new(&loop_), "events");
}

EventLoop::~EventLoop() {
    sd_event_unref(loop_);
}

Source EventLoop::on_ready(int fd, std::uint32_t events, Ready call) {
    sd_event_source* source = nullptr;
    check(sd_event_add_io(loop_, &source, fd, events, call_ready, nullptr), "a descriptor");
    return keep(source, hold(std::move(call)));
}

void EventLoop::change(const Source& source, std::uint32_t events) {
    check(sd_event_source_set_io_events(source.get(), events), "a descriptor");
}

Source EventLoop::after(std::chrono::milliseconds delay, Call call) {
    sd_event_source* source = nullptr;
    check(sd_event_add_time_relative(loop_, &source, CLOCK_MONOTONIC, in_microseconds(delay),
                                     kAccuracy, call_time, nullptr),
          "a time");
    return keep(source, hold(std::move(call)));
}

Source EventLoop::every(std::chrono::milliseconds period, Call call) {
    sd_event_source* source = nullptr;
    check(sd_event_add_time_relative(loop_, &source, CLOCK_MONOTONIC, in_microseconds(period),
                                     kAccuracy, call_period, nullptr),
          "a period");
    return keep(source, hold(Periodic{std::move(call), period}));
}

Source EventLoop::on_signal(int number, Call call) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    sd_event_source* source = nullptr;
    check(sd_event_add_signal(loop_, &source, number, call_signal, nullptr), "a signal");
    return keep(source, hold(std::move(call)));
}

Source EventLoop::on_exit_of(pid_t child, Ended call) {
    sd_event_source* source = nullptr;
    check(sd_event_add_child(loop_, &source, child, WEXITED, call_child, nullptr), "a process");
    return keep(source, hold(std::move(call)));
}

void EventLoop::watch_over() {
    check(sd_event_set_watchdog(loop_, 1), "the watchdog");
}

void EventLoop::run() {
    check(sd_event_loop(loop_), "the service");
}

void EventLoop::stop() {
    sd_event_exit(loop_, 0);
}

}  // namespace kvservice
