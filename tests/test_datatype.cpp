/*
 * Datatypes: the database (core types, inheritance, unresolved chains, init
 * hooks), the display ring and hex dump, "mem", "opaque", "str" and the
 * broken preconditions. Parsing and display of "int", "uint", "bool" and the
 * parse of "str" are checked against a model by fuzz/fuzz_parse.cpp, replayed
 * on its corpus as a test.
 */
#include "zor_test.h"
#include "zor_datatype.h"

#include <functional>
#include <string>
#include <vector>

namespace
{

zor_datatype_reg_info entry(const char *name, const char *parent, uint64_t size = 0,
                            uint32_t properties = 0)
{
    zor_datatype_reg_info r = {};
    r.name = name;
    r.parent = parent;
    r.info.size = size;
    r.info.properties = properties;
    return r;
}

/* Ids of the types whose init hook ran, in call order. */
std::vector<uint32_t> init_ids;
void count_init(zor_dict *, zor_datatype_info *info)
{
    init_ids.push_back(info->id);
}

/* An init hook that registers a type of its own while the database flattens. */
void registering_init(zor_dict *db, zor_datatype_info *info)
{
    count_init(db, info);
    zor_datatype_reg_info r = entry("made-by-init", "registrar");
    zor_datatype_register(db, zor_str_init("hooks"), 1, &r, 0, nullptr);
}

const char *show_fixed(const void *, const zor_datatype_info *)
{
    return "fixed";
}

int answer;
int fixed_answer(const void *, const void *, const zor_datatype_info *)
{
    return answer;
}

class Datatype : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        zor_datatype_init();
        EXPECT_EQ(zor_datatype_db_init(&db, 128), 0u);
        str = zor_datatype_info_id(&db, ZOR_DATATYPE_ID_STR);
        init_ids.clear();
    }
    void TearDown() override
    {
        zor_dict_destroy(&db);
        zor_datatype_cleanup();
    }
    zor_datatype_info *by_name(const char *name)
    {
        zor_str key = zor_str_init(name);
        auto *rec = static_cast<zor_dict_rec *>(zor_hash_table_find(db.table, &key));
        return rec != nullptr ? static_cast<zor_datatype_info *>(rec->data) : nullptr;
    }
    zor_datatype_info *add(const char *ns, const zor_datatype_reg_info &r)
    {
        zor_datatype_info *out;
        zor_datatype_register(&db, zor_str_init(ns), 1, &r, 0, &out);
        return out;
    }
    zor_string_id parse(const std::string &text)
    {
        zor_string_id id = 0xDEAD;
        EXPECT_EQ(str->parse(text.data(), text.size(), str, &id), 1);
        return id;
    }
    uint32_t refs(zor_string_id id)
    {
        return zor_dict_id_get_rec(zor_datatype_strings_dict_get(), id)->refcount;
    }
    zor_dict db;
    const zor_datatype_info *str;
};

} // namespace

TEST_F(Datatype, CoreTypesAreRegisteredAndResolved)
{
    /* Names, parents, sizes and own marks; the operations are exercised through them by
     * the cases below and by the parse fuzz target. */
    const uint32_t none = 0xFFFFFFFF, mem = ZOR_DATATYPE_ID_MEM;
    const struct {
        const char *name;
        uint32_t parent;
        uint64_t size;
        uint32_t marks;
    } want[] = {{"mem", none, 0, 0},   {"opaque", mem, 16, 0}, {"flag", none, 0, 0},
                {"str", mem, 4, 0x80}, {"int", mem, 4, 0},     {"uint", mem, 4, 0},
                {"bool", mem, 4, 0}};
    EXPECT_EQ(db.next_id, 8u);
    EXPECT_EQ(zor_datatype_info_id(&db, ZOR_DATATYPE_ID_CORE), nullptr);
    for (uint32_t id = ZOR_DATATYPE_ID_MEM; id <= ZOR_DATATYPE_ID_BOOL; id++) {
        const auto &w = want[id - 1];
        zor_datatype_info *t = zor_datatype_info_id(&db, id);
        ASSERT_EQ(t, by_name(w.name));
        EXPECT_TRUE(t->id == id && t->ns_id == 0 && t->parent_id == w.parent && t->size == w.size)
            << w.name;
        EXPECT_EQ(t->properties, w.marks | ZOR_DATATYPE_PROP_FLATTENED) << w.name;
    }
    zor_datatype_info *opaque = by_name("opaque"), *flag = by_name("flag");
    EXPECT_TRUE(
        opaque->write == zor_datatype_write_opaque && opaque->free == zor_datatype_free_opaque &&
        opaque->cmp == zor_datatype_cmp_opaque && opaque->cmp_eq == zor_datatype_cmp_opaque);
    EXPECT_TRUE(flag->copy == nullptr && flag->cmp == nullptr && flag->parse == nullptr);
}

