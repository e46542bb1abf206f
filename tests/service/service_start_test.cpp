// The service's plain life: a start, a pair, a restart, an end.
#include <signal.h>

#include <filesystem>

#include "service_fixture.h"

namespace kvtest {
namespace {

using ServiceStart = ServiceTest;

TEST_F(ServiceStart, FirstStartMakesEverythingAndServesNothing) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    const Json status = status_now();
    EXPECT_TRUE(status["map"].is_null());
    EXPECT_EQ(status["service"]["state"], "idle");
    EXPECT_EQ(status["staging"]["size"], 1'048'576);
    for (const char* folder : {"/kavrin/.conf", "/kavrin/staging", "/kavrin/auditing"})
        EXPECT_TRUE(std::filesystem::is_directory(folder)) << folder;
    EXPECT_EQ(service.end(), 0);
}

TEST_F(ServiceStart, APairIsBuiltServedAndRemoved) {
    RunningService service;
    ASSERT_TRUE(service.ready()) << service.log();
    deliver(pair_of_generation(7));
    EXPECT_TRUE(serves(7)) << service.log();
    expect_nothing_left();
    EXPECT_TRUE(file_exists(kMarker));
    EXPECT_EQ(names_in(kIncoming), (std::vector<std::string>{".work", "quarantine"}));
    const Json map = status_now()["map"];
    EXPECT_EQ(map["generation"], 7);
    EXPECT_EQ(map["built_by"], "kavrind");
    EXPECT_EQ(map["source"], kIncoming + "/data.json");
    EXPECT_EQ(service.end(), 0);
    EXPECT_EQ(served_generation(), 7) << "the map stays when the service ends";
}

}  // namespace
}  // namespace kvtest
