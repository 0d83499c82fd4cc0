/* Output-buffer operations against a std::string of what it should hold, on small block sizes.
 * After each: the byte count and the blocks' bookkeeping; now and then (and at the end) the
 * flattened copy, or what output writes to a pipe. */
#include "zor_buffer_internal.h"

#include <fcntl.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <string>

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
        k = std::min(k, n);
        p += k;
        n -= k;
        return std::string(reinterpret_cast<const char *>(p - k), k);
    }
};

int out_pipe[2] = {-1, -1};

void check_blocks(zor_buffer *b, const std::string &model, bool consumed)
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
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    CHECK(pipe(out_pipe) == 0);
    fcntl(out_pipe[0], F_SETFL, O_NONBLOCK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input in{data, size};
    zor_buffer_set_default_size(in.byte() % 64);
    zor_buffer b = {};
    std::string model;
    for (bool last = false; !last;) { /* ends with a flatten */
        last = in.n == 0 || model.size() >= 30000;
        uint8_t op = last ? 4 : in.byte() % 7;
        std::string chunk = in.bytes(op == 0 ? in.byte() % 48 : op == 2 || op == 6 ? in.byte() : 0);
        switch (op) {
        case 0: { /* %.*s stops at a NUL */
            int k = static_cast<int8_t>(in.byte()), w = static_cast<int>(chunk.size());
            CHECK(zor_printf(&b, "%.*s|%d", w, chunk.c_str(), k) == 1);
            model += chunk.c_str() + ("|" + std::to_string(k));
            break;
        }
        case 1: { /* and a conversion the formatter refuses, which changes nothing */
            CHECK(zor_printf(&b, "%ls", L"\x100") == 0);
            uint8_t c = in.byte();
            CHECK(zor_putc(&b, c) == 1);
            model += static_cast<char>(c);
            break;
        }
        case 2:
            CHECK(zor_write(&b, chunk.data(), chunk.size()) == 1);
            model += chunk;
            break;
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
            char got[65536];
            CHECK(std::string(got, std::max<ssize_t>(0, read(out_pipe[0], got, sizeof(got)))) ==
                  model);
            model.clear();
            break;
        }
        case 6: { /* two texts, the second a cut of the first */
            zor_str parts[2] = {zor_str_init_len(chunk.data(), static_cast<int32_t>(chunk.size())),
                                zor_str_init_len(chunk.data(), in.byte() % (chunk.size() + 1))};
            CHECK(zor_buffer_print_texts(&b, parts, 2) == 1);
            model += chunk + chunk.substr(0, parts[1].len);
            break;
        }
        }
        check_blocks(&b, model, op == 3 || op == 5);
    }
    zor_buffer_free(&b);
    CHECK(b.size == 0 && b.block_count == 0 && b.first == nullptr && b.last == nullptr);
    return 0;
}
