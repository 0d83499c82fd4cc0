/* The JSON writer written the plain way, for tests and as the benchmark's baseline: every piece
 * of text through zor_printf, every space through zor_putc, every value through vsnprintf. */
#ifndef ZOR_JSON_REF_H
#define ZOR_JSON_REF_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <deque>
#include <random>
#include <string>

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

/* Both array openers; `key` is written when `pair` is set. */
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
__attribute__((format(printf, 5, 6))) inline void value(zor_json_ctx *c, bool pair, const char *key,
                                                        bool quotes, const char *format, ...)
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

/* A null "%s" argument shows as "(null)"; hidden from the compiler's format checks. */
inline const char *volatile null_text = nullptr;

/* Random calls: what a caller passes. */
struct Gen {
    std::mt19937_64 rng;
    std::deque<std::string> kept; /* texts stay alive until the sequence ends */

    uint32_t below(uint32_t n)
    {
        return static_cast<uint32_t>(rng() % n);
    }
    /* Mostly short; near and past the 255-byte cut; escapes anywhere, also across the cut. */
    const char *text(bool literal = false)
    {
        static const char *const parts[] = {"a", "bc", "\\\"", "\\\\",     "\\n",       "\\u00e9",
                                            "%", " ",  "x y",  "\xc3\xa9", "0123456789"};
        static const size_t lengths[] = {0, 1, 7, 30, 253, 254, 255, 256, 300};
        size_t want = below(3) ? below(24) : lengths[below(9)];
        std::string s;
        while (s.size() < want) {
            const char *p = parts[below(11)];
            s += literal && *p == '%' ? "%%" : p; /* a format without conversions */
        }
        kept.push_back(s);
        return kept.back().c_str();
    }
    /* Small, random, extreme, or next to a power of ten. */
    int64_t number()
    {
        static const int64_t edges[] = {0,          -1,        INT32_MIN, INT32_MAX,
                                        UINT32_MAX, INT64_MIN, INT64_MAX};
        int64_t p = below(2) ? 1 : -1;
        for (uint32_t e = below(19); e > 0; e--)
            p *= 10;
        uint32_t kind = below(4);
        return kind == 0   ? static_cast<int64_t>(below(2001)) - 1000
               : kind == 1 ? static_cast<int64_t>(rng())
               : kind == 2 ? edges[below(7)]
                           : p + static_cast<int64_t>(below(3)) - 1;
    }
    /* Calls `call(format, args...)` with one value of some format kind: each integer
     * conversion the writer formats by hand, and others it leaves to the formatter. */
    template <class F> void value(F call)
    {
        int64_t n = number();
        const char *const ints[] = {"%d", "%i", "%u", "%x"},
                          *wide[] = {"%ld", "%lu", "%lld", "%llu"};
        switch (below(10)) {
        case 0:
            return call("%s", below(4) ? text() : null_text);
        case 1:
            return call(wide[below(2)], static_cast<long>(n));
        case 2:
            return call(wide[2 + below(2)], static_cast<long long>(n));
        case 3:
            return call(below(2) ? "%zu" : "%zx", static_cast<size_t>(n)); /* only %zu by hand */
        case 4:
            return call(text(true), 0); /* plain text, "%%" among it */
        case 5:
            return call("%s-%d", text(), static_cast<int>(n));
        case 6:
            return call("%7.2f", static_cast<double>(n) / 7);
        case 7:
            return call("%c", static_cast<int>(below(4) ? 'A' + below(26) : 0)); /* 0 ends it */
        case 8:
            return call("%ls", L"\x100"); /* the formatter fails: an empty value */
        }
        return call(ints[below(4)], static_cast<int>(n));
    }
};

/* Both writers on the same random calls: -2 when they agree, else the step after which the contexts
 * or sizes differed, or -1 for the blocks at the end. */
inline int compare(Gen &g, int steps)
{
    static const uint32_t defaults[] = {0, 1, 2, 3, 5, 16, 64, 1024};
    zor_buffer_set_default_size(defaults[g.below(8)]);
    zor_buffer fast = {}, plain = {};
    zor_json_ctx f, p;
    uint32_t indent_size = g.below(4) ? 2 * g.below(3) : g.below(256);
    uint32_t indent = g.below(4) ? 0 : g.below(256);
    zor_json_init(&f, &fast, indent_size, indent);
    zor_json_init(&p, &plain, indent_size, indent);
    int result = -2;
    for (int step = 0; step < steps && result == -2; step++) {
        const char *key = g.below(40) ? g.text() : nullptr;
        int layout = static_cast<int>(g.below(3));
        bool pair = g.below(2), quotes = g.below(2);
        switch (g.below(6)) {
        case 0:
            pair ? zor_json_start_obj_pair(&f, key) : zor_json_start_obj(&f);
            pair ? start_obj_pair(&p, key) : start_obj(&p);
            break;
        case 1: /* the layout stack holds 32 arrays */
            if ((f.array_types & 0x80000000) == 0) {
                pair ? zor_json_start_arr_pair(&f, key, layout) : zor_json_start_arr(&f, layout);
                start_arr(&p, pair, key, layout);
            }
            break;
        case 2:
            pair ? zor_json_end_obj(&f) : zor_json_end_arr(&f);
            pair ? end_obj(&p) : end_arr(&p);
            break;
        default:
            g.value([&](const char *format, auto... args) {
                if (pair)
                    (quotes ? zor_json_pair_quotes : zor_json_pair_noquotes)(&f, key, format,
                                                                             args...);
                else
                    (quotes ? zor_json_arr_val_quotes : zor_json_arr_val_noquotes)(&f, format,
                                                                                   args...);
                value(&p, pair, key, quotes, format, args...);
            });
            break;
        }
        if (f.indent != p.indent || f.need_comma != p.need_comma ||
            f.array_types != p.array_types || fast.size != plain.size ||
            fast.block_count != plain.block_count)
            result = step;
        if (g.below(25) == 0) {
            uint64_t n = fast.size > 0 ? g.rng() % (fast.size + 1) : 0;
            zor_buffer_consume(&fast, n);
            zor_buffer_consume(&plain, n);
        }
    }
    /* The same blocks: capacities and texts, consumed bytes included. */
    zor_buffer_block *x = fast.first, *y = plain.first;
    for (; result == -2 && x != nullptr && y != nullptr; x = x->next, y = y->next) {
        if (x->total_size != y->total_size || x->size != y->size ||
            memcmp(x->data, y->data, x->size) != 0)
            result = -1;
    }
    if (result == -2 && (x != nullptr || y != nullptr))
        result = -1;
    zor_buffer_free(&fast);
    zor_buffer_free(&plain);
    return result;
}

} // namespace zor_json_ref

#endif /* ZOR_JSON_REF_H */
