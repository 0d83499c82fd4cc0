/*
 * jsmn.h - a minimal JSON tokenizer.
 *
 * jsmn_parse reads a JSON text in one pass, without recursion and without
 * copying, into a flat array of tokens: one per object, array, string and
 * primitive, in the order they start. Each token carries its text as a
 * zor_str pointing into the input, its number of direct children, the index
 * of its parent and the index just past its subtree, so a caller can walk
 * the tree or step over a subtree with `skip`.
 *
 * The tokenizer validates only what it needs to find token boundaries: any
 * run of printable characters is a primitive (numbers, true, false, null,
 * but also bare words), keys need not be quoted, and a top-level text may
 * hold several values. Inside an object a value's parent is its key, and a
 * key has size 1 once its value is there.
 *
 *     jsmn_token local[64];
 *     jsmn_tokenizer t;
 *     jsmn_init(&t, local, 64);
 *     int32_t n = jsmn_parse(&t, text, len);
 *     for (int32_t i = 0; i < n; i++)
 *         use(&t.tokens[i]);          // t.tokens, not local: it may have grown
 *     jsmn_destroy(&t);
 *
 * The token array grows by itself (doubling) when a text has more tokens
 * than it holds; growth is kept for later parses. An array the tokenizer
 * allocated is freed by jsmn_destroy; the caller's own array never is.
 * Token texts point into the caller's input, which must outlive their use.
 * Token texts are exact for inputs of any length; `start` and `pos` are
 * 32-bit and hold the low 32 bits of an offset, so for inputs of 2 GiB and
 * more take offsets as str.ptr - text. A tokenizer is used by one thread
 * at a time.
 */
#ifndef ZOR_JSMN_H
#define ZOR_JSMN_H

#include <stdint.h>

#include "../zor_str.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A character or structure that cannot be tokenized. */
#define JSMN_ERR_INVALID (-1)
/* The input ends inside a string or with an object or array still open. */
#define JSMN_ERR_PARTIAL (-2)

typedef enum jsmn_tok_type {
    JSMN_TOK_UNDEFINED = 0, /* taken but never filled */
    JSMN_TOK_OBJECT = 1,
    JSMN_TOK_ARRAY = 2,
    JSMN_TOK_STRING = 3,
    JSMN_TOK_PRIMITIVE = 4 /* number, true, false, null or any other bare word */
} jsmn_tok_type;

typedef struct jsmn_token {
    jsmn_tok_type type;
    /* The text in the input: a string's bytes between the quotes, escapes not
     * decoded; a primitive's characters; an object or array from its opening
     * to its closing bracket inclusive. A null ptr marks an object or array
     * that is still open (only seen after an error). */
    zor_str str;
    int32_t start;  /* input offset of str's first byte (its low 32 bits);
                       -1 until filled */
    int32_t size;   /* direct children: keys of an object, elements of an
                       array, 1 for a key with its value, else 0 */
    int32_t parent; /* enclosing token (a member value's key); -1 at top level */
    int32_t skip;   /* index of the first token after this one and all inside
                       it (a key does not cover its value); 0 while open */
} jsmn_token;

typedef struct jsmn_tokenizer {
    uint32_t pos;               /* offset being read; after an error, where the
                                   failing token (or bracket) is */
    uint32_t next_token;        /* tokens taken so far */
    int32_t super_token;        /* token new tokens become children of, or -1 */
    const char *text;           /* the input of the last parse */
    uint64_t text_len;          /* its length */
    jsmn_token *initial_tokens; /* the caller's array given to jsmn_init, or null */
    uint32_t token_capacity;    /* tokens `tokens` holds */
    jsmn_token *tokens;         /* the array in use: read tokens through this */
} jsmn_tokenizer;

/*
 * Makes `t` ready with the caller's array of `token_count` tokens, or, when
 * `tokens` is null, with a zeroed array of `token_count` tokens that the
 * tokenizer allocates and owns. `token_count` must not be 0. Allocation
 * failure stops the process (as util_calloc does).
 */
ZOR_API void jsmn_init(jsmn_tokenizer *t, jsmn_token *tokens, uint32_t token_count);

/*
 * Tokenizes `len` bytes of `text`, stopping early at a NUL byte, into
 * t->tokens (from index 0: every parse starts afresh). Returns the number of
 * tokens, or JSMN_ERR_INVALID for an invalid escape or \u digit, a
 * non-printable byte in a primitive, or a closing bracket that matches no
 * open container; or JSMN_ERR_PARTIAL for an unterminated string or a
 * container still open at the end. After an error t->pos is the offset of
 * the failing string's opening quote, primitive's first byte or bracket,
 * and the tokens taken before it remain in t->tokens.
 */
ZOR_API int32_t jsmn_parse(jsmn_tokenizer *t, const char *text, uint64_t len);

/* Frees the token array unless it is the caller's own (then does nothing). */
ZOR_API void jsmn_destroy(jsmn_tokenizer *t);

/*
 * Copies `str` into `buf` (at least str.len bytes, not null) with the escapes
 * \/ \\ and \" replaced by the character they stand for; every other byte,
 * including other escapes such as \n or \u0041, is copied as it is. Returns
 * a view of the bytes written in `buf`; no NUL is added.
 */
ZOR_API zor_str jsmn_str_unescape(zor_str str, char *buf, uint64_t size);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_JSMN_H */
