// The kept maps and the ways back to them: what is on record, what is pruned, and that going back
// to a kept map or starting again beside a share at work leaves a map served whatever dies on the
// way.
#include "kept_maps.h"

#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sem.h>

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>

#include "build_fixture.h"
#include "digest.h"
#include "failure.h"
#include "persisted_copy.h"
#include "whole_file.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using kvadmin::CommandError;
using kvadmin::kept_image_path;
using kvadmin::kept_maps;
using kvadmin::MapRecord;

std::vector<std::uint8_t> bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

std::string record_path(unsigned number) {
    return std::string(kvadmin::kKeptFolder) + "/" + std::to_string(number) + ".json";
}

std::vector<unsigned> kept_numbers() {
    std::vector<unsigned> numbers;
    for (const MapRecord& record : kept_maps()) numbers.push_back(record.number);
    return numbers;
}

MapRecord record_named(const std::string& sha256, std::int64_t published = 0) {
    MapRecord record;
    record.sha256 = sha256;
    record.published = published;
    return record;
}

mode_t mode_of(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

// Digests and whole files
// ---------------------------------------------------------------------------------------------

TEST(Digest, IsTheKnownOneOfKnownBytes) {
    EXPECT_EQ(kvadmin::sha256_of({}),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(kvadmin::sha256_of(bytes_of("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(kvadmin::sha256_of(std::vector<std::uint8_t>(1'000'000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(WholeFile, HasItsContentAndItsModeWhateverTheMaskIs) {
    const std::string path = make_temp_dir() + "/file";
    const mode_t mask = umask(077);
    kvadmin::write_whole_file(path, std::string_view("first"), 0644);
    EXPECT_EQ(read_file(path), "first");
    EXPECT_EQ(mode_of(path), 0644U);
    kvadmin::write_whole_file(path, std::string_view(""), 0600);
    EXPECT_EQ(read_file(path), "");
    EXPECT_EQ(mode_of(path), 0600U);
    EXPECT_FALSE(file_exists(path + ".tmp"));
    umask(mask);
}

TEST(WholeFile, StaysAsItWasWhenThereIsNoRoom) {
    const std::string folder = make_temp_dir();
    ASSERT_EQ(mount("small", folder.c_str(), "tmpfs", 0, "size=64k"), 0);
    kvadmin::write_whole_file(folder + "/file", std::string_view("first"));
    try {
        kvadmin::write_whole_file(folder + "/file", std::string(200'000, 'x'));
        ADD_FAILURE() << "there was room";
    } catch (const CommandError& error) {
        EXPECT_EQ(error.code, Exit::kFailure);
        EXPECT_TRUE(contains(error.message, folder + "/file")) << error.message;
        EXPECT_TRUE(contains(error.message, "No space left")) << error.message;
    }
    EXPECT_EQ(read_file(folder + "/file"), "first");
    EXPECT_FALSE(file_exists(folder + "/file.tmp"));
    umount(folder.c_str());
}

TEST(WholeFile, IsNotWrittenThroughALinkThatLiesInItsWay) {
    const std::string folder = make_temp_dir();
    write_file(folder + "/victim", "precious");
    ASSERT_EQ(symlink("victim", (folder + "/file.tmp").c_str()), 0);
    EXPECT_THROW(kvadmin::write_whole_file(folder + "/file", std::string_view("x")), CommandError);
    EXPECT_EQ(read_file(folder + "/victim"), "precious");
}

TEST(WholeFile, IsOldOrNewForWhoeverReadsMeanwhile) {
    const std::string path = make_temp_dir() + "/file";
    const std::string contents[] = {std::string(50'000, 'a'), std::string(30'000, 'b')};
    kvadmin::write_whole_file(path, contents[0]);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) kvadmin::write_whole_file(path, contents[i % 2]);
        done = true;
    });
    while (!done) {
        const std::string seen = read_file(path);
        EXPECT_TRUE(seen == contents[0] || seen == contents[1]) << seen.size();
    }
    writer.join();
}

TEST(WholeFile, FoldersAreMadeWithTheirModeWhateverTheMaskIs) {
    const std::string base = make_temp_dir();
    const mode_t mask = umask(077);
    kvadmin::make_folder(base + "/one/two", 0755);
    umask(mask);
    EXPECT_EQ(mode_of(base + "/one"), 0755U);
    EXPECT_EQ(mode_of(base + "/one/two"), 0755U);
    chmod((base + "/one").c_str(), 0711);
    kvadmin::make_folder(base + "/one/two", 0700);
    EXPECT_EQ(mode_of(base + "/one"), 0711U) << "what is there is left as it is";
    EXPECT_EQ(mode_of(base + "/one/two"), 0755U);
    write_file(base + "/file", "");
    EXPECT_THROW(kvadmin::make_folder(base + "/file", 0755), CommandError);
    EXPECT_THROW(kvadmin::make_folder(base + "/file/below", 0755), CommandError);
}

TEST(MapMarker, IsNewerThanThisSecondAndNeverALink) {
    const std::time_t before = std::time(nullptr);
    kvadmin::touch_map_marker();
    struct stat st {};
    ASSERT_EQ(stat(kvadmin::kMapMarkerPath, &st), 0);
    EXPECT_GT(st.st_mtim.tv_sec, before);
    EXPECT_LE(st.st_mtim.tv_sec, std::time(nullptr) + 1);
    fs::remove(kvadmin::kMapMarkerPath);
    write_file("/etc/kavrin/victim", "");
    fs::create_symlink("victim", kvadmin::kMapMarkerPath);
    EXPECT_THROW(kvadmin::touch_map_marker(), CommandError);
}

// The kept maps
// ---------------------------------------------------------------------------------------------

TEST(KeptMaps, CountUpFromOneAndAreWhatWasGiven) {
    EXPECT_TRUE(kept_maps().empty());
    MapRecord record;
    record.name = "a map, \"quoted\"";
    record.version = "1.2";
    record.generation = 4'000'000'000;
    record.sha256 = "ab";
    record.source = "/somewhere/data.json";
    record.built = 1'764'000'001;
    record.built_by = "a test";
    record.elements = 5;
    record.aces = 6;
    record.bytes = 3;
    record.seconds = 0.25;
    EXPECT_EQ(kvadmin::keep_map(record, bytes_of("one")), 1U);
    EXPECT_EQ(kvadmin::keep_map({}, bytes_of("two")), 2U);
    const std::vector<MapRecord> kept = kept_maps();
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept[0].number, 2U) << "the highest comes first";
    record.number = 1;
    EXPECT_EQ(kvadmin::as_json(kept[1]), kvadmin::as_json(record));
    EXPECT_EQ(read_file(kept_image_path(1)), "one");
    EXPECT_EQ(mode_of(kept_image_path(1)), 0600U);
    EXPECT_EQ(mode_of(record_path(1)), 0600U);
    EXPECT_EQ(mode_of(kvadmin::kKeptFolder), 0700U);
}

TEST(KeptMaps, ANumberWithAnythingLeftOfItIsNotGivenAgain) {
    kvadmin::keep_map({}, bytes_of("one"));
    kvadmin::keep_map({}, bytes_of("two"));
    fs::remove(record_path(2));
    EXPECT_EQ(kvadmin::keep_map({}, bytes_of("three")), 3U);
    write_file(std::string(kvadmin::kKeptFolder) + "/7.json.tmp", "");
    EXPECT_EQ(kvadmin::keep_map({}, bytes_of("eight")), 8U);
}

TEST(KeptMaps, WhatIsNoRecordIsNoMap) {
    kvadmin::keep_map({}, bytes_of("one"));
    const std::string sound = read_file(record_path(1));
    write_file(record_path(2), sound.substr(0, sound.size() / 2));
    write_file(record_path(3), "[]");
    write_file(record_path(4), "{\"name\": 5}");
    write_file(record_path(5), "");
    for (const char* name : {"x.json", "0.json", "1.json.tmp", "6.map", "-1.json", "9x.json"})
        write_file(std::string(kvadmin::kKeptFolder) + "/" + name, sound);
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{1}));
}

TEST(KeptMaps, OfTheSameBytesTheOnePublishedLastIsMeant) {
    kvadmin::keep_map(record_named("aa", 20), bytes_of("1"));
    kvadmin::keep_map(record_named("aa", 10), bytes_of("1"));
    kvadmin::keep_map(record_named("bb", 30), bytes_of("2"));
    ASSERT_TRUE(kvadmin::record_of("aa").has_value());
    EXPECT_EQ(kvadmin::record_of("aa")->number, 1U);
    kvadmin::mark_published(2);
    EXPECT_EQ(kvadmin::record_of("aa")->number, 2U);
    EXPECT_NEAR(static_cast<double>(kvadmin::record_of("aa")->published),
                static_cast<double>(std::time(nullptr)), 5);
    EXPECT_FALSE(kvadmin::record_of("cc").has_value());
}

TEST(KeptMaps, PruningKeepsTheHighestAndTheServedOneAndClearsWhatWritersLeft) {
    for (int i = 0; i < 6; ++i) kvadmin::keep_map({}, bytes_of("x"));
    const std::string folder = kvadmin::kKeptFolder;
    for (const char* name : {"/9.map", "/3.json.tmp", "/8.map.tmp", "/notes.txt"})
        write_file(folder + name, "");
    kvadmin::prune_kept_maps(2, 3);
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{6, 5, 3}));
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"3.json", "3.map", "5.json", "5.map", "6.json",
                                               "6.map", "notes.txt"}));
    kvadmin::prune_kept_maps(1, 6);
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{6}));
}

TEST(KeptMaps, ThoseThatWereNeverPublishedAreDroppedButTheServedOne) {
    kvadmin::keep_map(record_named("a", 5), bytes_of("x"));
    kvadmin::keep_map(record_named("b"), bytes_of("x"));
    kvadmin::keep_map(record_named("c"), bytes_of("x"));
    kvadmin::drop_unpublished_maps(2);
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{2, 1}));
    EXPECT_FALSE(file_exists(kept_image_path(3)));
}

// The ways back
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
