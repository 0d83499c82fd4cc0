/* Partitions: slot array growth, bucket order, entry order, teardown. */
#include "zor_test.h"
#include "zor_partition.h"

#include <string>
#include <vector>

namespace
{

std::vector<int> entries_of(zor_partition_bucket *b)
{
    std::vector<int> out;
    zor_iter it;
    zor_partition_entries_state state;
    int *entry;
    zor_iter_create(&it, zor_partition_bucket_entries_iterator(&it, &state, b));
    ZOR_ITER_FOREACH (&it, entry) {
        out.push_back(*entry);
    }
    zor_iter_free(&it);
    return out;
}

std::vector<uint32_t> array_sizes(const zor_partition *p)
{
    std::vector<uint32_t> sizes; /* newest first */
    for (zor_partition_elems *e = p->elems; e != nullptr; e = e->next)
        sizes.push_back(e->size);
    return sizes;
}

bool is_zero(const zor_partition_bucket &b)
{
    zor_partition_bucket zero;
    memset(&zero, 0, sizeof(zero));
    return memcmp(&b, &zero, sizeof(b)) == 0;
}

/* What the process callback saw, in call order. */
struct seen_call {
    std::string data;
    uint32_t count;
    std::vector<int> entries;
};
std::vector<seen_call> seen;

void record_call(uint32_t count, zor_iter *iter, void *data)
{
    seen_call call{static_cast<const char *>(data), count, {}};
    int *entry;
    ZOR_ITER_FOREACH (iter, entry) {
        call.entries.push_back(*entry);
    }
    seen.push_back(call);
}

} // namespace

TEST(Partition, SlotArraysGrowByDoubling)
{
    int values[300];
    for (int i = 0; i < 300; i++)
        values[i] = i;

    zor_partition p;
    zor_partition_create(&p, 2);
    EXPECT_EQ(p.next_size, 128u);
    EXPECT_EQ(array_sizes(&p), (std::vector<uint32_t>{2}));
    zor_partition_bucket b;
    zor_partition_bucket_add(&p, &b, nullptr);
    zor_partition_entry_add(&b, &values[0]);
    zor_partition_entry_add(&b, &values[1]);
    EXPECT_EQ(p.next_size, 128u);
    zor_partition_entry_add(&b, &values[2]); /* third entry: a 128-slot array */
    EXPECT_EQ(array_sizes(&p), (std::vector<uint32_t>{128, 2}));
    EXPECT_EQ(p.next_size, 256u);
    for (int i = 3; i < 130; i++)
        zor_partition_entry_add(&b, &values[i]);
    EXPECT_EQ(array_sizes(&p), (std::vector<uint32_t>{128, 2}));
    zor_partition_entry_add(&b, &values[130]); /* 2 + 128 slots used up */
    EXPECT_EQ(array_sizes(&p), (std::vector<uint32_t>{256, 128, 2}));
    EXPECT_EQ(p.next_size, 512u);
    EXPECT_EQ(p.elems->count, 1u);

    EXPECT_EQ(b.count, 131u);
    std::vector<int> expect(values, values + 131);
    EXPECT_EQ(entries_of(&b), expect); /* in order across three arrays */
    zor_partition_destroy(&p);
}

TEST(Partition, CreateWithNoSlots)
{
    int v = 1;
    zor_partition p;
    zor_partition_create(&p, 0);
    zor_partition_bucket b;
    zor_partition_bucket_add(&p, &b, nullptr);
    zor_partition_entry_add(&b, &v);
    EXPECT_EQ(array_sizes(&p), (std::vector<uint32_t>{128, 0}));
    EXPECT_EQ(p.next_size, 256u);
    EXPECT_EQ(entries_of(&b), (std::vector<int>{1}));
    zor_partition_destroy(&p);
}

