/* A slow reference of jsmn_parse: the documented steps one character at a time, the parent chain
 * walked on every closing bracket, growth by calloc and copy. */
#ifndef ZOR_JSMN_MODEL_H
#define ZOR_JSMN_MODEL_H

#include "jsmn/jsmn.h"

#include <stdlib.h>
#include <string.h>

namespace jsmn_model
{

/* The next token, of `type` from `start`, a child of the super token. */
inline jsmn_token *child(jsmn_tokenizer *t, jsmn_tok_type type, uint32_t start)
{
    if (t->next_token >= t->token_capacity) {
        auto *grown = static_cast<jsmn_token *>(calloc(2 * t->token_capacity, sizeof(jsmn_token)));
        memcpy(grown, t->tokens, t->token_capacity * sizeof(jsmn_token));
        if (t->tokens != t->initial_tokens)
            free(t->tokens);
        t->tokens = grown;
        t->token_capacity *= 2;
    }
    jsmn_token *tok = &t->tokens[t->next_token++];
    memset(static_cast<void *>(tok), 0, sizeof(*tok));
    tok->type = type;
    tok->start = static_cast<int32_t>(start);
    tok->parent = t->super_token;
    if (t->super_token != -1)
        t->tokens[t->super_token].size++;
    return tok;
}

/* A string or primitive from start up to end. */
inline void leaf(jsmn_tokenizer *t, jsmn_tok_type type, uint32_t start, uint32_t end)
{
    jsmn_token *tok = child(t, type, start);
    tok->str = zor_str{t->text + start, end - start};
    tok->skip = static_cast<int32_t>(t->next_token);
}

inline int32_t string(jsmn_tokenizer *t, const char *text, uint64_t len)
{
    uint32_t q = t->pos;
    for (uint32_t i = q + 1; i < len && text[i] != '\0'; i++) {
        if (text[i] == '"') {
            leaf(t, JSMN_TOK_STRING, q + 1, i);
            t->pos = i;
            return 0;
        }
        if (text[i] == '\\' && i + 1 < len) {
            i++;
            if (text[i] == 'u') {
                for (int k = 0; k < 4 && i + 1 < len && text[i + 1] != '\0'; k++) {
                    if (!strchr("0123456789ABCDEFabcdef", text[++i]))
                        return JSMN_ERR_INVALID;
                }
            } else if (text[i] == '\0' || !strchr("\"/\\bfnrt", text[i])) {
                return JSMN_ERR_INVALID;
            }
        }
    }
    return JSMN_ERR_PARTIAL;
}

inline int32_t primitive(jsmn_tokenizer *t, const char *text, uint64_t len)
{
    uint32_t i = t->pos;
    for (; i < len && text[i] != '\0' && !strchr("\t\r\n ,]}:", text[i]); i++) {
        if (text[i] < 32 || text[i] > 126)
            return JSMN_ERR_INVALID;
    }
    leaf(t, JSMN_TOK_PRIMITIVE, t->pos, i);
    t->pos = i - 1;
    return 0;
}

inline int32_t close(jsmn_tokenizer *t, jsmn_tok_type want)
{
    if (t->next_token == 0)
        return JSMN_ERR_INVALID;
    jsmn_token *tok = &t->tokens[t->next_token - 1];
    while (tok->str.ptr != nullptr) {
        if (tok->parent == -1)
            return tok->type != want || t->super_token == -1 ? JSMN_ERR_INVALID : 0;
        tok = &t->tokens[tok->parent];
    }
    if (tok->type != want)
        return JSMN_ERR_INVALID;
    tok->str = zor_str{t->text + tok->start, t->pos - static_cast<uint32_t>(tok->start) + 1};
    tok->skip = static_cast<int32_t>(t->next_token);
    t->super_token = tok->parent;
    return 0;
}

inline int32_t parse(jsmn_tokenizer *t, const char *text, uint64_t len)
{
    t->pos = t->next_token = 0;
    t->super_token = -1;
    t->text = text;
    t->text_len = len;
    for (; t->pos < len && text[t->pos] != '\0'; t->pos++) {
        char c = text[t->pos];
        int32_t r = 0;
        if (c == '{' || c == '[') {
            child(t, c == '{' ? JSMN_TOK_OBJECT : JSMN_TOK_ARRAY, t->pos);
            t->super_token = static_cast<int32_t>(t->next_token - 1);
        } else if (c == '}' || c == ']') {
            r = close(t, c == '}' ? JSMN_TOK_OBJECT : JSMN_TOK_ARRAY);
        } else if (c == '"') {
            r = string(t, text, len);
        } else if (c == ':') {
            t->super_token = static_cast<int32_t>(t->next_token) - 1;
        } else if (c == ',') {
            jsmn_tok_type type =
                t->super_token == -1 ? JSMN_TOK_OBJECT : t->tokens[t->super_token].type;
            if (type != JSMN_TOK_OBJECT && type != JSMN_TOK_ARRAY)
                t->super_token = t->tokens[t->super_token].parent;
        } else if (!strchr("\t\n\r ", c)) {
            r = primitive(t, text, len);
        }
        if (r != 0)
            return r;
    }
    for (uint32_t i = 0; i < t->next_token; i++) {
        if (t->tokens[i].str.ptr == nullptr)
            return JSMN_ERR_PARTIAL;
    }
    return static_cast<int32_t>(t->next_token);
}

} // namespace jsmn_model

#endif /* ZOR_JSMN_MODEL_H */
