/*
 * JSON writer. Its output is defined piece by piece: every piece of text as
 * one zor_printf would write it (whole in one block), every indentation as
 * one zor_putc per space, and the buffer's blocks are the ones those calls
 * give. Each operation describes its pieces once, in a function that a
 * pass object walks (zor_json_emit): a first pass counts the bytes; when the
 * last block has room for all of them, a second pass copies them there in
 * one go, since every piece would have landed there anyway; otherwise,
 * near a block's end, the pieces are written one by one through the
 * buffer's writers. Values are formatted by hand where the format is "%s",
 * a plain integer conversion or text without conversions, and by vsnprintf
 * otherwise.
 */
#include "zor_json.h"
#include "zor_buffer_internal.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "zor_layout.h"

ZOR_LAYOUT(zor_json_ctx, 18, indent_size, indent, buffer, need_comma, array_types);

/* Room for a formatted value: longer values are cut to 255 bytes. */
enum { ZOR_JSON_VALUE_SIZE = 256, ZOR_JSON_VALUE_MAX = ZOR_JSON_VALUE_SIZE - 1 };

/* A text as a "%s" argument shows it; a null one shows as glibc prints it. */
static inline zor_str zor_json_text(const char *text)
{
    zor_str s;
    s.ptr = text != nullptr ? text : "(null)";
    s.len = strlen(s.ptr);
    return s;
}

/*
 * The passes over an operation's pieces. text() adds bytes to the current
 * piece, piece() ends it, spaces() writes an indentation.
 */
struct zor_json_count {
    uint64_t n;
    void text(const char *, uint64_t len)
    {
        n += len;
    }
    void piece() {}
    void spaces(uint32_t count)
    {
        n += count;
    }
};

struct zor_json_copy {
    char *dst;
    void text(const char *src, uint64_t len)
    {
        memcpy(dst, src, len);
        dst += len;
    }
    void piece() {}
    void spaces(uint32_t count)
    {
        memset(dst, ' ', count);
        dst += count;
    }
};

/* Piece by piece, as zor_printf and zor_putc would write them. */
struct zor_json_exact {
    zor_buffer *buffer;
    zor_str texts[5];
    int32_t count;
    void text(const char *src, uint64_t len)
    {
        texts[count].ptr = src;
        texts[count].len = len;
        count++;
    }
    void piece()
    {
        zor_buffer_print_texts(buffer, texts, count);
        count = 0;
    }
    void spaces(uint32_t n)
    {
        zor_buffer_putc_n(buffer, ' ', n);
    }
};

/* A literal text, its length known at compile time. */
template <class P, size_t N> static inline void zor_json_lit(P &pass, const char (&text)[N])
{
    pass.text(text, N - 1);
}

template <class P> static inline void zor_json_str_text(P &pass, zor_str s)
{
    pass.text(s.ptr, s.len);
}

/* A quoted key and the literal after it. */
template <class P, size_t N>
static inline void zor_json_key(P &pass, zor_str key, const char (&after)[N])
{
    zor_json_lit(pass, "\"");
    zor_json_str_text(pass, key);
    zor_json_lit(pass, after);
}

/* Writes the pieces `pieces(pass)` describes (see the top of the file). */
template <class F> static inline void zor_json_emit(zor_json_ctx *ctx, F pieces)
{
    zor_json_count count = {0};
    pieces(count);
    char *dst = zor_buffer_room(ctx->buffer, count.n);
    if (dst != nullptr) {
        zor_json_copy copy = {dst};
        pieces(copy);
        zor_buffer_commit(ctx->buffer, count.n);
    } else {
        zor_json_exact exact = {ctx->buffer, {}, 0};
        pieces(exact);
    }
}

/* The separator before an object member or a line of its own. */
template <class P> static inline void zor_json_separator(P &pass, const zor_json_ctx *ctx)
{
    if (ctx->need_comma == 1) {
        zor_json_lit(pass, ",\n");
        pass.piece();
    }
}

/* The innermost open array holds one value per line. */
static inline int zor_json_one_per_line(const zor_json_ctx *ctx)
{
    return ctx->array_types & 1;
}

/* Writes the digits of `v` to end just before `end`; returns where they start. */
static inline char *zor_json_digits(char *end, uint64_t v)
{
    static const char pairs[] = "00010203040506070809101112131415161718192021222324"
                                "25262728293031323334353637383940414243444546474849"
                                "50515253545556575859606162636465666768697071727374"
                                "75767778798081828384858687888990919293949596979899";
    while (v >= 100) {
        const char *pair = pairs + 2 * (v % 100);
        v /= 100;
        *--end = pair[1];
        *--end = pair[0];
    }
    if (v >= 10) {
        *--end = pairs[2 * v + 1];
        *--end = pairs[2 * v];
    } else {
        *--end = static_cast<char>('0' + v);
    }
    return end;
}

/* Plain integer conversions, formatted by hand. */
enum zor_json_int_kind {
    ZOR_JSON_NOT_INT,
    ZOR_JSON_INT,
    ZOR_JSON_LONG,
    ZOR_JSON_LLONG,
    ZOR_JSON_UINT,
    ZOR_JSON_ULONG,
    ZOR_JSON_ULLONG,
    ZOR_JSON_SIZE
};

