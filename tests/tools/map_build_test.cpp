// kavrinctl map build: what it publishes, and that whatever goes wrong on the way, at any moment
// and to any of its processes, leaves the map that was served as it was and the next build able to
// work.
#include <sys/mman.h>
#include <sys/sem.h>

#include <csignal>
#include <cstring>
#include <nlohmann/json.hpp>

#include "build_fixture.h"
#include "persisted_copy.h"

namespace kvtest {
namespace {

class MapBuild : public BuildTest {};

TEST_F(MapBuild, FirstMapIsPublishedAndThePairRemoved) {
    write_pair({kExampleSize, kExampleData});
    const ChildResult result = build();
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_TRUE(contains(result.out,
                         "published \"perm_map_A\", generation 1187, as table 1: 5 "
                         "elements, 6 ACEs, 581 bytes"))
        << result.out;
    EXPECT_EQ(result.err, "");
    EXPECT_FALSE(file_exists(size_path()));
    EXPECT_FALSE(file_exists(data_path()));
    expect_served_alone(1187);
    EXPECT_EQ(map_initialized(0), 1);
    EXPECT_EQ(persisted_bytes(), build_image(kExampleSize, kExampleData));
}

TEST_F(MapBuild, NextMapGoesIntoTheOtherTable) {
    for (unsigned generation = 1; generation <= 4; ++generation) {
        build_generation(generation);
        expect_served_alone(generation);
        EXPECT_EQ(get_current_perm_table_index(), generation % 2);
        EXPECT_EQ(map_initialized(0), 1);
    }
}

TEST_F(MapBuild, KeepLeavesBothFiles) {
    write_generation(7);
    ASSERT_EQ(build({"--keep"}).exit_code, 0);
    EXPECT_TRUE(pair_is_there());
    expect_served_alone(7);
}

TEST_F(MapBuild, JsonTellsWhatWasPublished) {
    write_generation(7);
    const ChildResult result = build({"--json"});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    const nlohmann::json document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["generation"], 7);
    EXPECT_EQ(document["elements"], 10);
    EXPECT_EQ(document["aces"], 6);
    EXPECT_EQ(document["bytes"], persisted_bytes().size());
    EXPECT_EQ(document["table"], 1);
    EXPECT_EQ(document["segment"], segment_of(1));
    EXPECT_EQ(document["map"], "test_map");
    EXPECT_TRUE(document["remarks"].empty());
    EXPECT_GE(document["seconds"].get<double>(), 0.0);
}

TEST_F(MapBuild, PairBehindSymbolicLinksIsBuiltAndTheLinksRemoved) {
    write_generation(7);
    const std::string size_link = folder + "/s";
    const std::string data_link = folder + "/d";
    std::filesystem::create_symlink("size.json", size_link);
    std::filesystem::create_symlink("data.json", data_link);
    ASSERT_EQ(run_tool({"map", "build", size_link, data_link}).exit_code, 0);
    EXPECT_FALSE(file_exists(size_link));
    EXPECT_FALSE(file_exists(data_link));
    EXPECT_TRUE(pair_is_there());
}

TEST_F(MapBuild, RelativePathsAreUnderstood) {
    write_generation(7);
    const ChildResult result = run_child([this] {
        if (chdir(folder.c_str()) != 0) return 99;
        const char* const argv[] = {"kavrinctl", "map", "build", "size.json", "data.json"};
        return kvadmin::run(5, argv);
    });
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_FALSE(file_exists(size_path()));
    expect_served_alone(7);
}

TEST_F(MapBuild, DirtyPairIsRefusedAndLeftWhereItIs) {
    build_generation(1);
    Pair pair = with_generation(to_pair(tree_of(2, 3)), 2);
    const std::size_t at = pair.size_json.find("\"TOTALACES\":6");
    ASSERT_NE(at, std::string::npos);
    pair.size_json.replace(at, 13, "\"TOTALACES\":5");
    write_pair(pair);
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, kInvalidInput);
    EXPECT_TRUE(contains(result.err, "TOTALACES")) << result.err;
    EXPECT_TRUE(contains(result.err, "nothing was built")) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(pair_is_there());
    expect_served_alone(1);
}

TEST_F(MapBuild, DocumentCutShortIsRefused) {
    build_generation(1);
    write_generation(2);
    const std::string data = read_file(data_path());
    write_file(data_path(), data.substr(0, data.size() / 2));
    EXPECT_EQ(build().exit_code, kInvalidInput);
    EXPECT_TRUE(pair_is_there());
    expect_served_alone(1);
}

TEST_F(MapBuild, MissingFileIsAFailureThatNamesIt) {
    write_generation(1);
    std::filesystem::remove(data_path());
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, data_path())) << result.err;
    EXPECT_TRUE(file_exists(size_path()));
    expect_served_alone(-1);
}

TEST_F(MapBuild, FolderAndFifoAreNoFiles) {
    write_generation(1);
    EXPECT_EQ(run_tool({"map", "build", size_path(), folder}).exit_code, kFailure);
    const std::string fifo = folder + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(run_tool({"map", "build", size_path(), fifo}).exit_code, kFailure);
}

