/*
 * Core utilities against their obvious hand-written baselines, in one run:
 *  - a list walk through ZOR_ITER_FOREACH against a pointer loop over the
 *    same list;
 *  - zor_partition_entry_add against push_back on a reserved vector.
 */
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <algorithm>
#include <random>
#include <vector>

#include "zor_list.h"
#include "zor_partition.h"

namespace
{

struct elem {
    void *header[2];
    zor_list_link link;
    uint64_t value;
};

/*
 * A list of n separately allocated elements, linked in a shuffled order so
 * the walk follows pointers as it would through records made over time.
 */
struct list_fixture {
    std::vector<elem *> elems;
    zor_list list;

    explicit list_fixture(size_t n)
    {
        zor_list_init(&list, offsetof(elem, link));
        for (size_t i = 0; i < n; i++) {
            elem *e = static_cast<elem *>(util_calloc(sizeof(elem)));
            e->value = i;
            elems.push_back(e);
        }
        std::vector<elem *> order = elems;
        std::shuffle(order.begin(), order.end(), std::mt19937(42));
        for (elem *e : order)
            zor_list_append(&list, e);
    }
    ~list_fixture()
    {
        for (elem *e : elems)
            free(e);
    }
};

void BM_ListWalk_Foreach(benchmark::State &st)
{
    list_fixture f(st.range(0));
    for (auto _ : st) {
        uint64_t sum = 0;
        zor_iter it;
        zor_list_iter_state state;
        elem *e;
        zor_iter_create(&it, zor_list_iterator(&it, &state, &f.list));
        ZOR_ITER_FOREACH (&it, e) {
            sum += e->value;
        }
        zor_iter_free(&it);
        benchmark::DoNotOptimize(sum);
    }
    st.SetItemsProcessed(st.iterations() * st.range(0));
}

void BM_ListWalk_PointerLoop(benchmark::State &st)
{
    list_fixture f(st.range(0));
    for (auto _ : st) {
        uint64_t sum = 0;
        for (elem *e = static_cast<elem *>(f.list.first); e != nullptr;
             e = static_cast<elem *>(e->link.next))
            sum += e->value;
        benchmark::DoNotOptimize(sum);
    }
    st.SetItemsProcessed(st.iterations() * st.range(0));
}

BENCHMARK(BM_ListWalk_PointerLoop)->Arg(1000)->Arg(100000);
BENCHMARK(BM_ListWalk_Foreach)->Arg(1000)->Arg(100000);

/*
 * Both sides get new storage for every round, made and dropped outside the
 * timed part. Large blocks are kept on the heap (not mapped afresh by
 * malloc each round), so neither side's timing is page faults.
 */
const int heap_only = [] {
    mallopt(M_MMAP_THRESHOLD, 256 << 20);
    mallopt(M_TRIM_THRESHOLD, 512 << 20);
    return 0;
}();

void BM_EntryAdd_VectorPushBack(benchmark::State &st)
{
    const int n = static_cast<int>(st.range(0));
    uint64_t dummy = 0;
    for (auto _ : st) {
        st.PauseTiming();
        std::vector<void *> *v = new std::vector<void *>();
        v->reserve(n);
        st.ResumeTiming();
        for (int i = 0; i < n; i++)
            v->push_back(&dummy);
        benchmark::DoNotOptimize(v->data());
        benchmark::ClobberMemory();
        st.PauseTiming();
        delete v;
        st.ResumeTiming();
    }
    st.SetItemsProcessed(st.iterations() * n);
}

void BM_EntryAdd_Partition(benchmark::State &st)
{
    const int n = static_cast<int>(st.range(0));
    uint64_t dummy = 0;
    for (auto _ : st) {
        st.PauseTiming();
        zor_partition p;
        zor_partition_bucket b;
        zor_partition_create(&p, n);
        zor_partition_bucket_add(&p, &b, nullptr);
        st.ResumeTiming();
        for (int i = 0; i < n; i++)
            zor_partition_entry_add(&b, &dummy);
        benchmark::ClobberMemory();
        st.PauseTiming();
        zor_partition_destroy(&p);
        st.ResumeTiming();
    }
    st.SetItemsProcessed(st.iterations() * n);
}

BENCHMARK(BM_EntryAdd_VectorPushBack)->Arg(100000);
BENCHMARK(BM_EntryAdd_Partition)->Arg(100000);

/*
 * A batch as the registry makes them: storage made, n entries added, and
 * everything dropped, all timed.
 */
void BM_EntryBatch_Vector(benchmark::State &st)
{
    const int n = static_cast<int>(st.range(0));
    uint64_t dummy = 0;
    for (auto _ : st) {
        std::vector<void *> v;
        v.reserve(n);
        for (int i = 0; i < n; i++)
            v.push_back(&dummy);
        benchmark::DoNotOptimize(v.data());
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * n);
}

void BM_EntryBatch_Partition(benchmark::State &st)
{
    const int n = static_cast<int>(st.range(0));
    uint64_t dummy = 0;
    for (auto _ : st) {
        zor_partition p;
        zor_partition_bucket b;
        zor_partition_create(&p, n);
        zor_partition_bucket_add(&p, &b, nullptr);
        for (int i = 0; i < n; i++)
            zor_partition_entry_add(&b, &dummy);
        benchmark::ClobberMemory();
        zor_partition_destroy(&p);
    }
    st.SetItemsProcessed(st.iterations() * n);
}

BENCHMARK(BM_EntryBatch_Vector)->Arg(1000);
BENCHMARK(BM_EntryBatch_Partition)->Arg(1000);

} // namespace
