// The persisted map during a build. The library truncates and rewrites the file in place, so a
// build that ends in the middle would lose the map that is served; and readers trust no segment
// while the file is missing, so it is never moved away either. Therefore: a copy beside it before,
// a rename of the copy over it when the build fails, removal of the copy when it succeeds. A copy
// found at the start was left by a build that never got to either.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kvadmin {

// A whole file in memory, read only; empty when it has no bytes.
class MappedFile {
public:
    // Fails with kFailure; `missing_is_empty` makes a missing file exists() == false instead.
    explicit MappedFile(const std::string& path, bool missing_is_empty = false);
    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    bool exists() const { return exists_; }
    std::span<const std::uint8_t> bytes() const { return bytes_; }

private:
    bool exists_ = false;
    std::span<const std::uint8_t> bytes_;
};

// Where the persisted map lies.
std::string persisted_map_path();

// Deals with what an interrupted build left: its copy goes back unless the persisted map is the one
// that readers use or once used, for then the build was over. Returns one remark for each thing
// done.
std::vector<std::string> recover_persisted_map();

class PersistedCopy {
public:
    PersistedCopy();   // makes the copy, durable; nothing when there is no persisted map
    ~PersistedCopy();  // puts the file back unless drop() was called
    PersistedCopy(const PersistedCopy&) = delete;
    PersistedCopy& operator=(const PersistedCopy&) = delete;
    // The new map stays: removes the copy. Returns false when it could not be removed.
    bool drop();

private:
    bool existed_ = false;
    bool armed_ = true;
};

// Makes the persisted map durable; the library leaves that to the kernel.
void flush_persisted_map();

}  // namespace kvadmin
