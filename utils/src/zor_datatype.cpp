/*
 * Datatypes: calling operations through a descriptor that may be missing,
 * the datatype database (registration and resolution), the display ring,
 * the core types' operations, and the strings dictionary behind "str".
 */
#include "zor_datatype.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <limits>
#include <type_traits>

#include "zor_layout.h"

/*
 * Field orders. The hash table and the dictionary live in headers only;
 * their checks are here, with the datatype database built on them. The
 * dictionary's table finds a record's node at offset 0.
 */
ZOR_LAYOUT(zor_datatype_info, 100, local_id, size, properties, str, parse, copy, write, cmp_eq, cmp,
           free, init, id, parent_id, ns_id, priv);
ZOR_LAYOUT(zor_datatype_reg_info, 128, name, parent, info);
ZOR_LAYOUT(zor_opaque, 16, length, bytes);
ZOR_LAYOUT(zor_hash_table, 112, size, min_size, count, node_offset, get_key, hash, table, iter);
ZOR_LAYOUT(zor_hash_node, 16, hash, next);
ZOR_LAYOUT(zor_dict, 44, size, next_id, free_id, has_free_ids, entries, table, free_data);
ZOR_LAYOUT(zor_dict_entry, 12, record, next_free);
ZOR_LAYOUT(zor_dict_rec, 40, node, id, refcount, data, len, text);

const char *zor_datatype_str(const void *value, const zor_datatype_info *info)
{
    if (info == nullptr || info->str == nullptr)
        return "<Unknown>";
    return info->str(value, info);
}

int zor_datatype_cmp_eq(const void *a, const void *b, const zor_datatype_info *info)
{
    if (info == nullptr || info->cmp_eq == nullptr)
        return 0;
    return info->cmp_eq(a, b, info) == 0 ? 1 : 0;
}

/* ---- display ring ------------------------------------------------------------ */

static char zor_datatype_bufs[ZOR_DATATYPE_BUF_COUNT][ZOR_DATATYPE_BUF_SIZE];
static uint32_t zor_datatype_buf_counter;

char *zor_datatype_buf_get(void)
{
    char *buf = zor_datatype_bufs[zor_datatype_buf_counter % ZOR_DATATYPE_BUF_COUNT];
    zor_datatype_buf_counter++;
    buf[0] = '\0';
    return buf;
}

const char *zor_datatype_hex_dump(const void *bytes, uint64_t count)
{
    static const char digits[] = "0123456789abcdef";
    char *buf = zor_datatype_buf_get();
    if (bytes == nullptr) {
        memcpy(buf, "(null)", sizeof("(null)"));
        return buf;
    }
    if (count == 0)
        return buf;
    /*
     * Three characters per byte; stop once no more than 4 bytes of room are
     * left (after 340 bytes), which is just enough for "..." and the NUL.
     */
    const unsigned char *in = static_cast<const unsigned char *>(bytes);
    uint64_t room = ZOR_DATATYPE_BUF_SIZE;
    uint64_t pos = 0;
    for (uint64_t i = 0; i < count; i++) {
        buf[pos] = digits[in[i] >> 4];
        buf[pos + 1] = digits[in[i] & 0xf];
        buf[pos + 2] = ' ';
        pos += 3;
        room -= 3;
        if (room <= 4) {
            if (i + 1 < count) {
                memcpy(buf + pos, "...", 4);
                return buf;
            }
            break;
        }
    }
    buf[pos - 1] = '\0'; /* the trailing space */
    return buf;
}

/* ---- the datatype database ----------------------------------------------------- */

/* Longest parent chain that resolves, the type itself included. */
#define ZOR_DATATYPE_CHAIN_MAX 127

void zor_datatype_info_free(void *info)
{
    zor_datatype_info *descriptor = static_cast<zor_datatype_info *>(info);
    free(descriptor->priv);
    descriptor->priv = nullptr;
    free(descriptor);
}

zor_datatype_info *zor_datatype_info_id(zor_dict *db, uint32_t id)
{
    return static_cast<zor_datatype_info *>(zor_dict_id_get_rec(db, id)->data);
}

/* Takes an ancestor's size or operation where the type has none (0 or null). */
template <typename T> static inline void zor_datatype_inherit(T &own, T ancestor)
{
    if (!own)
        own = ancestor;
}

/*
 * Resolves one type from its chain of ancestors' descriptors, or marks it
 * unresolved when the chain is broken or too long.
 */
