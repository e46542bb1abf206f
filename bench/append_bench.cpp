// One event through send_modify_vfs_event() by a real user, against a loop of only the system calls
// that it has to make: three looks at /dev/null for the keys, the semaphore found, taken and given
// back, the segment found, attached and detached. With 1, 2 and 4 processes at once. Promise: at
// most 1.2 times the floor with one.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "big_map.h"
#include "kavrin.h"

namespace {

using namespace kvbench;

constexpr int kRounds = 31;
constexpr int kEventsARound = 400;
constexpr int kBufferSize = 1 << 20;
constexpr uid_t kUser = 1001;

char path[] = "/srv/share/Shared/Projects/Offshore/2026/Survey/line-0117/report.docx";

constexpr std::size_t kRecordSize = 100;

template <bool Copies>
void calls_and_copy() {
    sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
    sembuf give{.sem_num = 0, .sem_op = 1, .sem_flg = SEM_UNDO};
    if (semop(semget(ftok("/dev/null", 2345), 1, 0), &take, 1) != 0) std::abort();
    void* const segment = shmat(shmget(ftok("/dev/null", 1234), kBufferSize, 0666), nullptr, 0);
    if (segment == reinterpret_cast<void*>(-1)) std::abort();
    if (Copies) {
        static const char record[kRecordSize] = "a record";
        auto* const buffer = static_cast<staging_buffer_t*>(segment);
        std::memcpy(static_cast<char*>(segment) + buffer->next_offset, record, sizeof record);
        buffer->next_offset += sizeof record;
        ++buffer->num_records;
    }
    if (semop(semget(ftok("/dev/null", 2345), 1, 0), &give, 1) != 0) std::abort();
    shmdt(segment);
}

void one_event() {
    VFSEvent event;
    vfsevent__init(&event);
    event.path = path;
    pop_vfs_event(&event);
    event.optype = VFSEVENT__OP_TYPE__OPTYPE_OPEN;
    event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE;
    if (send_modify_vfs_event(&event) != 0) std::abort();
}

// Microseconds that an event takes when so many processes send theirs at once.
template <typename Work>
double microseconds(int processes, Work work) {
    initialize_staging_buffer();
    const auto round = [&] {
        for (int i = 0; i < kEventsARound; ++i) work();
    };
    const double seconds = seconds_of([&] {
        for (int i = 1; i < processes; ++i)
            if (fork() == 0) {
                round();
                _exit(0);
            }
        round();
        for (int i = 1; i < processes; ++i) {
            int status = 0;
            if (wait(&status) < 0 || status != 0) std::abort();
        }
    });
    return seconds * 1e6 / kEventsARound;
}

// Keeps a lone process where it is, while it lives: one that has moved pays for the other
// processor's translations at every detach, in one loop and perhaps not in the next.
class ProcessorOf {
public:
    explicit ProcessorOf(int processes) {
        sched_getaffinity(0, sizeof all_, &all_);
        if (processes != 1) return;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    ~ProcessorOf() { sched_setaffinity(0, sizeof all_, &all_); }
    ProcessorOf(const ProcessorOf&) = delete;
    ProcessorOf& operator=(const ProcessorOf&) = delete;

private:
    cpu_set_t all_;
};

void Append(benchmark::State& state) {
    const int processes = static_cast<int>(state.range(0));
    std::vector<double> calls;
    std::vector<double> copies;
    std::vector<double> ours;
    const ProcessorOf one(processes);
    for (auto _ : state) {
        calls.push_back(microseconds(processes, calls_and_copy<false>));
        copies.push_back(microseconds(processes, calls_and_copy<true>));
        ours.push_back(microseconds(processes, one_event));
        state.SetIterationTime(ours.back() / 1e6);
    }
    state.counters["calls_us"] = median(calls);
    state.counters["calls+copy_us"] = median(copies);
    state.counters["event_us"] = median(ours);
    state.counters["ratio_to_calls"] = median(ours) / median(calls);
    state.counters["ratio_to_calls+copy"] = median(ours) / median(copies);
}
BENCHMARK(Append)->Arg(1)->Arg(2)->Arg(4)->Iterations(kRounds)->UseManualTime()->Unit(
    benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    use_private_table();
    global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = kBufferSize;
    global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval = 80;
    if (create_eventstore_staging_semaphore() != 1 || create_staging_buffer() != 0) std::abort();
    if (setresuid(0, kUser, 0) != 0) std::abort();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
