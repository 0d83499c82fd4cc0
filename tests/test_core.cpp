/* Allocation, assertions, iterators; lists and partitions against a model. */
#include "zor_test.h"
#include "zor_iter.h"
#include "zor_list.h"
#include "zor_partition.h"
#include "zor_str.h"
#include "zor_utils.h"

#include <algorithm>
#include <functional>
#include <list>
#include <numeric>
#include <random>
#include <vector>

#ifndef NDEBUG
#error "the test programs are built with NDEBUG to prove that checks stay on"
#endif

namespace
{

/* A test collection: walks a vector of ints; the free function deletes the bounds. */
using bounds = std::pair<int *, int *>;

void *array_next(void *item, void *info)
{
    bounds *b = static_cast<bounds *>(info);
    int *next = item != nullptr ? static_cast<int *>(item) + 1 : b->first;
    return next < b->second ? next : nullptr;
}

void array_free(void *info)
{
    delete static_cast<bounds *>(info);
}

int array_iterator(zor_iter *iter, std::vector<int> &items)
{
    if (items.empty())
        return 0;
    bounds *b = new bounds(items.data(), items.data() + items.size());
    zor_iter_init(iter, array_next, array_next, array_free, b);
    return 1;
}

/* The walking form's items; after a full walk the item variable is null. */
std::vector<int> collect(zor_iter *iter)
{
    std::vector<int> out;
    int before = 0, *item = &before;
    ZOR_ITER_FOREACH (iter, item) {
        out.push_back(*item);
    }
    EXPECT_EQ(item, nullptr);
    return out;
}

/* Children per parent, for the nested iterator. */
struct tree {
    std::vector<int> parents;
    std::vector<std::vector<int>> children;
};

int tree_create(zor_iter *iter, void *parent, void *arg)
{
    tree *t = static_cast<tree *>(arg);
    if (parent == nullptr)
        return array_iterator(iter, t->parents);
    return array_iterator(iter, t->children[*static_cast<int *>(parent)]);
}

/* An element that can sit in two lists: link `a` at offset 16, `b` at 32. */
struct elem {
    void *header[2];
    zor_list_link a, b;
    int value;
};

void allocate_and_release(size_t size)
{
    void *volatile result = util_calloc(size); /* observable: the call stays */
    free(result);
}

} // namespace

TEST(Core, BrokenPreconditionsStop)
{
    int *ptr = nullptr, finished = 1;
    ZOR_EXPECT_ASSERT(ZOR_ASSERT(ptr != ZOR_NULL), "TestBody", "ptr != ((void *)0)");
    ZOR_EXPECT_ASSERT(ZOR_ASSERT((finished & 0x80000000) == 0x0 && finished == 2), "TestBody",
                      "(finished & 0x80000000) == 0x0 && finished == 2");
    tree t;
    std::vector<int> one{1};
    zor_iter done, nested;
    zor_iter_create(&done, array_iterator(&done, one));
    collect(&done);
    zor_iter_create(&nested, zor_iter_nested_iterator(&nested, tree_create, &t));
    elem e = {};
    zor_list no_first = {nullptr, &e, 0, 0}, no_count = {&e, &e, 0, 0}; /* inconsistent heads */
    zor_list_iter_state state;
    zor_partition p;
    zor_partition_bucket b;
    zor_partition_create(&p, 0);
    p.next_size = 0; /* growth would add an array with no slot */
    zor_partition_bucket_add(&p, &b, nullptr);
    struct {
        const char *function, *text;
        std::function<void()> run;
    } const cases[] = {
        {"util_calloc", "result != ((void *)0)", [] { allocate_and_release(SIZE_MAX / 2); }},
        {"zor_str_init", "str != ((void *)0)", [] { zor_str_init(nullptr); }},
        {"zor_str_init_len", "str != ((void *)0)", [] { zor_str_init_len(nullptr, 7); }},
        {"zor_iter_next", "!iter->finished", [&] { zor_iter_next(&done); }},
        {"zor_iter_nested_next", "info->inner_active", /* next before any walk */
         [&] { nested.next(nullptr, nested.info); }},
        {"zor_list_append", "list->last == ((void *)0)", [&] { zor_list_append(&no_first, &e); }},
        {"zor_list_remove", "list->count > 0", [&] { zor_list_remove(&no_count, &e); }},
        {"zor_list_iterator", "list != ((void *)0)",
         [&] { zor_list_iterator(&done, &state, nullptr); }},
        {"zor_partition_elem_get", "elems->count < elems->size",
         [&] { zor_partition_entry_add(&b, &e); }},
    };
    for (const auto &c : cases)
        ZOR_EXPECT_ASSERT(c.run(), c.function, c.text) << c.text;
    zor_iter_free(&done);
    zor_iter_free(&nested);
    zor_partition_destroy(&p);
}

