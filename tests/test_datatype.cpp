/* Datatypes apart from the parses, which fuzz/fuzz_parse.cpp checks against a model. */
#include "zor_test.h"
#include "zor_datatype.h"

#include <functional>
#include <string>
#include <vector>

namespace
{

const uint32_t kFlat = ZOR_DATATYPE_PROP_FLATTENED, kUnresolved = ZOR_DATATYPE_PROP_UNRESOLVED;

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

class Datatype : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        zor_datatype_init();
        zor_datatype_db_init(&db, 128);
        str = zor_datatype_info_id(&db, ZOR_DATATYPE_ID_STR);
        init_ids.clear();
    }
    void TearDown() override
    {
        zor_dict_destroy(&db);
        zor_datatype_cleanup();
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

TEST_F(Datatype, ChildInheritsSizeOperationsAndMarks)
{
    zor_datatype_reg_info table[3] = {entry("mac", "mem", 6), entry("marked", "mem", 0, 0x41),
                                      entry("leaf", "marked", 0, 0x22)};
    table[1].info.str = zor_datatype_str_flag;
    table[1].info.priv = util_calloc(32); /* owned by the database from now on */
    table[1].info.local_id = 1;
    table[2].info.local_id = 2;
    zor_datatype_info *out[3] = {};
    EXPECT_EQ(zor_datatype_register(&db, zor_str_init("net"), 3, table, 1, out), 8u);
    EXPECT_TRUE(out[0]->ns_id == 8 && out[0]->size == 6);
    unsigned char a[6] = {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcc},
                  b[6] = {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcd};
    EXPECT_STREQ(zor_datatype_str(a, out[0]), "00 1b 21 aa bb cc");
    EXPECT_TRUE(zor_datatype_cmp_eq(a, a, out[0]) == 1 && zor_datatype_cmp_eq(a, b, out[0]) == 0);
    EXPECT_LT(out[0]->cmp(a, b, out[0]), 0);
    /* Inherited marks (0x83) pass down; 0x20 and 0x40 do not; the child keeps its own. */
    EXPECT_EQ(out[1]->properties, 0x41u | kFlat);
    EXPECT_EQ(out[2]->properties, 0x23u | kFlat);
    EXPECT_TRUE(out[2]->str == zor_datatype_str_flag && out[2]->copy == zor_datatype_copy_mem);
    EXPECT_EQ(out[2]->parent_id, out[1]->id);
}

TEST_F(Datatype, LateParentsResolveInitRunsOnceCyclesNever)
{
    zor_datatype_reg_info child = entry("child", "parent", 2),
                          parent = entry("parent", "int", 0, 1);
    child.info.init = parent.info.init = count_init;
    zor_datatype_info *c = add("late", child);
    EXPECT_TRUE(c->properties == kUnresolved && init_ids.empty());
    add("late", parent);
    EXPECT_EQ(c->properties, 0x01u | kFlat | ZOR_DATATYPE_PROP_INITED);
    EXPECT_TRUE(c->size == 2 && c->parse == zor_datatype_parse_int);
    /* Ids in increasing order: the child's init before its parent's; each once. */
    zor_datatype_flatten(&db);
    EXPECT_EQ(init_ids, (std::vector<uint32_t>{c->id, c->parent_id}));

    /* Cycles, and chains longer than 127 types, stay unresolved. */
    zor_datatype_reg_info pair[2] = {entry("ping", "pong", 4), entry("pong", "ping", 4)};
    zor_datatype_info *out[2];
    zor_datatype_register(&db, zor_str_init("loop"), 2, pair, 0, out);
    EXPECT_EQ(out[0]->properties | out[1]->properties, kUnresolved);
    std::vector<std::string> names(128); /* t0 <- t1 <- ... <- t127 */
    std::vector<zor_datatype_reg_info> chain(128);
    for (int k = 0; k < 128; k++) {
        names[k] = "t" + std::to_string(k);
        chain[k] = entry(names[k].c_str(), k ? names[k - 1].c_str() : nullptr, k ? 0 : 8);
    }
    std::vector<zor_datatype_info *> types(128);
    zor_datatype_register(&db, zor_str_init("chain"), 128, chain.data(), 0, types.data());
    EXPECT_TRUE(types[126]->properties == kFlat && types[126]->size == 8);
    EXPECT_TRUE(types[127]->properties == kUnresolved && types[127]->size == 0);
}

TEST_F(Datatype, RingHexDumpMemOpaqueAndMissingOperations)
{
    char *first = zor_datatype_buf_get(); /* a ring of 16 buffers of 1024 bytes */
    strcpy(first, "kept");
    for (int k = 1; k < 16; k++)
        memset(zor_datatype_buf_get(), 'x', 1024);
    EXPECT_STREQ(first, "kept");
    EXPECT_TRUE(zor_datatype_buf_get() == first && first[0] == '\0');

    /* Hex dump: three characters a byte, cut after 340 bytes. */
    std::vector<unsigned char> big(400, 0x5a);
    EXPECT_STREQ(zor_datatype_hex_dump(nullptr, 3), "(null)");
    EXPECT_STREQ(zor_datatype_hex_dump(big.data(), 0), "");
    for (int n : {1, 340, 341}) {
        std::string want;
        for (int k = 0; k < std::min(n, 340); k++)
            want += k ? " 5a" : "5a";
        EXPECT_EQ(zor_datatype_hex_dump(big.data(), n), want + (n > 340 ? " ..." : "")) << n;
    }

    /* "int" of a size no integer has shows hex; "mem" compares and clears bytes. */
    zor_datatype_info three = {}, none = {};
    three.size = 3;
    unsigned char a[3] = {1, 0xab, 0xff}, b[3] = {1, 0xab, 0xfe};
    EXPECT_STREQ(zor_datatype_str_int(a, &three), "01 ab ff");
    EXPECT_TRUE(zor_datatype_cmp_mem(b, a, &three) < 0 && zor_datatype_cmp_mem(a, a, &three) == 0);
    zor_datatype_copy_mem(b, nullptr, &three);
    EXPECT_EQ(b[0] | b[1] | b[2], 0);
    EXPECT_STREQ(zor_datatype_str_flag(nullptr, &three), "present");
    for (int v : {1, 0, -3})
        EXPECT_STREQ(zor_datatype_str_bool(&v, &three), v ? "true" : "false");

    /* "opaque" owns a copy; a shorter value sorts first; writing releases the old copy. */
    char bytes[] = "aaa";
    zor_opaque two = {2, bytes}, tri = {3, bytes}, dst = {0, nullptr}, empty = {0, nullptr};
    EXPECT_TRUE(zor_datatype_cmp_opaque(&two, &tri, &none) == -1 &&
                zor_datatype_cmp_opaque(&tri, &two, &none) == 1);
    zor_datatype_write_opaque(&dst, &tri, &none);
    bytes[0] = 'b';
    EXPECT_STREQ(zor_datatype_str_opaque(&dst, &none), "61 61 61");
    zor_datatype_write_opaque(&dst, &empty, &none);
    EXPECT_TRUE(dst.length == 0 && dst.bytes == nullptr);
    zor_datatype_write_opaque(&dst, &two, &none);
    zor_datatype_free_opaque(&dst, &none, nullptr);
    zor_datatype_free_opaque(&dst, &none, nullptr); /* an empty value is fine */
    EXPECT_TRUE(dst.length == 0 && dst.bytes == nullptr);

    /* Through a descriptor that may be missing, or lack the operation. */
    EXPECT_STREQ(zor_datatype_str(a, nullptr), "<Unknown>");
    EXPECT_STREQ(zor_datatype_str(a, &none), "<Unknown>");
    EXPECT_EQ(zor_datatype_cmp_eq(a, a, nullptr) | zor_datatype_cmp_eq(a, a, &none), 0);
}

TEST_F(Datatype, StringsUnsetIdReferencesAndOrder)
{
    zor_str unset = zor_datatype_string_from_id(0);
    EXPECT_EQ(std::string(unset.ptr, unset.len), "<unset>");
    EXPECT_EQ(zor_datatype_string_ref_get(zor_str_init("<unset>")), 0u);
    zor_string_id id = zor_datatype_string_ref_get(zor_str_init("eth0"));
    EXPECT_EQ(parse("eth0"), id); /* parsed and explicit ids share one dictionary */
    zor_string_id a = id, b = id; /* each holds one of the two references */
    zor_string_id field = 0, other = parse("eth1"), copied = 0;
    /* write: the destination takes its own reference; overwriting releases the old one. */
    str->write(&field, &a, str);
    str->write(&field, &other, str);
    EXPECT_TRUE(field == other && refs(a) == 2 && refs(other) == 2);
    str->write(&field, nullptr, str);
    EXPECT_TRUE(field == 0 && refs(other) == 1);
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

    zor_string_id ab = parse("ab"), abc = parse("abc"), just_b = parse("b");
    zor_string_id nul = parse(std::string("ab\0z", 4)), nul_a = parse(std::string("ab\0a", 4));
    EXPECT_NE(nul, nul_a); /* distinct texts, but strncmp sees them as equal */
    /* A prefix sorts first, otherwise strncmp decides. Only signs are compared: the
     * magnitude is the C library's (valgrind's strncmp gives another). */
    const struct {
        zor_string_id *x, *y;
        int sign;
    } order[] = {{&ab, &abc, -1},   {&abc, &ab, 1},    {&abc, &abc, 0}, {&abc, &just_b, -1},
                 {&just_b, &ab, 1}, {&nul, &nul_a, 0}, {&nul, &abc, -1}};
    for (const auto &o : order) {
        int c = str->cmp(o.x, o.y, str);
        EXPECT_EQ((c > 0) - (c < 0), o.sign) << *o.x << " " << *o.y;
    }
}

TEST_F(Datatype, BrokenPreconditionsStop)
{
    zor_datatype_info wide = {};
    wide.size = 16;
    zor_datatype_reg_info ids[2] = {entry("a", nullptr), entry("b", nullptr)};
    ids[1].info.local_id = 7;
    unsigned char buf[16];
    zor_string_id field = 0;
    /* A type derived from "int" with its own size 3: a valid text has nowhere to go. */
    zor_datatype_info *int24 = add("x", entry("int24", "int", 3));
    EXPECT_EQ(int24->parse("12x", 3, int24, buf), 0); /* a rejected text does not get there */
    struct {
        const char *function, *text;
        std::function<void()> run;
    } const cases[] = {
        {"zor_datatype_register", "zor_datatype_info_id(db, id) == ((void *)0)",
         [&] { add("again", entry("int", nullptr)); }},
        {"zor_datatype_register", "!local_id_is_index || (reg_info[i].info.local_id == i)",
         [&] { zor_datatype_register(&db, zor_str_init("x"), 2, ids, 1, nullptr); }},
        {"zor_datatype_parse_bool", "info->size == sizeof(int)",
         [&] { zor_datatype_parse_bool("true", 4, &wide, buf); }},
        {"zor_datatype_parse_int", "buff != ((void *)0)",
         [&] { zor_datatype_parse_int("1", 1, &wide, nullptr); }},
        {"zor_datatype_parse_int", "info->size <= sizeof(int64_t)",
         [&] { zor_datatype_parse_int("1", 1, &wide, buf); }},
        {"zor_datatype_parse_uint", "info->size <= sizeof(uint64_t)",
         [&] { zor_datatype_parse_uint("1", 1, &wide, buf); }},
        {"zor_datatype_parse_int", "0", [&] { int24->parse("12", 2, int24, buf); }},
        {"zor_datatype_write_string", "*value != 0", [&] { str->write(&field, &field, str); }},
    };
    for (const auto &c : cases)
        ZOR_EXPECT_ASSERT(c.run(), c.function, c.text) << c.function << ": " << c.text;
}
