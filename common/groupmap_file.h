// Makes the group-map file that smbd takes a user's groups from (kavrin_getgrouplist.h): what it
// says, its bytes, and the way onto the disk. The reader bounds a user's group ids by the offset of
// the user's name, so all names lie before all ids: whatever the lists are, the file then reaches
// further behind each name than the name's own list is long.
//
// groupmap_accounts and groupmap_json are the two places that contents come from; groupmap_check
// is the judge of what was made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "identity.h"  // the names of the reserved groups
#include "kavrin_getgrouplist.h"

namespace kvadmin {

// Where the share's module looks for it.
inline constexpr const char* kGroupMapPath = "/etc/kavrin/groupmap_refresh";

inline constexpr std::size_t kMostGroupsOfUser = 65'536;   // what the kernel lets a process have
inline constexpr std::size_t kLongestAccountName = 1'024;  // bytes; no directory has longer ones
inline constexpr std::uint32_t kHighestGroupId = 4'294'967'294;  // the next one means "none"

struct GroupMapReserved {
    std::string name;
    std::uint32_t gid = 0;
};

struct GroupMapUser {
    std::string name;
    std::vector<std::uint32_t> gids;  // the primary one first
};

struct GroupMapContent {
    std::vector<GroupMapReserved> reserved;
    std::vector<GroupMapUser> users;
};

// What is wrong with a name, as the end of a sentence that begins with it; empty when nothing is.
std::string_view flaw_of_name(std::string_view name);

// The name as look-ups compare it: ASCII letters in lower case, all other bytes as they are.
std::string folded_name(std::string_view name);

// The largest file whose size fits the reader's 32 bits.
inline constexpr std::uint64_t kLargestGroupMap =
    UINT32_MAX / KAVRIN_GROUPMAP_ALIGN * KAVRIN_GROUPMAP_ALIGN;

// The file's bytes. Fails when there would be more than `largest` of them.
std::string encode_groupmap(const GroupMapContent& content,
                            std::uint64_t largest = kLargestGroupMap);

// Puts the bytes at `path` in one step, readable by all, and moves its modification time past every
// connection that may still have read the file before it. What was there stays on failure.
void write_groupmap(const std::string& path, std::string_view bytes);

}  // namespace kvadmin