TEST(Core, IteratorsWalkNestAndChainSkippingEmptyMembers)
{
    /* The walking form runs once per record: break ends it for good. */
    int *item, sum = 0;
    std::vector<int> a{1, 2}, b{3}, items{1, 2, 3};
    zor_iter it;
    zor_iter_create(&it, array_iterator(&it, items));
    for (int pass = 0; pass < 2; pass++)
        ZOR_ITER_FOREACH (&it, item) {
            if (*item == 3)
                break;
            sum += *item;
        }
    EXPECT_EQ(sum, 1 + 2);
    zor_iter_free(&it);

    tree full, none, childless;
    full.parents = {0, 1, 2, 3}, childless.parents = {0, 1};
    full.children = {{}, {10, 11}, {}, {30}}, childless.children = {{}, {}};
    tree *trees[] = {&full, &none, &childless};
    for (int k = 0; k < 3; k++) {
        zor_iter_create(&it, zor_iter_nested_iterator(&it, tree_create, trees[k]));
        EXPECT_EQ(collect(&it), (k ? std::vector<int>{} : std::vector<int>{10, 11, 30}));
        EXPECT_TRUE(it.count == (k ? 1u : 4u) && it.finished == 1); /* the items and the end */
        int *again = static_cast<int *>(zor_iter_first(&it));       /* its inner one is freed too */
        EXPECT_EQ(again ? *again : 0, k ? 0 : 10);
        zor_iter_free(&it);
    }

    /* A chain walks its members in turn and leaves them to their owner. */
    zor_iter e1, ia, ib, chain;
    memset(&e1, 0xA5, sizeof(e1)); /* the empty iterator sets every field */
    zor_iter_create(&e1, 0);
    zor_iter_create(&ia, array_iterator(&ia, a));
    zor_iter_create(&ib, array_iterator(&ib, b));
    zor_iter *members[] = {&e1, &ia, &e1, &ib};
    zor_iter_create(&chain, zor_iter_chain_iterator(&chain, 4, members));
    members[0] = nullptr; /* the chain keeps its own copy of the array */
    EXPECT_EQ(collect(&chain), (std::vector<int>{1, 2, 3}));
    zor_iter_free(&chain);
    EXPECT_TRUE(ib.finished == 1 && ia.info != nullptr);
    zor_iter_free(&ia);
    zor_iter_free(&ib);
    zor_iter *empties[] = {&e1, &e1};
    for (uint32_t n : {2u, 0u}) { /* only empty members, or none at all */
        zor_iter_create(&chain, zor_iter_chain_iterator(&chain, n, empties));
        EXPECT_TRUE(collect(&chain).empty());
        zor_iter_free(&chain);
    }
    zor_iter_free(&e1);
}

namespace
{

/* The list's elements by their links, checked both ways, against the model. */
void expect_list(zor_list *list, const std::list<int> &model)
{
    std::vector<int> seen;
    void *prev = nullptr;
    for (void *p = list->first; p != nullptr; prev = p, p = zor_list_link_of(list, p)->next) {
        ASSERT_EQ(zor_list_link_of(list, p)->prev, prev);
        seen.push_back(static_cast<elem *>(p)->value);
    }
    ASSERT_TRUE(list->last == prev && list->count == model.size());
    ASSERT_EQ(seen, std::vector<int>(model.begin(), model.end()));
}

} // namespace

