/*
 * The registry's contract where the reference model (test_reg_model.cpp) does not reach:
 * assertion texts, block layout, trace ring, pass bound, re-entry guard, destroying a store,
 * built-in against caller value types, and golden traces of the orders the model takes as given.
 */
#include "zor_test.h"
#include "zor_datatype.h"
#include "zor_reg.h"
#include "zor_reg_internal.h"

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace
{

int frees, flag_writes;
std::vector<std::string> trace;
using Trace = std::vector<std::string>;
zor_reg_ds *live_ds; /* whose records the create and delete notifiers count */

zor_datatype_info type(uint64_t size, uint32_t props, zor_datatype_copy_fn write,
                       zor_datatype_cmp_fn cmp_eq, zor_datatype_free_fn free_fn = nullptr)
{
    zor_datatype_info t = {};
    t.size = size;
    t.properties = ZOR_DATATYPE_PROP_FLATTENED | props;
    t.write = write;
    t.cmp_eq = cmp_eq;
    t.free = free_fn;
    return t;
}
void int_free(void *value, const zor_datatype_info *, const zor_reg_field_info *)
{
    frees++;
    memset(value, 0, sizeof(int));
}
void flag_write(void *, const void *src, const zor_datatype_info *)
{
    EXPECT_EQ(src, nullptr);
    flag_writes++;
}
void mem_write(void *d, const void *s, const zor_datatype_info *t)
{
    s ? memcpy(d, s, t->size) : memset(d, 0, t->size);
}
int mem_cmp_eq(const void *x, const void *y, const zor_datatype_info *t)
{
    return memcmp(x, y, t->size);
}

const zor_datatype_info int_t = type(4, 0, mem_write, mem_cmp_eq, int_free);
const zor_datatype_info plain_t = type(4, 0, mem_write, mem_cmp_eq);
const zor_datatype_info transient_t =
    type(4, ZOR_DATATYPE_PROP_RESET_ON_UNSET, mem_write, mem_cmp_eq, int_free);
const zor_datatype_info no_restore_t = type(4, ZOR_DATATYPE_PROP_NO_RESTORE, mem_write, mem_cmp_eq);
const zor_datatype_info flag_t = type(0, 0, nullptr, nullptr);
const zor_datatype_info no_cmp_t = type(4, 0, mem_write, nullptr);
const zor_datatype_info no_write_t = type(4, 0, nullptr, mem_cmp_eq);
const zor_datatype_info flag_write_t =
    type(0, ZOR_DATATYPE_PROP_RESET_ON_UNSET, flag_write, nullptr);
/* Per size 1, 2, 4, 8: the library's "mem" type, then a caller's type doing the same. */
const zor_datatype_info mem_t[8] = {
    type(1, 0, zor_datatype_copy_mem, zor_datatype_cmp_mem), type(1, 0, mem_write, mem_cmp_eq),
    type(2, 0, zor_datatype_copy_mem, zor_datatype_cmp_mem), type(2, 0, mem_write, mem_cmp_eq),
    type(4, 0, zor_datatype_copy_mem, zor_datatype_cmp_mem), type(4, 0, mem_write, mem_cmp_eq),
    type(8, 0, zor_datatype_copy_mem, zor_datatype_cmp_mem), type(8, 0, mem_write, mem_cmp_eq)};

struct Rec {
    int name;
    int a, b, c, n, nc, nw;
    char flags[3];
    uint64_t mem[8];
};

zor_reg_entry *entry_of(Rec *r)
{
    return reinterpret_cast<zor_reg_entry *>(reinterpret_cast<char *>(r) - sizeof(zor_reg_entry));
}
std::string name_of(const void *rec)
{
    return std::to_string(static_cast<const Rec *>(rec)->name);
}

/* Create ("C") and delete ("D") notifiers: the record and how many the kind holds. */
void on_rec(void *rec, void *ctx)
{
    trace.push_back(static_cast<const char *>(ctx) + name_of(rec) + "/" +
                    std::to_string(live_ds->recs[0].entries.count));
}
void on_field(void *rec, const zor_reg_field_info *field, int is_set, const void *value, void *)
{
    std::string v = value == nullptr         ? "-"
                    : field->type->size == 0 ? "p" /* a flag's place */
                                             : std::to_string(*static_cast<const int *>(value));
    trace.push_back("N" + name_of(rec) + " f" + std::to_string(field->id) + " " +
                    std::to_string(is_set) + " " + v);
}
void on_unlink(zor_reg_ds *, zor_reg_entry *e)
{
    trace.push_back("X" + name_of(zor_reg_rec(e)));
}
void on_free(zor_reg_ds *, zor_reg_entry *e)
{
    trace.push_back("F" + name_of(zor_reg_rec(e)) + " frees=" + std::to_string(frees));
    free(e);
}

/* An update registration tracing "U<name>[ resync] <records, d when deleting>@<pass>". */
struct Watch {
    std::string name;
    std::function<void(zor_reg_cb_info *, const std::vector<zor_reg_entry *> &)> action;
    zor_reg_rec_update *reg = nullptr;
};

int on_update(zor_reg_cb_info *info, zor_iter *iter, void *ctx)
{
    Watch *w = static_cast<Watch *>(ctx);
    const zor_reg_cb_trace_slot &slot = zor_reg_cb_trace[(zor_reg_cb_trace_count - 1) % 1000];
    EXPECT_EQ(slot.reg, w->reg);
    std::vector<zor_reg_entry *> entries;
    std::string line = "U" + w->name + (zor_reg_info_is_resync(info) ? " resync" : "");
    zor_reg_entry *e;
    ZOR_ITER_FOREACH (iter, e) {
        entries.push_back(e);
        line += " " + name_of(zor_reg_rec(e)) + (zor_reg_info_is_deleting(info, e) ? "d" : "");
    }
    EXPECT_EQ(zor_reg_info_count(info), entries.size());
    trace.push_back(line + "@" + std::to_string(slot.iteration));
    if (w->action)
        w->action(info, entries);
    return 1;
}

/*
 * One kind: a (with free), b, c (reset on unset), n (not restored), flags f1
 * and del (delete pending when `deletion`), nc (no cmp_eq), nw (no write),
 * fw (a flag with a write), mem[8]; notifiers on a, b, c, n, f1 and records.
 * Destroying the store must call nothing: every test checks it at its end.
 */
struct Reg {
    zor_reg_db db;
    zor_reg_rec_info *kind;
    zor_reg_field_info *a, *b, *c, *n, *f1, *del, *nc, *nw, *fw, *mem[8];
    zor_reg_ds *ds;
    std::deque<Watch> watches;

    explicit Reg(bool deletion = true)
    {
        trace.clear();
        frees = flag_writes = 0;
        zor_reg_db_init(&db);
        kind = zor_reg_db_rec_add(&db);
        a = zor_reg_db_rec_add_field(kind, offsetof(Rec, a), &int_t);
        b = zor_reg_db_rec_add_field(kind, offsetof(Rec, b), &plain_t);
        c = zor_reg_db_rec_add_field(kind, offsetof(Rec, c), &transient_t);
        n = zor_reg_db_rec_add_field(kind, offsetof(Rec, n), &no_restore_t);
        f1 = zor_reg_db_rec_add_field(kind, offsetof(Rec, flags), &flag_t);
        del = zor_reg_db_rec_add_field(kind, offsetof(Rec, flags) + 1, &flag_t);
        nc = zor_reg_db_rec_add_field(kind, offsetof(Rec, nc), &no_cmp_t);
        nw = zor_reg_db_rec_add_field(kind, offsetof(Rec, nw), &no_write_t);
        fw = zor_reg_db_rec_add_field(kind, offsetof(Rec, flags) + 2, &flag_write_t);
        for (int i = 0; i < 8; i++)
            mem[i] = zor_reg_db_rec_add_field(kind, offsetof(Rec, mem) + 8 * i, &mem_t[i]);
        if (deletion)
            zor_reg_db_rec_set_deletion_info(kind, del, on_unlink, on_free);
        zor_reg_db_rec_set_offsets(kind, sizeof(zor_reg_entry), sizeof(Rec));
        live_ds = ds = zor_reg_ds_init(&db, this);
        for (zor_reg_field_info *f : {a, b, c, n, f1})
            zor_register_field_update(ds, f, on_field, nullptr);
        zor_register_rec_create(ds, kind, on_rec, const_cast<char *>("C"), 0);
        zor_register_rec_delete(ds, kind, on_rec, const_cast<char *>("D"));
    }
    ~Reg()
    {
        for (Watch &w : watches) /* they would see the records go, with the test's locals gone */
            zor_reg_disable(w.reg);
        if (ds->snapshot_active)
            zor_reg_discard_snapshot(ds);
        std::vector<zor_reg_entry *> blocks;
        for (auto *e = static_cast<zor_reg_entry *>(ds->recs[0].entries.first); e != nullptr;
             e = static_cast<zor_reg_entry *>(e->link.next))
            blocks.push_back(e);
        trace.clear();
        const int frees_before = frees;
        zor_reg_ds_destroy(ds);
        EXPECT_TRUE(trace.empty());
        EXPECT_EQ(frees, frees_before);
        for (zor_reg_entry *e : blocks)
            free(e);
        zor_reg_db_destroy(&db);
    }
    Rec *make(int name, int a_value = 0)
    {
        auto *e = static_cast<zor_reg_entry *>(calloc(1, zor_reg_rec_size(ds, kind)));
        Rec *r = static_cast<Rec *>(static_cast<void *>(e + 1));
        r->name = name;
        zor_reg_rec_created(ds, kind, e);
        if (a_value != 0)
            zor_reg_field_set(r, a, &a_value);
        return r;
    }
    Watch &watch(const char *name, uint32_t flags, std::vector<zor_reg_field_info *> fields)
    {
        Watch &w = watches.emplace_back();
        w.name = name;
        w.reg = zor_register_rec_update(ds, kind, flags, on_update, &w);
        for (zor_reg_field_info *f : fields)
            zor_reg_rec_update_field_add(w.reg, f);
        zor_reg_enable(w.reg, 0);
        return w;
    }
    /* Processes what is queued, then clears the trace. */
    void settle()
    {
        zor_reg_process(ds);
        trace.clear();
    }
};

} // namespace

