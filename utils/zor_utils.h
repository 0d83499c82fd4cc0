/*
 * zor_utils.h - allocation, the assertion convention and the export marker.
 *
 * Every precondition and invariant in the library is checked by ZOR_ASSERT,
 * which is always compiled in (NDEBUG does not remove it). A failed check
 * calls libc's __assert_fail with the condition text exactly as written in
 * the source, the file, the line and the name of the function holding the
 * check, so the process stops with
 *
 *     PROGRAM: FILE:LINE: FUNCTION: Assertion `TEXT' failed.
 *
 * Null pointers in checks are written ZOR_NULL, which expands to
 * ((void *)0) in C and C++ alike; the two-level macro expands the condition
 * before turning it into text, so the reported text reads
 * "result != ((void *)0)" in both languages.
 */
#ifndef ZOR_UTILS_H
#define ZOR_UTILS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * glibc declares its assertion routine only when NDEBUG is not defined; the
 * library's checks stay on either way, so declare it here as glibc does.
 */
extern void __assert_fail(const char *assertion, const char *file, unsigned int line,
                          const char *function) __THROW __attribute__((__noreturn__));

/*
 * Marks a declaration as part of the library's interface. The library is
 * built with hidden visibility, so only what carries this marker is exported
 * from the shared library; everything else stays internal to it.
 */
#if defined(__GNUC__) || defined(__clang__)
#define ZOR_API __attribute__((visibility("default")))
#else
#define ZOR_API
#endif

/* The null pointer as it appears in assertion texts. */
#define ZOR_NULL ((void *)0)

/* Inner level: stringifies the already expanded condition. */
#define ZOR_ASSERT_EXPANDED_(cond)                                                                 \
    (__builtin_expect(!!(cond), 1) ? (void)0 : __assert_fail(#cond, __FILE__, __LINE__, __func__))

/* Always-on assertion; see the top of this file. */
#define ZOR_ASSERT(cond) ZOR_ASSERT_EXPANDED_(cond)

/*
 * Returns `size` zeroed bytes from calloc; never returns null: a failed
 * allocation stops the process. Release the memory with free().
 */
static inline void *util_calloc(size_t size)
{
    void *result = calloc(1, size);
    ZOR_ASSERT(result != ZOR_NULL);
    return result;
}

#ifdef __cplusplus
}
#endif

#endif /* ZOR_UTILS_H */
