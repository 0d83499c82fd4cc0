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

std::string pairs(int n)
{
    std::string s;
    for (int k = 0; k < n; k++)
        s += k ? " 5a" : "5a";
    return s;
}

/* Parses `text` as "int" or "uint" of `size` bytes into 8 bytes preset to 0xEE, from an
 * exact-size heap copy (no NUL after it: overreads get caught). Checks that a rejection writes
 * nothing, that an acceptance writes only `size` bytes and stores what strtoll/strtoull read. */
void expect_parse(bool sign, uint64_t size, const std::string &text, bool ok)
{
    zor_datatype_info info = sized(size);
    unsigned char out[8], untouched[8];
    memset(out, 0xEE, sizeof(out));
    memset(untouched, 0xEE, sizeof(untouched));
    std::vector<char> exact(text.begin(), text.end());
    auto fn = sign ? zor_datatype_parse_int : zor_datatype_parse_uint;
    std::string what = (sign ? "int" : "uint") + std::to_string(size * 8) + " '" + text + "'";
    EXPECT_EQ(fn(exact.data(), exact.size(), &info, out), ok ? 1 : 0) << what;
    if (!ok) {
        EXPECT_EQ(memcmp(out, untouched, 8), 0) << what;
        return;
    }
    uint64_t want = sign ? static_cast<uint64_t>(strtoll(text.c_str(), nullptr, 10))
                         : strtoull(text.c_str(), nullptr, 10);
    uint64_t got = 0;
    memcpy(&got, out, size); /* little-endian: the low bytes */
    if (sign && size < 8 && (out[size - 1] & 0x80))
        got |= ~0ULL << (size * 8);
    EXPECT_EQ(got, want) << what;
    EXPECT_EQ(memcmp(out + size, untouched, 8 - size), 0) << what;
}

} // namespace

TEST(DatatypeCore, HexDumpCutsAt340Bytes)
{
    const unsigned char three[] = {0x01, 0xab, 0xff};
    EXPECT_STREQ(zor_datatype_hex_dump(three, 3), "01 ab ff");
    EXPECT_STREQ(zor_datatype_hex_dump(nullptr, 3), "(null)");
    EXPECT_STREQ(zor_datatype_hex_dump(three, 0), "");
    std::vector<unsigned char> big(400, 0x5a);
    for (int n : {1, 339, 340, 341, 400})
        EXPECT_EQ(std::string(zor_datatype_hex_dump(big.data(), n)),
                  pairs(std::min(n, 340)) + (n > 340 ? " ..." : ""));
    EXPECT_EQ(strlen(zor_datatype_hex_dump(big.data(), 400)), 1023u);
}

TEST(DatatypeCore, MemOpaqueAndFlag)
{
    zor_datatype_info three = sized(3), info = sized(16);
    unsigned char a[3] = {1, 2, 3}, b[3] = {1, 2, 4}, c[3] = {9, 9, 9};
    EXPECT_STREQ(zor_datatype_str_mem(a, &three), "01 02 03");
    EXPECT_STREQ(zor_datatype_str_mem(nullptr, &three), "(null)");
    EXPECT_LT(zor_datatype_cmp_mem(a, b, &three), 0);
    EXPECT_EQ(zor_datatype_cmp_mem(a, a, &three), 0);
    zor_datatype_copy_mem(c, a, &three);
    EXPECT_EQ(memcmp(c, a, 3), 0);
    zor_datatype_copy_mem(c, nullptr, &three);
    EXPECT_EQ(c[0] | c[1] | c[2], 0);
    EXPECT_STREQ(zor_datatype_str_flag(nullptr, &info), "present");

    /* "opaque" owns a copy; a shorter value sorts first; writing releases the old copy. */
    char bytes2[] = "zz", bytes3[] = "aaa";
    zor_opaque two = {2, bytes2}, tri = {3, bytes3}, dst = {0, nullptr}, empty = {0, nullptr};
    EXPECT_EQ(zor_datatype_cmp_opaque(&two, &tri, &info), -1);
    EXPECT_EQ(zor_datatype_cmp_opaque(&tri, &two, &info), 1);
    zor_datatype_write_opaque(&dst, &tri, &info);
    EXPECT_EQ(dst.length, 3u);
    EXPECT_NE(dst.bytes, static_cast<void *>(bytes3));
    EXPECT_EQ(zor_datatype_cmp_opaque(&dst, &tri, &info), 0);
    zor_datatype_write_opaque(&dst, &two, &info);
    EXPECT_STREQ(zor_datatype_str_opaque(&dst, &info), "7a 7a");
    zor_datatype_write_opaque(&dst, &empty, &info);
    EXPECT_TRUE(dst.length == 0 && dst.bytes == nullptr);
    EXPECT_STREQ(zor_datatype_str_opaque(&dst, &info), "(null)");
    EXPECT_EQ(zor_datatype_cmp_opaque(&dst, &empty, &info), 0);
    zor_datatype_write_opaque(&dst, &two, &info);
    zor_datatype_free_opaque(&dst, &info, nullptr);
    EXPECT_TRUE(dst.length == 0 && dst.bytes == nullptr);
    zor_datatype_free_opaque(&dst, &info, nullptr); /* an empty value is fine */
    zor_datatype_write_opaque(&dst, &two, &info);
    zor_datatype_write_opaque(&dst, nullptr, &info);
    EXPECT_EQ(dst.bytes, nullptr);
}

