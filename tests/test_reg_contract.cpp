/*
 * The registry's contract where the reference model (test_reg_model.cpp)
 * does not reach: every broken precondition with its assertion text, the
 * block layout, the trace ring, the pass bound and the re-entry guard,
 * what destroying a data store does, the direct compare of the library's
 * own value types, and golden traces of the orders the model takes as
 * given (passes across levels, removal, a restore, records created during
 * a snapshot, notifiers around linking).
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

/* ---- value types: every write, null write and free counted ------------------------- */

struct Ops {
    int writes, null_writes, frees;
} ops;

void int_write(void *dst, const void *src, const zor_datatype_info *)
{
    ops.writes++;
    ops.null_writes += src == nullptr;
    int v = src ? *static_cast<const int *>(src) : 0;
    memcpy(dst, &v, sizeof(int));
}
int int_cmp_eq(const void *a, const void *b, const zor_datatype_info *)
{
    return memcmp(a, b, sizeof(int)) != 0;
}
void int_free(void *value, const zor_datatype_info *, const zor_reg_field_info *)
{
    ops.frees++;
    memset(value, 0, sizeof(int));
}

zor_datatype_info make_type(uint64_t size, uint32_t props, bool with_free)
{
    zor_datatype_info t = {};
    t.size = size;
    t.properties = ZOR_DATATYPE_PROP_FLATTENED | props;
    t.parent_id = 0xFFFFFFFF;
    if (size != 0) {
        t.write = int_write;
        t.cmp_eq = int_cmp_eq;
        t.free = with_free ? int_free : nullptr;
    }
    return t;
}

const zor_datatype_info int_t = make_type(4, 0, true);
const zor_datatype_info plain_t = make_type(4, 0, false);
const zor_datatype_info transient_t = make_type(4, ZOR_DATATYPE_PROP_RESET_ON_UNSET, true);
const zor_datatype_info no_restore_t = make_type(4, ZOR_DATATYPE_PROP_NO_RESTORE, false);
const zor_datatype_info flag_t = make_type(0, 0, false);

/* ---- one kind, every callback traced ----------------------------------------------- */

struct Rec {
    int name;
    int a, b, c, n;
    char flags[4];
};

std::vector<std::string> trace;
using Trace = std::vector<std::string>;

zor_reg_entry *entry_of(Rec *r)
{
    return reinterpret_cast<zor_reg_entry *>(reinterpret_cast<char *>(r) - sizeof(zor_reg_entry));
}
std::string name_of(const void *rec)
{
    return std::to_string(static_cast<const Rec *>(rec)->name);
}

/* Create and delete notifiers note how many records the kind holds at the call. */
void on_create(void *rec, void *ctx)
{
    trace.push_back("C" + name_of(rec) + "/" +
                    std::to_string(static_cast<struct zor_reg_ds_rec *>(ctx)->entries.count));
}
void on_delete(void *rec, void *ctx)
{
    trace.push_back("D" + name_of(rec) + "/" +
                    std::to_string(static_cast<struct zor_reg_ds_rec *>(ctx)->entries.count));
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
    trace.push_back("F" + name_of(zor_reg_rec(e)) + " frees=" + std::to_string(ops.frees));
    free(e);
}

/*
 * An update registration that traces each call as "U<name>[ resync]
 * <records, d when deleting>@<pass>", then runs its action.
 */
struct Watch {
    std::string name;
    int result = 1;
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
    return w->result;
}

/*
 * Fields a (int with free), b (plain int), c (reset on unset), n (not
 * restored), flags f1, del (delete pending when `deletion`) and trk; a
 * data store with notifiers on a, b, c, n, f1 and on records. Records
 * left at the end leave through their flag (or by hand), so every block
 * is freed.
 */
struct Reg {
    zor_reg_db db;
    zor_reg_rec_info *kind;
    zor_reg_field_info *a, *b, *c, *n, *f1, *del, *trk;
    zor_reg_ds *ds;
    std::deque<Watch> watches;

