// See sim_accounts.h.
#include "sim_accounts.h"

#include <fmt/format.h>
#include <pwd.h>

#include "identity.h"

namespace kvadmin {
namespace {

constexpr uid_t kNobody = 65'534;

}  // namespace

SimCaller caller_of_account(const std::string& name) {
    if (getpwnam(name.c_str()) == nullptr) return {name, kNobody, kNobody, {}, false};
    const Identity account = identity_of_user(name);
    return {name, account.uid, account.gid, account.groups, true};
}

std::string user_words(uid_t uid) {
    const passwd* account = getpwuid(uid);
    return account != nullptr ? std::string(account->pw_name) : fmt::format("uid {}", uid);
}

}  // namespace kvadmin
