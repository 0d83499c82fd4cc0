/*
 * The hashing dependency under the library's own names: each function
 * forwards to the system xxHash.
 */
#include "zor_xxhash.h"

unsigned ZOR_XXH_versionNumber(void)
{
    return ZOR_XXH_VERSION_NUMBER;
}

XXH32_hash_t ZOR_XXH32(const void *input, size_t length, unsigned int seed)
{
    return XXH32(input, length, seed);
}

XXH32_state_t *ZOR_XXH32_createState(void)
{
    return XXH32_createState();
}

XXH_errorcode ZOR_XXH32_freeState(XXH32_state_t *state)
{
    return XXH32_freeState(state);
}

void ZOR_XXH32_copyState(XXH32_state_t *dst, const XXH32_state_t *src)
{
    XXH32_copyState(dst, src);
}

XXH_errorcode ZOR_XXH32_reset(XXH32_state_t *state, unsigned int seed)
{
    return XXH32_reset(state, seed);
}

XXH_errorcode ZOR_XXH32_update(XXH32_state_t *state, const void *input, size_t length)
{
    return XXH32_update(state, input, length);
}

XXH32_hash_t ZOR_XXH32_digest(const XXH32_state_t *state)
{
    return XXH32_digest(state);
}

void ZOR_XXH32_canonicalFromHash(XXH32_canonical_t *dst, XXH32_hash_t hash)
{
    XXH32_canonicalFromHash(dst, hash);
}

XXH32_hash_t ZOR_XXH32_hashFromCanonical(const XXH32_canonical_t *src)
{
    return XXH32_hashFromCanonical(src);
}

XXH64_hash_t ZOR_XXH64(const void *input, size_t length, unsigned long long seed)
{
    return XXH64(input, length, seed);
}

XXH64_state_t *ZOR_XXH64_createState(void)
{
    return XXH64_createState();
}

XXH_errorcode ZOR_XXH64_freeState(XXH64_state_t *state)
{
    return XXH64_freeState(state);
}

void ZOR_XXH64_copyState(XXH64_state_t *dst, const XXH64_state_t *src)
{
    XXH64_copyState(dst, src);
}

XXH_errorcode ZOR_XXH64_reset(XXH64_state_t *state, unsigned long long seed)
{
    return XXH64_reset(state, seed);
}

XXH_errorcode ZOR_XXH64_update(XXH64_state_t *state, const void *input, size_t length)
{
    return XXH64_update(state, input, length);
}

XXH64_hash_t ZOR_XXH64_digest(const XXH64_state_t *state)
{
    return XXH64_digest(state);
}

void ZOR_XXH64_canonicalFromHash(XXH64_canonical_t *dst, XXH64_hash_t hash)
{
    XXH64_canonicalFromHash(dst, hash);
}

XXH64_hash_t ZOR_XXH64_hashFromCanonical(const XXH64_canonical_t *src)
{
    return XXH64_hashFromCanonical(src);
}
