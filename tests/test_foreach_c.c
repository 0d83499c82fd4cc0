/*
 * The walking form compiled as C: the same macro must work for C callers,
 * with the item variable of any object-pointer type.
 */
#include "zor_list.h"

struct c_elem {
    zor_list_link link;
    int value;
};

/* Sums the values of a list of `n` elements, stopping at `stop` (break). */
int zor_test_c_foreach_sum(int n, int stop)
{
    struct c_elem elems[16] = {{{0, 0}, 0}};
    zor_list list;
    zor_list_init(&list, 0);
    for (int i = 0; i < n && i < 16; i++) {
        elems[i].value = i + 1;
        zor_list_append(&list, &elems[i]);
    }
    zor_iter it;
    zor_list_iter_state state;
    const struct c_elem *e;
    int sum = 0;
    zor_iter_create(&it, zor_list_iterator(&it, &state, &list));
    ZOR_ITER_FOREACH (&it, e) {
        if (e->value == stop)
            break;
        sum += e->value;
    }
    ZOR_ITER_FOREACH (&it, e) {
        sum += 1000; /* never runs: the walk is over */
    }
    zor_iter_free(&it);
    return sum;
}
