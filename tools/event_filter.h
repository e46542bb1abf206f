// Which events a command shows. What is not given filters nothing.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "command.h"
#include "vfs_common.h"

namespace kvadmin {

// Seconds and microseconds of "1700000000", "1700000000.5", "2023-11-14", "2023-11-14
// 22:13[:20[.5]]" (local time; a T may stand between), or "90s", "15m", "2h", "3d" before `now`.
// Anything else is a usage error.
std::pair<std::int64_t, std::int64_t> parse_moment(const std::string& text, std::int64_t now);

class EventFilter {
public:
    // The options --user and --path, and those of events --since and --type.
    void add_common_options(CLI::App& command);
    void add_event_options(CLI::App& command);
    // Makes sense of what was given; usage errors come from here. With `only_uids` the messages
    // name no accounts, so a user must be known here.
    void prepare(bool only_uids = false);

    bool shows(const VFSEvent& event) const;
    bool shows(const AuditEvent& event) const;

private:
    bool shows_user(const char* name, uid_t uid) const;
    bool shows_path(const char* path) const;

    std::string since_text_;
    std::string user_;
    std::vector<std::string> type_texts_;
    std::string path_;

    std::optional<std::pair<std::int64_t, std::int64_t>> since_;
    std::optional<uid_t> uid_;
    std::vector<int> types_;
};

}  // namespace kvadmin
