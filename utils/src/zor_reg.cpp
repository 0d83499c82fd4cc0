/*
 * The registry's registrations, field and flag values, and the accessors
 * of the callback information record.
 *
 * The road of one change: the setter decides from the set bit and the
 * type's cmp_eq whether anything changes (an unchanged set costs a bit
 * test and one compare), calls the field's notifiers while the record
 * still holds the old value, marks the record for an active snapshot and
 * backs up the old value once, stores the new value through the type's
 * write, queues the entry for the registrations in the field's bucket
 * (the queued bits keep it to once per registration until processing),
 * and finally updates the set bits.
 */
#include "zor_reg_internal.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "zor_layout.h"

ZOR_LAYOUT(zor_reg_notifier, 32, link, cb, ctx);
ZOR_LAYOUT(zor_reg_rec_update, 184, link, ds_rec, id, level, cb, ctx, follow_ctrl, field_bits,
           first_byte, last_byte, enable_pending, resync, failed, enabled, in_partition, buckets);
ZOR_LAYOUT(zor_reg_cb_info, 316, ds, reg, resync, count, iter, is_partitioned, partition,
           set_bucket, del_bucket, set_iter, del_iter, set_count, del_count, set_state, del_state);

/* ---- registrations ------------------------------------------------------- */

/* A new notifier appended to `list`. */
static zor_reg_notifier *zor_reg_notifier_add(zor_list *list, zor_reg_notifier_cb cb, void *ctx)
{
    zor_reg_notifier *notifier =
        static_cast<zor_reg_notifier *>(util_calloc(sizeof(zor_reg_notifier)));
    notifier->cb = cb;
    notifier->ctx = ctx;
    zor_list_append(list, notifier);
    return notifier;
}

zor_reg_notifier *zor_register_rec_create(zor_reg_ds *ds, zor_reg_rec_info *kind, zor_reg_rec_fn cb,
                                          void *ctx, int notify_existing)
{
    struct zor_reg_ds_rec *ds_rec = zor_reg_ds_rec(ds, kind);
    zor_reg_notifier_cb fn;
    fn.rec = cb;
    zor_reg_notifier *notifier = zor_reg_notifier_add(&ds_rec->create_regs, fn, ctx);
    if (!notify_existing)
        return notifier;

    /* A walk of its own: this may be called from inside a walk of the kind's entry_iter. */
    zor_iter iter;
    zor_list_iter_state state;
    zor_reg_entry *entry;
    zor_iter_create(&iter, zor_list_iterator(&iter, &state, &ds_rec->entries));
    ZOR_ITER_FOREACH (&iter, entry) {
        void *rec = zor_reg_rec(entry);
        if (rec == nullptr)
            break;
        cb(rec, ctx);
    }
    zor_iter_free(&iter);
    return notifier;
}

zor_reg_notifier *zor_register_rec_delete(zor_reg_ds *ds, zor_reg_rec_info *kind, zor_reg_rec_fn cb,
                                          void *ctx)
{
    struct zor_reg_ds_rec *ds_rec = zor_reg_ds_rec(ds, kind);
    zor_reg_notifier_cb fn;
    fn.rec = cb;
    return zor_reg_notifier_add(&ds_rec->delete_regs, fn, ctx);
}

zor_reg_notifier *zor_register_field_update(zor_reg_ds *ds, zor_reg_field_info *field,
                                            zor_reg_field_fn cb, void *ctx)
{
    struct zor_reg_ds_field *ds_field = zor_reg_ds_field(ds, field);
    zor_reg_notifier_cb fn;
    fn.field = cb;
    return zor_reg_notifier_add(&ds_field->update_regs, fn, ctx);
}

zor_reg_rec_update *zor_register_rec_update(zor_reg_ds *ds, zor_reg_rec_info *kind, uint32_t flags,
                                            zor_reg_update_fn cb, void *ctx)
{
    struct zor_reg_ds_rec *ds_rec = zor_reg_ds_rec(ds, kind);
    zor_reg_rec_update *reg =
        static_cast<zor_reg_rec_update *>(util_calloc(sizeof(zor_reg_rec_update)));
    reg->ds_rec = ds_rec;
    reg->id = ds_rec->update_regs.count;
    reg->level = (flags & ZOR_REG_LEVEL_2) ? 2 : (flags & ZOR_REG_LEVEL_1) ? 1 : 0;
    reg->cb = cb;
    reg->ctx = ctx;
    /* At least one byte, so that a kind without fields can still be scanned. */
    uint32_t bytes = zor_reg_bit_bytes(ds_rec->field_count);
    reg->field_bits = static_cast<uint8_t *>(util_calloc(bytes != 0 ? bytes : 1));
    reg->first_byte = ds_rec->field_count / 8;
    reg->last_byte = 0;
    reg->enabled = 0;
    reg->follow_ctrl = (flags & ZOR_REG_NO_CTRL_FLAGS) ? 0 : 1;
    zor_list_append(&ds_rec->update_regs, reg);
    return reg;
}

