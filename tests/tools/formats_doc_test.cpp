// docs/formats.md against the code: every row of a record's table is the structure's field, every
// block of bytes decodes to the values beside it, and the bytes are those that the library makes
// of the pair of files shown in the document.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

#include "config_keys.h"
#include "formats_document.h"
#include "tool_run.h"

namespace {

using namespace kvtest;
using Bytes = std::vector<std::uint8_t>;

struct HexBlock {
    std::size_t position;  // of its first byte
    Bytes bytes;
};

HexBlock hex(const std::string& title) {
    HexBlock result{0, {}};
    std::istringstream lines(block(title, "hex"));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t position = std::stoul(line, nullptr, 16);
        if (result.bytes.empty()) result.position = position;
        EXPECT_EQ(position, result.position + result.bytes.size()) << title;
        std::istringstream bytes(line.substr(line.find(':') + 1));
        for (std::string byte; bytes >> byte;)
            result.bytes.push_back(static_cast<std::uint8_t>(std::stoul(byte, nullptr, 16)));
    }
    return result;
}

const Bytes& image() {
    static const Bytes bytes = [] {
        kvtest::ConfigTable quiet(-1);
        return kvtest::build_image(block("Size file", "json"), block("Data file", "json"));
    }();
    return bytes;
}

struct Field {
    const char* name;
    std::size_t offset;
    std::size_t size;
};
#define FIELD(Record, name) \
    { #name, offsetof(Record, name), sizeof(Record::name) }

void expect_value(const Row& row, const Bytes& bytes, std::size_t offset, std::size_t size) {
    const std::string& stated = row[4];
    if (stated.empty()) return;
    ASSERT_LE(offset + size, bytes.size()) << row[2];
    if (stated.front() == '"') {
        std::string expected = stated.substr(1, stated.size() - 2);
        expected.resize(size);
        const std::string found(reinterpret_cast<const char*>(bytes.data() + offset), size);
        EXPECT_EQ(found, expected) << row[2];
        return;
    }
    std::uint64_t value = 0;
    ASSERT_LE(size, sizeof value) << row[2];
    std::memcpy(&value, bytes.data() + offset, size);
    EXPECT_EQ(value, std::stoull(stated, nullptr, 0)) << row[2];
}

// Compares a record's table with its structure and with its example, which lies at `position` of
// the image.
void expect_record(const std::string& title, const std::vector<Field>& fields,
                   std::size_t position) {
    const std::vector<Row> rows = table(title);
    const HexBlock example = hex(title);
    EXPECT_EQ(example.position, position) << title;
    ASSERT_EQ(rows.size(), fields.size()) << title;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i][2], fields[i].name) << title;
        EXPECT_EQ(std::stoul(rows[i][0]), fields[i].offset) << fields[i].name;
        EXPECT_EQ(std::stoul(rows[i][1]), fields[i].size) << fields[i].name;
        expect_value(rows[i], example.bytes, fields[i].offset, fields[i].size);
    }
}

void expect_image_bytes(const std::string& title, const std::string& range) {
    const HexBlock example = hex(title);
    ASSERT_LE(example.position + example.bytes.size(), image().size());
    EXPECT_TRUE(std::equal(example.bytes.begin(), example.bytes.end(),
                           image().begin() + static_cast<std::ptrdiff_t>(example.position)))
        << title;
    std::string text;
    for (const std::string& line : section(title)) text += line + "\n";
    EXPECT_NE(text.find("ytes " + range), std::string::npos) << title;
    EXPECT_EQ(std::to_string(example.position) + " to " +
                  std::to_string(example.position + example.bytes.size() - 1),
              range)
        << title;
}

const fs_elem_t* element(std::uint32_t offset) {
    return reinterpret_cast<const fs_elem_t*>(image().data() + sizeof(kavrin_be_header_t) + offset);
}

const kavrin_be_header_t* header() {
    return reinterpret_cast<const kavrin_be_header_t*>(image().data());
}

}  // namespace

TEST(FormatsDocument, SizeFileExampleIsAPairWithTheDataFileExample) {
    EXPECT_EQ(image().size(), 581u);
    const auto size = nlohmann::json::parse(block("Size file", "json"));
    const std::vector<Row> keys = table("Size file");
    ASSERT_EQ(keys.size(), size.size());
    for (const Row& key : keys) EXPECT_TRUE(size.contains(key[0])) << key[0];
    EXPECT_EQ(header()->next_free_fselem, header()->fselem_size);
    EXPECT_EQ(header()->next_free_nameelem, header()->nameelem_size);
    EXPECT_EQ(header()->next_free_acl, header()->acl_size);
}

TEST(FormatsDocument, DataFileTableNamesTheKeysOfAnElement) {
    const auto root = nlohmann::json::parse(block("Data file", "json"))[1];
    const std::vector<Row> keys = table("Data file");
    ASSERT_EQ(keys.size(), root.size());
    for (const Row& key : keys) EXPECT_TRUE(root.contains(key[0])) << key[0];
}

