/* Core types: hex dump, "mem", "opaque", "flag", "bool", "int" and "uint" at every size. */
#include "zor_test.h"
#include "zor_datatype.h"

#include <string>
#include <vector>

namespace
{

zor_datatype_info sized(uint64_t size)
{
    zor_datatype_info info = {};
    info.size = size;
    return info;
}

/* Parses `text` as "int" (or "uint") of `size` bytes; the 8 output bytes start as 0xEE. */
struct parsed {
    int ok;
    int64_t value;
    bool untouched;
};
parsed parse(int (*fn)(const char *, size_t, const zor_datatype_info *, void *), uint64_t size,
             const std::string &text)
{
    zor_datatype_info info = sized(size);
    unsigned char out[8];
    memset(out, 0xEE, sizeof(out));
    /* Copy into an exact-size heap block: no NUL after it, overreads get caught. */
    std::vector<char> exact(text.begin(), text.end());
    parsed r{fn(exact.data(), exact.size(), &info, out), 0, true};
    for (unsigned char c : out)
        r.untouched = r.untouched && c == 0xEE;
    for (uint64_t k = size; k < 8; k++)
        EXPECT_EQ(out[k], 0xEE) << "wrote beyond " << size << " bytes for " << text;
    if (size == 1)
        r.value = fn == zor_datatype_parse_int ? (int64_t)(int8_t)out[0] : out[0];
    else if (size == 2)
        r.value = fn == zor_datatype_parse_int ? (int64_t) * (int16_t *)out : *(uint16_t *)out;
    else if (size == 4)
        r.value = fn == zor_datatype_parse_int ? (int64_t) * (int32_t *)out : *(uint32_t *)out;
    else
        memcpy(&r.value, out, 8);
    return r;
}

void expect_int(uint64_t size, const std::string &text, int64_t value)
{
    parsed r = parse(zor_datatype_parse_int, size, text);
    EXPECT_EQ(r.ok, 1) << "int" << size * 8 << " " << text;
    EXPECT_EQ(r.value, value) << "int" << size * 8 << " " << text;
}
void expect_uint(uint64_t size, const std::string &text, uint64_t value)
{
    parsed r = parse(zor_datatype_parse_uint, size, text);
    EXPECT_EQ(r.ok, 1) << "uint" << size * 8 << " " << text;
    EXPECT_EQ((uint64_t)r.value, value) << "uint" << size * 8 << " " << text;
}
void expect_rejected(int (*fn)(const char *, size_t, const zor_datatype_info *, void *),
                     uint64_t size, const std::string &text)
{
    parsed r = parse(fn, size, text);
    EXPECT_EQ(r.ok, 0) << size << " '" << text << "'";
    EXPECT_TRUE(r.untouched) << size << " '" << text << "'";
}

std::string pairs(int n)
{
    std::string s;
    for (int k = 0; k < n; k++)
        s += (k ? " " : "") + std::string("5a");
    return s;
}

} // namespace

TEST(DatatypeCore, HexDump)
{
    const unsigned char three[] = {0x01, 0xab, 0xff};
    EXPECT_STREQ(zor_datatype_hex_dump(three, 3), "01 ab ff");
    EXPECT_STREQ(zor_datatype_hex_dump(three, 1), "01");
    EXPECT_STREQ(zor_datatype_hex_dump(nullptr, 3), "(null)");
    EXPECT_STREQ(zor_datatype_hex_dump(three, 0), "");
    std::vector<unsigned char> big(400, 0x5a);
    EXPECT_EQ(std::string(zor_datatype_hex_dump(big.data(), 339)), pairs(339));
    EXPECT_EQ(std::string(zor_datatype_hex_dump(big.data(), 340)), pairs(340));
    EXPECT_EQ(std::string(zor_datatype_hex_dump(big.data(), 341)), pairs(340) + " ...");
    EXPECT_EQ(std::string(zor_datatype_hex_dump(big.data(), 400)), pairs(340) + " ...");
    EXPECT_EQ(strlen(zor_datatype_hex_dump(big.data(), 400)), 1023u);
}

