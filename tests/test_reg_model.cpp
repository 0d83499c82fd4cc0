/*
 * The registry against a plain-container model of its contract, on seeded
 * random sequences of operations. Both sides log every callback in one format;
 * after each step the logs, the reads, the registration states, the queueing
 * invariant and the references held by a counted value type are compared.
 * Update callbacks fail now and then and change records themselves.
 * CTest runs ZOR_MODEL_COUNT seeds; by hand: test_reg_model --seed S --count N
 */
#include "zor_test.h"
#include "zor_reg.h"
#include "zor_reg_internal.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <functional>
#include <iterator>
#include <map>
#include <random>

namespace
{

int refs[4];      /* references held on counted values 1 to 3 */
bool refs_broken; /* a count went below zero: a double release */

void counted_free(void *value, const zor_datatype_info *, const zor_reg_field_info *)
{
    int32_t *v = static_cast<int32_t *>(value);
    if (*v != 0 && --refs[*v] < 0)
        refs_broken = true;
    *v = 0;
}

/* Values are int32_t; a type with a free callback holds references. */
void value_write(void *dst, const void *src, const zor_datatype_info *t)
{
    int32_t *d = static_cast<int32_t *>(dst);
    if (t->free != nullptr)
        t->free(d, t, nullptr);
    if ((*d = src ? *static_cast<const int32_t *>(src) : 0) != 0 && t->free != nullptr)
        refs[*d]++;
}

int value_cmp(const void *a, const void *b, const zor_datatype_info *)
{
    return *static_cast<const int32_t *>(a) != *static_cast<const int32_t *>(b);
}

zor_datatype_info make_type(uint64_t size, uint32_t props, bool counted = false)
{
    zor_datatype_info t = {};
    t.size = size;
    t.properties = ZOR_DATATYPE_PROP_FLATTENED | props;
    t.write = size != 0 ? value_write : nullptr;
    t.cmp_eq = size != 0 ? value_cmp : nullptr;
    t.free = counted ? counted_free : nullptr;
    return t;
}

const uint32_t RESET = ZOR_DATATYPE_PROP_RESET_ON_UNSET, NO_RESTORE = ZOR_DATATYPE_PROP_NO_RESTORE;
const zor_datatype_info int_t = make_type(4, 0), transient_t = make_type(4, RESET),
                        kept_t = make_type(4, NO_RESTORE), counted_t = make_type(4, 0, true),
                        flag_t = make_type(0, 0);

/* A field's type, and its default: NONE, -1 (always) or the flag that gates it. */
const int NONE = -2;
struct FieldDef {
    const zor_datatype_info *type;
    int dflt;
};

struct KindDef {
    std::vector<FieldDef> fields;
    int del, track; /* delete-pending flag, flag of a tracking registration (-1: none) */
};

/*
 * Kind 0: a0, actl, a1, a2 transient, afl, a3, afl2, a4 counted, a5 transient,
 * a6 not restored, adel (delete pending), atrk (tracked), a7 counted; the
 * defaults chain a3 -> afl -> afl2. Kind 1: small, with deletion. Kind 2: no
 * deletion information (the caller removes its records) and the only kind
 * with level-2 registrations of the caller.
 */
const std::vector<FieldDef> kind0 = {
    {&int_t, NONE},  {&flag_t, -1},   {&int_t, 1},        {&transient_t, -1}, {&flag_t, 6},
    {&int_t, 4},     {&flag_t, NONE}, {&counted_t, NONE}, {&transient_t, 6},  {&kept_t, NONE},
    {&flag_t, NONE}, {&flag_t, NONE}, {&counted_t, -1}};
const int NK = 3;
const KindDef kinds[NK] = {{kind0, 10, 11},
                           {{{&int_t, NONE}, {&flag_t, NONE}, {&int_t, 1}, {&flag_t, NONE}}, 3, -1},
                           {{{&int_t, NONE}, {&flag_t, NONE}, {&counted_t, 1}}, -1, -1}};
const int32_t defaults[13] = {7, 11, 13, 17, 19, 23, 29, 31, 37, 41, 43, 47, 53};
const int32_t one = 1; /* what sets a flag */

bool is_flag(int k, int f)
{
    return kinds[k].fields[f].type == &flag_t;
}

bool default_on(int k, int f, const std::vector<bool> &bits)
{
    int gate = kinds[k].fields[f].dflt;
    return gate == -1 || (gate >= 0 && bits[gate]);
}

/* The value fields of a kind, or its flags but the delete-pending one. */
std::vector<int> fields_of(int k, bool flags)
{
    std::vector<int> out;
    for (int f = 0; f < static_cast<int>(kinds[k].fields.size()); f++)
        if (is_flag(k, f) == flags && f != kinds[k].del)
            out.push_back(f);
    return out;
}

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

/* An update callback's decisions come from its ordinal, so both sides decide alike. */
struct Decision {
    bool fail, change, use_split;
    uint32_t pick, field;
    int32_t value;
};

Decision decide(uint64_t seed, uint64_t ordinal)
{
    std::mt19937_64 r(seed * 0x9E3779B97F4A7C15ull + ordinal * 0xBF58476D1CE4E5B9ull + 1);
    return {r() % 7 == 0,
            r() % 4 == 0,
            r() % 2 == 0,
            static_cast<uint32_t>(r()),
            static_cast<uint32_t>(r()),
            static_cast<int32_t>(r() % 4)};
}

/* The callback log and what an update callback does, alike for both sides. */
template <class S> struct Side {
    uint64_t seed = 0, callbacks = 0;
    std::vector<std::string> log;
    int budget = 0; /* changes callbacks may still make in this operation */

    bool delivered(int k, uint32_t reg, int resync, size_t count, uint32_t pass, bool snapshot,
                   const std::vector<uint32_t> &set, const std::vector<uint32_t> &del)
    {
        Decision d = decide(seed, callbacks++);
        log.push_back(fmt("U k=%d r=%u resync=%d count=%zu pass=%u set=%s del=%s", k, reg, resync,
                          count, pass, ids_text(set).c_str(), ids_text(del).c_str()));
        std::vector<uint32_t> all = set;
        all.insert(all.end(), del.begin(), del.end());
        std::vector<int> vf = fields_of(k, false);
        /* A kind without deletion information may not change during a snapshot. */
        if (d.change && budget > 0 && !all.empty() && (kinds[k].del >= 0 || !snapshot)) {
            budget--;
            static_cast<S *>(this)->set(all[d.pick % all.size()], vf[d.field % vf.size()],
                                        &d.value);
        }
        return !d.fail;
    }
};

/* ---- the model ---------------------------------------------------------------- */

struct MReg {
    uint32_t level;
    bool follow_ctrl, removal, invert;
    int track; /* a tracking registration's flag, else -1 */
    std::vector<bool> watched;
    bool enable_pending = false, resync = false, failed = false, enabled = false;
    bool in_partition = false;
    std::array<std::vector<uint32_t>, 2> bucket = {}; /* queued records, per partition */
};

struct MRec {
    int kind;
    std::vector<bool> set, snap; /* set bits, now and in the snapshot */
    std::vector<int32_t> val;
    std::map<int, int32_t> backup = {}; /* values before their first change in the snapshot */
    bool created = false, updated = false, deleted = false, created_restore = false;
    bool freed = false;
};

struct Model : Side<Model> {
    std::vector<MRec> recs;
    std::vector<uint32_t> entries[NK], watchers[NK][16];
    std::vector<MReg> regs[NK];
    std::vector<int> watched_order[NK];        /* fields, by first watch */
    std::vector<std::array<int, 4>> notifiers; /* type 'C', 'D' or 'N', number, kind, field */
    std::vector<std::pair<int, uint32_t>> parts[3][2]; /* queued registrations, by level */
    int active_part[3] = {0, 0, 0};
    bool active = false; /* a snapshot is taken */
    std::vector<uint32_t> created_list, updated_list;
    uint32_t last_deliveries = 0; /* callback invocations of the last processing call */

