// Files of framed records for tests: messages packed through the library, and frames put together
// by hand where they must be wrong.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "support.h"
#include "vfs_common.h"

namespace kvtest {

struct EventFields {
    std::string path = "/srv/share/Shared/Docs/report.txt";
    VFSEvent__OpType type = VFSEVENT__OP_TYPE__OPTYPE_CREATE;
    std::optional<std::string> rename_path;
    std::optional<std::string> user;
    std::int32_t pid = 4321;
    std::uint32_t uid = 1001;
    std::int32_t seconds = 1700000000;
    std::int32_t microseconds = 42;
    VFSEvent__FsElemType kind = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE;
};

struct AuditFields {
    std::string path = "/srv/share/Shared/Docs/report.txt";
    std::uint32_t uid = 1001;
    std::int32_t seconds = 1700000000;
    std::optional<std::string> address;
    std::uint64_t size = 4096;
};

// The bytes of a record that the library made; it drops those of uid 0.
inline std::string bytes_of(staging_data_t* record) {
    if (record == nullptr) std::abort();
    std::string bytes(reinterpret_cast<const char*>(record), record->size + sizeof *record);
    std::free(record);
    return bytes;
}

inline std::string frame(const EventFields& fields) {
    VFSEvent event = VFSEVENT__INIT;
    event.client_pid = fields.pid;
    event.path = const_cast<char*>(fields.path.c_str());
    event.uid = fields.uid;
    if (fields.rename_path) event.rename_path = const_cast<char*>(fields.rename_path->c_str());
    event.optype = fields.type;
    event.time_sec = fields.seconds;
    event.time_usec = fields.microseconds;
    event.fselem_type = fields.kind;
    if (fields.user) event.kavrin_user = const_cast<char*>(fields.user->c_str());
    return bytes_of(create_staging_data_buf(&event));
}

inline std::string frame(const AuditFields& fields) {
    AuditEvent event = AUDIT_EVENT__INIT;
    event.path = const_cast<char*>(fields.path.c_str());
    event.uid = fields.uid;
    event.time_sec = fields.seconds;
    if (fields.address) event.ip_address = const_cast<char*>(fields.address->c_str());
    event.size = fields.size;
    return bytes_of(create_audit_data_buf(&event));
}

// A record with any header.
inline std::string raw_frame(std::uint32_t size, std::uint32_t signature,
                             const std::string& payload) {
    std::string bytes(8, '\0');
    std::memcpy(bytes.data(), &size, sizeof size);
    std::memcpy(bytes.data() + 4, &signature, sizeof signature);
    return bytes + payload;
}

// The payloads of a sound file, walked without the tool.
inline std::vector<std::string> payloads_of(const std::string& file) {
    std::vector<std::string> payloads;
    for (std::size_t at = 0; at < file.size();) {
        std::uint32_t size = 0;
        std::memcpy(&size, file.data() + at, sizeof size);
        payloads.push_back(file.substr(at + 8, size));
        at += 8 + std::size_t{size};
    }
    return payloads;
}

// Events one after another in time, on paths of their own.
inline EventFields numbered_event(int number) {
    EventFields fields;
    fields.path = "/srv/share/Shared/file" + std::to_string(number);
    fields.seconds += number;
    return fields;
}

inline std::string numbered_file(int first, int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += frame(numbered_event(first + i));
    return bytes;
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end - at));
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

}  // namespace kvtest
