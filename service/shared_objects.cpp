// See shared_objects.h.
//
// A writer waits for the semaphore, attaches the buffer by its key, appends, and detaches after it
// gave the semaphore back. Only one that found the buffer full is attached without holding the
// semaphore, while it flushes. So whoever holds the semaphore and sees nobody attached may put
// another segment in the place of an empty one, and no record goes into a segment that nobody
// reads.
#include "shared_objects.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "failure.h"
#include "kavrin.h"
#include "log.h"
#include "map_tables.h"
#include "whole_file.h"

namespace kvservice {
namespace {

using kvadmin::Configuration;
using kvadmin::Exit;
using kvadmin::fail;

constexpr int kTableProject = 3456;
constexpr int kStagingProject = 1234;
constexpr int kStagingSemaphoreProject = 2345;
constexpr int kMapSemaphoreProject = 7065;
constexpr std::size_t kTableSize = PARAM_MAX_INDEX * sizeof(global_param_t);

void* const kNotAttached = reinterpret_cast<void*>(-1);

std::optional<shmid_ds> segment_of(int project, int& id) {
    shmid_ds status{};
    id = shmget(ftok("/dev/null", project), 0, 0);
    if (id < 0 || shmctl(id, IPC_STAT, &status) != 0) return std::nullopt;
    return status;
}

// True when the table that is there was taken over. One that somebody else made, or of another
// size, is no table of ours.
bool adopt_table() {
    int id = -1;
    const std::optional<shmid_ds> status = segment_of(kTableProject, id);
    if (!status) return false;
    const ipc_perm& owner = status->shm_perm;
    if (status->shm_segsz != kTableSize || owner.uid != 0 || owner.cuid != 0) {
        log_warning(
            "the configuration table {} has {} bytes, belongs to uid {} and was made by uid {}; it "
            "is made anew",
            id, status->shm_segsz, owner.uid, owner.cuid);
        shmctl(id, IPC_RMID, nullptr);
        return false;
    }
    void* memory = shmat(id, nullptr, 0);
    if (memory == kNotAttached) return false;
    global_params = static_cast<global_param_t*>(memory);
    log_info("adopted the configuration table that is there");
    return true;
}

void set_staging_size(std::size_t size) {
    global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = static_cast<std::int32_t>(size);
}

// A semaphore above 1 would let two processes write at once.
void take_semaphore() {
    create_eventstore_staging_semaphore();
    const int set = semget(ftok("/dev/null", kStagingSemaphoreProject), 1, 0);
    const int value = set < 0 ? -1 : semctl(set, 0, GETVAL);
    if (value < 0)
        fail(Exit::kFailure, "cannot make the staging buffer's semaphore: {}; see 'ipcs -ls'",
             std::strerror(errno));
    // One that was made and never used is 0 because its maker died before setting it.
    semid_ds state{};
    const bool unset = value == 0 && semctl(set, 0, IPC_STAT, &state) == 0 && state.sem_otime == 0;
    if (value <= 1 && !unset) return;
    log_warning("the staging buffer's semaphore was {}; it is 1 now", value);
    semctl(set, 0, SETVAL, 1);
}

void make_staging() {
    if (create_staging_buffer() == 0) return;
    fail(Exit::kFailure, "cannot make a staging buffer of {} bytes: {}; see 'ipcs -lm'",
         global_params[PARAM_STAGING_BUFFER_SIZE].value.intval, std::strerror(errno));
}

// Waits for the semaphore for a moment only: the loop must not hang on somebody else's.
class HeldSemaphore {
public:
    HeldSemaphore() : set_(semget(ftok("/dev/null", kStagingSemaphoreProject), 1, 0)) {
        sembuf wait{0, -1, SEM_UNDO};
        const timespec moment{0, 200'000'000};
        held_ = set_ >= 0 && semtimedop(set_, &wait, 1, &moment) == 0;
    }
    ~HeldSemaphore() {
        sembuf post{0, 1, SEM_UNDO};
        if (held_) semop(set_, &post, 1);
    }
    HeldSemaphore(const HeldSemaphore&) = delete;
    HeldSemaphore& operator=(const HeldSemaphore&) = delete;
    bool held() const { return held_; }

private:
    int set_;
    bool held_ = false;
};

struct Detach {
    void operator()(const staging_buffer_t* buffer) const { shmdt(buffer); }
};
using AttachedBuffer = std::unique_ptr<const staging_buffer_t, Detach>;

AttachedBuffer attach(int id) {
    const void* memory = shmat(id, nullptr, SHM_RDONLY);
    return AttachedBuffer(memory == kNotAttached ? nullptr
                                                 : static_cast<const staging_buffer_t*>(memory));
}

unsigned readers_of_maps() {
    unsigned long readers = 0;
    for (const int table : {0, 1}) {
        shmid_ds status{};
        const std::optional<int> id = kvadmin::segment_of_table(table);
        if (id && shmctl(*id, IPC_STAT, &status) == 0) readers += status.shm_nattch;
    }
    return static_cast<unsigned>(readers);
}

void remove_segment(int project, const char* what) {
    int id = -1;
    if (!segment_of(project, id)) return;
    if (shmctl(id, IPC_RMID, nullptr) == 0)
        log_info("removed the {}", what);
    else
        log_error("cannot remove the {} ({}): {}", what, id, std::strerror(errno));
}

void flush_for_good(bool force) {
    const StagingFill fill = staging_fill();
    if (fill.records == 0) return;
    if (flush_staging_buffer() != 1) {
        if (force) return log_warning("lost {} events of the staging buffer", fill.records);
        fail(Exit::kFailure,
             "the staging buffer holds {} events and cannot be flushed; look at the staging folder "
             "{}, or use --force and lose them",
             fill.records, global_params[PARAM_STAGING_DIR].value.strval);
    }
    log_info("flushed {} events", fill.records);
}

}  // namespace

void take_table(const Configuration& configuration) {
    if (!adopt_table() && create_config_buffer() != 0)
        fail(Exit::kFailure, "cannot make the configuration table: {}; see 'ipcs -lm'",
             std::strerror(errno));
    write_table(configuration);
}

void write_table(Configuration configuration) {
    if (const std::size_t size = staging_size(); size != 0)
        configuration.set_number(PARAM_STAGING_BUFFER_SIZE, static_cast<std::int32_t>(size));
    configuration.write_to(global_params);
}

void make_event_folders(const Configuration& configuration) {
    kvadmin::make_folder("/kavrin/.conf", 0755);
    kvadmin::make_folder(configuration.text(PARAM_STAGING_DIR), 0700);
    kvadmin::make_folder(configuration.text(PARAM_AUDITING_DIR), 0700);
}

std::size_t staging_size() {
    int id = -1;
    const std::optional<shmid_ds> status = segment_of(kStagingProject, id);
    return status ? status->shm_segsz : 0;
}

void take_staging() {
    take_semaphore();
    if (staging_size() == 0)
        make_staging();
    else
        log_info("adopted the staging buffer that is there");
}

bool resize_staging(std::size_t wanted) {
    if (staging_size() == 0) {
        set_staging_size(wanted);
        make_staging();
        log_warning("the staging buffer was gone; it was made anew");
    }
    const std::size_t size = staging_size();
    set_staging_size(size);
    if (size == wanted) return true;
    if (size > wanted) {
        log_warning(
            "the staging buffer keeps its {} bytes while it exists; 'kavrind --teardown' and a "
            "new start give it the configured {}",
            size, wanted);
        return true;
    }
    const HeldSemaphore semaphore;
    int id = -1;
    const std::optional<shmid_ds> status = segment_of(kStagingProject, id);
    if (!semaphore.held() || !status || status->shm_nattch != 0) return false;
    const AttachedBuffer buffer = attach(id);
    if (buffer == nullptr || buffer->num_records != 0) return false;
    if (shmctl(id, IPC_RMID, nullptr) != 0) return false;
    set_staging_size(wanted);
    try {
        make_staging();
    } catch (const kvadmin::CommandError&) {
        set_staging_size(size);
        make_staging();
        throw;
    }
    log_info("the staging buffer has {} bytes now instead of {}", wanted, size);
    return true;
}

StagingFill staging_fill() {
    int id = -1;
    const std::optional<shmid_ds> status = segment_of(kStagingProject, id);
    if (!status) return {};
    const AttachedBuffer buffer = attach(id);
    if (buffer == nullptr) return {};
    StagingFill fill{true, status->shm_segsz, 0, buffer->num_records};
    const std::size_t end = buffer->next_offset;
    if (end >= sizeof(staging_buffer_t) && end <= fill.size) fill.used = end - 16;
    return fill;
}

void tear_down(bool force) {
    if (const unsigned readers = readers_of_maps(); readers > 0 && !force)
        fail(Exit::kFailure, "{} processes are attached to a map; stop smbd first, or use --force",
             readers);
    if (read_kavrin_config() == 0 && staging_size() != 0) flush_for_good(force);
    for (const int table : {0, 1})
        if (const std::optional<int> id = kvadmin::segment_of_table(table))
            kvadmin::remove_segment(*id);
    if (semget(ftok("/dev/null", kMapSemaphoreProject), 0, 0) >= 0 &&
        init_perm_map_semaphore() == 0)
        destroy_perm_map();
    remove_segment(kStagingProject, "staging buffer");
    if (semget(ftok("/dev/null", kStagingSemaphoreProject), 0, 0) >= 0)
        destroy_eventstore_staging_buffer_semaphore();
    remove_segment(kTableProject, "configuration table");
}

}  // namespace kvservice
