// See groupmap_check.h. A look-up walks its table from the start and gives up at the first entry it
// refuses, so one bad entry hides all that follow: the reader's own arithmetic, 32 bits wide and
// beginning at the name where a user's ids are meant, is done here to the letter, and the true
// bounds beside it.
#include "groupmap_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <unordered_map>
#include <utility>

#include "groupmap_file.h"
#include "identity.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr std::size_t kShownName = 64;

// Bytes of the file, the end not included.
struct Stretch {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;

    bool meets(const Stretch& other) const { return begin < other.end && other.begin < end; }
};

// A set of stretches. Parts that follow one another, as a writer puts them, cost nothing.
class Stretches {
public:
    void add(Stretch stretch) {
        if (stretch.begin == stretch.end) return;
        if (!list_.empty() && list_.back().begin <= stretch.begin &&
            stretch.begin <= list_.back().end)
            list_.back().end = std::max(list_.back().end, stretch.end);
        else
            list_.push_back(stretch);
    }

    // In their order, each joined with those it touches.
    std::vector<Stretch> take_sorted() {
        std::sort(list_.begin(), list_.end(),
                  [](const Stretch& a, const Stretch& b) { return a.begin < b.begin; });
        Stretches joined;
        for (const Stretch& stretch : list_) joined.add(stretch);
        return std::move(joined.list_);
    }

private:
    std::vector<Stretch> list_;
};

// Names hash and compare as look-ups compare them.
struct FoldedHash {
    std::size_t operator()(std::string_view name) const {
        return std::hash<std::string>{}(folded_name(name));
    }
};
struct FoldedEqual {
    bool operator()(std::string_view a, std::string_view b) const {
        return a.size() == b.size() && folded_name(a) == folded_name(b);
    }
};
using FirstWithName = std::unordered_map<std::string_view, std::uint32_t, FoldedHash, FoldedEqual>;

std::string shown(std::string_view name) {
    return fmt::format("\"{}{}\"", printable(name.substr(0, kShownName)),
                       name.size() > kShownName ? "..." : "");
}

// An entry of either table: where it lies, and what findings call it.
struct Entry {
    const char* kind;
    std::uint32_t index;
    std::uint64_t offset;
};

class Check {
public:
    Check(const GroupMapView& view, GroupMapReport& report)
        : view_(view), report_(report), size_(view.bytes().size()) {}

    void run();

private:
    enum class Table { kReserved, kUsers };

    template <typename... Args>
    void fault(std::uint64_t offset, std::string_view record, fmt::format_string<Args...> format,
               Args&&... args) {
        if (++report_.faults > GroupMapReport::kKeptFindings) return;
        report_.findings.push_back(
            {true, offset, std::string(record), fmt::format(format, std::forward<Args>(args)...)});
    }
    template <typename... Args>
    void fault(const Entry& entry, fmt::format_string<Args...> format, Args&&... args) {
        if (++report_.faults > GroupMapReport::kKeptFindings) return;
        report_.findings.push_back({true, entry.offset,
                                    fmt::format("{} {}", entry.kind, entry.index),
                                    fmt::format(format, std::forward<Args>(args)...)});
    }
    template <typename... Args>
    void remark(std::uint64_t offset, std::string_view record, fmt::format_string<Args...> format,
                Args&&... args) {
        if (++report_.remarks > GroupMapReport::kKeptFindings) return;
        report_.findings.push_back(
            {false, offset, std::string(record), fmt::format(format, std::forward<Args>(args)...)});
    }

    void check_size();
    bool place_table(Table table);
    void check_tables();
    void check_reserved_groups();
    void check_users();
    bool reader_refuses(const Entry& entry, const uitem& user);
    void tell_hidden(const Entry& entry, std::uint32_t entries);
    std::optional<std::string_view> check_name(const Entry& entry, std::uint32_t offset,
                                               FirstWithName& first);
    void check_gids(const Entry& entry, const uitem& user);
    void check_not_in_tables(const Entry& entry, const Stretch& part, const char* what);
    void check_parts_apart();
    void check_standing();
    bool holds_group_zero(const uitem& user);

    const GroupMapView& view_;
    GroupMapReport& report_;
    std::uint64_t size_;
    // Header and tables, empty where they are not usable.
    std::array<Stretch, 3> tables_{};
    bool reserved_usable_ = false;
    bool users_usable_ = false;
    bool hidden_told_ = false;  // for the table that is being walked
    std::uint64_t unaligned_ = 0;
    Stretches names_;
    Stretches gids_;
    FirstWithName first_reserved_;
    std::uint64_t zero_budget_ = 0;  // ids still to be searched for group 0
};

void Check::run() {
    check_size();
    tables_[0] = {0, sizeof(mapheader)};
    reserved_usable_ = place_table(Table::kReserved);
    users_usable_ = place_table(Table::kUsers);
    check_tables();
    check_reserved_groups();
    check_users();
    check_parts_apart();
    check_standing();
}

