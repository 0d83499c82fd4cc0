/* Output buffer: block allocation, consumption, output, flatten; pk_write. */
#include "zor_test.h"
#include "zor_buffer.h"
#include "zor_buffer_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace
{

/* Capacity of every block, first to last. */
std::vector<uint64_t> block_sizes(const zor_buffer &b)
{
    std::vector<uint64_t> out;
    for (zor_buffer_block *blk = b.first; blk != nullptr; blk = blk->next)
        out.push_back(blk->total_size);
    return out;
}

/* The unconsumed text of every block, as zor_buffer_iovs hands it out. */
std::vector<std::string> chunks(zor_buffer &b)
{
    struct iovec v[64];
    int32_t n = zor_buffer_iovs(&b, v, 64);
    std::vector<std::string> out;
    for (int32_t i = 0; i < n; i++)
        out.emplace_back(static_cast<const char *>(v[i].iov_base), v[i].iov_len);
    return out;
}

using sizes = std::vector<uint64_t>;
using texts = std::vector<std::string>;

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
    EXPECT_EQ(zor_printf(&b, "%s", "abc"), 1);
    EXPECT_EQ(block_sizes(b), sizes({1024}));
    EXPECT_TRUE(b.size == 3 && b.block_count == 1);
    /* A text that does not fit the room left: the room is tried, then blocks of D and 2D; the
     * whole text lands in the 2D block, and the refused attempt left the first terminated. */
    std::string big(1500, 'x');
    EXPECT_EQ(zor_printf(&b, "%s", big.c_str()), 1);
    EXPECT_EQ(block_sizes(b), sizes({1024, 1024, 2048}));
    EXPECT_EQ(chunks(b), texts({"abc", "", big}));
    EXPECT_EQ(memcmp(b.first->data, "abc", 4), 0);
    zor_buffer_free(&b);
    EXPECT_TRUE(b.first == nullptr && b.block_count == 0);

    /* D, 2D, 4D on an empty buffer; the first two stay empty. */
    std::string text(3000, 'y');
    zor_printf(&b, "%s", text.c_str());
    EXPECT_EQ(block_sizes(b), sizes({1024, 2048, 4096}));
    EXPECT_EQ(chunks(b), texts({"", "", text}));
    EXPECT_EQ(b.size, 3000u);
    zor_buffer_free(&b);

    /* Default size 0: each attempt's block is one byte larger than the previous room. */
    zor_buffer_set_default_size(0);
    zor_printf(&b, "%s", std::string(40, 'q').c_str());
    sizes expect;
    for (uint64_t s = 1; s <= 41; s++)
        expect.push_back(s);
    EXPECT_EQ(block_sizes(b), expect);
    EXPECT_EQ(chunks(b).back(), std::string(40, 'q'));
    zor_buffer_free(&b);

    /* A wide character the C locale cannot convert: the formatter fails, nothing changes. */
    zor_buffer_set_default_size(16);
    zor_printf(&b, "kept");
    EXPECT_EQ(zor_printf(&b, "x%lsy", L"\x100"), 0);
    EXPECT_EQ(b.size, 4u);
    EXPECT_EQ(chunks(b), texts({"kept"}));
}

TEST_F(Buffer, LastBytesOfRoom)
{
    std::string fill(1021, 'f'), more(1022, 'm'), big(5000, 'w');
    zor_write(&b, fill.data(), fill.size()); /* room 3 */
    zor_putc(&b, 'a');                       /* room 2: fits */
    zor_printf(&b, "%c", 'b');               /* fits, leaving room 1 */
    EXPECT_EQ(block_sizes(b), sizes({1024}));
    zor_printf(&b, "%d", 7);                 /* room 1 is only the terminating 0 */
    zor_write(&b, more.data(), more.size()); /* room 1 again */
    zor_putc(&b, 0x163);                     /* only the low 8 bits */
    zor_putc(&b, 'z');
    EXPECT_EQ(block_sizes(b), sizes({1024, 1024, 1024}));
    EXPECT_EQ(chunks(b), texts({fill + "ab", "7" + more, "cz"}));
    /* zor_write sizes its block to the piece when that is larger. */
    zor_write(&b, big.data(), big.size());
    zor_write(&b, nullptr, 0);
    EXPECT_EQ(block_sizes(b).back(), 5001u);
    EXPECT_EQ(b.size, 1023u + 1023 + 2 + 5000);
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
            EXPECT_EQ(block_sizes(b), block_sizes(ref)) << fill << " " << len;
            EXPECT_EQ(chunks(b), chunks(ref)) << fill << " " << len;
            zor_buffer_free(&ref);
            zor_buffer_free(&b);
        }
    }
}