/* The kind of a whole format "%d", "%i", "%u", each with no, "l" or "ll" size, or "%zu". */
static zor_json_int_kind zor_json_int_format(const char *format)
{
    if (format[0] != '%')
        return ZOR_JSON_NOT_INT;
    const char *conv = format + 1;
    int size = 0; /* no size, "l", "ll" */
    if (conv[0] == 'z')
        return conv[1] == 'u' && conv[2] == 0 ? ZOR_JSON_SIZE : ZOR_JSON_NOT_INT;
    if (conv[0] == 'l') {
        size = conv[1] == 'l' ? 2 : 1;
        conv += size;
    }
    if (conv[1] != 0)
        return ZOR_JSON_NOT_INT;
    if (conv[0] == 'd' || conv[0] == 'i')
        return static_cast<zor_json_int_kind>(ZOR_JSON_INT + size);
    if (conv[0] == 'u')
        return static_cast<zor_json_int_kind>(ZOR_JSON_UINT + size);
    return ZOR_JSON_NOT_INT;
}

/* Formats the next argument, an integer of `kind`, to end at `end`; returns where it starts. */
static char *zor_json_integer(char *end, zor_json_int_kind kind, va_list args)
{
    int64_t v;
    switch (kind) {
    case ZOR_JSON_INT:
        v = va_arg(args, int);
        break;
    case ZOR_JSON_LONG:
        v = va_arg(args, long);
        break;
    case ZOR_JSON_LLONG:
        v = va_arg(args, long long);
        break;
    case ZOR_JSON_UINT:
        return zor_json_digits(end, va_arg(args, unsigned));
    case ZOR_JSON_ULONG:
        return zor_json_digits(end, va_arg(args, unsigned long));
    case ZOR_JSON_ULLONG:
        return zor_json_digits(end, va_arg(args, unsigned long long));
    default:
        return zor_json_digits(end, va_arg(args, size_t));
    }
    if (v >= 0)
        return zor_json_digits(end, static_cast<uint64_t>(v));
    char *start = zor_json_digits(end, 0 - static_cast<uint64_t>(v));
    *--start = '-';
    return start;
}

/*
 * The value `format` and `args` give, cut to 255 bytes and ending at its
 * first 0 byte, as vsnprintf into 256 bytes and a "%s" of the result would
 * show it; a formatter error gives an empty value. "%s" gives a view on the
 * argument, text without conversions a view on the format, anything else a
 * view into `out` (ZOR_JSON_VALUE_SIZE bytes).
 */
static zor_str zor_json_format(char *out, const char *format, va_list args)
{
    zor_str value;
    zor_json_int_kind kind;
    if (format[0] == '%' && format[1] == 's' && format[2] == 0) {
        value.ptr = va_arg(args, const char *);
        if (value.ptr == nullptr)
            value.ptr = "(null)";
        value.len = strnlen(value.ptr, ZOR_JSON_VALUE_MAX);
    } else if ((kind = zor_json_int_format(format)) != ZOR_JSON_NOT_INT) {
        char *end = out + ZOR_JSON_VALUE_SIZE;
        value.ptr = zor_json_integer(end, kind, args);
        value.len = static_cast<uint64_t>(end - value.ptr);
    } else if (strchr(format, '%') == nullptr) {
        value.ptr = format;
        value.len = strnlen(format, ZOR_JSON_VALUE_MAX);
    } else {
        value.ptr = out;
        value.len = vsnprintf(out, ZOR_JSON_VALUE_SIZE, format, args) < 0 ? 0 : strlen(out);
    }
    return value;
}

void zor_json_init(zor_json_ctx *ctx, zor_buffer *buffer, uint32_t indent_size, uint32_t indent)
{
    memset(ctx, 0, sizeof(*ctx));
    ctx->buffer = buffer;
    ctx->indent_size = static_cast<uint8_t>(indent_size);
    ctx->indent = static_cast<uint8_t>(indent);
}

/* Opens an object, the value of `key` when one is given. */
static void zor_json_open_obj(zor_json_ctx *ctx, const zor_str *key)
{
    zor_json_emit(ctx, [=](auto &pass) {
        zor_json_separator(pass, ctx);
        pass.spaces(ctx->indent);
        if (key != nullptr)
            zor_json_key(pass, *key, "\": {\n");
        else
            zor_json_lit(pass, "{\n");
        pass.piece();
    });
    ctx->indent = static_cast<uint8_t>(ctx->indent + ctx->indent_size);
    ctx->need_comma = 0;
}

void zor_json_start_obj(zor_json_ctx *ctx)
{
    zor_json_open_obj(ctx, nullptr);
}

void zor_json_start_obj_pair(zor_json_ctx *ctx, const char *key)
{
    const zor_str k = zor_json_text(key);
    zor_json_open_obj(ctx, &k);
}

