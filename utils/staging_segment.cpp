// The staging buffer's shared objects: the segment that holds the records of all processes, and the
// semaphore that guards it. Both are looked up by key on every use, so that every process survives
// the service recreating them.
//
// The segment's size is that of the configuration table of whoever asks.
#include "utils/staging_segment.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>

#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using kavrin::kAlways;

constexpr int kSegmentProject = 1234;
constexpr int kSemaphoreProject = 2345;
constexpr key_t kNoKey = -1;

// With what removal looks the segment up; larger than the smallest buffers.
constexpr std::size_t kRemovalSize = 20800;

static_assert(sizeof(staging_data_t) == 8 && offsetof(staging_data_t, sig) == 4);
static_assert(offsetof(staging_buffer_t, num_records) == 0);
static_assert(offsetof(staging_buffer_t, next_offset) == 4);
static_assert(offsetof(staging_buffer_t, last_flush_time) == 8);
static_assert(kavrin::kRecordHeader == 8 && kavrin::kFirstRecord == 16);

std::size_t configured_size() {
    return static_cast<std::size_t>(global_params[PARAM_STAGING_BUFFER_SIZE].value.intval);
}

key_t segment_key() {
    return ftok("/dev/null", kSegmentProject);
}

key_t semaphore_key() {
    const key_t key = ftok("/dev/null", kSemaphoreProject);
    if (key == kNoKey)
        KV_TRACE(kAlways, "cannot create the staging buffer semaphore. errno = %d(%s)\n", errno,
                 std::strerror(errno));
    return key;
}

// Undone by the kernel when the process dies holding the semaphore.
int change_semaphore(short by) {
    const key_t key = semaphore_key();
    if (key == kNoKey) return -1;
    sembuf operation{.sem_num = 0, .sem_op = by, .sem_flg = SEM_UNDO};
    return semop(semget(key, 1, 0), &operation, 1);
}

staging_buffer_t* attach(int segment) {
    void* const address = shmat(segment, nullptr, 0);
    return address == reinterpret_cast<void*>(-1) ? nullptr
                                                  : static_cast<staging_buffer_t*>(address);
}

}  // namespace

namespace kavrin {

void set_buffer_fill(staging_buffer_t& buffer, std::uint32_t num_records,
                     std::uint32_t next_offset) {
    static_assert(std::endian::native == std::endian::little);
    using Words __attribute__((may_alias)) = std::uint64_t;
    const Words both = std::uint64_t{next_offset} << 32 | num_records;
    __atomic_store_n(reinterpret_cast<Words*>(&buffer), both, __ATOMIC_RELEASE);
}

void append_record(staging_buffer_t& buffer, const staging_data_t& record) {
    const std::uint32_t size = record.size + kRecordHeader;
    std::memcpy(reinterpret_cast<char*>(&buffer) + buffer.next_offset, &record, size);
    set_buffer_fill(buffer, buffer.num_records + 1, buffer.next_offset + size);
}

bool StagingSemaphore::wait() {
    while (!held_) {
        held_ = wait_eventstore_semaphore() == 0;
        if (!held_ && errno != EINTR) return false;
    }
    return true;
}

void StagingSemaphore::post() {
    if (!held_) return;
    held_ = false;
    const KeptErrno kept;
    post_eventstore_semaphore();
}

void map_pages(staging_buffer_t& buffer) {
    const KeptErrno kept;
    madvise(&buffer, configured_size(), MADV_POPULATE_WRITE);  // or they are mapped when touched
}

void empty_buffer(staging_buffer_t& buffer) {
    // The header first: whoever dies on the way leaves an empty buffer, not one that holds zeros.
    set_buffer_fill(buffer, 0, kFirstRecord);
    buffer.last_flush_time = 0;
    if (const std::size_t size = configured_size(); size > kFirstRecord)
        std::memset(buffer.data, 0, size - kFirstRecord);
}

std::size_t staging_segment_size() {
    const key_t key = segment_key();
    if (key == kNoKey) return 0;
    shmid_ds status{};
    return shmctl(shmget(key, 0, 0), IPC_STAT, &status) == 0 ? status.shm_segsz : 0;
}

}  // namespace kavrin

extern "C" int create_eventstore_staging_semaphore(void) {
    const key_t key = ftok("/dev/null", kSemaphoreProject);
    if (key == kNoKey) {
        KV_TRACE(kAlways, "cannot access the staging buffer semaphore. errno = %d(%s)\n", errno,
                 std::strerror(errno));
        return -1;
    }
    semctl(semget(key, 1, IPC_CREAT | IPC_EXCL | 0666), 0, SETVAL, 1);
    return 1;
}

extern "C" int destroy_eventstore_staging_buffer_semaphore(void) {
    const key_t key = semaphore_key();
    if (key == kNoKey) return -1;
    semctl(semget(key, 1, 0), 0, IPC_RMID);
    return 1;
}

extern "C" int wait_eventstore_semaphore(void) {
    return change_semaphore(-1);
}

extern "C" int post_eventstore_semaphore(void) {
    return change_semaphore(1);
}

extern "C" int create_staging_buffer(void) {
    const key_t key = segment_key();
    if (key == kNoKey) {
        KV_TRACE(kAlways, "cannot create shm key, errno = %d\n", errno);
        return -1;
    }
    if (shmget(key, configured_size(), IPC_CREAT | IPC_EXCL | 0666) < 0) {
        KV_TRACE(kAlways, "\ncannot create shared memory for staging buffer, errno = %d\n", errno);
        return -1;
    }
    return initialize_staging_buffer();
}

extern "C" int initialize_staging_buffer(void) {
    const int segment = shmget(segment_key(), configured_size(), 0666);
    if (segment < 0) {
        KV_TRACE(kAlways, "cannot access shared memory for staging buffer, errno = %d\n", errno);
        return -1;
    }
    staging_buffer_t* const buffer = attach(segment);
    if (buffer == nullptr) {
        KV_TRACE(kAlways, "cannot attach to shm, errno = %d\n", errno);
        return -1;
    }
    kavrin::map_pages(*buffer);
    kavrin::empty_buffer(*buffer);
    shmdt(buffer);
    return 0;
}

extern "C" staging_buffer_t* get_eventstore_staging_buffer(void) {
    const key_t key = segment_key();
    if (key == kNoKey) {
        KV_TRACE(kAlways, "cannot create staging buffer key. errno = %d(%s)\n", errno,
                 std::strerror(errno));
        return nullptr;
    }
    const int segment = shmget(key, configured_size(), 0666);
    if (segment < 0) {
        KV_TRACE(kAlways, "\ncannot create shared memory for staging buffer. errno = %d(%s)\n",
                 errno, std::strerror(errno));
        return nullptr;
    }
    staging_buffer_t* const buffer = attach(segment);
    if (buffer == nullptr)
        KV_TRACE(kAlways, "cannot attach to shm. errno = %d(%s)\n", errno, std::strerror(errno));
    return buffer;
}

extern "C" int put_eventstore_staging_buffer(staging_buffer_t* buf) {
    return shmdt(buf);
}

extern "C" int remove_staging_buffers(void) {
    const key_t key = segment_key();
    if (key == kNoKey) {
        KV_TRACE(kAlways, "Cannot create sema key for shm\n");
        return -1;
    }
    const int segment = shmget(key, kRemovalSize, 0666);
    if (segment < 0) {
        KV_TRACE(kAlways, "Cannot create shared memory for global param\n");
        return -1;
    }
    return shmctl(segment, IPC_RMID, nullptr);
}
