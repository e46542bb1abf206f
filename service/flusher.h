// The staging buffer's way to the disk when no smbd fills it: a flush every period and on demand,
// and the recovery of what a process that died in a flush left. Both in a worker, for a flush waits
// for a semaphore and a disk.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "worker.h"

namespace kvservice {

struct FlushCounters {
    std::uint64_t flushes = 0;  // that found events
    std::uint64_t failures = 0;
    std::uint64_t events = 0;
};

class Flusher {
public:
    using OnEnd = std::function<void(const WorkResult&)>;  // its value: {"records": n}

    explicit Flusher(EventLoop& loop) : loop_(loop) {}

    // Flushes every so often from here on; what dead flushers left is recovered
    // also when `period` is zero, and nothing flushed then.
    void set(std::chrono::seconds period, std::string folder);

    void flush(OnEnd on_end);

    const FlushCounters& counters() const { return counters_; }

private:
    void tick();
    void begin(bool recover);
    void end(const WorkResult& result);

    EventLoop& loop_;
    std::string folder_;
    std::chrono::steady_clock::time_point began_;
    std::chrono::steady_clock::time_point recovered_;
    bool by_itself_ = false;  // flushes without being asked
    bool told_late_ = false;
    std::vector<OnEnd> wanted_;   // by the next flush
    std::vector<OnEnd> waiting_;  // by the running one
    FlushCounters counters_;
    std::unique_ptr<Worker> worker_;
    Source timer_;
    Source next_;
};

}  // namespace kvservice