TEST(RegContract, BrokenPreconditionsStopWithTheirText)
{
    static int one = 1;
    struct Case {
        const char *function, *text;
        std::function<void(Reg &)> run;
        bool deletion = true;
    };
    const Case cases[] = {
        {"zor_reg_db_rec_add_field", "(datatype_info->properties & 0x10) != 0",
         [](Reg &s) {
             zor_datatype_info t = int_t;
             t.properties = 0;
             zor_reg_db_rec_add_field(s.kind, 0, &t);
         }},
        {"zor_reg_db_field_set_default", "value != ((void *)0)",
         [](Reg &s) { zor_reg_db_field_set_default(s.a, nullptr, nullptr); }},
        {"zor_reg_db_field_set_default",
         "ctrl_flag == ((void *)0) || ctrl_flag->rec_info == field->rec_info",
         [](Reg &s) {
             zor_reg_rec_info *other = zor_reg_db_rec_add(&s.db);
             zor_reg_db_field_set_default(s.a, zor_reg_db_rec_add_field(other, 0, &flag_t), &one);
         }},
        {"zor_reg_db_field_set_default", "field->default_value == ((void *)0)",
         [](Reg &s) {
             zor_reg_db_field_set_default(s.b, nullptr, &one);
             zor_reg_db_field_set_default(s.b, nullptr, &one);
         }},
        {"zor_reg_db_rec_set_deletion_info", "rec->delete_pending == -1",
         [](Reg &s) { zor_reg_db_rec_set_deletion_info(s.kind, s.del, nullptr, nullptr); }},
        {"zor_reg_ds_rec", "rec_info->id < ds->rec_count",
         [](Reg &s) {
             Reg t;
             zor_reg_rec_size(s.ds, zor_reg_db_rec_add(&t.db));
         }},
        {"zor_reg_ds_rec", "ds_rec->rec_info == rec_info",
         [](Reg &s) { zor_reg_rec_size(s.ds, Reg().kind); }},
        {"zor_reg_ds_field", "field->id < ds_rec->field_count",
         [](Reg &s) {
             zor_reg_field_info *late = zor_reg_db_rec_add_field(s.kind, 0, &flag_t);
             zor_register_field_update(s.ds, late, nullptr, nullptr);
         }},
        {"zor_reg_ds_field", "ds_field->field_info == field",
         [](Reg &s) {
             zor_reg_field_info impostor = *s.a; /* right kind and id, another field info */
             zor_register_field_update(s.ds, &impostor, nullptr, nullptr);
         }},
        {"zor_reg_rec_entry", "hdr->ds_rec->rec_info == rec_info",
         [](Reg &s) { zor_reg_field_set(Reg().make(2), s.a, &one); }},
        {"zor_reg_rec_free", "rec_hdr->backup == ((void *)0)",
         [](Reg &s) {
             Rec *r = s.make(1);
             entry_of(r)->backup = r;
             zor_reg_rec_free(entry_of(r));
         }},
        {"zor_reg_rec_created", "!rec_hdr->snapshot_created && !rec_hdr->snapshot_updated",
         [](Reg &s) {
             zor_reg_take_snapshot(s.ds);
             zor_reg_rec_created(s.ds, s.kind, entry_of(s.make(1)));
         }},
        {"zor_reg_rec_created", "rec_hdr->snapshot_created || rec_hdr->snapshot_updated",
         [](Reg &s) {
             Rec *r = s.make(1);
             zor_reg_take_snapshot(s.ds);
             zor_reg_rec_deleted(entry_of(r));
             entry_of(r)->snapshot_deleted = 1; /* in no snapshot bucket */
             zor_reg_rec_created(s.ds, s.kind, entry_of(r));
         }},
        {"zor_reg_rec_created", "rec_hdr->ds_rec == ds_rec",
         [](Reg &s) {
             Reg t;
             Rec *r = t.make(1);
             zor_reg_take_snapshot(s.ds);
             entry_of(r)->snapshot_deleted = entry_of(r)->snapshot_updated = 1;
             zor_reg_rec_created(s.ds, s.kind, entry_of(r));
         }},
        {"zor_reg_flag_set", "field->type->size == 0",
         [](Reg &s) { zor_reg_flag_set(s.make(1), s.a, 1); }},
        {"zor_reg_entry_changed", "!hdr->changes_prohibited",
         [](Reg &s) {
             Rec *r = s.make(1);
             entry_of(r)->changes_prohibited = 1; /* b is watched by nobody: refused all the same */
             zor_reg_field_set(r, s.b, &one);
         }},
        {"zor_reg_entry_changed", "!hdr->changes_prohibited",
         [](Reg &s) {
             Rec *r = s.make(1, 5); /* a set value that changes takes the other path */
             entry_of(r)->changes_prohibited = 1;
             zor_reg_field_set(r, s.a, &one);
         }},
        {"zor_reg_rec_delete_pending", "flag",
         [](Reg &s) {
             Rec *r = s.make(1);
             zor_reg_flag_set(r, s.del, 1);
             zor_reg_flag_set(r, s.del, 0);
         }},
        {"zor_reg_rec_delete_pending", "!zor_reg_entry_delete_pending(entry)",
         [](Reg &s) {
             Rec *r = s.make(1);
             zor_reg_flag_set(r, s.del, 1);
             zor_reg_rec_delete_pending(r, s.del, 1, &r->flags[1], nullptr);
         }},
        {"zor_reg_process", "!zor_reg_in_cb_processing",
         [](Reg &s) {
             s.watch("A", 0, {s.a}).action = [&s](auto, auto &) { zor_reg_process(s.ds); };
             zor_reg_process(s.ds);
             s.make(1, 1);
             zor_reg_process(s.ds);
         }},
        {"zor_reg_info_iter", "!info->is_partitioned",
         [](Reg &s) {
             s.watch("A", 0, {s.a}).action = [](zor_reg_cb_info *info, auto &) {
                 zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
                 zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
             };
             zor_reg_process(s.ds);
             s.make(1, 1);
             zor_reg_process(s.ds);
         }},
        {"zor_reg_info_iter", "!info->resync || info->del_count == 0",
         [](Reg &s) {
             /* A resynced record loses its watched field before the split. */
             s.make(1, 1);
             auto cb = [](zor_reg_cb_info *info, zor_iter *iter, void *ctx) {
                 zor_reg_field_set(zor_reg_rec(static_cast<zor_reg_entry *>(zor_iter_first(iter))),
                                   static_cast<Reg *>(ctx)->a, nullptr);
                 zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
                 return 1;
             };
             zor_reg_enable(zor_register_rec_update_v(s.ds, s.kind, 0, cb, &s, 1, s.a), 1);
             zor_reg_process(s.ds);
         }},
        {"zor_reg_take_snapshot", "!ds->snapshot_active",
         [](Reg &s) {
             zor_reg_take_snapshot(s.ds);
             zor_reg_take_snapshot(s.ds);
         }},
        {"zor_reg_discard_snapshot", "ds->snapshot_active",
         [](Reg &s) { zor_reg_discard_snapshot(s.ds); }},
        {"zor_reg_restore_snapshot", "ds->snapshot_active",
         [](Reg &s) { zor_reg_restore_snapshot(s.ds); }},
        {"zor_reg_db_rec_rmv_cb", "!zor_reg_info_is_resync(cb_info)",
         [](Reg &s) {
             zor_reg_resync(s.ds->recs[0].rmv_reg);
             zor_reg_process(s.ds);
         }},
        {"zor_reg_snapshot_record_restore", "delete_flag_idx != -1",
         [](Reg &s) {
             Rec *r = s.make(1, 5);
             zor_reg_take_snapshot(s.ds);
             zor_reg_field_set(r, s.a, &one);
             zor_reg_restore_snapshot(s.ds);
         },
         false},
    };
    for (const Case &c : cases) {
        Reg s(c.deletion);
        ZOR_EXPECT_ASSERT(c.run(s), c.function, c.text) << c.text;
    }
}

