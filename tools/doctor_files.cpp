// Checks of folders and marker files: that they are there, that only root may change them, that
// there is room, and that what connections read from them is sound.
#include <fmt/format.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "doctor.h"
#include "failure.h"
#include "groupmap_check.h"
#include "groupmap_file.h"
#include "identity.h"
#include "service_client.h"
#include "whole_file.h"

namespace kvadmin::doctor {
namespace {

constexpr const char* kConfigFolder = "/etc/kavrin";
constexpr const char* kMarkerFolder = "/kavrin/.conf";
constexpr std::uint64_t kMiB = 1 << 20;
// Names of event files are cut at 256 bytes, their end included: the folder, "/pending_", ten
// digits, a dot and six digits.
constexpr std::size_t kLongestFolder = 255 - 26;
// Whoever writes a marker dates it a second ahead.
constexpr std::time_t kClockTolerance = 5;

struct Folder {
    const char* use;
    std::string path;
    std::uint64_t needed;  // bytes that must be free
    mode_t mode;           // for one that is made anew
};

// A configuration without a table leaves out what it would name.
std::vector<Folder> folders_of(const Server& server) {
    const auto staging =
        static_cast<std::uint64_t>(std::max(0, server.number(PARAM_STAGING_BUFFER_SIZE)));
    const auto auditing =
        static_cast<std::uint64_t>(std::max(0, server.number(PARAM_AUDITING_BUFFER_SIZE)));
    std::vector<Folder> folders = {
        // A build writes the new map beside a copy of the old one.
        {"configuration", kConfigFolder, 2 * server.map_bytes + kMiB, 0755},
        {"incoming pairs", server.incoming_folder(), 16 * kMiB, 0700},
        {"rescan marker", kMarkerFolder, 0, 0755},
    };
    if (server.table) {
        folders.push_back({"events", server.text(PARAM_STAGING_DIR), 4 * staging, 0700});
        folders.push_back({"audit records", server.text(PARAM_AUDITING_DIR), 16 * auditing, 0700});
    }
    return folders;
}

// Whoever may rename in a folder above may put another one in its place.
void check_parents(std::string path, Findings& findings) {
    while (path.rfind('/') != 0 && path.rfind('/') != std::string::npos) {
        path.resize(path.rfind('/'));
        struct stat status {};
        if (stat(path.c_str(), &status) == 0 && (status.st_mode & S_ISVTX) == 0)
            check_root_owns(path, status, findings);
    }
}

void check_folder(const Folder& folder, Findings& findings) {
    struct stat status {};
    const std::string make = fmt::format("install -d -m {:04o} -o root -g root {}", folder.mode,
                                         shell_word(folder.path));
    if (stat(folder.path.c_str(), &status) != 0)
        return findings.error(fmt::format("the folder of {}: {}", folder.use, std::strerror(errno)),
                              folder.path, make);
    if (!S_ISDIR(status.st_mode))
        return findings.error(fmt::format("the folder of {} is no folder", folder.use), folder.path,
                              fmt::format("mv {0} {0}.old; {1}", shell_word(folder.path), make));
    check_root_owns(folder.path, status, findings);
    check_parents(folder.path, findings);
}

void check_space(const Folder& folder, Findings& findings) {
    constexpr std::uint64_t kFewInodes = 100;
    struct statvfs space {};
    if (statvfs(folder.path.c_str(), &space) != 0) return;  // told as a missing folder
    const std::uint64_t unit = space.f_frsize;
    const std::uint64_t free = space.f_bavail * unit;
    const std::uint64_t all = space.f_blocks * unit;
    const char* const mend = "make room on its file system ('df -h', 'df -i')";
    if (free < folder.needed)
        findings.error(fmt::format("{} KiB are free, and {} need {}", free / 1024, folder.use,
                                   folder.needed / 1024),
                       folder.path, mend);
    else if (free < all / 50 && free < 1024 * kMiB)
        findings.warning(
            fmt::format("less than 2% of its file system is free: {} MiB", free / kMiB),
            folder.path, mend);
    if (space.f_files > 0 && space.f_favail < kFewInodes)
        findings.error(fmt::format("{} files more, and its file system is full", space.f_favail),
                       folder.path, mend);
}

// A file whose time tells connections that something has changed. False when it is missing.
bool check_marker(const std::string& path, const std::string& mend, Findings& findings) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        findings.error(
            fmt::format("{}; every look of every connection fails", std::strerror(errno)), path,
            mend);
        return false;
    }
    check_root_owns(path, status, findings);
    const std::time_t ahead = status.st_mtime - std::time(nullptr);
    if (ahead > kClockTolerance)
        findings.error(fmt::format("it is dated {} in the future, so that connections ask anew "
                                   "with every operation until then; was the clock set back?",
                                   duration_text(ahead)),
                       path, "touch " + shell_word(path));
    return true;
}

