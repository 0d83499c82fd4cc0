/* JSON writer: exact output of the layouts, the layout stack's depth, and the plain writer of
 * zor_json_ref.h over random call sequences. */
#include "zor_test.h"
#include "zor_json.h"
#include "zor_json_ref.h"

#include <random>
#include <string>

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

TEST_F(Json, Layouts)
{
    zor_json_start_obj(&j);
    zor_json_pair_quotes(&j, "K", "%s", "V");
    zor_json_start_arr_pair(&j, "L", 1);
    zor_json_arr_val_noquotes(&j, "%d", 1);
    zor_json_start_obj(&j); /* objects as array elements */
    zor_json_pair_noquotes(&j, "a", "%s", "true");
    zor_json_end_obj(&j);
    zor_json_start_arr(&j, 0); /* a one-line array inside a per-line one */
    zor_json_arr_val_quotes(&j, "%c", 'A');
    zor_json_arr_val_noquotes(&j, "y");
    zor_json_end_arr(&j);
    zor_json_end_arr(&j);
    zor_json_start_obj_pair(&j, "E");
    zor_json_end_obj(&j);
    zor_json_start_arr_pair(&j, "T", 7);
    zor_json_end_arr(&j);
    zor_json_end_obj(&j);
    EXPECT_EQ(take(), "{\n  \"K\": \"V\",\n  \"L\": [\n    1,\n    {\n      \"a\": true\n    },\n"
                      "    [ \"A\", y ]\n  ],\n  \"E\": {\n\n  },\n  \"T\": [  ]\n}");
    EXPECT_EQ(j.indent, 0);
    EXPECT_EQ(j.array_types, 0u);
    EXPECT_EQ(j.need_comma, 1u);
}

TEST_F(Json, LayoutStackDepth)
{
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

/* The same bytes in the same blocks, the same context after every call. */
TEST(JsonWriter, MatchesPlainWriter)
{
    for (uint64_t seed = 1; seed <= 240; seed++) {
        zor_json_ref::Gen<std::mt19937_64> g{std::mt19937_64(seed), {}};
        EXPECT_EQ(zor_json_ref::compare(g, 120), -2) << "seed " << seed;
    }
    zor_buffer_set_default_size(1024);
}