zor_reg_rec_update *zor_register_rec_update_v(zor_reg_ds *ds, zor_reg_rec_info *kind,
                                              uint32_t flags, zor_reg_update_fn cb, void *ctx,
                                              size_t field_count, ...)
{
    zor_reg_rec_update *reg = zor_register_rec_update(ds, kind, flags, cb, ctx);
    ZOR_ASSERT(field_count != 0);
    va_list fields;
    va_start(fields, field_count);
    for (size_t i = 0; i < field_count; i++)
        zor_reg_rec_update_field_add(reg, va_arg(fields, zor_reg_field_info *));
    va_end(fields);
    return reg;
}

void zor_reg_rec_update_field_add(zor_reg_rec_update *reg, zor_reg_field_info *field)
{
    /*
     * Follows the control-flag chain also through fields already watched.
     * A chain cannot be longer than the kind's field count unless it loops;
     * a loop is followed once round.
     */
    uint32_t steps = 0;
    while (field != nullptr) {
        ZOR_ASSERT(field->rec_info == reg->ds_rec->rec_info);
        struct zor_reg_ds_field *ds_field = zor_reg_ds_field(reg->ds_rec->ds, field);
        uint32_t i = field->id;
        int was_watched = zor_reg_bit_get(reg->field_bits, i);
        zor_reg_bit_set(reg->field_bits, i);
        if (i / 8 < reg->first_byte)
            reg->first_byte = i / 8;
        if (i / 8 > reg->last_byte)
            reg->last_byte = i / 8;
        if (!ds_field->in_partition) {
            zor_partition_bucket_add(&reg->ds_rec->field_partition, &ds_field->bucket, ds_field);
            ds_field->in_partition = 1;
        }
        if (!was_watched)
            zor_partition_entry_add(&ds_field->bucket, reg);
        if (!reg->follow_ctrl || ++steps >= reg->ds_rec->field_count)
            break;
        field = field->ctrl_flag;
    }
}

/* Puts the registration's bucket into its level's active partition, once. */
static void zor_reg_queue(zor_reg_rec_update *reg)
{
    zor_reg_level *level = &reg->ds_rec->ds->levels[reg->level];
    uint8_t a = level->active;
    if (!reg->in_partition) {
        zor_partition_bucket_add(&level->parts[a], &reg->buckets[a], reg);
        reg->in_partition = 1;
    }
}

void zor_reg_enable(zor_reg_rec_update *reg, int resync)
{
    if (!reg->enabled) {
        reg->enable_pending = 1;
        zor_reg_queue(reg);
    }
    if (resync)
        zor_reg_resync(reg);
}

void zor_reg_resync(zor_reg_rec_update *reg)
{
    reg->resync = 1;
    zor_reg_queue(reg);
}

void zor_reg_disable(zor_reg_rec_update *reg)
{
    reg->enable_pending = 0;
    reg->resync = 0;
    reg->failed = 0;
    reg->enabled = 0;
}

/* ---- values -------------------------------------------------------------- */

/*
 * Appends `entry` to the buckets of the registrations in `watchers` (a
 * field's bucket of watching registrations) that do not have it queued
 * yet. The first entry of a registration in a pass chains its bucket into
 * the level's active partition first (out of line: once per pass). Bit and
 * bucket change together: the invariant stated at zor_reg_rec_update.
 */
static inline void zor_reg_entry_queue(zor_partition_bucket *watchers, zor_reg_entry *entry,
                                       uint8_t *queued, zor_reg_level *levels)
{
    zor_reg_rec_update *reg;
    ZOR_PARTITION_BUCKET_FOREACH (watchers, reg) {
        uint32_t id = reg->id;
        if (zor_reg_bit_get(queued, id))
            continue;
        zor_reg_bit_set(queued, id);
        if (__builtin_expect(!reg->in_partition, 0))
            zor_reg_queue(reg);
        zor_partition_entry_add(&reg->buckets[levels[reg->level].active], entry);
    }
}

