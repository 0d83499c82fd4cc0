/*
 * zor_partition.h - partitions: entries collected into buckets.
 *
 * A partition gathers caller pointers (entries) into caller-owned buckets,
 * cheaply and in bulk, to hand them out later bucket by bucket. It is built
 * up, walked, and dropped whole: single entries or buckets are never
 * removed. The registry queues changed records this way between a change
 * and its delivery.
 *
 * The partition owns the entry slots. Slots are carved in order from slot
 * arrays that never move; when the newest array is full a new one of
 * next_size slots is added and next_size doubles (create size N gives
 * arrays of N, 128, 256, 512, ... slots). A bucket chains its slots through
 * their `next`, so buckets of one partition interleave freely in the same
 * arrays and adding an entry is constant time with no per-entry allocation.
 */
#ifndef ZOR_PARTITION_H
#define ZOR_PARTITION_H

#include <stdint.h>

#include "zor_iter.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Slots of a new partition's first array (reset) and of its first growth. */
#define ZOR_PARTITION_SIZE 128

/* One slot: an entry and the following slot of the same bucket. */
typedef struct zor_partition_elem {
    struct zor_partition_elem *next; /* null for the bucket's last slot */
    void *entry;                     /* the caller's pointer, never null */
} zor_partition_elem;

/* A slot array, allocated by the partition. */
typedef struct zor_partition_elems {
    uint32_t count;                   /* slots handed out */
    uint32_t size;                    /* slots in the array */
    zor_partition_elem *slots;        /* `size` slots, zeroed at allocation */
    struct zor_partition_elems *next; /* the array allocated before this one */
} zor_partition_elems;

struct zor_partition_bucket;

/* The partition, in caller memory, made ready by zor_partition_create. */
typedef struct zor_partition {
    uint32_t next_size;                   /* slots of the next array; 128, doubling */
    zor_partition_elems *elems;           /* newest slot array */
    uint32_t bucket_count;                /* buckets added since creation */
    struct zor_partition_bucket *buckets; /* most recently added bucket */
} zor_partition;

/* A bucket, in caller memory, made ready by zor_partition_bucket_add. */
typedef struct zor_partition_bucket {
    zor_partition *partition;          /* the partition it belongs to */
    uint32_t count;                    /* entries added */
    zor_partition_elem *first;         /* first slot; null when empty */
    zor_partition_elem **tail;         /* where the next slot's address is stored */
    struct zor_partition_bucket *next; /* the bucket added before this one */
    void *data;                        /* caller's value, passed to the process callback */
} zor_partition_bucket;

/* State of a bucket entries walk, provided by the caller. */
typedef struct zor_partition_entries_state {
    zor_partition_bucket *bucket; /* the bucket walked */
    zor_partition_elem *cur;      /* the slot the walk stands on */
} zor_partition_entries_state;

/*
 * Called once per bucket by the process functions with the bucket's entry
 * count, a fresh iterator over its entries and its data.
 */
typedef void (*zor_partition_process_fn)(uint32_t count, zor_iter *iter, void *data);

/* Clears `p` and allocates its first slot array of `size` slots. */
ZOR_API void zor_partition_create(zor_partition *p, uint32_t size);

/* Makes the caller's record `b` an empty bucket of `p` holding `data`. */
ZOR_API void zor_partition_bucket_add(zor_partition *p, zor_partition_bucket *b, void *data);

/* Appends `entry` (not null) to bucket `b`. Constant time; inlinable (below). */
ZOR_API void zor_partition_entry_add(zor_partition_bucket *b, void *entry);

/*
 * Adds a slot array of next_size slots in front of the partition's arrays
 * and doubles next_size; returns the new array. Called by the append when
 * the newest array is full; not needed by callers otherwise.
 */
ZOR_API zor_partition_elems *zor_partition_grow(zor_partition *p);

/* Makes `iter` walk the buckets of `p`, most recently added first. Returns 1. */
ZOR_API int zor_partition_buckets_iterator(zor_iter *iter, zor_partition *p);

/*
 * Makes `iter` walk the entries of `b` in the order they were added, using
 * the caller's `state`. Returns 1.
 */
ZOR_API int zor_partition_bucket_entries_iterator(zor_iter *iter,
                                                  zor_partition_entries_state *state,
                                                  zor_partition_bucket *b);

/* Calls `fn` once for `b` with its count, an entries iterator and its data. */
ZOR_API void zor_partition_bucket_process(zor_partition_bucket *b, zor_partition_process_fn fn);

/*
 * zor_partition_bucket_process for every bucket, most recently added first.
 * Buckets added by `fn` during the walk are not visited.
 */
ZOR_API void zor_partition_process(zor_partition *p, zor_partition_process_fn fn);

/*
 * Frees the slot arrays and zeroes every bucket record. next_size and
 * bucket_count keep their values; create or reset before using `p` again.
 */
ZOR_API void zor_partition_destroy(zor_partition *p);

/* zor_partition_destroy, then zor_partition_create with ZOR_PARTITION_SIZE slots. */
ZOR_API void zor_partition_reset(zor_partition *p);

