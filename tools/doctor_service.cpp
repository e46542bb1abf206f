// Checks of the service: whether it runs, and what it says of the pairs it was given.
#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>

#include "doctor.h"
#include "service_client.h"

namespace kvadmin::doctor {
namespace {

constexpr const char* kNoService = "kavrind does not run or does not answer";

}  // namespace

void check_service(const Server& server, Findings& findings) {
    if (server.status) {
        const std::string state = text_at(*server.status, "/service/state").value_or("unknown");
        const auto pid = number_at(*server.status, "/service/pid");
        findings.remark(fmt::format("{}, process {}", state, pid ? std::to_string(*pid) : "?"));
        return;
    }
    const std::string mend = server.service_absent
                                 ? server.start_service()
                                 : "journalctl -u kavrind; then " + server.restart();
    findings.error(server.service_problem, "", mend);
}

void check_service_version(const Server& server, Findings& findings) {
    if (!server.status) return findings.skip(kNoService);
    const std::string version = text_at(*server.status, "/service/version").value_or("unknown");
    if (version != KAVRIN_VERSION)
        findings.warning(fmt::format("kavrind is of version {}, this tool of {}; a service that "
                                     "was upgraded goes on as it was until it is started again",
                                     version, KAVRIN_VERSION),
                         "", server.restart());
}

void check_last_failure(const Server& server, Findings& findings) {
    if (!server.status) return findings.skip(kNoService);
    const auto failed = number_at(*server.status, "/last_failure/time");
    if (!failed) return;
    const std::string source = text_at(*server.status, "/last_failure/source").value_or("");
    const std::string error = text_at(*server.status, "/last_failure/error").value_or("");
    const std::string text = fmt::format("failed on {}: {}", utc_text(*failed), error);
    if (number_at(*server.status, "/map/published").value_or(0) > *failed)
        return findings.remark(fmt::format("{} {}; a newer map is served since", source, text));
    // A pair that was delivered is set aside; what a command asked for was refused to its face.
    const auto folder = text_at(*server.status, "/last_failure/quarantine");
    if (!folder)
        return findings.warning("what was asked for last " + text, source,
                                "correct it, and ask again");
    findings.error(
        "the map that is served is older than the last pair, which " + text, source,
        fmt::format("read {}/reason.txt, and deliver a pair that is sound", shell_word(*folder)));
}

void check_halves(const Server& server, Findings& findings) {
    if (!server.status) return findings.skip(kNoService);
    const auto halves = server.status->find("halves");
    if (halves == server.status->end() || !halves->is_array()) return;
    for (const nlohmann::json& half : *halves) {
        const std::string file = text_at(half, "/file").value_or("?");
        const std::string why = text_at(half, "/why").value_or("it waits for its partner");
        const auto since = number_at(half, "/since");
        const std::string text =
            fmt::format("waits since {}: {}", since ? utc_text(*since) : "unknown", why);
        const std::string path = server.incoming_folder() + "/" + file;
        if (is_set(half, "/stale"))
            findings.warning(text, path, "deliver its partner, or 'rm " + shell_word(path) + "'");
        else
            findings.remark(path + " " + text);
    }
}

void check_quarantine(const Server& server, Findings& findings) {
    const std::string folder = server.incoming_folder() + "/quarantine";
    std::size_t failed = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error))
        ++failed;
    if (failed > 0)
        findings.warning(
            fmt::format("{} that could not be applied", counted(static_cast<int>(failed), "pair")),
            folder,
            fmt::format("read the reason.txt of each, then 'rm -r {}/*'", shell_word(folder)));
}

void check_group_map_source(const Server& server, Findings& findings) {
    if (!server.status) return findings.skip(kNoService);
    if (const auto error = text_at(*server.status, "/group_map/error"))
        findings.error("kavrind could not make the group map: " + *error, "",
                       "mend what it says, then " + server.reload_service());
}

}  // namespace kvadmin::doctor