TEST_F(Datatype, ChildInheritsSizeOperationsAndMarks)
{
    zor_datatype_reg_info table[3] = {entry("mac", "mem", 6), entry("marked", "mem", 0, 0x41),
                                      entry("leaf", "marked", 0, 0x22)};
    table[1].info.str = show_fixed;
    table[1].info.priv = util_calloc(32); /* owned by the database from now on */
    table[1].info.local_id = 1;
    table[2].info.local_id = 2;
    zor_datatype_info *out[3] = {};
    EXPECT_EQ(zor_datatype_register(&db, zor_str_init("net"), 3, table, 1, out), 8u);
    EXPECT_TRUE(out[0] == by_name("mac") && out[0]->ns_id == 8 && out[2]->local_id == 2);
    unsigned char a[6] = {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcc},
                  b[6] = {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcd};
    EXPECT_STREQ(zor_datatype_str(a, out[0]), "00 1b 21 aa bb cc");
    EXPECT_EQ(zor_datatype_cmp_eq(a, b, out[0]), 0);
    EXPECT_LT(out[0]->cmp(a, b, out[0]), 0);

    /* Inherited marks (0x83) pass down; 0x20 and 0x40 do not; the child keeps its own. */
    EXPECT_EQ(out[1]->properties, 0x41u | ZOR_DATATYPE_PROP_FLATTENED);
    EXPECT_EQ(out[2]->properties, 0x23u | ZOR_DATATYPE_PROP_FLATTENED);
    EXPECT_TRUE(out[2]->str == show_fixed && out[2]->copy == zor_datatype_copy_mem);
    EXPECT_EQ(out[2]->parent_id, out[1]->id);
    /* Caller's table untouched; flattening again changes nothing. */
    EXPECT_TRUE(table[2].info.properties == 0x22 && table[2].info.str == nullptr);
    zor_datatype_info before = *out[2];
    zor_datatype_flatten(&db);
    EXPECT_EQ(memcmp(&before, out[2], sizeof(before)), 0);

    /* A namespace used again keeps its id; count 0 only interns the name. */
    EXPECT_EQ(zor_datatype_register(&db, zor_str_init("core"), 0, nullptr, 0, nullptr), 0u);
    uint32_t empty = zor_datatype_register(&db, zor_str_init("empty"), 0, nullptr, 0, nullptr);
    EXPECT_EQ(empty, db.next_id - 1);
    EXPECT_EQ(zor_datatype_info_id(&db, empty), nullptr);
    /* Without the index check, local ids are the caller's business. */
    table[0].name = "a", table[1].name = "b", table[1].info.priv = nullptr;
    table[1].info.local_id = 7;
    zor_datatype_register(&db, zor_str_init("x"), 2, table, 0, nullptr);
    EXPECT_EQ(by_name("b")->local_id, 7u);
}

