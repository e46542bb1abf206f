// See kernel_objects.h.
#include "kernel_objects.h"

#include <sys/ipc.h>

#include <cerrno>
#include <cstring>

#include "perm_map.h"

namespace kvadmin {
namespace {

constexpr int kTableProject = 3456;
constexpr int kMapProject = 7065;
constexpr int kStagingProject = 1234;
constexpr int kStagingSemaphoreProject = 2345;

key_t key_of(int project) {
    return ftok("/dev/null", project);
}

}  // namespace

SegmentState segment_at(key_t key) {
    SegmentState segment;
    segment.key = key;
    const int id = shmget(key, 0, 0);
    if (id < 0 || shmctl(id, IPC_STAT, &segment.status) != 0)
        segment.error = errno;
    else
        segment.id = id;
    return segment;
}

SemaphoreState semaphores_at(key_t key) {
    SemaphoreState set;
    set.key = key;
    const int id = semget(key, 0, 0);
    if (id < 0 || semctl(id, 0, IPC_STAT, &set.status) != 0) {
        set.error = errno;
        return set;
    }
    set.id = id;
    for (int i = 0; i < static_cast<int>(set.status.sem_nsems); ++i)
        set.values.push_back(semctl(id, i, GETVAL));
    set.last_process = semctl(id, 0, GETPID);
    return set;
}

SegmentView::SegmentView(const SegmentState& segment) {
    void* const address = shmat(segment.id, nullptr, SHM_RDONLY);
    if (address == reinterpret_cast<void*>(-1)) {
        error_ = errno;
        return;
    }
    attached_ = true;
    bytes_ = {static_cast<const std::uint8_t*>(address), segment.bytes()};
}

SegmentView::~SegmentView() {
    if (attached_) shmdt(bytes_.data());
}

SegmentState config_table_segment() {
    return segment_at(key_of(kTableProject));
}

SegmentState map_segment(int table) {
    return segment_at(get_next_perm_table_key(1 - table));
}

SemaphoreState map_semaphores() {
    return semaphores_at(key_of(kMapProject));
}

SegmentState staging_segment() {
    return segment_at(key_of(kStagingProject));
}

SemaphoreState staging_semaphore() {
    return semaphores_at(key_of(kStagingSemaphoreProject));
}

std::optional<std::vector<global_param_t>> config_table_copy() {
    const SegmentState segment = config_table_segment();
    if (!segment.exists() || segment.bytes() < PARAM_MAX_INDEX * sizeof(global_param_t))
        return std::nullopt;
    const SegmentView attached(segment);
    if (!attached.attached()) return std::nullopt;
    std::vector<global_param_t> table(PARAM_MAX_INDEX);
    std::memcpy(table.data(), attached.bytes().data(), PARAM_MAX_INDEX * sizeof(global_param_t));
    return table;
}

std::optional<StagingHeader> staging_header(std::span<const std::uint8_t> buffer) {
    if (buffer.size() < sizeof(staging_buffer_t)) return std::nullopt;
    // One load, because the writers' one store changes both.
    using Words [[gnu::may_alias]] = const std::uint64_t;
    const std::uint64_t both =
        __atomic_load_n(reinterpret_cast<Words*>(buffer.data()), __ATOMIC_ACQUIRE);
    return StagingHeader{static_cast<std::uint32_t>(both), static_cast<std::uint32_t>(both >> 32)};
}

}  // namespace kvadmin
