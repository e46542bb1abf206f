// See explain.h.
#include "explain.h"

#include <fmt/format.h>

#include <array>

#include "permissions/decision_table.h"

namespace kvadmin {
namespace {

using kavrin::AceNote;
using kavrin::AceUse;
using kavrin::AclTrail;
using kavrin::Need;
using kavrin::VerdictTrail;
using Json = nlohmann::ordered_json;

struct VerdictText {
    e_vfs_enforce_perms_t verdict;
    const char* name;
    const char* meaning;
};
constexpr std::array<VerdictText, 11> kVerdicts = {{
    {KVPERMS_NO_PERM, "KVPERMS_NO_PERM", "denied"},
    {KVPERMS_HAS_PERMS, "KVPERMS_HAS_PERMS", "allowed"},
    {KVPERMS_INVALID_ARGS, "KVPERMS_INVALID_ARGS", "the question is not one that can be judged"},
    {KVPERMS_MALLOC_ERR, "KVPERMS_MALLOC_ERR", "out of memory"},
    {KVPERMS_ACLREAD_ERR, "KVPERMS_ACLREAD_ERR", "an ACL cannot be read"},
    {KVPERMS_PERM_ERR, "KVPERMS_PERM_ERR", "the permissions cannot be read"},
    {KVPERMS_UNKNOWN_ERR, "KVPERMS_UNKNOWN_ERR", "unknown"},
    {KVPERMS_ACLBUF_ERR, "KVPERMS_ACLBUF_ERR",
     "the permission map cannot be had; 'kavrinctl map load' loads the persisted one, 'kavrinctl "
     "map build' a new one"},
    {KVPERMS_SYSTEM_ERR, "KVPERMS_SYSTEM_ERR",
     "the system refused to look at the path; is the share's root right and the path not too "
     "long?"},
    {KVPERMS_NOT_FOUND, "KVPERMS_NOT_FOUND", "not found"},
    {KVPERMS_NOT_SET, "KVPERMS_NOT_SET", "not set"},
}};

const VerdictText* text_of(e_vfs_enforce_perms_t verdict) {
    for (const VerdictText& text : kVerdicts) {
        if (text.verdict == verdict) return &text;
    }
    return nullptr;
}

std::string_view need_words(Need need) {
    switch (need) {
        case Need::kAlways:
            return "nothing";
        case Need::kParentRead:
            return "read on the parent folder";
        case Need::kParentReadWrite:
            return "read and write on the parent folder";
        case Need::kParentReadWriteDelete:
            return "read, write and delete on the parent folder";
        case Need::kSelfNav:
            return "read, navigate or view on the folder itself";
        case Need::kSelfNavAndParentNav:
            return "read, navigate or view on the folder itself and on its parent";
        case Need::kSelfReadAndParentReadWrite:
            return "read on the folder itself, read and write on its parent";
        case Need::kSelfReadAndParentReadWriteDelete:
            return "read on the folder itself, read, write and delete on its parent";
        case Need::kProgrammingError:
            break;
    }
    return "what nobody may ask for";
}

std::string_view use_name(AceUse use) {
    switch (use) {
        case AceUse::kUser:
            return "user";
        case AceUse::kGroup:
            return "group";
        case AceUse::kOtherTrustee:
            return "other trustee";
        case AceUse::kSkippedInheritedNavigate:
            return "skipped, inherited navigation";
        case AceUse::kLaterUser:
            return "skipped, later user entry";
        case AceUse::kGroupNotAsked:
            return "skipped, groups not asked";
    }
    return "unknown";
}

std::string_view use_words(AceUse use) {
    switch (use) {
        case AceUse::kUser:
            return "counted: the caller's own";
        case AceUse::kGroup:
            return "counted: a group of the caller's";
        case AceUse::kOtherTrustee:
            return "not the caller's";
        case AceUse::kSkippedInheritedNavigate:
            return "skipped: navigation is not inherited";
        case AceUse::kLaterUser:
            return "skipped: an earlier entry of the caller's counted";
        case AceUse::kGroupNotAsked:
            return "skipped: the caller's own entry settles it, groups are not asked";
    }
    return "unknown";
}

bool counted(AceUse use) {
    return use == AceUse::kUser || use == AceUse::kGroup;
}

bool comes_from_above(const AclTrail& acl) {
    return acl.remapped || acl.governing != acl.element;
}

std::string path_of(std::uint32_t offset, const std::string& looked_up,
                    const ExplainContext& context) {
    if (context.image != nullptr) return context.image->path_of(ElementOffset{offset});
    return looked_up.starts_with('/') ? looked_up : "/" + looked_up;
}

std::string group_list(const std::vector<gid_t>& groups) {
    std::string text;
    for (const gid_t gid : groups) text += (text.empty() ? "" : ", ") + words_for_group(gid);
    return text.empty() ? "no supplementary groups" : "supplementary: " + text;
}

std::string standing_words(const VerdictTrail& trail, const ExplainContext& context) {
    if (trail.admin)
        return fmt::format("administrator: in {} ({})", context.admins.name, context.admins.gid);
    if (trail.poweruser)
        return fmt::format("power user: in {} ({})", context.powerusers.name,
                           context.powerusers.gid);
    return fmt::format("standard user: neither in {} ({}) nor in {} ({})", context.admins.name,
                       context.admins.gid, context.powerusers.name, context.powerusers.gid);
}

std::string standing_name(const VerdictTrail& trail) {
    if (!trail.standing_known) return "not looked at";
    return trail.admin ? "administrator" : trail.poweruser ? "power user" : "standard user";
}

class Lines {
public:
    void add(std::string_view label, const std::string& text) {
        lines_.push_back(fmt::format("  {:<11} {}", label, text));
    }
    std::vector<std::string> take() { return std::move(lines_); }

private:
    std::vector<std::string> lines_;
};

void add_acl(Lines& lines, std::string_view label, const AclTrail& acl,
             const ExplainContext& context) {
    if (!acl.read) return;
    const std::string element = element_path(acl, context);
    const std::string governing = governing_path(acl, context);
    std::string from = "its own ACL governs";
    if (governing != element) {
        from = fmt::format("the ACL of {} governs, inherited", governing);
    } else if (comes_from_above(acl)) {
        from = "the ACL of that element governs, taken as inherited";
    }
    lines.add(label, fmt::format("{}: map element {}, {}", acl.path, element, from));
    for (const AceNote& ace : acl.aces) {
        lines.add("", fmt::format("  {} {} {}: {}", trustee_words(ace), mask_words(ace.mask),
                                  ace.inherited ? "inherited" : "explicit", use_words(ace.use)));
    }
    if (acl.aces.empty()) lines.add("", "  it has no entries");
    lines.add("", fmt::format("  the caller's mask: {}", mask_words(acl.mask)));
}

void add_decision(Lines& lines, const Answer& answer) {
    const VerdictTrail& trail = answer.trail;
    if (!trail.rule.empty()) lines.add("rule", trail.rule);
    if (trail.table_asked) {
        const auto type = static_cast<e_file_type_t>(trail.type);
        const Need need = kavrin::decision_row(trail.table_op, type).need;
        lines.add(
            "decision",
            fmt::format("{} on {} needs {}; there is {} on itself, {} on the parent",
                        operation_name(trail.table_op), type_words(trail.type), need_words(need),
                        mask_words(trail.table_path_mask), mask_words(trail.table_parent_mask)));
    }
    if (trail.special_path)
        lines.add("special", "a name that clients keep for themselves: the denial is overturned");
    std::string verdict =
        fmt::format("{} ({})", verdict_word(answer.verdict), verdict_name(answer.verdict));
    if (answer.nav) verdict += ", for navigation or viewing only";
    lines.add("verdict", verdict);
}

Json acl_as_json(const AclTrail& acl, const ExplainContext& context) {
    if (!acl.read) return nullptr;
    Json entries = Json::array();
    for (const AceNote& ace : acl.aces) {
        entries.push_back({{"type", ace.trustee_type == ACE_TYPE_USER ? "user" : "group"},
                           {"id", ace.id},
                           {"mask", ace.mask},
                           {"mask_name", mask_words(ace.mask)},
                           {"inherited", ace.inherited},
                           {"counted", counted(ace.use)},
                           {"use", use_name(ace.use)}});
    }
    return {{"path", acl.path},
            {"element", element_path(acl, context)},
            {"governing", governing_path(acl, context)},
            {"inherited", comes_from_above(acl)},
            {"entries", std::move(entries)},
            {"mask", acl.mask},
            {"mask_name", mask_words(acl.mask)}};
}

Json decision_as_json(const VerdictTrail& trail) {
    if (!trail.table_asked) return nullptr;
    const Need need =
        kavrin::decision_row(trail.table_op, static_cast<e_file_type_t>(trail.type)).need;
    return {{"op", operation_name(trail.table_op)},
            {"type", type_name(trail.type)},
            {"need", need_words(need)},
            {"mask", mask_words(trail.table_path_mask)},
            {"parent_mask", mask_words(trail.table_parent_mask)}};
}

}  // namespace

std::string mask_words(std::uint32_t mask) {
    if (mask == KAVRIN_PERM_MASK_NOPERM) return "NOPERM";
    std::string words;
    const auto add = [&words](std::string_view word) {
        words += (words.empty() ? "" : "+") + std::string(word);
    };
    std::uint32_t rest = mask;
    const auto take = [&rest, &add](std::uint32_t bits, std::string_view word) {
        if ((rest & bits) != bits) return;
        add(word);
        rest &= ~bits;
    };
    take(KAVRIN_PERM_MASK_RDWRDEL, "RDWRDEL");
    take(KAVRIN_PERM_MASK_RDWR, "RDWR");
    take(KAVRIN_PERM_MASK_RDONLY, "RDONLY");
    take(KAVRIN_PERM_MASK_NAVIGATE, "NAVIGATE");
    take(KAVRIN_PERM_MASK_VIEWER_ONLY, "VIEWER_ONLY");
    if (rest != 0) add(fmt::format("0x{:x}", rest));
    return words;
}

std::string verdict_name(e_vfs_enforce_perms_t verdict) {
    const VerdictText* text = text_of(verdict);
    return text != nullptr ? text->name : fmt::format("verdict {}", static_cast<int>(verdict));
}

std::string_view verdict_word(e_vfs_enforce_perms_t verdict) {
    if (verdict == KVPERMS_HAS_PERMS) return "allowed";
    return verdict == KVPERMS_NO_PERM ? "denied" : "error";
}

std::string_view error_words(e_vfs_enforce_perms_t verdict) {
    const VerdictText* text = text_of(verdict);
    return text != nullptr ? text->meaning : "an unknown verdict";
}

std::string element_path(const AclTrail& acl, const ExplainContext& context) {
    return path_of(acl.element, acl.path, context);
}

std::string governing_path(const AclTrail& acl, const ExplainContext& context) {
    return path_of(acl.governing, acl.path, context);
}

std::string trustee_words(const AceNote& ace) {
    return ace.trustee_type == ACE_TYPE_USER ? "user " + words_for_user(ace.id)
                                             : words_for_group(ace.id);
}

std::vector<std::string> explanation_as_text(const Answer& answer, const ExplainContext& context,
                                             const std::vector<std::string>& advice) {
    const VerdictTrail& trail = answer.trail;
    Lines lines;
    lines.add("caller",
              fmt::format("{}, primary {}; {}", words_for_user(context.caller.uid),
                          words_for_group(context.caller.gid), group_list(context.caller.groups)));
    if (trail.standing_known) lines.add("standing", standing_words(trail, context));
    std::string path = trail.real_path.empty() ? answer.question.path : trail.real_path;
    if (trail.type != 0) path += fmt::format(": {} ({})", type_words(trail.type), trail.full_path);
    lines.add("path", path);
    add_acl(lines, "element", trail.self, context);
    add_acl(lines, "parent", trail.parent, context);
    add_decision(lines, answer);
    for (std::size_t i = 0; i < advice.size(); ++i)
        lines.add(i == 0 ? "to allow it" : "", advice[i]);
    return lines.take();
}

Json explanation_as_json(const Answer& answer, const ExplainContext& context,
                         const std::vector<std::string>& advice) {
    const VerdictTrail& trail = answer.trail;
    return {{"path", trail.real_path},
            {"parent_path", trail.real_parent},
            {"root", trail.real_root},
            {"full_path", trail.full_path},
            {"type", type_name(trail.type)},
            {"standing", standing_name(trail)},
            {"element", acl_as_json(trail.self, context)},
            {"parent", acl_as_json(trail.parent, context)},
            {"rule", trail.rule},
            {"decision", decision_as_json(trail)},
            {"special_name", trail.special_path},
            {"advice", advice}};
}

}  // namespace kvadmin
