/* The permission-load log: one comma-separated line for each outcome of a load, read by
 * administrators and monitoring. Reporting never fails its caller. */
#ifndef KAVRIN_LOGGING_H
#define KAVRIN_LOGGING_H

#include <stddef.h>
#include <stdio.h>

#include "kavrin_cdefs.h"

KV_BEGIN_DECLS

/** Severities, written as their number. */
typedef enum e_sweeper_logmsg_sev {
    SWEEPER_LOGSEV_OK = 0,
    SWEEPER_LOGSEV_INFO = 1,
    SWEEPER_LOGSEV_WARN = 2,
    SWEEPER_LOGSEV_ERR = 3,
    SWEEPER_LOGSEV_CRIT = 4,
    SWEEPER_LOGSEV_FATAL = 5
} e_sweeper_logmsg_sev_t;

/** Classes of outcome, written as their number. */
typedef enum log_msg_indx {
    PERMISSION_MAP_SUCCESS = 0,
    MISSING_JSON_FILES = 1,
    CORRUPTED_PERMISSION_MAP = 2,
    OUT_OF_MEMORY = 3,
    CONFIG_FILE_ERROR = 4,
    CANNOT_READ_JSON_FILE = 5,
    CANNOT_UNLINK_JSON_FILES = 6
} log_msg_indx;

/** An open log. */
typedef struct sweeper_log_s {
    FILE *fp;
} sweeper_log_t;

/** Texts for readers of the log, of the first three indices. */
extern const char *const messgage_dictionary[3];

/** Appends one line to "/var/log/kavrin_perms.log"; problems go to syslog and are dropped.
 *  @param txt one line, without a newline */
void log_perm_error(const char *txt, int indx, e_sweeper_logmsg_sev_t severity);

/** Opens a log for appending. @return a handle that the caller closes and frees, or null. */
sweeper_log_t *open_sweeper_log(const char *fname);

/** Closes the stream of a handle; the caller frees the handle. */
void close_sweeper_log(sweeper_log_t *hndl);

/**
 * Formats one line.
 * @param message in: null or a heap buffer; out: the line in the reallocated buffer, the caller's
 * @param meslen  receives the buffer's size
 * @return 0, or -1 without memory
 */
int create_sweeperlog_msg(unsigned int severity, const char *txt, int indx, char **message,
                          unsigned int *meslen);

/** Writes a line up to its terminator. @return 0, or -1 */
int write_sweeper_log(sweeper_log_t *hndl, size_t mes_len, char *message);

KV_END_DECLS

#endif
