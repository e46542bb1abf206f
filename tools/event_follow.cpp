// See event_follow.h.
#include "event_follow.h"

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "utf8.h"

namespace kvadmin {
namespace {

// Files come by a rename, or by a second link where the file system knows no safe rename. Those
// that somebody copies into the folder grow under their final name.
constexpr std::uint32_t kAppearing = IN_MOVED_TO | IN_CREATE | IN_CLOSE_WRITE;
constexpr std::uint32_t kVanishing = IN_MOVED_FROM | IN_DELETE;
constexpr std::uint32_t kFolderGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

}  // namespace

EndSignals::EndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, &previous_);
    arrived_ = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!arrived_.valid()) fail(Exit::kFailure, "cannot wait for signals: {}", strerror(errno));
}

EndSignals::~EndSignals() {
    signalfd_siginfo taken;
    while (read(arrived_.get(), &taken, sizeof taken) > 0) continue;
    sigprocmask(SIG_SETMASK, &previous_, nullptr);
}

PendingFollower::PendingFollower(std::string folder, RecordInput& input)
    : folder_(std::move(folder)), input_(input), watch_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    // By path and without an open descriptor, which would keep a removed folder from being told of.
    if (!watch_.valid() ||
        inotify_add_watch(watch_.get(), folder_.c_str(),
                          kAppearing | kVanishing | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR) < 0)
        fail(Exit::kFailure, "cannot watch the folder {}: {}", printable(folder_), strerror(errno));
}

void PendingFollower::pass(const std::string& name) {
    struct stat status;
    if (stat(path_of(name).c_str(), &status) != 0) return;
    const auto size = static_cast<std::uint64_t>(status.st_size);
    places_[name] = {status.st_dev, status.st_ino, size, size, false};
}

void PendingFollower::read(const std::string& name, bool complete, const Use& use) {
    const RecordPath file{path_of(name), true};
    const Descriptor descriptor = input_.open(file);
    struct stat status;
    if (!descriptor.valid() || fstat(descriptor.get(), &status) != 0) return;
    const auto size = static_cast<std::uint64_t>(status.st_size);
    Place& place = places_[name];
    if (place.device != status.st_dev || place.inode != status.st_ino)
        place = {status.st_dev, status.st_ino, 0, 0, false};
    if (size == place.size && !(place.unfinished && complete)) return;

    const RecordWalk walk = walk_records<VFSEvent>(descriptor.get(), place.offset, use);
    std::fflush(stdout);
    const bool cut_off = walk.damage && walk.damage->kind == RecordDamage::Kind::kCutOff;
    place.size = size;
    place.offset = walk.whole() || cut_off ? walk.end : size;
    place.unfinished = cut_off && !complete;
    if (!place.unfinished) input_.tell(file.path, walk);
}

void PendingFollower::forget_if_gone(const std::string& name) {
    struct stat status;
    if (lstat(path_of(name).c_str(), &status) != 0) places_.erase(name);
}

void PendingFollower::list_again(const Use& use) {
    const std::vector<std::string> names = pending_names(folder_);
    std::unordered_map<std::string, Place> present;
    for (const std::string& name : names)
        if (const auto place = places_.find(name); place != places_.end())
            present.insert(places_.extract(place));
    places_ = std::move(present);
    for (const std::string& name : names) read(name, use);
}

void PendingFollower::take_event(std::uint32_t what, const std::string& name, const Use& use) {
    if ((what & IN_Q_OVERFLOW) != 0) {
        list_again(use);
    } else if ((what & kFolderGone) != 0) {
        std::fflush(stdout);
        fail(Exit::kFailure, "the folder {} is gone: it was {}", printable(folder_),
             (what & IN_MOVE_SELF) != 0 ? "moved away" : "removed");
    } else if (!name.starts_with(kPendingPrefix)) {
        return;
    } else if ((what & kAppearing) != 0) {
        read(name, (what & IN_CREATE) == 0, use);
    } else if ((what & kVanishing) != 0) {
        forget_if_gone(name);
    }
}

void PendingFollower::take_events(const Use& use) {
    alignas(inotify_event) char buffer[64 << 10];
    const ssize_t size = ::read(watch_.get(), buffer, sizeof buffer);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0) fail(Exit::kFailure, "cannot read the watch: {}", strerror(errno));
    for (ssize_t at = 0; at < size;) {
        inotify_event event;
        std::memcpy(&event, buffer + at, sizeof event);
        const char* const name = buffer + at + sizeof event;
        take_event(event.mask, event.len == 0 ? "" : std::string(name, strnlen(name, event.len)),
                   use);
        at += static_cast<ssize_t>(sizeof event + event.len);
    }
}

void PendingFollower::follow(const Use& use) {
    for (;;) {
        pollfd waiting[] = {
            {signals_.descriptor(), POLLIN, 0}, {watch_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        if (poll(waiting, std::size(waiting), -1) < 0 && errno != EINTR)
            fail(Exit::kFailure, "cannot wait for events: {}", strerror(errno));
        if (waiting[0].revents != 0 || (waiting[2].revents & (POLLERR | POLLHUP)) != 0) break;
        if (waiting[1].revents != 0) take_events(use);
    }
    // What a file lacked while it was being written it lacks for good now.
    std::vector<std::string> unfinished;
    for (const auto& [name, place] : places_)
        if (place.unfinished) unfinished.push_back(name);
    for (const std::string& name : unfinished) read(name, use);
}

}  // namespace kvadmin
