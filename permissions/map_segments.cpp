// The two segments that hold images: one current, one free for the next build.
//
// Concurrency. One builder, any number of readers, no locks. The builder creates the free segment,
// fills it, flips the index semaphore and only then removes the old segment; the flip publishes. A
// reader reads the index, attaches that segment and reads the index again: if it changed, the
// segment may already be marked for removal, so it is given back and the new one attached. A
// removed segment stays whole for those who have it attached. A builder that dies before the flip
// leaves a segment that nobody uses, which has to be removed before the next build; after the flip
// it leaves the old one, likewise.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "manage_perms.h"
#include "perm_map.h"
#include "permissions/map_semaphore.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using kavrin::kAlways;
using kavrin::kDecision;

constexpr key_t perm_map_shm_keys[2] = {0x70657269, 0x7065726A};
constexpr int kNoSegment = -2;
constexpr int kLookupRetries = 2;

void* const kAttachFailed = reinterpret_cast<void*>(-1);

// Without a persisted map no segment is trusted.
bool persisted_map_exists() {
    const kavrin::HeapString location(get_permbe_map_location());
    struct stat st;
    if (location != nullptr && stat(location.get(), &st) == 0) return true;
    KV_TRACE(kAlways, "PERM_MAP get_perm_map_addr: No permission map file\n");
    return false;
}

// The current table's index and segment id; retries a look-up that meets a swap. False when there
// is none.
bool find_current_segment(int& index, int& id) {
    for (int retries = 0;; ++retries) {
        index = get_current_perm_table_index();
        if (index == -1) {
            KV_TRACE(kAlways, "PERM_MAP get_perm_map_addr: get_current_perm_table_index failed\n");
            return false;
        }
        const key_t key = perm_map_shm_keys[index];
        id = shmget(key, 0, 0);
        if (id != -1) return true;
        if (retries == kLookupRetries) {
            KV_TRACE(kAlways, "PERM_MAP %s:shared memory get retry failed, code=%d (%s)\n",
                     KV_MESSENGER, errno, std::strerror(errno));
            return false;
        }
        KV_TRACE(kAlways,
                 "PERM_MAP %s:shared memory get failed - retrying, code=%d (%s) key 0x%x index "
                 "%d\n",
                 KV_MESSENGER, errno, std::strerror(errno), static_cast<unsigned>(key), index);
    }
}

// The image that stays attached between readers, if that is wanted.
struct KeptImage {
    bool wanted = false;
    bool in_use = false;
    int id = -1;
    void* address = nullptr;

    // Takes it, if it is the segment that is current.
    void* take(int current_id) {
        if (address == nullptr || in_use) return nullptr;
        if (id != current_id) {
            drop();
            return nullptr;
        }
        in_use = true;
        return address;
    }
    void store(int attached_id, void* attached) {
        if (!wanted || address != nullptr) return;
        id = attached_id;
        address = attached;
        in_use = true;
    }
    void drop() {
        if (address != nullptr && !in_use) shmdt(std::exchange(address, nullptr));
    }
};
KeptImage kept;

}  // namespace

bool kavrin::is_perm_map_kept(const void* address) {
    return kept.wanted && address != nullptr && address == kept.address;
}

extern "C" key_t get_next_perm_table_key(int current) {
    KV_ASSERT(current == 0 || current == 1);
    return perm_map_shm_keys[current == 0 ? 1 : 0];
}

extern "C" int get_current_perm_table_shmid(int current) {
    KV_ASSERT(current == 0 || current == 1);
    const int id = shmget(perm_map_shm_keys[current], 0, 0);
    if (id != -1) return id;
    if (errno == ENOENT) {
        KV_TRACE(kAlways,
                 "PERM_MAP %s:shared memory get failed with ENOENT, assume the first shared "
                 "memory segment has not been initialized\n",
                 KV_MESSENGER);
        return kNoSegment;
    }
    KV_TRACE(kAlways, "PERM_MAP %s:shared memory get failed, code=%d (%s)\n", KV_MESSENGER, errno,
             std::strerror(errno));
    return -1;
}

