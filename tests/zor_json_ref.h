/*
 * The JSON writer written the plain way, for tests and benchmarks only:
 * every piece of text goes through zor_printf, every indentation space
 * through zor_putc, every value through vsnprintf into 256 bytes. The
 * library's writer must leave the same bytes, the same blocks and the same
 * context state after every call; compare() checks that over a random call
 * sequence (used by test_json and fuzz_json).
 */
#ifndef ZOR_JSON_REF_H
#define ZOR_JSON_REF_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/uio.h>

#include <deque>
#include <string>
#include <utility>
#include <vector>

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

/* A null "%s" argument shows as "(null)"; hidden from the compiler's format checks. */
inline const char *volatile null_text = nullptr;

/*
 * Random call sequences: the texts, numbers and formats a caller passes,
 * drawn from `rng()` (a seeded generator in the tests, the input bytes
 * when fuzzing).
 */
template <class Source> struct Gen {
    Source rng;
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
    const char *key()
    {
        return below(40) ? text() : nullptr;
    }
    /* Small, huge, extreme, or next to a power of ten. */
    int64_t number()
    {
        static const int64_t edges[] = {0,          -1,        INT32_MIN, INT32_MAX,
                                        UINT32_MAX, INT64_MIN, INT64_MAX};
        switch (below(4)) {
        case 0:
            return static_cast<int64_t>(below(2001)) - 1000;
        case 1:
            return static_cast<int64_t>(rng());
        case 2:
            return edges[below(7)];
        default: {
            int64_t p = 1;
            for (uint32_t e = below(19); e > 0; e--)
                p *= 10;
            return (below(2) ? p : -p) + static_cast<int64_t>(below(3)) - 1;
        }
        }
    }
    /* Calls `call(format, args...)` with one value of some format kind. */
    template <class F> void value(F call)
    {
        int64_t n = number();
        switch (below(17)) {
        case 0:
        case 1:
            call("%s", text());
            break;
        case 2:
            call("%s", null_text);
            break;
        case 3:
            call("%d", static_cast<int>(n));
            break;
        case 4:
            call("%i", static_cast<int>(n));
            break;
        case 5:
            call("%u", static_cast<unsigned>(n));
            break;
        case 6:
            call("%ld", static_cast<long>(n));
            break;
        case 7:
            call("%lu", static_cast<unsigned long>(n));
            break;
        case 8:
            call("%lld", static_cast<long long>(n));
            break;
        case 9:
            call("%llu", static_cast<unsigned long long>(n));
            break;
        case 10:
            call("%zu", static_cast<size_t>(n));
            break;
        case 11:
            call(text(true), 0); /* plain text, "%%" among it */
            break;
        case 12:
            call("%s-%d", text(), static_cast<int>(n));
            break;
        case 13:
            call("%x", static_cast<unsigned>(n));
            break;
        case 14:
            call("%7.2f", static_cast<double>(n) / 7);
            break;
        case 15:
            call("%c", static_cast<int>(below(4) ? 'A' + below(26) : 0)); /* 0 ends the value */
            break;
        default:
            call("%ls", L"\x100"); /* the formatter fails: an empty value */
            break;
        }
    }
};

/* Every block's capacity, and its unconsumed text as zor_buffer_iovs hands it out. */
inline std::vector<std::pair<uint64_t, std::string>> blocks(zor_buffer *b)
{
    std::vector<struct iovec> v(static_cast<size_t>(b->block_count) + 1);
    int32_t n = zor_buffer_iovs(b, v.data(), static_cast<int32_t>(v.size()));
    std::vector<std::pair<uint64_t, std::string>> out;
    zor_buffer_block *blk = b->first;
    for (int32_t i = 0; i < n; i++, blk = blk->next)
        out.emplace_back(blk->total_size,
                         std::string(static_cast<const char *>(v[i].iov_base), v[i].iov_len));
    return out;
}

/*
 * Drives the library's writer and the plain one with the same `steps` random
 * calls, from a fresh context of random indentation, on buffers of one of
 * the default block sizes in `defaults` (indexed by the first draw). Returns
 * -2 when they agree: the context after every call, the blocks at the end,
 * their capacities and texts. Otherwise the step after which they differed,
 * or -1 for the blocks at the end.
 */
template <class Source> int compare(Gen<Source> &g, int steps)
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
        const char *key = g.key();
        int layout = static_cast<int>(g.below(3));
        bool room = (f.array_types & 0x80000000) == 0;
        bool quotes = g.below(2);
        switch (g.below(10)) {
        case 0:
            zor_json_start_obj(&f);
            start_obj(&p);
            break;
        case 1:
            zor_json_start_obj_pair(&f, key);
            start_obj_pair(&p, key);
            break;
        case 2:
            zor_json_end_obj(&f);
            end_obj(&p);
            break;
        case 3:
            if (room) {
                zor_json_start_arr(&f, layout);
                start_arr(&p, false, nullptr, layout);
            }
            break;
        case 4:
            if (room) {
                zor_json_start_arr_pair(&f, key, layout);
                start_arr(&p, true, key, layout);
            }
            break;
        case 5:
            zor_json_end_arr(&f);
            end_arr(&p);
            break;
        case 6:
        case 7:
            g.value([&](const char *format, auto... args) {
                if (quotes)
                    zor_json_arr_val_quotes(&f, format, args...);
                else
                    zor_json_arr_val_noquotes(&f, format, args...);
                value(&p, false, nullptr, quotes, format, args...);
            });
            break;
        default:
            g.value([&](const char *format, auto... args) {
                if (quotes)
                    zor_json_pair_quotes(&f, key, format, args...);
                else
                    zor_json_pair_noquotes(&f, key, format, args...);
                value(&p, true, key, quotes, format, args...);
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
    if (result == -2 && blocks(&fast) != blocks(&plain))
        result = -1;
    zor_buffer_free(&fast);
    zor_buffer_free(&plain);
    return result;
}

} // namespace zor_json_ref

#endif /* ZOR_JSON_REF_H */
