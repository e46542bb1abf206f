// One uncached verdict on a deep path below Shared in a map of 1,000,000 elements, asked by a real
// user, against two loops in the same process: only the system calls that a verdict has to make,
// and these calls with a straightforward walk on the freshly attached image. Promise: at most 1.1
// times the second. The difference between the two is page faults of the fresh attachment.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "big_map.h"
#include "kavrin.h"

namespace {

using namespace kvbench;

constexpr std::uint64_t kElements = 1'000'000;
constexpr int kRounds = 31;
constexpr int kVerdictsARound = 200;
constexpr uid_t kUser = 1001;
constexpr gid_t kGroup = 1000;
constexpr gid_t kPowerUsers = 5001;

std::string share_root;
std::string path;
std::string folder;  // the path's parent

// --- The system calls, in a verdict's order. -----------------------------------------------------

struct Ids {
    uid_t uid;
    gid_t gid;
};

Ids become_root() {
    const Ids ids{geteuid(), getegid()};
    syscall(SYS_setresuid, -1, 0, -1);
    syscall(SYS_setresgid, -1, 0, -1);
    return ids;
}

void become(const Ids& ids) {
    syscall(SYS_setresuid, -1, ids.uid, -1);
    syscall(SYS_setresgid, -1, ids.gid, -1);
}

int current_index() {
    const int id = semget(ftok("/dev/null", 7065), 0, 0666);
    benchmark::DoNotOptimize(semctl(id, 1, GETVAL));
    return semctl(id, 0, GETVAL);
}

void* attach_current() {
    struct stat st;
    if (stat("/etc/kavrin/.permbe_map", &st) != 0) std::abort();
    const int index = current_index();
    void* image = shmat(shmget(0x70657269 + index, 0, 0), nullptr, 0);
    if (current_index() != index) std::abort();
    return image;
}

// --- A straightforward walk on an image. ---------------------------------------------------------

template <typename Record>
const Record& record(const char* at) {
    return *reinterpret_cast<const Record*>(at);
}

std::uint32_t straight_walk(const char* image, std::string_view rest) {
    const auto& header = record<kavrin_be_header_t>(image);
    const char* elements = image + header.fselem_offset;
    std::uint32_t offset = 0;
    while (!rest.empty()) {
        const std::string_view component = rest.substr(0, rest.find('/'));
        rest.remove_prefix(std::min(rest.size(), component.size() + 1));
        const std::uint32_t hash =
            permbe_fname_hash(component.data(), static_cast<std::uint32_t>(component.size()));
        const auto& list = record<child_list_t>(image + header.list_offset +
                                                record<fs_elem_t>(elements + offset).clist_offset);
        for (std::uint32_t i = 0; i < list.num_children; ++i) {
            const std::uint32_t child = list.children_offsets[i];
            const auto& element = record<fs_elem_t>(elements + child);
            const auto& name =
                record<name_elem_t>(image + header.nameelem_offset + element.name_elem_offset);
            if (element.signature != FSELEMSIG || name.signature != NAMESIG) std::abort();
            if (name.hashval == hash && name.name_len == component.size() &&
                strncasecmp(name.name, component.data(), component.size()) == 0) {
                offset = child;
                break;
            }
        }
    }
    for (;;) {
        const auto& element = record<fs_elem_t>(elements + offset);
        const auto& acl = record<beacl_t>(image + header.acl_offset + element.acl_offset);
        if (acl.num_aces != 0 || offset == 0) {
            std::uint32_t mask = 0;
            for (std::uint32_t i = 0; i < acl.num_aces; ++i)
                if (acl.aces[i].id == kUser || acl.aces[i].id == kGroup)
                    mask |= acl.aces[i].perm_mask;
            return mask;
        }
        offset = element.parent_offset;
    }
}

// --- What is measured. ---------------------------------------------------------------------------

void calls_and(bool walk) {
    struct stat st;
    benchmark::DoNotOptimize(geteuid());
    Ids ids = become_root();
    stat((share_root + "/" + path).c_str(), &st);
    become(ids);
    benchmark::DoNotOptimize(geteuid());
    benchmark::DoNotOptimize(getegid());
    gid_t gids[64];
    benchmark::DoNotOptimize(getgroups(getgroups(0, nullptr), gids));
    ids = become_root();
    void* image = attach_current();
    if (walk) benchmark::DoNotOptimize(straight_walk(static_cast<const char*>(image), folder));
    become(ids);
    ids = become_root();
    shmdt(image);
    become(ids);
}

void verdict() {
    int is_nav = 0;
    if (vfs_enforce_perms(share_root.c_str(), path.c_str(), FSOP_OPEN_READ, nullptr, 0, &is_nav) !=
        KVPERMS_HAS_PERMS)
        std::abort();
}

template <typename Work>
double microseconds(Work work) {
    return seconds_of([&] {
               for (int i = 0; i < kVerdictsARound; ++i) work();
           }) *
           1e6 / kVerdictsARound;
}

template <typename Work>
double faults(Work work) {
    struct rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    for (int i = 0; i < kVerdictsARound; ++i) work();
    getrusage(RUSAGE_SELF, &after);
    return static_cast<double>(after.ru_minflt - before.ru_minflt) / kVerdictsARound;
}

void UncachedVerdict(benchmark::State& state) {
    std::vector<double> calls;
    std::vector<double> walked;
    std::vector<double> ours;
    const auto with_calls = [] { calls_and(false); };
    const auto with_walk = [] { calls_and(true); };
    for (auto _ : state) {
        calls.push_back(microseconds(with_calls));
        walked.push_back(microseconds(with_walk));
        ours.push_back(microseconds(verdict));
        state.SetIterationTime(ours.back() / 1e6);
    }
    state.counters["calls_us"] = median(calls);
    state.counters["calls+walk_us"] = median(walked);
    state.counters["verdict_us"] = median(ours);
    state.counters["ratio_to_calls"] = median(ours) / median(calls);
    state.counters["ratio_to_calls+walk"] = median(ours) / median(walked);
    state.counters["faults_walk"] = faults(with_walk);
    state.counters["faults_verdict"] = faults(verdict);
}
BENCHMARK(UncachedVerdict)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMicrosecond);

void take_identity() {
    const gid_t groups[] = {kGroup, kPowerUsers};
    if (setgroups(2, groups) != 0 || setresgid(kGroup, kGroup, kGroup) != 0 ||
        setresuid(0, kUser, 0) != 0)
        std::abort();
    vfs_set_admins_powerusers(5000, kPowerUsers);
}

}  // namespace

int main(int argc, char** argv) {
    use_private_table();
    char directory[] = "/tmp/kavrin-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) std::abort();
    path = deep_path();
    folder = path.substr(0, path.rfind('/'));
    share_root = std::string(directory) + "/share";
    std::filesystem::create_directories(share_root + "/" + folder);
    std::ofstream(share_root + "/" + path) << "x";
    publish(write_pair(directory, kElements));
    take_identity();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
