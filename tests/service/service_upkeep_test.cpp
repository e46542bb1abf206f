// What the service does beside maps: the staging buffer's flushes, the group map, the marker, and
// the counters for Prometheus.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "../tools/event_files.h"
#include "service_watch.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kStaging = "/kavrin/staging";
const std::string kGroups = "/etc/kavrin/groupmap_refresh";

class ServiceUpkeep : public WatchTest {
protected:
    // As smbd does: with the shared table, from another process than the service.
    static void stage(int first, int count) {
        ASSERT_EQ(read_kavrin_config(), 0);
        for (int i = 0; i < count; ++i) {
            std::string record = frame(numbered_event(first + i));
            EXPECT_EQ(write_to_staging_buffer(reinterpret_cast<staging_data_t*>(record.data())), 0);
        }
    }
    // The payloads in all pending files.
    static std::vector<std::string> flushed() {
        std::vector<std::string> payloads;
        for (const std::string& name : names_in(kStaging)) {
            if (!name.starts_with("pending_")) continue;
            for (const std::string& payload : payloads_of(read_file(kStaging + "/" + name)))
                payloads.push_back(payload);
        }
        return payloads;
    }
    static std::vector<std::string> payloads(int first, int count) {
        std::string file;
        for (int i = 0; i < count; ++i) file += frame(numbered_event(first + i));
        return payloads_of(file);
    }
    static bool are_flushed(int count, milliseconds time = seconds(5)) {
        return within(time,
                      [count] { return flushed().size() == static_cast<std::size_t>(count); });
    }
    static std::uint64_t staged() { return status_now()["staging"]["records"]; }

    static timespec time_of(const std::string& path) {
        struct stat st {};
        EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
        return st.st_mtim;
    }
    static bool are_equal(const timespec& a, const timespec& b) {
        return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
    }

    // As the tools for accounts do it: a new file in the place of the old one.
    static void replace_file(const std::string& path, const std::string& content) {
        write_file(path + "+", content);
        fs::rename(path + "+", path);
    }
    static void add_user(const std::string& name, int id) {
        const std::string ids = std::to_string(id);
        replace_file("/etc/group", read_file("/etc/group") + name + ":x:" + ids + ":\n");
        replace_file("/etc/passwd", read_file("/etc/passwd") + name + ":x:" + ids + ":" + ids +
                                        "::/nonexistent:/bin/false\n");
    }
    // The ids that a connection of that user would take, as kavrinctl shows them; empty without.
    static std::string groups_of(const std::string& user) {
        const ProgramResult result = run_kavrinctl({"groupmap", "show", user, "--json"});
        const Json json = Json::parse(result.out, nullptr, false);
        return result.exit_code == 0 ? json.dump() : "";
    }
    static bool knows(const std::string& user, milliseconds time = seconds(4)) {
        return within(time, [&user] { return file_exists(kGroups) && groups_of(user) != ""; });
    }
    static Json group_map() { return status_now()["group_map"]; }
};

// The staging buffer
// ---------------------------------------------------------------------------------------------