void zor_reg_entry_changed(zor_reg_field_info *field, zor_reg_entry *entry)
{
    /* `hdr`: the name the assertion text below reports. */
    zor_reg_entry *hdr = entry;
    ZOR_ASSERT(!hdr->changes_prohibited);
    if (zor_reg_entry_delete_pending(entry))
        return;
    struct zor_reg_ds_rec *ds_rec = entry->ds_rec;
    struct zor_reg_ds_field *ds_field = &ds_rec->fields[field->id];
    if (ds_field->in_partition)
        zor_reg_entry_queue(&ds_field->bucket, entry,
                            zor_reg_entry_queued_bits(entry, ds_rec->rec_info), ds_rec->ds->levels);
}

/* Calls the field's notifiers in order; the record is not yet changed. */
static inline void zor_reg_field_notifiers_call(struct zor_reg_ds_field *ds_field, void *rec,
                                                const zor_reg_field_info *field, int is_set,
                                                const void *value)
{
    zor_reg_notifier *next;
    for (zor_reg_notifier *n = static_cast<zor_reg_notifier *>(ds_field->update_regs.first);
         n != nullptr; n = next) {
        next = static_cast<zor_reg_notifier *>(n->link.next);
        n->cb.field(rec, field, is_set, value, n->ctx);
    }
}

/* The first change of a record that existed at the snapshot puts it in the updated bucket. */
static inline void zor_reg_snapshot_mark(zor_reg_ds *ds, zor_reg_entry *entry)
{
    if (ds->snapshot_active && !entry->snapshot_created && !entry->snapshot_updated) {
        entry->snapshot_updated = 1;
        zor_partition_entry_add(&ds->snapshot_updated_bucket, entry);
    }
}

/*
 * Stores a set or unset value through the type's write. With a snapshot
 * active, the value the field had at the snapshot is backed up before its
 * first overwrite.
 */
static inline void zor_reg_field_value_update(zor_reg_entry *entry, zor_reg_field_info *field,
                                              const void *value, int is_set,
                                              uint32_t snapshot_active)
{
    const zor_datatype_info *type = field->type;
    if (type->write == nullptr)
        return;
    zor_reg_rec_info *kind = field->rec_info;
    char *stored = zor_reg_entry_rec(entry, kind) + field->offset;
    if (!is_set) {
        if (type->properties & ZOR_DATATYPE_PROP_RESET_ON_UNSET)
            type->write(stored, nullptr, type);
        return;
    }
    if (snapshot_active && !(type->properties & ZOR_DATATYPE_PROP_RESET_ON_UNSET) &&
        !entry->snapshot_created &&
        zor_reg_bit_get(zor_reg_entry_snapshot_bits(entry, kind), field->id)) {
        if (entry->backup == nullptr)
            entry->backup = util_calloc(kind->backup_size);
        uint8_t *backup_bitfield =
            static_cast<uint8_t *>(entry->backup) + kind->backup_bitfield_offset;
        ZOR_ASSERT(backup_bitfield != ZOR_NULL);
        if (!zor_reg_bit_get(backup_bitfield, field->id)) {
            type->write(static_cast<char *>(entry->backup) + field->offset, stored, type);
            zor_reg_bit_set(backup_bitfield, field->id);
        }
    }
    type->write(stored, value, type);
}

/* Sets or clears a set bit, and its snapshot bit while no snapshot is active. */
static inline void zor_reg_set_bit_put(zor_reg_entry *entry, const zor_reg_rec_info *kind,
                                       uint32_t id, int value)
{
    zor_reg_bit_put(zor_reg_entry_set_bits(entry, kind), id, value);
    if (!entry->ds_rec->ds->snapshot_active)
        zor_reg_bit_put(zor_reg_entry_snapshot_bits(entry, kind), id, value);
}

/*
 * The steps of a field change after its notifiers, in full: snapshot mark
 * and backup, store, queueing, set bits. The hot path comes here only with
 * a snapshot active.
 */
static __attribute__((noinline)) void zor_reg_field_change_store(zor_reg_entry *entry,
                                                                 zor_reg_field_info *field,
                                                                 const void *value, int was_set)
{
    int is_set = value != nullptr;
    zor_reg_ds *ds = entry->ds_rec->ds;
    zor_reg_snapshot_mark(ds, entry);
    zor_reg_field_value_update(entry, field, value, is_set, ds->snapshot_active);
    zor_reg_entry_changed(field, entry);
    if (was_set != is_set)
        zor_reg_set_bit_put(entry, field->rec_info, field->id, is_set);
}

