/* JSON writer: exact output, layouts, depth; the plain writer over random call sequences. */
#include "zor_test.h"
#include "zor_json.h"
#include "zor_json_ref.h"

#include <deque>
#include <random>
#include <string>
#include <vector>

namespace
{

class Json : public ::testing::Test
{
  protected:
    zor_buffer b = {};
    zor_json_ctx j;
    void SetUp() override
    {
        zor_json_init(&j, &b, 2, 0);
    }
    void TearDown() override
    {
        zor_buffer_free(&b);
    }
    /* Everything written so far, consumed. */
    std::string take()
    {
        zor_str s = zor_buffer_flatten(&b);
        std::string out(s.ptr, s.len);
        free(const_cast<char *>(s.ptr));
        zor_buffer_consume(&b, b.size);
        return out;
    }
};

} // namespace

TEST_F(Json, WorkedExample)
{
    zor_json_start_obj(&j);
    zor_json_pair_quotes(&j, "K", "%s", "V");
    zor_json_start_arr_pair(&j, "L", 1);
    zor_json_arr_val_noquotes(&j, "%d", 1);
    zor_json_arr_val_noquotes(&j, "%d", 2);
    zor_json_end_arr(&j);
    zor_json_start_arr_pair(&j, "T", 0);
    zor_json_arr_val_quotes(&j, "%c", 'A');
    zor_json_arr_val_quotes(&j, "B");
    zor_json_end_arr(&j);
    zor_json_end_obj(&j);
    EXPECT_EQ(take(), "{\n  \"K\": \"V\",\n  \"L\": [\n    1,\n    2\n  ],\n"
                      "  \"T\": [ \"A\", \"B\" ]\n}");
    EXPECT_EQ(j.indent, 0);
    EXPECT_EQ(j.array_types, 0u);
    EXPECT_EQ(j.need_comma, 1u);
}

TEST_F(Json, LayoutsAndNesting)
{
    /* Objects as array elements, a one-line array inside a per-line one. */
    zor_json_start_arr(&j, 1);
    zor_json_start_obj(&j);
    zor_json_pair_noquotes(&j, "a", "%s", "true");
    zor_json_end_obj(&j);
    zor_json_start_obj_pair(&j, "o"); /* written as given, even if invalid */
    zor_json_end_obj(&j);
    zor_json_start_arr(&j, 0);
    zor_json_arr_val_noquotes(&j, "x");
    zor_json_arr_val_noquotes(&j, "y");
    zor_json_end_arr(&j);
    zor_json_arr_val_noquotes(&j, "%d", 2);
    zor_json_end_arr(&j);
    EXPECT_EQ(take(), "[\n  {\n    \"a\": true\n  },\n  \"o\": {\n\n  },\n  [ x, y ],\n  2\n]");

    /* Empty arrays of both layouts; a second top-level value. */
    zor_json_init(&j, &b, 2, 0);
    zor_json_start_arr_pair(&j, "E", 1);
    zor_json_end_arr(&j);
    zor_json_start_arr(&j, 7);
    zor_json_end_arr(&j);
    EXPECT_EQ(take(), "\"E\": [\n\n],\n[  ]");
}

TEST_F(Json, LayoutStackDepth)
{
    std::string open, close;
    for (int i = 0; i < 33; i++) {
        zor_json_start_arr(&j, 0);
        open += "[ ";
        close += " ]";
    }
    for (int i = 0; i < 33; i++)
        zor_json_end_arr(&j);
    EXPECT_EQ(take(), open + close);

    zor_json_start_arr(&j, 1);
    for (int i = 0; i < 31; i++)
        zor_json_start_arr(&j, 0);
    EXPECT_EQ(j.array_types, 0x80000000u);
    ZOR_EXPECT_ASSERT(zor_json_start_arr(&j, 0), "zor_json_start_arr",
                      "(ctx->array_types & 0x80000000) == 0x0");
    ZOR_EXPECT_ASSERT(zor_json_start_arr_pair(&j, "k", 1), "zor_json_start_arr_pair",
                      "(ctx->array_types & 0x80000000) == 0x0");
    zor_json_end_arr(&j);
    zor_json_start_arr_pair(&j, "k", 1); /* room again */
    EXPECT_EQ(j.array_types, 0x80000001u);
}

