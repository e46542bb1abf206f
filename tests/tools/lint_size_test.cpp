// What lint finds beyond one element's grammar: deep trees, the size file, its counts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lint.h"
#include "support.h"

namespace {

using namespace std::string_literals;
using kvadmin::Finding;
using kvadmin::lint_texts;
using kvadmin::LintReport;
using kvadmin::PairFile;
using kvadmin::Severity;
using Lines = std::vector<std::string>;

Lines found(const LintReport& report, PairFile file) {
    Lines lines;
    for (const Finding& finding : report.findings) {
        if (finding.file != file) continue;
        const std::string line = describe(report, finding);
        const std::size_t name =
            (file == PairFile::kSize ? report.size_path : report.data_path).size();
        lines.push_back(line.substr(name + 1));
    }
    return lines;
}

Lines in_size(std::string_view text) {
    return found(lint_texts(text, kvtest::kExampleData), PairFile::kSize);
}

std::string size_with(std::string_view from, std::string_view to) {
    std::string text = kvtest::kExampleSize;
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

const std::string kAcl = R"("ACL":[{"NUMUSERS":0},{"NUMGROUPS":0},{"USERS":{}},{"GROUPS":{}}])";

// A chain of elements below the root, one in the other; names first, or after the children.
std::string chain(const std::vector<std::string>& names, bool names_first = true) {
    std::string text = "[{\"NUMCHILDREN\":1},{\"DIR\":\"/\"," + kAcl + ",\"CHILDREN\":[";
    for (const std::string& name : names) {
        text += "{\"NUMCHILDREN\":1},\n{";
        if (names_first) text += "\"DIR\":\"" + name + "\",";
        text += kAcl + ",\"CHILDREN\":[";
    }
    text += "{\"NUMCHILDREN\":0}";
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        text += names_first ? "]}" : "],\n\"DIR\":\"" + *name + "\"}";
    return text + "]}]";
}

TEST(LintDepth, APathOf4095BytesIsTheLongest) {
    // 15 times 273 bytes with the slash.
    std::vector<std::string> names(15, std::string(272, 'd'));
    EXPECT_EQ(lint_texts("{}", chain(names)).violations, 3u);  // the missing counts alone
    names.back() += 'x';
    const LintReport report = lint_texts("{}", chain(names));
    EXPECT_EQ(report.violations, 4u);
    const Finding& last = report.findings.back();
    EXPECT_EQ(last.line, 16u);
    EXPECT_EQ(last.message,
              "the path of this element is 4096 bytes long; one of more than 4095 can never be "
              "looked up");
    EXPECT_TRUE(report.counted);
}

TEST(LintDepth, NamesBehindTheChildrenCountLikeNamesBefore) {
    std::vector<std::string> names(15, std::string(272, 'd'));
    EXPECT_EQ(lint_texts("{}", chain(names, false)).violations, 3u);
    names.front() += 'x';
    const LintReport report = lint_texts("{}", chain(names, false));
    ASSERT_EQ(report.violations, 4u);
    const Finding* violation = nullptr;
    for (const Finding& finding : report.findings)
        if (finding.file == PairFile::kData && finding.severity == Severity::kViolation)
            violation = &finding;
    ASSERT_NE(violation, nullptr);
    EXPECT_EQ(violation->line, 31u);
    EXPECT_EQ(violation->column, 7u);
    EXPECT_EQ(violation->message,
              "the path of an element below this one is 4096 bytes long; one of more than 4095 can "
              "never be looked up");
}

TEST(LintDepth, WhatIsBelowATooLongPathIsNotReportedAgain) {
    const std::vector<std::string> names(30, std::string(250, 'd'));
    EXPECT_EQ(lint_texts("{}", chain(names)).violations, 4u);
}

TEST(LintDepth, TheDeepestUsableTreeIsCheckedWhole) {
    const std::vector<std::string> names(2047, "d");
    for (const bool names_first : {true, false}) {
        const LintReport report = lint_texts("{}", chain(names, names_first));
        EXPECT_EQ(report.violations, 3u);
        EXPECT_TRUE(report.counted);
        EXPECT_EQ(report.counts.elements, 2048u);
    }
}

TEST(LintDepth, DeeperNestingEndsTheCheck) {
    const LintReport report = lint_texts("{}", chain(std::vector<std::string>(2048, "d")));
    EXPECT_FALSE(report.counted);
    const Finding& last = report.findings.back();
    EXPECT_EQ(last.line, 2049u);
    EXPECT_EQ(last.message,
              "nested 2048 levels deep; a path of that many names cannot be looked up; the rest of "
              "the file was not checked");
}

TEST(LintDepth, SkippedValuesAreBoundedToo) {
    const std::string brackets = "[{\"NUMCHILDREN\":" + std::string(1'000'000, '[');
    const Lines lines = found(lint_texts("{}", brackets), PairFile::kData);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1],
              "1:10017: violation: nested too deeply; the rest of the file was not checked");
}

