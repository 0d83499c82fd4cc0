/* xxHash's published vectors, the hash table against a model, the dictionary's checks. */
#include "zor_test.h"
#include "zor_dict.h"
#include "zor_hash.h"
#include "zor_xxhash.h"

#include <stdio.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

TEST(XXHash, PublishedVectorsThroughEveryFunction)
{
    EXPECT_EQ(ZOR_XXH_versionNumber(), 603u);
    const uint32_t kPrime = 2654435761U;
    unsigned char buf[101]; /* xxHash's sanity buffer: each byte the top of a squared generator */
    uint32_t gen = kPrime;
    for (unsigned char &byte : buf) {
        byte = static_cast<unsigned char>(gen >> 24);
        gen *= gen;
    }
    const struct {
        size_t len;
        uint32_t seed, h32;
        uint64_t h64;
    } vectors[] = {
        /* below and above the block sizes (16 and 32 bytes), every tail */
        {14, 0, 0xE5AA0AB4, 0xCFFA8DB881BC3A3DULL},
        {14, kPrime, 0x4481951D, 0x5B9611585EFCC9CBULL},
        {101, 0, 0x1F1AA412, 0x0EAB543384F878ADULL},
        {101, kPrime, 0x498EC8E2, 0xCAA65939306F1E21ULL},
    };
    for (const auto &v : vectors) {
        EXPECT_EQ(ZOR_XXH32(buf, v.len, v.seed), v.h32) << v.len << "/" << v.seed;
        EXPECT_EQ(ZOR_XXH64(buf, v.len, v.seed), v.h64) << v.len << "/" << v.seed;
    }
    /* Each function forwards to its own: streaming in two pieces, through a copy of the
     * state, gives the one-shot digest of the seed. */
    XXH32_state_t *s32 = ZOR_XXH32_createState(), *c32 = ZOR_XXH32_createState();
    XXH64_state_t *s64 = ZOR_XXH64_createState(), *c64 = ZOR_XXH64_createState();
    EXPECT_EQ(ZOR_XXH32_reset(s32, kPrime) | ZOR_XXH64_reset(s64, kPrime), XXH_OK);
    ZOR_XXH32_update(s32, buf, 49);
    ZOR_XXH64_update(s64, buf, 49);
    ZOR_XXH32_copyState(c32, s32);
    ZOR_XXH64_copyState(c64, s64);
    EXPECT_EQ(ZOR_XXH32_update(c32, &buf[49], 52) | ZOR_XXH64_update(c64, &buf[49], 52), XXH_OK);
    EXPECT_TRUE(ZOR_XXH32_digest(c32) == 0x498EC8E2u &&
                ZOR_XXH64_digest(c64) == 0xCAA65939306F1E21ULL);
    EXPECT_EQ(ZOR_XXH32_freeState(s32) | ZOR_XXH32_freeState(c32), XXH_OK);
    EXPECT_EQ(ZOR_XXH64_freeState(s64) | ZOR_XXH64_freeState(c64), XXH_OK);

    /* The canonical form is big-endian and reads back. */
    XXH32_canonical_t k32;
    XXH64_canonical_t k64;
    ZOR_XXH32_canonicalFromHash(&k32, 0x02CC5D05u);
    ZOR_XXH64_canonicalFromHash(&k64, 0xEF46DB3751D8E999ULL);
    EXPECT_EQ(memcmp(k32.digest, "\x02\xCC\x5D\x05", 4), 0);
    EXPECT_EQ(memcmp(k64.digest, "\xEF\x46\xDB\x37\x51\xD8\xE9\x99", 8), 0);
    EXPECT_TRUE(ZOR_XXH32_hashFromCanonical(&k32) == 0x02CC5D05u &&
                ZOR_XXH64_hashFromCanonical(&k64) == 0xEF46DB3751D8E999ULL);
}