static void zor_datatype_resolve(zor_dict *db, zor_datatype_info *info)
{
    zor_datatype_info *chain[ZOR_DATATYPE_CHAIN_MAX];
    uint32_t n = 0;
    chain[n++] = info;
    for (zor_datatype_info *cur = info; cur->parent_id != ZOR_DICT_INVALID_ID;) {
        zor_datatype_info *parent =
            n < ZOR_DATATYPE_CHAIN_MAX ? zor_datatype_info_id(db, cur->parent_id) : nullptr;
        if (parent == nullptr) {
            info->properties |= ZOR_DATATYPE_PROP_UNRESOLVED;
            return;
        }
        chain[n++] = parent;
        cur = parent;
    }

    uint32_t inherited = 0;
    for (uint32_t i = 0; i < n; i++)
        inherited |= chain[i]->properties;
    info->properties = (info->properties & ~(uint32_t)ZOR_DATATYPE_PROP_INHERITED) |
                       (inherited & ZOR_DATATYPE_PROP_INHERITED);
    info->properties &= ~(uint32_t)ZOR_DATATYPE_PROP_UNRESOLVED;

    /* Each the first non-empty one up the chain, the type's own first. */
    for (uint32_t i = 1; i < n; i++) {
        const zor_datatype_info *a = chain[i];
        zor_datatype_inherit(info->size, a->size);
        zor_datatype_inherit(info->str, a->str);
        zor_datatype_inherit(info->parse, a->parse);
        zor_datatype_inherit(info->copy, a->copy);
        zor_datatype_inherit(info->write, a->write);
        zor_datatype_inherit(info->cmp_eq, a->cmp_eq);
        zor_datatype_inherit(info->cmp, a->cmp);
        zor_datatype_inherit(info->free, a->free);
    }

    /*
     * The bit is set before the hook runs, so a hook that registers types
     * (and so flattens again) does not run a second time.
     */
    if (info->init != nullptr && !(info->properties & ZOR_DATATYPE_PROP_INITED)) {
        info->properties |= ZOR_DATATYPE_PROP_INITED;
        info->init(db, info);
    }
    info->properties |= ZOR_DATATYPE_PROP_FLATTENED;
}

void zor_datatype_flatten(zor_dict *db)
{
    /* next_id is read again after each type: init hooks may add names. */
    for (uint32_t id = 0; id < db->next_id; id++) {
        zor_datatype_info *info = zor_datatype_info_id(db, id);
        if (info != nullptr)
            zor_datatype_resolve(db, info);
    }
}

uint32_t zor_datatype_register(zor_dict *db, zor_str ns, uint64_t count,
                               const zor_datatype_reg_info *reg_info, int local_id_is_index,
                               zor_datatype_info **out)
{
    uint32_t ns_id = zor_dict_ref_get(db, ns);
    for (uint64_t i = 0; i < count; i++) {
        ZOR_ASSERT(!local_id_is_index || (reg_info[i].info.local_id == i));
        uint32_t id = zor_dict_ref_get(db, zor_str_init(reg_info[i].name));
        ZOR_ASSERT(zor_datatype_info_id(db, id) == ZOR_NULL);
        zor_datatype_info *info =
            static_cast<zor_datatype_info *>(util_calloc(sizeof(zor_datatype_info)));
        *info = reg_info[i].info;
        info->id = id;
        info->ns_id = ns_id;
        info->parent_id = reg_info[i].parent != nullptr
                              ? zor_dict_ref_get(db, zor_str_init(reg_info[i].parent))
                              : ZOR_DICT_INVALID_ID;
        zor_dict_id_get_rec(db, id)->data = info;
        if (out != nullptr)
            out[i] = info;
    }
    zor_datatype_flatten(db);
    return ns_id;
}

/* An inherited mark that "str" carries; the library reads none of them. */
#define ZOR_DATATYPE_STR_MARK 0x80

/* A core type with its display and parse operations; the others are null. */
static zor_datatype_reg_info zor_datatype_core_type(const char *name, const char *parent,
                                                    uint64_t size, uint32_t properties,
                                                    zor_datatype_str_fn str,
                                                    zor_datatype_parse_fn parse)
{
    zor_datatype_reg_info r;
    memset(&r, 0, sizeof(r));
    r.name = name;
    r.parent = parent;
    r.info.size = size;
    r.info.properties = properties;
    r.info.str = str;
    r.info.parse = parse;
    return r;
}

