#pragma once

#include "base/random.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tessel::testing {

// The smallest raw draw whose uniform_real is not below u (0 <= u < 1): the first that a limit of u keeps
// out.
inline std::uint64_t real_draw(double u) {
    return u > 0 ? chance_threshold(u) : 0;
}

// A raw draw from which uniform_int(lo, hi) makes value: the middle of its share of the 64 bits.
inline std::uint64_t int_draw(std::int64_t lo, std::int64_t hi, std::int64_t value) {
    __extension__ using Wide = unsigned __int128;
    const auto range = static_cast<std::uint64_t>(hi - lo + 1);
    const Wide middle = (static_cast<Wide>(value - lo) << 64) + (static_cast<Wide>(1) << 63);
    return static_cast<std::uint64_t>(middle / range);
}

// Makes the given raw draws the next ones (at most 312). What comes after them is the seed's next block.
inline void script_draws(Random& random, const std::vector<std::uint64_t>& draws) {
    random.used = Random::state_words - static_cast<unsigned>(draws.size());
    for (std::size_t at = 0; at < draws.size(); ++at) {
        random.block[random.used + at] = draws[at];
    }
}

// How many of the scripted draws are still to come: 0 when exactly all were taken.
inline unsigned draws_left(const Random& random) {
    return Random::state_words - random.used;
}

// The five draws of a participant quote that shows both sides: cents below and above, lots of bid and ask, u.
inline std::vector<std::uint64_t> quote_draws(int below, int above, int bid_lots, int ask_lots,
                                              double one_sided = 0.5) {
    return {int_draw(1, 3, below), int_draw(1, 3, above), int_draw(1, 8, bid_lots), int_draw(1, 8, ask_lots),
            real_draw(one_sided)};
}

// The lists, concatenated.
inline std::vector<std::uint64_t> joined_draws(const std::vector<std::vector<std::uint64_t>>& parts) {
    std::vector<std::uint64_t> all;
    for (const std::vector<std::uint64_t>& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

}  // namespace tessel::testing
