/* Intrusive lists and the list iterator. */
#include "zor_test.h"
#include "zor_list.h"

#include <vector>

namespace
{

/* An element that can sit in two lists: link `a` at offset 16, `b` at 32. */
struct elem {
    void *header[2];
    zor_list_link a;
    zor_list_link b;
    int value;
};
static_assert(offsetof(elem, a) == 16 && offsetof(elem, b) == 32, "test element layout");

/* Checks the head, the forward and back links and the count, then the walk's values. */
void expect_list(zor_list *list, const std::vector<int> &values)
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
    EXPECT_EQ(seen, values);
    if (list->first == nullptr) {
        EXPECT_EQ(list->last, nullptr);
        EXPECT_EQ(list->count, 0u);
        return;
    }
    uint32_t n = 1;
    for (void *p = list->first; p != list->last; n++) {
        void *next = zor_list_link_of(list, p)->next;
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(zor_list_link_of(list, next)->prev, p);
        p = next;
    }
    EXPECT_EQ(zor_list_link_of(list, list->first)->prev, nullptr);
    EXPECT_EQ(zor_list_link_of(list, list->last)->next, nullptr);
    EXPECT_EQ(n, list->count);
}

} // namespace

TEST(List, AppendAndRemoveAtEveryPosition)
{
    elem e[4] = {};
    zor_list list, other;
    zor_list_init(&list, offsetof(elem, a));
    expect_list(&list, {});
    for (int i = 0; i < 4; i++) {
        e[i].value = i;
        zor_list_append(&list, &e[i]);
    }
    expect_list(&list, {0, 1, 2, 3});
    zor_list_remove(&list, &e[0]); /* first */
    EXPECT_TRUE(e[0].a.next == nullptr && e[0].a.prev == nullptr);
    expect_list(&list, {1, 2, 3});
    zor_list_remove(&list, &e[3]); /* last */
    expect_list(&list, {1, 2});
    zor_list_append(&list, &e[0]);
    zor_list_remove(&list, &e[2]); /* middle */
    expect_list(&list, {1, 0});
    zor_list_remove(&list, &e[1]);
    zor_list_remove(&list, &e[0]);
    expect_list(&list, {});
    EXPECT_TRUE(e[0].a.next == nullptr && e[0].a.prev == nullptr);

    /* A removed element can go into another list. */
    zor_list_init(&other, offsetof(elem, a));
    zor_list_append(&other, &e[0]);
    expect_list(&other, {0});
}

TEST(List, ElementInTwoLists)
{
    elem e[3] = {};
    zor_list la, lb;
    zor_list_init(&la, offsetof(elem, a));
    zor_list_init(&lb, offsetof(elem, b));
    for (int i = 0; i < 3; i++) {
        e[i].value = i;
        zor_list_append(&la, &e[i]);
        zor_list_append(&lb, &e[2 - i]);
    }
    zor_list_remove(&la, &e[1]);
    expect_list(&la, {0, 2});
    expect_list(&lb, {2, 1, 0});
}

TEST(List, WalkMayFreeTheElementItHolds)
{
    zor_list list;
    zor_list_init(&list, offsetof(elem, a));
    for (int i = 0; i < 5; i++) {
        elem *e = static_cast<elem *>(util_calloc(sizeof(elem)));
        e->value = i;
        zor_list_append(&list, e);
    }
    std::vector<int> seen;
    zor_iter it;
    zor_list_iter_state state;
    elem *e;
    zor_iter_create(&it, zor_list_iterator(&it, &state, &list));
    ZOR_ITER_FOREACH (&it, e) {
        seen.push_back(e->value);
        zor_list_remove(&list, e);
        memset(e, 0xEE, sizeof(*e)); /* what it held is garbage now */
        free(e);
    }
    zor_iter_free(&it);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
    expect_list(&list, {});
}

TEST(List, BrokenHeadsStop)
{
    elem e = {};
    zor_list list;
    zor_list_init(&list, offsetof(elem, a));
    list.last = &e; /* no first, but a last */
    ZOR_EXPECT_ASSERT(zor_list_append(&list, &e), "zor_list_append", "list->last == ((void *)0)");
    list.first = &e; /* count says empty */
    ZOR_EXPECT_ASSERT(zor_list_remove(&list, &e), "zor_list_remove", "list->count > 0");
    zor_iter it;
    zor_list_iter_state state;
    ZOR_EXPECT_ASSERT(zor_list_iterator(&it, &state, nullptr), "zor_list_iterator",
                      "list != ((void *)0)");
}

extern "C" int zor_test_c_foreach_sum(int n, int stop);

TEST(List, WalkingFormInC)
{
    EXPECT_EQ(zor_test_c_foreach_sum(4, 0), 1 + 2 + 3 + 4);
    EXPECT_EQ(zor_test_c_foreach_sum(4, 3), 1 + 2);
    EXPECT_EQ(zor_test_c_foreach_sum(0, 0), 0);
}
