// What the shared staging buffer holds at a moment.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvadmin {

struct StagingSnapshot {
    bool exists = false;  // the segment and its semaphore are there
    std::uint32_t num_records = 0;
    std::vector<std::uint8_t> records;  // the first of them
    std::string error;                  // not empty: the buffer is there and cannot be looked at
};

// Copies at most `limit` bytes of records, holding the semaphore meanwhile. A buffer whose header
// points outside of the segment holds nothing.
StagingSnapshot snapshot_staging(std::size_t limit);

}  // namespace kvadmin