TEST(Partition, InterleavedBucketsAndProcessOrder)
{
    int values[6] = {0, 1, 2, 3, 4, 5};
    zor_partition p;
    zor_partition_create(&p, 4);
    zor_partition_bucket b1, b2, b3;
    zor_partition_bucket_add(&p, &b1, const_cast<char *>("first"));
    zor_partition_bucket_add(&p, &b2, const_cast<char *>("second"));
    zor_partition_bucket_add(&p, &b3, const_cast<char *>("third"));
    EXPECT_EQ(p.bucket_count, 3u);
    for (int i = 0; i < 6; i++)
        zor_partition_entry_add(i % 2 ? &b2 : &b1, &values[i]);
    EXPECT_EQ(entries_of(&b1), (std::vector<int>{0, 2, 4}));
    EXPECT_EQ(entries_of(&b2), (std::vector<int>{1, 3, 5}));
    EXPECT_TRUE(entries_of(&b3).empty());

    /* Buckets come newest first; an empty bucket gets count 0. */
    seen.clear();
    zor_partition_process(&p, record_call);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].data, "third");
    EXPECT_EQ(seen[0].count, 0u);
    EXPECT_TRUE(seen[0].entries.empty());
    EXPECT_EQ(seen[1].data, "second");
    EXPECT_EQ(seen[1].count, 3u);
    EXPECT_EQ(seen[1].entries, (std::vector<int>{1, 3, 5}));
    EXPECT_EQ(seen[2].data, "first");
    EXPECT_EQ(seen[2].entries, (std::vector<int>{0, 2, 4}));

    /* Walking changes nothing: a second walk sees the same. */
    seen.clear();
    zor_partition_process(&p, record_call);
    EXPECT_EQ(seen.size(), 3u);

    zor_partition_destroy(&p);
    EXPECT_EQ(p.elems, nullptr);
    EXPECT_EQ(p.buckets, nullptr);
    EXPECT_TRUE(is_zero(b1));
    EXPECT_TRUE(is_zero(b2));
    EXPECT_TRUE(is_zero(b3));

    /* After a reset the partition takes new buckets and entries. */
    zor_partition_reset(&p);
    EXPECT_EQ(array_sizes(&p), (std::vector<uint32_t>{128}));
    zor_partition_bucket_add(&p, &b1, const_cast<char *>("again"));
    zor_partition_entry_add(&b1, &values[5]);
    EXPECT_EQ(entries_of(&b1), (std::vector<int>{5}));
    zor_partition_destroy(&p);
}

namespace
{

zor_partition *adding_to;
zor_partition_bucket late_bucket;
int walks_seen;

/* Walks its entries twice by hand, and adds a bucket during processing. */
void add_bucket_while_processing(uint32_t count, zor_iter *iter, void *)
{
    for (int pass = 0; pass < 2; pass++) {
        uint32_t n = 0;
        for (void *e = zor_iter_first(iter); e != nullptr; e = zor_iter_next(iter))
            n++;
        EXPECT_EQ(n, count);
    }
    if (walks_seen++ == 0)
        zor_partition_bucket_add(adding_to, &late_bucket, nullptr);
}

} // namespace

TEST(Partition, BucketsAddedDuringProcessingAreNotVisited)
{
    int v = 0;
    zor_partition p;
    zor_partition_create(&p, 8);
    zor_partition_bucket b1, b2;
    zor_partition_bucket_add(&p, &b1, nullptr);
    zor_partition_bucket_add(&p, &b2, nullptr);
    zor_partition_entry_add(&b1, &v);
    adding_to = &p;
    walks_seen = 0;
    zor_partition_process(&p, add_bucket_while_processing);
    EXPECT_EQ(walks_seen, 2);
    EXPECT_EQ(p.buckets, &late_bucket);
    zor_partition_destroy(&p);
}

TEST(Partition, ExhaustedArrayStops)
{
    int v = 0;
    zor_partition p;
    zor_partition_create(&p, 0);
    p.next_size = 0; /* growth would add an array with no slot */
    zor_partition_bucket b;
    zor_partition_bucket_add(&p, &b, nullptr);
    ZOR_EXPECT_ASSERT(zor_partition_entry_add(&b, &v), "zor_partition_elem_get",
                      "elems->count < elems->size");
    zor_partition_destroy(&p);
}
