/*
 * Output buffer: the sizes of the blocks it appends, the room left for the
 * terminating 0, output's failures, pk_write, the stops. What the buffer
 * holds after any sequence of appends, consumes, flattens and outputs, and
 * the bookkeeping of its blocks, are checked by fuzz/fuzz_buffer.cpp,
 * replayed on its corpus as a test.
 */
#include "zor_test.h"
#include "zor_buffer.h"
#include "zor_buffer_internal.h"
#include "zor_json_ref.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

namespace
{

using zor_json_ref::blocks;
using layout = std::vector<std::pair<uint64_t, std::string>>; /* capacity and text per block */

/* Restores the process-wide default after each test. */
class Buffer : public ::testing::Test
{
  protected:
    zor_buffer b = {};
    void TearDown() override
    {
        zor_buffer_free(&b);
        zor_buffer_set_default_size(1024);
    }
};

} // namespace

TEST_F(Buffer, PrintfBlockSizes)
{
    /* A text that does not fit the room left: the room is tried, then blocks of D and 2D; the
     * whole text lands in the 2D block, and the refused attempt left the first terminated. */
    std::string big(1500, 'x');
    zor_printf(&b, "%s", "abc");
    EXPECT_EQ(zor_printf(&b, "%s", big.c_str()), 1);
    EXPECT_EQ(blocks(&b), layout({{1024, "abc"}, {1024, ""}, {2048, big}}));
    EXPECT_EQ(memcmp(b.first->data, "abc", 4), 0);
    zor_buffer_free(&b);

    /* Default size 0: each attempt's block is one byte larger than the previous room. */
    zor_buffer_set_default_size(0);
    zor_printf(&b, "%s", std::string(40, 'q').c_str());
    layout expect;
    for (uint64_t s = 1; s <= 41; s++)
        expect.emplace_back(s, s <= 40 ? "" : std::string(40, 'q'));
    EXPECT_EQ(blocks(&b), expect);
    zor_buffer_free(&b);

    /* A wide character the C locale cannot convert: the formatter fails, nothing changes. */
    zor_buffer_set_default_size(16);
    zor_printf(&b, "kept");
    EXPECT_EQ(zor_printf(&b, "x%lsy", L"\x100"), 0);
    EXPECT_EQ(blocks(&b), layout({{16, "kept"}}));
}

TEST_F(Buffer, LastBytesOfRoom)
{
    std::string fill(1021, 'f'), more(1022, 'm'), big(5000, 'w');
    zor_write(&b, fill.data(), fill.size()); /* room 3 */
    zor_putc(&b, 'a');                       /* room 2: fits */
    zor_printf(&b, "%c", 'b');               /* fits, leaving room 1 */
    EXPECT_EQ(b.block_count, 1);
    zor_printf(&b, "%d", 7);                 /* room 1 is only the terminating 0 */
    zor_write(&b, more.data(), more.size()); /* room 1 again */
    zor_putc(&b, 0x163);                     /* only the low 8 bits */
    zor_putc(&b, 'z');
    /* zor_write sizes its block to the piece when that is larger. */
    zor_write(&b, big.data(), big.size());
    zor_write(&b, nullptr, 0);
    EXPECT_EQ(blocks(&b),
              layout({{1024, fill + "ab"}, {1024, "7" + more}, {1024, "cz"}, {5001, big}}));
}

/* The formatter-free append reports success and places texts exactly as zor_printf("%s%s")
 * would, at every fill of the last block, around the room left for the terminating 0. */
TEST_F(Buffer, PrintTextsMatchesPrintfAtEveryFill)
{
    zor_buffer_set_default_size(8);
    for (size_t fill = 0; fill < 12; fill++) {
        for (size_t len = 0; len < 20; len++) {
            std::string head(fill, 'h'), a(len / 2, 'a'), c(len - len / 2, 'c');
            zor_buffer ref = {};
            zor_write(&ref, head.data(), head.size());
            zor_printf(&ref, "%s%s", a.c_str(), c.c_str());
            zor_write(&b, head.data(), head.size());
            zor_str parts[2] = {zor_str_init(a.c_str()), zor_str_init(c.c_str())};
            EXPECT_EQ(zor_buffer_print_texts(&b, parts, 2), 1);
            EXPECT_EQ(blocks(&b), blocks(&ref)) << fill << " " << len;
            zor_buffer_free(&ref);
            zor_buffer_free(&b);
        }
    }
}

