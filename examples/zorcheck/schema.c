/*
 * schema.c - zorcheck's datatypes, record kinds and data store.
 *
 * Four kinds, each with a delete-pending flag so that deletions are queued
 * changes and snapshots can undo them:
 *   interface  name (key), mtu, enabled; flag present (kept by the registry)
 *   vlan       id (key), interface
 *   address    interface and address (key), prefix
 *   route      prefix and length (key), next_hop, interface
 * VLANs, addresses and routes also have a "check" flag that is never set:
 * triggering it makes the rules watching it look at the record again when
 * something the record depends on changes elsewhere.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zorcheck.h"

app g_app;

/* Bytes from the entry header to the caller's record in every block. */
#define REC_OFFSET ((sizeof(zor_reg_entry) + 7) & ~(size_t)7)

/* ---- the ipv4 datatype --------------------------------------------------- */

/* Dotted quad, exactly len bytes: four decimal parts of 1 to 3 digits, each at most 255. */
static int ipv4_parse(const char *text, size_t len, const zor_datatype_info *info, void *buff)
{
    (void)info;
    uint32_t value = 0;
    size_t i = 0;
    for (int part = 0; part < 4; part++) {
        if (part > 0) {
            if (i >= len || text[i] != '.')
                return 0;
            i++;
        }
        size_t start = i;
        uint32_t n = 0;
        while (i < len && i - start < 3 && text[i] >= '0' && text[i] <= '9')
            n = n * 10 + (uint32_t)(text[i++] - '0');
        if (i == start || n > 255)
            return 0;
        value = value << 8 | n;
    }
    if (i != len)
        return 0;
    memcpy(buff, &value, sizeof(value));
    return 1;
}

static const char *ipv4_str(const void *value, const zor_datatype_info *info)
{
    (void)info;
    uint32_t v;
    memcpy(&v, value, sizeof(v));
    char *buf = zor_datatype_buf_get();
    snprintf(buf, ZOR_DATATYPE_BUF_SIZE, "%u.%u.%u.%u", v >> 24, (v >> 16) & 255, (v >> 8) & 255,
             v & 255);
    return buf;
}

/*
 * Our types, derived from the core ones: "ipv4" is 4 bytes of "mem" (copy
 * and comparison come from it) with its own text form; the integer types
 * only narrow "uint".
 */
static const zor_datatype_reg_info own_types[] = {
    {"ipv4", "mem", {.size = 4, .str = ipv4_str, .parse = ipv4_parse}},
    {"mtu", "uint", {.size = 4}},
    {"vlan_id", "uint", {.size = 2}},
    {"prefix_len", "uint", {.size = 1}},
};

static void types_init(void)
{
    zor_datatype_init();
    zor_datatype_db_init(&g_app.types, 64);
    zor_datatype_info *out[4];
    zor_datatype_register(&g_app.types, zor_str_init("zorcheck"), 4, own_types, 0, out);
    g_app.type[T_STR] = zor_datatype_info_id(&g_app.types, ZOR_DATATYPE_ID_STR);
    g_app.type[T_BOOL] = zor_datatype_info_id(&g_app.types, ZOR_DATATYPE_ID_BOOL);
    g_app.type[T_FLAG] = zor_datatype_info_id(&g_app.types, ZOR_DATATYPE_ID_FLAG);
    g_app.type[T_IPV4] = out[0];
    g_app.type[T_MTU] = out[1];
    g_app.type[T_VLAN_ID] = out[2];
    g_app.type[T_PREFIX_LEN] = out[3];
    for (int t = 0; t < T_COUNT; t++) {
        if (!(g_app.type[t]->properties & ZOR_DATATYPE_PROP_FLATTENED)) {
            fprintf(stderr, "zorcheck: datatype %d did not resolve\n", t);
            exit(EXIT_INTERNAL);
        }
    }
}

/* ---- record kinds -------------------------------------------------------- */

static const kind_def kind_table[KIND_COUNT] = {
    [KIND_INTERFACE] = {"interface",
                        "interfaces",
                        sizeof(iface_rec),
                        {{"name", offsetof(iface_rec, name), T_STR, 1, NULL},
                         {"mtu", offsetof(iface_rec, mtu), T_MTU, 0, NULL},
                         {"enabled", offsetof(iface_rec, enabled), T_BOOL, 0, NULL}},
                        3,
                        NULL,
                        NULL,
                        NULL},
    [KIND_VLAN] = {"vlan",
                   "vlans",
                   sizeof(vlan_rec),
                   {{"id", offsetof(vlan_rec, id), T_VLAN_ID, 1, NULL},
                    {"interface", offsetof(vlan_rec, iface), T_STR, 0, NULL}},
                   2,
                   NULL,
                   NULL,
                   NULL},
    [KIND_ADDRESS] = {"address",
                      "addresses",
                      sizeof(addr_rec),
                      {{"interface", offsetof(addr_rec, iface), T_STR, 1, NULL},
                       {"address", offsetof(addr_rec, address), T_IPV4, 1, NULL},
                       {"prefix", offsetof(addr_rec, prefix), T_PREFIX_LEN, 0, NULL}},
                      3,
                      NULL,
                      NULL,
                      NULL},
    [KIND_ROUTE] = {"route",
                    "routes",
                    sizeof(route_rec),
                    {{"prefix", offsetof(route_rec, prefix), T_IPV4, 1, NULL},
                     {"length", offsetof(route_rec, length), T_PREFIX_LEN, 1, NULL},
                     {"next_hop", offsetof(route_rec, next_hop), T_IPV4, 0, NULL},
                     {"interface", offsetof(route_rec, iface), T_STR, 0, NULL}},
                    4,
                    NULL,
                    NULL,
                    NULL},
};

