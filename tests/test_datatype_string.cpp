/* The "str" type: the strings dictionary and exact reference counts through parse, write, free. */
#include "zor_test.h"
#include "zor_datatype.h"

#include <string>

namespace
{

uint32_t refs(zor_string_id id)
{
    return zor_dict_id_get_rec(zor_datatype_strings_dict_get(), id)->refcount;
}

zor_string_id parse(const std::string &text, const zor_datatype_info *str)
{
    zor_string_id id = 0xDEAD;
    EXPECT_EQ(str->parse(text.data(), text.size(), str, &id), 1);
    return id;
}

class DatatypeString : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        zor_datatype_init();
        zor_datatype_db_init(&db, 16);
        str = zor_datatype_info_id(&db, ZOR_DATATYPE_ID_STR);
    }
    void TearDown() override
    {
        zor_dict_destroy(&db);
        zor_datatype_cleanup();
    }
    zor_dict db;
    const zor_datatype_info *str;
};

} // namespace

TEST_F(DatatypeString, UnsetIsIdZeroUntilCleanup)
{
    zor_dict *d = zor_datatype_strings_dict_get();
    EXPECT_TRUE(d->size == 128 && d->table->size == 256 && d->table->min_size == 128);
    EXPECT_EQ(d->free_data, nullptr);
    zor_str unset = zor_datatype_string_from_id(0);
    EXPECT_EQ(std::string(unset.ptr, unset.len), "<unset>");
    zor_string_id zero = 0;
    EXPECT_STREQ(zor_datatype_str(&zero, str), "<unset>");
    EXPECT_EQ(zor_datatype_string_ref_get(zor_str_init("<unset>")), 0u);

    /* Parsed and explicit ids share one dictionary. */
    zor_string_id id = zor_datatype_string_ref_get(zor_str_init("eth0"));
    EXPECT_EQ(parse("eth0", str), id);
    EXPECT_EQ(refs(id), 2u);

    /* After cleanup and a new init, "<unset>" is 0 again and old ids are gone. */
    zor_datatype_cleanup();
    zor_datatype_init();
    EXPECT_EQ(d->next_id, 1u);
    ZOR_EXPECT_ASSERT(zor_datatype_string_from_id(id), "zor_dict_id_get_rec", "id < dict->next_id");
}

TEST_F(DatatypeString, ReferenceCountsThroughParseWriteFree)
{
    zor_string_id a = parse("eth0", str), b = parse("eth0", str);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, 0u);
    EXPECT_EQ(refs(a), 2u);
    EXPECT_STREQ(zor_datatype_str(&a, str), "eth0");

    /* write: the destination takes its own reference; overwriting releases the old one. */
    zor_string_id field = 0, other = parse("eth1", str), copied = 0;
    str->write(&field, &a, str);
    EXPECT_EQ(field, a);
    EXPECT_EQ(refs(a), 3u);
    str->write(&field, &other, str);
    EXPECT_EQ(field, other);
    EXPECT_TRUE(refs(a) == 2 && refs(other) == 2);
    str->write(&field, nullptr, str);
    EXPECT_EQ(field, 0u);
    EXPECT_EQ(refs(other), 1u);
    str->write(&field, nullptr, str); /* an unset destination stays unset */
    EXPECT_EQ(field, 0u);
    str->copy(&copied, &other, str); /* moves the id without a reference */
    EXPECT_EQ(copied, other);
    EXPECT_EQ(refs(other), 1u);

    /* free: the last reference removes the text; released ids are reused newest first. */
    str->free(&a, str, nullptr);
    EXPECT_EQ(a, 0u);
    EXPECT_STREQ(zor_datatype_str(&b, str), "eth0");
    str->free(&b, str, nullptr);
    zor_str gone = zor_str_init("eth0");
    EXPECT_EQ(zor_hash_table_find(zor_datatype_strings_dict_get()->table, &gone), nullptr);
    str->free(&a, str, nullptr); /* freeing 0 does nothing */
    EXPECT_EQ(refs(0), 1u);
    str->free(&other, str, nullptr);
    EXPECT_EQ(zor_dict_get_record(zor_datatype_strings_dict_get(), copied), nullptr);
    EXPECT_EQ(parse("new", str), copied);
    EXPECT_EQ(parse("eth0", str), 1u);

    /* The empty text is a valid, set string. */
    zor_string_id empty = parse("", str);
    EXPECT_NE(empty, 0u);
    EXPECT_STREQ(zor_datatype_str(&empty, str), "");

    ZOR_EXPECT_ASSERT(str->write(&field, &field, str), "zor_datatype_write_string", "*value != 0");
    ZOR_EXPECT_ASSERT(str->parse("x", 1, str, nullptr), "zor_datatype_parse_string",
                      "buff != ((void *)0)");
    zor_string_id bogus = 1000;
    ZOR_EXPECT_ASSERT(str->free(&bogus, str, nullptr), "zor_dict_id_remove_ref",
                      "id < dict->next_id");
    ZOR_EXPECT_ASSERT(zor_datatype_str(&bogus, str), "zor_dict_id_get_rec", "id < dict->next_id");
}

TEST_F(DatatypeString, OrderingAndReleasedIds)
{
    zor_string_id ab = parse("ab", str), abc = parse("abc", str), b = parse("b", str);
    zor_string_id nul = parse(std::string("ab\0z", 4), str);
    zor_string_id nul_a = parse(std::string("ab\0a", 4), str);
    /* A prefix sorts first, otherwise strncmp decides, so "ab\0z" equals "ab\0a". Only signs
     * are compared: the magnitude is the C library's (valgrind's strncmp gives another). */
    const struct {
        zor_string_id *x, *y;
        int sign;
    } order[] = {{&ab, &abc, -1}, {&abc, &ab, 1},    {&abc, &abc, 0}, {&abc, &b, -1},
                 {&b, &ab, 1},    {&nul, &nul_a, 0}, {&nul, &abc, -1}};
    for (const auto &o : order) {
        int c = str->cmp(o.x, o.y, str);
        EXPECT_EQ((c > 0) - (c < 0), o.sign) << *o.x << " " << *o.y;
    }
    EXPECT_EQ(zor_datatype_cmp_eq(&ab, &abc, str), 0);

    /* An id whose text is gone stops every operation that reads it. */
    zor_string_id gone = b, dst = b;
    str->free(&b, str, nullptr);
    ZOR_EXPECT_ASSERT(str->free(&gone, str, nullptr), "zor_dict_id_remove_ref",
                      "record != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_datatype_str(&gone, str), "zor_dict_id_get_rec", "record != ((void *)0)");
    ZOR_EXPECT_ASSERT(str->cmp(&gone, &ab, str), "zor_dict_id_get_rec", "record != ((void *)0)");
    ZOR_EXPECT_ASSERT(str->write(&ab, &gone, str), "zor_dict_id_add_ref", "record != ((void *)0)");
    ZOR_EXPECT_ASSERT(str->write(&dst, &abc, str), "zor_dict_id_remove_ref",
                      "record != ((void *)0)");
    for (zor_string_id *v : {&ab, &abc, &nul, &nul_a})
        str->free(v, str, nullptr);
}
