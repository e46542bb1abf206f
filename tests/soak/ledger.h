// Who sent which event and what became of it. The ledger lies in memory that all processes of a run
// share, so that it outlives whoever is killed; the judge holds it against the pending files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kvsoak {

constexpr int kWriters = 6;
constexpr unsigned kFirstUser = 4000;  // effective uid of writer 0

// What a writer knows of an event: it begins one, and then it is accepted or refused. One that is
// begun for ever was in the hands of a writer that was killed.
enum class Fate : std::uint8_t { kNone, kBegun, kAccepted, kRefused };

class Ledger {
public:
    explicit Ledger(std::size_t events);  // of each writer
    ~Ledger();
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;
    std::size_t capacity() const { return events_; }
    Fate fate(int writer, std::size_t event) const;
    void set_fate(int writer, std::size_t event, Fate fate);

private:
    std::size_t events_;
    void* memory_;
};

// The name of an event: its path, of a length of its own so that no two records line up.
std::string event_path(int writer, std::size_t event);

struct Counts {
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;
    std::uint64_t unfinished = 0;  // begun, and the writer was killed
    std::uint64_t files = 0;
    std::uint64_t temporaries = 0;         // left by killed flushers
    std::uint64_t in_temporaries = 0;      // events that only one of these has
    std::uint64_t names_out_of_order = 0;  // neighbours in name order that are not so in time
    std::uint64_t kills = 0;
    std::uint64_t looks = 0;  // at the buffer under the semaphore
    std::string marker;       // reason in the rescan marker, if any
    std::vector<std::string> violations;
};
void add(Counts& sum, const Counts& more);

class Judge {
public:
    explicit Judge(const Ledger& ledger);
    // A pending file, or the last content of the buffer (with the greatest name). Every record in
    // it must be an event of the ledger, and each writer's in the order in which they were sent.
    void take_file(const std::string& name, std::string_view bytes);
    // What a killed flusher left: whole records as far as they go.
    void take_temporary(std::string_view bytes);
    // Each accepted event must be in one file, each refused in none. An accepted one that is in a
    // temporary only counts as found where `killed`; others may be missing only when the marker
    // names a reason that loses what was accepted.
    Counts verdict(const std::string& marker, bool killed);

private:
    struct Range {
        std::size_t first, last;
        std::string file;
    };
    void fail(const std::string& what);
    // The files can be put into one order that is each writer's own. That of their names is not
    // always: a flush takes its name before it waits for the buffer, so two may swap.
    void check_order(const std::vector<std::vector<Range>>& ranges);

    const Ledger& ledger_;
    std::vector<std::vector<std::uint8_t>> seen_;      // in files
    std::vector<std::vector<std::uint8_t>> salvaged_;  // in temporaries
    std::vector<std::vector<Range>> ranges_;
    Counts counts_;
};

}  // namespace kvsoak
