/* Datatype database: core registration, inheritance, unresolved chains, init hooks, the ring. */
#include "zor_test.h"
#include "zor_datatype.h"

#include <string>
#include <vector>

namespace
{

zor_datatype_info *by_name(zor_dict *db, const char *name)
{
    zor_str key = zor_str_init(name);
    zor_dict_rec *rec = static_cast<zor_dict_rec *>(zor_hash_table_find(db->table, &key));
    return rec != nullptr ? static_cast<zor_datatype_info *>(rec->data) : nullptr;
}

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

uint32_t register_one(zor_dict *db, const char *ns, const zor_datatype_reg_info &r,
                      zor_datatype_info **out = nullptr)
{
    return zor_datatype_register(db, zor_str_init(ns), 1, &r, 0, out);
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

class DatatypeDb : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        EXPECT_EQ(zor_datatype_db_init(&db, 128), 0u);
        init_ids.clear();
    }
    void TearDown() override
    {
        zor_dict_destroy(&db);
    }
    zor_dict db;
};

} // namespace

TEST_F(DatatypeDb, CoreTypesAreRegisteredAndResolved)
{
    const char *names[] = {"core", "mem", "opaque", "flag", "str", "int", "uint", "bool"};
    for (uint32_t id = 0; id < 8; id++)
        EXPECT_STREQ(zor_dict_id_get_rec(&db, id)->text, names[id]);
    EXPECT_EQ(db.next_id, 8u);
    EXPECT_EQ(zor_datatype_info_id(&db, ZOR_DATATYPE_ID_CORE), nullptr);

    /* Per type from "mem" on: parent, size, own marks, and operations after inheritance. */
    const uint32_t none = 0xFFFFFFFF, mem = ZOR_DATATYPE_ID_MEM;
    const auto cp = zor_datatype_copy_mem;
    const auto cm = zor_datatype_cmp_mem;
    const struct {
        uint32_t parent;
        uint64_t size;
        uint32_t marks;
        zor_datatype_parse_fn parse;
        zor_datatype_copy_fn copy, write;
        zor_datatype_cmp_fn cmp_eq, cmp;
        zor_datatype_free_fn free;
    } want[] = {
        {none, 0, 0, nullptr, cp, cp, cm, cm, nullptr},
        {mem, 16, 0, nullptr, cp, zor_datatype_write_opaque, zor_datatype_cmp_opaque,
         zor_datatype_cmp_opaque, zor_datatype_free_opaque},
        {none, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
        {mem, 4, 0x80, zor_datatype_parse_string, cp, zor_datatype_write_string, cm,
         zor_datatype_cmp_string, zor_datatype_free_string},
        {mem, 4, 0, zor_datatype_parse_int, cp, cp, cm, cm, nullptr},
        {mem, 4, 0, zor_datatype_parse_uint, cp, cp, cm, cm, nullptr},
        {mem, 4, 0, zor_datatype_parse_bool, cp, cp, cm, cm, nullptr},
    };
    for (uint32_t id = ZOR_DATATYPE_ID_MEM; id <= ZOR_DATATYPE_ID_BOOL; id++) {
        const auto &w = want[id - 1];
        zor_datatype_info *t = zor_datatype_info_id(&db, id);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t, by_name(&db, names[id]));
        EXPECT_EQ(t->id, id);
        EXPECT_EQ(t->ns_id, 0u);
        EXPECT_EQ(t->parent_id, w.parent) << names[id];
        EXPECT_EQ(t->size, w.size) << names[id];
        EXPECT_EQ(t->properties, w.marks | ZOR_DATATYPE_PROP_FLATTENED) << names[id];
        EXPECT_TRUE(t->parse == w.parse && t->copy == w.copy && t->write == w.write &&
                    t->cmp_eq == w.cmp_eq && t->cmp == w.cmp && t->free == w.free)
            << names[id];
    }
}

