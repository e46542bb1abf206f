/* Linkage helpers shared by every public header: each is valid C11 and C++20, and everything it
 * declares has C linkage. */
#ifndef KAVRIN_CDEFS_H
#define KAVRIN_CDEFS_H

#ifdef __cplusplus
#define KV_BEGIN_DECLS extern "C" {
#define KV_END_DECLS }
#else
#define KV_BEGIN_DECLS
#define KV_END_DECLS
#endif

/* The type of an enumeration that callers may hand any number in; C has it anyway. */
#ifdef __cplusplus
#define KV_INT_ENUM : int
#else
#define KV_INT_ENUM
#endif

/* Around records that end in an array without a length: plain C, and an extension that both C++
 * compilers know but that a header has to ask for quietly. */
#if !defined(__cplusplus)
#define KV_BEGIN_FLEXIBLE_RECORDS
#define KV_END_FLEXIBLE_RECORDS
#elif defined(__clang__)
#define KV_BEGIN_FLEXIBLE_RECORDS \
    _Pragma("clang diagnostic push") _Pragma("clang diagnostic ignored \"-Wc99-extensions\"")
#define KV_END_FLEXIBLE_RECORDS _Pragma("clang diagnostic pop")
#else
#define KV_BEGIN_FLEXIBLE_RECORDS \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wpedantic\"")
#define KV_END_FLEXIBLE_RECORDS _Pragma("GCC diagnostic pop")
#endif

/* Image records are packed one after another, so a record may start at any byte: the compiler
 * must never assume the natural alignment of their fields. */
#define KV_PACKED __attribute__((packed))

#endif
