/*
 * The registry's schema, data stores, record lifecycle and change
 * processing.
 *
 * Processing serves the lowest level with queued work one pass at a time.
 * A pass takes the level's active partition P, clears the queued bits of
 * everything in P (so callbacks that change a record queue it again), flips
 * the level's active partition (so that work queued from now on goes to
 * the other one), serves each registration of P newest bucket first, and
 * resets P. Level 0 is looked at again after every pass.
 */
#include "zor_reg_internal.h"

#include <stdlib.h>
#include <string.h>

#include "zor_layout.h"

ZOR_LAYOUT(zor_reg_db, 32, recs);
ZOR_LAYOUT(zor_reg_rec_info, 140, link, id, rec_offset, bitfield_offset, snapshot_bitfield_offset,
           reg_bitfield_offset, size, backup_bitfield_offset, backup_size, fields, delete_pending,
           unlink_cb, free_cb, clear_on_destroy_count, clear_on_destroy);
ZOR_LAYOUT(zor_reg_field_info, 60, link, rec_info, id, offset, type, default_value, ctrl_flag);
ZOR_LAYOUT(zor_reg_level, 65, active, parts);
ZOR_LAYOUT(struct zor_reg_ds_field, 92, field_info, update_regs, bucket, in_partition);
ZOR_LAYOUT(struct zor_reg_ds_rec, 276, ds, rec_info, field_count, fields, create_regs, delete_regs,
           update_regs, field_partition, entries, entry_iter, rmv_reg, ctx, entry_iter_state);
ZOR_LAYOUT(zor_reg_ds, 376, db, ctx, rec_count, recs, snapshot_active, snapshot_partition,
           snapshot_created_bucket, snapshot_updated_bucket, levels);
ZOR_LAYOUT(zor_reg_entry, 52, ds_rec, backup, link, changes_prohibited, snapshot_created,
           snapshot_created_restore, snapshot_updated, snapshot_deleted);
ZOR_LAYOUT(zor_reg_cb_trace_slot, 20, iteration, reg, resync, count);

/* ---- process-wide state -------------------------------------------------- */

uint32_t zor_reg_in_cb_processing;
uint32_t zor_reg_cb_trace_count;
zor_reg_cb_trace_slot zor_reg_cb_trace[ZOR_REG_CB_TRACE_SIZE];

/* ---- schema -------------------------------------------------------------- */

void zor_reg_db_init(zor_reg_db *db)
{
    zor_list_init(&db->recs, 0);
}

zor_reg_rec_info *zor_reg_db_rec_add(zor_reg_db *db)
{
    zor_reg_rec_info *kind = static_cast<zor_reg_rec_info *>(util_calloc(sizeof(zor_reg_rec_info)));
    kind->id = db->recs.count;
    zor_list_init(&kind->fields, 0);
    kind->delete_pending = -1;
    zor_list_append(&db->recs, kind);
    return kind;
}

zor_reg_field_info *zor_reg_db_rec_add_field(zor_reg_rec_info *kind, uint64_t offset,
                                             const zor_datatype_info *type)
{
    const zor_datatype_info *datatype_info = type;
    /* The assertion text fixes the name and the literal (ZOR_DATATYPE_PROP_FLATTENED). */
    ZOR_ASSERT((datatype_info->properties & 0x10) != 0);
    zor_reg_field_info *field =
        static_cast<zor_reg_field_info *>(util_calloc(sizeof(zor_reg_field_info)));
    field->rec_info = kind;
    field->id = kind->fields.count;
    field->offset = offset;
    field->type = type;
    zor_list_append(&kind->fields, field);
    if (type->free != nullptr)
        kind->clear_on_destroy_count++;
    return field;
}

void zor_reg_db_field_set_default(zor_reg_field_info *field, zor_reg_field_info *ctrl_flag,
                                  const void *value)
{
    ZOR_ASSERT(field->default_value == ZOR_NULL);
    ZOR_ASSERT(value != ZOR_NULL);
    ZOR_ASSERT(ctrl_flag == ZOR_NULL || ctrl_flag->rec_info == field->rec_info);
    field->default_value = value;
    field->ctrl_flag = ctrl_flag;
}