// The size file ---------------------------------------------------------------------------------

TEST(LintSize, TheDocumentIsOneObject) {
    EXPECT_EQ(in_size("[]"), Lines{"1:1: violation: the document must be an object, not an array"});
    EXPECT_EQ(in_size(""), Lines{"1:1: violation: the file is empty; the rest of the file was not "
                                 "checked"});
    EXPECT_EQ(in_size(size_with("\n}", ",\n}")),
              Lines{"9:1: violation: expected a key in quotes, found '}'; the rest of the file was "
                    "not checked"});
    EXPECT_EQ(
        in_size(std::string(kvtest::kExampleSize) + "{}"),
        Lines{"10:1: violation: found an object behind the end of the document; remove it; the "
              "rest of the file was not checked"});
    EXPECT_EQ(in_size("\xEF\xBB\xBF" + std::string(kvtest::kExampleSize)),
              Lines{"1:1: violation: begins with a byte order mark; save it as UTF-8 without one"});
}

TEST(LintSize, MissingValuesAreWarningsAndMissingCountsViolations) {
    EXPECT_EQ(in_size("{\n}"),
              (Lines{"2:1: warning: \"MAPNAME\" is missing; the map will hold none",
                     "2:1: warning: \"VERSION\" is missing; the map will hold none",
                     "2:1: warning: \"GENERATIONNUM\" is missing; the map will hold none",
                     "2:1: warning: \"TIMESTAMP\" is missing; the map will hold none",
                     "2:1: violation: \"TOTALFSELEMS\" is missing; write 5",
                     "2:1: violation: \"TOTALACES\" is missing; write 6",
                     "2:1: violation: \"TOTALNAMELEN\" is missing; write 33"}));
}

TEST(LintSize, WrongCountsAreToldWithTheRightOnes) {
    const LintReport report = lint_texts(
        R"({"MAPNAME":"m","VERSION":"1","GENERATIONNUM":1,"TIMESTAMP":1,
"TOTALFSELEMS":4,
"TOTALACES":7,
"TOTALNAMELEN":0})",
        kvtest::kExampleData);
    EXPECT_EQ(
        found(report, PairFile::kSize),
        (Lines{"2:16: violation: \"TOTALFSELEMS\" is 4, but the data file holds 5 elements; "
               "write 5",
               "3:13: violation: \"TOTALACES\" is 7, but the data file holds 6 user and group "
               "entries; write 6",
               "4:16: violation: \"TOTALNAMELEN\" is 0, but the data file holds 33 bytes of "
               "names (each name counts one more); write 33"}));
    EXPECT_TRUE(report.fixable);
    EXPECT_EQ(report.announced.elements, 4u);
    EXPECT_EQ(report.image_size, 0u);
}

TEST(LintSize, NoCountIsJudgedByAHalfReadDataFile) {
    const LintReport report = lint_texts(size_with("5,", "4,"), "[{\"NUMCHILDREN\":1},");
    EXPECT_EQ(found(report, PairFile::kSize), Lines{});
    EXPECT_FALSE(report.fixable);
}

TEST(LintSize, KeysAreKnownAndGivenOnce) {
    EXPECT_EQ(in_size(size_with("\"TOTALACES\": 6", "\"TOTALACES\": 6, \"TOTALACES\": 6")),
              Lines{"7:19: violation: \"TOTALACES\" is given twice; keep one"});
    EXPECT_EQ(in_size(size_with("\"MAPNAME\"", "\"FOO\": {\"a\": []},\n\"MAPNAME\"")),
              Lines{"2:3: violation: unknown key \"FOO\"; remove it"});
    EXPECT_EQ(in_size(size_with("\"MAPNAME\"", "\"mapname\"")),
              (Lines{"2:3: violation: unknown key \"mapname\"; remove it",
                     "9:1: warning: \"MAPNAME\" is missing; the map will hold none"}));
}

