// The one way to trace and the one way to assert.
//
// KV_TRACE asks the configuration table's debug level before anything is formatted, and keeps
// errno. KV_ASSERT is live in every build: it guards shared memory that other processes trust, so
// going on with a broken image would be worse than ending the process.
#pragma once

#include <syslog.h>

#include <cerrno>

#include "eventstore.h"

namespace kavrin {

// The level a message's threshold is held against. Before there is a table, and after a failed
// attach has left none, it is 0, so that the failures of getting one are still told.
inline int debug_level() {
    if (global_params == nullptr || global_params == reinterpret_cast<global_param_t*>(-1))
        [[unlikely]]
        return 0;
    return global_params[PARAM_DEBUG_LEVEL].value.intval;
}

inline bool trace_enabled(int threshold) {
    return debug_level() >= threshold;
}

[[noreturn]] void assertion_failed(const char* expression, const char* file, int line,
                                   const char* function);

// Thresholds of the messages: failures always, decisions and traces on demand.
inline constexpr int kAlways = 0;
inline constexpr int kEntry = 1;
inline constexpr int kDecision = 2;
inline constexpr int kTrace = 10;

}  // namespace kavrin

#define KV_TRACE(threshold, format, ...)                              \
    do {                                                              \
        if (::kavrin::trace_enabled(threshold)) {                     \
            const int kv_trace_errno = errno;                         \
            syslog(LOG_INFO, "%s:%d(%s) " format, __FILE__, __LINE__, \
                   __func__ __VA_OPT__(, ) __VA_ARGS__);              \
            errno = kv_trace_errno;                                   \
        }                                                             \
    } while (0)

// Asserts a condition under the text that operators and tests know it by.
#define KV_ASSERT_AS(condition, text) \
    ((condition) ? (void)0 : ::kavrin::assertion_failed(text, __FILE__, __LINE__, __func__))

#define KV_ASSERT(expression) KV_ASSERT_AS(expression, #expression)
