/*
 * zor_hash.h - a separately chained hash table over caller-owned records.
 *
 * Each record embeds a zor_hash_node at the table's node_offset; the table
 * only links records into bucket chains and never allocates or frees one.
 * The key of a record is a byte string that a key getter produces, and its
 * hash comes from a hash callback; the hash is computed once, on insert, and
 * stored in the node, so resizing and removal never hash again.
 *
 * The bucket of a record is its hash modulo `size`. A table created for N
 * starts with 2N buckets, doubles when an insert finds it half full, and
 * halves (never below N) when a remove leaves it less than one sixth full.
 * Within a bucket records keep their arrival order. Equal keys are never
 * allowed twice: inserting a duplicate stops the process, so callers that
 * may meet a key twice look it up with zor_hash_table_find first.
 *
 * The embedded `iter` walks every record (zor_iter_first / zor_iter_next);
 * a walk is valid only while nothing is inserted or removed.
 *
 * Everything is inline; there is no locking.
 */
#ifndef ZOR_HASH_H
#define ZOR_HASH_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zor_iter.h"
#include "zor_str.h"
#include "zor_utils.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes of the scratch buffer handed to key getters. */
#define ZOR_HASH_KEY_SCRATCH 256

/*
 * Key getter: sets `key` to the key of `record`. The view may point into the
 * record or into `scratch` (ZOR_HASH_KEY_SCRATCH bytes, provided by the
 * caller on its stack), and stays valid until the next call with the same
 * scratch buffer.
 */
typedef void (*zor_hash_key_fn)(const void *record, char *scratch, zor_str *key);

/* Hash of a key. */
typedef uint64_t (*zor_hash_fn)(const zor_str *key);

/* The link embedded in every record at the table's node_offset. */
typedef struct zor_hash_node {
    uint64_t hash; /* the key's hash, stored when the record was inserted */
    void *next;    /* next record (not node) in the same bucket; null at the end */
} zor_hash_node;

/* The table, created by zor_hash_table_init. */
typedef struct zor_hash_table {
    uint64_t size;           /* number of buckets */
    uint64_t min_size;       /* the size asked for at creation; never shrinks below */
    uint64_t count;          /* records linked in */
    uint64_t node_offset;    /* byte offset of the zor_hash_node in every record */
    zor_hash_key_fn get_key; /* key getter */
    zor_hash_fn hash;        /* hash function */
    void **table;            /* `size` bucket heads; null: empty bucket */
    zor_iter iter;           /* walks every record */
} zor_hash_table;

/* The node of `record` in `table`. */
static inline zor_hash_node *zor_hash_table_node(const zor_hash_table *table, const void *record)
{
    return (zor_hash_node *)((char *)record + table->node_offset);
}

/* 0 when the keys are equal (same length, same bytes); anything else: different. */
static inline int zor_hash_table_compare_keys(const zor_str *a, const zor_str *b)
{
    if (a->len != b->len)
        return 1;
    if (a->len == 0)
        return 0;
    return memcmp(a->ptr, b->ptr, a->len);
}

/* Head of the first non-empty bucket at or after `index`, or null. */
static inline void *zor_hash_table_scan(const zor_hash_table *table, uint64_t index)
{
    for (; index < table->size; index++) {
        if (table->table[index] != ZOR_NULL)
            return table->table[index];
    }
    return ZOR_NULL;
}

/*
 * The item function of the embedded iterator: the record after `item`, or
 * the first record when `item` is null; null at the end.
 */
static inline void *zor_hash_table_walk(void *item, void *info)
{
    const zor_hash_table *table = (const zor_hash_table *)info;
    if (item == ZOR_NULL)
        return zor_hash_table_scan(table, 0);
    const zor_hash_node *node = zor_hash_table_node(table, item);
    if (node->next != ZOR_NULL)
        return node->next;
    return zor_hash_table_scan(table, node->hash % table->size + 1);
}

/*
 * Creates a table for `size` (at least 1) records: 2 * size buckets, never
 * fewer than size. Records carry their node at `node_offset`. Free it with
 * zor_hash_table_destroy.
 */
static inline zor_hash_table *zor_hash_table_init(uint64_t size, uint64_t node_offset,
                                                  zor_hash_key_fn get_key, zor_hash_fn hash)
{
    ZOR_ASSERT(size > 0);
    zor_hash_table *table_int = (zor_hash_table *)calloc(1, sizeof(zor_hash_table));
    ZOR_ASSERT(table_int != ZOR_NULL);
    table_int->size = 2 * size;
    table_int->min_size = size;
    table_int->count = 0;
    table_int->node_offset = node_offset;
    table_int->get_key = get_key;
    table_int->hash = hash;
    table_int->table = (void **)calloc(table_int->size, sizeof(void *));
    ZOR_ASSERT(table_int->table != ZOR_NULL);
    zor_iter_init(&table_int->iter, zor_hash_table_walk, zor_hash_table_walk, (zor_iter_free_fn)0,
                  table_int);
    return table_int;
}

