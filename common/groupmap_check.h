// The judge of group-map files. The library's reader trusts its writer with the place of the user
// table and of every list; this trusts nothing, and the law is: in a file that is sound() every
// name is found, every list lies whole inside, and no look-up leaves the file.
//
// Time is linear in the file but for one sort, memory at most about the file's size again, whatever
// the bytes are.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kavrin_getgrouplist.h"

namespace kvadmin {

// A group-map file as bytes that nobody vouches for: every access is checked against what is there.
class GroupMapView {
public:
    // A name without an end so far behind its start counts as one without an end.
    static constexpr std::size_t kLongestName = 4'096;

    // Nothing when there is no room for a header.
    static std::optional<GroupMapView> open(std::span<const std::uint8_t> bytes);

    const mapheader& header() const { return header_; }
    std::span<const std::uint8_t> bytes() const { return bytes_; }

    std::optional<ritem> reserved(std::uint32_t index) const;
    std::optional<uitem> user(std::uint32_t index) const;
    std::optional<std::string_view> name_at(std::uint32_t offset) const;
    std::optional<std::uint32_t> gid(const uitem& user, std::uint32_t index) const;

private:
    explicit GroupMapView(std::span<const std::uint8_t> bytes);

    template <typename Record>
    std::optional<Record> read(std::uint64_t offset) const;

    std::span<const std::uint8_t> bytes_;
    mapheader header_{};
};

struct GroupMapFinding {
    bool fault = true;         // else a remark: odd, but harmless
    std::uint64_t offset = 0;  // of the record or field, in bytes of the file
    std::string record;        // "header", "user 7", ...
    std::string message;       // what is wrong
};

struct GroupMapReport {
    static constexpr std::size_t kKeptFindings = 100;  // of faults, and of remarks

    std::vector<GroupMapFinding> findings;  // in the order of their discovery
    std::uint64_t faults = 0;               // all of them, kept or not
    std::uint64_t remarks = 0;
    std::uint64_t bytes = 0;
    std::uint32_t reserved = 0;  // as the header announces them
    std::uint32_t users = 0;

    bool sound() const { return faults == 0; }
};

GroupMapReport check_groupmap(std::span<const std::uint8_t> bytes);

// "byte 32, user 7: what is wrong".
std::string line_for(const GroupMapFinding& finding);

// The first fault as a line; empty when there is none.
std::string first_fault(const GroupMapReport& report);

// A whole file in memory, so that what is checked is what is read afterwards, whoever writes to the
// file meanwhile. Fails by CommandError.
std::vector<std::uint8_t> read_groupmap(const std::string& path);

}  // namespace kvadmin
