// The two places for a map and what says which of them readers use, as objects that clean up: the
// lock that keeps builds apart, the semaphore set, the place of the next map, a segment to read.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "descriptor.h"

namespace kvadmin {

// Root's alone, or anybody could keep maps from being built.
inline constexpr const char* kBuildLockPath = "/run/kavrin/build.lock";

// Held by this process and by its child until both are gone. Waits at most so long for another
// build to end; fails by CommandError, as busy when that was not enough.
class BuildLock {
public:
    explicit BuildLock(std::chrono::seconds patience = {});

private:
    Descriptor file_;
};

// The table that readers use now, 0 or 1. Opens the semaphore set, making it when there is none,
// without ever resetting a live one; fails when its values are impossible.
int open_current_table();

// The same for the service's start: a set that is damaged is made anew, and a remark says so.
int repair_current_table(std::vector<std::string>& remarks);

// A segment's bytes, read only.
class AttachedSegment {
public:
    explicit AttachedSegment(int id);  // fails by CommandError
    ~AttachedSegment();
    AttachedSegment(const AttachedSegment&) = delete;
    AttachedSegment& operator=(const AttachedSegment&) = delete;
    std::span<const std::uint8_t> bytes() const { return bytes_; }

private:
    std::span<const std::uint8_t> bytes_;
};

// Keeps the old segment in being for a moment after readers were switched over. A reader that has
// found it but not attached it yet would otherwise meet a segment that is gone and go without a
// map; so it attaches, sees that it came too late, and takes the new one.
class LateReaders {
public:
    explicit LateReaders(key_t old_key);
    ~LateReaders();
    LateReaders(const LateReaders&) = delete;
    LateReaders& operator=(const LateReaders&) = delete;

private:
    std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
    const void* old_ = nullptr;
};

// The place of the new segment: clear when made, clear again unless publish() was reached. Under
// the lock whatever lies there is nobody's, so the key alone tells what to remove, also when the
// child was killed before it could name its segment.
class NextTable {
public:
    NextTable(int current, std::vector<std::string>& remarks);
    ~NextTable();
    NextTable(const NextTable&) = delete;
    NextTable& operator=(const NextTable&) = delete;

    key_t key() const { return key_; }
    int segment() const;
    int table() const { return 1 - current_; }

    // Switches readers over. The switch removes the old segment unless maps were never marked
    // available, which is so when an earlier build was killed between the switch and the mark.
    void publish(std::vector<std::string>& remarks);

private:
    int current_;
    key_t key_;
    bool published_ = false;
    std::optional<LateReaders> late_readers_;
};

// The segment that readers use now; nothing when there is none. Makes and changes nothing.
std::optional<int> live_segment();

// Marks a segment for removal; a failure is told with note().
void remove_segment(int id);

// The segment of a table, and nothing when there is none.
std::optional<int> segment_of_table(int table);

}  // namespace kvadmin
