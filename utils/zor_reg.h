/*
 * zor_reg.h - the registry: records with change notification.
 *
 * A schema (zor_reg_db) describes record kinds, each with typed fields and
 * flags (a flag is a field of a size-0 type). A data store (zor_reg_ds) is a
 * live instance of a schema: the caller allocates each record as one
 * zero-filled block of zor_reg_rec_size() bytes, reports it created, and
 * changes it only through the setters below. Two families of registrations
 * hear of changes:
 *  - notifiers, called at once inside the call that makes the change
 *    (record created, record deleted, one field changed);
 *  - update registrations, which collect changed records and are called
 *    later by zor_reg_process(), in passes over three priority levels, once
 *    per pass with the whole batch queued for them.
 *
 * A record block, from its start: the entry header (zor_reg_entry), the
 * caller's record at the kind's rec_offset, the set bits, the snapshot bits
 * and one queued bit per update registration of the kind. All update
 * registrations of a kind must be made before its first block is allocated.
 *
 * Typical use:
 *
 *     zor_reg_db db;
 *     zor_reg_db_init(&db);
 *     zor_reg_rec_info *kind = zor_reg_db_rec_add(&db);
 *     zor_reg_field_info *f = zor_reg_db_rec_add_field(kind, offsetof(my_rec, x), int_type);
 *     zor_reg_db_rec_set_offsets(kind, sizeof(my_block_header), sizeof(my_rec));
 *     zor_reg_ds *ds = zor_reg_ds_init(&db, NULL);
 *     zor_reg_rec_update *reg = zor_register_rec_update_v(ds, kind, 0, my_cb, NULL, 1, f);
 *     zor_reg_enable(reg, 0);
 *     zor_reg_entry *e = calloc(1, zor_reg_rec_size(ds, kind));
 *     zor_reg_rec_created(ds, kind, e);
 *     zor_reg_field_set(zor_reg_rec(e), f, &value);
 *     zor_reg_process(ds);   // my_cb receives e
 *
 * Nothing here is thread-safe; processing is guarded process-wide.
 * Broken preconditions stop the process through ZOR_ASSERT.
 */
#ifndef ZOR_REG_H
#define ZOR_REG_H

#include <stddef.h>
#include <stdint.h>

#include "zor_datatype.h"
#include "zor_iter.h"
#include "zor_list.h"
#include "zor_partition.h"
#include "zor_utils.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- flags of zor_register_rec_update ----------------------------------- */

#define ZOR_REG_LEVEL_1       0x1 /* level 1 */
#define ZOR_REG_LEVEL_2       0x2 /* level 2; wins over ZOR_REG_LEVEL_1 */
#define ZOR_REG_NO_CTRL_FLAGS 0x4 /* do not watch the control flags of added fields */

typedef struct zor_reg_ds zor_reg_ds;
typedef struct zor_reg_entry zor_reg_entry;
typedef struct zor_reg_rec_update zor_reg_rec_update;
typedef struct zor_reg_cb_info zor_reg_cb_info;
typedef struct zor_reg_field_info zor_reg_field_info;

/*
 * The per-kind and per-field state records of a data store share their
 * names with the internal accessors that find them; in C they are also
 * typedef names, in C++ the struct names serve as type names.
 */
struct zor_reg_ds_rec;
struct zor_reg_ds_field;
#ifndef __cplusplus
typedef struct zor_reg_ds_rec zor_reg_ds_rec;
typedef struct zor_reg_ds_field zor_reg_ds_field;
#endif

/* ---- callback types ------------------------------------------------------ */

/* A deleted record leaves the data store for good; remove it from your indexes. */
typedef void (*zor_reg_unlink_fn)(zor_reg_ds *ds, zor_reg_entry *entry);
/* Last step for a deleted record: release the block. */
typedef void (*zor_reg_free_fn)(zor_reg_ds *ds, zor_reg_entry *entry);
/* Record created or deleted: the caller's record and the notifier's ctx. */
typedef void (*zor_reg_rec_fn)(void *rec, void *ctx);
/*
 * A field or flag is about to change; the record still holds the old value.
 * is_set: 1 when set by the change, 0 when it becomes unset. value: the new
 * value (for a flag, its place in the record), NULL when unsetting.
 */
