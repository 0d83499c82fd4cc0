/*
 * JSON tokenizer. One pass over the input acts on each byte between
 * tokens; strings and primitives are scanned 16 bytes at a time with SSE2
 * (byte class tables finish the last few bytes and check escapes). The
 * parse keeps its working state (position, token array and capacity, next
 * token, super token, innermost open container) in locals and stores it
 * back into the tokenizer on every way out, so that t->pos tells where an
 * error was found.
 *
 * Every open container lies on the parent chain of the last token taken,
 * so a closing bracket always closes the innermost one. Open containers
 * are chained through their skip fields (0 again on every error way out),
 * and one still open at the end means the input was cut short.
 *
 * Positions are 64-bit and every text view is made from them, so views are
 * exact for inputs of any length; the 32-bit fields `start` and `pos` keep
 * an offset's low 32 bits.
 */
#include "jsmn.h"

#include <string.h>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "zor_layout.h"

ZOR_LAYOUT(jsmn_token, 36, type, str, start, size, parent, skip);
ZOR_LAYOUT(jsmn_tokenizer, 48, pos, next_token, super_token, text, text_len, initial_tokens,
           token_capacity, tokens);

namespace
{

/* Byte classes inside a primitive. */
enum : uint8_t { PRIM_PART = 0, PRIM_END = 1, PRIM_BAD = 2 };
/* Byte classes inside a string. */
enum : uint8_t { STR_PART = 0, STR_QUOTE = 1, STR_ESCAPE = 2, STR_NUL = 3 };

struct jsmn_tables {
    uint8_t prim[256];
    uint8_t str[256];
    uint8_t hex[256];
    uint8_t bare[256];  /* 1 where a byte between tokens starts a primitive */
    uint8_t space[256]; /* 1 for tab, line feed, carriage return and space */
    constexpr jsmn_tables() : prim(), str(), hex(), bare(), space()
    {
        for (int c = 0; c < 256; c++) {
            prim[c] = (c < 32 || c > 126) ? PRIM_BAD : PRIM_PART;
            hex[c] = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
        }
        /* The end of a primitive: white space, separators, closing brackets
         * and a NUL (which also ends the input). */
        const char ends[] = {'\t', '\r', '\n', ' ', ',', ']', '}', ':', '\0'};
        for (char c : ends)
            prim[static_cast<uint8_t>(c)] = PRIM_END;
        str[static_cast<uint8_t>('"')] = STR_QUOTE;
        str[static_cast<uint8_t>('\\')] = STR_ESCAPE;
        str[0] = STR_NUL;
        for (int c = 0; c < 256; c++)
            bare[c] = 1;
        const char structure[] = {'\0', '\t', '\n', '\r', ' ', '{', '[', '}', ']', '"', ':', ','};
        for (char c : structure)
            bare[static_cast<uint8_t>(c)] = 0;
        space[static_cast<uint8_t>('\t')] = space[static_cast<uint8_t>('\n')] = 1;
        space[static_cast<uint8_t>('\r')] = space[static_cast<uint8_t>(' ')] = 1;
    }
};
constexpr jsmn_tables tables;

/* A text view of n bytes at p (n may exceed what zor_str_init_len takes). */
inline zor_str jsmn_text(const char *p, uint64_t n)
{
    zor_str s = zor_str_init_len(p, 0);
    s.len = n;
    return s;
}

/*
 * Doubles the full token array, keeping its tokens. The caller's array is
 * copied into a new one; the tokenizer's own is resized in place where the
 * allocator can. The new half is left unwritten: every token taken is
 * written whole, and jsmn_parse zeroes what is left untaken when it ends,
 * so the array reads as if it had been zero-filled.
 */
__attribute__((noinline)) jsmn_token *jsmn_tokens_grow(jsmn_tokenizer *t)
{
    uint64_t bytes = uint64_t(t->token_capacity) * sizeof(jsmn_token);
    void *grown;
    if (t->tokens == t->initial_tokens) {
        grown = malloc(2 * bytes);
        if (grown != nullptr)
            memcpy(grown, t->tokens, bytes);
    } else {
        grown = realloc(t->tokens, 2 * bytes);
    }
    ZOR_ASSERT(grown != ZOR_NULL);
    t->tokens = static_cast<jsmn_token *>(grown);
    t->token_capacity *= 2;
    return t->tokens;
}

/* Skips white space from i: the offset of the first other byte, or len.
 * Runs are read 16 bytes at a time while whole groups fit in the input. */
inline uint64_t jsmn_skip_space(const char *text, uint64_t len, uint64_t i)
{
    if (i < len && !tables.space[static_cast<unsigned char>(text[i])])
        return i; /* a run of one byte, the usual case inside a line */
#ifdef __SSE2__
    const __m128i sp = _mm_set1_epi8(' '), lf = _mm_set1_epi8('\n');
    const __m128i tab = _mm_set1_epi8('\t'), cr = _mm_set1_epi8('\r');
    for (; i + 16 <= len; i += 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(text + i));
        __m128i ws = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, sp), _mm_cmpeq_epi8(v, lf)),
                                  _mm_or_si128(_mm_cmpeq_epi8(v, tab), _mm_cmpeq_epi8(v, cr)));
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(ws));
        if (mask != 0xFFFF)
            return i + static_cast<unsigned>(__builtin_ctz(~mask));
    }
