// A group map's contents from a JSON file; see groupmap_source.h. Two keys that a look-up would
// take for one are an error here, where a general parser would keep the last of them silently.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <unordered_map>
#include <unordered_set>

#include "descriptor.h"
#include "failure.h"
#include "groupmap_source.h"
#include "lint_walk.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr std::string_view kKeys[] = {"reserved", "users"};
constexpr std::size_t kReserved = 0;
constexpr std::size_t kUsers = 1;

// The keys of one object as look-ups compare them, and where each was first given.
class KeyPlaces {
public:
    // Reports a key that was there before.
    void add(JsonWalk& walk, const Token& key) {
        const auto [found, added] =
            places_.emplace(folded_name(key.text), First{std::string(key.text), key.place});
        if (added) return;
        const First& first = found->second;
        if (first.name == key.text)
            walk.violation(key.place, "{} is given twice, first in line {}; keep one",
                           quoted(key.text), first.place.line);
        else
            walk.violation(key.place,
                           "{} differs only by letter case from {} in line {}, and look-ups take "
                           "them for one; keep one",
                           quoted(key.text), kvadmin::quoted(first.name), first.place.line);
    }

private:
    struct First {
        std::string name;
        Place place;
    };
    std::unordered_map<std::string, First> places_;
};

class GroupMapJson {
public:
    GroupMapJson(ByteSource& source, Findings& findings) : walk_(source, findings) {}

    GroupMapContent read();

private:
    void read_members();
    void read_reserved(const Token& value);
    void read_users(const Token& value);
    std::vector<std::uint32_t> read_gids(const Token& value, const std::string& what);
    void check_name(const Token& key, const char* what);

    JsonWalk walk_;
    GroupMapContent content_;
};

GroupMapContent GroupMapJson::read() {
    try {
        if (walk_.expect(walk_.begin(), TokenKind::kBeginObject, "the document")) read_members();
        walk_.end();
    } catch (const CannotGoOn&) {
        // The reason is among the findings.
    }
    return std::move(content_);
}

void GroupMapJson::read_members() {
    bool has[std::size(kKeys)] = {};
    bool first = true;
    Token key;
    while (walk_.next_key(first, key)) {
        const std::size_t index = index_of(kKeys, key.text);
        if (index == std::size(kKeys)) {
            walk_.violation(key.place, "unknown key {}; there are \"reserved\" and \"users\" only",
                            quoted(key.text));
            walk_.skip(walk_.value());
            continue;
        }
        if (std::exchange(has[index], true))
            walk_.violation(key.place, "\"{}\" is given twice; put both into one", kKeys[index]);
        const Token value = walk_.value();
        if (index == kReserved)
            read_reserved(value);
        else
            read_users(value);
    }
    if (!has[kUsers])
        walk_.violation(key.place,
                        "\"users\" is missing; add it, as {{}} if there are to be no users");
}

void GroupMapJson::check_name(const Token& key, const char* what) {
    if (key.flaw != StringFlaw::kNone) return;  // reported already
    const std::string_view flaw =
        key.length > key.text.size() ? "is longer than 1,024 bytes" : flaw_of_name(key.text);
    if (!flaw.empty())
        walk_.violation(key.place, "the name of {} {}; write it as the account database has it",
                        what, flaw);
}

void GroupMapJson::read_reserved(const Token& value) {
    if (!walk_.expect(value, TokenKind::kBeginObject, "\"reserved\"")) return;
    KeyPlaces places;
    bool first = true;
    Token key;
    while (walk_.next_key(first, key)) {
        check_name(key, "a reserved group");
        places.add(walk_, key);
        GroupMapReserved group{std::string(key.text), 0};
        const Token id = walk_.value();
        const auto gid = walk_.number(id, kHighestGroupId,
                                      fmt::format("the id of {}", kvadmin::quoted(group.name)));
        if (gid == 0u)
            walk_.violation(id.place,
                            "the id of {} is 0, which the reader cannot tell from a missing group; "
                            "give the group another id, or leave it out",
                            kvadmin::quoted(group.name));
        group.gid = static_cast<std::uint32_t>(gid.value_or(0));
        content_.reserved.push_back(std::move(group));
    }
}

void GroupMapJson::read_users(const Token& value) {
    if (!walk_.expect(value, TokenKind::kBeginObject, "\"users\"")) return;
    KeyPlaces places;
    bool first = true;
    Token key;
    while (walk_.next_key(first, key)) {
        check_name(key, "a user");
        places.add(walk_, key);
        GroupMapUser user{std::string(key.text), {}};
        user.gids = read_gids(walk_.value(), kvadmin::quoted(user.name));
        content_.users.push_back(std::move(user));
    }
}

std::vector<std::uint32_t> GroupMapJson::read_gids(const Token& value, const std::string& what) {
    std::vector<std::uint32_t> gids;
    if (!walk_.expect(value, TokenKind::kBeginArray, fmt::format("the groups of {}", what)))
        return gids;
    const std::string one = "a group of " + what;
    std::unordered_set<std::uint32_t> seen;
    bool first = true;
    Token item;
    while (walk_.next_item(first, item)) {
        const auto number = walk_.number(item, kHighestGroupId, one);
        if (!number) continue;
        const auto gid = static_cast<std::uint32_t>(*number);
        if (!seen.insert(gid).second)
            walk_.violation(item.place, "{} is in group {} twice; keep one", what, gid);
        else if (gids.size() == kMostGroupsOfUser)
            walk_.stop(item.place, "{} is in more than {} groups, which no process may have", what,
                       kMostGroupsOfUser);
        gids.push_back(gid);
    }
    return gids;
}

}  // namespace

GroupMapContent groupmap_of_json(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid())
        fail(Exit::kFailure, "cannot open '{}': {}; nothing was written", path, strerror(errno));
    ByteSource source(file.get());
    constexpr std::size_t kKept = 100;
    Findings findings(PairFile::kData, kKept);
    GroupMapContent content = GroupMapJson(source, findings).read();
    if (findings.total(Severity::kUnreadable) != 0)
        fail(Exit::kFailure, "'{}': {}; nothing was written", path, findings.take()[0].message);
    const std::uint64_t violations = findings.total(Severity::kViolation);
    if (violations == 0) return content;
    const Finding first = findings.take().front();
    fail(Exit::kInvalidInput, "{}:{}:{}: {}{}; nothing was written", path,
         std::max<std::uint64_t>(first.line, 1), std::max<std::uint64_t>(first.column, 1),
         printable(first.message),
         violations == 1 ? "" : fmt::format(" (and {} more faults)", violations - 1));
}

}  // namespace kvadmin
