// See worker.h. Answer and output go through anonymous files: nobody has to read while the process
// runs, and nothing is lost when it is killed.
#include "worker.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kavrin_utils.h"

namespace kvservice {
namespace {

using kvadmin::CommandError;
using kvadmin::Descriptor;
using kvadmin::Exit;
using kvadmin::fail;

constexpr std::size_t kMostOutput = 64 * 1024;
constexpr std::size_t kMostAnswer = 256 * 1024 * 1024;

Descriptor anonymous_file(const char* name) {
    Descriptor file(memfd_create(name, MFD_CLOEXEC));
    if (!file.valid()) fail(Exit::kFailure, "cannot make a memory file: {}", std::strerror(errno));
    return file;
}

std::string content_of(int file, std::size_t limit) {
    struct stat st {};
    if (fstat(file, &st) != 0) return {};
    std::string text(std::min<std::size_t>(static_cast<std::size_t>(st.st_size), limit), '\0');
    const ssize_t got = pread(file, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

Json answer_of(const Worker::Work& work) {
    try {
        return {{"value", work()}};
    } catch (const CommandError& error) {
        return {
            {"code", static_cast<int>(error.code)}, {"error", error.message}, {"busy", error.busy}};
    } catch (const std::exception& error) {
        return {{"code", static_cast<int>(Exit::kFailure)}, {"error", error.what()}};
    }
}

[[noreturn]] void be_the_process(const Worker::Work& work, pid_t parent, int answer, int output) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(1);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null < 0 || dup2(null, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
        dup2(output, STDERR_FILENO) < 0)
        _exit(1);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const std::string text = answer_of(work).dump(-1, ' ', false, Json::error_handler_t::replace);
    std::fflush(nullptr);
    _exit(write_all(answer, text.data(), text.size()) > 0 ? 0 : 1);
}

std::string death_of(const std::string& what, const siginfo_t& info) {
    if (info.si_code == CLD_EXITED)
        return fmt::format("{} ended with status {}", what, info.si_status);
    return fmt::format("{} was ended by signal {} ({})", what, info.si_status,
                       strsignal(info.si_status));
}

}  // namespace

Worker::Worker(EventLoop& loop, std::string what, const Work& work, End on_end)
    : what_(std::move(what)),
      on_end_(std::move(on_end)),
      answer_(anonymous_file("kavrind-answer")),
      output_(anonymous_file("kavrind-output")) {
    std::fflush(nullptr);
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ < 0) fail(Exit::kFailure, "cannot start a process: {}", std::strerror(errno));
    if (process_ == 0) be_the_process(work, parent, answer_.get(), output_.get());
    try {
        source_ = loop.on_exit_of(process_, [this](const siginfo_t& info) { take_end(info); });
    } catch (...) {
        end_at_once();  // nobody would hear of its end
        throw;
    }
}

Worker::~Worker() {
    source_.reset();
    if (!ended_) end_at_once();
}

void Worker::end_at_once() const {
    kill(process_, SIGKILL);
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void Worker::interrupt() const {
    if (!ended_) kill(process_, SIGTERM);
}

// The last thing here is the call: it may end this object.
void Worker::take_end(const siginfo_t& info) {
    ended_ = true;
    const WorkResult result = result_of(info);
    const End on_end = std::move(on_end_);
    on_end(result);
}

WorkResult Worker::result_of(const siginfo_t& info) const {
    WorkResult result;
    result.output = content_of(output_.get(), kMostOutput);
    const Json answer = Json::parse(content_of(answer_.get(), kMostAnswer), nullptr, false);
    if (!answer.is_object()) {
        result.died = true;
        result.error = death_of(what_, info);
    } else if (answer.contains("value")) {
        result.done = true;
        result.code = Exit::kDone;
        result.value = answer["value"];
    } else {
        result.code = static_cast<Exit>(answer.value("code", 1));
        result.error = answer.value("error", "");
        result.busy = answer.value("busy", false);
    }
    return result;
}

}  // namespace kvservice
