/*
 * zor_datatype.h - datatypes: the descriptor of a value type.
 *
 * A zor_datatype_info tells how many bytes a value takes in a record, its
 * property bits, and the operations that parse, show, copy, write, compare
 * and release values. Any operation may be null; resolution through the
 * type's parent chain fills it from the nearest ancestor that has it. The
 * registry accepts only resolved types (ZOR_DATATYPE_PROP_FLATTENED).
 */
#ifndef ZOR_DATATYPE_H
#define ZOR_DATATYPE_H

#include <stddef.h>
#include <stdint.h>

#include "zor_str.h"
#include "zor_utils.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zor_dict zor_dict;
typedef struct zor_datatype_info zor_datatype_info;
struct zor_reg_field_info;

/* Read-only display text for `value`. */
typedef const char *(*zor_datatype_str_fn)(const void *value, const zor_datatype_info *info);
/* Parses `len` bytes of `text` into `buff` (size bytes): 1 accepted, 0 rejected (buff untouched). */
typedef int (*zor_datatype_parse_fn)(const char *text, size_t len, const zor_datatype_info *info,
                                     void *buff);
/*
 * copy: raw copy of size bytes, no ownership handling; a null src zero-fills.
 * write: owning assignment: releases what dst holds, then stores src taking
 * its own hold on it; a null src leaves dst empty. An all-zero dst holds
 * nothing. src and dst are different storage.
 */
typedef void (*zor_datatype_copy_fn)(void *dst, const void *src, const zor_datatype_info *info);
/* cmp_eq: 0 when equal. cmp: negative, 0 or positive. */
typedef int (*zor_datatype_cmp_fn)(const void *a, const void *b, const zor_datatype_info *info);
/*
 * Releases what `value` holds and leaves it empty. `field` is the registry
 * field holding the value (null outside the registry). An all-zero value
 * holds nothing and must be accepted.
 */
typedef void (*zor_datatype_free_fn)(void *value, const zor_datatype_info *info,
                                     const struct zor_reg_field_info *field);
/* Runs once, when the type first resolves. */
typedef void (*zor_datatype_init_fn)(zor_dict *db, zor_datatype_info *info);

/* Property bits. */
#define ZOR_DATATYPE_PROP_INHERITED      0x83 /* passed on to descendants; never read */
#define ZOR_DATATYPE_PROP_UNRESOLVED     0x04 /* flatten could not resolve the type */
#define ZOR_DATATYPE_PROP_INITED         0x08 /* the init hook has run */
#define ZOR_DATATYPE_PROP_FLATTENED      0x10 /* resolved: size, operations, marks filled */
#define ZOR_DATATYPE_PROP_RESET_ON_UNSET 0x20 /* transient values: reset when unset, no backup */
#define ZOR_DATATYPE_PROP_NO_RESTORE     0x40 /* snapshot restore leaves such values alone */

/* The descriptor, in field order. */
struct zor_datatype_info {
    uint32_t local_id;    /* the registering caller's number for the type */
    uint64_t size;        /* bytes of one value; 0: stores no value (flags) */
    uint32_t properties;  /* ZOR_DATATYPE_PROP_* and caller bits */
    zor_datatype_str_fn str;
    zor_datatype_parse_fn parse;
    zor_datatype_copy_fn copy;
    zor_datatype_copy_fn write;
    zor_datatype_cmp_fn cmp_eq;
    zor_datatype_cmp_fn cmp;
    zor_datatype_free_fn free;
    zor_datatype_init_fn init;
    uint32_t id;          /* id of the type's name in its database */
    uint32_t parent_id;   /* id of the parent's name; 0xFFFFFFFF: no parent */
    uint32_t ns_id;       /* id of the namespace name it was registered under */
    void *priv;           /* heap block owned by the descriptor, freed with it */
};

/* "<Unknown>" when `info` is null or has no str; else info->str(value, info). */
const char *zor_datatype_str(const void *value, const zor_datatype_info *info);

/*
 * 1 when `info` has cmp_eq and it finds a and b equal, else 0 (also for a
 * null `info`). Note the inversion: the operation answers 0 for equal.
 */
int zor_datatype_cmp_eq(const void *a, const void *b, const zor_datatype_info *info);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_DATATYPE_H */
