// kavrinctl map build when things go wrong at any moment: its child or itself killed, signals, full
// disks, limits. Whatever happens, the map that was served stays served and the next build works.
#include <sys/mman.h>
#include <sys/mount.h>

#include <csignal>

#include "build_fixture.h"

namespace kvtest {
namespace {

class MapBuildSurvival : public BuildTest {
protected:
    // So that deaths are spread over all of a build, however fast this machine is just now.
    std::chrono::microseconds time_of_a_build(unsigned generation, std::size_t folders,
                                              std::size_t files) {
        write_generation(generation, folders, files);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(build().exit_code, 0);
        return std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - start);
    }
};

TEST_F(MapBuildSurvival, ChildThatIsKilledAtAnyStepChangesNothing) {
    for (const bool first_map : {true, false}) {
        if (!first_map) build_generation(1);
        const long before = first_map ? -1 : 1;
        for (const BuildStep step : {BuildStep::kSized, BuildStep::kCreated, BuildStep::kFilled}) {
            write_generation(2);
            const ChildResult result = build_observed([step](BuildStep now) {
                if (now == step) raise(SIGKILL);
            });
            EXPECT_EQ(result.exit_code, kFailure);
            EXPECT_TRUE(contains(result.err, "signal 9")) << result.err;
            EXPECT_TRUE(pair_is_there());
            expect_served_alone(before);
            EXPECT_EQ(file_exists(kPersisted), !first_map);
        }
    }
}

TEST_F(MapBuildSurvival, ChildThatAbortsIsToldWithItsLastWords) {
    build_generation(1);
    write_generation(2);
    const ChildResult result = build_observed([](BuildStep now) {
        if (now != BuildStep::kCreated) return;
        std::fprintf(stderr, "Assertion `these words' failed.\n");
        std::abort();
    });
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "the library stopped")) << result.err;
    EXPECT_TRUE(contains(result.err, "these words")) << result.err;
    expect_served_alone(1);
}

// Kills the child after a while that differs from round to round, so that the load is met in all
// its parts: parsing, truncating the persisted file, writing it.
TEST_F(MapBuildSurvival, ChildThatIsKilledInTheMiddleOfTheLoadChangesNothing) {
    build_generation(1);
    const auto whole = time_of_a_build(2, 200, 200);
    build_generation(1);
    write_generation(2, 200, 200);
    struct Shared {
        std::atomic<pid_t> child;
    };
    auto* shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    int killed = 0;
    for (int round = 0; round < 12; ++round) {
        shared->child = 0;
        const pid_t killer = fork();
        if (killer == 0) {
            while (shared->child == 0) usleep(200);
            usleep(static_cast<useconds_t>(whole.count() * round / 12));
            kill(shared->child, SIGKILL);
            _exit(0);
        }
        const ChildResult result = build_observed([shared](BuildStep now) {
            if (now == BuildStep::kCreated) shared->child = getpid();
        });
        kill(killer, SIGKILL);
        waitpid(killer, nullptr, 0);
        if (result.exit_code == 0) {  // it was faster
            expect_served_alone(2);
            build_generation(1);
            write_generation(2, 200, 200);
            continue;
        }
        ++killed;
        EXPECT_EQ(result.exit_code, kFailure) << result.err;
        EXPECT_TRUE(pair_is_there());
        expect_served_alone(1);
    }
    EXPECT_GT(killed, 0);
}

// Kills the process that builds, at a step of its own or of its child.
TEST_F(MapBuildSurvival, BuilderThatIsKilledAtAnyStepLeavesTheNextBuildWorking) {
    for (const bool first_map : {true, false}) {
        for (const BuildStep step : kAllSteps) {
            SCOPED_TRACE(testing::Message()
                         << "step " << static_cast<int>(step) << (first_map ? ", first map" : ""));
            if (first_map) {  // as on a new machine
                for (const int table : {0, 1}) shmctl(segment_of(table), IPC_RMID, nullptr);
                destroy_perm_map();
                std::filesystem::remove(kPersisted);
            } else {
                build_generation(1);
            }
            write_generation(2);
            const ChildResult result = build_observed([step](BuildStep now) {
                if (now != step) return;
                kill(is_childs(step) ? getppid() : getpid(), SIGKILL);
                pause();
            });
            EXPECT_EQ(result.signal, SIGKILL);
            wait_for_lock();
            const long served = served_generation();
            if (step >= BuildStep::kSwapped) {
                EXPECT_EQ(served, 2);
            } else {
                EXPECT_EQ(served, first_map ? -1 : 1);
            }
            build_generation(3);
            expect_served_alone(3);
        }
    }
}

