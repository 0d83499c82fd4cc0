/* Dictionary: dense ids, reference counts, id reuse order, entry array growth, teardown. */
#include "zor_test.h"
#include "zor_dict.h"

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

std::string text_of(zor_dict *d, uint32_t id)
{
    zor_dict_rec *rec = zor_dict_id_get_rec(d, id);
    return std::string(rec->text, rec->len);
}

int payloads_freed;
void count_free(void *data)
{
    payloads_freed++;
    free(data);
}

} // namespace

TEST(Dict, InternsTextsUnderDenseIds)
{
    zor_dict d;
    zor_dict_init(&d, 4, nullptr);
    EXPECT_TRUE(d.free_id == 0xFFFFFFFF && d.has_free_ids == 0);
    EXPECT_TRUE(d.table->size == 8 && d.table->min_size == 4);
    /* A prefix is its own text; NUL bytes are text; a known text keeps its id. */
    const std::string texts[] = {
        "eth0", "eth1", "eth", std::string("a\0b", 3), std::string("a\0c", 3), "", "eth0"};
    const uint32_t ids[] = {0, 1, 2, 3, 4, 5, 0};
    for (int i = 0; i < 7; i++) {
        EXPECT_EQ(ref(&d, texts[i]), ids[i]) << i;
        EXPECT_EQ(text_of(&d, ids[i]), texts[i]);
    }
    zor_dict_rec *rec = zor_dict_id_get_rec(&d, 0);
    EXPECT_TRUE(rec->refcount == 2 && rec->id == 0 && rec->data == nullptr);
    EXPECT_EQ(zor_dict_id_get_rec(&d, 4)->text[3], '\0');
    EXPECT_EQ(d.table->count, 6u);

    zor_dict_id_add_ref(&d, 1);
    EXPECT_EQ(zor_dict_id_get_rec(&d, 1)->refcount, 2u);
    zor_dict_id_remove_ref(&d, 0);
    EXPECT_EQ(zor_dict_get_record(&d, 0), rec); /* one reference left */
    EXPECT_EQ(zor_dict_get_record(&d, 6), nullptr);
    zor_dict_destroy(&d);
    EXPECT_TRUE(d.entries == nullptr && d.table == nullptr && d.size == 0);
}

TEST(Dict, ReleasedIdsAreReusedLastReleasedFirst)
{
    zor_dict d;
    zor_dict_init(&d, 8, nullptr);
    for (int i = 0; i < 7; i++)
        ref(&d, "t" + std::to_string(i));
    zor_dict_entry *entry3 = d.entries[3];
    zor_dict_id_remove_ref(&d, 3);
    zor_dict_id_remove_ref(&d, 5);
    EXPECT_EQ(d.has_free_ids, 1u);
    EXPECT_EQ(d.free_id, 5u);
    EXPECT_EQ(d.entries[5]->next_free, 3u);
    EXPECT_EQ(d.entries[3]->next_free, 0xFFFFFFFFu);
    EXPECT_EQ(zor_dict_get_record(&d, 3), nullptr);
    EXPECT_EQ(d.table->count, 5u);
    zor_str gone = zor_str_init("t3");
    EXPECT_EQ(zor_hash_table_find(d.table, &gone), nullptr);

    EXPECT_EQ(ref(&d, "new-a"), 5u);
    EXPECT_EQ(ref(&d, "new-b"), 3u);
    EXPECT_EQ(d.entries[3], entry3); /* the entry outlives its id's records */
    EXPECT_EQ(d.has_free_ids, 0u);
    EXPECT_EQ(d.free_id, 0xFFFFFFFFu);
    EXPECT_EQ(ref(&d, "new-c"), 7u);
    EXPECT_EQ(ref(&d, "t3"), 8u); /* a released text comes back under a new id */

    /* Bad ids stop the process. */
    ZOR_EXPECT_ASSERT(zor_dict_id_remove_ref(&d, 9), "zor_dict_id_remove_ref",
                      "id < dict->next_id");
    ZOR_EXPECT_ASSERT(zor_dict_id_add_ref(&d, 9), "zor_dict_id_add_ref", "id < dict->next_id");
    ZOR_EXPECT_ASSERT(zor_dict_id_get_rec(&d, 9), "zor_dict_id_get_rec", "id < dict->next_id");
    ZOR_EXPECT_ASSERT(zor_dict_get_record(&d, 0xFFFFFFFF), "zor_dict_get_record",
                      "id != 0xFFFFFFFF");
    zor_dict_id_remove_ref(&d, 8);
    ZOR_EXPECT_ASSERT(zor_dict_id_remove_ref(&d, 8), "zor_dict_id_remove_ref",
                      "record != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_dict_id_add_ref(&d, 8), "zor_dict_id_add_ref", "record != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_dict_id_get_rec(&d, 8), "zor_dict_id_get_rec", "record != ((void *)0)");
    /* A free stack naming an id without entry. */
    zor_dict_entry *entry8 = d.entries[8];
    d.entries[8] = nullptr;
    ZOR_EXPECT_ASSERT(ref(&d, "x"), "zor_dict_get_next_id", "entry != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_dict_free_id(&d, 8), "zor_dict_free_id", "entry != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_dict_init(nullptr, 4, nullptr), "zor_dict_init", "dict != ((void *)0)");
    d.entries[8] = entry8;
    zor_dict_destroy(&d);
}

TEST(Dict, EntryArrayDoublesAndTeardownFreesPayloads)
{
    zor_dict d;
    zor_dict_init(&d, 128, count_free);
    for (int i = 0; i < 128; i++)
        ASSERT_EQ(ref(&d, "n" + std::to_string(i)), static_cast<uint32_t>(i));
    EXPECT_EQ(d.size, 128u);
    zor_dict_entry **before = d.entries;
    EXPECT_EQ(ref(&d, "n128"), 128u);
    EXPECT_EQ(d.size, 256u);
    EXPECT_NE(d.entries, before);
    for (int i = 0; i <= 128; i++)
        ASSERT_EQ(text_of(&d, i), "n" + std::to_string(i));

    /* Payloads go to free_data at teardown only, whatever the counts. */
    zor_dict_id_get_rec(&d, 3)->data = util_calloc(8);
    zor_dict_id_get_rec(&d, 100)->data = util_calloc(8);
    zor_dict_id_add_ref(&d, 3);
    for (int i = 5; i < 50; i++)
        zor_dict_id_remove_ref(&d, i);
    payloads_freed = 0;
    zor_dict_destroy(&d);
    EXPECT_EQ(payloads_freed, 2);

    /* A dictionary whose records were all released frees entries, array and table. */
    zor_dict_init(&d, 2, count_free);
    zor_dict_id_remove_ref(&d, ref(&d, "a"));
    zor_dict_id_remove_ref(&d, ref(&d, "b"));
    zor_dict_destroy(&d);
    EXPECT_EQ(payloads_freed, 2);
}
