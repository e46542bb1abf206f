/* Text and identity helpers that every verdict depends on: canonical paths, comparison by the
 * share's case rules, special names, and the switch to root and back. */
#ifndef KAVRIN_UTILS_H
#define KAVRIN_UTILS_H

#include <stddef.h>

#include "kavrin_cdefs.h"

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
