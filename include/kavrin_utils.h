/* What every other part stands on: canonical paths, comparison by the share's case rules, special
 * names, the switch to root and back, and the staging buffer in which the events of all processes
 * collect until they are flushed into pending files. */
#ifndef KAVRIN_UTILS_H
#define KAVRIN_UTILS_H

#include <stddef.h>

#include "eventstore.h"
#include "kavrin_cdefs.h"
#include "kavrin_structs.h"

KV_BEGIN_DECLS

/**
 * Canonical form of a path: no empty or "." components, ".." resolved textually.
 * @return a heap string that the caller frees, or null: errno ENOMEM, ENOENT for a relative path
 *         that climbs above its start, untouched for a null path.
 */
char *normalize_path(const char *path);

/**
 * The path without its last component.
 * @return a heap string that the caller frees: "" for a relative path of one component, "/" for
 *         an absolute one; null for a null path or without memory.
 */
char *parent_dir_from_path(const char *path);

/**
 * Compares without regard to ASCII letter case.
 *
 * The first character of each string is never looked at; neither may be null or empty.
 * @return 0 equal, -1 or 1, or 2 when the first difference that matters is between two characters
 *         outside ASCII: only strcasecmp_m_wrapper() can tell.
 */
int kavrin_strcasecmp(const char *str1, const char *str2);

/** The same over at most `len` characters, the first included; a `len` below 1 gives 0. */
int kavrin_strncasecmp(const char *str1, const char *str2, int len);

/** Samba's multibyte comparison over whole strings. Ends the process with status 1 when Samba's
 *  library or its routine is missing. */
int strcasecmp_m_wrapper(const char *s1, const char *s2);

/** Samba's multibyte comparison over at most `n` characters. */
int strncasecmp_m_wrapper(const char *s1, const char *s2, size_t n);

/** Opens Samba's library once for the process; ends the process with status 1 when it cannot. */
void init_samba_lib_handle(void);

/** 1 for names that clients keep for themselves and that are always allowed, else 0.
 *  @param path relative to the share root, normalised */
int is_special_folder_file(const char *path);

/* Identity. Only the calling thread's changes, and only its uids: the gids stay as they are. ------ */

/**
 * Saves the credentials and makes root the real and effective uid; the saved uid stays. A caller
 * whose effective uid is 0 stays as it is.
 * @param perm_ctx in: a context to fill, or a pointer to null for a new one; out: that context, the
 *                 caller's to free, also after a failure
 * @return 0, or -1 with the identity unchanged
 */
int kavrin_become_root(kv_perm_ctx_t **perm_ctx);

/** Gives the saved uids back. @return 0; -1 for null, or when the thread could not leave root */
int kavrin_unbecome_root(kv_perm_ctx_t *perm_ctx);

/** kavrin_become_root() with a new context. @return the context, which kavrin_vfs_unbecome_root()
 *  frees, or null with the identity unchanged */
kv_perm_ctx_t *kavrin_vfs_become_root(void);

/** Gives the saved uids back and frees the context. @return 0, or -1 (null, or still root) */
int kavrin_vfs_unbecome_root(kv_perm_ctx_t *perm_ctx);

/**
 * Makes sure that the thread runs as root.
 * @param perm_ctx receives a context for kavrin_vfs_unbecome_root(); untouched when the effective
 *                 uid is 0 already, null after a failure
 * @return 1, or 0 with errno EACCES
 */
int raise_permissions(kv_perm_ctx_t **perm_ctx);

/* The staging buffer: service side. --------------------------------------------------------------- */

/** Creates the semaphore that guards the buffer, and frees it. @return 1 once it was asked for
 *  (not whether the kernel agreed); -1 when there is no key */
int create_eventstore_staging_semaphore(void);

/** Removes it. @return 1 once that was asked for; -1 when there is no key */
int destroy_eventstore_staging_buffer_semaphore(void);

/** Creates the segment, which must not exist, with the configured size, and empties it.
 *  @return 0, or -1 with errno */
int create_staging_buffer(void);

/** Empties the buffer; a holder of the semaphore only. What it held is gone. @return 0, or -1 */
int initialize_staging_buffer(void);

/** Removes the segment. It is looked up with a fixed size of 20,800 bytes, so that a smaller one is
 *  not found. @return 0, or -1 */
int remove_staging_buffers(void);

/* The staging buffer: every process. -------------------------------------------------------------- */

/** Takes the semaphore; the kernel gives it back when the process dies. @return 0; -1 with errno,
 *  EINTR too, when it was not taken */
int wait_eventstore_semaphore(void);

/** Gives it back. @return 0, or -1 with errno */
int post_eventstore_semaphore(void);

/** Attaches the segment. @return its address, for put_eventstore_staging_buffer(), or null */
staging_buffer_t *get_eventstore_staging_buffer(void);

/** Detaches it. @return 0, or -1 with errno */
int put_eventstore_staging_buffer(staging_buffer_t *buf);

/**
 * Appends a framed record; flushes the buffer first when it would reach its fill threshold.
 *
 * A record that finds no room is refused and the event store told to rescan.
 * @param data borrowed
 * @return 0, or -1: the record is not in the buffer
 */
int write_to_staging_buffer(staging_data_t *data);

/** Writes all records into a new pending file and empties the buffer. Works as root and restores
 *  the identity. @return 1, also when there was nothing to write; -1: the records are still in the
 *  buffer, or the event store was told to rescan */
int flush_staging_buffer(void);

/* Files of events --------------------------------------------------------------------------------- */

/**
 * A name for a new file of events: seconds and microseconds of the clock, or random characters when
 * the clock cannot be read.
 * @param prefix the folder; null stands for "unk"
 * @return 256 bytes that the caller frees, the name cut to fit, or null
 */
char *get_dumpfname(const char *prefix);

/** Fills `s` with `size` - 1 random characters that are safe in a file name, and a terminator.
 *  @return s; untouched when `size` is 0 */
char *rand_string(char *s, size_t size);

/** Writes all of `buf`, however many calls that takes. An interruption before any byte counts as a
 *  failure. @return n, or -1 (with errno, unless a write took nothing) */
ssize_t write_all(int fd, const void *buf, size_t n);

/** Tells the event store that it must rescan the share: writes the reason, with its terminator,
 *  over the start of "/kavrin/.conf/kavrin_event_status.dirty". Failures are logged only. */
void mark_event_db_as_rescan_needed(const char *reason);

/* In the static library only: */

/** Traced comparisons behind the path matches; results as above. The bounded one gives -1 when
 *  the first string ends within `len`. */
int __kavrin_strcasecmp(const char *p1, const char *p2);
int __kavrin_strncasecmp(const char *p1, const char *p2, int len);

/** 1 when the paths (or their first `len` characters) are equal by the share's case rules. */
int _paths_match(const char *path, const char *compare_path);
int _paths_match_len(const char *path, const char *compare_path, int len);

/** 5 saves the effective ids and becomes root; any other value restores them. Calls alternate
 *  strictly (asserted). Only the calling thread's identity changes. */
void _change_id(int which);

KV_END_DECLS

#endif
