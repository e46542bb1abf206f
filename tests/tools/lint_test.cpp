// Every kind of violation and warning that lint knows, to the letter, the line and the column. Each
// case lists all findings, so that a fault which drags others along shows, too.
#include "lint.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "support.h"

namespace {

using namespace std::string_literals;
using kvadmin::Finding;
using kvadmin::lint_texts;
using kvadmin::LintReport;
using kvadmin::PairFile;
using Lines = std::vector<std::string>;

// What lint finds in one of the two files, without the file's name.
Lines found(const LintReport& report, PairFile file) {
    Lines lines;
    for (const Finding& finding : report.findings) {
        if (finding.file != file) continue;
        const std::string line = describe(report, finding);
        lines.push_back(line.substr(line.find(':') + 1));
    }
    return lines;
}

Lines in_data(std::string_view text) {
    return found(lint_texts("{}", text), PairFile::kData);
}

const std::string kName = R"("DIR":"Docs")";
const std::string kAcl = R"("ACL":[{"NUMUSERS":0},{"NUMGROUPS":0},{"USERS":{}},{"GROUPS":{}}])";
const std::string kNone = R"("CHILDREN":[{"NUMCHILDREN":0}])";

// A root whose children's text begins at line 2, column 1.
std::string root_with(int children, const std::string& text) {
    return R"([{"NUMCHILDREN":1},{"DIR":"/",)" + kAcl + R"(,"CHILDREN":[{"NUMCHILDREN":)" +
           std::to_string(children) + "},\n" + text + "\n]}]\n";
}
// A root with one child: its '{' is on line 2, and the members on lines 3 to 5, from column 1.
std::string child(const std::string& name, const std::string& acl = kAcl,
                  const std::string& children = kNone) {
    return root_with(1, "{\n" + name + ",\n" + acl + ",\n" + children + "\n}");
}
std::string acl(const std::string& text) {
    return child(kName, "\"ACL\":[" + text + "]");
}
std::string users(const std::string& text) {
    return acl("{\"NUMUSERS\":1},{\"NUMGROUPS\":0},\n{\"USERS\":{" + text + "}},{\"GROUPS\":{}}");
}
std::string children(const std::string& text) {
    return child(kName, kAcl, "\"CHILDREN\":[" + text + "]");
}

TEST(Lint, TheExampleIsClean) {
    const LintReport report = lint_texts(kvtest::kExampleSize, kvtest::kExampleData);
    EXPECT_TRUE(report.clean());
    EXPECT_TRUE(report.counted && report.size_read);
    EXPECT_FALSE(report.fixable);
    EXPECT_EQ(report.findings.size(), 0u);
    EXPECT_EQ(report.warnings, 0u);
    EXPECT_EQ(report.counts.elements, 5u);
    EXPECT_EQ(report.counts.aces, 6u);
    EXPECT_EQ(report.counts.name_bytes, 33u);
    EXPECT_EQ(report.announced.elements, 5u);
    EXPECT_EQ(report.announced.aces, 6u);
    EXPECT_EQ(report.announced.name_bytes, 33u);
    EXPECT_EQ(report.image_size, 581u);
    EXPECT_EQ(report.identity.map_name, "perm_map_A");
    EXPECT_EQ(report.identity.version, "2.4.1");
    EXPECT_EQ(report.identity.generation, 1187u);
    EXPECT_EQ(report.identity.timestamp, 1'700'000'000);
}

TEST(Lint, KeysOfAnElementComeInAnyOrderAndWithComments) {
    EXPECT_EQ(in_data(root_with(1, "{" + kNone + "/*c*/," + kAcl + ",//d\n" + kName + "}")),
              Lines{});
    EXPECT_EQ(in_data(child(R"("\u0044IR":"D\u006fcs")")), Lines{});
}

TEST(Lint, NamesCountAsTheyDecode) {
    const LintReport report = lint_texts("{}", child(R"("DIR":"\u00c4\ud83d\ude00\n")"));
    EXPECT_EQ(report.counts.name_bytes, 2u + 8u);
    EXPECT_EQ(report.counts.elements, 2u);
}

// What is no JSON ends the check of that file --------------------------------------------------

TEST(LintSyntax, TheCheckEndsAtTheFirstError) {
    constexpr std::string_view kRest = "; the rest of the file was not checked";
    struct Case {
        std::string text, finding;
    };
    const Case cases[] = {
        {"", "1:1: violation: the file is empty"},
        {" \n//x", "2:4: violation: the file is empty"},
        {"[\n{\"NUMCHILDREN\":1}",
         "2:18: violation: expected ',' or ']' after an item, found the "
         "end of the file"},
        {"[{\"NUMCHILDREN\"",
         "1:16: violation: expected ':' after a key, found the end of the "
         "file"},
        {"[{\"NUMCHILDREN\":", "1:17: violation: expected a value, found the end of the file"},
        {"[{\"NUMCHILDREN\":1",
         "1:18: violation: expected ',' or '}' after a member, found the "
         "end of the file"},
        {"[{", "1:3: violation: expected a key in quotes, found the end of the file"},
        {"[{\"NUMCHILDREN\":1,}]", "1:19: violation: expected a key in quotes, found '}'"},
        {"[{NUMCHILDREN:1}]", "1:3: violation: 'NUMCHILDREN' is no JSON value"},
        {"[{1:1}]", "1:3: violation: expected a key in quotes, found a number"},
        {"[{\"NUMCHILDREN\",1}]", "1:16: violation: expected ':' after a key, found ','"},
        {"[{\"NUMCHILDREN\":]", "1:17: violation: expected a value, found ']'"},
        {"[{\"NUMCHILDREN\":1},]", "1:20: violation: expected a value, found ']'"},
        {"[{\"NUMCHILDREN\":1}{}]",
         "1:19: violation: expected ',' or ']' after an item, found an "
         "object"},
        {"[{\"NUMCHILDREN\":1 \"X\":2}]",
         "1:19: violation: expected ',' or '}' after a member, "
         "found a string"},
        {"[{\"NUMCHILDREN\":1}}", "1:19: violation: expected ',' or ']' after an item, found '}'"},
        {":", "1:1: violation: expected a value, found ':'"},
        {"[{\"NUM", "1:7: violation: the file ends inside a string"},
        {"[{\"NUMCHILDREN\":1}, /*",
         "1:21: violation: the file ends inside a comment; close it "
         "with */"},
    };
    for (const Case& one : cases) {
        const LintReport report = lint_texts("{}", one.text);
        EXPECT_EQ(found(report, PairFile::kData), Lines{one.finding + std::string(kRest)});
        EXPECT_FALSE(report.counted) << one.text;
        EXPECT_FALSE(report.fixable) << one.text;
    }
}

TEST(LintSyntax, WhatFollowsTheDocumentIsAViolation) {
    EXPECT_EQ(in_data(child(kName) + "[]"),
              Lines{"8:1: violation: found an array behind the end of the document; remove it; the "
                    "rest of the file was not checked"});
}

TEST(LintSyntax, ATruncatedExampleIsNeverClean) {
    const std::string data = kvtest::kExampleData;
    const std::size_t end = data.find_last_of(']');
    for (std::size_t size = 0; size <= end; ++size) {
        const LintReport report = lint_texts(kvtest::kExampleSize, data.substr(0, size));
        ASSERT_FALSE(report.clean()) << size;
        ASSERT_FALSE(report.counted) << size;
    }
}

TEST(LintSyntax, AByteOrderMarkIsAViolationAndTheCheckGoesOn) {
    const LintReport report =
        lint_texts(kvtest::kExampleSize, "\xEF\xBB\xBF" + std::string(kvtest::kExampleData));
    EXPECT_EQ(found(report, PairFile::kData),
              Lines{"1:1: violation: begins with a byte order mark; save it as UTF-8 without one"});
    EXPECT_TRUE(report.counted);
}

TEST(LintSyntax, FlawedStringsAreViolationsAndTheCheckGoesOn) {
    EXPECT_EQ(in_data(child("\"DIR\":\"a\xFF\"")),
              Lines{"3:9: violation: /a\\xff: \"DIR\" holds bytes that are not UTF-8; write it in "
                    "UTF-8"});
    EXPECT_EQ(
        in_data(child("\"DIR\":\"a\tb\"")),
        Lines{"3:9: violation: /a\\x09b: \"DIR\" holds a control character as it is; write it "
              "as an escape, or remove it"});
    EXPECT_EQ(
        in_data(child(R"("DIR":"a\qb")")),
        Lines{"3:9: violation: /ab: \"DIR\" holds an unknown escape; JSON knows \\\" \\\\ \\/ "
              "\\b \\f \\n \\r \\t and \\u with four hex digits"});
    EXPECT_EQ(in_data(child(R"("DIR":"a\ud800")")),
              Lines{"3:9: violation: /a?: \"DIR\" holds half of a surrogate pair; write both "
                    "halves"});
    EXPECT_EQ(in_data(child("\"DIR\xFF\":\"a\",\"DIR\":\"b\"")),
              (Lines{"3:1: violation: /(unnamed): unknown key \"DIR\\xff\"; an element holds "
                     "\"DIR\", \"ACL\" and \"CHILDREN\"",
                     "3:5: violation: /: the key holds bytes that are not UTF-8; write it "
                     "in UTF-8"}));
    EXPECT_EQ(in_data(child(kName + ",\"X\":[{\"a\":\"\xFF\"}]")).back(),
              "3:25: violation: /Docs: the string holds bytes that are not UTF-8; write it in "
              "UTF-8");
}

// The top level -------------------------------------------------------------------------------

TEST(LintTopLevel, IsAnArrayOfTheCountAndTheRoot) {
    const std::string root = R"({"DIR":"/",)" + kAcl + "," + kNone + "}";
    EXPECT_EQ(in_data("{}"), Lines{"1:1: violation: the document must be an array, not an object"});
    EXPECT_EQ(in_data("1"), Lines{"1:1: violation: the document must be an array, not a number"});
    EXPECT_EQ(in_data("[]"),
              (Lines{"1:1: violation: the array must begin with {\"NUMCHILDREN\": n}",
                     "1:1: violation: the root element is missing; add it behind the first "
                     "object"}));
    EXPECT_EQ(in_data("[{\"NUMCHILDREN\":1}]"),
              Lines{"1:1: violation: the root element is missing; add it behind the first object"});
    EXPECT_EQ(in_data("[" + root + "]"),
              Lines{"1:2: violation: the array must begin with {\"NUMCHILDREN\": n}; put it before "
                    "this element"});
    EXPECT_EQ(in_data("[{\"NUMCHILDREN\":0},\n" + root + "]"),
              Lines{"1:17: violation: the top-level \"NUMCHILDREN\" is 0; it must be 1, for the "
                    "root"});
    EXPECT_EQ(in_data("[{\"NUMCHILDREN\":2},\n" + root + ",\n" + root + "]"),
              (Lines{"1:17: violation: the top-level \"NUMCHILDREN\" is 2; it must be 1, for the "
                     "root",
                     "3:1: violation: a second root; the top level holds {\"NUMCHILDREN\": 1} and "
                     "one element"}));
    EXPECT_EQ(in_data("[{\"NUMCHILDREN\":1},\n" + root + ",\nnull]"),
              Lines{"3:1: violation: a child must be an object, not null"});
}

TEST(LintTopLevel, TheRootIsNamedSlash) {
    EXPECT_EQ(in_data("[{\"NUMCHILDREN\":1},\n{\"DIR\":\"root\"," + kAcl + "," + kNone + "}]"),
              Lines{"2:8: violation: /: the root is named \"root\"; it must be \"/\""});
    EXPECT_EQ(in_data("[{\"NUMCHILDREN\":1},\n{\"DIR\":\"\"," + kAcl + "," + kNone + "}]"),
              Lines{"2:8: violation: /: the root is named \"\"; it must be \"/\""});
    EXPECT_EQ(in_data("[{\"NUMCHILDREN\":1},\n{\"DIR\":\"\\/\"," + kAcl + "," + kNone + "}]"),
              Lines{});
}

// Elements ------------------------------------------------------------------------------------

TEST(LintElement, MissingKeysAreNamedEachWithWhatToAdd) {
    EXPECT_EQ(in_data(root_with(1, "{}")),
              (Lines{"2:1: violation: /(unnamed): the element has no \"DIR\"; add its name",
                     "2:1: violation: /(unnamed): the element has no \"ACL\"; add [{\"NUMUSERS\": "
                     "0}, {\"NUMGROUPS\": 0}, {\"USERS\": {}}, {\"GROUPS\": {}}]",
                     "2:1: violation: /(unnamed): the element has no \"CHILDREN\"; add "
                     "[{\"NUMCHILDREN\": 0}] for a file or an empty folder"}));
    EXPECT_EQ(in_data(root_with(1, "{" + kName + "," + kAcl + "}")),
              Lines{"2:1: violation: /Docs: the element has no \"CHILDREN\"; add "
                    "[{\"NUMCHILDREN\": 0}] for a file or an empty folder"});
}

TEST(LintElement, RepeatedAndUnknownKeysAreViolations) {
    EXPECT_EQ(in_data(child(kName + ",\"DIR\":\"Again\"")),
              Lines{"3:14: violation: /Docs: \"DIR\" is given twice; keep one"});
    EXPECT_EQ(in_data(child(kName, kAcl + ",\n" + kAcl)),
              Lines{"5:1: violation: /Docs: \"ACL\" is given twice; keep one"});
    EXPECT_EQ(in_data(child(kName, kAcl, kNone + "," + kNone)),
              Lines{"5:32: violation: /Docs: \"CHILDREN\" is given twice; keep one"});
    EXPECT_EQ(
        in_data(child(kName + ",\"dir\":[{\"a\":[1,null]},{}]")),
        Lines{"3:14: violation: /Docs: unknown key \"dir\"; an element holds \"DIR\", \"ACL\" "
              "and \"CHILDREN\""});
    EXPECT_EQ(
        in_data(child(kName + ",\"NUMCHILDREN\":0")),
        Lines{"3:14: violation: /Docs: unknown key \"NUMCHILDREN\"; an element holds \"DIR\", "
              "\"ACL\" and \"CHILDREN\""});
}

TEST(LintElement, ValuesOfTheWrongKindAreViolations) {
    EXPECT_EQ(in_data(child("\"DIR\":7")),
              Lines{"3:7: violation: /(unnamed): \"DIR\" must be a string, not a number"});
    EXPECT_EQ(in_data(child("\"DIR\":null")),
              Lines{"3:7: violation: /(unnamed): \"DIR\" must be a string, not null"});
    EXPECT_EQ(in_data(child("\"DIR\":[\"Docs\"]")),
              Lines{"3:7: violation: /(unnamed): \"DIR\" must be a string, not an array"});
    EXPECT_EQ(in_data(child(kName, "\"ACL\":{}")),
              Lines{"4:7: violation: /Docs: \"ACL\" must be an array, not an object"});
    EXPECT_EQ(in_data(child(kName, "\"ACL\":true")),
              Lines{"4:7: violation: /Docs: \"ACL\" must be an array, not true"});
    EXPECT_EQ(in_data(child(kName, kAcl, "\"CHILDREN\":\"none\"")),
              Lines{"5:12: violation: /Docs: \"CHILDREN\" must be an array, not a string"});
    EXPECT_EQ(in_data(child(kName, kAcl, "\"CHILDREN\":false")),
              Lines{"5:12: violation: /Docs: \"CHILDREN\" must be an array, not false"});
}

TEST(LintElement, NamesThatNoImageCanHoldAreViolations) {
    EXPECT_EQ(in_data(child("\"DIR\":\"\"")),
              Lines{"3:7: violation: /: \"DIR\" is empty; every element has a name"});
    EXPECT_EQ(
        in_data(child(R"("DIR":"a\u0000b")")),
        Lines{"3:7: violation: /a\\x00b: \"DIR\" holds a NUL character, which no file name can "
              "hold"});
    const LintReport report =
        lint_texts("{}", child("\"DIR\":\"" + std::string(65'536, 'n') + '"'));
    ASSERT_EQ(report.findings.size() - found(report, PairFile::kSize).size(), 2u);
    EXPECT_EQ(report.findings[report.findings.size() - 2].message,
              "\"DIR\" is 65536 bytes long; the image keeps at most 65535");
    EXPECT_EQ(report.counts.name_bytes, 2u + 65'537u);
}

TEST(LintElement, NamesThatNeverMatchAreWarnings) {
    EXPECT_EQ(in_data(child("\"DIR\":\"a/b\"")),
              Lines{"3:7: warning: /a/b: \"DIR\" holds a '/', so no path ever leads to this "
                    "element"});
    EXPECT_EQ(in_data(child("\"DIR\":\".\"")),
              Lines{"3:7: warning: /.: \"DIR\" is \".\", which never is the name of a file"});
    EXPECT_EQ(in_data(child("\"DIR\":\"..\"")),
              Lines{"3:7: warning: /..: \"DIR\" is \"..\", which never is the name of a file"});
    EXPECT_EQ(in_data(child("\"DIR\":\"" + std::string(255, 'n') + '"')), Lines{});
    EXPECT_EQ(in_data(child("\"DIR\":\"" + std::string(256, 'n') + '"')),
              Lines{"3:7: warning: ..." + std::string(256, 'n') +
                    ": \"DIR\" is 256 bytes long; no file system holds a name of more than 255"});
}

// Arrays of children --------------------------------------------------------------------------

TEST(LintChildren, TheCountBeginsTheArrayAndMatches) {
    const std::string file = "{\"DIR\":\"f\"," + kAcl + "," + kNone + "}";
    EXPECT_EQ(in_data(children("")),
              Lines{"5:12: violation: /Docs: the array must begin with {\"NUMCHILDREN\": n}"});
    EXPECT_EQ(in_data(children("{}")),
              Lines{"5:13: violation: /Docs: the array must begin with {\"NUMCHILDREN\": n}"});
    EXPECT_EQ(in_data(children("\n" + file)),
              Lines{"6:1: violation: /Docs: the array must begin with {\"NUMCHILDREN\": n}; put it "
                    "before this element"});
    EXPECT_EQ(
        in_data(children("{\"COUNT\":1}")),
        (Lines{"5:13: violation: /Docs: the array must begin with {\"NUMCHILDREN\": n}",
               "5:14: violation: /Docs: unknown key \"COUNT\"; only \"NUMCHILDREN\" belongs in "
               "the first object of an array of children"}));
    EXPECT_EQ(
        in_data(children("{\"NUMCHILDREN\":1}")),
        Lines{"5:28: violation: /Docs: \"NUMCHILDREN\" is 1, but 0 elements follow; write 0"});
    EXPECT_EQ(
        in_data(children("{\"NUMCHILDREN\":0},\n" + file)),
        Lines{"5:28: violation: /Docs: \"NUMCHILDREN\" is 0, but 1 element follows; write 1"});
    EXPECT_EQ(
        in_data(children("{\"NUMCHILDREN\":3},\n" + file + ",\n" + file)),
        Lines{"5:28: violation: /Docs: \"NUMCHILDREN\" is 3, but 2 elements follow; write 2"});
    EXPECT_EQ(in_data(children("{\"NUMCHILDREN\":1},\n" + file + ",\n{\"NUMCHILDREN\":1}")),
              Lines{"7:1: violation: /Docs: another {\"NUMCHILDREN\": n}; only the first object of "
                    "the array counts its children: remove it"});
    EXPECT_EQ(in_data(children("{\"NUMCHILDREN\":0,\"NUMCHILDREN\":0}")),
              Lines{"5:30: violation: /Docs: \"NUMCHILDREN\" is given twice; keep one"});
    EXPECT_EQ(
        in_data(children("{\"NUMCHILDREN\":0,\"X\":{}}")),
        Lines{"5:30: violation: /Docs: unknown key \"X\"; only \"NUMCHILDREN\" belongs in the "
              "first object of an array of children"});
    EXPECT_EQ(in_data(children("0")),
              Lines{"5:13: violation: /Docs: the first item of an array of children must be an "
                    "object, not a number"});
    EXPECT_EQ(in_data(children("{\"NUMCHILDREN\":0},[1,[2]]")),
              Lines{"5:31: violation: /Docs: a child must be an object, not an array"});
}

TEST(LintChildren, TheCountIsAPlainNumberThatFits) {
    const auto count = [](const std::string& text) {
        return in_data(children("{\"NUMCHILDREN\":" + text + "}"));
    };
    constexpr std::string_view kPlain =
        "; write it in decimal digits alone, without sign, leading zero, fraction or exponent";
    for (const char* text : {"-1", "0.0", "0e0", "00"})
        EXPECT_EQ(count(text), Lines{"5:28: violation: /Docs: \"NUMCHILDREN\" is \""s + text +
                                     "\"" + std::string(kPlain)});
    EXPECT_EQ(
        count("4294967296"),
        Lines{"5:28: violation: /Docs: \"NUMCHILDREN\" is \"4294967296\", which does not fit; "
              "the largest is 4294967295"});
    EXPECT_EQ(count("\"0\""),
              Lines{"5:28: violation: /Docs: \"NUMCHILDREN\" must be a number, not a string"});
    EXPECT_EQ(count("null"),
              Lines{"5:28: violation: /Docs: \"NUMCHILDREN\" must be a number, not null"});
    EXPECT_EQ(count("[0]"),
              Lines{"5:28: violation: /Docs: \"NUMCHILDREN\" must be a number, not an array"});
}

// ACLs ----------------------------------------------------------------------------------------

TEST(LintAcl, HoldsItsFourObjectsInOrder) {
    EXPECT_EQ(in_data(acl("")),
              (Lines{"4:7: violation: /Docs: the \"ACL\" has no {\"NUMUSERS\": ...}; add it",
                     "4:7: violation: /Docs: the \"ACL\" has no {\"NUMGROUPS\": ...}; add it",
                     "4:7: violation: /Docs: the \"ACL\" has no {\"USERS\": ...}; add it",
                     "4:7: violation: /Docs: the \"ACL\" has no {\"GROUPS\": ...}; add it"}));
    EXPECT_EQ(in_data(acl(R"({"NUMUSERS":0},{"NUMGROUPS":0},{"USERS":{}})")),
              Lines{"4:7: violation: /Docs: the \"ACL\" has no {\"GROUPS\": ...}; add it"});
    EXPECT_EQ(
        in_data(acl("{\"NUMUSERS\":0},{\"NUMGROUPS\":0},\n{\"GROUPS\":{}},{\"USERS\":{}}")),
        (Lines{"5:2: violation: /Docs: \"GROUPS\" is out of order, \"USERS\" belongs here; the "
               "order is NUMUSERS, NUMGROUPS, USERS, GROUPS",
               "5:16: violation: /Docs: \"USERS\" is out of order, \"GROUPS\" belongs here; "
               "the order is NUMUSERS, NUMGROUPS, USERS, GROUPS"}));
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":0},{\"NUMGROUPS\":0},{\"USERS\":{}},{\"GROUPS\":{}},\n"
                          "{\"GROUPS\":{}}")),
              (Lines{"5:1: violation: /Docs: a fifth item in \"ACL\", which holds four objects; "
                     "remove it",
                     "5:2: violation: /Docs: \"GROUPS\" is given twice; keep one"}));
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":0},\n{\"NUMUSERS\":0},{\"USERS\":{}},{\"GROUPS\":{}}")),
              (Lines{"4:7: violation: /Docs: the \"ACL\" has no {\"NUMGROUPS\": ...}; add it",
                     "5:2: violation: /Docs: \"NUMUSERS\" is given twice; keep one"}));
    EXPECT_EQ(
        in_data(acl("{\"NUMUSERS\":0,\n\"NUMGROUPS\":0},{\"USERS\":{}},{\"GROUPS\":{}}")),
        (Lines{"5:1: violation: /Docs: a second key in an object of \"ACL\"; each holds one",
               "5:17: violation: /Docs: \"USERS\" is out of order, \"NUMGROUPS\" belongs here; "
               "the order is NUMUSERS, NUMGROUPS, USERS, GROUPS",
               "5:30: violation: /Docs: \"GROUPS\" is out of order, \"USERS\" belongs here; "
               "the order is NUMUSERS, NUMGROUPS, USERS, GROUPS"}));
    EXPECT_EQ(
        in_data(acl("{\"NUMUSERS\":0},{\"NUMGROUPS\":0},{\"USERS\":{}},{\"GROUPS\":{}},\n{}")),
        (Lines{"5:1: violation: /Docs: a fifth item in \"ACL\", which holds four objects; "
               "remove it",
               "5:1: violation: /Docs: an empty object in \"ACL\"; each holds one key"}));
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":0},{\"NUMGROUPS\":0},{\"USERS\":{}},\n{\"EVERYONE\":[]}")),
              (Lines{"4:7: violation: /Docs: the \"ACL\" has no {\"GROUPS\": ...}; add it",
                     "5:2: violation: /Docs: unknown key \"EVERYONE\" in \"ACL\""}));
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":0},{\"NUMGROUPS\":0},{\"USERS\":{}},\nnull")),
              (Lines{"4:7: violation: /Docs: the \"ACL\" has no {\"GROUPS\": ...}; add it",
                     "5:1: violation: /Docs: an item of \"ACL\" must be an object, not null"}));
}

