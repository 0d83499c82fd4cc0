/*
 * fuzz_check.h - the property check of every fuzz target: a broken
 * property traps, which libFuzzer reports as a crash with its input. In the
 * corpus replay (an ordinary test program) it names the check and aborts.
 */
#ifndef ZOR_FUZZ_CHECK_H
#define ZOR_FUZZ_CHECK_H

#ifdef ZOR_FUZZ_REPLAY
#include <stdio.h>
#include <stdlib.h>
#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);               \
            abort();                                                                               \
        }                                                                                          \
    } while (0)
#else
#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond))                                                                               \
            __builtin_trap();                                                                      \
    } while (0)
#endif

#endif /* ZOR_FUZZ_CHECK_H */