namespace
{

/* A null "%s" argument shows as "(null)"; hidden from the compiler's format checks. */
const char *volatile null_text = nullptr;

/* Random call sequences: the texts, numbers and formats a caller passes. */
struct Gen {
    std::mt19937_64 rng;
    std::deque<std::string> kept; /* texts stay alive until the sequence ends */

    uint32_t below(uint32_t n)
    {
        return static_cast<uint32_t>(rng() % n);
    }
    /* Mostly short; near and past the 255-byte cut; escapes anywhere, also across the cut. */
    const char *text(bool literal = false)
    {
        static const char *const parts[] = {"a", "bc", "\\\"", "\\\\",     "\\n",       "\\u00e9",
                                            "%", " ",  "x y",  "\xc3\xa9", "0123456789"};
        static const size_t lengths[] = {0, 1, 7, 30, 253, 254, 255, 256, 300};
        size_t want = below(3) ? below(24) : lengths[below(9)];
        std::string s;
        while (s.size() < want) {
            const char *p = parts[below(11)];
            s += literal && *p == '%' ? "%%" : p; /* a format without conversions */
        }
        kept.push_back(s);
        return kept.back().c_str();
    }
    const char *key()
    {
        return below(40) ? text() : nullptr;
    }
    /* Small, huge, extreme, or next to a power of ten. */
    int64_t number()
    {
        static const int64_t edges[] = {0,          -1,        INT32_MIN, INT32_MAX,
                                        UINT32_MAX, INT64_MIN, INT64_MAX};
        switch (below(4)) {
        case 0:
            return static_cast<int64_t>(below(2001)) - 1000;
        case 1:
            return static_cast<int64_t>(rng());
        case 2:
            return edges[below(7)];
        default: {
            int64_t p = 1;
            for (uint32_t e = below(19); e > 0; e--)
                p *= 10;
            return (below(2) ? p : -p) + static_cast<int64_t>(below(3)) - 1;
        }
        }
    }
    /* Calls `call(format, args...)` with one value of some format kind. */
    template <class F> void value(F call)
    {
        int64_t n = number();
        switch (below(17)) {
        case 0:
        case 1:
            call("%s", text());
            break;
        case 2:
            call("%s", null_text);
            break;
        case 3:
            call("%d", static_cast<int>(n));
            break;
        case 4:
            call("%i", static_cast<int>(n));
            break;
        case 5:
            call("%u", static_cast<unsigned>(n));
            break;
        case 6:
            call("%ld", static_cast<long>(n));
            break;
        case 7:
            call("%lu", static_cast<unsigned long>(n));
            break;
        case 8:
            call("%lld", static_cast<long long>(n));
            break;
        case 9:
            call("%llu", static_cast<unsigned long long>(n));
            break;
        case 10:
            call("%zu", static_cast<size_t>(n));
            break;
        case 11:
            call(text(true), 0); /* plain text, "%%" among it */
            break;
        case 12:
            call("%s-%d", text(), static_cast<int>(n));
            break;
        case 13:
            call("%x", static_cast<unsigned>(n));
            break;
        case 14:
            call("%7.2f", static_cast<double>(n) / 7);
            break;
        case 15:
            call("%c", static_cast<int>(below(4) ? 'A' + below(26) : 0)); /* 0 ends the value */
            break;
        default:
            call("%ls", L"\x100"); /* the formatter fails: an empty value */
            break;
        }
    }
};

/* Every block's capacity, and its unconsumed text as zor_buffer_iovs hands it out. */
std::vector<std::pair<uint64_t, std::string>> layout(zor_buffer *b)
{
    std::vector<struct iovec> v(static_cast<size_t>(b->block_count) + 1);
    int32_t n = zor_buffer_iovs(b, v.data(), static_cast<int32_t>(v.size()));
    std::vector<std::pair<uint64_t, std::string>> out;
    zor_buffer_block *blk = b->first;
    for (int32_t i = 0; i < n; i++, blk = blk->next)
        out.emplace_back(blk->total_size,
                         std::string(static_cast<const char *>(v[i].iov_base), v[i].iov_len));
    return out;
}

} // namespace

