/*
 * Reference-model test of the registry.
 *
 * A deliberately simple model of the registry's contract, written with
 * plain C++ containers, runs beside the real registry. Seeded random
 * sequences of operations (creating records, setting fields and flags,
 * triggering, enabling, resyncing and disabling update registrations,
 * adding notifiers, deleting records through their delete-pending flag or
 * by hand, taking, discarding and restoring snapshots, processing) are
 * applied to both, and every callback the two sides make is logged in one
 * format and compared in order: which notifier, registration, unlink or
 * free callback, which records, resync or not, the deleting split, pass
 * numbers. After every operation the plain and snapshot reads of every
 * live record and the state words of every registration are compared too,
 * the real side's queued bits are checked against its partitions, and a
 * reference-counted value type checks that backups and restores neither
 * leak nor release twice. Update callbacks fail now and then and
 * change records themselves, so failure, recovery through resync and work
 * queued during a pass are exercised.
 *
 * CTest runs a few thousand seeds (fewer under the sanitizers; the
 * ZOR_MODEL_COUNT environment variable sets the number). By hand:
 *     test_reg_model --seed S --count N      (N sequences from seed S)
 */
#include "zor_test.h"
#include "zor_reg.h"
#include "zor_reg_internal.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace
{

/* ---- value types ------------------------------------------------------------ */

void int_write(void *dst, const void *src, const zor_datatype_info *)
{
    *static_cast<int32_t *>(dst) = src ? *static_cast<const int32_t *>(src) : 0;
}

int int_cmp(const void *a, const void *b, const zor_datatype_info *)
{
    int32_t x = *static_cast<const int32_t *>(a), y = *static_cast<const int32_t *>(b);
    return x < y ? -1 : x > y;
}

/*
 * A value type that holds references: values 1 to 3 name entries of a
 * reference table, 0 holds nothing. Write takes a reference, free drops
 * one; a count below zero is a double release.
 */
int refs[4];
bool refs_broken;

void counted_release(int32_t *v)
{
    if (*v != 0 && --refs[*v] < 0)
        refs_broken = true;
    *v = 0;
}

void counted_write(void *dst, const void *src, const zor_datatype_info *)
{
    int32_t *d = static_cast<int32_t *>(dst);
    counted_release(d);
    if (src != nullptr && (*d = *static_cast<const int32_t *>(src)) != 0)
        refs[*d]++;
}

void counted_free(void *value, const zor_datatype_info *, const zor_reg_field_info *)
{
    counted_release(static_cast<int32_t *>(value));
}

zor_datatype_info make_type(uint64_t size, uint32_t props)
{
    zor_datatype_info t = {};
    t.size = size;
    t.properties = ZOR_DATATYPE_PROP_FLATTENED | props;
    if (size != 0) {
        t.write = int_write;
        t.copy = int_write;
        t.cmp_eq = int_cmp;
        t.cmp = int_cmp;
    }
    return t;
}

zor_datatype_info make_counted()
{
    zor_datatype_info t = make_type(4, 0);
    t.write = counted_write;
    t.free = counted_free;
    return t;
}

const zor_datatype_info int_type = make_type(4, 0);
const zor_datatype_info transient_type = make_type(4, ZOR_DATATYPE_PROP_RESET_ON_UNSET);
const zor_datatype_info no_restore_type = make_type(4, ZOR_DATATYPE_PROP_NO_RESTORE);
const zor_datatype_info counted_type = make_counted();
const zor_datatype_info flag_type = make_type(0, 0);

/* ---- the schema both sides share ------------------------------------------------- */

/* The caller's record: the model's id and value slots. */
struct Rec {
    uint32_t id;
    int32_t v[10];
};

struct FieldDef {
    bool flag;
    const zor_datatype_info *type;
    int slot; /* value slot in Rec, -1 for flags */
    int ctrl; /* id of the control flag (it needs a default), -1 for none */
    bool has_default;
};

struct KindDef {
    std::vector<FieldDef> fields;
    int del;   /* delete-pending flag, -1 for none */
    int track; /* flag kept by a tracking registration, -1 for none */
};

const int32_t default_values[10] = {7, 11, 13, 17, 19, 23, 29, 31, 37, 41};
const int flag_default_on = 1;

/*
 * Kind 0: two bytes of field bits, defaults, transient, not-restored and
 * reference-counted values, a control-flag chain (a3 -> afl -> afl2), a
 * delete-pending flag and a tracked flag. Kind 1: small, with deletion.
 * Kind 2: no deletion information; its records leave by the caller's hand,
 * and only it has level-2 registrations of the caller (what such a
 * registration receives of a record being removed is not settled).
 */
const std::vector<KindDef> kinds = {
    {{
         {false, &int_type, 0, -1, false},        /* 0 a0 */
         {true, &flag_type, -1, -1, true},        /* 1 actl: flag, default on */
         {false, &int_type, 1, 1, true},          /* 2 a1: default gated by actl */
         {false, &transient_type, 2, -1, true},   /* 3 a2: reset when unset */
         {true, &flag_type, -1, 6, true},         /* 4 afl: default gated by afl2 */
         {false, &int_type, 3, 4, true},          /* 5 a3: default gated by afl */
         {true, &flag_type, -1, -1, false},       /* 6 afl2 */
         {false, &counted_type, 4, -1, false},    /* 7 a4: holds references */
         {false, &transient_type, 5, 6, true},    /* 8 a5 */
         {false, &no_restore_type, 6, -1, false}, /* 9 a6: left alone by restore */
         {true, &flag_type, -1, -1, false},       /* 10 adel: delete pending */
         {true, &flag_type, -1, -1, false},       /* 11 atrk: tracked */
         {false, &counted_type, 7, -1, true},     /* 12 a7 */
     },
     10,
     11},
    {{
         {false, &int_type, 0, -1, false},  /* 0 b0 */
         {true, &flag_type, -1, -1, false}, /* 1 bfl */
         {false, &int_type, 1, 1, true},    /* 2 b1 */
         {true, &flag_type, -1, -1, false}, /* 3 bdel */
     },
     3,
     -1},
    {{
         {false, &int_type, 0, -1, false},   /* 0 c0 */
         {true, &flag_type, -1, -1, false},  /* 1 cfl */
         {false, &counted_type, 1, 1, true}, /* 2 c1 */
     },
     -1,
     -1},
};

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof(buf), f, ap);
    va_end(ap);
    return buf;
}

std::string ids_text(const std::vector<uint32_t> &ids)
{
    std::string s = "[";
    for (size_t i = 0; i < ids.size(); i++)
        s += (i ? " " : "") + std::to_string(ids[i]);
    return s + "]";
}

