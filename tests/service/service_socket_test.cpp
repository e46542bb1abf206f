// The control socket: every command with good and bad members, clients that wait, that talk
// nonsense, that are many, and that are not root.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "service_watch.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A connection that stays.
class Client {
public:
    explicit Client(const std::string& path = kSocket)
        : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        connected_ =
            connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        const timeval patience{10, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~Client() { close(socket_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool connected() const { return connected_; }
    void send(const std::string& text) const {
        EXPECT_EQ(::send(socket_, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    // The next line, parsed; null at the end of the connection.
    Json answer() {
        for (;;) {
            const std::size_t end = received_.find('\n');
            if (end != std::string::npos) {
                const Json json = Json::parse(received_.substr(0, end), nullptr, false);
                received_.erase(0, end + 1);
                return json;
            }
            if (!receive()) return {};
        }
    }
    // Nothing more comes, and the other side says so; with a reset when it had not read everything.
    bool ended() { return !receive() && (errno == 0 || errno == ECONNRESET); }

private:
    bool receive() {
        char buffer[4096];
        errno = 0;
        const ssize_t got = read(socket_, buffer, sizeof buffer);
        if (got > 0) received_.append(buffer, static_cast<std::size_t>(got));
        return got > 0;
    }
    int socket_;
    bool connected_ = false;
    std::string received_;
};

class ServiceSocket : public WatchTest {
protected:
    // Somewhere outside of the incoming folder.
    static Json load_request(const Pair& pair, const std::string& name, bool wait) {
        const std::string folder = "/var/lib/kavrin/loads/" + name;
        fs::create_directories(folder);
        write_file(folder + "/s.json", pair.size_json);
        write_file(folder + "/d.json", pair.data_json);
        return {{"command", "load"},
                {"size", folder + "/s.json"},
                {"data", folder + "/d.json"},
                {"wait", wait}};
    }
    static Json load(unsigned generation) {
        return ask(load_request(pair_of_generation(generation), std::to_string(generation), true));
    }
    static void expect_refused(const Json& request, int code, const std::string& words) {
        const Json answer = ask(request);
        SCOPED_TRACE(request.dump() + " -> " + answer.dump());
        ASSERT_TRUE(answer.contains("ok"));
        EXPECT_EQ(answer["ok"], false);
        EXPECT_EQ(answer.value("code", -1), code);
        EXPECT_TRUE(contains(answer.value("error", ""), words)) << words;
        EXPECT_FALSE(answer.contains("result"));
    }
    static long debug_level() {
        EXPECT_EQ(read_kavrin_config(), 0);
        return global_params[PARAM_DEBUG_LEVEL].value.intval;
    }
};

TEST_F(ServiceSocket, LoadServesAPairAndLeavesItsFiles) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Pair pair = pair_of_generation(1);
    const Json request = load_request(pair, "one", true);
    const Json answer = ask(request);
    ASSERT_EQ(answer.value("ok", false), true) << answer << service.log();
    const Json& result = answer["result"];
    EXPECT_EQ(result["map"]["generation"], 1);
    EXPECT_EQ(result["map"]["source"], request["data"]);
    EXPECT_EQ(served_generation(), 1);
    EXPECT_EQ(read_file(request["size"]), pair.size_json);
    EXPECT_EQ(read_file(request["data"]), pair.data_json);
    const Json later = ask(load_request(pair_of_generation(2), "two", false));
    EXPECT_EQ(later["result"], (Json{{"job", result["job"].get<int>() + 1}})) << later;
    EXPECT_TRUE(serves(2)) << service.log();
    ASSERT_TRUE(is_idle());
    expect_nothing_left();
    EXPECT_EQ(counter("builds"), 2U);
}

TEST_F(ServiceSocket, LoadThatCannotBeIsRefusedWithItsCode) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    Json good = load_request(pair_of_generation(1), "good", true);
    ASSERT_EQ(ask(good)["ok"], true);
    const auto with = [&good](const char* member, const Json& value) {
        Json request = good;
        request[member] = value;
        return request;
    };
    for (const char* side : {"size", "data"}) {
        Json without = good;
        without.erase(side);
        expect_refused(without, 64, side);
        expect_refused(with(side, "loads/good/s.json"), 64, "absolute path");
        expect_refused(with(side, ""), 64, "absolute path");
        expect_refused(with(side, 7), 64, side);
        expect_refused(with(side, nullptr), 64, side);
        expect_refused(with(side, "/nowhere/x.json"), 1, "/nowhere/x.json");
        expect_refused(with(side, "/var/lib/kavrin"), 1, "/var/lib/kavrin");
    }
    for (const Json& wait : {Json("yes"), Json(1), Json()})
        expect_refused(with("wait", wait), 64, "\"wait\" must be true or false");
    const Pair bad{kExampleSize, std::string(kExampleData) + "\n]"};
    expect_refused(load_request(bad, "bad", true), 3, "d.json:");
    EXPECT_TRUE(file_exists("/var/lib/kavrin/loads/bad/d.json"));
    EXPECT_EQ(names_in(kQuarantine), std::vector<std::string>{}) << "it stays where it is";
    EXPECT_EQ(served_generation(), 1);
    const Json failure = status_now()["last_failure"];
    EXPECT_EQ(failure["source"], "/var/lib/kavrin/loads/bad/d.json");
    EXPECT_TRUE(failure["quarantine"].is_null());
}

TEST_F(ServiceSocket, ReloadTakesThePersistedMapAnew) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    expect_refused({{"command", "reload"}}, 1, kPersisted);
    ASSERT_EQ(load(1)["ok"], true);
    const int segment = status_now()["map"]["segment"];
    const Json answer = ask({{"command", "reload"}});
    ASSERT_EQ(answer.value("ok", false), true) << answer;
    EXPECT_EQ(answer["result"]["map"]["generation"], 1);
    EXPECT_TRUE(answer["result"]["job"].is_number());
    EXPECT_NE(status_now()["map"]["segment"], segment) << "another segment is served";
    EXPECT_EQ(served_generation(), 1);
    const std::string persisted = read_file(kPersisted);
    write_file(kPersisted, persisted.substr(0, persisted.size() - 7));
    expect_refused({{"command", "reload"}}, 3, "damaged");
    EXPECT_EQ(served_generation(), 1) << "what was served is served on";
}

TEST_F(ServiceSocket, RollbackGoesToTheNewestOlderMapOrToTheNamedOne) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    expect_refused({{"command", "rollback"}}, 1, "no kept map older");
    for (const unsigned generation : {11U, 12U, 13U}) ASSERT_EQ(load(generation)["ok"], true);
    const Json back = ask({{"command", "rollback"}});
    ASSERT_EQ(back.value("ok", false), true) << back;
    EXPECT_EQ(back["result"]["map"]["number"], 2);
    EXPECT_EQ(served_generation(), 12);
    EXPECT_EQ(ask({{"command", "rollback"}, {"to", nullptr}})["result"]["map"]["number"], 1);
    EXPECT_EQ(served_generation(), 11);
    expect_refused({{"command", "rollback"}}, 1, "no kept map older");
    EXPECT_EQ(ask({{"command", "rollback"}, {"to", 3}})["result"]["map"]["generation"], 13);
    EXPECT_EQ(served_generation(), 13);
    for (const Json& to : {Json("2"), Json(0), Json(-1), Json(1.5), Json(true), Json(1e18)})
        expect_refused({{"command", "rollback"}, {"to", to}}, 64, "\"to\" must be an integer");
    const Json unknown = ask({{"command", "rollback"}, {"to", 99}});
    EXPECT_EQ(unknown.value("ok", true), false) << unknown;
    EXPECT_TRUE(contains(unknown.value("error", ""), "no kept map 99")) << unknown;
    EXPECT_EQ(served_generation(), 13);
}

TEST_F(ServiceSocket, DebugLevelHoldsUntilTheConfigurationIsReadAgain) {
    configure("[VFS]\ndebug level = 3\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    EXPECT_EQ(debug_level(), 3);
    EXPECT_EQ(ask({{"command", "set-debug-level"}, {"level", 7}})["result"], (Json{{"level", 7}}));
    EXPECT_EQ(debug_level(), 7);
    for (const Json& level : {Json(101), Json(-2), Json("5"), Json(5.5), Json(), Json(true)})
        expect_refused({{"command", "set-debug-level"}, {"level", level}}, 64, "from -1 to 100");
    expect_refused({{"command", "set-debug-level"}}, 64, "level");
    EXPECT_EQ(debug_level(), 7);
    service.signal(SIGHUP);
    EXPECT_TRUE(within(seconds(5), [] { return debug_level() == 3; })) << service.log();
}

TEST_F(ServiceSocket, WhatIsNoCommandIsRefusedWithTheNamesOfThoseThereAre) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    expect_refused({{"command", "explode"}}, 64, "status, load, reload, rollback, flush");
    expect_refused({{"command", ""}}, 64, "no command");
    expect_refused({{"command", "STATUS"}}, 64, "no command");
}

TEST_F(ServiceSocket, NonsenseIsAnsweredAndTheConnectionEnds) {
    configure("[MESSENGER]\nsocket message size = 2048\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const std::string deep = std::string(1500, '[') + "\n";
    const std::string long_line = "{\"command\":\"status\",\"x\":\"" + std::string(2048, 'x');
    for (const std::string& text :
         {std::string("hello\n"), std::string("\n"), std::string("[]\n"), std::string("{}\n"),
          std::string("null\n"), std::string("{\"command\":5}\n"), std::string("{\"command\":\n"),
          std::string("\xff\xfe\n"), std::string("\0\0\n", 3), deep, long_line,
          long_line + "\"}\n"}) {
        SCOPED_TRACE(text.substr(0, 30));
        Client client;
        client.send(text);
        const Json answer = client.answer();
        ASSERT_TRUE(answer.is_object());
        EXPECT_EQ(answer["ok"], false);
        EXPECT_EQ(answer["code"], 64);
        EXPECT_NE(answer["error"], "");
        EXPECT_TRUE(client.ended());
    }
    EXPECT_EQ(status_now()["service"]["pid"], service.pid());
}

TEST_F(ServiceSocket, ALineOfTheLargestSizeIsARequest) {
    configure("[MESSENGER]\nsocket message size = 2048\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    std::string line = R"({"command":"status","x":")";
    line += std::string(2048 - line.size() - 2, 'x') + "\"}";
    ASSERT_EQ(line.size(), 2048U);
    EXPECT_EQ(ask_raw(line + "\n").value("ok", false), true);
}

TEST_F(ServiceSocket, OneConnectionTakesManyRequestsInTheirOrder) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    Client client;
    ASSERT_TRUE(client.connected());
    std::string requests;
    for (int level = 0; level < 20; ++level)
        requests += Json{{"command", "set-debug-level"}, {"level", level}}.dump() + "\n";
    client.send(requests.substr(0, 100));
    client.send(requests.substr(100));
    for (int level = 0; level < 20; ++level)
        EXPECT_EQ(client.answer()["result"], (Json{{"level", level}}));
    client.send("{\"command\":\"nothing\"}\n{\"command\":\"flush\"}\n");
    EXPECT_EQ(client.answer()["ok"], false);
    EXPECT_EQ(client.answer()["result"], (Json{{"records", 0}})) << "a refusal ends nothing";
}

TEST_F(ServiceSocket, ClientsThatWaitGetTheirOwnAnswers) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    std::vector<Json> requests;
    for (const unsigned generation : {1U, 2U, 3U, 4U, 5U})
        requests.push_back(
            load_request(pair_of_generation(generation, 40, 40), std::to_string(generation), true));
    requests.push_back(load_request({"{}", "{}"}, "bad", true));
    std::vector<std::unique_ptr<Client>> clients;
    for (const Json& request : requests) {
        clients.push_back(std::make_unique<Client>());
        clients.back()->send(request.dump() + "\n");
    }
    const Json status = status_now();  // answered meanwhile
    EXPECT_TRUE(status.is_object());
    std::vector<int> jobs;
    for (int i = 0; i < 5; ++i) {
        const Json answer = clients[static_cast<std::size_t>(i)]->answer();
        ASSERT_EQ(answer.value("ok", false), true) << answer;
        EXPECT_EQ(answer["result"]["map"]["generation"], i + 1);
        jobs.push_back(answer["result"]["job"]);
    }
    EXPECT_EQ(clients[5]->answer()["code"], 3);
    EXPECT_EQ(std::set<int>(jobs.begin(), jobs.end()).size(), 5U) << "one number twice";
    EXPECT_EQ(served_generation(), std::max_element(jobs.begin(), jobs.end()) - jobs.begin() + 1);
}

TEST_F(ServiceSocket, AClientThatLeavesDoesNotTakeItsJobAlong) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    {
        const Client client;
        client.send(load_request(pair_of_generation(4, 100, 100), "four", true).dump() + "\n");
        ASSERT_TRUE(within(seconds(5), [] {
            return status_now()["service"]["job"].is_object() || served_generation() == 4;
        }));
    }
    EXPECT_TRUE(serves(4)) << service.log();
    EXPECT_EQ(status_now()["service"]["pid"], service.pid());
}

TEST_F(ServiceSocket, ARunningJobIsInTheStatus) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Json request = load_request(pair_of_generation(4, 300, 150), "four", false);
    const int job = ask(request)["result"]["job"];
    Json running;
    ASSERT_TRUE(within(seconds(10), [&running] {
        running = status_now()["service"];
        return running["job"].is_object();
    })) << service.log();
    EXPECT_EQ(running["state"], "building");
    EXPECT_EQ(running["job"]["number"], job);
    EXPECT_EQ(running["job"]["kind"], "load");
    EXPECT_EQ(running["job"]["source"], request["data"]);
    EXPECT_NEAR(running["job"]["since"].get<double>(), static_cast<double>(std::time(nullptr)), 10);
    EXPECT_TRUE(serves(4)) << service.log();
}

TEST_F(ServiceSocket, OnlyRootMayTalk) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    struct stat st {};
    ASSERT_EQ(stat(kSocket.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    const auto as_user = [] {
        become_user(1001, 1001, {});
        Client client;
        if (!client.connected()) return 1;
        client.send("{\"command\":\"status\"}\n");
        const Json answer = client.answer();
        const bool refused = contains(answer.value("error", ""), "only root");
        return refused && client.ended() ? 2 : 3;
    };
    EXPECT_EQ(run_child(as_user).exit_code, 1);
    ASSERT_EQ(chmod(kSocket.c_str(), 0666), 0);  // somebody's mistake
    EXPECT_EQ(run_child(as_user).exit_code, 2);
    EXPECT_TRUE(service.logs("refused uid 1001")) << service.log();
}

TEST_F(ServiceSocket, MoreConnectionsThanAllowedAreTurnedAwayUntilOneEnds) {
    configure("[MESSENGER]\nsocket backlog = 3\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<Client>());
        clients.back()->send("{\"command\":\"status\"}\n");
        EXPECT_EQ(clients.back()->answer()["ok"], true);
    }
    EXPECT_TRUE(contains(Client().answer().value("error", ""), "too many connections"));
    clients.pop_back();
    EXPECT_TRUE(within(seconds(5), [] { return status_now().is_object(); }));
}

// Every member of the documented example, and no other.
TEST_F(ServiceSocket, StatusHasTheDocumentedMembers) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    ASSERT_EQ(load(1)["ok"], true);
    deliver({"{}", "{}"}, "bad");
    ASSERT_NE(quarantined("bad"), "");
    deliver_file("b.size.json", "{}");
    ASSERT_TRUE(waits_for("b.size.json", "b.data.json"));
    const std::string page = read_file(KAVRIN_DOCS "/kavrind.md");
    const std::size_t begin = page.find("```\n", page.find("The status:")) + 4;
    const Json wanted = Json::parse(page.substr(begin, page.find("```", begin) - begin));
    const Json status = status_now();
    const auto keys = [](const Json& json) {
        std::vector<std::string> names;
        for (const auto& [key, value] : json.items()) names.push_back(key);
        return names;
    };
    EXPECT_EQ(keys(status), keys(wanted));
    for (const auto& [key, value] : wanted.items()) {
        const bool list = value.is_array();
        const Json& real = list ? status[key][0] : status[key];
        EXPECT_EQ(keys(real), keys(list ? value[0] : value)) << key;
        for (const auto& [name, example] : (list ? value[0] : value).items())
            if (!example.is_null()) {
                EXPECT_EQ(real[name].is_number(), example.is_number()) << key << "." << name;
            }
    }
}

}  // namespace
}  // namespace kvtest