typedef void (*zor_reg_field_fn)(void *rec, const zor_reg_field_info *field, int is_set,
                                 const void *value, void *ctx);
/*
 * Delivery of an update registration: `entries` yields zor_reg_entry
 * pointers and may be walked once (directly or through zor_reg_info_iter).
 * Return 0 for failure: the registration then receives nothing until a
 * resync succeeds.
 */
typedef int (*zor_reg_update_fn)(zor_reg_cb_info *info, zor_iter *entries, void *ctx);

/* ---- schema -------------------------------------------------------------- */

/* The schema: a list of record kinds. Caller memory. */
typedef struct zor_reg_db {
    zor_list recs; /* zor_reg_rec_info, link offset 0; count = kinds */
} zor_reg_db;

/* One record kind, allocated by zor_reg_db_rec_add. */
typedef struct zor_reg_rec_info {
    zor_list_link link;                    /* in the schema's recs */
    uint32_t id;                           /* 0, 1, 2, ... in order of addition */
    uint64_t rec_offset;                   /* entry header to the caller's record */
    uint64_t bitfield_offset;              /* entry to the set bits */
    uint64_t snapshot_bitfield_offset;     /* entry to the snapshot bits */
    uint64_t reg_bitfield_offset;          /* entry to the queued bits */
    uint64_t size;                         /* block size without the queued bits */
    uint64_t backup_bitfield_offset;       /* bit array inside a backup */
    uint64_t backup_size;                  /* bytes of one backup */
    zor_list fields;                       /* zor_reg_field_info, link offset 0 */
    int32_t delete_pending;                /* id of the delete-pending flag, or -1 */
    zor_reg_unlink_fn unlink_cb;           /* or NULL */
    zor_reg_free_fn free_cb;               /* or NULL */
    uint32_t clear_on_destroy_count;       /* fields whose type has a free operation */
    zor_reg_field_info **clear_on_destroy; /* those fields; filled by the first data store */
} zor_reg_rec_info;

/* One field or flag, allocated by zor_reg_db_rec_add_field. */
struct zor_reg_field_info {
    zor_list_link link;            /* in the kind's fields */
    zor_reg_rec_info *rec_info;    /* the owning kind */
    uint32_t id;                   /* 0, 1, 2, ... within the kind; its bit index */
    uint64_t offset;               /* caller's record start to the value */
    const zor_datatype_info *type; /* resolved datatype */
    const void *default_value;     /* value read when unset, or NULL; caller's storage */
    zor_reg_field_info *ctrl_flag; /* flag of the kind gating the default, or NULL */
};

/* ---- data store ---------------------------------------------------------- */

/* A priority level: two partitions of queued update registrations. */
typedef struct zor_reg_level {
    uint8_t active;         /* partition receiving newly queued work */
    zor_partition parts[2]; /* buckets: update registrations; entries: zor_reg_entry */
} zor_reg_level;

/* Per-field state of a data store. */
struct zor_reg_ds_field {
    zor_reg_field_info *field_info;
    zor_list update_regs;        /* field-update notifiers, link offset 0 */
    zor_partition_bucket bucket; /* in the kind's field_partition: watching registrations */
    uint32_t in_partition;       /* 1 once bucket is in field_partition */
};

