// The service and its configuration: --check, starts with a wrong file, and SIGHUP with a good and
// a bad one.
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "service_watch.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

class ServiceConfig : public WatchTest {
protected:
    static ProgramResult check(const std::string& text) {
        write_file(kConfig, text);
        return run_service({"--check"});
    }
    // The table as a connection that begins now gets it.
    static int shared_number(int slot) {
        EXPECT_EQ(read_kavrin_config(), 0);
        return global_params[slot].value.intval;
    }
    static std::string shared_text(int slot) {
        EXPECT_EQ(read_kavrin_config(), 0);
        return global_params[slot].value.strval;
    }
    static bool becomes(int slot, int number) {
        return within(seconds(5), [=] { return shared_number(slot) == number; });
    }
};

TEST_F(ServiceConfig, CheckFindsEachKindOfMistakeWithItsLine) {
    const struct {
        std::string text;
        std::string line;
        std::string words;
    } mistakes[] = {
        {"[VFS]\ndebug levle = 1\n", "2", "VFS:debug level"},
        {"\n\n[SWEPER]\nflush period = 1\n", "4", "SWEEPER:flush period"},
        {"[SWEEPER]\nflush period = soon\n", "2", "'soon'"},
        {"[SWEEPER]\ndisable sweeper flush = perhaps\n", "2", "'perhaps'"},
        {"[SWEEPER]\nflush period = 0\n", "2", "1 to 86400"},
        {"[KAVRIND]\nincoming dir = incoming\n", "2", "absolute path"},
        {"[KAVRIND]\ngroup map = somewhere\n", "2", "'accounts', 'off'"},
        {"[VFS]\ndefault user = 1\ndefault user = 2\n", "3", "line 2"},
        {"[VFS]\nnothing at all\n", "2", "name = value"},
        {"[VFS\n", "1", "]"},
        {std::string("[VFS]\n# \0\n", 10), "2", "zero byte"},
        {"[VFS]\n# " + std::string(2000, 'x') + "\n", "2", "1000"},
    };
    for (const auto& mistake : mistakes) {
        const ProgramResult result = check(mistake.text);
        SCOPED_TRACE(result.err);
        EXPECT_EQ(result.exit_code, 3);
        EXPECT_TRUE(contains(result.err, kConfig + ":" + mistake.line + ": "));
        EXPECT_TRUE(contains(result.err, mistake.words)) << mistake.words;
        EXPECT_TRUE(contains(result.err, "1 problem;"));
    }
}

TEST_F(ServiceConfig, CheckTellsAllMistakesAtOnce) {
    const ProgramResult result = check(
        "[VFS]\ndefault user = -1\nnothing\n[SWEEPER]\nflush period = x\n[KAVRIND]\nkept = 5\n");
    EXPECT_EQ(result.exit_code, 3);
    for (const char* line : {":2: ", ":3: ", ":5: ", ":7: "})
        EXPECT_EQ(occurrences(result.err, kConfig + line), 1U) << result.err;
    EXPECT_TRUE(contains(result.err, "4 problems")) << result.err;
}

TEST_F(ServiceConfig, CheckOfAGoodFileAndOfNoneIsQuiet) {
    const ProgramResult none = run_service({"--check"});
    EXPECT_EQ(none.exit_code, 0) << none.err;
    EXPECT_TRUE(contains(none.out, kConfig)) << none.out;
    EXPECT_EQ(none.err, "");
    const ProgramResult good = check("[VFS]\ndebug level = 1\n[KAVRIND]\nkept maps = 9\n");
    EXPECT_EQ(good.exit_code, 0) << good.err;
    EXPECT_TRUE(contains(good.out, "no problem")) << good.out;
    write_file("/etc/other.conf", "[VFS]\nwrong = 1\n");
    const ProgramResult other = run_service({"--check", "--config", "/etc/other.conf"});
    EXPECT_EQ(other.exit_code, 3);
    EXPECT_TRUE(contains(other.err, "/etc/other.conf:2: ")) << other.err;
    EXPECT_TRUE(names_in("/run/kavrin").empty()) << "a check makes nothing";
    EXPECT_EQ(segment_of(0), -1);
}

