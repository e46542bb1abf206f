// See terminal.h.
#include "terminal.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace kvadmin {
namespace {

bool wants_colour(std::FILE* stream) {
    const char* no_colour = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return isatty(fileno(stream)) == 1 && (no_colour == nullptr || *no_colour == 0) &&
           terminal != nullptr && std::string_view(terminal) != "dumb";
}

constexpr const char* kCodes[] = {"0", "31", "32", "33", "1", "2"};

}  // namespace

std::string coloured(std::FILE* stream, Colour colour, std::string_view text) {
    if (colour == Colour::kPlain || !wants_colour(stream)) return std::string(text);
    return fmt::format("\x1b[{}m{}\x1b[0m", kCodes[static_cast<int>(colour)], text);
}

Progress::Progress(std::string_view label, std::uint64_t total)
    : label_(label), total_(total), shown_(isatty(STDERR_FILENO) == 1 && total > 0) {}

Progress::~Progress() {
    if (drawn_) fmt::print(stderr, "\r\x1b[K");
}

void Progress::update(std::uint64_t done) {
    if (!shown_) return;
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - last_ < std::chrono::milliseconds(100)) return;
    last_ = now;
    drawn_ = true;
    constexpr std::uint64_t kWidth = 40;
    const std::uint64_t filled = std::min(done, total_) * kWidth / total_;
    fmt::print(stderr, "\r{} [{:#<{}}{:.<{}}] {:3}%", label_, "", filled, "", kWidth - filled,
               std::min(done, total_) * 100 / total_);
}

}  // namespace kvadmin
