// kavrinctl groupmap show: what a group map says, or what a connection of one user gets out of it.
// The latter comes from the library's own reader, which trusts the file: so the file is read once,
// checked, and shown from the very bytes that were checked.
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "command.h"
#include "descriptor.h"
#include "groupmap_check.h"
#include "groupmap_file.h"
#include "identity.h"
#include "map_query.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Options {
    std::string user;
    std::string file = kGroupMapPath;
    bool json = false;
};

// Standard error leads nowhere while an object of this lives: the reader lists there what it found.
class QuietErrors {
public:
    QuietErrors() : saved_(dup(STDERR_FILENO)) {
        std::fflush(stderr);
        const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
        if (saved_.valid() && null.valid()) dup2(null.get(), STDERR_FILENO);
    }
    ~QuietErrors() {
        std::fflush(stderr);
        if (saved_.valid()) dup2(saved_.get(), STDERR_FILENO);
    }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;

private:
    Descriptor saved_;
};

// Names of this machine's groups, each asked for once.
class GroupNames {
public:
    const std::string& of(gid_t gid) {
        const auto [found, added] = names_.try_emplace(gid);
        if (added)
            if (const group* entry = getgrgid(gid)) found->second = entry->gr_name;
        return found->second;
    }
    // "2000 (staff)", or the number alone.
    std::string words(gid_t gid) {
        const std::string& name = of(gid);
        return name.empty() ? fmt::to_string(gid) : fmt::format("{} ({})", gid, printable(name));
    }
    nlohmann::json document(gid_t gid) { return {{"gid", gid}, {"name", of(gid)}}; }

private:
    std::unordered_map<gid_t, std::string> names_;
};

std::string listed(const std::vector<gid_t>& gids, GroupNames& names) {
    std::string text;
    for (const gid_t gid : gids) text += (text.empty() ? "" : ", ") + names.words(gid);
    return text.empty() ? "no groups" : text;
}

nlohmann::json documents(const std::vector<gid_t>& gids, GroupNames& names) {
    nlohmann::json list = nlohmann::json::array();
    for (const gid_t gid : gids) list.push_back(names.document(gid));
    return list;
}

std::vector<gid_t> gids_of(const GroupMapView& map, const uitem& user) {
    std::vector<gid_t> gids;
    gids.reserve(user.glen);
    for (std::uint32_t i = 0; i < user.glen; ++i) gids.push_back(map.gid(user, i).value_or(0));
    return gids;
}

std::string name_of(const GroupMapView& map, std::uint32_t offset) {
    return std::string(map.name_at(offset).value_or(""));
}

void print_all(const GroupMapView& map) {
    GroupNames names;
    fmt::print("reserved groups\n");
    for (std::uint32_t i = 0; i < map.header().rnum; ++i) {
        const ritem group = map.reserved(i).value_or(ritem{});
        fmt::print("  {:<20}  {}\n", printable(name_of(map, group.noffs)), names.words(group.gid));
    }
    fmt::print("\nusers\n");
    for (std::uint32_t i = 0; i < map.header().unum; ++i) {
        const uitem user = map.user(i).value_or(uitem{});
        fmt::print("  {:<20}  {}\n", printable(name_of(map, user.noffs)),
                   listed(gids_of(map, user), names));
    }
}

nlohmann::json all_as_document(const GroupMapView& map) {
    GroupNames names;
    nlohmann::json reserved = nlohmann::json::array();
    for (std::uint32_t i = 0; i < map.header().rnum; ++i) {
        const ritem group = map.reserved(i).value_or(ritem{});
        reserved.push_back({{"name", name_of(map, group.noffs)}, {"gid", group.gid}});
    }
    nlohmann::json users = nlohmann::json::array();
    for (std::uint32_t i = 0; i < map.header().unum; ++i) {
        const uitem user = map.user(i).value_or(uitem{});
        users.push_back(
            {{"name", name_of(map, user.noffs)}, {"groups", documents(gids_of(map, user), names)}});
    }
    return {{"reserved", reserved}, {"users", users}};
}

// What a connection of the user gets.
struct Reading {
    bool found = false;
    std::vector<gid_t> gids;
    gid_t admins = 0;
    gid_t power_users = 0;

    // A reserved group that is missing has the id 0 here, as it has for the module.
    bool in(gid_t group) const { return std::find(gids.begin(), gids.end(), group) != gids.end(); }
};

Reading read_as_connection(const std::vector<std::uint8_t>& bytes, const std::string& user) {
    const QuietErrors quiet;
    const auto size = static_cast<std::uint32_t>(bytes.size());
    Reading reading;
    std::uint32_t count = 0;
    const std::unique_ptr<gid_t, decltype(&std::free)> gids(
        kavrin_getgrouplist(bytes.data(), size, user.c_str(), &count), &std::free);
    reading.found = gids != nullptr;
    if (reading.found) reading.gids.assign(gids.get(), gids.get() + count);
    reading.admins = kavrin_reserved_gid(bytes.data(), size, kAdminsGroup);
    reading.power_users = kavrin_reserved_gid(bytes.data(), size, kPowerUsersGroup);
    return reading;
}

Exit show_user(const Options& options, const std::vector<std::uint8_t>& bytes) {
    const Reading reading = read_as_connection(bytes, options.user);
    if (!reading.found)
        fail(Exit::kFailure,
             "'{}' is not in '{}': connections of that user have no groups and no rights; "
             "'kavrinctl groupmap build' writes it anew",
             printable(options.user), options.file);
    GroupNames names;
    if (options.json) {
        print_json({{"file", options.file},
                    {"user", options.user},
                    {"groups", documents(reading.gids, names)},
                    {"administrator", reading.in(reading.admins)},
                    {"power_user", reading.in(reading.power_users)}});
        return Exit::kDone;
    }
    fmt::print("user           {}\n", printable(options.user));
    fmt::print("groups         {}\n", listed(reading.gids, names));
    fmt::print("administrator  {}\n", reading.in(reading.admins) ? "yes" : "no");
    fmt::print("power user     {}\n", reading.in(reading.power_users) ? "yes" : "no");
    return Exit::kDone;
}

Exit show(const Options& options) {
    const std::vector<std::uint8_t> bytes = read_groupmap(options.file);
    const GroupMapReport report = check_groupmap(bytes);
    if (!report.sound())
        fail(Exit::kInvalidInput, "'{}' is damaged ({}); see 'kavrinctl groupmap lint {}'",
             options.file, first_fault(report), options.file);
    if (!options.user.empty()) return show_user(options, bytes);
    const auto map = GroupMapView::open(bytes);
    if (!map) return Exit::kInvalidInput;
    if (options.json) {
        nlohmann::json document = all_as_document(*map);
        document["file"] = options.file;
        print_json(document);
    } else {
        print_all(*map);
    }
    return Exit::kDone;
}

}  // namespace

void register_groupmap_show(CLI::App& groupmap) {
    const auto options = std::make_shared<Options>();
    CLI::App* command = groupmap.add_subcommand(
        "show", "Show users and their groups, or what a connection of one user gets");
    command->add_option("user", options->user, "The user, as connections name him");
    command->add_option("--file", options->file, "Read this file")->capture_default_str();
    add_json_option(*command, options->json);
    on_run(*command, [options] { return show(*options); });
}

}  // namespace kvadmin
