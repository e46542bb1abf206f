// A flush of a full 1 MiB staging buffer into a pending file, against the same bytes written and
// synced with two calls. On the file system of /var/tmp (or KAVRIN_BENCH_DIR), since a flush is
// what the disk makes of it. Promise: at most 1.2 times the floor.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "big_map.h"
#include "kavrin.h"

namespace {

using namespace kvbench;

constexpr int kRounds = 41;
constexpr int kBufferSize = 1 << 20;

std::string folder;

// Fills the buffer with records of a hundred bytes, up to its last whole one.
std::vector<char> fill() {
    staging_buffer_t* const buffer = get_eventstore_staging_buffer();
    constexpr int kPayload = 92;
    staging_data_t* const record = alloc_staging_data(kPayload);
    record->size = kPayload;
    std::memset(record->buffer, 'k', kPayload);
    std::uint32_t offset = 16;
    std::uint32_t records = 0;
    for (; offset + kPayload + 8 <= kBufferSize; offset += kPayload + 8, ++records)
        std::memcpy(reinterpret_cast<char*>(buffer) + offset, record, kPayload + 8);
    buffer->num_records = records;
    buffer->next_offset = offset;
    std::free(record);
    const char* const data = reinterpret_cast<const char*>(buffer->data);
    std::vector<char> bytes(data, data + (offset - 16));
    put_eventstore_staging_buffer(buffer);
    return bytes;
}

void write_and_sync(const std::vector<char>& bytes, const std::string& name) {
    const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        fdatasync(fd) != 0)
        std::abort();
    close(fd);
}

void Flush(benchmark::State& state) {
    std::vector<double> floor;
    std::vector<double> ours;
    double megabytes = 0;
    int number = 0;
    for (auto _ : state) {
        const std::vector<char> bytes = fill();
        megabytes = static_cast<double>(bytes.size()) / 1e6;
        const std::string name = folder + "/floor" + std::to_string(number++);
        floor.push_back(seconds_of([&] { write_and_sync(bytes, name); }));
        ours.push_back(seconds_of([] {
            if (flush_staging_buffer() != 1) std::abort();
        }));
        state.SetIterationTime(ours.back());
    }
    state.counters["floor_MB/s"] = megabytes / median(floor);
    state.counters["flush_MB/s"] = megabytes / median(ours);
    state.counters["ratio"] = median(ours) / median(floor);
}
BENCHMARK(Flush)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    use_private_table();
    const char* const parent = std::getenv("KAVRIN_BENCH_DIR");
    folder = std::string(parent != nullptr ? parent : "/var/tmp") + "/kavrin-bench-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) std::abort();
    global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = kBufferSize;
    global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval = 99;
    std::strcpy(global_params[PARAM_STAGING_DIR].value.strval, folder.c_str());
    if (create_eventstore_staging_semaphore() != 1 || create_staging_buffer() != 0) std::abort();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove_all(folder);
}
