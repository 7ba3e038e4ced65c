#pragma once

#include <array>
#include <cstdint>

namespace tessel {

// MT19937-64 with its standard seeding; the outputs are the standard library's, made a block of 312 at a
// time. The draws on top of it are our own, because the library's differ between compilers. Each draw must be
// a separate statement: the compiler chooses the order of two in one expression.
struct Random {
    static constexpr unsigned state_words = 312;
    std::array<std::uint64_t, state_words> state{};
    std::array<std::uint64_t, state_words> block{};  // tempered outputs
    unsigned used = state_words;                     // of the block
};

void seed_random(Random& random, std::uint64_t seed);

// Makes the next 312 outputs.
void refill(Random& random);

inline std::uint64_t next_u64(Random& random) {
    // >=, so that the compiler knows the index to be within the block.
    if (random.used >= Random::state_words) [[unlikely]] {
        refill(random);
    }
    return random.block[random.used++];
}

// Uniform in [lo, hi], both included, by widening multiply with rejection. A range of one value still takes a
// draw; the full 64-bit range is one raw draw.
inline std::int64_t uniform_int(Random& random, std::int64_t lo, std::int64_t hi) {
    const std::uint64_t range = static_cast<std::uint64_t>(hi) - static_cast<std::uint64_t>(lo) + 1;
    if (range == 0) [[unlikely]] {
        return static_cast<std::int64_t>(next_u64(random));
    }
    __extension__ using Wide = unsigned __int128;
    Wide product = static_cast<Wide>(next_u64(random)) * range;
    auto low = static_cast<std::uint64_t>(product);
    if (low < range) [[unlikely]] {
        const std::uint64_t threshold = (0 - range) % range;
        while (low < threshold) {
            product = static_cast<Wide>(next_u64(random)) * range;
            low = static_cast<std::uint64_t>(product);
        }
    }
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(lo) +
                                     static_cast<std::uint64_t>(product >> 64));
}

// Uniform in [0, 1): a 64-bit draw times 2^-64, one that rounds to 1 replaced by the largest double below 1.
inline double uniform_real(Random& random) {
    const std::uint64_t raw = next_u64(random);
    // The halves convert exactly; their sum rounds once, as the conversion of the whole would, but without a
    // branch.
    const double high = static_cast<double>(static_cast<std::int64_t>(raw >> 32)) * 4294967296.0;
    const double low = static_cast<double>(static_cast<std::int64_t>(raw & 0xFFFFFFFFu));
    const double value = (high + low) * 0x1p-64;
    return value < 1.0 ? value : 0x1.fffffffffffffp-1;
}

// The largest raw draw whose uniform_real is below limit, plus one: uniform_real(random) < limit exactly when
// the raw draw is below it. limit in (0, 1). Rounding to 53 bits is what makes it differ from limit * 2^64.
constexpr std::uint64_t chance_threshold(double limit) {
    std::uint64_t below = 0;                  // a draw whose value is below limit
    std::uint64_t above = ~std::uint64_t{0};  // one whose value is not
    while (above - below > 1) {
        const std::uint64_t middle = below + (above - below) / 2;
        const double value = static_cast<double>(middle) * 0x1p-64;
        if (value < limit) {
            below = middle;
        } else {
            above = middle;
        }
    }
    return above;
}

constexpr std::uint64_t half_chance = chance_threshold(0.5);

// Standard normal deviates by the polar method, two at a time; the second waits here. One of these lives for
// a tick.
struct NormalDeviates {
    double saved = 0;
    bool has_saved = false;
};

double normal_deviate(NormalDeviates& deviates, Random& random);

}  // namespace tessel