void zor_reg_db_rec_set_deletion_info(zor_reg_rec_info *rec, zor_reg_field_info *flag,
                                      zor_reg_unlink_fn unlink_cb, zor_reg_free_fn free_cb)
{
    /* The kind is `rec` here: the assertion text below names it so. */
    ZOR_ASSERT(rec->delete_pending == -1);
    rec->delete_pending = (int32_t)flag->id;
    rec->unlink_cb = unlink_cb;
    rec->free_cb = free_cb;
}

void zor_reg_db_rec_set_offsets(zor_reg_rec_info *kind, uint64_t rec_offset, uint64_t rec_size)
{
    uint64_t nb = zor_reg_bit_bytes(kind->fields.count);
    kind->rec_offset = rec_offset;
    kind->bitfield_offset = rec_offset + rec_size;
    kind->snapshot_bitfield_offset = kind->bitfield_offset + nb;
    kind->reg_bitfield_offset = kind->bitfield_offset + 2 * nb;
    kind->size = kind->reg_bitfield_offset;
    kind->backup_bitfield_offset = rec_size;
    kind->backup_size = rec_size + nb;
}

void zor_reg_db_destroy(zor_reg_db *db)
{
    zor_iter recs_iter;
    zor_list_iter_state recs_state;
    zor_reg_rec_info *kind;
    zor_iter_create(&recs_iter, zor_list_iterator(&recs_iter, &recs_state, &db->recs));
    ZOR_ITER_FOREACH (&recs_iter, kind) {
        zor_iter fields_iter;
        zor_list_iter_state fields_state;
        zor_reg_field_info *field;
        zor_iter_create(&fields_iter,
                        zor_list_iterator(&fields_iter, &fields_state, &kind->fields));
        ZOR_ITER_FOREACH (&fields_iter, field) {
            free(field);
        }
        zor_iter_free(&fields_iter);
        free(kind->clear_on_destroy);
        free(kind);
    }
    zor_iter_free(&recs_iter);
}

zor_reg_rec_info *zor_reg_db_rec_info(const zor_reg_entry *entry)
{
    return entry->ds_rec->rec_info;
}

/* ---- data store ---------------------------------------------------------- */

/*
 * Lists the kind's fields whose type has a free operation, once per schema:
 * a later data store finds the array filled.
 */
static void zor_reg_db_rec_populate_clear_on_destroy(zor_reg_rec_info *rec)
{
    /* The kind is `rec` here: the assertion text at the end names it so. */
    if (rec->clear_on_destroy != nullptr || rec->clear_on_destroy_count == 0)
        return;
    rec->clear_on_destroy = static_cast<zor_reg_field_info **>(
        util_calloc(sizeof(zor_reg_field_info *) * rec->clear_on_destroy_count));
    uint32_t field_idx = 0;
    for (zor_reg_field_info *field = static_cast<zor_reg_field_info *>(rec->fields.first);
         field != nullptr; field = static_cast<zor_reg_field_info *>(field->link.next)) {
        if (field->type->free == nullptr)
            continue;
        if (field_idx < rec->clear_on_destroy_count)
            rec->clear_on_destroy[field_idx] = field;
        field_idx++;
    }
    ZOR_ASSERT(field_idx == rec->clear_on_destroy_count);
}

/*
 * A kind with a delete-pending flag F gets two registrations in every data
 * store: a level-2 update registration watching only F, whose callback
 * removes the records (so every level-0 and level-1 registration has seen
 * them as deleting first), enabled at once; and a notifier on F that
 * queues the record once more for every registration watching a field it
 * has a value for, before F's bit is set.
 */
static void zor_reg_db_rec_install_removal(zor_reg_ds *ds, struct zor_reg_ds_rec *ds_rec)
{
    zor_reg_rec_info *kind = ds_rec->rec_info;
    zor_reg_field_info *flag = ds_rec->fields[kind->delete_pending].field_info;
    ds_rec->rmv_reg = zor_register_rec_update_v(ds, kind, ZOR_REG_LEVEL_2, zor_reg_db_rec_rmv_cb,
                                                nullptr, 1, flag);
    zor_reg_enable(ds_rec->rmv_reg, 0);
    zor_register_field_update(ds, flag, zor_reg_rec_delete_pending, nullptr);
}

