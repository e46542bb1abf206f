// A lint report for people and for programs.
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "lint.h"
#include "terminal.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr std::size_t kShownPath = 256;

struct SeverityName {
    std::string_view name;
    Colour colour;
};
// In the order of Severity.
constexpr SeverityName kSeverities[] = {
    {"warning", Colour::kYellow}, {"violation", Colour::kRed}, {"unreadable", Colour::kRed}};

const SeverityName& name_of(Severity severity) {
    return kSeverities[static_cast<std::size_t>(severity)];
}

const std::string& path_of(const LintReport& report, PairFile file) {
    return file == PairFile::kSize ? report.size_path : report.data_path;
}

// The end of a long path tells more than its beginning.
std::string shown_path(std::string_view path) {
    if (path.size() <= kShownPath) return printable(path);
    std::size_t from = path.size() - kShownPath;
    while (from < path.size() && (path[from] & 0xC0) == 0x80) ++from;
    return "..." + printable(path.substr(from));
}

std::string line_of(const LintReport& report, const Finding& finding, std::string_view severity) {
    std::string line = printable(path_of(report, finding.file));
    if (finding.line != 0) line += fmt::format(":{}:{}", finding.line, finding.column);
    line += fmt::format(": {}: ", severity);
    if (!finding.path.empty()) line += shown_path(finding.path) + ": ";
    return line + printable(finding.message);
}

std::string counted(std::uint64_t number, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", number, number == 1 ? one : many);
}

std::string verdict(const LintReport& report) {
    if (report.unreadable != 0)
        return "not checked: " + counted(report.unreadable, "unreadable file", "unreadable files");
    const std::string warnings = counted(report.warnings, "warning", "warnings");
    if (!report.clean())
        return counted(report.violations, "violation", "violations") + ", " + warnings;
    return fmt::format("clean, {}: {}, {}, {} of names; an image of {}", warnings,
                       counted(report.counts.elements, "element", "elements"),
                       counted(report.counts.aces, "ACL entry", "ACL entries"),
                       counted(report.counts.name_bytes, "byte", "bytes"),
                       counted(report.image_size, "byte", "bytes"));
}

nlohmann::ordered_json as_json(const LintCounts& counts) {
    return {
        {"elements", counts.elements}, {"aces", counts.aces}, {"name_bytes", counts.name_bytes}};
}

}  // namespace

std::string describe(const LintReport& report, const Finding& finding) {
    return line_of(report, finding, name_of(finding.severity).name);
}

void print_report(std::FILE* stream, const LintReport& report, std::size_t limit) {
    // Where not all can be shown, no warning takes the place of a violation.
    std::size_t serious = 0;
    for (const Finding& finding : report.findings)
        if (finding.severity != Severity::kWarning) ++serious;
    std::size_t shown = 0;
    std::size_t room_for_serious = std::min(limit, serious);
    std::size_t room_for_warnings = limit - room_for_serious;
    for (const Finding& finding : report.findings) {
        const bool warning = finding.severity == Severity::kWarning;
        std::size_t& room = warning ? room_for_warnings : room_for_serious;
        if (room == 0) continue;
        --room;
        ++shown;
        const SeverityName& severity = name_of(finding.severity);
        fmt::print(stream, "{}\n",
                   line_of(report, finding, coloured(stream, severity.colour, severity.name)));
    }
    const std::uint64_t all = report.violations + report.warnings + report.unreadable;
    if (all > shown) fmt::print(stream, "and {} more\n", all - shown);
    fmt::print(stream, "{}\n",
               coloured(stream, report.clean() ? Colour::kGreen : Colour::kRed, verdict(report)));
}

std::string report_as_json(const LintReport& report) {
    nlohmann::ordered_json document = {
        {"clean", report.clean()},          {"violations", report.violations},
        {"warnings", report.warnings},      {"unreadable", report.unreadable},
        {"fixable", report.fixable},        {"counted", report.counted},
        {"counts", as_json(report.counts)}, {"announced", as_json(report.announced)},
        {"image_size", report.image_size},
    };
    auto& findings = document["findings"] = nlohmann::ordered_json::array();
    for (const Finding& finding : report.findings)
        findings.push_back({{"severity", name_of(finding.severity).name},
                            {"file", path_of(report, finding.file)},
                            {"line", finding.line},
                            {"column", finding.column},
                            {"byte", finding.byte},
                            {"path", finding.path},
                            {"message", finding.message}});
    // Names of a hostile file need not be UTF-8; a JSON document is.
    return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace kvadmin