/* Per-kind state of a data store. */
struct zor_reg_ds_rec {
    zor_reg_ds *ds;
    zor_reg_rec_info *rec_info;
    uint32_t field_count;                 /* the kind's field count at creation */
    struct zor_reg_ds_field *fields;      /* index = field id */
    zor_list create_regs;                 /* record-create notifiers */
    zor_list delete_regs;                 /* record-delete notifiers */
    zor_list update_regs;                 /* update registrations; count = next id */
    zor_partition field_partition;        /* buckets: the per-field buckets */
    zor_list entries;                     /* live entries in order of creation */
    zor_iter entry_iter;                  /* list iterator over entries (resync walks) */
    zor_reg_rec_update *rmv_reg;          /* removal registration, or NULL */
    void *ctx;                            /* caller's context, NULL until set */
    zor_list_iter_state entry_iter_state; /* state of entry_iter */
};

/* The data store, allocated by zor_reg_ds_init. */
struct zor_reg_ds {
    zor_reg_db *db;
    void *ctx;
    uint32_t rec_count;
    struct zor_reg_ds_rec *recs; /* index = kind id */
    uint32_t snapshot_active;    /* 1 while a snapshot is active */
    zor_partition snapshot_partition;
    zor_partition_bucket snapshot_created_bucket;
    zor_partition_bucket snapshot_updated_bucket;
    zor_reg_level levels[3];
};

/* The header at the start of every record block (caller memory). */
struct zor_reg_entry {
    struct zor_reg_ds_rec *ds_rec;     /* the kind's state; set at creation */
    void *backup;                      /* snapshot backup, or NULL */
    zor_list_link link;                /* in the kind's entries */
    uint32_t changes_prohibited;       /* 1 once the record is being removed */
    uint32_t snapshot_created;         /* created while a snapshot is active */
    uint32_t snapshot_created_restore; /* being removed by a snapshot restore */
    uint32_t snapshot_updated;         /* changed while a snapshot is active */
    uint32_t snapshot_deleted;         /* deleted during the snapshot; reads as absent */
};

/* ---- registrations ------------------------------------------------------- */

/* The callback of a notifier: a record callback or a field callback. */
typedef union zor_reg_notifier_cb {
    zor_reg_rec_fn rec;     /* record create and record delete notifiers */
    zor_reg_field_fn field; /* field-update notifiers */
} zor_reg_notifier_cb;

/* A notifier, owned by its data store. */
typedef struct zor_reg_notifier {
    zor_list_link link;
    zor_reg_notifier_cb cb;
    void *ctx;
} zor_reg_notifier;

/*
 * An update registration, owned by its data store.
 *
 * The invariant queueing and processing keep, for every registration R
 * and entry E of R's kind: E's queued bit for R (number `id`) is set if
 * and only if E is in R's bucket of the active partition of R's level;
 * and that bucket is chained into the partition if and only if
 * `in_partition` is set. Queueing sets the bit and appends E together
 * (chaining the bucket first when needed); a pass clears the bits of
 * every entry of the buckets it takes, and `in_partition`, before it
 * flips the level's active partition.
 */
struct zor_reg_rec_update {
    zor_list_link link;            /* in the kind's update_regs */
    struct zor_reg_ds_rec *ds_rec; /* the kind's state */
    uint32_t id;                   /* queued-bit index in every block of the kind */
    uint32_t level;                /* 0, 1 or 2 */
    zor_reg_update_fn cb;
    void *ctx;
    uint32_t follow_ctrl;            /* also watch control flags of added fields */
    uint8_t *field_bits;             /* watched field ids */
    uint32_t first_byte;             /* lowest byte of field_bits with a watched field */
    uint32_t last_byte;              /* highest such byte */
    uint32_t enable_pending;         /* enable asked, not yet taken up */
    uint32_t resync;                 /* full resync asked, not yet delivered */
    uint32_t failed;                 /* the last delivery's callback returned 0 */
    uint32_t enabled;                /* active */
    uint32_t in_partition;           /* one of buckets is queued in its level */
    zor_partition_bucket buckets[2]; /* one per partition of the level */
};

/* ---- processing ---------------------------------------------------------- */

