// A stat through its hook: the cached verdict at the front, in the middle and at the end of a full
// cache, and a path that is not in it; and a listing of 1,000 entries, cold and warm. The floor is
// what the hook has to ask the kernel: the two markers, the effective uid, root and back. Promises:
// a hit at the front adds at most 150 ns to the floor; the scan of a full cache of paths of 60
// bytes that finds nothing takes at most 3 microseconds.
#include <benchmark/benchmark.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "big_map.h"
#include "kavrin.h"

namespace {

using namespace kvbench;

constexpr int kRounds = 101;
constexpr int kStatsARound = 1000;
constexpr int kEntries = 1000;
constexpr uid_t kUser = 1001;
constexpr gid_t kGroup = 1000;
constexpr gid_t kPowerUsers = 5001;

std::string share_root;
kv_connection_private_data_t* connection;

// A path of 60 bytes, as the entries of one listing have them.
std::string listed_path(int number) {
    char path[64];
    std::snprintf(path, sizeof path, "Shared/Projects/Offshore-2026/Survey/line-0117/report-%06d",
                  number);
    if (std::strlen(path) != 60) std::abort();
    return path;
}

void fill_cache() {
    destroy_tlb(&connection->vfs_table_cache);
    for (int i = 0; i < KAVRIN_TLB_SLOTS; ++i)
        add_tlb_entry(listed_path(i).data(), -1, FSOP_STAT, KVPERMS_HAS_PERMS,
                      &connection->vfs_table_cache);
}

// The system calls of a stat hook that allows, in its order, and of the module's way back.
void only_the_calls() {
    struct stat status;
    uid_t uids[3];
    gid_t gids[3];
    if (stat("/etc/kavrin/groupmap_refresh", &status) != 0) std::abort();
    if (stat("/etc/kavrin/permission_refresh", &status) != 0) std::abort();
    for (int i = 0; i < 3; ++i) benchmark::DoNotOptimize(geteuid());
    benchmark::DoNotOptimize(getresuid(&uids[0], &uids[1], &uids[2]));
    benchmark::DoNotOptimize(getresgid(&gids[0], &gids[1], &gids[2]));
    syscall(SYS_setresuid, 0, 0, -1);
    syscall(SYS_setresuid, uids[0], uids[1], uids[2]);
}

void stat_hook(char* path) {
    kv_perm_ctx_t* context = nullptr;
    if (stat_preprocess(connection, path, share_root.c_str(), &context) != 0) std::abort();
    kavrin_vfs_unbecome_root(context);
}

template <typename Work>
double nanoseconds(Work work, int times = kStatsARound) {
    return seconds_of([&] {
               for (int i = 0; i < times; ++i) work();
           }) *
           1e9 / times;
}

// A hit at the front of the cache, again and again.
void StatFrontHit(benchmark::State& state) {
    fill_cache();
    std::string path = listed_path(7);
    stat_hook(path.data());
    std::vector<double> floor;
    std::vector<double> ours;
    for (auto _ : state) {
        floor.push_back(nanoseconds(only_the_calls));
        ours.push_back(nanoseconds([&] { stat_hook(path.data()); }));
        state.SetIterationTime(ours.back() / 1e9);
    }
    state.counters["calls_ns"] = median(floor);
    state.counters["hook_ns"] = median(ours);
    state.counters["added_ns"] = median(ours) - median(floor);
    state.counters["ratio"] = median(ours) / median(floor);
}
BENCHMARK(StatFrontHit)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kNanosecond);

// A hit at one position, always: each hit moves its path to the front, so the next path there is
// another. The floor is the same hook at the front.
void StatHitAt(benchmark::State& state) {
    const int position = static_cast<int>(state.range(0));
    fill_cache();
    kv_vfs_table_cache_t& cache = connection->vfs_table_cache;
    std::vector<double> front;
    std::vector<double> ours;
    for (auto _ : state) {
        front.push_back(nanoseconds([&] { stat_hook(cache.tlb_paths[cache.tlb_index_table[0]]); }));
        ours.push_back(
            nanoseconds([&] { stat_hook(cache.tlb_paths[cache.tlb_index_table[position]]); }));
        state.SetIterationTime(ours.back() / 1e9);
    }
    state.counters["front_ns"] = median(front);
    state.counters["hook_ns"] = median(ours);
    state.counters["ratio"] = median(ours) / median(front);
}
BENCHMARK(StatHitAt)->Arg(100)->Arg(1023)->Iterations(kRounds)->UseManualTime()->Unit(
    benchmark::kNanosecond);

