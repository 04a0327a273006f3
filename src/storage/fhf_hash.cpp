#include "storage/fhf_hash.h"

namespace {

fhf_mix_t mix_words(const uint8_t *key, uint32_t word_count, uint64_t seed)
{
    fhf_mix_t mix = {seed, 0};
    for (uint32_t i = 0; i < word_count; i++) {
        fhf_mix_word(&mix, fhf_load_word(key + 8 * static_cast<uint64_t>(i)));
    }
    return mix;
}

} // namespace

uint64_t fhf_hash(const uint8_t *key, uint32_t key_length, uint64_t seed)
{
    fhf_mix_t mix = mix_words(key, key_length / 8, seed);
    const uint32_t rest = key_length % 8;
    if (rest != 0) {
        uint64_t tail = 0;
        std::memcpy(&tail, key + (key_length - rest), rest);
        fhf_mix_word(&mix, mix.word ^ tail);
    }
    return fhf_finalize(mix.hash);
}

uint64_t fhf_hash_div8(const uint8_t *key, uint32_t key_length, uint64_t seed)
{
    return fhf_finalize(mix_words(key, key_length / 8, seed).hash);
}

uint64_t fhf_hash_40(const uint8_t *key, uint32_t /*key_length*/, uint64_t seed)
{
    return fhf_finalize(mix_words(key, 5, seed).hash);
}
