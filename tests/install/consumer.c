/* Uses the installed headers and library through the umbrella header. */
#include "zor.h"

#include <stdio.h>

struct item {
    zor_list_link link;
    int value;
};

int main(void)
{
    struct item items[3] = {{{0, 0}, 1}, {{0, 0}, 2}, {{0, 0}, 3}};
    zor_list list;
    zor_list_init(&list, 0);
    for (int i = 0; i < 3; i++)
        zor_list_append(&list, &items[i]);

    zor_iter it;
    zor_list_iter_state state;
    struct item *item;
    int sum = 0;
    zor_iter_create(&it, zor_list_iterator(&it, &state, &list));
    ZOR_ITER_FOREACH (&it, item) {
        sum += item->value;
    }
    zor_iter_free(&it);
    if (sum != 6) {
        fprintf(stderr, "consumer: expected 6, got %d\n", sum);
        return 1;
    }
    return 0;
}
