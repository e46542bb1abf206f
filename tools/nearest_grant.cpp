// See nearest_grant.h.
#include "nearest_grant.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "permissions/decision_table.h"

namespace kvadmin {
namespace {

using kavrin::AceNote;
using kavrin::AceUse;
using kavrin::AclTrail;
using kavrin::Need;
using kavrin::VerdictTrail;

constexpr std::uint32_t kEverything = KAVRIN_PERM_MASK_RDWRDEL | KAVRIN_PERM_MASK_NAVIGATE;
// What can be granted, the smallest first.
constexpr std::uint32_t kGrants[] = {KAVRIN_PERM_MASK_NAVIGATE, KAVRIN_PERM_MASK_RDONLY,
                                     KAVRIN_PERM_MASK_RDWR, KAVRIN_PERM_MASK_RDWRDEL};
constexpr std::size_t kNamedGroups = 3;

enum class Side { kSelf, kParent };

bool side_meets(Need need, Side side, std::uint32_t mask) {
    return side == Side::kSelf ? kavrin::meets(need, mask, kEverything)
                               : kavrin::meets(need, kEverything, mask);
}

std::string missing_words(std::uint32_t have, std::uint32_t wanted) {
    constexpr std::pair<std::uint32_t, std::string_view> kBits[] = {
        {KAVRIN_PERM_MASK_RDONLY, "read"},
        {2, "write"},
        {4, "delete"},
        {KAVRIN_PERM_MASK_NAVIGATE, "navigation"}};
    std::vector<std::string_view> words;
    for (const auto& [bit, word] : kBits) {
        if ((wanted & bit) != 0 && (have & bit) == 0) words.push_back(word);
    }
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0) text += i + 1 == words.size() ? " and " : ", ";
        text += words[i];
    }
    return text;
}

bool below_shared(const std::string& path) {
    return strncasecmp(path.c_str(), "shared/", 7) == 0;
}

class Adviser {
public:
    Adviser(const Answer& answer, const ExplainContext& context, const AskInGroups& ask)
        : answer_(answer),
          trail_(answer.trail),
          context_(context),
          ask_(ask),
          who_(short_name(context.caller)) {}

    std::vector<std::string> advise() {
        if (answer_.verdict != KVPERMS_NO_PERM || !trail_.standing_known) return {};
        if (!trail_.admin && !trail_.poweruser) {
            advise_standard_user();
        } else if (!trail_.admin && trail_.table_asked && below_shared(trail_.real_path)) {
            advise_masks();
        } else {
            advise_rule();
        }
        return std::move(sentences_);
    }

private:
    template <typename... Args>
    void say(fmt::format_string<Args...> format, Args&&... args) {
        sentences_.push_back(fmt::format(format, std::forward<Args>(args)...));
    }

    // The answer in the caller's groups and one more.
    Answer with_group(gid_t gid) const {
        std::vector<gid_t> groups = context_.caller.groups;
        groups.push_back(gid);
        return ask_(answer_.question, groups);
    }
    bool allowed_with(gid_t gid) const { return with_group(gid).verdict == KVPERMS_HAS_PERMS; }

    void advise_standard_user() {
        say("{} is neither in {} ({}) nor in {} ({}): standard users never have permission", who_,
            context_.admins.name, context_.admins.gid, context_.powerusers.name,
            context_.powerusers.gid);
        const Answer as_poweruser = with_group(context_.powerusers.gid);
        if (as_poweruser.verdict == KVPERMS_HAS_PERMS) {
            say("adding {} to {} would allow this", who_, context_.powerusers.name);
            return;
        }
        if (as_poweruser.verdict != KVPERMS_NO_PERM) return;
        say("being in {} alone would not allow it either:", context_.powerusers.name);
        ExplainContext then = context_;
        then.caller.groups.push_back(context_.powerusers.gid);
        for (std::string& sentence : nearest_grant(as_poweruser, then, ask_))
            sentences_.push_back(std::move(sentence));
    }

    // A rule of the namespace denied it, whatever the map says.
    void advise_rule() {
        if (!trail_.rule.empty()) say("{}: no entry in the map changes that", trail_.rule);
        advise_admins();
    }

    void advise_admins() {
        if (trail_.admin) {
            say("the rule binds administrators, too: nobody can do this");
        } else if (allowed_with(context_.admins.gid)) {
            say("administrators may: adding {} to {} ({}) would allow this", who_,
                context_.admins.name, context_.admins.gid);
        } else {
            say("administrators may not do this either");
        }
    }

