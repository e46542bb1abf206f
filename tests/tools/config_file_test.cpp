// The configuration file: the parameters against their documented table, every kind of value at
// the ends of its range, and every kind of mistake found with its line.
#include "config_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <sstream>

#include "failure.h"
#include "support.h"

namespace kvtest {
namespace {

using kvadmin::ConfigFile;
using kvadmin::ConfigProblem;
using kvadmin::ConfigRow;
using kvadmin::Configuration;
using kvadmin::ServiceKey;
using kvadmin::TextRule;

ConfigFile read_text(const std::string& text) {
    const std::string path = make_temp_dir() + "/kavrin.conf";
    write_file(path, text);
    return kvadmin::read_config_file(path);
}

// "[SECTION]" and "name = value" for one full name.
std::string setting(std::string_view full, std::string_view value) {
    const std::size_t colon = full.find(':');
    return "[" + std::string(full.substr(0, colon)) + "]\n" + std::string(full.substr(colon + 1)) +
           " = " + std::string(value) + "\n";
}

// The one problem of a text: on that line, with these words.
void expect_problem(const std::string& text, unsigned line, const std::vector<std::string>& words) {
    SCOPED_TRACE(text.substr(0, 200));
    const ConfigFile file = read_text(text);
    ASSERT_EQ(file.problems.size(), 1U);
    EXPECT_EQ(file.problems[0].line, line);
    for (const std::string& word : words)
        EXPECT_NE(file.problems[0].message.find(word), std::string::npos)
            << "'" << word << "' is not in: " << file.problems[0].message;
}

std::string problems_of(const ConfigFile& file) {
    std::string text;
    for (const ConfigProblem& problem : file.problems) text += line_for(file, problem) + "\n";
    return text;
}

// Its value after reading, however it is stored.
std::string value_of(const ConfigFile& file, std::size_t row) {
    const kvadmin::ConfigValue& value = file.configuration.values[row];
    if (kvadmin::config_rows()[row].type == PARAM_VAL_TYPE_STRING) return value.text;
    return std::to_string(value.number);
}

// The table of docs/kavrind.md
// ---------------------------------------------------------------------------------------------

struct DocumentedRow {
    std::string name;  // "SECTION:name"
    std::string type;
    std::string fallback;
    std::string range;
};

std::string plain(std::string cell) {
    std::erase(cell, '`');
    const std::size_t first = cell.find_first_not_of(' ');
    if (first == std::string::npos) return "";
    return cell.substr(first, cell.find_last_not_of(' ') - first + 1);
}

std::vector<DocumentedRow> documented_rows() {
    std::vector<DocumentedRow> rows;
    std::istringstream document(read_file(KAVRIN_DOCS "/kavrind.md"));
    bool inside = false;
    for (std::string line; std::getline(document, line);) {
        std::vector<std::string> cells;
        std::istringstream pieces(line);
        for (std::string cell; std::getline(pieces, cell, '|');) cells.push_back(plain(cell));
        if (cells.size() == 6 && cells[1] == "section") inside = true;
        if (cells.size() != 6) inside = false;
        if (!inside || cells[1] == "section" || cells[1].starts_with("--")) continue;
        rows.push_back({cells[1] + ":" + cells[2], cells[3], cells[4], cells[5]});
    }
    return rows;
}

// What the row's own words say of its range, as the document would put it.
std::string range_of(const ConfigRow& row) {
    const std::string most = "an absolute path of at most " + std::to_string(row.max) + " bytes";
    if (row.type == PARAM_VAL_TYPE_BOOLEAN) return "";
    if (row.rule == TextRule::kPath) return most;
    if (row.rule == TextRule::kPathOrEmpty) return "an absolute path, or empty";
    if (row.rule == TextRule::kGroupMap)
        return "accounts, off, or the absolute path of a JSON file";
    const char* joint = row.min == 0 && row.max == 1 ? " or " : " to ";
    return std::to_string(row.min) + joint + std::to_string(row.max);
}

TEST(ConfigRows, EveryDocumentedParameterIsKnownAsDocumented) {
    const std::vector<DocumentedRow> documented = documented_rows();
    const auto rows = kvadmin::config_rows();
    EXPECT_EQ(documented.size(), rows.size());
    for (const DocumentedRow& wanted : documented) {
        SCOPED_TRACE(wanted.name);
        const auto row = std::find_if(rows.begin(), rows.end(),
                                      [&](const ConfigRow& r) { return r.name == wanted.name; });
        ASSERT_NE(row, rows.end()) << "is in the document only";
        EXPECT_EQ(wanted.type, row->type == PARAM_VAL_TYPE_INT      ? "integer"
                               : row->type == PARAM_VAL_TYPE_STRING ? "text"
                                                                    : "boolean");
        EXPECT_EQ(wanted.fallback, row->fallback);
        // Units and the meaning of 0 follow the numbers.
        const std::string range = range_of(*row);
        EXPECT_TRUE(wanted.range == range || wanted.range.starts_with(range + " ") ||
                    wanted.range.starts_with(range + ";"))
            << wanted.range << " is not " << range;
    }
}

TEST(ConfigRows, EverySlotOfTheSharedTableButTwoHasOneRow) {
    std::vector<int> slots;
    for (const ConfigRow& row : kvadmin::config_rows())
        if (row.slot >= 0) slots.push_back(row.slot);
    EXPECT_EQ(slots.size(), static_cast<std::size_t>(PARAM_MAX_INDEX) - 2);
    std::sort(slots.begin(), slots.end());
    EXPECT_EQ(std::unique(slots.begin(), slots.end()), slots.end());
}

// Values
// ---------------------------------------------------------------------------------------------

TEST(ConfigValues, EveryDefaultIsAValueThatItsRowTakes) {
    const auto rows = kvadmin::config_rows();
    const ConfigFile none = read_text("");
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const ConfigFile file = read_text(setting(rows[i].name, rows[i].fallback));
        EXPECT_EQ(problems_of(file), "") << rows[i].name;
        EXPECT_EQ(value_of(file, i), value_of(none, i)) << rows[i].name;
    }
}

TEST(ConfigValues, EveryNumberIsTakenAtTheEndsOfItsRangeAndRefusedBeyond) {
    const auto rows = kvadmin::config_rows();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].type != PARAM_VAL_TYPE_INT) continue;
        for (const std::int64_t good : {rows[i].min, rows[i].max}) {
            const ConfigFile file = read_text(setting(rows[i].name, std::to_string(good)));
            EXPECT_EQ(problems_of(file), "") << rows[i].name;
            EXPECT_EQ(value_of(file, i), std::to_string(good)) << rows[i].name;
        }
        const std::string range =
            std::to_string(rows[i].min) + " to " + std::to_string(rows[i].max);
        for (const std::int64_t bad : {rows[i].min - 1, rows[i].max + 1})
            expect_problem(setting(rows[i].name, std::to_string(bad)), 2,
                           {std::string(rows[i].name), range, std::to_string(bad)});
    }
}

