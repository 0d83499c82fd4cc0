/*
 * Record removal through the delete-pending flag, tracking registrations,
 * and snapshots: every path a record can take during a snapshot, under
 * discard and under restore, with the callbacks each must produce.
 */
#include "zor_test.h"
#include "reg_test_types.h"
#include "zor_reg_internal.h"

#include <string>
#include <vector>

namespace
{

std::vector<std::string> trace;

void on_field(void *rec, const zor_reg_field_info *field, int is_set, const void *value, void *)
{
    std::string v = value == nullptr         ? "-"
                    : field->type->size == 0 ? "p" /* a flag's place */
                                             : std::to_string(*static_cast<const int *>(value));
    trace.push_back("N" + std::to_string(static_cast<reg_test_rec *>(rec)->name) + " f" +
                    std::to_string(field->id) + " " + std::to_string(is_set) + " " + v);
}
void on_create(void *rec, void *)
{
    trace.push_back("C" + std::to_string(static_cast<reg_test_rec *>(rec)->name));
}
void on_delete(void *rec, void *)
{
    trace.push_back("D" + std::to_string(static_cast<reg_test_rec *>(rec)->name));
}
void on_unlink(zor_reg_ds *, zor_reg_entry *e)
{
    trace.push_back("X" + std::to_string(reg_test_name(e)));
}
void on_free(zor_reg_ds *, zor_reg_entry *e)
{
    trace.push_back("F" + std::to_string(reg_test_name(e)) +
                    " frees=" + std::to_string(reg_test_ops.frees));
    free(e);
}
int on_update(zor_reg_cb_info *info, zor_iter *entries, void *ctx)
{
    std::string line = std::string("U") + static_cast<const char *>(ctx) +
                       (zor_reg_info_is_resync(info) ? " resync" : "");
    zor_reg_entry *e;
    ZOR_ITER_FOREACH (entries, e) {
        line +=
            " " + std::to_string(reg_test_name(e)) + (zor_reg_info_is_deleting(info, e) ? "d" : "");
    }
    trace.push_back(line);
    return 1;
}

/*
 * One kind: a (int with free), b (plain int), c (transient), n (not restored),
 * flags f1, f2, del (delete-pending), trk; with unlink and free callbacks
 * that trace, and notifiers on everything.
 */
zor_datatype_info no_restore_type()
{
    zor_datatype_info t = reg_test_plain;
    t.properties |= ZOR_DATATYPE_PROP_NO_RESTORE;
    return t;
}
const zor_datatype_info reg_test_no_restore = no_restore_type();

struct rec_with_n {
    reg_test_rec base;
    int n;
};

struct Fixture {
    zor_reg_db db;
    zor_reg_rec_info *kind;
    zor_reg_field_info *a, *b, *c, *n, *f1, *del, *trk;
    zor_reg_ds *ds;