TEST_F(Datatype, ParentRegisteredLaterResolvesThenInitRunsOnce)
{
    zor_datatype_reg_info child = entry("child", "parent", 2);
    child.info.init = count_init;
    zor_datatype_info *c = add("late", child);
    EXPECT_TRUE(c->properties == ZOR_DATATYPE_PROP_UNRESOLVED && c->str == nullptr);
    EXPECT_TRUE(init_ids.empty());
    EXPECT_EQ(zor_datatype_info_id(&db, c->parent_id), nullptr); /* named, not a type */

    zor_datatype_reg_info parent = entry("parent", "int", 0, 0x01);
    parent.info.init = count_init;
    add("late", parent);
    EXPECT_EQ(c->properties, 0x01u | ZOR_DATATYPE_PROP_FLATTENED | ZOR_DATATYPE_PROP_INITED);
    EXPECT_TRUE(c->size == 2 && c->parse == zor_datatype_parse_int);
    /* Ids in increasing order: the child's init before its parent's; each once. */
    EXPECT_EQ(init_ids, (std::vector<uint32_t>{c->id, c->parent_id}));
    zor_datatype_flatten(&db);
    add("late", entry("other", nullptr));
    EXPECT_EQ(init_ids.size(), 2u);

    /* A hook may register types; they are flattened too, hooks are not inherited. */
    zor_datatype_reg_info r = entry("registrar", "uint", 2);
    r.info.init = registering_init;
    zor_datatype_info *t = add("hooks", r);
    EXPECT_EQ(init_ids.size(), 3u);
    EXPECT_EQ(t->properties, ZOR_DATATYPE_PROP_FLATTENED | ZOR_DATATYPE_PROP_INITED);
    zor_datatype_info *made = by_name("made-by-init");
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->properties, ZOR_DATATYPE_PROP_FLATTENED);
    EXPECT_TRUE(made->size == 2 && made->str == zor_datatype_str_uint && made->init == nullptr);
}

TEST_F(Datatype, CyclesAndOverlongChainsStayUnresolved)
{
    zor_datatype_reg_info pair[2] = {entry("ping", "pong", 4), entry("pong", "ping", 4)};
    zor_datatype_info *out[2];
    zor_datatype_register(&db, zor_str_init("loop"), 2, pair, 0, out);
    EXPECT_EQ(out[0]->properties | out[1]->properties, ZOR_DATATYPE_PROP_UNRESOLVED);

    /* t0 <- t1 <- ... <- t127: the chain of t126 holds 127 types, that of t127 128. */
    std::vector<std::string> names;
    for (int k = 0; k < 128; k++)
        names.push_back("t" + std::to_string(k));
    std::vector<zor_datatype_reg_info> chain;
    for (int k = 0; k < 128; k++)
        chain.push_back(entry(names[k].c_str(), k ? names[k - 1].c_str() : nullptr, k ? 0 : 8));
    std::vector<zor_datatype_info *> types(128);
    zor_datatype_register(&db, zor_str_init("chain"), 128, chain.data(), 0, types.data());
    EXPECT_TRUE(types[126]->properties == ZOR_DATATYPE_PROP_FLATTENED && types[126]->size == 8);
    EXPECT_TRUE(types[127]->properties == ZOR_DATATYPE_PROP_UNRESOLVED && types[127]->size == 0);
}