TEST_F(DatatypeDb, ChildInheritsSizeOperationsAndMarks)
{
    zor_datatype_reg_info table[3] = {entry("mac", "mem", 6), entry("marked", "mem", 0, 0x41),
                                      entry("leaf", "marked", 0, 0x22)};
    table[1].info.str = show_fixed;
    table[1].info.priv = util_calloc(32); /* owned by the database from now on */
    table[1].info.local_id = 1;
    table[2].info.local_id = 2;
    zor_datatype_info *out[3] = {};
    EXPECT_EQ(zor_datatype_register(&db, zor_str_init("net"), 3, table, 1, out), 8u);
    EXPECT_EQ(out[0], by_name(&db, "mac"));
    EXPECT_EQ(out[0]->ns_id, 8u);
    EXPECT_EQ(out[2]->local_id, 2u);

    unsigned char a[6] = {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcc},
                  b[6] = {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcd};
    EXPECT_STREQ(zor_datatype_str(a, out[0]), "00 1b 21 aa bb cc");
    EXPECT_EQ(zor_datatype_cmp_eq(a, b, out[0]), 0);
    EXPECT_LT(out[0]->cmp(a, b, out[0]), 0);

    /* Inherited marks (0x83) pass down; 0x20 and 0x40 do not; the child keeps its own. */
    EXPECT_EQ(out[1]->properties, 0x41u | ZOR_DATATYPE_PROP_FLATTENED);
    EXPECT_EQ(out[2]->properties, 0x23u | ZOR_DATATYPE_PROP_FLATTENED);
    EXPECT_EQ(out[2]->str, show_fixed);
    EXPECT_EQ(out[2]->copy, zor_datatype_copy_mem);
    EXPECT_EQ(out[2]->parent_id, out[1]->id);

    /* Caller's table untouched; flattening again changes nothing. */
    EXPECT_EQ(table[2].info.properties, 0x22u);
    EXPECT_EQ(table[2].info.str, nullptr);
    zor_datatype_info before = *out[2];
    zor_datatype_flatten(&db);
    EXPECT_EQ(memcmp(&before, out[2], sizeof(before)), 0);

    /* A namespace used again keeps its id; count 0 only interns the name. */
    EXPECT_EQ(zor_datatype_register(&db, zor_str_init("core"), 0, nullptr, 0, nullptr), 0u);
    uint32_t empty = zor_datatype_register(&db, zor_str_init("empty"), 0, nullptr, 0, nullptr);
    EXPECT_EQ(empty, db.next_id - 1);
    EXPECT_EQ(zor_datatype_info_id(&db, empty), nullptr);
}

TEST_F(DatatypeDb, ParentRegisteredLaterResolvesThenInitRunsOnce)
{
    zor_datatype_reg_info child = entry("child", "parent", 2);
    child.info.init = count_init;
    zor_datatype_info *c;
    register_one(&db, "late", child, &c);
    EXPECT_EQ(c->properties, ZOR_DATATYPE_PROP_UNRESOLVED);
    EXPECT_EQ(c->str, nullptr);
    EXPECT_TRUE(init_ids.empty());
    EXPECT_EQ(zor_datatype_info_id(&db, c->parent_id), nullptr); /* named, not a type */

    zor_datatype_reg_info parent = entry("parent", "int", 0, 0x01);
    parent.info.init = count_init;
    register_one(&db, "late", parent);
    EXPECT_EQ(c->properties, 0x01u | ZOR_DATATYPE_PROP_FLATTENED | ZOR_DATATYPE_PROP_INITED);
    EXPECT_EQ(c->size, 2u);
    EXPECT_EQ(c->parse, zor_datatype_parse_int);
    /* Ids in increasing order: the child's init before its parent's; each once. */
    EXPECT_EQ(init_ids, (std::vector<uint32_t>{c->id, c->parent_id}));
    zor_datatype_flatten(&db);
    register_one(&db, "late", entry("other", nullptr));
    EXPECT_EQ(init_ids.size(), 2u);

    /* A hook may register types; they are flattened too, hooks are not inherited. */
    zor_datatype_reg_info r = entry("registrar", "uint", 2);
    r.info.init = registering_init;
    zor_datatype_info *t;
    register_one(&db, "hooks", r, &t);
    EXPECT_EQ(init_ids.size(), 3u);
    EXPECT_EQ(t->properties, ZOR_DATATYPE_PROP_FLATTENED | ZOR_DATATYPE_PROP_INITED);
    zor_datatype_info *made = by_name(&db, "made-by-init");
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->properties, ZOR_DATATYPE_PROP_FLATTENED);
    EXPECT_EQ(made->size, 2u);
    EXPECT_EQ(made->str, zor_datatype_str_uint);
    EXPECT_EQ(made->init, nullptr);
}

