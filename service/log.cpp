// See log.h.
#include "log.h"

#include <cstdio>
#include <cstdlib>

#include "utf8.h"

namespace kvservice {
namespace {

bool to_syslog = false;

// The journal takes the priority from the line's start; a person would only stumble over it.
bool is_journal() {
    static const bool journal = std::getenv("JOURNAL_STREAM") != nullptr;
    return journal;
}

}  // namespace

void log_to_syslog() {
    to_syslog = true;
}

void log_line(int priority, std::string_view message) {
    const std::string text = kvadmin::printable(message);
    if (to_syslog)
        syslog(LOG_DAEMON | priority, "kavrind: %s", text.c_str());
    else if (is_journal())
        fmt::print(stderr, "<{}>{}\n", priority, text);
    else
        fmt::print(stderr, "kavrind: {}\n", text);
}

}  // namespace kvservice