TEST_F(Datatype, RingHexDumpMemOpaqueAndMissingOperations)
{
    char *first = zor_datatype_buf_get();
    strcpy(first, "kept");
    std::vector<char *> seen{first};
    for (int k = 1; k < 16; k++) {
        char *b = zor_datatype_buf_get();
        for (char *s : seen)
            EXPECT_GE(b > s ? b - s : s - b, 1024); /* 1024 bytes each, no overlap */
        memset(b, 'x', 1024);
        seen.push_back(b);
    }
    EXPECT_STREQ(first, "kept");
    EXPECT_EQ(zor_datatype_buf_get(), first);
    EXPECT_EQ(first[0], '\0');

    /* Hex dump: three characters a byte, cut after 340 bytes. */
    std::vector<unsigned char> big(400, 0x5a);
    EXPECT_STREQ(zor_datatype_hex_dump(nullptr, 3), "(null)");
    EXPECT_STREQ(zor_datatype_hex_dump(big.data(), 0), "");
    for (int n : {1, 339, 340, 341, 400}) {
        std::string want;
        for (int k = 0; k < std::min(n, 340); k++)
            want += k ? " 5a" : "5a";
        EXPECT_EQ(zor_datatype_hex_dump(big.data(), n), want + (n > 340 ? " ..." : "")) << n;
    }

    /* "mem" of 3 bytes, and "int" of a size no integer has: hex. */
    zor_datatype_info three = {}, opaque = {};
    three.size = 3;
    unsigned char a[3] = {1, 0xab, 0xff}, b[3] = {1, 0xab, 0xfe}, c[3] = {9, 9, 9};
    EXPECT_STREQ(zor_datatype_str_mem(a, &three), "01 ab ff");
    EXPECT_STREQ(zor_datatype_str_int(a, &three), "01 ab ff");
    EXPECT_STREQ(zor_datatype_str_uint(a, &three), "01 ab ff");
    EXPECT_TRUE(zor_datatype_cmp_mem(b, a, &three) < 0 && zor_datatype_cmp_mem(a, a, &three) == 0);
    zor_datatype_copy_mem(c, a, &three);
    EXPECT_EQ(memcmp(c, a, 3), 0);
    zor_datatype_copy_mem(c, nullptr, &three);
    EXPECT_EQ(c[0] | c[1] | c[2], 0);
    EXPECT_STREQ(zor_datatype_str_flag(nullptr, &three), "present");
    for (int v : {1, 0, -3})
        EXPECT_STREQ(zor_datatype_str_bool(&v, &three), v ? "true" : "false");

    /* "opaque" owns a copy; a shorter value sorts first; writing releases the old copy. */
    char bytes2[] = "zz", bytes3[] = "aaa";
    zor_opaque two = {2, bytes2}, tri = {3, bytes3}, dst = {0, nullptr}, empty = {0, nullptr};
    EXPECT_TRUE(zor_datatype_cmp_opaque(&two, &tri, &opaque) == -1 &&
                zor_datatype_cmp_opaque(&tri, &two, &opaque) == 1);
    zor_datatype_write_opaque(&dst, &tri, &opaque);
    EXPECT_TRUE(dst.length == 3 && dst.bytes != static_cast<void *>(bytes3));
    EXPECT_EQ(zor_datatype_cmp_opaque(&dst, &tri, &opaque), 0);
    zor_datatype_write_opaque(&dst, &two, &opaque);
    EXPECT_STREQ(zor_datatype_str_opaque(&dst, &opaque), "7a 7a");
    zor_datatype_write_opaque(&dst, &empty, &opaque);
    EXPECT_TRUE(dst.length == 0 && dst.bytes == nullptr);
    EXPECT_EQ(zor_datatype_cmp_opaque(&dst, &empty, &opaque), 0);
    zor_datatype_write_opaque(&dst, &two, &opaque);
    zor_datatype_free_opaque(&dst, &opaque, nullptr);
    EXPECT_TRUE(dst.length == 0 && dst.bytes == nullptr);
    zor_datatype_free_opaque(&dst, &opaque, nullptr); /* an empty value is fine */
    zor_datatype_write_opaque(&dst, &two, &opaque);
    zor_datatype_write_opaque(&dst, nullptr, &opaque);
    EXPECT_EQ(dst.bytes, nullptr);

    /* Through a descriptor that may be missing, or lack the operation. */
    EXPECT_STREQ(zor_datatype_str(a, nullptr), "<Unknown>");
    EXPECT_STREQ(zor_datatype_str(a, &opaque), "<Unknown>");
    opaque.str = show_fixed;
    EXPECT_STREQ(zor_datatype_str(a, &opaque), "fixed");
    EXPECT_EQ(zor_datatype_cmp_eq(a, a, nullptr) | zor_datatype_cmp_eq(a, a, &opaque), 0);
    opaque.cmp_eq = fixed_answer;
    for (int r : {0, 1, -5}) {
        answer = r;
        EXPECT_EQ(zor_datatype_cmp_eq(a, a, &opaque), r == 0 ? 1 : 0);
    }
}

