// See incoming.h.
#include "incoming.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>

#include "failure.h"
#include "log.h"

namespace kvservice {
namespace {

namespace fs = std::filesystem;
using kvadmin::CommandError;
using kvadmin::Descriptor;
using kvadmin::Exit;
using kvadmin::fail;
using std::chrono::milliseconds;

constexpr milliseconds kShortMoment{50};
constexpr milliseconds kLongMoment{2000};
constexpr milliseconds kWriterMoment{500};
constexpr milliseconds kSweep{1000};
constexpr milliseconds kRetry{2000};
constexpr std::size_t kLongestName = 200;  // the moved file's name is longer, and must fit
constexpr std::uint32_t kArrivals = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr std::uint32_t kFound = kArrivals;  // there already, nobody knows since when
constexpr std::uint32_t kDepartures = IN_MOVED_FROM | IN_DELETE;
constexpr std::uint32_t kEndOfFolder = IN_DELETE_SELF | IN_MOVE_SELF;

struct HalfName {
    std::string pair;
    int side;
};

bool is_unfinished(std::string_view file) {
    return file.starts_with('.') || file.ends_with(".tmp") || file.ends_with(".part");
}

std::optional<HalfName> half_of(std::string_view file) {
    static constexpr std::string_view kEnds[] = {"size.json", "data.json"};
    for (const int side : {0, 1}) {
        if (file == kEnds[side]) return HalfName{"", side};
        if (!file.ends_with(kEnds[side])) continue;
        const std::string_view name = file.substr(0, file.size() - kEnds[side].size());
        if (name.size() > 1 && name.ends_with('.'))
            return HalfName{std::string(name.substr(0, name.size() - 1)), side};
    }
    return std::nullopt;
}

std::string file_of(const std::string& pair, int side) {
    return side == 0 ? size_name(pair) : data_name(pair);
}

bool is_regular(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool is_begun(std::uint32_t mask) {
    return (mask & IN_CREATE) != 0;
}

// A second name for a file that is complete elsewhere: nothing is written, so nothing is closed.
bool is_linked(std::uint32_t mask, const std::string& path) {
    struct stat st {};
    return is_begun(mask) && lstat(path.c_str(), &st) == 0 && st.st_nlink > 1;
}

// A lease to read is refused while anybody can write. Where there are no leases, being closed has
// to do.
bool is_open_for_writing(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) return false;
    // Who opens the file while the lease lasts makes the kernel send a signal; this one is ignored
    // where nobody asks for it, the usual one would end the service.
    fcntl(file.get(), F_SETSIG, SIGURG);
    if (fcntl(file.get(), F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN;
    fcntl(file.get(), F_SETLEASE, F_UNLCK);
    return false;
}

}  // namespace

Incoming::Incoming(EventLoop& loop, PairStore& store, std::chrono::seconds stale_after,
                   OnPair on_pair)
    : loop_(loop), store_(store), stale_after_(stale_after), on_pair_(std::move(on_pair)) {
    watch();
    sweep_ = loop_.every(kSweep, [this] { report_stale(); });
}

void Incoming::watch() {
    source_.reset();
    events_ = Descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!events_.valid())
        fail(Exit::kFailure, "cannot watch folders: {}; see /proc/sys/fs/inotify/",
             std::strerror(errno));
    if (inotify_add_watch(events_.get(), store_.incoming().c_str(),
                          kArrivals | kDepartures | IN_CREATE | kEndOfFolder | IN_ONLYDIR) < 0)
        fail(Exit::kFailure, "cannot watch {}: {}", store_.incoming(), std::strerror(errno));
    source_ = loop_.on_ready(events_.get(), EPOLLIN, [this](std::uint32_t) { read_events(); });
}

// What is there counts as having come once, in the order of its coming; what was given back had
// come before everything else.
void Incoming::look() {
    for (auto& [name, pair] : pairs_)
        for (Half& half : pair.halves) half = {half.claimed ? 1U : 0U, half.identity, half.claimed};
    std::vector<std::pair<std::int64_t, std::string>> files;
    const std::set<std::string> given_back = store_.take_given_back();
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(store_.incoming(), error)) {
        struct stat st {};
        const std::string file = entry.path().filename();
        if (lstat(entry.path().c_str(), &st) != 0 || S_ISDIR(st.st_mode)) continue;
        const std::int64_t came =
            st.st_ctim.tv_sec * std::int64_t{1'000'000'000} + st.st_ctim.tv_nsec;
        files.emplace_back(given_back.contains(file) ? 0 : came, file);
    }
    std::sort(files.begin(), files.end());
    for (const auto& [came, file] : files) take_event(kFound, file);
    std::erase_if(pairs_, [](const auto& entry) {
        const auto& halves = entry.second.halves;
        return halves[kSize].arrivals == 0 && halves[kData].arrivals == 0;
    });
    if (error) log_warning("cannot read {}: {}", store_.incoming(), error.message());
}

void Incoming::read_events() {
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        const ssize_t got = read(events_.get(), buffer, sizeof buffer);
        if (got <= 0) return;
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            at += static_cast<ssize_t>(sizeof *event + event->len);
            if ((event->mask & (kEndOfFolder | IN_IGNORED)) != 0) {
                // Gone or renamed away; it is made again from a call of its own, for this one holds
                // the descriptor.
                rewatch_ = loop_.after(milliseconds(0), [this] { watch_anew(); });
                return;
            }
            if ((event->mask & IN_Q_OVERFLOW) != 0)
                look();
            else if ((event->mask & IN_ISDIR) == 0 && event->len != 0)
                take_event(event->mask, event->name);
        }
    }
}