/* The value fields of a kind, for changes made inside callbacks. */
std::vector<int> value_fields(int kind)
{
    std::vector<int> out;
    for (size_t f = 0; f < kinds[kind].fields.size(); f++)
        if (!kinds[kind].fields[f].flag)
            out.push_back(static_cast<int>(f));
    return out;
}

/*
 * Decisions taken inside update callbacks come from the callback's ordinal
 * number, so both sides decide alike as long as they are called alike.
 */
struct Decision {
    bool fail, change, use_split;
    uint32_t pick, field;
    int32_t value;
};

Decision decide(uint64_t seed, uint64_t ordinal)
{
    std::mt19937_64 r(seed * 0x9E3779B97F4A7C15ull + ordinal * 0xBF58476D1CE4E5B9ull + 1);
    Decision d;
    d.fail = r() % 7 == 0;
    d.change = r() % 4 == 0;
    d.use_split = r() % 2 == 0;
    d.pick = static_cast<uint32_t>(r());
    d.field = static_cast<uint32_t>(r());
    d.value = static_cast<int32_t>(r() % 4);
    return d;
}

/*
 * What both sides share: the callback log and the update callback's
 * decisions. `S` (Model or Real) provides the operations the driver calls
 * on both alike.
 */
template <class S> struct Side {
    uint64_t seed = 0;
    std::vector<std::string> log;
    uint64_t callbacks = 0;
    int budget = 0; /* changes callbacks may still make in this operation */

    /* Logs one delivery to the caller's update callback and carries out its decision. */
    bool delivered(int kind, uint32_t reg, int resync, uint32_t count, uint32_t pass,
                   const std::vector<uint32_t> &set, const std::vector<uint32_t> &del)
    {
        Decision d = decide(seed, callbacks++);
        log.push_back(fmt("U k=%d r=%u resync=%d count=%u pass=%u set=%s del=%s", kind, reg, resync,
                          count, pass, ids_text(set).c_str(), ids_text(del).c_str()));
        std::vector<uint32_t> all = set;
        all.insert(all.end(), del.begin(), del.end());
        /* A kind without deletion information may not change during a snapshot. */
        bool allowed = kinds[kind].del >= 0 || !static_cast<S *>(this)->snapshot_active();
        if (d.change && budget > 0 && !all.empty() && allowed) {
            budget--;
            std::vector<int> vf = value_fields(kind);
            static_cast<S *>(this)->field_set(all[d.pick % all.size()], vf[d.field % vf.size()],
                                              &d.value);
        }
        return !d.fail;
    }
};

/* ---- the model ------------------------------------------------------------------------ */

struct ModelReg {
    uint32_t level = 0;
    bool follow_ctrl = true;
    bool removal = false; /* the data store's own removal registration */
    int track = -1;       /* tracking registration: the flag it keeps */
    bool invert = false;
    std::vector<bool> watched;
    bool enable_pending = false, resync = false, failed = false, enabled = false;
    bool in_partition = false;
    std::vector<uint32_t> bucket[2];
};

struct ModelRec {
    int kind;
    bool live = true; /* in its kind's entries */
    std::vector<bool> set, snap;
    std::vector<int32_t> val;
    std::set<uint32_t> queued;
    bool prohibited = false, created = false, updated = false, deleted = false,
         created_restore = false;
    bool has_backup = false;
    std::map<int, int32_t> backup;
    bool freed = false;
};

struct Notifier {
    int n, kind, field;
};

struct Model : Side<Model> {
    std::vector<ModelRec> recs;
    std::vector<std::vector<uint32_t>> entries{kinds.size()};
    std::vector<std::vector<ModelReg>> regs{kinds.size()};
    std::vector<std::vector<std::vector<uint32_t>>> watchers;
    std::vector<std::vector<int>> watched_order{kinds.size()}; /* fields, by first watch */
    std::vector<Notifier> create_n, delete_n, field_n;
    struct Level {
        int active = 0;
        std::vector<std::pair<int, uint32_t>> parts[2];
    } levels[3];
    bool active = false;
    std::vector<uint32_t> created_list, updated_list;
    uint32_t last_deliveries = 0; /* callback invocations of the last processing call */

    Model()
    {
        for (size_t k = 0; k < kinds.size(); k++) {
            watchers.push_back(std::vector<std::vector<uint32_t>>(kinds[k].fields.size()));
            if (kinds[k].del >= 0) { /* the data store's removal registration, id 0 */
                ModelReg g;
                g.level = 2;
                g.removal = true;
                g.watched.assign(kinds[k].fields.size(), false);
                regs[k].push_back(g);
                add_field(regs[k][0], static_cast<int>(k), 0, kinds[k].del);
                enable(static_cast<int>(k), 0, 0);
            }
        }
    }

    const FieldDef &def(int kind, int f) const
    {
        return kinds[kind].fields[f];
    }
    bool snapshot_active()
    {
        return active;
    }

    std::string read(const ModelRec &r, int f, const std::vector<bool> &bits, bool with_default,
                     const std::map<int, int32_t> *backup) const
    {
        const FieldDef &d = def(r.kind, f);
        bool dflt = with_default && d.has_default && (d.ctrl < 0 || bits[d.ctrl]);
        if (d.flag)
            return (bits[f] || dflt) ? "1" : "0";
        if (bits[f]) {
            if (backup && backup->count(f))
                return std::to_string(backup->at(f));
            return std::to_string(r.val[f]);
        }
        return dflt ? std::to_string(default_values[d.slot]) : "-";
    }

    std::string explicit_text(const ModelRec &r, int f) const
    {
        return read(r, f, r.set, false, nullptr);
    }

    void add_field(ModelReg &g, int kind, uint32_t id, int f)
    {
        if (!g.watched[f]) {
            g.watched[f] = true;
            if (watchers[kind][f].empty())
                watched_order[kind].push_back(f);
            watchers[kind][f].push_back(id);
        }
        if (g.follow_ctrl && def(kind, f).ctrl >= 0)
            add_field(g, kind, id, def(kind, f).ctrl);
    }

    void add_reg(int kind, uint32_t flags, const std::vector<int> &fields, bool, int track,
                 int invert)
    {
        ModelReg g;
        g.level = (flags & ZOR_REG_LEVEL_2) ? 2 : (flags & ZOR_REG_LEVEL_1) ? 1 : 0;
        g.follow_ctrl = !(flags & ZOR_REG_NO_CTRL_FLAGS);
        g.track = track;
        g.invert = invert != 0;
        g.watched.assign(kinds[kind].fields.size(), false);
        regs[kind].push_back(g);
        uint32_t id = static_cast<uint32_t>(regs[kind].size() - 1);
        for (int f : fields)
            add_field(regs[kind][id], kind, id, f);
    }

