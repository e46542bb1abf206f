// See sim_script.h. The statements are a table; what an argument may be is asked in one place for
// each sort of argument.
#include "sim_script.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <utility>

#include "sim_forms.h"
#include "sim_words.h"

namespace kvadmin {
namespace {

using namespace sim_forms;

constexpr std::size_t kLongestName = 32;  // what the accounts database takes
constexpr std::uint32_t kHighestId = 4'294'967'294U;

std::string listed(Choices choices) {
    std::string text;
    for (const std::string_view choice : choices)
        text += (text.empty() ? "" : ", ") + std::string(choice);
    return text;
}

std::string shape(const Form& form) {
    return form.syntax.empty() ? std::string(form.name)
                               : fmt::format("{} {}", form.name, form.syntax);
}

bool is_errno_name(const std::string& name) {
    for (int error = 1; error < 134; ++error) {
        const char* known = strerrorname_np(error);
        if (known != nullptr && name == known) return true;
    }
    return false;
}

// Reads a script; what was declared above a line is known to it.
class Parser {
public:
    explicit Parser(const SimLimits& limits) : limits_(limits) {}

    void line(std::string_view text, std::size_t number) {
        SimLine line = split_sim_line(text, number);
        number_ = number;
        for (SimError& error : line.errors) result_.errors.push_back(std::move(error));
        if (!line.errors.empty() || line.words.empty()) return;
        words_ = std::move(line.words);
        const SimWord& first = words_.front();
        const auto* form = std::find_if(kForms.begin(), kForms.end(), [&first](const Form& known) {
            return known.name == first.text;
        });
        if (form == kForms.end()) {
            std::string names;
            for (const Form& known : kForms)
                names += (names.empty() ? "" : ", ") + std::string(known.name);
            error(first, "'{}' is no statement; there are {}", first.text, names);
            return;
        }
        statement_ = {};
        statement_.kind = form->kind;
        statement_.line = number;
        statement_.column = first.column;
        statement_.text = std::move(line.text);
        const std::size_t errors = result_.errors.size();
        if (may_stand_here(*form) && has_its_arguments(*form)) arguments();
        remember(*form);
        if (result_.errors.size() == errors) result_.statements.push_back(std::move(statement_));
    }

    SimScript take() { return std::move(result_); }

private:
    template <typename... Args>
    void error(const SimWord& at, fmt::format_string<Args...> format, Args&&... args) {
        result_.errors.push_back(
            {number_, at.column, fmt::format(format, std::forward<Args>(args)...)});
    }

    bool may_stand_here(const Form& form) {
        const SimWord& at = words_.front();
        if (form.needs == Needs::kSandbox && !limits_.sandboxed) {
            error(at,
                  "'{}' needs a run with --sandboxed: without it the map, the accounts and the "
                  "groups are this machine's own",
                  form.name);
        } else if (form.needs == Needs::kOwnShare && !limits_.sandboxed && !limits_.own_share) {
            error(at,
                  "'{}' would change a share in use; leave --share out for a temporary one, or run "
                  "with --sandboxed",
                  form.name);
        } else if (form.needs == Needs::kUser && !connected_) {
            error(at, "nobody is connected here; write 'as USER' above");
        } else if (form.needs == Needs::kResult && !has_result_) {
            error(at, "there is no operation above whose result could be expected");
        } else {
            return true;
        }
        return false;
    }

    bool has_its_arguments(const Form& form) {
        const std::size_t count = words_.size() - 1;
        if (count < form.least) {
            error(words_.front(), "'{}' needs more; it is written '{}'", form.name, shape(form));
        } else if (count > form.most) {
            error(words_[form.most + 1], "'{}' is one word too many; it is written '{}'",
                  words_[form.most + 1].text, shape(form));
        } else {
            return true;
        }
        return false;
    }

    // What the lines below may build on, also when this line has a mistake of its own: one mistake
    // is told once.
    void remember(const Form& form) {
        if (form.kind == SimKind::kAs) connected_ = true;
        if (form.kind == SimKind::kDisconnect) connected_ = false;
        if (form.kind == SimKind::kAs || is_sim_operation(form.kind)) has_result_ = true;
        if (form.needs == Needs::kOwnShare || form.kind == SimKind::kAs) share_settled_ = true;
    }

