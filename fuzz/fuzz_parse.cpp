/*
 * The integer, boolean and string parse operations on arbitrary text. The
 * first byte picks the type ("int" or "uint" of 1, 2, 4 or 8 bytes, "bool",
 * "str"); the rest is the text. Checked against a plain model:
 *  - a text is accepted exactly when the model accepts it;
 *  - an accepted value is written in `size` bytes and nothing beyond them,
 *    and displays back as its canonical form (no sign on zero, no leading
 *    zeros);
 *  - a rejected text leaves the output untouched;
 *  - a "str" value holds its text byte for byte, parsing it twice gives the
 *    same id with one more reference, and freeing both releases it.
 * The parse reads the text where the input lies, with nothing after it, so
 * a read past its end is seen by the sanitizers and valgrind.
 */
#include "zor_datatype.h"
#include "zor_dict.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "fuzz_check.h"

namespace
{

zor_dict db;
const zor_datatype_info *int_types[4], *uint_types[4], *bool_type, *str_type;
const unsigned sizes[4] = {1, 2, 4, 8};

/* Integer types of every size, derived from the core ones. */
void setup()
{
    zor_datatype_init();
    zor_datatype_db_init(&db, 128);
    zor_datatype_reg_info reg[6] = {};
    const char *names[6] = {"i8", "i16", "i64", "u8", "u16", "u64"};
    const unsigned reg_sizes[6] = {1, 2, 8, 1, 2, 8};
    for (int i = 0; i < 6; i++) {
        reg[i].name = names[i];
        reg[i].parent = i < 3 ? "int" : "uint";
        reg[i].info.size = reg_sizes[i];
    }
    zor_datatype_info *out[6];
    zor_datatype_register(&db, zor_str_init("fuzz"), 6, reg, 0, out);
    int_types[0] = out[0], int_types[1] = out[1], int_types[3] = out[2];
    uint_types[0] = out[3], uint_types[1] = out[4], uint_types[3] = out[5];
    int_types[2] = zor_datatype_info_id(&db, 5);  /* "int" */
    uint_types[2] = zor_datatype_info_id(&db, 6); /* "uint" */
    bool_type = zor_datatype_info_id(&db, 7);
    str_type = zor_datatype_info_id(&db, 4);
}

/* The model of the integer parses: accepted value or nothing. */
bool model_int(const std::string &t, unsigned size, bool is_signed, __int128 *value)
{
    size_t i = 0;
    bool neg = false;
    if (t.empty())
        return false;
    if (is_signed && t[0] == '-') {
        neg = true;
        i = 1;
        if (t.size() == 1)
            return false;
    }
    unsigned __int128 v = 0;
    for (; i < t.size(); i++) {
        if (t[i] < '0' || t[i] > '9')
            return false;
        v = v * 10 + static_cast<unsigned>(t[i] - '0');
        if (v > UINT64_MAX)
            return false;
    }
    __int128 s = neg ? -static_cast<__int128>(v) : static_cast<__int128>(v);
    __int128 lo, hi;
    if (is_signed) {
        hi = (static_cast<__int128>(1) << (8 * size - 1)) - 1;
        lo = -hi - 1;
    } else {
        lo = 0;
        hi = (static_cast<__int128>(1) << (8 * size)) - 1;
    }
    if (s < lo || s > hi)
        return false;
    *value = s;
    return true;
}

void check_int(const char *text, size_t len, unsigned si, bool is_signed)
{
    std::string t(text, len);
    const zor_datatype_info *type = is_signed ? int_types[si] : uint_types[si];
    unsigned size = sizes[si];
    unsigned char out[16], before[16];
    memset(out, 0xAB, sizeof(out));
    memcpy(before, out, sizeof(out));
    __int128 expect = 0;
    bool ok = model_int(t, size, is_signed, &expect);
    int r = type->parse(text, len, type, out);
    CHECK(r == (ok ? 1 : 0));
    if (!ok) {
        CHECK(memcmp(out, before, sizeof(out)) == 0);
        return;
    }
    CHECK(memcmp(out + size, before + size, sizeof(out) - size) == 0);
    uint64_t bits = static_cast<uint64_t>(expect);
    CHECK(memcmp(out, &bits, size) == 0); /* little-endian low bytes */
    char want[32];                        /* the canonical decimal form */
    if (is_signed)
        snprintf(want, sizeof(want), "%lld", static_cast<long long>(expect));
    else
        snprintf(want, sizeof(want), "%llu", static_cast<unsigned long long>(expect));
    CHECK(strcmp(zor_datatype_str(out, type), want) == 0);
}

void check_bool(const char *text, size_t len)
{
    std::string t(text, len);
    unsigned char out[8];
    memset(out, 0xAB, sizeof(out));
    int r = bool_type->parse(text, len, bool_type, out);
    bool ok = t == "true" || t == "false";
    CHECK(r == (ok ? 1 : 0));
    if (!ok) {
        for (unsigned char c : out)
            CHECK(c == 0xAB);
        return;
    }
    int v;
    memcpy(&v, out, sizeof(v));
    CHECK(v == (t == "true" ? 1 : 0));
    CHECK(std::string(zor_datatype_str(out, bool_type)) == t);
}

void check_str(const char *text, size_t len)
{
    std::string t(text, len);
    zor_dict *strings = zor_datatype_strings_dict_get();
    zor_string_id a = 0, b = 0;
    CHECK(str_type->parse(text, len, str_type, &a) == 1);
    CHECK(str_type->parse(text, len, str_type, &b) == 1);
    CHECK(a == b);
    zor_str back = zor_datatype_string_from_id(a);
    CHECK(back.len == t.size() && memcmp(back.ptr, t.data(), t.size()) == 0);
    if (a == 0) /* the text "<unset>" is the unset value, never released */
        return;
    /* Every input releases what it made, so these are the only references. */
    zor_string_id id = a;
    CHECK(zor_dict_id_get_rec(strings, id)->refcount == 2);
    str_type->free(&a, str_type, nullptr);
    CHECK(a == 0);
    CHECK(zor_dict_id_get_rec(strings, id)->refcount == 1);
    str_type->free(&b, str_type, nullptr);
    CHECK(b == 0);
    CHECK(zor_dict_get_record(strings, id) == nullptr);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const char *text = reinterpret_cast<const char *>(data) + 1;
    unsigned sel = data[0] % 11;
    if (sel < 4)
        check_int(text, size - 1, sel, true);
    else if (sel < 8)
        check_int(text, size - 1, sel - 4, false);
    else if (sel == 8)
        check_bool(text, size - 1);
    else
        check_str(text, size - 1);
    return 0;
}
