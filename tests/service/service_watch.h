// What the tests of the incoming folder and of the service's upkeep look at: the files that wait,
// the counters, the quarantine, the processes below the service.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "service_fixture.h"

namespace kvtest {

// The names in the incoming folder but for the two folders of the service.
std::vector<std::string> left_in_incoming();

// The entry of the status for a file that waits; null when there is none.
Json half_named(const std::string& file);
bool waits_for(const std::string& file, const std::string& part_of_why);

// A counter of the status.
std::uint64_t counter(const char* name);

// Nothing is queued, running or taken.
bool is_idle(std::chrono::milliseconds time = std::chrono::seconds(20));

std::size_t occurrences(const std::string& text, const std::string& part);
bool contains(const std::string& text, const std::string& part);

// Writes into the file where it lies, in steps of their own, and closes it.
void write_in_place(const std::string& path, const std::vector<std::string>& parts);

// Processes that this process started and that still run.
std::vector<pid_t> children_of(pid_t process);
// The process that fills an image, a worker's child; -1 when there is none.
pid_t filler_of(pid_t service);

// Holds a process still while it lives.
class Stopped {
public:
    explicit Stopped(pid_t process);
    ~Stopped();
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

private:
    pid_t process_;
};

class WatchTest : public ServiceTest {
protected:
    static void configure(const std::string& text) { write_file(kConfig, text); }
    // A named pair is in quarantine: its folder there, or empty after that time.
    static std::string quarantined(const std::string& name);
};

}  // namespace kvtest
