// The staging buffer under six writers for as long as one likes: undisturbed, with writers that are
// killed, and on a disk that is full most of the time. Prints one line for each phase; exits 1 when
// an event was lost, doubled or out of order, or the buffer or its semaphore broke.
//
//   staging_soak [SECONDS]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "staging_run.h"

namespace {

using Clock = std::chrono::steady_clock;
using kvsoak::Counts;
using kvsoak::Plan;

struct Phase {
    const char* name;
    Counts (*run)(const Plan&);
    int buffer_size;
    std::size_t events;
    int milliseconds;  // of one round
};

constexpr Phase kPhases[] = {
    {"writers", kvsoak::run_writers, 16 * 1024, 20'000, 0},
    {"kills", kvsoak::run_kills, 4 * 1024, 1'000'000, 10'000},
    {"full disk", kvsoak::run_full_disk, 8 * 1024, 1'000'000, 5'000},
};

// Rounds of one phase until its time is over, at least one.
bool soak(const Phase& phase, const std::string& folder, double seconds) {
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    Counts sum;
    unsigned rounds = 0;
    do {
        Plan plan;
        plan.folder = folder;
        plan.buffer_size = phase.buffer_size;
        plan.events = phase.events;
        const std::chrono::duration<double, std::milli> left = end - Clock::now();
        if (phase.milliseconds > 0)
            plan.milliseconds = std::max(500, std::min(phase.milliseconds, int(left.count())));
        plan.seed = ++rounds;
        add(sum, phase.run(plan));
    } while (Clock::now() < end && sum.violations.empty());
    std::printf(
        "%-9s  rounds %u  events %llu  refused %llu  unfinished %llu  files %llu  kills %llu  "
        "looks %llu  temporaries %llu (events only there %llu)  names out of order %llu  %s%s",
        phase.name, rounds, static_cast<unsigned long long>(sum.accepted),
        static_cast<unsigned long long>(sum.refused),
        static_cast<unsigned long long>(sum.unfinished), static_cast<unsigned long long>(sum.files),
        static_cast<unsigned long long>(sum.kills), static_cast<unsigned long long>(sum.looks),
        static_cast<unsigned long long>(sum.temporaries),
        static_cast<unsigned long long>(sum.in_temporaries),
        static_cast<unsigned long long>(sum.names_out_of_order),
        sum.violations.empty() ? "ok" : "BROKEN",
        sum.marker.empty() ? "\n" : ("  last marked: " + sum.marker).c_str());
    for (const std::string& violation : sum.violations) std::printf("  %s\n", violation.c_str());
    std::fflush(stdout);
    return sum.violations.empty();
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
    if (argc > 2 || seconds <= 0) {
        std::fputs("usage: staging_soak [SECONDS]\n", stderr);
        return 64;
    }
    char folder[] = "/tmp/kavrin-soak-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    bool good = true;
    for (const Phase& phase : kPhases) good = soak(phase, folder, seconds / 3) && good;
    std::filesystem::remove_all(folder);
    return good ? 0 : 1;
}