    Model()
    {
        for (int k = 0; k < NK; k++)
            if (kinds[k].del >= 0) /* the data store's removal registration, id 0 */
                add_reg(k, ZOR_REG_LEVEL_2, {kinds[k].del}, -1, 0, true);
    }

    /* Read i of a field: 0 get, 1 explicit, 2 snapshot get, 3 snapshot explicit. */
    std::string read(uint32_t id, int f, int i) const
    {
        const MRec &r = recs[id];
        const std::vector<bool> &bits = i < 2 ? r.set : r.snap;
        bool dflt = i % 2 == 0 && default_on(r.kind, f, bits);
        if (is_flag(r.kind, f))
            return bits[f] || dflt ? "1" : "0";
        if (bits[f])
            return std::to_string(i >= 2 && r.backup.count(f) ? r.backup.at(f) : r.val[f]);
        return dflt ? std::to_string(defaults[f]) : "-";
    }

    void add_reg(int k, uint32_t flags, const std::vector<int> &fields, int track, int invert,
                 bool removal = false)
    {
        uint32_t level = (flags & ZOR_REG_LEVEL_2) ? 2 : (flags & ZOR_REG_LEVEL_1) ? 1 : 0;
        uint32_t id = static_cast<uint32_t>(regs[k].size());
        regs[k].push_back({level, !(flags & ZOR_REG_NO_CTRL_FLAGS), removal, invert != 0, track,
                           std::vector<bool>(kinds[k].fields.size())});
        MReg &g = regs[k].back();
        for (int field : fields) /* the field, and the flags gating its default when followed */
            for (int f = field; f >= 0; f = g.follow_ctrl ? kinds[k].fields[f].dflt : -1)
                if (!g.watched[f]) {
                    g.watched[f] = true;
                    if (watchers[k][f].empty())
                        watched_order[k].push_back(f);
                    watchers[k][f].push_back(id);
                }
        if (removal)
            reg_op(k, id, 0);
    }

    void queue_reg(int k, uint32_t id)
    {
        MReg &g = regs[k][id];
        if (!g.in_partition)
            parts[g.level][active_part[g.level]].push_back({k, id});
        g.in_partition = true;
    }