// The ids that a connection finds for the reserved groups.
void check_reserved_groups(const std::vector<std::uint8_t>& bytes, const std::string& mend,
                           Findings& findings) {
    for (const char* name : {kAdminsGroup, kPowerUsersGroup}) {
        const gid_t gid =
            kavrin_reserved_gid(bytes.data(), static_cast<std::uint32_t>(bytes.size()), name);
        if (gid == 0)
            findings.error(fmt::format("the group {} is not in it, or has id 0: members of root's "
                                       "group count as its members",
                                       name),
                           kGroupMapPath, fmt::format("groupadd --system {}; {}", name, mend));
    }
}

}  // namespace

void check_folders(const Server& server, Findings& findings) {
    for (const Folder& folder : folders_of(server)) check_folder(folder, findings);
    if (!server.table)
        findings.remark(
            "the folders of events were not looked for: there is no configuration "
            "table that names them");
}

void check_folder_names(const Server& server, Findings& findings) {
    if (!server.table) return findings.skip("there is no configuration table");
    const struct {
        e_kavrin_global_index_t slot;
        const char* key;
    } kNames[] = {{PARAM_STAGING_DIR, "SWEEPER:staging dir"},
                  {PARAM_AUDITING_DIR, "SWEEPER:auditing dir"}};
    for (const auto& name : kNames) {
        const std::string folder = server.text(name.slot);
        if (folder.size() > kLongestFolder)
            findings.error(fmt::format("it has {} bytes; from {} on the names of the files in it "
                                       "are cut",
                                       folder.size(), kLongestFolder + 1),
                           folder,
                           fmt::format("give '{}' a shorter path in {}, then {}", name.key,
                                       kConfigPath, server.restart()));
    }
}

void check_disk_space(const Server& server, Findings& findings) {
    for (const Folder& folder : folders_of(server)) check_space(folder, findings);
}

void check_map_marker(const Server& server, Findings& findings) {
    struct stat status {};
    if (!server.map_expected && stat(kMapMarkerPath, &status) != 0)
        return findings.skip("no map was ever served here");
    check_marker(kMapMarkerPath, fmt::format("touch {0}; chmod 0644 {0}", kMapMarkerPath),
                 findings);
}

void check_group_map(const Server& server, Findings& findings) {
    const bool own =
        server.config && server.config->configuration.text(ServiceKey::kGroupMap) == "off";
    const std::string again =
        server.status && !own ? server.reload_service() : std::string("kavrinctl groupmap build");
    if (!check_marker(kGroupMapPath, again, findings)) return;
    const std::vector<std::uint8_t> bytes = read_groupmap(kGroupMapPath);
    const GroupMapReport report = check_groupmap(bytes);
    if (!report.sound())
        return findings.error("damaged: " + first_fault(report), kGroupMapPath,
                              "kavrinctl groupmap lint; " + again);
    check_reserved_groups(bytes, again, findings);
    findings.remark(fmt::format("{}, {}", counted(report.users, "user"),
                                counted(report.reserved, "reserved group")));
}

}  // namespace kvadmin::doctor
