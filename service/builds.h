// The maps that are to be built or loaded, one after another, each in a worker. The service's own
// start comes first; then what an administrator asked for, in that order; then pairs of the
// incoming folder, of which only the newest counts.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "config_file.h"
#include "pair_folder.h"
#include "worker.h"

namespace kvservice {

enum class JobKind { kStart, kLoad, kReload, kRollback, kPair };

struct Job {
    JobKind kind = JobKind::kPair;
    unsigned number = 0;
    std::string size;  // load
    std::string data;
    unsigned to = 0;  // rollback: the kept map's number
    TakenPair pair;   // pair
    std::time_t since = 0;
    std::function<void(const WorkResult&)> on_end;  // may be empty
};

// What the last failure was, for people.
struct Failure {
    std::time_t time = 0;
    std::string source;
    std::string error;
    std::string quarantine;
};

struct BuildCounters {
    std::uint64_t builds = 0;  // that were published, rollbacks and loads too
    std::uint64_t failures = 0;
    std::uint64_t superseded = 0;
    double seconds = 0;  // of the last one
    bool last_succeeded = true;
};

class Builds {
public:
    Builds(EventLoop& loop, PairStore& store, const kvadmin::Configuration& configuration,
           std::function<void()> on_change);

    // Gives the job's number.
    unsigned add(Job job);
    void add_pair(const TakenPair& pair);

    // No further job begins; the running one is asked to undo itself, and `on_idle` called when it
    // has ended.
    void stop(std::function<void()> on_idle);

    const Job* running() const { return running_ ? &*running_ : nullptr; }
    std::string source_of(const Job& job) const;
    std::size_t queued() const { return queue_.size(); }
    // What the last build published, as the status tells a map; null before the first.
    const Json& last_map() const { return last_map_; }
    const BuildCounters& counters() const { return counters_; }
    const std::optional<Failure>& last_failure() const { return last_failure_; }

private:
    void begin_next();
    void begin(Job job);
    void clear_up();
    Worker::Work work_of(const Job& job) const;
    void end(const WorkResult& result);
    bool retry(const Job& job, const WorkResult& result);
    void try_again(const Job& job);
    void succeed(const Job& job, const WorkResult& result);
    void fail_job(const Job& job, const WorkResult& result);
    std::string in_quarantine(const Job& job, std::string text) const;
    std::string quarantine(const Job& job, const WorkResult& result);

    EventLoop& loop_;
    PairStore& store_;
    const kvadmin::Configuration& configuration_;
    std::function<void()> on_change_;
    std::function<void()> on_idle_;
    std::deque<Job> queue_;
    std::optional<Job> running_;
    std::unique_ptr<Worker> worker_;
    Source next_;
    std::chrono::steady_clock::time_point began_;
    struct stat seen_[2] = {};  // the running pair's files
    unsigned number_ = 0;
    std::uint64_t newest_ = 0;  // turn of the pair that was added last
    unsigned deaths_at_start_ = 0;
    bool stopping_ = false;
    Json last_map_;
    BuildCounters counters_;
    std::optional<Failure> last_failure_;
};

std::string_view name_of(JobKind kind);

}  // namespace kvservice