TEST_F(Buffer, ConsumeKeepsTheLastBlockAndIovsStopAtCount)
{
    zor_buffer_set_default_size(8);
    zor_printf(&b, "abcdef");
    zor_printf(&b, "ghijklm");
    zor_buffer_consume(&b, 13); /* the last block is kept, empty, for the next write */
    zor_printf(&b, "%s", "reuse");
    EXPECT_EQ(blocks(&b), layout({{8, "reuse"}}));
    zor_printf(&b, "%s", "0123456");
    struct iovec v[2] = {};
    EXPECT_EQ(zor_buffer_iovs(&b, v, 1), 1);
    EXPECT_EQ(std::string(static_cast<char *>(v[0].iov_base), v[0].iov_len), "reuse");
    EXPECT_EQ(v[1].iov_base, nullptr);
    EXPECT_EQ(zor_buffer_iovs(&b, v, 0), 0);
    EXPECT_EQ(zor_buffer_iovs(&b, v, -1), 0);
}

TEST_F(Buffer, OutputStopsAfterAFailedChunk)
{
    /* A non-blocking pipe of one page: the first full page goes through, the next write
     * fails with EAGAIN; only that chunk is lost. */
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    int cap = fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(sysconf(_SC_PAGESIZE)));
    ASSERT_GT(cap, 0);
    std::string first(cap, 'a'), second(100, 'b'), third(cap + 10, 'c'), got(cap + 1, 0);
    zor_buffer_set_default_size(cap + 1);
    zor_write(&b, first.data(), first.size());
    zor_write(&b, second.data(), second.size());
    zor_write(&b, third.data(), third.size());
    zor_buffer_output(&b, fds[1]);
    EXPECT_EQ(blocks(&b), layout({{third.size() + 1, third}}));
    EXPECT_EQ(read(fds[0], &got[0], got.size()), cap);
    /* Through a descriptor that is not open: the first chunk is dropped. */
    zor_printf(&b, "more");
    zor_buffer_output(&b, -1);
    EXPECT_EQ(blocks(&b), layout({{cap + 1u, "more"}}));
    close(fds[0]);
    close(fds[1]);
}

namespace
{
int drain_fd = -1;
void drain(int)
{
    char sink[65536];
    while (read(drain_fd, sink, sizeof(sink)) > 0) {
    }
}
} // namespace

TEST(PkWrite, RetriesAfterSignalAndReportsErrors)
{
    /* Fill the pipe, then block in write until a signal handler (installed
     * without SA_RESTART) empties it: write fails with EINTR once, and
     * pk_write must try again. */
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(pk_write(fds[1], nullptr, 0), 0);
    int cap = fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(sysconf(_SC_PAGESIZE)));
    ASSERT_GT(cap, 0);
    std::string page(cap, 'p');
    ASSERT_EQ(write(fds[1], page.data(), page.size()), cap);
    drain_fd = fds[0];
    ASSERT_EQ(fcntl(fds[0], F_SETFL, O_NONBLOCK), 0);
    struct sigaction sa = {}, old;
    sa.sa_handler = drain;
    sigaction(SIGALRM, &sa, &old);
    struct itimerval timer = {};
    timer.it_value.tv_usec = 20000;
    setitimer(ITIMER_REAL, &timer, nullptr);
    EXPECT_EQ(pk_write(fds[1], page.data(), page.size()), 0);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(read(fds[0], &page[0], page.size()), cap);
    close(fds[0]);

    /* A pipe with no reader, SIGPIPE ignored: EPIPE. A closed fd: EBADF. */
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(pk_write(fds[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(fds[1]);
    EXPECT_EQ(pk_write(fds[1], "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
    signal(SIGPIPE, SIG_DFL);
}

/* Each stop on a buffer holding "abc" whose record `run` breaks before it calls. */
TEST_F(Buffer, BrokenInvariantsStop)
{
    struct iovec v;
    using B = zor_buffer &;
    struct {
        std::function<void(B)> run;
        const char *function, *text;
    } stops[] = {
        {[](B x) { zor_buffer_consume(&x, 4); }, "zor_buffer_consume", "count <= buffer->size"},
        {[](B x) { x.size = 10, zor_buffer_consume(&x, 5); }, "zor_buffer_consume",
         "block != ((void *)0)"},
        {[](B x) { zor_buffer_free(&x), x.size = 5, zor_buffer_consume(&x, 1); },
         "zor_buffer_consume", "block != ((void *)0)"},
        {[](B x) { x.read_offset = 4, zor_buffer_consume(&x, 1); }, "zor_buffer_consume",
         "buffer->read_offset + count < block->size"},
        {[&](B x) { x.read_offset = 4, zor_buffer_iovs(&x, &v, 1); }, "zor_buffer_iovs",
         "vector[0].iov_len >= offset"},
        {[](B x) {
             zor_write(&x, std::string(2000, 'x').data(), 2000), x.block_count = 0,
                                                                 zor_buffer_consume(&x, 2003);
         },
         "zor_buffer_consume", "buffer->block_count != 0"},
    };
    for (const auto &s : stops) {
        zor_printf(&b, "abc");
        ZOR_EXPECT_ASSERT(s.run(b), s.function, s.text);
        zor_buffer_free(&b);
    }
}
