// See load_report.h.
#include "permissions/load_report.h"

#include <limits.h>

#include <cstdarg>
#include <cstdio>

namespace kavrin {
namespace {

void write_line(log_msg_indx index, e_sweeper_logmsg_sev_t severity, const char* format,
                va_list arguments) {
    char text[PATH_MAX + 128];
    std::vsnprintf(text, sizeof text, format, arguments);
    log_perm_error(text, index, severity);
}

}  // namespace

void report(log_msg_indx index, e_sweeper_logmsg_sev_t severity, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(index, severity, format, arguments);
    va_end(arguments);
}

e_membe_shm_err report_failure(e_membe_shm_err result, log_msg_indx index, const char* format,
                               ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(index, SWEEPER_LOGSEV_FATAL, format, arguments);
    va_end(arguments);
    return result;
}

}  // namespace kavrin
