// kavrin.conf(5) and the example configuration against docs/kavrind.md: the same sections and keys
// in the same order, with the same types, defaults and ranges.
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <regex>
#include <sstream>

#include "support.h"

namespace kvtest {
namespace {

struct Key {
    std::string section;
    std::string name;
    std::string type;
    std::string standard;  // the default
    std::string range;
    bool operator==(const Key&) const = default;
};

void PrintTo(const Key& key, std::ostream* out) {
    *out << key.section << " | " << key.name << " | " << key.type << " | " << key.standard << " | "
         << key.range;
}

std::vector<std::string> lines_of(const std::string& path) {
    std::istringstream in(read_file(KAVRIN_SOURCE "/" + path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    EXPECT_FALSE(lines.empty()) << path;
    return lines;
}

// A cell of the table as plain text: without blanks around it and without marks of code.
std::string plain(std::string cell) {
    std::erase(cell, '`');
    const std::size_t first = cell.find_first_not_of(' ');
    if (first == std::string::npos) return "";
    return cell.substr(first, cell.find_last_not_of(' ') - first + 1);
}

std::vector<Key> keys_of_the_contract() {
    std::vector<Key> keys;
    for (const std::string& line : lines_of("docs/kavrind.md")) {
        std::vector<std::string> cells;
        std::istringstream in(line);
        for (std::string cell; std::getline(in, cell, '|');) cells.push_back(plain(cell));
        // "| section | name | type | default | range |": an empty piece before the first bar.
        if (cells.size() != 6 || cells[1] == "section") continue;
        if (!std::ranges::all_of(cells[1], [](char c) { return c >= 'A' && c <= 'Z'; })) continue;
        keys.push_back({cells[1], cells[2], cells[3], cells[4], cells[5]});
    }
    EXPECT_GT(keys.size(), 17u) << "the table of docs/kavrind.md was not understood";
    return keys;
}

// "*NAME* (TYPE; default DEFAULT; RANGE)" below "# SECTION".
std::vector<Key> keys_of_the_manual_page() {
    static const std::regex heading("# ([A-Z]+)");
    static const std::regex entry(
        R"(\*([a-z ]+)\* \(([a-z]+); (no default|default ([^;]+))(; (.*))?\))");
    std::vector<Key> keys;
    std::string section;
    std::smatch match;
    for (const std::string& line : lines_of("docs/man/kavrin.conf.5.scd")) {
        if (std::regex_match(line, match, heading)) section = match[1];
        if (std::regex_match(line, match, entry))
            keys.push_back({section, match[1], match[2], match[4], match[6]});
    }
    return keys;
}

// Below "[SECTION]": a block of comments that begins with "# TYPE; RANGE", then ";NAME = DEFAULT".
std::vector<Key> keys_of_the_example() {
    static const std::regex heading(R"(\[([A-Z]+)\])");
    static const std::regex first("# ([a-z]+)(; (.*))?");
    static const std::regex entry(";([a-z ]+) =( (.*))?");
    std::vector<Key> keys;
    std::string section;
    std::string before;
    std::smatch kind;
    std::string type_and_range;
    for (const std::string& line : lines_of("packaging/kavrin.conf")) {
        std::smatch match;
        if (std::regex_match(line, match, heading)) section = match[1];
        if (before.empty() && line.starts_with("# ")) type_and_range = line;
        if (std::regex_match(line, match, entry)) {
            EXPECT_TRUE(std::regex_match(type_and_range, kind, first)) << line;
            keys.push_back({section, match[1], kind[1], match[3], kind[3]});
        }
        before = line;
    }
    return keys;
}

TEST(ConfigurationPages, TheManualPageListsTheKeysOfTheContract) {
    EXPECT_EQ(keys_of_the_manual_page(), keys_of_the_contract());
}

TEST(ConfigurationPages, TheExampleListsTheKeysOfTheContract) {
    EXPECT_EQ(keys_of_the_example(), keys_of_the_contract());
}

TEST(ConfigurationPages, NothingInTheExampleIsInForce) {
    for (const std::string& line : lines_of("packaging/kavrin.conf"))
        EXPECT_TRUE(line.empty() || line.starts_with('[') || line.starts_with('#') ||
                    line.starts_with(';'))
            << line;
}

}  // namespace
}  // namespace kvtest
