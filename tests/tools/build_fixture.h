// The stage of the build and load tests: pairs of files with a generation to be told apart by,
// kavrinctl run to its end in a process of its own, and the laws that hold after every build,
// however it went. Everything lies at its real place, inside the sandbox.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "image_check.h"
#include "map_publish.h"
#include "map_tables.h"
#include "support.h"
#include "whole_file.h"

namespace kvtest {

using kvadmin::BuildStep;
using kvadmin::Exit;

inline constexpr int kFailure = static_cast<int>(Exit::kFailure);
inline constexpr int kInvalidInput = static_cast<int>(Exit::kInvalidInput);
inline constexpr int kUsage = static_cast<int>(Exit::kUsage);

inline constexpr BuildStep kAllSteps[] = {
    BuildStep::kLocked,  BuildStep::kChecked,     BuildStep::kCopied,
    BuildStep::kCleared, BuildStep::kSized,       BuildStep::kCreated,
    BuildStep::kFilled,  BuildStep::kBuilt,       BuildStep::kVerified,
    BuildStep::kKept,    BuildStep::kSwapped,     BuildStep::kInitialised,
    BuildStep::kMarked,  BuildStep::kCopyRemoved, BuildStep::kSourcesRemoved};

inline constexpr key_t kTableKeys[] = {0x70657269, 0x7065726A};
inline const std::string kPersisted = "/etc/kavrin/.permbe_map";

// Whether the child is at that step and not the process that builds.
inline bool is_childs(BuildStep step) {
    return step == BuildStep::kSized || step == BuildStep::kCreated || step == BuildStep::kFilled;
}

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline ChildResult run_tool(const std::vector<std::string>& arguments) {
    return run_child([&] {
        std::vector<const char*> argv{"kavrinctl"};
        for (const std::string& argument : arguments) argv.push_back(argument.c_str());
        return kvadmin::run(static_cast<int>(argv.size()), argv.data());
    });
}

inline Pair with_generation(Pair pair, unsigned generation) {
    const std::string one = "\"GENERATIONNUM\":1,";
    const std::size_t at = pair.size_json.find(one);
    EXPECT_NE(at, std::string::npos);
    pair.size_json.replace(at, one.size(), "\"GENERATIONNUM\":" + std::to_string(generation) + ",");
    return pair;
}

// A tree whose image has roughly 100 bytes an element.
inline Node tree_of(std::size_t folders, std::size_t files) {
    Node shared{"Shared", {}, {{1000, 1}}, {}};
    for (std::size_t i = 0; i < folders; ++i) {
        Node folder{"folder" + std::to_string(i), {{2001, 7}}, {{1000, 3}}, {}};
        for (std::size_t k = 0; k < files; ++k)
            folder.children.push_back({"file" + std::to_string(k), {}, {}, {}});
        shared.children.push_back(std::move(folder));
    }
    return {"/", {}, {{1000, 8}}, {std::move(shared)}};
}

// The lock that every build takes, not taken yet.
inline int open_build_lock() {
    kvadmin::make_folder("/run/kavrin", 0755);
    return open(kvadmin::kBuildLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

class BuildTest : public testing::Test {
protected:
    BuildTest() : folder(make_temp_dir()) {}

    std::string size_path() const { return folder + "/size.json"; }
    std::string data_path() const { return folder + "/data.json"; }

    void write_pair(const Pair& pair) {
        write_file(size_path(), pair.size_json);
        write_file(data_path(), pair.data_json);
    }
    void write_generation(unsigned generation, std::size_t folders = 2, std::size_t files = 3) {
        write_pair(with_generation(to_pair(tree_of(folders, files)), generation));
    }
    bool pair_is_there() const { return file_exists(size_path()) && file_exists(data_path()); }

    ChildResult build(std::vector<std::string> more = {}) {
        std::vector<std::string> arguments{"map", "build", size_path(), data_path()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run_tool(arguments);
    }
    void build_generation(unsigned generation) {
        write_generation(generation);
        const ChildResult result = build();
        ASSERT_EQ(result.exit_code, 0) << result.err;
    }

    kvadmin::BuildRequest request(kvadmin::StepObserver on_step = {}) const {
        kvadmin::BuildRequest request;
        request.size_path = size_path();
        request.data_path = data_path();
        request.on_step = std::move(on_step);
        return request;
    }

    // build_map() in a process of its own, with an observer that may end processes. Exit code 0
    // when the map was published, else the command's.
    ChildResult build_observed(const kvadmin::StepObserver& on_step,
                               const kvadmin::BuildLimits& limits = {}) {
        return run_child([&] {
            kvadmin::BuildRequest job = request(on_step);
            job.limits = limits;
            return ending_of([&job] { kvadmin::build_map(job); });
        });
    }
    static int ending_of(const std::function<void()>& body) {
        try {
            body();
        } catch (const kvadmin::CommandError& error) {
            kvadmin::note(error.message);
            return static_cast<int>(error.code);
        }
        return 0;
    }

    static std::vector<std::uint8_t> persisted_bytes() {
        const std::string text = read_file(kPersisted);
        return {text.begin(), text.end()};
    }
    static int segment_of(int table) { return shmget(kTableKeys[table], 0, 0); }

    // What a reader gets, without a look at the whole image.
    static long served_generation_quietly() {
        void* map = get_perm_map_addr();
        if (map == nullptr) return -1;
        const long generation = static_cast<kavrin_be_header_t*>(map)->generationnum;
        put_perm_map_addr(map);
        return generation;
    }

    // What a reader gets: the generation, or -1 without a map. A map that is there is sound.
    static long served_generation() {
        if (init_perm_map_semaphore() != 0) return -1;
        void* map = get_perm_map_addr();
        if (map == nullptr) return -1;
        shmid_ds status{};
        EXPECT_EQ(shmctl(segment_of(get_current_perm_table_index()), IPC_STAT, &status), 0);
        const kvadmin::ImageReport report =
            kvadmin::check_image({static_cast<const std::uint8_t*>(map), status.shm_segsz});
        EXPECT_TRUE(report.sound()) << report.first_line();
        const long generation = static_cast<kavrin_be_header_t*>(map)->generationnum;
        put_perm_map_addr(map);
        return generation;
    }

    // That generation is served and persisted, and nothing that a build makes is left.
    static void expect_served_alone(long generation) {
        EXPECT_EQ(served_generation(), generation);
        if (generation >= 0) {
            const std::vector<std::uint8_t> bytes = persisted_bytes();
            EXPECT_TRUE(kvadmin::check_image(bytes).sound());
            kavrin_be_header_t header{};
            ASSERT_GE(bytes.size(), sizeof header);
            std::memcpy(&header, bytes.data(), sizeof header);
            EXPECT_EQ(header.generationnum, generation);
            EXPECT_EQ(segment_of(1 - get_current_perm_table_index()), -1) << "a segment is left";
        }
        std::vector<std::string> left;
        for (const auto& entry : std::filesystem::directory_iterator("/etc/kavrin"))
            if (entry.path() != kPersisted && entry.path() != kvadmin::kMapMarkerPath)
                left.push_back(entry.path());
        EXPECT_TRUE(left.empty()) << left.front() << " is left";
    }

    // The lock goes with the last process of a build; one that is being killed may take a moment.
    static void wait_for_lock() {
        const int fd = open_build_lock();
        ASSERT_GE(fd, 0);
        for (int i = 0; i < 2000 && flock(fd, LOCK_EX | LOCK_NB) != 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        close(fd);
    }

    ConfigTable config{-1};
    std::string folder;
};

}  // namespace kvtest
