/*
 * Allocation, the assertion convention, string views, iterators, intrusive
 * lists and partitions. Lists and partitions are compared with a plain model
 * on random operations.
 */
#include "zor_test.h"
#include "zor_iter.h"
#include "zor_list.h"
#include "zor_partition.h"
#include "zor_str.h"
#include "zor_utils.h"

#include <algorithm>
#include <list>
#include <random>
#include <string>
#include <vector>

#ifndef NDEBUG
#error "the test programs are built with NDEBUG to prove that checks stay on"
#endif

namespace
{

/* Allocates and keeps the result observable, so the call cannot be elided. */
void allocate_and_release(size_t size)
{
    void *volatile result = util_calloc(size);
    free(result);
}

/* A test collection: walks a vector of ints, counting free calls. */
struct array_walk {
    std::vector<int> *items;
    size_t pos;
    int *freed;
};

void *array_next(void *, void *info)
{
    array_walk *w = static_cast<array_walk *>(info);
    return w->pos < w->items->size() ? &(*w->items)[w->pos++] : nullptr;
}

void *array_first(void *item, void *info)
{
    static_cast<array_walk *>(info)->pos = 0;
    return array_next(item, info);
}

void array_free(void *info)
{
    array_walk *w = static_cast<array_walk *>(info);
    if (w->freed)
        ++*w->freed;
    delete w;
}

/* A null or empty vector gives the empty iterator. */
int array_iterator(zor_iter *iter, std::vector<int> *items, int *freed = nullptr)
{
    if (items == nullptr || items->empty())
        return 0;
    zor_iter_init(iter, array_first, array_next, array_free, new array_walk{items, 0, freed});
    return 1;
}

std::vector<int> collect(zor_iter *iter)
{
    std::vector<int> out;
    int *item;
    ZOR_ITER_FOREACH (iter, item) {
        out.push_back(*item);
    }
    return out;
}

/* Children per parent: the nested iterator's collection. */
struct tree {
    std::vector<int> parents;
    std::vector<std::vector<int>> children;
    std::vector<int> created_for; /* parents `create` was called with */
    int freed = 0;
};

int tree_create(zor_iter *iter, void *parent, void *arg)
{
    tree *t = static_cast<tree *>(arg);
    if (parent == nullptr)
        return array_iterator(iter, &t->parents, &t->freed);
    int id = *static_cast<int *>(parent);
    t->created_for.push_back(id);
    return array_iterator(iter, &t->children[id], &t->freed);
}

} // namespace

