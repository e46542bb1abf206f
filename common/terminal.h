// Colour and progress, only where a person looks: on a terminal, and colour never with NO_COLOR.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace kvadmin {

enum class Colour { kPlain, kRed, kGreen, kYellow, kBold, kDim };

// `text` in that colour when `stream` is a terminal that wants it, else as it is.
std::string coloured(std::FILE* stream, Colour colour, std::string_view text);

// A bar on standard error for work of a known size; prints nothing when it is no terminal.
class Progress {
public:
    Progress(std::string_view label, std::uint64_t total);
    ~Progress();  // removes the bar
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void update(std::uint64_t done);  // cheap: draws at most ten times a second

private:
    std::string label_;
    std::uint64_t total_;
    bool shown_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point last_{};
};

}  // namespace kvadmin
