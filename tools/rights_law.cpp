// See rights_law.h.
#include "rights_law.h"

#include <strings.h>

#include <algorithm>

#include "permissions/decision_table.h"

namespace kvadmin {
namespace {

using Answer = Ruling::Answer;

constexpr std::uint32_t kRead = KAVRIN_PERM_MASK_RDONLY;
constexpr std::uint32_t kAll = KAVRIN_PERM_MASK_RDWRDEL;

bool is_named(std::string_view name, std::string_view wanted) {
    return name.size() == wanted.size() &&
           strncasecmp(name.data(), wanted.data(), wanted.size()) == 0;
}

// One question on its way through the rules.
class Judge {
public:
    Judge(const Caller& caller, const Situation& at, e_fsop_type_t op)
        : caller_(caller), at_(at), op_(op) {}

    Ruling rule() const {
        if (caller_.uid == 0) return yes("root may do everything");
        if (op_ == FSOP_STAT || op_ == FSOP_LSTAT) {
            if (at_.wild_card) return yes("a wild-card search is always allowed");
        } else if (op_ == FSOP_OPEN_READ && at_.type == FSTYPE_FOLDER) {
            return yes("opening a folder for reading is always allowed");
        }
        if (!caller_.admin && !caller_.poweruser) return no("a standard user never has permission");
        if (in_private(at_.zone)) return in_a_private_folder();
        if (at_.zone == Zone::kInShared || at_.zone == Zone::kBelowShared) return in_shared();
        return at_top();
    }

private:
    Ruling in_a_private_folder() const {
        const bool folder_itself = at_.zone == Zone::kInPrivate;
        if (folder_itself && is_about_a_file())
            return no("Private itself holds folders only: no files in it");
        if (folder_itself && caller_.admin)
            return table(kRead, kRead, "an administrator has RDONLY on the folders in Private");
        if (at_.ownership == Ownership::kMissing)
            return no("that user's folder in Private does not exist");
        if (caller_.admin)
            return table(kAll, kAll, "an administrator has RDWRDEL below the folders in Private");
        if (at_.ownership == Ownership::kSomebodyElses)
            return no("a folder in Private is open to its owner and to administrators only");
        Ruling result =
            folder_itself
                ? table(kRead, kRead, "a power user has RDONLY on his own folder in Private")
                : yes("a power user may do everything below his own folder in Private");
        const bool known = at_.ownership == Ownership::kCallers || at_.special;
        if (result.allowed() && !known)
            result = {Answer::kOwnerDecides, false, "the owner of the folder in Private may",
                      false};
        return result;
    }

    Ruling in_shared() const {
        const bool top = at_.zone == Zone::kInShared;
        if (top && is_about_a_file()) return no("Shared itself holds folders only: no files in it");
        if (caller_.admin)
            return table(kAll, kAll, "an administrator has RDWRDEL everywhere below Shared");
        Ruling result = table_or_navigation(
            own_mask(), top ? KAVRIN_PERM_MASK_NAVIGATE : at_.parent_mask,
            top ? "for a folder directly in Shared, the parent counts as NAVIGATE"
                : "below Shared the caller's own masks decide");
        result.by_masks = true;
        return result;
    }

    Ruling at_top() const {
        if (at_.zone == Zone::kOutside) return no("the share holds nothing but Shared and Private");
        if (is_about_a_file()) return no("the share's top level holds no files");
        return table_or_navigation(
            kRead, kRead,
            at_.zone == Zone::kPrivate  ? "administrators and power users have RDONLY on Private"
            : at_.zone == Zone::kShared ? "everyone has RDONLY on Shared"
                                        : "everyone has RDONLY on the top level");
    }

    bool is_about_a_file() const { return at_.type == FSTYPE_FILE || op_ == FSOP_CREATE; }
    std::uint32_t own_mask() const {
        if (at_.type == FSTYPE_FOLDER) return at_.mask;
        return at_.type == FSTYPE_FILE ? 0 : kAll;
    }

    static Ruling yes(const char* rule) { return {Answer::kAllowed, false, rule, false}; }
    // Names that clients keep for themselves overturn a denial.
    Ruling no(const char* rule) const {
        if (at_.special) return yes("a name that clients keep for themselves is always allowed");
        return {Answer::kDenied, false, rule, false};
    }
    bool met(std::uint32_t mask, std::uint32_t parent_mask) const {
        return kavrin::meets(kavrin::decision_row(op_, at_.type).need, mask, parent_mask);
    }
    Ruling table(std::uint32_t mask, std::uint32_t parent_mask, const char* rule) const {
        return met(mask, parent_mask) ? yes(rule) : no(rule);
    }
    // The same where the map has a say: its mask at the path tells navigation from reading.
    Ruling table_or_navigation(std::uint32_t mask, std::uint32_t parent_mask,
                               const char* rule) const {
        if (!met(mask, parent_mask)) return no(rule);
        Ruling result = yes(rule);
        result.navigation_only =
            own_mask() == KAVRIN_PERM_MASK_NAVIGATE || own_mask() == KAVRIN_PERM_MASK_VIEWER_ONLY;
        return result;
    }

    const Caller& caller_;
    const Situation& at_;
    e_fsop_type_t op_;
};

}  // namespace

Zone zone_of_child(Zone folder, std::string_view name) {
    switch (folder) {
        case Zone::kRoot:
            return is_named(name, "shared")    ? Zone::kShared
                   : is_named(name, "private") ? Zone::kPrivate
                                               : Zone::kOutside;
        case Zone::kShared:
            return Zone::kInShared;
        case Zone::kPrivate:
            return Zone::kInPrivate;
        case Zone::kInShared:
            return Zone::kBelowShared;
        case Zone::kInPrivate:
            return Zone::kBelowPrivate;
        default:
            return folder;
    }
}

Zone zone_of(std::string_view path) {
    Zone zone = Zone::kRoot;
    if (path == ".") return zone;
    for (std::size_t at = 0; at <= path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        zone = zone_of_child(zone, path.substr(at, end - at));
        at = end + 1;
    }
    return zone;
}

Ruling ruling(const Caller& caller, const Situation& at, e_fsop_type_t op) {
    return Judge(caller, at, op).rule();
}

}  // namespace kvadmin
