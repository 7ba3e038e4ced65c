#include "base/random.h"

#include "base/natural_log.h"

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

std::uint64_t temper(std::uint64_t word) {
    word ^= (word >> 29) & 0x5555555555555555u;
    word ^= (word << 17) & 0x71D67FFFEDA60000u;
    word ^= (word << 37) & 0xFFF7EEE000000000u;
    return word ^ (word >> 43);
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

// Plain loops over the whole block, which compilers turn into vectors: a word is made from itself, the next
// one and one that is 156 words away.
void refill(Random& random) {
    auto& state = random.state;
    constexpr unsigned words = Random::state_words;
    for (unsigned at = 0; at < words - middle_word; ++at) {
        state[at] = state[at + middle_word] ^ twist(state[at], state[at + 1]);
    }
    for (unsigned at = words - middle_word; at < words - 1; ++at) {
        state[at] = state[at + middle_word - words] ^ twist(state[at], state[at + 1]);
    }
    state[words - 1] = state[middle_word - 1] ^ twist(state[words - 1], state[0]);
    for (unsigned at = 0; at < words; ++at) {
        random.block[at] = temper(state[at]);
    }
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
            const double factor = std::sqrt((-2 * natural_log(s)) / s);
            deviates.saved = x * factor;
            deviates.has_saved = true;
            return y * factor;
        }
    }
}

}  // namespace tessel
