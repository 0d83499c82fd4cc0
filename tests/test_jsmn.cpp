/*
 * JSON tokenizer: token tables, error codes and positions, unescape, inputs
 * past 2 GiB. Growth, ownership and everything else the parse leaves behind
 * are compared with a plain reference by fuzz/fuzz_jsmn_diff.cpp, replayed
 * on its corpus as a test.
 */
#include "zor_test.h"
#include "jsmn/jsmn.h"

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#endif

namespace
{

/* One token as "KIND text size parent skip", KIND one of U O A S P. */
std::string show(const jsmn_token &tok)
{
    std::string text = tok.str.ptr ? std::string(tok.str.ptr, tok.str.len) : "(open)";
    return std::string(1, "UOASP"[tok.type]) + " " + text + " " + std::to_string(tok.size) + " " +
           std::to_string(tok.parent) + " " + std::to_string(tok.skip);
}

struct parsed {
    int32_t result;
    uint32_t pos;
    std::vector<std::string> tokens;
};

/* Tokenizes `text` (its whole length, NULs included) with room for 4 tokens. */
parsed tokenize(const std::string &text)
{
    jsmn_token local[4];
    jsmn_tokenizer t;
    jsmn_init(&t, local, 4);
    parsed out;
    out.result = jsmn_parse(&t, text.data(), text.size());
    out.pos = t.pos;
    for (uint32_t i = 0; i < t.next_token; i++)
        out.tokens.push_back(show(t.tokens[i]));
    jsmn_destroy(&t);
    return out;
}

using strings = std::vector<std::string>;

} // namespace

TEST(Jsmn, TokenTables)
{
    parsed p = tokenize("{\"a\": 1, \"b\": [\"x\", \"y\"]}");
    EXPECT_EQ(p.result, 7);
    EXPECT_EQ(p.tokens,
              strings({"O {\"a\": 1, \"b\": [\"x\", \"y\"]} 2 -1 7", "S a 1 0 2", "P 1 0 1 3",
                       "S b 1 0 4", "A [\"x\", \"y\"] 2 3 7", "S x 0 4 6", "S y 0 4 7"}));

    /* Nesting with empty containers; a key's value may be an object. */
    p = tokenize("[[1,[2]],{\"k\":{}}]");
    EXPECT_EQ(p.result, 8);
    EXPECT_EQ(p.tokens, strings({"A [[1,[2]],{\"k\":{}}] 2 -1 8", "A [1,[2]] 2 0 5", "P 1 0 1 3",
                                 "A [2] 1 1 5", "P 2 0 3 5", "O {\"k\":{}} 1 0 8", "S k 1 5 7",
                                 "O {} 0 6 8"}));

    /* Unquoted keys; several top-level values; escapes and odd bytes kept
     * in strings; a NUL ends the input. */
    p = tokenize("{a: tru}");
    EXPECT_EQ(p.tokens, strings({"O {a: tru} 1 -1 3", "P a 1 0 2", "P tru 0 1 3"}));
    p = tokenize(std::string("1 \"s\\\"\x01\x80\" [] {}\0[", 17));
    EXPECT_EQ(p.result, 4);
    EXPECT_EQ(p.tokens,
              strings({"P 1 0 -1 1", "S s\\\"\x01\x80 0 -1 2", "A [] 0 -1 3", "O {} 0 -1 4"}));
    EXPECT_EQ(p.pos, 15u); /* stopped at the NUL */
    EXPECT_EQ(tokenize("").result, 0);
    EXPECT_EQ(tokenize(std::string("\0[", 2)).result, 0);
    EXPECT_EQ(tokenize("\"\\u00e9\\n\"").tokens, strings({"S \\u00e9\\n 0 -1 1"}));
    std::string word(17, 'w'), prim = word + "\x7e" + word;
    EXPECT_EQ(tokenize("{" + prim + ":\"" + word + "\\/" + word + "\"}").tokens,
              strings({"O {" + prim + ":\"" + word + "\\/" + word + "\"} 1 -1 3",
                       "P " + prim + " 1 0 2", "S " + word + "\\/" + word + " 0 1 3"}));
}

