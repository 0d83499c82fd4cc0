/*
 * zor_tour - a short tour of the core utilities, written in C against the
 * umbrella header: intrusive lists, the uniform iterator (plain, nested and
 * chained) and partitions.
 *
 * It keeps a few network interfaces in two lists at once (all of them, and
 * those that are up), groups "changes" to them into partition buckets, and
 * walks everything through the same iterator record.
 */
#include "zor.h"

#include <stdio.h>

struct interface {
    zor_list_link all; /* link in the list of all interfaces */
    zor_list_link up;  /* link in the list of interfaces that are up */
    const char *name;
    int mtu;
};

/* Nested iterator: the parents are two lists, the children their elements. */
struct two_lists {
    zor_list *lists[2];
    zor_list_iter_state states[2];
    int parent;
};

static void *lists_next(void *item, void *info)
{
    struct two_lists *t = info;
    (void)item;
    return t->parent < 2 ? t->lists[t->parent++] : NULL;
}

static void *lists_first(void *item, void *info)
{
    ((struct two_lists *)info)->parent = 0;
    return lists_next(item, info);
}

static int list_of_lists(zor_iter *iter, void *parent, void *arg)
{
    struct two_lists *t = arg;
    if (parent == NULL) {
        zor_iter_init(iter, lists_first, lists_next, NULL, t);
        return 1;
    }
    zor_list *list = parent;
    if (list->count == 0)
        return 0;
    return zor_list_iterator(iter, &t->states[list == t->lists[1]], list);
}

static void print_change_bucket(uint32_t count, zor_iter *iter, void *data)
{
    struct interface *itf;
    printf("  %s (%u):", (const char *)data, count);
    ZOR_ITER_FOREACH (iter, itf) {
        printf(" %s", itf->name);
    }
    printf("\n");
}

int main(void)
{
    struct interface itfs[] = {
        {{0, 0}, {0, 0}, "eth0", 1500},
        {{0, 0}, {0, 0}, "eth1", 9000},
        {{0, 0}, {0, 0}, "lo", 65536},
        {{0, 0}, {0, 0}, "wlan0", 1500},
    };
    const int n = sizeof(itfs) / sizeof(itfs[0]);

    /* One element, two lists: each list knows where its link sits. */
    zor_list all, up;
    zor_list_init(&all, offsetof(struct interface, all));
    zor_list_init(&up, offsetof(struct interface, up));
    for (int i = 0; i < n; i++) {
        zor_list_append(&all, &itfs[i]);
        if (itfs[i].mtu != 9000)
            zor_list_append(&up, &itfs[i]);
    }
    zor_list_remove(&up, &itfs[3]); /* wlan0 goes down */

    zor_iter it;
    zor_list_iter_state state;
    struct interface *itf;
    printf("all interfaces (%u):\n", all.count);
    zor_iter_create(&it, zor_list_iterator(&it, &state, &all));
    ZOR_ITER_FOREACH (&it, itf) {
        printf("  %-6s mtu %d\n", itf->name, itf->mtu);
    }
    zor_iter_free(&it);

    /* Nested: every element of both lists, list by list. */
    struct two_lists t = {{&all, &up}, {{0, 0}, {0, 0}}, 0};
    int visits = 0;
    zor_iter_create(&it, zor_iter_nested_iterator(&it, list_of_lists, &t));
    ZOR_ITER_FOREACH (&it, itf) {
        visits++;
    }
    zor_iter_free(&it);
    printf("nested walk over both lists: %d visits (%u + %u)\n", visits, all.count, up.count);

    /* Chain: the up list, then the whole list again. */
    zor_iter up_it, all_it, chain;
    zor_list_iter_state s1, s2;
    zor_iter_create(&up_it, zor_list_iterator(&up_it, &s1, &up));
    zor_iter_create(&all_it, zor_list_iterator(&all_it, &s2, &all));
    zor_iter *members[] = {&up_it, &all_it};
    zor_iter_create(&chain, zor_iter_chain_iterator(&chain, 2, members));
    printf("chain (up, then all):");
    ZOR_ITER_FOREACH (&chain, itf) {
        printf(" %s", itf->name);
    }
    printf("\n");
    zor_iter_free(&chain);
    zor_iter_free(&up_it);
    zor_iter_free(&all_it);

    /* Partitions: group changes into buckets, hand them out newest bucket first. */
    zor_partition changes;
    zor_partition_bucket mtu_changed, state_changed;
    zor_partition_create(&changes, 16);
    zor_partition_bucket_add(&changes, &mtu_changed, "mtu changed");
    zor_partition_bucket_add(&changes, &state_changed, "state changed");
    zor_partition_entry_add(&mtu_changed, &itfs[1]);
    zor_partition_entry_add(&state_changed, &itfs[3]);
    zor_partition_entry_add(&mtu_changed, &itfs[0]);
    printf("changes, newest bucket first:\n");
    zor_partition_process(&changes, print_change_bucket);
    zor_partition_destroy(&changes);
    return 0;
}