/* A change of the set state (a first set or an unset): rare, every step in full. */
static __attribute__((noinline)) void zor_reg_field_change_state(void *rec,
                                                                 zor_reg_field_info *field,
                                                                 const void *value,
                                                                 zor_reg_entry *entry, int was_set)
{
    zor_reg_field_notifiers_call(&entry->ds_rec->fields[field->id], rec, field, value != nullptr,
                                 value);
    zor_reg_field_change_store(entry, field, value, was_set);
}

/*
 * "mem" values of one machine word or less (the library's int, uint, bool
 * and mem types of those sizes) are compared and stored directly: the
 * same as the type's cmp_eq and write, without the indirect calls.
 */
template <class T> static inline int zor_reg_word_differs(const void *a, const void *b)
{
    T x, y;
    memcpy(&x, a, sizeof(T));
    memcpy(&y, b, sizeof(T));
    return x != y;
}

/*
 * For a "mem" value of a word or less: 1 when it equals `value`, 0 when it
 * differs; -1 for any other type (its cmp_eq decides).
 */
static inline int zor_reg_word_equal(const zor_datatype_info *type, const void *stored,
                                     const void *value)
{
    if (type->cmp_eq != zor_datatype_cmp_mem)
        return -1;
    switch (type->size) {
    case 4:
        return !zor_reg_word_differs<uint32_t>(stored, value);
    case 8:
        return !zor_reg_word_differs<uint64_t>(stored, value);
    case 1:
        return !zor_reg_word_differs<uint8_t>(stored, value);
    case 2:
        return !zor_reg_word_differs<uint16_t>(stored, value);
    default:
        return -1;
    }
}

/* The type's write of a set value, directly for "mem" values of a word or less. */
static inline void zor_reg_value_write(const zor_datatype_info *type, void *stored,
                                       const void *value)
{
    zor_datatype_copy_fn write = type->write;
    if (write == zor_datatype_copy_mem) {
        switch (type->size) {
        case 4:
            memcpy(stored, value, 4);
            return;
        case 8:
            memcpy(stored, value, 8);
            return;
        case 1:
            memcpy(stored, value, 1);
            return;
        case 2:
            memcpy(stored, value, 2);
            return;
        default:
            break;
        }
    }
    if (write != nullptr)
        write(stored, value, type);
}

/*
 * A set field gets a different value: notifiers, store, queueing. The set
 * bits do not change. What the notifiers cannot change (the kind's state,
 * the field's place and type) is found once, before them.
 */
static inline __attribute__((always_inline)) void
zor_reg_field_change_steps(void *rec, zor_reg_field_info *field, const void *value,
                           zor_reg_entry *entry)
{
    struct zor_reg_ds_rec *ds_rec = entry->ds_rec;
    struct zor_reg_ds_field *ds_field = &ds_rec->fields[field->id];
    zor_reg_field_notifiers_call(ds_field, rec, field, 1, value);
    zor_reg_ds *ds = ds_rec->ds;
    if (__builtin_expect(ds->snapshot_active != 0, 0)) {
        zor_reg_field_change_store(entry, field, value, 1);
        return;
    }
    zor_reg_value_write(field->type, static_cast<char *>(rec) + field->offset, value);
    if (__builtin_expect(entry->changes_prohibited != 0, 0)) {
        zor_reg_entry_changed(field, entry); /* stops at its assertion */
        return;
    }
    zor_reg_rec_info *kind = ds_rec->rec_info;
    if (zor_reg_entry_delete_pending(entry))
        return;
    if (ds_field->in_partition)
        zor_reg_entry_queue(&ds_field->bucket, entry, zor_reg_entry_queued_bits(entry, kind),
                            ds->levels);
}

/* zor_reg_field_change_steps for a value compared directly. */
static __attribute__((noinline)) void zor_reg_field_change(void *rec, zor_reg_field_info *field,
                                                           const void *value, zor_reg_entry *entry)
{
    zor_reg_field_change_steps(rec, field, value, entry);
}

/*
 * A set field of a type compared through its cmp_eq (without cmp_eq it
 * never changes); a change goes on in the same frame.
 */
