/*
 * bench_types.h - what the registry benchmarks share: the resolved datatypes
 * (a 4-byte int with write and compare, and a flag of size 0) and a record
 * of one int placed right after the entry header.
 */
#ifndef ZOR_BENCH_TYPES_H
#define ZOR_BENCH_TYPES_H

#include <benchmark/benchmark.h>

#include "zor_datatype.h"
#include "zor_reg.h"

namespace bench
{

inline void int_write(void *dst, const void *src, const zor_datatype_info *)
{
    *static_cast<int *>(dst) = src != nullptr ? *static_cast<const int *>(src) : 0;
}

inline int int_cmp_eq(const void *a, const void *b, const zor_datatype_info *)
{
    return *static_cast<const int *>(a) != *static_cast<const int *>(b);
}

/* An int type for size 4, a flag type for size 0; resolved, without parent. */
inline zor_datatype_info make_type(uint64_t size)
{
    zor_datatype_info info = {};
    info.size = size;
    info.properties = ZOR_DATATYPE_PROP_FLATTENED;
    if (size != 0) {
        info.write = int_write;
        info.cmp_eq = int_cmp_eq;
    }
    info.parent_id = 0xFFFFFFFF;
    return info;
}

inline const zor_datatype_info int_type = make_type(4);
inline const zor_datatype_info flag_type = make_type(0);

struct rec {
    int value;
};
constexpr uint64_t rec_offset = sizeof(zor_reg_entry);

/* Google Benchmark's own main, for programs that look at their arguments first. */
inline int run_benchmarks(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace bench

#endif /* ZOR_BENCH_TYPES_H */
