#include "base/lanes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

namespace tessel {
namespace {

alignas(16) constexpr std::array<float, 4> some_floats{-3.0F, 16'777'216.0F, 0.5F, -1'073'741'824.0F};

TEST(Lanes, HigherFloats_LaneByLane) {
    const Floats4 highest = higher(load_floats(some_floats.data()), four_of(0.5F));
    EXPECT_EQ(highest[0], 0.5F);
    EXPECT_EQ(highest[1], 16'777'216.0F);
    EXPECT_EQ(highest[2], 0.5F);
    EXPECT_EQ(highest[3], 0.5F);
}

TEST(Lanes, Seed1_RandomBytesAndMasks_EqualPlainLoops) {
    std::mt19937_64 raw(1);
    for (int round = 0; round < 1'000; ++round) {
        alignas(16) std::array<std::uint8_t, 16> left;
        alignas(16) std::array<std::uint8_t, 16> right;
        Words4 masks[4];
        unsigned expected_bits = 0;
        for (std::size_t at = 0; at < 16; ++at) {
            left[at] = static_cast<std::uint8_t>(raw());
            right[at] = static_cast<std::uint8_t>(raw());
            const bool set = raw() % 2 == 0;
            masks[at / 4][at % 4] = set ? -1 : 0;
            expected_bits |= (set ? 1u : 0u) << at;
        }
        const Bytes16 highest = higher(load_bytes(left.data()), load_bytes(right.data()));
        const Bytes16 narrow = narrow_masks(masks[0], masks[1], masks[2], masks[3]);
        for (std::size_t at = 0; at < 16; ++at) {
            ASSERT_EQ(highest[at], std::max(left[at], right[at]));
            ASSERT_EQ(narrow[at], (expected_bits >> at & 1) != 0 ? 0xFF : 0);
        }
        ASSERT_EQ(byte_bits(narrow), expected_bits);
        unsigned high_bits = 0;
        for (std::size_t at = 0; at < 16; ++at) {
            high_bits |= static_cast<unsigned>(left[at] >> 7) << at;
        }
        ASSERT_EQ(byte_bits(load_bytes(left.data())), high_bits);
    }
}

}  // namespace
}  // namespace tessel
