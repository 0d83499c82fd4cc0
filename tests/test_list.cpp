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

std::vector<int> walk(zor_list *list)
{
    std::vector<int> out;
    zor_iter it;
    zor_list_iter_state state;
    elem *e;
    zor_iter_create(&it, zor_list_iterator(&it, &state, list));
    ZOR_ITER_FOREACH (&it, e) {
        out.push_back(e->value);
    }
    zor_iter_free(&it);
    return out;
}

/* Checks the head invariants and the back links against a forward walk. */
void check_links(zor_list *list)
{
    if (list->first == nullptr) {
        EXPECT_EQ(list->last, nullptr);
        EXPECT_EQ(list->count, 0u);
        return;
    }
    uint32_t n = 1;
    void *e = list->first;
    while (e != list->last) {
        void *next = zor_list_link_of(list, e)->next;
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(zor_list_link_of(list, next)->prev, e);
        e = next;
        n++;
    }
    EXPECT_EQ(zor_list_link_of(list, list->last)->next, nullptr);
    EXPECT_EQ(n, list->count);
}

bool link_is_clear(const zor_list_link &l)
{
    return l.next == nullptr && l.prev == nullptr;
}

} // namespace

TEST(List, AppendAndRemoveAtEveryPosition)
{
    elem e[4] = {};
    for (int i = 0; i < 4; i++)
        e[i].value = i;
    zor_list list;
    zor_list_init(&list, offsetof(elem, a));
    EXPECT_TRUE(walk(&list).empty());

    zor_list_append(&list, &e[0]);
    EXPECT_EQ(list.first, &e[0]);
    EXPECT_EQ(list.last, &e[0]);
    EXPECT_EQ(list.count, 1u);
    EXPECT_EQ(e[0].a.next, nullptr);

    for (int i = 1; i < 4; i++)
        zor_list_append(&list, &e[i]);
    check_links(&list);
    EXPECT_EQ(walk(&list), (std::vector<int>{0, 1, 2, 3}));

    zor_list_remove(&list, &e[0]); /* first */
    EXPECT_EQ(list.first, &e[1]);
    EXPECT_TRUE(link_is_clear(e[0].a));
    check_links(&list);
    zor_list_remove(&list, &e[3]); /* last */
    EXPECT_EQ(list.last, &e[2]);
    EXPECT_EQ(e[2].a.next, nullptr);
    check_links(&list);
    zor_list_append(&list, &e[0]);
    zor_list_remove(&list, &e[2]); /* middle */
    EXPECT_EQ(e[1].a.next, &e[0]);
    EXPECT_EQ(e[0].a.prev, &e[1]);
    check_links(&list);
    EXPECT_EQ(walk(&list), (std::vector<int>{1, 0}));

    zor_list_remove(&list, &e[1]);
    zor_list_remove(&list, &e[0]);
    EXPECT_EQ(list.first, nullptr);
    EXPECT_EQ(list.last, nullptr);
    EXPECT_EQ(list.count, 0u);
    EXPECT_TRUE(link_is_clear(e[0].a));

    /* A removed element can go into another list. */
    zor_list other;
    zor_list_init(&other, offsetof(elem, a));
    zor_list_append(&other, &e[0]);
    EXPECT_EQ(walk(&other), (std::vector<int>{0}));
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
    EXPECT_EQ(walk(&la), (std::vector<int>{0, 2}));
    EXPECT_EQ(walk(&lb), (std::vector<int>{2, 1, 0}));
    check_links(&la);
    check_links(&lb);
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
    EXPECT_EQ(list.count, 0u);
    EXPECT_EQ(list.first, nullptr);
}

TEST(List, BrokenHeadsStop)
{
    elem e = {};
    zor_list list;
    zor_list_init(&list, offsetof(elem, a));
    list.last = &e; /* no first, but a last */
    ZOR_EXPECT_ASSERT(zor_list_append(&list, &e), "zor_list_append", "list->last == ((void *)0)");

    zor_list_init(&list, offsetof(elem, a));
    list.first = list.last = &e; /* count says empty */
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
