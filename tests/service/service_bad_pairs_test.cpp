// Pairs that must not be served: each kind goes into quarantine as it came, with the reason and its
// place, and changes nothing. So do pairs that need more than a build may have.
#include <signal.h>

#include <filesystem>

#include "service_watch.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

// "3:14": where that text stands, counted by hand.
std::string place_of(const std::string& text, std::size_t at) {
    const std::size_t begin = at == 0 ? std::string::npos : text.rfind('\n', at - 1);
    std::size_t line = 1;
    for (std::size_t i = 0; i < at; ++i) line += text[i] == '\n' ? 1 : 0;
    return std::to_string(line) + ":" +
           std::to_string(begin == std::string::npos ? at + 1 : at - begin);
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

struct BadPair {
    std::string name;
    Pair pair;
    std::string in_reason;  // "data.json:1:1: ", or other words
};

// The place where `marker` stands in the bad file.
std::string at(const char* file, const std::string& text, const std::string& marker) {
    const std::size_t found = text.find(marker);
    EXPECT_NE(found, std::string::npos) << marker;
    return std::string(file) + ":" + place_of(text, found) + ": ";
}

BadPair bad_size(const std::string& name, const std::string& from, const std::string& to,
                 const std::string& marker) {
    const std::string text = replaced(kExampleSize, from, to);
    return {name, {text, kExampleData}, at("size.json", text, marker)};
}

BadPair bad_data(const std::string& name, const std::string& from, const std::string& to,
                 const std::string& marker) {
    const std::string text = replaced(kExampleData, from, to);
    return {name, {kExampleSize, text}, at("data.json", text, marker)};
}

std::vector<BadPair> broken_pairs() {
    const std::string size = kExampleSize;
    const std::string data = kExampleData;
    const std::string cut = data.substr(0, data.size() / 2);
    Node nested{"leaf", {}, {}, {}};
    for (int i = 0; i < 2500; ++i) {
        Node outer{"d", {}, {}, {}};
        outer.children.push_back(std::move(nested));
        nested = std::move(outer);
    }
    return {
        {"cut", {size, cut}, "data.json:" + place_of(cut, cut.size()) + ": "},
        {"text", {size, "no map, but a letter\n"}, "data.json:1:1: "},
        {"no-data", {size, ""}, "data.json:1:1: "},
        {"no-size", {"", data}, "size.json:1:1: "},
        {"swapped", {data, size}, "data.json:1:1: "},
        {"behind", {size, data + "[]"}, "data.json:" + place_of(data, data.size()) + ": "},
        {"deep", to_pair(Node{"/", {}, {}, {std::move(nested)}}), "levels deep"},
    };
}

std::vector<BadPair> wrong_pairs() {
    return {
        bad_size("count", "\"TOTALFSELEMS\": 5", "\"TOTALFSELEMS\": 6", "6,\n  \"TOTALACES"),
        bad_size("twice", "\"TOTALACES\": 6,", "\"TOTALACES\": 6, \"TOTALACES\" : 6,",
                 "\"TOTALACES\" :"),
        bad_size("generation", "1187", "\"new\"", "\"new\""),
        bad_size("no-version", "\"VERSION\"", "\"VERSIONS\"", "\"VERSIONS\""),
        bad_data("mask", "{\"1002\": 3}", "{\"1002\": 4294967296}", "4294967296"),
        bad_data("nobody", "{\"1002\": 3}", "{\"anna\": 3}", "\"anna\""),
        bad_data("children", "{\"NUMCHILDREN\": 2}", "{\"NUMCHILDREN\": 3}", "3},\n"),
        bad_data("zero", "\"report.txt\"", "\"report\\u0000txt\"", "\"report\\u0000"),
        bad_data("long", "\"report.txt\"", "\"" + std::string(70'000, 'n') + "\"", "\"nnn"),
        bad_data("bytes", "\"report.txt\"", "\"report\xff\"", "\xff"),
    };
}

class ServiceBadPairs : public WatchTest {
protected:
    // Both files lie in a folder of their own, byte for byte, beside what is wrong with them.
    static void expect_set_aside(const BadPair& bad, const std::string& folder) {
        EXPECT_EQ(names_in(folder),
                  (std::vector<std::string>{"data.json", "reason.txt", "size.json"}));
        EXPECT_TRUE(read_file(folder + "/size.json") == bad.pair.size_json);
        EXPECT_TRUE(read_file(folder + "/data.json") == bad.pair.data_json);
        const std::string reason = read_file(folder + "/reason.txt");
        EXPECT_TRUE(contains(reason, bad.in_reason)) << bad.in_reason << "\n" << reason;
        EXPECT_FALSE(contains(reason, kWork)) << reason << "\nnames what is gone";
    }

    // Generation 1 is served, and then every one of these fails.
    static void expect_each_is_set_aside(const std::vector<BadPair>& pairs) {
        RunningService service;
        ASSERT_TRUE(service.ready()) << service.log();
        deliver(pair_of_generation(1));
        ASSERT_TRUE(serves(1)) << service.log();
        ASSERT_TRUE(is_idle());
        const Json map = status_now()["map"];
        const std::string persisted = read_file(kPersisted);
        std::uint64_t failures = 0;
        for (const BadPair& bad : pairs) {
            SCOPED_TRACE(bad.name);
            deliver(bad.pair, bad.name);
            const std::string folder = quarantined(bad.name);
            ASSERT_NE(folder, "") << service.log();
            ASSERT_TRUE(is_idle());
            expect_set_aside(bad, folder);
            const Json status = status_now();
            const Json& failure = status["last_failure"];
            EXPECT_EQ(failure["source"], kIncoming + "/" + bad.name + ".data.json");
            EXPECT_EQ(failure["quarantine"], folder);
            EXPECT_NE(failure["error"], "");
            EXPECT_EQ(status["counters"]["build_failures"], ++failures);
            EXPECT_EQ(status["map"]["sha256"], map["sha256"]);
            EXPECT_EQ(status["map"]["published"], map["published"]);
            EXPECT_EQ(served_generation(), 1);
        }
        EXPECT_EQ(counter("builds"), 1U);
        EXPECT_EQ(read_file(kPersisted), persisted);
        expect_nothing_left();
        EXPECT_EQ(left_in_incoming(), std::vector<std::string>{});
        deliver(pair_of_generation(2), pairs.front().name);  // a good one under a bad one's name
        EXPECT_TRUE(serves(2)) << service.log();
        EXPECT_FALSE(status_now()["last_failure"].is_null()) << "it is still what failed last";
    }
};

TEST_F(ServiceBadPairs, AreSetAsideAsTheyCameWhenAFileIsNoDocument) {
    expect_each_is_set_aside(broken_pairs());
}

TEST_F(ServiceBadPairs, AreSetAsideAsTheyCameWhenAValueIsWrong) {
    expect_each_is_set_aside(wrong_pairs());
}

TEST_F(ServiceBadPairs, TheOldestInQuarantineGoWhenThereAreTooMany) {
    configure("[KAVRIND]\nkept failures = 2\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    std::vector<std::string> folders;
    for (const char* name : {"one", "two", "three", "four"}) {
        deliver({"{}", "{}"}, name);
        folders.push_back(quarantined(name));
        ASSERT_NE(folders.back(), "") << service.log();
    }
    ASSERT_TRUE(within(seconds(5), [] { return names_in(kQuarantine).size() == 2; }));
    EXPECT_TRUE(fs::exists(folders[2]) && fs::exists(folders[3]));
    EXPECT_TRUE(service.logs("removed " + folders[0])) << service.log();
    EXPECT_TRUE(service.logs("removed " + folders[1])) << service.log();
}

TEST_F(ServiceBadPairs, ABuildThatNeedsMoreMemoryThanAllowedFails) {
    configure("[KAVRIND]\nbuild memory limit = 1\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    deliver(pair_of_generation(1));
    ASSERT_TRUE(serves(1)) << "a small one needs less\n" << service.log();
    const Pair big = pair_of_generation(2, 200, 200);
    deliver(big, "big");
    const std::string folder = quarantined("big");
    ASSERT_NE(folder, "") << service.log();
    EXPECT_TRUE(contains(read_file(folder + "/reason.txt"), "memory"))
        << read_file(folder + "/reason.txt");
    EXPECT_TRUE(read_file(folder + "/data.json") == big.data_json);
    EXPECT_EQ(served_generation(), 1);
    EXPECT_EQ(counter("build_failures"), 1U);
    ASSERT_TRUE(is_idle());
    expect_nothing_left();
    configure("[KAVRIND]\nbuild memory limit = 0\n");
    service.signal(SIGHUP);
    ASSERT_TRUE(service.logs("again")) << service.log();
    deliver(big, "big");
    EXPECT_TRUE(serves(2)) << service.log();
}

// The process that fills the image is held still: it takes longer than any machine would.
TEST_F(ServiceBadPairs, ABuildThatTakesLongerThanAllowedFails) {
    configure("[KAVRIND]\nbuild time limit = 1\n");
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    deliver(pair_of_generation(1));
    ASSERT_TRUE(serves(1)) << service.log();
    ASSERT_TRUE(is_idle());
    deliver(pair_of_generation(2, 600, 200), "slow");
    pid_t filler = -1;
    ASSERT_TRUE(within(seconds(10), [&] {
        filler = filler_of(service.pid());
        return filler > 0;
    })) << service.log();
    const Stopped stopped(filler);
    const std::string folder = quarantined("slow");
    ASSERT_NE(folder, "") << service.log();
    EXPECT_TRUE(contains(read_file(folder + "/reason.txt"), "longer than 1 second"))
        << read_file(folder + "/reason.txt");
    EXPECT_EQ(served_generation(), 1);
    EXPECT_EQ(status_now()["last_failure"]["quarantine"], folder);
    ASSERT_TRUE(is_idle());
    expect_nothing_left();
}

}  // namespace
}  // namespace kvtest
