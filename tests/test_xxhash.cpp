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
    const struct {
        const char *text;
        uint32_t h32;
        uint64_t h64;
    } texts[] = {{"a", 0x550D7456u, 0xD24EC4F1A98C6E5BULL},
                 {"abc", 0x32D153FFu, 0x44BC2CF5AD770999ULL},
                 {"Nobody inspects the spammish repetition", 0xE2293B2Fu, 0xFBCEA83C8A378BF1ULL}};
    for (const auto &t : texts) {
        EXPECT_EQ(ZOR_XXH32(t.text, strlen(t.text), 0), t.h32) << t.text;
        EXPECT_EQ(ZOR_XXH64(t.text, strlen(t.text), 0), t.h64) << t.text;
    }
}

/* Fed in pieces of every size from 1 to 33 (crossing the 16- and 32-byte stripes), the digest
 * equals the one-shot hash; a copy taken midway goes on to the same result. */
TEST(XXHash, StreamingInPiecesEqualsOneShot)
{
    std::vector<unsigned char> buf = sanity_buffer();
    XXH32_state_t *s32 = ZOR_XXH32_createState(), *c32 = ZOR_XXH32_createState();
    XXH64_state_t *s64 = ZOR_XXH64_createState(), *c64 = ZOR_XXH64_createState();
    for (size_t piece = 1; piece <= 33; piece++) {
        ASSERT_EQ(ZOR_XXH32_reset(s32, kPrime), XXH_OK);
        ASSERT_EQ(ZOR_XXH64_reset(s64, kPrime), XXH_OK);
        for (size_t at = 0; at < buf.size(); at += piece) {
            size_t n = std::min(piece, buf.size() - at);
            ASSERT_EQ(ZOR_XXH32_update(s32, buf.data() + at, n), XXH_OK);
            ASSERT_EQ(ZOR_XXH64_update(s64, buf.data() + at, n), XXH_OK);
            if (piece == 7 && at == 49) {
                ZOR_XXH32_copyState(c32, s32);
                ZOR_XXH64_copyState(c64, s64);
                EXPECT_EQ(ZOR_XXH64_digest(c64), ZOR_XXH64(buf.data(), 56, kPrime));
            }
        }
        EXPECT_EQ(ZOR_XXH32_digest(s32), 0x498EC8E2u) << piece;
        EXPECT_EQ(ZOR_XXH64_digest(s64), 0xCAA65939306F1E21ULL) << piece;
    }
    ZOR_XXH32_update(c32, buf.data() + 56, buf.size() - 56);
    ZOR_XXH64_update(c64, buf.data() + 56, buf.size() - 56);
    EXPECT_EQ(ZOR_XXH32_digest(c32), 0x498EC8E2u);
    EXPECT_EQ(ZOR_XXH64_digest(c64), 0xCAA65939306F1E21ULL);
    EXPECT_EQ(ZOR_XXH32_freeState(s32), XXH_OK);
    EXPECT_EQ(ZOR_XXH32_freeState(c32), XXH_OK);
    EXPECT_EQ(ZOR_XXH64_freeState(s64), XXH_OK);
    EXPECT_EQ(ZOR_XXH64_freeState(c64), XXH_OK);
}

TEST(XXHash, CanonicalIsBigEndianAndRoundTrips)
{
    XXH32_canonical_t c32;
    XXH64_canonical_t c64;
    ZOR_XXH32_canonicalFromHash(&c32, 0x02CC5D05u);
    ZOR_XXH64_canonicalFromHash(&c64, 0xEF46DB3751D8E999ULL);
    EXPECT_EQ(memcmp(c32.digest, "\x02\xCC\x5D\x05", 4), 0);
    EXPECT_EQ(memcmp(c64.digest, "\xEF\x46\xDB\x37\x51\xD8\xE9\x99", 8), 0);
    EXPECT_EQ(ZOR_XXH32_hashFromCanonical(&c32), 0x02CC5D05u);
    EXPECT_EQ(ZOR_XXH64_hashFromCanonical(&c64), 0xEF46DB3751D8E999ULL);
}
