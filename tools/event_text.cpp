// See event_text.h. Names of types come from the messages' own description, so that a new one is
// known here as soon as the messages have it.
#include "event_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>

#include "utf8.h"

namespace kvadmin {
namespace {

constexpr std::string_view kTypePrefix = "OPTYPE_";

nlohmann::ordered_json enum_json(const ProtobufCEnumDescriptor& descriptor, int value) {
    const ProtobufCEnumValue* known = protobuf_c_enum_descriptor_get_value(&descriptor, value);
    if (known == nullptr) return value;
    return known->name;
}

bool same_letters(std::string_view left, std::string_view right) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

}  // namespace

std::string local_time(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    char text[64];
    if (localtime_r(&time, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) == 0)
        return std::to_string(seconds);
    return text;
}

std::string local_time(std::int64_t seconds, std::int64_t microseconds) {
    return fmt::format("{}.{:06}", local_time(seconds), microseconds);
}

std::string event_type(int type) {
    const ProtobufCEnumValue* known =
        protobuf_c_enum_descriptor_get_value(&vfsevent__op_type__descriptor, type);
    if (known == nullptr) return std::to_string(type);
    std::string_view name = known->name;
    if (name.starts_with(kTypePrefix)) name.remove_prefix(kTypePrefix.size());
    return std::string(name);
}

std::optional<int> parse_event_type(std::string_view text) {
    const ProtobufCEnumDescriptor& types = vfsevent__op_type__descriptor;
    for (unsigned i = 0; i < types.n_values; ++i) {
        const std::string_view name = types.values[i].name;
        if (same_letters(text, name) || same_letters(text, name.substr(kTypePrefix.size())))
            return types.values[i].value;
    }
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string event_type_names() {
    std::string names;
    for (unsigned i = 0; i < vfsevent__op_type__descriptor.n_values; ++i)
        names += (i == 0 ? "" : ", ") + event_type(vfsevent__op_type__descriptor.values[i].value);
    return names;
}

std::string event_user(const VFSEvent& event) {
    return event.kavrin_user != nullptr ? event.kavrin_user : fmt::format("uid {}", event.uid);
}

template <>
std::string_view table_head<VFSEvent>() {
    return "TIME                        TYPE        USER                    UID      PID  PATH";
}

template <>
std::string_view table_head<AuditEvent>() {
    return "TIME                        UID  ADDRESS                     BYTES  PATH";
}

std::string table_line(const VFSEvent& event) {
    std::string line = fmt::format(
        "{:<26}  {:<10}  {:<16}  {:>9}  {:>7}  {}", local_time(event.time_sec, event.time_usec),
        event_type(event.optype), event.kavrin_user != nullptr ? printable(event.kavrin_user) : "-",
        event.uid, event.client_pid, printable(event.path));
    if (event.rename_path != nullptr) line += " -> " + printable(event.rename_path);
    return line;
}

std::string table_line(const AuditEvent& event) {
    return fmt::format("{:<19}  {:>10}  {:<15}  {:>16}  {}", local_time(event.time_sec), event.uid,
                       event.ip_address != nullptr ? printable(event.ip_address) : "-", event.size,
                       printable(event.path));
}

nlohmann::ordered_json to_json(const VFSEvent& event) {
    nlohmann::ordered_json object = {
        {"client_pid", event.client_pid}, {"path", event.path}, {"uid", event.uid}};
    if (event.rename_path != nullptr) object["rename_path"] = event.rename_path;
    object["optype"] = enum_json(vfsevent__op_type__descriptor, event.optype);
    object["time_sec"] = event.time_sec;
    object["time_usec"] = event.time_usec;
    object["fselem_type"] = enum_json(vfsevent__fs_elem_type__descriptor, event.fselem_type);
    if (event.kavrin_user != nullptr) object["kavrin_user"] = event.kavrin_user;
    return object;
}

nlohmann::ordered_json to_json(const AuditEvent& event) {
    nlohmann::ordered_json object = {
        {"path", event.path}, {"uid", event.uid}, {"time_sec", event.time_sec}};
    if (event.ip_address != nullptr) object["ip_address"] = event.ip_address;
    object["size"] = event.size;
    return object;
}

void print_text_line(const std::string& line) {
    fmt::print("{}\n", line);
}

}  // namespace kvadmin
