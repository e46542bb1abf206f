// See map_tables.h.
#include "map_tables.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "failure.h"
#include "kavrin.h"
#include "whole_file.h"

namespace kvadmin {
namespace {

constexpr char kFolder[] = "/etc/kavrin";
constexpr int kMapSemaphoreProject = 7065;
constexpr std::chrono::milliseconds kGrace{100};
constexpr std::chrono::milliseconds kBetweenTries{20};

void* const kNotAttached = reinterpret_cast<void*>(-1);

int semaphore_set() {
    return semget(ftok("/dev/null", kMapSemaphoreProject), 0, 0);
}

// The first value of the set that cannot be, as a sentence; empty when both are 0 or 1. The library
// ends the process on such values, so they are looked at first.
std::string flaw_of_set(int set) {
    for (const int number : {0, 1}) {
        const int value = semctl(set, number, GETVAL);
        if (value == 0 || value == 1) continue;
        return fmt::format("semaphore {} of the map's set {} is {} where 0 or 1 belongs", number,
                           set, value);
    }
    return {};
}

}  // namespace

BuildLock::BuildLock(std::chrono::seconds patience) {
    struct stat st {};
    if (stat(kFolder, &st) != 0 || !S_ISDIR(st.st_mode))
        fail(Exit::kFailure, "there is no folder {}; it is where the persisted map lies", kFolder);
    make_folder("/run/kavrin", 0755);
    file_ = Descriptor(open(kBuildLockPath, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file_.valid() || fchmod(file_.get(), 0600) != 0)
        fail(Exit::kFailure, "cannot open {}: {}", kBuildLockPath, std::strerror(errno));
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            fail(Exit::kFailure, "cannot lock {}: {}", kBuildLockPath, std::strerror(errno));
        if (std::chrono::steady_clock::now() >= deadline)
            throw CommandError{Exit::kFailure,
                               fmt::format("another build or load is running (it holds {}); try "
                                           "again when it has ended",
                                           kBuildLockPath),
                               true};
        std::this_thread::sleep_for(kBetweenTries);
    }
}

int open_current_table() {
    if (init_perm_map_semaphore() != 0)
        fail(Exit::kFailure, "cannot open the map's semaphore set: {}", std::strerror(errno));
    const int set = semaphore_set();
    const std::string flaw = flaw_of_set(set);
    if (!flaw.empty())
        fail(Exit::kFailure, "{}; remove the set with 'ipcrm -s {}' and build again", flaw, set);
    return get_current_perm_table_index_for_fill();
}

// The builder's own call resets a live set, which would send readers to the other table: so it is
// for a set that is missing or useless.
int repair_current_table(std::vector<std::string>& remarks) {
    const int set = semaphore_set();
    if (set >= 0) {
        const std::string flaw = flaw_of_set(set);
        if (flaw.empty()) return open_current_table();
        remarks.push_back(flaw + "; made it anew");
        semctl(set, 0, IPC_RMID);
    }
    if (create_perm_map_semaphore() != 0)
        fail(Exit::kFailure, "cannot make the map's semaphore set: {}; see 'ipcs -ls'",
             std::strerror(errno));
    return open_current_table();
}

void remove_segment(int id) {
    if (shmctl(id, IPC_RMID, nullptr) != 0)
        note(fmt::format("cannot remove shared-memory segment {}: {}", id, std::strerror(errno)));
}

std::optional<int> live_segment() {
    const int set = semaphore_set();
    const int table = set < 0 ? -1 : semctl(set, 0, GETVAL);
    return table == 0 || table == 1 ? segment_of_table(table) : std::nullopt;
}

std::optional<int> segment_of_table(int table) {
    const int id = shmget(get_next_perm_table_key(1 - table), 0, 0);
    return id < 0 ? std::nullopt : std::optional<int>(id);
}

AttachedSegment::AttachedSegment(int id) {
    shmid_ds status{};
    if (id < 0 || shmctl(id, IPC_STAT, &status) != 0)
        fail(Exit::kFailure, "the segment is gone: {}", std::strerror(errno));
    void* memory = shmat(id, nullptr, SHM_RDONLY);
    if (memory == kNotAttached)
        fail(Exit::kFailure, "cannot attach segment {}: {}", id, std::strerror(errno));
    bytes_ = {static_cast<const std::uint8_t*>(memory), status.shm_segsz};
}

AttachedSegment::~AttachedSegment() {
    shmdt(bytes_.data());
}

LateReaders::LateReaders(key_t old_key) {
    const int old = shmget(old_key, 0, 0);
    const void* memory = old < 0 ? kNotAttached : shmat(old, nullptr, SHM_RDONLY);
    if (memory != kNotAttached) old_ = memory;
}

LateReaders::~LateReaders() {
    if (old_ == nullptr) return;
    std::this_thread::sleep_until(since_ + kGrace);
    shmdt(old_);
}

NextTable::NextTable(int current, std::vector<std::string>& remarks)
    : current_(current), key_(get_next_perm_table_key(current)) {
    const int stale = segment();
    if (stale < 0) return;
    remove_segment(stale);
    if (segment() >= 0)
        fail(Exit::kFailure, "shared-memory segment {} is in the way and stays; see 'ipcs -m'",
             stale);
    remarks.push_back(
        fmt::format("removed shared-memory segment {} (key 0x{:x}), left by an interrupted build",
                    stale, static_cast<std::uint32_t>(key_)));
}

NextTable::~NextTable() {
    if (!published_ && segment() >= 0) remove_segment(segment());
}

int NextTable::segment() const {
    return shmget(key_, 0, 0);
}

void NextTable::publish(std::vector<std::string>& remarks) {
    late_readers_.emplace(get_next_perm_table_key(table()));
    swap_maps(current_);
    published_ = get_current_perm_table_index_for_fill() == table();
    if (!published_)
        fail(Exit::kFailure, "cannot switch readers to the new map: {}", std::strerror(errno));
    const std::optional<int> old = segment_of_table(current_);
    if (!old) return;
    remove_segment(*old);
    remarks.push_back(fmt::format("removed shared-memory segment {} of the old map", *old));
}

}  // namespace kvadmin