// The scan of a full cache for a path that is not there, against a bare strncmp() over its paths.
void ScanMiss(benchmark::State& state) {
    fill_cache();
    kv_vfs_table_cache_t& cache = connection->vfs_table_cache;
    std::string path = listed_path(999999);
    std::vector<double> floor;
    std::vector<double> ours;
    const auto bare = [&] {
        for (int i = 0; i < cache.vfs_tlb_end; ++i)
            if (std::strncmp(path.c_str(), cache.tlb_paths[cache.tlb_index_table[i]], 4096) == 0)
                std::abort();
    };
    for (auto _ : state) {
        floor.push_back(nanoseconds(bare, 100));
        ours.push_back(nanoseconds(
            [&] {
                if (_tlb_lookup_path(path.data(), &cache) != -1) std::abort();
            },
            100));
        state.SetIterationTime(ours.back() / 1e9);
    }
    state.counters["strncmp_us"] = median(floor) / 1e3;
    state.counters["scan_us"] = median(ours) / 1e3;
    state.counters["ratio"] = median(ours) / median(floor);
}
BENCHMARK(ScanMiss)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kNanosecond);

// A listing of 1,000 entries: the verdict on each, with an empty cache, with an empty cache while
// the map stays attached, and with what that has left in the cache.
void Listing(benchmark::State& state) {
    const std::string base = "Shared/Flat";
    char full_path[512];
    const auto list = [&] {
        for (int i = 0; i < kEntries; ++i) {
            int allowed = 0;
            readir_postprocess(&allowed, ("file" + std::to_string(i)).c_str(), base.c_str(),
                               full_path, sizeof full_path, share_root.c_str(), connection);
        }
    };
    std::vector<double> cold;
    std::vector<double> kept;
    std::vector<double> warm;
    for (auto _ : state) {
        destroy_tlb(&connection->vfs_table_cache);
        cold.push_back(seconds_of(list));
        keep_perm_map(1);
        destroy_tlb(&connection->vfs_table_cache);
        kept.push_back(seconds_of(list));
        keep_perm_map(0);
        warm.push_back(seconds_of(list));
        state.SetIterationTime(warm.back());
    }
    state.counters["cold_us_an_entry"] = median(cold) * 1e6 / kEntries;
    state.counters["kept_us_an_entry"] = median(kept) * 1e6 / kEntries;
    state.counters["warm_us_an_entry"] = median(warm) * 1e6 / kEntries;
    state.counters["ratio"] = median(warm) / median(cold);
}
BENCHMARK(Listing)->Iterations(11)->UseManualTime()->Unit(benchmark::kMicrosecond);

void connect() {
    connection = static_cast<kv_connection_private_data_t*>(std::calloc(1, sizeof *connection));
    init_private_data(connection);
    init_tlb(&connection->vfs_table_cache);
    connection->refresh_creds.euid = kUser;
    connection->refresh_creds.permmap_refresh = connection->refresh_creds.groupmap_refresh =
        std::time(nullptr) + 3600;
    static gid_t groups[] = {kPowerUsers};
    connection->groupmap.euid = kUser;
    connection->groupmap.egid = kGroup;
    connection->groupmap.gids = groups;
    connection->groupmap.num_sup_gids = 1;
    vfs_set_admins_powerusers(5000, kPowerUsers);
    if (setgroups(1, groups) != 0 || setresgid(kGroup, kGroup, kGroup) != 0 ||
        setresuid(0, kUser, 0) != 0)
        std::abort();
}

}  // namespace

int main(int argc, char** argv) {
    use_private_table();
    char directory[] = "/tmp/kavrin-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) std::abort();
    share_root = std::string(directory) + "/share";
    std::filesystem::create_directories(share_root + "/Shared/Flat");
    for (int i = 0; i < kEntries; ++i)
        std::ofstream(share_root + "/Shared/Flat/file" + std::to_string(i));
    publish(write_pair(directory, 10'000));
    std::ofstream("/etc/kavrin/groupmap_refresh");
    std::ofstream("/etc/kavrin/permission_refresh");
    connect();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
