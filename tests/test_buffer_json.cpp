/* Output buffer, JSON writer and tokenizer: every stop, output's retry after a signal and its
 * failures, the writer against zor_json_ref.h. The buffer's contents and the tokens are checked
 * against models by fuzz_buffer and fuzz_jsmn_diff, replayed on their corpora. */
#include "zor_test.h"
#include "jsmn/jsmn.h"
#include "zor_json.h"
#include "zor_json_ref.h"
#include "zor_platform.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <string>

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#endif

static int drain_fd = -1;

TEST(Buffer, OutputRetriesAfterSignalAndStopsAfterAFailedChunk)
{
    /* Fill a pipe of one page, then block in write until a signal handler (installed without
     * SA_RESTART) empties it: write fails with EINTR once, and pk_write must try again. */
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    int cap = fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(sysconf(_SC_PAGESIZE)));
    ASSERT_GT(cap, 0);
    std::string first(cap, 'a'), second(100, 'b'), third(cap + 10, 'c'), got(cap + 1, 0);
    ASSERT_EQ(write(fds[1], first.data(), first.size()), cap);
    drain_fd = fds[0];
    ASSERT_EQ(fcntl(fds[0], F_SETFL, O_NONBLOCK), 0);
    struct sigaction sa = {}, old;
    sa.sa_handler = [](int) {
        char sink[65536];
        while (read(drain_fd, sink, sizeof(sink)) > 0) {
        }
    };
    sigaction(SIGALRM, &sa, &old);
    struct itimerval timer = {};
    timer.it_value.tv_usec = 20000;
    setitimer(ITIMER_REAL, &timer, nullptr);
    EXPECT_EQ(pk_write(fds[1], first.data(), first.size()), 0);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(read(fds[0], &got[0], got.size()), cap);

    /* Without blocking: the first full page goes through, the next write fails with EAGAIN and
     * only that chunk is lost. */
    ASSERT_EQ(fcntl(fds[1], F_SETFL, O_NONBLOCK), 0);
    zor_buffer b = {};
    zor_buffer_set_default_size(cap + 1);
    zor_write(&b, first.data(), first.size());
    zor_write(&b, second.data(), second.size());
    zor_write(&b, third.data(), third.size());
    zor_buffer_output(&b, fds[1]);
    EXPECT_EQ(b.size, third.size());
    EXPECT_EQ(b.first->data, third);
    EXPECT_EQ(read(fds[0], &got[0], got.size()), cap);
    zor_buffer_free(&b);
    zor_buffer_set_default_size(1024);
    close(fds[0]);
    close(fds[1]);
}

/* Each stop; `run` gets a buffer holding "abc" and may break it before it calls. */
TEST(BufferAndJson, BrokenPreconditionsStop)
{
    zor_buffer b = {};
    struct iovec v;
    jsmn_tokenizer t;
    char text[4];
    zor_json_ctx j;
    using B = zor_buffer &;
    /* Fills a writer's layout stack: 32 arrays. */
    auto full = [&](B x) {
        zor_json_init(&j, &x, 2, 0);
        for (int i = 0; i < 32; i++)
            zor_json_start_arr(&j, i == 0);
    };
    struct {
        std::function<void(B)> run;
        const char *function, *text;
    } stops[] = {
        {[](B x) { zor_buffer_consume(&x, 4); }, "zor_buffer_consume", "count <= buffer->size"},
        {[](B x) {
             x.size = 10;
             zor_buffer_consume(&x, 5);
         },
         "zor_buffer_consume", "block != ((void *)0)"},
        {[](B x) {
             zor_buffer_free(&x);
             x.size = 5;
             zor_buffer_consume(&x, 1);
         },
         "zor_buffer_consume", "block != ((void *)0)"},
        {[](B x) {
             x.read_offset = 4;
             zor_buffer_consume(&x, 1);
         },
         "zor_buffer_consume", "buffer->read_offset + count < block->size"},
        {[&](B x) {
             x.read_offset = 4;
             zor_buffer_iovs(&x, &v, 1);
         },
         "zor_buffer_iovs", "vector[0].iov_len >= offset"},
        {[](B x) {
             zor_write(&x, std::string(2000, 'x').data(), 2000);
             x.block_count = 0;
             zor_buffer_consume(&x, 2003);
         },
         "zor_buffer_consume", "buffer->block_count != 0"},
        {[&](B) { jsmn_init(&t, nullptr, 0); }, "jsmn_init", "token_count != 0"},
        {[&](B) { jsmn_str_unescape(zor_str_init("12345"), text, 4); }, "jsmn_str_unescape",
         "size >= str.len"},
        {[&](B) { jsmn_str_unescape(zor_str_init(""), nullptr, 0); }, "zor_str_init_len",
         "str != ((void *)0)"},
        {[&](B x) {
             full(x);
             zor_json_start_arr(&j, 0);
         },
         "zor_json_start_arr", "(ctx->array_types & 0x80000000) == 0x0"},
        {[&](B x) {
             full(x);
             zor_json_start_arr_pair(&j, "k", 1);
         },
         "zor_json_start_arr_pair", "(ctx->array_types & 0x80000000) == 0x0"},
    };
    for (const auto &s : stops) {
        zor_printf(&b, "abc");
        ZOR_EXPECT_ASSERT(s.run(b), s.function, s.text);
        zor_buffer_free(&b);
    }
}

/* The same bytes in the same blocks, the same context after every call. */
TEST(JsonWriter, MatchesPlainWriter)
{
    for (uint64_t seed = 1; seed <= 240; seed++) {
        zor_json_ref::Gen g{std::mt19937_64(seed), {}};
        EXPECT_EQ(zor_json_ref::compare(g, 120), -2) << "seed " << seed;
    }
    zor_buffer_set_default_size(1024);
}

/* Past 2 GiB a token's text comes from its 64-bit offset; `start` keeps the low 32 bits. */
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