zor_reg_ds *zor_reg_ds_init(zor_reg_db *db, void *ctx)
{
    zor_reg_ds *ds = static_cast<zor_reg_ds *>(util_calloc(sizeof(zor_reg_ds)));
    ds->db = db;
    ds->ctx = ctx;
    zor_reg_in_cb_processing = 0;
    for (zor_reg_level &level : ds->levels) {
        zor_partition_create(&level.parts[0], ZOR_PARTITION_SIZE);
        zor_partition_create(&level.parts[1], ZOR_PARTITION_SIZE);
    }
    ds->rec_count = db->recs.count;
    ds->recs = static_cast<struct zor_reg_ds_rec *>(
        util_calloc(sizeof(struct zor_reg_ds_rec) * ds->rec_count));

    uint32_t rec_idx = 0;
    for (zor_reg_rec_info *kind = static_cast<zor_reg_rec_info *>(db->recs.first); kind != nullptr;
         kind = static_cast<zor_reg_rec_info *>(kind->link.next)) {
        zor_reg_db_rec_populate_clear_on_destroy(kind);

        struct zor_reg_ds_rec *ds_rec = &ds->recs[rec_idx++];
        ds_rec->ds = ds;
        ds_rec->rec_info = kind;
        zor_list_init(&ds_rec->create_regs, 0);
        zor_list_init(&ds_rec->delete_regs, 0);
        zor_list_init(&ds_rec->update_regs, 0);
        zor_partition_create(&ds_rec->field_partition, ZOR_PARTITION_SIZE);
        zor_list_init(&ds_rec->entries, offsetof(zor_reg_entry, link));
        zor_iter_create(
            &ds_rec->entry_iter,
            zor_list_iterator(&ds_rec->entry_iter, &ds_rec->entry_iter_state, &ds_rec->entries));

        ds_rec->field_count = kind->fields.count;
        ds_rec->fields = static_cast<struct zor_reg_ds_field *>(
            util_calloc(sizeof(struct zor_reg_ds_field) * ds_rec->field_count));
        uint32_t field_idx = 0;
        for (zor_reg_field_info *field = static_cast<zor_reg_field_info *>(kind->fields.first);
             field != nullptr; field = static_cast<zor_reg_field_info *>(field->link.next)) {
            ZOR_ASSERT(field_idx < ds_rec->field_count);
            struct zor_reg_ds_field *ds_field = &ds_rec->fields[field_idx];
            ds_field->field_info = field;
            ZOR_ASSERT(field_idx == field->id);
            zor_list_init(&ds_field->update_regs, 0);
            field_idx++;
        }
        ZOR_ASSERT(field_idx == ds_rec->field_count);
        if (kind->delete_pending != -1)
            zor_reg_db_rec_install_removal(ds, ds_rec);
    }
    ZOR_ASSERT(rec_idx == ds->rec_count);
    return ds;
}

/* Frees every notifier of `list` (link offset 0). */
static void zor_reg_notifiers_free(zor_list *list)
{
    zor_iter iter;
    zor_list_iter_state state;
    zor_reg_notifier *notifier;
    zor_iter_create(&iter, zor_list_iterator(&iter, &state, list));
    ZOR_ITER_FOREACH (&iter, notifier) {
        free(notifier);
    }
    zor_iter_free(&iter);
}

void zor_reg_ds_destroy(zor_reg_ds *ds)
{
    for (zor_reg_level &level : ds->levels) {
        zor_partition_destroy(&level.parts[0]);
        zor_partition_destroy(&level.parts[1]);
    }
    for (uint32_t i = 0; i < ds->rec_count; i++) {
        struct zor_reg_ds_rec *ds_rec = &ds->recs[i];
        zor_partition_destroy(&ds_rec->field_partition);
        zor_reg_notifiers_free(&ds_rec->create_regs);
        zor_reg_notifiers_free(&ds_rec->delete_regs);

        zor_iter iter;
        zor_list_iter_state state;
        zor_reg_rec_update *reg;
        zor_iter_create(&iter, zor_list_iterator(&iter, &state, &ds_rec->update_regs));
        ZOR_ITER_FOREACH (&iter, reg) {
            free(reg->field_bits);
            free(reg);
        }
        zor_iter_free(&iter);

        zor_iter_free(&ds_rec->entry_iter);
        for (uint32_t f = 0; f < ds_rec->field_count; f++)
            zor_reg_notifiers_free(&ds_rec->fields[f].update_regs);
        free(ds_rec->fields);
    }
    free(ds->recs);
    free(ds);
}

