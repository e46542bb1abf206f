// kavrind: the command line, and the way into the background.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "config_file.h"
#include "failure.h"
#include "log.h"
#include "service.h"
#include "shared_objects.h"

namespace kvservice {
namespace {

using kvadmin::CommandError;
using kvadmin::ConfigFile;
using kvadmin::Descriptor;
using kvadmin::Exit;
using kvadmin::fail;

struct CommandLine {
    std::string config = kvadmin::kConfigPath;
    bool config_given = false;
    std::string metrics;
    bool foreground = false;
    bool check = false;
    bool teardown = false;
    bool force = false;
};

// The service leaves the folder that it was started in.
std::string absolute(const std::string& path) {
    return std::filesystem::absolute(path).lexically_normal();
}

ConfigFile read_config(const CommandLine& line) {
    ConfigFile file = kvadmin::read_config_file(line.config);
    if (!file.exists && line.config_given) fail(Exit::kFailure, "there is no {}", line.config);
    return file;
}

// Each problem a line; then the verdict.
Exit check(const CommandLine& line) {
    const ConfigFile file = read_config(line);
    for (const kvadmin::ConfigProblem& problem : file.problems)
        fmt::print(stderr, "{}\n", line_for(file, problem));
    if (!file.problems.empty())
        fail(Exit::kInvalidInput, "{} has {} problem{}; nothing was changed", file.path,
             file.problems.size(), file.problems.size() == 1 ? "" : "s");
    fmt::print("{}: {}\n", file.path,
               file.exists ? "no problem" : "not there; every default is in force");
    return Exit::kDone;
}

Exit teardown(const CommandLine& line) {
    kvadmin::require_root("kavrind --teardown");
    const InstanceLock lock;
    tear_down(line.force);
    return Exit::kDone;
}

void tell_parent(int pipe, char code) {
    if (pipe >= 0 && write(pipe, &code, 1) != 1) log_warning("nobody waits for the start");
}

// The service goes on in a process of its own session once it is ready; the one that was started
// waits until then and ends as the start did.
int detach() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        fail(Exit::kFailure, "cannot make a pipe: {}", std::strerror(errno));
    const pid_t child = fork();
    if (child < 0) fail(Exit::kFailure, "cannot start a process: {}", std::strerror(errno));
    if (child == 0) {
        close(ends[0]);
        setsid();
        return ends[1];
    }
    close(ends[1]);
    char code = 0;
    ssize_t got = 0;
    while ((got = read(ends[0], &code, 1)) < 0 && errno == EINTR) {
    }
    if (got == 1) _exit(code);
    int status = 0;
    waitpid(child, &status, 0);
    _exit(WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1);
}

void leave_terminal() {
    log_to_syslog();
    const Descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (null.valid()) dup2(null.get(), standard);
    if (chdir("/") != 0) log_warning("cannot go to /: {}", std::strerror(errno));
}

Exit serve(const CommandLine& line) {
    kvadmin::require_root("kavrind");
    ConfigFile file = read_config(line);
    if (!file.problems.empty()) return check(line);
    const int parent = line.foreground ? -1 : detach();
    ServiceOptions options{line.config, line.metrics, {}};
    options.on_ready = [&line, parent] {
        if (line.foreground) return;
        leave_terminal();
        tell_parent(parent, 0);
        close(parent);
    };
    Service service(std::move(options), std::move(file));
    return service.run() ? Exit::kDone : Exit::kFailure;
}

Exit run(int argc, const char* const* argv) {
    CommandLine line;
    CLI::App app{"kavrind: keeps the permission map of a kavrin share, and what smbd needs with it",
                 "kavrind"};
    app.set_version_flag("--version", "kavrind " KAVRIN_VERSION);
    CLI::Option* config = app.add_option("--config", line.config, "Read this configuration")
                              ->type_name("FILE")
                              ->capture_default_str();
    app.add_flag("--foreground", line.foreground, "Stay attached, log to standard error");
    app.add_option("--metrics", line.metrics, "Write counters for Prometheus into this file")
        ->type_name("FILE");
    CLI::Option* checks =
        app.add_flag("--check", line.check, "Tell every problem of the configuration, and end");
    CLI::Option* tears =
        app.add_flag("--teardown", line.teardown, "Remove all shared objects, and end");
    tears->excludes(checks);
    app.add_flag("--force", line.force, "With --teardown: also while they are in use")
        ->needs(tears);
    app.footer("\nExit codes: 0 ended well, 1 failure, 3 configuration wrong, 64 usage.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            app.exit(error);
            return Exit::kDone;
        }
        fail(Exit::kUsage, "{}; see 'kavrind --help'", error.what());
    }
    line.config_given = config->count() > 0;
    line.config = absolute(line.config);
    if (!line.metrics.empty()) line.metrics = absolute(line.metrics);
    if (line.check) return check(line);
    if (line.teardown) return teardown(line);
    return serve(line);
}

}  // namespace
}  // namespace kvservice

int main(int argc, char** argv) {
    kvadmin::program_name = "kavrind";
    signal(SIGPIPE, SIG_IGN);  // who started us may be gone before we are ready
    try {
        return static_cast<int>(kvservice::run(argc, argv));
    } catch (const kvadmin::CommandError& error) {
        kvservice::log_error("{}", error.message);
        return static_cast<int>(error.code);
    } catch (const std::exception& error) {
        kvservice::log_error("unexpected failure: {}", error.what());
        return static_cast<int>(kvadmin::Exit::kFailure);
    }
}