void Incoming::watch_anew() {
    log_warning("{} went away; it is made again", store_.incoming());
    try {
        store_.make_folders();
        pairs_.clear();
        strangers_.clear();
        watch();
        look();
    } catch (const CommandError& failure) {
        log_error("{}; it is tried again", failure.message);
        rewatch_ = loop_.after(kRetry, [this] { watch_anew(); });
    }
}

void Incoming::take_event(std::uint32_t mask, const std::string& file) {
    if (is_unfinished(file)) return;
    const std::optional<HalfName> half = half_of(file);
    const std::string path = store_.incoming() + "/" + file;
    const bool arrives = (mask & kArrivals) != 0;
    const bool goes = (mask & kDepartures) != 0;
    const bool odd = !goes && fs::exists(fs::symlink_status(path)) && !is_regular(path);
    const char* flaw = !half ? "it is named neither NAME.size.json nor NAME.data.json"
                       : file.size() > kLongestName ? "its name is longer than 200 bytes"
                       : odd                        ? "it is no regular file"
                                                    : nullptr;
    strangers_.erase(file);
    if (flaw != nullptr) {
        if (!arrives && !odd) return;
        log_warning("{} is left alone: {}", path, flaw);
        strangers_[file] = {file, std::time(nullptr), true, flaw};
        return;
    }
    if (arrives || is_linked(mask, path))
        arrive(half->pair, static_cast<Side>(half->side), mask);
    else if (is_begun(mask))
        begin(half->pair, static_cast<Side>(half->side));
    else
        leave(half->pair, static_cast<Side>(half->side));
}

// Its end, or its rename into place, is an event of its own.
void Incoming::begin(const std::string& name, Side side) {
    Half& half = pairs_[name].halves[side];
    if (half.since == 0) half.since = std::time(nullptr);
}

// A file that is closed once more is the same file, written to again; any other arrival is a new
// one. With both halves moved away, a file that lies there belongs to the next pair.
void Incoming::arrive(const std::string& name, Side side, std::uint32_t mask) {
    const std::string path = store_.incoming() + "/" + file_of(name, side);
    const bool there = is_regular(path);
    if (there && is_whole(name, pairs_[name])) commit(name);
    Pair& pair = pairs_[name];
    Half& half = pair.halves[side];
    const Identity identity = identity_of(there ? path : store_.claim_path(file_of(name, side)));
    const bool again = mask == IN_CLOSE_WRITE && half.arrivals > 0 && identity == half.identity;
    half.rewritten = half.rewritten || again;
    half.arrivals = mask == kFound ? 1 : half.arrivals + (again ? 0 : 1);
    half.identity = identity;
    half.since = std::time(nullptr);
    pair.last_change = Clock::now();
    pair.turn = ++turns_;
    pair.reported = false;
    look_again_in(name, kShortMoment);
}

// Both lie in the work folder, and neither was moved before its arrival was told: such a one is of
// the next pair.
bool Incoming::is_whole(const std::string& name, const Pair& pair) const {
    const auto is_told = [&](Side side) {
        const Half& half = pair.halves[side];
        return half.claimed && identity_of(store_.claim_path(file_of(name, side))) == half.identity;
    };
    return pair.halves[kSize].arrivals == pair.halves[kData].arrivals && is_told(kSize) &&
           is_told(kData);
}

// Our own moves come here too, and so does a producer that takes a file back.
void Incoming::leave(const std::string& name, Side side) {
    const auto found = pairs_.find(name);
    if (found == pairs_.end() || found->second.halves[side].claimed) return;
    if (is_regular(store_.incoming() + "/" + file_of(name, side))) return;
    found->second.halves[side] = {};
    if (found->second.halves[1 - side].since == 0) pairs_.erase(found);
}

