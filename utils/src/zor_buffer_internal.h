/*
 * zor_buffer_internal.h - buffer helpers shared inside the library; not
 * installed.
 */
#ifndef ZOR_BUFFER_INTERNAL_H
#define ZOR_BUFFER_INTERNAL_H

#include "zor_buffer.h"
#include "zor_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Appends the concatenation of `count` texts with exactly the effect of
 * zor_printf(b, "%s%s...", ...) on them: the same attempts, the same blocks
 * appended and the same result, without running the formatter. Writers
 * whose pieces are plain texts use it on their hot paths. Not exported:
 * the library's tests reach it through the static build.
 */
int zor_buffer_print_texts(zor_buffer *b, const zor_str *texts, int32_t count);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_BUFFER_INTERNAL_H */
