/*
 * zor_list.h - intrusive doubly linked lists.
 *
 * Elements carry their own link (a zor_list_link) at a fixed byte offset
 * inside them; the list head records that offset. Links point at elements,
 * not at links, so one element can sit in several lists at once through
 * links at different offsets. The list never allocates, copies or frees an
 * element; it only threads them.
 *
 * Invariants: `first` is null exactly when `last` is null and `count` is 0;
 * following `next` from `first` visits `count` elements and ends at `last`.
 * An element in no list has an all-zero link (calloc'd memory starts so,
 * and removal clears it again).
 */
#ifndef ZOR_LIST_H
#define ZOR_LIST_H

#include <stdint.h>

#include "zor_iter.h"
#include "zor_utils.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The list head, embedded in its owner. */
typedef struct zor_list {
    void *first;     /* first element; null when empty */
    void *last;      /* last element; null when empty */
    uint64_t offset; /* byte offset of the zor_list_link inside every element */
    uint32_t count;  /* number of elements */
} zor_list;

/* The link, embedded in each element at the list's offset. */
typedef struct zor_list_link {
    void *next; /* following element; null for the last */
    void *prev; /* preceding element; not read for the first */
} zor_list_link;

/* State of a list walk, provided by the caller; must outlive the walk. */
typedef struct zor_list_iter_state {
    zor_list *list; /* the list walked */
    void *cur;      /* element handed out after the current look-ahead */
} zor_list_iter_state;

/* The link of `element` in `list`. */
static inline zor_list_link *zor_list_link_of(const zor_list *list, void *element)
{
    return (zor_list_link *)((char *)element + list->offset);
}

/* Makes `list` empty, for elements whose link is `offset` bytes in. */
static inline void zor_list_init(zor_list *list, uint64_t offset)
{
    list->first = ZOR_NULL;
    list->last = ZOR_NULL;
    list->offset = offset;
    list->count = 0;
}

/* Links `element` in at the end. The element must be in no list. */
static inline void zor_list_append(zor_list *list, void *element)
{
    zor_list_link *link = zor_list_link_of(list, element);
    if (list->first != ZOR_NULL) {
        link->prev = list->last;
        zor_list_link_of(list, list->last)->next = element;
    } else {
        ZOR_ASSERT(list->last == ZOR_NULL);
        list->first = element;
    }
    link->next = ZOR_NULL;
    list->last = element;
    list->count++;
}

/*
 * Unlinks `element`, from any position, and clears its link. The element
 * must be in this list; that is not checked.
 */
static inline void zor_list_remove(zor_list *list, void *element)
{
    zor_list_link *link = zor_list_link_of(list, element);
    if (element == list->first)
        list->first = link->next;
    else
        zor_list_link_of(list, link->prev)->next = link->next;
    if (element == list->last)
        list->last = link->prev;
    else
        zor_list_link_of(list, link->next)->prev = link->prev;
    ZOR_ASSERT(list->count > 0);
    list->count--;
    link->next = ZOR_NULL;
    link->prev = ZOR_NULL;
}

/*
 * Makes `iter` walk `list` from first to last, using the caller's `state`.
 * The walker may unlink or free the element it holds, and no other. Returns
 * 1; call it as zor_iter_create(iter, zor_list_iterator(iter, state, list)).
 */
ZOR_API int zor_list_iterator(zor_iter *iter, zor_list_iter_state *state, zor_list *list);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_LIST_H */