void *zor_reg_ds_ctx_get(const zor_reg_ds *ds)
{
    return ds->ctx;
}

void zor_reg_db_ds_rec_ctx_set(struct zor_reg_ds_rec *ds_rec, void *ctx)
{
    ds_rec->ctx = ctx;
}

void *zor_reg_db_ds_rec_ctx_get(const struct zor_reg_ds_rec *ds_rec)
{
    return ds_rec->ctx;
}

uint64_t zor_reg_rec_size(const zor_reg_ds *ds, const zor_reg_rec_info *kind)
{
    struct zor_reg_ds_rec *ds_rec = zor_reg_ds_rec(ds, kind);
    return kind->size + (ds_rec->update_regs.count + 7) / 8;
}

/* Calls every record notifier of `list` with the caller's record. */
static void zor_reg_rec_notifiers_call(zor_list *list, void *rec)
{
    zor_reg_notifier *next;
    for (zor_reg_notifier *n = static_cast<zor_reg_notifier *>(list->first); n != nullptr;
         n = next) {
        next = static_cast<zor_reg_notifier *>(n->link.next);
        n->cb.rec(rec, n->ctx);
    }
}

void zor_reg_rec_created(zor_reg_ds *ds, zor_reg_rec_info *kind, zor_reg_entry *entry)
{
    struct zor_reg_ds_rec *ds_rec = zor_reg_ds_rec(ds, kind);
    zor_reg_entry *rec_hdr = entry; /* the name the assertion texts below report */
    if (ds->snapshot_active) {
        if (entry->snapshot_deleted) {
            /* Deleted during this snapshot and back again: it starts with no values. */
            ZOR_ASSERT(rec_hdr->ds_rec == ds_rec);
            ZOR_ASSERT(rec_hdr->snapshot_created || rec_hdr->snapshot_updated);
            memset(zor_reg_entry_set_bits(entry, kind), 0, zor_reg_bit_bytes(ds_rec->field_count));
            entry->changes_prohibited = 0;
            entry->snapshot_deleted = 0;
        } else {
            ZOR_ASSERT(!rec_hdr->snapshot_created && !rec_hdr->snapshot_updated);
            entry->snapshot_created = 1;
            zor_partition_entry_add(&ds->snapshot_created_bucket, entry);
        }
    }
    entry->ds_rec = ds_rec;
    zor_list_append(&ds_rec->entries, entry);
    zor_reg_rec_notifiers_call(&ds_rec->create_regs, zor_reg_entry_rec(entry, kind));
}

void zor_reg_rec_deleted(zor_reg_entry *entry)
{
    struct zor_reg_ds_rec *ds_rec = entry->ds_rec;
    zor_reg_rec_notifiers_call(&ds_rec->delete_regs, zor_reg_entry_rec(entry, ds_rec->rec_info));
    zor_list_remove(&ds_rec->entries, entry);
}

void zor_reg_rec_unlink(zor_reg_entry *entry)
{
    struct zor_reg_ds_rec *ds_rec = entry->ds_rec;
    if (ds_rec->rec_info->unlink_cb != nullptr)
        ds_rec->rec_info->unlink_cb(ds_rec->ds, entry);
}

void zor_reg_rec_free(zor_reg_entry *entry)
{
    zor_reg_entry *rec_hdr = entry; /* the name the assertion text reports */
    ZOR_ASSERT(rec_hdr->backup == ZOR_NULL);
    struct zor_reg_ds_rec *ds_rec = entry->ds_rec;
    zor_reg_rec_info *kind = ds_rec->rec_info;
    zor_reg_values_release(kind, zor_reg_entry_rec(entry, kind));
    if (kind->free_cb != nullptr)
        kind->free_cb(ds_rec->ds, entry);
}

uint32_t zor_reg_rec_snapshot_active(const zor_reg_entry *entry)
{
    return entry->ds_rec->ds->snapshot_active;
}

