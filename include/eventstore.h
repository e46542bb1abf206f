/* The configuration table: nineteen parameters in shared memory, written by the service that
 * builds maps and copied by every other process. Every trace message asks the table for its debug
 * level, so create_config_buffer() or read_kavrin_config() comes before any other call.
 *
 * And the framed records in which events travel to the event store. */
#ifndef KAVRIN_EVENTSTORE_H
#define KAVRIN_EVENTSTORE_H

#include <stdint.h>

#include "kavrin_cdefs.h"

KV_BEGIN_DECLS

/** What a parameter's value is. */
typedef enum e_param_val_type {
    PARAM_VAL_TYPE_UNDEF = 0,
    PARAM_VAL_TYPE_INT = 1,
    PARAM_VAL_TYPE_STRING = 2,
    PARAM_VAL_TYPE_BOOLEAN = 3
} e_param_val_type_t;

/** Slots of the table. */
typedef enum e_kavrin_global_index {
    PARAM_MIN_INDEX = 0,
    PARAM_DEFAULT_USER_ID = 0,
    PARAM_DEFAULT_GROUP_ID = 1,
    PARAM_REGEX_FILE_NAME = 2,
    PARAM_DISABLE_SWEEPER_FLUSH = 3,
    PARAM_STAGING_BUFFER_SIZE = 4, /**< bytes */
    PARAM_FLUSH_PERIOD = 5,        /**< seconds */
    PARAM_STAGING_DIR = 6,
    PARAM_FLUSH_FILL_THRESHOLD = 7, /**< percent */
    PARAM_SOCKET_BACKLOG = 8,
    PARAM_SOCKET_MESSAGE_SIZE = 9,
    PARAM_SOCKET_PATH = 10,
    PARAM_PERMISSION_MAP_PATH = 11,     /**< no type, no key */
    PARAM_MESSENGER_LOCKFILE_PATH = 12, /**< no type, no key */
    PARAM_CHECK_REGEX_UNLINK = 13,
    PARAM_DEBUG_LEVEL = 14,
    PARAM_ENABLE_FORBIDDEN_RMDIR = 15,
    PARAM_AUDITING_DIR = 16,
    PARAM_AUDITING_BUFFER_SIZE = 17,    /**< bytes */
    PARAM_AUDITING_FLUSH_INTERVAL = 18, /**< seconds */
    PARAM_MAX_INDEX = 19                /**< number of slots */
} e_kavrin_global_index_t;

/** Bytes of a string value, its terminator included. */
#define KAVRIN_PARAM_STRLEN 1024

/** One slot, 1,040 bytes. */
typedef struct global_param_s {
    uint32_t type;       /**< e_param_val_type_t */
    const char *varname; /**< key string; an address of the creating process, of no use elsewhere */
    union {
        int32_t intval; /**< also booleans: 0 or not */
        char strval[KAVRIN_PARAM_STRLEN];
    } value;
} global_param_t;

/** The table in use: the shared one in its creator, a private copy elsewhere; null before. */
extern global_param_t *global_params;

/** Creates the table, removing an older one, with types and keys set and every value zero. Takes
 *  two seconds when an older one exists.
 *  @return 0, or -1 */
int create_config_buffer(void);

/** Removes the table; private copies stay usable.
 *  @return 0 when there was one, else -1 */
int remove_config_buffer(void);

/** Copies the shared table into the private one; a missing one is created, all zero. Not in the
 *  process that called create_config_buffer(): there `global_params` is the segment itself.
 *  @return 0, or -1 */
int read_kavrin_config(void);

/** What every framed record carries. */
#define STAGING_DATA_SIG 0x04012010u

KV_BEGIN_FLEXIBLE_RECORDS

/** A packed message in its frame, as it lies in a buffer, a pending file and an audit file: without
 *  gaps, so at any byte. It occupies `size` + 8 bytes; both numbers are little-endian. */
typedef struct KV_PACKED staging_data_s {
    uint32_t size; /**< bytes of payload */
    uint32_t sig;  /**< STAGING_DATA_SIG */
    uint8_t buffer[];
} staging_data_t;

/** A buffer of framed records: the shared staging buffer, and the audit buffer of a process. */
typedef struct staging_buffer_s {
    uint32_t num_records;
    uint32_t next_offset;     /**< where the next record goes, from the buffer's start; 16 when empty */
    uint64_t last_flush_time; /**< audit buffer: seconds; staging buffer: 0, not maintained */
    uint8_t data[];
} staging_buffer_t;

KV_END_FLEXIBLE_RECORDS

KV_END_DECLS

#endif
