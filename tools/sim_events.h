// The events that operations record: those that a process added to the staging buffer since the
// last look, and those that lie in pending files.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "sim_report.h"

namespace kvadmin {

class SimEvents {
public:
    // Notes what the process has in the buffer now, so that only what comes after it is new.
    void look(pid_t process);
    void print_new(pid_t process, const SimPrinter& printer);

    // Flushes the buffer as a disconnect does, prints every pending event and removes the files, as
    // the event store would.
    static void print_pending(const std::string& folder, const SimPrinter& printer);

private:
    std::map<pid_t, std::size_t> seen_;
};

}  // namespace kvadmin