    explicit Fixture(bool deletion = true)
    {
        trace.clear();
        reg_test_ops = {};
        zor_reg_db_init(&db);
        kind = zor_reg_db_rec_add(&db);
        a = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, a), &reg_test_int);
        b = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, b), &reg_test_plain);
        c = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, c), &reg_test_transient);
        n = zor_reg_db_rec_add_field(kind, offsetof(rec_with_n, n), &reg_test_no_restore);
        f1 = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, flags), &reg_test_flag);
        del = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, flags) + 1, &reg_test_flag);
        trk = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, flags) + 2, &reg_test_flag);
        if (deletion)
            zor_reg_db_rec_set_deletion_info(kind, del, on_unlink, on_free);
        zor_reg_db_rec_set_offsets(kind, reg_test_rec_offset, sizeof(rec_with_n));
        ds = zor_reg_ds_init(&db, nullptr);
        for (zor_reg_field_info *f : {a, b, c, n, f1})
            zor_register_field_update(ds, f, on_field, nullptr);
        zor_register_rec_create(ds, kind, on_create, nullptr, 0);
        zor_register_rec_delete(ds, kind, on_delete, nullptr);
    }
    ~Fixture()
    {
        /* Remaining records leave through their flag, so every block is freed. */
        if (ds->snapshot_active)
            zor_reg_discard_snapshot(ds);
        std::vector<void *> left;
        zor_reg_entry *e;
        for (e = static_cast<zor_reg_entry *>(ds->recs[0].entries.first); e != nullptr;
             e = static_cast<zor_reg_entry *>(e->link.next))
            left.push_back(zor_reg_rec(e));
        if (kind->delete_pending != -1) {
            for (void *r : left)
                zor_reg_flag_set(r, del, 1);
            zor_reg_process(ds);
        } else {
            for (void *r : left) {
                zor_reg_entry *entry = zor_reg_rec_entry(r, kind);
                zor_reg_rec_deleted(entry);
                zor_reg_rec_free(entry);
                free(entry);
            }
        }
        zor_reg_ds_destroy(ds);
        zor_reg_db_destroy(&db);
    }
    reg_test_rec *make(int name, int a_value)
    {
        reg_test_rec *r = reg_test_new(ds, kind, name);
        if (a_value != 0)
            zor_reg_field_set(r, a, &a_value);
        return r;
    }
    /* Takes a snapshot after processing what setup queued; clears the trace. */
    void take()
    {
        zor_reg_process(ds);
        zor_reg_take_snapshot(ds);
        trace.clear();
    }
    int get(reg_test_rec *r, zor_reg_field_info *f)
    {
        const int *v = static_cast<const int *>(zor_reg_field_get(r, f));
        return v ? *v : -1;
    }
    int snap_get(reg_test_rec *r, zor_reg_field_info *f)
    {
        const int *v = static_cast<const int *>(zor_reg_snapshot_field_get(r, f));
        return v ? *v : -1;
    }
    bool linked(reg_test_rec *r)
    {
        for (auto *e = static_cast<zor_reg_entry *>(ds->recs[0].entries.first); e != nullptr;
             e = static_cast<zor_reg_entry *>(e->link.next))
            if (zor_reg_rec(e) == r)
                return true;
        return false;
    }
};

using Trace = std::vector<std::string>;

} // namespace

TEST(RegRemoval, LevelsSeeTheRecordDeletingBeforeItIsRemoved)
{
    Fixture fx;
    zor_reg_rec_update *l0 =
        zor_register_rec_update_v(fx.ds, fx.kind, 0, on_update, const_cast<char *>("0"), 1, fx.a);
    zor_reg_rec_update *l1 = zor_register_rec_update_v(fx.ds, fx.kind, ZOR_REG_LEVEL_1, on_update,
                                                       const_cast<char *>("1"), 1, fx.b);
    zor_reg_enable(l0, 0);
    zor_reg_enable(l1, 0);
    EXPECT_EQ(fx.ds->recs[0].rmv_reg->level, 2u);
    EXPECT_EQ(fx.ds->recs[0].rmv_reg->id, 0u); /* made first, by the data store */
    zor_reg_process(fx.ds);

    reg_test_rec *r = fx.make(1, 5);
    int two = 2;
    zor_reg_field_set(r, fx.b, &two);
    zor_reg_process(fx.ds);
    trace.clear();
    int frees_before = reg_test_ops.frees;
    zor_reg_flag_set(r, fx.del, 1);
    EXPECT_TRUE(zor_reg_info_is_record_deleting(reg_test_entry(r)));
    EXPECT_TRUE(fx.linked(r));
    zor_reg_process(fx.ds);
    /* a's free operation runs between unlink and free_cb. */
    EXPECT_EQ(trace, (Trace{"U0 1d", "U1 1d", "D1", "X1",
                            "F1 frees=" + std::to_string(frees_before + 2)}));
}

