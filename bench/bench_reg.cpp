/*
 * The registry's hot paths against the design a team would otherwise write
 * (per-field std::vector of std::function observers, plus one
 * std::unordered_set of changed records per subscriber, drained in a loop):
 *  - setting a changed 4-byte value watched by one update registration and
 *    one notifier, with the queued work drained after every round over the
 *    records (FieldSetChanged);
 *  - setting an unchanged value (FieldSetUnchanged);
 *  - delivering N queued records (Process, per record);
 *  - processing 1k changes among 10k and among 1M live records
 *    (ProcessScaling): the cost follows the changes, not the records;
 *  - rounds of random changes and processing against the hand-written
 *    dirty-bit design and two signal libraries (Round, below), whose
 *    instruction counts bench/instructions.sh prints (`--ops`).
 */
#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#ifdef ZOR_BENCH_SIGNALS2
#include <boost/signals2/signal.hpp>
#endif
#ifdef ZOR_BENCH_SIGC
#include <sigc++/sigc++.h>
#endif
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT
#endif

#include "bench_types.h"
#include "zor_dict.h"
#include "zor_reg.h"

namespace
{

/* ---- the registry setup ---------------------------------------------------- */

using bench::int_type;

using bench::rec;
using bench::rec_offset;

uint64_t notified;
uint64_t delivered;

void count_notify(void *, const zor_reg_field_info *, int, const void *, void *)
{
    notified++;
}

int count_update(zor_reg_cb_info *, zor_iter *entries, void *)
{
    zor_reg_entry *e;
    ZOR_ITER_FOREACH (entries, e) {
        /* The caller knows where its record lies in the block. */
        delivered += reinterpret_cast<rec *>(reinterpret_cast<char *>(e) + rec_offset)->value != 0;
    }
    return 1;
}

/* One kind with one int field, n records in one array of blocks. */
struct zor_setup {
    zor_reg_db db;
    zor_reg_rec_info *kind;
    zor_reg_field_info *field;
    zor_reg_ds *ds;
    uint64_t block;
    char *blocks;
    size_t n;

    explicit zor_setup(size_t count, bool notifier = true) : n(count)
    {
        zor_reg_db_init(&db);
        kind = zor_reg_db_rec_add(&db);
        field = zor_reg_db_rec_add_field(kind, offsetof(rec, value), &int_type);
        zor_reg_db_rec_set_offsets(kind, rec_offset, sizeof(rec));
        ds = zor_reg_ds_init(&db, nullptr);
        if (notifier)
            zor_register_field_update(ds, field, count_notify, nullptr);
        zor_reg_enable(zor_register_rec_update_v(ds, kind, 0, count_update, nullptr, 1, field), 0);
        zor_reg_process(ds);
        block = (zor_reg_rec_size(ds, kind) + 7) & ~uint64_t(7);
        blocks = static_cast<char *>(calloc(n, block));
        for (size_t i = 0; i < n; i++) {
            zor_reg_rec_created(ds, kind, entry(i));
            if (record(i) != zor_reg_rec(entry(i)))
                abort();
        }
    }
    zor_reg_entry *entry(size_t i)
    {
        return reinterpret_cast<zor_reg_entry *>(blocks + i * block);
    }
    /*
     * A caller holds its records (the baseline indexes its vector), so the
     * record is found by the same arithmetic as in count_update, not by a
     * library call per set.
     */
    void *record(size_t i)
    {
        return blocks + i * block + rec_offset;
    }
    ~zor_setup()
    {
        zor_reg_ds_destroy(ds);
        zor_reg_db_destroy(&db);
        free(blocks);
    }
};

/* ---- the baseline ---------------------------------------------------------- */

struct base_rec {
    int value;
    bool is_set;
};

struct base_subscriber {
    std::unordered_set<base_rec *> changed;
    std::function<bool(base_rec *)> cb;
};

struct base_registry {
    std::vector<std::function<void(base_rec *, const int *)>> observers; /* of the one field */
    std::vector<base_subscriber *> subscribers;                          /* of the one field */

