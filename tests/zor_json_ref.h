/*
 * The JSON writer written the plain way, for tests and benchmarks only:
 * every piece of text goes through zor_printf, every indentation space
 * through zor_putc, every value through vsnprintf into 256 bytes. The
 * library's writer must leave the same bytes, the same blocks and the same
 * context state after every call.
 */
#ifndef ZOR_JSON_REF_H
#define ZOR_JSON_REF_H

#include <stdarg.h>
#include <stdio.h>

#include "zor_json.h"

namespace zor_json_ref
{

inline void indent(zor_json_ctx *c)
{
    for (unsigned i = 0; i < c->indent; i++)
        zor_putc(c->buffer, ' ');
}

inline void separator(zor_json_ctx *c)
{
    if (c->need_comma == 1)
        zor_printf(c->buffer, ",\n");
}

inline bool per_line(const zor_json_ctx *c)
{
    return c->array_types & 1;
}

inline void opened(zor_json_ctx *c)
{
    c->indent = static_cast<uint8_t>(c->indent + c->indent_size);
    c->need_comma = 0;
}

inline void start_obj(zor_json_ctx *c)
{
    separator(c);
    indent(c);
    zor_printf(c->buffer, "{\n");
    opened(c);
}

inline void start_obj_pair(zor_json_ctx *c, const char *key)
{
    separator(c);
    indent(c);
    zor_printf(c->buffer, "\"%s\": {\n", key);
    opened(c);
}

inline void end_obj(zor_json_ctx *c)
{
    c->indent = static_cast<uint8_t>(c->indent - c->indent_size);
    zor_printf(c->buffer, "\n");
    indent(c);
    zor_printf(c->buffer, "}");
    c->need_comma = 1;
}

/* Both array openers; `key` is used when `pair` is set. */
inline void start_arr(zor_json_ctx *c, bool pair, const char *key, int layout)
{
    separator(c);
    if (pair || per_line(c))
        indent(c);
    c->array_types = (c->array_types << 1) | (layout == 1);
    if (pair)
        zor_printf(c->buffer, "\"%s\": [", key);
    else
        zor_printf(c->buffer, "[");
    if (per_line(c)) {
        zor_printf(c->buffer, "\n");
        opened(c);
    } else {
        zor_printf(c->buffer, " ");
        c->need_comma = 0;
    }
}

inline void end_arr(zor_json_ctx *c)
{
    if (per_line(c)) {
        c->indent = static_cast<uint8_t>(c->indent - c->indent_size);
        zor_printf(c->buffer, "\n");
        indent(c);
    } else {
        zor_printf(c->buffer, " ");
    }
    zor_printf(c->buffer, "]");
    c->array_types >>= 1;
    c->need_comma = 1;
}

/* An array value (`pair` clear) or an object member, quoted or not. */
inline void value(zor_json_ctx *c, bool pair, const char *key, bool quotes, const char *format, ...)
    __attribute__((format(printf, 5, 6)));
inline void value(zor_json_ctx *c, bool pair, const char *key, bool quotes, const char *format, ...)
{
    char v[256];
    va_list args;
    va_start(args, format);
    if (vsnprintf(v, sizeof(v), format, args) < 0)
        v[0] = 0;
    va_end(args);
    if (pair) {
        separator(c);
        indent(c);
        zor_printf(c->buffer, quotes ? "\"%s\": \"%s\"" : "\"%s\": %s", key, v);
    } else {
        if (c->need_comma == 1) {
            zor_printf(c->buffer, ",");
            zor_printf(c->buffer, per_line(c) ? "\n" : " ");
        }
        if (per_line(c))
            indent(c);
        zor_printf(c->buffer, quotes ? "\"%s\"" : "%s", v);
    }
    c->need_comma = 1;
}

} // namespace zor_json_ref

#endif /* ZOR_JSON_REF_H */
