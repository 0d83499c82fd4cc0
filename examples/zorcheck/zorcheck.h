/*
 * zorcheck.h - the example configuration validator's shared state.
 *
 * zorcheck keeps a small network configuration (interfaces, VLANs,
 * addresses, static routes) as records of a zor registry data store,
 * checks rules with update registrations and applies change files as
 * transactions under snapshots. The pieces:
 *   schema.c  datatypes, record kinds and the data store
 *   index.c   lookup tables kept current by notifiers
 *   rules.c   the rules, one update registration per rule and kind
 *   input.c   reading change files and applying them
 *   report.c  the JSON report
 *   main.c    command line, transactions and the scale mode
 */
#ifndef ZORCHECK_H
#define ZORCHECK_H

#include <stdint.h>

#include "zor.h"

/* ---- records ------------------------------------------------------------- */

enum kind_id { KIND_INTERFACE, KIND_VLAN, KIND_ADDRESS, KIND_ROUTE, KIND_COUNT };

/*
 * The head of every record, first in the caller's record of each kind. The
 * registry stores field values in the kind's own struct below; the head
 * holds what only this program uses.
 */
typedef struct obj {
    zor_hash_node key_node;       /* in app.keys, by kind and key fields */
    uint32_t kind;                /* enum kind_id */
    uint32_t violations;          /* one bit per failing rule (enum rule_id) */
    zor_list_link violation_link; /* in app.violated while violations != 0 */
    zor_list_link ref_link;       /* in the referrer list of ref_name */
    zor_string_id ref_name; /* interfaces: the name owned; others: the name referred to; 0: none */
    uint32_t keyed;         /* 1 while in app.keys */
} obj;

typedef struct iface_rec {
    obj o;
    zor_string_id name; /* key */
    uint32_t mtu;
    int32_t enabled;
} iface_rec;

typedef struct vlan_rec {
    obj o;
    uint16_t id; /* key */
    zor_string_id iface;
} vlan_rec;

struct addr_group;
struct subnet;

typedef struct addr_rec {
    obj o;
    zor_string_id iface; /* key, with address */
    uint32_t address;    /* IPv4, host order */
    uint8_t prefix;
    struct addr_group *group; /* records with the same address; null: none */
    zor_list_link group_link; /* in group->members */
    struct subnet *subnet;    /* connected prefix it provides; null: none */
} addr_rec;

typedef struct route_rec {
    obj o;
    uint32_t prefix; /* key, with length */
    uint8_t length;
    uint32_t next_hop;
    zor_string_id iface;
    struct subnet *covering;  /* connected prefix holding next_hop, or null */
    int in_uncovered;         /* 1 while in app.uncovered */
    zor_list_link cover_link; /* in covering->routes or in app.uncovered */
} route_rec;

/* Records with one address value: more than one live member is a duplicate. */
typedef struct addr_group {
    zor_hash_node node;
    uint32_t address;
    zor_list members; /* addr_rec, by group_link */
} addr_group;

/* A connected prefix: provided by live addresses, covering routes' next hops. */
typedef struct subnet {
    zor_hash_node node;
    uint32_t net;
    uint8_t len;
    uint32_t providers; /* live addresses with this prefix */
    zor_list routes;    /* route_rec whose next hop it covers, by cover_link */
} subnet;

/* Every interface name seen: the interface and the records naming it. */
typedef struct name_slot {
    iface_rec *iface;   /* the interface record with this name, or null */
    zor_list referrers; /* obj of VLANs, addresses and routes, by ref_link */
} name_slot;

/* ---- schema -------------------------------------------------------------- */

enum type_id { T_STR, T_BOOL, T_FLAG, T_IPV4, T_MTU, T_VLAN_ID, T_PREFIX_LEN, T_COUNT };

/* One field of a kind as change files name it. */
typedef struct field_def {
    const char *json;          /* member name in change files and reports */
    uint64_t offset;           /* in the kind's record */
    enum type_id type;         /* its datatype */
    int is_key;                /* identifies the record; set once, at creation */
    zor_reg_field_info *field; /* filled by schema_init */
} field_def;

