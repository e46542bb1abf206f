// The service's one loop, over sd-event: descriptors, times, signals and children, each with a
// function to call. Whoever asks for a call owns a Source and gets none after it is gone.
#pragma once

#include <signal.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace kvservice {

class Source {
public:
    Source() = default;
    explicit Source(sd_event_source* source) : source_(source) {}
    explicit operator bool() const { return source_ != nullptr; }
    sd_event_source* get() const { return source_.get(); }
    void reset() { source_.reset(); }

private:
    struct Remove {
        void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
    };
    std::unique_ptr<sd_event_source, Remove> source_;
};

class EventLoop {
public:
    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    using Call = std::function<void()>;

    // Each gives a Source or fails by CommandError; one that fails in a call is told in the log,
    // for nothing may be thrown through the library's frames. `events` are epoll's.
    Source on_ready(int fd, std::uint32_t events, std::function<void(std::uint32_t)> call);
    void change(const Source& source, std::uint32_t events);
    Source after(std::chrono::milliseconds delay, Call call);  // once
    Source every(std::chrono::milliseconds period, Call call);
    Source on_signal(int number, Call call);  // blocks the signal otherwise
    Source on_exit_of(pid_t child, std::function<void(const siginfo_t&)> call);

    // When the system's manager wants signs of life, gives them from here on.
    void watch_over();

    void run();
    void stop();

private:
    sd_event* loop_ = nullptr;
};

}  // namespace kvservice