/* Defaults of a present interface. */
static const uint32_t default_mtu = 1500;
static const int32_t default_enabled = 1;

/* A record leaves for good: out of the key table. */
static void record_unlink(zor_reg_ds *ds, zor_reg_entry *entry)
{
    (void)ds;
    obj *o = obj_of_entry(entry);
    if (o->keyed) {
        zor_hash_table_remove(g_app.keys, o);
        o->keyed = 0;
    }
}

/* Its values are released already; the block goes. */
static void record_release(zor_reg_ds *ds, zor_reg_entry *entry)
{
    (void)ds;
    free(entry);
}

static void kind_init(enum kind_id id)
{
    kind_def *k = &g_app.kinds[id];
    *k = kind_table[id];
    k->info = zor_reg_db_rec_add(&g_app.db);
    for (uint32_t i = 0; i < k->field_count; i++)
        k->fields[i].field =
            zor_reg_db_rec_add_field(k->info, k->fields[i].offset, g_app.type[k->fields[i].type]);
    const zor_datatype_info *flag = g_app.type[T_FLAG];
    if (id == KIND_INTERFACE) {
        g_app.iface_present = zor_reg_db_rec_add_field(k->info, 0, flag);
        zor_reg_db_field_set_default(k->fields[1].field, g_app.iface_present, &default_mtu);
        zor_reg_db_field_set_default(k->fields[2].field, g_app.iface_present, &default_enabled);
    } else {
        k->check_flag = zor_reg_db_rec_add_field(k->info, 0, flag);
    }
    k->delete_flag = zor_reg_db_rec_add_field(k->info, 0, flag);
    zor_reg_db_rec_set_deletion_info(k->info, k->delete_flag, record_unlink, record_release);
    zor_reg_db_rec_set_offsets(k->info, REC_OFFSET, k->size);
}

void schema_init(void)
{
    types_init();
    zor_reg_db_init(&g_app.db);
    for (int k = 0; k < KIND_COUNT; k++)
        kind_init((enum kind_id)k);
    g_app.ds = zor_reg_ds_init(&g_app.db, &g_app);
}

void schema_destroy(void)
{
    zor_reg_ds_destroy(g_app.ds);
    zor_reg_db_destroy(&g_app.db);
    zor_dict_destroy(&g_app.types);
    zor_datatype_cleanup();
}

/* ---- records ------------------------------------------------------------- */

kind_def *kind_of(const obj *o)
{
    return &g_app.kinds[o->kind];
}

obj *obj_of_entry(const zor_reg_entry *entry)
{
    return (obj *)zor_reg_rec(entry);
}

zor_reg_entry *entry_of_obj(const obj *o)
{
    return (zor_reg_entry *)((char *)o - REC_OFFSET);
}

obj *record_new(enum kind_id kind)
{
    kind_def *k = &g_app.kinds[kind];
    zor_reg_entry *entry = util_calloc(zor_reg_rec_size(g_app.ds, k->info));
    obj *o = (obj *)((char *)entry + REC_OFFSET); /* not reported yet: no kind to ask */
    o->kind = kind;                               /* before the create notifiers look at it */
    zor_reg_rec_created(g_app.ds, k->info, entry);
    return o;
}

int record_is_deleting(const obj *o)
{
    return zor_reg_flag_get_explicit(o, kind_of(o)->delete_flag);
}

const field_def *field_find(const kind_def *k, const char *json, uint64_t len)
{
    for (uint32_t i = 0; i < k->field_count; i++)
        if (strlen(k->fields[i].json) == len && memcmp(k->fields[i].json, json, len) == 0)
            return &k->fields[i];
    return NULL;
}

const char *value_text(const obj *o, const field_def *f)
{
    const void *value = zor_reg_field_get(o, f->field);
    return value != NULL ? zor_datatype_str(value, f->field->type) : NULL;
}

/* Key fields are read from the record itself: they may be a lookup probe, not a live record. */
void record_display(const obj *o, char *buf, uint64_t size)
{
    const zor_datatype_info *ipv4 = g_app.type[T_IPV4];
    switch (o->kind) {
    case KIND_INTERFACE: {
        const iface_rec *r = (const iface_rec *)o;
        snprintf(buf, size, "interface %s", zor_datatype_string_from_id(r->name).ptr);
        break;
    }
    case KIND_VLAN:
        snprintf(buf, size, "vlan %u", ((const vlan_rec *)o)->id);
        break;
    case KIND_ADDRESS: {
        const addr_rec *r = (const addr_rec *)o;
        snprintf(buf, size, "address %s %s", zor_datatype_string_from_id(r->iface).ptr,
                 ipv4->str(&r->address, ipv4));
        break;
    }
    default: {
        const route_rec *r = (const route_rec *)o;
        snprintf(buf, size, "route %s/%u", ipv4->str(&r->prefix, ipv4), r->length);
        break;
    }
    }
}
