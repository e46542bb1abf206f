// The ways back to a map: going back to a kept one, and a start beside a share at work or after a
// boot. Whatever dies on the way, at whichever step, one whole map is served, and the next start
// makes good what was left.
#include <sys/mman.h>
#include <sys/sem.h>

#include <csignal>

#include "build_fixture.h"
#include "digest.h"
#include "kept_maps.h"
#include "whole_file.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using kvadmin::kept_image_path;
using kvadmin::kept_maps;
using kvadmin::MapRecord;

std::vector<unsigned> kept_numbers() {
    std::vector<unsigned> numbers;
    for (const MapRecord& record : kept_maps()) numbers.push_back(record.number);
    return numbers;
}

// Going back
// ---------------------------------------------------------------------------------------------

class WayBack : public BuildTest {
protected:
    // Steps are seen by two processes, so they are counted in shared memory.
    struct Steps {
        std::atomic<int> seen[std::size(kAllSteps)];
    };

    WayBack() {
        steps_ = static_cast<Steps*>(mmap(nullptr, sizeof(Steps), PROT_READ | PROT_WRITE,
                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    }

    static kvadmin::PublishOptions options(kvadmin::StepObserver on_step = {}) {
        kvadmin::PublishOptions options;
        options.on_step = std::move(on_step);
        options.built_by = "a test";
        return options;
    }

    // Each in a process of its own, as a worker of the service does it.
    ChildResult restore(unsigned number, const kvadmin::StepObserver& on_step = {}) {
        return run_child(
            [&] { return ending_of([&] { kvadmin::restore_map(number, options(on_step)); }); });
    }
    // Its remarks are on standard output, one a line, after "adopted" or "loaded" or "none".
    ChildResult take_over(const kvadmin::StepObserver& on_step = {}) {
        return run_child([&] {
            return ending_of([&] {
                const kvadmin::Takeover result = kvadmin::take_over(options(on_step));
                std::puts(result.adopted ? "adopted" : result.map ? "loaded" : "none");
                if (result.map) std::printf("map %u\n", result.map->record.number);
                for (const std::string& remark : result.remarks) std::puts(remark.c_str());
            });
        });
    }

    kvadmin::StepObserver count_steps() {
        return [this](BuildStep step) { ++steps_->seen[static_cast<int>(step)]; };
    }
    std::vector<BuildStep> counted_steps() {
        std::vector<BuildStep> steps;
        for (const BuildStep step : kAllSteps)
            if (steps_->seen[static_cast<int>(step)].exchange(0) != 0) steps.push_back(step);
        return steps;
    }

    // Kills the process that switches maps, whoever of the two is at that step.
    static kvadmin::StepObserver killer(BuildStep step) {
        return [step](BuildStep now) {
            if (now != step) return;
            kill(is_childs(step) ? getppid() : getpid(), SIGKILL);
            pause();
        };
    }

    // As after a boot: files stay.
    static void forget_shared_objects() {
        for (const int table : {0, 1}) shmctl(segment_of(table), IPC_RMID, nullptr);
        destroy_perm_map();
    }

    static MapRecord record(unsigned number) {
        for (const MapRecord& kept : kept_maps())
            if (kept.number == number) return kept;
        return {};
    }

private:
    Steps* steps_;
};

TEST_F(WayBack, ToAKeptMapServesItsBytesAndMarksIt) {
    build_generation(1);
    const std::string first = read_file(kPersisted);
    build_generation(2);
    const std::int64_t before = record(1).published;
    ASSERT_EQ(kept_numbers(), (std::vector<unsigned>{2, 1}));
    fs::remove(kvadmin::kMapMarkerPath);
    const ChildResult result = restore(1);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    expect_served_alone(1);
    EXPECT_EQ(read_file(kPersisted), first);
    EXPECT_TRUE(file_exists(kvadmin::kMapMarkerPath));
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{2, 1})) << "no second record of it";
    EXPECT_GE(record(1).published, before);
    EXPECT_EQ(restore(2).exit_code, 0);
    expect_served_alone(2);
    EXPECT_EQ(restore(2).exit_code, 0) << "the one that is served already";
    expect_served_alone(2);
}

