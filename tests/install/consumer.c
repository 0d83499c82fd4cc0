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

    /* The dictionary hashes through the library's xxHash. */
    zor_dict dict;
    zor_dict_init(&dict, 4, NULL);
    uint32_t a = zor_dict_ref_get(&dict, zor_str_init("eth0"));
    uint32_t b = zor_dict_ref_get(&dict, zor_str_init("eth0"));
    int dict_ok = a == 0 && b == 0 && zor_dict_id_get_rec(&dict, a)->refcount == 2;
    zor_dict_destroy(&dict);
    if (!dict_ok || ZOR_XXH_versionNumber() != 603 ||
        ZOR_XXH64("", 0, 0) != 0xEF46DB3751D8E999ULL) {
        fprintf(stderr, "consumer: dictionary or hashing broken\n");
        return 1;
    }
    return 0;
}
