/*
 * jsmn_str_unescape on arbitrary bytes, against a plain model: \/, \\ and
 * \" become the character they name; every other byte, a backslash before
 * anything else or at the very end included, is copied as it is. Also:
 * the output never grows, and a buffer of exactly the input's size is
 * enough. The input is followed by a '/', which would change the output if
 * it were read.
 */
#include "jsmn/jsmn.h"

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string in(reinterpret_cast<const char *>(data), size);
    std::vector<char> bytes(in.begin(), in.end());
    bytes.push_back('/');
    /* An exact-size heap buffer lets ASan see any write past it. */
    std::vector<char> buf(size > 0 ? size : 1);
    zor_str out = jsmn_str_unescape(zor_str_init_len(bytes.data(), static_cast<int32_t>(size)),
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