/* The writer against the plain one (zor_json_ref.h) over random call sequences: the same
 * bytes in the same blocks, the same context after every call. Small default block sizes put
 * block boundaries everywhere; consumption in between makes writes reuse the last block. */
TEST(JsonWriter, MatchesPlainWriter)
{
    static const uint32_t defaults[] = {0, 1, 2, 3, 5, 16, 64, 1024};
    for (uint64_t seed = 1; seed <= 240; seed++) {
        Gen g{std::mt19937_64(seed), {}};
        zor_buffer fast = {}, plain = {};
        zor_json_ctx f, p;
        uint32_t indent_size = g.below(4) ? 2 * g.below(3) : g.below(256);
        uint32_t indent = g.below(4) ? 0 : g.below(256);
        zor_json_init(&f, &fast, indent_size, indent);
        zor_json_init(&p, &plain, indent_size, indent);
        zor_buffer_set_default_size(defaults[seed % 8]);
        for (int step = 0; step < 120; step++) {
            const char *key = g.key();
            int layout = static_cast<int>(g.below(3));
            bool room = (f.array_types & 0x80000000) == 0;
            switch (g.below(10)) {
            case 0:
                zor_json_start_obj(&f);
                zor_json_ref::start_obj(&p);
                break;
            case 1:
                zor_json_start_obj_pair(&f, key);
                zor_json_ref::start_obj_pair(&p, key);
                break;
            case 2:
                zor_json_end_obj(&f);
                zor_json_ref::end_obj(&p);
                break;
            case 3:
                if (room) {
                    zor_json_start_arr(&f, layout);
                    zor_json_ref::start_arr(&p, false, nullptr, layout);
                }
                break;
            case 4:
                if (room) {
                    zor_json_start_arr_pair(&f, key, layout);
                    zor_json_ref::start_arr(&p, true, key, layout);
                }
                break;
            case 5:
                zor_json_end_arr(&f);
                zor_json_ref::end_arr(&p);
                break;
            case 6:
            case 7: {
                bool quotes = g.below(2);
                g.value([&](const char *format, auto... args) {
                    if (quotes)
                        zor_json_arr_val_quotes(&f, format, args...);
                    else
                        zor_json_arr_val_noquotes(&f, format, args...);
                    zor_json_ref::value(&p, false, nullptr, quotes, format, args...);
                });
                break;
            }
            default: {
                bool quotes = g.below(2);
                g.value([&](const char *format, auto... args) {
                    if (quotes)
                        zor_json_pair_quotes(&f, key, format, args...);
                    else
                        zor_json_pair_noquotes(&f, key, format, args...);
                    zor_json_ref::value(&p, true, key, quotes, format, args...);
                });
                break;
            }
            }
            ASSERT_TRUE(f.indent == p.indent && f.need_comma == p.need_comma &&
                        f.array_types == p.array_types && fast.size == plain.size &&
                        fast.block_count == plain.block_count)
                << "seed " << seed << " step " << step;
            if (g.below(25) == 0) {
                uint64_t n = fast.size > 0 ? g.rng() % (fast.size + 1) : 0;
                zor_buffer_consume(&fast, n);
                zor_buffer_consume(&plain, n);
            }
        }
        ASSERT_EQ(layout(&fast), layout(&plain)) << "seed " << seed;
        zor_buffer_free(&fast);
        zor_buffer_free(&plain);
    }
    zor_buffer_set_default_size(1024);
}
