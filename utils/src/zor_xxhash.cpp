/*
 * The hashing dependency under the library's own names: each function
 * forwards to the system xxHash.
 */
#include "zor_xxhash.h"

unsigned ZOR_XXH_versionNumber(void)
{
    return ZOR_XXH_VERSION_NUMBER;
}

/*
 * The 32-bit and the 64-bit hash have the same set of functions: `bits` is
 * 32 or 64, `seed_t` the type of its seed.
 */
#define ZOR_XXH_FORWARD(bits, seed_t)                                                              \
    XXH##bits##_hash_t ZOR_XXH##bits(const void *input, size_t length, seed_t seed)                \
    {                                                                                              \
        return XXH##bits(input, length, seed);                                                     \
    }                                                                                              \
    XXH##bits##_state_t *ZOR_XXH##bits##_createState(void)                                         \
    {                                                                                              \
        return XXH##bits##_createState();                                                          \
    }                                                                                              \
    XXH_errorcode ZOR_XXH##bits##_freeState(XXH##bits##_state_t *state)                            \
    {                                                                                              \
        return XXH##bits##_freeState(state);                                                       \
    }                                                                                              \
    void ZOR_XXH##bits##_copyState(XXH##bits##_state_t *dst, const XXH##bits##_state_t *src)       \
    {                                                                                              \
        XXH##bits##_copyState(dst, src);                                                           \
    }                                                                                              \
    XXH_errorcode ZOR_XXH##bits##_reset(XXH##bits##_state_t *state, seed_t seed)                   \
    {                                                                                              \
        return XXH##bits##_reset(state, seed);                                                     \
    }                                                                                              \
    XXH_errorcode ZOR_XXH##bits##_update(XXH##bits##_state_t *state, const void *input,            \
                                         size_t length)                                            \
    {                                                                                              \
        return XXH##bits##_update(state, input, length);                                           \
    }                                                                                              \
    XXH##bits##_hash_t ZOR_XXH##bits##_digest(const XXH##bits##_state_t *state)                    \
    {                                                                                              \
        return XXH##bits##_digest(state);                                                          \
    }                                                                                              \
    void ZOR_XXH##bits##_canonicalFromHash(XXH##bits##_canonical_t *dst, XXH##bits##_hash_t hash)  \
    {                                                                                              \
        XXH##bits##_canonicalFromHash(dst, hash);                                                  \
    }                                                                                              \
    XXH##bits##_hash_t ZOR_XXH##bits##_hashFromCanonical(const XXH##bits##_canonical_t *src)       \
    {                                                                                              \
        return XXH##bits##_hashFromCanonical(src);                                                 \
    }

ZOR_XXH_FORWARD(32, unsigned int)
ZOR_XXH_FORWARD(64, unsigned long long)
