/* Registry change processing: passes, levels, enable/resync/failure, callback information. */
#include "zor_test.h"
#include "reg_test_types.h"
#include "zor_reg_internal.h"

#include <functional>
#include <string>
#include <vector>

namespace
{

/*
 * Every update callback call, as "NAME[ resync] names@pass": which
 * registration, whether a resync, the entries in order, and the pass number
 * the trace ring recorded for it.
 */
std::vector<std::string> trace;

struct watcher {
    std::string name;
    int result = 1;
    std::function<void(zor_reg_cb_info *, const std::vector<zor_reg_entry *> &)> action;
    zor_reg_rec_update *reg = nullptr;
    explicit watcher(const char *n) : name(n) {}
};

std::string names_of(const std::vector<zor_reg_entry *> &entries)
{
    std::string out;
    for (zor_reg_entry *e : entries)
        out += (out.empty() ? "" : ",") + std::to_string(reg_test_name(e));
    return out.empty() ? "-" : out;
}

int log_update(zor_reg_cb_info *info, zor_iter *iter, void *ctx)
{
    watcher *w = static_cast<watcher *>(ctx);
    std::vector<zor_reg_entry *> entries;
    zor_reg_entry *e;
    ZOR_ITER_FOREACH (iter, e) {
        entries.push_back(e);
    }
    EXPECT_EQ(zor_reg_info_count(info), entries.size());
    EXPECT_EQ(info->reg, w->reg);
    const zor_reg_cb_trace_slot &slot = zor_reg_cb_trace[(zor_reg_cb_trace_count - 1) % 1000];
    EXPECT_EQ(slot.reg, w->reg);
    trace.push_back(w->name + (zor_reg_info_is_resync(info) ? " resync " : " ") +
                    names_of(entries) + "@" + std::to_string(slot.iteration));
    if (w->action)
        w->action(info, entries);
    return w->result;
}

zor_reg_rec_update *watch(reg_test_schema &s, watcher &w, uint32_t flags, zor_reg_field_info *field)
{
    w.reg = zor_register_rec_update_v(s.ds, s.kind, flags, log_update, &w, 1, field);
    return w.reg;
}

using trace_t = std::vector<std::string>;

} // namespace

TEST(RegProcess, NothingQueuedReturnsAtOnce)
{
    reg_test_schema s;
    s.open();
    zor_reg_cb_trace_count = 7;
    zor_reg_process(s.ds);
    EXPECT_EQ(zor_reg_in_cb_processing, 0u);
    EXPECT_EQ(zor_reg_cb_trace_count, 0u);
    zor_reg_in_cb_processing = 1; /* creating a data store clears the guard */
    reg_test_schema t;
    t.open();
    EXPECT_EQ(zor_reg_in_cb_processing, 0u);
}

TEST(RegProcess, EnableWithAndWithoutResync)
{
    trace.clear();
    reg_test_schema s(true);
    s.open();
    watcher A("A"), B("B");
    watch(s, A, 0, s.a);
    watch(s, B, 0, s.b);
    reg_test_rec *r1 = s.make(1);
    reg_test_rec *r2 = s.make(2);
    reg_test_rec *r3 = s.make(3);
    int v = 1;
    zor_reg_field_set(r1, s.a, &v); /* queued before the enable: dropped */
    zor_reg_enable(A.reg, 0);
    zor_reg_enable(A.reg, 0);
    zor_reg_level *level0 = &s.ds->levels[0];
    EXPECT_EQ(level0->parts[level0->active].bucket_count, 1u);
    EXPECT_EQ(A.reg->enable_pending, 1u);
    zor_reg_process(s.ds);
    EXPECT_TRUE(trace.empty());
    EXPECT_EQ(A.reg->enabled, 1u);
    EXPECT_EQ(A.reg->enable_pending, 0u);
    EXPECT_EQ(A.reg->in_partition, 0u);

    zor_reg_field_set(r2, s.a, &v);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace, (trace_t{"A 2@1"}));

    /* Enabling an active registration asks for nothing; with resync it delivers all matches. */
    zor_reg_enable(A.reg, 0);
    EXPECT_EQ(level0->parts[level0->active].buckets, nullptr);
    zor_reg_field_set(r3, s.a, &v);
    zor_reg_flag_set(r3, s.del, 1); /* delete-pending: left out of a resync */
    zor_reg_enable(A.reg, 1);
    zor_reg_enable(B.reg, 1); /* nothing has b set: called with no entries */
    trace.clear();
    zor_reg_process(s.ds);
    EXPECT_EQ(trace, (trace_t{"B resync -@0", "A resync 1,2@0"}));
    EXPECT_EQ(A.reg->resync, 0u);
    EXPECT_EQ(B.reg->enabled, 1u);
}