TEST_F(Datatype, StringsUnsetIdAndReferences)
{
    zor_dict *d = zor_datatype_strings_dict_get();
    EXPECT_TRUE(d->size == 128 && d->table->size == 256 && d->free_data == nullptr);
    zor_str unset = zor_datatype_string_from_id(0);
    EXPECT_EQ(std::string(unset.ptr, unset.len), "<unset>");
    EXPECT_EQ(zor_datatype_string_ref_get(zor_str_init("<unset>")), 0u);
    zor_string_id id = zor_datatype_string_ref_get(zor_str_init("eth0"));
    EXPECT_EQ(parse("eth0"), id); /* parsed and explicit ids share one dictionary */
    EXPECT_EQ(refs(id), 2u);

    zor_string_id a = id, b = id; /* each holds one of the two references */
    zor_string_id field = 0, other = parse("eth1"), copied = 0;
    /* write: the destination takes its own reference; overwriting releases the old one. */
    str->write(&field, &a, str);
    EXPECT_TRUE(field == a && refs(a) == 3);
    str->write(&field, &other, str);
    EXPECT_TRUE(field == other && refs(a) == 2 && refs(other) == 2);
    str->write(&field, nullptr, str);
    EXPECT_TRUE(field == 0 && refs(other) == 1);
    str->write(&field, nullptr, str); /* an unset destination stays unset */
    EXPECT_EQ(field, 0u);
    str->copy(&copied, &other, str); /* moves the id without a reference */
    EXPECT_TRUE(copied == other && refs(other) == 1);

    /* free: the last reference removes the text; released ids are reused newest first. */
    str->free(&a, str, nullptr);
    EXPECT_STREQ(zor_datatype_str(&b, str), "eth0");
    str->free(&b, str, nullptr);
    str->free(&a, str, nullptr); /* freeing 0 does nothing */
    EXPECT_EQ(refs(0), 2u);      /* its own and the look-up above */
    str->free(&other, str, nullptr);
    EXPECT_EQ(parse("new"), copied);
    EXPECT_EQ(parse("eth0"), 1u);
    zor_datatype_cleanup(); /* a new init starts from "<unset>" again */
    zor_datatype_init();
    EXPECT_EQ(d->next_id, 1u);
}

TEST_F(Datatype, StringOrder)
{
    zor_string_id ab = parse("ab"), abc = parse("abc"), b = parse("b");
    zor_string_id nul = parse(std::string("ab\0z", 4)), nul_a = parse(std::string("ab\0a", 4));
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
}

