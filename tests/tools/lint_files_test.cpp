// What surrounds the two grammars: files that cannot be read, --fix, the two forms of a report, and
// the command itself.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "lint_fix.h"
#include "support.h"

namespace {

using kvadmin::Finding;
using kvadmin::lint_pair;
using kvadmin::lint_texts;
using kvadmin::LintReport;
using kvadmin::PairFile;
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

std::string size_with(std::string_view from, std::string_view to) {
    std::string text = kvtest::kExampleSize;
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

const std::string kAcl = R"("ACL":[{"NUMUSERS":0},{"NUMGROUPS":0},{"USERS":{}},{"GROUPS":{}}])";

// Reports ---------------------------------------------------------------------------------------

TEST(LintReports, KeepTheFirstOfEachSeverityAndCountAll) {
    std::string users;
    for (int id = 0; id < 500; ++id)
        users +=
            (id == 0 ? "\"" : ",\n\"") + std::to_string(id) + "\":" + (id % 2 == 0 ? "32" : "-1");
    const std::string data =
        "[{\"NUMCHILDREN\":1},{\"DIR\":\"/\",\"ACL\":[{\"NUMUSERS\":500},"
        "{\"NUMGROUPS\":0},{\"USERS\":{" +
        users + "}},{\"GROUPS\":{}}],\"CHILDREN\":[{\"NUMCHILDREN\":0}]}]";
    kvadmin::LintOptions options;
    options.kept_findings = 10;
    const LintReport report = lint_texts("{}", data, options);
    EXPECT_EQ(report.violations, 250u + 3u);
    EXPECT_EQ(report.warnings, 250u + 4u);
    EXPECT_EQ(found(report, PairFile::kData).size(), 20u);
    EXPECT_EQ(found(report, PairFile::kSize).size(), 7u);

    std::FILE* stream = std::tmpfile();
    print_report(stream, report, 14);
    std::string text(static_cast<std::size_t>(std::ftell(stream)), 0);
    std::rewind(stream);
    ASSERT_EQ(std::fread(text.data(), 1, text.size(), stream), text.size());
    std::fclose(stream);
    // Thirteen violations are kept; one place is left for a warning.
    EXPECT_NE(text.find("TOTALNAMELEN"), std::string::npos);
    EXPECT_NE(text.find("data file:20:"), std::string::npos);
    EXPECT_EQ(text.find("VERSION"), std::string::npos);
    EXPECT_TRUE(text.ends_with("and 493 more\n253 violations, 254 warnings\n")) << text;
}

TEST(LintReports, TheJsonFormHoldsEverything) {
    const LintReport report = lint_texts(
        R"({"MAPNAME":"m","VERSION":"1","GENERATIONNUM":1,"TIMESTAMP":1,"TOTALFSELEMS":9,
            "TOTALACES":6,"TOTALNAMELEN":33})",
        kvtest::kExampleData);
    const auto document = nlohmann::json::parse(report_as_json(report));
    EXPECT_EQ(document["clean"], false);
    EXPECT_EQ(document["violations"], 1);
    EXPECT_EQ(document["warnings"], 0);
    EXPECT_EQ(document["fixable"], true);
    EXPECT_EQ(document["counts"]["elements"], 5);
    EXPECT_EQ(document["counts"]["aces"], 6);
    EXPECT_EQ(document["counts"]["name_bytes"], 33);
    EXPECT_EQ(document["announced"]["elements"], 9);
    ASSERT_EQ(document["findings"].size(), 1u);
    const auto& finding = document["findings"][0];
    EXPECT_EQ(finding["severity"], "violation");
    EXPECT_EQ(finding["file"], "size file");
    EXPECT_EQ(finding["line"], 1);
    EXPECT_EQ(finding["column"], 77);
    EXPECT_EQ(finding["byte"], 76);
    EXPECT_EQ(finding["path"], "");
    EXPECT_EQ(finding["message"],
              "\"TOTALFSELEMS\" is 9, but the data file holds 5 elements; write 5");
}

TEST(LintReports, HostileNamesCannotBreakTheJsonOrTheTerminal) {
    const std::string data = "[{\"NUMCHILDREN\":1},{\"DIR\":\"/\"," + kAcl +
                             ",\"CHILDREN\":[{\"NUMCHILDREN\":1},{\"DIR\":\"\\u001b[31m\xFF\"," +
                             kAcl + "}]}]";
    const LintReport report = lint_texts("{}", data);
    EXPECT_TRUE(nlohmann::json::accept(report_as_json(report)));
    for (const std::string& line : found(report, PairFile::kData))
        EXPECT_EQ(line.find('\x1b'), std::string::npos) << line;
}

