// Follows a folder of pending files: every event of every file that is there or appears, each once,
// in the order in which the files appear.
//
// The watch begins before the first listing, so that no file falls between the two; a file that
// both tell of is known again by its name, its inode, and how far it was read. When the kernel's
// queue overflows, the folder is listed again. A file is forgotten when its name is gone, so the
// memory is that of the files which the folder holds.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "descriptor.h"
#include "pending_folder.h"

namespace kvadmin {

// SIGINT and SIGTERM as something to wait for while it lives, so that one that comes between two
// waits counts.
class EndSignals {
public:
    EndSignals();
    ~EndSignals();
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;
    int descriptor() const { return arrived_.get(); }

private:
    sigset_t previous_;
    Descriptor arrived_;
};

class PendingFollower {
public:
    using Use = std::function<void(const VFSEvent&)>;

    // Watches the folder from here on, and holds the signals that end the following. Fails when it
    // cannot be watched.
    PendingFollower(std::string folder, RecordInput& input);

    // What a file has beyond what was read of it goes to `use`.
    void read(const std::string& name, const Use& use) { read(name, true, use); }
    // Takes a file for read.
    void pass(const std::string& name);

    // Reads what appears until SIGINT or SIGTERM comes or nobody reads standard output any more.
    // Fails when the folder goes away.
    void follow(const Use& use);

private:
    // How far a file was read.
    struct Place {
        dev_t device = 0;
        ino_t inode = 0;
        std::uint64_t size = 0;    // when it was read last
        std::uint64_t offset = 0;  // of the next record
        bool unfinished = false;   // it may have been read while it was being written
    };

    void read(const std::string& name, bool complete, const Use& use);
    void list_again(const Use& use);
    void take_events(const Use& use);
    void take_event(std::uint32_t what, const std::string& name, const Use& use);
    void forget_if_gone(const std::string& name);
    std::string path_of(const std::string& name) const { return folder_ + "/" + name; }

    std::string folder_;
    RecordInput& input_;
    EndSignals signals_;
    Descriptor watch_;
    std::unordered_map<std::string, Place> places_;
};

}  // namespace kvadmin
