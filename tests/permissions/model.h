// An independent model of the map and of its verdicts: trees, strings and rules in plain standard
// containers, without one call into the library. It is written to be read beside the rules of the
// namespace, not to be quick; random_model_test.cpp and decision_table_test.cpp hold the library
// against it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support.h"

namespace kvtest::model {

// Outcomes in the library's numbering; a question that ends the process has a value of its own.
enum Outcome { kDenied = 2, kAllowed = 3, kBadOperation = 4, kEndsProcess = 99 };
enum Kind { kFile = 1, kFolder = 2, kMissing = 3 };

// --- names -----------------------------------------------------------------------------------

inline std::string lowered(std::string_view text) {
    std::string out;
    for (const char c : text) out += (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
    return out;
}
inline bool same(std::string_view a, std::string_view b) {
    return lowered(a) == lowered(b);
}
inline bool begins(std::string_view text, std::string_view start) {
    return same(text.substr(0, start.size()), start);
}
inline std::vector<std::string> parts(std::string_view path) {
    std::vector<std::string> out(1);
    for (const char c : path) {
        if (c == '/') {
            out.emplace_back();
        } else {
            out.back() += c;
        }
    }
    std::erase(out, std::string());
    return out;
}
inline bool housekeeping_name(std::string_view path) {
    static const std::vector<std::string> starts = {
        ".temporaryitems", ".ds_store",        "._.ds_store",      "._.temporaryitems",
        ".trash",          "shared/.ds_store", "private/.ds_store"};
    return std::any_of(starts.begin(), starts.end(),
                       [&](const std::string& start) { return begins(path, start); }) ||
           path.find(".sb-") != std::string_view::npos;
}

// --- the map ---------------------------------------------------------------------------------

// One right of a governing ACL, in the order in which a caller's own is looked for.
struct Grant {
    bool user;
    std::uint32_t id;
    std::uint32_t mask;
    bool inherited;
    bool operator==(const Grant&) const = default;
};

// Where a path leads: the elements passed, from the root to the deepest one the map knows, and
// whether that one is the path itself and has children of its own.
struct Place {
    std::vector<const Node*> trail;
    bool exact = false;
    std::string spelled() const {
        std::string out;
        for (std::size_t i = 1; i < trail.size(); ++i) out += "/" + trail[i]->name;
        return out.empty() ? "/" : out;
    }
};

inline Place locate(const Node& root, std::string_view path) {
    Place place{{&root}, false};
    const std::vector<std::string> wanted = parts(path);
    for (const std::string& name : wanted) {
        const std::vector<Node>& children = place.trail.back()->children;
        const auto child = std::find_if(children.begin(), children.end(),
                                        [&](const Node& node) { return same(node.name, name); });
        if (child == children.end()) return place;
        place.trail.push_back(&*child);
    }
    place.exact = !wanted.empty() && !place.trail.back()->children.empty();
    return place;
}

inline std::vector<Grant> governing(const Node& root, std::string_view path) {
    const Place place = locate(root, path);
    const Node* source = &root;
    for (const Node* node : place.trail)
        if (!node->users.empty() || !node->groups.empty()) source = node;
    const bool inherited = !place.exact || source != place.trail.back();
    std::vector<Grant> grants;
    for (const auto& [id, mask] : source->users)
        grants.push_back({true, id, mask & 0xFFFF, inherited});
    for (const auto& [id, mask] : source->groups)
        grants.push_back({false, id, mask & 0xFFFF, inherited});
    return grants;
}

// --- the decision ----------------------------------------------------------------------------

// One letter an operation, 1 to 29, for each kind of element:
//   + always       r, w, d  read / read-write / read-write-delete on the parent
//   n nav on self  b  nav on both   s, t  read on self and d / w on the parent   ! ends the process
constexpr std::string_view kFolderRules = "w+++nn+stst!!!!bb!!wd!!!!n!!!";
constexpr std::string_view kFileRules = "wrw+++dwwdw!!!!rr!!w+!!!!+!!!";
constexpr std::string_view kMissingRules = "w+w+++++w+w!!!!++!!w+!!!!+!!!";

inline Outcome decide(int op, int kind, std::uint32_t self, std::uint32_t parent) {
    const std::string_view rules = kind == kFolder ? kFolderRules
                                   : kind == kFile ? kFileRules
                                                   : kMissingRules;
    if (op < 1 || op > static_cast<int>(rules.size())) return kBadOperation;
    const auto has = [](std::uint32_t mask, std::initializer_list<std::uint32_t> bits) {
        return std::all_of(bits.begin(), bits.end(),
                           [&](std::uint32_t bit) { return mask / bit % 2 == 1; });
    };
    const auto nav = [&](std::uint32_t mask) {
        return has(mask, {1}) || has(mask, {8}) || has(mask, {16});
    };
    bool yes = true;
    switch (rules[static_cast<std::size_t>(op - 1)]) {
        case '!':
            return kEndsProcess;
        case 'r':
            yes = has(parent, {1});
            break;
        case 'w':
            yes = has(parent, {1, 2});
            break;
        case 'd':
            yes = has(parent, {1, 2, 4});
            break;
        case 'n':
            yes = nav(self);
            break;
        case 'b':
            yes = nav(self) && nav(parent);
            break;
        case 's':
            yes = has(self, {1}) && has(parent, {1, 2, 4});
            break;
        case 't':
            yes = has(self, {1}) && has(parent, {1, 2});
            break;
        default:
            break;
    }
    return yes ? kAllowed : kDenied;
}

// --- the verdict -----------------------------------------------------------------------------

struct Caller {
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::vector<std::uint32_t> groups;
    bool in(std::uint32_t group) const {
        return std::find(groups.begin(), groups.end(), group) != groups.end();
    }
};

struct World {
    const Node* map = nullptr;
    std::uint32_t admins = 0;
    std::uint32_t powers = 0;
    std::map<std::string, std::uint32_t> owners;  // of "Private/<name>", as the disk spells it
};

struct Answer {
    Outcome outcome = kDenied;
    bool nav = false;
};

// What the ACL gives: the caller's own first right, widened by the groups when it is none or
// navigation. Inherited navigation counts for nobody.
inline std::uint32_t mask_of(std::vector<Grant> grants, const Caller& caller) {
    std::erase_if(grants, [](const Grant& g) { return g.inherited && g.mask / 8 % 2 == 1; });
    std::uint32_t mask = 0;
    const auto own = std::find_if(grants.begin(), grants.end(),
                                  [&](const Grant& g) { return g.user && g.id == caller.uid; });
    if (own != grants.end()) mask = own->mask;
    if (mask != 0 && mask / 8 % 2 == 0) return mask;
    for (const Grant& g : grants)
        if (!g.user && (g.id == caller.gid || caller.in(g.id))) mask |= g.mask;
    return mask;
}

inline Outcome private_folder(const World& world, const Caller& caller, const std::string& path,
                              int op, int kind) {
    const std::vector<std::string> names = parts(path);
    const bool admin = caller.in(world.admins);
    const bool folder_itself = names.size() == 2;
    if (folder_itself && (kind == kFile || op == FSOP_CREATE)) return kDenied;
    if (folder_itself && admin) return decide(op, kind, 1, 1);
    const auto owner = world.owners.find(names[0] + "/" + names[1]);
    if (owner == world.owners.end()) return kDenied;
    if (admin) return decide(op, kind, 7, 7);
    if (owner->second != caller.uid) return kDenied;
    return folder_itself ? decide(op, kind, 1, 1) : kAllowed;
}

// `path` is normalised and below the share's root.
inline Answer verdict(const World& world, const Caller& caller, const std::string& path, int op,
                      int kind) {
    if (caller.uid == 0) return {kAllowed};
    const std::vector<std::string> names = parts(path);
    const bool stat = op == FSOP_STAT || op == FSOP_LSTAT;
    if (stat && !names.empty() && names.back() == "*") return {kAllowed};
    if (!stat && op == FSOP_OPEN_READ && kind == kFolder) return {kAllowed};

    const bool admin = caller.in(world.admins);
    Answer answer;
    bool masks_count = false;
    std::uint32_t self = kind == kMissing ? 7 : 0;
    if (kind == kFolder) self = mask_of(governing(*world.map, path), caller);
    if (!admin && !caller.in(world.powers)) {
        answer.outcome = kDenied;
    } else if (begins(path, "private/")) {
        answer.outcome = private_folder(world, caller, path, op, kind);
    } else if (begins(path, "shared/")) {
        const bool top = names.size() == 2;
        const std::string parent = path.substr(0, path.rfind('/'));
        if (top && (kind == kFile || op == FSOP_CREATE)) {
            answer.outcome = kDenied;
        } else if (admin) {
            answer.outcome = decide(op, kind, 7, 7);
        } else {
            masks_count = true;
            answer.outcome =
                decide(op, kind, self, top ? 8 : mask_of(governing(*world.map, parent), caller));
        }
    } else if (names.size() == 1 && path[0] != '/' && op != FSOP_CREATE && kind != kFile &&
               (same(path, "private") || same(path, "shared") || path == ".")) {
        masks_count = true;
        answer.outcome = decide(op, kind, 1, 1);
    }
    if (answer.outcome == kAllowed) answer.nav = masks_count && (self == 8 || self == 16);
    if (answer.outcome == kDenied && housekeeping_name(path)) answer = {kAllowed};
    return answer;
}

}  // namespace kvtest::model