// Files -----------------------------------------------------------------------------------------

class LintFiles : public testing::Test {
protected:
    LintFiles() {
        kvtest::write_file(size_, kvtest::kExampleSize);
        kvtest::write_file(data_, kvtest::kExampleData);
    }

    const std::string folder_ = kvtest::make_temp_dir();
    const std::string size_ = folder_ + "/size.json";
    const std::string data_ = folder_ + "/data.json";
};

TEST_F(LintFiles, AGoodPairIsClean) {
    std::uint64_t seen = 0;
    kvadmin::LintOptions options;
    options.on_progress = [&](std::uint64_t bytes) { seen = bytes; };
    const LintReport report = lint_pair(size_, data_, options);
    EXPECT_TRUE(report.clean());
    EXPECT_EQ(report.image_size, 581u);
    EXPECT_EQ(seen, std::string_view(kvtest::kExampleData).size());
}

TEST_F(LintFiles, AMissingFileIsUnreadableAndTheOtherIsChecked) {
    unlink(size_.c_str());
    kvtest::write_file(data_, "[]");
    const LintReport report = lint_pair(size_, data_);
    EXPECT_EQ(report.unreadable, 1u);
    EXPECT_EQ(report.violations, 2u);
    EXPECT_FALSE(report.clean());
    EXPECT_EQ(found(report, PairFile::kSize),
              Lines{" unreadable: cannot be opened: No such file or directory"});
    const LintReport neither = lint_pair(size_, folder_ + "/none");
    EXPECT_EQ(neither.unreadable, 2u);
}

TEST_F(LintFiles, AFileThatMayNotBeReadIsUnreadable) {
    ASSERT_EQ(chmod(data_.c_str(), 0), 0);
    ASSERT_EQ(chmod(folder_.c_str(), 0755), 0);
    const kvtest::ChildResult child = kvtest::run_child([&] {
        kvtest::become_user(1001, 1001, {});
        return static_cast<int>(lint_pair(size_, data_).unreadable);
    });
    EXPECT_EQ(child.exit_code, 1);
}

TEST_F(LintFiles, WhatIsNoRegularFileIsAViolation) {
    const Lines expected = {" violation: is not a regular file; name the file itself"};
    EXPECT_EQ(found(lint_pair(folder_, data_), PairFile::kSize), expected);
    EXPECT_EQ(found(lint_pair(size_, "/dev/null"), PairFile::kData), expected);
    const std::string pipe = folder_ + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(found(lint_pair(size_, pipe), PairFile::kData), expected);
}

TEST_F(LintFiles, AnEmptyFileIsAViolation) {
    kvtest::write_file(data_, "");
    EXPECT_EQ(found(lint_pair(size_, data_), PairFile::kData),
              Lines{"1:1: violation: the file is empty; the rest of the file was not checked"});
}

TEST_F(LintFiles, AFixWritesTheCountsAndKeepsTheRest) {
    kvtest::write_file(size_, R"({"TOTALACES": -6, "MAPNAME": "Ä\"\\\u0007", "VERSION": "2.4.1",
        "GENERATIONNUM": 4294967295, "TIMESTAMP": 1700000000, "TOTALFSELEMS": 1,
        "TOTALFSELEMS": 2})");
    ASSERT_EQ(chmod(size_.c_str(), 0640), 0);
    ASSERT_EQ(chown(size_.c_str(), 1001, 1002), 0);
    const LintReport before = lint_pair(size_, data_);
    EXPECT_EQ(before.violations, 4u);
    ASSERT_TRUE(before.fixable);
    write_fixed_size_file(before);
    EXPECT_EQ(kvtest::read_file(size_), R"({
  "MAPNAME": "Ä\"\\\u0007",
  "VERSION": "2.4.1",
  "GENERATIONNUM": 4294967295,
  "TIMESTAMP": 1700000000,
  "TOTALFSELEMS": 5,
  "TOTALACES": 6,
  "TOTALNAMELEN": 33
}
)");
    EXPECT_TRUE(lint_pair(size_, data_).clean());
    struct stat status;
    ASSERT_EQ(stat(size_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, 1001u);
    EXPECT_EQ(status.st_gid, 1002u);
}