void Incoming::look_again_in(const std::string& name, milliseconds delay) {
    pairs_[name].timer = loop_.after(delay, [this, name] { judge(name); });
}

// True when the half lies in the work folder, or was just put there.
bool Incoming::claim(const std::string& name, Pair& pair, Side side) {
    Half& half = pair.halves[side];
    const std::string file = file_of(name, side);
    const std::string path = store_.incoming() + "/" + file;
    const bool fresh = is_regular(path);
    half.open_for_writing = is_open_for_writing(fresh ? path : store_.claim_path(file));
    if (half.open_for_writing) return false;
    if (!fresh) return half.claimed;
    if (rename(path.c_str(), store_.claim_path(file).c_str()) != 0) {
        if (errno == ENOENT && is_regular(path)) store_.make_folders();
        if (errno != ENOENT) log_error("cannot take {}: {}", path, std::strerror(errno));
        return half.claimed;
    }
    pair.last_change = Clock::now();
    half.claimed = is_regular(store_.claim_path(file));
    if (half.claimed) return true;
    unlink(store_.claim_path(file).c_str());  // a link was put in its place meanwhile
    half = {};
    return false;
}

Incoming::Identity Incoming::identity_of(const std::string& path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &status) != 0)
        return {};
    return {status.stx_ino,
            status.stx_btime.tv_sec * std::int64_t{1'000'000'000} + status.stx_btime.tv_nsec};
}

void Incoming::judge(const std::string& name) {
    read_events();
    const auto found = pairs_.find(name);
    if (found == pairs_.end()) return;
    Pair& pair = found->second;
    const auto& [size, data] = pair.halves;
    // Otherwise the other half's arrival calls again.
    if (size.arrivals == 0 || size.arrivals != data.arrivals) return;
    const milliseconds moment = size.rewritten || data.rewritten ? kLongMoment : kShortMoment;
    const auto quiet = std::chrono::duration_cast<milliseconds>(Clock::now() - pair.last_change);
    if (quiet < moment) return look_again_in(name, moment - quiet);

    const Clock::time_point before = pair.last_change;
    const bool both = claim(name, pair, kSize) && claim(name, pair, kData);
    if (pair.last_change != before) return look_again_in(name, moment);
    if (!both) return look_again_in(name, kWriterMoment);
    commit(name);
}

void Incoming::commit(const std::string& name) {
    try {
        TakenPair taken = store_.commit(name);
        taken.turn = pairs_[name].turn;
        pairs_.erase(name);
        on_pair_(taken);
    } catch (const CommandError& failure) {
        log_error("{}; it is tried again", failure.message);
        look_again_in(name, kRetry);
    }
}

std::string Incoming::why_waiting(const std::string& name, const Pair& pair, Side side) const {
    if (pair.halves[side].open_for_writing) return "somebody has it open for writing";
    if (pair.halves[side].arrivals == 0) return "it has not been closed after writing";
    const Side other = side == kSize ? kData : kSize;
    const unsigned ours = pair.halves[side].arrivals;
    const unsigned others = pair.halves[other].arrivals;
    if (others == 0) return fmt::format("{} has not come", file_of(name, other));
    if (ours > others)
        return fmt::format("{} came {} times and {} {}: the last is the next pair's",
                           file_of(name, side), ours, file_of(name, other), others);
    if (ours < others)
        return fmt::format("{} has come again, and may be replaced", file_of(name, other));
    return "it is being looked at";
}

void Incoming::report_stale() {
    const std::time_t limit = std::time(nullptr) - static_cast<std::time_t>(stale_after_.count());
    for (auto& [name, pair] : pairs_) {
        for (const Side side : {kSize, kData}) {
            const Half& half = pair.halves[side];
            if (half.since == 0 || half.since > limit || pair.reported) continue;
            log_warning("{}/{} waits for {} seconds: {}", store_.incoming(), file_of(name, side),
                        stale_after_.count(), why_waiting(name, pair, side));
            pair.reported = true;
        }
    }
}

std::vector<WaitingFile> Incoming::waiting() const {
    const std::time_t limit = std::time(nullptr) - static_cast<std::time_t>(stale_after_.count());
    std::vector<WaitingFile> files;
    for (const auto& [name, pair] : pairs_) {
        for (const Side side : {kSize, kData}) {
            const Half& half = pair.halves[side];
            if (half.since == 0) continue;
            files.push_back({file_of(name, side), half.since, half.since <= limit,
                             why_waiting(name, pair, side)});
        }
    }
    for (const auto& [file, stranger] : strangers_) files.push_back(stranger);
    return files;
}

}  // namespace kvservice
