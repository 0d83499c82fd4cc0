/*
 * rules.c - the rules, as update registrations.
 *
 * Each rule is one update registration per kind it applies to, watching
 * the fields its verdict depends on (and the check flag, for verdicts that
 * depend on other records). Processing hands it the records changed since
 * its last pass; it recomputes their verdict and records the result in
 * the record's violation bits. Level 0 holds the rules about single
 * records and references; the next-hop rule runs at level 1, once the
 * level-0 work of a pass has settled. zor_reg_track, also at level 0, keeps
 * each interface's present flag, which turns its defaults on.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zorcheck.h"

typedef struct rule_reg {
    enum rule_id rule;
    enum kind_id kind;
    uint32_t flags;         /* level */
    int (*failing)(obj *o); /* the verdict of a live record */
    void (*gone)(obj *o);   /* the record no longer concerns the rule, or NULL */
    const char *fields[3];  /* watched fields, by name */
    int watch_check;        /* also watch the check flag */
} rule_reg;

static const char *const rule_names[RULE_COUNT] = {
    [RULE_MTU_RANGE] = "mtu-range",
    [RULE_VLAN_RANGE] = "vlan-range",
    [RULE_PREFIX_LENGTH] = "prefix-length",
    [RULE_MISSING_INTERFACE] = "missing-interface",
    [RULE_DUPLICATE_ADDRESS] = "duplicate-address",
    [RULE_ROUTE_TARGET] = "route-target",
    [RULE_NEXT_HOP] = "next-hop-unreachable",
};

const char *rule_name(enum rule_id rule)
{
    return rule_names[rule];
}

static const void *get(const obj *o, uint32_t index)
{
    return zor_reg_field_get(o, kind_of(o)->fields[index].field);
}

/* ---- verdicts ------------------------------------------------------------ */

#define MTU_MIN 68
#define MTU_MAX 9216

/* Reads through the default: a present interface without an mtu has 1500. */
static int mtu_failing(obj *o)
{
    const uint32_t *mtu = get(o, 1);
    return mtu != NULL && (*mtu < MTU_MIN || *mtu > MTU_MAX);
}

static int vlan_failing(obj *o)
{
    const uint16_t *id = get(o, 0);
    return id != NULL && (*id < 1 || *id > 4094);
}

static int addr_prefix_failing(obj *o)
{
    const uint8_t *prefix = get(o, 2);
    return prefix != NULL && *prefix > 32;
}

static int route_length_failing(obj *o)
{
    const uint8_t *length = get(o, 1);
    return length != NULL && *length > 32;
}

/* The field naming an interface: last of vlans and routes, first of addresses. */
static uint32_t iface_field(const obj *o)
{
    return o->kind == KIND_ADDRESS ? 0 : kind_of(o)->field_count - 1;
}

static int missing_iface_failing(obj *o)
{
    const zor_string_id *name = get(o, iface_field(o));
    return name != NULL && iface_live(*name) == NULL;
}

/* Group members are live records only: two or more is a duplicate. */
static int duplicate_failing(obj *o)
{
    const addr_rec *a = (const addr_rec *)o;
    return a->group != NULL && a->group->members.count > 1;
}

static int route_target_failing(obj *o)
{
    return get(o, 2) == NULL && get(o, 3) == NULL;
}

/* Finds the prefix covering the next hop and files the route under it, or as uncovered. */
static int next_hop_failing(obj *o)
{
    route_rec *r = (route_rec *)o;
    const uint32_t *next_hop = get(o, 2);
    subnet *s = next_hop != NULL ? subnet_covering(*next_hop) : NULL;
    if (s != NULL && s == r->covering)
        return 0;
    route_uncover(r);
    if (s != NULL) {
        zor_list_append(&s->routes, r);
        r->covering = s;
        return 0;
    }
    zor_list_append(&g_app.uncovered, r);
    r->in_uncovered = 1;
    return 1;
}

static void next_hop_gone(obj *o)
{
    route_uncover((route_rec *)o);
}

static const rule_reg rule_regs[] = {
    {RULE_MTU_RANGE, KIND_INTERFACE, 0, mtu_failing, NULL, {"mtu"}, 0},
    {RULE_VLAN_RANGE, KIND_VLAN, 0, vlan_failing, NULL, {"id"}, 0},
    {RULE_PREFIX_LENGTH, KIND_ADDRESS, 0, addr_prefix_failing, NULL, {"prefix"}, 0},
    {RULE_PREFIX_LENGTH, KIND_ROUTE, 0, route_length_failing, NULL, {"length"}, 0},
    {RULE_MISSING_INTERFACE, KIND_VLAN, 0, missing_iface_failing, NULL, {"interface"}, 1},
    {RULE_MISSING_INTERFACE, KIND_ADDRESS, 0, missing_iface_failing, NULL, {"interface"}, 1},
    {RULE_MISSING_INTERFACE, KIND_ROUTE, 0, missing_iface_failing, NULL, {"interface"}, 1},
    {RULE_DUPLICATE_ADDRESS, KIND_ADDRESS, 0, duplicate_failing, NULL, {"address"}, 1},
    {RULE_ROUTE_TARGET,
     KIND_ROUTE,
     0,
     route_target_failing,
     NULL,
     {"prefix", "next_hop", "interface"},
     0},
    {RULE_NEXT_HOP, KIND_ROUTE, ZOR_REG_LEVEL_1, next_hop_failing, next_hop_gone, {"next_hop"}, 1},
};

