/*
 * zor_datatype.h - datatypes: descriptors, the datatype database, the core
 * types and the interned string type.
 *
 * A zor_datatype_info tells how many bytes a value takes in a record, its
 * property bits, and the operations that parse, show, copy, write, compare
 * and release values. Any operation may be null; resolution through the
 * type's parent chain fills it from the nearest ancestor that has it. The
 * registry accepts only resolved types (ZOR_DATATYPE_PROP_FLATTENED).
 *
 * A datatype database is a zor_dict whose records are names (types,
 * parents and namespaces share one id space); a registered type's name
 * carries its descriptor as payload. zor_datatype_db_init registers the core
 * types "mem", "opaque", "flag", "str", "int", "uint" and "bool" under
 * "core"; zor_datatype_register adds the caller's tables and resolves them.
 *
 * "str" values are zor_string_ids in one process-wide strings dictionary,
 * created by zor_datatype_init and destroyed by zor_datatype_cleanup.
 *
 * Display texts of the core types live in a process-wide ring of sixteen
 * 1024-byte buffers (zor_datatype_buf_get): a text stays intact for the next
 * 16 display calls. Nothing here is locked; use one thread.
 */
#ifndef ZOR_DATATYPE_H
#define ZOR_DATATYPE_H

#include <stddef.h>
#include <stdint.h>

#include "zor_dict.h"
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
/* Parses `len` bytes of `text` into `buff` (size bytes): 1 accepted, 0 rejected, buff untouched. */
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
    uint32_t local_id;   /* the registering caller's number for the type */
    uint64_t size;       /* bytes of one value; 0: stores no value (flags) */
    uint32_t properties; /* ZOR_DATATYPE_PROP_* and caller bits */
    zor_datatype_str_fn str;
    zor_datatype_parse_fn parse;
    zor_datatype_copy_fn copy;
    zor_datatype_copy_fn write;
    zor_datatype_cmp_fn cmp_eq;
    zor_datatype_cmp_fn cmp;
    zor_datatype_free_fn free;
    zor_datatype_init_fn init;
    uint32_t id;        /* id of the type's name in its database */
    uint32_t parent_id; /* id of the parent's name; 0xFFFFFFFF: no parent */
    uint32_t ns_id;     /* id of the namespace name it was registered under */
    void *priv;         /* heap block owned by the descriptor, freed with it */
};

/* "<Unknown>" when `info` is null or has no str; else info->str(value, info). */
ZOR_API const char *zor_datatype_str(const void *value, const zor_datatype_info *info);

/*
 * 1 when `info` has cmp_eq and it finds a and b equal, else 0 (also for a
 * null `info`). Note the inversion: the operation answers 0 for equal.
 */
ZOR_API int zor_datatype_cmp_eq(const void *a, const void *b, const zor_datatype_info *info);

/* ---- the datatype database ---------------------------------------------- */

/* One entry of a registration table. */
typedef struct zor_datatype_reg_info {
    const char *name;       /* the type's name; required */
    const char *parent;     /* the parent type's name, or null */
    zor_datatype_info info; /* as declared; id, parent_id and ns_id are filled in */
} zor_datatype_reg_info;

/* Bytes of each display buffer of the ring. */
#define ZOR_DATATYPE_BUF_SIZE 1024
/* Number of display buffers in the ring. */
#define ZOR_DATATYPE_BUF_COUNT 16
/* Bytes shown at most by zor_datatype_hex_dump. */
#define ZOR_DATATYPE_HEX_DUMP_MAX 340

/* Fixed ids of the core names in every database. */
#define ZOR_DATATYPE_ID_CORE   0
#define ZOR_DATATYPE_ID_MEM    1
#define ZOR_DATATYPE_ID_OPAQUE 2
#define ZOR_DATATYPE_ID_FLAG   3
#define ZOR_DATATYPE_ID_STR    4
#define ZOR_DATATYPE_ID_INT    5
#define ZOR_DATATYPE_ID_UINT   6
#define ZOR_DATATYPE_ID_BOOL   7

/*
 * Makes `db` a new datatype database (a zor_dict of `size` slots, at least
 * 1, whose payloads are freed with zor_datatype_info_free) and registers the
 * core types under "core". Returns the id of "core", always 0. Tear the
 * database down with zor_dict_destroy(db), which frees every descriptor.
 */
ZOR_API uint32_t zor_datatype_db_init(zor_dict *db, uint64_t size);

/*
 * Registers `count` types of `reg_info` under the namespace `ns` and
 * resolves the whole database (zor_datatype_flatten). The table is only
 * read: the database keeps its own copy of each descriptor (and takes over
 * each `info.priv`). A name can be registered as a type once per database,
 * whatever the namespace; a parent may be registered by a later call. With
 * `local_id_is_index` each entry's info.local_id must equal its index. When
 * `out` is not null, out[i] receives the descriptor of entry i; descriptors
 * stay valid for the database's life. Returns the id of the namespace name.
 */
ZOR_API uint32_t zor_datatype_register(zor_dict *db, zor_str ns, uint64_t count,
                                       const zor_datatype_reg_info *reg_info, int local_id_is_index,
                                       zor_datatype_info **out);

/*
 * Resolves every registered type: through its parent chain (at most 127
 * types long, the type included) it inherits the first non-zero size, the
 * first non-null operation of each kind and the bits of
 * ZOR_DATATYPE_PROP_INHERITED, runs its init hook once and gets
 * ZOR_DATATYPE_PROP_FLATTENED. A type whose chain names an unregistered
 * type or does not end within 127 types (a cycle) gets
 * ZOR_DATATYPE_PROP_UNRESOLVED instead and is otherwise left alone.
 * Calling it again is harmless.
 */