TEST(RegContract, BlockLayoutAndGrowth)
{
    zor_reg_db db;
    zor_reg_db_init(&db);
    /* Set, snapshot and queued bits follow the record, a byte per 8 fields each. */
    struct {
        int fields;
        uint64_t set, snapshot, queued, size, backup_bits, backup_size;
    } const layouts[] = {
        {0, 88, 88, 88, 88, 24, 24},
        {8, 88, 89, 90, 90, 24, 25},
        {9, 88, 90, 92, 92, 24, 26},
    };
    std::vector<zor_reg_rec_info *> kinds;
    for (const auto &l : layouts) {
        zor_reg_rec_info *k = zor_reg_db_rec_add(&db);
        for (int i = 0; i < l.fields; i++)
            zor_reg_db_rec_add_field(k, 4 * i, i % 2 ? &flag_t : &int_t);
        zor_reg_db_rec_set_offsets(k, 64, 24);
        EXPECT_EQ((std::vector<uint64_t>{k->bitfield_offset, k->snapshot_bitfield_offset,
                                         k->reg_bitfield_offset, k->size, k->backup_bitfield_offset,
                                         k->backup_size}),
                  (std::vector<uint64_t>{l.set, l.snapshot, l.queued, l.size, l.backup_bits,
                                         l.backup_size}))
            << l.fields;
        kinds.push_back(k);
    }
    /* Each store adds a byte of queued bits with its 1st and its 9th update registration. */
    zor_reg_ds *one = zor_reg_ds_init(&db, nullptr);
    zor_reg_field_info **listed = kinds[1]->clear_on_destroy; /* the fields to free, once */
    zor_reg_ds *two = zor_reg_ds_init(&db, nullptr);
    EXPECT_EQ(kinds[1]->clear_on_destroy, listed);
    for (int i = 1; i <= 9; i++) {
        zor_register_rec_update(one, kinds[2], 0, on_update, nullptr);
        EXPECT_EQ(zor_reg_rec_size(one, kinds[2]), 92u + (i + 7) / 8) << i;
    }
    EXPECT_EQ(zor_reg_rec_size(two, kinds[2]), 92u);
    zor_reg_ds_destroy(one);
    zor_reg_ds_destroy(two);
    zor_reg_db_destroy(&db);

    /* A schema without kinds makes a store that processes nothing. */
    zor_reg_db_init(&db);
    zor_reg_ds *none = zor_reg_ds_init(&db, nullptr);
    zor_reg_process(none);
    zor_reg_ds_destroy(none);
    zor_reg_db_destroy(&db);
}

