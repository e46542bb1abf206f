#include "support.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kvtest {
namespace {

std::vector<LogLine> captured;
int log_pipe = -1;  // in a child: where its captured lines go
constexpr char kRecordEnd = '\x1e';

void require(bool condition, const char* what) {
    if (condition) return;
    std::perror(what);
    std::abort();
}

LogLine split(int priority, const std::string& text) {
    LogLine line;
    line.priority = priority;
    line.text = text;
    line.message = text;
    const std::size_t open = text.find('(');
    const std::size_t colon = text.rfind(':', open);
    const std::size_t close = text.find(") ", open);
    if (open == std::string::npos || colon == std::string::npos || close == std::string::npos)
        return line;
    line.file = text.substr(0, colon);
    line.line = std::atoi(text.c_str() + colon + 1);
    line.function = text.substr(open + 1, close - open - 1);
    line.message = text.substr(close + 2);
    return line;
}

int count(const std::vector<LogLine>& lines, std::string_view wanted, bool whole) {
    int found = 0;
    for (const LogLine& line : lines) {
        if (whole ? line.message == wanted : line.message.find(wanted) != std::string::npos)
            ++found;
    }
    return found;
}

}  // namespace

const std::vector<LogLine>& log_lines() {
    return captured;
}
void clear_log() {
    captured.clear();
}
int logged(std::string_view message) {
    return count(captured, message, true);
}
int logged_part(std::string_view part) {
    return count(captured, part, false);
}

ConfigTable::ConfigTable(int debug_level) : previous_(global_params) {
    global_params =
        static_cast<global_param_t*>(std::calloc(PARAM_MAX_INDEX, sizeof(global_param_t)));
    require(global_params != nullptr, "calloc");
    set_debug_level(debug_level);
    clear_log();
}
ConfigTable::~ConfigTable() {
    std::free(global_params);
    global_params = previous_;
}
void ConfigTable::set_debug_level(int level) {
    set_int(PARAM_DEBUG_LEVEL, level);
}
void ConfigTable::set_int(int slot, int value) {
    global_params[slot].type = PARAM_VAL_TYPE_INT;
    global_params[slot].value.intval = value;
}
void ConfigTable::set_string(int slot, std::string_view value) {
    require(value.size() < KAVRIN_PARAM_STRLEN, "set_string");
    global_params[slot].type = PARAM_VAL_TYPE_STRING;
    std::memcpy(global_params[slot].value.strval, value.data(), value.size());
    global_params[slot].value.strval[value.size()] = 0;
}

bool ChildResult::asserted(std::string_view expression) const {
    return aborted() && err.find(expression) != std::string::npos;
}
int ChildResult::logged(std::string_view message) const {
    return count(log, message, true);
}
int ChildResult::logged_part(std::string_view part) const {
    return count(log, part, false);
}

ChildResult run_child(const std::function<int()>& body) {
    int pipes[3][2];
    for (auto& p : pipes) require(pipe2(p, O_CLOEXEC) == 0, "pipe2");
    std::fflush(nullptr);
    const pid_t pid = fork();
    require(pid >= 0, "fork");
    if (pid == 0) {
        captured.clear();
        log_pipe = pipes[2][1];
        dup2(pipes[0][1], STDOUT_FILENO);
        dup2(pipes[1][1], STDERR_FILENO);
        const int code = body();
        std::fflush(nullptr);
        _exit(code);
    }
    std::string texts[3];
    for (auto& p : pipes) close(p[1]);
    int open_pipes = 3;
    while (open_pipes > 0) {
        pollfd fds[3];
        for (int i = 0; i < 3; ++i) fds[i] = {pipes[i][0], POLLIN, 0};
        require(poll(fds, 3, -1) >= 0 || errno == EINTR, "poll");
        for (int i = 0; i < 3; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP)) == 0) continue;
            char buffer[65536];
            const ssize_t n = read(pipes[i][0], buffer, sizeof buffer);
            if (n > 0) {
                texts[i].append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0) {
                close(pipes[i][0]);
                pipes[i][0] = -1;
                --open_pipes;
            }
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) require(errno == EINTR, "waitpid");
    ChildResult result;
    result.exited = WIFEXITED(status);
    if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    result.out = std::move(texts[0]);
    result.err = std::move(texts[1]);
    std::istringstream records(texts[2]);
    for (std::string record; std::getline(records, record, kRecordEnd);)
        result.log.push_back(split(LOG_INFO, record));
    return result;
}

