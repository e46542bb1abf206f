// See user_options.h.
#include "user_options.h"

#include <algorithm>

#include "command.h"

namespace kvadmin {
namespace {

bool is_number(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

Identity identity(const std::string& user, std::vector<std::string>& remarks) {
    if (!is_number(user)) return identity_of_user(user);
    // The highest number is nobody's: it means "leave as it is" to the calls that set ids.
    if (user.size() > 10 || std::stoull(user) >= 0xFFFFFFFFu)
        fail(Exit::kUsage, "no user has the id {}", user);
    return identity_of_uid(static_cast<uid_t>(std::stoull(user)), std::nullopt, std::nullopt,
                           remarks);
}

}  // namespace

void add_map_option(CLI::App& command, std::string& file) {
    command.add_option("--map,--file", file, "Read this map file (default: the live map, as root)")
        ->type_name("FILE");
}

void add_reserved_group_options(CLI::App& command, std::string& admin, std::string& power) {
    command
        .add_option("--admin", admin,
                    fmt::format("The administrators' group (default: {})", kAdminsGroup))
        ->type_name("GROUP");
    command
        .add_option("--power", power,
                    fmt::format("The power users' group (default: {})", kPowerUsersGroup))
        ->type_name("GROUP");
}

void add_standing_options(CLI::App& command, UserOptions& options) {
    add_reserved_group_options(command, options.admin, options.power);
    command
        .add_option("--root", options.root,
                    "The share's folder on this machine, to tell files from folders and whose the "
                    "folders in Private are")
        ->type_name("DIR");
}

Caller caller_of(const Identity& who, gid_t admins, gid_t powerusers) {
    const auto in = [&who](gid_t gid) {
        return std::find(who.groups.begin(), who.groups.end(), gid) != who.groups.end();
    };
    return {who.uid, who.gid, {who.groups.begin(), who.groups.end()}, in(admins), in(powerusers)};
}

User user_of(const UserOptions& options) {
    std::vector<std::string> remarks;
    User user;
    user.who = identity(options.user, remarks);
    const gid_t admins = reserved_group(options.admin, "--admin", kAdminsGroup, remarks).gid;
    const gid_t powers = reserved_group(options.power, "--power", kPowerUsersGroup, remarks).gid;
    user.caller = caller_of(user.who, admins, powers);
    for (const std::string& remark : remarks) note(remark);
    return user;
}

std::string_view standing_name(const Caller& caller) {
    if (caller.uid == 0) return "root";
    return caller.admin ? "administrator" : caller.poweruser ? "power user" : "standard user";
}

std::string user_line(const User& user) {
    return fmt::format("{}: {}", words_for_user(user.who.uid), standing_name(user.caller));
}

}  // namespace kvadmin