TEST_F(Datatype, BrokenPreconditionsStop)
{
    zor_datatype_info s3 = {}, s4 = {}, s16 = {};
    s3.size = 3, s4.size = 4, s16.size = 16;
    zor_datatype_reg_info ids[2] = {entry("a", nullptr), entry("b", nullptr)};
    ids[1].info.local_id = 7;
    unsigned char buf[16];
    int v;
    zor_string_id bogus = 1000, field = 0;
    /* A type derived from "int" with its own size 3: a valid text has nowhere to go. */
    zor_datatype_info *int24 = add("x", entry("int24", "int", 3));
    EXPECT_EQ(int24->parse("12x", 3, int24, buf), 0); /* a rejected text does not get there */
    /* An id whose text is gone: released while another copy of it is held. */
    auto gone = [&] {
        zor_string_id g = parse("g"), held = g;
        str->free(&g, str, nullptr);
        return held;
    };
    struct {
        const char *function, *text;
        std::function<void()> run;
    } const cases[] = {
        {"zor_datatype_register", "zor_datatype_info_id(db, id) == ((void *)0)",
         [&] { add("again", entry("int", nullptr)); }},
        {"zor_str_init", "str != ((void *)0)", [&] { add("x", entry(nullptr, nullptr)); }},
        {"zor_datatype_register", "!local_id_is_index || (reg_info[i].info.local_id == i)",
         [&] { zor_datatype_register(&db, zor_str_init("x"), 2, ids, 1, nullptr); }},
        {"zor_dict_id_get_rec", "id < dict->next_id",
         [&] { zor_datatype_info_id(&db, db.next_id); }},
        {"zor_dict_init", "dict != ((void *)0)", [] { zor_datatype_db_init(nullptr, 4); }},
        {"zor_datatype_parse_bool", "buff != ((void *)0)",
         [&] { zor_datatype_parse_bool("true", 4, &s4, nullptr); }},
        {"zor_datatype_parse_bool", "info->size == sizeof(int)",
         [&] { zor_datatype_parse_bool("true", 4, &s16, &v); }},
        {"zor_datatype_parse_int", "buff != ((void *)0)",
         [&] { zor_datatype_parse_int("1", 1, &s4, nullptr); }},
        {"zor_datatype_parse_uint", "buff != ((void *)0)",
         [&] { zor_datatype_parse_uint("1", 1, &s4, nullptr); }},
        {"zor_datatype_parse_int", "info->size <= sizeof(int64_t)",
         [&] { zor_datatype_parse_int("1", 1, &s16, buf); }},
        {"zor_datatype_parse_uint", "info->size <= sizeof(uint64_t)",
         [&] { zor_datatype_parse_uint("1", 1, &s16, buf); }},
        {"zor_datatype_parse_int", "0", [&] { int24->parse("12", 2, int24, buf); }},
        {"zor_datatype_parse_uint", "0", [&] { zor_datatype_parse_uint("12", 2, &s3, buf); }},
        {"zor_datatype_write_string", "*value != 0", [&] { str->write(&field, &field, str); }},
        {"zor_datatype_parse_string", "buff != ((void *)0)",
         [&] { str->parse("x", 1, str, nullptr); }},
        {"zor_dict_id_remove_ref", "id < dict->next_id", [&] { str->free(&bogus, str, nullptr); }},
        {"zor_dict_id_get_rec", "id < dict->next_id", [&] { zor_datatype_str(&bogus, str); }},
        {"zor_dict_id_remove_ref", "record != ((void *)0)",
         [&] {
             zor_string_id g = gone();
             str->free(&g, str, nullptr);
         }},
        {"zor_dict_id_get_rec", "record != ((void *)0)",
         [&] {
             zor_string_id g = gone();
             zor_datatype_str(&g, str);
         }},
        {"zor_dict_id_get_rec", "record != ((void *)0)",
         [&] {
             zor_string_id ab = parse("ab"), g = gone();
             str->cmp(&g, &ab, str);
         }},
        {"zor_dict_id_add_ref", "record != ((void *)0)",
         [&] {
             zor_string_id g = gone();
             str->write(&field, &g, str);
         }},
        {"zor_dict_id_remove_ref", "record != ((void *)0)",
         [&] {
             zor_string_id ab = parse("ab"), g = gone();
             str->write(&g, &ab, str);
         }},
        /* A released name below next_id has no record: flatten stops on it. */
        {"zor_dict_id_get_rec", "record != ((void *)0)",
         [&] {
             zor_dict_id_remove_ref(&db, zor_dict_ref_get(&db, zor_str_init("gone")));
             zor_datatype_flatten(&db);
         }},
    };
    for (const auto &c : cases)
        ZOR_EXPECT_ASSERT(c.run(), c.function, c.text) << c.function << ": " << c.text;
}
