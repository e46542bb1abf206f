// See lint_acl.h.
#include "lint_acl.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>

namespace kvadmin {
namespace {

constexpr std::uint64_t kLargestId = UINT32_MAX;
constexpr std::uint64_t kLargestMask = UINT16_MAX;  // all that the image keeps
constexpr std::uint64_t kKnownMaskBits = 1 | 2 | 4 | 8 | 16;

constexpr std::string_view kAclKeys[] = {"NUMUSERS", "NUMGROUPS", "USERS", "GROUPS"};
enum AclKey : std::size_t { kNumUsers, kNumGroups, kUsers, kGroups };

bool is_digits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

// What one ACL announces, and what it holds.
struct AclLint::State {
    bool has[std::size(kAclKeys)] = {};
    std::uint64_t announced[2] = {};  // users, groups
    bool has_announced[2] = {};
    Place announced_at[2];
    std::uint64_t entries[2] = {};
};

void AclLint::check(const Token& value) {
    State state;
    std::size_t position = 0;
    bool first = true;
    Token item;
    for (; walk_.next_item(first, item); ++position) {
        if (position == std::size(kAclKeys))
            walk_.violation(item.place,
                            "a fifth item in \"ACL\", which holds four objects; remove it");
        if (walk_.expect(item, TokenKind::kBeginObject, "an item of \"ACL\""))
            object(item, position, state);
    }
    for (std::size_t key = 0; key < std::size(kAclKeys); ++key)
        if (!state.has[key])
            walk_.violation(value.place, "the \"ACL\" has no {{\"{}\": ...}}; add it",
                            kAclKeys[key]);
    check_announced(state);
}

void AclLint::object(const Token& open, std::size_t position, State& state) {
    bool first = true;
    std::size_t members = 0;
    for (Token key; walk_.next_key(first, key); ++members) {
        const std::size_t index = index_of(kAclKeys, key.text);
        if (members == 1)
            walk_.violation(key.place, "a second key in an object of \"ACL\"; each holds one");
        if (index == std::size(kAclKeys)) {
            walk_.violation(key.place, "unknown key {} in \"ACL\"", quoted(key.text));
            walk_.skip(walk_.value());
            continue;
        }
        if (state.has[index])
            walk_.violation(key.place, "\"{}\" is given twice; keep one", kAclKeys[index]);
        else if (members == 0 && index != position && position < std::size(kAclKeys))
            walk_.violation(key.place,
                            "\"{}\" is out of order, \"{}\" belongs here; the order is NUMUSERS, "
                            "NUMGROUPS, USERS, GROUPS",
                            kAclKeys[index], kAclKeys[position]);
        member(index, walk_.value(), state);
        state.has[index] = true;
    }
    if (members == 0) walk_.violation(open.place, "an empty object in \"ACL\"; each holds one key");
}

void AclLint::member(std::size_t key, const Token& value, State& state) {
    if (key == kUsers || key == kGroups) {
        const std::string_view what = key == kUsers ? "\"USERS\"" : "\"GROUPS\"";
        if (walk_.expect(value, TokenKind::kBeginObject, what)) trustees(key == kGroups, state);
        return;
    }
    const std::size_t side = key == kNumGroups ? 1 : 0;
    const auto number =
        walk_.number(value, UINT32_MAX, side == 0 ? "\"NUMUSERS\"" : "\"NUMGROUPS\"");
    if (!number) return;
    state.has_announced[side] = true;
    state.announced[side] = *number;
    state.announced_at[side] = value.place;
}

void AclLint::trustees(bool groups, State& state) {
    ids_.clear();
    bool first = true;
    for (Token key; walk_.next_key(first, key);) {
        ++counts_.aces;
        ++state.entries[groups ? 1 : 0];
        trustee(groups, key);
    }
}

void AclLint::trustee(bool groups, const Token& key) {
    const std::string_view what = groups ? "gid" : "uid";
    constexpr std::size_t kMostDigits = 20;
    if (!is_digits(key.text)) {
        walk_.violation(key.place, "the key {} is no {}; write it in decimal digits",
                        quoted(key.text), what);
    } else {
        const auto id = key.length > kMostDigits ? std::nullopt : decimal(key.text, kLargestId);
        if (!id)
            walk_.violation(key.place, "the {} {} does not fit; the largest is {}", what,
                            quoted(key.text), kLargestId);
        else if (!ids_.insert(static_cast<std::uint32_t>(*id)))
            walk_.violation(key.place, "the {} {} is given twice in this object; keep one entry",
                            what, *id);
        if (key.length > 1 && key.text.front() == '0')
            walk_.warning(key.place, "the {} {} has leading zeros; leave them out", what,
                          quoted(key.text));
    }
    const Token value = walk_.value();
    const auto mask = walk_.number(value, kLargestMask, "the mask");
    if (mask && (*mask & ~kKnownMaskBits) != 0)
        walk_.warning(value.place,
                      "the mask {} holds bits that mean nothing; the known ones are 1 read, 2 "
                      "write, 4 delete, 8 navigate, 16 view",
                      *mask);
}

void AclLint::check_announced(const State& state) {
    for (std::size_t side = 0; side < 2; ++side)
        if (state.has_announced[side] && state.announced[side] != state.entries[side])
            walk_.warning(state.announced_at[side], "\"{}\" is {}, but \"{}\" holds {}; write {}",
                          kAclKeys[side], state.announced[side], kAclKeys[side + 2],
                          state.entries[side], state.entries[side]);
}

}  // namespace kvadmin
