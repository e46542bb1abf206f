// kavrinctl map load: the persisted map becomes the current one again, as after a restart of the
// machine, or the command says why not and the map that is served stays.
#include <csignal>
#include <nlohmann/json.hpp>

#include "build_fixture.h"

namespace kvtest {
namespace {

constexpr BuildStep kLoadSteps[] = {
    BuildStep::kLocked,  BuildStep::kChecked, BuildStep::kCleared,     BuildStep::kSized,
    BuildStep::kCreated, BuildStep::kFilled,  BuildStep::kBuilt,       BuildStep::kVerified,
    BuildStep::kKept,    BuildStep::kSwapped, BuildStep::kInitialised, BuildStep::kMarked};

class MapLoad : public BuildTest {
protected:
    static ChildResult load(std::vector<std::string> more = {}) {
        std::vector<std::string> arguments{"map", "load"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run_tool(arguments);
    }
    static kvadmin::PublishOptions options_with(const kvadmin::StepObserver& on_step) {
        kvadmin::PublishOptions options;
        options.on_step = on_step;
        return options;
    }
    static ChildResult load_observed(const kvadmin::StepObserver& on_step) {
        return run_child(
            [&] { return ending_of([&on_step] { kvadmin::load_map(options_with(on_step)); }); });
    }
    // What a restart leaves of the System V objects.
    static void restart_machine() {
        for (const int table : {0, 1}) shmctl(segment_of(table), IPC_RMID, nullptr);
        ASSERT_EQ(init_perm_map_semaphore(), 0);
        destroy_perm_map();
    }
};

TEST_F(MapLoad, PersistedMapIsServedAfterARestart) {
    build_generation(5);
    const std::string before = read_file(kPersisted);
    restart_machine();
    ASSERT_EQ(served_generation(), -1);
    const ChildResult result = load();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.out.find("loaded \"test_map\", generation 5"), std::string::npos)
        << result.out;
    expect_served_alone(5);
    EXPECT_EQ(map_initialized(0), 1);
    EXPECT_EQ(read_file(kPersisted), before);
}

TEST_F(MapLoad, LoadingAgainSwitchesTablesAndServesTheSame) {
    build_generation(5);
    for (int i = 0; i < 3; ++i) {
        const int table = get_current_perm_table_index();
        EXPECT_EQ(load().exit_code, 0);
        EXPECT_EQ(get_current_perm_table_index(), 1 - table);
        expect_served_alone(5);
    }
}

TEST_F(MapLoad, JsonTellsWhatWasLoaded) {
    build_generation(5);
    const ChildResult result = load({"--json"});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    const nlohmann::json document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["generation"], 5);
    EXPECT_EQ(document["elements"], 10);
    EXPECT_EQ(document["bytes"], persisted_bytes().size());
    EXPECT_EQ(document["table"], get_current_perm_table_index());
}

TEST_F(MapLoad, WithoutAPersistedMapThereIsNothingToLoad) {
    const ChildResult result = load();
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_NE(result.err.find("no persisted map"), std::string::npos) << result.err;
    expect_served_alone(-1);
}

TEST_F(MapLoad, DamagedFileIsRefusedAndTheCurrentMapStays) {
    build_generation(5);
    const std::string sound = read_file(kPersisted);
    const auto with_byte = [&sound](std::size_t at, char value) {
        std::string text = sound;
        text[at] = value;
        return text;
    };
    const struct {
        const char* what;
        std::string content;
    } damages[] = {{"signature", with_byte(172, 0x42)},
                   {"region offset outside", with_byte(139, 0x7f)},
                   {"element count", with_byte(112, 0x11)},
                   {"name offset of the first child", with_byte(176 + 24 + 10, 0x7f)},
                   {"one byte short", sound.substr(0, sound.size() - 1)},
                   {"one byte long", sound + '\0'},
                   {"header cut", sound.substr(0, 100)},
                   {"empty", ""}};
    for (const auto& damage : damages) {
        SCOPED_TRACE(damage.what);
        write_file(kPersisted, damage.content);
        const ChildResult result = load();
        EXPECT_EQ(result.exit_code, kInvalidInput);
        EXPECT_NE(result.err.find("is damaged"), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("nothing was loaded"), std::string::npos) << result.err;
        EXPECT_EQ(served_generation(), 5);
        EXPECT_EQ(segment_of(1 - get_current_perm_table_index()), -1);
        EXPECT_EQ(read_file(kPersisted), damage.content);
    }
    write_file(kPersisted, sound);
    EXPECT_EQ(load().exit_code, 0);
    expect_served_alone(5);
}

TEST_F(MapLoad, CopyOfAnInterruptedBuildIsPutBackFirst) {
    build_generation(5);
    const std::string sound = read_file(kPersisted);
    restart_machine();
    write_file(kPersisted + ".previous", sound);
    write_file(kPersisted, "");
    const ChildResult result = load();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.err.find("put "), std::string::npos) << result.err;
    expect_served_alone(5);
}

TEST_F(MapLoad, LoadAndBuildExcludeEachOther) {
    build_generation(5);
    const int fd = open_build_lock();
    ASSERT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(load().exit_code, kFailure);
    close(fd);
    EXPECT_EQ(load().exit_code, 0);
}

TEST_F(MapLoad, ChildThatIsKilledAtAnyStepChangesNothing) {
    build_generation(5);
    for (const BuildStep step : {BuildStep::kSized, BuildStep::kCreated, BuildStep::kFilled}) {
        const ChildResult result = load_observed([step](BuildStep now) {
            if (now == step) raise(SIGKILL);
        });
        EXPECT_EQ(result.exit_code, kFailure);
        expect_served_alone(5);
    }
}

TEST_F(MapLoad, LoaderThatIsKilledAtAnyStepLeavesTheNextLoadWorking) {
    build_generation(5);
    for (const bool restarted : {true, false}) {
        for (const BuildStep step : kLoadSteps) {
            SCOPED_TRACE(testing::Message() << "step " << static_cast<int>(step));
            if (restarted) restart_machine();
            const ChildResult result = load_observed([step](BuildStep now) {
                if (now != step) return;
                kill(is_childs(step) ? getppid() : getpid(), SIGKILL);
                pause();
            });
            EXPECT_EQ(result.signal, SIGKILL);
            wait_for_lock();
            EXPECT_EQ(served_generation(), restarted && step < BuildStep::kSwapped ? -1 : 5);
            EXPECT_EQ(load().exit_code, 0);
            expect_served_alone(5);
        }
    }
}

}  // namespace
}  // namespace kvtest