ZOR_API void zor_datatype_flatten(zor_dict *db);

/* The descriptor registered under the name with `id`, or null for a name that is no type. */
ZOR_API zor_datatype_info *zor_datatype_info_id(zor_dict *db, uint32_t id);

/*
 * The next buffer (ZOR_DATATYPE_BUF_SIZE bytes, first byte NUL) of the
 * process-wide display ring; it is handed out again 16 calls later.
 */
ZOR_API char *zor_datatype_buf_get(void);

/* Frees a descriptor and its priv block (the database's free_data). */
ZOR_API void zor_datatype_info_free(void *info);

/*
 * `count` bytes as two-digit lowercase hex pairs separated by spaces, in a
 * ring buffer: at most 340 pairs, followed by " ..." when bytes were left
 * out. "(null)" for a null pointer, "" for 0 bytes.
 */
ZOR_API const char *zor_datatype_hex_dump(const void *bytes, uint64_t count);

/* ---- core type operations -----------------------------------------------------
 * All have the operation shapes above. Integer types ("int", "uint" and
 * types derived from them) work for sizes 1, 2, 4 and 8; display of other
 * sizes is a hex dump, parsing into them stops the process. Parsing reads
 * exactly `len` bytes (no NUL needed): decimal digits only, leading zeros
 * allowed, an optional leading '-' for "int" only; no '+', no spaces; values
 * outside the size's range are rejected (0, output untouched).
 */

/* An "opaque" value: a heap block of `length` bytes owned by the value. */
typedef struct zor_opaque {
    uint64_t length; /* bytes at `bytes` */
    void *bytes;     /* owned heap block; null when empty */
} zor_opaque;

/* "mem": hex dump, raw copy (null src zero-fills), memcmp over size bytes. */
ZOR_API const char *zor_datatype_str_mem(const void *value, const zor_datatype_info *info);
ZOR_API void zor_datatype_copy_mem(void *dst, const void *src, const zor_datatype_info *info);
ZOR_API int zor_datatype_cmp_mem(const void *a, const void *b, const zor_datatype_info *info);

/*
 * "opaque": write duplicates the source's bytes (dst freed first); cmp
 * orders by length, then bytes; free releases the block.
 */
ZOR_API const char *zor_datatype_str_opaque(const void *value, const zor_datatype_info *info);
ZOR_API void zor_datatype_write_opaque(void *dst, const void *src, const zor_datatype_info *info);
ZOR_API int zor_datatype_cmp_opaque(const void *a, const void *b, const zor_datatype_info *info);
ZOR_API void zor_datatype_free_opaque(void *value, const zor_datatype_info *info,
                                      const struct zor_reg_field_info *field);

/* "flag": "present". */
ZOR_API const char *zor_datatype_str_flag(const void *value, const zor_datatype_info *info);

/* "int", "uint": decimal display and parse by the descriptor's size. */
ZOR_API const char *zor_datatype_str_int(const void *value, const zor_datatype_info *info);
ZOR_API int zor_datatype_parse_int(const char *text, size_t len, const zor_datatype_info *info,
                                   void *buff);
ZOR_API const char *zor_datatype_str_uint(const void *value, const zor_datatype_info *info);
ZOR_API int zor_datatype_parse_uint(const char *text, size_t len, const zor_datatype_info *info,
                                    void *buff);

/* "bool": a 4-byte int 1 or 0, shown and parsed as exactly "true" / "false". */
ZOR_API const char *zor_datatype_str_bool(const void *value, const zor_datatype_info *info);
ZOR_API int zor_datatype_parse_bool(const char *text, size_t len, const zor_datatype_info *info,
                                    void *buff);

/* ---- the interned string type ------------------------------------------------ */

/*
 * A text's id in the strings dictionary, the stored form of a "str" value.
 * Every stored id owns one reference; 0 is "<unset>", the unset value.
 */
typedef uint32_t zor_string_id;

/* Creates the strings dictionary ("<unset>" becomes id 0). Once per process, or after cleanup. */
ZOR_API void zor_datatype_init(void);

/* Destroys the strings dictionary; every id handed out becomes invalid. */
ZOR_API void zor_datatype_cleanup(void);

/* The strings dictionary itself. */
ZOR_API zor_dict *zor_datatype_strings_dict_get(void);

/* Interns `text` and returns its id with one new reference, owned by the caller. */
ZOR_API zor_string_id zor_datatype_string_ref_get(zor_str text);

/* The text of a live id (NUL-terminated), without taking a reference. */
ZOR_API zor_str zor_datatype_string_from_id(zor_string_id id);

/*
 * "str" operations. parse interns the text (any bytes) and stores its id,
 * whose reference the output owns; str returns the record's own text
 * (valid while the id lives); write releases the destination's id and
 * stores the source's (which must be set) with a new reference, or leaves
 * the destination 0 without a source; free releases the id and sets 0;
 * cmp orders the texts (strncmp, then shorter first). cmp_eq (id equality)
 * and copy (no reference taken) come from "mem".
 */
ZOR_API int zor_datatype_parse_string(const char *text, size_t len, const zor_datatype_info *info,
                                      void *buff);
ZOR_API const char *zor_datatype_str_string(const void *value, const zor_datatype_info *info);
ZOR_API void zor_datatype_write_string(void *dst, const void *src, const zor_datatype_info *info);
ZOR_API int zor_datatype_cmp_string(const void *a, const void *b, const zor_datatype_info *info);
ZOR_API void zor_datatype_free_string(void *value, const zor_datatype_info *info,
                                      const struct zor_reg_field_info *field);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_DATATYPE_H */
