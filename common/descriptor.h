// An open file descriptor, closed on every way out. The library has an owner of its own; the tools
// stand on the public headers alone.
#pragma once

#include <unistd.h>

#include <utility>

namespace kvadmin {

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Closes now; false when the system reports a failed write only here.
    bool reset() { return fd_ < 0 || close(std::exchange(fd_, -1)) == 0; }

private:
    int fd_;
};

}  // namespace kvadmin
