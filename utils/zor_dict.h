/*
 * zor_dict.h - a dictionary that interns byte strings under dense ids.
 *
 * Each distinct text is stored once, in a record with a 32-bit id, a
 * reference count and an optional payload pointer. zor_dict_ref_get turns a
 * text into its id and takes a reference; zor_dict_id_remove_ref drops one,
 * and the record whose count reaches zero is freed and its id put on a stack
 * of free ids, which new texts take before any id never used (last released
 * first). Lookup by text is one probe of a zor_hash_table hashed with
 * ZOR_XXH64 (seed 0); lookup by id is an array index.
 *
 * Ids are dense from 0; 0xFFFFFFFF is never an id. An id is never used (at
 * or above next_id), live (its entry holds a record) or free (its entry
 * holds none). Entries, once created, live until zor_dict_destroy, so
 * reusing an id allocates only the record.
 *
 *     zor_dict d;
 *     zor_dict_init(&d, 128, NULL);
 *     uint32_t id = zor_dict_ref_get(&d, zor_str_init("eth0"));
 *     const char *text = zor_dict_id_get_rec(&d, id)->text;   // "eth0"
 *     zor_dict_id_remove_ref(&d, id);
 *     zor_dict_destroy(&d);
 *
 * Everything is inline; there is no locking.
 */
#ifndef ZOR_DICT_H
#define ZOR_DICT_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zor_hash.h"
#include "zor_str.h"
#include "zor_utils.h"
#include "zor_xxhash.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The value that is never an id. */
#define ZOR_DICT_INVALID_ID 0xFFFFFFFFu

/* The flexible array member is C99; C++ compilers accept it as an extension. */
#ifdef __cplusplus
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#endif
/* One interned text: header and text in one allocation. */
typedef struct zor_dict_rec {
    zor_hash_node node; /* link in the dictionary's table (offset 0) */
    uint32_t id;        /* the record's id */
    uint32_t refcount;  /* references held; 1 when created */
    void *data;         /* caller's payload; null when created */
    uint64_t len;       /* bytes of text, without the terminating NUL */
    char text[];        /* the text (any bytes) and a terminating NUL */
} zor_dict_rec;
#ifdef __cplusplus
#pragma GCC diagnostic pop
#endif

/* The slot of one id ever used. */
typedef struct zor_dict_entry {
    zor_dict_rec *record; /* the live record; null while the id is free */
    uint32_t next_free;   /* id below this one on the free stack; 0xFFFFFFFF: none */
} zor_dict_entry;

/* The dictionary, in caller memory, made ready by zor_dict_init. */
typedef struct zor_dict {
    uint64_t size;                 /* slots in `entries`; doubles when full */
    uint32_t next_id;              /* lowest id never handed out */
    uint32_t free_id;              /* top of the free stack; 0xFFFFFFFF when empty */
    uint32_t has_free_ids;         /* 1 while the free stack is not empty */
    zor_dict_entry **entries;      /* indexed by id; null for ids never used */
    zor_hash_table *table;         /* live records by text */
    void (*free_data)(void *data); /* applied to non-null payloads at teardown */
} zor_dict;

/* Key getter of the dictionary's table: the record's own text. */
static inline void zor_dict_get_key(const void *record, char *scratch, zor_str *key)
{
    (void)scratch;
    const zor_dict_rec *rec = (const zor_dict_rec *)record;
    key->ptr = rec->text;
    key->len = rec->len;
}

/* Hash of the dictionary's table: ZOR_XXH64 with seed 0. */
static inline uint64_t zor_dict_hash(const zor_str *key)
{
    return ZOR_XXH64(key->ptr, key->len, 0);
}

/*
 * Makes `dict` empty, with `size` (at least 1) id slots to start with and a
 * table for `size` texts. `free_data`, when not null, is applied to every
 * non-null payload by zor_dict_destroy.
 */
static inline void zor_dict_init(zor_dict *dict, uint64_t size, void (*free_data)(void *data))
{
    ZOR_ASSERT(dict != ZOR_NULL);
    memset(dict, 0, sizeof(*dict));
    dict->size = size;
    dict->free_data = free_data;
    dict->next_id = 0;
    dict->has_free_ids = 0;
    dict->free_id = ZOR_DICT_INVALID_ID;
    dict->entries = (zor_dict_entry **)util_calloc(size * sizeof(zor_dict_entry *));
    dict->table = zor_hash_table_init(size, 0, zor_dict_get_key, zor_dict_hash);
}

/*
 * An id for a new record: the top of the free stack if any, else next_id
 * (doubling the entry array when it is full).
 */
static inline uint32_t zor_dict_get_next_id(zor_dict *dict)
{
    uint32_t id;
    if (dict->has_free_ids) {
        id = dict->free_id;
        zor_dict_entry *entry = dict->entries[id];
        ZOR_ASSERT(entry != ZOR_NULL);
        dict->free_id = entry->next_free;
        entry->next_free = ZOR_DICT_INVALID_ID;
        if (dict->free_id == ZOR_DICT_INVALID_ID)
            dict->has_free_ids = 0;
        return id;
    }
    id = dict->next_id++;
    if (id == dict->size) {
        zor_dict_entry **entries =
            (zor_dict_entry **)util_calloc(2 * dict->size * sizeof(zor_dict_entry *));
        memcpy(entries, dict->entries, dict->size * sizeof(zor_dict_entry *));
        free(dict->entries);
        dict->entries = entries;
        dict->size *= 2;
    }
    return id;
}

/*
 * The live record of `text`, or null: zor_hash_table_find on the
 * dictionary's table with its key getter and hash called directly rather
 * than through the table's function pointers, since they are always the
 * dictionary's own. This is the lookup of every zor_dict_ref_get.
 */