TEST(FormatsDocument, RegionsOfTheExampleAreStated) {
    const std::vector<Row> rows = table("Permission map image");
    ASSERT_EQ(rows.size(), 5u);
    const std::size_t starts[] = {0, header()->fselem_offset, header()->nameelem_offset,
                                  header()->acl_offset, header()->list_offset};
    const std::size_t sizes[] = {sizeof(kavrin_be_header_t), header()->fselem_size,
                                 header()->nameelem_size, header()->acl_size, header()->list_size};
    for (std::size_t i = 0; i < rows.size(); ++i)
        EXPECT_EQ(rows[i][3],
                  std::to_string(starts[i]) + " to " + std::to_string(starts[i] + sizes[i] - 1))
            << rows[i][0];
    EXPECT_EQ(starts[4] + sizes[4], image().size());
}

TEST(FormatsDocument, SignaturesAreStated) {
    const std::vector<Row> rows = table("Permission map image", 1);
    const std::uint32_t signatures[] = {KAVRIN_BE_HEADER_SIGNATURE, FSELEMSIG, NAMESIG, LISTSIG,
                                        ACLSIG};
    ASSERT_EQ(rows.size(), std::size(signatures));
    for (std::size_t i = 0; i < rows.size(); ++i)
        EXPECT_EQ(std::stoul(rows[i][1], nullptr, 16), signatures[i]) << rows[i][0];
}

TEST(FormatsDocument, HeaderIsTheStructure) {
    using Header = kavrin_be_header_t;
    expect_record("kavrin_be_header_t",
                  {FIELD(Header, mapname),          FIELD(Header, version),
                   FIELD(Header, nextmap),          FIELD(Header, generationnum),
                   FIELD(Header, timestamp),        FIELD(Header, total_fselems),
                   FIELD(Header, total_aces),       FIELD(Header, total_lists),
                   FIELD(Header, fselem_offset),    FIELD(Header, fselem_size),
                   FIELD(Header, next_free_fselem), FIELD(Header, nameelem_offset),
                   FIELD(Header, nameelem_size),    FIELD(Header, next_free_nameelem),
                   FIELD(Header, acl_offset),       FIELD(Header, acl_size),
                   FIELD(Header, next_free_acl),    FIELD(Header, list_offset),
                   FIELD(Header, list_size),        FIELD(Header, next_free_list),
                   FIELD(Header, signature)},
                  0);
    EXPECT_EQ(hex("kavrin_be_header_t").bytes.size(), sizeof(Header));
    expect_image_bytes("kavrin_be_header_t", "0 to 175");
}

TEST(FormatsDocument, ElementIsTheStructure) {
    expect_record("`fs_elem_t`",
                  {FIELD(fs_elem_t, signature), FIELD(fs_elem_t, parent_offset),
                   FIELD(fs_elem_t, name_elem_offset), FIELD(fs_elem_t, clist_offset),
                   FIELD(fs_elem_t, acl_offset), FIELD(fs_elem_t, flags)},
                  sizeof(kavrin_be_header_t) + 72);
    EXPECT_EQ(hex("`fs_elem_t`").bytes.size(), sizeof(fs_elem_t));
    expect_image_bytes("`fs_elem_t`", "248 to 271");
}

TEST(FormatsDocument, NameIsTheStructure) {
    constexpr std::size_t kExample = sizeof "report.txt";
    expect_record("`name_elem_t`",
                  {FIELD(name_elem_t, name_len),
                   FIELD(name_elem_t, padding),
                   FIELD(name_elem_t, signature),
                   FIELD(name_elem_t, hashval),
                   {"name", offsetof(name_elem_t, name), kExample}},
                  header()->nameelem_offset + element(72)->name_elem_offset);
    EXPECT_EQ(hex("`name_elem_t`").bytes.size(), sizeof(name_elem_t) + kExample);
    expect_image_bytes("`name_elem_t`", "346 to 368");
}

TEST(FormatsDocument, ChildListIsTheStructure) {
    expect_record("`child_list_t`",
                  {FIELD(child_list_t, signature),
                   FIELD(child_list_t, num_children),
                   FIELD(child_list_t, next_index),
                   {"children_offsets", offsetof(child_list_t, children_offsets), 4}},
                  header()->list_offset + element(0)->clist_offset);
    EXPECT_EQ(hex("`child_list_t`").bytes.size(), sizeof(child_list_t) + 2 * 4);
    expect_image_bytes("`child_list_t`", "517 to 536");
}

TEST(FormatsDocument, AclIsTheStructure) {
    expect_record("`beacl_t`",
                  {FIELD(beacl_t, signature),
                   FIELD(beacl_t, num_aces),
                   {"aces", offsetof(beacl_t, aces), sizeof(beace_t)}},
                  header()->acl_offset + element(96)->acl_offset);
    EXPECT_EQ(hex("`beacl_t`").bytes.size(), sizeof(beacl_t) + 2 * sizeof(beace_t));
    expect_image_bytes("`beacl_t`", "469 to 500");
}