/* What an update callback receives besides its entries; lives during the call. */
struct zor_reg_cb_info {
    zor_reg_ds *ds;
    zor_reg_rec_update *reg; /* the registration served */
    uint32_t resync;         /* 1 for a resync delivery */
    uint32_t count;          /* entries the iterator yields */
    zor_iter *iter;          /* the entries handed to the callback */
    uint32_t is_partitioned; /* zor_reg_info_iter has split the entries */
    zor_partition partition;
    zor_partition_bucket set_bucket; /* entries that still have a watched field */
    zor_partition_bucket del_bucket; /* entries that are deleting */
    zor_iter set_iter;
    zor_iter del_iter;
    uint32_t set_count;
    uint32_t del_count;
    zor_partition_entries_state set_state; /* state of set_iter */
    zor_partition_entries_state del_state; /* state of del_iter */
};

/* One callback invocation, as recorded in the trace ring. */
typedef struct zor_reg_cb_trace_slot {
    uint32_t iteration; /* pass number; 0 for a resync delivery */
    zor_reg_rec_update *reg;
    uint32_t resync;
    uint32_t count;
} zor_reg_cb_trace_slot;

/* 1 while a processing call runs (one at a time in the whole process). */
ZOR_API extern uint32_t zor_reg_in_cb_processing;
/* Callback invocations since the current processing call began. */
ZOR_API extern uint32_t zor_reg_cb_trace_count;
/* Slots of the trace ring. */
#define ZOR_REG_CB_TRACE_SIZE 1000
/* The last ZOR_REG_CB_TRACE_SIZE invocations; slot = invocation number mod that size. Never read by
 * the library. */
ZOR_API extern zor_reg_cb_trace_slot zor_reg_cb_trace[ZOR_REG_CB_TRACE_SIZE];

/* ---- schema functions ---------------------------------------------------- */

/* Makes `db` an empty schema. Allocates nothing. */
ZOR_API void zor_reg_db_init(zor_reg_db *db);

/* Adds a record kind (id = number of kinds before it, delete_pending -1). */
ZOR_API zor_reg_rec_info *zor_reg_db_rec_add(zor_reg_db *db);

/*
 * Adds a field (or, for a size-0 type, a flag) whose value lies `offset`
 * bytes into the caller's record. `type` must be resolved
 * (ZOR_DATATYPE_PROP_FLATTENED) and outlive the schema.
 */
ZOR_API zor_reg_field_info *zor_reg_db_rec_add_field(zor_reg_rec_info *rec_info, uint64_t offset,
                                                     const zor_datatype_info *type);

/*
 * Gives `field` a default: read when the field has no value of its own and
 * `ctrl_flag` (a flag of the same kind, or NULL) is set. Once per field;
 * `value` is the caller's and must outlive the schema.
 */
ZOR_API void zor_reg_db_field_set_default(zor_reg_field_info *field, zor_reg_field_info *ctrl_flag,
                                          const void *value);

/*
 * Names the kind's delete-pending flag and the callbacks run when a deleted
 * record leaves a data store (either may be NULL). Once per kind.
 */
ZOR_API void zor_reg_db_rec_set_deletion_info(zor_reg_rec_info *rec, zor_reg_field_info *flag,
                                              zor_reg_unlink_fn unlink_cb, zor_reg_free_fn free_cb);

/*
 * Computes the kind's block layout: the caller's record of `rec_size` bytes
 * lies `rec_offset` bytes (at least sizeof(zor_reg_entry)) after the entry.
 * Call after the kind's last field has been added.
 */
ZOR_API void zor_reg_db_rec_set_offsets(zor_reg_rec_info *rec_info, uint64_t rec_offset,
                                        uint64_t rec_size);

/* Frees the kinds and fields; after the last data store. `db` must be initialised again. */
ZOR_API void zor_reg_db_destroy(zor_reg_db *db);

/* The kind of a live record. */
ZOR_API zor_reg_rec_info *zor_reg_db_rec_info(const zor_reg_entry *entry);

/* ---- data store functions ------------------------------------------------ */