/* ---- the registrations --------------------------------------------------- */

void violation_put(obj *o, enum rule_id rule, int failing)
{
    uint32_t before = o->violations;
    uint32_t bit = 1u << rule;
    o->violations = failing ? before | bit : before & ~bit;
    if (before == 0 && o->violations != 0)
        zor_list_append(&g_app.violated, o);
    else if (before != 0 && o->violations == 0)
        zor_list_remove(&g_app.violated, o);
}

/*
 * One callback serves every rule. A record that is being deleted, or has
 * none of the watched fields set, no longer concerns the rule.
 */
static int rule_cb(zor_reg_cb_info *info, zor_iter *entries, void *ctx)
{
    const rule_reg *r = ctx;
    zor_reg_entry *entry;
    ZOR_ITER_FOREACH (entries, entry) {
        obj *o = obj_of_entry(entry);
        int failing = 0;
        if (zor_reg_info_is_deleting(info, entry)) {
            if (r->gone != NULL)
                r->gone(o);
        } else {
            failing = r->failing(o);
        }
        violation_put(o, r->rule, failing);
    }
    return 1;
}

void rules_register(void)
{
    zor_reg_ds *ds = g_app.ds;
    for (size_t i = 0; i < sizeof(rule_regs) / sizeof(rule_regs[0]); i++) {
        const rule_reg *r = &rule_regs[i];
        kind_def *k = &g_app.kinds[r->kind];
        zor_reg_rec_update *reg =
            zor_register_rec_update(ds, k->info, r->flags, rule_cb, (void *)r);
        for (int f = 0; f < 3 && r->fields[f] != NULL; f++)
            zor_reg_rec_update_field_add(reg,
                                         field_find(k, r->fields[f], strlen(r->fields[f]))->field);
        if (r->watch_check)
            zor_reg_rec_update_field_add(reg, k->check_flag);
        zor_reg_enable(reg, 0);
    }

    /* present = the interface has its name and is not being deleted. */
    kind_def *iface = &g_app.kinds[KIND_INTERFACE];
    zor_reg_rec_update *track = zor_reg_track(ds, iface->info, 0, g_app.iface_present, 1);
    zor_reg_rec_update_field_add(track, iface->fields[0].field);
    zor_reg_enable(track, 0);
}

/* ---- messages ------------------------------------------------------------ */

void rule_message(const obj *o, enum rule_id rule, char *buf, uint64_t size)
{
    const kind_def *k = kind_of(o);
    switch (rule) {
    case RULE_MTU_RANGE:
        snprintf(buf, size, "mtu %s is outside %u..%u", value_text(o, &k->fields[1]), MTU_MIN,
                 MTU_MAX);
        break;
    case RULE_VLAN_RANGE:
        snprintf(buf, size, "vlan id %s is outside 1..4094", value_text(o, &k->fields[0]));
        break;
    case RULE_PREFIX_LENGTH:
        snprintf(buf, size, "prefix length %s is above 32",
                 value_text(o, &k->fields[o->kind == KIND_ADDRESS ? 2 : 1]));
        break;
    case RULE_MISSING_INTERFACE:
        snprintf(buf, size, "interface %s does not exist",
                 value_text(o, &k->fields[iface_field(o)]));
        break;
    case RULE_DUPLICATE_ADDRESS:
        snprintf(buf, size, "address %s is assigned %u times", value_text(o, &k->fields[1]),
                 ((const addr_rec *)o)->group->members.count);
        break;
    case RULE_ROUTE_TARGET:
        snprintf(buf, size, "route has neither next_hop nor interface");
        break;
    default:
        snprintf(buf, size, "next hop %s is in no connected prefix", value_text(o, &k->fields[2]));
        break;
    }
}

void conflict_add(const char *record, const char *message)
{
    if (g_app.conflict_count == g_app.conflict_size) {
        g_app.conflict_size = g_app.conflict_size ? 2 * g_app.conflict_size : 8;
        g_app.conflicts = realloc(g_app.conflicts, g_app.conflict_size * sizeof(conflict));
        if (g_app.conflicts == NULL)
            abort();
    }
    conflict *c = &g_app.conflicts[g_app.conflict_count++];
    snprintf(c->record, sizeof(c->record), "%s", record);
    snprintf(c->message, sizeof(c->message), "%s", message);
}
