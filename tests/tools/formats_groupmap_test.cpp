// The group-map section of docs/formats.md against the code: the tables are the structures, the
// block of bytes is what the tool makes of the JSON file shown beside it, every value in the tables
// is read from that block, and the library finds what the file says.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "formats_document.h"
#include "groupmap_fixture.h"

namespace {

using kvtest::block;
using kvtest::Bytes;
using kvtest::Row;
using kvtest::section;
using kvtest::table;

// The block of bytes with the zeros that follow it.
Bytes example() {
    Bytes bytes;
    std::istringstream lines(block("Group-map file", "hex"));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(std::stoul(line, nullptr, 16), bytes.size());
        std::istringstream digits(line.substr(line.find(':') + 1));
        for (std::string byte; digits >> byte;)
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(byte, nullptr, 16)));
    }
    bytes.resize(KAVRIN_GROUPMAP_MIN_SIZE);
    return bytes;
}

struct Field {
    const char* name;
    std::size_t offset;
};

// The table's rows are the record's fields, and the last column is the record at `position`.
void expect_record(const std::string& title, std::size_t position,
                   const std::vector<Field>& fields) {
    const std::vector<Row> rows = table(title);
    ASSERT_EQ(rows.size(), fields.size()) << title;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i][2], fields[i].name);
        EXPECT_EQ(std::stoul(rows[i][0]), fields[i].offset) << fields[i].name;
        EXPECT_EQ(rows[i][1], "4") << fields[i].name;
        EXPECT_EQ(std::stoul(rows[i][4]), kvtest::get32(example(), position + fields[i].offset))
            << fields[i].name;
    }
}

}  // namespace

TEST(FormatsGroupMap, BytesAreWhatTheToolMakesOfTheJsonFile) {
    kvtest::write_file("/tmp/groups.json", block("Group-map file", "json"));
    const kvtest::ChildResult result =
        kvtest::run_tool({"groupmap", "build", "--from", "/tmp/groups.json"});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    const Bytes shown = example();
    EXPECT_EQ(kvtest::read_file(kvadmin::kGroupMapPath), std::string(shown.begin(), shown.end()));
}

TEST(FormatsGroupMap, TheLibraryReadsTheBytes) {
    const Bytes bytes = example();
    EXPECT_TRUE(kvadmin::check_groupmap(bytes).findings.empty());
    const auto document = nlohmann::json::parse(block("Group-map file", "json"));
    const kvtest::QuietReader quiet;
    for (const auto& [name, gids] : document["users"].items())
        EXPECT_EQ(kvtest::read_gids(bytes.data(), bytes.size(), name), gids.get<kvtest::Gids>());
    for (const auto& [name, gid] : document["reserved"].items())
        EXPECT_EQ(kavrin_reserved_gid(bytes.data(), static_cast<std::uint32_t>(bytes.size()),
                                      name.c_str()),
                  gid.get<gid_t>());
}

TEST(FormatsGroupMap, TablesAreTheStructures) {
    expect_record("`mapheader`", 0,
                  {{"roffs", offsetof(mapheader, roffs)},
                   {"rnum", offsetof(mapheader, rnum)},
                   {"uoffs", offsetof(mapheader, uoffs)},
                   {"unum", offsetof(mapheader, unum)}});
    const Bytes bytes = example();
    expect_record("`ritem`", kvtest::get32(bytes, 0),
                  {{"noffs", offsetof(ritem, noffs)}, {"gid", offsetof(ritem, gid)}});
    expect_record("`uitem`", kvtest::get32(bytes, 8),
                  {{"noffs", offsetof(uitem, noffs)},
                   {"nlen", offsetof(uitem, nlen)},
                   {"goffs", offsetof(uitem, goffs)},
                   {"glen", offsetof(uitem, glen)}});
}

TEST(FormatsGroupMap, TheCommandsExampleIsOneThatTheToolTakes) {
    std::istringstream in(kvtest::read_file(KAVRIN_DOCS "/kavrinctl.md"));
    std::string json;
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line == "```json")
            inside = json.empty();
        else if (line == "```")
            inside = false;
        else if (inside)
            json += line + "\n";
    }
    kvtest::write_file("/tmp/groups.json", json);
    const kvtest::ChildResult result =
        kvtest::run_tool({"groupmap", "build", "--from", "/tmp/groups.json"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.err, "");
}