    /* how: 0 enable, 1 enable and resync, 2 resync, 3 disable */
    void reg_op(int k, uint32_t id, size_t how)
    {
        MReg &g = regs[k][id];
        if (how == 3)
            g.enable_pending = g.resync = g.failed = g.enabled = false;
        else if (how > 0 || !g.enabled)
            queue_reg(k, id);
        g.enable_pending |= how < 2 && !g.enabled;
        g.resync |= how == 1 || how == 2;
    }

    void add_notifier(char type, int k, int f, int n, int existing)
    {
        notifiers.push_back({type, n, k, f});
        for (uint32_t id : entries[k])
            if (type == 'C' && existing)
                log.push_back(fmt("C%d rec=%u", n, id));
    }

    /* Logs a record's create ('C') or delete ('D') notifiers. */
    void log_rec(char type, uint32_t id)
    {
        for (const std::array<int, 4> &n : notifiers)
            if (n[0] == type && n[2] == recs[id].kind)
                log.push_back(fmt("%c%d rec=%u", type, n[1], id));
    }

    bool pending(uint32_t id) const
    {
        int del = kinds[recs[id].kind].del;
        return del >= 0 && recs[id].set[del];
    }

    void entry_changed(int f, uint32_t id)
    {
        int k = recs[id].kind;
        for (uint32_t g : watchers[k][f]) {
            std::vector<uint32_t> &b = regs[k][g].bucket[active_part[regs[k][g].level]];
            if (!pending(id) && std::find(b.begin(), b.end(), id) == b.end()) {
                b.push_back(id);
                queue_reg(k, g);
            }
        }
    }

    void notify(uint32_t id, int f, int is_set, const std::string &value)
    {
        const MRec &r = recs[id];
        if (f == kinds[r.kind].del) /* the data store's own notifier comes first */
            for (auto it = watched_order[r.kind].rbegin(); it != watched_order[r.kind].rend(); ++it)
                if (r.set[*it] || default_on(r.kind, *it, r.set))
                    entry_changed(*it, id);
        for (const std::array<int, 4> &n : notifiers)
            if (n[0] == 'N' && n[2] == r.kind && n[3] == f)
                log.push_back(fmt("N%d rec=%u field=%d is_set=%d value=%s old=%s", n[1], id, f,
                                  is_set, value.c_str(), read(id, f, 1).c_str()));
    }

    uint32_t create(int k)
    {
        uint32_t id = static_cast<uint32_t>(recs.size());
        size_t n = kinds[k].fields.size();
        recs.push_back({k, std::vector<bool>(n), std::vector<bool>(n), std::vector<int32_t>(n)});
        recs[id].created = active;
        if (active)
            created_list.push_back(id);
        entries[k].push_back(id);
        log_rec('C', id);
        return id;
    }

    /* Sets a field or flag; a null value unsets it. */
    void set(uint32_t id, int f, const int32_t *v)
    {
        MRec &r = recs[id];
        bool flag = is_flag(r.kind, f), was = r.set[f], is = v != nullptr;
        if (was == is && (!is || flag || r.val[f] == *v))
            return;
        notify(id, f, is, !is ? "-" : flag ? "place" : std::to_string(*v));
        if (active && !r.created && !r.updated)
            updated_list.push_back(id);
        r.updated |= active && !r.created;
        uint32_t props = kinds[r.kind].fields[f].type->properties;
        if (is && !flag && active && !(props & RESET) && !r.created && r.snap[f])
            r.backup.insert({f, r.val[f]}); /* kept from the first change */
        if (is && !flag)
            r.val[f] = *v;
        else if (!is && (props & RESET))
            r.val[f] = 0;
        entry_changed(f, id);
        if (was != is) /* bits change with the set state only */
            r.set[f] = is;
        if (was != is && !active)
            r.snap[f] = is;
    }

    /* The kind's unlink and free callbacks log; a kind without them is freed by the caller. */
    void unlink_and_free(uint32_t id)
    {
        recs[id].freed = true;
        if (kinds[recs[id].kind].del >= 0)
            log.insert(log.end(), {fmt("X rec=%u", id), fmt("F rec=%u", id)});
    }

    /* A record leaves its kind; a snapshot keeps it until it ends. */
    void remove(uint32_t id, bool keep)
    {
        log_rec('D', id);
        std::vector<uint32_t> &e = entries[recs[id].kind];
        e.erase(std::find(e.begin(), e.end(), id));
        recs[id].deleted = keep;
        if (!keep)
            unlink_and_free(id);
    }

    bool deleting(const MReg &g, uint32_t id) const
    {
        for (size_t f = 0; f < g.watched.size(); f++)
            if (g.watched[f] && recs[id].set[f])
                return pending(id);
        return true;
    }

