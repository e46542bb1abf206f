// See child_output.h.
#include "child_output.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "descriptor.h"

namespace kvadmin {
namespace {

using Clock = std::chrono::steady_clock;

// Reads until the writer is gone; false when the time is up.
bool read_all(int fd, Clock::time_point end, std::string& text) {
    char block[8192];
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0) return false;
        pollfd waiting{fd, POLLIN, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) return false;
        if (ready <= 0) continue;
        const ssize_t got = read(fd, block, sizeof block);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got == 0;
        text.append(block, static_cast<std::size_t>(got));
    }
}

// In the child: standard output goes into the pipe, all else nowhere.
void redirect(int output) {
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(nowhere, STDIN_FILENO);
    dup2(nowhere, STDERR_FILENO);
    dup2(output, STDOUT_FILENO);
}

template <typename Body>
ProgramOutput run_child(std::chrono::seconds limit, const Body& body) {
    ProgramOutput output;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return output;
    const Descriptor reader(ends[0]);
    Descriptor writer(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        redirect(writer.get());
        _exit(body());
    }
    writer.reset();
    if (child < 0) return output;
    const bool whole = read_all(reader.get(), Clock::now() + limit, output.text);
    if (!whole) kill(child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    output.done = whole && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return output;
}

}  // namespace

ProgramOutput run_program(const std::vector<std::string>& arguments, std::chrono::seconds limit) {
    std::vector<char*> words;
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    return run_child(limit, [&words] {
        execv(words[0], words.data());
        return 127;
    });
}

ProgramOutput run_apart(const std::function<std::string()>& body, std::chrono::seconds limit) {
    return run_child(limit, [&body] {
        const std::string text = body();
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t written = write(STDOUT_FILENO, text.data() + done, text.size() - done);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return 1;
            done += static_cast<std::size_t>(written);
        }
        return 0;
    });
}

}  // namespace kvadmin