TEST_F(Buffer, ConsumeAcrossBlocks)
{
    zor_buffer_set_default_size(8);
    zor_printf(&b, "abcdef");
    zor_printf(&b, "ghijklm");
    zor_buffer_consume(&b, 2);
    EXPECT_EQ(b.read_offset, 2u);
    EXPECT_EQ(chunks(b), texts({"cdef", "ghijklm"}));
    zor_buffer_consume(&b, 4); /* exactly the first block's bytes: freed */
    EXPECT_TRUE(b.block_count == 1 && b.read_offset == 0);
    EXPECT_EQ(chunks(b), texts({"ghijklm"}));
    zor_buffer_consume(&b, 7); /* the only block is kept, empty */
    EXPECT_TRUE(b.block_count == 1 && b.size == 0 && b.first->size == 0);
    EXPECT_EQ(b.first->data[0], 0);
    zor_printf(&b, "%s", "reuse");
    EXPECT_EQ(b.block_count, 1);
    /* Across blocks in one call, ending inside a block. */
    zor_printf(&b, "%s", "0123456");
    zor_printf(&b, "%s", "xyz");
    EXPECT_EQ(chunks(b), texts({"reuse", "0123456", "xyz"}));
    zor_buffer_consume(&b, 13);
    EXPECT_EQ(chunks(b), texts({"yz"}));
    EXPECT_EQ(b.block_count, 1);
    zor_buffer_free(&b);
    /* A consume of 0 frees leading blocks with no text. */
    zor_buffer_set_default_size(2);
    zor_printf(&b, "%s", "four");
    EXPECT_EQ(block_sizes(b), sizes({2, 4, 8}));
    zor_buffer_consume(&b, 0);
    EXPECT_EQ(block_sizes(b), sizes({8}));
    EXPECT_TRUE(b.block_count == 1 && b.size == 4);
}

TEST_F(Buffer, FlattenAndIovs)
{
    zor_str empty = zor_buffer_flatten(&b);
    EXPECT_TRUE(empty.len == 0 && empty.ptr[0] == 0);
    free(const_cast<char *>(empty.ptr));
    struct iovec v[2] = {};
    EXPECT_EQ(zor_buffer_iovs(&b, v, 2), 0);

    zor_buffer_set_default_size(4);
    zor_printf(&b, "ab");
    zor_printf(&b, "cdefgh");
    zor_printf(&b, "ij");
    zor_buffer_consume(&b, 1);
    zor_str all = zor_buffer_flatten(&b);
    EXPECT_EQ(std::string(all.ptr, all.len + 1), std::string("bcdefghij", 10));
    EXPECT_EQ(b.size, 9u); /* unchanged */
    free(const_cast<char *>(all.ptr));
    /* Fewer entries than blocks, and no entry for a count below 1. */
    EXPECT_EQ(zor_buffer_iovs(&b, v, 1), 1);
    EXPECT_EQ(std::string(static_cast<char *>(v[0].iov_base), v[0].iov_len), "b");
    EXPECT_EQ(v[1].iov_base, nullptr);
    EXPECT_EQ(zor_buffer_iovs(&b, v, 0), 0);
    EXPECT_EQ(zor_buffer_iovs(&b, v, -1), 0);
}

TEST_F(Buffer, OutputWritesEveryChunkAndStopsAfterAFailedOne)
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
    ASSERT_EQ(chunks(b), texts({first, second, third}));
    zor_buffer_output(&b, fds[1]);
    EXPECT_EQ(chunks(b), texts({third}));
    EXPECT_EQ(b.size, third.size());
    EXPECT_EQ(read(fds[0], &got[0], got.size()), cap);
    EXPECT_EQ(got.substr(0, cap), first);

    /* Through a descriptor that is not open: the first chunk is dropped. */
    zor_printf(&b, "more");
    zor_buffer_output(&b, -1);
    EXPECT_EQ(chunks(b), texts({"more"}));

    /* Everything written: the buffer is left with one empty block. */
    zor_printf(&b, "%s", ", world");
    zor_buffer_output(&b, fds[1]);
    EXPECT_TRUE(b.size == 0 && b.block_count == 1);
    EXPECT_EQ(read(fds[0], &got[0], got.size()), 11);
    EXPECT_EQ(got.substr(0, 11), "more, world");
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

TEST(PkWrite, WritesAllAndRetriesAfterSignal)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(pk_write(fds[1], "abc", 3), 0);
    EXPECT_EQ(pk_write(fds[1], nullptr, 0), 0);
    char got[4] = {};
    EXPECT_EQ(read(fds[0], got, 4), 3);
    EXPECT_STREQ(got, "abc");

    /* Fill the pipe, then block in write until a signal handler (installed
     * without SA_RESTART) empties it: write fails with EINTR once, and
     * pk_write must try again. */
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

TEST_F(Buffer, BrokenInvariantsStop)
{
    ZOR_EXPECT_ASSERT(zor_buffer_consume(&b, 1), "zor_buffer_consume", "count <= buffer->size");
    zor_printf(&b, "abc");
    ZOR_EXPECT_ASSERT(zor_buffer_consume(&b, 4), "zor_buffer_consume", "count <= buffer->size");
    /* Records whose fields no longer agree. */
    zor_buffer bad = {};
    bad.size = 5;
    ZOR_EXPECT_ASSERT(zor_buffer_consume(&bad, 1), "zor_buffer_consume", "block != ((void *)0)");
    b.size = 10;
    ZOR_EXPECT_ASSERT(zor_buffer_consume(&b, 5), "zor_buffer_consume", "block != ((void *)0)");
    b.size = 3;
    b.read_offset = 4; /* beyond the block's text */
    ZOR_EXPECT_ASSERT(zor_buffer_consume(&b, 1), "zor_buffer_consume",
                      "buffer->read_offset + count < block->size");
    struct iovec v;
    ZOR_EXPECT_ASSERT(zor_buffer_iovs(&b, &v, 1), "zor_buffer_iovs", "vector[0].iov_len >= offset");
    b.read_offset = 0;
    zor_printf(&b, "%s", std::string(2000, 'x').c_str());
    b.block_count = 0;
    b.size = 2003;
    ZOR_EXPECT_ASSERT(zor_buffer_consume(&b, 2003), "zor_buffer_consume",
                      "buffer->block_count != 0");
    b.block_count = 3;
}
