// Checks of Samba's side: the library that compares names, the module, the share and its folder,
// and that both programs compare by the same locale. They need an smbd and a share that uses
// kavrin; a machine that only builds maps has neither, and lacks nothing.
#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "child_output.h"
#include "doctor.h"
#include "service_client.h"

namespace kvadmin::doctor {
namespace {

constexpr std::chrono::seconds kLimit{10};
constexpr const char* kModule = "/usr/lib/x86_64-linux-gnu/samba/vfs/kavrin.so";
constexpr const char* kModuleEntry = "samba_init_module";
constexpr const char* kComparison = "strncasecmp_m";
// As the library looks for it.
constexpr const char* kComparisonLibraries[] = {
    "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common.so.0",
    "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common-samba4.so.0",
    "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common-private-samba.so.0"};

// Loads a library as its user does, in a process of its own. What is wrong; empty when nothing is.
std::string flaw_of_library(const char* path, const char* symbol, int mode) {
    const ProgramOutput output = run_apart(
        [path, symbol, mode]() -> std::string {
            void* const library = dlopen(path, mode);
            if (library == nullptr) return dlerror();
            if (dlsym(library, symbol) == nullptr) return fmt::format("it has no {}", symbol);
            return "";
        },
        kLimit);
    return output.done ? output.text : "loading it ended the process";
}

// Why Samba's side is not to be judged; empty when it is.
std::string no_samba(const Server& server) {
    if (server.samba.smbd.empty()) return "Samba's smbd is not installed";
    if (!server.samba.shares.empty()) return "";
    return server.samba.problem.empty()
               ? fmt::format("no share of {} has kavrin among its vfs objects",
                             server.options.smb_conf)
               : server.samba.problem;
}

std::string of_share(const Server& server, const SambaShare& share) {
    return fmt::format("{}, [{}]", server.options.smb_conf, share.name);
}

void check_modules(const std::string& where, const SambaShare& share, Findings& findings) {
    const std::vector<std::string> modules = share.modules();
    if (std::count(modules.begin(), modules.end(), "kavrin") > 1)
        findings.error("kavrin stands twice among the vfs objects", where, "remove one of them");
    else if (modules.back() != "kavrin")
        findings.error(fmt::format("'{}' comes after kavrin among the vfs objects, and would do "
                                   "its work unseen by kavrin",
                                   modules.back()),
                       where, "make kavrin the last of 'vfs objects'");
}

void check_parameters(const std::string& where, const SambaShare& share, Findings& findings) {
    const struct {
        const char* name;
        const char* written;
        const char* effect;
    } kForbidden[] = {
        {"adminusers", "admin users", "these users work as root, whom no permission stops"},
        {"forceuser", "force user", "all users become this one, and so do their permissions"},
    };
    for (const auto& parameter : kForbidden)
        if (const std::string value = share.value(parameter.name); !value.empty())
            findings.error(fmt::format("'{} = {}': {}", parameter.written, value, parameter.effect),
                           where, fmt::format("remove '{}' from the share", parameter.written));
}

// The process id in Samba's pid file; 0 when no smbd runs.
pid_t pid_of_smbd() {
    for (const char* path : {"/run/samba/smbd.pid", "/var/run/samba/smbd.pid", "/run/smbd.pid"}) {
        std::ifstream file(path);
        pid_t pid = 0;
        if (file >> pid && pid > 0 && std::filesystem::exists(fmt::format("/proc/{}", pid)))
            return pid;
    }
    return 0;
}

// What decides how a program takes characters; nothing when the process cannot be looked at.
std::optional<std::string> locale_of(std::int64_t pid) {
    std::ifstream file(fmt::format("/proc/{}/environ", pid), std::ios::binary);
    if (!file) return std::nullopt;
    const std::string text =
        std::string(1, '\0') + std::string{std::istreambuf_iterator<char>(file), {}};
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const std::string wanted = std::string(1, '\0') + name + "=";
        const std::size_t at = text.find(wanted);
        if (at == std::string::npos) continue;
        const std::string value = text.c_str() + at + wanted.size();
        if (!value.empty()) return value == "POSIX" ? "C" : value;
    }
    return "C";
}

}  // namespace