ChildResult run_child_void(const std::function<void()>& body) {
    return run_child([&] {
        body();
        return 0;
    });
}

void become_user(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
    require(setgroups(groups.size(), groups.data()) == 0, "setgroups");
    require(setresgid(gid, gid, gid) == 0, "setresgid");
    require(setresuid(0, uid, 0) == 0, "setresuid");
}

std::string make_temp_dir() {
    static struct Dirs {
        std::vector<std::string> paths;
        pid_t owner = getpid();
        ~Dirs() {
            std::error_code ignored;
            if (getpid() == owner)
                for (const std::string& path : paths) std::filesystem::remove_all(path, ignored);
        }
    } dirs;
    char name[] = "/tmp/kavrin-test-XXXXXX";
    require(mkdtemp(name) != nullptr, "mkdtemp");
    require(chmod(name, 0755) == 0, "chmod");
    dirs.paths.emplace_back(name);
    return name;
}

void write_file(const std::string& path, std::string_view content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    require(!out.fail(), path.c_str());
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    require(in.is_open(), path.c_str());
    return {std::istreambuf_iterator<char>(in), {}};
}

bool file_exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

const char* const kExampleSize = R"({
  "MAPNAME": "perm_map_A",
  "VERSION": "2.4.1",
  "GENERATIONNUM": 1187,
  "TIMESTAMP": 1700000000,
  "TOTALFSELEMS": 5,
  "TOTALACES": 6,
  "TOTALNAMELEN": 33
}
)";

const char* const kExampleData = R"([
  {"NUMCHILDREN": 1},
  {"DIR": "/",
   "ACL": [{"NUMUSERS": 0}, {"NUMGROUPS": 1}, {"USERS": {}}, {"GROUPS": {"1000": 8}}],
   "CHILDREN": [
     {"NUMCHILDREN": 2},
     {"DIR": "Shared",
      "ACL": [{"NUMUSERS": 1}, {"NUMGROUPS": 1},
              {"USERS": {"1001": 7}}, {"GROUPS": {"1000": 1}}],
      "CHILDREN": [
        {"NUMCHILDREN": 1},
        {"DIR": "Docs",
         "ACL": [{"NUMUSERS": 1}, {"NUMGROUPS": 0}, {"USERS": {"1002": 3}}, {"GROUPS": {}}],
         "CHILDREN": [
           {"NUMCHILDREN": 1},
           {"DIR": "report.txt",
            "ACL": [{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"USERS": {}}, {"GROUPS": {}}],
            "CHILDREN": [{"NUMCHILDREN": 0}]}]}]},
     {"DIR": "Private",
      "ACL": [{"NUMUSERS": 2}, {"NUMGROUPS": 0},
              {"USERS": {"1001": 7, "1002": 8}}, {"GROUPS": {}}],
      "CHILDREN": [{"NUMCHILDREN": 0}]}]}
]
)";

namespace {

// Standard output goes nowhere while an object of this lives: a build traces every name.
class QuietStdout {
public:
    QuietStdout() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int saved_;
};

void free_summary(memsummary_t* summary) {
    std::free(summary->perm_map_name_size);
    std::free(summary->perm_map_name_data);
    std::free(summary);
}

std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

struct Counts {
    std::uint64_t elements = 0;
    std::uint64_t aces = 0;
    std::uint64_t names = 0;
};

void ids(std::string& out, const std::vector<std::pair<std::uint32_t, std::uint32_t>>& entries) {
    bool first = true;
    for (const auto& [id, mask] : entries) {
        if (!first) out += ',';
        first = false;
        out += '"' + std::to_string(id) + "\":" + std::to_string(mask);
    }
}

void emit(std::string& out, const Node& node, Counts& counts) {
    ++counts.elements;
    counts.aces += node.users.size() + node.groups.size();
    counts.names += node.name.size() + 1;
    out += "{\"DIR\":" + json_string(node.name) +
           ",\"ACL\":[{\"NUMUSERS\":" + std::to_string(node.users.size()) +
           "},{\"NUMGROUPS\":" + std::to_string(node.groups.size()) + "},{\"USERS\":{";
    ids(out, node.users);
    out += "}},{\"GROUPS\":{";
    ids(out, node.groups);
    out += "}}],\"CHILDREN\":[{\"NUMCHILDREN\":" + std::to_string(node.children.size()) + "}";
    for (const Node& child : node.children) {
        out += ',';
        emit(out, child, counts);
    }
    out += "]}";
}

}  // namespace

