// The control socket among strangers, garbage and clients that misbehave: each gets its answer or
// nothing, and everybody else is answered meanwhile.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "service_survival.h"

namespace kvtest {
namespace {

using kvadmin::Descriptor;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kStatus = "{\"command\":\"status\"}\n";

// A connection that reads and writes only when it is told to; invalid with errno when refused.
Descriptor connection() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kSocket.data(), kSocket.size());
    Descriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return Descriptor(-1);
    return client;
}

bool sent(const Descriptor& client, const std::string& text) {
    return send(client.get(), text.data(), text.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
}

bool is_readable(const Descriptor& client, milliseconds time = seconds(5)) {
    pollfd watched{client.get(), POLLIN, 0};
    return poll(&watched, 1, static_cast<int>(time.count())) > 0;
}

// Up to a newline or the end of the connection.
std::string line_from(const Descriptor& client) {
    std::string text;
    char one = 0;
    while (!text.ends_with('\n') && is_readable(client) && read(client.get(), &one, 1) == 1)
        text += one;
    return text;
}

bool is_closed(const Descriptor& client) {
    char one = 0;
    return is_readable(client) && read(client.get(), &one, 1) <= 0;
}

Json parsed(const std::string& line) {
    return Json::parse(line, nullptr, false);
}

bool is_heard() {
    return ask({{"command", "status"}}).value("ok", false);
}

class ServiceStrangers : public SurvivalTest {
protected:
    void SetUp() override { start(); }
    void TearDown() override {
        EXPECT_TRUE(service().running()) << service().log();
        EXPECT_TRUE(within(seconds(5), [] { return is_heard(); }));
    }
    static void expect_refusal(const Json& answer) {
        ASSERT_TRUE(answer.is_object());
        EXPECT_EQ(answer.value("ok", true), false) << answer;
        EXPECT_GT(answer.value("code", 0), 0) << answer;
        EXPECT_FALSE(answer.value("error", "").empty()) << answer;
    }
    static void become_stranger() {
        if (setresgid(1000, 1000, 1000) != 0 || setresuid(1000, 1000, 1000) != 0) _exit(1);
    }
};

TEST_F(ServiceStrangers, TheSocketIsRootsAlone) {
    struct stat st {};
    ASSERT_EQ(stat(kSocket.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    EXPECT_EQ(st.st_uid, 0U);
    const ChildResult stranger = run_child([] {
        become_stranger();
        const Descriptor client = connection();
        return !client.valid() && errno == EACCES ? 0 : 2;
    });
    EXPECT_EQ(stranger.exit_code, 0) << "2: connected, or refused in another way";
}

// Somebody opened it up by hand.
TEST_F(ServiceStrangers, AnotherUserIsRefusedEvenWhenTheModeWasChanged) {
    ASSERT_EQ(chmod(kSocket.c_str(), 0666), 0);
    for (const char* request : {kStatus, "{\"command\":\"set-debug-level\",\"level\":9}\n"}) {
        const ChildResult stranger = run_child([request] {
            become_stranger();
            const Descriptor client = connection();
            if (!client.valid()) return 2;
            sent(client, request);
            std::printf("%s", line_from(client).c_str());
            std::fflush(stdout);
            return is_closed(client) ? 0 : 3;
        });
        EXPECT_EQ(stranger.exit_code, 0);
        expect_refusal(parsed(stranger.out));
        EXPECT_NE(stranger.out.find("root"), std::string::npos) << stranger.out;
    }
    EXPECT_EQ(shared_number(PARAM_DEBUG_LEVEL), 0) << "the request was obeyed";
    EXPECT_TRUE(is_heard());
}

TEST_F(ServiceStrangers, GarbageIsAnsweredWithAnErrorAndClosed) {
    std::string all_bytes;
    for (int i = 0; i < 256; ++i)
        if (i != '\n') all_bytes += static_cast<char>(i);
    const std::string garbage[] = {
        "status",
        "",
        " ",
        "[]",
        "17",
        "null",
        "{",
        "{}",
        "{\"a\":1}",
        "{\"command\":7}",
        "{\"command\":\"status\"",
        all_bytes,
        std::string(3, '\0'),
        "{\"command\":\"\xff\xfe\"}",
        std::string(60'000, '['),
        "{\"command\":\"status\"} {\"command\":\"status\"}",
    };
    for (const std::string& line : garbage) {
        SCOPED_TRACE(line.substr(0, 40));
        const Descriptor client = connection();
        ASSERT_TRUE(client.valid());
        EXPECT_TRUE(sent(client, line + "\n"));
        expect_refusal(parsed(line_from(client)));
        EXPECT_TRUE(is_closed(client));
        EXPECT_TRUE(is_heard());
    }
}

TEST_F(ServiceStrangers, ALineThatIsTooLongIsAnsweredWithAnErrorAndClosed) {
    for (const char* end : {"\n", ""}) {
        const Descriptor client = connection();
        sent(client, "{\"command\":\"" + std::string(65'536, 'x') + "\"}" + end);
        expect_refusal(parsed(line_from(client)));
        EXPECT_TRUE(is_closed(client));
    }
    const Descriptor client = connection();  // as long as can be
    const std::string request = "{\"command\":\"status\"}";
    EXPECT_TRUE(sent(client, request + std::string(65'536 - request.size(), ' ') + "\n"));
    EXPECT_EQ(parsed(line_from(client)).value("ok", false), true);
}

TEST_F(ServiceStrangers, ALineThatDoesNotEndHoldsNobodyUp) {
    const Descriptor slow = connection();
    EXPECT_TRUE(sent(slow, "{\"command\":"));
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(is_heard());
    serve(1);
    EXPECT_TRUE(sent(slow, "\"status\"}\n"));
    const Json answer = parsed(line_from(slow));
    EXPECT_EQ(answer.value("ok", false), true);
    EXPECT_EQ(answer["result"]["map"]["generation"], 1);
}

TEST_F(ServiceStrangers, RequestsByteByByteAndManyInOneWriteAreAnsweredInTheirOrder) {
    const Descriptor client = connection();
    for (const char c : std::string(kStatus)) EXPECT_TRUE(sent(client, std::string(1, c)));
    EXPECT_EQ(parsed(line_from(client)).value("ok", false), true);
    std::string many;
    for (int level = 0; level < 100; ++level)
        many += Json{{"command", "set-debug-level"}, {"level", level}}.dump() + "\n";
    EXPECT_TRUE(sent(client, many));
    for (int level = 0; level < 100; ++level)
        EXPECT_EQ(parsed(line_from(client))["result"]["level"], level);
}

// More than are heard at once: each is answered, if only with an error, and none is left over.
TEST_F(ServiceStrangers, FiftyConnectionsAtOnceAreEachAnswered) {
    const std::size_t before = descriptors_of(service().pid());
    std::vector<Descriptor> clients;
    int heard = 0;
    for (int i = 0; i < 50; ++i) {
        clients.push_back(connection());
        ASSERT_TRUE(clients.back().valid()) << i;
        sent(clients.back(), kStatus);
    }
    for (const Descriptor& client : clients) {
        const Json answer = parsed(line_from(client));
        ASSERT_TRUE(answer.is_object());
        if (answer.value("ok", false))
            ++heard;
        else
            expect_refusal(answer);
    }
    EXPECT_GE(heard, 16);
    clients.clear();
    EXPECT_TRUE(within(seconds(5), [] { return is_heard(); }));
    EXPECT_TRUE(within(seconds(5), [&] { return descriptors_of(service().pid()) <= before; }))
        << "connections are left open";
}

TEST_F(ServiceStrangers, AConnectionThatIsClosedInTheMiddleLeavesNothing) {
    const std::size_t before = descriptors_of(service().pid());
    const std::string folder = make_temp_dir();
    for (unsigned generation = 1; generation < 4; ++generation) {
        const Pair pair = pair_of_generation(generation, 80, 80);
        write_file(folder + "/size.json", pair.size_json);
        write_file(folder + "/data.json", pair.data_json);
        {
            const Descriptor client = connection();
            const Json request{{"command", "load"},
                               {"size", folder + "/size.json"},
                               {"data", folder + "/data.json"},
                               {"wait", true}};
            EXPECT_TRUE(sent(client, request.dump() + "\n"));
            if (generation == 2) shutdown(client.get(), SHUT_WR);
            EXPECT_TRUE(
                within(seconds(5), [] { return status_now()["service"]["state"] == "building"; }));
        }
        sent(connection(), "{\"command\":\"sta");
        EXPECT_TRUE(serves(generation)) << service().log();
    }
    EXPECT_TRUE(within(seconds(5), [] { return status_now()["service"]["state"] == "idle"; }));
    EXPECT_TRUE(within(seconds(5), [&] { return descriptors_of(service().pid()) <= before; }));
}

// It asks for ever and takes no answer: the service neither waits for it nor keeps all of it.
TEST_F(ServiceStrangers, AClientThatNeverReadsHoldsNobodyUp) {
    const long before = resident_kib_of(service().pid());
    const Descriptor deaf = connection();
    ASSERT_EQ(fcntl(deaf.get(), F_SETFL, O_NONBLOCK), 0);
    std::string many;
    for (int i = 0; i < 1000; ++i) many += kStatus;
    std::size_t taken = 0;
    bool stuck = false;
    while (!stuck && taken < 40'000'000) {
        const ssize_t put = send(deaf.get(), many.data(), many.size(), MSG_NOSIGNAL);
        if (put > 0) taken += static_cast<std::size_t>(put);
        pollfd watched{deaf.get(), POLLOUT, 0};
        stuck = put < 0 && poll(&watched, 1, 500) == 0;
    }
    EXPECT_TRUE(stuck) << "40 MB of requests were taken";
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(is_heard());
    serve(1);
    EXPECT_LT(resident_kib_of(service().pid()), before + kKeptKib) << "answers pile up";
}

TEST_F(ServiceStrangers, ADeadOnesSocketIsReplacedAndAnotherFileIsNot) {
    service().kill_it();
    EXPECT_TRUE(file_exists(kSocket)) << "a kill leaves it";
    start();
    EXPECT_EQ(service().end(), 0);
    EXPECT_FALSE(file_exists(kSocket));
    write_file(kSocket, "somebody's");
    EXPECT_EQ(run_service({"--foreground"}).exit_code, 1);
    EXPECT_EQ(read_file(kSocket), "somebody's");
    ASSERT_EQ(unlink(kSocket.c_str()), 0);
    start();
}

}  // namespace
}  // namespace kvtest
