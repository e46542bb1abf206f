// The real service in the sandbox: started, asked over its socket, given pairs, ended or killed,
// and what readers of the map get meanwhile.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support.h"

namespace kvtest {

using Json = nlohmann::json;

inline const std::string kIncoming = "/var/lib/kavrin/incoming";
inline const std::string kWork = kIncoming + "/.work";
inline const std::string kQuarantine = kIncoming + "/quarantine";
inline const std::string kConfig = "/etc/kavrin/kavrin.conf";
inline const std::string kSocket = "/run/kavrin/kavrind.sock";
inline const std::string kPersisted = "/etc/kavrin/.permbe_map";
inline const std::string kMarker = "/etc/kavrin/permission_refresh";

// True as soon as `holds` does, false when it never did in that time.
bool within(std::chrono::milliseconds time, const std::function<bool()>& holds);

// A pair of that generation: a tree of folders with files, whose own sizes depend on the
// generation, and an ACL on every folder that names the generation as a user, so that a mixed map
// shows.
Pair pair_of_generation(unsigned generation, std::size_t folders = 3, std::size_t files = 4);

// Names in a folder, sorted; none when it is missing.
std::vector<std::string> names_in(const std::string& folder);

// A running service. Ends it (SIGKILL) with the object.
class RunningService {
public:
    // `before_exec` runs in the new process: environment, limits.
    explicit RunningService(std::vector<std::string> options = {},
                            const std::function<void()>& before_exec = {});
    ~RunningService();
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    pid_t pid() const { return pid_; }
    // Waits until it answers and has made its start; false when it ended or took too long.
    bool ready(std::chrono::milliseconds time = std::chrono::seconds(20));
    bool running();
    void kill_it();      // SIGKILL, and waits
    int end();           // SIGTERM, waits; the exit status, or minus the signal
    int wait_for_end();  // the same without a signal
    void signal(int number) const;
    std::string log() const;  // its standard error so far
    bool logs(const std::string& part,
              std::chrono::milliseconds time = std::chrono::seconds(10)) const;

private:
    pid_t pid_ = -1;
    bool ended_ = false;
    int status_ = 0;
    std::string log_path_;
};

// Runs the program to its end: --check, --teardown, a second instance.
struct ProgramResult {
    int exit_code = -1;
    std::string out;
    std::string err;
};
ProgramResult run_service(const std::vector<std::string>& options);
ProgramResult run_kavrinctl(const std::vector<std::string>& arguments);

// One request, its answer; an empty object when there was none.
Json ask(const Json& request, const std::string& socket = kSocket);
Json ask_raw(const std::string& text, const std::string& socket = kSocket);
Json status_now();  // the "result" of a status request

class ServiceTest : public testing::Test {
protected:
    // Puts both files into the incoming folder, each by a rename.
    static void deliver(const Pair& pair, const std::string& name = "");
    static void deliver_file(const std::string& file, const std::string& content);
    // The generation that readers get, or -1 without a map. A map that is there is sound and whole:
    // every folder's ACL names its generation.
    static long served_generation();
    static bool serves(long generation, std::chrono::milliseconds time = std::chrono::seconds(20));
    // Nothing of a build is left: no segment under the other key, no copy of the persisted map, an
    // empty work folder.
    static void expect_nothing_left();
    // As after a boot: no System V objects, /run empty; files stay.
    static void restart_machine();
    static int segment_of(int table);

    ConfigTable config{-1};
};

}  // namespace kvtest