    explicit Reg(bool deletion = true)
    {
        trace.clear();
        ops = {};
        zor_reg_db_init(&db);
        kind = zor_reg_db_rec_add(&db);
        a = zor_reg_db_rec_add_field(kind, offsetof(Rec, a), &int_t);
        b = zor_reg_db_rec_add_field(kind, offsetof(Rec, b), &plain_t);
        c = zor_reg_db_rec_add_field(kind, offsetof(Rec, c), &transient_t);
        n = zor_reg_db_rec_add_field(kind, offsetof(Rec, n), &no_restore_t);
        f1 = zor_reg_db_rec_add_field(kind, offsetof(Rec, flags), &flag_t);
        del = zor_reg_db_rec_add_field(kind, offsetof(Rec, flags) + 1, &flag_t);
        trk = zor_reg_db_rec_add_field(kind, offsetof(Rec, flags) + 2, &flag_t);
        if (deletion)
            zor_reg_db_rec_set_deletion_info(kind, del, on_unlink, on_free);
        zor_reg_db_rec_set_offsets(kind, sizeof(zor_reg_entry), sizeof(Rec));
        ds = zor_reg_ds_init(&db, this);
        for (zor_reg_field_info *f : {a, b, c, n, f1})
            zor_register_field_update(ds, f, on_field, nullptr);
        zor_register_rec_create(ds, kind, on_create, &ds->recs[0], 0);
        zor_register_rec_delete(ds, kind, on_delete, &ds->recs[0]);
    }
    ~Reg()
    {
        for (Watch &w : watches) /* they would see the records go, with the test's locals gone */
            zor_reg_disable(w.reg);
        if (ds->snapshot_active)
            zor_reg_discard_snapshot(ds);
        zor_reg_process(ds); /* the removal registration is active from the first pass */
        std::vector<void *> left;
        for (auto *e = static_cast<zor_reg_entry *>(ds->recs[0].entries.first); e != nullptr;
             e = static_cast<zor_reg_entry *>(e->link.next))
            left.push_back(zor_reg_rec(e));
        for (void *r : left) {
            if (kind->delete_pending != -1) {
                zor_reg_flag_set(r, del, 1);
                continue;
            }
            zor_reg_rec_deleted(entry_of(static_cast<Rec *>(r)));
            zor_reg_rec_free(entry_of(static_cast<Rec *>(r)));
            free(entry_of(static_cast<Rec *>(r)));
        }
        zor_reg_process(ds);
        zor_reg_ds_destroy(ds);
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
        watches.emplace_back();
        Watch &w = watches.back();
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
    int get(Rec *r, zor_reg_field_info *f)
    {
        const int *v = static_cast<const int *>(zor_reg_field_get(r, f));
        return v ? *v : -1;
    }
};

} // namespace

/* ---- broken preconditions ------------------------------------------------------------ */

