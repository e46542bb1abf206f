// kavrinctl groupmap lint: every offset and every name of a group-map file, the ones that the
// library's reader does not check included.
#include <fmt/core.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "command.h"
#include "groupmap_check.h"
#include "groupmap_file.h"
#include "map_query.h"
#include "terminal.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Options {
    std::string file = kGroupMapPath;
    bool json = false;
};

void print_document(const std::string& file, const GroupMapReport& report) {
    nlohmann::json findings = nlohmann::json::array();
    for (const GroupMapFinding& finding : report.findings)
        findings.push_back({{"severity", finding.fault ? "fault" : "remark"},
                            {"offset", finding.offset},
                            {"record", finding.record},
                            {"message", finding.message}});
    print_json({{"file", file},
                {"sound", report.sound()},
                {"bytes", report.bytes},
                {"reserved_groups", report.reserved},
                {"users", report.users},
                {"faults", report.faults},
                {"remarks", report.remarks},
                {"findings", findings}});
}

void print_text(const std::string& file, const GroupMapReport& report) {
    for (const GroupMapFinding& finding : report.findings)
        fmt::print("{}: {}\n",
                   finding.fault ? coloured(stdout, Colour::kRed, "fault")
                                 : coloured(stdout, Colour::kYellow, "remark"),
                   line_for(finding));
    const std::uint64_t all = report.faults + report.remarks;
    if (all > report.findings.size()) fmt::print("and {} more\n", all - report.findings.size());
    if (report.sound())
        fmt::print("{} is {}: {} reserved groups, {} users, {} bytes\n", printable(file),
                   coloured(stdout, Colour::kGreen, "sound"), report.reserved, report.users,
                   report.bytes);
    else
        fmt::print("{} is {}: {} {} found\n", printable(file),
                   coloured(stdout, Colour::kRed, "damaged"), report.faults,
                   report.faults == 1 ? "fault" : "faults");
}

Exit lint(const Options& options) {
    const GroupMapReport report = check_groupmap(read_groupmap(options.file));
    if (options.json)
        print_document(options.file, report);
    else
        print_text(options.file, report);
    return report.sound() ? Exit::kDone : Exit::kInvalidInput;
}

}  // namespace

void register_groupmap_lint(CLI::App& groupmap) {
    const auto options = std::make_shared<Options>();
    CLI::App* command = groupmap.add_subcommand("lint", "Check every record of a group-map file");
    command->add_option("file", options->file, "The file to check")->capture_default_str();
    add_json_option(*command, options->json);
    on_run(*command, [options] { return lint(*options); });
}

}  // namespace kvadmin
