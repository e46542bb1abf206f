// Names compared without regard to letter case. ASCII is settled here; where two characters
// outside ASCII meet, the answer is 2 and Samba's multibyte comparison decides, so that the share
// folds names exactly as smbd does.
//
// The four comparisons differ in small ways that callers and stored data have come to depend on;
// each difference is told where it stands.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "kavrin_utils.h"
#include "utils/trace.h"

namespace {

constexpr int kBothExtended = 2;

bool is_extended(char c) {
    return (static_cast<unsigned char>(c) & 0x80U) != 0;
}

signed char upper(char c) {
    return static_cast<signed char>(std::toupper(static_cast<unsigned char>(c)));
}

enum class Step { kEqual, kFirstSmaller, kFirstGreater, kExtended };

// Compares one position at which neither string has ended.
Step compare_characters(char first, char second) {
    if (is_extended(first) || is_extended(second)) return Step::kExtended;
    const signed char a = upper(first);
    const signed char b = upper(second);
    if (a == b) return Step::kEqual;
    return a > b ? Step::kFirstGreater : Step::kFirstSmaller;
}

// What two characters of which at least one is extended compare as.
int extended_result(char first, char second) {
    if (!is_extended(first)) return -1;
    return is_extended(second) ? kBothExtended : 1;
}

int plain_result(Step step, char first, char second) {
    if (step == Step::kExtended) return extended_result(first, second);
    return step == Step::kFirstGreater ? 1 : -1;
}

}  // namespace

// Starts at the second character: the first of each string is never looked at.
extern "C" int kavrin_strcasecmp(const char* str1, const char* str2) {
    for (std::size_t i = 1;; ++i) {
        if (str1[i] == 0) return str2[i] == 0 ? 0 : -1;
        if (str2[i] == 0) return 1;
        const Step step = compare_characters(str1[i], str2[i]);
        if (step != Step::kEqual) return plain_result(step, str1[i], str2[i]);
    }
}

extern "C" int kavrin_strncasecmp(const char* str1, const char* str2, int len) {
    for (int i = 0; i < len; ++i) {
        if (str1[i] == 0) return str2[i] == 0 ? 0 : -1;
        if (str2[i] == 0) return 1;
        const Step step = compare_characters(str1[i], str2[i]);
        if (step != Step::kEqual) return plain_result(step, str1[i], str2[i]);
    }
    return 0;
}

extern "C" int __kavrin_strcasecmp(const char* p1, const char* p2) {
    for (std::size_t i = 0;; ++i) {
        if (p1[i] == 0) {
            if (p2[i] != 0) return -1;
            KV_TRACE(kavrin::kTrace, "Matched");
            return 0;
        }
        if (p2[i] == 0) return 1;
        switch (compare_characters(p1[i], p2[i])) {
            case Step::kEqual:
                continue;
            case Step::kExtended:
                KV_TRACE(kavrin::kTrace, "Extended character detected");
                return extended_result(p1[i], p2[i]);
            case Step::kFirstGreater:
                KV_TRACE(kavrin::kTrace, "+ Misatched p1 %c p2 %c", p1[i], p2[i]);
                return 1;
            case Step::kFirstSmaller:
                KV_TRACE(kavrin::kTrace, "- Misatched p1 %c p2 %c", p1[i], p2[i]);
                return -1;
        }
    }
}

// A first string that ends within `len` is smaller, even when the second ends at the same place.
extern "C" int __kavrin_strncasecmp(const char* p1, const char* p2, int len) {
    for (int i = 0; i < len; ++i) {
        if (p1[i] == 0) return -1;
        if (p2[i] == 0) return 1;
        switch (compare_characters(p1[i], p2[i])) {
            case Step::kEqual:
                continue;
            case Step::kExtended:
                KV_TRACE(kavrin::kTrace, "Extended character detected");
                return extended_result(p1[i], p2[i]);
            case Step::kFirstGreater:
                KV_TRACE(kavrin::kTrace, "+ Mismatched p1 %c p2 %c", p1[i], p2[i]);
                return 1;
            case Step::kFirstSmaller:
                KV_TRACE(kavrin::kTrace, "- Mismatched p1 %c p2 %c", p1[i], p2[i]);
                return -1;
        }
    }
    KV_TRACE(kavrin::kTrace, "end of input length, match, char #%u",
             static_cast<unsigned>(std::max(len, 0)));
    return 0;
}

extern "C" int _paths_match(const char* path, const char* compare_path) {
    const int result = __kavrin_strcasecmp(path, compare_path);
    if (result == 0) return 1;
    if (result == kBothExtended && strcasecmp_m_wrapper(path, compare_path) == 0) {
        KV_TRACE(kavrin::kTrace, "strcasecmp_m_wrapper match");
        return 1;
    }
    KV_TRACE(kavrin::kTrace, "Paths do not match");
    return 0;
}

extern "C" int _paths_match_len(const char* path, const char* compare_path, int len) {
    KV_TRACE(kavrin::kTrace, "compare path '%s' to '%s' for len %d", path, compare_path, len);
    const int result = __kavrin_strncasecmp(path, compare_path, len);
    if (result == 0) return 1;
    if (result == kBothExtended &&
        strncasecmp_m_wrapper(path, compare_path, static_cast<std::size_t>(len)) == 0) {
        KV_TRACE(kavrin::kTrace, "strncasecmp_m_wrapper match");
        return 1;
    }
    KV_TRACE(kavrin::kTrace, "Paths do not match");
    return 0;
}
