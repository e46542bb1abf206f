// The staging buffer's shared objects in scopes: the semaphore while it is held, the segment while
// it is attached. And the one way to change a buffer's header.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kavrin_utils.h"

namespace kavrin {

inline constexpr std::uint32_t kRecordHeader = offsetof(staging_data_t, buffer);
inline constexpr std::uint32_t kFirstRecord = offsetof(staging_buffer_t, data);

// Publishes how many records a buffer holds and where they end, both at once: a process that dies
// between any two instructions leaves a buffer that can be walked record by record.
void set_buffer_fill(staging_buffer_t& buffer, std::uint32_t num_records,
                     std::uint32_t next_offset);

// Appends a record that has room, publishing it when it is complete.
void append_record(staging_buffer_t& buffer, const staging_data_t& record);

class StagingSemaphore {
public:
    // Waits, however often a signal interrupts that. False with errno when it was not taken.
    bool wait();
    // Gives it back, if it is held.
    void post();
    StagingSemaphore() = default;
    ~StagingSemaphore() { post(); }
    StagingSemaphore(const StagingSemaphore&) = delete;
    StagingSemaphore& operator=(const StagingSemaphore&) = delete;

private:
    bool held_ = false;
};

class AttachedStaging {
public:
    AttachedStaging() : buffer_(get_eventstore_staging_buffer()) {}
    ~AttachedStaging() {
        if (buffer_ != nullptr) put_eventstore_staging_buffer(buffer_);
    }
    AttachedStaging(const AttachedStaging&) = delete;
    AttachedStaging& operator=(const AttachedStaging&) = delete;
    explicit operator bool() const { return buffer_ != nullptr; }
    staging_buffer_t& operator*() const { return *buffer_; }
    staging_buffer_t* operator->() const { return buffer_; }

private:
    staging_buffer_t* buffer_;
};

// Maps a whole buffer at one go: page by page, that would cost more than copying what it holds.
void map_pages(staging_buffer_t& buffer);

// Empties an attached buffer; holders of the semaphore only.
void empty_buffer(staging_buffer_t& buffer);

// Bytes of the segment as the kernel has it, 0 when there is none: the configured size may have
// changed since it was created.
std::size_t staging_segment_size();

}  // namespace kavrin
