/*
 * Partitions. See zor_partition.h for the layout; the invariant kept here
 * is that a bucket's `tail` always points at the slot pointer the next
 * entry's slot is stored in: the bucket's own `first` while it is empty,
 * else the `next` of its last slot. Slots start zeroed and are never
 * reused, so a new slot's `next` is already null.
 */
#define ZOR_PARTITION_EXPORTS /* the header's inline bodies are exported from here */
#include "zor_partition.h"

#include <stdlib.h>
#include <string.h>

#include "zor_layout.h"

ZOR_LAYOUT(zor_partition, 24, next_size, elems, bucket_count, buckets);
ZOR_LAYOUT(zor_partition_elems, 24, count, size, slots, next);
ZOR_LAYOUT(zor_partition_elem, 16, next, entry);
ZOR_LAYOUT(zor_partition_bucket, 44, partition, count, first, tail, next, data);
ZOR_LAYOUT(zor_partition_entries_state, 16, bucket, cur);

/* Adds a zeroed slot array of `size` slots in front of the partition's arrays. */
static zor_partition_elems *zor_partition_elems_alloc(zor_partition *p, uint32_t size)
{
    zor_partition_elems *elems =
        static_cast<zor_partition_elems *>(util_calloc(sizeof(zor_partition_elems)));
    elems->slots =
        static_cast<zor_partition_elem *>(util_calloc(sizeof(zor_partition_elem) * size));
    elems->count = 0;
    elems->size = size;
    elems->next = p->elems;
    p->elems = elems;
    return elems;
}

zor_partition_elems *zor_partition_grow(zor_partition *p)
{
    zor_partition_elems *elems = zor_partition_elems_alloc(p, p->next_size);
    p->next_size *= 2;
    return elems;
}

void zor_partition_create(zor_partition *p, uint32_t size)
{
    memset(p, 0, sizeof(*p));
    zor_partition_elems_alloc(p, size);
    p->next_size = ZOR_PARTITION_SIZE;
}

void zor_partition_bucket_add(zor_partition *p, zor_partition_bucket *b, void *data)
{
    memset(b, 0, sizeof(*b));
    b->partition = p;
    b->count = 0;
    b->first = nullptr;
    b->tail = &b->first;
    b->data = data;
    b->next = p->buckets;
    p->buckets = b;
    p->bucket_count++;
}

/* zor_partition_elem_get and zor_partition_entry_add are defined in the header. */

/* ---- walks -------------------------------------------------------------- */

static void *zor_partition_buckets_first(void *, void *info)
{
    return static_cast<zor_partition *>(info)->buckets;
}

static void *zor_partition_buckets_next(void *item, void *)
{
    return static_cast<zor_partition_bucket *>(item)->next;
}

int zor_partition_buckets_iterator(zor_iter *iter, zor_partition *p)
{
    zor_iter_init(iter, zor_partition_buckets_first, zor_partition_buckets_next, nullptr, p);
    return 1;
}

static void *zor_partition_entries_first(void *, void *info)
{
    zor_partition_entries_state *state = static_cast<zor_partition_entries_state *>(info);
    state->cur = state->bucket->first;
    return state->cur != nullptr ? state->cur->entry : nullptr;
}

static void *zor_partition_entries_next(void *, void *info)
{
    zor_partition_entries_state *state = static_cast<zor_partition_entries_state *>(info);
    state->cur = state->cur->next;
    return state->cur != nullptr ? state->cur->entry : nullptr;
}

int zor_partition_bucket_entries_iterator(zor_iter *iter, zor_partition_entries_state *state,
                                          zor_partition_bucket *b)
{
    state->bucket = b;
    state->cur = nullptr;
    zor_iter_init(iter, zor_partition_entries_first, zor_partition_entries_next, nullptr, state);
    return 1;
}

void zor_partition_bucket_process(zor_partition_bucket *b, zor_partition_process_fn fn)
{
    zor_iter iter;
    zor_partition_entries_state state;
    zor_iter_create(&iter, zor_partition_bucket_entries_iterator(&iter, &state, b));
    fn(b->count, &iter, b->data);
    zor_iter_free(&iter);
}

void zor_partition_process(zor_partition *p, zor_partition_process_fn fn)
{
    zor_iter iter;
    zor_partition_bucket *b;
    zor_iter_create(&iter, zor_partition_buckets_iterator(&iter, p));
    ZOR_ITER_FOREACH (&iter, b) {
        zor_partition_bucket_process(b, fn);
    }
    zor_iter_free(&iter);
}

/* ---- teardown ----------------------------------------------------------- */

void zor_partition_destroy(zor_partition *p)
{
    zor_partition_elems *elems = p->elems;
    while (elems != nullptr) {
        zor_partition_elems *older = elems->next;
        free(elems->slots);
        free(elems);
        elems = older;
    }
    p->elems = nullptr;
    zor_partition_bucket *b = p->buckets;
    while (b != nullptr) {
        zor_partition_bucket *next = b->next;
        memset(b, 0, sizeof(*b));
        b = next;
    }
    p->buckets = nullptr;
}

void zor_partition_reset(zor_partition *p)
{
    zor_partition_destroy(p);
    zor_partition_create(p, ZOR_PARTITION_SIZE);
}
