// What every test stands on: a private configuration table, captured syslog traces, driven child
// processes with real identities, and images built from JSON texts through the public calls.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kavrin.h"

namespace kvtest {

// One captured syslog call, split at the prefix "%s:%d(%s) ".
struct LogLine {
    int priority = 0;
    std::string text;      // all of it
    std::string file;      // prefix: source file,
    int line = 0;          // line,
    std::string function;  // function
    std::string message;   // what follows the prefix, to the letter
};

// Every syslog call of this process since the last clear_log(). The test binaries define syslog()
// themselves, so nothing reaches the system's log.
const std::vector<LogLine>& log_lines();
void clear_log();
// How many captured messages (without prefix) are equal to `message` / contain `part`.
int logged(std::string_view message);
int logged_part(std::string_view part);

// Installs a zeroed private table as global_params with that debug level, for the life of the
// object; restores what was there before.
class ConfigTable {
public:
    explicit ConfigTable(int debug_level = 0);
    ~ConfigTable();
    ConfigTable(const ConfigTable&) = delete;
    ConfigTable& operator=(const ConfigTable&) = delete;
    void set_debug_level(int level);
    void set_string(int slot, std::string_view value);
    void set_int(int slot, int value);

private:
    global_param_t* previous_;
};

// What became of a child process.
struct ChildResult {
    bool exited = false;
    int exit_code = -1;
    int signal = 0;   // 6 (SIGABRT) after an assertion
    std::string out;  // its standard output
    std::string err;  // its standard error
    std::vector<LogLine> log;
    bool aborted() const { return signal == 6; }
    // True when it aborted and its standard error holds this assertion text.
    bool asserted(std::string_view expression) const;
    int logged(std::string_view message) const;
    int logged_part(std::string_view part) const;
};

// Runs `body` in a forked child; the child exits with body's result (0 for the void form).
ChildResult run_child(const std::function<int()>& body);
ChildResult run_child_void(const std::function<void()>& body);

// Takes an identity for good, as smbd does for a connection: real and saved uid stay root, the
// effective uid is the user's; real, effective and saved gid are the group's. Call in a child.
void become_user(uid_t uid, gid_t gid, const std::vector<gid_t>& groups);

// Files. make_temp_dir() is below /tmp and removed when the test process ends.
std::string make_temp_dir();
void write_file(const std::string& path, std::string_view content);
std::string read_file(const std::string& path);
bool file_exists(const std::string& path);

// The example pair: 5 elements, 6 ACEs, name total 33; an image of 581 bytes.
extern const char* const kExampleSize;
extern const char* const kExampleData;

// Builds an image of this data text with honest counts given, in private memory, through
// get_permbe_shmsize() and init_permbe_shm(), standard output discarded. The pair lies in a
// temporary folder. Asserts success. Needs a ConfigTable.
std::vector<std::uint8_t> build_image(std::string_view size_json, std::string_view data_json);

// Small tree builder for tests that need many shapes: emits an honest pair.
struct Node {
    std::string name;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> users;   // uid, mask; document order
    std::vector<std::pair<std::uint32_t, std::uint32_t>> groups;  // gid, mask
    std::vector<Node> children;
};
struct Pair {
    std::string size_json;
    std::string data_json;
};
Pair to_pair(const Node& root, std::string_view map_name = "test_map");
std::vector<std::uint8_t> build_image(const Node& root);

// Builds the pair into the next table and makes it current, as the service does: semaphore set
// (opened or created), segment, load, swap, initialised. The persisted file is written at its real
// place. Asserts success. Only inside the sandbox.
void publish(const Pair& pair);
void publish(const Node& root);

}  // namespace kvtest