TEST(RegRemoval, KindWithoutDeletionHasNoRemovalRegistration)
{
    Fixture fx(false);
    EXPECT_EQ(fx.ds->recs[0].rmv_reg, nullptr);
    EXPECT_EQ(fx.ds->recs[0].update_regs.count, 0u);
    EXPECT_EQ(fx.ds->recs[0].fields[fx.del->id].update_regs.count, 0u);
}

TEST(RegTrack, FlagFollowsPresenceOrDeletion)
{
    for (int invert = 0; invert < 2; invert++) {
        Fixture fx;
        zor_reg_rec_update *t = zor_reg_track(fx.ds, fx.kind, 0, fx.trk, invert);
        zor_reg_rec_update_field_add(t, fx.a);
        zor_reg_rec_update_field_add(t, fx.b);
        zor_reg_enable(t, 0);
        zor_reg_process(fx.ds);
        EXPECT_EQ(t->cb, invert ? zor_reg_track_present_cb : zor_reg_track_deleting_cb);
        EXPECT_EQ(t->ctx, fx.trk);

        reg_test_rec *r = fx.make(1, 7); /* a set */
        zor_reg_process(fx.ds);
        EXPECT_EQ(zor_reg_flag_get(r, fx.trk), invert ? 1 : 0);
        zor_reg_field_set(r, fx.a, nullptr); /* nothing watched is set any more */
        zor_reg_process(fx.ds);
        EXPECT_EQ(zor_reg_flag_get(r, fx.trk), invert ? 0 : 1);
        int v = 3;
        zor_reg_field_set(r, fx.b, &v);
        zor_reg_process(fx.ds);
        EXPECT_EQ(zor_reg_flag_get(r, fx.trk), invert ? 1 : 0);
        EXPECT_EQ(t->failed, 0u);

        /* Deleting: the tracker sees it deleting before removal. */
        trace.clear();
        zor_register_field_update(fx.ds, fx.trk, on_field, nullptr);
        zor_reg_flag_set(r, fx.del, 1);
        zor_reg_process(fx.ds);
        EXPECT_EQ(trace, (Trace{"N1 f6 " + std::string(invert ? "0 -" : "1 p"), "D1", "X1",
                                "F1 frees=" + std::to_string(reg_test_ops.frees)}));
    }
}

TEST(RegSnapshot, UntouchedRecordsAreNotVisited)
{
    for (int restore = 0; restore < 2; restore++) {
        Fixture fx;
        reg_test_rec *r = fx.make(1, 5);
        fx.take();
        EXPECT_EQ(fx.ds->snapshot_created_bucket.count + fx.ds->snapshot_updated_bucket.count, 0u);
        restore ? zor_reg_restore_snapshot(fx.ds) : zor_reg_discard_snapshot(fx.ds);
        EXPECT_TRUE(trace.empty());
        EXPECT_EQ(fx.ds->snapshot_active, 0u);
        EXPECT_EQ(fx.get(r, fx.a), 5);
        EXPECT_EQ(fx.snap_get(r, fx.a), 5);
    }
}

