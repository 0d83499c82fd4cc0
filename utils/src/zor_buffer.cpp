/*
 * Output buffer. Every writer works in two steps: zor_buffer_reserve finds
 * room at the end of the last block (appending a block when there is too
 * little), the writer puts its bytes there, and zor_buffer_update commits
 * them and keeps the block NUL-terminated. A commit that does not fit is
 * refused, which is how zor_printf learns that it must format again into a
 * larger block.
 */
#include "zor_buffer.h"
#include "zor_buffer_internal.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "zor_layout.h"

ZOR_LAYOUT(zor_buffer_block, 24, next, size, total_size, data);
ZOR_LAYOUT(zor_buffer, 36, block_count, size, read_offset, first, last);

/* Size of the blocks a write call starts with; read once per call. */
static uint32_t zor_buffer_default_size = 1024;

void zor_buffer_set_default_size(uint32_t size)
{
    zor_buffer_default_size = size;
}

/* Appends a block of `total_size` data bytes to the chain. */
static __attribute__((noinline)) zor_buffer_block *zor_buffer_block_add(zor_buffer *buffer,
                                                                        uint64_t total_size)
{
    zor_buffer_block *block =
        static_cast<zor_buffer_block *>(util_calloc(sizeof(zor_buffer_block) + total_size));
    block->total_size = total_size;
    if (buffer->last != nullptr)
        buffer->last->next = block;
    else
        buffer->first = block;
    buffer->last = block;
    buffer->block_count++;
    return block;
}

/*
 * Returns where the next bytes go, with room for at least *need bytes and a
 * terminating 0. When the last block has less, appends one of
 * max(*need + 1, *working) bytes and doubles *working. On return *need is
 * the whole room at the returned address (including the place of the 0).
 */
static inline char *zor_buffer_reserve(zor_buffer *buffer, uint64_t *working, uint64_t *need)
{
    uint64_t wanted = *need + 1;
    zor_buffer_block *block = buffer->last;
    uint64_t room = block != nullptr ? block->total_size - block->size : 0;
    if (room < wanted) {
        block = zor_buffer_block_add(buffer, wanted > *working ? wanted : *working);
        *working *= 2;
        room = block->total_size;
    }
    *need = room;
    return block->data + block->size;
}

/*
 * Commits `n` bytes just written at the reserved address. Returns 0 (and
 * commits nothing) when `n` is negative or leaves no room for the
 * terminating 0; either way the block's text stays terminated.
 */
static inline int zor_buffer_update(zor_buffer *buffer, int32_t n)
{
    zor_buffer_block *block = buffer->last;
    ZOR_ASSERT(block != ZOR_NULL);
    int result = 0;
    if (n >= 0 && static_cast<uint64_t>(n) < block->total_size - block->size) {
        block->size += static_cast<uint64_t>(n);
        buffer->size += static_cast<uint64_t>(n);
        ZOR_ASSERT(block->size < block->total_size);
        result = 1;
    }
    block->data[block->size] = 0;
    return result;
}

int zor_printf(zor_buffer *buffer, const char *format, ...)
{
    uint64_t working = zor_buffer_default_size;
    uint64_t need = 0;
    va_list args;
    va_start(args, format);
    for (;;) {
        char *dst = zor_buffer_reserve(buffer, &working, &need);
        va_list copy;
        va_copy(copy, args);
        int n = vsnprintf(dst, need, format, copy);
        va_end(copy);
        if (zor_buffer_update(buffer, n))
            break;
        if (n < 0) {
            /* A formatter error: a larger block cannot help. */
            va_end(args);
            return 0;
        }
    }
    va_end(args);
    return 1;
}

int zor_buffer_print_texts(zor_buffer *buffer, const zor_str *texts, int32_t count)
{
    uint64_t n = 0;
    for (int32_t i = 0; i < count; i++)
        n += texts[i].len;
    if (n > INT_MAX)
        return 0; /* the formatter would refuse a text this long */
    uint64_t working = zor_buffer_default_size;
    uint64_t need = 0;
    for (;;) {
        char *dst = zor_buffer_reserve(buffer, &working, &need);
        if (n < need) {
            /* Fits: copy it in. (A refused attempt's bytes would lie past
             * the block's text and are never seen, so none are copied.) */
            for (int32_t i = 0; i < count; i++) {
                memcpy(dst, texts[i].ptr, texts[i].len);
                dst += texts[i].len;
            }
        }
        if (zor_buffer_update(buffer, static_cast<int32_t>(n)))
            return 1;
    }
}

int zor_putc(zor_buffer *buffer, int c)
{
    uint64_t working = zor_buffer_default_size;
    uint64_t need = 1;
    char *dst = zor_buffer_reserve(buffer, &working, &need);
    *dst = static_cast<char>(c);
    int ok = zor_buffer_update(buffer, 1);
    ZOR_ASSERT(ok);
    return 1;
}