    void queue_reg(int kind, uint32_t id)
    {
        ModelReg &g = regs[kind][id];
        Level &l = levels[g.level];
        if (!g.in_partition) {
            l.parts[l.active].push_back({kind, id});
            g.in_partition = true;
        }
    }

    bool delete_pending(const ModelRec &r) const
    {
        return kinds[r.kind].del >= 0 && r.set[kinds[r.kind].del];
    }

    void entry_changed(int f, uint32_t rid)
    {
        ModelRec &r = recs[rid];
        EXPECT_FALSE(r.prohibited) << "the driver changed a record under removal";
        if (delete_pending(r))
            return;
        for (uint32_t g : watchers[r.kind][f]) {
            if (r.queued.count(g))
                continue;
            r.queued.insert(g);
            queue_reg(r.kind, g);
            regs[r.kind][g].bucket[levels[regs[r.kind][g].level].active].push_back(rid);
        }
    }

    /* The notifier the data store hangs on a delete-pending flag. */
    void delete_pending_notifier(uint32_t rid)
    {
        ModelRec &r = recs[rid];
        const std::vector<int> &order = watched_order[r.kind];
        for (auto it = order.rbegin(); it != order.rend(); ++it) {
            const FieldDef &d = def(r.kind, *it); /* set, or its default applies */
            if (r.set[*it] || (d.has_default && (d.ctrl < 0 || r.set[d.ctrl])))
                entry_changed(*it, rid);
        }
    }

    void notify(uint32_t rid, int f, int is_set, const std::string &value)
    {
        ModelRec &r = recs[rid];
        if (f == kinds[r.kind].del)
            delete_pending_notifier(rid); /* registered first, at data store creation */
        for (const Notifier &n : field_n)
            if (n.kind == r.kind && n.field == f)
                log.push_back(fmt("N%d rec=%u field=%d is_set=%d value=%s old=%s", n.n, rid, f,
                                  is_set, value.c_str(), explicit_text(r, f).c_str()));
    }

    void mark_updated(uint32_t rid)
    {
        ModelRec &r = recs[rid];
        if (active && !r.created && !r.updated) {
            r.updated = true;
            updated_list.push_back(rid);
        }
    }

    void update_bit(ModelRec &r, int f, bool v)
    {
        r.set[f] = v;
        if (!active)
            r.snap[f] = v;
    }

    uint32_t create(int kind)
    {
        ModelRec r;
        r.kind = kind;
        r.set.assign(kinds[kind].fields.size(), false);
        r.snap = r.set;
        r.val.assign(kinds[kind].fields.size(), 0);
        uint32_t id = static_cast<uint32_t>(recs.size());
        recs.push_back(r);
        if (active) {
            recs[id].created = true;
            created_list.push_back(id);
        }
        entries[kind].push_back(id);
        for (const Notifier &n : create_n)
            if (n.kind == kind)
                log.push_back(fmt("C%d rec=%u", n.n, id));
        return id;
    }

    void store(ModelRec &r, int f, int32_t v)
    {
        r.val[f] = v;
    }

    void field_set(uint32_t id, int f, const int32_t *value)
    {
        ModelRec &r = recs[id];
        bool is_set = value != nullptr, was = r.set[f];
        bool changed = (was && is_set) ? r.val[f] != *value : was != is_set;
        if (!changed)
            return;
        notify(id, f, is_set, is_set ? std::to_string(*value) : "-");
        mark_updated(id);
        const zor_datatype_info *type = def(r.kind, f).type;
        if (is_set) {
            if (active && !(type->properties & ZOR_DATATYPE_PROP_RESET_ON_UNSET) && !r.created &&
                r.snap[f]) {
                r.has_backup = true;
                if (!r.backup.count(f))
                    r.backup[f] = r.val[f];
            }
            store(r, f, *value);
        } else if (type->properties & ZOR_DATATYPE_PROP_RESET_ON_UNSET) {
            store(r, f, 0);
        }
        entry_changed(f, id);
        if (was != is_set) /* bits change with the set state only */
            update_bit(recs[id], f, is_set);
    }

    void flag_set(uint32_t id, int f, int value)
    {
        if (recs[id].set[f] == (value != 0))
            return;
        notify(id, f, value, value ? "place" : "-");
        mark_updated(id);
        entry_changed(f, id);
        update_bit(recs[id], f, value != 0);
    }

    void flag_trigger(uint32_t id, int f)
    {
        entry_changed(f, id);
    }

    void enable(int kind, uint32_t id, int resync_too)
    {
        if (!regs[kind][id].enabled) {
            regs[kind][id].enable_pending = true;
            queue_reg(kind, id);
        }
        if (resync_too)
            resync(kind, id);
    }

    void resync(int kind, uint32_t id)
    {
        regs[kind][id].resync = true;
        queue_reg(kind, id);
    }

    void disable(int kind, uint32_t id)
    {
        ModelReg &g = regs[kind][id];
        g.enable_pending = g.resync = g.failed = g.enabled = false;
    }

    void add_create_notifier(int kind, int n, int notify_existing)
    {
        create_n.push_back({n, kind, -1});
        if (notify_existing)
            for (uint32_t id : entries[kind])
                log.push_back(fmt("C%d rec=%u", n, id));
    }

    void add_delete_notifier(int kind, int n)
    {
        delete_n.push_back({n, kind, -1});
    }

    void add_field_notifier(int kind, int f, int n)
    {
        field_n.push_back({n, kind, f});
    }

    void deleted(uint32_t id)
    {
        ModelRec &r = recs[id];
        for (const Notifier &n : delete_n)
            if (n.kind == r.kind)
                log.push_back(fmt("D%d rec=%u", n.n, id));
        auto &e = entries[r.kind];
        e.erase(std::find(e.begin(), e.end(), id));
        r.live = false;
    }

    /* The kind's unlink and free callbacks log; clear_on_destroy is the real side's. */
    void unlink_and_free(uint32_t id)
    {
        recs[id].freed = true;
        if (kinds[recs[id].kind].del >= 0) {
            log.push_back(fmt("X rec=%u", id));
            log.push_back(fmt("F rec=%u", id));
        }
    }

    void remove(uint32_t id)
    {
        deleted(id);
        unlink_and_free(id);
    }

    bool deleting(const ModelReg &g, const ModelRec &r) const
    {
        if (delete_pending(r))
            return true;
        for (size_t f = 0; f < g.watched.size(); f++)
            if (g.watched[f] && r.set[f])
                return false;
        return true;
    }

