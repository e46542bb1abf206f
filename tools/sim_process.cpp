// See sim_process.h.
#include "sim_process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "build_child.h"
#include "failure.h"
#include "sim_connection.h"

namespace kvadmin {
namespace {

constexpr int kChannel = 3;   // in the process
constexpr int kNothing = -1;  // a message that is no statement: only to be answered
constexpr std::size_t kLongestAnswer = 1 << 17;

kv_connection_private_data_t* served = nullptr;

void on_signal(int number) {
    const int error = errno;
    if (served != nullptr) flush_perms_handler(number, served);
    errno = error;
}

// All ids of the process as text.
std::string who_am_i() {
    uid_t uids[3] = {};
    gid_t gids[3] = {};
    std::vector<gid_t> groups(65'536);
    getresuid(&uids[0], &uids[1], &uids[2]);
    getresgid(&gids[0], &gids[1], &gids[2]);
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    std::sort(groups.begin(), groups.end());
    std::string text = fmt::format("uids {} {} {}, gids {} {} {}, groups", uids[0], uids[1],
                                   uids[2], gids[0], gids[1], gids[2]);
    for (const gid_t group : groups) text += fmt::format(" {}", group);
    return text;
}

void become(const SimCaller& caller) {
    if (setgroups(caller.groups.size(), caller.groups.data()) == 0 &&
        setresgid(caller.gid, caller.gid, caller.gid) == 0 && setresuid(0, caller.uid, 0) == 0)
        return;
    std::perror("cannot take the user's identity");
    _exit(1);
}

void send_answer(const SimOutcome& outcome) {
    const std::string text =
        to_json(outcome).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (send(kChannel, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        _exit(1);
}

// The next message; false when there will be none.
bool receive(int& statement) {
    for (;;) {
        const ssize_t got = recv(kChannel, &statement, sizeof statement, 0);
        if (got == static_cast<ssize_t>(sizeof statement)) return true;
        if (got >= 0 || errno != EINTR) return false;
    }
}

void serve(SimConnection& connection, const SimScript& script) {
    const std::string identity = who_am_i();
    const auto checked = [&identity](SimOutcome outcome) {
        if (const std::string now = who_am_i(); now != identity)
            outcome.identity = fmt::format("{}; was {}", now, identity);
        return outcome;
    };
    const SimOutcome connected = connection.connect();
    send_answer(checked(connected));
    if (connected.verdict == SimOutcome::Verdict::kRefused) return;
    served = connection.record();
    for (int number = 0; receive(number);) {
        if (number == kNothing) {
            send_answer(checked({}));
            continue;
        }
        const SimStatement& statement = script.statements[static_cast<std::size_t>(number)];
        send_answer(checked(connection.perform(statement)));
        if (statement.kind == SimKind::kDisconnect) break;
    }
    served = nullptr;
}

[[noreturn]] void be_the_process(const SimCaller& caller, const std::string& share,
                                 const SimScript& script, bool audit, int channel, int errors) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    // Nothing of the other processes stays open: each ends when the tool does.
    if (null < 0 || dup2(null, STDIN_FILENO) < 0 || dup2(null, STDOUT_FILENO) < 0 ||
        dup2(errors, STDERR_FILENO) < 0 || (channel != kChannel && dup2(channel, kChannel) < 0) ||
        close_range(kChannel + 1, ~0U, 0) != 0)
        _exit(1);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigaction(SIGUSR1, &action, nullptr);
    become(caller);
    {
        SimConnection connection(caller.name, share, audit);
        serve(connection, script);
    }
    _exit(0);
}

std::string text_of(int file) {
    std::string text(static_cast<std::size_t>(std::max<off_t>(lseek(file, 0, SEEK_END), 0)), '\0');
    const ssize_t got = pread(file, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

// "Assertion `0' failed", or the end of what the process said.
std::string reason(const std::string& errors) {
    const std::size_t begin = errors.rfind("Assertion `");
    if (begin == std::string::npos) return last_words(errors);
    const std::size_t end = std::min(errors.find("' failed", begin), errors.size());
    return errors.substr(begin, end - begin) + "' failed";
}

}  // namespace

SimProcess::SimProcess(const SimCaller& caller, const std::string& share, const SimScript& script,
                       bool audit)
    : errors_(memfd_create("standard error", MFD_CLOEXEC)) {
    int ends[2];
    if (!errors_.valid() || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        fail(Exit::kFailure, "cannot make a channel to a process: {}", std::strerror(errno));
    channel_ = Descriptor(ends[0]);
    const Descriptor other(ends[1]);
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) fail(Exit::kFailure, "cannot start a process: {}", std::strerror(errno));
    if (pid_ == 0) be_the_process(caller, share, script, audit, other.get(), errors_.get());
    alive_ = true;
}

SimProcess::~SimProcess() {
    if (!alive_) return;
    channel_.reset();  // which ends it
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

SimOutcome SimProcess::connected() {
    return answer();
}

SimOutcome SimProcess::perform(std::size_t statement) {
    return ask(static_cast<int>(statement));
}

SimOutcome SimProcess::signal() {
    if (kill(pid_, SIGUSR1) != 0)
        fail(Exit::kFailure, "cannot signal the process: {}", std::strerror(errno));
    return ask(kNothing);
}

SimOutcome SimProcess::ask(int statement) {
    if (send(channel_.get(), &statement, sizeof statement, MSG_NOSIGNAL) < 0) return ended();
    return answer();
}

SimOutcome SimProcess::answer() {
    std::string text(kLongestAnswer, '\0');
    ssize_t got = 0;
    do got = recv(channel_.get(), text.data(), text.size(), 0);
    while (got < 0 && errno == EINTR);
    if (got <= 0) return ended();
    text.resize(static_cast<std::size_t>(got));
    return outcome_from_json(nlohmann::json::parse(text));
}

SimOutcome SimProcess::ended() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    alive_ = false;
    const std::string errors = text_of(errors_.get());
    SimOutcome outcome;
    outcome.verdict = SimOutcome::Verdict::kEnded;
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) {
        outcome.lines.push_back("the process ended: " + reason(errors));
    } else if (WIFSIGNALED(status)) {
        outcome.lines.push_back(fmt::format("the process ended by signal {}: {}", WTERMSIG(status),
                                            last_words(errors)));
    } else {
        outcome.lines.push_back(fmt::format("the process ended with status {}: {}",
                                            WEXITSTATUS(status), last_words(errors)));
    }
    return outcome;
}

}  // namespace kvadmin