TEST(ConfigValues, EveryPathIsTakenAtItsLongestAndRefusedBeyond) {
    const auto rows = kvadmin::config_rows();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].type != PARAM_VAL_TYPE_STRING) continue;
        // What has no documented limit has that of a line.
        const std::size_t most = std::min<std::size_t>(static_cast<std::size_t>(rows[i].max), 900);
        const std::string longest = "/" + std::string(most - 1, 'x');
        const ConfigFile file = read_text(setting(rows[i].name, longest));
        EXPECT_EQ(problems_of(file), "") << rows[i].name;
        EXPECT_EQ(value_of(file, i), longest) << rows[i].name;
        expect_problem(setting(rows[i].name, "var/lib"), 2, {"absolute path", "'var/lib'"});
        if (rows[i].rule == TextRule::kPathOrEmpty) continue;
        expect_problem(setting(rows[i].name, longest + "x"), 2,
                       {std::string(rows[i].name), std::to_string(rows[i].max)});
    }
}

TEST(ConfigValues, FoldersAndSocketsAreNotTheRootFolder) {
    for (const ConfigRow& row : kvadmin::config_rows())
        if (row.rule == TextRule::kPath)
            expect_problem(setting(row.name, "/"), 2, {std::string(row.name)});
}

TEST(ConfigValues, NumbersAreWholeAndDecimal) {
    for (const char* bad : {"ten", "1.5", "10s", "0x10", "", "1 2", "+5", "99999999999999999999"})
        expect_problem(setting("SWEEPER:flush period", bad), 2, {"an integer from 1 to 86400"});
}

