// The commands that ask the service: what they ask, what they make of the answer, and what they say
// when there is none.
#include <sys/shm.h>

#include "config_keys.h"
#include "digest.h"
#include "groupmap_fixture.h"
#include "kept_maps.h"
#include "kernel_objects.h"
#include "service_stub.h"

namespace kvtest {
namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

const Json kMap = {{"number", 4},
                   {"name", "demo"},
                   {"version", "2.4"},
                   {"generation", 17},
                   {"sha256", "ab12"},
                   {"source", "/in/a.data.json"},
                   {"built", 1764000001},
                   {"built_by", "kavrind"},
                   {"published", 1764000002},
                   {"elements", 151692},
                   {"aces", 269490},
                   {"bytes", 15377987},
                   {"seconds", 0.98},
                   {"table", 1},
                   {"segment", 5},
                   {"readers", 1}};

Json whole_status() {
    return {
        {"service",
         {{"pid", 71},
          {"version", "0.1.0"},
          {"started", 1764000000},
          {"config", "/etc/kavrin/kavrin.conf"},
          {"state", "building"},
          {"job",
           {{"number", 7}, {"kind", "load"}, {"source", "/in/b.data.json"}, {"since", 1764000010}}},
          {"queued", 2}}},
        {"map", kMap},
        {"last_failure",
         {{"time", 1764000003},
          {"source", "/in/c.data.json"},
          {"error", "counts differ"},
          {"quarantine", "/q/c"}}},
        {"counters",
         {{"builds", 3},
          {"build_failures", 1},
          {"superseded", 0},
          {"flushes", 9},
          {"flush_failures", 0},
          {"events_flushed", 1200},
          {"build_seconds", 0.98}}},
        {"staging",
         {{"records", 3}, {"used", 524288}, {"size", 1048576}, {"folder", "/kavrin/staging"}}},
        {"pending", {{"files", 2}, {"oldest_age", 31}}},
        {"halves",
         {{{"file", "b.size.json"},
           {"since", 1764000000},
           {"stale", true},
           {"why", "its data file is missing"}}}},
        {"group_map", {{"users", 12}, {"written", 1764000000}, {"error", nullptr}}}};
}

class ServiceCommands : public testing::Test {
protected:
    ConfigTable config{-1};
};

// Reaching it. ---------------------------------------------------------------------------------

const Words kQuestions[] = {
    {"map", "reload"}, {"map", "rollback"}, {"events", "flush"}, {"config", "debug-level", "3"}};

TEST_F(ServiceCommands, SayThatNobodyIsThere) {
    for (const Words& words : kQuestions)
        expect_refused(run_tool(words), 1,
                       "kavrind is not running: there is no socket /run/kavrin/kavrind.sock; start "
                       "it with 'systemctl start kavrind', or with 'kavrind'");
}

TEST_F(ServiceCommands, SayThatNobodyListens) {
    ServiceStub service(always(""));
    service.stop();
    for (const Words& words : kQuestions)
        expect_refused(run_tool(words), 1,
                       "kavrind is not running: nobody listens at /run/kavrin/kavrind.sock; start "
                       "it with 'systemctl start kavrind', or with 'kavrind'");
}

TEST_F(ServiceCommands, SayThatItEndedInTheMiddle) {
    const std::string rest =
        "; it may have been stopped or have died: look at its log "
        "('journalctl -u kavrind') and at 'kavrinctl status'";
    {
        const ServiceStub service(always(""));
        expect_refused(run_tool({"map", "reload"}), 1,
                       "kavrind ended the connection without an answer" + rest);
    }
    const ServiceStub service(always("{\"ok\":true,\"resu"));
    expect_refused(run_tool({"map", "reload"}), 1,
                   "kavrind ended the connection in the middle of its answer" + rest);
}

TEST_F(ServiceCommands, SayThatSomebodyElseAnswers) {
    for (const char* nonsense : {"hello\n", "[]\n", "{\"ok\":1}\n", "{}\n", "\n"}) {
        const ServiceStub service(always(nonsense));
        const ChildResult result = run_tool({"events", "flush"});
        EXPECT_EQ(result.exit_code, 1);
        EXPECT_NE(result.err.find("is not kavrind"), std::string::npos) << result.err;
    }
}

TEST_F(ServiceCommands, HandOnItsRefusal) {
    for (const int code : {1, 3, 64}) {
        const ServiceStub service(always(error_line(code, "that is wrong")));
        for (const Words& words : kQuestions)
            expect_refused(run_tool(words), code, "kavrind refused: that is wrong");
    }
    const ServiceStub service(always(error_line(99, "odd")));
    EXPECT_EQ(run_tool({"map", "reload"}).exit_code, 1);
}

TEST_F(ServiceCommands, AreRootsAlone) {
    const ServiceStub service(always(ok_line({})));
    chmod(kServiceSocket.c_str(), 0600);
    const ChildResult result = run_child([] {
        become_user(1000, 1000, {});
        const char* words[] = {"kavrinctl", "events", "flush"};
        return kvadmin::run(3, words);
    });
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.err.find("only root may talk to kavrind"), std::string::npos) << result.err;
    EXPECT_TRUE(service.asked().empty());
}