TEST(RegProcess, LevelsAndPassesInOrder)
{
    trace.clear();
    reg_test_schema s;
    s.open();
    watcher A("A"), B("B"), C("C"), D("D"), E("E");
    watch(s, A, 0, s.a);
    watch(s, B, 0, s.a);
    watch(s, C, ZOR_REG_LEVEL_1, s.a);
    watch(s, D, ZOR_REG_LEVEL_2 | ZOR_REG_LEVEL_1, s.a);
    watch(s, E, 0, s.b);
    EXPECT_EQ(D.reg->level, 2u);
    for (watcher *w : {&A, &B, &C, &D, &E})
        zor_reg_enable(w->reg, 0);
    reg_test_rec *r1 = s.make(1);
    reg_test_rec *r2 = s.make(2);
    zor_reg_process(s.ds);

    /* B, served first, changes r1 again once: r1 is queued anew for the next pass. */
    int v = 1;
    bool once = true;
    B.action = [&](zor_reg_cb_info *, const std::vector<zor_reg_entry *> &) {
        if (once) {
            once = false;
            int w = 2;
            zor_reg_field_set(r1, s.a, &w);
        }
    };
    /* C (level 1) changes b, watched by E on level 0: E comes before D (level 2). */
    C.action = [&](zor_reg_cb_info *, const std::vector<zor_reg_entry *> &entries) {
        for (zor_reg_entry *e : entries)
            zor_reg_field_set(zor_reg_rec(e), s.b, &v);
    };
    zor_reg_field_set(r1, s.a, &v);
    zor_reg_field_set(r2, s.a, &v);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace,
              (trace_t{"B 1,2@1", "A 1,2@1", "B 1@2", "A 1@2", "C 1,2@3", "E 1,2@4", "D 1,2@5"}));
    EXPECT_EQ(zor_reg_cb_trace_count, 7u);
    EXPECT_EQ(zor_reg_cb_trace[4].reg, C.reg);
    EXPECT_EQ(zor_reg_cb_trace[4].count, 2u);
    EXPECT_EQ(zor_reg_cb_trace[4].resync, 0u);
    EXPECT_EQ(zor_reg_cb_trace[6].iteration, 5u);
    /* Every pass flips the level it served: level 0 served 4 times in all, levels 1 and 2 twice. */
    EXPECT_EQ(s.ds->levels[0].active, 0u);
    EXPECT_EQ(s.ds->levels[1].active, 0u);
    EXPECT_EQ(s.ds->levels[2].active, 0u);
    EXPECT_EQ(zor_reg_bit_get(zor_reg_entry_queued_bits(reg_test_entry(r1), s.kind), A.reg->id), 0);
}

TEST(RegProcess, CallbacksChangingWhatTheyWatch)
{
    trace.clear();
    reg_test_schema s;
    s.open();
    watcher A("A");
    watch(s, A, 0, s.a);
    zor_reg_enable(A.reg, 0);
    reg_test_rec *r = s.make(1);
    zor_reg_process(s.ds);
    A.action = [&](zor_reg_cb_info *, const std::vector<zor_reg_entry *> &) {
        if (r->a < 3) {
            int next = r->a + 1;
            zor_reg_field_set(r, s.a, &next);
        }
    };
    int one = 1;
    zor_reg_field_set(r, s.a, &one);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace, (trace_t{"A 1@1", "A 1@2", "A 1@3"}));

    /* A callback that always changes what it watches stops after the 99th pass. */
    A.action = [&](zor_reg_cb_info *, const std::vector<zor_reg_entry *> &) {
        int next = r->a + 1;
        zor_reg_field_set(r, s.a, &next);
    };
    ZOR_EXPECT_ASSERT(
        {
            zor_reg_field_set(r, s.a, &one);
            zor_reg_process(s.ds);
        },
        "zor_reg_process", "iterations < 100");
    ZOR_EXPECT_ASSERT(
        {
            A.action = [&](zor_reg_cb_info *, const std::vector<zor_reg_entry *> &) {
                zor_reg_process(s.ds);
            };
            zor_reg_field_set(r, s.a, &one);
            zor_reg_process(s.ds);
        },
        "zor_reg_process", "!zor_reg_in_cb_processing");
}

