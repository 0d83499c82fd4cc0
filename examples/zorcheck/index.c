/*
 * index.c - lookup tables that follow the records at once.
 *
 * Rules run later, in processing passes, but they need to ask questions
 * about other records: does an interface of this name exist, does another
 * address have the same value, which connected prefix holds a next hop.
 * The tables answering them are kept by notifiers, which run inside the
 * very change: field notifiers see each value before it is stored, the
 * delete-pending flag's notifier sees a deletion being asked, and the
 * create and delete notifiers see records arrive and leave (also when a
 * snapshot restore brings one back or takes one away).
 *
 * A record counts in the tables while it is live: reported created and
 * not delete-pending. When a table entry changes, the records depending
 * on it are triggered through their check flag so that their rules look
 * again in the next pass.
 */
#include <stdlib.h>
#include <string.h>

#include "zorcheck.h"

/* ---- the key table ------------------------------------------------------- */

/* Kind byte, then the key fields' bytes (interface names by their interned id). */
static void key_of(const void *record, char *scratch, zor_str *key)
{
    const obj *o = record;
    char *p = scratch;
    *p++ = (char)o->kind;
    switch (o->kind) {
    case KIND_INTERFACE:
        memcpy(p, &((const iface_rec *)o)->name, 4), p += 4;
        break;
    case KIND_VLAN:
        memcpy(p, &((const vlan_rec *)o)->id, 2), p += 2;
        break;
    case KIND_ADDRESS:
        memcpy(p, &((const addr_rec *)o)->iface, 4), p += 4;
        memcpy(p, &((const addr_rec *)o)->address, 4), p += 4;
        break;
    default:
        memcpy(p, &((const route_rec *)o)->prefix, 4), p += 4;
        *p++ = (char)((const route_rec *)o)->length;
        break;
    }
    key->ptr = scratch;
    key->len = (uint64_t)(p - scratch);
}

static void group_key(const void *record, char *scratch, zor_str *key)
{
    (void)scratch;
    key->ptr = (const char *)&((const addr_group *)record)->address;
    key->len = 4;
}

static void subnet_key(const void *record, char *scratch, zor_str *key)
{
    const subnet *s = record;
    memcpy(scratch, &s->net, 4);
    scratch[4] = (char)s->len;
    key->ptr = scratch;
    key->len = 5;
}

obj *index_find(const obj *probe)
{
    char scratch[ZOR_HASH_KEY_SCRATCH];
    zor_str key;
    key_of(probe, scratch, &key);
    return zor_hash_table_find(g_app.keys, &key);
}

void index_insert(obj *o)
{
    zor_hash_table_insert(g_app.keys, o);
    o->keyed = 1;
}

/* ---- interface names ----------------------------------------------------- */

name_slot *name_slot_get(zor_string_id id)
{
    if (id >= g_app.names_size) {
        uint32_t size = g_app.names_size ? g_app.names_size : 64;
        while (size <= id)
            size *= 2;
        g_app.names = realloc(g_app.names, size * sizeof(name_slot));
        if (g_app.names == NULL)
            abort();
        for (uint32_t i = g_app.names_size; i < size; i++) {
            g_app.names[i].iface = NULL;
            zor_list_init(&g_app.names[i].referrers, offsetof(obj, ref_link));
        }
        g_app.names_size = size;
    }
    return &g_app.names[id];
}

iface_rec *iface_live(zor_string_id name)
{
    return name < g_app.names_size ? g_app.names[name].iface : NULL;
}

/* Makes the rules watching `o`'s check flag look at it again. */
static void recheck(obj *o)
{
    zor_reg_flag_trigger(o, kind_of(o)->check_flag);
}

static void recheck_list(zor_list *list)
{
    for (obj *o = list->first; o != NULL; o = zor_list_link_of(list, o)->next)
        recheck(o);
}

/* ---- connected prefixes -------------------------------------------------- */

static uint32_t prefix_mask(uint32_t len)
{
    return len == 0 ? 0 : ~(uint32_t)0 << (32 - len);
}

static subnet *subnet_find(uint32_t net, uint32_t len)
{
    char scratch[ZOR_HASH_KEY_SCRATCH];
    subnet probe;
    probe.net = net;
    probe.len = (uint8_t)len;
    zor_str key;
    subnet_key(&probe, scratch, &key);
    return zor_hash_table_find(g_app.subnets, &key);
}

/* The longest live prefix holding `address`, looking only at lengths in use. */
subnet *subnet_covering(uint32_t address)
{
    for (int len = 32; len >= 0; len--) {
        if (g_app.subnet_lengths[len] == 0)
            continue;
        subnet *s = subnet_find(address & prefix_mask((uint32_t)len), (uint32_t)len);
        if (s != NULL)
            return s;
    }
    return NULL;
}

static void subnet_acquire(addr_rec *a, uint32_t net, uint32_t len)
{
    subnet *s = subnet_find(net, len);
    if (s == NULL) {
        s = util_calloc(sizeof(*s));
        s->net = net;
        s->len = (uint8_t)len;
        zor_list_init(&s->routes, offsetof(route_rec, cover_link));
        zor_hash_table_insert(g_app.subnets, s);
        g_app.subnet_lengths[len]++;
        /* A new prefix may cover next hops that nothing covered. */
        recheck_list(&g_app.uncovered);
    }
    s->providers++;
    a->subnet = s;
}