/*
 * The append is the hot path of change queueing, so its body is here for
 * callers' compilers to inline. Outside the library these definitions are
 * inline-only (GNU extern inline: never emitted; a call that is not inlined
 * goes to the library's export). The library's own source defines
 * ZOR_PARTITION_EXPORTS and so compiles them as its exported functions:
 * one body for both.
 */
#ifdef ZOR_PARTITION_EXPORTS
#define ZOR_PARTITION_INLINE
#else
#define ZOR_PARTITION_INLINE extern inline __attribute__((gnu_inline))
#endif

/* Takes the next free slot of `elems`. */
ZOR_API zor_partition_elem *zor_partition_elem_get(zor_partition_elems *elems);

ZOR_API ZOR_PARTITION_INLINE zor_partition_elem *zor_partition_elem_get(zor_partition_elems *elems)
{
    ZOR_ASSERT(elems->count < elems->size);
    return &elems->slots[elems->count++];
}

ZOR_API ZOR_PARTITION_INLINE void zor_partition_entry_add(zor_partition_bucket *b, void *entry)
{
    zor_partition_elems *elems = b->partition->elems;
    /* Past this test the compiler knows a slot is free, and checks only a grown array. */
    if (__builtin_expect(elems->count >= elems->size, 0))
        elems = zor_partition_grow(b->partition);
    zor_partition_elem *slot = zor_partition_elem_get(elems);
    slot->entry = entry;
    *b->tail = slot;
    b->tail = &slot->next;
    b->count++;
}

/*
 * Walking forms that cost what a hand-written loop over the layout costs;
 * they are how code outside this file reads a partition without knowing
 * its slots. `item` is the caller's pointer variable (of any object-pointer
 * type); the hidden cursors are named after the line, so walks may nest on
 * different lines. `break` leaves the walk.
 */
#define ZOR_PARTITION_CAT_(a, b)       a##b
#define ZOR_PARTITION_VAR_(name, line) ZOR_PARTITION_CAT_(name, line)
#define ZOR_PARTITION_SLOT_            ZOR_PARTITION_VAR_(zor_partition_slot_, __LINE__)
#define ZOR_PARTITION_NEXT_            ZOR_PARTITION_VAR_(zor_partition_next_, __LINE__)
#define ZOR_PARTITION_ELEMS_           ZOR_PARTITION_VAR_(zor_partition_elems_, __LINE__)
#define ZOR_PARTITION_INDEX_           ZOR_PARTITION_VAR_(zor_partition_index_, __LINE__)

/* Each entry of bucket `b`, in the order of addition. */
#define ZOR_PARTITION_BUCKET_FOREACH(b, item)                                                      \
    for (zor_partition_elem *ZOR_PARTITION_SLOT_ = (b)->first;                                     \
         ZOR_PARTITION_SLOT_ != ZOR_NULL &&                                                        \
         ((item) = ZOR_ITER_ITEM_(item, ZOR_PARTITION_SLOT_->entry), 1);                           \
         ZOR_PARTITION_SLOT_ = ZOR_PARTITION_SLOT_->next)

/*
 * Each bucket of partition `p`, most recently added first. The following
 * bucket is fetched before the body runs, so the body may clear or re-add
 * the bucket it is given.
 */
#define ZOR_PARTITION_BUCKETS_FOREACH(p, bucket)                                                   \
    for (zor_partition_bucket * ZOR_PARTITION_NEXT_, *ZOR_PARTITION_SLOT_ = (p)->buckets;          \
         ZOR_PARTITION_SLOT_ != ZOR_NULL &&                                                        \
         (ZOR_PARTITION_NEXT_ = ZOR_PARTITION_SLOT_->next, (bucket) = ZOR_PARTITION_SLOT_, 1);     \
         ZOR_PARTITION_SLOT_ = ZOR_PARTITION_NEXT_)

/*
 * Each entry of every bucket of partition `p`, straight through its slot
 * arrays (newest array first): in no useful order, but without following
 * a chain slot by slot. A `break` here ends only the walk of one array.
 */
#define ZOR_PARTITION_ENTRIES_FOREACH(p, item)                                                     \
    for (zor_partition_elems *ZOR_PARTITION_ELEMS_ = (p)->elems; ZOR_PARTITION_ELEMS_ != ZOR_NULL; \
         ZOR_PARTITION_ELEMS_ = ZOR_PARTITION_ELEMS_->next)                                        \
        for (zor_partition_elem *ZOR_PARTITION_SLOT_ = ZOR_PARTITION_ELEMS_->slots,                \
                                *ZOR_PARTITION_NEXT_ =                                             \
                                    ZOR_PARTITION_SLOT_ + ZOR_PARTITION_ELEMS_->count;             \
             ZOR_PARTITION_SLOT_ != ZOR_PARTITION_NEXT_ &&                                         \
             ((item) = ZOR_ITER_ITEM_(item, ZOR_PARTITION_SLOT_->entry), 1);                       \
             ZOR_PARTITION_SLOT_++)

#ifdef __cplusplus
}
#endif

#endif /* ZOR_PARTITION_H */