namespace
{

/* The node sits behind other fields, so node_offset is not 0. */
struct item {
    uint64_t other;
    zor_hash_node node;
    int num;
};

/* The key "k<num>"; num -1 gives the empty key. */
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

uint64_t colliding_hash(const zor_str *)
{
    return 3;
}

} // namespace

TEST(HashTable, AgainstModelOnRandomOperations)
{
    std::mt19937 rng(5);
    for (bool colliding : {false, true}) {
        const int n = colliding ? 40 : 300;
        std::vector<item> items(n);
        for (int i = 0; i < n; i++)
            items[i] = item{0, {}, i - 1};
        zor_hash_table *t = zor_hash_table_init(colliding ? 4 : 128, offsetof(item, node), item_key,
                                                colliding ? colliding_hash : real_hash);
        EXPECT_EQ(zor_iter_first(&t->iter), nullptr);
        uint64_t min = colliding ? 4 : 128, size = 2 * min;
        std::vector<int> order; /* records in arrival order */
        for (int step = 0; step < 4500; step++) {
            /* Grows for a while, then mostly shrinks, over and over. */
            bool grow = (step / 500) % 2 == 0;
            int i = rng() % n;
            auto at = std::find(order.begin(), order.end(), i);
            if (at == order.end() && (grow || rng() % 4 == 0)) {
                if (order.size() >= size / 2)
                    size *= 2;
                zor_hash_table_insert(t, &items[i]);
                order.push_back(i);
            } else {
                zor_hash_table_remove(t, &items[i]); /* a record not there changes nothing */
                if (at != order.end()) {
                    order.erase(at);
                    if (size > min && order.size() < size / 6)
                        size = std::max(size / 2, min);
                }
            }
            ASSERT_TRUE(t->count == order.size() && t->size == size) << step;
            std::vector<int> walked;
            for (void *rec = zor_iter_first(&t->iter); rec != nullptr;
                 rec = zor_iter_next(&t->iter))
                walked.push_back(static_cast<item *>(rec) - items.data());
            ASSERT_TRUE(!colliding || walked == order); /* colliding: one chain, arrival order */
            ASSERT_TRUE(
                std::is_permutation(walked.begin(), walked.end(), order.begin(), order.end()));
            for (int k = 0; k < n; k++) {
                char text[ZOR_HASH_KEY_SCRATCH];
                zor_str key;
                item_key(&items[k], text, &key);
                ASSERT_EQ(zor_hash_table_find(t, &key),
                          std::count(order.begin(), order.end(), k) ? &items[k] : nullptr);
            }
        }
        zor_hash_table_destroy(t);
    }
}

TEST(Dict, BrokenPreconditionsStop)
{
    zor_dict d;
    zor_dict_init(&d, 8, nullptr);
    for (int i = 0; i < 10; i++)
        zor_dict_ref_get(&d, zor_str_init(("t" + std::to_string(i)).c_str()));
    zor_dict_id_remove_ref(&d, 8); /* ids 0 to 9, 8 released */
    zor_hash_table *t = zor_hash_table_init(2, offsetof(item, node), item_key, real_hash);
    item first{0, {}, 1}, dup{0, {}, 1};
    zor_hash_table_insert(t, &first);
    struct {
        const char *function, *text;
        std::function<void()> run;
    } const cases[] = {
        {"zor_hash_table_insert_internal", "zor_hash_table_compare_keys(key, &last_key) != 0",
         [&] { zor_hash_table_insert(t, &dup); }},
        {"zor_hash_table_init", "table_int->table != ((void *)0)",
         [] { zor_hash_table_init(1ULL << 40, 0, item_key, real_hash); }},
        {"zor_hash_table_realloc", "new_table != ((void *)0)",
         [&] { zor_hash_table_realloc(t, 1ULL << 41); }},
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
             zor_dict_ref_get(&d, zor_str_init("x"));
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
    zor_hash_table_destroy(t);
    zor_dict_destroy(&d);
}