static void subnet_release(addr_rec *a)
{
    subnet *s = a->subnet;
    a->subnet = NULL;
    if (--s->providers > 0)
        return;
    /* The prefix goes: its routes must find another one, or fail. */
    route_rec *r;
    while ((r = s->routes.first) != NULL) {
        zor_list_remove(&s->routes, r);
        r->covering = NULL;
        recheck(&r->o);
    }
    g_app.subnet_lengths[s->len]--;
    zor_hash_table_remove(g_app.subnets, s);
    free(s);
}

/* ---- syncing a record with the tables ------------------------------------ */

/*
 * Set while a create notifier runs. A record that a snapshot restore brings
 * back is reported created while it still reads as deleted (absent) through
 * the plain getters; its values are about to become those it had at the
 * take, which the snapshot getters read. For a new record both read nothing.
 */
static int reading_as_of_take;

/* A field's value as it will be once the change under way is stored. */
static const void *field_future(const obj *o, enum kind_id kind, uint32_t index,
                                const zor_reg_field_info *changed, const void *value)
{
    zor_reg_field_info *field = g_app.kinds[kind].fields[index].field;
    if (field == changed)
        return value;
    if (reading_as_of_take)
        return zor_reg_snapshot_field_get_explicit(o, field);
    return zor_reg_field_get_explicit(o, field);
}

/* The record is listed under the interface name it refers to, while live. */
static void referrer_sync(obj *o, const zor_string_id *name, int live)
{
    zor_string_id want = live && name != NULL ? *name : 0;
    if (want == o->ref_name)
        return;
    if (o->ref_name != 0)
        zor_list_remove(&name_slot_get(o->ref_name)->referrers, o);
    if (want != 0)
        zor_list_append(&name_slot_get(want)->referrers, o);
    o->ref_name = want;
}

/* A live interface owns its name's slot; its referrers look again when it comes or goes. */
static void iface_sync(iface_rec *r, const zor_reg_field_info *changed, const void *value, int live)
{
    const zor_string_id *name = field_future(&r->o, KIND_INTERFACE, 0, changed, value);
    zor_string_id want = live && name != NULL ? *name : 0;
    if (want == r->o.ref_name)
        return;
    if (r->o.ref_name != 0) {
        name_slot *slot = name_slot_get(r->o.ref_name);
        slot->iface = NULL;
        recheck_list(&slot->referrers);
    }
    if (want != 0) {
        name_slot *slot = name_slot_get(want);
        slot->iface = r;
        recheck_list(&slot->referrers);
    }
    r->o.ref_name = want;
}

static void addr_group_sync(addr_rec *a, const uint32_t *address)
{
    if (a->group != NULL && (address == NULL || a->group->address != *address)) {
        addr_group *g = a->group;
        zor_list_remove(&g->members, a);
        a->group = NULL;
        recheck_list(&g->members);
        if (g->members.count == 0) {
            zor_hash_table_remove(g_app.groups, g);
            free(g);
        }
    }
    if (address != NULL && a->group == NULL) {
        zor_str key = {(const char *)address, 4};
        addr_group *g = zor_hash_table_find(g_app.groups, &key);
        if (g == NULL) {
            g = util_calloc(sizeof(*g));
            g->address = *address;
            zor_list_init(&g->members, offsetof(addr_rec, group_link));
            zor_hash_table_insert(g_app.groups, g);
        }
        recheck_list(&g->members);
        zor_list_append(&g->members, a);
        a->group = g;
    }
}

static void addr_sync(addr_rec *a, const zor_reg_field_info *changed, const void *value, int live)
{
    referrer_sync(&a->o, field_future(&a->o, KIND_ADDRESS, 0, changed, value), live);
    const uint32_t *address = field_future(&a->o, KIND_ADDRESS, 1, changed, value);
    const uint8_t *prefix = field_future(&a->o, KIND_ADDRESS, 2, changed, value);
    addr_group_sync(a, live ? address : NULL);

    int provides = live && address != NULL && prefix != NULL && *prefix <= 32;
    uint32_t len = provides ? *prefix : 0;
    uint32_t net = provides ? *address & prefix_mask(len) : 0;
    if (a->subnet != NULL && (!provides || a->subnet->net != net || a->subnet->len != len))
        subnet_release(a);
    if (provides && a->subnet == NULL)
        subnet_acquire(a, net, len);
}

void route_uncover(route_rec *r)
{
    if (r->covering != NULL) {
        zor_list_remove(&r->covering->routes, r);
        r->covering = NULL;
    }
    if (r->in_uncovered) {
        zor_list_remove(&g_app.uncovered, r);
        r->in_uncovered = 0;
    }
}

