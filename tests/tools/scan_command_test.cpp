// kavrinctl map scan as a user runs it: which files appear when, every refusal, the remarks and
// the summary. A failed or interrupted run must leave what was there before and nothing else.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "tool_run.h"
#include "utf8.h"

namespace {

using kvtest::ChildResult;
using kvtest::run_tool;

class ScanCommandTest : public testing::Test {
protected:
    ScanCommandTest() {
        mkdir((tree_ + "/Shared").c_str(), 0750);
        kvtest::write_file(tree_ + "/Shared/report.txt", "x");
    }

    ChildResult scan(std::vector<std::string> more = {}) const {
        std::vector<std::string> arguments = {"map", "scan", tree_, "-o", size_, data_};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run_tool(arguments);
    }
    nlohmann::json size_file() const { return nlohmann::json::parse(kvtest::read_file(size_)); }

    std::vector<std::string> written() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(out_))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    void expect_refused(const ChildResult& result, int code, const std::string& message) const {
        EXPECT_EQ(result.exit_code, code) << result.err;
        EXPECT_EQ(result.err, "kavrinctl: " + message + "\n");
        EXPECT_EQ(written(), std::vector<std::string>{});
    }

    std::string tree_ = kvtest::make_temp_dir();
    std::string out_ = kvtest::make_temp_dir();
    std::string size_ = out_ + "/size.json";
    std::string data_ = out_ + "/data.json";
};

// Runs the command as an ordinary user.
ChildResult run_as_user(const std::vector<std::string>& arguments) {
    return kvtest::run_child([&] {
        if (setresgid(1234, 1234, 1234) != 0 || setresuid(1234, 1234, 1234) != 0) return 99;
        std::vector<const char*> words{"kavrinctl"};
        for (const std::string& argument : arguments) words.push_back(argument.c_str());
        return kvadmin::run(static_cast<int>(words.size()), words.data());
    });
}

}  // namespace

TEST_F(ScanCommandTest, WritesThePairAndSaysWhatItHolds) {
    const ChildResult result = scan();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(written(), (std::vector<std::string>{"data.json", "size.json"}));
    EXPECT_EQ(size_file()["TOTALFSELEMS"], 3);
    EXPECT_EQ(result.err.find("kavrinctl: 3 elements, "), 0u) << result.err;
    EXPECT_EQ(nlohmann::json::parse(kvtest::read_file(data_))[1]["DIR"], "/");
}

TEST_F(ScanCommandTest, PairIsReadableByItsOwnerOnly) {
    ASSERT_EQ(scan().exit_code, 0);
    for (const std::string& path : {size_, data_}) {
        struct stat status;
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600u) << path;
    }
}

TEST_F(ScanCommandTest, IdentityComesFromTheOptions) {
    ASSERT_EQ(
        scan({"--name", "perm_map_A", "--generation", "4294967295", "--timestamp", "1700000000"})
            .exit_code,
        0);
    EXPECT_EQ(size_file()["MAPNAME"], "perm_map_A");
    EXPECT_EQ(size_file()["VERSION"], "1");
    EXPECT_EQ(size_file()["GENERATIONNUM"], 4294967295u);
    EXPECT_EQ(size_file()["TIMESTAMP"], 1700000000);
}

TEST_F(ScanCommandTest, IdentityHasDefaults) {
    const std::time_t before = std::time(nullptr);
    ASSERT_EQ(scan().exit_code, 0);
    EXPECT_EQ(size_file()["MAPNAME"], std::filesystem::path(tree_).filename().string());
    EXPECT_EQ(size_file()["GENERATIONNUM"], 1);
    EXPECT_GE(size_file()["TIMESTAMP"].get<std::time_t>(), before);
    EXPECT_LE(size_file()["TIMESTAMP"].get<std::time_t>(), std::time(nullptr));
}

TEST_F(ScanCommandTest, DefaultNameIsCutAtACharacter) {
    std::string name;
    for (int i = 0; i < 12; ++i) name += "日";  // 36 bytes
    const std::string folder = tree_ + "/" + name;
    ASSERT_EQ(mkdir(folder.c_str(), 0750), 0);
    ASSERT_EQ(run_tool({"map", "scan", folder + "/", "-o", size_, data_}).exit_code, 0);
    EXPECT_EQ(size_file()["MAPNAME"], name.substr(0, 30));
}