    void set(base_rec *r, const int *value)
    {
        if (r->is_set && r->value == *value)
            return;
        for (auto &o : observers)
            o(r, value);
        r->value = *value;
        r->is_set = true;
        for (base_subscriber *s : subscribers)
            s->changed.insert(r);
    }
    void drain()
    {
        bool work = true;
        while (work) {
            work = false;
            for (base_subscriber *s : subscribers) {
                if (s->changed.empty())
                    continue;
                work = true;
                std::unordered_set<base_rec *> batch;
                batch.swap(s->changed);
                for (base_rec *r : batch)
                    s->cb(r);
            }
        }
    }
};

struct base_setup {
    base_registry reg;
    base_subscriber sub;
    std::vector<base_rec> recs;

    explicit base_setup(size_t n) : recs(n)
    {
        reg.observers.push_back([](base_rec *, const int *) { notified++; });
        sub.cb = [](base_rec *r) {
            delivered += r->value != 0;
            return true;
        };
        reg.subscribers.push_back(&sub);
    }
};

constexpr size_t round_size = 1024;

/* ---- field set ------------------------------------------------------------- */

void BM_FieldSetChanged_Zor(benchmark::State &st)
{
    zor_setup z(round_size);
    int v = 1;
    for (auto _ : st) {
        v++;
        for (size_t i = 0; i < round_size; i++)
            zor_reg_field_set(z.record(i), z.field, &v);
        zor_reg_process(z.ds);
    }
    st.SetItemsProcessed(st.iterations() * round_size);
}
BENCHMARK(BM_FieldSetChanged_Zor);

void BM_FieldSetChanged_Baseline(benchmark::State &st)
{
    base_setup b(round_size);
    int v = 1;
    for (auto _ : st) {
        v++;
        for (size_t i = 0; i < round_size; i++)
            b.reg.set(&b.recs[i], &v);
        b.reg.drain();
    }
    st.SetItemsProcessed(st.iterations() * round_size);
}
BENCHMARK(BM_FieldSetChanged_Baseline);

/*
 * The same sets without the drain: after the first round every record is
 * already queued, so each set is notifier, store and the duplicate check
 * (the queued bit; the baseline's set lookup).
 */
void BM_FieldSetChangedQueued_Zor(benchmark::State &st)
{
    zor_setup z(round_size);
    int v = 1;
    for (auto _ : st) {
        v++;
        for (size_t i = 0; i < round_size; i++)
            zor_reg_field_set(z.record(i), z.field, &v);
    }
    st.SetItemsProcessed(st.iterations() * round_size);
}
BENCHMARK(BM_FieldSetChangedQueued_Zor);

void BM_FieldSetChangedQueued_Baseline(benchmark::State &st)
{
    base_setup b(round_size);
    int v = 1;
    for (auto _ : st) {
        v++;
        for (size_t i = 0; i < round_size; i++)
            b.reg.set(&b.recs[i], &v);
    }
    st.SetItemsProcessed(st.iterations() * round_size);
}
BENCHMARK(BM_FieldSetChangedQueued_Baseline);

void BM_FieldSetUnchanged_Zor(benchmark::State &st)
{
    zor_setup z(1);
    int v = 5;
    zor_reg_field_set(z.record(0), z.field, &v);
    zor_reg_process(z.ds);
    void *r = z.record(0);
    for (auto _ : st) {
        benchmark::DoNotOptimize(r);
        zor_reg_field_set(r, z.field, &v);
    }
}
BENCHMARK(BM_FieldSetUnchanged_Zor);

void BM_FieldSetUnchanged_Baseline(benchmark::State &st)
{
    base_setup b(1);
    int v = 5;
    b.reg.set(&b.recs[0], &v);
    b.reg.drain();
    base_rec *r = &b.recs[0];
    for (auto _ : st) {
        benchmark::DoNotOptimize(r);
        b.reg.set(r, &v);
    }
}
BENCHMARK(BM_FieldSetUnchanged_Baseline);

/* ---- processing ------------------------------------------------------------ */

void BM_Process_Zor(benchmark::State &st)
{
    size_t n = st.range(0);
    zor_setup z(n, false);
    int v = 1;
    for (auto _ : st) {
        st.PauseTiming();
        v++;
        for (size_t i = 0; i < n; i++)
            zor_reg_field_set(z.record(i), z.field, &v);
        st.ResumeTiming();
        zor_reg_process(z.ds);
    }
    st.SetItemsProcessed(st.iterations() * n);
}
BENCHMARK(BM_Process_Zor)->Arg(10000);

void BM_Process_Baseline(benchmark::State &st)
{
    size_t n = st.range(0);
    base_setup b(n);
    b.reg.observers.clear();
    int v = 1;
    for (auto _ : st) {
        st.PauseTiming();
        v++;
        for (size_t i = 0; i < n; i++)
            b.reg.set(&b.recs[i], &v);
        st.ResumeTiming();
        b.reg.drain();
    }
    st.SetItemsProcessed(st.iterations() * n);
}
BENCHMARK(BM_Process_Baseline)->Arg(10000);

/*
 * 1000 random records of `live` changed per iteration (not timed: a set of
 * a random record among many costs a cache miss in any design), then
 * processed (timed).
 */
void BM_ProcessScaling_Zor(benchmark::State &st)
{
    size_t live = st.range(0);
    zor_setup z(live, false);
    std::mt19937 rng(7);
    std::vector<size_t> picks(1000);
    int v = 1;
    for (auto _ : st) {
        st.PauseTiming();
        for (size_t &p : picks)
            p = rng() % live;
        v++;
        for (size_t p : picks)
            zor_reg_field_set(z.record(p), z.field, &v);
        st.ResumeTiming();
        zor_reg_process(z.ds);
    }
    st.SetItemsProcessed(st.iterations() * picks.size());
}
BENCHMARK(BM_ProcessScaling_Zor)->Arg(10000)->Arg(1000000);

void BM_ProcessScaling_Baseline(benchmark::State &st)
{
    size_t live = st.range(0);
    base_setup b(live);
    b.reg.observers.clear();
    std::mt19937 rng(7);
    std::vector<size_t> picks(1000);
    int v = 1;
    for (auto _ : st) {
        st.PauseTiming();
        for (size_t &p : picks)
            p = rng() % live;
        v++;
        for (size_t p : picks)
            b.reg.set(&b.recs[p], &v);
        st.ResumeTiming();
        b.reg.drain();
    }
    st.SetItemsProcessed(st.iterations() * picks.size());
}
BENCHMARK(BM_ProcessScaling_Baseline)->Arg(10000)->Arg(1000000);

/* ---- the round scenario ------------------------------------------------------
 *
 * Records of four int fields; every field has one notifier that reads the
 * old value, and one update registration (one subscriber) watches all
 * four. A round sets 1000 random fields of random records (picked ahead of
 * time, the same picks for every design) to a new value and processes.
 * Designs:
 *  - Zor: a caller-defined 4-byte type (write and cmp_eq of its own);
 *  - ZorBuiltin: the library's own "int" type;
 *  - Dirty: a dirty bit in each record and a std::vector of changed records
 *    per subscriber, plain function pointers (what one would write by hand
 *    for exactly this program: the baseline that counts);
 *  - Naive: per-field std::function observers, an unordered_set per
 *    subscriber;
 *  - Signals2 / Sigc: the field notifiers as Boost.Signals2 or libsigc++
 *    signals, changed records gathered as in Dirty.
 */

constexpr int round_fields = 4;
constexpr size_t round_changes = 1000;
constexpr size_t pick_count = 1 << 16;

struct round_rec {
    int f[round_fields];
};

struct pick {
    uint32_t rec;
    uint32_t field;
};

/* The same pseudo-random (record, field) sequence for every design. */
std::vector<pick> make_picks(size_t n)
{
    std::mt19937 rng(11);
    std::vector<pick> picks(pick_count);
    for (pick &p : picks) {
        p.rec = uint32_t(rng() % n);
        p.field = uint32_t(rng() % round_fields);
    }
    return picks;
}

uint64_t old_sum;

void round_notify(void *rec, const zor_reg_field_info *field, int, const void *, void *)
{
    old_sum += *reinterpret_cast<const int *>(static_cast<const char *>(rec) + field->offset);
}

int round_update(zor_reg_cb_info *, zor_iter *entries, void *)
{
    zor_reg_entry *e;
    ZOR_ITER_FOREACH (entries, e) {
        delivered += reinterpret_cast<round_rec *>(reinterpret_cast<char *>(e) + rec_offset)->f[0];
    }
    return 1;
}

struct zor_round {
    zor_dict types;
    zor_reg_db db;
    zor_reg_rec_info *kind;
    zor_reg_field_info *fields[round_fields];
    zor_reg_ds *ds;
    uint64_t block;
    char *blocks;