    const SimWord& word(std::size_t index) const { return words_[index]; }
    bool has(std::size_t index) const { return index < words_.size(); }
    void arguments() {
        switch (statement_.kind) {
            case SimKind::kShare:
                share();
                break;
            case SimKind::kGroup:
                declare_group(word(1), word(2));
                break;
            case SimKind::kAdministrators:
            case SimKind::kPowerUsers:
                statement_.id = id(word(1), "group id");
                groups_[words_.front().text] = statement_.id;
                break;
            case SimKind::kUser:
            case SimKind::kComputer:
                declare_user();
                break;
            case SimKind::kGroups:
                statement_.name = word(1).text;
                if (!users_.contains(statement_.name))
                    error(word(1), "no user '{}' is declared above; write 'user {} UID'",
                          word(1).text, word(1).text);
                take_groups(2);
                break;
            case SimKind::kAcl:
                take_acl();
                break;
            case SimKind::kPatterns:
                for (std::size_t i = 1; has(i); ++i) statement_.words.push_back(word(i).text);
                break;
            case SimKind::kFolder:
            case SimKind::kFixedFolder:
                statement_.name = inner_path(word(1));
                take_owner(2);
                break;
            case SimKind::kFile:
                statement_.name = inner_path(word(1));
                statement_.second = word(2).text;
                take_owner(3);
                break;
            default:
                operation();
        }
    }

    void operation() {
        if (has(1)) statement_.name = word(1).text;
        if (has(1) && is_sim_operation(statement_.kind)) stay_inside(word(1));
        switch (statement_.kind) {
            case SimKind::kAudit:
                statement_.choice = choice(1, kSwitch, {});
                break;
            case SimKind::kTouchMarker:
                statement_.name = choice(1, kMarkers, {});
                statement_.choice = choice(2, kTimes, "now");
                break;
            case SimKind::kExpect:
                expectation();
                break;
            case SimKind::kLs:
                statement_.choice = choice(2, kListings, "by-name");
                break;
            case SimKind::kOpen:
                statement_.choice = choice(2, kModes, "read");
                break;
            case SimKind::kCreate:
                disposition();
                break;
            case SimKind::kRename:
                if (has(2)) stay_inside(word(2));
                [[fallthrough]];
            case SimKind::kPut:
            case SimKind::kAppend:
                statement_.second = word(2).text;
                break;
            default:
                break;
        }
    }

    void share() {
        statement_.name = word(1).text;
        if (limits_.share_given) {
            error(words_.front(), "the command line names the share already");
        } else if (share_settled_) {
            error(words_.front(), "'share' must stand before the first folder, file and user");
        } else if (!statement_.name.starts_with('/')) {
            error(word(1), "'{}' is not absolute; a share's path begins with '/'", statement_.name);
        }
        if (!limits_.sandboxed) limits_.own_share = false;
        share_settled_ = true;
    }

    void expectation() {
        statement_.choice = choice(1, kResults, {});
        if (!has(2)) return;
        statement_.second = word(2).text;
        if (statement_.choice != "refused") {
            error(word(2), "only 'expect refused' takes an error");
        } else if (!is_errno_name(statement_.second)) {
            error(word(2), "'{}' is no error; write its name, such as EACCES or EPERM",
                  statement_.second);
        }
    }

    void disposition() {
        const bool only_access = has(2) && !has(3) && word(2).text == kForWriting.front();
        statement_.choice = only_access ? "create" : choice(2, kDispositions, "create");
        if (has(3)) choice(3, kForWriting, {});
        statement_.writes = only_access || has(3);
    }

    std::string choice(std::size_t index, Choices choices, std::string_view otherwise) {
        if (!has(index)) return std::string(otherwise);
        const SimWord& at = word(index);
        if (std::find(choices.begin(), choices.end(), at.text) == choices.end())
            error(at, "'{}' does not fit here; there is {}", at.text, listed(choices));
        return at.text;
    }

    std::uint32_t id(const SimWord& at, std::string_view what) {
        std::uint32_t value = 0;
        const char* end = at.text.data() + at.text.size();
        const auto [stop, problem] = std::from_chars(at.text.data(), end, value);
        if (problem == std::errc() && stop == end && value != 0 && value <= kHighestId)
            return value;
        error(at, "'{}' is no {}; write a number from 1 to {}", at.text, what, kHighestId);
        return 0;
    }

    static bool is_number(const std::string& text) {
        return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    }

    void declare_group(const SimWord& name, const SimWord& gid) {
        statement_.name = name.text;
        statement_.id = id(gid, "group id");
        if (is_number(name.text)) error(name, "a group's name is no number");
        groups_[name.text] = statement_.id;
    }