TEST_F(WayBack, ToWhatIsNotThereOrNotWhatWasKeptChangesNothing) {
    build_generation(1);
    build_generation(2);
    const std::string served = read_file(kPersisted);
    const ChildResult unknown = restore(7);
    EXPECT_EQ(unknown.exit_code, kFailure);
    EXPECT_TRUE(contains(unknown.err, "no kept map 7")) << unknown.err;
    std::string bytes = read_file(kept_image_path(1));
    bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 1);
    write_file(kept_image_path(1), bytes);
    const ChildResult changed = restore(1);
    EXPECT_EQ(changed.exit_code, kInvalidInput);
    EXPECT_TRUE(contains(changed.err, kept_image_path(1))) << changed.err;
    write_file(kept_image_path(1), "");
    EXPECT_EQ(restore(1).exit_code, kInvalidInput);
    fs::remove(kept_image_path(1));
    EXPECT_EQ(restore(1).exit_code, kFailure);
    expect_served_alone(2);
    EXPECT_EQ(read_file(kPersisted), served);
}

// Its digest is right, but what it holds is no map: somebody kept it so.
TEST_F(WayBack, ToAnImageThatIsNotSoundChangesNothing) {
    build_generation(1);
    std::vector<std::uint8_t> image = persisted_bytes();
    image.resize(image.size() / 2);
    MapRecord record = kvadmin::describe_image(image);
    record.published = 1;
    const unsigned number = kvadmin::keep_map(record, image);
    const ChildResult result = restore(number);
    EXPECT_EQ(result.exit_code, kInvalidInput);
    EXPECT_TRUE(contains(result.err, "damaged")) << result.err;
    expect_served_alone(1);
}

TEST_F(WayBack, ThatIsKilledAtAnyStepLeavesOneMapServedAndTheNextStartWorking) {
    build_generation(1);
    build_generation(2);
    ASSERT_EQ(restore(1, count_steps()).exit_code, 0);
    const std::vector<BuildStep> steps = counted_steps();
    EXPECT_GE(steps.size(), 10U);
    for (const BuildStep step : steps) {
        SCOPED_TRACE(static_cast<int>(step));
        ASSERT_EQ(restore(2).exit_code, 0);
        const ChildResult result = restore(1, killer(step));
        EXPECT_EQ(result.signal, SIGKILL);
        wait_for_lock();
        const long expected = step >= BuildStep::kSwapped ? 1 : 2;
        EXPECT_EQ(served_generation(), expected);
        const ChildResult start = take_over();
        EXPECT_EQ(start.exit_code, 0) << start.err;
        EXPECT_TRUE(contains(start.out, "adopted")) << start.out;
        expect_served_alone(expected);
        EXPECT_EQ(record(static_cast<unsigned>(expected)).generation, expected);
    }
}

// A boot after the death: only files tell, and whichever map they give is a whole one.
TEST_F(WayBack, ThatIsKilledAtAnyStepBeforeABootLeavesOneOfTheTwoMaps) {
    build_generation(1);
    build_generation(2);
    ASSERT_EQ(restore(1, count_steps()).exit_code, 0);
    for (const BuildStep step : counted_steps()) {
        SCOPED_TRACE(static_cast<int>(step));
        ASSERT_EQ(restore(2).exit_code, 0);
        EXPECT_EQ(restore(1, killer(step)).signal, SIGKILL);
        wait_for_lock();
        forget_shared_objects();
        const ChildResult start = take_over();
        EXPECT_EQ(start.exit_code, 0) << start.err;
        const long served = served_generation();
        EXPECT_TRUE(served == 1 || served == 2) << served;
        if (step >= BuildStep::kSwapped) {
            EXPECT_EQ(served, 1);
        }
        if (step == BuildStep::kLocked || step == BuildStep::kCopied) {
            EXPECT_EQ(served, 2);
        }
        expect_served_alone(served);
    }
}