    /* A registration's turn in a pass: its bucket, or a resync of every record. */
    void serve(int k, uint32_t id, std::vector<uint32_t> ids, uint32_t pass)
    {
        MReg &g = regs[k][id];
        int resync = !g.enabled || ids.empty() || g.resync || g.failed;
        if (resync) {
            g.enabled |= g.enable_pending;
            g.enable_pending = false;
            bool go = g.enabled && g.resync;
            g.resync = false;
            if (!go)
                return;
            ids.clear();
            std::copy_if(entries[k].begin(), entries[k].end(), std::back_inserter(ids),
                         [&](uint32_t rid) { return !deleting(g, rid); });
            pass = 0;
        }
        last_deliveries++;
        std::vector<uint32_t> set, del;
        for (uint32_t rid : ids) {
            bool d = deleting(g, rid);
            if (g.track >= 0)
                this->set(rid, g.track, d != g.invert ? &one : nullptr);
            else if (g.removal)
                remove(rid, active || recs[rid].created_restore);
            else
                (d ? del : set).push_back(rid);
        }
        g.failed = !g.removal && g.track < 0 &&
                   !delivered(k, id, resync, ids.size(), pass, active, set, del);
    }

    void process()
    {
        last_deliveries = 0;
        for (uint32_t pass = 1;; pass++) {
            int L = 0;
            while (L < 3 && parts[L][active_part[L]].empty())
                L++;
            if (L == 3)
                return;
            ASSERT_LT(pass, 100u) << "the model ran away";
            int a = active_part[L];
            std::vector<std::pair<int, uint32_t>> P;
            P.swap(parts[L][a]);
            for (auto &[k, id] : P)
                regs[k][id].in_partition = false;
            active_part[L] ^= 1;
            for (auto it = P.rbegin(); it != P.rend(); ++it) {
                serve(it->first, it->second, regs[it->first][it->second].bucket[a], pass);
                regs[it->first][it->second].bucket[a].clear();
            }
        }
    }

    /* how: 0 take, 1 discard, 2 restore */
    void snapshot(int how)
    {
        process();
        active = how == 0;
        if (how == 1) {
            std::vector<uint32_t> order = updated_list;
            order.insert(order.end(), created_list.begin(), created_list.end());
            for (uint32_t id : order)
                if (recs[id].deleted)
                    log.push_back(fmt("X rec=%u", id));
            for (uint32_t id : order) {
                MRec &r = recs[id];
                if (r.deleted)
                    log.push_back(fmt("F rec=%u", id));
                r.freed = r.deleted;
                r.updated = r.created = false;
                r.snap = r.set;
                r.backup.clear();
            }
        }
        if (how == 2) /* the records changed in the snapshot get their values back */
            for (uint32_t id : updated_list) {
                MRec &r = recs[id];
                r.updated = false;
                if (r.deleted) { /* back in its kind */
                    entries[r.kind].push_back(id);
                    log_rec('C', id);
                    r.deleted = false;
                }
                r.set[kinds[r.kind].del] = false;
                std::map<int, int32_t> backup;
                backup.swap(r.backup);
                for (auto &[f, v] : backup)
                    if (!(kinds[r.kind].fields[f].type->properties & NO_RESTORE))
                        set(id, f, &v);
                for (int f = 0; f < static_cast<int>(r.set.size()); f++) {
                    const zor_datatype_info *type = kinds[r.kind].fields[f].type;
                    bool snap = r.snap[f];
                    if (snap == r.set[f] || (type->properties & NO_RESTORE))
                        continue;
                    notify(id, f, snap,
                           !snap                ? "-"
                           : is_flag(r.kind, f) ? "place"
                                                : std::to_string(r.val[f]));
                    if (type->write && (type->properties & RESET))
                        r.val[f] = 0;
                    entry_changed(f, id);
                    r.set[f] = snap;
                }
            }
        if (how == 2) { /* records created in the snapshot go */
            for (uint32_t id : created_list) {
                recs[id].created_restore = true;
                if (!recs[id].deleted)
                    set(id, kinds[recs[id].kind].del, &one);
            }
            process();
            for (uint32_t id : created_list)
                unlink_and_free(id);
        }
        if (how != 0) {
            updated_list.clear();
            created_list.clear();
        }
    }

    /* References the counted values should hold: stored in unfreed records, or backed up. */
    std::string expected_refs() const
    {
        int n[4] = {0, 0, 0, 0};
        for (const MRec &r : recs)
            for (int f = 0; f < static_cast<int>(r.val.size()) && !r.freed; f++)
                if (kinds[r.kind].fields[f].type == &counted_t) {
                    n[r.val[f]]++;
                    if (r.backup.count(f))
                        n[r.backup.at(f)]++;
                }
        return fmt("%d %d %d", n[1], n[2], n[3]);
    }
};

/* ---- the real registry ---------------------------------------------------------- */

struct Rec {
    uint32_t id;
    int kind;
    int32_t v[13];
};

struct Real;
Real *real_side; /* the registry's callbacks find their side here */

uint32_t id_of(const zor_reg_entry *e)
{
    return static_cast<Rec *>(zor_reg_rec(e))->id;
}

int of_ctx(void *ctx)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(ctx));
}