void Check::check_size() {
    if (size_ < KAVRIN_GROUPMAP_MIN_SIZE)
        fault(0, "file", "it has {} bytes; the reader refuses files of fewer than {}", size_,
              KAVRIN_GROUPMAP_MIN_SIZE);
    else if (size_ % KAVRIN_GROUPMAP_ALIGN != 0)
        fault(0, "file", "it has {} bytes, no multiple of {}; the reader refuses it", size_,
              KAVRIN_GROUPMAP_ALIGN);
    if (size_ > UINT32_MAX)
        fault(0, "file", "it has {} bytes, and the reader knows sizes of 32 bits only", size_);
}

// Whether the table lies inside the file, so that its entries can be looked at.
bool Check::place_table(Table table) {
    const bool reserved = table == Table::kReserved;
    const mapheader& header = view_.header();
    const std::uint64_t start = reserved ? header.roffs : header.uoffs;
    const std::uint32_t entries = reserved ? header.rnum : header.unum;
    const std::uint64_t bytes = std::uint64_t{entries} * (reserved ? sizeof(ritem) : sizeof(uitem));
    const std::uint64_t field = reserved ? offsetof(mapheader, roffs) : offsetof(mapheader, uoffs);
    const char* const what = reserved ? "reserved groups" : "users";
    if (start > size_ || bytes > size_ - start) {
        fault(field, "header", "the table of {} {} at byte {} leaves the file of {} bytes{}",
              entries, what, start, size_,
              reserved ? "; the reader finds no reserved group"
                       : "; the reader does not check this and reads beyond the file");
        return false;
    }
    if (entries == 0) return true;
    if (start % sizeof(std::uint32_t) != 0)
        remark(field, "header", "the table of {} begins at byte {}, no multiple of 4", what, start);
    tables_[reserved ? 1 : 2] = {start, start + bytes};
    return true;
}

void Check::check_tables() {
    constexpr const char* kNames[] = {"header", "table of reserved groups", "table of users"};
    for (std::size_t a = 0; a < tables_.size(); ++a)
        for (std::size_t b = a + 1; b < tables_.size(); ++b)
            if (tables_[a].meets(tables_[b]))
                fault(tables_[b].begin, "header", "the {} overlaps the {}", kNames[b], kNames[a]);
}

void Check::check_reserved_groups() {
    if (!reserved_usable_) return;
    hidden_told_ = false;
    for (std::uint32_t i = 0; i < view_.header().rnum; ++i) {
        const Entry entry{"reserved group", i, tables_[1].begin + i * sizeof(ritem)};
        const ritem group = view_.reserved(i).value_or(ritem{});
        if (group.noffs > size_ - 1) {
            fault(entry, "its name at byte {} is beyond the file of {} bytes", group.noffs, size_);
            tell_hidden(entry, view_.header().rnum);
            continue;
        }
        check_name(entry, group.noffs, first_reserved_);
        if (group.gid == 0)
            fault(entry, "its id is 0, which the reader cannot tell from a missing group");
        else if (group.gid > kHighestGroupId)
            fault(entry, "its id is {}, which is no group's", group.gid);
    }
}

void Check::check_users() {
    if (!users_usable_) return;
    hidden_told_ = false;
    FirstWithName first;
    for (std::uint32_t i = 0; i < view_.header().unum; ++i) {
        const Entry entry{"user", i, tables_[2].begin + i * sizeof(uitem)};
        const uitem user = view_.user(i).value_or(uitem{});
        if (reader_refuses(entry, user)) tell_hidden(entry, view_.header().unum);
        if (const auto name = check_name(entry, user.noffs, first);
            name && user.nlen != name->size())
            fault(entry, "its name {} has {} bytes, not {} as it says", shown(*name), name->size(),
                  user.nlen);
        check_gids(entry, user);
    }
    if (unaligned_ != 0)
        remark(offsetof(mapheader, uoffs), "header",
               "the group ids of {} users begin at no multiple of 4", unaligned_);
}

// The reader's bounds, in its 32 bits.
bool Check::reader_refuses(const Entry& entry, const uitem& user) {
    const auto limit = static_cast<std::uint32_t>(size_ - 1);
    if (user.noffs > limit || user.noffs + user.nlen > limit) {
        fault(entry, "its name at byte {} with {} bytes leaves the file of {} bytes", user.noffs,
              user.nlen, size_);
        return true;
    }
    if (user.noffs + 4 * user.glen > limit) {
        fault(entry,
              "the reader wants the file to go on behind the name's start, byte {}, for as long as "
              "the list of {} groups is, and it ends at {}",
              user.noffs, user.glen, size_);
        return true;
    }
    return false;
}

void Check::tell_hidden(const Entry& entry, std::uint32_t entries) {
    if (std::exchange(hidden_told_, true)) return;
    if (const std::uint32_t later = entries - 1 - entry.index; later != 0)
        fault(entry, "the reader gives up here: {} later {}{} cannot be found", later, entry.kind,
              later == 1 ? "" : "s");
}