static void record_sync(obj *o, const zor_reg_field_info *changed, const void *value, int live)
{
    switch (o->kind) {
    case KIND_INTERFACE:
        iface_sync((iface_rec *)o, changed, value, live);
        break;
    case KIND_VLAN:
        referrer_sync(o, field_future(o, KIND_VLAN, 1, changed, value), live);
        break;
    case KIND_ADDRESS:
        addr_sync((addr_rec *)o, changed, value, live);
        break;
    default:
        referrer_sync(o, field_future(o, KIND_ROUTE, 3, changed, value), live);
        if (!live)
            route_uncover((route_rec *)o);
        break;
    }
}

/* ---- the notifiers ------------------------------------------------------- */

/*
 * A record arrives: new (no values yet) or brought back by a snapshot
 * restore, whose delete-pending bit is still set at this moment and cleared
 * right after, so it counts as live.
 */
static void on_created(void *rec, void *ctx)
{
    (void)ctx;
    reading_as_of_take = 1;
    record_sync(rec, NULL, NULL, 1);
    reading_as_of_take = 0;
}

/* A record leaves the data store: out of every table, its violations gone with it. */
static void on_deleted(void *rec, void *ctx)
{
    (void)ctx;
    obj *o = rec;
    record_sync(o, NULL, NULL, 0);
    for (int rule = 0; rule < RULE_COUNT; rule++)
        violation_put(o, (enum rule_id)rule, 0);
}

/* A key or reference field is about to change. */
static void on_field(void *rec, const zor_reg_field_info *field, int is_set, const void *value,
                     void *ctx)
{
    (void)ctx;
    obj *o = rec;
    record_sync(o, field, is_set ? value : NULL, !record_is_deleting(o));
}

/* A deletion is asked: the record stops counting now, before the rules run. */
static void on_delete_pending(void *rec, const zor_reg_field_info *field, int is_set,
                              const void *value, void *ctx)
{
    (void)field;
    (void)value;
    (void)ctx;
    if (is_set)
        record_sync(rec, NULL, NULL, 0);
}

void index_register(void)
{
    zor_reg_ds *ds = g_app.ds;
    for (int k = 0; k < KIND_COUNT; k++) {
        kind_def *kind = &g_app.kinds[k];
        zor_register_rec_create(ds, kind->info, on_created, NULL, 0);
        zor_register_rec_delete(ds, kind->info, on_deleted, NULL);
        zor_register_field_update(ds, kind->delete_flag, on_delete_pending, NULL);
        for (uint32_t i = 0; i < kind->field_count; i++) {
            enum type_id t = kind->fields[i].type;
            /* Names and addresses feed the tables; so do address prefixes. */
            if (t == T_STR || (k == KIND_ADDRESS && i > 0))
                zor_register_field_update(ds, kind->fields[i].field, on_field, NULL);
        }
    }
}

void index_init(void)
{
    g_app.keys = zor_hash_table_init(1024, offsetof(obj, key_node), key_of, zor_dict_hash);
    g_app.groups = zor_hash_table_init(1024, offsetof(addr_group, node), group_key, zor_dict_hash);
    g_app.subnets = zor_hash_table_init(1024, offsetof(subnet, node), subnet_key, zor_dict_hash);
    zor_list_init(&g_app.violated, offsetof(obj, violation_link));
    zor_list_init(&g_app.uncovered, offsetof(route_rec, cover_link));
}

/* Every item of a table, in an array the caller frees: the table may then change. */
static void **table_items(zor_hash_table *table, uint64_t *count)
{
    void **items = util_calloc((table->count + 1) * sizeof(void *));
    uint64_t n = 0;
    /* The embedded iterator is walked again and again: the explicit form restarts it. */
    for (void *item = zor_iter_first(&table->iter); item != NULL;
         item = zor_iter_next(&table->iter))
        items[n++] = item;
    *count = n;
    return items;
}

/* Frees every record (releasing their values), the tables and what they hold. */
void index_destroy(void)
{
    uint64_t n;
    obj **all = (obj **)table_items(g_app.keys, &n);
    /* The tables go whole below: nothing is taken out of them one by one. */
    for (uint64_t i = 0; i < n; i++)
        zor_reg_rec_free(entry_of_obj(all[i]));
    free(all);

    zor_hash_table *owned[2] = {g_app.groups, g_app.subnets};
    for (int t = 0; t < 2; t++) {
        void **items = table_items(owned[t], &n);
        for (uint64_t i = 0; i < n; i++)
            free(items[i]);
        free(items);
    }
    zor_hash_table_destroy(g_app.keys);
    zor_hash_table_destroy(g_app.groups);
    zor_hash_table_destroy(g_app.subnets);
    free(g_app.names);
    g_app.names = NULL;
    g_app.names_size = 0;
}

/* Records of one kind, for reports: an array the caller frees. */
obj **index_records(enum kind_id kind, uint64_t *count)
{
    uint64_t n;
    obj **all = (obj **)table_items(g_app.keys, &n);
    uint64_t kept = 0;
    for (uint64_t i = 0; i < n; i++)
        if (all[i]->kind == (uint32_t)kind)
            all[kept++] = all[i];
    *count = kept;
    return all;
}
