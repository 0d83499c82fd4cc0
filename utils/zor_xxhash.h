/*
 * zor_xxhash.h - the hashing dependency, exported under the ZOR_ prefix.
 *
 * The library hashes with xxHash (Debian's libxxhash). Its callers reach the
 * functions through these names, which belong to libzor itself, so a program
 * needs no direct link against libxxhash. The set and its behaviour are those
 * of xxHash release 0.6.3: XXH32 and XXH64 one-shot hashing, streaming
 * states (created on the heap, reset with a seed, fed in pieces, digested
 * any number of times) and the canonical big-endian form of a hash. The
 * digests of the system library are the same as 0.6.3's for every input.
 *
 * The types (XXH32_hash_t, XXH64_hash_t, XXH_errorcode, the state and
 * canonical types) come from <xxhash.h>.
 */
#ifndef ZOR_XXHASH_H
#define ZOR_XXHASH_H

#include <stddef.h>

#include <xxhash.h>

#include "zor_utils.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The xxHash interface level exported: 603, for release 0.6.3. */
#define ZOR_XXH_VERSION_NUMBER 603

/* Returns ZOR_XXH_VERSION_NUMBER. */
ZOR_API unsigned ZOR_XXH_versionNumber(void);

/* One-shot 32-bit hash of `length` bytes at `input` (null is fine for 0 bytes). */
ZOR_API XXH32_hash_t ZOR_XXH32(const void *input, size_t length, unsigned int seed);

/* Streaming 32-bit hash: a heap state, freed with ZOR_XXH32_freeState. */
ZOR_API XXH32_state_t *ZOR_XXH32_createState(void);
ZOR_API XXH_errorcode ZOR_XXH32_freeState(XXH32_state_t *state);
/* Copies the whole progress of `src` into `dst`. */
ZOR_API void ZOR_XXH32_copyState(XXH32_state_t *dst, const XXH32_state_t *src);
/* Starts a new hash with `seed`; XXH_OK. */
ZOR_API XXH_errorcode ZOR_XXH32_reset(XXH32_state_t *state, unsigned int seed);
/* Feeds `length` more bytes at `input`; XXH_OK when done. */
ZOR_API XXH_errorcode ZOR_XXH32_update(XXH32_state_t *state, const void *input, size_t length);
/* The hash of everything fed since the reset; the state may be fed further. */
ZOR_API XXH32_hash_t ZOR_XXH32_digest(const XXH32_state_t *state);
/* The hash as 4 big-endian bytes, and back. */
ZOR_API void ZOR_XXH32_canonicalFromHash(XXH32_canonical_t *dst, XXH32_hash_t hash);
ZOR_API XXH32_hash_t ZOR_XXH32_hashFromCanonical(const XXH32_canonical_t *src);

/* The same for the 64-bit hash. */
ZOR_API XXH64_hash_t ZOR_XXH64(const void *input, size_t length, unsigned long long seed);
ZOR_API XXH64_state_t *ZOR_XXH64_createState(void);
ZOR_API XXH_errorcode ZOR_XXH64_freeState(XXH64_state_t *state);
ZOR_API void ZOR_XXH64_copyState(XXH64_state_t *dst, const XXH64_state_t *src);
ZOR_API XXH_errorcode ZOR_XXH64_reset(XXH64_state_t *state, unsigned long long seed);
ZOR_API XXH_errorcode ZOR_XXH64_update(XXH64_state_t *state, const void *input, size_t length);
ZOR_API XXH64_hash_t ZOR_XXH64_digest(const XXH64_state_t *state);
ZOR_API void ZOR_XXH64_canonicalFromHash(XXH64_canonical_t *dst, XXH64_hash_t hash);
ZOR_API XXH64_hash_t ZOR_XXH64_hashFromCanonical(const XXH64_canonical_t *src);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_XXHASH_H */
