/* Exception patterns: POSIX extended regular expressions, without regard to case, of the names that
 * may be deleted where the permissions forbid it. */
#ifndef KAVRIN_REGEX_PARSER_H
#define KAVRIN_REGEX_PARSER_H

#include <regex.h>

#include "kavrin_cdefs.h"

KV_BEGIN_DECLS

/** Outcome of compiling or matching. */
typedef enum e_regex_matchres {
    REGEX_ERROR = -1,
    REGEX_FALSE = 0,
    REGEX_TRUE = 1
} e_regex_matchres_t;

/** Patterns that a table holds; further lines of a file are counted only. */
#define KAVRIN_MAX_PATTERNS 256

/** One pattern. */
typedef struct regex_list_elem_s {
    char *pattern;
    regex_t *compiled_pattern;
} regex_list_elem_t;

/** The compiled patterns of this process. */
typedef struct pattern_buf_s {
    int num_elems; /**< may exceed KAVRIN_MAX_PATTERNS */
    regex_list_elem_t elems[KAVRIN_MAX_PATTERNS];
} pattern_buf_t;

/** Filled by read_and_compile_patterns(), read-only afterwards, never freed. */
extern pattern_buf_t g_kavrin_pattern_buf;

/**
 * Compiles the configured pattern file, a pattern a line, into g_kavrin_pattern_buf. Every line ends
 * with a newline, or loses its last character; an empty one matches everything; one that does not
 * compile is passed over. read_kavrin_config() comes first.
 * @return 0, or -1 with the table as it was: no file configured, none there, or it cannot be opened
 */
int read_and_compile_patterns(void);

/** Compiles a pattern into *reg_buf, which is allocated when null and stays the caller's to
 *  regfree() and free(). @return REGEX_TRUE, or REGEX_ERROR */
e_regex_matchres_t get_regex_matchbuf(char *pattern, regex_t **reg_buf);

/** Whether a compiled pattern matches anywhere in a string. @return REGEX_TRUE, REGEX_FALSE, or
 *  REGEX_ERROR for a null argument */
e_regex_matchres_t match_string_with_regex_buf(char *strng, regex_t *regbuf);

/** Compiles a pattern and matches it once. @return REGEX_TRUE, REGEX_FALSE, or REGEX_ERROR for a
 *  null argument or a pattern that does not compile */
e_regex_matchres_t match_regex_string(char *pattern, char *strng);

KV_END_DECLS

#endif