TEST_F(WayBack, WhoseChildDiesAtAnyStepChangesNothing) {
    build_generation(1);
    build_generation(2);
    const std::string served = read_file(kPersisted);
    ASSERT_EQ(restore(2, count_steps()).exit_code, 0);
    for (const BuildStep step : counted_steps()) {
        if (!is_childs(step)) continue;
        SCOPED_TRACE(static_cast<int>(step));
        const ChildResult result = restore(1, [step](BuildStep now) {
            if (now == step) raise(SIGKILL);
        });
        EXPECT_EQ(result.exit_code, kFailure);
        expect_served_alone(2);
        EXPECT_EQ(read_file(kPersisted), served);
        EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{2, 1}));
    }
}

// The start
// ---------------------------------------------------------------------------------------------

using TakeOver = WayBack;

TEST_F(TakeOver, OfANewMachineFindsNoMapAndLeavesTheSemaphoresReady) {
    const ChildResult result = take_over();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, "none\n");
    EXPECT_EQ(init_perm_map_semaphore(), 0);
    EXPECT_FALSE(file_exists(kPersisted));
    build_generation(3);
    expect_served_alone(3);
}

TEST_F(TakeOver, AdoptsALiveMapAndMakesThePersistedOneEqual) {
    build_generation(1);
    const std::string first = read_file(kPersisted);
    build_generation(2);
    const std::string second = read_file(kPersisted);
    const int segment = segment_of(get_current_perm_table_index());
    for (const std::string& lying : {first, second.substr(0, 100), std::string()}) {
        write_file(kPersisted, lying);
        const ChildResult result = take_over();
        EXPECT_EQ(result.exit_code, 0) << result.err;
        EXPECT_TRUE(result.out.starts_with("adopted\nmap 2\n")) << result.out;
        EXPECT_EQ(segment_of(get_current_perm_table_index()), segment) << "nobody was switched";
        EXPECT_EQ(read_file(kPersisted), second);
        expect_served_alone(2);
    }
    fs::remove(kPersisted);
    EXPECT_EQ(take_over().exit_code, 0);
    EXPECT_EQ(read_file(kPersisted), second);
}

TEST_F(TakeOver, KeepsAnAdoptedMapThatNobodyKept) {
    publish(to_pair(tree_of(2, 2)));
    const ChildResult result = take_over();
    EXPECT_TRUE(contains(result.out, "adopted\nmap 1\n")) << result.out << result.err;
    ASSERT_EQ(kept_numbers(), (std::vector<unsigned>{1}));
    EXPECT_EQ(record(1).sha256, kvadmin::sha256_of(persisted_bytes()));
    EXPECT_NE(record(1).published, 0);
    expect_served_alone(1);
    EXPECT_TRUE(contains(take_over().out, "map 1\n")) << "and not a second time";
}

