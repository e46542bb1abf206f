// The configuration table: one System V segment that the map-building service writes and every
// other process copies.
//
// Concurrency: no lock. The service fills the values before any reader starts; a reader takes a
// snapshot and sees later changes only with its next read_kavrin_config(). `varname` holds
// addresses of the creating process: nobody else may follow them.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "eventstore.h"
#include "utils/trace.h"

global_param_t* global_params = nullptr;

namespace {

using kavrin::kAlways;

constexpr std::size_t kTableSize = PARAM_MAX_INDEX * sizeof(global_param_t);
constexpr int kProjectId = 3456;

// What the messages of a creation name themselves with.
constexpr char kCreate[] = "create_config_buffer";

static_assert(sizeof(global_param_t) == 1040);
static_assert(offsetof(global_param_t, type) == 0);
static_assert(offsetof(global_param_t, varname) == 8);
static_assert(offsetof(global_param_t, value) == 16);
static_assert(kTableSize == 19760);

struct Slot {
    e_kavrin_global_index_t index;
    e_param_val_type_t type;
    const char* key;
};

// Slots 11 and 12 have neither type nor key.
constexpr Slot kSlots[] = {
    {PARAM_DEFAULT_USER_ID, PARAM_VAL_TYPE_INT, "VFS:default user"},
    {PARAM_DEFAULT_GROUP_ID, PARAM_VAL_TYPE_INT, "VFS:default group"},
    {PARAM_REGEX_FILE_NAME, PARAM_VAL_TYPE_STRING, "VFS:exception pattern file"},
    {PARAM_DISABLE_SWEEPER_FLUSH, PARAM_VAL_TYPE_BOOLEAN, "SWEEPER:disable sweeper flush"},
    {PARAM_STAGING_BUFFER_SIZE, PARAM_VAL_TYPE_INT, "SWEEPER:staging buffer size"},
    {PARAM_FLUSH_PERIOD, PARAM_VAL_TYPE_INT, "SWEEPER:flush period"},
    {PARAM_STAGING_DIR, PARAM_VAL_TYPE_STRING, "SWEEPER:staging dir"},
    {PARAM_FLUSH_FILL_THRESHOLD, PARAM_VAL_TYPE_INT, "SWEEPER:flush fill threshold pct"},
    {PARAM_SOCKET_BACKLOG, PARAM_VAL_TYPE_INT, "MESSENGER:socket backlog"},
    {PARAM_SOCKET_MESSAGE_SIZE, PARAM_VAL_TYPE_INT, "MESSENGER:socket message size"},
    {PARAM_SOCKET_PATH, PARAM_VAL_TYPE_STRING, "MESSENGER:socket path"},
    {PARAM_CHECK_REGEX_UNLINK, PARAM_VAL_TYPE_INT, "VFS:check regex unlink"},
    {PARAM_DEBUG_LEVEL, PARAM_VAL_TYPE_INT, "VFS:debug level"},
    {PARAM_ENABLE_FORBIDDEN_RMDIR, PARAM_VAL_TYPE_BOOLEAN, "VFS:enable forbidden rmdir"},
    {PARAM_AUDITING_DIR, PARAM_VAL_TYPE_STRING, "SWEEPER:auditing dir"},
    {PARAM_AUDITING_BUFFER_SIZE, PARAM_VAL_TYPE_INT, "SWEEPER:auditing buffer size"},
    {PARAM_AUDITING_FLUSH_INTERVAL, PARAM_VAL_TYPE_INT, "SWEEPER:auditing flush interval"},
};
static_assert(std::size(kSlots) == PARAM_MAX_INDEX - 2);

key_t table_key() {
    return ftok("/dev/null", kProjectId);
}

// Removes the table that stands in the way of a new one; false when it cannot.
bool clear_the_way() {
    sleep(1);
    if (remove_config_buffer() != 0) {
        KV_TRACE(kAlways, "%s: cannot remove shared memory for global param.\n", kCreate);
        return false;
    }
    sleep(1);
    KV_TRACE(kAlways,
             "%s: success removing shared memory for global param will try to re-create.\n",
             kCreate);
    return true;
}

// The id of a new segment, or -1: two attempts at most, the second after removing an old table.
int create_segment() {
    for (int attempt = 1;; ++attempt) {
        const key_t key = table_key();
        if (key == -1) {
            KV_TRACE(kAlways, "%s: cannot create sema key for shm\n", kCreate);
            return -1;
        }
        const int id = shmget(key, kTableSize, IPC_CREAT | IPC_EXCL | 0666);
        if (id != -1) return id;
        const int error = errno;
        KV_TRACE(kAlways,
                 "%s: cannot create shared memory for global param error_no=%d error_sz=%s\n",
                 kCreate, error, std::strerror(error));
        if (error != EEXIST || attempt == 2) return -1;
        KV_TRACE(kAlways,
                 "%s: cannot create shared memory for global param error_no=%d error_sz=%s will "
                 "remove and retry\n",
                 kCreate, error, std::strerror(error));
        if (!clear_the_way()) return -1;
    }
}

}  // namespace