    zor_round(size_t n, bool builtin)
    {
        const zor_datatype_info *type = &int_type;
        zor_datatype_db_init(&types, 64);
        if (builtin)
            type = zor_datatype_info_id(&types, ZOR_DATATYPE_ID_INT);
        zor_reg_db_init(&db);
        kind = zor_reg_db_rec_add(&db);
        for (int k = 0; k < round_fields; k++)
            fields[k] =
                zor_reg_db_rec_add_field(kind, offsetof(round_rec, f) + k * sizeof(int), type);
        zor_reg_db_rec_set_offsets(kind, rec_offset, sizeof(round_rec));
        ds = zor_reg_ds_init(&db, nullptr);
        zor_reg_rec_update *reg = zor_register_rec_update(ds, kind, 0, round_update, nullptr);
        for (zor_reg_field_info *f : fields) {
            zor_register_field_update(ds, f, round_notify, nullptr);
            zor_reg_rec_update_field_add(reg, f);
        }
        zor_reg_enable(reg, 0);
        zor_reg_process(ds);
        block = (zor_reg_rec_size(ds, kind) + 7) & ~uint64_t(7);
        blocks = static_cast<char *>(calloc(n, block));
        for (size_t i = 0; i < n; i++)
            zor_reg_rec_created(ds, kind, reinterpret_cast<zor_reg_entry *>(blocks + i * block));
    }
    void set(const pick &p, int v)
    {
        zor_reg_field_set(blocks + p.rec * block + rec_offset, fields[p.field], &v);
    }
    void process()
    {
        zor_reg_process(ds);
    }
    ~zor_round()
    {
        zor_reg_ds_destroy(ds);
        zor_reg_db_destroy(&db);
        zor_dict_destroy(&types);
        free(blocks);
    }
};

/* Dirty bit and vector: one bit per subscriber in each record (one subscriber here). */
struct dirty_rec {
    int f[round_fields];
    uint8_t dirty;
};
using dirty_notify_fn = void (*)(dirty_rec *r, int field, int new_value, void *ctx);
using dirty_update_fn = void (*)(dirty_rec *const *recs, size_t count, void *ctx);

void dirty_notify(dirty_rec *r, int field, int, void *)
{
    old_sum += r->f[field];
}

void dirty_update(dirty_rec *const *recs, size_t count, void *)
{
    for (size_t i = 0; i < count; i++)
        delivered += recs[i]->f[0];
}

/* The changed records of one subscriber: a dirty bit in each record and a vector. */
struct dirty_changes {
    std::vector<dirty_rec *> changed, batch;

