/* Hash table: chaining, arrival order, growth and shrink sizes, walks, duplicates. */
#include "zor_test.h"
#include "zor_hash.h"
#include "zor_xxhash.h"

#include <stdio.h>

#include <map>
#include <memory>
#include <vector>

namespace
{

/* The node sits behind other fields, so node_offset is not 0. */
struct item {
    uint64_t other;
    zor_hash_node node;
    int num;
};

/* Builds the key "k<num>" in the scratch buffer; num -1 gives the empty key. */
void item_key(const void *record, char *scratch, zor_str *key)
{
    const item *it = static_cast<const item *>(record);
    key->ptr = scratch;
    key->len = it->num < 0 ? 0 : snprintf(scratch, ZOR_HASH_KEY_SCRATCH, "k%d", it->num);
}

uint64_t real_hash(const zor_str *key)
{
    return ZOR_XXH64(key->ptr, key->len, 0);
}

/* Every key in bucket 3 of any table. */
uint64_t colliding_hash(const zor_str *)
{
    return 3;
}

zor_hash_table *make_table(uint64_t size, zor_hash_fn hash = real_hash)
{
    return zor_hash_table_init(size, offsetof(item, node), item_key, hash);
}

item *find(zor_hash_table *t, const char *key)
{
    zor_str k = zor_str_init(key);
    return static_cast<item *>(zor_hash_table_find(t, &k));
}

/* Walks the whole table through its embedded iterator: num -> times seen. */
std::map<int, int> walk(zor_hash_table *t)
{
    std::map<int, int> seen;
    for (void *rec = zor_iter_first(&t->iter); rec != nullptr; rec = zor_iter_next(&t->iter))
        seen[static_cast<item *>(rec)->num]++;
    return seen;
}

/* Every record is found by its key and walked exactly once. */
void expect_consistent(zor_hash_table *t, const std::vector<std::unique_ptr<item>> &items,
                       size_t from, size_t to)
{
    ASSERT_EQ(t->count, to - from);
    std::map<int, int> seen = walk(t);
    ASSERT_EQ(seen.size(), to - from);
    for (size_t i = from; i < to; i++) {
        char key[32];
        snprintf(key, sizeof(key), "k%d", items[i]->num);
        ASSERT_EQ(find(t, key), items[i].get());
        ASSERT_EQ(seen[items[i]->num], 1);
    }
}

} // namespace

TEST(HashTable, CollidingKeysChainInArrivalOrder)
{
    zor_hash_table *t = make_table(4, colliding_hash);
    EXPECT_TRUE(t->size == 8 && t->min_size == 4 && t->count == 0);
    EXPECT_EQ(t->node_offset, offsetof(item, node));
    EXPECT_EQ(find(t, "k1"), nullptr);
    EXPECT_EQ(zor_hash_table_walk(nullptr, t), nullptr);
    EXPECT_EQ(zor_iter_first(&t->iter), nullptr);
    item a{0, {}, 1}, b{0, {}, 2}, c{0, {}, 3}, empty{0, {}, -1};
    for (item *i : {&a, &b, &c})
        zor_hash_table_insert(t, i);
    EXPECT_EQ(t->table[3], &a);
    EXPECT_TRUE(a.node.next == &b && b.node.next == &c && c.node.next == nullptr);
    EXPECT_EQ(b.node.hash, 3u);
    EXPECT_EQ(find(t, "k2"), &b);
    EXPECT_EQ(find(t, "k3"), &c);
    EXPECT_EQ(find(t, "k4"), nullptr);
    EXPECT_EQ(find(t, ""), nullptr);

    /* Removing by identity; a record not in the table changes nothing. */
    item stranger{0, {3, nullptr}, 2};
    zor_hash_table_remove(t, &stranger);
    EXPECT_EQ(t->count, 3u);
    zor_hash_table_remove(t, &b);
    EXPECT_EQ(t->count, 2u);
    EXPECT_TRUE(a.node.next == &c && b.node.next == nullptr);
    EXPECT_EQ(find(t, "k2"), nullptr);
    zor_hash_table_remove(t, &a);
    EXPECT_EQ(t->table[3], &c);
    zor_hash_table_remove(t, &a);
    EXPECT_EQ(t->count, 1u);

    /* The zero-length key is a key like any other; a duplicate key stops the process. */
    zor_hash_table_insert(t, &empty);
    EXPECT_EQ(find(t, ""), &empty);
    EXPECT_EQ(find(t, "k1"), nullptr);
    item dup{0, {}, 3};
    ZOR_EXPECT_ASSERT(zor_hash_table_insert(t, &dup), "zor_hash_table_insert_internal",
                      "zor_hash_table_compare_keys(key, &last_key) != 0");
    zor_hash_table_destroy(t);
}

TEST(HashTable, GrowsAtHalfShrinksBelowSixthNeverBelowMinimum)
{
    std::vector<std::unique_ptr<item>> items;
    for (int i = 0; i < 200; i++)
        items.emplace_back(new item{0, {}, i});
    zor_hash_table *t = make_table(128);
    EXPECT_EQ(t->size, 256u);
    /* Records held, bucket count: growth past half, shrinking below a sixth (512 / 6 = 85,
     * 256 / 6 = 42), never below the minimum of 128. Inserted in order, removed oldest first. */
    const struct {
        size_t count;
        uint64_t size;
    } steps[] = {{128, 256}, {129, 512}, {200, 512}, {85, 512},
                 {84, 256},  {42, 256},  {41, 128},  {0, 128}};
    size_t first = 0, end = 0;
    for (const auto &step : steps) {
        while (end - first < step.count)
            zor_hash_table_insert(t, items[end++].get());
        while (end - first > step.count)
            zor_hash_table_remove(t, items[first++].get());
        EXPECT_EQ(t->size, step.size) << step.count;
        expect_consistent(t, items, first, end);
    }
    EXPECT_EQ(zor_iter_first(&t->iter), nullptr);
    zor_hash_table_destroy(t);
}

TEST(HashTable, AllocationFailuresStop)
{
    ZOR_EXPECT_ASSERT(make_table(1ULL << 40), "zor_hash_table_init",
                      "table_int->table != ((void *)0)");
    zor_hash_table *t = make_table(2);
    ZOR_EXPECT_ASSERT(zor_hash_table_realloc(t, 1ULL << 41), "zor_hash_table_realloc",
                      "new_table != ((void *)0)");
    zor_hash_table_destroy(t);
}
