// Maps for the benchmarks, and the way they are measured: two things in turn, again and again, in
// one run, so that a noisy machine disturbs both alike and the ratio of the medians holds.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kvbench {

struct PairFiles {
    std::string size_path;
    std::string data_path;
    std::uint64_t elements = 0;
    std::uint64_t data_bytes = 0;
};

// Writes a pair of about `elements` elements into `directory`: ten folders below Shared, each a
// tree of folders with eight sub-folders and twenty files, three folders in ten with an ACL of
// their own. The deepest folders are named by deep_path().
PairFiles write_pair(const std::string& directory, std::uint64_t elements);

// A path with seven components below Shared that such a map holds.
std::string deep_path();

// Writes a pair whose only folder below Shared has that many files.
PairFiles write_flat_pair(const std::string& directory, std::uint64_t children);

// Builds the pair into the free segment and makes it current, as the service does; keeps the files.
void publish(const PairFiles& pair);

// Puts a private table with that debug level under the library.
void use_private_table(int debug_level = 0);

// Standard output to /dev/null and back.
class QuietStdout {
public:
    QuietStdout();
    ~QuietStdout();
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int saved_;
};

double seconds_of(const std::function<void()>& work);
double median(std::vector<double> values);

}  // namespace kvbench
