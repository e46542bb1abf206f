// See machine_users.h.
#include "machine_users.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <set>
#include <tuple>

namespace kvadmin {

std::vector<Identity> machine_users(const std::vector<gid_t>& groups,
                                    const std::vector<uid_t>& uids) {
    std::set<std::string> names;
    setpwent();
    while (const passwd* entry = getpwent()) names.insert(entry->pw_name);
    endpwent();
    for (const gid_t gid : groups) {
        const group* entry = getgrgid(gid);
        for (char** member = entry != nullptr ? entry->gr_mem : nullptr;
             member != nullptr && *member != nullptr; ++member)
            names.insert(*member);
    }
    for (const uid_t uid : uids) {
        if (const passwd* entry = getpwuid(uid)) names.insert(entry->pw_name);
    }
    std::vector<Identity> users;
    for (const std::string& name : names) {
        // A group may still list somebody whose account is gone.
        if (getpwnam(name.c_str()) != nullptr) users.push_back(identity_of_user(name));
    }
    std::sort(users.begin(), users.end(), [](const Identity& a, const Identity& b) {
        return std::tie(a.uid, a.name) < std::tie(b.uid, b.name);
    });
    return users;
}

}  // namespace kvadmin