TEST(LintAcl, ValuesOfTheWrongKindAreViolations) {
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":\"0\"},\n{\"NUMGROUPS\":null},\n{\"USERS\":[]},\n"
                          "{\"GROUPS\":0}")),
              (Lines{"4:20: violation: /Docs: \"NUMUSERS\" must be a number, not a string",
                     "5:14: violation: /Docs: \"NUMGROUPS\" must be a number, not null",
                     "6:10: violation: /Docs: \"USERS\" must be an object, not an array",
                     "7:11: violation: /Docs: \"GROUPS\" must be an object, not a number"}));
}

TEST(LintAcl, IdsAreDecimalAndFit32Bits) {
    EXPECT_EQ(in_data(users("\"4294967295\":7")), Lines{});
    EXPECT_EQ(in_data(users("\"4294967296\":7")),
              Lines{"5:11: violation: /Docs: the uid \"4294967296\" does not fit; the largest is "
                    "4294967295"});
    EXPECT_EQ(in_data(users("\"123456789012345678901\":7")),
              Lines{"5:11: violation: /Docs: the uid \"123456789012345678901\" does not fit; the "
                    "largest is 4294967295"});
    for (const char* text : {"abc", "", "-1", "+1", " 1", "1 ", "0x10", "1.0", "USERS"})
        EXPECT_EQ(in_data(users("\""s + text + "\":7")),
                  Lines{"5:11: violation: /Docs: the key \""s + text +
                        "\" is no uid; write it in decimal digits"});
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":0},{\"NUMGROUPS\":1},{\"USERS\":{}},\n"
                          "{\"GROUPS\":{\"staff\":1}}")),
              Lines{"5:12: violation: /Docs: the key \"staff\" is no gid; write it in decimal "
                    "digits"});
}

