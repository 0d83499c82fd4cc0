/* The tokenizer against jsmn_model.h on the whole text, a cut of it (byte 1), the whole again,
 * from a starting capacity and an array of the caller's or not (byte 0): the same result, state
 * and bytes of the whole token array after each; on success also a well-formed tree (texts in the
 * input, parents first, sizes that count children, skips that cover the descendants), which the
 * model alone would not show if both misread a step. */
#include "jsmn_model.h"

#include <stdint.h>
#include <string.h>

#include <vector>

#include "fuzz_check.h"

static void check_tree(const jsmn_tokenizer &t, int32_t n, const char *text, uint64_t len)
{
    std::vector<int32_t> children(n > 0 ? n : 0, 0);
    for (int32_t i = 0; i < n; i++) {
        const jsmn_token &k = t.tokens[i];
        CHECK(k.str.ptr == text + k.start && k.start + k.str.len <= len);
        CHECK(k.parent >= -1 && k.parent < i);
        if (k.parent >= 0)
            children[k.parent]++;
        bool leaf = k.type == JSMN_TOK_STRING || k.type == JSMN_TOK_PRIMITIVE;
        CHECK(leaf ? k.skip == i + 1 : k.skip > i && k.skip <= n);
        for (int32_t j = i + 1; j < k.skip; j++)
            CHECK(t.tokens[j].parent >= i && t.tokens[j].skip <= k.skip);
    }
    for (int32_t i = 0; i < n; i++)
        CHECK(children[i] == t.tokens[i].size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    uint32_t capacity = 1 + data[0] % 8;
    bool own = data[0] & 8;
    /* An exact-size copy lets memory checkers see any read past the text. */
    std::vector<char> text(data + 2, data + size);
    uint64_t len = text.size(), cut = data[1] % (len + 1);
    const char *ptr = text.data();

    jsmn_token given[2][8];
    memset(static_cast<void *>(given), 0x5a, sizeof(given)); /* not what a parse writes */
    jsmn_tokenizer real, model;
    jsmn_init(&real, own ? given[0] : nullptr, capacity);
    jsmn_init(&model, own ? given[1] : nullptr, capacity);
    for (uint64_t n : {len, cut, len}) {
        int32_t got = jsmn_parse(&real, ptr, n);
        CHECK(got == jsmn_model::parse(&model, ptr, n));
        CHECK(real.pos == model.pos);
        CHECK(real.next_token == model.next_token);
        CHECK(real.super_token == model.super_token);
        CHECK(real.text == ptr && real.text_len == n);
        CHECK(real.token_capacity == model.token_capacity);
        CHECK((real.tokens == real.initial_tokens) == (model.tokens == model.initial_tokens));
        CHECK(memcmp(real.tokens, model.tokens, real.token_capacity * sizeof(jsmn_token)) == 0);
        if (got >= 0)
            check_tree(real, got, ptr, n);
    }
    /* Destroying frees only the tokenizer's own array. */
    jsmn_token *kept = real.tokens == real.initial_tokens ? real.tokens : nullptr;
    jsmn_destroy(&real);
    CHECK(real.tokens == kept);
    jsmn_destroy(&model);
    return 0;
}
