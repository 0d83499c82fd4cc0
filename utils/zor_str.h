/*
 * zor_str.h - string views.
 *
 * A zor_str is a pointer and a 64-bit length, passed by value. It never owns
 * its bytes and the bytes need not be NUL-terminated; whoever produced them
 * says who frees them.
 */
#ifndef ZOR_STR_H
#define ZOR_STR_H

#include <stdint.h>
#include <string.h>

#include "zor_utils.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zor_str {
    const char *ptr; /* first byte of the text */
    uint64_t len;    /* number of bytes */
} zor_str;

/* A view of the NUL-terminated text `str` (not including the NUL). */
static inline zor_str zor_str_init(const char *str)
{
    ZOR_ASSERT(str != ZOR_NULL);
    zor_str s;
    s.ptr = str;
    s.len = strlen(str);
    return s;
}

/*
 * A view of `len` bytes at `str`. `str` must not be null, even for an empty
 * view; `len` must not be negative.
 */
static inline zor_str zor_str_init_len(const char *str, int32_t len)
{
    ZOR_ASSERT(str != ZOR_NULL);
    zor_str s;
    s.ptr = str;
    s.len = (uint64_t)len;
    return s;
}

#ifdef __cplusplus
}
#endif

#endif /* ZOR_STR_H */