    bool deliver(int kind, uint32_t id, int resync_delivery, const std::vector<uint32_t> &ids,
                 uint32_t pass)
    {
        last_deliveries++;
        ModelReg &g = regs[kind][id];
        if (g.removal) {
            for (uint32_t rid : ids) {
                EXPECT_TRUE(deleting(g, recs[rid]));
                recs[rid].prohibited = true;
                deleted(rid);
                if (active || recs[rid].created_restore)
                    recs[rid].deleted = true;
                else
                    unlink_and_free(rid);
            }
            return true;
        }
        if (g.track >= 0) {
            bool invert = g.invert;
            int flag = g.track;
            for (uint32_t rid : ids) {
                bool d = deleting(regs[kind][id], recs[rid]);
                flag_set(rid, flag, invert ? !d : d);
            }
            return true;
        }
        std::vector<uint32_t> set, del;
        for (uint32_t rid : ids)
            (deleting(g, recs[rid]) ? del : set).push_back(rid);
        return delivered(kind, id, resync_delivery, static_cast<uint32_t>(ids.size()), pass, set,
                         del);
    }

    void serve(int kind, uint32_t id, const std::vector<uint32_t> &bucket, uint32_t pass)
    {
        ModelReg &g = regs[kind][id];
        if (g.enabled && !bucket.empty() && !g.resync && !g.failed) {
            if (!deliver(kind, id, 0, bucket, pass))
                regs[kind][id].failed = true;
            return;
        }
        if (g.enable_pending) {
            g.enabled = true;
            g.enable_pending = false;
        }
        if (g.enabled && g.resync) {
            std::vector<uint32_t> all;
            for (uint32_t rid : entries[kind])
                if (!deleting(g, recs[rid]))
                    all.push_back(rid);
            bool ok = deliver(kind, id, 1, all, 0);
            regs[kind][id].failed = !ok;
        }
        regs[kind][id].resync = false;
    }

    void process()
    {
        last_deliveries = 0;
        for (uint32_t pass = 1;; pass++) {
            int L = 0;
            while (L < 3 && levels[L].parts[levels[L].active].empty())
                L++;
            if (L == 3)
                return;
            ASSERT_LT(pass, 100u) << "the model ran away";
            Level &l = levels[L];
            int a = l.active;
            std::vector<std::pair<int, uint32_t>> P = l.parts[a];
            for (auto &kr : P) {
                for (uint32_t rid : regs[kr.first][kr.second].bucket[a])
                    recs[rid].queued.erase(kr.second);
                regs[kr.first][kr.second].in_partition = false;
            }
            l.active ^= 1;
            for (auto it = P.rbegin(); it != P.rend(); ++it) {
                std::vector<uint32_t> bucket = regs[it->first][it->second].bucket[a];
                serve(it->first, it->second, bucket, pass);
            }
            l.parts[a].clear();
            for (auto &kr : P)
                regs[kr.first][kr.second].bucket[a].clear();
        }
    }

    void take()
    {
        process();
        active = true;
    }

    void discard()
    {
        process();
        std::vector<uint32_t> order = updated_list;
        order.insert(order.end(), created_list.begin(), created_list.end());
        for (uint32_t id : order)
            if (recs[id].deleted)
                log.push_back(fmt("X rec=%u", id));
        for (uint32_t id : order) {
            ModelRec &r = recs[id];
            r.has_backup = false;
            r.backup.clear();
            if (r.deleted) {
                log.push_back(fmt("F rec=%u", id));
                r.freed = true;
            } else {
                r.updated = r.created = false;
                r.snap = r.set;
            }
        }
        updated_list.clear();
        created_list.clear();
        active = false;
    }

    void restore()
    {
        process();
        active = false;
        for (uint32_t id : updated_list)
            recs[id].prohibited = false;
        for (uint32_t id : updated_list) {
            ModelRec &r = recs[id];
            r.updated = false;
            if (r.deleted) {
                r.live = true;
                entries[r.kind].push_back(id);
                for (const Notifier &n : create_n)
                    if (n.kind == r.kind)
                        log.push_back(fmt("C%d rec=%u", n.n, id));
                r.deleted = false;
            }
            r.set[kinds[r.kind].del] = false;
            if (r.has_backup) {
                std::map<int, int32_t> backup = r.backup;
                for (auto &fv : backup)
                    if (!(def(r.kind, fv.first).type->properties & ZOR_DATATYPE_PROP_NO_RESTORE))
                        field_set(id, fv.first, &fv.second);
                recs[id].has_backup = false;
                recs[id].backup.clear();
            }
            for (size_t f = 0; f < kinds[r.kind].fields.size(); f++) {
                ModelRec &rr = recs[id];
                int fi = static_cast<int>(f);
                bool snap = rr.snap[f];
                const zor_datatype_info *type = def(rr.kind, fi).type;
                if (snap == rr.set[f] || (type->properties & ZOR_DATATYPE_PROP_NO_RESTORE))
                    continue;
                notify(id, fi, snap,
                       !snap                   ? "-"
                       : def(rr.kind, fi).flag ? "place"
                                               : std::to_string(rr.val[f]));
                if (type->write && (type->properties & ZOR_DATATYPE_PROP_RESET_ON_UNSET))
                    store(recs[id], fi, 0);
                entry_changed(fi, id);
                update_bit(recs[id], fi, snap);
            }
        }
        for (uint32_t id : created_list) {
            recs[id].created_restore = true;
            if (!recs[id].deleted)
                flag_set(id, kinds[recs[id].kind].del, 1);
        }
        process();
        for (uint32_t id : created_list) {
            EXPECT_TRUE(recs[id].deleted);
            log.push_back(fmt("X rec=%u", id));
            log.push_back(fmt("F rec=%u", id));
            recs[id].freed = true;
        }
        updated_list.clear();
        created_list.clear();
    }

    /* References the counted values should hold: stored in unfreed records, or backed up. */
    std::string expected_refs() const
    {
        int n[4] = {0, 0, 0, 0};
        for (const ModelRec &r : recs) {
            if (r.freed)
                continue;
            for (size_t f = 0; f < r.val.size(); f++) {
                if (def(r.kind, static_cast<int>(f)).type != &counted_type)
                    continue;
                n[r.val[f]]++;
                if (r.backup.count(static_cast<int>(f)))
                    n[r.backup.at(static_cast<int>(f))]++;
            }
        }
        return fmt("%d %d %d", n[1], n[2], n[3]);
    }

