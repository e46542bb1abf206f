// See map_diff.h. ACLs are numbered by what they hold, so that comparing two is done once for each
// pair of different ACLs however often it occurs; elements then compare by numbers.
#include "map_diff.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <unordered_map>

#include "caller_masks.h"
#include "kavrin_perms.h"
#include "sibling_names.h"

namespace kvadmin {
namespace {

using Id = PermTree::Id;
using AclNumber = std::uint32_t;
using SetNumber = std::size_t;

constexpr std::size_t kNoLine = static_cast<std::size_t>(-1);

// An ACL as it is in force at a path.
struct InForce {
    AclNumber acl = 0;
    bool inherited = true;
    auto operator<=>(const InForce&) const = default;
};

// The masks of each trustee; groups add up, of a user's entries the first one counts.
struct TrusteeMasks {
    std::map<std::uint32_t, std::uint32_t> users;
    std::map<std::uint32_t, std::uint32_t> groups;
};

std::uint32_t mask_in(const std::map<std::uint32_t, std::uint32_t>& masks, std::uint32_t id) {
    const auto found = masks.find(id);
    return found == masks.end() ? 0 : found->second;
}

// What a mask stands in for: reading, navigating and viewing each let through what navigates.
std::uint32_t covered_by(std::uint32_t mask) {
    constexpr std::uint32_t kWay = KAVRIN_PERM_MASK_NAVIGATE | KAVRIN_PERM_MASK_VIEWER_ONLY;
    return (mask & (KAVRIN_PERM_MASK_RDONLY | kWay)) != 0 ? mask | kWay : mask;
}

std::uint32_t more_than(std::uint32_t mask, std::uint32_t other) {
    return mask & ~covered_by(other);
}

// What a user has who is in one group of the ACL; being in several adds nothing new, for rights of
// groups add up.
std::uint32_t with_group(std::uint32_t own, std::uint32_t group) {
    return groups_are_asked(own) ? own | group : own;
}

class AclNumbers {
public:
    AclNumber number(std::span<const PermTree::Entry> acl) {
        std::string key;
        key.reserve(acl.size() * 9);
        for (const PermTree::Entry& entry : acl) {
            key.push_back(entry.is_group ? 'g' : 'u');
            key.append(reinterpret_cast<const char*>(&entry.id), sizeof entry.id);
            key.append(reinterpret_cast<const char*>(&entry.mask), sizeof entry.mask);
        }
        const auto [place, added] = numbers_.emplace(std::move(key), acls_.size());
        if (added) acls_.push_back(acl);
        return place->second;
    }
    std::span<const PermTree::Entry> acl(AclNumber number) const { return acls_[number]; }

private:
    std::unordered_map<std::string, AclNumber> numbers_;
    std::vector<std::span<const PermTree::Entry>> acls_;
};

class Comparison {
public:
    Comparison(const PermTree& before, const PermTree& after)
        : before_{before, first_siblings(before)}, after_{after, first_siblings(after)} {
        result_.sets.emplace_back();
        set_numbers_.emplace(Changes(), 0);
    }

    MapDiff run() {
        open_.push_back(
            {PermTree::kRoot, PermTree::kRoot, 0, 0, DiffLine::Kind::kChanged, 0, kNoLine});
        while (!open_.empty()) {
            const Pair pair = open_.back();
            open_.pop_back();
            visit(pair);
        }
        result_.unreachable_before = before_.tree.size() - before_.visited;
        result_.unreachable_after = after_.tree.size() - after_.visited;
        return std::move(result_);
    }

private:
    struct Side {
        const PermTree& tree;
        std::vector<Id> first;  // see first_siblings()
        Id visited = 0;
    };
    // The same path in both maps, kNone where one has no element for it.
    struct Pair {
        Id before;
        Id after;
        AclNumber acl_before;  // in force above
        AclNumber acl_after;
        DiffLine::Kind kind_above;
        SetNumber expected;  // what happened above to paths without entries of their own
        std::size_t line;    // that told it
    };

    void visit(Pair pair) {
        const InForce before = in_force(before_, pair.before, pair.acl_before);
        const InForce after = in_force(after_, pair.after, pair.acl_after);
        const SetNumber here = changes(before, after);
        const SetNumber below = changes({before.acl, true}, {after.acl, true});
        const DiffLine::Kind kind = pair.before == PermTree::kNone  ? DiffLine::Kind::kAdded
                                    : pair.after == PermTree::kNone ? DiffLine::Kind::kRemoved
                                                                    : DiffLine::Kind::kChanged;
        const bool as_above =
            kind == pair.kind_above && here == pair.expected && below == pair.expected;
        if (kind == DiffLine::Kind::kChanged && here == 0 && below == 0) {
            pair.line = kNoLine;
        } else if (as_above && pair.line != kNoLine) {
            ++result_.lines[pair.line].alike;
        } else {
            const std::string path = kind == DiffLine::Kind::kRemoved
                                         ? before_.tree.path(pair.before)
                                         : after_.tree.path(pair.after);
            result_.lines.push_back({kind, path, here, below, 0});
            pair.line = result_.lines.size() - 1;
        }
        pair.acl_before = before.acl;
        pair.acl_after = after.acl;
        pair.kind_above = kind;
        pair.expected = below;
        open_children(pair);
    }