/* The core types, registered under "core" in every database. */
uint32_t zor_datatype_db_init(zor_dict *db, uint64_t size)
{
    zor_dict_init(db, size, zor_datatype_info_free);

    zor_datatype_reg_info core[] = {
        zor_datatype_core_type("mem", nullptr, 0, 0, zor_datatype_str_mem, nullptr),
        zor_datatype_core_type("opaque", "mem", sizeof(zor_opaque), 0, zor_datatype_str_opaque,
                               nullptr),
        zor_datatype_core_type("flag", nullptr, 0, 0, zor_datatype_str_flag, nullptr),
        zor_datatype_core_type("str", "mem", sizeof(zor_string_id), ZOR_DATATYPE_STR_MARK,
                               zor_datatype_str_string, zor_datatype_parse_string),
        zor_datatype_core_type("int", "mem", sizeof(int32_t), 0, zor_datatype_str_int,
                               zor_datatype_parse_int),
        zor_datatype_core_type("uint", "mem", sizeof(uint32_t), 0, zor_datatype_str_uint,
                               zor_datatype_parse_uint),
        zor_datatype_core_type("bool", "mem", sizeof(int), 0, zor_datatype_str_bool,
                               zor_datatype_parse_bool),
    };
    /* The value operations of the types that have them. */
    zor_datatype_info *mem = &core[0].info;
    mem->copy = mem->write = zor_datatype_copy_mem;
    mem->cmp_eq = mem->cmp = zor_datatype_cmp_mem;
    zor_datatype_info *opaque = &core[1].info;
    opaque->write = zor_datatype_write_opaque;
    opaque->cmp_eq = opaque->cmp = zor_datatype_cmp_opaque;
    opaque->free = zor_datatype_free_opaque;
    zor_datatype_info *str = &core[3].info;
    str->write = zor_datatype_write_string;
    str->cmp = zor_datatype_cmp_string;
    str->free = zor_datatype_free_string;

    return zor_datatype_register(db, zor_str_init("core"), sizeof(core) / sizeof(core[0]), core, 0,
                                 nullptr);
}

/* ---- "mem" ------------------------------------------------------------------------ */

const char *zor_datatype_str_mem(const void *value, const zor_datatype_info *info)
{
    return zor_datatype_hex_dump(value, info->size);
}

void zor_datatype_copy_mem(void *dst, const void *src, const zor_datatype_info *info)
{
    if (src != nullptr)
        memcpy(dst, src, info->size);
    else
        memset(dst, 0, info->size);
}

int zor_datatype_cmp_mem(const void *a, const void *b, const zor_datatype_info *info)
{
    return info->size != 0 ? memcmp(a, b, info->size) : 0;
}

/* ---- "opaque" ---------------------------------------------------------------------- */

const char *zor_datatype_str_opaque(const void *value, const zor_datatype_info *)
{
    const zor_opaque *o = static_cast<const zor_opaque *>(value);
    return zor_datatype_hex_dump(o->bytes, o->length);
}

void zor_datatype_write_opaque(void *dst, const void *src, const zor_datatype_info *)
{
    zor_opaque *d = static_cast<zor_opaque *>(dst);
    const zor_opaque *s = static_cast<const zor_opaque *>(src);
    free(d->bytes);
    d->bytes = nullptr;
    d->length = 0;
    if (s == nullptr || s->length == 0)
        return;
    d->length = s->length;
    d->bytes = util_calloc(s->length);
    memcpy(d->bytes, s->bytes, s->length);
}

int zor_datatype_cmp_opaque(const void *a, const void *b, const zor_datatype_info *)
{
    const zor_opaque *x = static_cast<const zor_opaque *>(a);
    const zor_opaque *y = static_cast<const zor_opaque *>(b);
    if (x->length != y->length)
        return x->length > y->length ? 1 : -1;
    return x->length != 0 ? memcmp(x->bytes, y->bytes, x->length) : 0;
}

void zor_datatype_free_opaque(void *value, const zor_datatype_info *,
                              const struct zor_reg_field_info *)
{
    zor_opaque *o = static_cast<zor_opaque *>(value);
    o->length = 0;
    free(o->bytes);
    o->bytes = nullptr;
}

/* ---- "flag" and "bool" -------------------------------------------------------------- */

const char *zor_datatype_str_flag(const void *, const zor_datatype_info *)
{
    return "present";
}

const char *zor_datatype_str_bool(const void *value, const zor_datatype_info *)
{
    int v;
    memcpy(&v, value, sizeof(v));
    return v != 0 ? "true" : "false";
}

int zor_datatype_parse_bool(const char *text, size_t len, const zor_datatype_info *info, void *buff)
{
    ZOR_ASSERT(buff != ZOR_NULL);
    ZOR_ASSERT(info->size == sizeof(int));
    int v;
    if (len == 4 && memcmp(text, "true", 4) == 0)
        v = 1;
    else if (len == 5 && memcmp(text, "false", 5) == 0)
        v = 0;
    else
        return 0;
    memcpy(buff, &v, sizeof(v));
    return 1;
}