    std::string state()
    {
        std::string s;
        for (size_t k = 0; k < kinds.size(); k++) {
            for (uint32_t id : entries[k]) {
                const ModelRec &r = recs[id];
                s += fmt("rec %u:", id);
                for (size_t f = 0; f < kinds[k].fields.size(); f++) {
                    int fi = static_cast<int>(f);
                    s += " " + read(r, fi, r.set, true, nullptr) + "/" + explicit_text(r, fi) +
                         "/" + read(r, fi, r.snap, true, &r.backup) + "/" +
                         read(r, fi, r.snap, false, &r.backup);
                }
                s += "\n";
            }
            for (size_t g = 0; g < regs[k].size(); g++) {
                const ModelReg &r = regs[k][g];
                s += fmt("reg %zu/%zu: E%d P%d R%d F%d Q%d L%u W", k, g, r.enabled,
                         r.enable_pending, r.resync, r.failed, r.in_partition, r.level);
                for (size_t f = 0; f < r.watched.size(); f++)
                    if (r.watched[f])
                        s += fmt(" %zu", f);
                s += "\n";
            }
        }
        return s;
    }
};

/* ---- the real registry ----------------------------------------------------------------- */

struct Real;
Real *real_side; /* the registry's callbacks find their side here */

struct Real : Side<Real> {
    zor_reg_db db;
    zor_reg_ds *ds = nullptr;
    std::vector<zor_reg_rec_info *> infos;
    std::vector<std::vector<zor_reg_field_info *>> fields;
    std::vector<std::vector<zor_reg_rec_update *>> regs{kinds.size()};
    std::vector<zor_reg_entry *> blocks; /* by id; null once freed */
    std::vector<int> kinds_of;

    static void unlink_cb(zor_reg_ds *, zor_reg_entry *e);
    static void free_cb(zor_reg_ds *, zor_reg_entry *e);

    Real()
    {
        zor_reg_db_init(&db);
        for (size_t k = 0; k < kinds.size(); k++) {
            zor_reg_rec_info *ri = zor_reg_db_rec_add(&db);
            infos.push_back(ri);
            fields.emplace_back();
            for (const FieldDef &d : kinds[k].fields)
                fields[k].push_back(zor_reg_db_rec_add_field(
                    ri, d.flag ? 0 : offsetof(Rec, v) + sizeof(int32_t) * d.slot, d.type));
            for (size_t f = 0; f < kinds[k].fields.size(); f++) {
                const FieldDef &d = kinds[k].fields[f];
                if (d.has_default)
                    zor_reg_db_field_set_default(
                        fields[k][f], d.ctrl < 0 ? nullptr : fields[k][d.ctrl],
                        d.flag ? static_cast<const void *>(&flag_default_on)
                               : &default_values[d.slot]);
            }
            if (kinds[k].del >= 0)
                zor_reg_db_rec_set_deletion_info(ri, fields[k][kinds[k].del], unlink_cb, free_cb);
            zor_reg_db_rec_set_offsets(ri, sizeof(zor_reg_entry), sizeof(Rec));
        }
        ds = zor_reg_ds_init(&db, this);
        for (size_t k = 0; k < kinds.size(); k++)
            if (kinds[k].del >= 0)
                regs[k].push_back(ds->recs[k].rmv_reg);
    }

    ~Real()
    {
        zor_reg_ds_destroy(ds);
        zor_reg_db_destroy(&db);
        for (zor_reg_entry *e : blocks)
            free(e);
    }

    Rec *rec(uint32_t id)
    {
        return static_cast<Rec *>(zor_reg_rec(blocks[id]));
    }
    static uint32_t id_of(const zor_reg_entry *e)
    {
        return static_cast<Rec *>(zor_reg_rec(e))->id;
    }
    bool snapshot_active()
    {
        return ds->snapshot_active != 0;
    }

    int field_index(int kind, const zor_reg_field_info *field)
    {
        for (size_t f = 0; f < fields[kind].size(); f++)
            if (fields[kind][f] == field)
                return static_cast<int>(f);
        return -1;
    }

    static std::string value_text(const void *p)
    {
        return p ? std::to_string(*static_cast<const int32_t *>(p)) : "-";
    }

    std::string explicit_text(uint32_t id, int f)
    {
        int k = kinds_of[id];
        if (kinds[k].fields[f].flag)
            return zor_reg_flag_get_explicit(rec(id), fields[k][f]) ? "1" : "0";
        return value_text(zor_reg_field_get_explicit(rec(id), fields[k][f]));
    }

    /* get/explicit/snapshot get/snapshot explicit */
    std::string reads(uint32_t id, int f)
    {
        int k = kinds_of[id];
        Rec *r = rec(id);
        zor_reg_field_info *fi = fields[k][f];
        if (kinds[k].fields[f].flag)
            return fmt("%d/%d/%d/%d", zor_reg_flag_get(r, fi), zor_reg_flag_get_explicit(r, fi),
                       zor_reg_snapshot_flag_get(r, fi), zor_reg_snapshot_flag_get_explicit(r, fi));
        return value_text(zor_reg_field_get(r, fi)) + "/" +
               value_text(zor_reg_field_get_explicit(r, fi)) + "/" +
               value_text(zor_reg_snapshot_field_get(r, fi)) + "/" +
               value_text(zor_reg_snapshot_field_get_explicit(r, fi));
    }

    static int update_cb(zor_reg_cb_info *info, zor_iter *entries, void *ctx);
    static void create_cb(void *rec, void *ctx);
    static void delete_cb(void *rec, void *ctx);
    static void field_cb(void *rec, const zor_reg_field_info *field, int is_set, const void *value,
                         void *ctx);

    void add_reg(int kind, uint32_t flags, const std::vector<int> &fl, bool variadic, int track,
                 int invert)
    {
        void *ctx =
            reinterpret_cast<void *>(static_cast<intptr_t>(kind * 1000 + regs[kind].size()));
        zor_reg_rec_update *r;
        if (track >= 0) {
            r = zor_reg_track(ds, infos[kind], flags, fields[kind][track], invert);
            for (int f : fl)
                zor_reg_rec_update_field_add(r, fields[kind][f]);
        } else if (variadic && fl.size() == 2) {
            r = zor_register_rec_update_v(ds, infos[kind], flags, update_cb, ctx, 2,
                                          fields[kind][fl[0]], fields[kind][fl[1]]);
        } else {
            r = zor_register_rec_update(ds, infos[kind], flags, update_cb, ctx);
            for (int f : fl)
                zor_reg_rec_update_field_add(r, fields[kind][f]);
        }
        EXPECT_EQ(r->id, regs[kind].size());
        regs[kind].push_back(r);
    }

    uint32_t create(int kind)
    {
        uint32_t id = static_cast<uint32_t>(blocks.size());
        auto *e = static_cast<zor_reg_entry *>(util_calloc(zor_reg_rec_size(ds, infos[kind])));
        blocks.push_back(e);
        kinds_of.push_back(kind);
        /* The record's id is needed by the create notifiers, before the entry knows its kind. */
        reinterpret_cast<Rec *>(reinterpret_cast<char *>(e) + sizeof(zor_reg_entry))->id = id;
        zor_reg_rec_created(ds, infos[kind], e);
        return id;
    }

