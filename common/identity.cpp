// See identity.h.
#include "identity.h"

#include <grp.h>
#include <pwd.h>

#include <charconv>
#include <sstream>

#include "failure.h"

namespace kvadmin {
namespace {

constexpr gid_t kNoGroup = 65534;
constexpr int kMostGroups = 65536;  // what the kernel lets a process have

std::optional<std::uint32_t> parse_id(const std::string& text) {
    std::uint32_t id = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, id);
    // The highest number means "leave as it is" to the calls that set ids.
    if (error != std::errc() || stop != end || id == 0xFFFFFFFFu) return std::nullopt;
    return id;
}

std::vector<gid_t> groups_of(const char* name, gid_t primary) {
    int count = 32;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (getgrouplist(name, primary, groups.data(), &count) < 0) {
        if (count > kMostGroups || count <= static_cast<int>(groups.size()))
            fail(Exit::kFailure, "the groups of {} cannot be listed", name);
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

}  // namespace

Identity identity_of_user(const std::string& name) {
    const passwd* entry = getpwnam(name.c_str());
    if (entry == nullptr)
        fail(Exit::kUsage,
             "there is no user {}; name one that 'getent passwd' knows, or give --uid", name);
    Identity who{entry->pw_name, entry->pw_uid, entry->pw_gid, {}};
    who.groups = groups_of(who.name.c_str(), who.gid);
    return who;
}

Identity identity_of_uid(uid_t uid, std::optional<gid_t> gid,
                         std::optional<std::vector<gid_t>> groups,
                         std::vector<std::string>& remarks) {
    Identity who;
    who.uid = uid;
    const passwd* entry = getpwuid(uid);
    if (entry != nullptr) {
        who.name = entry->pw_name;
        who.gid = entry->pw_gid;
    } else if (!gid) {
        who.gid = kNoGroup;
        remarks.push_back(fmt::format(
            "uid {} is not in the user database: taken to be in group {} (--gid says otherwise)",
            uid, kNoGroup));
    }
    who.gid = gid.value_or(who.gid);
    if (groups) {
        who.groups = *groups;
    } else if (!who.name.empty()) {
        who.groups = groups_of(std::string(who.name).c_str(), who.gid);
    }
    return who;
}

gid_t parse_group(const std::string& text, const char* option) {
    if (const auto id = parse_id(text)) return *id;
    const group* entry = getgrnam(text.c_str());
    if (entry == nullptr)
        fail(Exit::kUsage, "{}: '{}' is neither a group id nor a group that 'getent group' knows",
             option, text);
    return entry->gr_gid;
}

std::vector<gid_t> parse_groups(const std::string& text, const char* option) {
    std::vector<gid_t> groups;
    std::istringstream parts(text);
    for (std::string part; std::getline(parts, part, ',');)
        groups.push_back(parse_group(part, option));
    if (groups.size() > static_cast<std::size_t>(kMostGroups))
        fail(Exit::kUsage, "{}: a process has at most {} groups", option, kMostGroups);
    return groups;
}

ReservedGroup reserved_group(const std::string& given, const char* option, const char* name,
                             std::vector<std::string>& remarks) {
    if (!given.empty()) return {name, parse_group(given, option)};
    const group* entry = getgrnam(name);
    if (entry != nullptr) return {name, entry->gr_gid};
    remarks.push_back(fmt::format(
        "there is no group {}: its members are taken to be those of group 0 ({} says otherwise)",
        name, option));
    return {name, 0};
}

std::string words_for_user(uid_t uid) {
    const passwd* entry = getpwuid(uid);
    return entry != nullptr ? fmt::format("{} ({})", entry->pw_name, uid)
                            : fmt::format("uid {}", uid);
}

std::string words_for_group(gid_t gid) {
    const group* entry = getgrgid(gid);
    return entry != nullptr ? fmt::format("group {} ({})", entry->gr_name, gid)
                            : fmt::format("group {}", gid);
}

std::string short_name(const Identity& who) {
    return who.name.empty() ? fmt::format("uid {}", who.uid) : who.name;
}

}  // namespace kvadmin