/*
 * Creates a data store of the (complete) schema `db` with the caller's
 * `ctx`. Clears the process-wide processing guard. Every kind with a
 * delete-pending flag gets its removal registration, which becomes active
 * at the first zor_reg_process: call it once after setup, before deleting
 * any record, or a deletion queued before that pass is dropped and the
 * record is never removed.
 */
ZOR_API zor_reg_ds *zor_reg_ds_init(zor_reg_db *db, void *ctx);

/*
 * Frees the data store, its registrations and notifiers. Calls no record
 * callback and frees no record block. Not during processing.
 */
ZOR_API void zor_reg_ds_destroy(zor_reg_ds *ds);

ZOR_API void *zor_reg_ds_ctx_get(const zor_reg_ds *ds);
ZOR_API void zor_reg_db_ds_rec_ctx_set(struct zor_reg_ds_rec *ds_rec, void *ctx);
ZOR_API void *zor_reg_db_ds_rec_ctx_get(const struct zor_reg_ds_rec *ds_rec);

/*
 * Bytes of one zero-filled record block of the kind, for the update
 * registrations the kind has now.
 */
ZOR_API uint64_t zor_reg_rec_size(const zor_reg_ds *ds, const zor_reg_rec_info *rec_info);

/*
 * Reports a new record (a zero-filled block of zor_reg_rec_size bytes, or a
 * record deleted during the active snapshot coming back): links it and
 * calls the kind's create notifiers. Queues nothing.
 */
ZOR_API void zor_reg_rec_created(zor_reg_ds *ds, zor_reg_rec_info *rec_info, zor_reg_entry *entry);

/* Calls the kind's delete notifiers, then unlinks the entry from the kind's entries. */
ZOR_API void zor_reg_rec_deleted(zor_reg_entry *entry);

/* Calls the kind's unlink_cb, if any. */
ZOR_API void zor_reg_rec_unlink(zor_reg_entry *entry);

/* Releases what the record's values hold, then calls the kind's free_cb, if any. */
ZOR_API void zor_reg_rec_free(zor_reg_entry *entry);

/* The snapshot_active word of the entry's data store. */
ZOR_API uint32_t zor_reg_rec_snapshot_active(const zor_reg_entry *entry);

/* The caller's record of an entry; NULL for a NULL entry. */
ZOR_API void *zor_reg_rec(const zor_reg_entry *entry);

/* ---- registrations ------------------------------------------------------- */

/*
 * Calls `cb(rec, ctx)` for every record of the kind reported created from
 * now on; with `notify_existing`, at once for the existing ones too.
 */
ZOR_API zor_reg_notifier *zor_register_rec_create(zor_reg_ds *ds, zor_reg_rec_info *rec_info,
                                                  zor_reg_rec_fn cb, void *ctx,
                                                  int notify_existing);

/* Calls `cb(rec, ctx)` for every record of the kind reported deleted. */
ZOR_API zor_reg_notifier *zor_register_rec_delete(zor_reg_ds *ds, zor_reg_rec_info *rec_info,
                                                  zor_reg_rec_fn cb, void *ctx);

/* Calls `cb` before every change of `field` (a value field or a flag) on a record. */
ZOR_API zor_reg_notifier *zor_register_field_update(zor_reg_ds *ds, zor_reg_field_info *field,
                                                    zor_reg_field_fn cb, void *ctx);

/*
 * An update registration on the kind, at the level given by `flags`
 * (ZOR_REG_LEVEL_*, ZOR_REG_NO_CTRL_FLAGS). It watches no field and is not
 * enabled yet.
 */
ZOR_API zor_reg_rec_update *zor_register_rec_update(zor_reg_ds *ds, zor_reg_rec_info *rec_info,
                                                    uint32_t flags, zor_reg_update_fn cb,
                                                    void *ctx);

/* As zor_register_rec_update, then watches the `field_count` (> 0) fields that follow. */
ZOR_API zor_reg_rec_update *zor_register_rec_update_v(zor_reg_ds *ds, zor_reg_rec_info *rec_info,
                                                      uint32_t flags, zor_reg_update_fn cb,
                                                      void *ctx, size_t field_count, ...);