TEST_F(MapBuildSurvival, BuilderThatIsKilledAtAnyMomentLeavesTheNextBuildWorking) {
    const auto whole = time_of_a_build(2, 200, 150);
    build_generation(1);
    const Pair big = with_generation(to_pair(tree_of(200, 150)), 2);
    long expected = 1;
    int killed = 0;
    for (int round = 0; round < 16; ++round) {
        write_pair(big);
        const pid_t builder = fork();
        if (builder == 0) {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            const std::string size = size_path();
            const std::string data = data_path();
            const char* const argv[] = {"kavrinctl", "map", "build", size.c_str(), data.c_str()};
            _exit(kvadmin::run(5, argv));
        }
        usleep(static_cast<useconds_t>(whole.count() * round / 16));
        kill(builder, SIGKILL);
        int status = 0;
        waitpid(builder, &status, 0);
        wait_for_lock();
        const long served = served_generation();
        if (WIFSIGNALED(status)) {
            ++killed;
            EXPECT_TRUE(served == expected || served == 2) << served;
        } else {
            EXPECT_EQ(served, 2);
        }
        expected = 100 + round;
        build_generation(static_cast<unsigned>(expected));
        expect_served_alone(expected);
    }
    EXPECT_GT(killed, 3);
}

TEST_F(MapBuildSurvival, LeftOverCopyIsPutBackWhenThePersistedMapIsNotSound) {
    build_generation(1);
    const std::string sound = read_file(kPersisted);
    write_file(kPersisted + ".previous", sound);
    write_file(kPersisted, sound.substr(0, 300));
    write_file(size_path(), "{");  // the build itself need not succeed for that
    write_file(data_path(), "[");
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, kInvalidInput);
    expect_served_alone(1);
    EXPECT_EQ(read_file(kPersisted), sound);
}

TEST_F(MapBuildSurvival, LeftOverCopyIsDroppedWhenThePersistedMapIsSound) {
    build_generation(1);
    write_file(kPersisted + ".previous", read_file(kPersisted));
    write_file(kPersisted + ".previous.new", "half a co");
    write_generation(2);
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_TRUE(contains(result.err, "left by an interrupted build")) << result.err;
    expect_served_alone(2);
}

TEST_F(MapBuildSurvival, SignalToTheBuilderUndoesTheBuild) {
    build_generation(1);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        write_generation(2);
        const ChildResult during = build_observed([number](BuildStep now) {
            if (now != BuildStep::kCreated) return;
            kill(getppid(), number);
            for (;;) pause();
        });
        EXPECT_EQ(during.exit_code, kFailure);
        EXPECT_TRUE(contains(during.err, "interrupted")) << during.err;
        expect_served_alone(1);
        const ChildResult later = build_observed([number](BuildStep now) {
            if (now == BuildStep::kBuilt) raise(number);
        });
        EXPECT_EQ(later.exit_code, kFailure);
        EXPECT_TRUE(contains(later.err, "interrupted")) << later.err;
        EXPECT_TRUE(pair_is_there());
        expect_served_alone(1);
    }
}

TEST_F(MapBuildSurvival, SignalAfterTheSwitchComesTooLate) {
    build_generation(1);
    write_generation(2);
    const ChildResult result = build_observed([](BuildStep now) {
        if (now == BuildStep::kSwapped) raise(SIGTERM);
    });
    EXPECT_EQ(result.exit_code, 0) << result.err;
    expect_served_alone(2);
}

TEST_F(MapBuildSurvival, IgnoredSignalStaysIgnored) {
    write_generation(2);
    const ChildResult result = run_child([this] {
        signal(SIGHUP, SIG_IGN);
        return ending_of([this] {
            kvadmin::build_map(request([](BuildStep now) {
                if (now == BuildStep::kBuilt) raise(SIGHUP);
            }));
        });
    });
    EXPECT_EQ(result.exit_code, 0) << result.err;
    expect_served_alone(2);
}

