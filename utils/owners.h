// Scoped owners: what a function holds is given back on every way out, without clean-up ladders.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

namespace kavrin {

struct FreeDeleter {
    void operator()(void* pointer) const { std::free(pointer); }
};

// Something on the C heap; release() hands it to a caller who frees it.
template <typename T>
using HeapOwner = std::unique_ptr<T, FreeDeleter>;
using HeapString = HeapOwner<char>;

// A zero-filled T on the C heap, or null.
template <typename T>
HeapOwner<T> allocate_zeroed() {
    return HeapOwner<T>(static_cast<T*>(std::calloc(1, sizeof(T))));
}

// Gives errno back at the end of a scope whose own failures are not its caller's business.
class KeptErrno {
public:
    KeptErrno() : value_(errno) {}
    ~KeptErrno() { errno = value_; }
    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;

private:
    int value_;
};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~FileDescriptor() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};

}  // namespace kavrin
