/*
 * The parses of "int" and "uint" of each size, "bool" and "str" (the first byte
 * picks one) against a model, and the values displayed back in canonical form.
 */
#include "zor_datatype.h"
#include "zor_dict.h"

#include <stdint.h>
#include <string.h>

#include <string>

#include "fuzz_check.h"

namespace
{

zor_dict db;
zor_datatype_info types[8]; /* "int" of 1, 2, 4, 8 bytes, then "uint" */
const unsigned sizes[4] = {1, 2, 4, 8};

/* The integer parses' model: the accepted value, or false. */
bool model_int(const std::string &t, unsigned size, bool is_signed, __int128 *value)
{
    bool neg = is_signed && !t.empty() && t[0] == '-';
    if (t.size() == (neg ? 1u : 0u))
        return false;
    unsigned __int128 v = 0;
    for (size_t i = neg; i < t.size(); i++) {
        if (t[i] < '0' || t[i] > '9' || (v = v * 10 + (t[i] - '0')) > UINT64_MAX)
            return false;
    }
    __int128 s = neg ? -static_cast<__int128>(v) : static_cast<__int128>(v);
    __int128 hi = (static_cast<__int128>(1) << (8 * size - is_signed)) - 1;
    if (s > hi || s < (is_signed ? -hi - 1 : 0))
        return false;
    *value = s;
    return true;
}

void check_int(const char *text, size_t len, unsigned si, bool is_signed)
{
    std::string t(text, len);
    const zor_datatype_info *type = &types[si + (is_signed ? 0 : 4)];
    unsigned size = sizes[si];
    unsigned char out[16];
    memset(out, 0xAB, sizeof(out));
    __int128 expect = 0;
    bool ok = model_int(t, size, is_signed, &expect);
    CHECK(type->parse(text, len, type, out) == (ok ? 1 : 0));
    uint64_t bits = static_cast<uint64_t>(expect); /* written little-endian in `size` bytes */
    for (unsigned k = 0; k < sizeof(out); k++)
        CHECK(out[k] == (ok && k < size ? (bits >> (8 * k)) & 0xFF : 0xAB));
    std::string want = is_signed ? std::to_string(static_cast<long long>(expect))
                                 : std::to_string(static_cast<unsigned long long>(expect));
    CHECK(!ok || zor_datatype_str(out, type) == want);
}

void check_bool(const char *text, size_t len, const zor_datatype_info *type)
{
    std::string t(text, len);
    int out = 0x5A5A;
    bool ok = t == "true" || t == "false";
    CHECK(type->parse(text, len, type, &out) == (ok ? 1 : 0));
    CHECK(out == (ok ? t == "true" : 0x5A5A));
    CHECK(!ok || zor_datatype_str(&out, type) == t);
}

void check_str(const char *text, size_t len, const zor_datatype_info *type)
{
    zor_string_id a = 0, b = 0;
    CHECK(type->parse(text, len, type, &a) == 1);
    CHECK(type->parse(text, len, type, &b) == 1 && a == b);
    zor_str back = zor_datatype_string_from_id(a);
    CHECK(back.len == len && memcmp(back.ptr, text, len) == 0);
    if (a == 0) /* the text "<unset>" is the unset value, never released */
        return;
    zor_dict *strings = zor_datatype_strings_dict_get();
    zor_string_id id = a; /* every input releases what it made: these are its only references */
    CHECK(zor_dict_id_get_rec(strings, id)->refcount == 2);
    type->free(&a, type, nullptr);
    CHECK(a == 0 && zor_dict_id_get_rec(strings, id)->refcount == 1);
    type->free(&b, type, nullptr);
    CHECK(b == 0 && zor_dict_get_record(strings, id) == nullptr);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    zor_datatype_init();
    zor_datatype_db_init(&db, 128);
    for (int i = 0; i < 8; i++) { /* the core types with each size */
        types[i] = *zor_datatype_info_id(&db, i < 4 ? ZOR_DATATYPE_ID_INT : ZOR_DATATYPE_ID_UINT);
        types[i].size = sizes[i % 4];
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    /* The text lies where the input does, with nothing after it: a read past its end shows. */
    const char *text = reinterpret_cast<const char *>(data) + 1;
    unsigned sel = data[0] % 11;
    if (sel < 8)
        check_int(text, size - 1, sel % 4, sel < 4);
    else if (sel == 8)
        check_bool(text, size - 1, zor_datatype_info_id(&db, ZOR_DATATYPE_ID_BOOL));
    else
        check_str(text, size - 1, zor_datatype_info_id(&db, ZOR_DATATYPE_ID_STR));
    return 0;
}