TEST_F(ServiceCommands, FindTheSocketThatTheTableNames) {
    const ChildResult made = run_child_void([] {
        ASSERT_EQ(create_config_buffer(), 0);
        std::strcpy(global_params[PARAM_SOCKET_PATH].value.strval, "/run/other/socket");
    });
    ASSERT_EQ(made.exit_code, 0);
    const ServiceStub service(always(ok_line({{"records", 1}})), "/run/other/socket");
    EXPECT_EQ(run_tool({"events", "flush"}).exit_code, 0);
    const ServiceStub given(always(ok_line({{"records", 2}})), "/run/given/socket");
    EXPECT_EQ(run_tool({"events", "flush", "--socket", "/run/given/socket"}).out,
              "flushed 2 records of the staging buffer\n");
}

TEST_F(ServiceCommands, RefuseAPathThatNoSocketHas) {
    const ChildResult result =
        run_tool({"events", "flush", "--socket", "/" + std::string(108, 'x')});
    EXPECT_EQ(result.exit_code, 64);
}

// What is asked. -------------------------------------------------------------------------------

TEST_F(ServiceCommands, ApplyGivesAbsolutePathsAndQueues) {
    const ServiceStub service(always(ok_line({{"job", 7}})));
    const std::string folder = make_temp_dir();
    write_file(folder + "/s.json", "{}");
    write_file(folder + "/d.json", "[]");
    const ChildResult result = run_child([&folder] {
        if (chdir(folder.c_str()) != 0) return 99;
        const char* words[] = {"kavrinctl", "map", "apply", "s.json", "d.json"};
        return kvadmin::run(5, words);
    });
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, "queued as job 7; 'kavrinctl status' tells what becomes of it\n");
    ASSERT_EQ(service.asked().size(), 1u);
    EXPECT_EQ(service.asked()[0], Json({{"command", "load"},
                                        {"size", folder + "/s.json"},
                                        {"data", folder + "/d.json"},
                                        {"wait", false}}));
}

TEST_F(ServiceCommands, ApplyAsksForNothingWhenAFileIsMissing) {
    const ServiceStub service(always(ok_line({{"job", 7}})));
    const ChildResult result = run_tool({"map", "apply", "/no/size.json", "/no/data.json"});
    expect_refused(result, 1,
                   "cannot open /no/size.json: No such file or directory; nothing was asked for");
    EXPECT_TRUE(service.asked().empty());
}

TEST_F(ServiceCommands, ApplyWaitsAndTellsWhatIsServed) {
    const ServiceStub service(always(ok_line({{"job", 7}, {"map", kMap}})));
    const std::string file = make_temp_dir() + "/file";
    write_file(file, "x");
    const ChildResult result = run_tool({"map", "apply", file, file, "--wait"});
    EXPECT_EQ(result.out,
              "published \"demo\", generation 17, as table 1, kept as 4: 151692 elements, 269490 "
              "ACEs, 15377987 bytes, 0.98 s\n");
    EXPECT_EQ(service.asked()[0]["wait"], true);
    const ChildResult json = run_tool({"map", "apply", file, file, "--wait", "--json"});
    EXPECT_EQ(Json::parse(json.out), Json({{"job", 7}, {"map", kMap}}));
}

