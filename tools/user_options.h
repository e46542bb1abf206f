// What the commands that judge a whole map for a user are told on the command line: the map, the
// user, and the groups that give a standing.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "caller_masks.h"
#include "identity.h"

namespace CLI {
class App;
}

namespace kvadmin {

// --map, and --file as the older commands call it.
void add_map_option(CLI::App& command, std::string& file);

// --admin and --power: the groups whose members count as administrators and power users.
void add_reserved_group_options(CLI::App& command, std::string& admin, std::string& power);

// The options of the commands that show a user's rights.
struct UserOptions {
    std::string user;  // a name or a uid
    std::string admin;
    std::string power;
    std::string root;
};
void add_standing_options(CLI::App& command, UserOptions& options);

struct User {
    Identity who;
    Caller caller;
};
// Remarks go to standard error.
User user_of(const UserOptions& options);
Caller caller_of(const Identity& who, gid_t admins, gid_t powerusers);
// "anna (1001): power user".
std::string user_line(const User& user);
std::string_view standing_name(const Caller& caller);

}  // namespace kvadmin
