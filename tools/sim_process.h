// The process of a connected user, with the identity that smbd gives one: real and saved uid 0, the
// effective uid the user's, his groups set. A process each, so that identities never mix, and so
// that an assertion ends one connection and nothing else.
//
// A process is told which statement of the script is next, which it has as well, and answers with
// what became of it. After every statement it looks whether it still is who it was.
#pragma once

#include <sys/types.h>

#include <string>

#include "descriptor.h"
#include "sim_report.h"
#include "sim_script.h"
#include "sim_stage.h"

namespace kvadmin {

class SimProcess {
public:
    // Starts it; the answer to the connect comes first.
    SimProcess(const SimCaller& caller, const std::string& share, const SimScript& script,
               bool audit);
    ~SimProcess();  // ends it
    SimProcess(const SimProcess&) = delete;
    SimProcess& operator=(const SimProcess&) = delete;

    SimOutcome connected();
    SimOutcome perform(std::size_t statement);
    // Sends SIGUSR1, and waits until it was handled.
    SimOutcome signal();

    pid_t pid() const { return pid_; }
    bool alive() const { return alive_; }

private:
    SimOutcome answer();
    SimOutcome ask(int statement);
    SimOutcome ended();

    pid_t pid_ = -1;
    bool alive_ = false;
    Descriptor channel_;
    Descriptor errors_;  // its standard error
};

}  // namespace kvadmin