TEST(RegContract, TraceRingWrapsAfterAThousandCalls)
{
    Reg s;
    std::vector<zor_reg_rec_update *> regs;
    for (int i = 0; i < 1001; i++) {
        regs.push_back(zor_register_rec_update_v(
            s.ds, s.kind, 0, [](zor_reg_cb_info *, zor_iter *, void *) { return 1; }, nullptr, 1,
            s.a));
        zor_reg_enable(regs.back(), 1);
    }
    zor_reg_process(s.ds);
    EXPECT_EQ(zor_reg_cb_trace_count, 1001u);
    /* Served newest first: call k serves regs[1000 - k]; call 1000 lands in slot 0. */
    EXPECT_EQ(zor_reg_cb_trace[0].reg, regs[0]);
    EXPECT_EQ(zor_reg_cb_trace[1].reg, regs[999]);
    EXPECT_EQ(zor_reg_cb_trace[999].reg, regs[1]);
    EXPECT_EQ(zor_reg_cb_trace[0].resync, 1u);
    EXPECT_EQ(zor_reg_cb_trace[0].iteration, 0u);
    EXPECT_EQ(zor_reg_rec_size(s.ds, s.kind), s.kind->size + 126); /* 1002 queued bits */
}

TEST(RegContract, PassBoundAndReentryGuard)
{
    /* A callback that changes what it watches until a is `last`: one pass per value. */
    auto run = [](int last) {
        Reg s;
        Rec *r = s.make(1);
        s.watch("A", 0, {s.a}).action = [&](auto, auto &) {
            if (r->a < last) {
                int next = r->a + 1;
                zor_reg_field_set(r, s.a, &next);
            }
        };
        zor_reg_process(s.ds);
        int first = 1;
        zor_reg_field_set(r, s.a, &first);
        zor_reg_process(s.ds);
        return zor_reg_cb_trace_count;
    };
    EXPECT_EQ(run(98), 98u);
    ZOR_EXPECT_ASSERT(run(99), "zor_reg_process", "iterations < 100");
    /* Creating a data store clears the guard a stopped processing call left. */
    zor_reg_in_cb_processing = 1;
    Reg s;
    EXPECT_EQ(zor_reg_in_cb_processing, 0u);
}

