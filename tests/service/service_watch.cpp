// See service_watch.h.
#include "service_watch.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <sstream>
#include <thread>

namespace kvtest {

using std::chrono::milliseconds;

std::vector<std::string> left_in_incoming() {
    std::vector<std::string> names = names_in(kIncoming);
    std::erase_if(names,
                  [](const std::string& name) { return name == ".work" || name == "quarantine"; });
    return names;
}

Json half_named(const std::string& file) {
    const Json status = status_now();
    if (!status.is_object()) return {};
    for (const Json& half : status["halves"])
        if (half["file"] == file) return half;
    return {};
}

bool waits_for(const std::string& file, const std::string& part_of_why) {
    return within(std::chrono::seconds(10), [&] {
        const Json half = half_named(file);
        return half.is_object() && contains(half["why"], part_of_why);
    });
}

std::uint64_t counter(const char* name) {
    return status_now()["counters"][name];
}

bool is_idle(milliseconds time) {
    return within(time, [] {
        const Json status = status_now();
        return status.is_object() && status["service"]["state"] == "idle" &&
               status["service"]["queued"] == 0 && names_in(kWork).empty();
    });
}

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

void write_in_place(const std::string& path, const std::vector<std::string>& parts) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(file, 0) << path;
    for (const std::string& part : parts) {
        EXPECT_EQ(write(file, part.data(), part.size()), static_cast<ssize_t>(part.size()));
        std::this_thread::sleep_for(milliseconds(40));  // a producer that is slow
    }
    close(file);
}

std::vector<pid_t> children_of(pid_t process) {
    const std::string task = "/proc/" + std::to_string(process) + "/task/";
    std::istringstream list(read_file(task + std::to_string(process) + "/children"));
    std::vector<pid_t> children;
    for (pid_t child = 0; list >> child;) children.push_back(child);
    return children;
}

pid_t filler_of(pid_t service) {
    for (const pid_t worker : children_of(service))
        for (const pid_t filler : children_of(worker)) return filler;
    return -1;
}

Stopped::Stopped(pid_t process) : process_(process) {
    if (process_ > 0) kill(process_, SIGSTOP);
}

Stopped::~Stopped() {
    if (process_ > 0) kill(process_, SIGCONT);
}

std::string WatchTest::quarantined(const std::string& name) {
    std::string found;
    within(std::chrono::seconds(20), [&] {
        for (const std::string& folder : names_in(kQuarantine))
            if (folder.ends_with("-" + name) &&
                file_exists(kQuarantine + "/" + folder + "/reason.txt"))
                found = kQuarantine + "/" + folder;
        return !found.empty();
    });
    return found;
}

}  // namespace kvtest
