// Outcomes of a load as formatted lines of the permission-load log.
#pragma once

#include "logging.h"
#include "mkperms_shm.h"

namespace kavrin {

// Writes one line with a formatted text.
[[gnu::format(printf, 3, 4)]] void report(log_msg_indx index, e_sweeper_logmsg_sev_t severity,
                                          const char* format, ...);

// Reports a failure that ends a load, at severity FATAL, and hands its result code on.
[[gnu::format(printf, 3, 4)]] e_membe_shm_err report_failure(e_membe_shm_err result,
                                                             log_msg_indx index, const char* format,
                                                             ...);

}  // namespace kavrin