TEST(RegContract, BrokenPreconditionsStopWithTheirText)
{
    static int one = 1;
    struct Case {
        const char *function, *text;
        bool deletion;
        std::function<void(Reg &)> run;
    };
    const Case cases[] = {
        {"zor_reg_db_rec_add_field", "(datatype_info->properties & 0x10) != 0", true,
         [](Reg &s) {
             zor_datatype_info t = int_t;
             t.properties = 0;
             zor_reg_db_rec_add_field(s.kind, 0, &t);
         }},
        {"zor_reg_db_field_set_default", "value != ((void *)0)", true,
         [](Reg &s) { zor_reg_db_field_set_default(s.a, nullptr, nullptr); }},
        {"zor_reg_db_field_set_default",
         "ctrl_flag == ((void *)0) || ctrl_flag->rec_info == field->rec_info", true,
         [](Reg &s) {
             zor_reg_rec_info *other = zor_reg_db_rec_add(&s.db);
             zor_reg_db_field_set_default(s.a, zor_reg_db_rec_add_field(other, 0, &flag_t), &one);
         }},
        {"zor_reg_db_field_set_default", "field->default_value == ((void *)0)", true,
         [](Reg &s) {
             zor_reg_db_field_set_default(s.b, nullptr, &one);
             zor_reg_db_field_set_default(s.b, nullptr, &one);
         }},
        {"zor_reg_db_rec_set_deletion_info", "rec->delete_pending == -1", true,
         [](Reg &s) { zor_reg_db_rec_set_deletion_info(s.kind, s.del, nullptr, nullptr); }},
        {"zor_reg_ds_rec", "rec_info->id < ds->rec_count", true,
         [](Reg &s) {
             Reg t;
             zor_reg_rec_size(s.ds, zor_reg_db_rec_add(&t.db));
         }},
        {"zor_reg_ds_rec", "ds_rec->rec_info == rec_info", true,
         [](Reg &s) {
             Reg t;
             zor_reg_rec_size(s.ds, t.kind);
         }},
        {"zor_reg_ds_field", "field->id < ds_rec->field_count", true,
         [](Reg &s) {
             zor_reg_field_info *late = zor_reg_db_rec_add_field(s.kind, 0, &flag_t);
             zor_register_field_update(s.ds, late, nullptr, nullptr);
         }},
        {"zor_reg_ds_field", "ds_field->field_info == field", true,
         [](Reg &s) {
             zor_reg_field_info impostor = *s.a; /* right kind and id, another field info */
             zor_register_field_update(s.ds, &impostor, nullptr, nullptr);
         }},
        {"zor_reg_rec_entry", "hdr->ds_rec->rec_info == rec_info", true,
         [](Reg &s) {
             Reg t;
             zor_reg_field_set(t.make(2), s.a, &one);
         }},
        {"zor_reg_rec_entry", "hdr->ds_rec->rec_info == rec_info", true,
         [](Reg &s) {
             Reg t;
             zor_reg_field_get(t.make(2), s.a);
         }},
        {"zor_reg_rec_entry", "hdr->ds_rec->rec_info == rec_info", true,
         [](Reg &s) {
             Reg t;
             zor_reg_snapshot_field_get(t.make(2), s.a);
         }},
        {"zor_reg_rec_free", "rec_hdr->backup == ((void *)0)", true,
         [](Reg &s) {
             Rec *r = s.make(1);
             entry_of(r)->backup = r;
             zor_reg_rec_free(entry_of(r));
         }},
        {"zor_reg_rec_created", "!rec_hdr->snapshot_created && !rec_hdr->snapshot_updated", true,
         [](Reg &s) {
             zor_reg_take_snapshot(s.ds);
             zor_reg_rec_created(s.ds, s.kind, entry_of(s.make(1)));
         }},
        {"zor_reg_rec_created", "rec_hdr->snapshot_created || rec_hdr->snapshot_updated", true,
         [](Reg &s) {
             Rec *r = s.make(1);
             zor_reg_take_snapshot(s.ds);
             zor_reg_rec_deleted(entry_of(r));
             entry_of(r)->snapshot_deleted = 1; /* in no snapshot bucket */
             zor_reg_rec_created(s.ds, s.kind, entry_of(r));
         }},
        {"zor_reg_rec_created", "rec_hdr->ds_rec == ds_rec", true,
         [](Reg &s) {
             Reg t;
             Rec *r = t.make(1);
             zor_reg_take_snapshot(s.ds);
             entry_of(r)->snapshot_deleted = entry_of(r)->snapshot_updated = 1;
             zor_reg_rec_created(s.ds, s.kind, entry_of(r));
         }},
        {"zor_reg_flag_set", "field->type->size == 0", true,
         [](Reg &s) { zor_reg_flag_set(s.make(1), s.a, 1); }},
        {"zor_reg_entry_changed", "!hdr->changes_prohibited", true,
         [](Reg &s) {
             Rec *r = s.make(1);
             entry_of(r)->changes_prohibited = 1; /* b is watched by nobody: refused all the same */
             zor_reg_field_set(r, s.b, &one);
         }},
        {"zor_reg_rec_delete_pending", "flag", true,
         [](Reg &s) {
             Rec *r = s.make(1);
             zor_reg_flag_set(r, s.del, 1);
             zor_reg_flag_set(r, s.del, 0);
         }},
        {"zor_reg_rec_delete_pending", "!zor_reg_entry_delete_pending(entry)", true,
         [](Reg &s) {
             Rec *r = s.make(1);
             zor_reg_flag_set(r, s.del, 1);
             zor_reg_rec_delete_pending(r, s.del, 1, &r->flags[1], nullptr);
         }},
        {"zor_reg_process", "!zor_reg_in_cb_processing", true,
         [](Reg &s) {
             s.watch("A", 0, {s.a}).action = [&s](auto, auto &) { zor_reg_process(s.ds); };
             s.settle();
             s.make(1, 1);
             zor_reg_process(s.ds);
         }},
        {"zor_reg_info_iter", "!info->is_partitioned", true,
         [](Reg &s) {
             s.watch("A", 0, {s.a}).action = [](zor_reg_cb_info *info, auto &) {
                 zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
                 zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
             };
             s.settle();
             s.make(1, 1);
             zor_reg_process(s.ds);
         }},
        {"zor_reg_info_iter", "!info->resync || info->del_count == 0", true,
         [](Reg &s) {
             /* A resynced record loses its watched field before the split. */
             s.make(1, 1);
             zor_reg_enable(zor_register_rec_update_v(
                                s.ds, s.kind, 0,
                                [](zor_reg_cb_info *info, zor_iter *iter, void *ctx) {
                                    void *first = iter->first(nullptr, iter->info);
                                    zor_reg_field_set(
                                        zor_reg_rec(static_cast<zor_reg_entry *>(first)),
                                        static_cast<Reg *>(ctx)->a, nullptr);
                                    zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
                                    return 1;
                                },
                                &s, 1, s.a),
                            1);
             zor_reg_process(s.ds);
         }},
        {"zor_reg_take_snapshot", "!ds->snapshot_active", true,
         [](Reg &s) {
             zor_reg_take_snapshot(s.ds);
             zor_reg_take_snapshot(s.ds);
         }},
        {"zor_reg_discard_snapshot", "ds->snapshot_active", true,
         [](Reg &s) { zor_reg_discard_snapshot(s.ds); }},
        {"zor_reg_restore_snapshot", "ds->snapshot_active", true,
         [](Reg &s) { zor_reg_restore_snapshot(s.ds); }},
        {"zor_reg_db_rec_rmv_cb", "!zor_reg_info_is_resync(cb_info)", true,
         [](Reg &s) {
             zor_reg_resync(s.ds->recs[0].rmv_reg);
             zor_reg_process(s.ds);
         }},
        {"zor_reg_snapshot_record_restore", "delete_flag_idx != -1", false,
         [](Reg &s) {
             Rec *r = s.make(1, 5);
             zor_reg_take_snapshot(s.ds);
             zor_reg_field_set(r, s.a, &one);
             zor_reg_restore_snapshot(s.ds);
         }},
    };
    for (const Case &c : cases) {
        Reg s(c.deletion);
        ZOR_EXPECT_ASSERT(c.run(s), c.function, c.text) << c.text;
    }
}