/* ---- "int" and "uint" ------------------------------------------------------------------ */

/* A T from storage of any alignment. */
template <typename T> static inline T zor_datatype_load(const void *value)
{
    T v;
    memcpy(&v, value, sizeof(v));
    return v;
}

/* The integer type as wide as the signed S, with the signedness of W. */
template <typename W, typename S>
using zor_datatype_like = std::conditional_t<std::is_signed<W>::value, S, std::make_unsigned_t<S>>;

/*
 * Calls fn(T()), T the integer type of `size` bytes (1, 2, 4 or 8) with the
 * signedness of W, and returns 1; returns 0, calling nothing, for any other
 * size. Display and parse pick the width of a value through it.
 */
template <typename W, typename F> static inline int zor_datatype_sized(uint64_t size, F &&fn)
{
    auto try_type = [&](auto t) {
        if (size != sizeof(t))
            return false;
        fn(t);
        return true;
    };
    return try_type(zor_datatype_like<W, int8_t>()) || try_type(zor_datatype_like<W, int16_t>()) ||
           try_type(zor_datatype_like<W, int32_t>()) || try_type(zor_datatype_like<W, int64_t>());
}

/*
 * Displays the integer of info->size bytes at `value` in decimal, signed
 * when W is; a size that no integer has displays as a hex dump.
 */
template <typename W>
static const char *zor_datatype_str_integer(const void *value, const zor_datatype_info *info)
{
    W v = 0;
    if (!zor_datatype_sized<W>(info->size,
                               [&](auto t) { v = zor_datatype_load<decltype(t)>(value); }))
        return zor_datatype_hex_dump(value, info->size);
    char *buf = zor_datatype_buf_get();
    if constexpr (std::is_signed<W>::value)
        snprintf(buf, ZOR_DATATYPE_BUF_SIZE, "%lld", (long long)v);
    else
        snprintf(buf, ZOR_DATATYPE_BUF_SIZE, "%llu", (unsigned long long)v);
    return buf;
}

const char *zor_datatype_str_int(const void *value, const zor_datatype_info *info)
{
    return zor_datatype_str_integer<int64_t>(value, info);
}

const char *zor_datatype_str_uint(const void *value, const zor_datatype_info *info)
{
    return zor_datatype_str_integer<uint64_t>(value, info);
}

/* Stores `value` as a T when T can hold it; 0, nothing stored, when it cannot. */
template <typename T, typename W> static inline int zor_datatype_store_in_range(W value, void *buff)
{
    if (value > (W)std::numeric_limits<T>::max())
        return 0;
    if constexpr (std::is_signed<T>::value) {
        if (value < (W)std::numeric_limits<T>::min())
            return 0;
    }
    T v = (T)value;
    memcpy(buff, &v, sizeof(v));
    return 1;
}

/*
 * Stores `value` in the integer of `size` bytes at `buff`, signed when W is:
 * 1 when it fits, 0 (nothing stored) when it does not, -1 for a size that
 * no integer has.
 */
template <typename W>
static inline int zor_datatype_store_integer(W value, uint64_t size, void *buff)
{
    int stored = -1;
    zor_datatype_sized<W>(
        size, [&](auto t) { stored = zor_datatype_store_in_range<decltype(t)>(value, buff); });
    return stored;
}

/*
 * Reads `len` bytes of decimal digits into *value; 0 when a byte is not a
 * digit or the number does not fit in 64 bits. Leading zeros are fine.
 */
static inline int zor_datatype_parse_digits(const char *text, size_t len, uint64_t *value)
{
    uint64_t v = 0;
    for (size_t i = 0; i < len; i++) {
        unsigned digit = (unsigned char)text[i] - (unsigned)'0';
        if (digit > 9)
            return 0;
        if (__builtin_mul_overflow(v, 10, &v) || __builtin_add_overflow(v, digit, &v))
            return 0;
    }
    *value = v;
    return 1;
}

