// See build_child.h.
#include "build_child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string_view>

#include "failure.h"
#include "kavrin.h"

namespace kvadmin {
namespace {

constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr std::size_t kKeptErrorText = 65'536;

// What the child was at when it ended, in memory that outlives it.
enum class Stage : int { kStart, kSize, kCompareSize, kCreate, kFill, kDone };
struct ChildNotes {
    Stage stage = Stage::kStart;
    int code = 0;   // result of the call that failed
    int error = 0;  // its errno
    std::uint32_t size = 0;
};

class SharedNotes {
public:
    SharedNotes() {
        void* memory = mmap(nullptr, sizeof(ChildNotes), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) fail(Exit::kFailure, "out of memory");
        notes_ = new (memory) ChildNotes;
    }
    ~SharedNotes() { munmap(notes_, sizeof(ChildNotes)); }
    SharedNotes(const SharedNotes&) = delete;
    SharedNotes& operator=(const SharedNotes&) = delete;
    ChildNotes& operator*() const { return *notes_; }

private:
    ChildNotes* notes_;
};

sigset_t ending_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : kEndingSignals) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            sigaddset(&set, number);
    }
    return set;
}

// Private writable memory of this process now. Limits are set on top of it: a sanitizer's shadow
// alone is larger than any sensible limit.
std::uint64_t data_size_now() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmData:"))
            return std::strtoull(line.c_str() + sizeof "VmData:" - 1, nullptr, 10) * 1024;
    }
    return 0;
}

// RLIMIT_DATA and not RLIMIT_AS: the segment is not counted by it, however large the image is.
bool limit_child(const BuildLimits& limits) {
    const rlimit no_core{0, 0};
    if (setrlimit(RLIMIT_CORE, &no_core) != 0) return false;
    if (limits.memory_mib == 0) return true;
    const rlim_t bytes = data_size_now() + (limits.memory_mib << 20);
    const rlimit data{bytes, bytes};
    return setrlimit(RLIMIT_DATA, &data) == 0;
}

bool redirect_child(int error_pipe) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    return null >= 0 && dup2(null, STDIN_FILENO) >= 0 && dup2(null, STDOUT_FILENO) >= 0 &&
           dup2(error_pipe, STDERR_FILENO) >= 0;
}

// The documented calls, in their order. Returns the stage that failed or kDone.
void call_library(const ChildJob& job, ChildNotes& notes) {
    const auto observe = [&job](BuildStep step) {
        if (job.on_step) job.on_step(step);
    };
    const bool persisted = job.data_path.empty();
    std::string size_path = job.size_path;
    std::string data_path = job.data_path;
    memsummary_t* summary = nullptr;
    notes.stage = Stage::kSize;
    if (persisted) summary = static_cast<memsummary_t*>(std::calloc(1, sizeof(memsummary_t)));
    notes.code = get_permbe_shmsize(persisted ? nullptr : size_path.data(),
                                    persisted ? nullptr : data_path.data(), &summary);
    notes.error = errno;
    if (notes.code != SHM_MEMBE_OK || summary == nullptr) return;
    notes.stage = Stage::kCompareSize;
    notes.size = summary->memsize;
    if (notes.size != job.expected_size) return;
    observe(BuildStep::kSized);

    notes.stage = Stage::kCreate;
    int segment = -1;
    summary->membuf = create_perm_map_shm(job.key, summary->memsize, &segment);
    notes.error = errno;
    if (summary->membuf == nullptr) return;
    observe(BuildStep::kCreated);

    notes.stage = Stage::kFill;
    notes.code = init_permbe_shm(summary);
    notes.error = errno;
    if (notes.code != SHM_MEMBE_OK) return;
    notes.stage = Stage::kDone;
    observe(BuildStep::kFilled);
}

// The parent's lock stays open in here: no other build starts while this one can still write.
[[noreturn]] void be_the_child(const ChildJob& job, const sigset_t& mask, pid_t parent,
                               int error_pipe, ChildNotes& notes) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(1);
    if (!redirect_child(error_pipe)) _exit(1);
    if (!limit_child(job.limits)) {
        std::perror("cannot set the limits of the build");
        _exit(1);
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    call_library(job, notes);
    std::fflush(nullptr);
    _exit(notes.stage == Stage::kDone ? 0 : 1);
}

std::string_view text_of(int code) {
    switch (code) {
        case SHM_MEMBE_ERR_NOMEM:
            return "out of memory";
        case SHM_MEMBE_ERR_NOPERM_SIZE_FILE:
            return "the size file is missing";
        case SHM_MEMBE_ERR_NOPERM_FILE:
            return "the data file is missing";
        case SHM_MEMBE_ERR_NOCACHE_FILE:
            return "there is no persisted map";
        case SHM_MEMBE_ERR_PERMMAP_WRERR:
            return "the persisted map cannot be written; is the disk of /etc/kavrin full?";
        case SHM_MEMBE_ERR_PERMMAP_RDERR:
            return "the persisted map cannot be read";
        case SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL:
            return "the persisted map grew while it was loaded";
        case SHM_MEMBE_ERR_BADARGS:
            return "an input file cannot be used";
        default:
            return "unexpected result";
    }
}