/* ---- layout, trace ring, pass bound, re-entry guard, destroy ------------------------ */

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
        EXPECT_EQ(k->bitfield_offset, l.set) << l.fields;
        EXPECT_EQ(k->snapshot_bitfield_offset, l.snapshot) << l.fields;
        EXPECT_EQ(k->reg_bitfield_offset, l.queued) << l.fields;
        EXPECT_EQ(k->size, l.size) << l.fields;
        EXPECT_EQ(k->backup_bitfield_offset, l.backup_bits) << l.fields;
        EXPECT_EQ(k->backup_size, l.backup_size) << l.fields;
        kinds.push_back(k);
    }
    /* Each store adds a byte of queued bits with its 1st and its 9th update registration. */
    zor_reg_ds *one = zor_reg_ds_init(&db, nullptr), *two = zor_reg_ds_init(&db, nullptr);
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

TEST(RegContract, DestroyingAStoreCallsNothing)
{
    Reg *s = new Reg;
    s->watch("A", 0, {s->a});
    for (int i = 1; i <= 3; i++)
        s->make(i, i);
    s->settle();
    Ops before = ops;
    std::vector<zor_reg_entry *> blocks;
    for (auto *e = static_cast<zor_reg_entry *>(s->ds->recs[0].entries.first); e != nullptr;
         e = static_cast<zor_reg_entry *>(e->link.next))
        blocks.push_back(e);
    zor_reg_ds_destroy(s->ds);
    EXPECT_TRUE(trace.empty());
    EXPECT_EQ(ops.frees, before.frees);
    s->watches.clear();
    s->ds = zor_reg_ds_init(&s->db, nullptr); /* an empty store for the destructor */
    delete s;
    for (zor_reg_entry *e : blocks)
        free(e);
}

/* ---- built-in value types ----------------------------------------------------------- */

/*
 * The library's "mem" types of 1, 2, 4 and 8 bytes are compared and stored
 * without their operations: each must behave as a caller's type of the same
 * size does. Values differ in one byte at a time, the last included.
 */
