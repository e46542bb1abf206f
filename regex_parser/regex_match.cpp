// The C library's regular expressions with one fixed set of flags: extended syntax, no regard to
// case, no sub-matches.
#include <cstdlib>
#include <cstring>

#include "regex_parser.h"
#include "utils/trace.h"

namespace {

using kavrin::kAlways;

constexpr int kFlags = REG_EXTENDED | REG_ICASE | REG_NOSUB;

bool matches(const regex_t& compiled, const char* text) {
    return regexec(&compiled, text, 0, nullptr, 0) == 0;
}

}  // namespace

extern "C" e_regex_matchres_t get_regex_matchbuf(char* pattern, regex_t** reg_buf) {
    if (*reg_buf == nullptr) *reg_buf = static_cast<regex_t*>(std::malloc(sizeof(regex_t)));
    if (*reg_buf == nullptr) return REGEX_ERROR;
    std::memset(*reg_buf, 0, sizeof(regex_t));
    return regcomp(*reg_buf, pattern, kFlags) == 0 ? REGEX_TRUE : REGEX_ERROR;
}

extern "C" e_regex_matchres_t match_string_with_regex_buf(char* strng, regex_t* regbuf) {
    if (strng != nullptr && regbuf != nullptr)
        return matches(*regbuf, strng) ? REGEX_TRUE : REGEX_FALSE;
    KV_TRACE(kAlways, "Bad arguments\n");
    if (regbuf == nullptr) KV_TRACE(kAlways, "Bad regbuf\n");
    if (strng == nullptr) KV_TRACE(kAlways, "Bad file name\n");
    return REGEX_ERROR;
}

extern "C" e_regex_matchres_t match_regex_string(char* pattern, char* strng) {
    if (pattern == nullptr) KV_TRACE(kAlways, "Pattern is null\n");
    if (strng == nullptr) KV_TRACE(kAlways, "String is null\n");
    if (pattern == nullptr || strng == nullptr) return REGEX_ERROR;

    regex_t compiled{};
    if (const int error = regcomp(&compiled, pattern, kFlags); error != 0) {
        char text[1024];
        regerror(error, &compiled, text, sizeof text);
        KV_TRACE(kAlways, "Cannot compile pattern %s due to %s\n", pattern, text);
        return REGEX_ERROR;  // nothing to free: the compiler gave its memory back
    }
    const bool matched = matches(compiled, strng);
    regfree(&compiled);
    return matched ? REGEX_TRUE : REGEX_FALSE;
}