#endif
    while (i < len && tables.space[static_cast<unsigned char>(text[i])])
        i++;
    return i;
}

/*
 * Skips the ordinary bytes of a primitive 16 at a time: returns the offset
 * of the first byte at or after `i` outside 33..126 or one of , ] } :
 * (white space, NUL, bad bytes and separators). Only whole 16-byte groups
 * inside the input are read; the scalar loop finishes the rest.
 */
#ifdef __SSE2__
inline uint64_t jsmn_skip_primitive_bytes(const char *text, uint64_t len, uint64_t i)
{
    const __m128i space = _mm_set1_epi8(32), del = _mm_set1_epi8(127);
    const __m128i comma = _mm_set1_epi8(','), colon = _mm_set1_epi8(':');
    const __m128i bracket = _mm_set1_epi8(']'), brace = _mm_set1_epi8('}');
    for (; i + 16 <= len; i += 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(text + i));
        /* As signed bytes, 33..126 are above 32 except 127; 128..255 are
         * negative. */
        __m128i ordinary = _mm_andnot_si128(_mm_cmpeq_epi8(v, del), _mm_cmpgt_epi8(v, space));
        __m128i sep =
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, comma), _mm_cmpeq_epi8(v, colon)),
                         _mm_or_si128(_mm_cmpeq_epi8(v, bracket), _mm_cmpeq_epi8(v, brace)));
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_andnot_si128(sep, ordinary)));
        if (mask != 0xFFFF)
            return i + static_cast<unsigned>(__builtin_ctz(~mask));
    }
    return i;
}
#else
inline uint64_t jsmn_skip_primitive_bytes(const char *, uint64_t, uint64_t i)
{
    return i;
}
#endif

/*
 * Scans a string from *i (just after the opening quote) to its closing
 * quote, left in *i. Returns 0, or the error for an invalid escape or an
 * input that ends (or reaches a NUL) first.
 */
__attribute__((always_inline)) inline int32_t jsmn_scan_string(const char *text, uint64_t len,
                                                               uint64_t &i)
{
    for (;;) {
        bool stop = false; /* text[i] is a quote, backslash or NUL */
#ifdef __SSE2__
        const __m128i quote = _mm_set1_epi8('"'), escape = _mm_set1_epi8('\\');
        const __m128i zero = _mm_setzero_si128();
        while (i + 16 <= len) {
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(text + i));
            unsigned q = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, quote)));
            unsigned e = static_cast<unsigned>(_mm_movemask_epi8(
                _mm_or_si128(_mm_cmpeq_epi8(v, escape), _mm_cmpeq_epi8(v, zero))));
            unsigned any = q | e;
            if (any != 0) {
                i += static_cast<unsigned>(__builtin_ctz(any));
                /* The usual end: the first stop is the closing quote. */
                if ((any & (0u - any) & q) != 0)
                    return 0;
                stop = true;
                break;
            }
            i += 16;
        }
#endif
        if (!stop) {
            for (;; i++) {
                if (i >= len)
                    return JSMN_ERR_PARTIAL;
                uint8_t cls = tables.str[static_cast<unsigned char>(text[i])];
                if (cls == STR_QUOTE)
                    return 0;
                if (cls != STR_PART)
                    break;
            }
        }
        if (text[i] == '\0')
            return JSMN_ERR_PARTIAL;
        /* A backslash. As the last byte it is part of a string that is cut. */
        if (i + 1 >= len)
            return JSMN_ERR_PARTIAL;
        i++;
        switch (text[i]) {
        case '"':
        case '/':
        case '\\':
        case 'b':
        case 'f':
        case 'n':
        case 'r':
        case 't':
            i++;
            break;
        case 'u':
            /* Up to four hex digits; the end of the input or a NUL may cut
             * them short, and the string then ends unterminated. */
            i++;
            for (int k = 0; k < 4 && i < len && text[i] != '\0'; k++, i++) {
                if (!tables.hex[static_cast<unsigned char>(text[i])])
                    return JSMN_ERR_INVALID;
            }
            break;
        default:
            return JSMN_ERR_INVALID;
        }
    }
}

} // namespace

