// An audit buffer of 1,000 bytes over a folder of its own, at a time that stands still; records
// with known bytes; and what lies in the folder.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "file_probe.h"
#include "provoke.h"
#include "support.h"

namespace kvtest {

constexpr std::uint32_t kFirst = 16;  // where a buffer's records begin
constexpr std::uint32_t kFrame = 8;   // of a record
constexpr int kSize = 1000;
constexpr int kThreshold = 900;
constexpr int kInterval = 60;
constexpr long long kNow = 1700000000;
constexpr const char* kName = "pending_1700000000.000042";

// A record as it lies in a buffer.
inline std::string framed(const std::string& payload, std::uint32_t signature = 0x04012010) {
    const std::uint32_t header[] = {static_cast<std::uint32_t>(payload.size()), signature};
    return std::string(reinterpret_cast<const char*>(header), sizeof header) + payload;
}

inline int write_record(const std::string& record) {
    std::string copy = record;
    return write_to_audit_buffer(reinterpret_cast<staging_data_t*>(copy.data()));
}

// What a buffer holds.
inline std::string held() {
    if (global_read_audit_buffer == nullptr) return "(no buffer)";
    return {reinterpret_cast<const char*>(global_read_audit_buffer->data),
            global_read_audit_buffer->next_offset - kFirst};
}

struct Fill {
    std::uint32_t records = 0;
    std::uint32_t offset = 0;
    std::uint64_t since = 0;
    bool operator==(const Fill&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const Fill& fill) {
    return out << fill.records << " records, offset " << fill.offset << ", since " << fill.since;
}
inline Fill fill() {
    const staging_buffer_t& buffer = *global_read_audit_buffer;
    return {buffer.num_records, buffer.next_offset, buffer.last_flush_time};
}

class AuditTest : public testing::Test {
protected:
    AuditTest() : folder(make_temp_dir()) {
        config.set_string(PARAM_AUDITING_DIR, folder);
        config.set_int(PARAM_AUDITING_BUFFER_SIZE, kSize);
        config.set_int(PARAM_FLUSH_FILL_THRESHOLD, 90);
        config.set_int(PARAM_AUDITING_FLUSH_INTERVAL, kInterval);
    }
    ~AuditTest() override { free(std::exchange(global_read_audit_buffer, nullptr)); }

    // Names in the folder, in order.
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            found.push_back(entry.path().filename());
        std::sort(found.begin(), found.end());
        return found;
    }
    // How many of them begin like this.
    int count(const std::string& start) const {
        const std::vector<std::string> found = names();
        return static_cast<int>(
            std::count_if(found.begin(), found.end(),
                          [&](const std::string& name) { return name.rfind(start, 0) == 0; }));
    }
    std::string content(const std::string& name) const { return read_file(folder + "/" + name); }
    // Fills the buffer up to this offset with one record, without a flush.
    static std::string fill_to(std::uint32_t offset) {
        const std::string record = framed(std::string(offset - kFirst - kFrame, 'f'));
        EXPECT_EQ(write_record(record), 0);
        EXPECT_EQ(fill().offset, offset);
        return record;
    }

    ConfigTable config;
    SteeredClock clock{kNow};
    std::string folder;
};

// With an empty buffer.
class AuditBuffer : public AuditTest {
protected:
    AuditBuffer() { init_audit_buffer(); }
};

// With one record to flush.
class AuditFlush : public AuditTest {
protected:
    AuditFlush() {
        init_audit_buffer();
        record = framed("what was read");
        EXPECT_EQ(write_record(record), 0);
    }
    // Expects that nothing left the buffer.
    void expect_kept() const {
        ASSERT_NE(global_read_audit_buffer, nullptr);
        EXPECT_EQ(held(), record);
        EXPECT_EQ(fill(), (Fill{1, kFirst + static_cast<std::uint32_t>(record.size()), kNow}));
    }
    // Expects an empty buffer as of this time.
    static void expect_empty(std::uint64_t since = kNow) {
        ASSERT_NE(global_read_audit_buffer, nullptr);
        EXPECT_EQ(fill(), (Fill{0, kFirst, since}));
    }
    std::string record;
};

}  // namespace kvtest