/* Watches `field` too, and (unless ZOR_REG_NO_CTRL_FLAGS) its chain of control flags. */
ZOR_API void zor_reg_rec_update_field_add(zor_reg_rec_update *reg, zor_reg_field_info *field);

/*
 * Asks for the registration to become active at the next processing of its
 * level; with `resync`, also for a delivery of all matching records.
 */
ZOR_API void zor_reg_enable(zor_reg_rec_update *reg, int resync);

/* Asks for a delivery of every record that has a watched field set. */
ZOR_API void zor_reg_resync(zor_reg_rec_update *reg);

/* Silences the registration; what is queued for it is dropped. */
ZOR_API void zor_reg_disable(zor_reg_rec_update *reg);

/* ---- values -------------------------------------------------------------- */

/* Sets `field` of the caller's record `rec` to *value (NULL unsets). */
ZOR_API void zor_reg_field_set(void *rec, zor_reg_field_info *field, const void *value);

/* The stored value, else the default when it applies, else NULL. */
ZOR_API const void *zor_reg_field_get(const void *rec, zor_reg_field_info *field);

/* The stored value, else NULL. */
ZOR_API const void *zor_reg_field_get_explicit(const void *rec, zor_reg_field_info *field);

/* Sets (1) or clears (0) a flag. Any non-zero value counts as 1. */
ZOR_API void zor_reg_flag_set(void *rec, zor_reg_field_info *field, int value);

/* Queues the record for the registrations watching `flag`, changing nothing. */
ZOR_API void zor_reg_flag_trigger(void *rec, zor_reg_field_info *flag);

/* 1 when the flag is set or defaulted on, else 0. */
ZOR_API int zor_reg_flag_get(const void *rec, zor_reg_field_info *flag);

/* 1 when the flag is set, else 0. */
ZOR_API int zor_reg_flag_get_explicit(const void *rec, zor_reg_field_info *flag);

/*
 * The field-update notifier of a kind's delete-pending flag: queues the
 * record once more for every registration watching a field it has a value
 * for. `flag` is the notifier's is_set and must be 1.
 */
ZOR_API void zor_reg_rec_delete_pending(void *rec, const zor_reg_field_info *field, int flag,
                                        const void *value, void *ctx);

/* ---- processing ---------------------------------------------------------- */

/*
 * Delivers everything queued: level 0 first, one pass at a time, until no
 * work is left (at most 98 passes; the 99th stops the process). Not
 * re-entrant, also across data stores.
 */
ZOR_API void zor_reg_process(zor_reg_ds *ds);

/* 1 for a resync delivery. */
ZOR_API uint32_t zor_reg_info_is_resync(const zor_reg_cb_info *info);
/* Number of entries delivered. */
ZOR_API uint32_t zor_reg_info_count(const zor_reg_cb_info *info);
/* The data store's ctx. */
ZOR_API void *zor_reg_info_ds_ctx(const zor_reg_cb_info *info);
/* 1 when the entry is being deleted or has none of the registration's fields set. */
ZOR_API int zor_reg_info_is_deleting(const zor_reg_cb_info *info, const zor_reg_entry *entry);
/* 1 when the entry's kind has a delete-pending flag and it is set on the entry. */
ZOR_API int zor_reg_info_is_record_deleting(const zor_reg_entry *entry);
/*
 * Splits the delivered entries (consuming the callback's iterator) into
 * those that still have a watched field and those that are deleting. Any
 * out-parameter may be NULL. Once per callback; the iterators are released
 * after the callback returns.
 */
ZOR_API void zor_reg_info_iter(zor_reg_cb_info *info, zor_iter **set_iter, zor_iter **del_iter,
                               uint32_t *set_count, uint32_t *del_count);

/* ---- removal and tracking ------------------------------------------------ */

