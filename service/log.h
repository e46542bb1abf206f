// What the service tells: one line a message, to standard error while it is attached, else to
// syslog.
#pragma once

#include <fmt/format.h>
#include <syslog.h>

#include <string_view>

namespace kvservice {

// From here on messages go to syslog.
void log_to_syslog();

void log_line(int priority, std::string_view message);

template <typename... Args>
void log_info(fmt::format_string<Args...> format, Args&&... args) {
    log_line(LOG_INFO, fmt::format(format, std::forward<Args>(args)...));
}
template <typename... Args>
void log_warning(fmt::format_string<Args...> format, Args&&... args) {
    log_line(LOG_WARNING, fmt::format(format, std::forward<Args>(args)...));
}
template <typename... Args>
void log_error(fmt::format_string<Args...> format, Args&&... args) {
    log_line(LOG_ERR, fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace kvservice
