// Events and audit events for people and for programs: a line of a table each, or one JSON object
// with the fields' own names. Values of an enumeration that nobody has named yet are numbers.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "vfs_common.h"

namespace kvadmin {

// "2023-11-14 22:13:20" in local time; the number for a time that no calendar holds.
std::string local_time(std::int64_t seconds);
// With six digits of microseconds.
std::string local_time(std::int64_t seconds, std::int64_t microseconds);

// "CREATE", or "17" for a type without a name.
std::string event_type(int type);
// The type of "create", "OPTYPE_CREATE" or "10"; nothing when that is none.
std::optional<int> parse_event_type(std::string_view text);
// "CONNECT, DISCONNECT, …"
std::string event_type_names();

// The account that the event names, else "uid 1001".
std::string event_user(const VFSEvent& event);

template <typename Message>
std::string_view table_head();
template <>
std::string_view table_head<VFSEvent>();
template <>
std::string_view table_head<AuditEvent>();

std::string table_line(const VFSEvent& event);
std::string table_line(const AuditEvent& event);

// Fields that the message lacks are left out.
nlohmann::ordered_json to_json(const VFSEvent& event);
nlohmann::ordered_json to_json(const AuditEvent& event);

void print_text_line(const std::string& line);

// Prints messages as they come: the table's head before the first line, or one object a line.
template <typename Message>
class MessagePrinter {
public:
    explicit MessagePrinter(bool json) : json_(json) {}
    // Bytes that are no text become U+FFFD in JSON.
    std::string line(const Message& message) const {
        if (!json_) return table_line(message);
        return to_json(message).dump(-1, ' ', false,
                                     nlohmann::ordered_json::error_handler_t::replace);
    }
    void print_line(const std::string& text) {
        if (!json_ && !head_printed_) print_text_line(std::string(table_head<Message>()));
        head_printed_ = true;
        print_text_line(text);
    }
    void print(const Message& message) { print_line(line(message)); }

private:
    bool json_;
    bool head_printed_ = false;
};

}  // namespace kvadmin
