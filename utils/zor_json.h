/*
 * zor_json.h - a small streaming writer of indented JSON into a zor_buffer.
 *
 * The caller drives the writer with start/end calls for objects and arrays
 * and one call per value or key/value pair; the writer adds separators,
 * line breaks and indentation. Objects hold one member per line. Arrays
 * hold one value per line (layout 1) or all values on one line (any other
 * layout); the layouts of the 32 innermost open arrays are kept in a bit
 * stack. With indent_size 2:
 *
 *     zor_json_start_obj(&j);                    {
 *     zor_json_pair_quotes(&j, "K", "%s", "V");    "K": "V",
 *     zor_json_start_arr_pair(&j, "L", 1);         "L": [
 *     zor_json_arr_val_noquotes(&j, "%d", 1);        1,
 *     zor_json_arr_val_noquotes(&j, "%d", 2);        2
 *     zor_json_end_arr(&j);                        ],
 *     zor_json_start_arr_pair(&j, "T", 0);         "T": [ "A", "B" ]
 *     zor_json_arr_val_quotes(&j, "A");
 *     zor_json_arr_val_quotes(&j, "B");
 *     zor_json_end_arr(&j);
 *     zor_json_end_obj(&j);                      }
 *
 * No newline follows the final closing bracket.
 *
 * The writer neither escapes nor checks: keys and values are written as
 * given (escape quotes and backslashes yourself), and calls that do not
 * form valid JSON produce text all the same. Values are printf-style and
 * cut to their first 255 bytes (and at a 0 byte a conversion produced); a
 * value whose formatting fails is written as empty. The formats "%s",
 * "%d", "%i", "%u" (also with "l" or "ll") and "%zu", and formats without
 * conversions, are written without running the formatter: prefer them on
 * hot paths. Keys are written whole. Indentation arithmetic wraps modulo
 * 256. A context and its buffer are used by one thread at a time.
 */
#ifndef ZOR_JSON_H
#define ZOR_JSON_H

#include <stdint.h>

#include "zor_buffer.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Writer state, in caller memory, made ready by zor_json_init. */
typedef struct zor_json_ctx {
    uint8_t indent_size;  /* spaces added per nesting level */
    uint8_t indent;       /* current indentation in spaces */
    zor_buffer *buffer;   /* where the text goes; not owned */
    uint32_t need_comma;  /* 1 when the next element needs a separator */
    uint32_t array_types; /* layouts of the open arrays, innermost in bit 0:
                             1 = one value per line, 0 = one line */
} zor_json_ctx;

/* Zeroes `ctx` and sets its buffer and the two sizes (low 8 bits kept). */
ZOR_API void zor_json_init(zor_json_ctx *ctx, zor_buffer *buffer, uint32_t indent_size,
                           uint32_t indent);

/* Opens / closes an object that is an array element or a top-level value. */
ZOR_API void zor_json_start_obj(zor_json_ctx *ctx);
ZOR_API void zor_json_end_obj(zor_json_ctx *ctx);

/* Opens an object that is the value of `key`; close it with zor_json_end_obj. */
ZOR_API void zor_json_start_obj_pair(zor_json_ctx *ctx, const char *key);

/*
 * Opens an array that is an array element or a top-level value, one value
 * per line when `layout` is 1, else on one line. At most 31 arrays may be
 * open inside a one-value-per-line array: opening one more stops the
 * process (one-line arrays may nest deeper).
 */
ZOR_API void zor_json_start_arr(zor_json_ctx *ctx, int layout);

/* Opens an array that is the value of `key`, as zor_json_start_arr. */
ZOR_API void zor_json_start_arr_pair(zor_json_ctx *ctx, const char *key, int layout);

/* Closes the innermost array, however it was opened. */
ZOR_API void zor_json_end_arr(zor_json_ctx *ctx);

/* Writes one array value, quoted (strings) or unquoted (numbers, true,
 * false, null). */
ZOR_API void zor_json_arr_val_quotes(zor_json_ctx *ctx, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
ZOR_API void zor_json_arr_val_noquotes(zor_json_ctx *ctx, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* Writes one object member `key` with its value quoted or unquoted. */
ZOR_API void zor_json_pair_quotes(zor_json_ctx *ctx, const char *key, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
ZOR_API void zor_json_pair_noquotes(zor_json_ctx *ctx, const char *key, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif /* ZOR_JSON_H */