TEST(ConfigValues, BooleansHaveFourWordsForEachSideInAnyLetterCase) {
    const std::string name = "VFS:enable forbidden rmdir";
    for (const char* word : {"yes", "TRUE", "1", "On"}) {
        const ConfigFile file = read_text(setting(name, word));
        EXPECT_EQ(problems_of(file), "") << word;
        EXPECT_EQ(file.configuration.number(PARAM_ENABLE_FORBIDDEN_RMDIR), 1) << word;
    }
    for (const char* word : {"NO", "false", "0", "off"}) {
        const ConfigFile file = read_text(setting(name, word));
        EXPECT_EQ(problems_of(file), "") << word;
        EXPECT_EQ(file.configuration.number(PARAM_ENABLE_FORBIDDEN_RMDIR), 0) << word;
    }
    for (const char* bad : {"", "2", "y", "maybe"})
        expect_problem(setting(name, bad), 2, {"yes or no", "'" + std::string(bad) + "'"});
}

TEST(ConfigValues, SectionsNamesBlanksAndCommentsAreWrittenAsOneLikes) {
    const ConfigFile file = read_text(
        "; a comment\n"
        "# another\n"
        "\n"
        "  [ sweeper ]\n"
        "   FLUSH   PERIOD=3\n"
        "Flush Period = 7   ; the rest of a line\n"
        "[KavrinD]\r\n"
        "kept maps\t=\t9 # too\n"
        "[VFS]\n"
        "exception pattern file =\n");
    EXPECT_EQ(file.problems.size(), 1U) << "only the name with two blanks is another one";
    EXPECT_EQ(file.configuration.number(PARAM_FLUSH_PERIOD), 7);
    EXPECT_EQ(file.configuration.number(ServiceKey::kKeptMaps), 9);
    EXPECT_EQ(file.configuration.text(PARAM_REGEX_FILE_NAME), "");
}

TEST(ConfigValues, ASectionMayStandTwice) {
    const ConfigFile file =
        read_text("[VFS]\ndefault user = 1\n[KAVRIND]\nkept maps = 2\n[vfs]\ndefault group = 3\n");
    EXPECT_EQ(problems_of(file), "");
    EXPECT_EQ(file.configuration.number(PARAM_DEFAULT_USER_ID), 1);
    EXPECT_EQ(file.configuration.number(ServiceKey::kKeptMaps), 2);
    EXPECT_EQ(file.configuration.number(PARAM_DEFAULT_GROUP_ID), 3);
}

// Mistakes
// ---------------------------------------------------------------------------------------------

TEST(ConfigProblems, AnUnknownNameIsToldWithTheNearestKnownOne) {
    expect_problem("[SWEEPER]\n\nflush periot = 3\n", 3,
                   {"flush periot", "did you mean 'SWEEPER:flush period'"});
    expect_problem("[KAVRIND]\nkept map = 3\n", 2, {"did you mean 'KAVRIND:kept maps'"});
}

TEST(ConfigProblems, AnUnknownSectionIsTold) {
    expect_problem("[SWEPER]\nflush period = 3\n", 2,
                   {"sweper:flush period", "did you mean 'SWEEPER:flush period'"});
    expect_problem("flush period = 3\n", 1,
                   {"flush period", "did you mean 'SWEEPER:flush period'"});
}

