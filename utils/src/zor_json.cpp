/*
 * JSON writer. Every piece of text is written as zor_printf would write it
 * (through zor_buffer_print_texts, which gives the same blocks without
 * running the formatter on texts that need none) or with zor_putc, so the
 * buffer's block layout is the one those writers give; indentation is
 * written one space at a time.
 */
#include "zor_json.h"
#include "zor_buffer_internal.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "zor_layout.h"

ZOR_LAYOUT(zor_json_ctx, 18, indent_size, indent, buffer, need_comma, array_types);

/* Room for a formatted value: longer values are cut to 255 bytes. */
enum { ZOR_JSON_VALUE_SIZE = 256 };

/* A text as a "%s" argument shows it; a null one shows as glibc prints it. */
static inline zor_str zor_json_text(const char *text)
{
    zor_str s;
    s.ptr = text != nullptr ? text : "(null)";
    s.len = strlen(s.ptr);
    return s;
}

/* Writes the pieces as one zor_printf of "%s%s..." would. */
static inline void zor_json_put(zor_json_ctx *ctx, const char *a, const char *b = "",
                                const char *c = "", const char *d = "", const char *e = "")
{
    const zor_str texts[5] = {zor_json_text(a), zor_json_text(b), zor_json_text(c),
                              zor_json_text(d), zor_json_text(e)};
    zor_buffer_print_texts(ctx->buffer, texts, 5);
}

static void zor_json_indent(zor_json_ctx *ctx)
{
    for (uint32_t i = 0; i < ctx->indent; i++)
        zor_putc(ctx->buffer, ' ');
}

static void zor_json_separator(zor_json_ctx *ctx)
{
    if (ctx->need_comma == 1)
        zor_json_put(ctx, ",\n");
}

/* The innermost open array holds one value per line. */
static inline int zor_json_one_per_line(const zor_json_ctx *ctx)
{
    return ctx->array_types & 1;
}

/* Formats a value into `out`; a formatter error gives an empty value. */
static void zor_json_format(char *out, const char *format, va_list args)
{
    if (vsnprintf(out, ZOR_JSON_VALUE_SIZE, format, args) < 0)
        out[0] = 0;
}

void zor_json_init(zor_json_ctx *ctx, zor_buffer *buffer, uint32_t indent_size, uint32_t indent)
{
    memset(ctx, 0, sizeof(*ctx));
    ctx->buffer = buffer;
    ctx->indent_size = static_cast<uint8_t>(indent_size);
    ctx->indent = static_cast<uint8_t>(indent);
}

void zor_json_start_obj(zor_json_ctx *ctx)
{
    zor_json_separator(ctx);
    zor_json_indent(ctx);
    zor_json_put(ctx, "{\n");
    ctx->indent = static_cast<uint8_t>(ctx->indent + ctx->indent_size);
    ctx->need_comma = 0;
}

void zor_json_start_obj_pair(zor_json_ctx *ctx, const char *key)
{
    zor_json_separator(ctx);
    zor_json_indent(ctx);
    zor_json_put(ctx, "\"", key, "\": {\n");
    ctx->indent = static_cast<uint8_t>(ctx->indent + ctx->indent_size);
    ctx->need_comma = 0;
}

void zor_json_end_obj(zor_json_ctx *ctx)
{
    ctx->indent = static_cast<uint8_t>(ctx->indent - ctx->indent_size);
    zor_json_put(ctx, "\n");
    zor_json_indent(ctx);
    zor_json_put(ctx, "}");
    ctx->need_comma = 1;
}

/* Writes what follows the "[" of the array just pushed. */
static void zor_json_arr_opened(zor_json_ctx *ctx)
{
    ctx->need_comma = 0;
    if (zor_json_one_per_line(ctx)) {
        zor_json_put(ctx, "\n");
        ctx->indent = static_cast<uint8_t>(ctx->indent + ctx->indent_size);
    } else {
        zor_json_put(ctx, " ");
    }
}

void zor_json_start_arr(zor_json_ctx *ctx, int layout)
{
    zor_json_separator(ctx);
    if (zor_json_one_per_line(ctx))
        zor_json_indent(ctx);
    ZOR_ASSERT((ctx->array_types & 0x80000000) == 0x0);
    ctx->array_types = (ctx->array_types << 1) | (layout == 1 ? 1u : 0u);
    zor_json_put(ctx, "[");
    zor_json_arr_opened(ctx);
}

void zor_json_start_arr_pair(zor_json_ctx *ctx, const char *key, int layout)
{
    zor_json_separator(ctx);
    zor_json_indent(ctx);
    ZOR_ASSERT((ctx->array_types & 0x80000000) == 0x0);
    ctx->array_types = (ctx->array_types << 1) | (layout == 1 ? 1u : 0u);
    zor_json_put(ctx, "\"", key, "\": [");
    zor_json_arr_opened(ctx);
}

void zor_json_end_arr(zor_json_ctx *ctx)
{
    if (zor_json_one_per_line(ctx)) {
        ctx->indent = static_cast<uint8_t>(ctx->indent - ctx->indent_size);
        zor_json_put(ctx, "\n");
        zor_json_indent(ctx);
    } else {
        zor_json_put(ctx, " ");
    }
    zor_json_put(ctx, "]");
    ctx->array_types >>= 1;
    ctx->need_comma = 1;
}

static void zor_json_arr_val(zor_json_ctx *ctx, int quotes, const char *value)
{
    if (ctx->need_comma == 1) {
        zor_json_put(ctx, ",");
        zor_json_put(ctx, zor_json_one_per_line(ctx) ? "\n" : " ");
    }
    if (zor_json_one_per_line(ctx))
        zor_json_indent(ctx);
    if (quotes)
        zor_json_put(ctx, "\"", value, "\"");
    else
        zor_json_put(ctx, value);
    ctx->need_comma = 1;
}

void zor_json_arr_val_quotes(zor_json_ctx *ctx, const char *format, ...)
{
    char value[ZOR_JSON_VALUE_SIZE];
    va_list args;
    va_start(args, format);
    zor_json_format(value, format, args);
    va_end(args);
    zor_json_arr_val(ctx, 1, value);
}

void zor_json_arr_val_noquotes(zor_json_ctx *ctx, const char *format, ...)
{
    char value[ZOR_JSON_VALUE_SIZE];
    va_list args;
    va_start(args, format);
    zor_json_format(value, format, args);
    va_end(args);
    zor_json_arr_val(ctx, 0, value);
}

static void zor_json_pair(zor_json_ctx *ctx, const char *key, int quotes, const char *value)
{
    zor_json_separator(ctx);
    zor_json_indent(ctx);
    if (quotes)
        zor_json_put(ctx, "\"", key, "\": \"", value, "\"");
    else
        zor_json_put(ctx, "\"", key, "\": ", value);
    ctx->need_comma = 1;
}

void zor_json_pair_quotes(zor_json_ctx *ctx, const char *key, const char *format, ...)
{
    char value[ZOR_JSON_VALUE_SIZE];
    va_list args;
    va_start(args, format);
    zor_json_format(value, format, args);
    va_end(args);
    zor_json_pair(ctx, key, 1, value);
}

void zor_json_pair_noquotes(zor_json_ctx *ctx, const char *key, const char *format, ...)
{
    char value[ZOR_JSON_VALUE_SIZE];
    va_list args;
    va_start(args, format);
    zor_json_format(value, format, args);
    va_end(args);
    zor_json_pair(ctx, key, 0, value);
}
