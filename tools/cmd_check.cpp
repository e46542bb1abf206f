// kavrinctl check: may this user do this to this path, and why. The command line and the printing;
// verdict_child asks, explain and nearest_grant find the words.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "command.h"
#include "kavrin.h"
#include "terminal.h"
#include "user_options.h"
#include "utf8.h"
#include "verdict_child.h"

namespace kvadmin {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kLongestPath = 4095;

struct Options {
    std::string user;
    std::optional<std::uint32_t> uid;
    std::string gid;
    std::optional<std::string> groups;
    std::string admin;
    std::string power;
    std::string root;
    std::string path;
    std::vector<std::string> ops;
    std::string type;
    bool explain = false;
    bool json = false;
};

Identity caller(const Options& options, std::vector<std::string>& remarks) {
    if (options.user.empty() == !options.uid)
        fail(Exit::kUsage, "say whom the verdict is for: either --user NAME or --uid N");
    if (!options.user.empty()) {
        if (!options.gid.empty() || options.groups)
            fail(Exit::kUsage,
                 "--gid and --groups go with --uid; --user takes them from the "
                 "user and group databases");
        return identity_of_user(options.user);
    }
    if (*options.uid == 0xFFFFFFFFu) fail(Exit::kUsage, "--uid: no user has the id 4294967295");
    std::optional<gid_t> gid;
    if (!options.gid.empty()) gid = parse_group(options.gid, "--gid");
    std::optional<std::vector<gid_t>> groups;
    if (options.groups) groups = parse_groups(*options.groups, "--groups");
    return identity_of_uid(*options.uid, gid, std::move(groups), remarks);
}

std::string normalised(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> result(normalize_path(path.c_str()), std::free);
    return result == nullptr ? path : result.get();
}

std::string share_root(const std::string& given) {
    const std::unique_ptr<char, void (*)(void*)> real(realpath(given.c_str(), nullptr), std::free);
    struct stat st {};
    if (real == nullptr || stat(real.get(), &st) != 0)
        fail(Exit::kFailure, "cannot look at the share {}: {}", given, std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) fail(Exit::kFailure, "the share {} is not a folder", given);
    return given.starts_with('/') ? given : std::string(real.get());
}

// PATH as the enforcement takes it, relative to the share: a leading "/" is the share's top, and a
// path that lies below the share on this machine is cut there. The share's root itself stays as it
// is: it has a rule of its own.
std::string relative_path(const std::string& root, const std::string& path) {
    if (!path.starts_with('/')) return path;
    const std::string normal_root = normalised(root);
    const std::string normal = normalised(path);
    if (normal == normal_root) return path;
    if (normal.starts_with(normal_root + "/")) return normal.substr(normal_root.size() + 1);
    const std::size_t start = path.find_first_not_of('/');
    return start == std::string::npos ? "." : path.substr(start);
}

e_file_type_t type_on_disk(const std::string& root, const std::string& path) {
    struct stat st {};
    const std::string full = path.starts_with('/') ? path : root + "/" + path;
    if (stat(full.c_str(), &st) != 0) return FSTYPE_DOES_NOT_EXIST;
    return S_ISDIR(st.st_mode) ? FSTYPE_FOLDER : FSTYPE_FILE;
}

int forced_type(const std::string& name) {
    for (const e_file_type_t type : {FSTYPE_FILE, FSTYPE_FOLDER, FSTYPE_DOES_NOT_EXIST}) {
        if (name == type_name(type)) return type;
    }
    return 0;
}

Colour colour_of(std::string_view verdict) {
    if (verdict == "allowed") return Colour::kGreen;
    return verdict == "denied" ? Colour::kRed : Colour::kYellow;
}

void print_answer(const Json& answer, std::size_t width) {
    const std::string verdict = answer["verdict"];
    std::string line = fmt::format("{:<{}}  {}", std::string(answer["asked"]), width,
                                   coloured(stdout, colour_of(verdict), verdict));
    if (verdict == "error")
        line += fmt::format(" {} ({})", std::string(answer["code"]), int(answer["number"]));
    if (answer["navigation_only"]) line += ", for navigation or viewing only";
    const std::string remark = answer["remark"];
    if (!remark.empty()) line += fmt::format("  ({}: {})", remark, std::string(answer["op"]));
    fmt::print("{}\n", line);
    if (!answer.contains("text")) return;
    for (const std::string text : answer["text"]) fmt::print("{}\n", printable(text));
}

void print_text(const Json& answers, const Identity& who, const Options& options,
                e_file_type_t type) {
    fmt::print("{} on {} ({}):\n", words_for_user(who.uid), printable(options.path),
               type_words(type));
    std::size_t width = 0;
    for (const Json& answer : answers)
        width = std::max(width, answer["asked"].get_ref<const std::string&>().size());
    for (const Json& answer : answers) print_answer(answer, width);
}

void print_json(Json answers, const VerdictJob& job, const Options& options, e_file_type_t type,
                const std::vector<std::string>& remarks) {
    for (Json& answer : answers) answer.erase("text");
    const Identity& who = job.context.caller;
    const Json document{{"user", who.name.empty() ? Json(nullptr) : Json(who.name)},
                        {"uid", who.uid},
                        {"gid", who.gid},
                        {"groups", who.groups},
                        {"admins_gid", job.context.admins.gid},
                        {"powerusers_gid", job.context.powerusers.gid},
                        {"root", job.root},
                        {"path", options.path},
                        {"type", type_name(type)},
                        {"results", std::move(answers)},
                        {"remarks", remarks}};
    fmt::print("{}\n", document.dump(2, ' ', false, Json::error_handler_t::replace));
}

// An error leaves the question open, so it outweighs a denial.
Exit exit_for(const Json& answers) {
    Exit result = Exit::kDone;
    for (const Json& answer : answers) {
        const std::string verdict = answer["verdict"];
        if (verdict == "error") {
            note(fmt::format("{}: {} ({}): {}", std::string(answer["asked"]),
                             std::string(answer["code"]), int(answer["number"]),
                             error_words(e_vfs_enforce_perms_t(int(answer["number"])))));
            result = Exit::kFailure;
        } else if (verdict == "denied" && result == Exit::kDone) {
            result = Exit::kDenied;
        }
    }
    return result;
}

Exit check(const Options& options) {
    require_root("check");
    use_library();
    if (options.path.size() > kLongestPath)
        fail(Exit::kUsage, "PATH has {} bytes; no path has more than {}", options.path.size(),
             kLongestPath);
    std::vector<std::string> remarks;
    VerdictJob job;
    job.explain = options.explain;
    job.context.caller = caller(options, remarks);
    job.context.admins = reserved_group(options.admin, "--admin", kAdminsGroup, remarks);
    job.context.powerusers = reserved_group(options.power, "--power", kPowerUsersGroup, remarks);
    job.root = share_root(options.root);
    const std::string path = relative_path(job.root, options.path);
    const int force = forced_type(options.type);
    const e_file_type_t type =
        force != 0 ? static_cast<e_file_type_t>(force) : type_on_disk(job.root, path);
    if (options.ops.empty()) {
        for (const std::string_view op : usual_operations(type))
            job.questions.push_back(question_for(op, path, type, force));
    }
    for (const std::string& op : options.ops)
        job.questions.push_back(question_for(op, path, type, force));

    const Json answers = ask_in_child(job);
    for (const std::string& remark : remarks) note(remark);
    if (options.json) {
        print_json(answers, job, options, type, remarks);
    } else {
        print_text(answers, job.context.caller, options, type);
    }
    std::fflush(stdout);
    return exit_for(answers);
}

void add_options(CLI::App& command, Options& options) {
    command.add_option("--user", options.user, "The user, by name")->type_name("NAME");
    command.add_option("--uid", options.uid, "The user, by id")->type_name("N");
    command.add_option("--gid", options.gid, "With --uid: the primary group, by id or name")
        ->type_name("GROUP");
    command
        .add_option("--groups", options.groups,
                    "With --uid: the supplementary groups, by ids or names, separated by commas")
        ->type_name("GROUP,...");
    add_reserved_group_options(command, options.admin, options.power);
    command.add_option("--root", options.root, "The share's folder on this machine")
        ->type_name("DIR")
        ->required();
    command.add_option("--type", options.type, "Take PATH for this instead of looking at the disk")
        ->check(CLI::IsMember({"file", "folder", "missing"}));
    command.add_flag("--explain", options.explain,
                     "Show the way to each verdict and, after a denial, what would allow it");
    add_json_option(command, options.json);
    command.add_option("PATH", options.path, "Path in the share, such as Shared/Docs")->required();
    command.add_option("OP", options.ops,
                       "Operations, such as open_write or rmdir, or the words read, write, delete, "
                       "list (default: what a client usually does there)");
}

}  // namespace

void register_check(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "check", "Ask for the verdict on what a user wants to do, and explain it");
    add_options(*command, *options);
    on_run(*command, [options] { return check(*options); });
}

}  // namespace kvadmin