TEST(RegProcess, FailedRegistrationRecoversThroughResync)
{
    trace.clear();
    reg_test_schema s;
    s.open();
    watcher A("A");
    watch(s, A, 0, s.a);
    zor_reg_enable(A.reg, 0);
    reg_test_rec *r1 = s.make(1);
    reg_test_rec *r2 = s.make(2);
    zor_reg_process(s.ds);
    int v = 1, w = 2;
    A.result = 0;
    zor_reg_field_set(r1, s.a, &v);
    zor_reg_process(s.ds);
    EXPECT_EQ(A.reg->failed, 1u);
    zor_reg_field_set(r2, s.a, &v); /* dropped while failed */
    zor_reg_process(s.ds);
    zor_reg_resync(A.reg); /* still failing */
    zor_reg_process(s.ds);
    EXPECT_EQ(A.reg->failed, 1u);
    A.result = 1;
    zor_reg_field_set(r1, s.a, &w); /* queued, but the resync in the same pass replaces it */
    zor_reg_resync(A.reg);
    zor_reg_process(s.ds);
    EXPECT_EQ(A.reg->failed, 0u);
    zor_reg_field_set(r2, s.a, &w);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace, (trace_t{"A 1@1", "A resync 1,2@0", "A resync 1,2@0", "A 2@1"}));
}

TEST(RegProcess, DisabledAndStrayResyncDropEverything)
{
    trace.clear();
    reg_test_schema s;
    s.open();
    watcher A("A");
    watch(s, A, 0, s.a);
    zor_reg_enable(A.reg, 1);
    reg_test_rec *r = s.make(1);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace, (trace_t{"A resync -@0"}));
    int v = 1;
    zor_reg_field_set(r, s.a, &v);
    A.reg->failed = 1;
    zor_reg_disable(A.reg);
    EXPECT_EQ(A.reg->enabled + A.reg->enable_pending + A.reg->resync + A.reg->failed, 0u);
    EXPECT_EQ(A.reg->in_partition, 1u); /* still queued: dropped by processing */
    zor_reg_process(s.ds);
    EXPECT_EQ(A.reg->in_partition, 0u);
    zor_reg_resync(A.reg); /* neither enabled nor pending: dropped, resync cleared */
    zor_reg_process(s.ds);
    EXPECT_EQ(A.reg->resync, 0u);
    EXPECT_EQ(trace.size(), 1u);
    zor_reg_enable(A.reg, 0);
    zor_reg_process(s.ds);
    zor_reg_field_set(r, s.a, nullptr);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace, (trace_t{"A resync -@0", "A 1@1"}));
}