TEST(DatatypeCore, Bool)
{
    zor_datatype_info info = sized(4), wide = sized(8);
    int v = 7;
    /* Only the first len bytes are read: "true!" with len 4 is "true". */
    const struct {
        const char *text;
        size_t len;
        int ok, value;
    } cases[] = {{"true", 4, 1, 1}, {"false", 5, 1, 0},  {"true!", 4, 1, 1}, {"trueish", 7, 0, 0},
                 {"True", 4, 0, 0}, {"tru", 3, 0, 0},    {" true", 5, 0, 0}, {"1", 1, 0, 0},
                 {"", 0, 0, 0},     {"falsee", 6, 0, 0}, {"fals", 4, 0, 0}};
    for (const auto &c : cases) {
        v = 5;
        EXPECT_EQ(zor_datatype_parse_bool(c.text, c.len, &info, &v), c.ok) << c.text;
        EXPECT_EQ(v, c.ok ? c.value : 5) << c.text;
    }
    for (int value : {1, 0, -3}) {
        v = value;
        EXPECT_STREQ(zor_datatype_str_bool(&v, &info), value ? "true" : "false");
    }
    ZOR_EXPECT_ASSERT(zor_datatype_parse_bool("true", 4, &info, nullptr), "zor_datatype_parse_bool",
                      "buff != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_datatype_parse_bool("true", 4, &wide, &v), "zor_datatype_parse_bool",
                      "info->size == sizeof(int)");
}

TEST(DatatypeCore, IntegerRangesAtEverySize)
{
    /* Per size: the extreme accepted texts and their outside neighbours, signed and unsigned. */
    const struct {
        uint64_t size;
        const char *min, *max, *below, *above, *umax, *uabove;
    } ranges[] = {
        {1, "-128", "127", "-129", "128", "255", "256"},
        {2, "-32768", "32767", "-32769", "32768", "65535", "65536"},
        {4, "-2147483648", "2147483647", "-2147483649", "2147483648", "4294967295", "4294967296"},
        {8, "-9223372036854775808", "9223372036854775807", "-9223372036854775809",
         "9223372036854775808", "18446744073709551615", "18446744073709551616"},
    };
    for (const auto &r : ranges) {
        for (const char *in : {r.min, r.max, "0", "-0", "007", "-1"})
            expect_parse(true, r.size, in, true);
        for (const char *out : {r.below, r.above})
            expect_parse(true, r.size, out, false);
        for (const char *in : {r.umax, "0", "007"})
            expect_parse(false, r.size, in, true);
        for (const char *out : {r.uabove, "-0", "-1"})
            expect_parse(false, r.size, out, false);
    }
    /* Texts far beyond 64 bits, and leading zeros beyond them. */
    expect_parse(true, 8, "18446744073709551615", false);
    expect_parse(true, 8, "-18446744073709551616", false);
    expect_parse(true, 8, "99999999999999999999999", false);
    expect_parse(true, 4, "-00000000000000000000000000042", true);
    expect_parse(false, 8, "100000000000000000000", false);
    expect_parse(false, 8, "184467440737095516150", false);
    expect_parse(false, 8, "000000000000000000000000018446744073709551615", true);
    /* Malformed texts, at every size, for both. */
    const std::string bad[] = {
        "", "-", "+5", " 5", "5 ", "5a", "--5", "0x10", "1.0", "5-", std::string("5\0", 2)};
    for (bool sign : {true, false})
        for (uint64_t size : {1, 2, 4, 8})
            for (const std::string &text : bad)
                expect_parse(sign, size, text, false);
}

TEST(DatatypeCore, IntegerDisplayAndOddSizes)
{
    const struct {
        uint64_t size;
        int64_t value;
        const char *as_int, *as_uint;
    } shown[] = {{1, -5, "-5", "251"},
                 {2, -300, "-300", "65236"},
                 {4, INT32_MIN, "-2147483648", "2147483648"},
                 {8, INT64_MIN, "-9223372036854775808", "9223372036854775808"}};
    for (const auto &s : shown) {
        zor_datatype_info info = sized(s.size);
        EXPECT_STREQ(zor_datatype_str_int(&s.value, &info), s.as_int); /* little-endian */
        EXPECT_STREQ(zor_datatype_str_uint(&s.value, &info), s.as_uint);
    }
    zor_datatype_info s3 = sized(3), s4 = sized(4), s16 = sized(16);
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

    ZOR_EXPECT_ASSERT(zor_datatype_parse_int("1", 1, &s4, nullptr), "zor_datatype_parse_int",
                      "buff != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_datatype_parse_uint("1", 1, &s4, nullptr), "zor_datatype_parse_uint",
                      "buff != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_datatype_parse_int("1", 1, &s16, odd), "zor_datatype_parse_int",
                      "info->size <= sizeof(int64_t)");
    ZOR_EXPECT_ASSERT(zor_datatype_parse_uint("1", 1, &s16, odd), "zor_datatype_parse_uint",
                      "info->size <= sizeof(uint64_t)");
}