/* Built-in "mem" types are compared and stored inline: each must act as the caller's type of its
 * size. Values differ in one byte at a time, the last included, then the same value again. */
TEST(RegContract, BuiltInTypesBehaveAsCallerTypes)
{
    Reg s;
    Rec *r = s.make(1);
    std::string seen[8];
    for (int i = 0; i < 8; i++)
        zor_register_field_update(
            s.ds, s.mem[i],
            [](void *, const zor_reg_field_info *, int is_set, const void *, void *ctx) {
                *static_cast<std::string *>(ctx) += is_set ? "s" : "u";
            },
            &seen[i]);
    for (int i = 0; i < 8; i += 2) {
        const uint64_t size = mem_t[i].size;
        uint8_t v[8] = {};
        for (uint64_t byte = 0; byte <= size; byte++) {
            if (byte < size)
                v[byte] ^= 0x80;
            zor_reg_field_set(r, s.mem[i], v);
            zor_reg_field_set(r, s.mem[i + 1], v);
            EXPECT_EQ(memcmp(&r->mem[i], v, size), 0) << size;
            EXPECT_EQ(memcmp(&r->mem[i + 1], v, size), 0) << size;
        }
        zor_reg_field_set(r, s.mem[i], nullptr);
        zor_reg_field_set(r, s.mem[i + 1], nullptr);
        EXPECT_EQ(seen[i], std::string(size, 's') + "u") << size;
        EXPECT_EQ(seen[i + 1], seen[i]) << size;
    }
}

