// Writes the benchmarks' pair of JSON files, for measuring by hand: make_pair DIRECTORY ELEMENTS.
#include <cstdio>
#include <cstdlib>

#include "big_map.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: make_pair DIRECTORY ELEMENTS\n");
        return 64;
    }
    const kvbench::PairFiles pair =
        kvbench::write_pair(argv[1], std::strtoull(argv[2], nullptr, 10));
    std::printf("%s %s\n%llu elements, %llu bytes\n", pair.size_path.c_str(),
                pair.data_path.c_str(), static_cast<unsigned long long>(pair.elements),
                static_cast<unsigned long long>(pair.data_bytes));
}
