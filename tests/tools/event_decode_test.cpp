// What events cat and audit cat print, against the schema's own decoder: the payloads of a file are
// given to protoc, and every field is compared with the JSON of the same record.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "event_files.h"
#include "tool_run.h"

namespace {

using kvtest::AuditFields;
using kvtest::EventFields;
using Fields = std::map<std::string, std::string>;

// Undoes the escapes of the decoder's texts.
std::string unescaped(const std::string& text) {
    static const std::map<char, char> kNamed = {{'n', '\n'}, {'r', '\r'},  {'t', '\t'},
                                                {'"', '"'},  {'\'', '\''}, {'\\', '\\'}};
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
        } else if (const auto named = kNamed.find(text.at(i + 1)); named != kNamed.end()) {
            out += named->second;
            ++i;
        } else {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
            i += 3;
        }
    }
    return out;
}

// Field names and values as the decoder prints them, texts without quotes and escapes.
Fields decoded(const std::string& message, const std::string& schema, const std::string& payload) {
    const std::string file = kvtest::make_temp_dir() + "/payload";
    kvtest::write_file(file, payload);
    const std::string command = std::string(KAVRIN_PROTOC) + " --decode=" + message +
                                " --proto_path=" KAVRIN_SCHEMAS " " + schema + " <" + file;
    std::FILE* const output = popen(command.c_str(), "r");
    std::string text;
    for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) text += static_cast<char>(c);
    EXPECT_EQ(pclose(output), 0) << command;
    Fields fields;
    for (const std::string& line : kvtest::lines_of(text)) {
        const std::size_t colon = line.find(": ");
        std::string value = line.substr(colon + 2);
        if (value.front() == '"') value = unescaped(value.substr(1, value.size() - 2));
        EXPECT_TRUE(fields.emplace(line.substr(0, colon), value).second) << line;
    }
    return fields;
}

Fields printed(const std::string& line) {
    Fields fields;
    const nlohmann::json object = nlohmann::json::parse(line);
    for (const auto& [name, value] : object.items())
        fields[name] = value.is_string() ? value.get<std::string>() : value.dump();
    return fields;
}

void expect_same(const std::string& message, const std::string& schema, const std::string& bytes,
                 const std::vector<std::string>& arguments) {
    const std::string file = kvtest::make_temp_dir() + "/pending_1.000000";
    kvtest::write_file(file, bytes);
    std::vector<std::string> words = arguments;
    words.push_back(file);
    const kvtest::ChildResult result = kvtest::run_tool(words);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    const std::vector<std::string> lines = kvtest::lines_of(result.out);
    const std::vector<std::string> payloads = kvtest::payloads_of(bytes);
    ASSERT_EQ(lines.size(), payloads.size());
    for (std::size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(printed(lines[i]), decoded(message, schema, payloads[i])) << lines[i];
}

}  // namespace

TEST(EventDecode, EventsAreWhatTheSchemaSays) {
    kvtest::ConfigTable quiet(-1);
    std::string bytes;
    for (int type = 0; type <= 10; ++type) {
        EventFields fields = kvtest::numbered_event(type);
        fields.type = static_cast<VFSEvent__OpType>(type);
        fields.kind = static_cast<VFSEvent__FsElemType>(type % 2);
        bytes += frame(fields);
    }
    EventFields full;
    full.path = "/srv/Grüße/日本語/\xF0\x9F\x97\x82 \"quoted\"\\back\tslash\n";
    full.rename_path = "/srv/Ärger";
    full.user = "jürgen";
    full.pid = INT32_MAX;
    full.uid = UINT32_MAX;
    full.seconds = INT32_MAX;
    full.microseconds = 999999;
    bytes += frame(full);
    EventFields low;
    low.path = "";
    low.rename_path = "";
    low.user = "";
    low.pid = INT32_MIN;
    low.seconds = -1;
    low.microseconds = INT32_MIN;
    bytes += frame(low);
    EventFields only_user = kvtest::numbered_event(99);
    only_user.user = "anna";
    bytes += frame(only_user);
    EventFields long_path;
    long_path.path = "/" + std::string(4000, 'x');
    bytes += frame(long_path);
    expect_same("VFSEvent", "samba.proto", bytes, {"events", "cat", "--json"});
}

TEST(EventDecode, AuditEventsAreWhatTheSchemaSays) {
    kvtest::ConfigTable quiet(-1);
    std::string bytes = frame(AuditFields{});
    for (const std::uint64_t size :
         {std::uint64_t{0}, std::uint64_t{1} << 53, (std::uint64_t{1} << 63) + 1, UINT64_MAX}) {
        AuditFields fields;
        fields.path = "/srv/Übung";
        fields.uid = UINT32_MAX;
        fields.seconds = -5;
        fields.address = "2001:db8::7";
        fields.size = size;
        bytes += frame(fields);
    }
    expect_same("AuditEvent", "audit_events.proto", bytes, {"audit", "cat", "--json"});
}