TEST(Jsmn, ErrorsAndPositions)
{
    struct {
        std::string text;
        int32_t result;
        uint32_t pos;
    } cases[] = {
        {"]", JSMN_ERR_INVALID, 0},            /* no token before it */
        {"  }", JSMN_ERR_INVALID, 2},          /* likewise */
        {"[1}", JSMN_ERR_INVALID, 2},          /* kind mismatch */
        {"{\"a\": [1}", JSMN_ERR_INVALID, 8},  /* innermost is the array */
        {"[1] ]", JSMN_ERR_INVALID, 4},        /* stray at top level */
        {"{} ]", JSMN_ERR_INVALID, 3},         /* stray, other kind */
        {"[\"a\\q\"]", JSMN_ERR_INVALID, 1},   /* bad escape */
        {"[\"\\u123\"]", JSMN_ERR_INVALID, 1}, /* three hex digits */
        {"\"\\u12G4\"", JSMN_ERR_INVALID, 0},  /* non-hex digit */
        {"[\"\\u123", JSMN_ERR_PARTIAL, 1},    /* cut after three digits */
        {"x \"abc", JSMN_ERR_PARTIAL, 2},      /* unterminated */
        {"\"ab\\", JSMN_ERR_PARTIAL, 0},       /* lone backslash last */
        {std::string("\"a\0\"", 4), JSMN_ERR_PARTIAL, 0},
        {std::string("\"a\\\0\"", 5), JSMN_ERR_INVALID, 0},
        {"[1, a\001b]", JSMN_ERR_INVALID, 4}, /* control byte */
        {"tru\200e", JSMN_ERR_INVALID, 0},    /* byte above 126 */
        {"x\x7f", JSMN_ERR_INVALID, 0},
        {"{\"a\": [1, 2]", JSMN_ERR_PARTIAL, 12}, /* container left open */
        /* The same past 16 bytes of ordinary text (scanned in groups). */
        {"[\"" + std::string(20, 'a') + "\\q\"]", JSMN_ERR_INVALID, 1},
        {"[" + std::string(20, 'b') + "\x01" + std::string(20, 'b') + "]", JSMN_ERR_INVALID, 1},
        {"\"" + std::string(30, 'c') + std::string("\0\"", 2), JSMN_ERR_PARTIAL, 0},
        {"\"" + std::string(40, 'd'), JSMN_ERR_PARTIAL, 0},
        {"1, " + std::string(20, 'e') + "\x80", JSMN_ERR_INVALID, 3},
    };
    for (const auto &c : cases) {
        parsed p = tokenize(c.text);
        EXPECT_EQ(p.result, c.result) << c.text;
        EXPECT_EQ(p.pos, c.pos) << c.text;
    }

    /* Tokens taken before an error remain; open containers have no text. */
    parsed p = tokenize("[1, {\"k\": 2, x\x02]");
    EXPECT_EQ(p.result, JSMN_ERR_INVALID);
    EXPECT_EQ(p.tokens, strings({"A (open) 2 -1 0", "P 1 0 0 2", "O (open) 1 0 0", "S k 1 2 4",
                                 "P 2 0 3 5"}));
    /* The same when the input ends with containers open, one closed between. */
    p = tokenize("[[1], {\"a\": [2");
    EXPECT_EQ(p.result, JSMN_ERR_PARTIAL);
    EXPECT_EQ(p.tokens, strings({"A (open) 2 -1 0", "A [1] 1 0 3", "P 1 0 1 3", "O (open) 1 0 0",
                                 "S a 1 3 5", "A (open) 1 4 0", "P 2 0 5 7"}));

    /* A bracket after a complete top-level value, with a super token set
     * by ":", is ignored. */
    EXPECT_EQ(tokenize("[1] :]").result, 2);
}

TEST(Jsmn, Unescape)
{
    char buf[16];
    zor_str out = jsmn_str_unescape(zor_str_init("a\\\"b\\nc"), buf, sizeof(buf));
    EXPECT_EQ(out.ptr, buf);
    EXPECT_EQ(std::string(out.ptr, out.len), "a\"b\\nc");
    out = jsmn_str_unescape(zor_str_init("\\/\\\\\\"), buf, 5);
    EXPECT_EQ(std::string(out.ptr, out.len), "/\\\\");
    out = jsmn_str_unescape(zor_str_init(""), buf, 0);
    EXPECT_EQ(out.len, 0u);
}

TEST(Jsmn, BrokenPreconditionsStop)
{
    jsmn_tokenizer t;
    ZOR_EXPECT_ASSERT(jsmn_init(&t, nullptr, 0), "jsmn_init", "token_count != 0");
    char buf[4];
    ZOR_EXPECT_ASSERT(jsmn_str_unescape(zor_str_init("12345"), buf, 4), "jsmn_str_unescape",
                      "size >= str.len");
    ZOR_EXPECT_ASSERT(jsmn_str_unescape(zor_str_init(""), nullptr, 0), "zor_str_init_len",
                      "str != ((void *)0)");
}

/* Containers that open past 2 GiB get exact texts. The 2 GiB of spaces in
 * front are one 1 MiB block of shared memory mapped 2048 times. */
TEST(Jsmn, InputPast2GiB)
{
    if (RUNNING_ON_VALGRIND)
        GTEST_SKIP() << "too slow under valgrind";
    const uint64_t block = 1 << 20, blocks = 2048, far = block * blocks;
    const char doc[] = "[\"a\", {\"k\": [1, 22]}]";
    int fd = memfd_create("jsmn-spaces", 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, block), 0);
    char *base = static_cast<char *>(
        mmap(nullptr, far + block, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(base, MAP_FAILED);
    for (uint64_t k = 0; k < blocks; k++)
        ASSERT_NE(
            mmap(base + k * block, block, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0),
            MAP_FAILED);
    close(fd);
    memset(base, ' ', block);
    memcpy(base + far, doc, sizeof(doc) - 1);

    jsmn_tokenizer t;
    jsmn_init(&t, nullptr, 4);
    EXPECT_EQ(jsmn_parse(&t, base, far + sizeof(doc) - 1), 7);
    const char *texts[] = {doc, "a", "{\"k\": [1, 22]}", "k", "[1, 22]", "1", "22"};
    for (int i = 0; i < 7; i++) {
        const jsmn_token &k = t.tokens[i];
        ASSERT_EQ(k.str.ptr, base + far + (strstr(doc, texts[i]) - doc)) << i;
        ASSERT_EQ(k.str.len, strlen(texts[i])) << i;
        EXPECT_EQ(static_cast<uint32_t>(k.start), static_cast<uint32_t>(k.str.ptr - base));
    }
    EXPECT_EQ(t.pos, static_cast<uint32_t>(far + sizeof(doc) - 1));
    /* Cut inside: the open containers still show no text. */
    EXPECT_EQ(jsmn_parse(&t, base, far + 10), JSMN_ERR_PARTIAL);
    EXPECT_EQ(t.tokens[0].str.ptr, nullptr);
    EXPECT_EQ(t.tokens[0].str.len, 0u);
    EXPECT_EQ(t.tokens[0].skip, 0);
    jsmn_destroy(&t);
    munmap(base, far + block);
}