    void field_set(uint32_t id, int f, const int32_t *value)
    {
        zor_reg_field_set(rec(id), fields[kinds_of[id]][f], value);
    }
    void flag_set(uint32_t id, int f, int value)
    {
        zor_reg_flag_set(rec(id), fields[kinds_of[id]][f], value);
    }
    void flag_trigger(uint32_t id, int f)
    {
        zor_reg_flag_trigger(rec(id), fields[kinds_of[id]][f]);
    }
    void enable(int kind, uint32_t r, int resync_too)
    {
        zor_reg_enable(regs[kind][r], resync_too);
    }
    void resync(int kind, uint32_t r)
    {
        zor_reg_resync(regs[kind][r]);
    }
    void disable(int kind, uint32_t r)
    {
        zor_reg_disable(regs[kind][r]);
    }

    static void *notifier_ctx(int n)
    {
        return reinterpret_cast<void *>(static_cast<intptr_t>(n));
    }

    void add_create_notifier(int kind, int n, int notify_existing)
    {
        zor_register_rec_create(ds, infos[kind], create_cb, notifier_ctx(n), notify_existing);
    }
    void add_delete_notifier(int kind, int n)
    {
        zor_register_rec_delete(ds, infos[kind], delete_cb, notifier_ctx(n));
    }
    void add_field_notifier(int kind, int f, int n)
    {
        zor_register_field_update(ds, fields[kind][f], field_cb, notifier_ctx(n));
    }

    void remove(uint32_t id)
    {
        zor_reg_entry *e = blocks[id];
        zor_reg_rec_deleted(e);
        zor_reg_rec_unlink(e);
        zor_reg_rec_free(e);
        if (blocks[id] != nullptr) { /* a kind without free_cb leaves the block to us */
            free(e);
            blocks[id] = nullptr;
        }
    }

    void process()
    {
        zor_reg_process(ds);
        EXPECT_EQ(zor_reg_in_cb_processing, 0u);
    }
    void take()
    {
        zor_reg_take_snapshot(ds);
    }
    void discard()
    {
        zor_reg_discard_snapshot(ds);
    }
    void restore()
    {
        zor_reg_restore_snapshot(ds);
    }

    /*
     * The queueing invariant: an entry's queued bit for a registration is
     * set exactly when the entry is in the registration's bucket of its
     * level's active partition, and that bucket is chained into the
     * partition exactly when `in_partition` is set.
     */
    std::string queue_problem()
    {
        for (size_t k = 0; k < kinds.size(); k++)
            for (zor_reg_rec_update *r : regs[k]) {
                zor_reg_level *l = &ds->levels[r->level];
                zor_partition_bucket *mine = &r->buckets[l->active], *b;
                bool chained = false;
                ZOR_PARTITION_BUCKETS_FOREACH (&l->parts[l->active], b)
                    chained |= b == mine;
                if (chained != (r->in_partition != 0))
                    return fmt("reg %zu/%u: bucket chained %d, in_partition %u", k, r->id, chained,
                               r->in_partition);
                std::set<uint32_t> in_bucket;
                zor_reg_entry *e;
                if (chained)
                    ZOR_PARTITION_BUCKET_FOREACH (mine, e)
                        if (!in_bucket.insert(id_of(e)).second)
                            return fmt("reg %zu/%u: rec %u twice in its bucket", k, r->id,
                                       id_of(e));
                for (uint32_t id = 0; id < blocks.size(); id++) {
                    bool queued =
                        blocks[id] != nullptr && kinds_of[id] == static_cast<int>(k) &&
                        zor_reg_bit_get(zor_reg_entry_queued_bits(blocks[id], infos[k]), r->id);
                    if (queued != (in_bucket.count(id) != 0))
                        return fmt("reg %zu/%u: rec %u queued bit %d, in its bucket %d", k, r->id,
                                   id, queued, !queued);
                }
            }
        return "";
    }

    std::string state()
    {
        std::string s;
        for (size_t k = 0; k < kinds.size(); k++) {
            zor_iter it;
            zor_list_iter_state st;
            zor_reg_entry *e;
            zor_iter_create(&it, zor_list_iterator(&it, &st, &ds->recs[k].entries));
            ZOR_ITER_FOREACH (&it, e) {
                uint32_t id = id_of(e);
                s += fmt("rec %u:", id);
                for (size_t f = 0; f < kinds[k].fields.size(); f++)
                    s += " " + reads(id, static_cast<int>(f));
                s += "\n";
            }
            zor_iter_free(&it);
            for (size_t g = 0; g < regs[k].size(); g++) {
                const zor_reg_rec_update *r = regs[k][g];
                s += fmt("reg %zu/%zu: E%u P%u R%u F%u Q%u L%u W", k, g, r->enabled,
                         r->enable_pending, r->resync, r->failed, r->in_partition, r->level);
                for (size_t f = 0; f < kinds[k].fields.size(); f++)
                    if (r->field_bits[f / 8] & (1u << (f % 8)))
                        s += fmt(" %zu", f);
                s += "\n";
            }
        }
        return s;
    }
};

void Real::unlink_cb(zor_reg_ds *, zor_reg_entry *e)
{
    real_side->log.push_back(fmt("X rec=%u", id_of(e)));
}

void Real::free_cb(zor_reg_ds *, zor_reg_entry *e)
{
    uint32_t id = id_of(e);
    real_side->log.push_back(fmt("F rec=%u", id));
    free(e); /* the caller's free callback releases the block */
    real_side->blocks[id] = nullptr;
}

int Real::update_cb(zor_reg_cb_info *info, zor_iter *entries, void *ctx)
{
    Real &R = *real_side;
    int kind = static_cast<int>(reinterpret_cast<intptr_t>(ctx)) / 1000;
    uint32_t reg = static_cast<uint32_t>(reinterpret_cast<intptr_t>(ctx)) % 1000;
    uint32_t pass = zor_reg_cb_trace[(zor_reg_cb_trace_count - 1) % 1000].iteration;
    std::vector<uint32_t> set, del;
    if (decide(R.seed, R.callbacks).use_split) {
        zor_iter *si, *di;
        uint32_t sc, dc;
        zor_reg_info_iter(info, &si, &di, &sc, &dc);
        zor_reg_entry *e;
        ZOR_ITER_FOREACH (si, e) {
            set.push_back(id_of(e));
        }
        ZOR_ITER_FOREACH (di, e) {
            del.push_back(id_of(e));
        }
        EXPECT_EQ(sc, set.size());
        EXPECT_EQ(dc, del.size());
    } else {
        zor_reg_entry *e;
        ZOR_ITER_FOREACH (entries, e) {
            (zor_reg_info_is_deleting(info, e) ? del : set).push_back(id_of(e));
        }
    }
    EXPECT_EQ(zor_reg_info_ds_ctx(info), &R);
    return R.delivered(kind, reg, zor_reg_info_is_resync(info), zor_reg_info_count(info), pass, set,
                       del)
               ? 1
               : 0;
}