extern "C" int create_config_buffer(void) {
    const int id = create_segment();
    if (id == -1) return -1;
    // Stored before it is tested: the failed-attach value marks a table that nobody may use.
    global_params = static_cast<global_param_t*>(shmat(id, nullptr, 0));
    if (global_params == reinterpret_cast<global_param_t*>(-1)) {
        KV_TRACE(kAlways, "%s: cannot attach to shm Errno %d\n", __func__, errno);
        return -1;
    }
    std::memset(static_cast<void*>(global_params), 0, kTableSize);
    for (const Slot& slot : kSlots) {
        global_params[slot.index].type = slot.type;
        global_params[slot.index].varname = slot.key;
    }
    return 0;
}

extern "C" int remove_config_buffer(void) {
    const key_t key = table_key();
    if (key == -1) {
        KV_TRACE(kAlways, "%s: cannot get sema key for shm\n", __func__);
        return -1;
    }
    const int id = shmget(key, kTableSize, 0666);
    if (id == -1) {
        KV_TRACE(kAlways, "%s: cannot get shared memory for global param\n", __func__);
        return -1;
    }
    shmctl(id, IPC_RMID, nullptr);
    return 0;
}

extern "C" int read_kavrin_config(void) {
    void* block = std::realloc(global_params, kTableSize);
    if (block == nullptr) {
        std::free(global_params);
        global_params = nullptr;
        KV_TRACE(kAlways, "could not allocate global_params buffer\n");
        return -1;
    }
    // A block that was just allocated holds nothing yet, and the failures below ask it for the
    // debug level.
    if (global_params == nullptr) std::memset(block, 0, kTableSize);
    global_params = static_cast<global_param_t*>(block);
    const key_t key = table_key();
    if (key == -1) {
        KV_TRACE(kAlways, "cannot create sema key for shm. errno = %d(%s)\n", errno,
                 std::strerror(errno));
        return -1;
    }
    // A reader that comes before the service makes an all-zero table rather than failing.
    const int id = shmget(key, kTableSize, IPC_CREAT | 0666);
    if (id == -1) {
        KV_TRACE(kAlways, "cannot create shared memory for global param. errno = %d(%s)\n", errno,
                 std::strerror(errno));
        return -1;
    }
    void* shared = shmat(id, nullptr, 0);
    if (shared == reinterpret_cast<void*>(-1)) {
        KV_TRACE(kAlways, "cannot attach to shm. errno = %d(%s)\n", errno, std::strerror(errno));
        return -1;
    }
    std::memset(block, 0, kTableSize);
    std::memcpy(block, shared, kTableSize);
    shmdt(shared);
    KV_TRACE(5, "kavrin:%s have read kavrin config\n", __func__);
    return 0;
}
