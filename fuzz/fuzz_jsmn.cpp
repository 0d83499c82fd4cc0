/*
 * The tokenizer on arbitrary input. Beyond not crashing it checks:
 *  - every token taken is filled: its kind is known, its text lies inside
 *    the input at its start offset;
 *  - parents precede their children, and a token's size is its number of
 *    children;
 *  - skip ranges nest: a string or primitive covers itself, a closed
 *    container covers exactly its descendants;
 *  - the tokens of any prefix of the input agree with those of the whole
 *    input wherever the prefix's token is complete before the cut (the
 *    tokenizer is one left-to-right pass, so a cut cannot change what came
 *    before it), up to the first error;
 *  - a reused tokenizer gives the same result again (growth is kept).
 */
#include "jsmn/jsmn.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fuzz_check.h"

namespace
{

struct Result {
    int32_t ret;
    uint32_t taken;
    std::vector<jsmn_token> tokens;
};

Result parse(jsmn_tokenizer *t, const char *text, uint64_t len)
{
    Result r;
    r.ret = jsmn_parse(t, text, len);
    r.taken = t->next_token;
    r.tokens.assign(t->tokens, t->tokens + t->next_token);
    return r;
}

/* The end of a token's text, plus the closing quote of a string. */
int64_t token_end(const jsmn_token &k)
{
    return k.start + static_cast<int64_t>(k.str.len) + (k.type == JSMN_TOK_STRING ? 1 : 0);
}

void check_tokens(const Result &r, const char *text, uint64_t len)
{
    if (r.ret < 0)
        return;
    CHECK(static_cast<uint32_t>(r.ret) <= r.taken);
    int32_t n = static_cast<int32_t>(r.taken);
    std::vector<int32_t> children(r.taken, 0);
    for (int32_t i = 0; i < n; i++) {
        const jsmn_token &k = r.tokens[i];
        CHECK(k.type >= JSMN_TOK_OBJECT && k.type <= JSMN_TOK_PRIMITIVE);
        CHECK(k.str.ptr != nullptr); /* a successful parse leaves nothing open */
        CHECK(k.str.ptr == text + k.start);
        CHECK(k.start >= 0 && static_cast<uint64_t>(k.start) + k.str.len <= len);
        CHECK(k.parent >= -1 && k.parent < i);
        if (k.parent >= 0)
            children[k.parent]++;
        if (k.type == JSMN_TOK_STRING || k.type == JSMN_TOK_PRIMITIVE) {
            CHECK(k.skip == i + 1);
        } else {
            CHECK(k.skip > i && k.skip <= n);
            CHECK(text[k.start] == (k.type == JSMN_TOK_OBJECT ? '{' : '['));
            CHECK(text[k.start + k.str.len - 1] == (k.type == JSMN_TOK_OBJECT ? '}' : ']'));
            for (int32_t j = i + 1; j < k.skip; j++) {
                CHECK(r.tokens[j].skip <= k.skip); /* nested ranges */
                CHECK(r.tokens[j].parent >= i);    /* descendants only */
                CHECK(r.tokens[j].start >= k.start);
                CHECK(token_end(r.tokens[j]) <= token_end(k));
            }
        }
    }
    for (int32_t i = 0; i < n; i++)
        CHECK(children[i] == r.tokens[i].size);
}

/* Tokens of a prefix agree with the whole input's where complete before the cut. */
void check_prefix(const Result &whole, const Result &prefix, int64_t cut)
{
    uint32_t n = whole.taken < prefix.taken ? whole.taken : prefix.taken;
    for (uint32_t i = 0; i < n; i++) {
        const jsmn_token &p = prefix.tokens[i];
        const jsmn_token &w = whole.tokens[i];
        if (p.str.ptr == nullptr || p.start < 0 || token_end(p) >= cut)
            continue; /* open, unfilled, or touching the cut */
        CHECK(p.type == w.type);
        CHECK(p.start == w.start);
        CHECK(p.str.len == w.str.len);
        CHECK(p.parent == w.parent);
        /*
         * A closed container keeps its skip, but not always its size: the
         * tokenizer does not validate structure, and in a text such as
         * `[1] : 2, 3` the comma climbs from the primitive after the colon
         * back to the closed array, which then counts 3 as a child.
         */
        if (p.type == JSMN_TOK_OBJECT || p.type == JSMN_TOK_ARRAY)
            CHECK(p.skip == w.skip);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *text = reinterpret_cast<const char *>(data);
    jsmn_token own[4];
    jsmn_tokenizer t;
    jsmn_init(&t, own, 4); /* small, so that growth happens */
    Result whole = parse(&t, text, size);
    CHECK(whole.ret >= JSMN_ERR_PARTIAL);
    check_tokens(whole, text, size);

    /* The same tokenizer again: same answer. */
    Result again = parse(&t, text, size);
    CHECK(again.ret == whole.ret && again.taken == whole.taken);
    CHECK(whole.taken == 0 ||
          memcmp(again.tokens.data(), whole.tokens.data(), whole.taken * sizeof(jsmn_token)) == 0);

    if (size > 0) {
        uint64_t cut = data[size - 1] % (size + 1);
        Result prefix = parse(&t, text, cut);
        check_tokens(prefix, text, cut);
        check_prefix(whole, prefix, static_cast<int64_t>(cut));
    }
    jsmn_destroy(&t);
    CHECK(t.tokens == own || t.tokens == nullptr);
    return 0;
}
