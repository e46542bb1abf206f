// kavrinctl who-can: everybody who may do an operation on a path, and why. Of this machine's users
// the enforcement itself is asked, each with his identity; trustees of the map's entries, who need
// have no account here, are ruled on by their masks.
#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "command.h"
#include "machine_users.h"
#include "path_rulings.h"
#include "user_options.h"
#include "utf8.h"
#include "verdict_child.h"

namespace kvadmin {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::uint32_t kNobody = 0xFFFFFFFF;

struct Options {
    std::string path;
    std::string op = "read";
    std::string file;
    std::string type;
    UserOptions standing;
    bool json = false;
};

struct AllowedUser {
    Identity who;
    Caller caller;
    Ruling ruling;
    std::vector<CountedEntry> entries;
};

struct AllowedTrustee {
    AclEntry trustee;
    std::string name;  // empty: not known here
    Ruling ruling;
    std::vector<CountedEntry> entries;
};

struct Findings {
    std::string path;
    e_file_type_t type = FSTYPE_FILE;
    Question question;
    bool asked = false;  // the enforcement was; else the users are ruled on, too
    std::optional<Ruling> everybody;
    std::vector<AllowedTrustee> trustees;
    std::vector<AllowedUser> users;
};

e_file_type_t type_of(const Options& options, const ImageReader& image, const FoundPath& found,
                      const ShareOnDisk& disk) {
    for (const e_file_type_t type : {FSTYPE_FILE, FSTYPE_FOLDER, FSTYPE_DOES_NOT_EXIST}) {
        if (options.type == type_name(type)) return type;
    }
    if (disk.known()) return disk.type(found.path.substr(1));
    const auto record = image.element(found.element);
    const bool has_children =
        found.mapped && record && (record->flags & FSELEM_FLAG_NOCHILDREN) == 0;
    const auto depth = std::count(found.path.begin(), found.path.end(), '/');
    constexpr int kFoldersOnly = 2;  // the top level, Shared and Private hold no files
    if (has_children || depth <= kFoldersOnly) return FSTYPE_FOLDER;
    note(
        fmt::format("{} is taken for a file: it has no children in the map; --type or --root says "
                    "otherwise",
                    printable(found.path)));
    return FSTYPE_FILE;
}

class Enquiry {
public:
    Enquiry(const Options& options, const MapSource& source, const PathRulings& rulings,
            Findings& findings)
        : rulings_(rulings), findings_(findings) {
        findings_.asked = source.live().has_value();
        std::vector<std::string> remarks;
        const UserOptions& given = options.standing;
        job_.context.admins = reserved_group(given.admin, "--admin", kAdminsGroup, remarks);
        job_.context.powerusers = reserved_group(given.power, "--power", kPowerUsersGroup, remarks);
        for (const std::string& remark : remarks) note(remark);
        // Without the share's folder nothing on the disk is asked about: the type is given, and
        // Private needs the folder.
        job_.root = given.root.empty() ? "/" : given.root;
        job_.questions = {findings.question};
    }

    void run() {
        find_trustees();
        std::vector<uid_t> uids;
        for (const AclEntry& trustee : rulings_.trustees()) {
            if (!trustee.is_group) uids.push_back(trustee.id);
        }
        bool stranger_asked = false;
        const Caller stranger{kNobody, kNobody, {}, false, false};
        const Ruling for_strangers = rulings_.of(stranger);
        if (for_strangers.allowed()) findings_.everybody = for_strangers;
        for (const Identity& who :
             machine_users({job_.context.admins.gid, job_.context.powerusers.gid}, uids)) {
            const Caller caller =
                caller_of(who, job_.context.admins.gid, job_.context.powerusers.gid);
            const bool standard = caller.uid != 0 && !caller.admin && !caller.poweruser;
            // What standard users may does not depend on who they are: one is asked for all.
            if (standard && std::exchange(stranger_asked, true)) continue;
            ask(who, caller, standard);
        }
    }

private:
    void find_trustees() {
        for (const AclEntry& trustee : rulings_.trustees()) {
            Caller caller{kNobody, kNobody, {}, false, true};
            if (trustee.is_group) {
                caller.groups = {trustee.id};
            } else {
                caller.uid = trustee.id;
            }
            const Ruling found = rulings_.of(caller);
            if (!found.allowed()) continue;
            findings_.trustees.push_back(
                {trustee, trustee_name(trustee), found, rulings_.counted(caller)});
        }
    }

    void ask(const Identity& who, const Caller& caller, bool standard) {
        const Ruling expected = rulings_.of(caller);
        if (findings_.asked) {
            job_.context.caller = who;
            const Json answer = ask_in_child(job_)[0];
            const std::string verdict = answer["verdict"];
            if (verdict == "error")
                fail(Exit::kFailure, "the verdict for {} could not be had: {}", short_name(who),
                     error_words(e_vfs_enforce_perms_t(int(answer["number"]))));
            if ((verdict == "allowed") != expected.allowed() ||
                bool(answer["navigation_only"]) != expected.navigation_only)
                fail(Exit::kFailure,
                     "the verdict for {} is not the one that the map read before gives; it was "
                     "replaced meanwhile: ask again",
                     short_name(who));
        }
        if (expected.allowed() && !standard)
            findings_.users.push_back({who, caller, expected, rulings_.counted(caller)});
    }

