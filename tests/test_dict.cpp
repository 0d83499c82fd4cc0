/* Dictionary: initial sizes, payloads at teardown, broken preconditions. */
#include "zor_test.h"
#include "zor_dict.h"

#include <functional>
#include <string>

namespace
{

uint32_t ref(zor_dict *d, const std::string &text)
{
    zor_str s;
    s.ptr = text.data();
    s.len = text.size();
    return zor_dict_ref_get(d, s);
}

int payloads_freed;
void count_free(void *data)
{
    payloads_freed++;
    free(data);
}

} // namespace

/*
 * Interning, dense ids, reference counts, the order released ids come
 * back in, lookups and the growth of the entry array are checked against
 * a model by fuzz/fuzz_dict.cpp, replayed on its corpus as a test. Here:
 * the initial sizes, payloads at teardown and the broken preconditions.
 */
TEST(Dict, SizesAndTeardownFreesPayloads)
{
    zor_dict d;
    zor_dict_init(&d, 4, count_free);
    EXPECT_TRUE(d.size == 4 && d.table->size == 8 && d.table->min_size == 4);
    for (int i = 0; i < 129; i++)
        ref(&d, "n" + std::to_string(i));
    /* Payloads go to free_data at teardown only, whatever the counts. */
    zor_dict_id_get_rec(&d, 3)->data = util_calloc(8);
    zor_dict_id_get_rec(&d, 100)->data = util_calloc(8);
    zor_dict_id_add_ref(&d, 3);
    for (int i = 5; i < 50; i++)
        zor_dict_id_remove_ref(&d, i);
    payloads_freed = 0;
    zor_dict_destroy(&d);
    EXPECT_EQ(payloads_freed, 2);
    EXPECT_TRUE(d.entries == nullptr && d.table == nullptr && d.size == 0);

    /* A dictionary whose records were all released frees entries, array and table. */
    zor_dict_init(&d, 2, count_free);
    zor_dict_id_remove_ref(&d, ref(&d, "a"));
    zor_dict_id_remove_ref(&d, ref(&d, "b"));
    zor_dict_destroy(&d);
    EXPECT_EQ(payloads_freed, 2);
}

TEST(Dict, BrokenPreconditionsStop)
{
    zor_dict d;
    zor_dict_init(&d, 8, nullptr);
    for (int i = 0; i < 10; i++)
        ref(&d, "t" + std::to_string(i));
    zor_dict_id_remove_ref(&d, 8); /* ids 0 to 9, 8 released */
    struct {
        const char *function, *text;
        std::function<void()> run;
    } const cases[] = {
        {"zor_dict_id_remove_ref", "id < dict->next_id", [&] { zor_dict_id_remove_ref(&d, 10); }},
        {"zor_dict_id_add_ref", "id < dict->next_id", [&] { zor_dict_id_add_ref(&d, 10); }},
        {"zor_dict_id_get_rec", "id < dict->next_id", [&] { zor_dict_id_get_rec(&d, 10); }},
        {"zor_dict_get_record", "id != 0xFFFFFFFF", [&] { zor_dict_get_record(&d, 0xFFFFFFFF); }},
        {"zor_dict_id_remove_ref", "record != ((void *)0)", [&] { zor_dict_id_remove_ref(&d, 8); }},
        {"zor_dict_id_add_ref", "record != ((void *)0)", [&] { zor_dict_id_add_ref(&d, 8); }},
        {"zor_dict_id_get_rec", "record != ((void *)0)", [&] { zor_dict_id_get_rec(&d, 8); }},
        /* A free stack naming an id without entry. */
        {"zor_dict_get_next_id", "entry != ((void *)0)",
         [&] {
             d.entries[8] = nullptr;
             ref(&d, "x");
         }},
        {"zor_dict_free_id", "entry != ((void *)0)",
         [&] {
             d.entries[8] = nullptr;
             zor_dict_free_id(&d, 8);
         }},
        {"zor_dict_init", "dict != ((void *)0)", [] { zor_dict_init(nullptr, 4, nullptr); }},
    };
    for (const auto &c : cases)
        ZOR_EXPECT_ASSERT(c.run(), c.function, c.text) << c.text;
    zor_dict_destroy(&d);
}
