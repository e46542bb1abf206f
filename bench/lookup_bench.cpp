// What one child costs in the lookup's scan of a folder: the last of 10, 1,000 and 100,000 children
// is looked up, against a bare loop over the same records that tests nothing but hash and length.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "big_map.h"
#include "kavrin.h"

namespace {

using namespace kvbench;

constexpr int kRounds = 31;

// The floor: the position of the first child with that hash and length.
std::uint32_t bare_scan(char* image, std::uint32_t folder, std::uint32_t hash,
                        std::uint16_t length) {
    const auto& header = *reinterpret_cast<const kavrin_be_header_t*>(image);
    const char* elements = image + header.fselem_offset;
    const char* names = image + header.nameelem_offset;
    const auto& element = *reinterpret_cast<const fs_elem_t*>(elements + folder);
    const auto& list =
        *reinterpret_cast<const child_list_t*>(image + header.list_offset + element.clist_offset);
    for (std::uint32_t i = 0; i < list.num_children; ++i) {
        const auto& child =
            *reinterpret_cast<const fs_elem_t*>(elements + list.children_offsets[i]);
        const auto& name = *reinterpret_cast<const name_elem_t*>(names + child.name_elem_offset);
        if (name.hashval == hash && name.name_len == length) return i;
    }
    return list.num_children;
}

std::uint32_t look_up(char* image, path_array_t* path) {
    std::uint32_t offset = 0;
    find_fselem_fromname(image, path, &offset);
    return offset;
}

path_array_t* split(const std::string& path) {
    path_array_t* array = nullptr;
    get_path_elem_smb4(const_cast<char*>(path.c_str()), static_cast<unsigned>(path.size() + 1),
                       &array);
    if (array == nullptr) std::abort();
    return array;
}

void LastChild(benchmark::State& state) {
    const auto children = static_cast<std::uint64_t>(state.range(0));
    char directory[] = "/tmp/kavrin-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) std::abort();
    publish(write_flat_pair(directory, children));
    char* image = static_cast<char*>(get_perm_map_addr());
    if (image == nullptr) std::abort();

    path_array_t* folder_path = split("Shared/flat");
    const std::uint32_t folder = look_up(image, folder_path);
    char last[32];
    std::snprintf(last, sizeof last, "file%05llu.txt",
                  static_cast<unsigned long long>(children - 1));
    path_array_t* path = split(std::string("Shared/flat/") + last);
    const auto length = static_cast<std::uint16_t>(std::strlen(last));
    const std::uint32_t hash = permbe_fname_hash(last, length);
    if (bare_scan(image, folder, hash, length) != children - 1) std::abort();

    const int repeats = static_cast<int>(std::max<std::uint64_t>(1, 2'000'000 / children));
    std::vector<double> floor;
    std::vector<double> ours;
    for (auto _ : state) {
        floor.push_back(seconds_of([&] {
            for (int i = 0; i < repeats; ++i)
                benchmark::DoNotOptimize(bare_scan(image, folder, hash, length));
        }));
        ours.push_back(seconds_of([&] {
            for (int i = 0; i < repeats; ++i) benchmark::DoNotOptimize(look_up(image, path));
        }));
        state.SetIterationTime(ours.back() / repeats);
    }
    const double scans = static_cast<double>(repeats) * static_cast<double>(children) / 1e9;
    state.counters["ns_per_child"] = median(ours) / scans;
    state.counters["floor_ns_per_child"] = median(floor) / scans;
    state.counters["ratio"] = median(ours) / median(floor);
    cleanup_path_array_smb4(&path);
    cleanup_path_array_smb4(&folder_path);
    put_perm_map_addr(image);
}
BENCHMARK(LastChild)->Arg(10)->Arg(1'000)->Arg(100'000)->Iterations(kRounds)->UseManualTime()->Unit(
    benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    use_private_table();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
