/*
 * zor_buffer.h - block-chained output buffer and its writers.
 *
 * A zor_buffer collects output text in memory, in a chain of blocks that
 * only grows at the end and is drained from the front. Bytes already
 * written never move: a block is never reallocated, and each piece written
 * by one call lands whole in one block, so the blocks can be handed to
 * writev() or written out one by one without copying.
 *
 * A buffer record that is all zero is an empty, ready buffer; there is no
 * initialisation call:
 *
 *     zor_buffer out = {0};
 *     zor_printf(&out, "%s=%d\n", name, value);
 *     zor_buffer_output(&out, 1);   // to stdout, consuming
 *     zor_buffer_free(&out);
 *
 * Block sizes. Every write call reads the process-wide default block size D
 * (initially 1024, see zor_buffer_set_default_size) once, as its working
 * size. When the newest block has no room for the piece and its
 * terminating 0, the call appends a block of max(piece + 1, working size)
 * bytes and doubles its working size. zor_printf does not know its length
 * in advance: it formats into the room it has, and when the text did not
 * fit, formats again into a fresh block, so on an empty buffer it tries
 * blocks of D, 2D, 4D, ... until one holds the whole text. Blocks in which
 * an attempt did not fit keep their earlier text unchanged and may stay
 * empty; such blocks are freed as soon as consumption reaches them.
 *
 * Every block's text is NUL-terminated (data[size] is 0).
 *
 * Ownership: the buffer owns its blocks; zor_buffer_free releases them.
 * zor_buffer_flatten returns memory the caller releases with free().
 * A buffer is used by one thread at a time.
 */
#ifndef ZOR_BUFFER_H
#define ZOR_BUFFER_H

#include <stdint.h>
#include <sys/uio.h>

#include "zor_str.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The flexible array member is C99; C++ compilers accept it as an extension. */
#ifdef __cplusplus
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#endif
/* One block, allocated as one piece: this header, then total_size bytes. */
typedef struct zor_buffer_block {
    struct zor_buffer_block *next; /* following block, null for the last */
    uint64_t size;                 /* bytes written into data */
    uint64_t total_size;           /* capacity of data; always above size */
    char data[];                   /* the text; data[size] is always 0 */
} zor_buffer_block;
#ifdef __cplusplus
#pragma GCC diagnostic pop
#endif

/* The buffer, in caller memory; all zero is empty and ready. */
typedef struct zor_buffer {
    int32_t block_count;     /* blocks in the chain */
    uint64_t size;           /* bytes written and not yet consumed */
    uint64_t read_offset;    /* offset in first->data of the first unconsumed byte */
    zor_buffer_block *first; /* oldest block, where reading happens */
    zor_buffer_block *last;  /* newest block, where writing happens */
} zor_buffer;

/*
 * Appends the text of a printf-style format and its arguments, whole, to one
 * block. Returns 1.
 *
 * If the formatter reports an error (vsnprintf returns a negative value,
 * e.g. for a wide string that cannot be converted in the current locale),
 * nothing is written: the buffer's text and size are unchanged, and
 * zor_printf returns 0. A block it appended for the attempt stays, empty,
 * and serves later writes.
 */
ZOR_API int zor_printf(zor_buffer *b, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* Appends one byte, the low 8 bits of `c`. Returns 1. */
ZOR_API int zor_putc(zor_buffer *b, int c);

/*
 * Appends `len` bytes copied from `bytes` (which may be null when `len` is
 * 0), whole, to one block. `len` must be below 2 GiB. Returns 1.
 */
ZOR_API int zor_write(zor_buffer *b, const void *bytes, uint64_t len);

/*
 * Fills up to `count` entries of `vector` with the unconsumed bytes, one
 * entry per block from the first; blocks with no text give entries of
 * length 0. Returns the number of entries filled: 0 when `count` is not
 * positive or the buffer has no block. The entries point into the blocks
 * and stay valid until the buffer is next consumed, output or freed.
 */
ZOR_API int32_t zor_buffer_iovs(zor_buffer *b, struct iovec *vector, int32_t count);

/*
 * Drops the first `count` unconsumed bytes (`count` must not exceed
 * b->size). Blocks drained completely are freed, and so are leading blocks
 * with no text (even by a count of 0), except the last block, which is kept
 * empty so that later writes reuse it.
 */
ZOR_API void zor_buffer_consume(zor_buffer *b, uint64_t count);

/*
 * Writes the unconsumed bytes to descriptor `fd` with pk_write, one block at
 * a time, consuming each block as it is handed to pk_write. If a write
 * fails, the block it was given is dropped and output stops: the following
 * blocks stay in the buffer. Failures are not reported; compare b->size
 * with 0 to see whether everything went out.
 */
ZOR_API void zor_buffer_output(zor_buffer *b, int32_t fd);

/*
 * Returns a fresh NUL-terminated copy of all unconsumed bytes and their
 * number; the buffer is not changed. The caller frees result.ptr with
 * free(). An empty buffer gives a one-byte allocation holding 0 and len 0.
 */
ZOR_API zor_str zor_buffer_flatten(zor_buffer *b);

/* Frees every block and zeroes the record: it is an empty buffer again. */
ZOR_API void zor_buffer_free(zor_buffer *b);

/*
 * Sets the process-wide default block size (initially 1024) read at the
 * start of every write call. 0 is allowed: blocks are then sized to what
 * each attempt needs.
 */
ZOR_API void zor_buffer_set_default_size(uint32_t size);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_BUFFER_H */