TEST(RegContract, BuiltInTypesBehaveAsTheirOperations)
{
    for (uint64_t size : {1, 2, 4, 8}) {
        zor_datatype_info builtin = {};
        builtin.size = size;
        builtin.properties = ZOR_DATATYPE_PROP_FLATTENED;
        builtin.write = zor_datatype_copy_mem;
        builtin.cmp_eq = zor_datatype_cmp_mem;
        zor_datatype_info own = builtin;
        own.write = [](void *d, const void *s, const zor_datatype_info *t) {
            memcpy(d, s, t->size);
        };
        own.cmp_eq = [](const void *x, const void *y, const zor_datatype_info *t) {
            return memcmp(x, y, t->size);
        };
        zor_reg_db db;
        zor_reg_db_init(&db);
        zor_reg_rec_info *k = zor_reg_db_rec_add(&db);
        zor_reg_field_info *f[2] = {zor_reg_db_rec_add_field(k, 0, &builtin),
                                    zor_reg_db_rec_add_field(k, 8, &own)};
        zor_reg_db_rec_set_offsets(k, sizeof(zor_reg_entry), 16);
        zor_reg_ds *ds = zor_reg_ds_init(&db, nullptr);
        std::string seen[2];
        for (int i = 0; i < 2; i++)
            zor_register_field_update(
                ds, f[i],
                [](void *, const zor_reg_field_info *, int is_set, const void *, void *ctx) {
                    *static_cast<std::string *>(ctx) += is_set ? "s" : "u";
                },
                &seen[i]);
        auto *e = static_cast<zor_reg_entry *>(calloc(1, zor_reg_rec_size(ds, k)));
        zor_reg_rec_created(ds, k, e);
        char *rec = static_cast<char *>(zor_reg_rec(e));
        uint8_t v[8] = {};
        for (uint64_t byte = 0; byte <= size; byte++) { /* byte == size: set the same again */
            if (byte < size)
                v[byte] ^= 0x80;
            for (zor_reg_field_info *fi : f)
                zor_reg_field_set(rec, fi, v);
            EXPECT_EQ(memcmp(rec, rec + 8, size), 0) << size;
            EXPECT_EQ(memcmp(rec, v, size), 0) << size;
        }
        for (zor_reg_field_info *fi : f)
            zor_reg_field_set(rec, fi, nullptr);
        EXPECT_EQ(seen[0], std::string(size, 's') + "u") << size;
        EXPECT_EQ(seen[1], seen[0]) << size;
        zor_reg_rec_deleted(e);
        zor_reg_rec_free(e);
        free(e);
        zor_reg_ds_destroy(ds);
        zor_reg_db_destroy(&db);
    }
}

/* A type without cmp_eq never changes once set; one without write stores nothing. */
TEST(RegContract, TypesWithoutCompareOrWrite)
{
    zor_datatype_info no_cmp = plain_t, no_write = plain_t, flag_with_write = flag_t;
    no_cmp.cmp_eq = nullptr;
    no_write.write = nullptr;
    static int flag_writes;
    flag_with_write.write = [](void *, const void *src, const zor_datatype_info *) {
        EXPECT_EQ(src, nullptr);
        flag_writes++;
    };
    flag_with_write.properties |= ZOR_DATATYPE_PROP_RESET_ON_UNSET;
    zor_reg_db db;
    zor_reg_db_init(&db);
    zor_reg_rec_info *k = zor_reg_db_rec_add(&db);
    zor_reg_field_info *nc = zor_reg_db_rec_add_field(k, offsetof(Rec, a), &no_cmp);
    zor_reg_field_info *nw = zor_reg_db_rec_add_field(k, offsetof(Rec, b), &no_write);
    zor_reg_field_info *fw = zor_reg_db_rec_add_field(k, offsetof(Rec, flags), &flag_with_write);
    zor_reg_db_rec_set_offsets(k, sizeof(zor_reg_entry), sizeof(Rec));
    zor_reg_ds *ds = zor_reg_ds_init(&db, nullptr);
    auto *e = static_cast<zor_reg_entry *>(calloc(1, zor_reg_rec_size(ds, k)));
    zor_reg_rec_created(ds, k, e);
    Rec *r = static_cast<Rec *>(zor_reg_rec(e));
    int five = 5, six = 6;
    zor_reg_field_set(r, nc, &five);
    zor_reg_field_set(r, nc, &six);
    EXPECT_EQ(r->a, 5);
    zor_reg_field_set(r, nw, &six);
    EXPECT_EQ(zor_reg_field_get(r, nw), &r->b);
    EXPECT_EQ(r->b, 0);
    flag_writes = 0;
    zor_reg_flag_set(r, fw, 1);
    zor_reg_flag_set(r, fw, 0);
    EXPECT_EQ(flag_writes, 2);
    zor_reg_rec_deleted(e);
    zor_reg_rec_free(e);
    free(e);
    zor_reg_ds_destroy(ds);
    zor_reg_db_destroy(&db);
}

