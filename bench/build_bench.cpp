// The whole load of a map (size file, segment, parse, image, persisting; its traces going to
// /dev/null) against a bare parse of the same data file by the same JSON parser with callbacks that
// do nothing. Promise: at most 2.0 times the bare parse, and peak memory of at most the image, the
// data file and 16 MiB.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <yajl/yajl_parse.h>

#include <cstdio>
#include <cstdlib>

#include "big_map.h"
#include "kavrin.h"

namespace {

using namespace kvbench;

constexpr std::uint64_t kElements = 1'000'000;
constexpr int kRounds = 11;
constexpr std::size_t kChunk = 65536;

int ignore(void*) {
    return 1;
}
int ignore_number(void*, const char*, size_t) {
    return 1;
}
int ignore_text(void*, const unsigned char*, size_t) {
    return 1;
}

constexpr yajl_callbacks kIgnoreAll = {nullptr,       nullptr,     nullptr, nullptr,
                                       ignore_number, ignore_text, ignore,  ignore_text,
                                       ignore,        ignore,      ignore};

// The floor: the file in chunks, through the parser, into nothing.
void bare_parse(const std::string& path) {
    static unsigned char chunk[kChunk];
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const yajl_handle parser = yajl_alloc(&kIgnoreAll, nullptr, nullptr);
    yajl_config(parser, yajl_allow_comments, 1);
    for (;;) {
        const ssize_t got = read(file, chunk, sizeof chunk);
        if (got <= 0) break;
        if (yajl_parse(parser, chunk, static_cast<std::size_t>(got)) != yajl_status_ok)
            std::abort();
    }
    if (yajl_complete_parse(parser) != yajl_status_ok) std::abort();
    yajl_free(parser);
    close(file);
}

struct Links {
    std::string size;
    std::string data;
};

Links link_pair(const PairFiles& pair) {
    Links links{pair.size_path + ".load", pair.data_path + ".load"};
    if (link(pair.size_path.c_str(), links.size.c_str()) != 0 ||
        link(pair.data_path.c_str(), links.data.c_str()) != 0)
        std::abort();
    return links;
}

// The load as the service does it, but for the switch. Returns the image's size.
unsigned int whole_load(Links& links) {
    memsummary_t* summary = nullptr;
    if (get_permbe_shmsize(links.size.data(), links.data.data(), &summary) != SHM_MEMBE_OK)
        std::abort();
    int id = -1;
    summary->membuf = create_perm_map_shm(get_next_perm_table_key(0), summary->memsize, &id);
    if (summary->membuf == nullptr || init_permbe_shm(summary) != SHM_MEMBE_OK) std::abort();
    put_perm_map_addr(summary->membuf);
    const unsigned int size = summary->memsize;
    shmctl(id, IPC_RMID, nullptr);
    std::free(summary->perm_map_name_size);
    std::free(summary->perm_map_name_data);
    std::free(summary);
    return size;
}

// Peak resident memory of a load in a process of its own, less what the process had before.
double peak_mebibytes(const PairFiles& pair) {
    int result[2];
    if (pipe(result) != 0) std::abort();
    if (fork() == 0) {
        struct rusage before, after;
        Links links = link_pair(pair);
        getrusage(RUSAGE_SELF, &before);
        whole_load(links);
        getrusage(RUSAGE_SELF, &after);
        const long kibibytes = after.ru_maxrss - before.ru_maxrss;
        if (write(result[1], &kibibytes, sizeof kibibytes) < 0) std::abort();
        _exit(0);
    }
    long kibibytes = 0;
    if (read(result[0], &kibibytes, sizeof kibibytes) < 0) std::abort();
    wait(nullptr);
    return static_cast<double>(kibibytes) / 1024;
}

void BuildAgainstBareParse(benchmark::State& state) {
    char directory[] = "/tmp/kavrin-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) std::abort();
    const PairFiles pair = write_pair(directory, kElements);
    std::vector<double> floor;
    std::vector<double> ours;
    unsigned int image = 0;
    for (auto _ : state) {
        const QuietStdout quiet;
        floor.push_back(seconds_of([&] { bare_parse(pair.data_path); }));
        Links links = link_pair(pair);
        ours.push_back(seconds_of([&] { image = whole_load(links); }));
        state.SetIterationTime(ours.back());
    }
    constexpr double kMebi = 1024.0 * 1024.0;
    const double seconds = median(ours);
    state.counters["floor_ms"] = median(floor) * 1e3;
    state.counters["load_ms"] = seconds * 1e3;
    state.counters["ratio"] = seconds / median(floor);
    state.counters["elements/s"] = static_cast<double>(pair.elements) / seconds;
    state.counters["MB/s"] = static_cast<double>(pair.data_bytes) / 1e6 / seconds;
    {
        const QuietStdout quiet;
        state.counters["peak_MiB"] = peak_mebibytes(pair);
    }
    state.counters["promised_MiB"] =
        (static_cast<double>(image) + static_cast<double>(pair.data_bytes)) / kMebi + 16;
}
BENCHMARK(BuildAgainstBareParse)
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    use_private_table();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