TEST(LintSize, TextsFitTheirFields) {
    const std::string n31(31, 'n');
    const std::string v36(36, 'v');
    EXPECT_EQ(in_size(size_with("perm_map_A", n31)), Lines{});
    EXPECT_EQ(in_size(size_with("perm_map_A", n31 + "n")),
              Lines{"2:14: violation: \"MAPNAME\" is 32 bytes long; at most 31 fit"});
    EXPECT_EQ(in_size(size_with("perm_map_A", std::string(30, 'n') + "Ä")),
              Lines{"2:14: violation: \"MAPNAME\" is 32 bytes long; at most 31 fit"});
    EXPECT_EQ(in_size(size_with("2.4.1", v36.substr(1))), Lines{});
    EXPECT_EQ(
        in_size(size_with("2.4.1", v36)),
        Lines{"3:14: warning: \"VERSION\" fills its 36 bytes, so the image holds it without an "
              "end"});
    EXPECT_EQ(in_size(size_with("2.4.1", v36 + "v")),
              Lines{"3:14: violation: \"VERSION\" is 37 bytes long; at most 36 fit"});
    EXPECT_EQ(in_size(size_with("2.4.1", "2\\u0000")),
              Lines{"3:14: violation: \"VERSION\" holds a NUL character, which would end it"});
    EXPECT_EQ(in_size(size_with("2.4.1", "2\xFF")),
              Lines{"3:16: violation: \"VERSION\" holds bytes that are not UTF-8; write it in "
                    "UTF-8"});
}

TEST(LintSize, NumbersArePlainAndFit) {
    EXPECT_EQ(in_size(size_with("1187", "4294967295")), Lines{});
    EXPECT_EQ(in_size(size_with("1187", "4294967296")),
              Lines{"4:20: violation: \"GENERATIONNUM\" is \"4294967296\", which does not fit; the "
                    "largest is 4294967295"});
    EXPECT_EQ(in_size(size_with("1700000000", "9223372036854775807")), Lines{});
    EXPECT_EQ(
        in_size(size_with("1700000000", "9223372036854775808")),
        Lines{"5:16: violation: \"TIMESTAMP\" is \"9223372036854775808\", which does not fit; "
              "the largest is 9223372036854775807"});
    EXPECT_EQ(
        in_size(size_with("1700000000", "1.7e9")),
        Lines{"5:16: violation: \"TIMESTAMP\" is \"1.7e9\"; write it in decimal digits alone, "
              "without sign, leading zero, fraction or exponent"});
    EXPECT_EQ(in_size(size_with("\"TOTALACES\": 6", "\"TOTALACES\": 4294967296")),
              Lines{"7:16: violation: \"TOTALACES\" is \"4294967296\", which does not fit; the "
                    "largest is 4294967295"});
}

TEST(LintSize, ValuesOfTheWrongKindAreViolations) {
    EXPECT_EQ(in_size(size_with("\"perm_map_A\"", "7")),
              Lines{"2:14: violation: \"MAPNAME\" must be a string, not a number"});
    EXPECT_EQ(in_size(size_with("\"2.4.1\"", "{}")),
              Lines{"3:14: violation: \"VERSION\" must be a string, not an object"});
    EXPECT_EQ(in_size(size_with("1187", "null")),
              Lines{"4:20: violation: \"GENERATIONNUM\" must be a number, not null"});
    EXPECT_EQ(in_size(size_with("1700000000", "true")),
              Lines{"5:16: violation: \"TIMESTAMP\" must be a number, not true"});
    EXPECT_EQ(in_size(size_with("\"TOTALACES\": 6", "\"TOTALACES\": \"6\"")),
              Lines{"7:16: violation: \"TOTALACES\" must be a number, not a string"});
}

TEST(LintSize, AnImageBeyondTheLimitIsAViolationOfTheDataFile) {
    kvadmin::LintOptions options;
    EXPECT_EQ(options.largest_image, 0x7FFFF000u);
    options.largest_image = 581;
    EXPECT_TRUE(lint_texts(kvtest::kExampleSize, kvtest::kExampleData, options).clean());
    options.largest_image = 580;
    const LintReport report = lint_texts(kvtest::kExampleSize, kvtest::kExampleData, options);
    EXPECT_EQ(found(report, PairFile::kData),
              Lines{" violation: makes an image of 581 bytes; at most 580 are possible: split the "
                    "map"});
    EXPECT_EQ(report.image_size, 0u);
    EXPECT_FALSE(report.fixable);
}

}  // namespace
