// kavrinctl map lint: the strict check of a pair of files before anything is built from it.
#include <fmt/format.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "command.h"
#include "lint_fix.h"
#include "terminal.h"

namespace kvadmin {
namespace {

constexpr std::size_t kShownFindings = 100;
constexpr std::size_t kFindingsInJson = 1000;

struct LintArguments {
    std::string size_path;
    std::string data_path;
    bool fix = false;
    bool json = false;
};

LintReport check(const LintArguments& arguments) {
    struct stat status;
    const bool sized = stat(arguments.data_path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    Progress progress("checking", sized ? static_cast<std::uint64_t>(status.st_size) : 0);
    LintOptions options;
    options.kept_findings = arguments.json ? kFindingsInJson : kShownFindings;
    options.on_progress = [&](std::uint64_t done) { progress.update(done); };
    return lint_pair(arguments.size_path, arguments.data_path, options);
}

// Writes the right size file when that is all the pair needs, and checks the pair again.
LintReport fix(const LintArguments& arguments, LintReport report) {
    if (report.clean() || report.unreadable != 0) return report;
    if (!report.fixable) {
        note(
            fmt::format("--fix only corrects counts; '{}' is left as it is, because there is more "
                        "to correct first",
                        arguments.size_path));
        return report;
    }
    write_fixed_size_file(report);
    note(fmt::format("'{}' now announces {} elements, {} ACL entries and {} bytes of names",
                     arguments.size_path, report.counts.elements, report.counts.aces,
                     report.counts.name_bytes));
    return check(arguments);
}

Exit lint(const LintArguments& arguments) {
    LintReport report = check(arguments);
    if (arguments.fix) report = fix(arguments, std::move(report));
    if (arguments.json)
        fmt::print("{}\n", report_as_json(report));
    else
        print_report(stdout, report, kShownFindings);
    if (report.unreadable != 0) return Exit::kFailure;
    return report.clean() ? Exit::kDone : Exit::kInvalidInput;
}

}  // namespace

void register_map_lint(CLI::App& map) {
    const auto arguments = std::make_shared<LintArguments>();
    CLI::App* command =
        map.add_subcommand("lint", "Check a pair of size file and data file, strictly");
    command->add_option("SIZE", arguments->size_path, "The size file")->required();
    command->add_option("DATA", arguments->data_path, "The data file")->required();
    command->add_flag("--fix", arguments->fix,
                      "Correct the counts in the size file (its comments are lost)");
    add_json_option(*command, arguments->json);
    on_run(*command, [arguments] { return lint(*arguments); });
}

}  // namespace kvadmin