static __attribute__((noinline)) void zor_reg_field_set_compare(void *rec,
                                                                zor_reg_field_info *field,
                                                                const void *value,
                                                                zor_reg_entry *entry)
{
    const zor_datatype_info *type = field->type;
    if (type->cmp_eq == nullptr ||
        type->cmp_eq(static_cast<char *>(rec) + field->offset, value, type) == 0)
        return;
    zor_reg_field_change_steps(rec, field, value, entry);
}

/*
 * The hot path. An unchanged set is the entry check, a bit test and one
 * compare, with no frame; the rest is in functions it ends in: a change in
 * zor_reg_field_change, a compare through the type in
 * zor_reg_field_set_compare, a change of the set state in
 * zor_reg_field_change_state.
 */
void zor_reg_field_set(void *rec, zor_reg_field_info *field, const void *value)
{
    zor_reg_entry *entry = zor_reg_rec_entry(rec, field->rec_info);
    const uint8_t *set_bits = zor_reg_entry_set_bits(entry, field->rec_info);
    if (__builtin_expect(value != nullptr, 1) &&
        __builtin_expect((set_bits[field->id >> 3] & (1u << (field->id & 7))) != 0, 1)) {
        int equal =
            zor_reg_word_equal(field->type, static_cast<char *>(rec) + field->offset, value);
        if (__builtin_expect(equal > 0, 1))
            return;
        if (equal < 0)
            zor_reg_field_set_compare(rec, field, value, entry);
        else
            zor_reg_field_change(rec, field, value, entry);
        return;
    }
    int was_set = zor_reg_bit_get(set_bits, field->id);
    if (was_set != (value != nullptr))
        zor_reg_field_change_state(rec, field, value, entry, was_set);
}

/*
 * A change of a set state that brings no new value (a flag set or cleared,
 * or a set state put back by snapshot restore): notifiers (given the
 * value's place, or NULL when unset), snapshot mark, reset of a value
 * that is reset on unset, queueing, set bits.
 */
static void zor_reg_set_state_change(void *rec, zor_reg_entry *entry, zor_reg_field_info *field,
                                     int value)
{
    char *place = static_cast<char *>(rec) + field->offset;
    zor_reg_field_notifiers_call(&entry->ds_rec->fields[field->id], rec, field, value,
                                 value ? place : nullptr);
    zor_reg_snapshot_mark(entry->ds_rec->ds, entry);
    const zor_datatype_info *type = field->type;
    if (type->write != nullptr && (type->properties & ZOR_DATATYPE_PROP_RESET_ON_UNSET))
        type->write(place, nullptr, type);
    zor_reg_entry_changed(field, entry);
    zor_reg_set_bit_put(entry, field->rec_info, field->id, value);
}

void zor_reg_flag_set(void *rec, zor_reg_field_info *field, int value)
{
    /* The flag is `field` here: the assertion text names it so. */
    ZOR_ASSERT(field->type->size == 0);
    zor_reg_entry *entry = zor_reg_rec_entry(rec, field->rec_info);
    value = value != 0;
    if (zor_reg_bit_get(zor_reg_entry_set_bits(entry, field->rec_info), field->id) == value)
        return;
    zor_reg_set_state_change(rec, entry, field, value);
}

void zor_reg_flag_trigger(void *rec, zor_reg_field_info *flag)
{
    zor_reg_entry_changed(flag, zor_reg_rec_entry(rec, flag->rec_info));
}

/* The default of an unset field, given the record's set bits, or NULL. */
static inline const void *zor_reg_field_default(const zor_reg_field_info *field,
                                                const uint8_t *set_bits)
{
    if (field->default_value == nullptr)
        return nullptr;
    if (field->ctrl_flag != nullptr && !zor_reg_bit_get(set_bits, field->ctrl_flag->id))
        return nullptr;
    return field->default_value;
}

/* A flag read from set or snapshot bits: set there, or on through its default. */
static inline int zor_reg_flag_in(const zor_reg_field_info *flag, const uint8_t *bits)
{
    return zor_reg_bit_get(bits, flag->id) || zor_reg_field_default(flag, bits) != nullptr;
}

const void *zor_reg_field_get(const void *rec, zor_reg_field_info *field)
{
    zor_reg_entry *entry = zor_reg_rec_entry(rec, field->rec_info);
    if (entry->snapshot_deleted)
        return nullptr;
    const uint8_t *set_bits = zor_reg_entry_set_bits(entry, field->rec_info);
    if (zor_reg_bit_get(set_bits, field->id))
        return static_cast<const char *>(rec) + field->offset;
    return zor_reg_field_default(field, set_bits);
}

