// Work in a process of its own: what may take long, may be ended by the library or by a limit, or
// may wait for somebody else's semaphore. The loop goes on meanwhile and is told the result.
//
// The process dies with the service, however that dies.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "descriptor.h"
#include "event_loop.h"
#include "failure.h"

namespace kvservice {

using Json = nlohmann::ordered_json;

struct WorkResult {
    bool done = false;
    bool busy = false;  // it failed because somebody else is at it
    bool died = false;  // without an answer
    kvadmin::Exit code = kvadmin::Exit::kFailure;
    std::string error;   // one line; empty when done
    std::string output;  // what the process wrote to standard output and standard error
    Json value;          // what the work gave back
};

class Worker {
public:
    using Work = std::function<Json()>;  // fails by CommandError
    using End = std::function<void(const WorkResult&)>;

    // `what` names the work in the message of a death. Fails by CommandError.
    Worker(EventLoop& loop, std::string what, const Work& work, End on_end);
    ~Worker();  // ends the process at once when it is still there
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    pid_t process() const { return process_; }
    void interrupt() const;  // asks it to end: a build undoes what it did

private:
    void end_at_once() const;
    void take_end(const siginfo_t& info);
    WorkResult result_of(const siginfo_t& info) const;

    std::string what_;
    End on_end_;
    kvadmin::Descriptor answer_;
    kvadmin::Descriptor output_;
    pid_t process_ = -1;
    bool ended_ = false;
    Source source_;
};

}  // namespace kvservice
