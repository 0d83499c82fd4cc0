/*
 * zor_reg_internal.h - accessors shared by the registry sources (C++ only,
 * not installed).
 *
 * The per-kind and per-field state records bear the names of the accessors
 * that find them; in C++ a function hides a struct of the same name, so in
 * code that includes this header the types are written `struct
 * zor_reg_ds_rec` and `struct zor_reg_ds_field`.
 */
#ifndef ZOR_REG_INTERNAL_H
#define ZOR_REG_INTERNAL_H

#include <stdint.h>

#include "zor_reg.h"

/* ---- bit arrays: bit i is byte i / 8, bit i % 8, least significant first -- */

static inline int zor_reg_bit_get(const uint8_t *bits, uint32_t i)
{
    return (bits[i >> 3] >> (i & 7)) & 1;
}

static inline void zor_reg_bit_set(uint8_t *bits, uint32_t i)
{
    bits[i >> 3] |= (uint8_t)(1u << (i & 7));
}

static inline void zor_reg_bit_clear(uint8_t *bits, uint32_t i)
{
    bits[i >> 3] &= (uint8_t) ~(1u << (i & 7));
}

static inline void zor_reg_bit_put(uint8_t *bits, uint32_t i, int value)
{
    if (value)
        zor_reg_bit_set(bits, i);
    else
        zor_reg_bit_clear(bits, i);
}

/* Bytes of a per-field bit array for `field_count` fields. */
static inline uint32_t zor_reg_bit_bytes(uint32_t field_count)
{
    return (field_count + 7) / 8;
}

/* ---- finding state ------------------------------------------------------- */

/* The per-kind state of the kind `rec_info` (the name the assertion texts report) in `ds`. */
static inline struct zor_reg_ds_rec *zor_reg_ds_rec(const zor_reg_ds *ds,
                                                    const zor_reg_rec_info *rec_info)
{
    ZOR_ASSERT(rec_info->id < ds->rec_count);
    struct zor_reg_ds_rec *ds_rec = &ds->recs[rec_info->id];
    ZOR_ASSERT(ds_rec->rec_info == rec_info);
    return ds_rec;
}

/* The per-field state of `field` in `ds`. */
static inline struct zor_reg_ds_field *zor_reg_ds_field(const zor_reg_ds *ds,
                                                        const zor_reg_field_info *field)
{
    struct zor_reg_ds_rec *ds_rec = zor_reg_ds_rec(ds, field->rec_info);
    ZOR_ASSERT(field->id < ds_rec->field_count);
    struct zor_reg_ds_field *ds_field = &ds_rec->fields[field->id];
    ZOR_ASSERT(ds_field->field_info == field);
    return ds_field;
}

/*
 * The entry of the caller's record `rec` of kind `rec_info` (the kind and
 * the entry bear the names the assertion text reports).
 */
static inline zor_reg_entry *zor_reg_rec_entry(const void *rec, const zor_reg_rec_info *rec_info)
{
    zor_reg_entry *hdr = (zor_reg_entry *)((char *)rec - rec_info->rec_offset);
    ZOR_ASSERT(hdr->ds_rec->rec_info == rec_info);
    return hdr;
}

/* ---- the bit arrays of a record block ------------------------------------ */

static inline uint8_t *zor_reg_entry_set_bits(const zor_reg_entry *entry,
                                              const zor_reg_rec_info *kind)
{
    return (uint8_t *)entry + kind->bitfield_offset;
}

static inline uint8_t *zor_reg_entry_snapshot_bits(const zor_reg_entry *entry,
                                                   const zor_reg_rec_info *kind)
{
    return (uint8_t *)entry + kind->snapshot_bitfield_offset;
}

static inline uint8_t *zor_reg_entry_queued_bits(const zor_reg_entry *entry,
                                                 const zor_reg_rec_info *kind)
{
    return (uint8_t *)entry + kind->reg_bitfield_offset;
}

/* The caller's record of an entry of kind `kind`. */
static inline char *zor_reg_entry_rec(const zor_reg_entry *entry, const zor_reg_rec_info *kind)
{
    return (char *)entry + kind->rec_offset;
}

/* 1 when the entry's kind has a delete-pending flag and it is set on the entry. */
static inline int zor_reg_entry_delete_pending(const zor_reg_entry *entry)
{
    const zor_reg_rec_info *kind = entry->ds_rec->rec_info;
    return kind->delete_pending != -1 &&
           zor_reg_bit_get(zor_reg_entry_set_bits(entry, kind), (uint32_t)kind->delete_pending);
}

/*
 * 1 when the set bits of `entry` share a bit with the registration's
 * watched fields, scanning only its byte range. A byte the registration
 * watches nothing in is not read from the record (a kind without fields
 * has no set bits at all).
 */
static inline int zor_reg_entry_matches(const zor_reg_entry *entry, const zor_reg_rec_update *reg)
{
    const uint8_t *set_bits = zor_reg_entry_set_bits(entry, reg->ds_rec->rec_info);
    for (uint32_t i = reg->first_byte; i <= reg->last_byte; i++)
        if (reg->field_bits[i] != 0 && (set_bits[i] & reg->field_bits[i]) != 0)
            return 1;
    return 0;
}

/*
 * Releases what the values of a record of `kind` at `values` hold: the
 * caller's record, or a backup block with the same layout.
 */
static inline void zor_reg_values_release(const zor_reg_rec_info *kind, char *values)
{
    for (uint32_t i = 0; i < kind->clear_on_destroy_count; i++) {
        zor_reg_field_info *field = kind->clear_on_destroy[i];
        field->type->free(values + field->offset, field->type, field);
    }
}

/*
 * Queues `entry` for every update registration watching `field` (defined
 * in zor_reg.cpp; also used by snapshot restore).
 */
__attribute__((visibility("hidden"))) void zor_reg_entry_changed(zor_reg_field_info *field,
                                                                 zor_reg_entry *entry);

#endif /* ZOR_REG_INTERNAL_H */