TEST_F(ScanCommandTest, SameTimestampGivesTheSameBytes) {
    ASSERT_EQ(scan({"--timestamp", "5"}).exit_code, 0);
    const std::string size = kvtest::read_file(size_);
    const std::string data = kvtest::read_file(data_);
    ASSERT_EQ(scan({"--timestamp", "5"}).exit_code, 0);
    EXPECT_EQ(kvtest::read_file(size_), size);
    EXPECT_EQ(kvtest::read_file(data_), data);
}

TEST_F(ScanCommandTest, NameThatDoesNotFitIsAUsageError) {
    expect_refused(scan({"--name", std::string(32, 'n')}), 64,
                   "--name has 32 bytes; a map's name has at most 31");
    expect_refused(scan({"--name", "\xff"}), 64, "--name is not valid UTF-8");
    EXPECT_EQ(scan({"--name", std::string(31, 'n')}).exit_code, 0);
}

TEST_F(ScanCommandTest, BadNumbersAreUsageErrors) {
    for (const char* option : {"--generation", "--timestamp"})
        for (const char* value : {"-1", "x", "99999999999999999999"})
            EXPECT_EQ(scan({option, value}).exit_code, 64) << option << ' ' << value;
    EXPECT_EQ(scan({"--generation", "4294967296"}).exit_code, 64);
    EXPECT_EQ(written(), std::vector<std::string>{});
}

TEST_F(ScanCommandTest, MissingArgumentsAreUsageErrors) {
    EXPECT_EQ(run_tool({"map", "scan"}).exit_code, 64);
    EXPECT_EQ(run_tool({"map", "scan", tree_}).exit_code, 64);
    EXPECT_EQ(run_tool({"map", "scan", tree_, "-o", size_}).exit_code, 64);
    EXPECT_EQ(run_tool({"map", "scan", "-o", size_, data_}).exit_code, 64);
    EXPECT_EQ(run_tool({"map", "scan", "-o", size_, data_, tree_}).exit_code, 0);
}

TEST_F(ScanCommandTest, BothFilesMustDiffer) {
    expect_refused(run_tool({"map", "scan", tree_, "-o", size_, size_}), 64,
                   "the size file and the data file are both '" + size_ + "'");
}

TEST_F(ScanCommandTest, MissingFolderIsRefused) {
    expect_refused(run_tool({"map", "scan", tree_ + "/none", "-o", size_, data_}), 1,
                   "cannot read folder '" + tree_ + "/none': No such file or directory");
    expect_refused(run_tool({"map", "scan", tree_ + "/Shared/report.txt", "-o", size_, data_}), 1,
                   "cannot read folder '" + tree_ + "/Shared/report.txt': Not a directory");
}

TEST_F(ScanCommandTest, MissingTargetFolderIsRefused) {
    const std::string data = out_ + "/none/data.json";
    expect_refused(run_tool({"map", "scan", tree_, "-o", size_, data}), 1,
                   "cannot create a file beside '" + data + "': No such file or directory");
}

TEST_F(ScanCommandTest, FolderAsTargetIsRefused) {
    expect_refused(run_tool({"map", "scan", tree_, "-o", tree_, data_}), 1,
                   "'" + tree_ + "' is a folder; name the file to write");
}

