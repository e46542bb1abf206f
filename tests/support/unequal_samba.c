/* Stands in for Samba's library where a test must know what was asked of it: no two strings are
 * ever equal, and the result tells the length that was asked for. */
#include <stddef.h>

int strncasecmp_m(const char* s1, const char* s2, size_t n);

int strncasecmp_m(const char* s1, const char* s2, size_t n) {
    (void)s1;
    (void)s2;
    return 1000 + (int)n;
}