    void advise_masks() {
        need_ = kavrin::decision_row(trail_.table_op, static_cast<e_file_type_t>(trail_.type)).need;
        const bool in_shared_itself = strcasecmp(trail_.real_parent.c_str(), "shared") == 0;
        const bool parent_lacks = !side_meets(need_, Side::kParent, trail_.table_parent_mask);
        const bool self_lacks = !side_meets(need_, Side::kSelf, trail_.table_path_mask);
        if (parent_lacks && in_shared_itself) {
            say("Shared itself counts as NAVIGATE for everybody but administrators: no entry in "
                "the map changes that");
            advise_admins();
            return;
        }
        if (self_lacks) advise_side(Side::kSelf, trail_.self, trail_.table_path_mask);
        if (parent_lacks) advise_side(Side::kParent, trail_.parent, trail_.table_parent_mask);
        if (self_lacks && parent_lacks)
            say("both are needed");
        else if (!self_lacks && !parent_lacks)
            advise_admins();
    }

    // The smallest right that meets the need on this side. Navigation does not arrive where the ACL
    // is taken as inherited.
    std::uint32_t smallest_grant(Side side, const AclTrail& acl) const {
        for (const std::uint32_t grant : kGrants) {
            if (grant == KAVRIN_PERM_MASK_NAVIGATE && acl.remapped) continue;
            if (side_meets(need_, side, grant)) return grant;
        }
        return KAVRIN_PERM_MASK_RDWRDEL;
    }

    void advise_side(Side side, const AclTrail& acl, std::uint32_t have) {
        const std::uint32_t grant = smallest_grant(side, acl);
        const std::string path = acl.path.starts_with('/') ? acl.path : "/" + acl.path;
        const std::string folder = path.substr(path.rfind('/') + 1);
        say("{} lacks {} for {}: {}", folder.empty() ? "/" : folder, missing_words(have, grant),
            who_, holdings(acl));
        const std::string groups = groups_that_would_do(acl);
        const bool enough = side == Side::kSelf
                                ? kavrin::meets(need_, grant, trail_.table_parent_mask)
                                : kavrin::meets(need_, trail_.table_path_mask, grant);
        say("{}giving {} {} on {}{} would {}", groups, who_, mask_words(grant), path,
            groups.empty() ? "" : ",", enough ? "allow this" : "supply that");
    }

    // What the ACL says about the caller.
    std::string holdings(const AclTrail& acl) const {
        const std::string from = governing_path(acl, context_);
        std::string text;
        for (const AceNote& ace : acl.aces) {
            if (ace.use == AceUse::kOtherTrustee) continue;
            if (!text.empty()) text += "; ";
            text += holding(ace, from);
        }
        if (!text.empty()) return text;
        return fmt::format("the ACL of {} has no entry for {} or a group of {}'s", from, who_,
                           who_);
    }

    std::string holding(const AceNote& ace, const std::string& from) const {
        const std::string trustee =
            ace.trustee_type == ACE_TYPE_USER ? who_ : words_for_group(ace.id);
        const std::string has =
            fmt::format("{} has {}, {} {}", trustee, mask_words(ace.mask),
                        ace.inherited ? "inherited from" : "explicitly on", from);
        switch (ace.use) {
            case AceUse::kSkippedInheritedNavigate:
                return has + ", where navigation does not reach down";
            case AceUse::kGroupNotAsked:
                return has + fmt::format(", not asked because of {}'s own entry", who_);
            case AceUse::kLaterUser:
                return has + ", behind the entry that counts";
            default:
                return has;
        }
    }

    // "group editors (1002) has RDWR there: adding alice to it, or " for the groups of this ACL
    // that the caller would only have to be in, the least mighty first.
    std::string groups_that_would_do(const AclTrail& acl) const {
        std::vector<AceNote> others;
        std::copy_if(
            acl.aces.begin(), acl.aces.end(), std::back_inserter(others), [](const AceNote& ace) {
                return ace.trustee_type == ACE_TYPE_GROUP && ace.use == AceUse::kOtherTrustee;
            });
        std::stable_sort(others.begin(), others.end(),
                         [](const AceNote& a, const AceNote& b) { return a.mask < b.mask; });
        std::vector<std::string> named;
        for (const AceNote& ace : others) {
            if (named.size() == kNamedGroups) break;
            if (allowed_with(ace.id))
                named.push_back(
                    fmt::format("{} has {}", words_for_group(ace.id), mask_words(ace.mask)));
        }
        if (named.empty()) return {};
        return fmt::format("{} there: adding {} to {}, or ", fmt::join(named, ", "), who_,
                           named.size() == 1 ? "it" : "one of them");
    }

    const Answer& answer_;
    const VerdictTrail& trail_;
    const ExplainContext& context_;
    const AskInGroups& ask_;
    std::string who_;
    Need need_ = Need::kAlways;
    std::vector<std::string> sentences_;
};

}  // namespace

std::vector<std::string> nearest_grant(const Answer& answer, const ExplainContext& context,
                                       const AskInGroups& ask) {
    return Adviser(answer, context, ask).advise();
}

}  // namespace kvadmin