TEST(DatatypeCore, MemOpaqueAndFlag)
{
    zor_datatype_info three = sized(3);
    unsigned char a[3] = {1, 2, 3}, b[3] = {1, 2, 4}, c[3] = {9, 9, 9};
    EXPECT_STREQ(zor_datatype_str_mem(a, &three), "01 02 03");
    EXPECT_STREQ(zor_datatype_str_mem(nullptr, &three), "(null)");
    EXPECT_LT(zor_datatype_cmp_mem(a, b, &three), 0);
    EXPECT_EQ(zor_datatype_cmp_mem(a, a, &three), 0);
    zor_datatype_copy_mem(c, a, &three);
    EXPECT_EQ(memcmp(c, a, 3), 0);
    zor_datatype_copy_mem(c, nullptr, &three);
    EXPECT_EQ(c[0] | c[1] | c[2], 0);

    zor_datatype_info info = sized(16);
    char bytes2[] = "zz", bytes3[] = "aaa";
    zor_opaque two = {2, bytes2}, tri = {3, bytes3}, dst = {0, nullptr};
    EXPECT_EQ(zor_datatype_cmp_opaque(&two, &tri, &info), -1);
    EXPECT_EQ(zor_datatype_cmp_opaque(&tri, &two, &info), 1);
    zor_datatype_write_opaque(&dst, &tri, &info);
    EXPECT_EQ(dst.length, 3u);
    EXPECT_NE(dst.bytes, static_cast<void *>(bytes3)); /* a copy, owned by dst */
    EXPECT_EQ(zor_datatype_cmp_opaque(&dst, &tri, &info), 0);
    EXPECT_STREQ(zor_datatype_str_opaque(&dst, &info), "61 61 61");
    zor_datatype_write_opaque(&dst, &two, &info); /* releases the old copy */
    EXPECT_STREQ(zor_datatype_str_opaque(&dst, &info), "7a 7a");
    zor_opaque empty = {0, nullptr};
    zor_datatype_write_opaque(&dst, &empty, &info);
    EXPECT_EQ(dst.length, 0u);
    EXPECT_EQ(dst.bytes, nullptr);
    EXPECT_STREQ(zor_datatype_str_opaque(&dst, &info), "(null)");
    EXPECT_EQ(zor_datatype_cmp_opaque(&dst, &empty, &info), 0);
    zor_datatype_write_opaque(&dst, &two, &info);
    zor_datatype_free_opaque(&dst, &info, nullptr);
    EXPECT_EQ(dst.length, 0u);
    EXPECT_EQ(dst.bytes, nullptr);
    zor_datatype_free_opaque(&dst, &info, nullptr); /* an empty value is fine */
    zor_datatype_write_opaque(&dst, &two, &info);
    zor_datatype_write_opaque(&dst, nullptr, &info);
    EXPECT_EQ(dst.bytes, nullptr);

    EXPECT_STREQ(zor_datatype_str_flag(nullptr, &info), "present");
}

TEST(DatatypeCore, Bool)
{
    zor_datatype_info info = sized(4);
    int v = 7;
    EXPECT_EQ(zor_datatype_parse_bool("true", 4, &info, &v), 1);
    EXPECT_EQ(v, 1);
    EXPECT_STREQ(zor_datatype_str_bool(&v, &info), "true");
    EXPECT_EQ(zor_datatype_parse_bool("false", 5, &info, &v), 1);
    EXPECT_EQ(v, 0);
    EXPECT_STREQ(zor_datatype_str_bool(&v, &info), "false");
    v = -3;
    EXPECT_STREQ(zor_datatype_str_bool(&v, &info), "true");
    for (const char *bad : {"True", "TRUE", "tru", "true ", " true", "1", "", "falsee", "fals"})
        EXPECT_EQ(zor_datatype_parse_bool(bad, strlen(bad), &info, &v), 0) << bad;
    EXPECT_EQ(zor_datatype_parse_bool("true!", 4, &info, &v), 1); /* only len bytes are read */
    v = 5;
    EXPECT_EQ(zor_datatype_parse_bool("trueish", 7, &info, &v), 0);
    EXPECT_EQ(v, 5);
    ZOR_EXPECT_ASSERT(zor_datatype_parse_bool("true", 4, &info, nullptr), "zor_datatype_parse_bool",
                      "buff != ((void *)0)");
    zor_datatype_info wide = sized(8);
    ZOR_EXPECT_ASSERT(zor_datatype_parse_bool("true", 4, &wide, &v), "zor_datatype_parse_bool",
                      "info->size == sizeof(int)");
}

TEST(DatatypeCore, IntRangesAtEverySize)
{
    expect_int(1, "-128", -128);
    expect_int(1, "127", 127);
    expect_rejected(zor_datatype_parse_int, 1, "128");
    expect_rejected(zor_datatype_parse_int, 1, "-129");
    expect_int(2, "-32768", -32768);
    expect_int(2, "32767", 32767);
    expect_rejected(zor_datatype_parse_int, 2, "32768");
    expect_rejected(zor_datatype_parse_int, 2, "-32769");
    expect_int(4, "-2147483648", INT32_MIN);
    expect_int(4, "2147483647", INT32_MAX);
    expect_rejected(zor_datatype_parse_int, 4, "2147483648");
    expect_rejected(zor_datatype_parse_int, 4, "-2147483649");
    expect_int(8, "-9223372036854775808", INT64_MIN);
    expect_int(8, "9223372036854775807", INT64_MAX);
    expect_rejected(zor_datatype_parse_int, 8, "9223372036854775808");
    expect_rejected(zor_datatype_parse_int, 8, "-9223372036854775809");
    expect_rejected(zor_datatype_parse_int, 8, "18446744073709551615");
    expect_rejected(zor_datatype_parse_int, 8, "-18446744073709551616");
    expect_rejected(zor_datatype_parse_int, 8, "99999999999999999999999");
    expect_int(4, "007", 7);
    expect_int(4, "-0", 0);
    expect_int(4, "-00000000000000000000000000042", -42);
    expect_int(1, "0", 0);
    for (const char *bad : {"", "-", "+5", " 5", "5 ", "5a", "--5", "0x10", "1.0", "5-"})
        expect_rejected(zor_datatype_parse_int, 4, bad);
    expect_rejected(zor_datatype_parse_int, 4, std::string("5\0", 2));
}