TEST(LintAcl, AnIdIsGivenOnceWhateverItsDigits) {
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":2},{\"NUMGROUPS\":0},\n{\"USERS\":{\"7\":1,\n\"7\":3}},"
                          "{\"GROUPS\":{}}")),
              Lines{"6:1: violation: /Docs: the uid 7 is given twice in this object; keep one "
                    "entry"});
    EXPECT_EQ(
        in_data(acl("{\"NUMUSERS\":2},{\"NUMGROUPS\":0},\n{\"USERS\":{\"7\":1,\n\"007\":3}},"
                    "{\"GROUPS\":{}}")),
        (Lines{"6:1: violation: /Docs: the uid 7 is given twice in this object; keep one entry",
               "6:1: warning: /Docs: the uid \"007\" has leading zeros; leave them out"}));
    // The same number as a uid and as a gid, and again in the next element, is two trustees.
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":1},{\"NUMGROUPS\":1},{\"USERS\":{\"7\":1}},"
                          "{\"GROUPS\":{\"7\":1}}")),
              Lines{});
}

TEST(LintAcl, ManyIdsAreToldApart) {
    std::string text;
    for (int id = 0; id < 5000; ++id) text += "\"" + std::to_string(id * 65'536 + id) + "\":1,\n";
    const LintReport report = lint_texts("{}", users(text + "\"65537\":1"));
    EXPECT_EQ(report.counts.aces, 5001u);
    const Lines lines = found(report, PairFile::kData);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1],
              "5005:1: violation: /Docs: the uid 65537 is given twice in this object; keep "
              "one entry");
}