TEST_F(ServiceConfig, AFileThatWasNamedAndCannotBeReadIsAFailure) {
    fs::create_symlink("loop", "/etc/loop.conf");
    fs::create_symlink("loop.conf", "/etc/loop");
    for (const std::string file : {"/etc/missing.conf", "/etc", "/etc/loop.conf"}) {
        for (const char* option : {"--check", "--foreground"}) {
            const ProgramResult result = run_service({option, "--config", file});
            EXPECT_EQ(result.exit_code, 1) << file;
            EXPECT_TRUE(contains(result.err, file)) << result.err;
        }
    }
    fs::create_directory(kConfig);
    EXPECT_EQ(run_service({"--check"}).exit_code, 1) << "a folder is not a missing file";
}

TEST_F(ServiceConfig, TheCommandLineIsChecked) {
    for (const std::vector<std::string>& wrong : {std::vector<std::string>{"--nothing"},
                                                  {"file"},
                                                  {"--config"},
                                                  {"--check", "--teardown"},
                                                  {"--force"},
                                                  {"--metrics"}}) {
        const ProgramResult result = run_service(wrong);
        EXPECT_EQ(result.exit_code, 64) << wrong[0] << result.err;
        EXPECT_NE(result.err, "");
    }
    EXPECT_EQ(run_service({"--help"}).exit_code, 0);
    EXPECT_EQ(run_service({"--version"}).exit_code, 0);
}

TEST_F(ServiceConfig, AWrongFileKeepsTheServiceFromStarting) {
    configure("[VFS]\nwrong = 1\n[SWEEPER]\nflush period = 0\n");
    for (const std::vector<std::string>& options : {std::vector<std::string>{}, {"--foreground"}}) {
        const ProgramResult result = run_service(options);
        EXPECT_EQ(result.exit_code, 3);
        EXPECT_TRUE(contains(result.err, kConfig + ":2: ")) << result.err;
        EXPECT_TRUE(contains(result.err, kConfig + ":4: ")) << result.err;
    }
    EXPECT_FALSE(file_exists(kSocket));
    EXPECT_FALSE(file_exists("/kavrin/staging"));
    EXPECT_FALSE(file_exists(kIncoming));
}

