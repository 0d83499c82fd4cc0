/* Partitions: slot array growth, bucket order, entry order, teardown. */
#include "zor_test.h"
#include "zor_partition.h"

#include <algorithm>
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

/* What the process callback saw, one "data count: entries" text per call. */
std::vector<std::string> seen;

void record_call(uint32_t count, zor_iter *iter, void *data)
{
    std::string call = static_cast<const char *>(data) + (" " + std::to_string(count)) + ":";
    int *entry;
    ZOR_ITER_FOREACH (iter, entry) {
        call += " " + std::to_string(*entry);
    }
    seen.push_back(call);
}

} // namespace

TEST(Partition, SlotArraysGrowByDoubling)
{
    int values[131];
    for (int i = 0; i < 131; i++)
        values[i] = i;
    /* Initial slots, entries added: array sizes (newest first) and the next array's size. */
    const struct {
        uint32_t initial;
        int entries;
        std::vector<uint32_t> sizes;
        uint32_t next_size;
    } cases[] = {
        {2, 2, {2}, 128},        {2, 3, {128, 2}, 256},
        {2, 130, {128, 2}, 256}, {2, 131, {256, 128, 2}, 512},
        {0, 0, {0}, 128},        {0, 1, {128, 0}, 256},
    };
    for (const auto &c : cases) {
        zor_partition p;
        zor_partition_create(&p, c.initial);
        zor_partition_bucket b;
        zor_partition_bucket_add(&p, &b, nullptr);
        for (int i = 0; i < c.entries; i++)
            zor_partition_entry_add(&b, &values[i]);
        std::vector<uint32_t> sizes;
        for (zor_partition_elems *e = p.elems; e != nullptr; e = e->next)
            sizes.push_back(e->size);
        EXPECT_EQ(sizes, c.sizes) << c.initial << "/" << c.entries;
        EXPECT_EQ(p.next_size, c.next_size) << c.initial << "/" << c.entries;
        EXPECT_EQ(b.count, static_cast<uint32_t>(c.entries));
        EXPECT_EQ(entries_of(&b), std::vector<int>(values, values + c.entries));
        zor_partition_destroy(&p);
    }
}

TEST(Partition, InterleavedBucketsAndProcessOrder)
{
    int values[6] = {0, 1, 2, 3, 4, 5};
    zor_partition p;
    zor_partition_create(&p, 4);
    zor_partition_bucket b[3];
    const char *names[] = {"first", "second", "third"};
    for (int k = 0; k < 3; k++)
        zor_partition_bucket_add(&p, &b[k], const_cast<char *>(names[k]));
    EXPECT_EQ(p.bucket_count, 3u);
    for (int i = 0; i < 6; i++)
        zor_partition_entry_add(&b[i % 2], &values[i]);
    EXPECT_EQ(entries_of(&b[0]), (std::vector<int>{0, 2, 4}));

    /* The walking forms see what the iterators see, across both slot arrays. */
    std::vector<int> walked;
    int *entry;
    ZOR_PARTITION_BUCKET_FOREACH (&b[1], entry)
        walked.push_back(*entry);
    EXPECT_EQ(walked, entries_of(&b[1]));
    std::string order;
    zor_partition_bucket *bucket;
    ZOR_PARTITION_BUCKETS_FOREACH (&p, bucket)
        order += static_cast<const char *>(bucket->data) + std::string(" ");
    EXPECT_EQ(order, "third second first ");
    walked.clear();
    ZOR_PARTITION_ENTRIES_FOREACH (&p, entry)
        walked.push_back(*entry);
    std::sort(walked.begin(), walked.end());
    EXPECT_EQ(walked, (std::vector<int>{0, 1, 2, 3, 4, 5}));

    /* Buckets come newest first, an empty one with count 0; walking changes nothing. */
    for (int pass = 0; pass < 2; pass++) {
        seen.clear();
        zor_partition_process(&p, record_call);
        EXPECT_EQ(seen,
                  (std::vector<std::string>{"third 0:", "second 3: 1 3 5", "first 3: 0 2 4"}));
    }

    zor_partition_destroy(&p);
    EXPECT_EQ(p.elems, nullptr);
    EXPECT_EQ(p.buckets, nullptr);
    zor_partition_bucket zero;
    memset(&zero, 0, sizeof(zero));
    for (const zor_partition_bucket &bucket : b)
        EXPECT_EQ(memcmp(&bucket, &zero, sizeof(zero)), 0);

    /* After a reset the partition takes new buckets and entries. */
    zor_partition_reset(&p);
    EXPECT_EQ(p.elems->size, 128u);
    EXPECT_EQ(p.elems->next, nullptr);
    zor_partition_bucket_add(&p, &b[0], nullptr);
    zor_partition_entry_add(&b[0], &values[5]);
    EXPECT_EQ(entries_of(&b[0]), (std::vector<int>{5}));
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

TEST(Partition, LateBucketsAreNotVisitedAndExhaustedArraysStop)
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

    zor_partition_create(&p, 0);
    p.next_size = 0; /* growth would add an array with no slot */
    zor_partition_bucket_add(&p, &b1, nullptr);
    ZOR_EXPECT_ASSERT(zor_partition_entry_add(&b1, &v), "zor_partition_elem_get",
                      "elems->count < elems->size");
    zor_partition_destroy(&p);
}
