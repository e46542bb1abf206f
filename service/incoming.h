// The incoming folder: which files in it make a pair, and when.
//
// A file counts once it was closed after writing or renamed into place, and nobody has it open for
// writing. When as many size files as data files have come, both are moved away, one by one; and
// since their producer may replace either at any time under the same name, nothing is final until
// nothing has arrived for a moment after the second move: a file that was moved although its
// arrival had not been told yet is one of the next pair, which is then waited for. The moment is
// long for a file that was written to again after it was closed, for that may go on.
#pragma once

#include <array>
#include <chrono>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "descriptor.h"
#include "event_loop.h"
#include "pair_folder.h"

namespace kvservice {

// A file that waits, and what for.
struct WaitingFile {
    std::string file;
    std::time_t since = 0;
    bool stale = false;
    std::string why;
};

class Incoming {
public:
    using OnPair = std::function<void(const TakenPair&)>;

    // Fails by CommandError when the folder cannot be watched.
    Incoming(EventLoop& loop, PairStore& store, std::chrono::seconds stale_after, OnPair on_pair);

    // Looks at all that is there.
    void look();

    void set_stale_after(std::chrono::seconds time) { stale_after_ = time; }
    std::vector<WaitingFile> waiting() const;

private:
    using Clock = std::chrono::steady_clock;
    enum Side { kSize, kData };

    // Tells a file from another that takes its name.
    struct Identity {
        std::uint64_t inode = 0;
        std::int64_t born = 0;
        bool operator==(const Identity&) const = default;
    };
    struct Half {
        unsigned arrivals = 0;
        Identity identity;  // of the last one
        bool claimed = false;
        bool rewritten = false;
        bool open_for_writing = false;
        std::time_t since = 0;  // of the last arrival
    };
    struct Pair {
        std::array<Half, 2> halves;
        Clock::time_point last_change;
        std::uint64_t turn = 0;  // of the last arrival
        bool reported = false;
        Source timer;
    };

    void watch();
    void read_events();
    void watch_anew();
    void take_event(std::uint32_t mask, const std::string& file);
    void begin(const std::string& name, Side side);
    void arrive(const std::string& name, Side side, std::uint32_t mask);
    void leave(const std::string& name, Side side);
    void look_again_in(const std::string& name, std::chrono::milliseconds delay);
    void judge(const std::string& name);
    bool claim(const std::string& name, Pair& pair, Side side);
    bool is_whole(const std::string& name, const Pair& pair) const;
    void commit(const std::string& name);
    static Identity identity_of(const std::string& path);
    void report_stale();
    std::string why_waiting(const std::string& name, const Pair& pair, Side side) const;

    EventLoop& loop_;
    PairStore& store_;
    std::chrono::seconds stale_after_;
    OnPair on_pair_;
    kvadmin::Descriptor events_;
    std::map<std::string, Pair> pairs_;
    std::map<std::string, WaitingFile> strangers_;
    std::uint64_t turns_ = 0;
    Source source_;
    Source sweep_;
    Source rewatch_;
};

}  // namespace kvservice