    void declare_user() {
        const SimWord& name = word(1);
        const bool computer = statement_.kind == SimKind::kComputer;
        statement_.name = name.text;
        if (name.text.empty() || name.text.size() > kLongestName ||
            name.text.find_first_of(":/\" \t") != std::string::npos || is_number(name.text) ||
            name.text.front() == '-') {
            error(name,
                  "'{}' is no account name; up to {} characters without ':', '/' and blanks, not "
                  "a number",
                  name.text, kLongestName);
        } else if (computer && !name.text.ends_with('$')) {
            error(name, "'{}' is no computer's account: those end in '$'", name.text);
        } else if (!computer && name.text.ends_with('$')) {
            error(name, "'{}' is a computer's account; write 'computer' for 'user'", name.text);
        } else if (users_.contains(name.text)) {
            error(name, "'{}' is declared above already; 'groups' gives a user other groups",
                  name.text);
        }
        statement_.id = id(word(2), "user id");
        users_[name.text] = statement_.id;
        if (!has(3)) return;
        choice(3, kGroupsWord, {});
        if (!has(4)) error(word(3), "'groups' stands before groups; name one, or leave it out");
        take_groups(4);
    }

    void take_groups(std::size_t from) {
        for (std::size_t i = from; has(i); ++i) statement_.groups.push_back(group_id(word(i)));
    }

    std::uint32_t group_id(const SimWord& at) {
        if (is_number(at.text)) return id(at, "group id");
        if (const auto known = groups_.find(at.text); known != groups_.end()) return known->second;
        error(at, "no group '{}' is declared above; write 'group {} GID', or a number", at.text,
              at.text);
        return 0;
    }

    std::uint32_t user_id(const SimWord& at) {
        if (is_number(at.text)) return id(at, "user id");
        if (const auto known = users_.find(at.text); known != users_.end()) return known->second;
        error(at, "no user '{}' is declared above; write 'user {} UID', or a number", at.text,
              at.text);
        return 0;
    }

    void take_owner(std::size_t from) {
        if (!has(from)) return;
        choice(from, kOwner, {});
        if (has(from + 1)) {
            statement_.owner = user_id(word(from + 1));
        } else {
            error(word(from), "'owner' stands before a user; name one");
        }
    }

    void take_acl() {
        statement_.name = inner_path(word(1));
        for (std::size_t i = 2; has(i); i += 3) {
            SimAce ace;
            ace.group = choice(i, kTrustees, {}) == "group";
            if (!has(i + 2)) {
                error(word(i), "an entry is three words: user or group, whose, and the rights");
                return;
            }
            ace.id = ace.group ? group_id(word(i + 1)) : user_id(word(i + 1));
            ace.mask = mask(word(i + 2));
            statement_.aces.push_back(ace);
        }
    }

    std::uint32_t mask(const SimWord& at) {
        for (const Right& right : kRights)
            if (at.text == right.name) return right.mask;
        error(at, "'{}' are no rights; there is none, r, rw, rwd, nav, view", at.text);
        return 0;
    }

    // A path that climbs above its start is allowed by the hooks, whose callers refuse it before
    // they ask: what is done as root must not leave the share of a machine in use.
    void stay_inside(const SimWord& at) {
        const std::string path = "/" + at.text + "/";
        if (!limits_.sandboxed && path.find("/../") != std::string::npos)
            error(at, "'{}' has '..' in it; outside of a sandbox a path stays in the share",
                  at.text);
    }

    // A path that stays within the share, whatever is done with it; "/" is the share itself.
    std::string inner_path(const SimWord& at) {
        const std::string& path = at.text;
        if (path == "/" && statement_.kind == SimKind::kAcl) return path;
        bool sound = !path.empty() && path.front() != '/' && path.back() != '/';
        for (std::size_t begin = 0; sound && begin <= path.size();) {
            const std::size_t end = std::min(path.find('/', begin), path.size());
            const std::string_view part = std::string_view(path).substr(begin, end - begin);
            sound = !part.empty() && part != "." && part != "..";
            begin = end + 1;
        }
        if (!sound) error(at, "'{}' is no path below the share; write it like Shared/Docs", path);
        return path;
    }

    SimLimits limits_;
    SimScript result_;
    SimStatement statement_;
    std::vector<SimWord> words_;
    std::size_t number_ = 0;
    std::map<std::string, std::uint32_t> users_;
    std::map<std::string, std::uint32_t> groups_;
    bool connected_ = false;
    bool has_result_ = false;
    bool share_settled_ = false;
};

}  // namespace

SimScript parse_sim_script(std::string_view text, const SimLimits& limits) {
    Parser parser(limits);
    std::size_t number = 1;
    for (std::size_t begin = 0; begin < text.size(); ++number) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        parser.line(text.substr(begin, end - begin), number);
        begin = end + 1;
    }
    return parser.take();
}

bool is_sim_operation(SimKind kind) {
    return kind >= SimKind::kCache;
}

std::string sim_statement_list() {
    std::string text;
    for (const Form& form : kForms) text += fmt::format("  {}\n", shape(form));
    return text;
}

}  // namespace kvadmin
