// Which files of a folder are events for their reader, and in which order: a name that begins with
// "pending_" stands on a complete file, and tells when the file was made.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "failure.h"
#include "record_file.h"

namespace kvadmin {

inline constexpr std::string_view kPendingPrefix = "pending_";

// "pending_SECONDS.MICROSECONDS"; nothing for names that were made without a clock.
struct PendingTime {
    std::int64_t seconds;
    std::int64_t microseconds;
    auto operator<=>(const PendingTime&) const = default;
};
std::optional<PendingTime> time_of_pending(std::string_view name);

// By the time in the name; names without one come last, in alphabetical order.
bool pending_before(const std::string& left, const std::string& right);

// The folder given, or the staging folder of the shared configuration table. Fails when neither is
// there.
std::string staging_folder(const std::string& given);

// All names in a folder; errno in `error` when it cannot be read.
std::vector<std::string> names_in(const std::string& folder, int& error);

// The pending files of a folder in their order. Fails when the folder cannot be read.
std::vector<std::string> pending_names(const std::string& folder);

// A regular file for reading. Invalid with errno; EINVAL for what is no regular file.
Descriptor open_record_file(const std::string& path);

// "PATH: byte 43: its signature is …".
std::string line_for(const std::string& path, const RecordDamage& damage);

// A file to read.
struct RecordPath {
    std::string path;
    bool listed;  // found in a folder: the event store may take it away meanwhile
};

// Reads the files of a command, tells about each that cannot be read to its end, and goes on with
// the next.
class RecordInput {
public:
    // The files that the arguments name, folders replaced by their pending files.
    std::vector<RecordPath> files(const std::vector<std::string>& arguments);

    // Invalid when the file cannot be opened, which is told unless it vanished.
    Descriptor open(const RecordPath& file);

    void tell(const std::string& path, const RecordWalk& walk);

    template <typename Message, typename Use>
    RecordWalk read(const RecordPath& file, Use&& use) {
        const Descriptor descriptor = open(file);
        if (!descriptor.valid()) return {};
        ++files_;
        RecordWalk walk = walk_records<Message>(descriptor.get(), 0, use);
        tell(file.path, walk);
        return walk;
    }

    std::uint64_t files_read() const { return files_; }
    std::uint64_t damaged() const { return damaged_; }
    // Damage outweighs a file that could not be read.
    Exit exit() const;

private:
    std::uint64_t files_ = 0;
    std::uint64_t damaged_ = 0;
    bool unreadable_ = false;
};

}  // namespace kvadmin