/* The record whose key equals `key`, or null. */
static inline void *zor_hash_table_find(zor_hash_table *table, const zor_str *key)
{
    char scratch[ZOR_HASH_KEY_SCRATCH];
    uint64_t hash = table->hash(key);
    void *record = table->table[hash % table->size];
    while (record != ZOR_NULL) {
        zor_str record_key;
        table->get_key(record, scratch, &record_key);
        if (zor_hash_table_compare_keys(key, &record_key) == 0)
            return record;
        record = zor_hash_table_node(table, record)->next;
    }
    return ZOR_NULL;
}

/*
 * Appends `record`, whose hash is already stored, to the tail of its chain in
 * `buckets` (an array of table->size heads). Stops the process when a record
 * with an equal key is in that chain.
 */
static inline void zor_hash_table_insert_internal(zor_hash_table *table, void **buckets,
                                                  void *record)
{
    zor_hash_node *node = zor_hash_table_node(table, record);
    void **head = &buckets[node->hash % table->size];
    node->next = ZOR_NULL;
    if (*head == ZOR_NULL) {
        *head = record;
        return;
    }
    char scratch[ZOR_HASH_KEY_SCRATCH];
    char last_scratch[ZOR_HASH_KEY_SCRATCH];
    zor_str new_key;
    table->get_key(record, scratch, &new_key);
    const zor_str *key = &new_key;
    void *last = *head;
    for (;;) {
        zor_str last_key;
        table->get_key(last, last_scratch, &last_key);
        ZOR_ASSERT(zor_hash_table_compare_keys(key, &last_key) != 0);
        zor_hash_node *last_node = zor_hash_table_node(table, last);
        if (last_node->next == ZOR_NULL) {
            last_node->next = record;
            return;
        }
        last = last_node->next;
    }
}

/*
 * Moves every record into a new array of `new_size` buckets, by stored hash,
 * visiting the old buckets in order and each chain from its head.
 */
static inline void zor_hash_table_realloc(zor_hash_table *table, uint64_t new_size)
{
    void **new_table = (void **)calloc(new_size, sizeof(void *));
    ZOR_ASSERT(new_table != ZOR_NULL);
    void **old_table = table->table;
    uint64_t old_size = table->size;
    table->size = new_size;
    for (uint64_t i = 0; i < old_size; i++) {
        void *record = old_table[i];
        while (record != ZOR_NULL) {
            void *next = zor_hash_table_node(table, record)->next;
            zor_hash_table_insert_internal(table, new_table, record);
            record = next;
        }
    }
    free(old_table);
    table->table = new_table;
}

/*
 * Links `record`, whose key must not be in the table yet (checked: a
 * duplicate stops the process). Doubles the buckets first when the table is
 * half full.
 */
static inline void zor_hash_table_insert(zor_hash_table *table, void *record)
{
    if (table->count >= table->size / 2)
        zor_hash_table_realloc(table, 2 * table->size);
    char scratch[ZOR_HASH_KEY_SCRATCH];
    zor_str key;
    table->get_key(record, scratch, &key);
    zor_hash_table_node(table, record)->hash = table->hash(&key);
    zor_hash_table_insert_internal(table, table->table, record);
    table->count++;
}

/*
 * Unlinks `record` (found by identity in its stored hash's bucket); a record
 * that is not there changes nothing. Halves the buckets, not below min_size,
 * when fewer than one sixth remain in use.
 */
static inline void zor_hash_table_remove(zor_hash_table *table, void *record)
{
    zor_hash_node *node = zor_hash_table_node(table, record);
    void **link = &table->table[node->hash % table->size];
    while (*link != ZOR_NULL && *link != record)
        link = &zor_hash_table_node(table, *link)->next;
    if (*link == ZOR_NULL)
        return;
    *link = node->next;
    node->next = ZOR_NULL;
    table->count--;
    if (table->size > table->min_size && table->count < table->size / 6) {
        uint64_t half = table->size / 2;
        zor_hash_table_realloc(table, half > table->min_size ? half : table->min_size);
    }
}

/* Frees the bucket array and the table; the records are their owner's. */
static inline void zor_hash_table_destroy(zor_hash_table *table)
{
    free(table->table);
    free(table);
}

#ifdef __cplusplus
}
#endif

#endif /* ZOR_HASH_H */
