/*
 * report.c - the JSON report: one entry per transaction, and on request
 * the committed state. Written with the zor JSON writer into a zor_buffer
 * that goes to standard output after each transaction.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zorcheck.h"
#include "report.h"

static zor_buffer out;
static zor_json_ctx json;

/*
 * The writer copies text as given: quotes, backslashes and control bytes are
 * escaped here. It also cuts values to 255 bytes, so the escaped text stops
 * at a whole character within that, never inside an escape.
 */
#define VALUE_MAX 255

static const char *esc(const char *text)
{
    static char bufs[4][VALUE_MAX + 1];
    static int next;
    char *buf = bufs[next++ & 3];
    size_t n = 0;
    for (const unsigned char *p = (const unsigned char *)text; *p; p++) {
        char piece[8];
        int len;
        if (*p == '"' || *p == '\\')
            len = snprintf(piece, sizeof(piece), "\\%c", *p);
        else if (*p < 0x20)
            len = snprintf(piece, sizeof(piece), "\\u%04x", *p);
        else
            len = snprintf(piece, sizeof(piece), "%c", *p);
        if (n + (size_t)len > VALUE_MAX)
            break;
        memcpy(buf + n, piece, (size_t)len);
        n += (size_t)len;
    }
    buf[n] = '\0';
    return buf;
}

void report_begin(void)
{
    memset(&out, 0, sizeof(out));
    zor_json_init(&json, &out, 2, 0);
    zor_json_start_obj(&json);
    zor_json_start_arr_pair(&json, "transactions", 1);
}

void report_flush(void)
{
    zor_buffer_output(&out, 1);
}

static void txn_head(const char *file, const char *description, const char *result)
{
    zor_json_start_obj(&json);
    zor_json_pair_quotes(&json, "file", "%s", esc(file));
    if (description != NULL && description[0] != '\0')
        zor_json_pair_quotes(&json, "description", "%s", esc(description));
    zor_json_pair_quotes(&json, "result", "%s", result);
}

/* ---- ordering records ---------------------------------------------------- */

static const char *name_text(zor_string_id id)
{
    return zor_datatype_string_from_id(id).ptr;
}

/* Records by kind, then by key: names as text, numbers as numbers. */
static int record_cmp(const obj *a, const obj *b)
{
    if (a->kind != b->kind)
        return a->kind < b->kind ? -1 : 1;
    int c = 0;
    switch (a->kind) {
    case KIND_INTERFACE:
        return strcmp(name_text(((const iface_rec *)a)->name),
                      name_text(((const iface_rec *)b)->name));
    case KIND_VLAN:
        return (int)((const vlan_rec *)a)->id - (int)((const vlan_rec *)b)->id;
    case KIND_ADDRESS: {
        const addr_rec *x = (const addr_rec *)a, *y = (const addr_rec *)b;
        c = strcmp(name_text(x->iface), name_text(y->iface));
        return c != 0 ? c : (x->address > y->address) - (x->address < y->address);
    }
    default: {
        const route_rec *x = (const route_rec *)a, *y = (const route_rec *)b;
        c = (x->prefix > y->prefix) - (x->prefix < y->prefix);
        return c != 0 ? c : (int)x->length - (int)y->length;
    }
    }
}

static int record_qsort_cmp(const void *a, const void *b)
{
    return record_cmp(*(obj *const *)a, *(obj *const *)b);
}

/* ---- transactions -------------------------------------------------------- */

static void counts(const txn_stats *stats)
{
    zor_json_pair_noquotes(&json, "created", "%u", stats->created);
    zor_json_pair_noquotes(&json, "updated", "%u", stats->updated);
    zor_json_pair_noquotes(&json, "deleted", "%u", stats->deleted);
}

static void violation(const char *rule, const char *record, const char *message)
{
    zor_json_start_obj(&json);
    zor_json_pair_quotes(&json, "rule", "%s", rule);
    zor_json_pair_quotes(&json, "record", "%s", esc(record));
    zor_json_pair_quotes(&json, "message", "%s", esc(message));
    zor_json_end_obj(&json);
}

void report_accepted(const char *file, const char *description, const txn_stats *stats)
{
    txn_head(file, description, "accepted");
    counts(stats);
    zor_json_end_obj(&json);
}

/* Conflicts first, in the order met; then rule violations by record and rule. */
void report_rejected(const char *file, const char *description, const txn_stats *stats)
{
    txn_head(file, description, "rejected");
    counts(stats);
    zor_json_start_arr_pair(&json, "violations", 1);
    for (uint32_t i = 0; i < g_app.conflict_count; i++)
        violation("conflict", g_app.conflicts[i].record, g_app.conflicts[i].message);

    uint32_t n = g_app.violated.count, i = 0;
    obj **bad = util_calloc((n + 1) * sizeof(obj *));
    for (obj *o = g_app.violated.first; o != NULL; o = o->violation_link.next)
        bad[i++] = o;
    qsort(bad, n, sizeof(obj *), record_qsort_cmp);
    char record[96], message[256];
    for (i = 0; i < n; i++) {
        record_display(bad[i], record, sizeof(record));
        for (int rule = 0; rule < RULE_COUNT; rule++) {
            if (!(bad[i]->violations & (1u << rule)))
                continue;
            rule_message(bad[i], (enum rule_id)rule, message, sizeof(message));
            violation(rule_name((enum rule_id)rule), record, message);
        }
    }
    free(bad);
    zor_json_end_arr(&json);
    zor_json_end_obj(&json);
}

void report_error(const char *file, const char *error)
{
    txn_head(file, NULL, "error");
    zor_json_pair_quotes(&json, "error", "%s", esc(error));
    zor_json_end_obj(&json);
}

/* ---- the committed state ------------------------------------------------- */

/* Fields with a value (their own or a default), quoted when their type reads as text. */
static void state_record(const obj *o)
{
    const kind_def *k = kind_of(o);
    zor_json_start_obj(&json);
    for (uint32_t f = 0; f < k->field_count; f++) {
        const field_def *def = &k->fields[f];
        const char *text = value_text(o, def);
        if (text == NULL)
            continue;
        if (def->type == T_STR || def->type == T_IPV4)
            zor_json_pair_quotes(&json, def->json, "%s", esc(text));
        else
            zor_json_pair_noquotes(&json, def->json, "%s", text);
    }
    zor_json_end_obj(&json);
}

static void state_write(void)
{
    zor_json_start_obj_pair(&json, "state");
    for (int k = 0; k < KIND_COUNT; k++) {
        uint64_t n;
        obj **recs = index_records((enum kind_id)k, &n);
        qsort(recs, n, sizeof(obj *), record_qsort_cmp);
        zor_json_start_arr_pair(&json, g_app.kinds[k].plural, 1);
        for (uint64_t i = 0; i < n; i++)
            state_record(recs[i]);
        zor_json_end_arr(&json);
        free(recs);
    }
    zor_json_end_obj(&json);
}

void report_end(int with_state)
{
    zor_json_end_arr(&json);
    if (with_state)
        state_write();
    zor_json_end_obj(&json);
    zor_putc(&out, '\n');
    report_flush();
    zor_buffer_free(&out);
}