/* A type without cmp_eq never changes once set; one without write stores nothing. */
TEST(RegContract, TypesWithoutCompareOrWrite)
{
    Reg s;
    Rec *r = s.make(1);
    int five = 5, six = 6;
    zor_reg_field_set(r, s.nc, &five);
    zor_reg_field_set(r, s.nc, &six);
    EXPECT_EQ(r->nc, 5);
    zor_reg_field_set(r, s.nw, &six);
    EXPECT_EQ(zor_reg_field_get(r, s.nw), &r->nw);
    EXPECT_EQ(r->nw, 0);
    zor_reg_flag_set(r, s.fw, 1); /* a flag's write sees no value, on set and on reset */
    zor_reg_flag_set(r, s.fw, 0);
    EXPECT_EQ(flag_writes, 2);
}

TEST(RegContract, PassOrderAcrossLevels)
{
    Reg s;
    s.watch("A", 0, {s.a});
    Watch &B = s.watch("B", 0, {s.a});
    Watch &C = s.watch("C", ZOR_REG_LEVEL_1, {s.a});
    Watch &D = s.watch("D", ZOR_REG_LEVEL_2 | ZOR_REG_LEVEL_1, {s.a});
    s.watch("E", 0, {s.b});
    Rec *r1 = s.make(1), *r2 = s.make(2);
    s.settle();
    /* B, served first, changes r1 again once: r1 is queued anew for the next pass. */
    int one = 1, two = 2;
    B.action = [&](auto, auto &) {
        if (r1->a == 1)
            zor_reg_field_set(r1, s.a, &two);
    };
    /* C (level 1) changes b, watched by E on level 0: E comes before D (level 2). */
    C.action = [&](auto, const std::vector<zor_reg_entry *> &entries) {
        for (zor_reg_entry *e : entries)
            zor_reg_field_set(zor_reg_rec(e), s.b, &one);
    };
    zor_reg_field_set(r1, s.a, &one);
    zor_reg_field_set(r2, s.a, &one);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace,
              (Trace{"N1 f0 1 1", "N2 f0 1 1", "UB 1 2@1", "N1 f0 1 2", "UA 1 2@1", "UB 1@2",
                     "UA 1@2", "UC 1 2@3", "N1 f1 1 1", "N2 f1 1 1", "UE 1 2@4", "UD 1 2@5"}));
    EXPECT_EQ(zor_reg_cb_trace[4].reg, C.reg);
    EXPECT_EQ(zor_reg_cb_trace[4].count, 2u);
    EXPECT_EQ(zor_reg_cb_trace[4].resync, 0u);
    /* Removal: levels 0 and 1 see r1 deleting, the delete notifier comes before unlinking and the
     * values' free before the block's (what level 2 sees of it is not settled). */
    C.action = nullptr;
    zor_reg_disable(D.reg);
    trace.clear();
    zor_reg_flag_set(r1, s.del, 1);
    EXPECT_TRUE(zor_reg_info_is_record_deleting(entry_of(r1)));
    zor_reg_process(s.ds);
    EXPECT_EQ(trace,
              (Trace{"UB 1d@1", "UA 1d@1", "UE 1d@1", "UC 1d@2", "D1/2", "X1", "F1 frees=2"}));
}

