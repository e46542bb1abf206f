// The semaphore set that tells which of the two segments is current and whether any was ever made
// available.
//
// Concurrency: semaphore 0 is the number of the current table, semaphore 1 turns from 0 to 1 once.
// Neither is ever a lock and nobody waits: what publishes a map is the one semop() that flips
// semaphore 0. Only the builder changes values; readers look the set up by key on every use and so
// survive a builder that removed and recreated it. A process that dies holds nothing.
#include "permissions/map_semaphore.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstring>

#include "utils/trace.h"

struct perm_map_sem_s perm_map_sem = {-1, {0, 0}};

namespace {

using kavrin::kAlways;

constexpr char kKeyPath[] = "/dev/null";
constexpr int kProjectId = 7065;
constexpr int kIndexSemaphore = 0;
constexpr int kInitializedSemaphore = 1;
constexpr int kSemaphores = 2;

// The caller of semctl() defines it.
union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
    struct seminfo* __buf;
};

bool semaphore_key(key_t& key) {
    key = ftok(kKeyPath, kProjectId);
    if (key != -1) return true;
    KV_TRACE(kAlways, "PERM_MAP %s:cannot generate semaphore key for %s/%d, error_code=%d (%s)\n",
             KV_MESSENGER, kKeyPath, kProjectId, errno, std::strerror(errno));
    return false;
}

// Table 0 current, nothing available.
bool reset_semaphores(int id) {
    perm_map_sem.sarray[kIndexSemaphore] = 0;
    perm_map_sem.sarray[kInitializedSemaphore] = 0;
    union semun argument;
    argument.array = perm_map_sem.sarray;
    return semctl(id, 0, SETALL, argument) != -1;
}

// The builder's opening; the set's id, or -1.
int open_for_builder(key_t key) {
    const int id = semget(key, kSemaphores, IPC_CREAT | 0666);
    if (id == -1 && errno != EEXIST) {
        KV_TRACE(kAlways, "PERM_MAP %s:cannot create the permission map semaphore, code=%d (%s)\n",
                 KV_MESSENGER, errno, std::strerror(errno));
        return -1;
    }
    if (!reset_semaphores(id)) {
        KV_TRACE(kAlways, "PERM_MAP %s:cannot set the permission map semaphore, code=%d (%s)\n",
                 KV_MESSENGER, errno, std::strerror(errno));
        return -1;
    }
    return id;
}

// The reader's opening; the set's id, or -1.
int open_for_reader(key_t key) {
    int id = semget(key, 0, 0666);
    if (id != -1) return id;
    KV_TRACE(kAlways,
             " %s: PERM_MAP cannot get the permission map semaphore, code=%d (%s) key=0x%x will "
             "recreate\n",
             KV_MESSENGER, errno, std::strerror(errno), static_cast<unsigned>(key));
    if (_recreate_perm_map_semaphore(&id, &key) != 0) return -1;
    if (!reset_semaphores(id)) {
        KV_TRACE(kAlways,
                 "PERM_MAP %s: recreate cannot set the permission map semaphore, code=%d (%s)\n",
                 KV_MESSENGER, errno, std::strerror(errno));
        return -1;
    }
    id = semget(key, 0, 0666);
    if (id == -1) return -1;
    KV_TRACE(kAlways, "PERM_MAP %s: recreate success assigning to map  key=0x%x\n", KV_MESSENGER,
             static_cast<unsigned>(key));
    return id;
}

int valid_index(int current) {
    KV_ASSERT(current == 0 || current == 1);
    return current;
}

}  // namespace

extern "C" int _recreate_perm_map_semaphore(int* sem, key_t* key) {
    *sem = semget(*key, kSemaphores, IPC_CREAT | 0666);
    if (*sem == -1 && errno != EEXIST) {
        KV_TRACE(kAlways,
                 "PERM_MAP %s: recreate failed cannot create the permission map semaphore, "
                 "code=%d (%s)\n",
                 KV_MESSENGER, errno, std::strerror(errno));
        return *sem;
    }
    KV_TRACE(kAlways, "PERM_MAP %s: recreate success key=0x%x\n", KV_MESSENGER,
             static_cast<unsigned>(*key));
    return 0;
}

extern "C" int _init_perm_map_semaphore(int create) {
    key_t key = -1;
    if (!semaphore_key(key)) return -1;
    const int id = create != 0 ? open_for_builder(key) : open_for_reader(key);
    if (id == -1) return -1;
    perm_map_sem.sem = id;
    return 0;
}

extern "C" int create_perm_map_semaphore(void) {
    return _init_perm_map_semaphore(1);
}

extern "C" int init_perm_map_semaphore(void) {
    return _init_perm_map_semaphore(0);
}

extern "C" void destroy_perm_map(void) {
    semctl(perm_map_sem.sem, 0, IPC_RMID);
}

extern "C" int map_initialized(int set) {
    const int initialized = semctl(perm_map_sem.sem, kInitializedSemaphore, GETVAL);
    KV_ASSERT(initialized < 2);
    if (initialized == -1) {
        KV_TRACE(kAlways, "PERM_MAP %s:Failed semctl, code=%d (%s)\n", KV_MESSENGER, errno,
                 std::strerror(errno));
        return -1;
    }
    if (set == 0) return initialized;
    if (initialized != 0) return 0;
    struct sembuf raise = {kInitializedSemaphore, 1, 0};
    if (semop(perm_map_sem.sem, &raise, 1) == -1) {
        KV_TRACE(kAlways, "PERM_MAP %s:cannot update initialized semaphore value, code=%d (%s)\n",
                 KV_MESSENGER, errno, std::strerror(errno));
        return -1;
    }
    return 0;
}

extern "C" int get_current_perm_table_index(void) {
    key_t key = -1;
    if (!semaphore_key(key)) return -1;
    const int id = semget(key, 0, 0666);
    if (id == -1) {
        KV_TRACE(kAlways,
                 "PERM_MAP %s:PRIOR to map_initialize cannot get the permission map semaphore, "
                 "code=%d (%s)\n",
                 KV_MESSENGER, errno, std::strerror(errno));
        return -1;
    }
    perm_map_sem.sem = id;
    map_initialized(0);  // for its trace
    const int current = semctl(id, kIndexSemaphore, GETVAL);
    if (current == -1) {
        KV_TRACE(kAlways, "PERM_MAP %s: %s Failed semctl, code=%d (%s)\n", KV_MESSENGER, __func__,
                 errno, std::strerror(errno));
        return -1;
    }
    return valid_index(current);
}

extern "C" int get_current_perm_table_index_for_fill(void) {
    key_t key = -1;
    if (!semaphore_key(key)) return -1;
    const int current = semctl(perm_map_sem.sem, kIndexSemaphore, GETVAL);
    if (current == -1) {
        KV_TRACE(kAlways, "PERM_MAP %s:Failed semctl, code=%d (%s)\n", KV_MESSENGER, errno,
                 std::strerror(errno));
        return -1;
    }
    return valid_index(current);
}