void Real::create_cb(void *rec, void *ctx)
{
    real_side->log.push_back(fmt("C%d rec=%u", static_cast<int>(reinterpret_cast<intptr_t>(ctx)),
                                 static_cast<Rec *>(rec)->id));
}

void Real::delete_cb(void *rec, void *ctx)
{
    real_side->log.push_back(fmt("D%d rec=%u", static_cast<int>(reinterpret_cast<intptr_t>(ctx)),
                                 static_cast<Rec *>(rec)->id));
}

void Real::field_cb(void *rec, const zor_reg_field_info *field, int is_set, const void *value,
                    void *ctx)
{
    Real &R = *real_side;
    uint32_t id = static_cast<Rec *>(rec)->id;
    int k = R.kinds_of[id];
    int f = R.field_index(k, field);
    std::string v = "-";
    if (value != nullptr && kinds[k].fields[f].flag)
        v = value == static_cast<char *>(rec) + field->offset ? "place" : "elsewhere";
    else if (value != nullptr)
        v = std::to_string(*static_cast<const int32_t *>(value));
    R.log.push_back(fmt("N%d rec=%u field=%d is_set=%d value=%s old=%s",
                        static_cast<int>(reinterpret_cast<intptr_t>(ctx)), id, f, is_set, v.c_str(),
                        R.explicit_text(id, f).c_str()));
}

/* ---- the driver ---------------------------------------------------------------------- */

/*
 * Runs one random sequence against both sides; returns an empty string
 * when they agree throughout, else a description of the first difference.
 */