TEST_F(LintFiles, AFixReplacesWhatALinkLeadsTo) {
    const std::string link = folder_ + "/link";
    kvtest::write_file(size_, "{}");
    ASSERT_EQ(symlink("size.json", link.c_str()), 0);
    write_fixed_size_file(lint_pair(link, data_));
    struct stat status;
    ASSERT_EQ(lstat(link.c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_TRUE(lint_pair(size_, data_).clean());
}

TEST_F(LintFiles, OnlyCountsAreFixable) {
    const auto fixable = [&](const std::string& size) {
        kvtest::write_file(size_, size);
        return lint_pair(size_, data_).fixable;
    };
    EXPECT_TRUE(fixable("{}"));
    EXPECT_TRUE(fixable("{\"TOTALACES\":\"6\"}"));
    EXPECT_FALSE(fixable("{\"FOO\":1}"));
    EXPECT_FALSE(fixable("{\"MAPNAME\":1}"));
    EXPECT_FALSE(fixable("{\"GENERATIONNUM\":1,\"GENERATIONNUM\":1}"));
    EXPECT_FALSE(fixable("{"));
    EXPECT_FALSE(fixable("{} {}"));
    EXPECT_FALSE(fixable("\xEF\xBB\xBF{}"));
    EXPECT_FALSE(fixable(kvtest::kExampleSize));  // nothing to fix
    kvtest::write_file(data_, "[{\"NUMCHILDREN\":1}]");
    EXPECT_FALSE(fixable("{}"));
    const LintReport report = lint_pair(size_, data_);
    EXPECT_THROW(write_fixed_size_file(report), kvadmin::CommandError);
    EXPECT_EQ(kvtest::read_file(size_), "{}");
}

// The command -----------------------------------------------------------------------------------

class LintCommand : public LintFiles {
protected:
    kvtest::ChildResult lint(const std::vector<std::string>& options = {}) {
        std::vector<const char*> arguments = {"kavrinctl", "map", "lint", size_.c_str(),
                                              data_.c_str()};
        for (const std::string& option : options) arguments.push_back(option.c_str());
        return kvtest::run_child(
            [&] { return kvadmin::run(static_cast<int>(arguments.size()), arguments.data()); });
    }
};

TEST_F(LintCommand, ItsExitCodeIsTheVerdict) {
    const kvtest::ChildResult clean = lint();
    EXPECT_EQ(clean.exit_code, 0);
    EXPECT_EQ(clean.out,
              "clean, 0 warnings: 5 elements, 6 ACL entries, 33 bytes of names; an image "
              "of 581 bytes\n");
    EXPECT_EQ(clean.err, "");

    kvtest::write_file(size_, size_with("5,", "4,"));
    const kvtest::ChildResult dirty = lint();
    EXPECT_EQ(dirty.exit_code, 3);
    EXPECT_EQ(dirty.out, size_ +
                             ":6:19: violation: \"TOTALFSELEMS\" is 4, but the data file holds 5 "
                             "elements; write 5\n1 violation, 0 warnings\n");

    unlink(data_.c_str());
    const kvtest::ChildResult missing = lint();
    EXPECT_EQ(missing.exit_code, 1);
    EXPECT_EQ(missing.out, data_ +
                               ": unreadable: cannot be opened: No such file or directory\n"
                               "not checked: 1 unreadable file\n");
}

TEST_F(LintCommand, WarningsAloneAreClean) {
    kvtest::write_file(size_, size_with("2.4.1", std::string(36, 'v')));
    const kvtest::ChildResult result = lint();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.out.find("clean, 1 warning:"), std::string::npos) << result.out;
}

TEST_F(LintCommand, FixMakesThePairClean) {
    kvtest::write_file(size_, size_with("5,", "4,"));
    const kvtest::ChildResult result = lint({"--fix"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "kavrinctl: '" + size_ +
                              "' now announces 5 elements, 6 ACL entries and 33 bytes of names\n");
    EXPECT_TRUE(lint_pair(size_, data_).clean());
}

TEST_F(LintCommand, FixLeavesAFileAloneThatNeedsMore) {
    const std::string before = size_with("5,", "4, \"FOO\": 1,");
    kvtest::write_file(size_, before);
    const kvtest::ChildResult result = lint({"--fix"});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_NE(result.err.find("--fix only corrects counts"), std::string::npos) << result.err;
    EXPECT_EQ(kvtest::read_file(size_), before);
}

TEST_F(LintCommand, JsonIsOneDocument) {
    kvtest::write_file(data_, "[]");
    const kvtest::ChildResult result = lint({"--json"});
    EXPECT_EQ(result.exit_code, 3);
    const auto document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["clean"], false);
    EXPECT_EQ(document["findings"].size(), 5u);
}

}  // namespace