TEST_F(ServiceUpkeep, EventsAreFlushedEveryPeriod) {
    configure("[SWEEPER]\nflush period = 1\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    stage(0, 5);
    EXPECT_TRUE(are_flushed(5)) << service.log();
    EXPECT_TRUE(within(seconds(5), [] { return counter("events_flushed") == 5; }));
    EXPECT_EQ(counter("flushes"), 1U);
    EXPECT_EQ(counter("flush_failures"), 0U);
    EXPECT_EQ(staged(), 0U);
    EXPECT_EQ(status_now()["pending"]["files"], 1);
    stage(5, 2);
    EXPECT_TRUE(are_flushed(7)) << service.log();
    EXPECT_EQ(flushed(), payloads(0, 7));
}

TEST_F(ServiceUpkeep, NothingIsFlushedByItselfWhenThatIsDisabled) {
    configure("[SWEEPER]\nflush period = 1\ndisable sweeper flush = yes\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    stage(0, 3);
    EXPECT_FALSE(within(milliseconds(2300), [] { return staged() != 3 || !flushed().empty(); }));
    EXPECT_EQ(ask({{"command", "flush"}})["result"], (Json{{"records", 3}}));
    EXPECT_EQ(flushed(), payloads(0, 3));
    stage(3, 1);
    configure("[SWEEPER]\nflush period = 1\n");
    service.signal(SIGHUP);
    EXPECT_TRUE(are_flushed(4)) << service.log();
}

TEST_F(ServiceUpkeep, ASignalAndARequestFlushAtOnce) {
    configure("[SWEEPER]\nflush period = 86400\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    EXPECT_EQ(ask({{"command", "flush"}})["result"], (Json{{"records", 0}}));
    EXPECT_EQ(counter("flushes"), 0U) << "there was nothing to flush";
    stage(0, 4);
    EXPECT_EQ(staged(), 4U);
    service.signal(SIGUSR1);
    EXPECT_TRUE(are_flushed(4)) << service.log();
    stage(4, 12);
    EXPECT_EQ(ask({{"command", "flush"}})["result"], (Json{{"records", 12}}));
    EXPECT_EQ(flushed(), payloads(0, 16));
    EXPECT_EQ(counter("flushes"), 2U);
    EXPECT_EQ(counter("events_flushed"), 16U);
}

TEST_F(ServiceUpkeep, TheEndFlushes) {
    configure("[SWEEPER]\nflush period = 86400\n");
    for (const int signal : {SIGTERM, SIGINT}) {
        RunningService service;
        ASSERT_TRUE(service.ready()) << service.log();
        stage(signal, 4);
        service.signal(signal);
        EXPECT_EQ(service.wait_for_end(), 0) << service.log();
        EXPECT_FALSE(file_exists(kSocket));
    }
    EXPECT_EQ(flushed().size(), 8U);
}

TEST_F(ServiceUpkeep, AFlushThatCannotBeIsToldAndLosesNothing) {
    configure("[SWEEPER]\nflush period = 86400\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    stage(0, 3);
    fs::remove(kStaging);
    const Json answer = ask({{"command", "flush"}});
    EXPECT_EQ(answer.value("ok", true), false) << answer;
    EXPECT_EQ(answer.value("code", 0), 1) << answer;
    EXPECT_TRUE(contains(answer.value("error", ""), kStaging)) << answer;
    EXPECT_EQ(counter("flush_failures"), 1U);
    EXPECT_EQ(counter("flushes"), 0U);
    EXPECT_EQ(staged(), 3U);
    fs::create_directory(kStaging);
    EXPECT_EQ(ask({{"command", "flush"}})["result"], (Json{{"records", 3}}));
    EXPECT_EQ(flushed(), payloads(0, 3));
}

TEST_F(ServiceUpkeep, WhatADeadFlusherLeftIsRecovered) {
    configure("[SWEEPER]\nflush period = 1\n");
    fs::create_directories(kStaging);
    write_file(kStaging + "/kvtempAbCdEf", frame(numbered_event(1)) + frame(numbered_event(2)));
    const timespec then[] = {{1'700'000'000, 0}, {1'700'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (kStaging + "/kvtempAbCdEf").c_str(), then, 0), 0);
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    EXPECT_TRUE(are_flushed(2)) << service.log();
    EXPECT_FALSE(file_exists(kStaging + "/kvtempAbCdEf"));
    EXPECT_EQ(flushed(), payloads(1, 2));
    EXPECT_TRUE(service.logs("kvtempAbCdEf: published")) << service.log();
}

// The group map
// ---------------------------------------------------------------------------------------------

TEST_F(ServiceUpkeep, TheGroupMapFollowsTheAccounts) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    ASSERT_TRUE(knows("root")) << service.log();
    EXPECT_FALSE(knows("newcomer", milliseconds(0)));
    EXPECT_TRUE(within(seconds(2), [] { return group_map()["users"].get<int>() > 1; }));
    const int users = group_map()["users"];
    EXPECT_TRUE(group_map()["written"].is_number());
    EXPECT_TRUE(group_map()["error"].is_null()) << group_map();
    add_user("newcomer", 4321);
    EXPECT_TRUE(knows("newcomer")) << service.log();
    EXPECT_TRUE(contains(groups_of("newcomer"), "4321")) << groups_of("newcomer");
    EXPECT_TRUE(within(seconds(2), [users] { return group_map()["users"] == users + 1; }));
    replace_file("/etc/group", read_file("/etc/group") + "club:x:4322:newcomer\n");
    EXPECT_TRUE(within(seconds(4), [] { return contains(groups_of("newcomer"), "4322"); }))
        << groups_of("newcomer");
}

TEST_F(ServiceUpkeep, TheGroupMapIsNotWrittenWhenNothingChanged) {
    configure("[KAVRIND]\ngroup map period = 1\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    ASSERT_TRUE(knows("root")) << service.log();
    const timespec before = time_of(kGroups);
    replace_file("/etc/passwd", read_file("/etc/passwd"));
    EXPECT_FALSE(within(milliseconds(2300), [&] { return !are_equal(time_of(kGroups), before); }));
    EXPECT_EQ(occurrences(service.log(), "wrote the group map"), 1U) << service.log();
    fs::remove(kGroups);  // the next look finds that out without a change of the accounts
    EXPECT_TRUE(knows("root")) << service.log();
}

TEST_F(ServiceUpkeep, AccountsBelowTheLeastIdAreLeftOut) {
    add_user("lowly", 999);
    add_user("higher", 4321);
    configure("[KAVRIND]\ngroup map min uid = 1000\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    ASSERT_TRUE(knows("higher")) << service.log();
    EXPECT_EQ(groups_of("lowly"), "");
    configure("[KAVRIND]\ngroup map min uid = 999\n");
    service.signal(SIGHUP);
    EXPECT_TRUE(knows("lowly")) << service.log();
}

TEST_F(ServiceUpkeep, TheGroupMapComesFromAJsonFileAndABrokenOneChangesNothing) {
    const std::string source = "/etc/groups.json";
    write_file(source, R"({"users": {"anna": [2001, 2002]}})");
    configure("[KAVRIND]\ngroup map = " + source + "\ngroup map period = 0\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    ASSERT_TRUE(knows("anna")) << service.log();
    EXPECT_EQ(groups_of("root"), "");
    EXPECT_TRUE(within(seconds(2), [] { return group_map()["users"] == 1; }));
    replace_file(source, R"({"users": {"anna": [2001], "bert": [2003]}})");
    EXPECT_TRUE(knows("bert")) << service.log();
    const std::string good = read_file(kGroups);
    write_file(source, "{\"users\": {\"anna\": [2001],\n \"bert\": 7}}");
    EXPECT_TRUE(within(seconds(4), [] { return group_map()["error"].is_string(); }));
    EXPECT_TRUE(contains(group_map()["error"], source + ":2:")) << group_map();
    EXPECT_TRUE(service.logs(source + ":2:")) << service.log();
    EXPECT_EQ(read_file(kGroups), good);
    fs::remove(source);
    write_file(source, R"({"users": {"carl": [2004]}})");
    EXPECT_TRUE(knows("carl")) << service.log();
    EXPECT_TRUE(within(seconds(2), [] { return group_map()["error"].is_null(); }));
}

TEST_F(ServiceUpkeep, TheGroupMapIsLeftAloneWhenItIsOff) {
    configure("[KAVRIND]\ngroup map = off\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    add_user("newcomer", 4321);
    EXPECT_FALSE(within(milliseconds(1200), [] { return file_exists(kGroups); }));
    EXPECT_EQ(group_map(), (Json{{"users", 0}, {"written", nullptr}, {"error", nullptr}}));
}

// A look that was due when the map was switched off does not happen.
TEST_F(ServiceUpkeep, TheGroupMapIsLeftAloneOnceItIsSwitchedOff) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    ASSERT_TRUE(knows("root")) << service.log();
    const std::string before = read_file(kGroups);
    configure("[KAVRIND]\ngroup map = off\n");
    add_user("newcomer", 4321);
    service.signal(SIGHUP);
    ASSERT_TRUE(service.logs("again")) << service.log();
    EXPECT_FALSE(within(milliseconds(1000), [] { return group_map()["error"].is_string(); }))
        << group_map();
    EXPECT_FALSE(contains(service.log(), "cannot")) << service.log();
    EXPECT_EQ(read_file(kGroups), before);
}

// The marker and the counters
// ---------------------------------------------------------------------------------------------

TEST_F(ServiceUpkeep, TheMarkerIsTouchedAtEachSwitchAndNeverElse) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    EXPECT_FALSE(file_exists(kMarker));
    deliver(pair_of_generation(1));
    ASSERT_TRUE(serves(1)) << service.log();
    const auto is_touched_by = [](const std::function<void()>& act) {
        EXPECT_TRUE(is_idle());
        const timespec old[] = {{1'700'000'000, 0}, {1'700'000'000, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, kMarker.c_str(), old, 0), 0);
        const std::time_t before = std::time(nullptr);
        act();
        EXPECT_TRUE(is_idle());
        const std::time_t marked = time_of(kMarker).tv_sec;
        EXPECT_TRUE(marked == old[0].tv_sec || marked > before) << marked;
        return marked > before;
    };
    EXPECT_TRUE(is_touched_by([] {
        deliver(pair_of_generation(2));
        EXPECT_TRUE(serves(2));
    }));
    EXPECT_TRUE(is_touched_by([] { ask({{"command", "reload"}}); }));
    EXPECT_TRUE(is_touched_by([] { ask({{"command", "rollback"}, {"to", 1}}); }));
    EXPECT_FALSE(is_touched_by([] {
        deliver({"{}", "{}"}, "bad");
        EXPECT_NE(quarantined("bad"), "");
    })) << "no connection has to ask again";
    EXPECT_FALSE(is_touched_by([&service] {
        service.signal(SIGHUP);
        EXPECT_TRUE(service.logs("again"));
    }));
}

// "name value" lines, each after its HELP and TYPE.
std::map<std::string, double> parse_metrics(const std::string& text) {
    std::map<std::string, double> values;
    std::istringstream lines(text);
    std::string helped;
    std::string typed;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first, second, name, rest;
        words >> first;
        if (first == "#") {
            words >> second >> name;
            std::getline(words, rest);
            EXPECT_TRUE(second == "HELP" || second == "TYPE") << line;
            if (second == "HELP") helped = name;
            if (second == "TYPE") {
                typed = name;
                const std::string type = name.ends_with("_total") ? " counter" : " gauge";
                EXPECT_EQ(rest, type) << line;
            }
            EXPECT_GT(rest.size(), 1U) << line;
            continue;
        }
        double value = -1;
        words >> value;
        EXPECT_TRUE(words.eof() && !words.fail()) << line;
        EXPECT_EQ(first, helped) << line;
        EXPECT_EQ(first, typed) << line;
        EXPECT_TRUE(first.starts_with("kavrin_")) << line;
        EXPECT_TRUE(values.emplace(first, value).second) << line << " stands twice";
    }
    EXPECT_TRUE(text.ends_with('\n'));
    return values;
}

TEST_F(ServiceUpkeep, MetricsSayWhatTheStatusSays) {
    const std::string path = "/run/kavrin.prom";
    configure("[SWEEPER]\nflush period = 86400\n");
    RunningService service({"--metrics", path});
    ASSERT_TRUE(service.ready()) << service.log();
    EXPECT_EQ(parse_metrics(read_file(path)).at("kavrin_map_served"), 0);
    stage(0, 3);
    ask({{"command", "flush"}});
    stage(3, 2);
    deliver({"{}", "{}"}, "bad");
    ASSERT_NE(quarantined("bad"), "");
    deliver_file("half.size.json", "{}");
    ASSERT_TRUE(waits_for("half.size.json", "half.data.json"));
    deliver(pair_of_generation(7));
    ASSERT_TRUE(serves(7)) << service.log();
    ASSERT_TRUE(within(seconds(5), [&path] {
        return parse_metrics(read_file(path))["kavrin_builds_total"] == 1;
    })) << read_file(path);
    const std::map<std::string, double> values = parse_metrics(read_file(path));
    const Json status = status_now();
    const std::pair<const char*, Json> pairs[] = {
        {"builds_total", status["counters"]["builds"]},
        {"build_failures_total", status["counters"]["build_failures"]},
        {"pairs_superseded_total", status["counters"]["superseded"]},
        {"flushes_total", status["counters"]["flushes"]},
        {"flush_failures_total", status["counters"]["flush_failures"]},
        {"events_flushed_total", status["counters"]["events_flushed"]},
        {"map_elements", status["map"]["elements"]},
        {"map_generation", status["map"]["generation"]},
        {"map_bytes", status["map"]["bytes"]},
        {"pending_files", status["pending"]["files"]},
        {"staging_records", status["staging"]["records"]},
        {"staging_bytes", status["staging"]["used"]},
        {"staging_size_bytes", status["staging"]["size"]},
        {"halves_waiting", static_cast<double>(status["halves"].size())},
        {"service_start_time_seconds", status["service"]["started"]},
    };
    for (const auto& [name, value] : pairs) {
        ASSERT_TRUE(values.contains(std::string("kavrin_") + name)) << name;
        EXPECT_EQ(values.at(std::string("kavrin_") + name), value.get<double>()) << name;
    }
    EXPECT_EQ(values.at("kavrin_map_served"), 1);
    EXPECT_EQ(values.at("kavrin_last_build_success"), 1);
    EXPECT_EQ(values.at("kavrin_build_failures_total"), 1);
    EXPECT_EQ(values.at("kavrin_events_flushed_total"), 3);
    EXPECT_NEAR(values.at("kavrin_build_seconds"), status["counters"]["build_seconds"], 0.001);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644U) << "the collector is not root";
}

}  // namespace
}  // namespace kvtest
