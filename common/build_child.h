// The child process that a map is built in. The library ends its process on input it cannot take,
// so its calls run where that ends nothing else: with limits, with standard output thrown away and
// standard error kept, and with nothing made current. map_publish.h does what comes before and
// after.
#pragma once

#include <signal.h>
#include <sys/ipc.h>

#include <cstdint>
#include <functional>
#include <string>

#include "descriptor.h"

namespace kvadmin {

// Where a build stands. The tests end processes at each of these.
enum class BuildStep {
    kLocked,         // no other build can start
    kChecked,        // the pair (or the persisted map) was read and judged
    kCopied,         // the persisted map lies beside itself a second time
    kCleared,        // nothing is under the next key
    kSized,          // child: the image's size is known
    kCreated,        // child: the segment exists, empty
    kFilled,         // child: the load is over, persisted file written
    kBuilt,          // the child has ended well
    kVerified,       // the image was walked and is what was asked for
    kKept,           // it lies among the kept maps
    kSwapped,        // readers use it
    kInitialised,    // maps are marked available
    kMarked,         // connections will ask again
    kCopyRemoved,    // the persisted map is the new one for good
    kSourcesRemoved  // the pair is gone
};
using StepObserver = std::function<void(BuildStep)>;

struct BuildLimits {
    std::uint64_t memory_mib = 0;  // private memory of the child, the image not counted; 0: none
    unsigned seconds = 0;          // wall clock; 0: none
};

// While one lives, the signals by which people and systems end a process wait in a descriptor, so
// that a build is undone before it ends. Those that the process ignores stay ignored.
class Interruptions {
public:
    Interruptions();
    ~Interruptions();  // takes in what is waiting and lets signals through again
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    int descriptor() const { return descriptor_.get(); }
    bool waiting() const;
    const sigset_t& mask_before() const { return before_; }

private:
    sigset_t before_;
    Descriptor descriptor_;
};

struct ChildJob {
    std::string size_path;  // both empty: load the persisted map
    std::string data_path;
    key_t key = 0;                    // of the segment to create
    std::uint32_t expected_size = 0;  // what the image must be sized at
    BuildLimits limits;
    StepObserver on_step;
};

// What the child said on standard error although it ended well, its end only; empty as a rule.
struct ChildOutput {
    std::string error_text;
};

// Sizes, creates and fills the segment in a child. Returns once the child is gone, however it went;
// anything but success is a CommandError that names the step and holds the child's last words.
ChildOutput run_build_child(const ChildJob& job, const Interruptions& interruptions);

// The text's end as one line of at most `limit` bytes that a message can hold.
std::string last_words(const std::string& text, std::size_t limit = 600);

}  // namespace kvadmin