TEST_F(ServiceCommands, ReloadAndRollbackTellWhatIsServed) {
    const ServiceStub service(always(ok_line({{"job", 8}, {"map", kMap}})));
    EXPECT_TRUE(run_tool({"map", "reload"}).out.starts_with("loaded \"demo\""));
    EXPECT_TRUE(run_tool({"map", "rollback"}).out.starts_with("went back to \"demo\""));
    EXPECT_EQ(run_tool({"map", "rollback", "3"}).exit_code, 0);
    EXPECT_EQ(run_tool({"map", "rollback", "x"}).exit_code, 64);
    EXPECT_EQ(Json(service.asked()), Json({{{"command", "reload"}},
                                           {{"command", "rollback"}},
                                           {{"command", "rollback"}, {"to", 3}}}));
}

TEST_F(ServiceCommands, DebugLevelIsChecked) {
    const ServiceStub service(always(ok_line({{"level", 5}})));
    EXPECT_EQ(run_tool({"config", "debug-level", "5"}).out,
              "debug level 5 for connections that begin from now on, until the configuration is "
              "read again\n");
    EXPECT_EQ(run_tool({"config", "debug-level", "101"}).exit_code, 64);
    EXPECT_EQ(run_tool({"config", "debug-level"}).exit_code, 64);
    EXPECT_EQ(Json(service.asked()), Json({{{"command", "set-debug-level"}, {"level", 5}}}));
}

// The status. ----------------------------------------------------------------------------------