void jsmn_init(jsmn_tokenizer *t, jsmn_token *tokens, uint32_t token_count)
{
    ZOR_ASSERT(token_count != 0);
    t->pos = 0;
    t->next_token = 0;
    t->super_token = -1;
    t->text = nullptr;
    t->text_len = 0;
    t->initial_tokens = tokens;
    t->token_capacity = token_count;
    if (tokens == nullptr)
        tokens = static_cast<jsmn_token *>(util_calloc(uint64_t(token_count) * sizeof(jsmn_token)));
    t->tokens = tokens;
}

void jsmn_destroy(jsmn_tokenizer *t)
{
    if (t->tokens == t->initial_tokens)
        return;
    free(t->tokens);
    t->tokens = nullptr;
}

/* Stores a whole token in one sequence (padding included, as a zeroed
 * token would have it). */
static inline void jsmn_token_put(jsmn_token *tok, jsmn_tok_type type, const char *ptr,
                                  uint64_t len, uint64_t start, int32_t parent, int32_t skip)
{
    tok->type = type;
    memset(reinterpret_cast<char *>(tok) + sizeof(tok->type), 0,
           offsetof(jsmn_token, str) - sizeof(tok->type));
    tok->str.ptr = ptr;
    tok->str.len = len;
    tok->start = static_cast<int32_t>(start); /* the offset's low 32 bits */
    tok->size = 0;
    tok->parent = parent;
    tok->skip = skip;
}

