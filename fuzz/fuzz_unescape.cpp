/* jsmn_str_unescape against a plain model: \/, \\ and \" become the character they name, every
 * other byte is copied; the output fits the input's size, and the '/' after it is never read. */
#include "jsmn/jsmn.h"

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string in(reinterpret_cast<const char *>(data), size), padded = in + '/';
    /* An exact-size heap buffer lets ASan see any write past it. */
    std::vector<char> buf(size > 0 ? size : 1);
    zor_str out = jsmn_str_unescape(zor_str_init_len(padded.data(), static_cast<int32_t>(size)),
                                    buf.data(), size);
    CHECK(out.ptr == buf.data());
    CHECK(out.len <= size);
    std::string model;
    for (size_t i = 0; i < size; i++) {
        bool named = in[i] == '\\' && i + 1 < size && strchr("/\\\"", in[i + 1]) && in[i + 1];
        model += in[i + named];
        i += named;
    }
    CHECK(std::string(out.ptr, out.len) == model);
    return 0;
}