TEST(RegContract, RestoreOrder)
{
    Reg s;
    s.watch("u", 0, {s.a});
    Rec *r = s.make(1, 5);
    int one = 1, six = 6, seven = 7, nine = 9;
    zor_reg_flag_set(r, s.f1, 1);
    zor_reg_field_set(r, s.b, &one);
    s.settle();
    zor_reg_take_snapshot(s.ds);
    zor_reg_field_set(r, s.a, &six);
    zor_reg_field_set(r, s.a, &seven);  /* backed up once: still 5 */
    zor_reg_field_set(r, s.b, nullptr); /* unset leaves the bytes; no backup needed */
    zor_reg_field_set(r, s.c, &nine);   /* unset at the take */
    zor_reg_field_set(r, s.n, &nine);   /* never restored */
    zor_reg_flag_set(r, s.f1, 0);
    trace.clear();
    zor_reg_restore_snapshot(s.ds);
    /*
     * What the snapshot's changes queued is delivered first; then backed-up
     * values go back through the setter, set states in field order, and the
     * registrations hear of it.
     */
    EXPECT_EQ(trace,
              (Trace{"Uu 1@1", "N1 f0 1 5", "N1 f1 1 1", "N1 f2 0 -", "N1 f4 1 p", "Uu 1@1"}));
    EXPECT_EQ(r->a, 5);
    EXPECT_EQ(r->c, 0); /* reset: a transient type */
    EXPECT_EQ(*static_cast<const int *>(zor_reg_field_get(r, s.n)), 9);
}