TEST_F(DatatypeDb, CyclesAndOverlongChainsStayUnresolved)
{
    zor_datatype_reg_info pair[2] = {entry("ping", "pong", 4), entry("pong", "ping", 4)};
    zor_datatype_info *out[2];
    zor_datatype_register(&db, zor_str_init("loop"), 2, pair, 0, out);
    EXPECT_EQ(out[0]->properties, ZOR_DATATYPE_PROP_UNRESOLVED);
    EXPECT_EQ(out[1]->properties, ZOR_DATATYPE_PROP_UNRESOLVED);

    /* t0 <- t1 <- ... <- t127: the chain of t126 holds 127 types, that of t127 128. */
    std::vector<std::string> names;
    for (int k = 0; k < 128; k++)
        names.push_back("t" + std::to_string(k));
    std::vector<zor_datatype_reg_info> chain;
    for (int k = 0; k < 128; k++)
        chain.push_back(entry(names[k].c_str(), k ? names[k - 1].c_str() : nullptr, k ? 0 : 8));
    std::vector<zor_datatype_info *> types(128);
    zor_datatype_register(&db, zor_str_init("chain"), 128, chain.data(), 0, types.data());
    EXPECT_EQ(types[126]->properties, ZOR_DATATYPE_PROP_FLATTENED);
    EXPECT_EQ(types[126]->size, 8u);
    EXPECT_EQ(types[127]->properties, ZOR_DATATYPE_PROP_UNRESOLVED);
    EXPECT_EQ(types[127]->size, 0u);
}

TEST_F(DatatypeDb, BrokenRegistrationsStop)
{
    ZOR_EXPECT_ASSERT(register_one(&db, "again", entry("int", nullptr)), "zor_datatype_register",
                      "zor_datatype_info_id(db, id) == ((void *)0)");
    ZOR_EXPECT_ASSERT(register_one(&db, "x", entry(nullptr, nullptr)), "zor_str_init",
                      "str != ((void *)0)");
    zor_datatype_reg_info table[2] = {entry("a", nullptr), entry("b", nullptr)};
    table[1].info.local_id = 7;
    ZOR_EXPECT_ASSERT(zor_datatype_register(&db, zor_str_init("x"), 2, table, 1, nullptr),
                      "zor_datatype_register",
                      "!local_id_is_index || (reg_info[i].info.local_id == i)");
    /* Without the check, local ids are the caller's business. */
    zor_datatype_register(&db, zor_str_init("x"), 2, table, 0, nullptr);
    EXPECT_EQ(by_name(&db, "b")->local_id, 7u);
    ZOR_EXPECT_ASSERT(zor_datatype_info_id(&db, db.next_id), "zor_dict_id_get_rec",
                      "id < dict->next_id");
    ZOR_EXPECT_ASSERT(zor_datatype_db_init(nullptr, 4), "zor_dict_init", "dict != ((void *)0)");
    /* A released name below next_id has no record: flatten stops on it. */
    zor_dict_id_remove_ref(&db, zor_dict_ref_get(&db, zor_str_init("gone")));
    ZOR_EXPECT_ASSERT(zor_datatype_flatten(&db), "zor_dict_id_get_rec", "record != ((void *)0)");
}

TEST(DatatypeBuf, RingOfSixteen)
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
}