TEST_F(TakeOver, ReplacesADamagedLiveMapByThePersistedOne) {
    build_generation(1);
    build_generation(2);
    const int segment = segment_of(get_current_perm_table_index());
    void* memory = shmat(segment, nullptr, 0);
    ASSERT_NE(memory, reinterpret_cast<void*>(-1));
    std::memset(static_cast<char*>(memory) + sizeof(kavrin_be_header_t), 0xff, 64);
    shmdt(memory);
    const ChildResult result = take_over();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_TRUE(result.out.starts_with("loaded\nmap 2\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "the live map is damaged")) << result.out;
    expect_served_alone(2);
}

TEST_F(TakeOver, DoesNotServeASegmentThatIsNotRoots) {
    build_generation(1);
    const int segment = segment_of(get_current_perm_table_index());
    shmid_ds status{};
    ASSERT_EQ(shmctl(segment, IPC_STAT, &status), 0);
    status.shm_perm.uid = 1000;
    ASSERT_EQ(shmctl(segment, IPC_SET, &status), 0);
    const ChildResult result = take_over();
    EXPECT_TRUE(result.out.starts_with("loaded\n")) << result.out << result.err;
    ASSERT_EQ(shmctl(segment_of(get_current_perm_table_index()), IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_perm.uid, 0U);
    expect_served_alone(1);
}

TEST_F(TakeOver, MakesADamagedSemaphoreSetAnew) {
    build_generation(1);
    const int set = semget(ftok("/dev/null", 7065), 0, 0);
    ASSERT_GE(set, 0);
    semid_ds status{};
    ASSERT_EQ(semctl(set, 0, IPC_STAT, &status), 0);
    for (unsigned i = 0; i < status.sem_nsems; ++i) semctl(set, static_cast<int>(i), SETVAL, 77);
    const ChildResult result = take_over();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    expect_served_alone(1);
}

TEST_F(TakeOver, AfterABootLoadsThePersistedMap) {
    build_generation(1);
    build_generation(2);
    forget_shared_objects();
    const ChildResult result = take_over();
    EXPECT_EQ(result.out, "loaded\nmap 2\n") << result.err;
    expect_served_alone(2);
}

TEST_F(TakeOver, FallsBackOnTheNewestSoundKeptMapThatWasPublished) {
    for (const unsigned generation : {1U, 2U, 3U}) build_generation(generation);
    kvadmin::keep_map(kvadmin::describe_image(persisted_bytes()),
                      persisted_bytes());  // never served
    write_file(kPersisted, "no map");
    write_file(kept_image_path(3), "nor this");
    forget_shared_objects();
    const ChildResult result = take_over();
    EXPECT_TRUE(result.out.starts_with("loaded\nmap 2\n")) << result.out << result.err;
    EXPECT_TRUE(contains(result.out, kPersisted + " is damaged")) << result.out;
    EXPECT_TRUE(contains(result.out, "took kept map 2 instead")) << result.out;
    expect_served_alone(2);
    EXPECT_FALSE(file_exists(kept_image_path(4))) << "what was never published is dropped";
}

TEST_F(TakeOver, WithNothingSoundServesNothingAndSaysWhy) {
    build_generation(1);
    write_file(kPersisted, "no map");
    write_file(kept_image_path(1), "nor this");
    forget_shared_objects();
    const ChildResult result = take_over();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_TRUE(result.out.starts_with("none\n")) << result.out;
    EXPECT_TRUE(contains(result.out, kPersisted)) << result.out;
    EXPECT_TRUE(contains(result.out, kept_image_path(1))) << result.out;
    EXPECT_EQ(served_generation(), -1);
    build_generation(2);
    expect_served_alone(2);
}

TEST_F(TakeOver, ThatIsKilledAtAnyStepIsMadeGoodByTheNext) {
    const auto before = [this](int situation) {  // what the start finds
        build_generation(2);
        if (situation > 0) forget_shared_objects();
        if (situation > 1) write_file(kPersisted, "no map");
    };
    for (const int situation : {0, 1, 2}) {
        before(situation);
        ASSERT_EQ(take_over(count_steps()).exit_code, 0);
        for (const BuildStep step : counted_steps()) {
            SCOPED_TRACE(testing::Message()
                         << "situation " << situation << ", step " << static_cast<int>(step));
            before(situation);
            EXPECT_EQ(take_over(killer(step)).signal, SIGKILL);
            wait_for_lock();
            const ChildResult result = take_over();
            EXPECT_EQ(result.exit_code, 0) << result.err;
            expect_served_alone(2);
            EXPECT_EQ(kvadmin::record_of(kvadmin::sha256_of(persisted_bytes()))->generation, 2U);
        }
    }
}

}  // namespace
}  // namespace kvtest
