/* The iterator record, its walking form, and the nested and chain iterators. */
#include "zor_test.h"
#include "zor_iter.h"

#include <vector>

namespace
{

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

/* A null vector gives the empty iterator. */
int array_iterator(zor_iter *iter, std::vector<int> *items, int *freed = nullptr)
{
    if (items == nullptr)
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

} // namespace

TEST(Iter, WalkCountsFinishesRestartsAndFrees)
{
    std::vector<int> items{1, 2, 3};
    int freed = 0;
    zor_iter it;
    zor_iter_create(&it, array_iterator(&it, &items, &freed));
    EXPECT_EQ(it.fresh, 1u);
    EXPECT_EQ(zor_iter_first(&it), &items[0]);
    EXPECT_EQ(it.count, 1u);
    EXPECT_EQ(it.next_item, &items[1]); /* one item ahead */
    EXPECT_EQ(zor_iter_next(&it), &items[1]);
    EXPECT_EQ(zor_iter_next(&it), &items[2]);
    EXPECT_EQ(it.count, 3u);
    EXPECT_EQ(zor_iter_next(&it), nullptr);
    EXPECT_EQ(it.count, 4u);
    EXPECT_EQ(it.finished, 1u);
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
    EXPECT_EQ(it.first, zor_iter_empty_fn);
    EXPECT_EQ(it.next, zor_iter_empty_fn);
    EXPECT_EQ(it.free, nullptr);
    EXPECT_EQ(it.info, nullptr);
    EXPECT_TRUE(collect(&it).empty());
    EXPECT_EQ(it.count, 1u);
    EXPECT_EQ(it.finished, 1u);
    zor_iter_free(&it);
}

TEST(Iter, ForeachBreakEndsTheWalkForGood)
{
    std::vector<int> items{1, 2, 3};
    zor_iter it;
    zor_iter_create(&it, array_iterator(&it, &items));
    const int *item = nullptr; /* any object pointer type will do */
    ZOR_ITER_FOREACH (&it, item) {
        if (*item == 2)
            break;
    }
    EXPECT_EQ(it.count, 2u);
    ZOR_ITER_FOREACH (&it, item) {
        ADD_FAILURE() << "a second walking form must not run";
    }
    zor_iter_free(&it);

    zor_iter_create(&it, array_iterator(&it, &items));
    ZOR_ITER_FOREACH (&it, item) {
    }
    EXPECT_EQ(item, nullptr); /* null after a full walk */
    zor_iter_free(&it);
}

namespace
{

struct tree {
    std::vector<int> parents;               /* parent ids */
    std::vector<std::vector<int>> children; /* children per parent id */
    std::vector<int> created_for;           /* parents `create` was called with */
    int freed = 0;
};

int tree_create(zor_iter *iter, void *parent, void *arg)
{
    tree *t = static_cast<tree *>(arg);
    if (parent == nullptr)
        return array_iterator(iter, &t->parents, &t->freed);
    int id = *static_cast<int *>(parent);
    t->created_for.push_back(id);
    return array_iterator(iter, t->children[id].empty() ? nullptr : &t->children[id], &t->freed);
}

} // namespace

TEST(Iter, NestedIsOuterMajorAndSkipsEmptyChildren)
{
    tree t;
    t.parents = {0, 1, 2, 3};
    t.children = {{}, {10, 11}, {}, {30}};
    zor_iter it;
    zor_iter_create(&it, zor_iter_nested_iterator(&it, tree_create, &t));
    /* The next function before any walk: no inner iterator yet. */
    ZOR_EXPECT_ASSERT(it.next(nullptr, it.info), "zor_iter_nested_next", "info->inner_active");
    EXPECT_EQ(collect(&it), (std::vector<int>{10, 11, 30}));
    EXPECT_EQ(t.created_for, t.parents);
    EXPECT_EQ(it.count, 4u);
    EXPECT_EQ(t.freed, 2); /* the inner iterators, as the walk moved on */
    EXPECT_EQ(*static_cast<int *>(zor_iter_first(&it)), 10); /* a restart gives the same */
    zor_iter_free(&it);
    EXPECT_EQ(t.freed, 4); /* the restarted inner one and the outer one */

    /* No parents: no child is created. Only childless parents: nothing walked. */
    tree none, childless;
    childless.parents = {0, 1};
    childless.children = {{}, {}};
    for (tree *e : {&none, &childless}) {
        zor_iter_create(&it, zor_iter_nested_iterator(&it, tree_create, e));
        EXPECT_TRUE(collect(&it).empty());
        EXPECT_EQ(e->created_for, e->parents);
        zor_iter_free(&it);
    }
}

TEST(Iter, ChainSkipsEmptyMembersAndLeavesThemToTheirOwner)
{
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
    EXPECT_EQ(freed, 0);
    EXPECT_EQ(ib.finished, 1u);
    EXPECT_NE(ia.info, nullptr); /* still holds its state */
    zor_iter_free(&ia);
    zor_iter_free(&ib);
    EXPECT_EQ(freed, 2);

    /* Only empty members, or none at all. */
    zor_iter *empties[] = {&e1, &e2};
    for (uint32_t n : {2u, 0u}) {
        zor_iter_create(&chain, zor_iter_chain_iterator(&chain, n, empties));
        EXPECT_TRUE(collect(&chain).empty());
        zor_iter_free(&chain);
    }
}
