/*
 * The JSON writer against the plain writer of the tests (zor_json_ref.h)
 * on call sequences drawn from the input: the same context after every
 * call, the same blocks with the same capacities and texts at the end.
 */
#include <stddef.h>
#include <stdint.h>

#include "../tests/zor_json_ref.h"
#include "fuzz_check.h"

namespace
{

/* Two input bytes per draw; zeros once the input is used up. */
struct Bytes {
    const uint8_t *p;
    size_t n;
    uint64_t operator()()
    {
        uint64_t v = 0;
        for (int i = 0; i < 2 && n > 0; i++, p++, n--)
            v = v << 8 | *p;
        return v;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zor_json_ref::Gen<Bytes> g{Bytes{data, size}, {}};
    CHECK(zor_json_ref::compare(g, static_cast<int>(size < 4000 ? size / 8 + 1 : 500)) == -2);
    return 0;
}