int32_t jsmn_parse(jsmn_tokenizer *t, const char *text, uint64_t len)
{
    t->text = text;
    t->text_len = len;
    jsmn_token *tokens = t->tokens;
    uint32_t capacity = t->token_capacity;
    const uint32_t capacity0 = capacity;
    uint32_t next = 0;
    int32_t super = -1;
    /* The innermost open container, -1 when none is open. Every open
     * container lies on the parent chain of the last token taken, so a
     * closing bracket always closes this one. While a container is open its
     * skip field links to the next open container out and its str.len holds
     * its 64-bit start offset; both are 0 again on every error way out. */
    int32_t cur = -1;
    /* The last token's top-level ancestor: the newest token taken with no
     * parent (a token's parent is always on the parent chain of the token
     * before it). A closing bracket with no container open checks it. */
    int32_t top = -1;
    uint64_t pos = 0;
    uint64_t i;
    unsigned char c;
    jsmn_token *tok;
    int32_t result;

    /* Takes the next token as a child of `super`: grows the array when it
     * is full and counts the child. The caller fills the token. */
    auto take = [&]() __attribute__((always_inline))->jsmn_token *
    {
        if (__builtin_expect(next >= capacity, 0)) {
            tokens = jsmn_tokens_grow(t);
            capacity = t->token_capacity;
        }
        if (super != -1)
            tokens[super].size++;
        else
            top = static_cast<int32_t>(next);
        return &tokens[next++];
    };

    /*
     * Every byte between tokens is acted on the same way wherever it
     * appears; what differs between the entry points below is only the
     * order in which the likely bytes are tested. After "{" or a comma in
     * an object a key is likely, then a colon; after a colon, "[" or a
     * comma in an array a value; after a value a comma or closing bracket.
     * Separate tests at separate places predict far better than one jump
     * table. White space (after a key's colon a single space is stepped
     * over at once) goes through the jump table, and its whole run is then
     * skipped 16 bytes at a time.
     */
key:
    if (__builtin_expect(pos >= len, 0))
        goto done;
    c = static_cast<unsigned char>(text[pos]);
    if (__builtin_expect(c == '"', 1))
        goto string;
    if (tables.space[c]) {
        pos = jsmn_skip_space(text, len, pos + 1);
        goto key;
    }
    goto value;

value:
    if (__builtin_expect(pos >= len, 0))
        goto done;
    c = static_cast<unsigned char>(text[pos]);
    if (c == '"')
        goto string;
    if (tables.bare[c])
        goto primitive;
    if (c == '{' || c == '[')
        goto open;
    goto any;

after:
    if (__builtin_expect(pos >= len, 0))
        goto done;
    c = static_cast<unsigned char>(text[pos]);
    if (c == ',')
        goto comma;
    if (c == '}' || c == ']')
        goto close;
    if (c == ':')
        goto colon;
    goto any;

any:
    switch (c) {
    case '\0':
        goto done;
    case '\t':
    case '\n':
    case '\r':
    case ' ':
        pos = jsmn_skip_space(text, len, pos + 1);
        goto value;
    case '{':
    case '[':
        goto open;
    case '}':
    case ']':
        goto close;
    case '"':
        goto string;
    case ':':
        goto colon;
    case ',':
        goto comma;
    default:
        goto primitive;
    }

open:
    tok = take();
    jsmn_token_put(tok, c == '{' ? JSMN_TOK_OBJECT : JSMN_TOK_ARRAY, nullptr, pos, pos, super, cur);
    super = cur = static_cast<int32_t>(next - 1);
    pos++;
    if (c == '{')
        goto key;
    goto value;

close:
    if (__builtin_expect(cur == -1, 0)) {
        /* Nothing open: ignored after a complete top-level value of the
         * same kind with a super token set (by ":"), else an error. */
        if (next == 0 || tokens[top].type != (c == '}' ? JSMN_TOK_OBJECT : JSMN_TOK_ARRAY) ||
            super == -1) {
            result = JSMN_ERR_INVALID;
            goto fail;
        }
        pos++;
        goto after;
    }
    tok = &tokens[cur];
    if (__builtin_expect(tok->type != (c == '}' ? JSMN_TOK_OBJECT : JSMN_TOK_ARRAY), 0)) {
        result = JSMN_ERR_INVALID;
        goto fail;
    }
    tok->str = jsmn_text(text + tok->str.len, pos - tok->str.len + 1);
    cur = tok->skip;
    tok->skip = static_cast<int32_t>(next);
    super = tok->parent;
    pos++;
    goto after;

string:
    i = pos + 1;
    result = jsmn_scan_string(text, len, i);
    if (__builtin_expect(result != 0, 0))
        goto fail; /* pos stays on the opening quote */
    tok = take();
    jsmn_token_put(tok, JSMN_TOK_STRING, text + pos + 1, i - pos - 1, pos + 1, super,
                   static_cast<int32_t>(next));
    pos = i + 1;
    /* A key's colon, straight away. */
    if (pos < len && text[pos] == ':')
        goto colon;
    goto after;

colon:
    super = static_cast<int32_t>(next) - 1;
    pos++;
    /* Usually a space follows; step over it here. */
    if (pos < len && text[pos] == ' ')
        pos++;
    goto value;

comma:
    pos++;
    if (super == -1)
        goto value;
    tok = &tokens[super];
    if (tok->type == JSMN_TOK_ARRAY)
        goto value;
    if (tok->type != JSMN_TOK_OBJECT) {
        /* Past a member value: from its key back to the object. */
        super = tok->parent;
        if (super == -1 || tokens[super].type != JSMN_TOK_OBJECT)
            goto value;
    }
    goto key;

primitive:
    i = jsmn_skip_primitive_bytes(text, len, pos);
    for (; i < len; i++) {
        uint8_t cls = tables.prim[static_cast<unsigned char>(text[i])];
        if (cls == PRIM_PART)
            continue;
        if (__builtin_expect(cls == PRIM_END, 1))
            break;
        result = JSMN_ERR_INVALID;
        goto fail;
    }
    tok = take();
    jsmn_token_put(tok, JSMN_TOK_PRIMITIVE, text + pos, i - pos, pos, super,
                   static_cast<int32_t>(next));
    pos = i;
    goto after;

done:
    if (__builtin_expect(cur == -1, 1)) {
        result = static_cast<int32_t>(next);
        goto out;
    }
    result = JSMN_ERR_PARTIAL;
fail:
    /* Open containers show no text and a skip of 0. */
    while (cur != -1) {
        tok = &tokens[cur];
        cur = tok->skip;
        tok->skip = 0;
        tok->str.len = 0;
    }
out:
    /* Grown arrays are not zero-filled: clear what was not taken. */
    if (capacity != capacity0)
        memset(static_cast<void *>(tokens + next), 0,
               uint64_t(capacity - next) * sizeof(jsmn_token));
    t->pos = static_cast<uint32_t>(pos);
    t->next_token = next;
    t->super_token = super;
    return result;
}

zor_str jsmn_str_unescape(zor_str str, char *buf, uint64_t size)
{
    ZOR_ASSERT(size >= str.len);
    zor_str out = zor_str_init_len(buf, 0);
    uint64_t n = 0;
    for (uint64_t i = 0; i < str.len; i++) {
        char c = str.ptr[i];
        if (c == '\\' && i + 1 < str.len) {
            char e = str.ptr[i + 1];
            if (e == '/' || e == '\\' || e == '"') {
                c = e;
                i++;
            }
        }
        buf[n++] = c;
    }
    out.len = n;
    return out;
}
