/* The walking form compiled as C, with an item variable of another pointer type. */
#include "zor_list.h"

struct c_elem {
    zor_list_link link;
    int value;
};

/* Sums the values 1..n of a list, stopping at `stop` (break); a second walk never runs. */
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
        sum += 1000;
    }
    zor_iter_free(&it);
    return sum;
}
