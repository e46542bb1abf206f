// Chance that can be had again: the seeds are the tests', and so is every draw.
#pragma once

#include <random>
#include <string>

namespace kvtest {

class Chance {
public:
    explicit Chance(unsigned seed) : engine_(seed) {}
    // 0 to count - 1. Not std::uniform_int_distribution: its draws differ between libraries.
    unsigned below(unsigned count) { return static_cast<unsigned>(engine_()) % count; }
    bool one_in(unsigned count) { return below(count) == 0; }
    template <typename Container>
    const auto& of(const Container& container) {
        return container[below(static_cast<unsigned>(std::size(container)))];
    }
    std::string recased(std::string text) {
        for (char& c : text) {
            const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
            if (letter && one_in(2)) c = static_cast<char>(c ^ 0x20);
        }
        return text;
    }

private:
    std::mt19937 engine_;
};

}  // namespace kvtest