void check_comparison_library(const Server& server, Findings& findings) {
    std::string first;
    for (const char* path : kComparisonLibraries) {
        const std::string flaw = flaw_of_library(path, kComparison, RTLD_LAZY);
        if (flaw.empty()) return;
        if (first.empty() || access(path, F_OK) == 0) first = flaw;
    }
    const std::string text =
        fmt::format("names outside ASCII cannot be compared, and who has to ends: {}", first);
    if (server.samba.smbd.empty())
        findings.warning(text, kComparisonLibraries[0], "apt-get install samba-libs");
    else
        findings.error(text, kComparisonLibraries[0], "apt-get install --reinstall samba-libs");
}

void check_samba_module(const Server& server, Findings& findings) {
    if (const std::string why = no_samba(server); !why.empty()) return findings.skip(why);
    constexpr const char* kMend = "install the module that was built for this smbd";
    if (access(kModule, F_OK) != 0)
        return findings.error(
            fmt::format("{}: smbd refuses every connection to the share", std::strerror(errno)),
            kModule, kMend);
    struct stat status {};
    if (stat(kModule, &status) == 0) check_root_owns(kModule, status, findings);
    // All of its symbols are looked for: they carry the version of the Samba they were built for.
    const std::string flaw = flaw_of_library(kModule, kModuleEntry, RTLD_NOW);
    if (!flaw.empty())
        findings.error(fmt::format("smbd {} cannot load it: {}", server.samba.version, flaw),
                       kModule, kMend);
}

void check_samba_share(const Server& server, Findings& findings) {
    if (const std::string why = no_samba(server); !why.empty()) return findings.skip(why);
    if (!server.samba.parsed_by_samba)
        findings.remark(server.samba.problem.empty()
                            ? "read without testparm, so that includes were not followed"
                            : server.samba.problem);
    for (const SambaShare& share : server.samba.shares) {
        const std::string where = of_share(server, share);
        check_modules(where, share, findings);
        check_parameters(where, share, findings);
    }
}

void check_share_folder(const Server& server, Findings& findings) {
    if (const std::string why = no_samba(server); !why.empty()) return findings.skip(why);
    for (const SambaShare& share : server.samba.shares) {
        const std::string where = of_share(server, share);
        const std::string path = share.value("path");
        const std::string mend =
            fmt::format("chown root:root {0}; chmod 0700 {0}", shell_word(path));
        struct stat status {};
        if (path.empty())
            findings.error("the share has no path", where, "give it one");
        else if (path.find('%') != std::string::npos)
            findings.remark(
                fmt::format("{}: its path {} depends on who asks, and was not looked "
                            "at",
                            where, path));
        else if (stat(path.c_str(), &status) != 0)
            findings.error(std::strerror(errno), path,
                           fmt::format("install -d -m 0700 -o root -g root {}", shell_word(path)));
        else if (!S_ISDIR(status.st_mode))
            findings.error("it is no folder", path, "give the share another path in " + where);
        else if (status.st_uid != 0 || (status.st_mode & 07777) != 0700)
            findings.error(fmt::format("it is uid {}'s with mode {:04o}, and should be root's with "
                                       "0700: whoever gets there past smbd is not asked",
                                       status.st_uid, status.st_mode & 07777u),
                           path, mend);
    }
}

void check_locale(const Server& server, Findings& findings) {
    if (const std::string why = no_samba(server); !why.empty()) return findings.skip(why);
    const pid_t smbd = pid_of_smbd();
    if (smbd == 0) return findings.skip("smbd does not run");
    const auto kavrind = server.status ? number_at(*server.status, "/service/pid") : std::nullopt;
    if (!kavrind) return findings.skip("kavrind does not run or does not answer");
    const auto theirs = locale_of(smbd);
    const auto ours = locale_of(*kavrind);
    if (!theirs || !ours) return findings.skip("a process cannot be looked at");
    if (*theirs != *ours)
        findings.error(fmt::format("kavrind has '{}' and smbd '{}': they may compare names "
                                   "differently",
                                   *ours, *theirs),
                       "", "start both with the same LANG ('systemctl edit kavrind')");
}

}  // namespace kvadmin::doctor