struct Real : Side<Real> {
    zor_reg_db db;
    zor_reg_ds *ds = nullptr;
    zor_reg_rec_info *infos[NK];
    std::vector<zor_reg_field_info *> fields[NK];
    std::vector<zor_reg_rec_update *> regs[NK];
    std::vector<zor_reg_entry *> blocks; /* by id; null once freed */

    static void unlink_cb(zor_reg_ds *, zor_reg_entry *e)
    {
        real_side->log.push_back(fmt("X rec=%u", id_of(e)));
    }

    static void free_cb(zor_reg_ds *, zor_reg_entry *e)
    {
        real_side->log.push_back(fmt("F rec=%u", id_of(e)));
        real_side->blocks[id_of(e)] = nullptr;
        free(e); /* the caller's free callback releases the block */
    }

    Real()
    {
        zor_reg_db_init(&db);
        for (int k = 0; k < NK; k++) {
            infos[k] = zor_reg_db_rec_add(&db);
            for (const FieldDef &d : kinds[k].fields) {
                uint64_t at = offsetof(Rec, v) + sizeof(int32_t) * fields[k].size();
                fields[k].push_back(
                    zor_reg_db_rec_add_field(infos[k], d.type == &flag_t ? 0 : at, d.type));
            }
            for (size_t f = 0; f < fields[k].size(); f++) {
                int gate = kinds[k].fields[f].dflt;
                if (gate != NONE)
                    zor_reg_db_field_set_default(fields[k][f], gate < 0 ? nullptr : fields[k][gate],
                                                 &defaults[f]);
            }
            if (kinds[k].del >= 0)
                zor_reg_db_rec_set_deletion_info(infos[k], fields[k][kinds[k].del], unlink_cb,
                                                 free_cb);
            zor_reg_db_rec_set_offsets(infos[k], sizeof(zor_reg_entry), sizeof(Rec));
        }
        ds = zor_reg_ds_init(&db, this);
        for (int k = 0; k < NK; k++)
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

    zor_reg_field_info *field(uint32_t id, int f)
    {
        return fields[rec(id)->kind][f];
    }

    static int update_cb(zor_reg_cb_info *info, zor_iter *entries, void *ctx)
    {
        Real &R = *real_side;
        uint32_t pass = zor_reg_cb_trace[(zor_reg_cb_trace_count - 1) % 1000].iteration;
        std::vector<uint32_t> set, del;
        zor_reg_entry *e;
        if (decide(R.seed, R.callbacks).use_split) {
            zor_iter *si, *di;
            uint32_t sc, dc;
            zor_reg_info_iter(info, &si, &di, &sc, &dc);
            ZOR_ITER_FOREACH (si, e)
                set.push_back(id_of(e));
            ZOR_ITER_FOREACH (di, e)
                del.push_back(id_of(e));
            EXPECT_EQ(sc, set.size());
            EXPECT_EQ(dc, del.size());
        } else {
            ZOR_ITER_FOREACH (entries, e)
                (zor_reg_info_is_deleting(info, e) ? del : set).push_back(id_of(e));
        }
        EXPECT_EQ(zor_reg_info_ds_ctx(info), &R);
        return R.delivered(of_ctx(ctx) / 1000, of_ctx(ctx) % 1000, zor_reg_info_is_resync(info),
                           zor_reg_info_count(info), pass, R.ds->snapshot_active != 0, set, del);
    }

    /* A create or delete notifier: ctx is its number times 256 plus 'C' or 'D'. */
    static void rec_cb(void *rec, void *ctx)
    {
        real_side->log.push_back(
            fmt("%c%d rec=%u", of_ctx(ctx) % 256, of_ctx(ctx) / 256, static_cast<Rec *>(rec)->id));
    }

    static void field_cb(void *rec, const zor_reg_field_info *field, int is_set, const void *value,
                         void *ctx)
    {
        Real &R = *real_side;
        uint32_t id = static_cast<Rec *>(rec)->id;
        int k = R.rec(id)->kind;
        int f = static_cast<int>(std::find(R.fields[k].begin(), R.fields[k].end(), field) -
                                 R.fields[k].begin());
        std::string v = value == nullptr ? "-"
                        : !is_flag(k, f) ? std::to_string(*static_cast<const int32_t *>(value))
                        : value == static_cast<char *>(rec) + field->offset ? "place"
                                                                            : "elsewhere";
        R.log.push_back(fmt("N%d rec=%u field=%d is_set=%d value=%s old=%s", of_ctx(ctx), id, f,
                            is_set, v.c_str(), R.read(id, f, 1).c_str()));
    }

    void add_reg(int k, uint32_t flags, const std::vector<int> &fl, bool variadic, int track,
                 int invert)
    {
        void *ctx = reinterpret_cast<void *>(static_cast<intptr_t>(k * 1000 + regs[k].size()));
        bool two = variadic && fl.size() == 2 && track < 0;
        zor_reg_rec_update *r =
            track >= 0 ? zor_reg_track(ds, infos[k], flags, fields[k][track], invert)
            : two      ? zor_register_rec_update_v(ds, infos[k], flags, update_cb, ctx, 2,
                                                   fields[k][fl[0]], fields[k][fl[1]])
                       : zor_register_rec_update(ds, infos[k], flags, update_cb, ctx);
        for (size_t i = 0; i < fl.size() && !two; i++)
            zor_reg_rec_update_field_add(r, fields[k][fl[i]]);
        EXPECT_EQ(r->id, regs[k].size());
        regs[k].push_back(r);
    }

    void add_notifier(char type, int k, int f, int n, int existing)
    {
        void *ctx =
            reinterpret_cast<void *>(static_cast<intptr_t>(type == 'N' ? n : n * 256 + type));
        if (type == 'N')
            zor_register_field_update(ds, fields[k][f], field_cb, ctx);
        else if (type == 'C')
            zor_register_rec_create(ds, infos[k], rec_cb, ctx, existing);
        else
            zor_register_rec_delete(ds, infos[k], rec_cb, ctx);
    }

    /* how: 0 enable, 1 enable and resync, 2 resync, 3 disable */
    void reg_op(int k, uint32_t g, size_t how)
    {
        if (how < 2)
            zor_reg_enable(regs[k][g], static_cast<int>(how));
        else if (how == 2)
            zor_reg_resync(regs[k][g]);
        else
            zor_reg_disable(regs[k][g]);
    }

    uint32_t create(int k)
    {
        auto *e = static_cast<zor_reg_entry *>(util_calloc(zor_reg_rec_size(ds, infos[k])));
        /* The create notifiers need the id before the entry knows its kind. */
        Rec *r = reinterpret_cast<Rec *>(reinterpret_cast<char *>(e) + sizeof(zor_reg_entry));
        r->id = static_cast<uint32_t>(blocks.size());
        r->kind = k;
        blocks.push_back(e);
        zor_reg_rec_created(ds, infos[k], e);
        return r->id;
    }

    void set(uint32_t id, int f, const int32_t *v)
    {
        if (is_flag(rec(id)->kind, f))
            zor_reg_flag_set(rec(id), field(id, f), v != nullptr);
        else
            zor_reg_field_set(rec(id), field(id, f), v);
    }

    void remove(uint32_t id, bool)
    {
        zor_reg_entry *e = blocks[id];
        zor_reg_rec_deleted(e);
        zor_reg_rec_unlink(e);
        zor_reg_rec_free(e);
        if (blocks[id] != nullptr) /* a kind without free_cb leaves the block to us */
            free(e);
        blocks[id] = nullptr;
    }

    void process()
    {
        zor_reg_process(ds);
        EXPECT_EQ(zor_reg_in_cb_processing, 0u);
    }

    void snapshot(int how)
    {
        (how == 0   ? zor_reg_take_snapshot
         : how == 1 ? zor_reg_discard_snapshot
                    : zor_reg_restore_snapshot)(ds);
    }

    /* Read i of a field: 0 get, 1 explicit, 2 snapshot get, 3 snapshot explicit. */
    std::string read(uint32_t id, int f, int i)
    {
        static decltype(&zor_reg_flag_get)
            const flag_get[] = {zor_reg_flag_get, zor_reg_flag_get_explicit,
                                zor_reg_snapshot_flag_get, zor_reg_snapshot_flag_get_explicit};
        static decltype(&zor_reg_field_get)
            const field_get[] = {zor_reg_field_get, zor_reg_field_get_explicit,
                                 zor_reg_snapshot_field_get, zor_reg_snapshot_field_get_explicit};
        if (is_flag(rec(id)->kind, f))
            return std::to_string(flag_get[i](rec(id), field(id, f)));
        const void *p = field_get[i](rec(id), field(id, f));
        return p ? std::to_string(*static_cast<const int32_t *>(p)) : "-";
    }

    /*
     * The queueing invariant: an entry's queued bit for a registration is set
     * exactly when the entry is in the registration's bucket of its level's
     * active partition, and that bucket is chained into the partition exactly
     * when `in_partition` is set.
     */
    std::string queue_problem()
    {
        for (int k = 0; k < NK; k++)
            for (zor_reg_rec_update *r : regs[k]) {
                zor_reg_level *l = &ds->levels[r->level];
                zor_partition_bucket *mine = &r->buckets[l->active], *b;
                zor_reg_entry *e;
                bool chained = false;
                ZOR_PARTITION_BUCKETS_FOREACH (&l->parts[l->active], b)
                    chained |= b == mine;
                std::vector<uint32_t> in_bucket, queued;
                if (chained)
                    ZOR_PARTITION_BUCKET_FOREACH (mine, e)
                        in_bucket.push_back(id_of(e));
                for (uint32_t id = 0; id < blocks.size(); id++)
                    if (blocks[id] != nullptr && rec(id)->kind == k &&
                        zor_reg_bit_get(zor_reg_entry_queued_bits(blocks[id], infos[k]), r->id))
                        queued.push_back(id);
                std::sort(in_bucket.begin(), in_bucket.end());
                if (chained != (r->in_partition != 0) || in_bucket != queued)
                    return fmt("queueing of reg %d/%u: chained %d, in_partition %u, in bucket %s, "
                               "queued %s",
                               k, r->id, chained, r->in_partition, ids_text(in_bucket).c_str(),
                               ids_text(queued).c_str());
            }
        return "";
    }
};

/* The first difference of records, reads and registration states, or nothing. */
std::string state_diff(const Model &M, Real &R)
{
    for (int k = 0; k < NK; k++) {
        std::vector<uint32_t> ids;
        zor_iter it;
        zor_list_iter_state st;
        zor_reg_entry *e;
        zor_iter_create(&it, zor_list_iterator(&it, &st, &R.ds->recs[k].entries));
        ZOR_ITER_FOREACH (&it, e)
            ids.push_back(id_of(e));
        zor_iter_free(&it);
        if (ids != M.entries[k])
            return fmt("kind %d records: model %s, real %s", k, ids_text(M.entries[k]).c_str(),
                       ids_text(ids).c_str());
        for (uint32_t id : ids)
            for (int f = 0; f < static_cast<int>(kinds[k].fields.size()); f++)
                for (int i = 0; i < 4; i++)
                    if (M.read(id, f, i) != R.read(id, f, i))
                        return fmt("rec %u field %d read %d: model %s, real %s", id, f, i,
                                   M.read(id, f, i).c_str(), R.read(id, f, i).c_str());
        for (size_t g = 0; g < R.regs[k].size(); g++) {
            const MReg &m = M.regs[k][g];
            const zor_reg_rec_update *r = R.regs[k][g];
            std::string ms = fmt("E%d P%d R%d F%d Q%d L%u W", m.enabled, m.enable_pending, m.resync,
                                 m.failed, m.in_partition, m.level),
                        rs = fmt("E%u P%u R%u F%u Q%u L%u W", r->enabled, r->enable_pending,
                                 r->resync, r->failed, r->in_partition, r->level);
            for (size_t f = 0; f < m.watched.size(); f++) {
                ms += m.watched[f] ? "1" : "0";
                rs += r->field_bits[f / 8] & (1u << (f % 8)) ? "1" : "0";
            }
            if (ms != rs)
                return fmt("reg %d/%zu: model %s, real %s", k, g, ms.c_str(), rs.c_str());
        }
    }
    return "";
}

/* ---- the driver ------------------------------------------------------------------ */

/* Runs one random sequence on both sides: empty when they agree, else the first difference. */
std::string run_sequence(uint64_t seed)
{
    std::mt19937_64 rng(seed);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    memset(refs, 0, sizeof(refs));
    refs_broken = false;
    Model M;
    Real R;
    real_side = &R;
    M.seed = R.seed = seed;
    auto both = [&](auto &&op) {
        op(M);
        op(R);
    };

    /* After each operation: logs, state, queueing, deliveries of a processing call, references. */
    auto compare = [&](const std::string &op, bool processed, bool last) {
        std::string want = M.expected_refs(), got = fmt("%d %d %d", refs[1], refs[2], refs[3]);
        auto [m, r] = std::mismatch(M.log.begin(), M.log.end(), R.log.begin(), R.log.end());
        std::string problem =
            m != M.log.end() || r != R.log.end()
                ? fmt("log %zu: model \"%s\", real \"%s\"", m - M.log.begin(),
                      m != M.log.end() ? m->c_str() : "", r != R.log.end() ? r->c_str() : "")
                : state_diff(M, R);
        if (problem.empty())
            problem = R.queue_problem();
        if (problem.empty() && processed && zor_reg_cb_trace_count != M.last_deliveries)
            problem = fmt("trace count %u, model %u", zor_reg_cb_trace_count, M.last_deliveries);
        if (problem.empty() && refs_broken)
            problem = "a reference was released twice";
        if (problem.empty() && (want != got || (last && got != "0 0 0")))
            problem = "references held: model " + want + ", real " + got;
        return problem.empty()
                   ? problem
                   : fmt("seed %llu, after %s: %s", static_cast<unsigned long long>(seed),
                         op.c_str(), problem.c_str());
    };

    /*
     * Update registrations first: a record block carries one queued bit per
     * registration of its kind. Kinds with deletion information get no
     * level-2 registrations of the caller.
     */
    for (int k = 0; k < NK; k++) {
        size_t count = 1 + pick(4);
        for (size_t g = 0; g < count + (kinds[k].track >= 0 ? 1 : 0); g++) {
            int track = g == count ? kinds[k].track : -1;
            uint32_t flags = static_cast<uint32_t>(pick(8));
            if (kinds[k].del >= 0)
                flags &= ~static_cast<uint32_t>(ZOR_REG_LEVEL_2);
            std::vector<int> fl;
            for (int f = 0; f < static_cast<int>(kinds[k].fields.size()); f++)
                if (pick(3) == 0 && f != track)
                    fl.push_back(f);
            std::shuffle(fl.begin(), fl.end(), rng);
            bool variadic = pick(2) == 0;
            int invert = static_cast<int>(pick(2));
            M.add_reg(k, flags, fl, track, invert);
            R.add_reg(k, flags, fl, variadic, track, invert);
            uint32_t id = static_cast<uint32_t>(M.regs[k].size() - 1);
            if (pick(4) != 0) {
                size_t resync = pick(2);
                both([&](auto &s) { s.reg_op(k, id, resync); });
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

    auto live = [&]() {
        std::vector<uint32_t> ids;
        for (int k = 0; k < NK; k++)
            ids.insert(ids.end(), M.entries[k].begin(), M.entries[k].end());
        return ids;
    };
    uint32_t id = 0;
    /* Picks a live record; true when it may change now (not a kind without deletion in a snapshot).
     */
    auto pick_rec = [&]() {
        std::vector<uint32_t> ids = live();
        id = ids[pick(ids.size())];
        return kinds[M.recs[id].kind].del >= 0 || !M.active;
    };
    auto pick_flag = [&]() {
        std::vector<int> flags = fields_of(M.recs[id].kind, true);
        return flags[pick(flags.size())];
    };
    int notifiers = 0;

    /* The operations with their weights; each says what it did, or nothing if it did not apply. */
    struct Op {
        int weight;
        bool processing; /* compare the delivery count after it */
        std::function<std::string()> run;
    };
    const std::vector<Op> ops = {
        {14, false,
         [&]() {
             int k = static_cast<int>(pick(NK));
             k = kinds[k].del < 0 && M.active ? 0 : k;
             both([&](auto &s) { id = s.create(k); });
             return fmt("create kind %d -> %u", k, id);
         }},
        {34, false,
         [&]() -> std::string {
             if (!pick_rec())
                 return "";
             std::vector<int> vf = fields_of(M.recs[id].kind, false);
             int f = vf[pick(vf.size())];
             int32_t v = static_cast<int32_t>(pick(4));
             const int32_t *p = pick(4) == 0 ? nullptr : &v;
             both([&](auto &s) { s.set(id, f, p); });
             return fmt("set rec %u field %d to %s", id, f, p ? std::to_string(v).c_str() : "-");
         }},
        {10, false,
         [&]() -> std::string {
             if (!pick_rec())
                 return "";
             int f = pick_flag(), v = static_cast<int>(pick(2));
             both([&](auto &s) { s.set(id, f, v ? &one : nullptr); });
             return fmt("flag rec %u field %d to %d", id, f, v);
         }},
        {4, false,
         [&]() -> std::string {
             if (!pick_rec())
                 return "";
             int f = pick_flag();
             M.entry_changed(f, id);
             zor_reg_flag_trigger(R.rec(id), R.field(id, f));
             return fmt("trigger rec %u field %d", id, f);
         }},
        {6, false,
         [&]() -> std::string {
             pick_rec();
             int del = kinds[M.recs[id].kind].del;
             if (del < 0 || M.recs[id].set[del])
                 return "";
             both([&](auto &s) { s.set(id, del, &one); });
             return fmt("delete rec %u", id);
         }},
        {10, true,
         [&]() {
             both([](auto &s) { s.process(); });
             return std::string("process");
         }},
        {6, false,
         [&]() -> std::string {
             int k = static_cast<int>(pick(NK));
             uint32_t g = static_cast<uint32_t>(pick(M.regs[k].size()));
             if (M.regs[k][g].removal)
                 return "";
             size_t how = pick(4);
             both([&](auto &s) { s.reg_op(k, g, how); });
             return fmt("registration %d/%u: op %zu", k, g, how);
         }},
        {4, false,
         [&]() {
             int k = static_cast<int>(pick(NK));
             char type = "CDN"[pick(3)];
             int n = ++notifiers, existing = static_cast<int>(pick(2));
             int f = static_cast<int>(pick(kinds[k].fields.size()));
             both([&](auto &s) { s.add_notifier(type, k, f, n, existing); });
             return fmt("notifier %c%d on kind %d", type, n, k);
         }},
        {8, true,
         [&]() {
             bool discard = pick(3) == 0;
             int how = !M.active ? 0 : discard ? 1 : 2;
             both([&](auto &s) { s.snapshot(how); });
             return fmt("snapshot op %d", how);
         }},
        /* Removal by the caller, for the kind without deletion information. */
        {4, true,
         [&]() -> std::string {
             if (M.active || M.entries[2].empty())
                 return "";
             both([](auto &s) { s.process(); });
             id = M.entries[2][pick(M.entries[2].size())];
             both([&](auto &s) { s.remove(id, false); });
             return fmt("process, remove rec %u", id);
         }},
    };
    int total = 0;
    for (const Op &o : ops)
        total += o.weight;

    size_t count = 40 + pick(200);
    for (size_t n = 0; n < count; n++) {
        M.budget = R.budget = 6;
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
    M.budget = R.budget = 6;
    if (M.active)
        both([](auto &s) { s.snapshot(1); });
    for (uint32_t i : live()) {
        int del = kinds[M.recs[i].kind].del;
        if (del >= 0 && !M.recs[i].set[del])
            both([&](auto &s) { s.set(i, del, &one); });
    }
    both([](auto &s) { s.process(); });
    for (uint32_t i : std::vector<uint32_t>(M.entries[2]))
        both([&](auto &s) { s.remove(i, false); });
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