TEST_F(MapBuild, OneFileTwiceIsAUsageError) {
    write_generation(1);
    EXPECT_EQ(run_tool({"map", "build", size_path(), size_path()}).exit_code, kUsage);
    EXPECT_EQ(run_tool({"map", "build", size_path()}).exit_code, kUsage);
    EXPECT_TRUE(pair_is_there());
}

TEST_F(MapBuild, OnlyRootBuilds) {
    write_generation(1);
    const ChildResult result = run_child([this] {
        if (seteuid(2001) != 0) return 99;
        return ending_of([this] {
            kvadmin::require_root("map build");
            kvadmin::build_map(request());
        });
    });
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "root")) << result.err;
}

TEST_F(MapBuild, SecondBuildAtTheSameTimeIsTurnedAway) {
    build_generation(1);
    write_generation(2);
    const int fd = open_build_lock();
    ASSERT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "another build")) << result.err;
    EXPECT_TRUE(pair_is_there());
    expect_served_alone(1);
    close(fd);
    EXPECT_EQ(build().exit_code, 0);
    expect_served_alone(2);
}

TEST_F(MapBuild, LockIsHeldFromTheCheckUntilTheFilesAreGone) {
    write_generation(1);
    int* busy = static_cast<int*>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const ChildResult result = build_observed([busy](BuildStep) {
        const int fd = open_build_lock();
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) ++*busy;
        close(fd);
    });
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(*busy, static_cast<int>(std::size(kAllSteps)));
}

TEST_F(MapBuild, LiveSemaphoreSetIsNeverReset) {
    build_generation(1);
    const int set = semget(ftok("/dev/null", 7065), 0, 0);
    ASSERT_EQ(semctl(set, 0, GETVAL), 1);
    write_generation(2);
    const ChildResult result = build_observed([set](BuildStep step) {
        const bool swapped = step >= BuildStep::kSwapped;
        if (semctl(set, 0, GETVAL) != (swapped ? 0 : 1) || semctl(set, 1, GETVAL) != 1) _exit(98);
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(semget(ftok("/dev/null", 7065), 0, 0), set);
}

TEST_F(MapBuild, ImpossibleSemaphoreValueIsNamedInsteadOfEndingTheProcess) {
    build_generation(1);
    const int set = semget(ftok("/dev/null", 7065), 0, 0);
    ASSERT_EQ(semctl(set, 0, SETVAL, 2), 0);
    write_generation(2);
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "ipcrm -s " + std::to_string(set))) << result.err;
    EXPECT_TRUE(pair_is_there());
}

TEST_F(MapBuild, StaleSegmentIsRemovedWithARemark) {
    build_generation(1);
    const int stale = shmget(kTableKeys[0], 4096, IPC_CREAT | IPC_EXCL);
    ASSERT_GE(stale, 0);
    write_generation(2);
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_TRUE(contains(result.err, "removed shared-memory segment " + std::to_string(stale)))
        << result.err;
    expect_served_alone(2);
}

// Every way in which a file can change under a build.
void append(const std::string& path) {
    write_file(path, read_file(path) + " ");
}
void replace(const std::string& path) {
    write_file(path + ".new", read_file(path));
    std::filesystem::rename(path + ".new", path);
}
void cut(const std::string& path) {
    const std::string text = read_file(path);
    write_file(path, text.substr(0, text.size() / 2));
}
void rewrite(const std::string& path) {
    write_file(path, read_file(path));
}

TEST_F(MapBuild, PairThatChangesAfterTheCheckIsNotPublished) {
    build_generation(1);
    for (const BuildStep step : {BuildStep::kChecked, BuildStep::kSized, BuildStep::kFilled}) {
        for (const auto& change : {append, replace, cut, rewrite}) {
            for (const bool size_file : {true, false}) {
                write_generation(2);
                // The kernel's clock for file times ticks in milliseconds.
                std::this_thread::sleep_for(std::chrono::milliseconds(15));
                const std::string path = size_file ? size_path() : data_path();
                const ChildResult result = build_observed([&](BuildStep now) {
                    if (now == step) change(path);
                });
                EXPECT_EQ(result.exit_code, kFailure) << result.err;
                EXPECT_TRUE(contains(result.err, "was changed") ||
                            contains(result.err, "not what was checked"))
                    << result.err;
                EXPECT_TRUE(pair_is_there());
                expect_served_alone(1);
            }
        }
    }
}

TEST_F(MapBuild, FileThatIsReplacedAfterTheSwitchStays) {
    write_generation(2);
    const ChildResult result = build_observed([this](BuildStep now) {
        if (now == BuildStep::kSwapped) replace(data_path());
    });
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_TRUE(contains(result.err, "another file by now")) << result.err;
    EXPECT_TRUE(file_exists(data_path()));
    EXPECT_FALSE(file_exists(size_path()));
    expect_served_alone(2);
}

}  // namespace
}  // namespace kvtest
