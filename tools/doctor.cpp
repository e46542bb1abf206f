// See doctor.h: the table of checks, and what they share.
#include "doctor.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "failure.h"
#include "persisted_copy.h"
#include "service_client.h"

namespace kvadmin::doctor {
namespace {

constexpr std::chrono::seconds kServiceLimit{10};

constexpr Check kChecks[] = {
    {"service", "kavrind runs and answers", check_service},
    {"service-version", "kavrind is of the tool's version", check_service_version},
    {"config-file", "configuration file", check_config_file},
    {"config-table", "configuration table", check_config_table},
    {"config-values", "values of the configuration table", check_config_values},
    {"config-equal", "configuration file and table agree", check_config_equal},
    {"map-semaphores", "map semaphore set", check_map_semaphores},
    {"live-map", "map that is served", check_live_map},
    {"map-mark", "mark that a map is available", check_map_mark},
    {"persisted-map", "persisted map", check_persisted_map},
    {"stale-segment", "segment of the other table", check_stale_segment},
    {"shared-memory", "kernel limits of shared memory", check_shared_memory_limits},
    {"load-log", "last line of the load log", check_load_log},
    {"last-failure", "last pair that was applied", check_last_failure},
    {"halves", "incoming files without a partner", check_halves},
    {"quarantine", "quarantine of failed pairs", check_quarantine},
    {"map-marker", "permission refresh marker", check_map_marker},
    {"group-map", "group map", check_group_map},
    {"group-map-source", "making of the group map", check_group_map_source},
    {"patterns", "exception patterns", check_patterns},
    {"staging-segment", "staging buffer", check_staging_segment},
    {"staging-semaphore", "semaphore of the staging buffer", check_staging_semaphore},
    {"staging-header", "records of the staging buffer", check_staging_header},
    {"folders", "folders", check_folders},
    {"folder-names", "length of folder names", check_folder_names},
    {"disk-space", "disk space", check_disk_space},
    {"rescan-marker", "rescan marker", check_rescan_marker},
    {"pending-files", "files that wait for the event store", check_pending_files},
    {"temporaries", "files that flushes left", check_temporaries},
    {"audit-files", "audit files", check_audit_files},
    {"comparison-library", "Samba's comparison of names", check_comparison_library},
    {"samba-module", "Samba module", check_samba_module},
    {"samba-share", "share in smb.conf", check_samba_share},
    {"share-folder", "the share's folder", check_share_folder},
    {"locale", "locale of kavrind and smbd", check_locale},
};

bool is_plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::strchr("/._-+=:,@%", c) != nullptr;
}

bool has_systemd() {
    return access("/run/systemd/system", F_OK) == 0;
}

}  // namespace

std::span<const Check> doctor_checks() {
    return kChecks;
}

const char* severity_name(Severity severity) {
    switch (severity) {
        case Severity::kOk:
            return "ok";
        case Severity::kSkipped:
            return "skipped";
        case Severity::kWarning:
            return "warning";
        case Severity::kError:
            break;
    }
    return "error";
}

void Findings::add(Finding finding) {
    if (std::find(list_.begin(), list_.end(), finding) == list_.end())
        list_.push_back(std::move(finding));
}

void Findings::error(std::string what, std::string where, std::string mend) {
    add({Severity::kError, std::move(what), std::move(where), std::move(mend)});
}

void Findings::warning(std::string what, std::string where, std::string mend) {
    add({Severity::kWarning, std::move(what), std::move(where), std::move(mend)});
}

void Findings::skip(std::string why) {
    add({Severity::kSkipped, std::move(why), "", ""});
}

void Findings::remark(std::string what) {
    add({Severity::kOk, std::move(what), "", ""});
}

Severity Findings::worst() const {
    Severity worst = Severity::kOk;
    for (const Finding& finding : list_) worst = std::max(worst, finding.severity);
    return worst;
}

Server::Server(DoctorOptions given)
    : options(std::move(given)),
      table(config_table_copy()),
      socket(service_socket(options.socket)),
      samba(read_samba_setup(options.smb_conf)) {
    try {
        status = ask_service(socket, {{"command", "status"}}, kServiceLimit);
    } catch (const ServiceAbsent& error) {
        service_absent = true;
        service_problem = error.message;
    } catch (const CommandError& error) {
        service_problem = error.message;
    }
    try {
        const auto path = status ? text_at(*status, "/service/config") : std::nullopt;
        config = read_config_file(path.value_or(kConfigPath));
    } catch (const CommandError& error) {
        config_problem = error.message;
    }
    const SemaphoreState set = map_semaphores();
    struct stat persisted {};
    map_expected = (set.values.size() > 1 && set.values[1] != 0) ||
                   stat(persisted_map_path().c_str(), &persisted) == 0;
    for (const int number : {0, 1})
        map_bytes = std::max<std::uint64_t>(map_bytes, map_segment(number).bytes());
}

std::string Server::text(e_kavrin_global_index_t slot) const {
    if (!table) return "";
    const char* const value = (*table)[slot].value.strval;
    return std::string(value, strnlen(value, KAVRIN_PARAM_STRLEN));
}

int Server::number(e_kavrin_global_index_t slot) const {
    return table ? (*table)[slot].value.intval : 0;
}

std::string Server::incoming_folder() const {
    return config ? config->configuration.text(ServiceKey::kIncomingDir)
                  : Configuration().text(ServiceKey::kIncomingDir);
}

std::string Server::start_service() const {
    return has_systemd() ? "systemctl start kavrind" : "kavrind";
}

std::string Server::restart() const {
    if (has_systemd()) return "systemctl restart kavrind";
    return service_absent ? "kavrind" : "stop kavrind, then start it with 'kavrind'";
}

std::string Server::reload_service() const {
    if (has_systemd()) return "systemctl reload kavrind";
    const auto pid = status ? number_at(*status, "/service/pid") : std::nullopt;
    return pid ? fmt::format("kill -HUP {}", *pid) : restart();
}

std::string Server::reload_map() const {
    return status ? "kavrinctl map reload" : "kavrinctl map load";
}

std::string shell_word(const std::string& path) {
    if (!path.empty() && std::all_of(path.begin(), path.end(), is_plain)) return path;
    std::string quoted = "'";
    for (const char c : path) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

void check_root_owns(const std::string& path, const struct stat& status, Findings& findings) {
    if (status.st_uid != 0)
        findings.error(fmt::format("belongs to uid {}, who may change it", status.st_uid), path,
                       "chown root:root " + shell_word(path));
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        findings.error(
            fmt::format("others than root may write to it (mode {:04o})", status.st_mode & 07777u),
            path, "chmod go-w " + shell_word(path));
}

}  // namespace kvadmin::doctor