    const PathRulings& rulings_;
    Findings& findings_;
    VerdictJob job_;
};

std::string trustee_words(const AclEntry& entry) {
    return entry.is_group ? words_for_group(entry.id) : "user " + words_for_user(entry.id);
}

// "group projects (2001) RDWR on /Shared/Projects"; without the names of a trustee told before.
std::string entries_words(const std::vector<CountedEntry>& entries, bool named) {
    std::string text;
    for (const CountedEntry& counted : entries)
        text += fmt::format("{}{}{} on {}", text.empty() ? "" : ", ",
                            named ? trustee_words(counted.entry) + " " : "",
                            mask_words(counted.entry.mask), counted.path);
    return text;
}

std::string reason(const Ruling& ruling, const std::vector<CountedEntry>& entries, bool named) {
    std::string text = entries.empty() ? ruling.rule : entries_words(entries, named);
    if (ruling.navigation_only) text += ", for navigation or viewing only";
    return text;
}

void print_text(const Findings& findings) {
    const Question& question = findings.question;
    fmt::print("{} {}, {}: {}{}\n", question.asked, printable(findings.path),
               type_words(findings.type), question.remark.empty() ? "" : question.remark + ", ",
               operation_name(question.op));
    if (findings.everybody) fmt::print("everybody: {}\n", findings.everybody->rule);
    if (!findings.trustees.empty()) fmt::print("entries of the map that allow it to power users\n");
    for (const AllowedTrustee& found : findings.trustees) {
        fmt::print("  {:<28}{}{}\n", printable(trustee_words(found.trustee)),
                   printable(reason(found.ruling, found.entries, false)),
                   found.name.empty() ? "; not known to this machine" : "");
    }
    fmt::print("users of this machine{}{}\n",
               findings.asked ? "" : ", worked out from the map file",
               findings.users.empty() ? ": none by name" : "");
    for (const AllowedUser& found : findings.users) {
        fmt::print("  {:<28}{}: {}\n", printable(words_for_user(found.who.uid)),
                   standing_name(found.caller),
                   printable(reason(found.ruling, found.entries, true)));
    }
}

Json entries_as_json(const std::vector<CountedEntry>& entries) {
    Json list = Json::array();
    for (const CountedEntry& counted : entries) {
        list.push_back({{"type", counted.entry.is_group ? "group" : "user"},
                        {"id", counted.entry.id},
                        {"mask", counted.entry.mask},
                        {"rights", mask_words(counted.entry.mask)},
                        {"path", counted.path}});
    }
    return list;
}

void print_document(const Findings& findings) {
    Json trustees = Json::array();
    for (const AllowedTrustee& found : findings.trustees) {
        trustees.push_back({{"type", found.trustee.is_group ? "group" : "user"},
                            {"id", found.trustee.id},
                            {"name", found.name.empty() ? Json(nullptr) : Json(found.name)},
                            {"navigation_only", found.ruling.navigation_only},
                            {"entries", entries_as_json(found.entries)}});
    }
    Json users = Json::array();
    for (const AllowedUser& found : findings.users) {
        users.push_back({{"user", found.who.name},
                         {"uid", found.who.uid},
                         {"standing", standing_name(found.caller)},
                         {"rule", found.ruling.rule},
                         {"navigation_only", found.ruling.navigation_only},
                         {"entries", entries_as_json(found.entries)}});
    }
    const Json document{
        {"path", findings.path},
        {"asked", findings.question.asked},
        {"op", operation_name(findings.question.op)},
        {"type", type_name(findings.type)},
        {"enforcement_asked", findings.asked},
        {"everybody", findings.everybody ? Json(findings.everybody->rule) : Json(nullptr)},
        {"trustees", std::move(trustees)},
        {"users", std::move(users)}};
    fmt::print("{}\n", document.dump(2, ' ', false, Json::error_handler_t::replace));
}

Exit show(const Options& options) {
    use_library();
    const MapSource source = MapSource::open(options.file, "who-can");
    const ImageReader image = source.sound_image();
    const ShareOnDisk disk(options.standing.root);
    const FoundPath found = find_path(source, image, options.path);
    Findings findings;
    findings.type = type_of(options, image, found, disk);
    findings.path = found.path;
    const std::string share_path = found.path == "/" ? "." : found.path.substr(1);
    findings.question = question_for(options.op, share_path, findings.type, findings.type);
    const PathRulings rulings(source, image, disk, findings.question);
    if (in_private(rulings.zone()) && !disk.known())
        fail(Exit::kUsage,
             "below Private the owners of the folders on the disk decide: give the share's folder "
             "with --root");
    Enquiry(options, source, rulings, findings).run();
    if (options.json) {
        print_document(findings);
    } else {
        print_text(findings);
    }
    return Exit::kDone;
}

}  // namespace

void register_who_can(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("who-can", "Show everybody who may do an operation on a path, and why");
    const auto options = std::make_shared<Options>();
    command->add_option("path", options->path, "Path in the share, such as Shared/Docs")
        ->required();
    command->add_option("op", options->op,
                        "Operation, such as open_write or rmdir, or one of the words read, write, "
                        "delete, list (default: read)");
    command
        ->add_option("--type", options->type,
                     "Take PATH for this instead of looking at the map and the disk")
        ->check(CLI::IsMember({"file", "folder", "missing"}));
    add_map_option(*command, options->file);
    add_standing_options(*command, options->standing);
    add_json_option(*command, options->json);
    on_run(*command, [options] { return show(*options); });
}

}  // namespace kvadmin