TEST(FormatsDocument, AceIsTheStructure) {
    expect_record("`beace_t`",
                  {FIELD(beace_t, idtype), FIELD(beace_t, id), FIELD(beace_t, perm_mask),
                   FIELD(beace_t, padding)},
                  header()->acl_offset + element(96)->acl_offset + sizeof(beacl_t));
    EXPECT_EQ(hex("`beace_t`").bytes.size(), sizeof(beace_t));
    expect_image_bytes("`beace_t`", "477 to 488");
}

TEST(FormatsDocument, PersistedFileIsTheImage) {
    const Bytes& built = image();  // persisted on the way
    const HexBlock mark = hex("Persisted map file");
    EXPECT_EQ(mark.position, offsetof(kavrin_be_header_t, signature));
    const std::string file = kvtest::read_file("/etc/kavrin/.permbe_map");
    EXPECT_EQ(file, std::string(built.begin(), built.end()));
    EXPECT_EQ(file.substr(mark.position, mark.bytes.size()),
              std::string(mark.bytes.begin(), mark.bytes.end()));
    char* location = get_permbe_map_location();
    const std::string path = location;
    std::free(location);
    EXPECT_NE(formats_document().find("`" + path + "`"), std::string::npos);
}

TEST(FormatsDocument, SlotIsTheStructureAndWhatASettingMakes) {
    const std::vector<Row> rows = table("`global_param_t`");
    const HexBlock example = hex("`global_param_t`");
    const Field fields[] = {FIELD(global_param_t, type), FIELD(global_param_t, varname),
                            FIELD(global_param_t, value)};
    ASSERT_EQ(rows.size(), std::size(fields));
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i][2], fields[i].name);
        EXPECT_EQ(std::stoul(rows[i][0]), fields[i].offset) << fields[i].name;
        EXPECT_EQ(std::stoul(rows[i][1]), fields[i].size) << fields[i].name;
        expect_value(rows[i], example.bytes, fields[i].offset,
                     std::min<std::size_t>(fields[i].size, sizeof(std::int32_t)));
    }

    ASSERT_EQ(kvtest::run_tool({"config", "create", "--set", "VFS:debug level=2"}).exit_code, 0);
    const int id = shmget(ftok("/dev/null", 3456), 19760, 0);
    ASSERT_NE(id, -1);
    EXPECT_EQ(example.position, std::size_t{PARAM_DEBUG_LEVEL} * sizeof(global_param_t));
    const auto* memory = static_cast<const std::uint8_t*>(shmat(id, nullptr, SHM_RDONLY));
    for (std::size_t i = 0; i < example.bytes.size(); ++i) {
        if (i >= 8 && i < 16) continue;  // the address
        EXPECT_EQ(memory[example.position + i], example.bytes[i]) << i;
    }
    shmdt(memory);
}

TEST(FormatsDocument, ParametersAreThoseOfTheTable) {
    const std::vector<Row> rows = table("Parameters");
    const auto keys = kvadmin::config_keys();
    ASSERT_EQ(rows.size(), keys.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(std::stoi(rows[i][0]), keys[i].slot);
        EXPECT_EQ(std::stoul(rows[i][1]), keys[i].slot * sizeof(global_param_t));
        EXPECT_EQ(rows[i][2], keys[i].name);
        EXPECT_EQ(rows[i][3], kvadmin::type_name(keys[i].type));
    }
}

TEST(FormatsDocument, LogExampleIsALineOfTheLibrary) {
    kvtest::ConfigTable quiet(-1);
    setenv("TZ", "UTC", 1);
    tzset();
    std::string example = block("Permission-load log", "log");
    char* line = nullptr;
    unsigned int size = 0;
    ASSERT_EQ(create_sweeperlog_msg(SWEEPER_LOGSEV_FATAL, "Missing JSON size file",
                                    MISSING_JSON_FILES, &line, &size),
              0);
    std::string made = line;
    std::free(line);
    const std::time_t then = std::stol(example);
    const std::time_t now = std::stol(made);
    const auto stamp = [](std::time_t time) {
        std::string text = std::ctime(&time);
        text.pop_back();
        return std::to_string(time) + "," + text + ",";
    };
    ASSERT_TRUE(example.starts_with(stamp(then))) << example;
    ASSERT_TRUE(made.starts_with(stamp(now))) << made;
    EXPECT_EQ(example.substr(stamp(then).size()), made.substr(stamp(now).size()));
}

TEST(FormatsDocument, LogClassesAndSeveritiesAreCounted) {
    const std::vector<Row> classes = table("Permission-load log", 1);
    ASSERT_EQ(classes.size(), CANNOT_UNLINK_JSON_FILES + 1u);
    for (std::size_t i = 0; i < classes.size(); ++i) EXPECT_EQ(classes[i][0], std::to_string(i));
    EXPECT_EQ(table("Permission-load log").size(), 5u);
}