TEST(LintAcl, MasksArePlainAndFit16Bits) {
    EXPECT_EQ(in_data(users("\"7\":31")), Lines{});
    EXPECT_EQ(
        in_data(users("\"7\":65536")),
        Lines{"5:15: violation: /Docs: the mask is \"65536\", which does not fit; the largest "
              "is 65535"});
    EXPECT_EQ(in_data(users("\"7\":-1")),
              Lines{"5:15: violation: /Docs: the mask is \"-1\"; write it in decimal digits alone, "
                    "without sign, leading zero, fraction or exponent"});
    EXPECT_EQ(in_data(users("\"7\":\"7\"")),
              Lines{"5:15: violation: /Docs: the mask must be a number, not a string"});
    EXPECT_EQ(in_data(users("\"7\":{}")),
              Lines{"5:15: violation: /Docs: the mask must be a number, not an object"});
    EXPECT_EQ(
        in_data(users("\"7\":39")),
        Lines{"5:15: warning: /Docs: the mask 39 holds bits that mean nothing; the known ones "
              "are 1 read, 2 write, 4 delete, 8 navigate, 16 view"});
}

TEST(LintAcl, CountsThatDifferFromTheEntriesAreWarnings) {
    EXPECT_EQ(in_data(acl("{\"NUMUSERS\":2},\n{\"NUMGROUPS\":0},{\"USERS\":{\"7\":1}},"
                          "{\"GROUPS\":{\"8\":1}}")),
              (Lines{"4:20: warning: /Docs: \"NUMUSERS\" is 2, but \"USERS\" holds 1; write 1",
                     "5:14: warning: /Docs: \"NUMGROUPS\" is 0, but \"GROUPS\" holds 1; write 1"}));
}

}  // namespace