TEST(RegProcess, InfoSplitsSetAndDeletingEntries)
{
    trace.clear();
    reg_test_schema s(true);
    s.open();
    watcher A("A");
    A.reg = zor_register_rec_update_v(s.ds, s.kind, 0, log_update, &A, 2, s.a, s.b);
    zor_reg_enable(A.reg, 0);
    reg_test_rec *r1 = s.make(1);
    reg_test_rec *r2 = s.make(2);
    reg_test_rec *r3 = s.make(3);
    zor_reg_process(s.ds);

    std::vector<std::string> split;
    A.action = [&](zor_reg_cb_info *info, const std::vector<zor_reg_entry *> &entries) {
        EXPECT_EQ(zor_reg_info_ds_ctx(info), &s);
        std::vector<int> deleting, record_deleting;
        for (zor_reg_entry *e : entries) {
            deleting.push_back(zor_reg_info_is_deleting(info, e));
            record_deleting.push_back(zor_reg_info_is_record_deleting(e));
        }
        EXPECT_EQ(deleting, (std::vector<int>{0, 1, 1}));
        EXPECT_EQ(record_deleting, (std::vector<int>{0, 0, 1}));
    };
    int v = 1;
    zor_reg_field_set(r1, s.b, &v);
    zor_reg_field_set(r2, s.a, &v);
    zor_reg_field_set(r2, s.a, nullptr); /* no watched field left */
    zor_reg_field_set(r3, s.a, &v);
    zor_reg_flag_set(r3, s.del, 1);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace, (trace_t{"A 1,2,3@1"}));

    /* The split consumes the entries iterator itself. */
    A.reg->cb = [](zor_reg_cb_info *info, zor_iter *, void *) -> int {
        zor_iter *set_iter, *del_iter;
        uint32_t set_count = 99, del_count = 99;
        zor_reg_info_iter(info, &set_iter, &del_iter, &set_count, &del_count);
        std::vector<zor_reg_entry *> set, del;
        zor_reg_entry *e;
        ZOR_ITER_FOREACH (set_iter, e) {
            set.push_back(e);
        }
        ZOR_ITER_FOREACH (del_iter, e) {
            del.push_back(e);
        }
        trace.push_back("set " + names_of(set) + " del " + names_of(del) + " " +
                        std::to_string(set_count) + "/" + std::to_string(del_count));
        return 1;
    };
    reg_test_rec *r4 = s.make(4);
    zor_reg_field_set(r4, s.a, &v);
    zor_reg_field_set(r2, s.b, &v);
    zor_reg_field_set(r1, s.b, nullptr);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace.back(), "set 4,2 del 1 2/1");
    zor_reg_resync(A.reg);
    zor_reg_process(s.ds);
    EXPECT_EQ(trace.back(), "set 2,4 del - 2/0");

    /* Only splitting, all out-parameters null; a second split stops. */
    A.reg->cb = [](zor_reg_cb_info *info, zor_iter *, void *) -> int {
        zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
        EXPECT_EQ(info->set_count + info->del_count, info->count);
        return 1;
    };
    zor_reg_resync(A.reg);
    zor_reg_process(s.ds);
    A.reg->cb = [](zor_reg_cb_info *info, zor_iter *, void *) -> int {
        zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
        zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
        return 1;
    };
    zor_reg_resync(A.reg);
    ZOR_EXPECT_ASSERT(zor_reg_process(s.ds), "zor_reg_info_iter", "!info->is_partitioned");
    /* A resync whose record loses its watched fields before the split. */
    A.reg->cb = [](zor_reg_cb_info *info, zor_iter *iter, void *ctx) -> int {
        reg_test_schema *sch = static_cast<reg_test_schema *>(zor_reg_info_ds_ctx(info));
        zor_reg_entry *first = static_cast<zor_reg_entry *>(iter->first(nullptr, iter->info));
        zor_reg_field_set(zor_reg_rec(first), sch->a, nullptr);
        zor_reg_field_set(zor_reg_rec(first), sch->b, nullptr);
        (void)ctx;
        zor_reg_info_iter(info, nullptr, nullptr, nullptr, nullptr);
        return 1;
    };
    ZOR_EXPECT_ASSERT(zor_reg_process(s.ds), "zor_reg_info_iter",
                      "!info->resync || info->del_count == 0");

    /* A registration that watches nothing finds every record deleting. */
    zor_reg_rec_update *none = zor_register_rec_update(s.ds, s.kind, 0, log_update, nullptr);
    zor_reg_cb_info info = {};
    info.reg = none;
    EXPECT_EQ(zor_reg_info_is_deleting(&info, reg_test_entry(r4)), 1);
}

TEST(RegProcess, TraceRingWrapsAfterThousandCalls)
{
    reg_test_schema s;
    s.open();
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
    EXPECT_EQ(zor_reg_rec_size(s.ds, s.kind), s.kind->size + 126);
}