/*
 * The update callback of the level-2 removal registration that every data
 * store installs for a kind with a delete-pending flag. Each record it
 * receives (all are delete-pending) is marked changes_prohibited and
 * reported deleted (delete notifiers run, it leaves the kind's entries);
 * then it is unlinked and freed (the kind's unlink_cb and free_cb), or,
 * during a snapshot or its restore, kept and marked snapshot_deleted for
 * the snapshot to finish or undo. Returns 1.
 */
ZOR_API int zor_reg_db_rec_rmv_cb(zor_reg_cb_info *cb_info, zor_iter *entries, void *ctx);

/*
 * A ready-made update registration that keeps `flag` (a flag of the kind)
 * equal, on every record it receives, to whether the record is deleting for
 * it (being deleted, or none of its watched fields set); with `invert`
 * non-zero, to the opposite: whether the record is present. `flags` are
 * those of zor_register_rec_update. Like any registration it watches no
 * field yet: add fields with zor_reg_rec_update_field_add, then enable it.
 */
ZOR_API zor_reg_rec_update *zor_reg_track(zor_reg_ds *ds, zor_reg_rec_info *rec_info,
                                          uint32_t flags, zor_reg_field_info *flag, int invert);

/* The two callbacks behind zor_reg_track; ctx is the flag. Both return 1. */
ZOR_API int zor_reg_track_deleting_cb(zor_reg_cb_info *info, zor_iter *entries, void *ctx);
ZOR_API int zor_reg_track_present_cb(zor_reg_cb_info *info, zor_iter *entries, void *ctx);

/* ---- snapshots ----------------------------------------------------------- */

/*
 * Snapshots let a caller try changes and then keep or undo them. Calling
 * order: take, any changes and processing, then exactly one of discard or
 * restore; one snapshot per data store at a time. Each of the three runs
 * zor_reg_process first, so none may be called from inside a callback.
 *
 * Taking copies nothing: the records' snapshot bits stop following their
 * set bits, and a field's old value is backed up the first time it is
 * overwritten. Discard and restore visit only the records touched since.
 * Restore needs every kind whose records were changed, deleted or created
 * during the snapshot to have a delete-pending flag: it puts values and set
 * states back through the setters (notifiers run, registrations hear of the
 * changes), reports records deleted since the take created again, and
 * removes records created since through their delete-pending flag. A
 * record that comes back is reported created (create notifiers run) while
 * it still reads as deleted through the plain getters; a create notifier
 * that needs its values reads them with the snapshot getters. Fields of
 * ZOR_DATATYPE_PROP_NO_RESTORE types keep their current state (their
 * snapshot bits may keep the state of the take until the next snapshot
 * ends); those of ZOR_DATATYPE_PROP_RESET_ON_UNSET types are never backed
 * up.
 */
ZOR_API void zor_reg_take_snapshot(zor_reg_ds *ds);
/* Keeps every change: frees backups, finishes deletions, ends the snapshot. */
ZOR_API void zor_reg_discard_snapshot(zor_reg_ds *ds);
/* Undoes every change since the take and ends the snapshot. */
ZOR_API void zor_reg_restore_snapshot(zor_reg_ds *ds);

/*
 * Reads as of the take: the value the field had then (from the backup when
 * it has been overwritten since), the default by the set state of then, or
 * NULL. With no snapshot active they read as the plain getters.
 */
ZOR_API const void *zor_reg_snapshot_field_get(const void *rec, zor_reg_field_info *field);
/* As zor_reg_snapshot_field_get, without the default. */
ZOR_API const void *zor_reg_snapshot_field_get_explicit(const void *rec, zor_reg_field_info *field);
/* 1 when the flag was set at the take, or its default applied then. */
ZOR_API int zor_reg_snapshot_flag_get(const void *rec, zor_reg_field_info *flag);
/* 1 when the flag was set at the take. */
ZOR_API int zor_reg_snapshot_flag_get_explicit(const void *rec, zor_reg_field_info *flag);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_REG_H */