const void *zor_reg_field_get_explicit(const void *rec, zor_reg_field_info *field)
{
    zor_reg_entry *entry = zor_reg_rec_entry(rec, field->rec_info);
    if (entry->snapshot_deleted)
        return nullptr;
    if (zor_reg_bit_get(zor_reg_entry_set_bits(entry, field->rec_info), field->id))
        return static_cast<const char *>(rec) + field->offset;
    return nullptr;
}

int zor_reg_flag_get(const void *rec, zor_reg_field_info *flag)
{
    zor_reg_entry *entry = zor_reg_rec_entry(rec, flag->rec_info);
    if (entry->snapshot_deleted)
        return 0;
    return zor_reg_flag_in(flag, zor_reg_entry_set_bits(entry, flag->rec_info));
}

int zor_reg_flag_get_explicit(const void *rec, zor_reg_field_info *flag)
{
    zor_reg_entry *entry = zor_reg_rec_entry(rec, flag->rec_info);
    if (entry->snapshot_deleted)
        return 0;
    return zor_reg_bit_get(zor_reg_entry_set_bits(entry, flag->rec_info), flag->id);
}

void zor_reg_rec_delete_pending(void *rec, const zor_reg_field_info *field, int flag, const void *,
                                void *)
{
    ZOR_ASSERT(flag);
    zor_reg_entry *entry = zor_reg_rec_entry(rec, field->rec_info);
    ZOR_ASSERT(!zor_reg_entry_delete_pending(entry));
    zor_partition_bucket *b;
    ZOR_PARTITION_BUCKETS_FOREACH (&entry->ds_rec->field_partition, b) {
        zor_reg_field_info *watched = static_cast<struct zor_reg_ds_field *>(b->data)->field_info;
        if (zor_reg_flag_get(rec, watched))
            zor_reg_entry_changed(watched, entry);
    }
}

/* ---- callback information ------------------------------------------------ */

uint32_t zor_reg_info_is_resync(const zor_reg_cb_info *info)
{
    return info->resync;
}

uint32_t zor_reg_info_count(const zor_reg_cb_info *info)
{
    return info->count;
}

void *zor_reg_info_ds_ctx(const zor_reg_cb_info *info)
{
    return info->ds->ctx;
}

int zor_reg_info_is_deleting(const zor_reg_cb_info *info, const zor_reg_entry *entry)
{
    if (zor_reg_entry_delete_pending(entry))
        return 1;
    const zor_reg_rec_update *reg = info->reg;
    if (reg->last_byte < reg->first_byte)
        return 1;
    return !zor_reg_entry_matches(entry, reg);
}

int zor_reg_info_is_record_deleting(const zor_reg_entry *entry)
{
    return zor_reg_entry_delete_pending(entry);
}

void zor_reg_info_iter(zor_reg_cb_info *info, zor_iter **set_iter, zor_iter **del_iter,
                       uint32_t *set_count, uint32_t *del_count)
{
    ZOR_ASSERT(!info->is_partitioned);
    info->is_partitioned = 1;
    zor_partition_create(&info->partition, info->count);
    zor_partition_bucket_add(&info->partition, &info->set_bucket, nullptr);
    zor_partition_bucket_add(&info->partition, &info->del_bucket, nullptr);

    zor_reg_entry *entry;
    ZOR_ITER_FOREACH (info->iter, entry) {
        if (zor_reg_info_is_deleting(info, entry))
            zor_partition_entry_add(&info->del_bucket, entry);
        else
            zor_partition_entry_add(&info->set_bucket, entry);
    }
    info->set_count = info->set_bucket.count;
    info->del_count = info->del_bucket.count;
    ZOR_ASSERT(!info->resync || info->del_count == 0);

    zor_iter_create(&info->set_iter, zor_partition_bucket_entries_iterator(
                                         &info->set_iter, &info->set_state, &info->set_bucket));
    zor_iter_create(&info->del_iter, zor_partition_bucket_entries_iterator(
                                         &info->del_iter, &info->del_state, &info->del_bucket));
    if (set_iter != nullptr)
        *set_iter = &info->set_iter;
    if (del_iter != nullptr)
        *del_iter = &info->del_iter;
    if (set_count != nullptr)
        *set_count = info->set_count;
    if (del_count != nullptr)
        *del_count = info->del_count;
}

/* ---- snapshots ----------------------------------------------------------- */