std::string_view doing(Stage stage) {
    switch (stage) {
        case Stage::kStart:
            return "starting";
        case Stage::kSize:
        case Stage::kCompareSize:
            return "sizing the image";
        case Stage::kCreate:
            return "creating the segment";
        case Stage::kFill:
        case Stage::kDone:
            break;
    }
    return "filling the image";
}

std::string refusal(const ChildNotes& notes, const ChildJob& job) {
    switch (notes.stage) {
        case Stage::kStart:
            return "the child process could not start the build";
        case Stage::kCompareSize:
            return fmt::format("the library sizes the image at {} bytes where {} are expected",
                               notes.size, job.expected_size);
        case Stage::kCreate:
            return fmt::format(
                "cannot create a shared-memory segment of {} bytes: {}; see 'ipcs -lm' for this "
                "machine's limits",
                notes.size, std::strerror(notes.error));
        default:
            return fmt::format("{} failed: {} (result {})", doing(notes.stage), text_of(notes.code),
                               notes.code);
    }
}

std::string death(int status, const ChildNotes& notes) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT)
        return fmt::format("the library stopped while {}", doing(notes.stage));
    if (WIFSIGNALED(status))
        return fmt::format("the build was ended by signal {} ({}) while {}", WTERMSIG(status),
                           strsignal(WTERMSIG(status)), doing(notes.stage));
    return fmt::format("the build ended with status {} while {}", WEXITSTATUS(status),
                       doing(notes.stage));
}

void keep_end(std::string& text, const char* more, std::size_t size) {
    text.append(more, size);
    if (text.size() > 2 * kKeptErrorText) text.erase(0, text.size() - kKeptErrorText);
}

enum class End { kItself, kTimeOut, kInterrupted };

// Collects standard error until the child closes it by ending, the time is up, or we are to end.
End watch(int error_pipe, const ChildJob& job, const Interruptions& interruptions,
          std::string& error_text) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(job.limits.seconds);
    for (;;) {
        int wait = -1;
        if (job.limits.seconds != 0) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) return End::kTimeOut;
            wait = static_cast<int>(std::min<std::int64_t>(left.count(), 3'600'000));
        }
        std::array<pollfd, 2> watched{
            {{error_pipe, POLLIN, 0}, {interruptions.descriptor(), POLLIN, 0}}};
        if (poll(watched.data(), watched.size(), wait) < 0) continue;
        if (watched[1].revents != 0) return End::kInterrupted;
        if (watched[0].revents == 0) continue;
        char buffer[4096];
        const ssize_t got = read(error_pipe, buffer, sizeof buffer);
        if (got > 0) keep_end(error_text, buffer, static_cast<std::size_t>(got));
        if (got == 0) return End::kItself;
    }
}

int reap(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Judges how the child ended; everything but success is thrown.
void judge(End end, int status, const ChildNotes& notes, const ChildJob& job,
           const std::string& error_text) {
    if (end == End::kInterrupted) fail(Exit::kFailure, "interrupted; nothing was published");
    if (end == End::kTimeOut)
        fail(Exit::kFailure,
             "the build took longer than {} seconds and was ended; --time-limit allows more",
             job.limits.seconds);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && notes.stage == Stage::kDone) return;
    const bool refused = WIFEXITED(status) && WEXITSTATUS(status) == 1 && error_text.empty();
    const bool told = WIFEXITED(status) && WEXITSTATUS(status) == 1;
    std::string what = told ? refusal(notes, job) : death(status, notes);
    if (!refused) what += ": " + last_words(error_text);
    fail(Exit::kFailure, "{}; nothing was published", what);
}

}  // namespace

Interruptions::Interruptions() {
    const sigset_t set = ending_signals();
    sigprocmask(SIG_BLOCK, &set, &before_);
    descriptor_ = Descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (descriptor_.valid()) return;
    sigprocmask(SIG_SETMASK, &before_, nullptr);
    fail(Exit::kFailure, "cannot watch for signals: {}", std::strerror(errno));
}

Interruptions::~Interruptions() {
    signalfd_siginfo taken;
    while (read(descriptor_.get(), &taken, sizeof taken) > 0) {
    }
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

bool Interruptions::waiting() const {
    pollfd watched{descriptor_.get(), POLLIN, 0};
    return poll(&watched, 1, 0) > 0;
}

std::string last_words(const std::string& text, std::size_t limit) {
    std::string line;
    for (const char c : text) {
        const bool blank = c == '\n' || c == '\t' || c == '\r' || c == ' ';
        if (blank && (line.empty() || line.back() == ' ')) continue;
        line += blank ? ' ' : (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
    }
    if (line.ends_with(' ')) line.pop_back();
    if (line.empty()) return "it left no message";
    if (line.size() > limit) line = "..." + line.substr(line.size() - limit);
    return line;
}

ChildOutput run_build_child(const ChildJob& job, const Interruptions& interruptions) {
    const SharedNotes notes;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        fail(Exit::kFailure, "cannot make a pipe: {}", std::strerror(errno));
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) fail(Exit::kFailure, "cannot start a process: {}", std::strerror(errno));
    if (child == 0) be_the_child(job, interruptions.mask_before(), parent, writing.get(), *notes);
    writing.reset();

    ChildOutput output;
    const End end = watch(reading.get(), job, interruptions, output.error_text);
    if (end != End::kItself) kill(child, SIGKILL);
    const int status = reap(child);
    judge(end, status, *notes, job, output.error_text);
    return output;
}

}  // namespace kvadmin
