/*
 * Iterator records, the empty iterator, and the two combinators: nested
 * (children of each parent, outer-major) and chain (members in order).
 */
#include "zor_iter.h"

#include <stdlib.h>

#include "zor_layout.h"

ZOR_LAYOUT(zor_iter, 52, first, next, free, next_item, info, count, fresh, finished);
ZOR_LAYOUT(zor_iter_nested_info, 132, outer, inner, inner_active, create, arg);
ZOR_LAYOUT(zor_iter_chain_info, 16, index, count, iters);

void zor_iter_init(zor_iter *iter, zor_iter_fn first, zor_iter_fn next, zor_iter_free_fn free,
                   void *info)
{
    iter->first = first;
    iter->next = next;
    iter->free = free;
    iter->info = info;
    iter->next_item = nullptr;
    iter->fresh = 1;
}

void *zor_iter_empty_fn(void *, void *)
{
    return nullptr;
}

void zor_iter_create(zor_iter *iter, int ok)
{
    if (!ok)
        zor_iter_init(iter, zor_iter_empty_fn, zor_iter_empty_fn, nullptr, nullptr);
}

/* ---- nested iterator ---------------------------------------------------- */

/*
 * Frees the inner iterator of the previous parent, if any, and starts one
 * over the children of `parent`; returns its first item. A null parent only
 * frees.
 */
static void *zor_iter_nested_start_inner(zor_iter_nested_info *info, void *parent)
{
    if (info->inner_active) {
        zor_iter_free(&info->inner);
        info->inner_active = 0;
    }
    if (parent == nullptr)
        return nullptr;
    zor_iter_create(&info->inner, info->create(&info->inner, parent, info->arg));
    info->inner_active = 1;
    return zor_iter_first(&info->inner);
}

static void *zor_iter_nested_first(void *, void *state)
{
    zor_iter_nested_info *info = static_cast<zor_iter_nested_info *>(state);
    for (void *parent = zor_iter_first(&info->outer); parent != nullptr;
         parent = zor_iter_next(&info->outer)) {
        void *item = zor_iter_nested_start_inner(info, parent);
        if (item != nullptr)
            return item;
    }
    return nullptr;
}

static void *zor_iter_nested_next(void *, void *state)
{
    zor_iter_nested_info *info = static_cast<zor_iter_nested_info *>(state);
    ZOR_ASSERT(info->inner_active);
    void *item = zor_iter_next(&info->inner);
    if (item != nullptr)
        return item;
    for (;;) {
        void *parent = zor_iter_next(&info->outer);
        item = zor_iter_nested_start_inner(info, parent);
        if (parent == nullptr || item != nullptr)
            return item;
    }
}

static void zor_iter_nested_free(void *state)
{
    zor_iter_nested_info *info = static_cast<zor_iter_nested_info *>(state);
    zor_iter_free(&info->outer);
    if (info->inner_active)
        zor_iter_free(&info->inner);
    free(info);
}

int zor_iter_nested_iterator(zor_iter *iter, zor_iter_nested_fn create, void *arg)
{
    zor_iter_nested_info *info =
        static_cast<zor_iter_nested_info *>(util_calloc(sizeof(zor_iter_nested_info)));
    zor_iter_create(&info->outer, create(&info->outer, nullptr, arg));
    info->inner_active = 0;
    info->create = create;
    info->arg = arg;
    zor_iter_init(iter, zor_iter_nested_first, zor_iter_nested_next, zor_iter_nested_free, info);
    return 1;
}

/* ---- chain iterator ----------------------------------------------------- */

static void *zor_iter_chain_first(void *, void *state)
{
    zor_iter_chain_info *info = static_cast<zor_iter_chain_info *>(state);
    for (info->index = 0; info->index < info->count; info->index++) {
        void *item = zor_iter_first(info->iters[info->index]);
        if (item != nullptr)
            return item;
    }
    return nullptr;
}

static void *zor_iter_chain_next(void *, void *state)
{
    zor_iter_chain_info *info = static_cast<zor_iter_chain_info *>(state);
    void *item = zor_iter_next(info->iters[info->index]);
    if (item != nullptr)
        return item;
    while (info->index + 1 < info->count) {
        info->index++;
        item = zor_iter_first(info->iters[info->index]);
        if (item != nullptr)
            return item;
    }
    return nullptr;
}

static void zor_iter_chain_free(void *state)
{
    zor_iter_chain_info *info = static_cast<zor_iter_chain_info *>(state);
    free(info->iters);
    free(info);
}

int zor_iter_chain_iterator(zor_iter *iter, uint32_t count, zor_iter **iters)
{
    zor_iter_chain_info *info =
        static_cast<zor_iter_chain_info *>(util_calloc(sizeof(zor_iter_chain_info)));
    info->iters = static_cast<zor_iter **>(util_calloc(sizeof(zor_iter *) * count));
    for (uint32_t i = 0; i < count; i++)
        info->iters[i] = iters[i];
    info->count = count;
    zor_iter_init(iter, zor_iter_chain_first, zor_iter_chain_next, zor_iter_chain_free, info);
    return 1;
}