std::string run_sequence(uint64_t seed)
{
    std::mt19937_64 rng(seed);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };

    memset(refs, 0, sizeof(refs));
    refs_broken = false;
    Model model;
    Real real;
    real_side = &real;
    model.seed = real.seed = seed;
    /* Applies one operation to both sides alike. */
    auto both = [&](auto &&op) {
        op(model);
        op(real);
    };

    /*
     * Everything compared after an operation: the callback logs, the reads
     * and registration states, the real side's queueing invariant, the
     * deliveries of a processing call, the reference counts (none left at
     * the end).
     */
    size_t seen = 0;
    auto compare = [&](const std::string &op, bool processed, bool last) -> std::string {
        std::string problem;
        std::string real_refs = fmt("%d %d %d", refs[1], refs[2], refs[3]);
        if (model.log != real.log || model.state() != real.state())
            problem = "logs or state";
        else if (!(problem = real.queue_problem()).empty())
            problem = "queueing: " + problem;
        else if (processed && zor_reg_cb_trace_count != model.last_deliveries)
            problem =
                fmt("trace count %u, model %u", zor_reg_cb_trace_count, model.last_deliveries);
        else if (refs_broken)
            problem = "a reference was released twice";
        else if (model.expected_refs() != real_refs)
            problem = "references (model " + model.expected_refs() + ", real " + real_refs + ")";
        else if (last && real_refs != "0 0 0")
            problem = "references kept after every record is gone: " + real_refs;
        if (problem.empty()) {
            seen = std::min(model.log.size(), real.log.size());
            return "";
        }
        std::string out = fmt("seed %llu: %s, after: %s\n", (unsigned long long)seed,
                              problem.c_str(), op.c_str());
        size_t n = std::max(model.log.size(), real.log.size());
        for (size_t i = seen; i < n && i < seen + 60; i++)
            out +=
                fmt("  model: %-70s real: %s\n", i < model.log.size() ? model.log[i].c_str() : "",
                    i < real.log.size() ? real.log[i].c_str() : "");
        return out + "model state:\n" + model.state() + "real state:\n" + real.state();
    };

    /*
     * Update registrations first: a record block carries one queued bit per
     * registration of its kind. Kinds with deletion information get no
     * level-2 registrations of the caller.
     */
    for (size_t k = 0; k < kinds.size(); k++) {
        int kind = static_cast<int>(k);
        size_t count = 1 + pick(4);
        for (size_t g = 0; g < count + (kinds[k].track >= 0 ? 1 : 0); g++) {
            bool track = g == count;
            uint32_t flags = static_cast<uint32_t>(pick(8));
            if (kinds[k].del >= 0)
                flags &= ~static_cast<uint32_t>(ZOR_REG_LEVEL_2);
            std::vector<int> fl;
            for (size_t f = 0; f < kinds[k].fields.size(); f++)
                if (pick(3) == 0 && !(track && static_cast<int>(f) == kinds[k].track))
                    fl.push_back(static_cast<int>(f));
            std::shuffle(fl.begin(), fl.end(), rng);
            bool variadic = pick(2) == 0;
            int invert = static_cast<int>(pick(2));
            both([&](auto &s) {
                s.add_reg(kind, flags, fl, variadic, track ? kinds[k].track : -1, invert);
            });
            if (pick(4) != 0) {
                int resync = static_cast<int>(pick(2));
                uint32_t id = static_cast<uint32_t>(model.regs[k].size() - 1);
                both([&](auto &s) { s.enable(kind, id, resync); });
            }
        }
    }
    /*
     * A caller processes once before deleting records: the removal
     * registrations become active at the first pass, and a deletion queued
     * before it would be dropped by that pass.
     */
    both([](auto &s) { s.process(); });
    std::string diff = compare("registration and first processing", true, false);
    if (!diff.empty())
        return diff;

    /* Picks for the operations: a live record, one that may change now, a flag of it. */
    auto live = [&]() {
        std::vector<uint32_t> ids;
        for (size_t k = 0; k < kinds.size(); k++)
            ids.insert(ids.end(), model.entries[k].begin(), model.entries[k].end());
        return ids;
    };
    auto any_rec = [&]() {
        std::vector<uint32_t> ids = live();
        return ids[pick(ids.size())];
    };
    /* A kind without deletion information is left alone during a snapshot. */
    auto changeable = [&](uint32_t id) {
        return kinds[model.recs[id].kind].del >= 0 || !model.active;
    };
    auto any_flag = [&](int k) {
        std::vector<int> flags;
        for (size_t f = 0; f < kinds[k].fields.size(); f++)
            if (kinds[k].fields[f].flag && static_cast<int>(f) != kinds[k].del)
                flags.push_back(static_cast<int>(f));
        return flags[pick(flags.size())];
    };
    int notifiers = 0;

    /*
     * The operations with their weights. Each returns what it did, or an
     * empty text when it did not apply; `processing` ones are followed by
     * a comparison of the delivery count as well.
     */
    struct Op {
        int weight;
        bool processing;
        std::function<std::string()> run;
    };
    const std::vector<Op> ops = {
        {14, false,
         [&]() {
             int k = static_cast<int>(pick(kinds.size()));
             if (kinds[k].del < 0 && model.active)
                 k = 0;
             uint32_t id = 0;
             both([&](auto &s) { id = s.create(k); });
             return fmt("create kind %d -> %u", k, id);
         }},
        {34, false,
         [&]() -> std::string {
             uint32_t id = any_rec();
             if (!changeable(id))
                 return "";
             std::vector<int> vf = value_fields(model.recs[id].kind);
             int f = vf[pick(vf.size())];
             int32_t v = static_cast<int32_t>(pick(4));
             bool unset = pick(4) == 0;
             both([&](auto &s) { s.field_set(id, f, unset ? nullptr : &v); });
             return fmt("set rec %u field %d to %s", id, f,
                        unset ? "-" : std::to_string(v).c_str());
         }},
        {10, false,
         [&]() -> std::string {
             uint32_t id = any_rec();
             if (!changeable(id))
                 return "";
             int f = any_flag(model.recs[id].kind), v = static_cast<int>(pick(2));
             both([&](auto &s) { s.flag_set(id, f, v); });
             return fmt("flag rec %u field %d to %d", id, f, v);
         }},
        {4, false,
         [&]() -> std::string {
             uint32_t id = any_rec();
             if (!changeable(id))
                 return "";
             int f = any_flag(model.recs[id].kind);
             both([&](auto &s) { s.flag_trigger(id, f); });
             return fmt("trigger rec %u field %d", id, f);
         }},
        {6, false,
         [&]() -> std::string {
             uint32_t id = any_rec();
             int k = model.recs[id].kind;
             if (kinds[k].del < 0 || model.recs[id].set[kinds[k].del])
                 return "";
             both([&](auto &s) { s.flag_set(id, kinds[k].del, 1); });
             return fmt("delete rec %u", id);
         }},
        {10, true,
         [&]() {
             both([](auto &s) { s.process(); });
             return std::string("process");
         }},
        {6, false,
         [&]() -> std::string {
             int k = static_cast<int>(pick(kinds.size()));
             uint32_t g = static_cast<uint32_t>(pick(model.regs[k].size()));
             if (model.regs[k][g].removal)
                 return "";
             static const char *const names[] = {"enable", "enable+resync", "resync", "disable"};
             size_t how = pick(4);
             both([&](auto &s) {
                 if (how < 2)
                     s.enable(k, g, static_cast<int>(how));
                 else if (how == 2)
                     s.resync(k, g);
                 else
                     s.disable(k, g);
             });
             return fmt("registration %d/%u: %s", k, g, names[how]);
         }},
        {4, false,
         [&]() {
             int k = static_cast<int>(pick(kinds.size()));
             size_t how = pick(3);
             int n = ++notifiers, existing = static_cast<int>(pick(2));
             int f = static_cast<int>(pick(kinds[k].fields.size()));
             both([&](auto &s) {
                 if (how == 0)
                     s.add_create_notifier(k, n, existing);
                 else if (how == 1)
                     s.add_delete_notifier(k, n);
                 else
                     s.add_field_notifier(k, f, n);
             });
             return fmt("notifier %d on kind %d (%zu)", n, k, how);
         }},
        {8, true,
         [&]() {
             bool discard = pick(3) == 0;
             if (!model.active) {
                 both([](auto &s) { s.take(); });
                 return std::string("take snapshot");
             }
             both([&](auto &s) { discard ? s.discard() : s.restore(); });
             return std::string(discard ? "discard snapshot" : "restore snapshot");
         }},
        /* Removal by the caller, for the kind without deletion information. */
        {4, true,
         [&]() -> std::string {
             if (model.active || model.entries[2].empty())
                 return "";
             both([](auto &s) { s.process(); });
             uint32_t id = model.entries[2][pick(model.entries[2].size())];
             both([&](auto &s) { s.remove(id); });
             return fmt("process, remove rec %u", id);
         }},
    };
    int total = 0;
    for (const Op &o : ops)
        total += o.weight;

    size_t count = 40 + pick(200);
    for (size_t n = 0; n < count; n++) {
        both([](auto &s) { s.budget = 6; });
        int w = static_cast<int>(pick(static_cast<size_t>(total)));
        size_t o = 0; /* with no record to change, the first: create */
        while (!live().empty() && w >= ops[o].weight)
            w -= ops[o++].weight;
        std::string text = ops[o].run();
        if (text.empty())
            continue;
        if (getenv("ZOR_MODEL_TRACE")) /* prints each operation, for finding a difference */
            fprintf(stderr, "op %zu: %s\n", n, text.c_str());
        if (!(diff = compare(text, ops[o].processing, false)).empty())
            return diff;
    }

    /* The end: close the snapshot, delete every record, and count references. */
    both([](auto &s) { s.budget = 6; });
    if (model.active)
        both([](auto &s) { s.discard(); });
    for (uint32_t id : live()) {
        int k = model.recs[id].kind;
        if (kinds[k].del >= 0 && !model.recs[id].set[kinds[k].del])
            both([&](auto &s) { s.flag_set(id, kinds[k].del, 1); });
    }
    both([](auto &s) { s.process(); });
    for (uint32_t id : std::vector<uint32_t>(model.entries[2]))
        both([&](auto &s) { s.remove(id); });
    diff = compare("final removal", true, true);
    real_side = nullptr;
    return diff;
}

uint64_t first_seed = 1;
uint64_t seed_count = 2000;

} // namespace

TEST(RegModel, RandomSequencesAgreeWithTheModel)
{
    for (uint64_t s = first_seed; s < first_seed + seed_count; s++) {
        std::string diff = run_sequence(s);
        ASSERT_TRUE(diff.empty()) << diff;
    }
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    /* Slow builds (sanitizers, valgrind) ask for fewer sequences. */
    if (const char *count = std::getenv("ZOR_MODEL_COUNT"))
        seed_count = std::strtoull(count, nullptr, 10);
    for (int i = 1; i + 1 < argc; i++) {
        if (std::string(argv[i]) == "--seed")
            first_seed = std::strtoull(argv[i + 1], nullptr, 10);
        else if (std::string(argv[i]) == "--count")
            seed_count = std::strtoull(argv[i + 1], nullptr, 10);
    }
    return RUN_ALL_TESTS();
}