/*
 * While a snapshot is active the data store's snapshot partition holds two
 * buckets: records created since the take, and records that existed then
 * and have changed since (an entry is in at most one). Each record's
 * snapshot bits keep the set state of the take, and its backup block, made
 * at the first overwrite, keeps the overwritten values of the take.
 */

void zor_reg_take_snapshot(zor_reg_ds *ds)
{
    ZOR_ASSERT(!ds->snapshot_active);
    zor_reg_process(ds);
    ds->snapshot_active = 1;
    zor_partition_create(&ds->snapshot_partition, ZOR_PARTITION_SIZE);
    zor_partition_bucket_add(&ds->snapshot_partition, &ds->snapshot_created_bucket, nullptr);
    zor_partition_bucket_add(&ds->snapshot_partition, &ds->snapshot_updated_bucket, nullptr);
}

/* Releases what the backup's values hold, then the block. */
static void zor_reg_backup_release(zor_reg_entry *entry)
{
    zor_reg_values_release(entry->ds_rec->rec_info, static_cast<char *>(entry->backup));
    free(entry->backup);
    entry->backup = nullptr;
}

void zor_reg_discard_snapshot(zor_reg_ds *ds)
{
    ZOR_ASSERT(ds->snapshot_active);
    zor_reg_process(ds);

    /* Buckets newest first: updated, then created. Every deleted record is
     * unlinked before any is freed. */
    zor_partition_bucket *b;
    zor_reg_entry *entry;
    ZOR_PARTITION_BUCKETS_FOREACH (&ds->snapshot_partition, b)
        ZOR_PARTITION_BUCKET_FOREACH (b, entry)
            if (entry->snapshot_deleted)
                zor_reg_rec_unlink(entry);
    ZOR_PARTITION_BUCKETS_FOREACH (&ds->snapshot_partition, b)
        ZOR_PARTITION_BUCKET_FOREACH (b, entry) {
            if (entry->backup != nullptr)
                zor_reg_backup_release(entry);
            if (entry->snapshot_deleted) {
                zor_reg_rec_free(entry);
                continue;
            }
            ZOR_ASSERT(!entry->changes_prohibited);
            entry->snapshot_updated = 0;
            entry->snapshot_created = 0;
            zor_reg_rec_info *kind = entry->ds_rec->rec_info;
            memcpy(zor_reg_entry_snapshot_bits(entry, kind), zor_reg_entry_set_bits(entry, kind),
                   zor_reg_bit_bytes(entry->ds_rec->field_count));
        }
    zor_partition_destroy(&ds->snapshot_partition);
    ds->snapshot_active = 0;
}

/*
 * Puts a record that existed at the take back as it was then: backed-up
 * values through the setter, then every set state that differs, as a flag
 * set would (notifiers, queueing). Its delete-pending bit is cleared
 * directly. The snapshot is no longer active, so nothing is backed up or
 * marked here.
 */
static inline void zor_reg_snapshot_record_restore(zor_reg_entry *entry)
{
    struct zor_reg_ds_rec *ds_rec = entry->ds_rec;
    zor_reg_rec_info *kind = ds_rec->rec_info;
    int32_t delete_flag_idx = kind->delete_pending;
    ZOR_ASSERT(delete_flag_idx != -1);
    uint8_t *set_bits = zor_reg_entry_set_bits(entry, kind);
    zor_reg_bit_clear(set_bits, static_cast<uint32_t>(delete_flag_idx));
    char *rec = zor_reg_entry_rec(entry, kind);

    if (entry->backup != nullptr) {
        char *backup = static_cast<char *>(entry->backup);
        const uint8_t *backup_bits =
            reinterpret_cast<uint8_t *>(backup) + kind->backup_bitfield_offset;
        for (uint32_t i = 0; i < ds_rec->field_count; i++) {
            zor_reg_field_info *field = ds_rec->fields[i].field_info;
            if (zor_reg_bit_get(backup_bits, i) &&
                !(field->type->properties & ZOR_DATATYPE_PROP_NO_RESTORE))
                zor_reg_field_set(rec, field, backup + field->offset);
        }
        zor_reg_backup_release(entry);
    }

    const uint8_t *snap_bits = zor_reg_entry_snapshot_bits(entry, kind);
    for (uint32_t i = 0; i < ds_rec->field_count; i++) {
        zor_reg_field_info *field = ds_rec->fields[i].field_info;
        int snap = zor_reg_bit_get(snap_bits, i);
        if (snap != zor_reg_bit_get(set_bits, i) &&
            !(field->type->properties & ZOR_DATATYPE_PROP_NO_RESTORE))
            zor_reg_set_state_change(rec, entry, field, snap);
    }
}