TEST(Core, AllocationAssertionsAndStringViews)
{
    unsigned char *p = static_cast<unsigned char *>(util_calloc(4096));
    EXPECT_EQ(std::count(p, p + 4096, 0), 4096);
    free(p);
    void *empty = util_calloc(0); /* glibc gives a unique pointer */
    EXPECT_NE(empty, nullptr);
    free(empty);
    int *ptr = nullptr, finished = 1;
    ZOR_ASSERT(finished == 1); /* a true condition does nothing */
    const char *text = "hello";
    zor_str s = zor_str_init(text);
    EXPECT_TRUE(s.ptr == text && s.len == 5u);
    s = zor_str_init_len(text + 1, 3); /* not NUL-terminated at its end */
    EXPECT_TRUE(s.ptr == text + 1 && s.len == 3u);
    EXPECT_EQ(zor_str_init_len(text, INT32_MAX).len, static_cast<uint64_t>(INT32_MAX));
    EXPECT_EQ(zor_str_init("").len, 0u);

    ZOR_EXPECT_ASSERT(allocate_and_release(SIZE_MAX / 2), "util_calloc", "result != ((void *)0)");
    ZOR_EXPECT_ASSERT(ZOR_ASSERT(ptr != ZOR_NULL), "TestBody", "ptr != ((void *)0)");
    ZOR_EXPECT_ASSERT(ZOR_ASSERT((finished & 0x80000000) == 0x0 && finished == 2), "TestBody",
                      "(finished & 0x80000000) == 0x0 && finished == 2");
    ZOR_EXPECT_ASSERT(zor_str_init(nullptr), "zor_str_init", "str != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_str_init_len(nullptr, 7), "zor_str_init_len", "str != ((void *)0)");
}

TEST(Core, IteratorWalkCountsFinishesRestartsAndFrees)
{
    std::vector<int> items{1, 2, 3};
    int freed = 0;
    zor_iter it;
    zor_iter_create(&it, array_iterator(&it, &items, &freed));
    EXPECT_EQ(it.fresh, 1u);
    EXPECT_EQ(zor_iter_first(&it), &items[0]);
    EXPECT_TRUE(it.count == 1 && it.next_item == &items[1]); /* one item ahead */
    EXPECT_EQ(zor_iter_next(&it), &items[1]);
    EXPECT_EQ(zor_iter_next(&it), &items[2]);
    EXPECT_EQ(zor_iter_next(&it), nullptr);
    EXPECT_TRUE(it.count == 4 && it.finished == 1);
    ZOR_EXPECT_ASSERT(zor_iter_next(&it), "zor_iter_next", "!iter->finished");
    EXPECT_EQ(zor_iter_first(&it), &items[0]); /* restarts a finished walk */
    EXPECT_EQ(it.finished, 0u);
    zor_iter_free(&it);
    EXPECT_EQ(freed, 1);
    zor_iter zero;
    memset(&zero, 0, sizeof(zero));
    EXPECT_EQ(memcmp(&it, &zero, sizeof(zor_iter)), 0);

    /* The empty iterator sets every field and walks nothing. */
    memset(&it, 0xA5, sizeof(it));
    zor_iter_create(&it, array_iterator(&it, nullptr));
    EXPECT_TRUE(it.first == zor_iter_empty_fn && it.next == zor_iter_empty_fn);
    EXPECT_TRUE(it.free == nullptr && it.info == nullptr);
    EXPECT_TRUE(collect(&it).empty());
    EXPECT_TRUE(it.count == 1 && it.finished == 1);
    zor_iter_free(&it);

    /* After a full walk the item is null; break is checked from C. */
    const int *item = &items[0]; /* any object pointer type will do */
    zor_iter_create(&it, array_iterator(&it, &items));
    ZOR_ITER_FOREACH (&it, item) {
    }
    EXPECT_EQ(item, nullptr);
    zor_iter_free(&it);
}

TEST(Core, NestedAndChainIteratorsSkipEmptyMembers)
{
    tree t;
    t.parents = {0, 1, 2, 3};
    t.children = {{}, {10, 11}, {}, {30}};
    zor_iter it;
    zor_iter_create(&it, zor_iter_nested_iterator(&it, tree_create, &t));
    /* The next function before any walk: no inner iterator yet. */
    ZOR_EXPECT_ASSERT(it.next(nullptr, it.info), "zor_iter_nested_next", "info->inner_active");
    EXPECT_EQ(collect(&it), (std::vector<int>{10, 11, 30}));
    EXPECT_TRUE(t.created_for == t.parents && it.count == 4);
    EXPECT_EQ(t.freed, 2); /* the inner iterators, as the walk moved on */
    EXPECT_EQ(*static_cast<int *>(zor_iter_first(&it)), 10); /* a restart gives the same */
    zor_iter_free(&it);
    EXPECT_EQ(t.freed, 4); /* the restarted inner one and the outer one */
    tree none, childless;
    childless.parents = {0, 1};
    childless.children = {{}, {}};
    for (tree *e : {&none, &childless}) {
        zor_iter_create(&it, zor_iter_nested_iterator(&it, tree_create, e));
        EXPECT_TRUE(collect(&it).empty());
        EXPECT_EQ(e->created_for, e->parents);
        zor_iter_free(&it);
    }

    /* A chain walks its members in turn and leaves them to their owner. */
    std::vector<int> a{1, 2}, b{3};
    int freed = 0;
    zor_iter e1, ia, e2, ib, chain;
    zor_iter_create(&e1, 0);
    zor_iter_create(&ia, array_iterator(&ia, &a, &freed));
    zor_iter_create(&e2, 0);
    zor_iter_create(&ib, array_iterator(&ib, &b, &freed));
    zor_iter *members[] = {&e1, &ia, &e2, &ib};
    zor_iter_create(&chain, zor_iter_chain_iterator(&chain, 4, members));
    members[0] = nullptr; /* the chain keeps its own copy of the array */
    EXPECT_EQ(collect(&chain), (std::vector<int>{1, 2, 3}));
    zor_iter_free(&chain);
    EXPECT_TRUE(freed == 0 && ib.finished == 1 && ia.info != nullptr);
    zor_iter_free(&ia);
    zor_iter_free(&ib);
    EXPECT_EQ(freed, 2);
    zor_iter *empties[] = {&e1, &e2};
    for (uint32_t n : {2u, 0u}) { /* only empty members, or none at all */
        zor_iter_create(&chain, zor_iter_chain_iterator(&chain, n, empties));
        EXPECT_TRUE(collect(&chain).empty());
        zor_iter_free(&chain);
    }
}

namespace
{

/* An element that can sit in two lists: link `a` at offset 16, `b` at 32. */
struct elem {
    void *header[2];
    zor_list_link a, b;
    int value;
};
static_assert(offsetof(elem, a) == 16 && offsetof(elem, b) == 32, "test element layout");

/* The list's walk, head, links and count against the model's values. */
void expect_list(zor_list *list, const std::list<int> &model)
{
    std::vector<int> seen;
    zor_iter it;
    zor_list_iter_state state;
    elem *e;
    zor_iter_create(&it, zor_list_iterator(&it, &state, list));
    ZOR_ITER_FOREACH (&it, e) {
        seen.push_back(e->value);
    }
    zor_iter_free(&it);
    ASSERT_EQ(seen, std::vector<int>(model.begin(), model.end()));
    ASSERT_EQ(list->count, model.size());
    void *prev = nullptr;
    for (void *p = list->first; p != nullptr; p = zor_list_link_of(list, p)->next) {
        ASSERT_EQ(zor_list_link_of(list, p)->prev, prev);
        prev = p;
    }
    ASSERT_EQ(list->last, prev);
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

    /* A walk may remove and free the element it holds. */
    zor_list list;
    zor_list_init(&list, offsetof(elem, a));
    for (int i = 0; i < 5; i++) {
        elem *n = static_cast<elem *>(util_calloc(sizeof(elem)));
        n->value = i;
        zor_list_append(&list, n);
    }
    std::vector<int> seen;
    zor_iter it;
    zor_list_iter_state state;
    elem *n;
    zor_iter_create(&it, zor_list_iterator(&it, &state, &list));
    ZOR_ITER_FOREACH (&it, n) {
        seen.push_back(n->value);
        zor_list_remove(&list, n);
        memset(n, 0xEE, sizeof(*n)); /* what it held is garbage now */
        free(n);
    }
    zor_iter_free(&it);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
    expect_list(&list, {});

    list.last = &e[0]; /* no first, but a last */
    ZOR_EXPECT_ASSERT(zor_list_append(&list, &e[0]), "zor_list_append",
                      "list->last == ((void *)0)");
    list.first = &e[0]; /* count says empty */
    ZOR_EXPECT_ASSERT(zor_list_remove(&list, &e[0]), "zor_list_remove", "list->count > 0");
    ZOR_EXPECT_ASSERT(zor_list_iterator(&it, &state, nullptr), "zor_list_iterator",
                      "list != ((void *)0)");
}

extern "C" int zor_test_c_foreach_sum(int n, int stop);

TEST(Core, WalkingFormInC)
{
    EXPECT_EQ(zor_test_c_foreach_sum(4, 0), 1 + 2 + 3 + 4);
    EXPECT_EQ(zor_test_c_foreach_sum(4, 3), 1 + 2);
    EXPECT_EQ(zor_test_c_foreach_sum(0, 0), 0);
}

namespace
{

/* What the process callback saw: per call, the bucket and its entries. */
std::vector<std::pair<void *, std::vector<int>>> seen;
zor_partition *adding_to;
zor_partition_bucket late_bucket;

void record_call(uint32_t count, zor_iter *iter, void *data)
{
    std::vector<int> entries;
    for (int pass = 0; pass < 2; pass++) { /* by hand, twice: a walk may restart */
        entries.clear();
        for (void *e = zor_iter_first(iter); e != nullptr; e = zor_iter_next(iter))
            entries.push_back(*static_cast<int *>(e));
    }
    EXPECT_EQ(entries.size(), count);
    seen.emplace_back(data, entries);
    if (adding_to != nullptr && seen.size() == 1) /* added during processing: not visited */
        zor_partition_bucket_add(adding_to, &late_bucket, nullptr);
}

std::vector<int> entries_of(zor_partition_bucket *b)
{
    std::vector<int> out, walked;
    zor_iter it;
    zor_partition_entries_state state;
    int *entry;
    zor_iter_create(&it, zor_partition_bucket_entries_iterator(&it, &state, b));
    ZOR_ITER_FOREACH (&it, entry) {
        out.push_back(*entry);
    }
    zor_iter_free(&it);
    ZOR_PARTITION_BUCKET_FOREACH (b, entry)
        walked.push_back(*entry);
    EXPECT_EQ(walked, out);
    return out;
}

} // namespace

TEST(Core, PartitionsAgainstModelOnRandomOperations)
{
    std::mt19937 rng(3);
    std::vector<int> values(600);
    for (int i = 0; i < 600; i++)
        values[i] = i;
    const uint32_t initials[] = {0, 2, 4, 130};
    for (int round = 0; round < 12; round++) {
        uint32_t initial = initials[round % 4];
        int buckets = 1 + round % 4, total = (round * 97) % 600;
        zor_partition p;
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
        /* Slot arrays: the initial one, then 128, 256, ... as needed, newest first. */
        std::vector<uint32_t> sizes{initial}, got;
        uint32_t capacity = initial, next = 128;
        for (; capacity < static_cast<uint32_t>(total); capacity += next, next *= 2)
            sizes.insert(sizes.begin(), next);
        for (zor_partition_elems *e = p.elems; e != nullptr; e = e->next)
            got.push_back(e->size);
        EXPECT_EQ(got, sizes);
        EXPECT_EQ(p.next_size, next);
        EXPECT_EQ(p.bucket_count, static_cast<uint32_t>(buckets));
        std::vector<int> all;
        int *entry;
        ZOR_PARTITION_ENTRIES_FOREACH (&p, entry)
            all.push_back(*entry);
        std::sort(all.begin(), all.end());
        EXPECT_EQ(all, std::vector<int>(values.begin(), values.begin() + total));
        /* Buckets newest first, empty ones too; processing twice changes nothing. */
        std::vector<std::pair<void *, std::vector<int>>> want;
        zor_partition_bucket *bucket;
        int k = buckets;
        ZOR_PARTITION_BUCKETS_FOREACH (&p, bucket) {
            EXPECT_EQ(bucket, &b[--k]);
            EXPECT_EQ(entries_of(bucket), model[k]);
            EXPECT_EQ(bucket->count, model[k].size());
            want.emplace_back(bucket, model[k]);
        }
        for (int pass = 0; pass < 2; pass++) {
            seen.clear();
            zor_partition_process(&p, record_call);
            EXPECT_EQ(seen, want);
        }
        zor_partition_destroy(&p);
        EXPECT_TRUE(p.elems == nullptr && p.buckets == nullptr);
        zor_partition_bucket zero;
        memset(&zero, 0, sizeof(zero));
        for (const zor_partition_bucket &cleared : b)
            EXPECT_EQ(memcmp(&cleared, &zero, sizeof(zero)), 0);
    }
}

TEST(Core, PartitionResetLateBucketsAndExhaustedArrays)
{
    int v = 5;
    zor_partition p;
    zor_partition_create(&p, 8);
    zor_partition_destroy(&p);
    zor_partition_reset(&p); /* takes new buckets and entries after a reset */
    EXPECT_TRUE(p.elems->size == 128 && p.elems->next == nullptr);
    zor_partition_bucket b1, b2;
    zor_partition_bucket_add(&p, &b1, nullptr);
    zor_partition_bucket_add(&p, &b2, nullptr);
    zor_partition_entry_add(&b1, &v);
    adding_to = &p;
    seen.clear();
    zor_partition_process(&p, record_call);
    adding_to = nullptr;
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].second, std::vector<int>{5});
    EXPECT_EQ(p.buckets, &late_bucket);
    zor_partition_destroy(&p);

    zor_partition_create(&p, 0);
    p.next_size = 0; /* growth would add an array with no slot */
    zor_partition_bucket_add(&p, &b1, nullptr);
    ZOR_EXPECT_ASSERT(zor_partition_entry_add(&b1, &v), "zor_partition_elem_get",
                      "elems->count < elems->size");
    zor_partition_destroy(&p);
}