int zor_datatype_parse_int(const char *text, size_t len, const zor_datatype_info *info, void *buff)
{
    ZOR_ASSERT(buff != ZOR_NULL);
    ZOR_ASSERT(info->size <= sizeof(int64_t));
    if (len == 0)
        return 0;
    int negative = text[0] == '-';
    if (negative && len == 1)
        return 0;
    uint64_t magnitude;
    if (!zor_datatype_parse_digits(text + negative, len - negative, &magnitude))
        return 0;
    const uint64_t min_magnitude = (uint64_t)INT64_MAX + 1;
    if (negative ? magnitude > min_magnitude : magnitude > (uint64_t)INT64_MAX)
        return 0;
    /* Two's complement: the negation is done in unsigned arithmetic. */
    int64_t value = (int64_t)(negative ? 0 - magnitude : magnitude);
    int stored = zor_datatype_store_integer(value, info->size, buff);
    if (stored < 0)
        ZOR_ASSERT(0); /* no integer has this size; "0" is the text callers expect */
    return stored;
}

int zor_datatype_parse_uint(const char *text, size_t len, const zor_datatype_info *info, void *buff)
{
    ZOR_ASSERT(buff != ZOR_NULL);
    ZOR_ASSERT(info->size <= sizeof(uint64_t));
    uint64_t value;
    if (len == 0 || !zor_datatype_parse_digits(text, len, &value))
        return 0;
    int stored = zor_datatype_store_integer(value, info->size, buff);
    if (stored < 0)
        ZOR_ASSERT(0); /* no integer has this size; "0" is the text callers expect */
    return stored;
}

/* ---- the strings dictionary and "str" ------------------------------------------------ */

static zor_dict zor_datatype_strings;

/* Texts the strings dictionary is made for at first; it grows as needed. */
#define ZOR_DATATYPE_STRINGS_SIZE 128

/* Interns "<unset>", which must become id 0. */
static void zor_datatype_strings_init(void)
{
    uint32_t id = zor_dict_ref_get(&zor_datatype_strings, zor_str_init("<unset>"));
    ZOR_ASSERT(id == 0);
}

void zor_datatype_init(void)
{
    memset(&zor_datatype_strings, 0, sizeof(zor_datatype_strings));
    zor_dict_init(&zor_datatype_strings, ZOR_DATATYPE_STRINGS_SIZE, nullptr);
    zor_datatype_strings_init();
}

void zor_datatype_cleanup(void)
{
    zor_dict_destroy(&zor_datatype_strings);
}

zor_dict *zor_datatype_strings_dict_get(void)
{
    return &zor_datatype_strings;
}

zor_string_id zor_datatype_string_ref_get(zor_str text)
{
    return zor_dict_ref_get(&zor_datatype_strings, text);
}

zor_str zor_datatype_string_from_id(zor_string_id id)
{
    const zor_dict_rec *rec = zor_dict_id_get_rec(&zor_datatype_strings, id);
    return zor_str_init_len(rec->text, (int32_t)rec->len);
}

int zor_datatype_parse_string(const char *text, size_t len, const zor_datatype_info *, void *buff)
{
    ZOR_ASSERT(buff != ZOR_NULL);
    zor_str s;
    s.ptr = text;
    s.len = len;
    zor_string_id id = zor_dict_ref_get(&zor_datatype_strings, s);
    memcpy(buff, &id, sizeof(id));
    return 1;
}

const char *zor_datatype_str_string(const void *value, const zor_datatype_info *)
{
    zor_string_id id;
    memcpy(&id, value, sizeof(id));
    return zor_dict_id_get_rec(&zor_datatype_strings, id)->text;
}

void zor_datatype_write_string(void *dst, const void *src, const zor_datatype_info *)
{
    zor_string_id *d = static_cast<zor_string_id *>(dst);
    if (*d != 0) {
        zor_dict_id_remove_ref(&zor_datatype_strings, *d);
        *d = 0;
    }
    if (src == nullptr)
        return;
    const zor_string_id *value = static_cast<const zor_string_id *>(src);
    ZOR_ASSERT(*value != 0);
    *d = *value;
    zor_dict_id_add_ref(&zor_datatype_strings, *d);
}

void zor_datatype_free_string(void *value, const zor_datatype_info *,
                              const struct zor_reg_field_info *)
{
    zor_string_id *v = static_cast<zor_string_id *>(value);
    if (*v == 0)
        return;
    zor_dict_id_remove_ref(&zor_datatype_strings, *v);
    *v = 0;
}

int zor_datatype_cmp_string(const void *a, const void *b, const zor_datatype_info *)
{
    zor_str x = zor_datatype_string_from_id(*static_cast<const zor_string_id *>(a));
    zor_str y = zor_datatype_string_from_id(*static_cast<const zor_string_id *>(b));
    int r = strncmp(x.ptr, y.ptr, x.len < y.len ? x.len : y.len);
    if (r != 0)
        return r;
    return (int)((int64_t)x.len - (int64_t)y.len);
}