void zor_reg_restore_snapshot(zor_reg_ds *ds)
{
    ZOR_ASSERT(ds->snapshot_active);
    zor_reg_process(ds);
    ds->snapshot_active = 0;

    zor_partition_bucket *updated = &ds->snapshot_updated_bucket;
    zor_reg_entry *entry;
    ZOR_PARTITION_BUCKET_FOREACH (updated, entry)
        entry->changes_prohibited = 0;
    ZOR_PARTITION_BUCKET_FOREACH (updated, entry) {
        ZOR_ASSERT(entry->snapshot_updated);
        ZOR_ASSERT(!entry->snapshot_created);
        entry->snapshot_updated = 0;
        if (entry->snapshot_deleted) {
            zor_reg_rec_created(ds, entry->ds_rec->rec_info, entry);
            entry->snapshot_deleted = 0;
        }
        zor_reg_snapshot_record_restore(entry);
    }

    /* Records created since the take leave through their delete-pending flag. */
    zor_partition_bucket *created = &ds->snapshot_created_bucket;
    ZOR_PARTITION_BUCKET_FOREACH (created, entry) {
        ZOR_ASSERT(entry->backup == ZOR_NULL);
        ZOR_ASSERT(!entry->snapshot_updated);
        ZOR_ASSERT(entry->snapshot_created);
        entry->snapshot_created_restore = 1;
        if (!entry->snapshot_deleted) {
            ZOR_ASSERT(!entry->changes_prohibited);
            zor_reg_rec_info *kind = entry->ds_rec->rec_info;
            int32_t delete_flag_idx = kind->delete_pending;
            ZOR_ASSERT(delete_flag_idx != -1);
            zor_reg_flag_set(zor_reg_entry_rec(entry, kind),
                             entry->ds_rec->fields[delete_flag_idx].field_info, 1);
        }
    }
    zor_reg_process(ds);
    ZOR_PARTITION_BUCKET_FOREACH (created, entry) {
        ZOR_ASSERT(entry->snapshot_created_restore);
        ZOR_ASSERT(entry->snapshot_deleted);
        zor_reg_rec_unlink(entry);
        zor_reg_rec_free(entry);
    }
    zor_partition_destroy(&ds->snapshot_partition);
}

/* The value of a field at the take, or NULL when it was not set then. */
static inline const void *zor_reg_snapshot_value(const zor_reg_entry *entry, const void *rec,
                                                 const zor_reg_field_info *field)
{
    zor_reg_rec_info *kind = field->rec_info;
    if (!zor_reg_bit_get(zor_reg_entry_snapshot_bits(entry, kind), field->id))
        return nullptr;
    if (entry->backup != nullptr) {
        const char *backup = static_cast<const char *>(entry->backup);
        if (zor_reg_bit_get(reinterpret_cast<const uint8_t *>(backup) +
                                kind->backup_bitfield_offset,
                            field->id))
            return backup + field->offset;
    }
    return static_cast<const char *>(rec) + field->offset;
}

const void *zor_reg_snapshot_field_get(const void *rec, zor_reg_field_info *field)
{
    zor_reg_entry *entry = zor_reg_rec_entry(rec, field->rec_info);
    const void *value = zor_reg_snapshot_value(entry, rec, field);
    if (value != nullptr)
        return value;
    return zor_reg_field_default(field, zor_reg_entry_snapshot_bits(entry, field->rec_info));
}

const void *zor_reg_snapshot_field_get_explicit(const void *rec, zor_reg_field_info *field)
{
    return zor_reg_snapshot_value(zor_reg_rec_entry(rec, field->rec_info), rec, field);
}

int zor_reg_snapshot_flag_get(const void *rec, zor_reg_field_info *flag)
{
    zor_reg_entry *entry = zor_reg_rec_entry(rec, flag->rec_info);
    return zor_reg_flag_in(flag, zor_reg_entry_snapshot_bits(entry, flag->rec_info));
}

int zor_reg_snapshot_flag_get_explicit(const void *rec, zor_reg_field_info *flag)
{
    zor_reg_entry *entry = zor_reg_rec_entry(rec, flag->rec_info);
    return zor_reg_bit_get(zor_reg_entry_snapshot_bits(entry, flag->rec_info), flag->id);
}
