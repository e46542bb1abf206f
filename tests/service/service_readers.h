// What smbd does all day, in processes of its own: the map is attached and looked through, and two
// verdicts are asked for, without a pause. Each look must find one whole generation, and each
// verdict must be the one that the map gives.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "service_fixture.h"

namespace kvtest {

// The generation that the header and every folder's ACL agree on, or -1.
long whole_generation(std::span<const std::uint8_t> image);

struct ReaderReport {
    std::atomic<std::uint64_t> looks;      // rounds
    std::atomic<std::uint64_t> absent;     // no map
    std::atomic<std::uint64_t> mixed;      // a map of several generations, or a damaged one
    std::atomic<std::uint64_t> backwards;  // a map older than the one before
    std::atomic<std::uint64_t> refused;    // what the map allows was not allowed
    std::atomic<std::uint64_t> allowed;    // what the map denies was not denied
    std::atomic<int> verdict;              // the last wrong one
    std::atomic<long> generation;          // of the last look
};

class Readers {
public:
    explicit Readers(int count = 4);
    ~Readers();
    Readers(const Readers&) = delete;
    Readers& operator=(const Readers&) = delete;

    // Each reader began and ended a look after this call.
    bool look_again(std::chrono::milliseconds time = std::chrono::seconds(10)) const;
    bool all_see(long generation, std::chrono::milliseconds time = std::chrono::seconds(10)) const;
    std::uint64_t hurts() const;  // of all readers, until now
    // Ends them: nobody was refused anything, or saw a map that is none.
    void expect_unhurt();

private:
    struct Board {
        std::atomic<bool> stop;
        ReaderReport reports[8];
    };
    Board* board_;
    std::string share_;
    std::vector<pid_t> processes_;
};

}  // namespace kvtest
