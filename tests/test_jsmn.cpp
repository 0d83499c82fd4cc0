/*
 * JSON tokenizer: a few exact token tables, the stops, inputs past 2 GiB.
 * Everything else (results, positions, growth, every byte of the token
 * array) is compared with a plain reference by fuzz/fuzz_jsmn_diff.cpp,
 * replayed on its corpus as a test; these tables pin what that reference
 * means.
 */
#include "zor_test.h"
#include "jsmn/jsmn.h"

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#endif

/* Each token as "KIND text size parent skip", KIND one of U O A S P; open containers show
 * "(open)". */
TEST(Jsmn, TokenTables)
{
    struct {
        const char *text;
        int32_t result;
        std::vector<std::string> tokens;
    } cases[] = {
        {"{\"a\": 1, \"b\": [\"x\", \"y\"]}",
         7,
         {"O {\"a\": 1, \"b\": [\"x\", \"y\"]} 2 -1 7", "S a 1 0 2", "P 1 0 1 3", "S b 1 0 4",
          "A [\"x\", \"y\"] 2 3 7", "S x 0 4 6", "S y 0 4 7"}},
        {"[[1,[2]],{\"k\":{}}]",
         8,
         {"A [[1,[2]],{\"k\":{}}] 2 -1 8", "A [1,[2]] 2 0 5", "P 1 0 1 3", "A [2] 1 1 5",
          "P 2 0 3 5", "O {\"k\":{}} 1 0 8", "S k 1 5 7", "O {} 0 6 8"}},
        /* Tokens taken before an error or the end of the input remain. */
        {"[1, {\"k\": 2, x\x02]",
         JSMN_ERR_INVALID,
         {"A (open) 2 -1 0", "P 1 0 0 2", "O (open) 1 0 0", "S k 1 2 4", "P 2 0 3 5"}},
        {"[[1], {\"a\": [2",
         JSMN_ERR_PARTIAL,
         {"A (open) 2 -1 0", "A [1] 1 0 3", "P 1 0 1 3", "O (open) 1 0 0", "S a 1 3 5",
          "A (open) 1 4 0", "P 2 0 5 7"}},
    };
    for (const auto &c : cases) {
        jsmn_tokenizer t;
        jsmn_init(&t, nullptr, 2);
        EXPECT_EQ(jsmn_parse(&t, c.text, strlen(c.text)), c.result) << c.text;
        std::vector<std::string> got;
        for (uint32_t i = 0; i < t.next_token; i++) {
            const jsmn_token &k = t.tokens[i];
            got.push_back(std::string(1, "UOASP"[k.type]) + " " +
                          (k.str.ptr ? std::string(k.str.ptr, k.str.len) : "(open)") + " " +
                          std::to_string(k.size) + " " + std::to_string(k.parent) + " " +
                          std::to_string(k.skip));
        }
        EXPECT_EQ(got, c.tokens) << c.text;
        jsmn_destroy(&t);
    }
}

TEST(Jsmn, BrokenPreconditionsStop)
{
    jsmn_tokenizer t;
    char buf[4];
    struct {
        std::function<void()> run;
        const char *function, *text;
    } stops[] = {
        {[&] { jsmn_init(&t, nullptr, 0); }, "jsmn_init", "token_count != 0"},
        {[&] { jsmn_str_unescape(zor_str_init("12345"), buf, 4); }, "jsmn_str_unescape",
         "size >= str.len"},
        {[&] { jsmn_str_unescape(zor_str_init(""), nullptr, 0); }, "zor_str_init_len",
         "str != ((void *)0)"},
    };
    for (const auto &s : stops)
        ZOR_EXPECT_ASSERT(s.run(), s.function, s.text);
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