TEST_F(ServiceConfig, TheTableHasEveryValueOfTheFile) {
    configure(
        "[VFS]\ndefault user = 4711\nexception pattern file = /etc/patterns\n"
        "[SWEEPER]\ndisable sweeper flush = yes\nstaging dir = /kavrin/elsewhere\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    EXPECT_EQ(shared_number(PARAM_DEFAULT_USER_ID), 4711);
    EXPECT_EQ(shared_text(PARAM_REGEX_FILE_NAME), "/etc/patterns");
    EXPECT_EQ(shared_number(PARAM_DISABLE_SWEEPER_FLUSH), 1);
    EXPECT_EQ(shared_text(PARAM_STAGING_DIR), "/kavrin/elsewhere");
    EXPECT_EQ(shared_number(PARAM_DEFAULT_GROUP_ID), 65534);
    EXPECT_TRUE(fs::is_directory("/kavrin/elsewhere"));
    EXPECT_EQ(status_now()["staging"]["folder"], "/kavrin/elsewhere");
}

TEST_F(ServiceConfig, HangupTakesAGoodFileIntoTheTable) {
    configure("[VFS]\ndefault user = 1\ndefault group = 5\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    EXPECT_EQ(shared_number(PARAM_DEFAULT_USER_ID), 1);
    configure("[VFS]\ndefault user = 2\n[SWEEPER]\nstaging dir = /kavrin/new\n");
    service.signal(SIGHUP);
    EXPECT_TRUE(becomes(PARAM_DEFAULT_USER_ID, 2)) << service.log();
    EXPECT_EQ(shared_number(PARAM_DEFAULT_GROUP_ID), 65534) << "what is not given is the default";
    EXPECT_TRUE(service.logs("read " + kConfig + " again")) << service.log();
    EXPECT_EQ(shared_text(PARAM_STAGING_DIR), "/kavrin/new");
    EXPECT_TRUE(fs::is_directory("/kavrin/new"));
    fs::remove(kConfig);  // somebody's mistake, more likely than a wish for every default
    service.signal(SIGHUP);
    EXPECT_TRUE(service.logs("there is no " + kConfig)) << service.log();
    EXPECT_EQ(shared_number(PARAM_DEFAULT_USER_ID), 2);
    configure("");
    service.signal(SIGHUP);
    EXPECT_TRUE(becomes(PARAM_DEFAULT_USER_ID, 65534)) << service.log();
}

TEST_F(ServiceConfig, HangupWithABadFileChangesNothingAndTellsEachLine) {
    configure("[VFS]\ndefault user = 1\n[KAVRIND]\nstale half after = 1\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    configure("[VFS]\ndefault user = 2\nwrong = 1\n[SWEEPER]\nflush period = 0\n");
    service.signal(SIGHUP);
    EXPECT_TRUE(service.logs("the configuration stays as it was")) << service.log();
    EXPECT_TRUE(contains(service.log(), kConfig + ":3: ")) << service.log();
    EXPECT_TRUE(contains(service.log(), kConfig + ":5: ")) << service.log();
    EXPECT_EQ(shared_number(PARAM_DEFAULT_USER_ID), 1);
    fs::remove(kConfig);
    fs::create_directory(kConfig);
    service.signal(SIGHUP);
    EXPECT_TRUE(service.logs("cannot read " + kConfig)) << service.log();
    EXPECT_EQ(shared_number(PARAM_DEFAULT_USER_ID), 1);
    deliver_file("a.size.json", "{}");  // what the service does is as it was, too
    EXPECT_TRUE(within(seconds(5), [] { return half_named("a.size.json").value("stale", false); }));
    fs::remove(kConfig);
    configure("[VFS]\ndefault user = 3\n");
    service.signal(SIGHUP);
    EXPECT_TRUE(becomes(PARAM_DEFAULT_USER_ID, 3)) << service.log();
}

TEST_F(ServiceConfig, HangupDoesNotMoveTheSocketOrTheIncomingFolder) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    configure(
        "[MESSENGER]\nsocket path = /run/kavrin/other.sock\n"
        "[KAVRIND]\nincoming dir = /var/lib/kavrin/other\n");
    service.signal(SIGHUP);
    EXPECT_TRUE(service.logs("takes effect at the next start")) << service.log();
    deliver(pair_of_generation(1));
    EXPECT_TRUE(serves(1)) << service.log();
    EXPECT_FALSE(file_exists("/run/kavrin/other.sock"));
    EXPECT_EQ(service.end(), 0);
    RunningService next;
    ASSERT_TRUE(within(seconds(10), [] {
        return ask({{"command", "status"}}, "/run/kavrin/other.sock").value("ok", false);
    })) << next.log();
    EXPECT_FALSE(file_exists(kSocket));
    EXPECT_TRUE(fs::is_directory("/var/lib/kavrin/other/quarantine"));
}

TEST_F(ServiceConfig, ALargerStagingBufferIsTakenAndASmallerOneIsTold) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    configure("[SWEEPER]\nstaging buffer size = 2097152\n");
    service.signal(SIGHUP);
    EXPECT_TRUE(becomes(PARAM_STAGING_BUFFER_SIZE, 2'097'152)) << service.log();
    EXPECT_EQ(status_now()["staging"]["size"], 2'097'152);
    configure("[SWEEPER]\nstaging buffer size = 8192\n");
    service.signal(SIGHUP);
    EXPECT_TRUE(service.logs("keeps its 2097152 bytes")) << service.log();
    EXPECT_EQ(shared_number(PARAM_STAGING_BUFFER_SIZE), 2'097'152) << "the real size";
}

TEST_F(ServiceConfig, KeptMapsFollowTheConfiguration) {
    configure("[KAVRIND]\nkept maps = 2\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    for (const unsigned generation : {1U, 2U, 3U, 4U}) {
        deliver(pair_of_generation(generation));
        ASSERT_TRUE(serves(generation)) << service.log();
        ASSERT_TRUE(is_idle());
    }
    EXPECT_EQ(names_in("/var/lib/kavrin/maps"),
              (std::vector<std::string>{"3.json", "3.map", "4.json", "4.map"}));
    configure("[KAVRIND]\nkept maps = 1\n");
    service.signal(SIGHUP);
    ASSERT_TRUE(service.logs("again")) << service.log();
    deliver(pair_of_generation(5));
    ASSERT_TRUE(serves(5)) << service.log();
    ASSERT_TRUE(is_idle());
    EXPECT_EQ(names_in("/var/lib/kavrin/maps"), (std::vector<std::string>{"5.json", "5.map"}));
}

}  // namespace
}  // namespace kvtest