/* Created (and notified, after linking) during a snapshot, maybe deleted, then kept or undone. */
TEST(RegContract, RecordCreatedDuringASnapshot)
{
    struct {
        bool deleted, restore;
        Trace expected;
    } const cases[] = {
        {false, false, {}},
        {false, true, {"D2/2", "X2", "F2 frees=2"}},
        {true, false, {"X2", "F2 frees=2"}},
        {true, true, {"X2", "F2 frees=2"}},
    };
    for (const auto &c : cases) {
        Reg s;
        s.make(1);
        s.settle();
        zor_reg_take_snapshot(s.ds);
        Rec *r = s.make(2, 8);
        EXPECT_EQ(zor_reg_snapshot_field_get(r, s.a), nullptr);
        if (c.deleted)
            zor_reg_flag_set(r, s.del, 1);
        zor_reg_process(s.ds);
        EXPECT_EQ(trace[0], "C2/2");
        if (c.deleted) { /* deleted during the snapshot: absent to the plain getters */
            EXPECT_EQ(zor_reg_field_get(r, s.a), nullptr);
            EXPECT_EQ(zor_reg_flag_get(r, s.del) + zor_reg_flag_get_explicit(r, s.del), 0);
        }
        trace.clear();
        c.restore ? zor_reg_restore_snapshot(s.ds) : zor_reg_discard_snapshot(s.ds);
        EXPECT_EQ(trace, c.expected) << c.deleted << c.restore;
        if (!c.deleted && !c.restore) {
            EXPECT_EQ(*static_cast<const int *>(zor_reg_snapshot_field_get(r, s.a)), 8);
        }
    }
}