TEST(RegSnapshot, ChangedRecord)
{
    for (int restore = 0; restore < 2; restore++) {
        Fixture fx;
        zor_reg_rec_update *u = zor_register_rec_update_v(fx.ds, fx.kind, 0, on_update,
                                                          const_cast<char *>("u"), 1, fx.a);
        zor_reg_enable(u, 0);
        reg_test_rec *r = fx.make(1, 5);
        int one = 1;
        zor_reg_flag_set(r, fx.f1, 1);
        zor_reg_field_set(r, fx.b, &one);
        fx.take();

        int six = 6, seven = 7, nine = 9;
        zor_reg_field_set(r, fx.a, &six);
        zor_reg_field_set(r, fx.a, &seven);  /* backed up once: still 5 */
        zor_reg_field_set(r, fx.b, nullptr); /* unset leaves the bytes; no backup needed */
        zor_reg_field_set(r, fx.c, &nine);   /* unset at the take */
        zor_reg_field_set(r, fx.n, &nine);   /* never restored */
        zor_reg_flag_set(r, fx.f1, 0);
        zor_reg_entry *e = reg_test_entry(r);
        EXPECT_EQ(e->snapshot_updated, 1u);
        ASSERT_NE(e->backup, nullptr);
        EXPECT_EQ(fx.get(r, fx.a), 7);
        EXPECT_EQ(fx.snap_get(r, fx.a), 5);
        EXPECT_EQ(fx.snap_get(r, fx.b), 1);
        EXPECT_EQ(fx.snap_get(r, fx.c), -1);
        EXPECT_EQ(zor_reg_snapshot_flag_get_explicit(r, fx.f1), 1);
        EXPECT_EQ(zor_reg_flag_get(r, fx.f1), 0);
        trace.clear();

        if (!restore) {
            zor_reg_discard_snapshot(fx.ds);
            EXPECT_EQ(trace, (Trace{"Uu 1"}));
            EXPECT_EQ(e->backup, nullptr);
            EXPECT_EQ(e->snapshot_updated, 0u);
            EXPECT_EQ(fx.snap_get(r, fx.a), 7); /* snapshot bits now follow the set bits */
            EXPECT_EQ(fx.snap_get(r, fx.b), -1);
            EXPECT_EQ(zor_reg_snapshot_flag_get_explicit(r, fx.f1), 0);
            continue;
        }
        zor_reg_restore_snapshot(fx.ds);
        /* What the snapshot's changes queued is delivered first; then backed-up
         * values go back through the setter, set states in field order, and the
         * registrations hear of it. */
        EXPECT_EQ(trace,
                  (Trace{"Uu 1", "N1 f0 1 5", "N1 f1 1 1", "N1 f2 0 -", "N1 f4 1 p", "Uu 1"}));
        EXPECT_EQ(fx.get(r, fx.a), 5);
        EXPECT_EQ(fx.get(r, fx.b), 1);  /* its old bytes, left by the unset */
        EXPECT_EQ(fx.get(r, fx.c), -1); /* unset again */
        EXPECT_EQ(r->c, 0);             /* and reset: a transient type */
        EXPECT_EQ(fx.get(r, fx.n), 9);  /* not restored */
        EXPECT_EQ(zor_reg_flag_get(r, fx.f1), 1);
        EXPECT_EQ(e->backup, nullptr);
        EXPECT_EQ(e->snapshot_updated, 0u);
    }
}

TEST(RegSnapshot, DeletedRecordIsKeptUntilTheEnd)
{
    for (int restore = 0; restore < 2; restore++) {
        Fixture fx;
        reg_test_rec *r = fx.make(1, 5);
        fx.take();
        zor_reg_flag_set(r, fx.del, 1);
        zor_reg_process(fx.ds);
        zor_reg_entry *e = reg_test_entry(r);
        EXPECT_EQ(trace, (Trace{"D1"})); /* no unlink, no free yet */
        EXPECT_EQ(e->snapshot_deleted, 1u);
        EXPECT_EQ(e->changes_prohibited, 1u);
        EXPECT_FALSE(fx.linked(r));
        EXPECT_EQ(fx.get(r, fx.a), -1); /* reads as absent */
        EXPECT_EQ(fx.snap_get(r, fx.a), 5);
        trace.clear();
        if (!restore) {
            zor_reg_discard_snapshot(fx.ds);
            EXPECT_EQ(trace, (Trace{"X1", "F1 frees=2"}));
            continue;
        }
        zor_reg_restore_snapshot(fx.ds);
        EXPECT_EQ(trace, (Trace{"C1"}));
        EXPECT_TRUE(fx.linked(r));
        EXPECT_EQ(fx.get(r, fx.a), 5);
        EXPECT_EQ(zor_reg_flag_get(r, fx.del), 0);
        EXPECT_EQ(e->snapshot_deleted + e->changes_prohibited, 0u);
    }
}

