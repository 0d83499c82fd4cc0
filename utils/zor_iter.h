/*
 * zor_iter.h - the uniform iterator.
 *
 * Every collection of the library is walked through one record, zor_iter. A
 * collection's constructor fills a caller-provided record with two item
 * functions and a state pointer, and is always called as
 *
 *     zor_iter_create(&it, zor_list_iterator(&it, &state, &list));
 *
 * The caller then walks it, whatever the collection, and frees it:
 *
 *     ZOR_ITER_FOREACH(&it, elem) { ... }
 *     zor_iter_free(&it);
 *
 * The iterator fetches one item ahead: while the caller holds item k, item
 * k+1 is already in next_item, so the caller may unlink or free the item it
 * holds. Items are never null; a null result means the walk is over.
 */
#ifndef ZOR_ITER_H
#define ZOR_ITER_H

#include <stdint.h>
#include <string.h>

#include "zor_utils.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Item function. As `first` it is called with a null item and returns the
 * first item; as `next` it is called with the item last fetched and returns
 * the one after it. Null means there are no more items.
 */
typedef void *(*zor_iter_fn)(void *item, void *info);

/* Releases what an iterator kind allocated for its state. */
typedef void (*zor_iter_free_fn)(void *info);

typedef struct zor_iter {
    zor_iter_fn first;     /* fetches the first item */
    zor_iter_fn next;      /* fetches the item after a given one */
    zor_iter_free_fn free; /* releases `info`; may be null */
    void *next_item;       /* look-ahead: the item the next step hands out */
    void *info;            /* state of the iterator kind */
    uint32_t count;        /* steps taken; while the caller holds item k it is k */
    uint32_t fresh;        /* 1 after zor_iter_init; cleared when a walking form begins */
    uint32_t finished;     /* set when a step found no item */
} zor_iter;

/* State of the nested iterator (allocated by zor_iter_nested_iterator). */
typedef int (*zor_iter_nested_fn)(zor_iter *iter, void *parent, void *arg);

typedef struct zor_iter_nested_info {
    zor_iter outer;            /* walks the parents */
    zor_iter inner;            /* walks the children of the current parent */
    uint32_t inner_active;     /* `inner` holds an iterator that must be freed */
    zor_iter_nested_fn create; /* fills `outer` (null parent) or `inner` */
    void *arg;                 /* caller's argument for `create` */
} zor_iter_nested_info;

/* State of the chain iterator (allocated by zor_iter_chain_iterator). */
typedef struct zor_iter_chain_info {
    uint32_t index;   /* position of the member in use */
    uint32_t count;   /* number of members */
    zor_iter **iters; /* library-owned copy of the member pointers */
} zor_iter_chain_info;

/*
 * Fills `iter` with the item functions, the optional free function and the
 * state. Sets next_item to null and fresh to 1; count and finished are set
 * by the walk.
 */
ZOR_API void zor_iter_init(zor_iter *iter, zor_iter_fn first, zor_iter_fn next,
                           zor_iter_free_fn free, void *info);

/*
 * Wraps every constructor call: when `ok` is 0 the constructor had nothing
 * to walk, and `iter` becomes the empty iterator; otherwise `iter` is left
 * as the constructor filled it.
 */
ZOR_API void zor_iter_create(zor_iter *iter, int ok);

/* The item function of the empty iterator: always null. */
ZOR_API void *zor_iter_empty_fn(void *item, void *info);

/*
 * Makes `iter` walk, for every item of an outer iterator, the items of a
 * fresh inner iterator over that item's children. `create(it, NULL, arg)`
 * fills the outer iterator; `create(it, parent, arg)` fills an inner one.
 * Parents whose inner iterator yields nothing are skipped. Returns 1.
 */
ZOR_API int zor_iter_nested_iterator(zor_iter *iter, zor_iter_nested_fn create, void *arg);

/*
 * Makes `iter` walk the `count` iterators in `iters` one after another. The
 * pointer array is copied, the iterators are not: their owner frees each
 * after the chain is done. Every member is restarted with zor_iter_first,
 * empty members are skipped. A chain of no iterators yields nothing.
 * Returns 1.
 */
ZOR_API int zor_iter_chain_iterator(zor_iter *iter, uint32_t count, zor_iter **iters);

/* Returns the item after the last one handed out, or null at the end. */
static inline void *zor_iter_next(zor_iter *iter)
{
    ZOR_ASSERT(!iter->finished);
    void *item = iter->next_item;
    iter->count++;
    if (item != ZOR_NULL)
        iter->next_item = iter->next(item, iter->info);
    else
        iter->finished = 1;
    return item;
}

/* Starts (or restarts) a walk; returns the first item or null. */
static inline void *zor_iter_first(zor_iter *iter)
{
    iter->finished = 0;
    iter->count = 0;
    iter->next_item = iter->first(ZOR_NULL, iter->info);
    return zor_iter_next(iter);
}

/* Releases the iterator's state, if its kind has any, and clears the record. */
static inline void zor_iter_free(zor_iter *iter)
{
    if (iter->free) /* a function pointer: ISO C++ does not compare it with void * */
        iter->free(iter->info);
    memset(iter, 0, sizeof(*iter));
}

/*
 * Used by ZOR_ITER_FOREACH: a walking form runs only on a fresh record, and
 * only once. Returns 1 (and clears fresh) when the walk may start.
 */
static inline int zor_iter_walk_begin(zor_iter *iter)
{
    if (!iter->fresh)
        return 0;
    iter->fresh = 0;
    return 1;
}

/* Converts an item to the type of the caller's variable. */
#ifdef __cplusplus
#define ZOR_ITER_ITEM_(item, value) static_cast<decltype(item)>(value)
#else
#define ZOR_ITER_ITEM_(item, value) (value)
#endif

/*
 * Walking form: runs the following statement once for each item, with the
 * caller's pointer variable `item` (of any object-pointer type) set to it.
 * `iter` is a zor_iter pointer expression without side effects. `break`
 * ends the walk for good: a second walking form on the same record runs no
 * body until the record is initialised again.
 */
#define ZOR_ITER_FOREACH(iter, item)                                                               \
    for (; zor_iter_walk_begin(iter);)                                                             \
        for ((item) = ZOR_ITER_ITEM_(item, zor_iter_first(iter));                                  \
             (item) != ZOR_NULL && !(iter)->finished;                                              \
             (item) = ZOR_ITER_ITEM_(item, zor_iter_next(iter)))

#ifdef __cplusplus
}
#endif

#endif /* ZOR_ITER_H */
