// The hash of the fixed-size hash table: a multiply-rotate mix of 8-byte little-endian words, finished with
// the 64-bit finalizer of MurmurHash3 (fmix64, Austin Appleby, public domain). All arithmetic is modulo 2^64;
// the key's length is not mixed in. fhf_hash, fhf_hash_div8 and fhf_hash_40 are the same function for any
// length, for whole words and for exactly five words; for lengths that they share they give equal results.
#pragma once

#include "common/export.h"

#include <bit>
#include <cstdint>
#include <cstring>

// key: key_length bytes. fhf_hash_div8 ignores the bytes after the last whole word;
// fhf_hash_40 always reads 40 bytes.
KS_EXPORT uint64_t fhf_hash(const uint8_t *key, uint32_t key_length, uint64_t seed);
KS_EXPORT uint64_t fhf_hash_div8(const uint8_t *key, uint32_t key_length, uint64_t seed);
KS_EXPORT uint64_t fhf_hash_40(const uint8_t *key, uint32_t key_length, uint64_t seed);

// The running state: the hash so far, and the last word as mixed in (a shorter tail is folded into it).
struct fhf_mix_t {
    uint64_t hash;
    uint64_t word;
};

inline void fhf_mix_word(fhf_mix_t *mix, uint64_t word)
{
    mix->word = std::rotl(word * 5333, 19) * 7177;
    mix->hash = std::rotl(mix->hash ^ mix->word, 19) * 11117 + 14011;
}

inline uint64_t fhf_load_word(const uint8_t *bytes)
{
    static_assert(std::endian::native == std::endian::little, "words are little-endian");
    uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

inline uint64_t fhf_finalize(uint64_t hash)
{
    hash = (hash ^ (hash >> 33)) * 0xff51afd7ed558ccdU;
    hash = (hash ^ (hash >> 33)) * 0xc4ceb9fe1a85ec53U;
    return hash ^ (hash >> 33);
}

// fhf_hash_div8 of a 16-byte key, for the packet path: every table of addresses has such keys.
inline uint64_t fhf_hash_16(const uint8_t *key, uint64_t seed)
{
    fhf_mix_t mix = {seed, 0};
    fhf_mix_word(&mix, fhf_load_word(key));
    fhf_mix_word(&mix, fhf_load_word(key + 8));
    return fhf_finalize(mix.hash);
}