TEST_F(ServiceCommands, StatusIsPlainWords) {
    const ServiceStub service(always(ok_line(whole_status())));
    const ChildResult result = run_tool({"status"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out,
              "service       building, process 71, version 0.1.0, since 2025-11-24 16:00:00 UTC\n"
              "configuration /etc/kavrin/kavrin.conf\n"
              "job           7: load of /in/b.data.json, since 2025-11-24 16:00:10 UTC\n"
              "queued        2 jobs\n"
              "map           4: \"demo\", version 2.4, generation 17\n"
              "              151692 elements, 269490 ACEs, 15377987 bytes\n"
              "              table 1, segment 5, 1 reader attached\n"
              "              sha256 ab12\n"
              "              built by kavrind, 2025-11-24 16:00:01 UTC, in 0.98 s, from "
              "/in/a.data.json\n"
              "              served since 2025-11-24 16:00:02 UTC\n"
              "last failure  2025-11-24 16:00:03 UTC, /in/c.data.json: counts differ\n"
              "              set aside in /q/c\n"
              "since start   3 builds, 1 failed, 0 superseded\n"
              "              1200 events written in 9 flushes of the staging buffer, 0 failed\n"
              "staging       3 records, 524288 of 1048576 bytes (50.0%), flushed into "
              "/kavrin/staging\n"
              "pending       2 files, the oldest for 31 seconds\n"
              "waiting       b.size.json, since 2025-11-24 16:00:00 UTC: its data file is missing "
              "(for too long)\n"
              "group map     12 users, written 2025-11-24 16:00:00 UTC\n");
    EXPECT_EQ(Json::parse(run_tool({"status", "--json"}).out), whole_status());
}

TEST_F(ServiceCommands, StatusTakesAnAnswerThatSaysLess) {
    for (const Json& less : {Json::object(), Json({{"service", {{"pid", "x"}}},
                                                   {"map", Json::array()},
                                                   {"halves", 3},
                                                   {"pending", nullptr}})}) {
        const ServiceStub service(always(ok_line(less)));
        const ChildResult result = run_tool({"status"});
        EXPECT_EQ(result.exit_code, 0) << result.err;
        EXPECT_NE(result.out.find("map"), std::string::npos);
    }
}

TEST_F(ServiceCommands, StatusWithoutTheServiceShowsWhatCanBeSeen) {
    const ChildResult made = run_child_void([] {
        ASSERT_EQ(create_config_buffer(), 0);
        std::strcpy(global_params[PARAM_STAGING_DIR].value.strval, "/kavrin/staging");
    });
    ASSERT_EQ(made.exit_code, 0);
    std::filesystem::create_directories("/kavrin/staging");
    write_file("/kavrin/staging/pending_1700000000.000001", "x");
    config.set_int(PARAM_STAGING_BUFFER_SIZE, 65'536);
    ASSERT_EQ(create_staging_buffer(), 0);
    publish(Pair{kExampleSize, kExampleData});

    ChildResult result = run_tool({"status"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_TRUE(result.err.starts_with("kavrinctl: kavrind is not running: ")) << result.err;
    EXPECT_NE(result.out.find("service       not running\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("map           \"perm_map_A\""), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("nobody kept a record"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("staging       0 records, 0 of 65536 bytes (0.0%), flushed into "
                              "/kavrin/staging\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("pending       1 file, the oldest for "), std::string::npos);

    const std::string image = read_file("/etc/kavrin/.permbe_map");
    kvadmin::MapRecord record = kvadmin::describe_image(
        {reinterpret_cast<const std::uint8_t*>(image.data()), image.size()});
    record.source = "/in/kept.json";
    kvadmin::keep_map(record, {reinterpret_cast<const std::uint8_t*>(image.data()), image.size()});
    const Json document = Json::parse(run_tool({"status", "--json"}).out);
    EXPECT_EQ(document["service"], nullptr);
    EXPECT_EQ(document["map"]["source"], "/in/kept.json");
    EXPECT_EQ(document["map"]["number"], 1);
    EXPECT_EQ(document["map"]["sha256"], record.sha256);
    EXPECT_EQ(document["pending"]["files"], 1);
}

TEST_F(ServiceCommands, StatusOfAnEmptyMachineSaysSo) {
    const ChildResult result = run_tool({"status"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.out.find("map           none is served\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("there is no staging buffer"), std::string::npos) << result.out;
    EXPECT_EQ(kvadmin::map_semaphores().id, -1) << "looking made something";
    EXPECT_EQ(kvadmin::config_table_segment().id, -1) << "looking made something";
}

// The history. ---------------------------------------------------------------------------------

TEST_F(ServiceCommands, HistoryShowsTheNewestFirstAndMarksTheServed) {
    publish(Pair{kExampleSize, kExampleData});
    const std::string served = read_file("/etc/kavrin/.permbe_map");
    std::string other = served;
    other[0] = 'q';  // another name
    for (const std::string& image : {other, served, other}) {
        const std::span<const std::uint8_t> bytes(
            reinterpret_cast<const std::uint8_t*>(image.data()), image.size());
        kvadmin::MapRecord record = kvadmin::describe_image(bytes);
        record.source = "/in/x.json";
        record.published = 1764000000;
        kvadmin::keep_map(record, bytes);
    }
    const Json maps = Json::parse(run_tool({"map", "history", "--json"}).out)["maps"];
    ASSERT_EQ(maps.size(), 3u);
    EXPECT_EQ(maps[0]["number"], 3);
    EXPECT_EQ(maps[0]["served"], false);
    EXPECT_EQ(maps[1]["number"], 2);
    EXPECT_EQ(maps[1]["served"], true);
    EXPECT_EQ(maps[1]["name"], "perm_map_A");
    EXPECT_EQ(maps[2]["number"], 1);
    EXPECT_EQ(maps[2]["name"], "qerm_map_A");
    const ChildResult text = run_tool({"map", "history"});
    EXPECT_EQ(text.exit_code, 0);
    EXPECT_EQ(text.err, "");
    EXPECT_NE(text.out.find("\n*      2  2025-11-24 16:00:00 UTC"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("\n       1  2025-11-24 16:00:00 UTC"), std::string::npos) << text.out;
    EXPECT_LT(text.out.find("\n       3  "), text.out.find("\n*      2  "));
}

TEST_F(ServiceCommands, HistoryOfNothingIsEmpty) {
    const ChildResult result = run_tool({"map", "history"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "no map was kept in /var/lib/kavrin/maps\n");
}

}  // namespace
}  // namespace kvtest
