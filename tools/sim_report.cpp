// See sim_report.h.
#include "sim_report.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "event_text.h"
#include "sim_accounts.h"
#include "utf8.h"

namespace kvadmin {
namespace {

std::string errno_name(int error) {
    const char* name = strerrorname_np(error);
    return name != nullptr ? name : fmt::format("error {}", error);
}

std::string verdict_line(const SimOutcome& outcome) {
    switch (outcome.verdict) {
        case SimOutcome::Verdict::kAllowed:
            return outcome.disk.empty() ? "allowed"
                                        : fmt::format("allowed; disk: {}", outcome.disk);
        case SimOutcome::Verdict::kRefused:
            return fmt::format("refused: {} by {}", errno_name(outcome.error), outcome.hook);
        default:
            return {};
    }
}

}  // namespace

nlohmann::json to_json(const SimOutcome& outcome) {
    nlohmann::json audits = nlohmann::json::array();
    for (const SimAudit& audit : outcome.audits)
        audits.push_back({audit.path, audit.size, audit.uid, audit.time});
    return {{"verdict", static_cast<int>(outcome.verdict)},
            {"error", outcome.error},
            {"hook", outcome.hook},
            {"disk", outcome.disk},
            {"lines", outcome.lines},
            {"audits", audits},
            {"identity", outcome.identity}};
}

SimOutcome outcome_from_json(const nlohmann::json& json) {
    SimOutcome outcome;
    outcome.verdict = static_cast<SimOutcome::Verdict>(json.at("verdict").get<int>());
    outcome.error = json.at("error");
    outcome.hook = json.at("hook");
    outcome.disk = json.at("disk");
    outcome.lines = json.at("lines").get<std::vector<std::string>>();
    for (const nlohmann::json& audit : json.at("audits"))
        outcome.audits.push_back({audit.at(0), audit.at(1), audit.at(2), audit.at(3)});
    outcome.identity = json.at("identity");
    return outcome;
}

std::string verdict_words(const SimOutcome& outcome) {
    switch (outcome.verdict) {
        case SimOutcome::Verdict::kAllowed:
            return "allowed";
        case SimOutcome::Verdict::kRefused:
            return "refused " + errno_name(outcome.error);
        case SimOutcome::Verdict::kEnded:
            return "ended";
        default:
            return "no verdict";
    }
}

std::string disk_words(int result) {
    return result >= 0 ? "done" : errno_name(errno);
}

void SimPrinter::print(const SimOutcome& outcome) const {
    const std::string verdict = verdict_line(outcome);
    if (!verdict.empty()) print_text_line("  " + verdict);
    for (const std::string& line : outcome.lines) print_text_line("  " + line);
    for (const SimAudit& audit : outcome.audits) {
        std::string line = fmt::format("  audit: read {}, {} bytes, by {}", relative(audit.path),
                                       audit.size, user_words(audit.uid));
        if (times_) line += ", at " + local_time(audit.time);
        print_text_line(line);
    }
    if (!outcome.identity.empty())
        print_text_line("  THE PROCESS IS NOT WHO IT WAS: " + outcome.identity);
}

void SimPrinter::print_event(const VFSEvent& event) const {
    const bool folder = event.fselem_type == VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;
    std::string line = fmt::format("  event: {} {} {}", event_type(event.optype),
                                   folder ? "folder" : "file", relative(event.path));
    if (event.rename_path != nullptr) line += " -> " + relative(event.rename_path);
    line += ", by " + user_words(event.uid);
    if (times_) line += ", at " + local_time(event.time_sec, event.time_usec);
    print_text_line(line);
}

// A path below the share as the script names it.
std::string SimPrinter::relative(std::string_view path) const {
    if (path.size() > share_.size() && path.starts_with(share_) && path[share_.size()] == '/')
        path.remove_prefix(share_.size() + 1);
    return printable(path);
}

}  // namespace kvadmin