TEST(Core, ListsAgainstModelOnRandomOperations)
{
    std::mt19937 rng(7);
    elem e[8] = {};
    zor_list lists[2];
    zor_list_init(&lists[0], offsetof(elem, a));
    zor_list_init(&lists[1], offsetof(elem, b));
    std::list<int> model[2];
    for (int i = 0; i < 8; i++)
        e[i].value = i;
    for (int step = 0; step < 2000; step++) {
        int l = rng() % 2, i = rng() % 8;
        auto at = std::find(model[l].begin(), model[l].end(), i);
        if (at == model[l].end()) {
            zor_list_append(&lists[l], &e[i]);
            model[l].push_back(i);
        } else {
            zor_list_remove(&lists[l], &e[i]);
            model[l].erase(at);
            zor_list_link *link = l ? &e[i].b : &e[i].a;
            ASSERT_TRUE(link->next == nullptr && link->prev == nullptr);
        }
        expect_list(&lists[l], model[l]);
    }

    /* The iterator walks in order; the walker may remove the element it holds and reuse it. */
    std::vector<int> seen;
    zor_iter it;
    zor_list_iter_state state;
    elem *n;
    zor_iter_create(&it, zor_list_iterator(&it, &state, &lists[0]));
    ZOR_ITER_FOREACH (&it, n) {
        seen.push_back(n->value);
        zor_list_remove(&lists[0], n);
        memset(&n->a, 0xEE, sizeof(n->a));
    }
    zor_iter_free(&it);
    EXPECT_EQ(seen, std::vector<int>(model[0].begin(), model[0].end()));
    expect_list(&lists[0], {});
}

namespace
{

/* What the process callback saw: per call, the bucket's data and its entries. */
std::vector<std::pair<void *, std::vector<int>>> seen;
zor_partition *adding_to;
zor_partition_bucket late_bucket;

void record_call(uint32_t count, zor_iter *iter, void *data)
{
    std::vector<int> entries;
    for (void *e = zor_iter_first(iter); e != nullptr; e = zor_iter_next(iter))
        entries.push_back(*static_cast<int *>(e));
    EXPECT_EQ(entries.size(), count);
    seen.emplace_back(data, entries);
    if (adding_to != nullptr) /* added during processing: visited by the next pass only */
        zor_partition_bucket_add(adding_to, &late_bucket, nullptr);
    adding_to = nullptr;
}

} // namespace

TEST(Core, PartitionsAgainstModelOnRandomOperations)
{
    std::mt19937 rng(3);
    int values[600];
    std::iota(values, values + 600, 0);
    const uint32_t initials[] = {0, 2, 128, 130};
    zor_partition p;
    for (int round = 0; round < 12; round++) {
        uint32_t initial = initials[round % 4];
        int buckets = 1 + round % 4, total = (round * 97) % 600;
        if (round % 4 != 2) /* else the reset that ended the round before made 128 slots */
            zor_partition_create(&p, initial);
        std::vector<zor_partition_bucket> b(buckets);
        std::vector<std::vector<int>> model(buckets);
        for (int k = 0; k < buckets; k++)
            zor_partition_bucket_add(&p, &b[k], &b[k]);
        for (int i = 0; i < total; i++) {
            int k = rng() % buckets;
            zor_partition_entry_add(&b[k], &values[i]);
            model[k].push_back(i);
        }
        std::vector<int> all;
        int *entry;
        ZOR_PARTITION_ENTRIES_FOREACH (&p, entry)
            all.push_back(*entry);
        std::sort(all.begin(), all.end());
        EXPECT_EQ(all, std::vector<int>(values, values + total));
        std::vector<std::pair<void *, std::vector<int>>> want; /* newest bucket first */
        for (int k = buckets - 1; k >= 0; k--)
            want.emplace_back(&b[k], model[k]);
        adding_to = &p;
        for (int pass = 0; pass < 2; pass++) {
            seen.clear();
            zor_partition_process(&p, record_call);
            EXPECT_EQ(seen, want);
            want.insert(want.begin(), {nullptr, {}}); /* the late bucket */
        }
        zor_partition_destroy(&p); /* and, in some rounds, a reset after it */
        if (round % 4 == 1)
            zor_partition_reset(&p);
        EXPECT_TRUE(p.buckets == nullptr && (p.elems == nullptr) == (round % 4 != 1));
        zor_partition_bucket zero;
        memset(&zero, 0, sizeof(zero));
        for (const zor_partition_bucket &cleared : b)
            EXPECT_EQ(memcmp(&cleared, &zero, sizeof(zero)), 0);
    }
}
