// Who a verdict is asked for: names to ids, group lists, and ids back to the names that people
// know. The system's user and group databases are the only source.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kvadmin {

struct Identity {
    std::string name;  // empty when the database has none
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // supplementary, as a file server would set them
};

// The group whose members count as administrators or power users.
struct ReservedGroup {
    std::string name;
    gid_t gid = 0;
};

inline constexpr char kAdminsGroup[] = "kavrin-admins";
inline constexpr char kPowerUsersGroup[] = "kavrin-powerusers";

// A user of the database with all groups it gives. An unknown name is a usage error.
Identity identity_of_user(const std::string& name);

// A uid, known or not. What is not given comes from the database; for a uid that it does not have,
// the group is nogroup's and there are no others, which a remark says.
Identity identity_of_uid(uid_t uid, std::optional<gid_t> gid,
                         std::optional<std::vector<gid_t>> groups,
                         std::vector<std::string>& remarks);

// "1000" or "staff". Anything else is a usage error that names `option`.
gid_t parse_group(const std::string& text, const char* option);
// Several of them, separated by commas; empty is none.
std::vector<gid_t> parse_groups(const std::string& text, const char* option);

// The group given, or the one of that name, or 0 with a remark.
ReservedGroup reserved_group(const std::string& given, const char* option, const char* name,
                             std::vector<std::string>& remarks);

// "alice (1001)" or "uid 1001"; "group staff (1000)" or "group 1000".
std::string words_for_user(uid_t uid);
std::string words_for_group(gid_t gid);
// "alice", or "uid 1001".
std::string short_name(const Identity& who);

}  // namespace kvadmin