TEST(DatatypeCore, UintRangesAtEverySize)
{
    expect_uint(1, "255", 255);
    expect_rejected(zor_datatype_parse_uint, 1, "256");
    expect_uint(2, "65535", 65535);
    expect_rejected(zor_datatype_parse_uint, 2, "65536");
    expect_uint(4, "4294967295", UINT32_MAX);
    expect_rejected(zor_datatype_parse_uint, 4, "4294967296");
    expect_uint(8, "18446744073709551615", UINT64_MAX);
    expect_rejected(zor_datatype_parse_uint, 8, "18446744073709551616");
    expect_rejected(zor_datatype_parse_uint, 8, "100000000000000000000");
    expect_rejected(zor_datatype_parse_uint, 8, "184467440737095516150");
    expect_uint(8, "000000000000000000000000018446744073709551615", UINT64_MAX);
    expect_uint(4, "007", 7);
    expect_uint(1, "0", 0);
    for (const char *bad : {"", "-0", "-1", "+5", " 5", "5 ", "5a"})
        expect_rejected(zor_datatype_parse_uint, 4, bad);
}

TEST(DatatypeCore, IntegerDisplayAndOddSizes)
{
    zor_datatype_info s1 = sized(1), s2 = sized(2), s4 = sized(4), s8 = sized(8), s3 = sized(3);
    int8_t i8 = -5;
    int16_t i16 = -300;
    int32_t i32 = INT32_MIN;
    int64_t i64 = INT64_MIN;
    EXPECT_STREQ(zor_datatype_str_int(&i8, &s1), "-5");
    EXPECT_STREQ(zor_datatype_str_uint(&i8, &s1), "251");
    EXPECT_STREQ(zor_datatype_str_int(&i16, &s2), "-300");
    EXPECT_STREQ(zor_datatype_str_uint(&i16, &s2), "65236");
    EXPECT_STREQ(zor_datatype_str_int(&i32, &s4), "-2147483648");
    EXPECT_STREQ(zor_datatype_str_uint(&i32, &s4), "2147483648");
    EXPECT_STREQ(zor_datatype_str_int(&i64, &s8), "-9223372036854775808");
    EXPECT_STREQ(zor_datatype_str_uint(&i64, &s8), "9223372036854775808");
    unsigned char odd[3] = {0x0a, 0x0b, 0x0c};
    EXPECT_STREQ(zor_datatype_str_int(odd, &s3), "0a 0b 0c");
    EXPECT_STREQ(zor_datatype_str_uint(odd, &s3), "0a 0b 0c");

    /* A type derived from "int" with its own size 3: shown as hex, parsing stops. */
    zor_dict db;
    zor_datatype_db_init(&db, 16);
    zor_datatype_reg_info r = {};
    r.name = "int24";
    r.parent = "int";
    r.info.size = 3;
    zor_datatype_info *t;
    zor_datatype_register(&db, zor_str_init("x"), 1, &r, 0, &t);
    EXPECT_STREQ(zor_datatype_str(odd, t), "0a 0b 0c");
    EXPECT_EQ(t->parse("12x", 3, t, odd), 0); /* a rejected text does not reach the size */
    ZOR_EXPECT_ASSERT(t->parse("12", 2, t, odd), "zor_datatype_parse_int", "0");
    ZOR_EXPECT_ASSERT(zor_datatype_parse_uint("12", 2, &s3, odd), "zor_datatype_parse_uint", "0");
    zor_dict_destroy(&db);

    zor_datatype_info s16 = sized(16);
    ZOR_EXPECT_ASSERT(zor_datatype_parse_int("1", 1, &s4, nullptr), "zor_datatype_parse_int",
                      "buff != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_datatype_parse_uint("1", 1, &s4, nullptr), "zor_datatype_parse_uint",
                      "buff != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_datatype_parse_int("1", 1, &s16, odd), "zor_datatype_parse_int",
                      "info->size <= sizeof(int64_t)");
    ZOR_EXPECT_ASSERT(zor_datatype_parse_uint("1", 1, &s16, odd), "zor_datatype_parse_uint",
                      "info->size <= sizeof(uint64_t)");
}