TEST_F(ScanCommandTest, FullDiskLeavesTheOldPair) {
    for (int i = 0; i < 5000; ++i)
        close(open((tree_ + "/Shared/" + std::to_string(i)).c_str(), O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(mount("small", out_.c_str(), "tmpfs", 0, "size=64k"), 0);
    kvtest::write_file(size_, "old size");
    kvtest::write_file(data_, "old data");
    const ChildResult result = scan();
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.err.find("No space left on device"), std::string::npos) << result.err;
    EXPECT_EQ(written(), (std::vector<std::string>{"data.json", "size.json"}));
    EXPECT_EQ(kvtest::read_file(size_), "old size");
    EXPECT_EQ(kvtest::read_file(data_), "old data");
    umount(out_.c_str());
}

TEST_F(ScanCommandTest, SizeFileThatCannotBePlacedIsReportedWithTheState) {
    // The target turns into a folder between the check and the end: the first temporary's
    // appearance tells that the check is over.
    for (int i = 0; i < 20000; ++i)
        close(open((tree_ + "/Shared/" + std::to_string(i)).c_str(), O_CREAT | O_CLOEXEC, 0600));
    // A process, not a thread: the scan runs in a child, and forking beside a thread is asking for
    // a lock that nobody gives back.
    const pid_t obstructor = fork();
    if (obstructor == 0) {
        while (written().size() < 2) std::this_thread::yield();
        mkdir(size_.c_str(), 0700);
        _exit(0);
    }
    const ChildResult result = scan();
    EXPECT_EQ(waitpid(obstructor, nullptr, 0), obstructor);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.err.find("cannot put '" + size_ +
                              "' in place: Is a directory; the data file is the new one already, "
                              "so scan again before loading\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(written(), (std::vector<std::string>{"data.json", "size.json"}));
}

TEST_F(ScanCommandTest, InterruptLeavesNothing) {
    for (int i = 0; i < 20000; ++i)
        close(open((tree_ + "/Shared/" + std::to_string(i)).c_str(), O_CREAT | O_CLOEXEC, 0600));
    const ChildResult result = kvtest::run_child([&] {
        std::thread interrupt([&, process = getpid()] {
            while (written().size() < 2) std::this_thread::yield();
            kill(process, SIGTERM);
        });
        const std::vector<const char*> words = {
            "kavrinctl", "map", "scan", tree_.c_str(), "-o", size_.c_str(), data_.c_str()};
        const int code = kvadmin::run(static_cast<int>(words.size()), words.data());
        interrupt.join();
        return code;
    });
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.err.find("kavrinctl: interrupted after "), 0u) << result.err;
    EXPECT_EQ(written(), std::vector<std::string>{});
}

TEST_F(ScanCommandTest, UnreadableFolderKeepsThePairBack) {
    ASSERT_EQ(mkdir((tree_ + "/Shared/locked").c_str(), 0700), 0);
    ASSERT_EQ(chmod((tree_ + "/Shared").c_str(), 0755), 0);
    ASSERT_EQ(chmod(out_.c_str(), 0777), 0);
    const ChildResult result = run_as_user({"map", "scan", tree_, "-o", size_, data_, "--json"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.err.find("kavrinctl: cannot read folder " + tree_ +
                              "/Shared/locked: Permission denied\n"),
              0u)
        << result.err;
    EXPECT_NE(result.err.find("kavrinctl: 1 entries could not be read and no file was written; run "
                              "it as root, or accept them as empty with --keep-going\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(written(), std::vector<std::string>{});
    EXPECT_EQ(nlohmann::json::parse(result.out)["written"], false);
    EXPECT_EQ(nlohmann::json::parse(result.out)["unreadable"], 1);
}

TEST_F(ScanCommandTest, KeepGoingWritesThePairWithTheFolderEmpty) {
    ASSERT_EQ(mkdir((tree_ + "/Shared/locked").c_str(), 0700), 0);
    ASSERT_EQ(chmod((tree_ + "/Shared").c_str(), 0755), 0);
    ASSERT_EQ(chmod(out_.c_str(), 0777), 0);
    const ChildResult result =
        run_as_user({"map", "scan", tree_, "-o", size_, data_, "--keep-going"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err.find("kavrinctl: cannot read folder "), 0u) << result.err;
    EXPECT_EQ(size_file()["TOTALFSELEMS"], 4);
}

TEST_F(ScanCommandTest, TreeMayBeDeeperThanTheUsualDescriptorLimit) {
    std::string path = tree_ + "/Shared";
    for (int i = 0; i < 300; ++i) ASSERT_EQ(mkdir((path += "/d").c_str(), 0750), 0);
    const ChildResult result = kvtest::run_child([&] {
        struct rlimit limit;
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 98;
        limit.rlim_cur = 100;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 99;
        const std::vector<const char*> words = {
            "kavrinctl", "map", "scan", tree_.c_str(), "-o", size_.c_str(), data_.c_str()};
        return kvadmin::run(static_cast<int>(words.size()), words.data());
    });
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(size_file()["TOTALFSELEMS"], 303);
}

TEST_F(ScanCommandTest, RemarksNameWhatIsLeftOut) {
    ASSERT_EQ(symlink("x", (tree_ + "/Shared/link").c_str()), 0);
    kvtest::write_file(tree_ + "/Shared/bad\xff\n", "x");
    const ChildResult result = scan();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err.find("kavrinctl: left out " + tree_ +
                              "/Shared/bad\\xff\\x0a: its name is not valid UTF-8\n"
                              "kavrinctl: left out 1 symbolic links and 0 devices, sockets and "
                              "fifos: a map holds folders and regular files\n"
                              "kavrinctl: left out 1 elements whose names no map can hold\n"),
              0u)
        << result.err;
    EXPECT_TRUE(kvadmin::is_utf8(result.err));
}

TEST_F(ScanCommandTest, RemarksThatNothingIsShared) {
    const ChildResult result = run_tool({"map", "scan", tree_ + "/Shared", "-o", size_, data_});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err.find("kavrinctl: no folder named Shared at the top level: verdicts use "
                              "ACLs only there and below, so this map gives nobody any right\n"),
              0u)
        << result.err;
}

TEST_F(ScanCommandTest, JsonSummaryTellsEverything) {
    ASSERT_EQ(symlink("x", (tree_ + "/Shared/link").c_str()), 0);
    const ChildResult result = scan({"--json"});
    EXPECT_EQ(result.exit_code, 0);
    const auto summary = nlohmann::json::parse(result.out);
    EXPECT_EQ(summary["written"], true);
    EXPECT_EQ(summary["size_file"], size_);
    EXPECT_EQ(summary["data_file"], data_);
    EXPECT_EQ(summary["elements"], 3);
    EXPECT_EQ(summary["folders"], 2);
    EXPECT_EQ(summary["files"], 1);
    EXPECT_EQ(summary["left_out"]["links"], 1);
    EXPECT_EQ(summary["left_out"]["special"], 0);
    EXPECT_EQ(summary["left_out"]["names"], 0);
    EXPECT_EQ(summary["twins"], 0);
    EXPECT_EQ(summary["unreadable"], 0);
    EXPECT_EQ(summary["aces"], size_file()["TOTALACES"]);
    EXPECT_EQ(summary["name_bytes"], size_file()["TOTALNAMELEN"]);
    EXPECT_EQ(summary["data_bytes"], std::filesystem::file_size(data_));
    EXPECT_EQ(summary["image_bytes"].get<std::uint64_t>(),
              176 + 60 * 3 + 12 * size_file()["TOTALACES"].get<std::uint64_t>() +
                  size_file()["TOTALNAMELEN"].get<std::uint64_t>());
    EXPECT_GE(summary["seconds"], 0.0);
}

TEST_F(ScanCommandTest, PairInsideTheTreeHoldsNoTemporary) {
    const std::string size = tree_ + "/size.json";
    const std::string data = tree_ + "/data.json";
    ASSERT_EQ(run_tool({"map", "scan", tree_, "-o", size, data}).exit_code, 0);
    EXPECT_EQ(nlohmann::json::parse(kvtest::read_file(size))["TOTALFSELEMS"], 3);
    ASSERT_EQ(run_tool({"map", "scan", tree_, "-o", size, data}).exit_code, 0);
    EXPECT_EQ(nlohmann::json::parse(kvtest::read_file(size))["TOTALFSELEMS"], 5);
}

TEST(Utf8, KnowsWellFormedText) {
    for (const char* text :
         {"", "a", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
          "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
        EXPECT_TRUE(kvadmin::is_utf8(text)) << text;
    for (const char* text :
         {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc2", "\xc2g", "\xe0\x9f\xbf", "\xe1\x80",
          "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf1\x80\x80", "\xf4\x90\x80\x80",
          "\xf5\x80\x80\x80", "\xff"})
        EXPECT_FALSE(kvadmin::is_utf8(text)) << text;
}

TEST(Utf8, PrintableEscapesWhatATerminalObeys) {
    EXPECT_EQ(kvadmin::printable("a\x1b[2J\xc3\xa4\xff\x7f\xc2\x9b"),
              "a\\x1b[2J\xc3\xa4\\xff\\x7f\\xc2\\x9b");
}
