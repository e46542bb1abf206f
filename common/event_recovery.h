// What a process that died in a flush left in the staging folder: temporary files that lack their
// pending name, so that the event store does not see them.
//
// A flush writes the records to a temporary file, syncs it, empties the staging buffer and renames
// the file. Who died before the buffer was emptied left a copy of what another flush writes again;
// who died after it left the only one. So every temporary file is held against the staging buffer
// first and then against the other files of the folder: records that have left the buffer by the
// time of the look are in a file by then. The one case that cannot be told is a copy whose
// original the event store has taken away already: it is given to it a second time.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kvadmin {

enum class TemporaryFate {
    kPublished,  // has its pending name now
    kDuplicate,  // removed: its records are somewhere else
    kEmpty,      // removed
    kTorn,       // set aside, and the event store told to rescan
    kYoung,      // left alone: its process may be at work
    kOpen,       // left alone: its process is at work
    kFailed      // left alone: see the remark
};

struct TemporaryFile {
    std::string name;
    TemporaryFate fate = TemporaryFate::kFailed;
    std::uint64_t bytes = 0;
    std::uint64_t records = 0;  // whole ones
    std::string other;          // the new name, or what it is a copy of
    std::string remark;         // torn: where and how; failed: why
};

struct RecoveryOptions {
    std::chrono::seconds older_than{10};  // younger files are left alone
    bool dry_run = false;                 // only look
};

struct RecoveryReport {
    std::vector<TemporaryFile> files;  // the oldest first
    std::string error;                 // not empty: the folder cannot be read
};

// Deals with all temporary files of a staging folder. Runs as root, beside working flushers, and
// may die at any point: what it did not finish the next call does. Needs the configuration table.
RecoveryReport recover_events(const std::string& folder, const RecoveryOptions& options);

// "published", "duplicate", …
const char* fate_name(TemporaryFate fate);

}  // namespace kvadmin