TEST(ConfigProblems, ANameThatStandsTwiceIsToldWithTheOtherLine) {
    expect_problem("[VFS]\ndebug level = 1\n\ndebug level = 2\n", 4, {"debug level", "line 2"});
    expect_problem("[VFS]\ndebug level = 1\n[KAVRIND]\n[vfs]\nDEBUG LEVEL = 1\n", 5,
                   {"DEBUG LEVEL", "line 2"});
}

TEST(ConfigProblems, ALineThatIsNothingIsTold) {
    expect_problem("[VFS]\ndebug level = 1\nthis is nothing\n", 3, {"name = value"});
    expect_problem("[VFS]\n= 5\n", 2, {"name = value"});
}

TEST(ConfigProblems, ASectionWithoutItsEndIsTold) {
    const ConfigFile file = read_text("[KAVRIND\nkept maps = 3\n");
    ASSERT_FALSE(file.problems.empty());
    EXPECT_EQ(file.problems[0].line, 1U);
    EXPECT_NE(file.problems[0].message.find("]"), std::string::npos);
}

TEST(ConfigProblems, ALineThatIsTooLongIsToldAndNothingElseOfIt) {
    expect_problem("[VFS]\n; " + std::string(1200, 'x') + "\ndebug level = 1\n", 2, {"1000"});
    const ConfigFile value =
        read_text("[VFS]\nexception pattern file = /" + std::string(5000, 'x') + "\n");
    ASSERT_FALSE(value.problems.empty());
    EXPECT_EQ(value.problems[0].line, 2U);
}

TEST(ConfigProblems, ABinaryFileIsTold) {
    const ConfigFile file = read_text(std::string("\x7f\x45LF\0\1\0\0\n\0\0\n", 12));
    ASSERT_FALSE(file.problems.empty());
    EXPECT_EQ(file.problems[0].line, 1U);
    EXPECT_NE(file.problems[0].message.find("zero byte"), std::string::npos);
}

TEST(ConfigProblems, AllAreFoundAtOnceInTheOrderOfTheirLines) {
    const ConfigFile file = read_text(
        "[VFS]\n"
        "default user = minus one\n"
        "what is this\n"
        "[SWEEPER]\n"
        "staging dir = staging\n"
        "flush period = 0\n"
        "[KAVRIND]\n"
        "kept maps = 4\n"
        "keptmaps = 3\n"
        "kept maps = 6\n");
    std::vector<unsigned> lines;
    for (const ConfigProblem& problem : file.problems) lines.push_back(problem.line);
    EXPECT_EQ(lines, (std::vector<unsigned>{2, 3, 5, 6, 9, 10})) << problems_of(file);
    EXPECT_EQ(file.configuration.number(PARAM_DEFAULT_USER_ID), 65534) << "the default stays";
}

TEST(ConfigProblems, AreTellableWithHostileText) {
    const ConfigFile file = read_text("[VFS]\n\x1b[2Jname = \x1b[31mred\xff\n");
    ASSERT_EQ(file.problems.size(), 1U);
    const std::string line = line_for(file, file.problems[0]);
    EXPECT_NE(line.find(file.path + ":2: "), std::string::npos) << line;
    EXPECT_TRUE(std::none_of(line.begin(), line.end(), [](char c) { return c == '\x1b'; })) << line;
}

// Files
// ---------------------------------------------------------------------------------------------

TEST(ConfigFiles, AMissingOneGivesEveryDefault) {
    const ConfigFile file = kvadmin::read_config_file(make_temp_dir() + "/none");
    EXPECT_FALSE(file.exists);
    EXPECT_TRUE(file.problems.empty());
    EXPECT_EQ(file.configuration.values, Configuration().values);
    EXPECT_EQ(file.configuration.number(PARAM_FLUSH_PERIOD), 10);
    EXPECT_EQ(file.configuration.text(ServiceKey::kGroupMap), "accounts");
}

