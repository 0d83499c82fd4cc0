/*
 * The list iterator. The state's `cur` runs one element ahead of the
 * iterator's own look-ahead, so the element the caller holds is read by
 * nobody after it is handed out.
 */
#include "zor_list.h"
#include "zor_str.h"

static_assert(offsetof(zor_list, first) == 0, "zor_list field order");
static_assert(offsetof(zor_list, last) == 8, "zor_list field order");
static_assert(offsetof(zor_list, offset) == 16, "zor_list field order");
static_assert(offsetof(zor_list, count) == 24, "zor_list field order");
static_assert(offsetof(zor_list_link, next) == 0, "zor_list_link field order");
static_assert(offsetof(zor_list_link, prev) == 8, "zor_list_link field order");
static_assert(offsetof(zor_list_iter_state, list) == 0, "list walk state field order");
static_assert(offsetof(zor_list_iter_state, cur) == 8, "list walk state field order");
static_assert(offsetof(zor_str, ptr) == 0 && offsetof(zor_str, len) == 8 && sizeof(zor_str) == 16,
              "zor_str layout");

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