    void mark(dirty_rec *r)
    {
        if (!r->dirty) {
            r->dirty = 1;
            changed.push_back(r);
        }
    }
    /* Delivers batches until no change is left (an update may change records again). */
    void drain(dirty_update_fn update)
    {
        while (!changed.empty()) {
            batch.swap(changed);
            for (dirty_rec *r : batch)
                r->dirty = 0;
            update(batch.data(), batch.size(), nullptr);
            batch.clear();
        }
    }
};

struct dirty_round {
    struct observer {
        dirty_notify_fn fn;
        void *ctx;
    };
    std::vector<observer> observers[round_fields];
    dirty_changes changes;
    dirty_update_fn update = dirty_update;
    std::vector<dirty_rec> recs;

    explicit dirty_round(size_t n) : recs(n)
    {
        for (auto &o : observers)
            o.push_back({dirty_notify, nullptr});
    }
    void set(const pick &p, int v)
    {
        dirty_rec *r = &recs[p.rec];
        if (r->f[p.field] == v)
            return;
        for (const observer &o : observers[p.field])
            o.fn(r, int(p.field), v, o.ctx);
        r->f[p.field] = v;
        changes.mark(r);
    }
    void process()
    {
        changes.drain(update);
    }
};

/* Per-field std::function observers, an unordered_set per subscriber. */
struct naive_round {
    std::vector<std::function<void(round_rec *, int, int)>> observers[round_fields];
    std::unordered_set<round_rec *> changed;
    std::function<void(round_rec *)> update;
    std::vector<round_rec> recs;

