// Six processes over one staging buffer, as the smbds of a busy server: writing as fast as they
// can, being killed at any moment, on a disk that is full most of the time. Each run makes its own
// buffer and accounts for every event. Only below scripts/sandbox.
#pragma once

#include <cstddef>
#include <string>

#include "ledger.h"

namespace kvsoak {

struct Plan {
    std::string folder;           // the staging folder: an empty one
    int buffer_size = 16 * 1024;  // bytes
    std::size_t events = 20000;   // of each writer, at the most
    int milliseconds = 0;         // end earlier after this time; 0 for never
    unsigned seed = 1;            // of the moments of death
};

Counts run_writers(const Plan& plan);    // nobody dies
Counts run_kills(const Plan& plan);      // one after another dies by SIGKILL and is replaced
Counts run_full_disk(const Plan& plan);  // a disk of four pages, emptied from time to time

}  // namespace kvsoak
