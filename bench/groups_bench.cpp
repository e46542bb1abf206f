// The groups of the last of 100,000 users in a group-map file, against a bare loop over the same
// names with the C library's comparison. A connection pays this once, and at each refresh.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "big_map.h"
#include "kavrin.h"

namespace {

using namespace kvbench;

constexpr int kRounds = 31;
constexpr std::uint32_t kUsers = 100'000;
constexpr std::uint32_t kGroups = 16;
constexpr std::uint32_t kNameSize = 16;

std::string user_name(std::uint32_t number) {
    char name[kNameSize];
    std::snprintf(name, sizeof name, "person.%06u", number);
    return name;
}

// Table, names, group ids, padding.
std::string write_map(const std::string& path) {
    const std::uint32_t table = sizeof(mapheader);
    const std::uint32_t names = table + kUsers * static_cast<std::uint32_t>(sizeof(uitem));
    const std::uint32_t gids = names + kUsers * kNameSize;
    std::string file(gids + kUsers * kGroups * 4, '\0');
    file.resize((file.size() + 4095) / 4096 * 4096);
    const mapheader header{.roffs = 16, .rnum = 0, .uoffs = table, .unum = kUsers};
    std::memcpy(file.data(), &header, sizeof header);
    for (std::uint32_t i = 0; i < kUsers; ++i) {
        const std::string name = user_name(i);
        const uitem item{.noffs = names + i * kNameSize,
                         .nlen = static_cast<std::uint32_t>(name.size()),
                         .goffs = gids + i * kGroups * 4,
                         .glen = kGroups};
        std::memcpy(file.data() + table + i * sizeof item, &item, sizeof item);
        std::memcpy(file.data() + item.noffs, name.data(), name.size());
        for (std::uint32_t g = 0; g < kGroups; ++g) {
            const std::uint32_t gid = 3000 + g;
            std::memcpy(file.data() + item.goffs + g * 4, &gid, 4);
        }
    }
    std::ofstream(path, std::ios::binary) << file;
    return path;
}

std::uint32_t bare_loop(const char* map, const char* name) {
    mapheader header;
    std::memcpy(&header, map, sizeof header);
    for (std::uint32_t i = 0; i < header.unum; ++i) {
        uitem item;
        std::memcpy(&item, map + header.uoffs + i * sizeof item, sizeof item);
        if (strcasecmp(map + item.noffs, name) == 0) return i;
    }
    return header.unum;
}

void LastUser(benchmark::State& state) {
    char path[] = "/tmp/kavrin-groups-XXXXXX";
    close(mkstemp(path));
    std::uint32_t size = 0;
    void* const map = kavrin_mapfile(write_map(path).c_str(), &size);
    if (map == nullptr) std::abort();
    const std::string name = user_name(kUsers - 1);
    std::vector<double> floor;
    std::vector<double> ours;
    for (auto _ : state) {
        floor.push_back(seconds_of([&] {
            benchmark::DoNotOptimize(bare_loop(static_cast<const char*>(map), name.c_str()));
        }));
        ours.push_back(seconds_of([&] {
            std::uint32_t count = 0;
            gid_t* const gids = kavrin_getgrouplist(map, size, name.c_str(), &count);
            if (count != kGroups) std::abort();
            std::free(gids);
        }));
        state.SetIterationTime(ours.back());
    }
    kavrin_unmap(map, size);
    unlink(path);
    state.counters["floor_us"] = median(floor) * 1e6;
    state.counters["lookup_us"] = median(ours) * 1e6;
    state.counters["ratio"] = median(ours) / median(floor);
}
BENCHMARK(LastUser)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    use_private_table();
    // The reader prints every list it finds.
    if (std::freopen("/dev/null", "w", stderr) == nullptr) std::abort();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