    explicit naive_round(size_t n) : recs(n)
    {
        for (auto &o : observers)
            o.push_back([](round_rec *r, int field, int) { old_sum += r->f[field]; });
        update = [](round_rec *r) { delivered += r->f[0]; };
    }
    void set(const pick &p, int v)
    {
        round_rec *r = &recs[p.rec];
        if (r->f[p.field] == v)
            return;
        for (auto &o : observers[p.field])
            o(r, int(p.field), v);
        r->f[p.field] = v;
        changed.insert(r);
    }
    void process()
    {
        while (!changed.empty()) {
            std::unordered_set<round_rec *> batch;
            batch.swap(changed);
            for (round_rec *r : batch)
                update(r);
        }
    }
};

/* A signal library's signal per field as the notifier; changes gathered as in Dirty. */
template <class Signal> struct signal_round {
    Signal signals[round_fields];
    dirty_changes changes;
    std::vector<dirty_rec> recs;

    explicit signal_round(size_t n) : recs(n)
    {
        for (Signal &s : signals)
            s.connect([](dirty_rec *r, int field, int) { old_sum += r->f[field]; });
    }
    void set(const pick &p, int v)
    {
        dirty_rec *r = &recs[p.rec];
        if (r->f[p.field] == v)
            return;
        signals[p.field](r, int(p.field), v);
        r->f[p.field] = v;
        changes.mark(r);
    }
    void process()
    {
        changes.drain(dirty_update);
    }
};

#ifdef ZOR_BENCH_SIGNALS2
using signals2_round = signal_round<boost::signals2::signal<void(dirty_rec *, int, int)>>;
#endif
#ifdef ZOR_BENCH_SIGC
using sigc_round = signal_round<sigc::signal<void, dirty_rec *, int, int>>;
#endif

/* Rounds of round_changes sets, each to a value no record holds yet, then processing. */
template <class Design> void round_bench(benchmark::State &st, Design &d)
{
    std::vector<pick> picks = make_picks(size_t(st.range(0)));
    size_t at = 0;
    int v = 1;
    for (auto _ : st) {
        for (size_t i = 0; i < round_changes; i++) {
            d.set(picks[at], ++v);
            at = (at + 1) & (pick_count - 1);
        }
        d.process();
    }
    st.SetItemsProcessed(int64_t(st.iterations() * round_changes));
}

void BM_Round_Zor(benchmark::State &st)
{
    zor_round d(size_t(st.range(0)), false);
    round_bench(st, d);
}

void BM_Round_ZorBuiltin(benchmark::State &st)
{
    zor_round d(size_t(st.range(0)), true);
    round_bench(st, d);
}

void BM_Round_Dirty(benchmark::State &st)
{
    dirty_round d(size_t(st.range(0)));
    round_bench(st, d);
}

void BM_Round_Naive(benchmark::State &st)
{
    naive_round d(size_t(st.range(0)));
    round_bench(st, d);
}

#ifdef ZOR_BENCH_SIGNALS2
void BM_Round_Signals2(benchmark::State &st)
{
    signals2_round d(size_t(st.range(0)));
    round_bench(st, d);
}
#endif

#ifdef ZOR_BENCH_SIGC
void BM_Round_Sigc(benchmark::State &st)
{
    sigc_round d(size_t(st.range(0)));
    round_bench(st, d);
}
#endif

/*
 * Registered size by size so that the designs of one size run next to
 * each other (a noisy machine hits them alike).
 */
void register_rounds()
{
    for (int64_t n : {1000, 100000, 1000000}) {
        benchmark::RegisterBenchmark("BM_Round_Dirty", BM_Round_Dirty)->Arg(n);
        benchmark::RegisterBenchmark("BM_Round_Zor", BM_Round_Zor)->Arg(n);
        benchmark::RegisterBenchmark("BM_Round_ZorBuiltin", BM_Round_ZorBuiltin)->Arg(n);
        benchmark::RegisterBenchmark("BM_Round_Naive", BM_Round_Naive)->Arg(n);
#ifdef ZOR_BENCH_SIGNALS2
        benchmark::RegisterBenchmark("BM_Round_Signals2", BM_Round_Signals2)->Arg(n);
#endif
#ifdef ZOR_BENCH_SIGC
        benchmark::RegisterBenchmark("BM_Round_Sigc", BM_Round_Sigc)->Arg(n);
#endif
    }
}

/* ---- instruction counts (bench/instructions.sh) ------------------------------
 *
 * `bench_reg --ops DESIGN PHASE` runs one phase of the round scenario over
 * 100k records with callgrind's collection switched on around the measured
 * part only, and prints the number of operations it measured; the script
 * divides callgrind's instruction total by it. Phases:
 *  - changed: rounds of changed sets and processing (per set, delivery included);
 *  - unchanged: sets of the value a field already holds (per set);
 *  - delivered: processing of records queued beforehand (per record).
 */

constexpr size_t ops_records = 100000;
constexpr size_t ops_rounds = 20;

template <class Design> size_t ops_run(Design &d, const std::string &phase)
{
    std::vector<pick> picks = make_picks(ops_records);
    size_t at = 0;
    int v = 1;
    auto next_pick = [&]() -> const pick & {
        const pick &p = picks[at];
        at = (at + 1) & (pick_count - 1);
        return p;
    };
    /* Warm up: every field of every record set once, so nothing below is a first time. */
    for (size_t i = 0; i < ops_records; i++)
        for (uint32_t k = 0; k < round_fields; k++)
            d.set(pick{uint32_t(i), k}, 1);
    d.process();
    if (phase == "changed") {
        CALLGRIND_TOGGLE_COLLECT;
        for (size_t r = 0; r < ops_rounds; r++) {
            for (size_t i = 0; i < round_changes; i++)
                d.set(next_pick(), ++v);
            d.process();
        }
        CALLGRIND_TOGGLE_COLLECT;
    } else if (phase == "unchanged") {
        CALLGRIND_TOGGLE_COLLECT;
        for (size_t r = 0; r < ops_rounds; r++)
            for (size_t i = 0; i < round_changes; i++)
                d.set(next_pick(), 1);
        CALLGRIND_TOGGLE_COLLECT;
    } else if (phase == "delivered") {
        for (size_t r = 0; r < ops_rounds; r++) {
            /* Distinct records, so that each set is one delivered record. */
            for (size_t i = 0; i < round_changes; i++)
                d.set(pick{uint32_t((r * round_changes + i) % ops_records), 0}, ++v);
            CALLGRIND_TOGGLE_COLLECT;
            d.process();
            CALLGRIND_TOGGLE_COLLECT;
        }
    } else {
        return 0;
    }
    return ops_rounds * round_changes;
}

int ops_main(const std::string &design, const std::string &phase)
{
    size_t ops = 0;
    if (design == "zor") {
        zor_round d(ops_records, false);
        ops = ops_run(d, phase);
    } else if (design == "zor-builtin") {
        zor_round d(ops_records, true);
        ops = ops_run(d, phase);
    } else if (design == "dirty") {
        dirty_round d(ops_records);
        ops = ops_run(d, phase);
    } else if (design == "naive") {
        naive_round d(ops_records);
        ops = ops_run(d, phase);
#ifdef ZOR_BENCH_SIGNALS2
    } else if (design == "signals2") {
        signals2_round d(ops_records);
        ops = ops_run(d, phase);
#endif
#ifdef ZOR_BENCH_SIGC
    } else if (design == "sigc") {
        sigc_round d(ops_records);
        ops = ops_run(d, phase);
#endif
    }
    if (ops == 0) {
        fprintf(stderr, "bench_reg --ops: unknown design or phase\n");
        return 2;
    }
    printf("%zu\n", ops);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 4 && std::string(argv[1]) == "--ops")
        return ops_main(argv[2], argv[3]);
    register_rounds();
    return bench::run_benchmarks(argc, argv);
}
