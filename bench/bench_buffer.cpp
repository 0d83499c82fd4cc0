/*
 * zor_printf of a short formatted line against vsnprintf into a fixed
 * buffer, in one run. Both go through a va_list, so the baseline pays the
 * same formatting work; the difference is the buffer's bookkeeping.
 *  - Line: each line is consumed right after it is written, so the one
 *    block is reused and nothing is allocated (a write-output loop).
 *  - Batch: lines collect into 64 KiB of text before it is consumed, so
 *    the cost of the refused attempt at a block's end and of appending
 *    and freeing blocks is included.
 */
#include <benchmark/benchmark.h>

#include <stdarg.h>
#include <stdio.h>

#include "zor_buffer.h"

namespace
{

const char *const names[] = {"interface", "vlan", "route", "acl-entry"};

__attribute__((noinline, format(printf, 3, 4))) int fixed_printf(char *buf, size_t size,
                                                                 const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int n = vsnprintf(buf, size, format, args);
    va_end(args);
    return n;
}

void BM_Printf_Vsnprintf(benchmark::State &st)
{
    char buf[256];
    uint32_t i = 0;
    for (auto _ : st) {
        int n =
            fixed_printf(buf, sizeof(buf), "%s %u: state=%d mtu=%u\n", names[i & 3], i, 1, 1500u);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
        i++;
    }
}

void BM_Printf_ZorLine(benchmark::State &st)
{
    zor_buffer b = {};
    uint32_t i = 0;
    for (auto _ : st) {
        zor_printf(&b, "%s %u: state=%d mtu=%u\n", names[i & 3], i, 1, 1500u);
        benchmark::ClobberMemory();
        zor_buffer_consume(&b, b.size);
        i++;
    }
    zor_buffer_free(&b);
}

void BM_Printf_ZorBatch(benchmark::State &st)
{
    zor_buffer b = {};
    uint32_t i = 0;
    for (auto _ : st) {
        zor_printf(&b, "%s %u: state=%d mtu=%u\n", names[i & 3], i, 1, 1500u);
        if (b.size >= 65536) {
            benchmark::ClobberMemory();
            zor_buffer_consume(&b, b.size);
        }
        i++;
    }
    zor_buffer_free(&b);
}

BENCHMARK(BM_Printf_Vsnprintf);
BENCHMARK(BM_Printf_ZorLine);
BENCHMARK(BM_Printf_ZorBatch);

} // namespace