TEST(RegSnapshot, CreatedRecord)
{
    for (int deleted = 0; deleted < 2; deleted++)
        for (int restore = 0; restore < 2; restore++) {
            Fixture fx;
            fx.take();
            reg_test_rec *r = fx.make(2, 8);
            zor_reg_entry *e = reg_test_entry(r);
            EXPECT_EQ(e->snapshot_created, 1u);
            EXPECT_EQ(e->backup, nullptr); /* a new record needs no backup */
            EXPECT_EQ(fx.snap_get(r, fx.a), -1);
            if (deleted) {
                zor_reg_flag_set(r, fx.del, 1);
                zor_reg_process(fx.ds);
                EXPECT_EQ(e->snapshot_deleted, 1u);
            }
            trace.clear();
            if (restore) {
                zor_reg_restore_snapshot(fx.ds);
                if (deleted)
                    EXPECT_EQ(trace, (Trace{"X2", "F2 frees=2"}));
                else
                    EXPECT_EQ(trace, (Trace{"D2", "X2", "F2 frees=2"}));
                EXPECT_FALSE(fx.linked(r));
            } else {
                zor_reg_discard_snapshot(fx.ds);
                if (deleted) {
                    EXPECT_EQ(trace, (Trace{"X2", "F2 frees=2"}));
                } else {
                    EXPECT_TRUE(trace.empty());
                    EXPECT_EQ(e->snapshot_created, 0u);
                    EXPECT_EQ(fx.snap_get(r, fx.a), 8);
                }
            }
        }
}

TEST(RegSnapshot, BrokenPreconditionsStop)
{
    Fixture fx;
    ZOR_EXPECT_ASSERT(zor_reg_discard_snapshot(fx.ds), "zor_reg_discard_snapshot",
                      "ds->snapshot_active");
    ZOR_EXPECT_ASSERT(zor_reg_restore_snapshot(fx.ds), "zor_reg_restore_snapshot",
                      "ds->snapshot_active");
    zor_reg_take_snapshot(fx.ds);
    ZOR_EXPECT_ASSERT(zor_reg_take_snapshot(fx.ds), "zor_reg_take_snapshot",
                      "!ds->snapshot_active");
    zor_reg_discard_snapshot(fx.ds);

    /* The removal registration is never resynced. */
    zor_reg_resync(fx.ds->recs[0].rmv_reg);
    ZOR_EXPECT_ASSERT(zor_reg_process(fx.ds), "zor_reg_db_rec_rmv_cb",
                      "!zor_reg_info_is_resync(cb_info)");
    zor_reg_disable(fx.ds->recs[0].rmv_reg);
    zor_reg_process(fx.ds);
    zor_reg_enable(fx.ds->recs[0].rmv_reg, 0);
    zor_reg_process(fx.ds);

    /* A record of another kind given to a snapshot getter. */
    zor_reg_db db2;
    zor_reg_db_init(&db2);
    zor_reg_rec_info *other = zor_reg_db_rec_add(&db2);
    zor_reg_field_info *x = zor_reg_db_rec_add_field(other, 0, &reg_test_int);
    zor_reg_db_rec_set_offsets(other, reg_test_rec_offset, sizeof(reg_test_rec));
    reg_test_rec *r = fx.make(1, 5);
    ZOR_EXPECT_ASSERT(zor_reg_snapshot_field_get(r, x), "zor_reg_rec_entry",
                      "hdr->ds_rec->rec_info == rec_info");
    zor_reg_db_destroy(&db2);
}

TEST(RegSnapshot, RestoreNeedsDeletionInformation)
{
    Fixture fx(false);
    reg_test_rec *r = fx.make(1, 5);
    zor_reg_take_snapshot(fx.ds);
    int six = 6;
    zor_reg_field_set(r, fx.a, &six);
    ZOR_EXPECT_ASSERT(zor_reg_restore_snapshot(fx.ds), "zor_reg_snapshot_record_restore",
                      "delete_flag_idx != -1");
}
