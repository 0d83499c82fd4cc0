/* Allocation, the assertion convention and string views. */
#include "zor_test.h"
#include "zor_str.h"
#include "zor_utils.h"

/* Allocates and keeps the result observable, so the call cannot be elided. */
static void allocate_and_release(size_t size)
{
    void *volatile result = util_calloc(size);
    free(result);
}

TEST(Alloc, ZeroedNeverNullAndFailureStops)
{
    unsigned char *p = static_cast<unsigned char *>(util_calloc(4096));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 4096; i++)
        ASSERT_EQ(p[i], 0) << "byte " << i;
    free(p);
    void *empty = util_calloc(0); /* glibc gives a unique pointer */
    EXPECT_NE(empty, nullptr);
    free(empty);
    ZOR_EXPECT_ASSERT(allocate_and_release(SIZE_MAX / 2), "util_calloc", "result != ((void *)0)");
}

#ifndef NDEBUG
#error "the test programs are built with NDEBUG to prove that checks stay on"
#endif

TEST(Assert, StaysOnUnderNdebugAndReportsTheExpression)
{
    int *ptr = nullptr;
    int finished = 1;
    ZOR_EXPECT_ASSERT(ZOR_ASSERT(ptr != ZOR_NULL), "TestBody", "ptr != ((void *)0)");
    ZOR_EXPECT_ASSERT(ZOR_ASSERT(!finished), "TestBody", "!finished");
    ZOR_EXPECT_ASSERT(ZOR_ASSERT((finished & 0x80000000) == 0x0 && finished == 2), "TestBody",
                      "(finished & 0x80000000) == 0x0 && finished == 2");
    ZOR_ASSERT(finished == 1); /* a true condition does nothing */
}

TEST(Str, Views)
{
    const char *text = "hello", *empty = "";
    zor_str s = zor_str_init(text);
    EXPECT_TRUE(s.ptr == text && s.len == 5u);
    s = zor_str_init(empty);
    EXPECT_TRUE(s.ptr == empty && s.len == 0u);
    s = zor_str_init_len(text + 1, 3); /* not NUL-terminated at its end */
    EXPECT_TRUE(s.ptr == text + 1 && s.len == 3u);
    s = zor_str_init_len(text, 0);
    EXPECT_TRUE(s.ptr == text && s.len == 0u);
    s = zor_str_init_len(text, INT32_MAX);
    EXPECT_EQ(s.len, static_cast<uint64_t>(INT32_MAX));
    ZOR_EXPECT_ASSERT(zor_str_init(nullptr), "zor_str_init", "str != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_str_init_len(nullptr, 0), "zor_str_init_len", "str != ((void *)0)");
    ZOR_EXPECT_ASSERT(zor_str_init_len(nullptr, 7), "zor_str_init_len", "str != ((void *)0)");
}
