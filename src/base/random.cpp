#include "base/random.h"

#include <emmintrin.h>
#include <cmath>

namespace tessel {

namespace {

constexpr unsigned middle_word = 156;
constexpr std::uint64_t twist_matrix = 0xB5026F5AA96619E9u;
constexpr std::uint64_t upper_bits = 0xFFFFFFFF80000000u;
constexpr std::uint64_t lower_bits = 0x7FFFFFFFu;

std::uint64_t twist(std::uint64_t high, std::uint64_t low) {
    const std::uint64_t joined = (high & upper_bits) | (low & lower_bits);
    // The matrix when the lowest bit is set, without a branch that is wrong half the time.
    return (joined >> 1) ^ ((0 - (joined & 1)) & twist_matrix);
}

__m128i load_words(const std::uint64_t* words) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(words));
}

__m128i both(std::uint64_t word) {
    return _mm_set1_epi64x(static_cast<long long>(word));
}

// The next count words of the state (an even number), each from itself, the next and the one `other` has for
// it.
void twist_words(std::uint64_t* state, const std::uint64_t* other, unsigned count) {
    const __m128i one = both(1);
    for (unsigned at = 0; at < count; at += 2) {
        const __m128i joined = _mm_or_si128(_mm_and_si128(load_words(state + at), both(upper_bits)),
                                            _mm_and_si128(load_words(state + at + 1), both(lower_bits)));
        const __m128i odd = _mm_sub_epi64(_mm_setzero_si128(), _mm_and_si128(joined, one));
        const __m128i twisted =
            _mm_xor_si128(_mm_srli_epi64(joined, 1), _mm_and_si128(odd, both(twist_matrix)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(state + at),
                         _mm_xor_si128(load_words(other + at), twisted));
    }
}

void temper_words(std::uint64_t* out, const std::uint64_t* state, unsigned count) {
    for (unsigned at = 0; at < count; at += 2) {
        __m128i word = load_words(state + at);
        word = _mm_xor_si128(word, _mm_and_si128(_mm_srli_epi64(word, 29), both(0x5555555555555555u)));
        word = _mm_xor_si128(word, _mm_and_si128(_mm_slli_epi64(word, 17), both(0x71D67FFFEDA60000u)));
        word = _mm_xor_si128(word, _mm_and_si128(_mm_slli_epi64(word, 37), both(0xFFF7EEE000000000u)));
        word = _mm_xor_si128(word, _mm_srli_epi64(word, 43));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), word);
    }
}

}  // namespace

void seed_random(Random& random, std::uint64_t seed) {
    random.state[0] = seed;
    for (unsigned at = 1; at < Random::state_words; ++at) {
        const std::uint64_t before = random.state[at - 1];
        random.state[at] = 6364136223846793005u * (before ^ (before >> 62)) + at;
    }
    random.used = Random::state_words;
}

// Two words at a time: the state's order of use leaves 156 words between a word and the ones it is made from.
void refill(Random& random) {
    std::uint64_t* const state = random.state.data();
    constexpr unsigned words = Random::state_words;
    twist_words(state, state + middle_word, words - middle_word);
    twist_words(state + words - middle_word, state, middle_word - 2);
    for (unsigned at = words - 2; at < words; ++at) {
        state[at] = state[at + middle_word - words] ^ twist(state[at], state[(at + 1) % words]);
    }
    temper_words(random.block.data(), state, words);
    random.used = 0;
}

double normal_deviate(NormalDeviates& deviates, Random& random) {
    if (deviates.has_saved) {
        deviates.has_saved = false;
        return deviates.saved;
    }
    for (;;) {
        const double u1 = uniform_real(random);
        const double x = 2 * u1 - 1;
        const double u2 = uniform_real(random);
        const double y = 2 * u2 - 1;
        const double s = x * x + y * y;
        if (s > 0 && s <= 1) {
            const double factor = std::sqrt((-2 * std::log(s)) / s);
            deviates.saved = x * factor;
            deviates.has_saved = true;
            return y * factor;
        }
    }
}

}  // namespace tessel
