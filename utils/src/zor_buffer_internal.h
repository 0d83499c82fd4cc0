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
 * appended and the same result, without running the formatter. The JSON
 * writer uses it for pieces that do not fit in the last block. Not exported.
 */
int zor_buffer_print_texts(zor_buffer *b, const zor_str *texts, int32_t count);

/*
 * Appends `count` (below 2 GiB) copies of the byte `c` exactly as `count`
 * calls of zor_putc would: the last block is filled up to its terminating 0,
 * then blocks of max(2, default size) bytes are appended as needed.
 */
void zor_buffer_putc_n(zor_buffer *b, int c, uint32_t count);

/*
 * A writer that knows how many bytes it will write may skip the attempt
 * steps when the last block has room for all of them and the terminating 0:
 * zor_buffer_room returns where they go (null when they do not fit), and
 * zor_buffer_commit counts the `n` bytes written there. Every piece written
 * by zor_printf, zor_putc or zor_write in their place would have landed in
 * that block too, so the result is the same.
 */
static inline char *zor_buffer_room(zor_buffer *b, uint64_t n)
{
    zor_buffer_block *last = b->last;
    if (last == nullptr || n >= last->total_size - last->size)
        return nullptr;
    return last->data + last->size;
}

static inline void zor_buffer_commit(zor_buffer *b, uint64_t n)
{
    zor_buffer_block *last = b->last;
    last->size += n;
    last->data[last->size] = 0;
    b->size += n;
}

#ifdef __cplusplus
}
#endif

#endif /* ZOR_BUFFER_INTERNAL_H */