Pair to_pair(const Node& root, std::string_view map_name) {
    Pair pair;
    Counts counts;
    pair.data_json = "[{\"NUMCHILDREN\":1},";
    emit(pair.data_json, root, counts);
    pair.data_json += "]\n";
    pair.size_json = "{\"MAPNAME\":\"" + std::string(map_name) +
                     "\",\"VERSION\":\"1\",\"GENERATIONNUM\":1,\"TIMESTAMP\":1700000000," +
                     "\"TOTALFSELEMS\":" + std::to_string(counts.elements) +
                     ",\"TOTALACES\":" + std::to_string(counts.aces) +
                     ",\"TOTALNAMELEN\":" + std::to_string(counts.names) + "}\n";
    return pair;
}

std::vector<std::uint8_t> build_image(std::string_view size_json, std::string_view data_json) {
    const std::string dir = make_temp_dir();
    std::string size_path = dir + "/size.json";
    std::string data_path = dir + "/data.json";
    write_file(size_path, size_json);
    write_file(data_path, data_json);
    const QuietStdout quiet;
    memsummary_t* summary = nullptr;
    require(get_permbe_shmsize(size_path.data(), data_path.data(), &summary) == SHM_MEMBE_OK,
            "get_permbe_shmsize");
    std::vector<std::uint8_t> image(summary->memsize);
    summary->membuf = image.data();
    require(init_permbe_shm(summary) == SHM_MEMBE_OK, "init_permbe_shm");
    free_summary(summary);
    return image;
}

std::vector<std::uint8_t> build_image(const Node& root) {
    const Pair pair = to_pair(root);
    return build_image(pair.size_json, pair.data_json);
}

void publish(const Pair& pair) {
    const std::string dir = make_temp_dir();
    std::string size_path = dir + "/size.json";
    std::string data_path = dir + "/data.json";
    write_file(size_path, pair.size_json);
    write_file(data_path, pair.data_json);
    const QuietStdout quiet;
    require(init_perm_map_semaphore() == 0, "init_perm_map_semaphore");
    const int current = get_current_perm_table_index_for_fill();
    require(current >= 0, "get_current_perm_table_index_for_fill");
    memsummary_t* summary = nullptr;
    require(get_permbe_shmsize(size_path.data(), data_path.data(), &summary) == SHM_MEMBE_OK,
            "get_permbe_shmsize");
    int shmid = -1;
    summary->membuf =
        create_perm_map_shm(get_next_perm_table_key(current), summary->memsize, &shmid);
    require(summary->membuf != nullptr, "create_perm_map_shm");
    require(init_permbe_shm(summary) == SHM_MEMBE_OK, "init_permbe_shm");
    require(swap_maps(current) == 0, "swap_maps");
    require(map_initialized(1) == 0, "map_initialized");
    put_perm_map_addr(summary->membuf);
    free_summary(summary);
}

void publish(const Node& root) {
    publish(to_pair(root));
}

}  // namespace kvtest

// The library's traces end here instead of in the system's log.
extern "C" void syslog(int priority, const char* format, ...) {
    char text[16384];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    kvtest::captured.push_back(kvtest::split(priority, text));
    if (kvtest::log_pipe >= 0) {
        std::string record = text;
        record += kvtest::kRecordEnd;
        const ssize_t ignored = write(kvtest::log_pipe, record.data(), record.size());
        static_cast<void>(ignored);
    }
}
