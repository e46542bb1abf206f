// Hands out the bytes of an open file or of a text in memory, a stretch at a time, so that a reader
// of either looks the same and holds one buffer whatever the file's size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace kvadmin {

class ByteSource {
public:
    explicit ByteSource(int fd);  // borrowed; read from where it stands
    explicit ByteSource(std::string_view text, std::size_t stretch = std::string_view::npos)
        : text_(text), stretch_(stretch) {}

    // The next stretch, valid until the next call; empty at the end and after a failed read.
    std::string_view next();
    int error() const { return error_; }  // errno of a failed read, else 0

    // Told the bytes handed out so far, once a stretch.
    void on_progress(std::function<void(std::uint64_t)> told) { told_ = std::move(told); }

private:
    std::string_view read_stretch();

    int fd_ = -1;
    std::string_view text_;
    std::size_t stretch_ = 0;  // at most so many bytes of the text at a time
    std::vector<char> buffer_;
    std::uint64_t given_ = 0;
    int error_ = 0;
    std::function<void(std::uint64_t)> told_;
};

}  // namespace kvadmin