    InForce in_force(Side& side, Id id, AclNumber above) {
        if (id == PermTree::kNone) return {above, true};
        ++side.visited;
        const auto acl = side.tree.acl(id);
        if (id == PermTree::kRoot) return {acls_.number(acl), true};
        if (acl.empty()) return {above, true};
        return {acls_.number(acl), side.tree.childless(id)};
    }

    // Pushed in reverse, so that they are visited in the order of the second map, those that only
    // the first one has behind them.
    void open_children(const Pair& pair) {
        const std::vector<Id> before = reachable_children(before_, pair.before);
        const std::vector<Id> after = reachable_children(after_, pair.after);
        std::vector<Pair> children;
        std::unordered_map<Id, bool> matched;
        if (!after.empty()) {
            const bool search = !before.empty();
            const SiblingIndex index(before_.tree, search ? pair.before : PermTree::kRoot);
            for (const Id child : after) {
                const Id twin = search ? index.find(after_.tree.name(child)) : PermTree::kNone;
                if (twin != PermTree::kNone) matched[twin] = true;
                children.push_back(child_pair(pair, twin, child));
            }
        }
        for (const Id child : before) {
            if (!matched.contains(child))
                children.push_back(child_pair(pair, child, PermTree::kNone));
        }
        open_.insert(open_.end(), children.rbegin(), children.rend());
    }

    static Pair child_pair(const Pair& parent, Id before, Id after) {
        Pair child = parent;
        child.before = before;
        child.after = after;
        return child;
    }

    static std::vector<Id> reachable_children(const Side& side, Id id) {
        std::vector<Id> children;
        if (id == PermTree::kNone) return children;
        for (const Id child : side.tree.children(id)) {
            if (side.first[child] == child) children.push_back(child);
        }
        return children;
    }

    // The number of what changes from one ACL to another.
    SetNumber changes(const InForce& before, const InForce& after) {
        if (before == after) return 0;
        const auto [known, added] = compared_.try_emplace({before, after}, 0);
        if (!added) return known->second;
        Changes changes = compare(masks(before), masks(after));
        const auto [same, is_new] = set_numbers_.try_emplace(changes, result_.sets.size());
        if (is_new) result_.sets.push_back(std::move(changes));
        known->second = same->second;
        return known->second;
    }

    TrusteeMasks masks(const InForce& in_force) const {
        TrusteeMasks masks;
        for (const PermTree::Entry& entry : acls_.acl(in_force.acl)) {
            if (is_skipped(entry, in_force.inherited)) continue;
            if (entry.is_group) {
                masks.groups[entry.id] |= entry.mask;
            } else {
                masks.users.try_emplace(entry.id, entry.mask);
            }
        }
        return masks;
    }

    static Changes compare(const TrusteeMasks& before, const TrusteeMasks& after) {
        Changes changes;
        std::map<std::uint32_t, std::uint32_t> users = before.users;
        users.insert(after.users.begin(), after.users.end());
        std::map<std::uint32_t, std::uint32_t> groups = before.groups;
        groups.insert(after.groups.begin(), after.groups.end());
        for (const auto& user : users) {
            TrusteeChange change = change_of(false, user.first, mask_in(before.users, user.first),
                                             mask_in(after.users, user.first));
            for (const auto& group : groups)
                add_group(change, mask_in(before.groups, group.first),
                          mask_in(after.groups, group.first));
            keep(changes, change);
        }
        for (const auto& group : groups)
            keep(changes, change_of(true, group.first, mask_in(before.groups, group.first),
                                    mask_in(after.groups, group.first)));
        return changes;
    }

    static TrusteeChange change_of(bool is_group, std::uint32_t id, std::uint32_t before,
                                   std::uint32_t after) {
        TrusteeChange change{is_group, id, before, after, 0, 0, 0, 0};
        change.gained = more_than(after, before);
        change.lost = more_than(before, after);
        return change;
    }

    // What the user's membership of one group changes for him that neither his own entry nor the
    // group's tells.
    static void add_group(TrusteeChange& user, std::uint32_t group_before,
                          std::uint32_t group_after) {
        const std::uint32_t before = with_group(user.before, group_before);
        const std::uint32_t after = with_group(user.after, group_after);
        user.gained_from_groups |=
            more_than(after, before) & ~user.gained & ~more_than(group_after, group_before);
        user.lost_from_groups |=
            more_than(before, after) & ~user.lost & ~more_than(group_before, group_after);
    }

    static void keep(Changes& changes, const TrusteeChange& change) {
        if (change.before != change.after || change.gained_from_groups != 0 ||
            change.lost_from_groups != 0)
            changes.push_back(change);
    }

    Side before_;
    Side after_;
    AclNumbers acls_;
    std::map<std::pair<InForce, InForce>, SetNumber> compared_;
    std::map<Changes, SetNumber> set_numbers_;
    std::vector<Pair> open_;
    MapDiff result_;
};

}  // namespace

bool MapDiff::widens() const {
    return std::any_of(lines.begin(), lines.end(), [this](const DiffLine& line) {
        const auto widens = [](const Changes& changes) {
            return std::any_of(changes.begin(), changes.end(),
                               [](const TrusteeChange& change) { return change.widens(); });
        };
        return widens(sets[line.changes]) || widens(sets[line.below]);
    });
}

MapDiff compare_maps(const PermTree& before, const PermTree& after) {
    return Comparison(before, after).run();
}

}  // namespace kvadmin
