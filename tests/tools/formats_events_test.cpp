// docs/formats.md on events against the code: the tables are the structures and the messages'
// descriptions, and each block of bytes is what the library makes of the events told beside it.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "event_files.h"
#include "formats_document.h"
#include "tool_run.h"

namespace {

using kvtest::Row;
using kvtest::section;
using kvtest::table;

std::string hex(const std::string& title) {
    std::string bytes;
    bool inside = false;
    for (const std::string& line : section(title)) {
        if (line.starts_with("```")) {
            inside = line == "```hex";
        } else if (inside) {
            EXPECT_EQ(std::stoul(line, nullptr, 16), bytes.size()) << title;
            std::istringstream pairs(line.substr(line.find(':') + 1));
            for (std::string pair; pairs >> pair;)
                bytes += static_cast<char>(std::stoul(pair, nullptr, 16));
        }
    }
    EXPECT_FALSE(bytes.empty()) << "no bytes in " << title;
    return bytes;
}

struct Field {
    const char* name;
    std::size_t offset;
    std::size_t size;
};

void expect_fields(const std::string& title, const std::vector<Field>& fields) {
    const std::vector<Row> rows = table(title);
    const std::string bytes = hex(title);
    ASSERT_EQ(rows.size(), fields.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i][2], fields[i].name);
        EXPECT_EQ(std::stoul(rows[i][0]), fields[i].offset) << fields[i].name;
        EXPECT_EQ(std::stoul(rows[i][1]), fields[i].size) << fields[i].name;
        if (rows[i][4].empty()) continue;
        std::uint64_t value = 0;
        ASSERT_LE(fields[i].offset + fields[i].size, bytes.size());
        std::memcpy(&value, bytes.data() + fields[i].offset, fields[i].size);
        EXPECT_EQ(value, std::stoull(rows[i][4], nullptr, 0)) << fields[i].name;
    }
}

std::string type_of(const ProtobufCFieldDescriptor& field) {
    std::string type = "enum";
    if (field.type == PROTOBUF_C_TYPE_INT32) type = "int32";
    if (field.type == PROTOBUF_C_TYPE_UINT32) type = "uint32";
    if (field.type == PROTOBUF_C_TYPE_UINT64) type = "uint64";
    if (field.type == PROTOBUF_C_TYPE_STRING) type = "string";
    return field.label == PROTOBUF_C_LABEL_OPTIONAL ? type + ", optional" : type;
}

void expect_message(const std::vector<Row>& rows, const ProtobufCMessageDescriptor& message) {
    ASSERT_EQ(rows.size(), message.n_fields);
    for (unsigned i = 0; i < message.n_fields; ++i) {
        EXPECT_EQ(std::stoul(rows[i][0]), message.fields[i].id);
        EXPECT_EQ(rows[i][1], message.fields[i].name);
        EXPECT_EQ(rows[i][2], type_of(message.fields[i])) << rows[i][1];
    }
}

// "0 CONNECT, 1 DISCONNECT, …"
std::string values_of(const ProtobufCEnumDescriptor& type) {
    std::string text;
    for (unsigned i = 0; i < type.n_values; ++i) {
        const std::string name = type.values[i].name;
        text += (i == 0 ? "" : ", ") + std::to_string(type.values[i].value) + " " +
                name.substr(name.find('_') + 1);
    }
    return text;
}

kvtest::EventFields creation() {
    kvtest::EventFields fields;
    fields.path = "/srv/share/Shared/plan.txt";
    fields.user = "anna";
    return fields;
}

kvtest::EventFields renaming() {
    kvtest::EventFields fields = creation();
    fields.type = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
    fields.rename_path = "/srv/share/Shared/Plan.txt";
    fields.seconds += 3;
    fields.microseconds = 250000;
    return fields;
}

void stage(const std::string& bytes) {
    std::vector<char> record(bytes.begin(), bytes.end());
    ASSERT_EQ(write_to_staging_buffer(reinterpret_cast<staging_data_t*>(record.data())), 0);
}

class FormatsEvents : public ::testing::Test {
protected:
    kvtest::ConfigTable table_{-1};
};

}  // namespace

TEST_F(FormatsEvents, RecordIsTheStructureAndWhatTheLibraryPacks) {
    const std::string made = kvtest::frame(creation());
    expect_fields("`staging_data_t`",
                  {{"size", offsetof(staging_data_t, size), sizeof(staging_data_t::size)},
                   {"sig", offsetof(staging_data_t, sig), sizeof(staging_data_t::sig)},
                   {"buffer", offsetof(staging_data_t, buffer), made.size() - 8}});
    EXPECT_EQ(hex("`staging_data_t`"), made);
}

TEST_F(FormatsEvents, MessagesAreTheirDescriptions) {
    const std::vector<Row> event = table("`staging_data_t`", 1);
    expect_message(event, vfsevent__descriptor);
    expect_message(table("`staging_data_t`", 2), audit_event__descriptor);
    EXPECT_EQ(event[4][3], values_of(vfsevent__op_type__descriptor));
    EXPECT_EQ(event[7][3], values_of(vfsevent__fs_elem_type__descriptor));
}

