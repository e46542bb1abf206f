// What the segments need of the semaphore set.
#pragma once

#include "perm_map.h"

// The label that messages of the map mechanism name their component with.
#define KV_MESSENGER "kavrin_messenger"

// This process's hold on the set.
extern struct perm_map_sem_s perm_map_sem;

namespace kavrin {

// Whether giving this image back leaves it attached.
bool is_perm_map_kept(const void* address);

}  // namespace kavrin
