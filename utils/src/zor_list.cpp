/*
 * The list iterator. The state's `cur` runs one element ahead of the
 * iterator's own look-ahead, so the element the caller holds is read by
 * nobody after it is handed out.
 */
#include "zor_list.h"
#include "zor_str.h"

#include "zor_layout.h"

ZOR_LAYOUT(zor_list, 28, first, last, offset, count);
ZOR_LAYOUT(zor_list_link, 16, next, prev);
ZOR_LAYOUT(zor_list_iter_state, 16, list, cur);
/* The string view lives in a header only; its check is here. */
ZOR_LAYOUT(zor_str, 16, ptr, len);

static void *zor_list_iter_next(void *, void *info)
{
    zor_list_iter_state *state = static_cast<zor_list_iter_state *>(info);
    void *element = state->cur;
    if (element != nullptr)
        state->cur = zor_list_link_of(state->list, element)->next;
    return element;
}

static void *zor_list_iter_first(void *item, void *info)
{
    zor_list_iter_state *state = static_cast<zor_list_iter_state *>(info);
    state->cur = state->list->first;
    return zor_list_iter_next(item, info);
}

int zor_list_iterator(zor_iter *iter, zor_list_iter_state *state, zor_list *list)
{
    ZOR_ASSERT(list != ZOR_NULL);
    state->list = list;
    state->cur = nullptr;
    zor_iter_init(iter, zor_list_iter_first, zor_list_iter_next, nullptr, state);
    return 1;
}
