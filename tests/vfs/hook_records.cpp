// What hooks left in the event buffers, read with the generated message code.
#include <cstring>

#include "hook_fixture.h"

namespace kvtest {
namespace {

// The payloads of a buffer of framed records.
std::vector<std::string> payloads(const staging_buffer_t* buffer) {
    std::vector<std::string> result;
    if (buffer == nullptr) return result;
    const auto* const bytes = reinterpret_cast<const char*>(buffer);
    std::uint32_t offset = 16;
    while (offset < buffer->next_offset) {
        staging_data_t frame;
        std::memcpy(&frame, bytes + offset, sizeof frame);
        EXPECT_TRUE(frame.sig == STAGING_DATA_SIG);
        const std::uint32_t size = frame.size;
        result.emplace_back(bytes + offset + 8, size);
        offset += size + 8;
    }
    EXPECT_EQ(offset, buffer->next_offset);
    EXPECT_EQ(buffer->num_records, result.size());
    return result;
}

const std::uint8_t* bytes_of(const std::string& text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Event& event) {
    return out << "operation " << event.op << ", type " << event.type << ", " << event.path
               << " -> " << event.rename_path.value_or("(none)");
}

std::vector<Event> HookTest::events() {
    std::vector<Event> result;
    staging_buffer_t* const buffer = get_eventstore_staging_buffer();
    EXPECT_NE(buffer, nullptr);
    for (const std::string& payload : payloads(buffer)) {
        VFSEvent* const event = vfsevent__unpack(nullptr, payload.size(), bytes_of(payload));
        EXPECT_NE(event, nullptr);
        if (event == nullptr) continue;
        Event one{static_cast<int>(event->optype), static_cast<int>(event->fselem_type),
                  event->path, std::nullopt};
        if (event->rename_path != nullptr) one.rename_path = event->rename_path;
        result.push_back(one);
        EXPECT_EQ(event->client_pid, getpid());
        EXPECT_EQ(event->uid, account->uid);
        EXPECT_LE(std::abs(event->time_sec - time(nullptr)), 60);
        EXPECT_EQ(event->kavrin_user, nullptr);
        vfsevent__free_unpacked(event, nullptr);
    }
    put_eventstore_staging_buffer(buffer);
    return result;
}

std::vector<Read> HookTest::reads() {
    std::vector<Read> result;
    for (const std::string& payload : payloads(global_read_audit_buffer)) {
        AuditEvent* const event = audit_event__unpack(nullptr, payload.size(), bytes_of(payload));
        EXPECT_NE(event, nullptr);
        if (event == nullptr) continue;
        result.push_back({event->path, event->uid,
                          event->ip_address != nullptr ? event->ip_address : "(none)",
                          event->size});
        EXPECT_LE(std::abs(event->time_sec - time(nullptr)), 60);
        audit_event__free_unpacked(event, nullptr);
    }
    return result;
}

void HookTest::expect_event(int op, int type, const std::string& path,
                            const std::optional<std::string>& rename_path) {
    const std::vector<Event> expected = {{op, type, path, rename_path}};
    EXPECT_EQ(events(), expected);
}

}  // namespace kvtest