TEST(ConfigFiles, WhatCannotBeReadIsAFailureThatNamesIt) {
    const std::string folder = make_temp_dir();
    symlink("loop", (folder + "/loop").c_str());
    write_file(folder + "/file", "");
    for (const std::string& path : {folder, folder + "/loop", folder + "/file/below"}) {
        try {
            kvadmin::read_config_file(path);
            ADD_FAILURE() << path << " was read";
        } catch (const kvadmin::CommandError& error) {
            EXPECT_EQ(error.code, kvadmin::Exit::kFailure);
            EXPECT_NE(error.message.find(path), std::string::npos) << error.message;
        }
    }
}

// The shared table
// ---------------------------------------------------------------------------------------------

TEST(ConfigTables, EveryRowIsWrittenIntoItsSlot) {
    const ConfigTable table;
    const ConfigFile file = read_text(
        "[VFS]\ndefault user = 11\ndefault group = 12\nexception pattern file = /etc/patterns\n"
        "check regex unlink = 1\ndebug level = 13\nenable forbidden rmdir = yes\n"
        "[SWEEPER]\ndisable sweeper flush = yes\nstaging buffer size = 8192\nflush period = 14\n"
        "staging dir = /kavrin/s\nflush fill threshold pct = 15\nauditing dir = /kavrin/a\n"
        "auditing buffer size = 2048\nauditing flush interval = 16\n"
        "[MESSENGER]\nsocket backlog = 17\nsocket message size = 4096\nsocket path = /run/s\n");
    ASSERT_EQ(problems_of(file), "");
    file.configuration.write_to(global_params);
    const auto number = [](int slot) { return global_params[slot].value.intval; };
    const auto text = [](int slot) { return std::string(global_params[slot].value.strval); };
    EXPECT_EQ(number(PARAM_DEFAULT_USER_ID), 11);
    EXPECT_EQ(number(PARAM_DEFAULT_GROUP_ID), 12);
    EXPECT_EQ(text(PARAM_REGEX_FILE_NAME), "/etc/patterns");
    EXPECT_EQ(number(PARAM_CHECK_REGEX_UNLINK), 1);
    EXPECT_EQ(number(PARAM_DEBUG_LEVEL), 13);
    EXPECT_EQ(number(PARAM_ENABLE_FORBIDDEN_RMDIR), 1);
    EXPECT_EQ(number(PARAM_DISABLE_SWEEPER_FLUSH), 1);
    EXPECT_EQ(number(PARAM_STAGING_BUFFER_SIZE), 8192);
    EXPECT_EQ(number(PARAM_FLUSH_PERIOD), 14);
    EXPECT_EQ(text(PARAM_STAGING_DIR), "/kavrin/s");
    EXPECT_EQ(number(PARAM_FLUSH_FILL_THRESHOLD), 15);
    EXPECT_EQ(text(PARAM_AUDITING_DIR), "/kavrin/a");
    EXPECT_EQ(number(PARAM_AUDITING_BUFFER_SIZE), 2048);
    EXPECT_EQ(number(PARAM_AUDITING_FLUSH_INTERVAL), 16);
    EXPECT_EQ(number(PARAM_SOCKET_BACKLOG), 17);
    EXPECT_EQ(number(PARAM_SOCKET_MESSAGE_SIZE), 4096);
    EXPECT_EQ(text(PARAM_SOCKET_PATH), "/run/s");
    for (const ConfigRow& row : kvadmin::config_rows())
        if (row.slot >= 0) {
            EXPECT_EQ(global_params[row.slot].type, row.type) << row.name;
        }
}

TEST(ConfigTables, AShorterTextLeavesNothingOfALongerOne) {
    const ConfigTable table;
    read_text(setting("SWEEPER:staging dir", "/a/very/long/folder"))
        .configuration.write_to(global_params);
    read_text(setting("SWEEPER:staging dir", "/b")).configuration.write_to(global_params);
    const char* text = global_params[PARAM_STAGING_DIR].value.strval;
    EXPECT_STREQ(text, "/b");
    EXPECT_EQ(std::string(text, KAVRIN_PARAM_STRLEN),
              "/b" + std::string(KAVRIN_PARAM_STRLEN - 2, '\0'));
}

}  // namespace
}  // namespace kvtest
