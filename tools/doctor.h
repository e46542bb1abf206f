// kavrinctl doctor: everything that can be wrong on a server of a share, each check one row of a
// table. A check only looks: it makes nothing, waits for nothing that may hang, and trusts nothing
// that it reads, so that it can run on a server that is in a bad way. What it finds it tells with
// the place and with the command that mends it.
#pragma once

#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "config_file.h"
#include "eventstore.h"
#include "kernel_objects.h"

namespace kvadmin::doctor {

enum class Severity { kOk, kSkipped, kWarning, kError };
const char* severity_name(Severity severity);

struct Finding {
    Severity severity = Severity::kOk;
    std::string what;
    std::string where;  // a path, an object, a line; empty when there is no one place
    std::string mend;   // the command, or what to do
    bool operator==(const Finding&) const = default;
};

class Findings {
public:
    void error(std::string what, std::string where, std::string mend);
    void warning(std::string what, std::string where, std::string mend);
    void skip(std::string why);     // the check could not be made
    void remark(std::string what);  // all is well, and this is worth knowing

    const std::vector<Finding>& list() const { return list_; }
    Severity worst() const;

private:
    void add(Finding finding);  // what was found twice is told once
    std::vector<Finding> list_;
};

struct DoctorOptions {
    std::string socket;
    std::string smb_conf = "/etc/samba/smb.conf";
    bool json = false;
};

// A section of smb.conf with what it inherits from [global] filled in. Names of parameters are in
// lower case and without blanks.
struct SambaShare {
    std::string name;
    std::vector<std::pair<std::string, std::string>> parameters;
    std::string value(std::string_view parameter) const;  // empty when it is not set
    std::vector<std::string> modules() const;             // of "vfs objects", in their order
};

struct SambaSetup {
    std::string smbd;                // its program; empty: not installed
    std::string version;             // what it says of itself
    std::string problem;             // why smb.conf cannot be judged
    bool parsed_by_samba = false;    // by testparm, and not by us
    std::vector<SambaShare> shares;  // those that name kavrin among their VFS modules
};

// What several checks look at, read once.
struct Server {
    explicit Server(DoctorOptions given);

    DoctorOptions options;
    std::optional<std::vector<global_param_t>> table;  // the shared one, copied
    std::string socket;
    std::optional<nlohmann::json> status;  // the service's
    std::string service_problem;           // without a status: why
    bool service_absent = false;           // nobody listens, rather than nobody answers
    std::optional<ConfigFile> config;
    std::string config_problem;  // without a file that could be read: why
    bool map_expected = false;   // a map was served here once
    std::uint64_t map_bytes = 0;
    SambaSetup samba;

    std::string text(e_kavrin_global_index_t slot) const;  // of the table; empty without one
    int number(e_kavrin_global_index_t slot) const;        // of the table; 0 without one
    std::string incoming_folder() const;
    // The commands that mend, as this server needs them.
    std::string start_service() const;
    std::string restart() const;         // of the service
    std::string reload_service() const;  // its configuration
    std::string reload_map() const;
};

struct Check {
    const char* id;
    const char* title;
    void (*look)(const Server&, Findings&);
};

// In the order in which a person would look.
std::span<const Check> doctor_checks();

// Parses smb.conf, through testparm where there is one.
SambaSetup read_samba_setup(const std::string& smb_conf);

// The checks' functions, by file. ------------------------------------------------------------

// doctor_service.cpp
void check_service(const Server&, Findings&);
void check_service_version(const Server&, Findings&);
void check_last_failure(const Server&, Findings&);
void check_halves(const Server&, Findings&);
void check_quarantine(const Server&, Findings&);
void check_group_map_source(const Server&, Findings&);
// doctor_config.cpp
void check_config_file(const Server&, Findings&);
void check_config_table(const Server&, Findings&);
void check_config_values(const Server&, Findings&);
void check_config_equal(const Server&, Findings&);
// doctor_map.cpp
void check_map_semaphores(const Server&, Findings&);
void check_live_map(const Server&, Findings&);
void check_map_mark(const Server&, Findings&);
void check_stale_segment(const Server&, Findings&);
void check_persisted_map(const Server&, Findings&);
void check_load_log(const Server&, Findings&);
void check_shared_memory_limits(const Server&, Findings&);
// doctor_events.cpp
void check_staging_segment(const Server&, Findings&);
void check_staging_semaphore(const Server&, Findings&);
void check_staging_header(const Server&, Findings&);
void check_rescan_marker(const Server&, Findings&);
void check_pending_files(const Server&, Findings&);
void check_temporaries(const Server&, Findings&);
void check_audit_files(const Server&, Findings&);
// doctor_files.cpp
void check_folders(const Server&, Findings&);
void check_folder_names(const Server&, Findings&);
void check_disk_space(const Server&, Findings&);
void check_map_marker(const Server&, Findings&);
void check_group_map(const Server&, Findings&);
// doctor_patterns.cpp
void check_patterns(const Server&, Findings&);
// doctor_samba.cpp
void check_comparison_library(const Server&, Findings&);
void check_samba_module(const Server&, Findings&);
void check_samba_share(const Server&, Findings&);
void check_share_folder(const Server&, Findings&);
void check_locale(const Server&, Findings&);

// What the checks share. -----------------------------------------------------------------------

// A path as a shell takes it.
std::string shell_word(const std::string& path);

// Tells when a file or folder is not root's, or is writable by others.
void check_root_owns(const std::string& path, const struct stat& status, Findings& findings);

}  // namespace kvadmin::doctor
