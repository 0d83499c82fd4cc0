/*
 * input.c - reading change files and applying them to the data store.
 *
 * A change file is one JSON object:
 *
 *     {
 *       "description": "what the change is for",
 *       "create": { "interfaces": [ { "name": "eth0", "mtu": 9000 } ] },
 *       "update": { "interfaces": [ { "name": "eth0", "mtu": null } ] },
 *       "delete": { "routes": [ { "prefix": "10.9.0.0", "length": 16 } ] }
 *     }
 *
 * Sections are applied in the order they appear; each names kinds by
 * their plural and lists records by their fields. Key fields find the
 * record; in an update, null unsets a field (its default applies again).
 * Values are parsed by the fields' datatypes. A file that is not JSON, has
 * another shape or holds a value its type rejects is an input error: the
 * caller rolls back whatever was applied. Operations that do not fit the
 * state (creating what exists, changing what does not) are conflicts: the
 * transaction is rejected like one that breaks a rule.
 */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zorcheck.h"

typedef struct reader {
    const char *path;
    char *text;
    uint64_t len;
    jsmn_tokenizer tz;
    char *error;
    uint64_t error_size;
} reader;

/* Formats "path:line:column: message" for the byte at `offset`; returns `code`. */
static int input_error(reader *r, int code, int64_t offset, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
static int input_error(reader *r, int code, int64_t offset, const char *format, ...)
{
    uint32_t line = 1, column = 1;
    for (int64_t i = 0; i < offset && (uint64_t)i < r->len; i++) {
        if (r->text[i] == '\n')
            line++, column = 1;
        else
            column++;
    }
    int n = snprintf(r->error, r->error_size, "%s:%u:%u: ", r->path, line, column);
    if (n < 0 || (uint64_t)n >= r->error_size)
        return code;
    va_list ap;
    va_start(ap, format);
    vsnprintf(r->error + n, r->error_size - (uint64_t)n, format, ap);
    va_end(ap);
    return code;
}

static int read_file(reader *r)
{
    FILE *f = fopen(r->path, "rb");
    if (f == NULL)
        goto fail;
    uint64_t size = 0, cap = 4096;
    r->text = util_calloc(cap + 1);
    size_t got;
    while ((got = fread(r->text + size, 1, cap - size, f)) > 0) {
        size += got;
        if (size == cap) {
            cap *= 2;
            r->text = realloc(r->text, cap + 1);
            if (r->text == NULL)
                abort();
        }
    }
    int failed = ferror(f);
    fclose(f);
    if (failed)
        goto fail;
    r->text[size] = '\0';
    r->len = size;
    return 0;
fail:
    snprintf(r->error, r->error_size, "%s: cannot read: %s", r->path, strerror(errno));
    return EXIT_UNREADABLE;
}

static const jsmn_token *tok(const reader *r, int32_t i)
{
    return &r->tz.tokens[i];
}

static int tok_is(const jsmn_token *t, const char *text)
{
    return t->str.len == strlen(text) && memcmp(t->str.ptr, text, t->str.len) == 0;
}

/* Members of an object: the key of the first, then the key after each member's value. */
static int32_t first_key(const reader *r, int32_t object)
{
    return tok(r, object)->size > 0 ? object + 1 : -1;
}

static int32_t next_key(const reader *r, int32_t object, int32_t key)
{
    int32_t next = tok(r, key + 1)->skip;
    return next < tok(r, object)->skip ? next : -1;
}

/* ---- values -------------------------------------------------------------- */

/* A value parsed by its field's type, held here until stored. */
typedef struct staged {
    const field_def *def;
    int32_t token;
    int is_null;
    uint64_t value[2]; /* room for any of our types, aligned */
} staged;

static void staged_release(staged *s)
{
    const zor_datatype_info *type = s->def->field->type;
    if (!s->is_null && type->free != NULL)
        type->free(s->value, type, NULL);
}

static int stage_value(reader *r, const kind_def *k, const field_def *def, int32_t v, staged *s)
{
    const jsmn_token *t = tok(r, v);
    s->def = def;
    s->token = v;
    s->is_null = t->type == JSMN_TOK_PRIMITIVE && tok_is(t, "null");
    if (s->is_null)
        return 0;
    int wants_string = def->type == T_STR || def->type == T_IPV4;
    if (t->type != (wants_string ? JSMN_TOK_STRING : JSMN_TOK_PRIMITIVE))
        return input_error(r, EXIT_BAD_SHAPE, t->start, "%s %s must be %s", k->name, def->json,
                           wants_string ? "a string" : "a number or true/false");
    char small[256];
    char *buf = t->str.len <= sizeof(small) ? small : util_calloc(t->str.len);
    zor_str text = wants_string ? jsmn_str_unescape(t->str, buf, t->str.len) : t->str;
    const zor_datatype_info *type = def->field->type;
    int ok = text.len > 0 && type->parse(text.ptr, text.len, type, s->value);
    if (buf != small)
        free(buf);
    if (!ok)
        return input_error(r, EXIT_BAD_VALUE, t->start, "bad value for %s %s: \"%.*s\"", k->name,
                           def->json, (int)(t->str.len > 64 ? 64 : t->str.len), t->str.ptr);
    return 0;
}

/* ---- records ------------------------------------------------------------- */

typedef enum op { OP_CREATE, OP_UPDATE, OP_DELETE } op;

/* A record with only its key fields, to look the real one up by. */
typedef union probe {
    obj o;
    iface_rec i;
    vlan_rec v;
    addr_rec a;
    route_rec r;
} probe;

static void store(obj *o, const staged *s)
{
    zor_reg_field_set(o, s->def->field, s->is_null ? NULL : s->value);
}

static int apply_op(const kind_def *k, op what, staged *values, uint32_t count, probe *p,
                    txn_stats *stats)
{
    char name[96], message[160];
    obj *found = index_find(&p->o);
    /* A record being deleted stays in the key table until the transaction commits. */
    int deleting = found != NULL && record_is_deleting(found);
    record_display(&p->o, name, sizeof(name));
    if (what == OP_CREATE) {
        if (found != NULL) {
            snprintf(message, sizeof(message),
                     deleting ? "%s is deleted in this transaction and cannot come back in it"
                              : "%s already exists",
                     name);
            conflict_add(name, message);
            return 0;
        }
        obj *o = record_new((enum kind_id)p->o.kind);
        for (uint32_t i = 0; i < count; i++)
            if (!values[i].is_null)
                store(o, &values[i]);
        index_insert(o);
        stats->created++;
        return 0;
    }
    if (found == NULL || deleting) {
        snprintf(message, sizeof(message), "%s does not exist", name);
        conflict_add(name, message);
        return 0;
    }
    if (what == OP_UPDATE) {
        for (uint32_t i = 0; i < count; i++)
            if (!values[i].def->is_key)
                store(found, &values[i]);
        stats->updated++;
    } else {
        zor_reg_flag_set(found, k->delete_flag, 1);
        stats->deleted++;
    }
    return 0;
}

static int apply_record(reader *r, const kind_def *k, op what, int32_t object, txn_stats *stats)
{
    staged values[MAX_FIELDS];
    uint32_t count = 0;
    probe p;
    memset(&p, 0, sizeof(p));
    p.o.kind = (uint32_t)(k - g_app.kinds);
    int rc = 0;

    for (int32_t key = first_key(r, object); key >= 0 && rc == 0; key = next_key(r, object, key)) {
        const jsmn_token *kt = tok(r, key);
        const field_def *def = field_find(k, kt->str.ptr, kt->str.len);
        if (def == NULL) {
            rc = input_error(r, EXIT_BAD_SHAPE, kt->start, "%s has no field \"%.*s\"", k->name,
                             (int)kt->str.len, kt->str.ptr);
            break;
        }
        for (uint32_t i = 0; i < count; i++)
            if (values[i].def == def)
                rc = input_error(r, EXIT_BAD_SHAPE, kt->start, "%s %s given twice", k->name,
                                 def->json);
        if (rc == 0 && what == OP_DELETE && !def->is_key)
            rc = input_error(r, EXIT_BAD_SHAPE, kt->start,
                             "a %s to delete is named by its key fields only", k->name);
        if (rc == 0 && (rc = stage_value(r, k, def, key + 1, &values[count])) == 0)
            count++;
    }
    for (uint32_t f = 0; f < k->field_count && rc == 0; f++) {
        const field_def *def = &k->fields[f];
        if (!def->is_key)
            continue;
        uint32_t i = 0;
        while (i < count && values[i].def != def)
            i++;
        if (i == count || values[i].is_null)
            rc = input_error(r, EXIT_BAD_SHAPE, tok(r, object)->start, "%s without its %s", k->name,
                             def->json);
        else
            memcpy((char *)&p + def->offset, values[i].value, def->field->type->size);
    }
    if (rc == 0)
        rc = apply_op(k, what, values, count, &p, stats);
    for (uint32_t i = 0; i < count; i++)
        staged_release(&values[i]);
    return rc;
}

static int apply_section(reader *r, op what, int32_t section, txn_stats *stats)
{
    if (tok(r, section)->type != JSMN_TOK_OBJECT)
        return input_error(r, EXIT_BAD_SHAPE, tok(r, section)->start,
                           "a section must be an object of kinds");
    for (int32_t key = first_key(r, section); key >= 0; key = next_key(r, section, key)) {
        const jsmn_token *kt = tok(r, key);
        const kind_def *k = NULL;
        for (int i = 0; i < KIND_COUNT && k == NULL; i++)
            if (tok_is(kt, g_app.kinds[i].plural))
                k = &g_app.kinds[i];
        if (k == NULL)
            return input_error(r, EXIT_BAD_SHAPE, kt->start,
                               "unknown kind \"%.*s\" (interfaces, vlans, addresses or routes)",
                               (int)kt->str.len, kt->str.ptr);
        int32_t list = key + 1;
        if (tok(r, list)->type != JSMN_TOK_ARRAY)
            return input_error(r, EXIT_BAD_SHAPE, tok(r, list)->start, "%s must be an array",
                               k->plural);
        int32_t end = tok(r, list)->skip;
        for (int32_t item = list + 1; item < end; item = tok(r, item)->skip) {
            if (tok(r, item)->type != JSMN_TOK_OBJECT)
                return input_error(r, EXIT_BAD_SHAPE, tok(r, item)->start,
                                   "each of %s must be an object", k->plural);
            int rc = apply_record(r, k, what, item, stats);
            if (rc != 0)
                return rc;
        }
    }
    return 0;
}

static int apply_document(reader *r, char *description, uint64_t desc_size, txn_stats *stats)
{
    int32_t n = jsmn_parse(&r->tz, r->text, r->len);
    if (n == JSMN_ERR_PARTIAL)
        return input_error(r, EXIT_NOT_JSON, r->tz.pos,
                           "not JSON: the text ends before a string, object or array is closed");
    if (n < 0)
        return input_error(r, EXIT_NOT_JSON, r->tz.pos, "not JSON: unexpected character");
    if (n == 0 || tok(r, 0)->type != JSMN_TOK_OBJECT)
        return input_error(r, EXIT_BAD_SHAPE, n == 0 ? 0 : tok(r, 0)->start,
                           "a change file is one JSON object");
    if (tok(r, 0)->skip != n)
        return input_error(r, EXIT_BAD_SHAPE, tok(r, tok(r, 0)->skip)->start,
                           "text after the change object");

    for (int32_t key = first_key(r, 0); key >= 0; key = next_key(r, 0, key)) {
        const jsmn_token *kt = tok(r, key), *v = tok(r, key + 1);
        int rc = 0;
        if (tok_is(kt, "description")) {
            if (v->type != JSMN_TOK_STRING)
                return input_error(r, EXIT_BAD_SHAPE, v->start, "description must be a string");
            uint64_t len = v->str.len < desc_size ? v->str.len : desc_size - 1;
            zor_str text = jsmn_str_unescape(zor_str_init_len(v->str.ptr, (int32_t)len),
                                             description, desc_size - 1);
            description[text.len] = '\0';
        } else if (tok_is(kt, "create")) {
            rc = apply_section(r, OP_CREATE, key + 1, stats);
        } else if (tok_is(kt, "update")) {
            rc = apply_section(r, OP_UPDATE, key + 1, stats);
        } else if (tok_is(kt, "delete")) {
            rc = apply_section(r, OP_DELETE, key + 1, stats);
        } else {
            rc = input_error(r, EXIT_BAD_SHAPE, kt->start,
                             "unknown member \"%.*s\" (description, create, update or delete)",
                             (int)kt->str.len, kt->str.ptr);
        }
        if (rc != 0)
            return rc;
    }
    return 0;
}

int input_apply_file(const char *path, char *description, uint64_t desc_size, txn_stats *stats,
                     char *error, uint64_t error_size)
{
    reader r;
    memset(&r, 0, sizeof(r));
    r.path = path;
    r.error = error;
    r.error_size = error_size;
    description[0] = '\0';
    int rc = read_file(&r);
    if (rc == 0) {
        jsmn_init(&r.tz, NULL, 256);
        rc = apply_document(&r, description, desc_size, stats);
        jsmn_destroy(&r.tz);
    }
    free(r.text);
    return rc;
}