void zor_buffer_putc_n(zor_buffer *buffer, int c, uint32_t count)
{
    while (count > 0) {
        /* One zor_putc fills the room up to the place of the 0; the
         * next one finds too little and appends a block. */
        uint64_t working = zor_buffer_default_size;
        uint64_t need = 1;
        char *dst = zor_buffer_reserve(buffer, &working, &need);
        uint32_t n = need - 1 < count ? static_cast<uint32_t>(need - 1) : count;
        memset(dst, c, n);
        int ok = zor_buffer_update(buffer, static_cast<int32_t>(n));
        ZOR_ASSERT(ok);
        count -= n;
    }
}

int zor_write(zor_buffer *buffer, const void *bytes, uint64_t len)
{
    uint64_t working = zor_buffer_default_size;
    uint64_t need = len;
    char *dst = zor_buffer_reserve(buffer, &working, &need);
    if (len != 0)
        memcpy(dst, bytes, len);
    int ok = zor_buffer_update(buffer, static_cast<int32_t>(len));
    ZOR_ASSERT(ok);
    return 1;
}

int32_t zor_buffer_iovs(zor_buffer *buffer, struct iovec *vector, int32_t count)
{
    if (count <= 0 || buffer->first == nullptr)
        return 0;
    int32_t filled = 0;
    for (zor_buffer_block *block = buffer->first; block != nullptr && filled < count;
         block = block->next, filled++) {
        vector[filled].iov_base = block->data;
        vector[filled].iov_len = block->size;
    }
    uint64_t offset = buffer->read_offset;
    ZOR_ASSERT(vector[0].iov_len >= offset);
    vector[0].iov_len -= offset;
    vector[0].iov_base = static_cast<char *>(vector[0].iov_base) + offset;
    return filled;
}

void zor_buffer_consume(zor_buffer *buffer, uint64_t count)
{
    ZOR_ASSERT(count <= buffer->size);
    zor_buffer_block *block = buffer->first;
    if (block == nullptr) {
        if (count != 0)
            ZOR_ASSERT(block != ZOR_NULL);
        return;
    }
    uint64_t size = block->size - buffer->read_offset; /* available in the first block */
    for (;;) {
        if (count < size) {
            if (count == 0)
                return;
            ZOR_ASSERT(buffer->read_offset + count < block->size);
            buffer->read_offset += count;
            buffer->size -= count;
            return;
        }
        /* The rest of the first block goes whole. */
        ZOR_ASSERT(buffer->size >= size);
        buffer->size -= size;
        count -= size;
        buffer->read_offset = 0;
        if (block == buffer->last) {
            /* Keep the last block for later writes. */
            block->size = 0;
            block->data[0] = 0;
            if (count > 0) {
                block = block->next;
                ZOR_ASSERT(block != ZOR_NULL);
            }
            return;
        }
        zor_buffer_block *next = block->next;
        free(block);
        block = next;
        buffer->first = block;
        ZOR_ASSERT(buffer->block_count != 0);
        buffer->block_count--;
        size = block->size;
    }
}

void zor_buffer_output(zor_buffer *buffer, int32_t fd)
{
    while (buffer->size != 0 && buffer->block_count > 0) {
        struct iovec entry;
        zor_buffer_iovs(buffer, &entry, 1);
        int32_t written = pk_write(fd, entry.iov_base, entry.iov_len);
        zor_buffer_consume(buffer, entry.iov_len);
        if (written == -1)
            return;
    }
}

zor_str zor_buffer_flatten(zor_buffer *buffer)
{
    int32_t count = buffer->size != 0 ? buffer->block_count : 0;
    char *result = static_cast<char *>(util_calloc(buffer->size + 1));
    struct iovec *vector =
        static_cast<struct iovec *>(util_calloc(sizeof(struct iovec) * static_cast<size_t>(count)));
    int32_t filled = zor_buffer_iovs(buffer, vector, count);
    uint64_t copied = 0;
    for (int32_t i = 0; i < filled; i++) {
        zor_str part = zor_str_init_len(static_cast<const char *>(vector[i].iov_base),
                                        static_cast<int32_t>(vector[i].iov_len));
        if (copied + part.len <= buffer->size) {
            memcpy(result + copied, part.ptr, part.len);
            copied += part.len;
        }
    }
    free(vector);
    zor_str out;
    out.ptr = result;
    out.len = copied;
    return out;
}

void zor_buffer_free(zor_buffer *buffer)
{
    zor_buffer_block *block = buffer->first;
    while (block != nullptr) {
        zor_buffer_block *next = block->next;
        free(block);
        block = next;
    }
    memset(buffer, 0, sizeof(*buffer));
}
