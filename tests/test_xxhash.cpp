/* The hashing dependency under the ZOR_ names, against published xxHash test vectors. */
#include "zor_test.h"
#include "zor_xxhash.h"

#include <string.h>

#include <vector>

namespace
{

const uint32_t kPrime = 2654435761U;

/* The sanity buffer of xxHash's own checks: each byte the top of a squared generator. */
std::vector<unsigned char> sanity_buffer()
{
    std::vector<unsigned char> buf(101);
    uint32_t gen = kPrime;
    for (auto &byte : buf) {
        byte = static_cast<unsigned char>(gen >> 24);
        gen *= gen;
    }
    return buf;
}

struct vector32 {
    size_t len;
    uint32_t seed;
    uint32_t hash;
};
struct vector64 {
    size_t len;
    uint64_t seed;
    uint64_t hash;
};

const vector32 kVectors32[] = {
    {0, 0, 0x02CC5D05},  {0, kPrime, 0x36B78AE7},  {1, 0, 0xB85CBEE5},   {1, kPrime, 0xD5845D64},
    {14, 0, 0xE5AA0AB4}, {14, kPrime, 0x4481951D}, {101, 0, 0x1F1AA412}, {101, kPrime, 0x498EC8E2},
};
const vector64 kVectors64[] = {
    {0, 0, 0xEF46DB3751D8E999ULL},   {0, kPrime, 0xAC75FDA2929B17EFULL},
    {1, 0, 0x4FCE394CC88952D8ULL},   {1, kPrime, 0x739840CB819FA723ULL},
    {14, 0, 0xCFFA8DB881BC3A3DULL},  {14, kPrime, 0x5B9611585EFCC9CBULL},
    {101, 0, 0x0EAB543384F878ADULL}, {101, kPrime, 0xCAA65939306F1E21ULL},
};

} // namespace

TEST(XXHash, VersionAndPublishedVectors)
{
    EXPECT_EQ(ZOR_XXH_versionNumber(), 603u);
    std::vector<unsigned char> buf = sanity_buffer();
    for (const vector32 &v : kVectors32)
        EXPECT_EQ(ZOR_XXH32(buf.data(), v.len, v.seed), v.hash) << v.len << "/" << v.seed;
    for (const vector64 &v : kVectors64)
        EXPECT_EQ(ZOR_XXH64(buf.data(), v.len, v.seed), v.hash) << v.len << "/" << v.seed;
    EXPECT_EQ(ZOR_XXH32(nullptr, 0, 0), 0x02CC5D05u);
    EXPECT_EQ(ZOR_XXH64(nullptr, 0, 0), 0xEF46DB3751D8E999ULL);

    EXPECT_EQ(ZOR_XXH32("a", 1, 0), 0x550D7456u);
    EXPECT_EQ(ZOR_XXH64("a", 1, 0), 0xD24EC4F1A98C6E5BULL);
    EXPECT_EQ(ZOR_XXH32("abc", 3, 0), 0x32D153FFu);
    EXPECT_EQ(ZOR_XXH64("abc", 3, 0), 0x44BC2CF5AD770999ULL);
    const char *text = "Nobody inspects the spammish repetition";
    EXPECT_EQ(ZOR_XXH32(text, strlen(text), 0), 0xE2293B2Fu);
    EXPECT_EQ(ZOR_XXH64(text, strlen(text), 0), 0xFBCEA83C8A378BF1ULL);
}

/* Fed in pieces of every size from 1 to 33 (crossing the 16- and 32-byte stripes), a copy taken
 * halfway, the digest equals the one-shot hash. */
TEST(XXHash, StreamingInPiecesEqualsOneShot)
{
    std::vector<unsigned char> buf = sanity_buffer();
    XXH32_state_t *s32 = ZOR_XXH32_createState();
    XXH32_state_t *c32 = ZOR_XXH32_createState();
    XXH64_state_t *s64 = ZOR_XXH64_createState();
    XXH64_state_t *c64 = ZOR_XXH64_createState();
    ASSERT_NE(s32, nullptr);
    ASSERT_NE(s64, nullptr);
    size_t copied_at = 0;
    for (size_t piece = 1; piece <= 33; piece++) {
        ASSERT_EQ(ZOR_XXH32_reset(s32, kPrime), XXH_OK);
        ASSERT_EQ(ZOR_XXH64_reset(s64, kPrime), XXH_OK);
        for (size_t at = 0; at < buf.size(); at += piece) {
            size_t n = std::min(piece, buf.size() - at);
            ASSERT_EQ(ZOR_XXH32_update(s32, buf.data() + at, n), XXH_OK);
            ASSERT_EQ(ZOR_XXH64_update(s64, buf.data() + at, n), XXH_OK);
            if (at <= 50 && at + n > 50) {
                ZOR_XXH32_copyState(c32, s32);
                ZOR_XXH64_copyState(c64, s64);
                copied_at = at + n;
                EXPECT_EQ(ZOR_XXH32_digest(c32), ZOR_XXH32(buf.data(), at + n, kPrime));
                EXPECT_EQ(ZOR_XXH64_digest(c64), ZOR_XXH64(buf.data(), at + n, kPrime));
            }
        }
        EXPECT_EQ(ZOR_XXH32_digest(s32), 0x498EC8E2u) << piece;
        EXPECT_EQ(ZOR_XXH64_digest(s64), 0xCAA65939306F1E21ULL) << piece;
    }
    /* The copy goes on from where it was taken to the same result. */
    ZOR_XXH64_update(c64, buf.data() + copied_at, buf.size() - copied_at);
    EXPECT_EQ(ZOR_XXH64_digest(c64), 0xCAA65939306F1E21ULL);
    EXPECT_EQ(ZOR_XXH32_freeState(s32), XXH_OK);
    EXPECT_EQ(ZOR_XXH32_freeState(c32), XXH_OK);
    EXPECT_EQ(ZOR_XXH64_freeState(s64), XXH_OK);
    EXPECT_EQ(ZOR_XXH64_freeState(c64), XXH_OK);
}

TEST(XXHash, CanonicalIsBigEndianAndRoundTrips)
{
    XXH32_canonical_t c32;
    ZOR_XXH32_canonicalFromHash(&c32, 0x02CC5D05u);
    const unsigned char want32[] = {0x02, 0xCC, 0x5D, 0x05};
    EXPECT_EQ(memcmp(c32.digest, want32, 4), 0);
    EXPECT_EQ(ZOR_XXH32_hashFromCanonical(&c32), 0x02CC5D05u);

    XXH64_canonical_t c64;
    ZOR_XXH64_canonicalFromHash(&c64, 0xEF46DB3751D8E999ULL);
    const unsigned char want64[] = {0xEF, 0x46, 0xDB, 0x37, 0x51, 0xD8, 0xE9, 0x99};
    EXPECT_EQ(memcmp(c64.digest, want64, 8), 0);
    EXPECT_EQ(ZOR_XXH64_hashFromCanonical(&c64), 0xEF46DB3751D8E999ULL);
}
