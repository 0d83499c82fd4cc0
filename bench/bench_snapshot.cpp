/*
 * Snapshots: the cost of undoing against the cost of the changes.
 *  - Changes: N field changes and a processing pass, no snapshot (the baseline);
 *  - SnapshotDiscard: take, the same changes and pass, discard;
 *  - SnapshotRestore: take, the same changes and pass, restore (every value
 *    goes back through the setter and is processed again);
 *  - TakeDiscardEmpty: take and discard with nothing changed, on data
 *    stores of 1k and 1M records: the cost must not follow the record count.
 * Figures are per changed record (items).
 */
#include <benchmark/benchmark.h>

#include <cstdlib>

#include <cstdio>
#include <string>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT
#endif

#include "bench_types.h"
#include "zor_reg.h"

namespace
{

using bench::flag_type;
using bench::int_type;

using bench::rec;
using bench::rec_offset;

uint64_t delivered;

int count_update(zor_reg_cb_info *info, zor_iter *, void *)
{
    delivered += zor_reg_info_count(info);
    return 1;
}

/* One kind (an int field and a delete-pending flag) watched by one registration. */
struct store {
    zor_reg_db db;
    zor_reg_rec_info *kind;
    zor_reg_field_info *field;
    zor_reg_ds *ds;
    uint64_t block;
    char *blocks;

    explicit store(size_t n)
    {
        zor_reg_db_init(&db);
        kind = zor_reg_db_rec_add(&db);
        field = zor_reg_db_rec_add_field(kind, offsetof(rec, value), &int_type);
        zor_reg_field_info *del = zor_reg_db_rec_add_field(kind, 0, &flag_type);
        zor_reg_db_rec_set_deletion_info(kind, del, nullptr, nullptr);
        zor_reg_db_rec_set_offsets(kind, rec_offset, sizeof(rec));
        ds = zor_reg_ds_init(&db, nullptr);
        zor_reg_enable(zor_register_rec_update_v(ds, kind, 0, count_update, nullptr, 1, field), 0);
        zor_reg_process(ds);
        block = (zor_reg_rec_size(ds, kind) + 7) & ~uint64_t(7);
        blocks = static_cast<char *>(calloc(n, block));
        int v = 0;
        for (size_t i = 0; i < n; i++) {
            zor_reg_rec_created(ds, kind, entry(i));
            zor_reg_field_set(record(i), field, &v);
        }
        zor_reg_process(ds);
    }
    zor_reg_entry *entry(size_t i)
    {
        return reinterpret_cast<zor_reg_entry *>(blocks + i * block);
    }
    void *record(size_t i)
    {
        return zor_reg_rec(entry(i));
    }
    void change(size_t n, int v)
    {
        for (size_t i = 0; i < n; i++)
            zor_reg_field_set(record(i), field, &v);
        zor_reg_process(ds);
    }
    ~store()
    {
        zor_reg_ds_destroy(ds);
        zor_reg_db_destroy(&db);
        free(blocks);
    }
};

constexpr size_t changed = 1024;

void BM_Changes(benchmark::State &st)
{
    store s(changed);
    int v = 0;
    for (auto _ : st)
        s.change(changed, ++v);
    st.SetItemsProcessed(st.iterations() * changed);
}
BENCHMARK(BM_Changes);

void BM_SnapshotDiscard(benchmark::State &st)
{
    store s(changed);
    int v = 0;
    for (auto _ : st) {
        zor_reg_take_snapshot(s.ds);
        s.change(changed, ++v);
        zor_reg_discard_snapshot(s.ds);
    }
    st.SetItemsProcessed(st.iterations() * changed);
}
BENCHMARK(BM_SnapshotDiscard);

void BM_SnapshotRestore(benchmark::State &st)
{
    store s(changed);
    int v = 0;
    for (auto _ : st) {
        zor_reg_take_snapshot(s.ds);
        s.change(changed, ++v);
        zor_reg_restore_snapshot(s.ds);
    }
    st.SetItemsProcessed(st.iterations() * changed);
}
BENCHMARK(BM_SnapshotRestore);

void BM_TakeDiscardEmpty(benchmark::State &st)
{
    store s(static_cast<size_t>(st.range(0)));
    for (auto _ : st) {
        zor_reg_take_snapshot(s.ds);
        zor_reg_discard_snapshot(s.ds);
    }
}
BENCHMARK(BM_TakeDiscardEmpty)->Arg(1000)->Arg(1000000);

/*
 * `bench_snapshot --ops changes|discard|restore` runs 20 rounds of one of
 * the first three benchmarks with callgrind's collection switched on
 * around them only and prints the number of changed records, for
 * instruction counts per record (exact where times are noisy):
 *     valgrind --tool=callgrind --collect-atstart=no bench_snapshot --ops discard
 */
int ops_main(const std::string &what)
{
    constexpr int rounds = 20;
    store s(changed);
    int v = 0;
    if (what != "changes" && what != "discard" && what != "restore") {
        fprintf(stderr, "bench_snapshot --ops: changes, discard or restore\n");
        return 2;
    }
    CALLGRIND_TOGGLE_COLLECT;
    for (int r = 0; r < rounds; r++) {
        if (what != "changes")
            zor_reg_take_snapshot(s.ds);
        s.change(changed, ++v);
        if (what == "discard")
            zor_reg_discard_snapshot(s.ds);
        else if (what == "restore")
            zor_reg_restore_snapshot(s.ds);
    }
    CALLGRIND_TOGGLE_COLLECT;
    printf("%zu\n", rounds * changed);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::string(argv[1]) == "--ops")
        return ops_main(argv[2]);
    return bench::run_benchmarks(argc, argv);
}
