/*
 * The C++ interface against the C interface, same work, same run:
 *  - a changed 4-byte value set on 1024 records, watched by one notifier
 *    and one update registration, drained after every round over the
 *    records (FieldSetChanged);
 *  - delivering a batch of 10000 queued records to one update callback that
 *    reads each record (Process; the sets are not timed).
 * Both sides have the same kind (a delete-pending flag, then the value),
 * the same datatype and one calloc'ed block per record. Each round is a
 * function of its own, so that callgrind can count the instructions of
 * exactly one round (--toggle-collect='*round_*').
 */
#include <benchmark/benchmark.h>

#include <optional>
#include <vector>

#include "bench_types.h"
#include "zor.hpp"

namespace
{

using bench::flag_type;
using bench::int_type;

using bench::rec;
using bench::rec_offset;

uint64_t notified;
uint64_t delivered;

/* ---- through the C interface ------------------------------------------------ */

void c_notify(void *, const zor_reg_field_info *, int, const void *value, void *ctx)
{
    *static_cast<uint64_t *>(ctx) += value != nullptr;
}

int c_update(zor_reg_cb_info *, zor_iter *entries, void *ctx)
{
    zor_reg_entry *e;
    ZOR_ITER_FOREACH (entries, e) {
        *static_cast<uint64_t *>(ctx) +=
            reinterpret_cast<rec *>(reinterpret_cast<char *>(e) + rec_offset)->value != 0;
    }
    return 1;
}

void c_free(zor_reg_ds *, zor_reg_entry *e)
{
    free(e);
}

struct c_setup {
    zor_reg_db db;
    zor_reg_rec_info *kind;
    zor_reg_field_info *field;
    zor_reg_ds *ds;
    std::vector<rec *> recs;

    c_setup(size_t n, bool notifier)
    {
        zor_reg_db_init(&db);
        kind = zor_reg_db_rec_add(&db);
        zor_reg_field_info *removal = zor_reg_db_rec_add_field(kind, 0, &flag_type);
        field = zor_reg_db_rec_add_field(kind, offsetof(rec, value), &int_type);
        zor_reg_db_rec_set_deletion_info(kind, removal, nullptr, c_free);
        zor_reg_db_rec_set_offsets(kind, rec_offset, sizeof(rec));
        ds = zor_reg_ds_init(&db, nullptr);
        zor_reg_process(ds);
        if (notifier)
            zor_register_field_update(ds, field, c_notify, &notified);
        zor_reg_enable(zor_register_rec_update_v(ds, kind, 0, c_update, &delivered, 1, field), 0);
        zor_reg_process(ds);
        uint64_t size = zor_reg_rec_size(ds, kind);
        for (size_t i = 0; i < n; i++) {
            auto *e = static_cast<zor_reg_entry *>(util_calloc(size));
            zor_reg_rec_created(ds, kind, e);
            recs.push_back(static_cast<rec *>(zor_reg_rec(e)));
        }
    }
    ~c_setup()
    {
        for (rec *r : recs)
            free(reinterpret_cast<char *>(r) - rec_offset);
        zor_reg_ds_destroy(ds);
        zor_reg_db_destroy(&db);
    }
};

__attribute__((noinline)) void round_set_c(c_setup &z, int v)
{
    for (rec *r : z.recs)
        zor_reg_field_set(r, z.field, &v);
    zor_reg_process(z.ds);
}

__attribute__((noinline)) void round_process_c(c_setup &z)
{
    zor_reg_process(z.ds);
}

/* ---- through zor.hpp ----------------------------------------------------------- */

struct hpp_setup {
    zor::datatypes types;
    zor::schema schema{types};
    zor::kind<rec> kind = schema.add_kind<rec>();
    zor::field<rec, int> field = kind.field(&rec::value, &int_type);
    std::optional<zor::store> store;
    std::vector<rec *> recs;

    hpp_setup(size_t n, bool notifier)
    {
        store.emplace(schema);
        uint64_t *count = &notified;
        if (notifier)
            store->on_change(field, [count](rec &, const int *v) { *count += v != nullptr; });
        count = &delivered;
        store
            ->watch(kind, {field},
                    [count](zor::batch<rec> &b) {
                        for (auto u : b)
                            *count += u.rec.value != 0;
                        return true;
                    })
            .enable();
        store->process();
        for (size_t i = 0; i < n; i++)
            recs.push_back(store->create(kind));
    }
};

__attribute__((noinline)) void round_set_hpp(hpp_setup &z, int v)
{
    for (rec *r : z.recs)
        z.field.set(*r, v);
    z.store->process();
}

__attribute__((noinline)) void round_process_hpp(hpp_setup &z)
{
    z.store->process();
}

/* ---- benchmarks -------------------------------------------------------------------- */

constexpr size_t set_records = 1024;
constexpr size_t batch_records = 10000;

template <class Setup, void (*Round)(Setup &, int)> void field_set_changed(benchmark::State &st)
{
    Setup z(set_records, true);
    int v = 1;
    for (auto _ : st)
        Round(z, ++v);
    st.SetItemsProcessed(st.iterations() * set_records);
}

/* The sets that queue the batch are not timed; the delivery is. */
template <class Setup, void (*Set)(Setup &, rec *, int), void (*Round)(Setup &)>
void process_batch(benchmark::State &st)
{
    Setup z(batch_records, false);
    int v = 1;
    for (auto _ : st) {
        st.PauseTiming();
        ++v;
        for (rec *r : z.recs)
            Set(z, r, v);
        st.ResumeTiming();
        Round(z);
    }
    st.SetItemsProcessed(st.iterations() * batch_records);
}

void set_c(c_setup &z, rec *r, int v)
{
    zor_reg_field_set(r, z.field, &v);
}
void set_hpp(hpp_setup &z, rec *r, int v)
{
    z.field.set(*r, v);
}

void BM_FieldSetChanged_C(benchmark::State &st)
{
    field_set_changed<c_setup, round_set_c>(st);
}
void BM_FieldSetChanged_Hpp(benchmark::State &st)
{
    field_set_changed<hpp_setup, round_set_hpp>(st);
}
void BM_Process_C(benchmark::State &st)
{
    process_batch<c_setup, set_c, round_process_c>(st);
}
void BM_Process_Hpp(benchmark::State &st)
{
    process_batch<hpp_setup, set_hpp, round_process_hpp>(st);
}

BENCHMARK(BM_FieldSetChanged_C);
BENCHMARK(BM_FieldSetChanged_Hpp);
BENCHMARK(BM_Process_C);
BENCHMARK(BM_Process_Hpp);

} // namespace
