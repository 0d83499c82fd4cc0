/*
 * Sequences of output-buffer operations checked against a std::string
 * holding what the buffer should hold; small default block sizes force many
 * blocks. After every operation: the byte count, and the blocks' bookkeeping
 * (the chain and its count agree, each block's text is terminated inside
 * it, the read offset lies inside the first block's text; after a consume
 * that text is not empty unless the first block is the only one). Now and then, and at the end, the
 * blocks, the flattened copy and what output writes to a pipe are compared with the model byte for
 * byte.
 */
#include "zor_buffer.h"

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz_check.h"

namespace
{

struct Input {
    const uint8_t *p;
    size_t n;
    uint8_t byte()
    {
        return n ? (n--, *p++) : 0;
    }
    std::string bytes(size_t k)
    {
        k = k < n ? k : n;
        std::string s(reinterpret_cast<const char *>(p), k);
        p += k;
        n -= k;
        return s;
    }
};

int out_pipe[2] = {-1, -1};

void check_blocks(zor_buffer *b, const std::string &model, bool consumed, bool contents)
{
    CHECK(b->size == model.size());
    int32_t count = 0;
    uint64_t held = 0;
    for (zor_buffer_block *blk = b->first; blk != nullptr; blk = blk->next, count++) {
        CHECK(blk->size < blk->total_size && blk->data[blk->size] == 0);
        CHECK(blk->next != nullptr || blk == b->last);
        held += blk->size;
    }
    CHECK(count == b->block_count && (count == 0) == (b->last == nullptr));
    CHECK(held == b->size + b->read_offset);
    CHECK(count == 0 ? b->read_offset == 0 : b->read_offset <= b->first->size);
    CHECK(!consumed || count <= 1 || b->read_offset < b->first->size);
    if (contents) {
        std::vector<struct iovec> v(static_cast<size_t>(count) + 1);
        int32_t n = zor_buffer_iovs(b, v.data(), static_cast<int32_t>(v.size()));
        std::string joined;
        for (int32_t i = 0; i < n; i++)
            joined.append(static_cast<const char *>(v[i].iov_base), v[i].iov_len);
        CHECK(n == count && joined == model);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (pipe(out_pipe) != 0)
        __builtin_trap();
    fcntl(out_pipe[0], F_SETFL, O_NONBLOCK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input in{data, size};
    zor_buffer_set_default_size(1 + in.byte() % 64);
    zor_buffer b;
    memset(&b, 0, sizeof(b));
    std::string model;
    while (in.n > 0 && model.size() < 30000) {
        uint8_t op = in.byte() % 7;
        switch (op) {
        case 0: { /* formatted text; %.*s stops at a NUL as snprintf does */
            std::string chunk = in.bytes(in.byte() % 48);
            int k = static_cast<int8_t>(in.byte());
            char expect[128];
            int len = snprintf(expect, sizeof(expect), "%.*s|%d", static_cast<int>(chunk.size()),
                               chunk.c_str(), k);
            CHECK(zor_printf(&b, "%.*s|%d", static_cast<int>(chunk.size()), chunk.c_str(), k) == 1);
            model.append(expect, static_cast<size_t>(len));
            break;
        }
        case 1: {
            uint8_t c = in.byte();
            CHECK(zor_putc(&b, c) == 1);
            model += static_cast<char>(c);
            break;
        }
        case 2: {
            std::string chunk = in.bytes(in.byte() % 200);
            CHECK(zor_write(&b, chunk.data(), chunk.size()) == 1);
            model += chunk;
            break;
        }
        case 3: {
            uint64_t k = ((in.byte() << 8) | in.byte()) % (model.size() + 1);
            zor_buffer_consume(&b, k);
            model.erase(0, k);
            break;
        }
        case 4: {
            zor_str flat = zor_buffer_flatten(&b);
            CHECK(std::string(flat.ptr, flat.len + 1) == model + '\0');
            free(const_cast<char *>(flat.ptr));
            break;
        }
        case 5: {
            zor_buffer_output(&b, out_pipe[1]);
            std::string got;
            char buf[4096];
            ssize_t r;
            while ((r = read(out_pipe[0], buf, sizeof(buf))) > 0)
                got.append(buf, static_cast<size_t>(r));
            CHECK(got == model);
            model.clear();
            break;
        }
        }
        check_blocks(&b, model, op == 3 || op == 5, op == 6);
    }
    check_blocks(&b, model, false, true);
    zor_buffer_free(&b);
    CHECK(b.size == 0 && b.block_count == 0 && b.first == nullptr && b.last == nullptr);
    return 0;
}