static inline zor_dict_rec *zor_dict_find(const zor_dict *dict, const zor_str *text)
{
    const zor_hash_table *table = dict->table;
    uint64_t hash = zor_dict_hash(text);
    zor_dict_rec *rec = (zor_dict_rec *)table->table[hash % table->size];
    while (rec != ZOR_NULL) {
        zor_str key;
        zor_dict_get_key(rec, (char *)ZOR_NULL, &key);
        if (zor_hash_table_compare_keys(text, &key) == 0)
            return rec;
        rec = (zor_dict_rec *)rec->node.next;
    }
    return (zor_dict_rec *)ZOR_NULL;
}

/*
 * The id of `text` (any bytes; ptr may be null only when len is 0), with one
 * more reference, which the caller owns. A new text gets a record with
 * refcount 1.
 */
static inline uint32_t zor_dict_ref_get(zor_dict *dict, zor_str text)
{
    zor_dict_rec *rec = zor_dict_find(dict, &text);
    if (rec != ZOR_NULL) {
        rec->refcount++;
        return rec->id;
    }
    rec = (zor_dict_rec *)util_calloc(sizeof(zor_dict_rec) + text.len + 1);
    uint32_t id = zor_dict_get_next_id(dict);
    rec->id = id;
    rec->refcount = 1;
    rec->len = text.len;
    if (text.len != 0)
        memcpy(rec->text, text.ptr, text.len);
    rec->text[text.len] = '\0';
    zor_hash_table_insert(dict->table, rec);
    zor_dict_entry *entry = dict->entries[id];
    if (entry == ZOR_NULL) {
        entry = (zor_dict_entry *)util_calloc(sizeof(zor_dict_entry));
        entry->next_free = ZOR_DICT_INVALID_ID;
        dict->entries[id] = entry;
    }
    entry->record = rec;
    return id;
}

/* The record of `id`, an id below next_id, or null while the id is free. */
static inline zor_dict_rec *zor_dict_entry_record(const zor_dict *dict, uint32_t id)
{
    const zor_dict_entry *entry = dict->entries[id];
    return entry != ZOR_NULL ? entry->record : (zor_dict_rec *)ZOR_NULL;
}

/*
 * The functions below that take a live id check it themselves, so that a
 * failed check names the function called. The text "id != 0xFFFFFFFF" is
 * the one callers expect, hence the bare number (ZOR_DICT_INVALID_ID).
 */

/* The live record of `id`; stops the process for an id not live. */
static inline zor_dict_rec *zor_dict_id_get_rec(zor_dict *dict, uint32_t id)
{
    ZOR_ASSERT(id < dict->next_id);
    zor_dict_rec *record = zor_dict_entry_record(dict, id);
    ZOR_ASSERT(record != ZOR_NULL);
    return record;
}

/* The record of `id`, or null when the id is not live. */
static inline zor_dict_rec *zor_dict_get_record(zor_dict *dict, uint32_t id)
{
    ZOR_ASSERT(id != 0xFFFFFFFF);
    if (id >= dict->next_id)
        return (zor_dict_rec *)ZOR_NULL;
    return zor_dict_entry_record(dict, id);
}

/* One more reference on the live `id`. */
static inline void zor_dict_id_add_ref(zor_dict *dict, uint32_t id)
{
    ZOR_ASSERT(id < dict->next_id);
    ZOR_ASSERT(id != 0xFFFFFFFF);
    zor_dict_rec *record = zor_dict_entry_record(dict, id);
    ZOR_ASSERT(record != ZOR_NULL);
    record->refcount++;
}

/*
 * Returns the released `id` to the free stack and frees its record (its
 * payload is not passed to free_data). Used by zor_dict_id_remove_ref.
 */
static inline void zor_dict_free_id(zor_dict *dict, uint32_t id)
{
    zor_dict_entry *entry = dict->entries[id];
    ZOR_ASSERT(entry != ZOR_NULL);
    zor_dict_rec *record = entry->record;
    entry->record = (zor_dict_rec *)ZOR_NULL;
    entry->next_free = dict->free_id;
    dict->has_free_ids = 1;
    dict->free_id = id;
    free(record);
}

/*
 * One reference less on the live `id`; at zero the text leaves the table,
 * its record is freed and the id becomes free.
 */
static inline void zor_dict_id_remove_ref(zor_dict *dict, uint32_t id)
{
    ZOR_ASSERT(id < dict->next_id);
    ZOR_ASSERT(id != 0xFFFFFFFF);
    zor_dict_rec *record = zor_dict_entry_record(dict, id);
    ZOR_ASSERT(record != ZOR_NULL);
    if (--record->refcount > 0)
        return;
    zor_hash_table_remove(dict->table, record);
    zor_dict_free_id(dict, id);
}

/*
 * Frees every record (whatever its count; payloads through free_data), every
 * entry, the entry array and the table, and zeroes `dict`.
 */
static inline void zor_dict_destroy(zor_dict *dict)
{
    for (uint64_t i = 0; i < dict->size; i++) {
        zor_dict_entry *entry = dict->entries[i];
        if (entry == ZOR_NULL)
            continue;
        zor_dict_rec *record = entry->record;
        if (record != ZOR_NULL) {
            if (dict->free_data && record->data != ZOR_NULL)
                dict->free_data(record->data);
            free(record);
        }
        free(entry);
        dict->entries[i] = (zor_dict_entry *)ZOR_NULL;
    }
    free(dict->entries);
    if (dict->table != ZOR_NULL)
        zor_hash_table_destroy(dict->table);
    memset(dict, 0, sizeof(*dict));
}

#ifdef __cplusplus
}
#endif

#endif /* ZOR_DICT_H */
