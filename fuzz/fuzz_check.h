/*
 * fuzz_check.h - the property check of every fuzz target: a broken
 * property traps, which libFuzzer reports as a crash with its input.
 */
#ifndef ZOR_FUZZ_CHECK_H
#define ZOR_FUZZ_CHECK_H

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond))                                                                               \
            __builtin_trap();                                                                      \
    } while (0)

#endif /* ZOR_FUZZ_CHECK_H */