#define MAX_FIELDS 4

typedef struct kind_def {
    const char *name;   /* "interface", ... */
    const char *plural; /* "interfaces", ...: the member of a change section */
    uint64_t size;      /* bytes of the kind's record */
    field_def fields[MAX_FIELDS];
    uint32_t field_count;
    zor_reg_rec_info *info;
    zor_reg_field_info *delete_flag;
    zor_reg_field_info *check_flag; /* triggered to make the rules look again */
} kind_def;

/* ---- rules --------------------------------------------------------------- */

enum rule_id {
    RULE_MTU_RANGE,
    RULE_VLAN_RANGE,
    RULE_PREFIX_LENGTH,
    RULE_MISSING_INTERFACE,
    RULE_DUPLICATE_ADDRESS,
    RULE_ROUTE_TARGET,
    RULE_NEXT_HOP,
    RULE_COUNT
};

/* A change-file operation that does not fit the state, found while applying. */
typedef struct conflict {
    char record[96];
    char message[160];
} conflict;

/* ---- the program's state -------------------------------------------------- */

typedef struct app {
    zor_dict types;                         /* the datatype database */
    const zor_datatype_info *type[T_COUNT]; /* resolved descriptors */
    zor_reg_db db;                          /* the schema */
    zor_reg_ds *ds;                         /* the data store */
    kind_def kinds[KIND_COUNT];
    zor_reg_field_info *iface_present; /* kept by zor_reg_track */
    zor_hash_table *keys;              /* every record, by kind and key */
    zor_hash_table *groups;            /* addr_group by address */
    zor_hash_table *subnets;           /* subnet by prefix and length */
    uint32_t subnet_lengths[33];       /* live subnets of each length */
    name_slot *names;                  /* by zor_string_id */
    uint32_t names_size;
    zor_list violated;   /* obj with violations */
    zor_list uncovered;  /* route_rec whose next hop nothing covers */
    conflict *conflicts; /* of the transaction being applied */
    uint32_t conflict_count, conflict_size;
} app;

extern app g_app;

/* schema.c */
void schema_init(void);
void schema_destroy(void);
kind_def *kind_of(const obj *o);
obj *obj_of_entry(const zor_reg_entry *entry);
zor_reg_entry *entry_of_obj(const obj *o);
obj *record_new(enum kind_id kind);
int record_is_deleting(const obj *o);
const field_def *field_find(const kind_def *k, const char *json, uint64_t len);
const char *value_text(const obj *o, const field_def *f); /* display, or null when unset */
void record_display(const obj *o, char *buf, uint64_t size);

/* index.c */
void index_init(void);
void index_destroy(void);
void index_register(void);
obj *index_find(const obj *probe); /* by the probe's kind and key fields */
void index_insert(obj *o);
name_slot *name_slot_get(zor_string_id id);
iface_rec *iface_live(zor_string_id name);
subnet *subnet_covering(uint32_t address);
void route_uncover(route_rec *r);
obj **index_records(enum kind_id kind, uint64_t *count);

/* rules.c */
void rules_register(void);
void violation_put(obj *o, enum rule_id rule, int failing);
const char *rule_name(enum rule_id rule);
void rule_message(const obj *o, enum rule_id rule, char *buf, uint64_t size);
void conflict_add(const char *record, const char *message);

/* input.c */
enum exit_code {
    EXIT_ACCEPTED = 0,
    EXIT_REJECTED = 1,
    EXIT_USAGE = 2,
    EXIT_UNREADABLE = 3,
    EXIT_NOT_JSON = 4,
    EXIT_BAD_SHAPE = 5,
    EXIT_BAD_VALUE = 6,
    EXIT_INTERNAL = 70
};
typedef struct txn_stats {
    uint32_t created, updated, deleted;
} txn_stats;
int input_apply_file(const char *path, char *description, uint64_t desc_size, txn_stats *stats,
                     char *error, uint64_t error_size);

#endif /* ZORCHECK_H */
