/*
 * Value types and a small schema for registry tests, described by hand as
 * resolved datatype descriptors (no datatype database needed):
 *  - reg_test_int: a 4-byte int with write, cmp_eq, free and str;
 *  - reg_test_plain: a 4-byte int with write and cmp_eq only (no free);
 *  - reg_test_transient: like reg_test_int, with RESET_ON_UNSET;
 *  - reg_test_flag: a size-0 flag type with no operations.
 * Every write and free is counted, so tests can see what the registry did.
 */
#ifndef REG_TEST_TYPES_H
#define REG_TEST_TYPES_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "zor_reg.h"

struct reg_test_counts {
    int writes;      /* write operations */
    int null_writes; /* write operations with a null source */
    int frees;       /* free operations */
};
inline reg_test_counts reg_test_ops;

inline void reg_test_int_write(void *dst, const void *src, const zor_datatype_info *)
{
    reg_test_ops.writes++;
    if (src == nullptr) {
        reg_test_ops.null_writes++;
        memset(dst, 0, sizeof(int));
    } else {
        memcpy(dst, src, sizeof(int));
    }
}

inline int reg_test_int_cmp_eq(const void *a, const void *b, const zor_datatype_info *)
{
    return memcmp(a, b, sizeof(int)) != 0;
}

inline void reg_test_int_free(void *value, const zor_datatype_info *, const zor_reg_field_info *)
{
    reg_test_ops.frees++;
    memset(value, 0, sizeof(int));
}

inline const char *reg_test_int_str(const void *value, const zor_datatype_info *)
{
    static char buf[16];
    snprintf(buf, sizeof(buf), "%d", *static_cast<const int *>(value));
    return buf;
}

inline zor_datatype_info reg_test_make_type(uint64_t size, uint32_t extra_properties, bool ops,
                                            bool with_free)
{
    zor_datatype_info info = {};
    info.size = size;
    info.properties = ZOR_DATATYPE_PROP_FLATTENED | extra_properties;
    info.parent_id = 0xFFFFFFFF;
    if (ops) {
        info.str = reg_test_int_str;
        info.write = reg_test_int_write;
        info.cmp_eq = reg_test_int_cmp_eq;
        if (with_free)
            info.free = reg_test_int_free;
    }
    return info;
}

inline const zor_datatype_info reg_test_int = reg_test_make_type(4, 0, true, true);
inline const zor_datatype_info reg_test_plain = reg_test_make_type(4, 0, true, false);
inline const zor_datatype_info reg_test_transient =
    reg_test_make_type(4, ZOR_DATATYPE_PROP_RESET_ON_UNSET, true, true);
inline const zor_datatype_info reg_test_flag = reg_test_make_type(0, 0, false, false);

/* The caller's record used by the tests: `name` identifies it in traces. */
struct reg_test_rec {
    int name;
    int a;
    int b;
    int c;
    char flags[4]; /* places of the flags (size-0 values) */
};

/* Offset of the caller's record in its block. */
constexpr uint64_t reg_test_rec_offset = sizeof(zor_reg_entry);

/* Allocates a zero-filled block for `kind`, names it and reports it created. */
inline reg_test_rec *reg_test_new(zor_reg_ds *ds, zor_reg_rec_info *kind, int name)
{
    zor_reg_entry *entry = static_cast<zor_reg_entry *>(calloc(1, zor_reg_rec_size(ds, kind)));
    reg_test_rec *rec =
        reinterpret_cast<reg_test_rec *>(reinterpret_cast<char *>(entry) + kind->rec_offset);
    rec->name = name;
    zor_reg_rec_created(ds, kind, entry);
    return rec;
}

/* The entry of a test record. */
inline zor_reg_entry *reg_test_entry(reg_test_rec *rec)
{
    return reinterpret_cast<zor_reg_entry *>(reinterpret_cast<char *>(rec) - reg_test_rec_offset);
}

/* The caller's name of an entry. */
inline int reg_test_name(const zor_reg_entry *entry)
{
    return static_cast<const reg_test_rec *>(zor_reg_rec(entry))->name;
}

/*
 * A schema of one kind with the fields the tests share: a (reg_test_int),
 * b (reg_test_plain), c (reg_test_transient) and the flags f1, f2 and del
 * (del is the delete-pending flag when `with_deletion`), then a data store.
 * Record blocks made with make() are freed by the destructor.
 */
struct reg_test_schema {
    zor_reg_db db;
    zor_reg_rec_info *kind;
    zor_reg_field_info *a, *b, *c, *f1, *f2, *del;
    zor_reg_ds *ds = nullptr;
    std::vector<zor_reg_entry *> blocks;

    explicit reg_test_schema(bool with_deletion = false)
    {
        zor_reg_db_init(&db);
        kind = zor_reg_db_rec_add(&db);
        a = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, a), &reg_test_int);
        b = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, b), &reg_test_plain);
        c = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, c), &reg_test_transient);
        f1 = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, flags) + 0, &reg_test_flag);
        f2 = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, flags) + 1, &reg_test_flag);
        del = zor_reg_db_rec_add_field(kind, offsetof(reg_test_rec, flags) + 2, &reg_test_flag);
        if (with_deletion)
            zor_reg_db_rec_set_deletion_info(kind, del, nullptr, nullptr);
        zor_reg_db_rec_set_offsets(kind, reg_test_rec_offset, sizeof(reg_test_rec));
    }
    /* Creates the data store (after defaults are set). */
    void open()
    {
        ds = zor_reg_ds_init(&db, this);
    }
    reg_test_rec *make(int name)
    {
        reg_test_rec *rec = reg_test_new(ds, kind, name);
        blocks.push_back(reg_test_entry(rec));
        return rec;
    }
    ~reg_test_schema()
    {
        if (ds != nullptr)
            zor_reg_ds_destroy(ds);
        zor_reg_db_destroy(&db);
        for (zor_reg_entry *e : blocks)
            free(e);
    }
};

#endif /* REG_TEST_TYPES_H */
