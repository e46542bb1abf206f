// The persisted copy of the current image, which survives restarts.
#pragma once

#include "mkperms_shm.h"

namespace kavrin {

// Writes the image to the map file, in place.
e_membe_shm_err persist_perm_map(const memsummary_t& summary, const char* path);

// Reads the map file into the image.
e_membe_shm_err restore_perm_map(const memsummary_t& summary, const char* path);

}  // namespace kavrin