void zor_json_end_obj(zor_json_ctx *ctx)
{
    ctx->indent = static_cast<uint8_t>(ctx->indent - ctx->indent_size);
    zor_json_emit(ctx, [=](auto &pass) {
        zor_json_lit(pass, "\n");
        pass.piece();
        pass.spaces(ctx->indent);
        zor_json_lit(pass, "}");
        pass.piece();
    });
    ctx->need_comma = 1;
}

/*
 * Opens an array, the value of `key` when one is given. The two openers
 * keep their own copies of the check because each reports its own name.
 */
static void zor_json_open_arr(zor_json_ctx *ctx, const zor_str *key, int layout)
{
    const uint32_t indent = key != nullptr || zor_json_one_per_line(ctx) ? ctx->indent : 0;
    ctx->array_types = (ctx->array_types << 1) | (layout == 1 ? 1u : 0u);
    const int per_line = zor_json_one_per_line(ctx);
    zor_json_emit(ctx, [=](auto &pass) {
        zor_json_separator(pass, ctx);
        pass.spaces(indent);
        if (key != nullptr)
            zor_json_key(pass, *key, "\": [");
        else
            zor_json_lit(pass, "[");
        pass.piece();
        zor_json_lit(pass, per_line ? "\n" : " ");
        pass.piece();
    });
    if (per_line)
        ctx->indent = static_cast<uint8_t>(ctx->indent + ctx->indent_size);
    ctx->need_comma = 0;
}

void zor_json_start_arr(zor_json_ctx *ctx, int layout)
{
    ZOR_ASSERT((ctx->array_types & 0x80000000) == 0x0);
    zor_json_open_arr(ctx, nullptr, layout);
}

void zor_json_start_arr_pair(zor_json_ctx *ctx, const char *key, int layout)
{
    ZOR_ASSERT((ctx->array_types & 0x80000000) == 0x0);
    const zor_str k = zor_json_text(key);
    zor_json_open_arr(ctx, &k, layout);
}

void zor_json_end_arr(zor_json_ctx *ctx)
{
    const int per_line = zor_json_one_per_line(ctx);
    if (per_line)
        ctx->indent = static_cast<uint8_t>(ctx->indent - ctx->indent_size);
    zor_json_emit(ctx, [=](auto &pass) {
        if (per_line) {
            zor_json_lit(pass, "\n");
            pass.piece();
            pass.spaces(ctx->indent);
        } else {
            zor_json_lit(pass, " ");
            pass.piece();
        }
        zor_json_lit(pass, "]");
        pass.piece();
    });
    ctx->array_types >>= 1;
    ctx->need_comma = 1;
}

enum { ZOR_JSON_PAIR = 1, ZOR_JSON_QUOTED = 2 };

/*
 * The four value writers: an array value or, with ZOR_JSON_PAIR, an object
 * member `key`; quoted with ZOR_JSON_QUOTED.
 */
static void zor_json_value(zor_json_ctx *ctx, int kind, const char *key, const char *format,
                           va_list args)
{
    char out[ZOR_JSON_VALUE_SIZE];
    const zor_str value = zor_json_format(out, format, args);
    const int quoted = kind & ZOR_JSON_QUOTED;
    if (kind & ZOR_JSON_PAIR) {
        const zor_str k = zor_json_text(key);
        zor_json_emit(ctx, [&](auto &pass) {
            zor_json_separator(pass, ctx);
            pass.spaces(ctx->indent);
            if (quoted) {
                zor_json_key(pass, k, "\": \"");
                zor_json_str_text(pass, value);
                zor_json_lit(pass, "\"");
            } else {
                zor_json_key(pass, k, "\": ");
                zor_json_str_text(pass, value);
            }
            pass.piece();
        });
    } else {
        const int per_line = zor_json_one_per_line(ctx);
        zor_json_emit(ctx, [&](auto &pass) {
            if (ctx->need_comma == 1) {
                zor_json_lit(pass, ",");
                pass.piece();
                zor_json_lit(pass, per_line ? "\n" : " ");
                pass.piece();
            }
            if (per_line)
                pass.spaces(ctx->indent);
            if (quoted) {
                zor_json_lit(pass, "\"");
                zor_json_str_text(pass, value);
                zor_json_lit(pass, "\"");
            } else {
                zor_json_str_text(pass, value);
            }
            pass.piece();
        });
    }
    ctx->need_comma = 1;
}

void zor_json_arr_val_quotes(zor_json_ctx *ctx, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    zor_json_value(ctx, ZOR_JSON_QUOTED, nullptr, format, args);
    va_end(args);
}

void zor_json_arr_val_noquotes(zor_json_ctx *ctx, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    zor_json_value(ctx, 0, nullptr, format, args);
    va_end(args);
}

void zor_json_pair_quotes(zor_json_ctx *ctx, const char *key, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    zor_json_value(ctx, ZOR_JSON_PAIR | ZOR_JSON_QUOTED, key, format, args);
    va_end(args);
}

void zor_json_pair_noquotes(zor_json_ctx *ctx, const char *key, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    zor_json_value(ctx, ZOR_JSON_PAIR, key, format, args);
    va_end(args);
}
