// Checks of the configuration: the file, the shared table, and whether the two agree.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstring>

#include "config_keys.h"
#include "doctor.h"
#include "utf8.h"

namespace kvadmin::doctor {
namespace {

constexpr std::size_t kTableBytes = PARAM_MAX_INDEX * sizeof(global_param_t);
constexpr const char* kNoTable = "there is no configuration table";
constexpr const char* kWhere = "configuration table";

std::string replace_table(const Server& server) {
    return "kavrinctl config remove; " + server.restart();
}

bool is_text(const ConfigRow& row) {
    return row.type == PARAM_VAL_TYPE_STRING;
}

// What is wrong with a row's value in the table; empty when nothing is.
std::string flaw_of(const ConfigRow& row, const global_param_t& slot) {
    if (!is_text(row)) {
        const std::int64_t number = slot.value.intval;
        if (number >= row.min && number <= row.max) return "";
        return fmt::format("is {}, not from {} to {}", number, row.min, row.max);
    }
    const std::size_t length = strnlen(slot.value.strval, KAVRIN_PARAM_STRLEN);
    const std::string_view text(slot.value.strval, length);
    if (length == KAVRIN_PARAM_STRLEN) return "is a text without an end";
    if (text.empty() && row.rule == TextRule::kPathOrEmpty) return "";
    if (!text.starts_with('/'))
        return fmt::format("is \"{}\", not an absolute path", printable(text));
    if (static_cast<std::int64_t>(length) > row.max)
        return fmt::format("has {} bytes, and {} is the most", length, row.max);
    return "";
}

std::string text_of(const ConfigRow& row, const ConfigValue& value) {
    if (is_text(row)) return fmt::format("\"{}\"", printable(value.text));
    if (row.type == PARAM_VAL_TYPE_BOOLEAN) return value.number != 0 ? "yes" : "no";
    return std::to_string(value.number);
}

ConfigValue value_of(const Server& server, const ConfigRow& row) {
    const auto slot = static_cast<e_kavrin_global_index_t>(row.slot);
    ConfigValue value;
    if (is_text(row))
        value.text = server.text(slot);
    else
        value.number = server.number(slot);
    return value;
}

}  // namespace

void check_config_file(const Server& server, Findings& findings) {
    if (!server.config)
        return findings.error(server.config_problem, "", "make it a file that root can read");
    const ConfigFile& file = *server.config;
    if (!file.exists) return findings.remark(file.path + " is missing: every default is in force");
    struct stat status {};
    if (stat(file.path.c_str(), &status) == 0) check_root_owns(file.path, status, findings);
    for (const ConfigProblem& problem : file.problems)
        findings.error(
            problem.message,
            problem.line == 0 ? file.path : fmt::format("{}:{}", file.path, problem.line),
            "correct the line; 'kavrind --check' tells when all is well");
}

void check_config_table(const Server& server, Findings& findings) {
    const SegmentState segment = config_table_segment();
    if (!segment.exists())
        return findings.error(fmt::format("there is none: {}", std::strerror(segment.error)),
                              kWhere, server.restart());
    if (segment.bytes() < kTableBytes)
        return findings.error(fmt::format("the segment at its key has {} bytes, a table {}",
                                          segment.bytes(), kTableBytes),
                              fmt::format("segment {}", segment.id),
                              fmt::format("ipcrm -m {}; {}", segment.id, server.restart()));
    const uid_t owner = segment.status.shm_perm.uid;
    if (owner != 0)
        findings.error(fmt::format("it belongs to uid {}, who may remove it", owner), kWhere,
                       replace_table(server));
    if (!server.table)
        return findings.error("it cannot be attached", kWhere, replace_table(server));
    for (const ConfigKey& key : config_keys()) {
        const std::uint32_t type = (*server.table)[key.slot].type;
        if (type == static_cast<std::uint32_t>(key.type)) continue;
        // A reader that comes before the service makes a table of zeros.
        return findings.error(type == PARAM_VAL_TYPE_UNDEF
                                  ? std::string("it has no types: a reader made it before kavrind "
                                                "did, and readers run on zeros")
                                  : fmt::format("'{}' is of type {}, and should be of {}", key.name,
                                                type, static_cast<int>(key.type)),
                              kWhere, replace_table(server));
    }
}

void check_config_values(const Server& server, Findings& findings) {
    if (!server.table) return findings.skip(kNoTable);
    for (const ConfigRow& row : config_rows()) {
        if (row.slot < 0) continue;
        const std::string flaw = flaw_of(row, (*server.table)[static_cast<std::size_t>(row.slot)]);
        if (flaw.empty()) continue;
        findings.error(fmt::format("'{}' {}", row.name, flaw), kWhere,
                       fmt::format("set it in {}, then {}", kConfigPath, server.restart()));
    }
}

void check_config_equal(const Server& server, Findings& findings) {
    if (!server.table) return findings.skip(kNoTable);
    if (!server.config) return findings.skip("the configuration file cannot be read");
    if (!server.config->problems.empty())
        return findings.skip(
            "the configuration file has problems, so the values before it are "
            "in force");
    const auto rows = config_rows();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].slot < 0) continue;
        const ConfigValue shared = value_of(server, rows[i]);
        const ConfigValue& wanted = server.config->configuration.values[i];
        if (shared == wanted) continue;
        const std::string text =
            fmt::format("'{}' is {} in the table and {} by the file", rows[i].name,
                        text_of(rows[i], shared), text_of(rows[i], wanted));
        // Both are meant to differ: one by command, the other as long as a larger buffer exists.
        const bool meant =
            rows[i].slot == PARAM_DEBUG_LEVEL ||
            (rows[i].slot == PARAM_STAGING_BUFFER_SIZE && shared.number > wanted.number);
        if (meant)
            findings.remark(text);
        else
            findings.warning(text, server.config->path,
                             rows[i].slot == PARAM_SOCKET_PATH || !server.status
                                 ? server.restart()
                                 : server.reload_service());
    }
}

}  // namespace kvadmin::doctor
