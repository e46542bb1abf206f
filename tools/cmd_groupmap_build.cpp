// kavrinctl groupmap build: the group-map file from the machine's accounts or from a JSON file. It
// decides what rights connections have, so nothing is put in place that the check finds a fault in.
#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "groupmap_check.h"
#include "groupmap_source.h"
#include "identity.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Options {
    std::string from;
    std::string output = kGroupMapPath;
    AccountChoice accounts;
};

std::span<const std::uint8_t> as_bytes(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

Exit build(const Options& options) {
    std::vector<std::string> remarks;
    const GroupMapContent content = options.from.empty()
                                        ? groupmap_of_accounts(options.accounts, remarks)
                                        : groupmap_of_json(options.from);
    const std::string bytes = encode_groupmap(content);
    const GroupMapReport report = check_groupmap(as_bytes(bytes));
    if (!report.sound())
        fail(Exit::kFailure,
             "the file that was made does not pass its own check ({}); nothing was "
             "written",
             first_fault(report));
    for (const GroupMapFinding& finding : report.findings) remarks.push_back(finding.message);
    for (const std::string& remark : remarks) note(remark);
    write_groupmap(options.output, bytes);

    std::uint64_t gids = 0;
    for (const GroupMapUser& user : content.users) gids += user.gids.size();
    fmt::print("wrote {}: {} reserved groups, {} users, {} group ids, {} bytes\n",
               printable(options.output), content.reserved.size(), content.users.size(), gids,
               bytes.size());
    return Exit::kDone;
}

}  // namespace

void register_groupmap_build(CLI::App& groupmap) {
    const auto options = std::make_shared<Options>();
    for (const std::string_view group :
         {std::string_view(kAdminsGroup), std::string_view(kPowerUsersGroup)})
        options->accounts.reserved.emplace_back(group);
    CLI::App* command = groupmap.add_subcommand(
        "build", "Write the group-map file from the machine's accounts, or from a JSON file");
    CLI::Option* from = command->add_option("--from", options->from,
                                            "Take users and reserved groups from this JSON file");
    command->add_option("--output,-o", options->output, "Write this file")->capture_default_str();
    CLI::Option* users =
        command
            ->add_option("--users", options->accounts.users,
                         "Take these accounts instead of all that the machine lists")
            ->delimiter(',')
            ->excludes(from);
    command
        ->add_option("--min-uid", options->accounts.min_uid, "Take accounts from this uid on only")
        ->excludes(from)
        ->excludes(users);
    command
        ->add_option("--reserved", options->accounts.reserved,
                     "The reserved groups (default: kavrin-admins and kavrin-powerusers)")
        ->delimiter(',')
        ->excludes(from);
    on_run(*command, [options] { return build(*options); });
}

}  // namespace kvadmin
