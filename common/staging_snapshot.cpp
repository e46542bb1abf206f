// See staging_snapshot.h.
#include "staging_snapshot.h"

#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>

#include "kavrin_utils.h"

namespace kvadmin {
namespace {

constexpr int kProject = 1234;
constexpr std::size_t kFirstRecord = offsetof(staging_buffer_t, data);

struct Segment {
    int id = -1;
    std::size_t size = 0;
};

// As the kernel has it: the configured size may have changed since it was made.
Segment find_segment() {
    const Segment none;
    const int id = shmget(ftok("/dev/null", kProject), 0, 0);
    shmid_ds status{};
    if (id < 0 || shmctl(id, IPC_STAT, &status) != 0) return none;
    return {id, status.shm_segsz};
}

class HeldSemaphore {
public:
    HeldSemaphore() {
        do held_ = wait_eventstore_semaphore() == 0;
        while (!held_ && errno == EINTR);
    }
    ~HeldSemaphore() {
        if (held_) post_eventstore_semaphore();
    }
    HeldSemaphore(const HeldSemaphore&) = delete;
    HeldSemaphore& operator=(const HeldSemaphore&) = delete;
    explicit operator bool() const { return held_; }

private:
    bool held_;
};

void copy_records(const staging_buffer_t& buffer, std::size_t segment_size, std::size_t limit,
                  StagingSnapshot& snapshot) {
    const std::size_t end = buffer.next_offset;
    snapshot.num_records = buffer.num_records;
    if (segment_size < kFirstRecord || end < kFirstRecord || end > segment_size) return;
    const std::size_t size = std::min(end - kFirstRecord, limit);
    snapshot.records.assign(buffer.data, buffer.data + size);
}

}  // namespace

StagingSnapshot snapshot_staging(std::size_t limit) {
    StagingSnapshot snapshot;
    const HeldSemaphore semaphore;
    if (!semaphore) {
        // The wait does not tell a set that is not there from one that went away.
        if (errno != EINVAL && errno != EIDRM && errno != ENOENT)
            snapshot.error =
                fmt::format("cannot wait for the staging buffer semaphore: {}", strerror(errno));
        return snapshot;
    }
    const Segment segment = find_segment();
    if (segment.id < 0) return snapshot;
    snapshot.exists = true;
    const std::unique_ptr<staging_buffer_t, int (*)(staging_buffer_t*)> buffer(
        get_eventstore_staging_buffer(), put_eventstore_staging_buffer);
    if (buffer == nullptr || find_segment().id != segment.id) {
        snapshot.error = fmt::format(
            "cannot attach the staging buffer: {}; it has {} bytes, compare 'SWEEPER:staging "
            "buffer "
            "size' of 'kavrinctl config show'",
            buffer == nullptr ? strerror(errno) : "it was replaced", segment.size);
        return snapshot;
    }
    copy_records(*buffer, segment.size, limit, snapshot);
    return snapshot;
}

}  // namespace kvadmin