// The name, when it has an end inside the file.
std::optional<std::string_view> Check::check_name(const Entry& entry, std::uint32_t offset,
                                                  FirstWithName& first) {
    if (offset >= size_) return std::nullopt;  // told already
    const auto name = view_.name_at(offset);
    if (!name) {
        fault(entry, "its name at byte {} does not end within {} bytes and the file", offset,
              GroupMapView::kLongestName);
        return std::nullopt;
    }
    if (name->empty()) fault(entry, "its name at byte {} is empty", offset);
    const Stretch part{offset, offset + std::uint64_t{name->size()} + 1};
    check_not_in_tables(entry, part, "name");
    names_.add(part);
    if (const auto [found, added] = first.emplace(*name, entry.index); !added)
        fault(entry, "its name {} is that of {} {}{}; look-ups find the first one only",
              shown(*name), entry.kind, found->second,
              found->first == *name ? "" : " but for case");
    return name;
}

void Check::check_gids(const Entry& entry, const uitem& user) {
    const std::uint64_t end = user.goffs + std::uint64_t{user.glen} * sizeof(gid_t);
    if (end > size_) {
        fault(entry,
              "its {} group ids at byte {} leave the file of {} bytes; the reader does not check "
              "this and reads beyond the file",
              user.glen, user.goffs, size_);
        return;
    }
    if (user.glen == 0) return;
    if (user.goffs % sizeof(gid_t) != 0) ++unaligned_;
    check_not_in_tables(entry, {user.goffs, end}, "list of groups");
    gids_.add({user.goffs, end});
}

void Check::check_not_in_tables(const Entry& entry, const Stretch& part, const char* what) {
    constexpr const char* kNames[] = {"the header", "the table of reserved groups",
                                      "the table of users"};
    for (std::size_t i = 0; i < tables_.size(); ++i)
        if (part.meets(tables_[i]))
            fault(entry, "its {} at byte {} overlaps {}", what, part.begin, kNames[i]);
}

// Names may share bytes, and so may lists; a name and a list never do.
void Check::check_parts_apart() {
    const std::vector<Stretch> names = names_.take_sorted();
    const std::vector<Stretch> gids = gids_.take_sorted();
    for (std::size_t a = 0, b = 0; a < names.size() && b < gids.size();) {
        if (names[a].meets(gids[b])) {
            const std::uint64_t where = std::max(names[a].begin, gids[b].begin);
            fault(where, "file", "a name and a list of groups overlap here");
        }
        if (names[a].end < gids[b].end)
            ++a;
        else
            ++b;
    }
}

// A reserved group that is missing has the id 0 for the reader, so whoever is in group 0 is in it.
void Check::check_standing() {
    if (!users_usable_ || report_.faults != 0) return;
    for (const std::string_view group :
         {std::string_view(kAdminsGroup), std::string_view(kPowerUsersGroup)}) {
        if (first_reserved_.contains(group)) continue;
        zero_budget_ = size_ / sizeof(gid_t);
        std::uint64_t members = 0;
        std::string_view member;
        for (std::uint32_t i = 0; i < view_.header().unum; ++i) {
            const uitem user = view_.user(i).value_or(uitem{});
            if (!holds_group_zero(user)) continue;
            if (members++ == 0) member = view_.name_at(user.noffs).value_or("");
        }
        if (members == 0) continue;
        remark(offsetof(mapheader, rnum), "header",
               "there is no reserved group {}, which the reader takes for group 0: {}{} counts as "
               "a member",
               group, shown(member),
               members == 1 ? "" : fmt::format(" (and {} more users in group 0)", members - 1));
    }
}

bool Check::holds_group_zero(const uitem& user) {
    for (std::uint32_t i = 0; i < user.glen && zero_budget_ > 0; ++i, --zero_budget_)
        if (view_.gid(user, i) == 0u) return true;
    return false;
}

}  // namespace

GroupMapReport check_groupmap(std::span<const std::uint8_t> bytes) {
    GroupMapReport report;
    report.bytes = bytes.size();
    const auto view = GroupMapView::open(bytes);
    if (!view) {
        report.faults = 1;
        report.findings.push_back(
            {true, 0, "file",
             fmt::format("it has {} bytes, too few for the header of a group map", bytes.size())});
        return report;
    }
    report.reserved = view->header().rnum;
    report.users = view->header().unum;
    Check(*view, report).run();
    return report;
}

std::string line_for(const GroupMapFinding& finding) {
    return fmt::format("byte {}, {}: {}", finding.offset, finding.record, finding.message);
}

std::string first_fault(const GroupMapReport& report) {
    for (const GroupMapFinding& finding : report.findings)
        if (finding.fault) return line_for(finding);
    return "";
}

}  // namespace kvadmin
