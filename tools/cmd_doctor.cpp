// kavrinctl doctor: runs all checks and tells what they found, for a person or for a bug report.
#include <fmt/format.h>
#include <sys/utsname.h>

#include <fstream>
#include <memory>

#include "command.h"
#include "doctor.h"
#include "map_query.h"
#include "service_client.h"
#include "terminal.h"
#include "utf8.h"

namespace kvadmin {
using namespace doctor;

namespace {

// Errors are a result here, as a denial is one of 'check', and not a failure of the command.
constexpr Exit kFoundErrors = Exit::kDenied;

struct Result {
    const Check* check;
    Findings findings;
};

// A check that cannot go on says so, and the others are made all the same.
Result run_check(const Check& check, const Server& server) {
    Result result{&check, {}};
    try {
        check.look(server, result.findings);
    } catch (const CommandError& error) {
        result.findings.error("the check could not be made: " + error.message, "", "");
    } catch (const std::exception& error) {
        result.findings.error(fmt::format("the check could not be made: {}", error.what()), "", "");
    }
    return result;
}

std::string system_name() {
    std::ifstream file("/etc/os-release");
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with("PRETTY_NAME=")) continue;
        line = line.substr(12);
        if (line.size() >= 2 && line.front() == '"') line = line.substr(1, line.size() - 2);
        return line;
    }
    return "unknown";
}

nlohmann::json versions(const Server& server) {
    utsname kernel{};
    uname(&kernel);
    const auto or_null = [](const std::string& text) {
        return text.empty() ? nlohmann::json() : nlohmann::json(text);
    };
    return {{"system", system_name()},
            {"kernel", fmt::format("{} {} {}", kernel.sysname, kernel.release, kernel.machine)},
            {"kavrinctl", KAVRIN_VERSION},
            {"kavrind", server.status
                            ? or_null(text_at(*server.status, "/service/version").value_or(""))
                            : nlohmann::json()},
            {"samba", or_null(server.samba.version)}};
}

Colour colour_of(Severity severity) {
    constexpr Colour kColours[] = {Colour::kGreen, Colour::kDim, Colour::kYellow, Colour::kRed};
    return kColours[static_cast<int>(severity)];
}

void print_finding(const Finding& finding) {
    constexpr const char* kIndent = "           ";
    fmt::print("{}{}{}\n", kIndent, finding.where.empty() ? "" : printable(finding.where) + ": ",
               printable(finding.what));
    if (!finding.mend.empty()) fmt::print("{}mend: {}\n", kIndent, printable(finding.mend));
}

void print_text(const std::vector<Result>& results) {
    int counts[4] = {};
    for (const Result& result : results) {
        const Severity worst = result.findings.worst();
        ++counts[static_cast<int>(worst)];
        const std::string word = fmt::format("{:<9}", severity_name(worst));
        fmt::print("{}  {}\n", coloured(stdout, colour_of(worst), word), result.check->title);
        for (const Finding& finding : result.findings.list()) print_finding(finding);
    }
    fmt::print("{} checks: {} ok, {}, {}, {} skipped\n", results.size(), counts[0],
               counted(counts[2], "warning"), counted(counts[3], "error"), counts[1]);
}

void print_document(const std::vector<Result>& results, const Server& server) {
    nlohmann::json checks = nlohmann::json::array();
    for (const Result& result : results) {
        nlohmann::json findings = nlohmann::json::array();
        for (const Finding& finding : result.findings.list())
            findings.push_back({{"severity", severity_name(finding.severity)},
                                {"what", finding.what},
                                {"where", finding.where},
                                {"mend", finding.mend}});
        checks.push_back({{"id", result.check->id},
                          {"title", result.check->title},
                          {"severity", severity_name(result.findings.worst())},
                          {"findings", findings}});
    }
    print_json({{"time", std::time(nullptr)},
                {"versions", versions(server)},
                {"service", server.status.value_or(nullptr)},
                {"checks", checks}});
}

Exit examine(const DoctorOptions& options) {
    require_root("doctor");
    use_library();
    const Server server(options);
    std::vector<Result> results;
    for (const Check& check : doctor_checks()) results.push_back(run_check(check, server));
    if (options.json)
        print_document(results, server);
    else
        print_text(results);
    for (const Result& result : results)
        if (result.findings.worst() == Severity::kError) return kFoundErrors;
    return Exit::kDone;
}

}  // namespace

void register_doctor(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "doctor", "Check everything that can be wrong on this server, and tell how to mend it");
    const auto options = std::make_shared<DoctorOptions>();
    add_socket_option(*command, options->socket);
    command->add_option("--smb-conf", options->smb_conf,
                        "Samba's configuration (default: /etc/samba/smb.conf)");
    add_json_option(*command, options->json);
    on_run(*command, [options] { return examine(*options); });
}

}  // namespace kvadmin
