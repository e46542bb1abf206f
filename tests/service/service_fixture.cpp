// See service_fixture.h.
#include "service_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "image_check.h"
#include "image_reader.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr key_t kTableKeys[] = {0x70657269, 0x7065726A};
constexpr int kProjects[] = {3456, 1234};
constexpr int kSemaphoreProjects[] = {7065, 2345};

pid_t start(const char* program, const std::vector<std::string>& options, int out, int err,
            const std::function<void()>& before_exec = {}) {
    const pid_t child = fork();
    if (child != 0) return child;
    if (before_exec) before_exec();
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(out < 0 ? null : out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    std::vector<char*> argv{const_cast<char*>(program)};
    for (const std::string& option : options) argv.push_back(const_cast<char*>(option.c_str()));
    argv.push_back(nullptr);
    execv(program, argv.data());
    _exit(127);
}

ProgramResult run(const char* program, const std::vector<std::string>& arguments) {
    const std::string folder = make_temp_dir();
    const int out = open((folder + "/out").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    const int err = open((folder + "/err").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    const pid_t child = start(program, arguments, out, err);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    close(out);
    close(err);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), read_file(folder + "/out"),
            read_file(folder + "/err")};
}

// Every folder's ACL must name the generation that the header gives.
void expect_one_generation(std::span<const std::uint8_t> image, unsigned generation) {
    const auto reader = kvadmin::ImageReader::open(image);
    ASSERT_TRUE(reader.has_value());
    std::uint64_t named = 0;
    for (std::uint64_t i = 0; i < reader->element_count(); ++i) {
        const auto offset = static_cast<kvadmin::ElementOffset>(i * sizeof(fs_elem_t));
        const auto name = reader->name_of(offset);
        if (!name || !name->starts_with("folder")) continue;
        const auto element = reader->element(offset);
        ASSERT_TRUE(element.has_value());
        const auto ace = reader->ace(static_cast<kvadmin::AclOffset>(element->acl_offset), 0);
        ASSERT_TRUE(ace.has_value());
        EXPECT_EQ(ace->id, 100'000 + generation) << "a mixed map";
        ++named;
    }
    EXPECT_GT(named, 0U);
}

}  // namespace

bool within(milliseconds time, const std::function<bool()>& holds) {
    const Clock::time_point deadline = Clock::now() + time;
    while (!holds()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}

Pair pair_of_generation(unsigned generation, std::size_t folders, std::size_t files) {
    Node shared{"Shared", {}, {{1000, 1}}, {}};
    for (std::size_t i = 0; i < folders + generation % 3; ++i) {
        Node folder{"folder" + std::to_string(i), {{100'000 + generation, 7}}, {}, {}};
        for (std::size_t k = 0; k < files; ++k)
            folder.children.push_back({"file" + std::to_string(k), {}, {}, {}});
        shared.children.push_back(std::move(folder));
    }
    Pair pair = to_pair(Node{"/", {}, {{1000, 8}}, {std::move(shared)}});
    const std::string one = "\"GENERATIONNUM\":1,";
    const std::size_t at = pair.size_json.find(one);
    EXPECT_NE(at, std::string::npos);
    pair.size_json.replace(at, one.size(), "\"GENERATIONNUM\":" + std::to_string(generation) + ",");
    return pair;
}

std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

RunningService::RunningService(std::vector<std::string> options,
                               const std::function<void()>& before_exec)
    : log_path_(make_temp_dir() + "/log") {
    options.insert(options.begin(), "--foreground");
    const int log = open(log_path_.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    pid_ = start(KAVRIND, options, log, log, before_exec);
    close(log);
}

RunningService::~RunningService() {
    kill_it();
}

bool RunningService::running() {
    if (!ended_ && waitpid(pid_, &status_, WNOHANG) == pid_) ended_ = true;
    return !ended_;
}

bool RunningService::ready(milliseconds time) {
    return within(time,
                  [this] {
                      if (!running()) return true;
                      const Json answer = status_now();
                      return answer.is_object() && answer.contains("service") &&
                             answer["service"]["state"] != "starting";
                  }) &&
           running();
}

void RunningService::signal(int number) const {
    kill(pid_, number);
}

void RunningService::kill_it() {
    if (!running()) return;
    kill(pid_, SIGKILL);
    wait_for_end();
}

int RunningService::end() {
    if (running()) kill(pid_, SIGTERM);
    return wait_for_end();
}

int RunningService::wait_for_end() {
    if (!ended_)
        while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
        }
    ended_ = true;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
}

std::string RunningService::log() const {
    return read_file(log_path_);
}

bool RunningService::logs(const std::string& part, milliseconds time) const {
    return within(time, [&] { return log().find(part) != std::string::npos; });
}

ProgramResult run_service(const std::vector<std::string>& options) {
    return run(KAVRIND, options);
}

ProgramResult run_kavrinctl(const std::vector<std::string>& arguments) {
    return run(KAVRINCTL, arguments);
}

Json ask_raw(const std::string& text, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    const int socket_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string answer;
    if (connect(socket_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        send(socket_fd, text.data(), text.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(text.size())) {
        char buffer[65536];
        ssize_t got = 0;
        while (!answer.ends_with('\n') && (got = read(socket_fd, buffer, sizeof buffer)) > 0)
            answer.append(buffer, static_cast<std::size_t>(got));
    }
    close(socket_fd);
    const Json json = Json::parse(answer, nullptr, false);
    return json.is_object() ? json : Json::object();
}

Json ask(const Json& request, const std::string& socket) {
    return ask_raw(request.dump() + "\n", socket);
}

Json status_now() {
    return ask({{"command", "status"}}).value("result", Json());
}

void ServiceTest::deliver_file(const std::string& file, const std::string& content) {
    write_file(kIncoming + "/." + file, content);
    fs::rename(kIncoming + "/." + file, kIncoming + "/" + file);
}

void ServiceTest::deliver(const Pair& pair, const std::string& name) {
    const std::string front = name.empty() ? "" : name + ".";
    deliver_file(front + "size.json", pair.size_json);
    deliver_file(front + "data.json", pair.data_json);
}

int ServiceTest::segment_of(int table) {
    return shmget(kTableKeys[table], 0, 0);
}

long ServiceTest::served_generation() {
    if (init_perm_map_semaphore() != 0) return -1;
    void* map = get_perm_map_addr();
    if (map == nullptr) return -1;
    // The header's regions tell the size; the segment may be another one by now.
    const auto* header = static_cast<const kavrin_be_header_t*>(map);
    const long generation = header->generationnum;
    const std::span<const std::uint8_t> bytes(static_cast<const std::uint8_t*>(map),
                                              header->list_offset + header->list_size);
    const kvadmin::ImageReport report = kvadmin::check_image(bytes);
    EXPECT_TRUE(report.sound()) << report.first_line();
    expect_one_generation(bytes, static_cast<unsigned>(generation));
    put_perm_map_addr(map);
    return generation;
}

bool ServiceTest::serves(long generation, milliseconds time) {
    return within(time, [generation] { return served_generation() == generation; });
}

void ServiceTest::expect_nothing_left() {
    const bool cleared = within(std::chrono::seconds(5), [] { return names_in(kWork).empty(); });
    EXPECT_TRUE(cleared) << names_in(kWork).front() << " is left";
    const int current = get_current_perm_table_index();
    EXPECT_EQ(segment_of(1 - current), -1) << "a segment is left";
    for (const std::string& name : names_in("/etc/kavrin"))
        EXPECT_TRUE(name == ".permbe_map" || name == "permission_refresh" ||
                    name == "groupmap_refresh" || name == "kavrin.conf")
            << name << " is left";
}

void ServiceTest::restart_machine() {
    for (const int table : {0, 1}) shmctl(segment_of(table), IPC_RMID, nullptr);
    for (const int project : kProjects)
        shmctl(shmget(ftok("/dev/null", project), 0, 0), IPC_RMID, nullptr);
    for (const int project : kSemaphoreProjects)
        semctl(semget(ftok("/dev/null", project), 0, 0), 0, IPC_RMID);
    fs::remove_all("/run/kavrin");
}

}  // namespace kvtest