TEST_F(FormatsEvents, ValuesOfTheExampleAreStated) {
    const std::string payload = kvtest::payloads_of(hex("`staging_data_t`")).at(0);
    VFSEvent* const event = vfsevent__unpack(nullptr, payload.size(),
                                             reinterpret_cast<const std::uint8_t*>(payload.data()));
    ASSERT_NE(event, nullptr);
    const std::string stated[] = {std::to_string(event->client_pid),
                                  "\"" + std::string(event->path) + "\"",
                                  std::to_string(event->uid),
                                  event->rename_path == nullptr ? "" : event->rename_path,
                                  std::to_string(event->optype),
                                  std::to_string(event->time_sec),
                                  std::to_string(event->time_usec),
                                  std::to_string(event->fselem_type),
                                  "\"" + std::string(event->kavrin_user) + "\""};
    vfsevent__free_unpacked(event, nullptr);
    const std::vector<Row> rows = table("`staging_data_t`", 1);
    for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i][4], stated[i]) << rows[i][1];
}

TEST_F(FormatsEvents, BufferAndPendingFileAreWhatTheLibraryMakes) {
    const std::string folder = kvtest::make_temp_dir();
    table_.set_string(PARAM_STAGING_DIR, folder);
    table_.set_int(PARAM_STAGING_BUFFER_SIZE, 4096);
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 90);
    ASSERT_EQ(create_eventstore_staging_semaphore(), 1);
    ASSERT_EQ(create_staging_buffer(), 0);
    stage(kvtest::frame(creation()));
    stage(kvtest::frame(renaming()));

    staging_buffer_t* const buffer = get_eventstore_staging_buffer();
    ASSERT_NE(buffer, nullptr);
    const std::string memory(reinterpret_cast<const char*>(buffer), buffer->next_offset);
    put_eventstore_staging_buffer(buffer);
    const std::string shown = hex("`staging_buffer_t`");
    EXPECT_EQ(shown, memory.substr(0, shown.size()));
    expect_fields("`staging_buffer_t`",
                  {{"num_records", offsetof(staging_buffer_t, num_records), 4},
                   {"next_offset", offsetof(staging_buffer_t, next_offset), 4},
                   {"last_flush_time", offsetof(staging_buffer_t, last_flush_time), 8},
                   {"data", offsetof(staging_buffer_t, data),
                    memory.size() - offsetof(staging_buffer_t, data)}});

    ASSERT_EQ(flush_staging_buffer(), 1);
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        EXPECT_EQ(kvtest::read_file(entry.path()), hex("Pending file"));
    EXPECT_EQ(hex("Pending file"), memory.substr(16));
    EXPECT_EQ(memory.size(), 166U) << "told in the text";
}

TEST_F(FormatsEvents, AuditFileIsWhatTheLibraryMakes) {
    const std::string folder = kvtest::make_temp_dir();
    table_.set_string(PARAM_AUDITING_DIR, folder);
    table_.set_int(PARAM_AUDITING_BUFFER_SIZE, 4096);
    table_.set_int(PARAM_AUDITING_FLUSH_INTERVAL, 1000);
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 90);
    init_audit_buffer();
    kvtest::AuditFields fields;
    fields.path = "/srv/share/Shared/Plan.txt";
    fields.seconds += 10;
    fields.address = "192.0.2.7";
    fields.size = 65536;
    std::string bytes = kvtest::frame(fields);
    ASSERT_EQ(write_to_audit_buffer(reinterpret_cast<staging_data_t*>(bytes.data())), 0);
    ASSERT_EQ(flush_audit_buffer(), 0);
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        ++files;
        EXPECT_EQ(kvtest::read_file(entry.path()), hex("Audit file"));
    }
    EXPECT_EQ(files, 1);
}

TEST_F(FormatsEvents, MarkerIsWhatTheLibraryWrites) {
    std::filesystem::create_directory("/kavrin/.conf");
    mark_event_db_as_rescan_needed("staging buffer fdatasync error\n");
    mark_event_db_as_rescan_needed("get_dumpfname failed\n");
    EXPECT_EQ(kvtest::read_file("/kavrin/.conf/kavrin_event_status.dirty"), hex("Rescan marker"));
}

// Every reason in the sources stands in the table, and no other.
TEST_F(FormatsEvents, ReasonsAreThoseOfTheSources) {
    const std::string buffer = kvtest::read_file(KAVRIN_DOCS "/../utils/staging_buffer.cpp");
    const std::string recovery = kvtest::read_file(KAVRIN_DOCS "/../common/event_recovery.cpp");
    std::size_t calls = 0;
    for (const std::string call : {"mark_event_db_as_rescan_needed(\"", "mark_as_root(\""}) {
        for (std::size_t at = buffer.find(call); at != std::string::npos;
             at = buffer.find(call, at + 1)) {
            const std::size_t begin = at + call.size();
            const std::string reason = buffer.substr(begin, buffer.find("\\n\"", begin) - begin);
            bool told = false;
            for (const Row& row : table("Rescan marker")) told = told || row[0] == reason;
            EXPECT_TRUE(told) << reason;
            ++calls;
        }
    }
    EXPECT_GE(calls, 12U);
    for (const Row& row : table("Rescan marker"))
        EXPECT_NE((buffer + recovery).find("\"" + row[0] + "\\n\""), std::string::npos) << row[0];
}