void *zor_reg_rec(const zor_reg_entry *entry)
{
    if (entry == nullptr)
        return nullptr;
    return zor_reg_entry_rec(entry, entry->ds_rec->rec_info);
}

/* ---- processing ---------------------------------------------------------- */

/*
 * Calls the registration's callback with a fresh information record, after
 * writing the invocation into the trace ring; releases what
 * zor_reg_info_iter made. Returns the callback's result.
 */
static int zor_reg_cb_invoke(zor_reg_rec_update *reg, uint32_t resync, zor_iter *iter,
                             uint32_t count, uint32_t iteration)
{
    zor_reg_cb_info info;
    memset(&info, 0, sizeof(info));
    info.ds = reg->ds_rec->ds;
    info.reg = reg;
    info.resync = resync;
    info.count = count;
    info.iter = iter;

    zor_reg_cb_trace_slot *slot = &zor_reg_cb_trace[zor_reg_cb_trace_count % ZOR_REG_CB_TRACE_SIZE];
    slot->iteration = iteration;
    slot->reg = reg;
    slot->resync = resync;
    slot->count = count;
    zor_reg_cb_trace_count++;

    int result = reg->cb(&info, iter, reg->ctx);
    if (info.is_partitioned) {
        zor_iter_free(&info.set_iter);
        zor_iter_free(&info.del_iter);
        zor_partition_destroy(&info.partition);
    }
    return result;
}

/*
 * Delivers every live record of the registration's kind that is not
 * delete-pending and has a watched field set, in the order of the kind's
 * entries, as one resync call (also when there is none).
 */
static void zor_reg_resync_deliver(zor_reg_rec_update *reg)
{
    zor_partition partition;
    zor_partition_bucket bucket;
    zor_partition_create(&partition, ZOR_PARTITION_SIZE);
    zor_partition_bucket_add(&partition, &bucket, reg);

    zor_iter *entries = &reg->ds_rec->entry_iter;
    for (zor_reg_entry *entry = static_cast<zor_reg_entry *>(zor_iter_first(entries));
         entry != nullptr; entry = static_cast<zor_reg_entry *>(zor_iter_next(entries))) {
        if (zor_reg_entry_delete_pending(entry))
            continue;
        if (zor_reg_entry_matches(entry, reg))
            zor_partition_entry_add(&bucket, entry);
    }

    zor_iter iter;
    zor_partition_entries_state state;
    zor_iter_create(&iter, zor_partition_bucket_entries_iterator(&iter, &state, &bucket));
    int result = zor_reg_cb_invoke(reg, 1, &iter, bucket.count, 0);
    zor_iter_free(&iter);
    reg->failed = result == 0 ? 1 : 0;
    zor_partition_destroy(&partition);
}

/*
 * Serves one registration whose bucket a pass has taken: an ordinary
 * delivery of the bucket's entries when it is enabled, healthy and not
 * about to resync; otherwise the queued entries are dropped, a pending
 * enable is taken up, and an asked resync is delivered.
 */
static void zor_reg_process_reg(zor_reg_rec_update *reg, zor_partition_bucket *bucket,
                                uint32_t iterations)
{
    uint32_t count = bucket->count;
    if (reg->enabled && count != 0 && !reg->resync && !reg->failed) {
        zor_iter iter;
        zor_partition_entries_state state;
        zor_iter_create(&iter, zor_partition_bucket_entries_iterator(&iter, &state, bucket));
        ZOR_ASSERT(count > 0);
        if (zor_reg_cb_invoke(reg, 0, &iter, count, iterations) == 0)
            reg->failed = 1;
        zor_iter_free(&iter);
        return;
    }
    if (reg->enable_pending) {
        reg->enabled = 1;
        reg->enable_pending = 0;
    }
    if (reg->enabled && reg->resync)
        zor_reg_resync_deliver(reg);
    reg->resync = 0;
}

