// Check of the exception-pattern file, whose lines are the names that may be deleted where the
// permissions forbid it: what a line does is often not what its writer meant.
#include <fmt/format.h>
#include <regex.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "doctor.h"
#include "regex_parser.h"
#include "utf8.h"

namespace kvadmin::doctor {
namespace {

// What the compiler says; empty when the pattern is one.
std::string flaw_of_pattern(const std::string& pattern) {
    regex_t compiled{};
    const int error = regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_ICASE | REG_NOSUB);
    if (error == 0) {
        regfree(&compiled);
        return "";
    }
    char text[256];
    regerror(error, &compiled, text, sizeof text);
    return text;
}

// One line, without its newline. `ended`: it has one.
void check_line(const std::string& line, bool ended, const std::string& where,
                const std::string& edit, Findings& findings) {
    if (!ended)
        findings.error("the last line does not end in a newline, and so loses its last character",
                       where, "add a newline to its end");
    if (line.empty())
        findings.error("an empty pattern matches every name: all may be deleted", where, edit);
    else if (line.back() == '\r')
        findings.error("the line ends in CR LF, and no name ends in a CR: it matches nothing",
                       where, "remove the CRs ('sed -i \"s/\\r$//\" FILE')");
    else if (line.find('\0') != std::string::npos)
        findings.error("the line holds a zero byte, which ends the pattern", where, edit);
    else if (const std::string flaw = flaw_of_pattern(line); !flaw.empty())
        findings.error(
            fmt::format("\"{}\" is no pattern: {}; it is passed over", printable(line), flaw),
            where, edit);
}

void check_lines(const std::string& path, Findings& findings) {
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::string edit = "correct or remove the line; connections that begin then take it";
    std::size_t lines = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        const bool ended = end != std::string::npos;
        check_line(text.substr(at, ended ? end - at : end), ended,
                   fmt::format("{}:{}", path, ++lines), edit, findings);
        at = ended ? end + 1 : text.size();
    }
    if (lines > KAVRIN_MAX_PATTERNS)
        findings.error(fmt::format("it has {} lines, and connections take the first {}", lines,
                                   KAVRIN_MAX_PATTERNS),
                       path, "join patterns with '|'");
}

}  // namespace

void check_patterns(const Server& server, Findings& findings) {
    if (!server.table) return findings.skip("there is no configuration table");
    const std::string path = server.text(PARAM_REGEX_FILE_NAME);
    const std::string set = fmt::format("set 'VFS:exception pattern file' in {}, then {}",
                                        kConfigPath, server.restart());
    if (path.empty()) {
        if (server.number(PARAM_CHECK_REGEX_UNLINK) != 0)
            findings.warning("'VFS:check regex unlink' is 1, and there is no file of patterns", "",
                             set);
        return;
    }
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return findings.error(std::strerror(errno), path, "make the file, or " + set);
    if (!S_ISREG(status.st_mode)) return findings.error("it is no file", path, set);
    check_root_owns(path, status, findings);
    check_lines(path, findings);
}

}  // namespace kvadmin::doctor