extern "C" void* create_perm_map_shm(key_t key, unsigned int size, int* shmid) {
    if (shmid == nullptr) {
        KV_TRACE(kAlways, "PERM_MAP %s:input address to create_perm_map_shm() for shmid is NULL\n",
                 KV_MESSENGER);
        return nullptr;
    }
    *shmid = shmget(key, size, IPC_CREAT | IPC_EXCL);  // mode 000: root's processes only
    if (*shmid == -1) {
        if (errno == EEXIST) {
            KV_TRACE(kAlways,
                     "PERM_MAP %s:shared memory segment already exists for key 0x%x, must not "
                     "have been cleaned up or is already be getting created, code=%d (%s)\n",
                     KV_MESSENGER, static_cast<unsigned>(key), errno, std::strerror(errno));
        } else {
            KV_TRACE(kAlways,
                     "PERM_MAP %s:shared memory creation failed for key 0x%x size %u, code=%d "
                     "(%s)\n",
                     KV_MESSENGER, static_cast<unsigned>(key), size, errno, std::strerror(errno));
        }
        return nullptr;
    }
    void* address = shmat(*shmid, nullptr, 0);
    if (address == kAttachFailed) {
        KV_TRACE(kAlways, "PERM_MAP %s:cannot attach shared memory, code=%d (%s)\n", KV_MESSENGER,
                 errno, std::strerror(errno));
        shmctl(*shmid, IPC_RMID, nullptr);
        return nullptr;
    }
    return address;
}

extern "C" int swap_maps(int current) {
    KV_ASSERT(current == 0 || current == 1);
    int old_segment = kNoSegment;
    if (map_initialized(0) != 0) {
        old_segment = get_current_perm_table_shmid(current);
        if (old_segment == -1) {
            KV_TRACE(kAlways, "PERM_MAP %s:get_current_perm_table_shmid failed\n", KV_MESSENGER);
            return -1;
        }
    }
    struct sembuf flip = {0, static_cast<short>(current == 1 ? -1 : 1), 0};
    if (semop(perm_map_sem.sem, &flip, 1) == -1) {
        KV_TRACE(kAlways, "PERM_MAP %s:cannot update semaphore value, code=%d (%s)\n", KV_MESSENGER,
                 errno, std::strerror(errno));
        return -1;
    }
    if (old_segment >= 0 && shmctl(old_segment, IPC_RMID, nullptr) == -1) {
        KV_TRACE(kAlways, "PERM_MAP %s:cannot remove old shared memory segment, code=%d (%s)\n",
                 KV_MESSENGER, errno, std::strerror(errno));
        return -1;
    }
    return 0;
}

extern "C" void* get_perm_map_addr(void) {
    if (!persisted_map_exists()) return nullptr;
    for (;;) {
        int index = -1;
        int id = -1;
        if (!find_current_segment(index, id)) return nullptr;
        void* address = kept.take(id);
        if (address != nullptr) return address;
        address = shmat(id, nullptr, 0);
        if (address == kAttachFailed) {
            KV_TRACE(kAlways, "PERM_MAP %s:shared memory attach failed, code=%d (%s)\n",
                     KV_MESSENGER, errno, std::strerror(errno));
            return nullptr;
        }
        const int index_now = get_current_perm_table_index();
        if (index_now == index) {
            kept.store(id, address);
            return address;
        }
        if (index_now == -1) {
            shmdt(address);
            KV_TRACE(kAlways, "PERM_MAP get_current_perm_table_index failed\n");
            return nullptr;
        }
        KV_TRACE(kDecision, "PERM_MAP %p shared memory segment was swapped out, retry\n", address);
        shmdt(address);
    }
}

extern "C" void put_perm_map_addr(void* addr) {
    if (addr == nullptr) return;
    if (addr != kept.address) {
        shmdt(addr);
        return;
    }
    kept.in_use = false;
    if (!kept.wanted) kept.drop();
}

extern "C" void keep_perm_map(int keep) {
    kept.wanted = keep != 0;
    if (!kept.wanted) kept.drop();
}