/* One pass over the level's active partition. */
static void zor_reg_process_pass(zor_reg_level *level, uint32_t iterations)
{
    zor_partition *p = &level->parts[level->active];

    /*
     * Nothing in p is queued any more: a change from here on queues again.
     * With one bucket in p, every slot handed out by p's arrays is one of
     * its entries, so the arrays are walked in place instead of following
     * the bucket's chain slot by slot (the order of clearing is free).
     */
    zor_partition_bucket *b;
    ZOR_PARTITION_BUCKETS_FOREACH (p, b) {
        zor_reg_rec_update *reg = static_cast<zor_reg_rec_update *>(b->data);
        uint64_t queued_offset = reg->ds_rec->rec_info->reg_bitfield_offset;
        uint32_t id = reg->id;
        uint8_t *entry;
        if (p->bucket_count == 1) {
            ZOR_PARTITION_ENTRIES_FOREACH (p, entry)
                zor_reg_bit_clear(entry + queued_offset, id);
        } else {
            ZOR_PARTITION_BUCKET_FOREACH (b, entry)
                zor_reg_bit_clear(entry + queued_offset, id);
        }
        reg->in_partition = 0;
    }
    level->active ^= 1;

    ZOR_PARTITION_BUCKETS_FOREACH (p, b) {
        zor_reg_process_reg(static_cast<zor_reg_rec_update *>(b->data), b, iterations);
    }
    zor_partition_reset(p);
}

void zor_reg_process(zor_reg_ds *ds)
{
    ZOR_ASSERT(!zor_reg_in_cb_processing);
    zor_reg_in_cb_processing = 1;
    zor_reg_cb_trace_count = 0;
    uint32_t iterations = 1;
    for (;;) {
        zor_reg_level *level = nullptr;
        for (zor_reg_level &candidate : ds->levels) {
            if (candidate.parts[candidate.active].buckets != nullptr) {
                level = &candidate;
                break;
            }
        }
        if (level == nullptr)
            break;
        zor_reg_process_pass(level, iterations);
        iterations++;
        /* The assertion text fixes the bound: 98 passes return, the 99th stops here. */
        ZOR_ASSERT(iterations < 100);
    }
    zor_reg_in_cb_processing = 0;
}

/* ---- removal and tracking ------------------------------------------------ */

int zor_reg_db_rec_rmv_cb(zor_reg_cb_info *cb_info, zor_iter *, void *)
{
    ZOR_ASSERT(!zor_reg_info_is_resync(cb_info));
    zor_iter *del_iter;
    uint32_t set_count;
    zor_reg_info_iter(cb_info, nullptr, &del_iter, &set_count, nullptr);
    ZOR_ASSERT(set_count == 0);
    zor_reg_entry *entry;
    ZOR_ITER_FOREACH (del_iter, entry) {
        entry->changes_prohibited = 1;
        zor_reg_rec_deleted(entry);
        if (cb_info->ds->snapshot_active || entry->snapshot_created_restore) {
            /* The snapshot finishes (discard) or undoes (restore) the deletion. */
            ZOR_ASSERT(entry->snapshot_created || entry->snapshot_updated);
            entry->snapshot_deleted = 1;
        } else {
            zor_reg_rec_unlink(entry);
            zor_reg_rec_free(entry);
        }
    }
    return 1;
}

/* Sets the tracked flag of every delivered record to its deleting test, or to its opposite. */
static int zor_reg_track_apply(zor_reg_cb_info *info, zor_iter *entries, zor_reg_field_info *flag,
                               int present)
{
    zor_reg_entry *entry;
    ZOR_ITER_FOREACH (entries, entry) {
        int deleting = zor_reg_info_is_deleting(info, entry);
        zor_reg_flag_set(zor_reg_rec(entry), flag, present ? !deleting : deleting);
    }
    return 1;
}

int zor_reg_track_deleting_cb(zor_reg_cb_info *info, zor_iter *entries, void *ctx)
{
    return zor_reg_track_apply(info, entries, static_cast<zor_reg_field_info *>(ctx), 0);
}

int zor_reg_track_present_cb(zor_reg_cb_info *info, zor_iter *entries, void *ctx)
{
    return zor_reg_track_apply(info, entries, static_cast<zor_reg_field_info *>(ctx), 1);
}

zor_reg_rec_update *zor_reg_track(zor_reg_ds *ds, zor_reg_rec_info *kind, uint32_t flags,
                                  zor_reg_field_info *flag, int invert)
{
    return zor_register_rec_update(
        ds, kind, flags, invert ? zor_reg_track_present_cb : zor_reg_track_deleting_cb, flag);
}
