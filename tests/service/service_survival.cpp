// See service_survival.h.
#include "service_survival.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "../tools/event_files.h"
#include "service_readers.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;

std::span<const std::uint8_t> bytes_of_text(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const SharedIds& ids) {
    return out << "map " << ids.map << ", its semaphores " << ids.semaphores << ", table "
               << ids.table << ", staging " << ids.staging << ", its semaphore "
               << ids.staging_semaphore;
}

RunningService& SurvivalTest::launch() {
    service_.reset();
    service_ = std::make_unique<RunningService>();
    return *service_;
}

RunningService& SurvivalTest::start() {
    RunningService& fresh = launch();
    EXPECT_TRUE(fresh.ready()) << fresh.log();
    return fresh;
}

void SurvivalTest::serve(unsigned generation, std::size_t folders, std::size_t files) {
    deliver(pair_of_generation(generation, folders, files), "g" + std::to_string(generation));
    EXPECT_TRUE(serves(generation)) << service_->log();
    EXPECT_TRUE(within(std::chrono::seconds(10), [] { return names_in(kWork).empty(); }))
        << service_->log();
}

SharedIds SurvivalTest::shared_ids() {
    SharedIds ids;
    if (init_perm_map_semaphore() == 0) ids.map = segment_of(get_current_perm_table_index());
    ids.semaphores = semget(ftok("/dev/null", 7065), 0, 0);
    ids.table = shmget(ftok("/dev/null", 3456), 0, 0);
    ids.staging = shmget(ftok("/dev/null", 1234), 0, 0);
    ids.staging_semaphore = semget(ftok("/dev/null", 2345), 0, 0);
    return ids;
}

std::vector<std::string> SurvivalTest::system_v_objects(const char* kind) {
    std::ifstream list(std::string("/proc/sysvipc/") + kind);
    std::vector<std::string> lines;
    std::string line;
    std::getline(list, line);  // the heading
    while (std::getline(list, line)) lines.push_back(line);
    return lines;
}

long SurvivalTest::persisted_generation() {
    if (!file_exists(kPersisted)) return -1;
    const std::string persisted = read_file(kPersisted);
    return whole_generation(bytes_of_text(persisted));
}

void SurvivalTest::expect_persisted_is_served() {
    const int id = segment_of(get_current_perm_table_index());
    shmid_ds status{};
    ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
    const void* const memory = shmat(id, nullptr, SHM_RDONLY);
    ASSERT_NE(memory, reinterpret_cast<void*>(-1));
    const std::string live(static_cast<const char*>(memory), status.shm_segsz);
    shmdt(memory);
    const bool equal =
        within(std::chrono::seconds(5), [&] { return read_file(kPersisted) == live; });
    EXPECT_TRUE(equal) << "the persisted map has generation " << persisted_generation()
                       << " and the served one " << whole_generation(bytes_of_text(live));
}

std::vector<unsigned> SurvivalTest::kept_numbers() {
    std::vector<unsigned> numbers;
    for (const std::string& name : names_in("/var/lib/kavrin/maps"))
        if (name.ends_with(".map")) numbers.push_back(static_cast<unsigned>(std::stoul(name)));
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::string SurvivalTest::kept_image(unsigned number) {
    return "/var/lib/kavrin/maps/" + std::to_string(number) + ".map";
}

std::string SurvivalTest::image_of(unsigned generation) {
    const bool is_there = file_exists(kPersisted);
    const std::string persisted = is_there ? read_file(kPersisted) : "";
    const Pair pair = pair_of_generation(generation);
    const std::vector<std::uint8_t> image = build_image(pair.size_json, pair.data_json);
    if (is_there)
        write_file(kPersisted, persisted);  // the load persisted its own
    else
        fs::remove(kPersisted);
    return {image.begin(), image.end()};
}

void SurvivalTest::damage(const std::string& file, std::size_t at) {
    std::string bytes = read_file(file);
    ASSERT_GT(bytes.size(), at) << file;
    bytes[at] = static_cast<char>(bytes[at] ^ 0x55);
    write_file(file, bytes);
}

int SurvivalTest::make_segment(key_t key, const std::string& bytes, uid_t maker, bool give_away) {
    const ChildResult made = run_child([&] {
        if (setresgid(maker, maker, maker) != 0 || setresuid(maker, maker, maker) != 0) return 1;
        const int id = shmget(key, bytes.size(), IPC_CREAT | IPC_EXCL | 0666);
        void* const memory = shmat(id, nullptr, 0);
        if (memory == reinterpret_cast<void*>(-1)) return 2;
        std::memcpy(memory, bytes.data(), bytes.size());
        shmid_ds status{};
        if (shmctl(id, IPC_STAT, &status) != 0) return 3;
        status.shm_perm.uid = 0;
        return give_away && shmctl(id, IPC_SET, &status) != 0 ? 4 : 0;
    });
    EXPECT_EQ(made.exit_code, 0);
    return shmget(key, 0, 0);
}

std::int32_t SurvivalTest::shared_number(e_kavrin_global_index_t slot) {
    const void* const memory = shmat(shared_ids().table, nullptr, SHM_RDONLY);
    if (memory == reinterpret_cast<void*>(-1)) return INT32_MIN;
    const std::int32_t number = static_cast<const global_param_t*>(memory)[slot].value.intval;
    shmdt(memory);
    return number;
}

std::size_t SurvivalTest::descriptors_of(pid_t process) {
    return names_in("/proc/" + std::to_string(process) + "/fd").size();
}

long SurvivalTest::resident_kib_of(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
    return -1;
}

void SurvivalTest::stage_events(int first, int count) {
    const ChildResult written = run_child([&] {
        global_params = nullptr;
        if (read_kavrin_config() != 0) return 1;
        for (int i = 0; i < count; ++i) {
            std::string record = frame(numbered_event(first + i));
            if (write_to_staging_buffer(reinterpret_cast<staging_data_t*>(record.data())) != 0)
                return 2;
        }
        return 0;
    });
    EXPECT_EQ(written.exit_code, 0);
}

std::size_t SurvivalTest::events_in_files(const std::string& folder) {
    std::size_t events = 0;
    for (const std::string& name : names_in(folder))
        if (name.starts_with("pending_"))
            events += payloads_of(read_file(folder + "/" + name)).size();
    return events;
}

bool SurvivalTest::is_quarantined(const Pair& pair, const std::string& part_of_reason) {
    for (const std::string& entry : names_in(kQuarantine)) {
        const std::string folder = kQuarantine + "/" + entry;
        const bool whole = file_exists(folder + "/size.json") &&
                           file_exists(folder + "/data.json") &&
                           file_exists(folder + "/reason.txt");
        if (!whole || read_file(folder + "/size.json") != pair.size_json ||
            read_file(folder + "/data.json") != pair.data_json)
            continue;
        return read_file(folder + "/reason.txt").find(part_of_reason) != std::string::npos;
    }
    return false;
}

}  // namespace kvtest
