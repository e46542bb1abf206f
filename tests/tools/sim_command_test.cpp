// kavrinctl smb-sim as a command: exit codes, where it refuses to run, expectations, and the way a
// lost process is told. What operations answer is the scenarios' affair (tests/scenarios).
#include <gtest/gtest.h>

#include <cstdlib>

#include "tool_run.h"

namespace {

using kvtest::ChildResult;
using kvtest::make_temp_dir;
using kvtest::run_tool;
using kvtest::write_file;

constexpr const char* kStage = R"(powerusers 7002
user alice 2001 groups powerusers
acl Shared/Docs user alice r
file Shared/Docs/a.txt "north"
as alice
)";

class SmbSim : public testing::Test {
protected:
    std::string script(const std::string& text) {
        write_file(folder_ + "/script.sim", text);
        return folder_ + "/script.sim";
    }
    ChildResult run(const std::string& text) {
        return run_tool({"smb-sim", "--sandboxed", script(text)});
    }

    std::string folder_ = make_temp_dir();
};

}  // namespace

TEST_F(SmbSim, MetExpectationsSayNothing) {
    const ChildResult result = run(std::string(kStage) +
                                   "read Shared/Docs/a.txt\nexpect allowed\n"
                                   "unlink Shared/Docs/a.txt\nexpect refused EACCES\n"
                                   "expect refused\n");
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out,
              "alice connects\n  allowed\n  groups: 7002\n"
              "alice: read Shared/Docs/a.txt\n  allowed; disk: done\n  content: \"north\"\n"
              "alice: unlink Shared/Docs/a.txt\n  refused: EACCES by unlink_preprocess\n");
}

TEST_F(SmbSim, AnUnmetExpectationIsAFailureAndTheRestStillRuns) {
    const ChildResult result = run(std::string(kStage) +
                                   "stat Shared/Docs/a.txt\nexpect refused EPERM\n"
                                   "lstat Shared/Docs/a.txt\n");
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.out.find("  EXPECTED: refused EPERM, and it is: allowed (" + folder_ +
                              "/script.sim:7)\nalice: lstat "),
              std::string::npos)
        << result.out;
}

TEST_F(SmbSim, NothingOfAScriptWithAMistakeRuns) {
    const ChildResult result = run("folder Shared\nas alice\nmkdir\n");
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, folder_ +
                              "/script.sim:3:1: 'mkdir' needs more; it is written 'mkdir PATH'\n"
                              "kavrinctl: the script has 1 mistakes; nothing of it was run\n");
}

TEST_F(SmbSim, AProcessThatEndsIsToldAndTheNextOneServes) {
    const ChildResult result = run(std::string(kStage) +
                                   "statvfs Shared/Docs\nexpect ended\nstat Shared/Docs\n"
                                   "as alice\nstat Shared/Docs\nexpect allowed\n");
    EXPECT_EQ(result.exit_code, 0) << result.out;
    EXPECT_NE(result.out.find("  the process ended: Assertion `0' failed\n"
                              "alice: stat Shared/Docs\n  not done: this user's process is gone\n"
                              "alice connects\n"),
              std::string::npos)
        << result.out;
}

TEST_F(SmbSim, TimesArePrintedOnRequest) {
    const std::string text =
        "powerusers 7002\nuser alice 2001 groups powerusers\n"
        "acl Shared/Docs user alice rw\nfolder Shared/Docs\nas alice\n"
        "mkdir Shared/Docs/B\n";
    const std::string event = "  event: MKDIR folder Shared/Docs/B, by alice";
    const ChildResult timed = run_tool({"smb-sim", "--sandboxed", "--times", script(text)});
    EXPECT_NE(timed.out.find(event + ", at 20"), std::string::npos) << timed.out;
    EXPECT_EQ(timed.out.find(event + "\n"), std::string::npos);
}

TEST_F(SmbSim, ASandboxServesOneRun) {
    EXPECT_EQ(run(kStage).exit_code, 0);
    const ChildResult again = run(kStage);
    EXPECT_EQ(again.exit_code, 1);
    EXPECT_EQ(again.err, "kavrinctl: this sandbox was used before; take a new one for each run\n");
}

TEST_F(SmbSim, SandboxedRunsStayInSandboxes) {
    unsetenv("KAVRIN_SANDBOX");
    const ChildResult result = run(kStage);
    EXPECT_EQ(result.exit_code, 64);
    EXPECT_NE(result.err.find("--sandboxed is for runs inside of 'scripts/sandbox'"),
              std::string::npos);
}

TEST_F(SmbSim, WithoutASandboxTheMachinesOwnMapAnswers) {
    const std::string text = "folder Shared/Docs\nas nobody\nls Shared/Docs\n";
    const ChildResult result = run_tool({"smb-sim", script(text)});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out,
              "nobody connects\n  allowed\n  groups: none\n"
              "nobody: ls Shared/Docs\n  refused: EACCES by opendir_preprocess\n");
    EXPECT_EQ(run_tool({"smb-sim", script("user a 5\n")}).exit_code, 3);
}

TEST_F(SmbSim, MissingScriptsAndRelativeSharesAreTold) {
    EXPECT_EQ(run_tool({"smb-sim", folder_ + "/none"}).exit_code, 1);
    EXPECT_EQ(run_tool({"smb-sim", "--share", "team", script("")}).exit_code, 64);
    EXPECT_EQ(run_tool({"smb-sim"}).exit_code, 64);
}