TEST_F(MapBuildSurvival, BuildThatTakesTooLongIsEnded) {
    build_generation(1);
    write_generation(2);
    const auto start = std::chrono::steady_clock::now();
    const ChildResult result = build_observed(
        [](BuildStep now) {
            if (now == BuildStep::kCreated) sleep(60);
        },
        {0, 1});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "longer than 1 seconds")) << result.err;
    expect_served_alone(1);
}

TEST_F(MapBuildSurvival, BuildThatTakesTooMuchMemoryIsEnded) {
    build_generation(1);
    write_generation(2, 200, 200);
    const ChildResult result = build({"--memory-limit", "1"});
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "nothing was published")) << result.err;
    EXPECT_TRUE(pair_is_there());
    expect_served_alone(1);
    EXPECT_EQ(build().exit_code, 0);
    expect_served_alone(2);
}

// A small disk of its own for the persisted map.
void mount_small_disk(const char* size) {
    ASSERT_EQ(mount("small", "/etc/kavrin", "tmpfs", 0, size), 0) << std::strerror(errno);
}

TEST_F(MapBuildSurvival, FullDiskKeepsTheOldMap) {
    mount_small_disk("size=64k");
    build_generation(1);
    const std::string before = read_file(kPersisted);
    write_generation(2, 40, 40);
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "disk")) << result.err;
    EXPECT_TRUE(pair_is_there());
    EXPECT_EQ(read_file(kPersisted), before);
    expect_served_alone(1);
    build_generation(3);
    expect_served_alone(3);
}

TEST_F(MapBuildSurvival, DiskWithoutRoomForTheCopyKeepsTheOldMap) {
    mount_small_disk("size=64k");
    write_generation(1, 24, 24);
    ASSERT_EQ(build().exit_code, 0);
    ASSERT_GT(std::filesystem::file_size(kPersisted), 34'000u);
    write_generation(2);
    const ChildResult result = build();
    EXPECT_EQ(result.exit_code, kFailure);
    EXPECT_TRUE(contains(result.err, "cannot keep a copy")) << result.err;
    EXPECT_TRUE(pair_is_there());
    expect_served_alone(1);
}

TEST_F(MapBuildSurvival, FirstMapOnAFullDiskLeavesNothing) {
    mount_small_disk("size=64k");
    write_generation(2, 40, 40);
    EXPECT_EQ(build().exit_code, kFailure);
    EXPECT_FALSE(file_exists(kPersisted));
    expect_served_alone(-1);
}

TEST_F(MapBuildSurvival, CopyKeepsOwnerAndMode) {
    build_generation(1);
    ASSERT_EQ(chmod(kPersisted.c_str(), 0640), 0);
    ASSERT_EQ(chown(kPersisted.c_str(), 0, 1234), 0);
    write_generation(2);
    const ChildResult result = build_observed([](BuildStep now) {
        if (now == BuildStep::kFilled) raise(SIGKILL);
    });
    EXPECT_EQ(result.exit_code, kFailure);
    struct stat st {};
    ASSERT_EQ(stat(kPersisted.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_gid, 1234u);
}

// A reader that looks all the time, through builds that succeed, fail and die, always has a map.
TEST_F(MapBuildSurvival, ReadersAreServedThroughout) {
    build_generation(1);
    const pid_t reader = fork();
    if (reader == 0) {
        std::uint64_t looks = 0;
        long last = 0;
        for (;;) {
            const long generation = served_generation_quietly();
            if (generation < last) _exit(generation < 0 ? 10 : 11);
            last = generation;
            ++looks;
            if (file_exists(folder + "/stop")) _exit(looks > 20 ? 0 : 12);
        }
    }
    for (unsigned generation = 2; generation < 30; ++generation) {
        write_generation(generation, 20, 20);
        if (generation % 3 == 0) {
            const BuildStep step = generation % 2 == 0 ? BuildStep::kFilled : BuildStep::kCreated;
            const ChildResult result = build_observed([step](BuildStep now) {
                if (now == step) raise(SIGKILL);
            });
            EXPECT_EQ(result.exit_code, kFailure);
        }
        EXPECT_EQ(build().exit_code, 0);
    }
    write_file(folder + "/stop", "");
    int status = 0;
    waitpid(reader, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10: no map, 11: an older map, 12: hardly looked";
}

}  // namespace
}  // namespace kvtest