/* ---- golden traces ---------------------------------------------------------------- */

TEST(RegContract, NotifiersAroundLinking)
{
    Reg s;
    s.make(1);
    s.make(2, 5);
    trace.clear();
    zor_register_rec_create(s.ds, s.kind, on_create, &s.ds->recs[0], 1); /* existing: 1, 2 */
    s.make(3); /* both create notifiers, after linking */
    EXPECT_EQ(trace, (Trace{"C1/2", "C2/2", "C3/3", "C3/3"}));
}

TEST(RegContract, PassOrderAcrossLevels)
{
    Reg s;
    Watch &A = s.watch("A", 0, {s.a});
    Watch &B = s.watch("B", 0, {s.a});
    Watch &C = s.watch("C", ZOR_REG_LEVEL_1, {s.a});
    s.watch("D", ZOR_REG_LEVEL_2 | ZOR_REG_LEVEL_1, {s.a});
    s.watch("E", 0, {s.b});
    Rec *r1 = s.make(1), *r2 = s.make(2);
    s.settle();
    (void)A;
    /* B, served first, changes r1 again once: r1 is queued anew for the next pass. */
    bool once = true;
    B.action = [&](auto, auto &) {
        if (once) {
            once = false;
            int two = 2;
            zor_reg_field_set(r1, s.a, &two);
        }
    };
    /* C (level 1) changes b, watched by E on level 0: E comes before D (level 2). */
    C.action = [&](auto, const std::vector<zor_reg_entry *> &entries) {
        int one = 1;
        for (zor_reg_entry *e : entries)
            zor_reg_field_set(zor_reg_rec(e), s.b, &one);
    };
    int one = 1;
    zor_reg_field_set(r1, s.a, &one);
    zor_reg_field_set(r2, s.a, &one);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace,
              (Trace{"N1 f0 1 1", "N2 f0 1 1", "UB 1 2@1", "N1 f0 1 2", "UA 1 2@1", "UB 1@2",
                     "UA 1@2", "UC 1 2@3", "N1 f1 1 1", "N2 f1 1 1", "UE 1 2@4", "UD 1 2@5"}));
    EXPECT_EQ(zor_reg_cb_trace[4].reg, C.reg);
    EXPECT_EQ(zor_reg_cb_trace[4].count, 2u);
    EXPECT_EQ(zor_reg_cb_trace[4].resync, 0u);
}

TEST(RegContract, RemovalOrder)
{
    Reg s;
    s.watch("0", 0, {s.a});
    s.watch("1", ZOR_REG_LEVEL_1, {s.b});
    Rec *r = s.make(1, 5);
    s.make(2);
    int two = 2;
    zor_reg_field_set(r, s.b, &two);
    s.settle();
    int frees = ops.frees;
    zor_reg_flag_set(r, s.del, 1);
    EXPECT_TRUE(zor_reg_info_is_record_deleting(entry_of(r)));
    zor_reg_process(s.ds);
    /* Every level sees it deleting; the delete notifier before unlinking; a's free before free_cb.
     */
    EXPECT_EQ(trace,
              (Trace{"U0 1d@1", "U1 1d@2", "D1/2", "X1", "F1 frees=" + std::to_string(frees + 2)}));
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
    EXPECT_EQ(s.get(r, s.a), 5);
    EXPECT_EQ(s.get(r, s.b), 1);
    EXPECT_EQ(s.get(r, s.c), -1);
    EXPECT_EQ(r->c, 0); /* reset: a transient type */
    EXPECT_EQ(s.get(r, s.n), 9);
}

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
        s.settle();
        c.restore ? zor_reg_restore_snapshot(s.ds) : zor_reg_discard_snapshot(s.ds);
        EXPECT_EQ(trace, c.expected) << c.deleted << c.restore;
        if (!c.deleted && !c.restore) {
            EXPECT_EQ(*static_cast<const int *>(zor_reg_snapshot_field_get(r, s.a)), 8);
        }
    }
}
