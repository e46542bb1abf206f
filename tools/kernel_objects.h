// The System V objects of a share as the kernel has them, looked at from outside: nothing is made,
// nothing is waited for and nothing is asserted, so that a look never hangs on what hangs, nor ends
// on what is damaged.
#pragma once

#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "eventstore.h"

namespace kvadmin {

// The segment at a key.
struct SegmentState {
    key_t key = -1;
    int id = -1;
    int error = 0;  // why there is none to look at
    shmid_ds status{};

    bool exists() const { return id >= 0; }
    std::size_t bytes() const { return status.shm_segsz; }
};
SegmentState segment_at(key_t key);

// The semaphore set at a key, with its values.
struct SemaphoreState {
    key_t key = -1;
    int id = -1;
    int error = 0;
    semid_ds status{};
    std::vector<int> values;
    pid_t last_process = 0;  // of the last change of the first semaphore

    bool exists() const { return id >= 0; }
};
SemaphoreState semaphores_at(key_t key);

// Attached for reading while one lives; it stays whole when it is removed meanwhile.
class SegmentView {
public:
    explicit SegmentView(const SegmentState& segment);
    ~SegmentView();
    SegmentView(const SegmentView&) = delete;
    SegmentView& operator=(const SegmentView&) = delete;
    bool attached() const { return attached_; }
    int error() const { return error_; }
    std::span<const std::uint8_t> bytes() const { return bytes_; }

private:
    bool attached_ = false;
    int error_ = 0;
    std::span<const std::uint8_t> bytes_;
};

SegmentState config_table_segment();
SegmentState map_segment(int table);  // 0 or 1
SemaphoreState map_semaphores();  // which table is current, and whether a map was made available
SegmentState staging_segment();
SemaphoreState staging_semaphore();

// A copy of the configuration table; nothing when there is none, or what is there is too small.
std::optional<std::vector<global_param_t>> config_table_copy();

// The staging buffer's count and end, which change together.
struct StagingHeader {
    std::uint32_t records = 0;
    std::uint32_t next_offset = 0;
    bool operator==(const StagingHeader&) const = default;
};
std::optional<StagingHeader> staging_header(std::span<const std::uint8_t> buffer);

}  // namespace kvadmin
