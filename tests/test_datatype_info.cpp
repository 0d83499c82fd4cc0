/* Calling operations through a descriptor that may be missing. */
#include "zor_test.h"
#include "zor_datatype.h"

namespace
{

const char *show_int(const void *value, const zor_datatype_info *)
{
    return *static_cast<const int *>(value) == 7 ? "seven" : "other";
}

int answer;
int fixed_answer(const void *, const void *, const zor_datatype_info *)
{
    return answer;
}

} // namespace

TEST(DatatypeInfo, StrAndCmpEqThroughMissingOperations)
{
    int seven = 7;
    zor_datatype_info info = {};
    EXPECT_STREQ(zor_datatype_str(&seven, nullptr), "<Unknown>");
    EXPECT_STREQ(zor_datatype_str(&seven, &info), "<Unknown>");
    info.str = show_int;
    EXPECT_STREQ(zor_datatype_str(&seven, &info), "seven");

    EXPECT_EQ(zor_datatype_cmp_eq(&seven, &seven, nullptr), 0);
    EXPECT_EQ(zor_datatype_cmp_eq(&seven, &seven, &info), 0); /* no cmp_eq */
    info.cmp_eq = fixed_answer;
    answer = 0;
    EXPECT_EQ(zor_datatype_cmp_eq(&seven, &seven, &info), 1);
    answer = 1;
    EXPECT_EQ(zor_datatype_cmp_eq(&seven, &seven, &info), 0);
    answer = -5;
    EXPECT_EQ(zor_datatype_cmp_eq(&seven, &seven, &info), 0);
}
