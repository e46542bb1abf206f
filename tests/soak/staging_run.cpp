// The parent is what the service and the event store are in life: it makes the buffer, collects the
// pending files, looks at the buffer under its semaphore (by System V calls of its own), and
// counts.
#include "staging_run.h"

#include <grp.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

#include "kavrin.h"

namespace kvsoak {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kMarkerFolder = "/kavrin/.conf";
constexpr const char* kMarker = "/kavrin/.conf/kavrin_event_status.dirty";
constexpr int kPercent = 80;
constexpr auto kHang = std::chrono::seconds(60);

void require(bool condition, const char* what) {
    if (condition) return;
    std::perror(what);
    std::abort();
}

std::string content_of(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The configuration, the buffer and its semaphore, for one run.
class Stage {
public:
    explicit Stage(const Plan& plan) : plan_(plan), previous_(global_params) {
        require(std::getenv("KAVRIN_SANDBOX") != nullptr, "run this below scripts/sandbox");
        global_params =
            static_cast<global_param_t*>(std::calloc(PARAM_MAX_INDEX, sizeof(global_param_t)));
        require(global_params != nullptr, "calloc");
        global_params[PARAM_DEBUG_LEVEL].value.intval = -1;
        global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = plan.buffer_size;
        global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval = kPercent;
        std::snprintf(global_params[PARAM_STAGING_DIR].value.strval, KAVRIN_PARAM_STRLEN, "%s",
                      plan.folder.c_str());
        fs::create_directories(kMarkerFolder);
        fs::remove(kMarker);
        remove_objects();
        require(create_eventstore_staging_semaphore() == 1, "semaphore");
        require(create_staging_buffer() == 0, "segment");
        segment_ = static_cast<const char*>(shmat(segment_id(), nullptr, SHM_RDONLY));
        require(segment_ != reinterpret_cast<const char*>(-1), "shmat");
    }
    ~Stage() {
        shmdt(segment_);
        remove_objects();
        std::free(global_params);
        global_params = previous_;
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    const Plan& plan() const { return plan_; }
    static std::string marker() {
        return fs::exists(kMarker) ? content_of(kMarker).c_str() : std::string();
    }
    // Takes the semaphore, not for ever: a holder that died with it is what is looked for.
    static bool take() {
        sembuf wait{0, -1, SEM_UNDO};
        const timespec limit{10, 0};
        int result;
        do result = semtimedop(semaphore_id(), &wait, 1, &limit);
        while (result != 0 && errno == EINTR);
        return result == 0;
    }
    static void give() {
        sembuf post{0, 1, SEM_UNDO};
        require(semop(semaphore_id(), &post, 1) == 0, "semop");
    }
    static int semaphore_value() { return semctl(semaphore_id(), 0, GETVAL); }
    // The records in the buffer; a violation when they do not add up.
    std::string records(std::vector<std::string>& violations) const {
        std::uint32_t header[2];
        std::memcpy(header, segment_, sizeof header);
        const auto size = static_cast<std::uint32_t>(plan_.buffer_size);
        if (header[1] < 16 || header[1] > size) {
            violations.push_back("the buffer ends at " + std::to_string(header[1]));
            return {};
        }
        std::uint32_t count = 0;
        std::uint32_t at = 16;
        while (at + 8 <= header[1]) {
            std::uint32_t frame[2];
            std::memcpy(frame, segment_ + at, sizeof frame);
            if (frame[1] != 0x04012010u || frame[0] < 1 || frame[0] > header[1] - at - 8) break;
            at += 8 + frame[0];
            ++count;
        }
        if (at != header[1] || count != header[0])
            violations.push_back("the buffer walks to " + std::to_string(at) + " of " +
                                 std::to_string(header[1]) + ", " + std::to_string(count) + " of " +
                                 std::to_string(header[0]) + " records");
        return {segment_ + 16, header[1] - 16};
    }

private:
    static int segment_id() { return shmget(ftok("/dev/null", 1234), 0, 0); }
    static int semaphore_id() { return semget(ftok("/dev/null", 2345), 0, 0); }
    static void remove_objects() {
        if (segment_id() >= 0) shmctl(segment_id(), IPC_RMID, nullptr);
        if (semaphore_id() >= 0) semctl(semaphore_id(), 0, IPC_RMID);
    }

    const Plan& plan_;
    global_param_t* previous_;
    const char* segment_;
};

// What an smbd is: root underneath, its user above, one event after another.
[[noreturn]] void write_events(int writer, std::size_t from, Ledger& ledger,
                               Clock::time_point end) {
    const unsigned user = kFirstUser + static_cast<unsigned>(writer);
    require(setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 &&
                setresuid(0, user, 0) == 0,
            "identity");
    for (std::size_t event = from; event < ledger.capacity(); ++event) {
        if (event % 16 == 0 && Clock::now() >= end) break;
        std::string path = event_path(writer, event);
        VFSEvent message = VFSEVENT__INIT;
        message.path = path.data();
        message.optype = VFSEVENT__OP_TYPE__OPTYPE_CREATE;
        pop_vfs_event(&message);
        staging_data_t* const record = create_staging_data_buf(&message);
        require(record != nullptr, "record");
        ledger.set_fate(writer, event, Fate::kBegun);
        const int result = write_to_staging_buffer(record);
        ledger.set_fate(writer, event, result == 0 ? Fate::kAccepted : Fate::kRefused);
        std::free(record);
        if (geteuid() != user) _exit(2);
    }
    _exit(0);
}

class Run {
public:
    explicit Run(const Plan& plan)
        : stage_(plan), ledger_(plan.events), judge_(ledger_), random_(plan.seed) {
        const auto time = std::chrono::milliseconds(plan.milliseconds);
        end_ = plan.milliseconds > 0 ? Clock::now() + time : Clock::time_point::max();
        for (int writer = 0; writer < kWriters; ++writer) start(writer);
    }

    bool over() const { return Clock::now() >= end_; }
    bool anyone_left() {
        for (int writer = 0; writer < kWriters; ++writer) {
            int status = 0;
            if (writers_[writer] <= 0 || waitpid(writers_[writer], &status, WNOHANG) == 0) continue;
            ended(writer, status);
        }
        return std::any_of(std::begin(writers_), std::end(writers_), [](pid_t p) { return p > 0; });
    }
    void kill_someone() {
        usleep(static_cast<useconds_t>(random_() % 3000));
        const int writer = static_cast<int>(random_() % kWriters);
        if (writers_[writer] <= 0) return;
        kill(writers_[writer], SIGKILL);
        int status = 0;
        waitpid(writers_[writer], &status, 0);
        if (!WIFSIGNALED(status)) return ended(writer, status);
        ++counts_.kills;
        start(writer);
    }
    void look() {
        ++counts_.looks;
        if (!stage_.take()) {
            counts_.violations.push_back("the semaphore is taken for ever");
            return;
        }
        stage_.records(counts_.violations);
        stage_.give();
    }
    // As the event store does: every pending file is complete, whenever it is seen.
    void collect() {
        for (const auto& entry : fs::directory_iterator(stage_.plan().folder)) {
            const std::string name = entry.path().filename();
            if (!name.starts_with("pending_")) continue;
            judge_.take_file(name, content_of(entry.path()));
            fs::remove(entry.path());
        }
    }
    // Nobody may take longer than this without an end.
    bool hangs() {
        if (Clock::now() < last_end_ + kHang && (!over() || Clock::now() < end_ + kHang))
            return false;
        counts_.violations.push_back("the writers hang");
        for (pid_t& writer : writers_) {
            if (writer <= 0) continue;
            kill(writer, SIGKILL);
            waitpid(writer, nullptr, 0);
            writer = 0;
        }
        return true;
    }
    Counts finish(bool killed) {
        collect();
        if (stage_.semaphore_value() != 1)
            counts_.violations.push_back("the semaphore's value at the end is " +
                                         std::to_string(stage_.semaphore_value()));
        const std::string left = stage_.records(counts_.violations);
        if (!left.empty()) judge_.take_file("~buffer", left);
        for (const auto& entry : fs::directory_iterator(stage_.plan().folder)) {
            if (!entry.path().filename().string().starts_with("kvtemp")) continue;
            judge_.take_temporary(content_of(entry.path()));
            if (!killed) counts_.violations.push_back("a temporary file was left");
            fs::remove(entry.path());
        }
        add(counts_, judge_.verdict(Stage::marker(), killed));
        return counts_;
    }

private:
    void start(int writer) {
        std::size_t from = next_[writer];
        while (from < ledger_.capacity() && ledger_.fate(writer, from) != Fate::kNone) ++from;
        next_[writer] = from;
        std::fflush(nullptr);
        const pid_t pid = fork();
        require(pid >= 0, "fork");
        if (pid == 0) write_events(writer, from, ledger_, end_);
        writers_[writer] = pid;
    }
    void ended(int writer, int status) {
        writers_[writer] = 0;
        last_end_ = Clock::now();
        if (status != 0)
            counts_.violations.push_back("a writer ended with status " + std::to_string(status));
    }

    Stage stage_;
    Ledger ledger_;
    Judge judge_;
    std::mt19937 random_;
    Counts counts_;
    Clock::time_point end_;
    Clock::time_point last_end_ = Clock::now();
    pid_t writers_[kWriters] = {};
    std::size_t next_[kWriters] = {};
};

}  // namespace

Counts run_writers(const Plan& plan) {
    Run run(plan);
    while (run.anyone_left() && !run.hangs()) {
        usleep(2000);
        run.collect();
    }
    return run.finish(false);
}

Counts run_kills(const Plan& plan) {
    Run run(plan);
    while (!run.over()) {
        run.kill_someone();
        run.look();
        run.collect();
    }
    while (run.anyone_left() && !run.hangs()) usleep(1000);
    return run.finish(true);
}

Counts run_full_disk(const Plan& plan) {
    require(mount("small", plan.folder.c_str(), "tmpfs", 0, "mode=0755,size=16384") == 0, "mount");
    Counts counts;
    {
        Run run(plan);
        while (run.anyone_left() && !run.hangs()) {
            usleep(10000);
            run.collect();
        }
        counts = run.finish(false);
    }
    require(umount(plan.folder.c_str()) == 0, "umount");
    return counts;
}

}  // namespace kvsoak
