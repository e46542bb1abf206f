// A group map's contents from the account and group databases; see groupmap_source.h.
//
// A look-up in the map takes names for equal that differ by letter case. Where the machine has two
// such accounts with different groups, one of them would be given the other's, so neither gets an
// entry: a connection without one has no groups, and with them no rights.
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "failure.h"
#include "groupmap_source.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr std::size_t kLargestEntry = std::size_t{1} << 26;

struct Account {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The list of accounts is open while an object of this lives.
class AccountList {
public:
    AccountList() : buffer_(4096) { setpwent(); }
    ~AccountList() { endpwent(); }
    AccountList(const AccountList&) = delete;
    AccountList& operator=(const AccountList&) = delete;

    std::optional<Account> next() {
        for (;;) {
            passwd entry{};
            passwd* found = nullptr;
            const int error = getpwent_r(&entry, buffer_.data(), buffer_.size(), &found);
            if (error == ERANGE && buffer_.size() < kLargestEntry)
                buffer_.resize(2 * buffer_.size());
            else if (error == EINTR)
                continue;
            else if (error == 0 && found != nullptr)
                return Account{entry.pw_name, entry.pw_uid, entry.pw_gid};
            else if (error == 0 || error == ENOENT)
                return std::nullopt;
            else
                fail(Exit::kFailure, "cannot list the accounts: {}; nothing was written",
                     strerror(error));
        }
    }

private:
    std::vector<char> buffer_;
};

std::vector<std::uint32_t> groups_of(const Account& account) {
    std::vector<gid_t> groups(64);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(account.name.c_str(), account.gid, groups.data(), &count) < 0) {
        groups.resize(std::max(static_cast<std::size_t>(count), 2 * groups.size()));
        if (groups.size() > 4 * kMostGroupsOfUser)
            fail(Exit::kFailure, "the groups of '{}' cannot be listed; nothing was written",
                 printable(account.name));
        count = static_cast<int>(groups.size());
    }
    groups.resize(static_cast<std::size_t>(count));
    if (groups.size() > kMostGroupsOfUser)
        fail(Exit::kFailure,
             "'{}' is in {} groups, and no process may have more than {}; nothing was written",
             printable(account.name), groups.size(), kMostGroupsOfUser);
    const auto primary = std::find(groups.begin(), groups.end(), account.gid);
    if (primary != groups.end())
        std::rotate(groups.begin(), primary, primary + 1);
    else
        groups.insert(groups.begin(), account.gid);
    return groups;
}

// Accounts under the name that look-ups compare, in the order of the database.
class Namesakes {
public:
    explicit Namesakes(std::vector<std::string>& remarks) : remarks_(remarks) {}

    void add(Account account) {
        const auto [found, added] = places_.emplace(folded_name(account.name), sets_.size());
        if (added) sets_.emplace_back();
        std::vector<Account>& set = sets_[found->second];
        const auto same = std::find_if(set.begin(), set.end(), [&](const Account& other) {
            return other.name == account.name;
        });
        if (same == set.end()) return set.push_back(std::move(account));
        if (same->uid != account.uid || same->gid != account.gid)
            remarks_.push_back(fmt::format(
                "'{}' is there twice, with different ids; the first one counts, uid {} in group {}",
                printable(account.name), same->uid, same->gid));
    }

    // One entry for each name of which an account has at least this uid.
    void take(uid_t min_uid, std::vector<GroupMapUser>& users) {
        for (const std::vector<Account>& set : sets_) {
            const auto chosen = std::find_if(set.begin(), set.end(), [&](const Account& account) {
                return account.uid >= min_uid;
            });
            if (chosen == set.end()) continue;
            GroupMapUser user{chosen->name, groups_of(*chosen)};
            if (may_share(set, user)) users.push_back(std::move(user));
        }
    }

private:
    // Whether every account of the set has the groups of `user`.
    bool may_share(const std::vector<Account>& set, const GroupMapUser& user) {
        const auto sorted = [](std::vector<std::uint32_t> gids) {
            std::sort(gids.begin(), gids.end());
            return gids;
        };
        for (const Account& other : set) {
            if (other.name == user.name) continue;
            const bool equal = sorted(groups_of(other)) == sorted(user.gids);
            remarks_.push_back(fmt::format(
                "the accounts '{}' and '{}' are one name to the reader; {}", printable(user.name),
                printable(other.name),
                equal ? "they have the same groups and share an entry"
                      : "they have different groups, so both are left out: rename one"));
            if (!equal) return false;
        }
        return true;
    }

    std::vector<std::string>& remarks_;
    std::vector<std::vector<Account>> sets_;
    std::unordered_map<std::string, std::size_t> places_;
};

void add_listed(Namesakes& accounts, std::vector<std::string>& remarks) {
    AccountList list;
    while (auto account = list.next()) {
        if (const std::string_view flaw = flaw_of_name(account->name); !flaw.empty()) {
            remarks.push_back(fmt::format("the account with uid {} is left out: its name {}",
                                          account->uid, flaw));
            continue;
        }
        accounts.add(std::move(*account));
    }
}

void add_named(Namesakes& accounts, const std::vector<std::string>& names,
               std::vector<std::string>& remarks) {
    for (const std::string& name : names) {
        errno = 0;
        const passwd* entry = getpwnam(name.c_str());
        if (entry == nullptr)
            fail(
                Exit::kUsage,
                "there is no user '{}'; name users that 'getent passwd' knows; nothing was written",
                printable(name));
        if (folded_name(entry->pw_name) != folded_name(name))
            remarks.push_back(fmt::format("the machine calls '{}' '{}'; that is the entry's name",
                                          printable(name), printable(entry->pw_name)));
        accounts.add({entry->pw_name, entry->pw_uid, entry->pw_gid});
    }
}

std::vector<GroupMapReserved> reserved_groups(const std::vector<std::string>& names,
                                              std::vector<std::string>& remarks) {
    std::vector<GroupMapReserved> reserved;
    std::vector<std::string> seen;
    for (const std::string& name : names) {
        if (std::find(seen.begin(), seen.end(), folded_name(name)) != seen.end()) continue;
        seen.push_back(folded_name(name));
        const group* entry = getgrnam(name.c_str());
        if (entry == nullptr) {
            remarks.push_back(fmt::format("there is no group '{}' on this machine; it is left out",
                                          printable(name)));
            continue;
        }
        if (entry->gr_gid == 0)
            fail(Exit::kFailure,
                 "the group '{}' has the id 0, which the reader cannot tell from a missing group; "
                 "give it another id; nothing was written",
                 printable(name));
        reserved.push_back({name, entry->gr_gid});
    }
    return reserved;
}

}  // namespace

GroupMapContent groupmap_of_accounts(const AccountChoice& choice,
                                     std::vector<std::string>& remarks) {
    GroupMapContent content;
    content.reserved = reserved_groups(choice.reserved, remarks);
    Namesakes accounts(remarks);
    if (choice.users.empty())
        add_listed(accounts, remarks);
    else
        add_named(accounts, choice.users, remarks);
    accounts.take(choice.min_uid, content.users);
    if (content.users.empty())
        fail(Exit::kFailure,
             "no account is left to write; a group map without users would take every group from "
             "every connection; nothing was written");
    return content;
}

}  // namespace kvadmin
