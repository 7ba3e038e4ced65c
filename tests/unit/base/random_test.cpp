#include "base/random.h"

#include "base/natural_log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <vector>

namespace tessel {
namespace {

__extension__ using Wide = unsigned __int128;

constexpr std::uint64_t u64_max = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t seeds[] = {0, 1, 7, 5489, 0x8000000000000000u, u64_max - 1, u64_max};

// A generator that hands out the given draws first: what the draws make of chosen raw values.
Random with_draws(const std::vector<std::uint64_t>& draws) {
    Random random;
    seed_random(random, 7);
    refill(random);
    random.used = Random::state_words - static_cast<unsigned>(draws.size());
    for (std::size_t i = 0; i < draws.size(); ++i) {
        random.block[random.used + i] = draws[i];
    }
    return random;
}

// The widening multiply with rejection, from draws of the standard library's generator.
std::uint64_t multiply_and_reject(std::mt19937_64& raw, std::uint64_t range) {
    for (;;) {
        const Wide product = static_cast<Wide>(raw()) * range;
        const auto low = static_cast<std::uint64_t>(product);
        const auto reject_below = static_cast<std::uint64_t>(((static_cast<Wide>(1) << 64) - range) % range);
        if (low >= reject_below) {
            return static_cast<std::uint64_t>(product >> 64);
        }
    }
}

TEST(RawDraws, EverySeed_FirstThousandAreTheStandardLibrarys) {
    for (const std::uint64_t seed : seeds) {
        Random random;
        seed_random(random, seed);
        std::mt19937_64 standard(seed);
        for (int i = 0; i < 1000; ++i) {
            ASSERT_EQ(next_u64(random), standard()) << "seed " << seed << " draw " << i;
        }
    }
}

TEST(RawDraws, DefaultSeedOfTheStandard_TenThousandthIsTheOneItPrescribes) {
    Random random;
    seed_random(random, 5489);
    std::uint64_t drawn = 0;
    for (int i = 0; i < 10000; ++i) {
        drawn = next_u64(random);
    }
    EXPECT_EQ(drawn, 9981545732273789042u);
}

TEST(RawDraws, SeededAgain_StartsOver) {
    Random random;
    seed_random(random, 7);
    const std::uint64_t first = next_u64(random);
    for (int i = 0; i < 500; ++i) {
        next_u64(random);
    }
    seed_random(random, 7);
    EXPECT_EQ(next_u64(random), first);
}

TEST(UniformInt, RangesOfEverySize_EqualTheWideningMultiplyWithRejection) {
    const std::pair<std::int64_t, std::int64_t> ranges[] = {
        {1, 3},
        {1, 8},
        {1, 99},
        {1, 20},
        {0, 6},
        {-5, 5},
        {-7, -2},
        {19000, 19007},
        {0, (std::int64_t{1} << 62) + 12345},  // a third of the draws is rejected
        {0, std::numeric_limits<std::int64_t>::max()},
        {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max() - 1},
        {std::numeric_limits<std::int64_t>::min(), 1},  // nearly half is rejected
    };
    for (const std::uint64_t seed : seeds) {
        Random random;
        seed_random(random, seed);
        std::mt19937_64 standard(seed);
        for (int i = 0; i < 500; ++i) {
            for (const auto& [lo, hi] : ranges) {
                const std::uint64_t range =
                    static_cast<std::uint64_t>(hi) - static_cast<std::uint64_t>(lo) + 1;
                const std::uint64_t above = multiply_and_reject(standard, range);
                const std::int64_t drawn = uniform_int(random, lo, hi);
                ASSERT_EQ(static_cast<std::uint64_t>(drawn), static_cast<std::uint64_t>(lo) + above)
                    << "seed " << seed << " round " << i << " range " << lo << " to " << hi;
                ASSERT_GE(drawn, lo);
                ASSERT_LE(drawn, hi);
            }
        }
    }
}

TEST(UniformInt, OneValueRange_UsesUpOneDraw) {
    Random random;
    seed_random(random, 7);
    std::mt19937_64 standard(7);
    standard();
    EXPECT_EQ(uniform_int(random, 42, 42), 42);
    EXPECT_EQ(next_u64(random), standard());
}

TEST(UniformInt, Full64BitRange_IsOneRawDraw) {
    Random random;
    seed_random(random, 7);
    std::mt19937_64 standard(7);
    for (int i = 0; i < 400; ++i) {
        const std::int64_t drawn = uniform_int(random, std::numeric_limits<std::int64_t>::min(),
                                               std::numeric_limits<std::int64_t>::max());
        ASSERT_EQ(static_cast<std::uint64_t>(drawn), standard()) << "draw " << i;
    }
}

// For a range of 3 the only draw to reject is 0: (2^64 - 3) mod 3 is 1, and the low half of 0 x 3 is 0.
TEST(UniformInt, RangeOfThree_DrawOfZeroIsRejectedAndTheNextTaken) {
    Random random = with_draws({0, u64_max, 1, 5});
    EXPECT_EQ(uniform_int(random, 1, 3), 3);
    EXPECT_EQ(uniform_int(random, 1, 3), 1);
    EXPECT_EQ(next_u64(random), 5u);
}

TEST(UniformInt, RangeThatIsAPowerOfTwo_NeverRejects) {
    Random random = with_draws({0, u64_max, 1});
    EXPECT_EQ(uniform_int(random, 1, 8), 1);
    EXPECT_EQ(uniform_int(random, 1, 8), 8);
    EXPECT_EQ(next_u64(random), 1u);
}

TEST(UniformReal, EverySeed_IsTheDrawTimesTwoToTheMinus64) {
    for (const std::uint64_t seed : seeds) {
        Random random;
        seed_random(random, seed);
        std::mt19937_64 standard(seed);
        for (int i = 0; i < 2000; ++i) {
            const double expected = std::ldexp(static_cast<double>(standard()), -64);
            ASSERT_EQ(uniform_real(random), expected) << "seed " << seed << " draw " << i;
        }
    }
}

TEST(UniformReal, DrawThatRoundsToOne_IsTheLargestDoubleBelowOne) {
    const double below_one = std::nextafter(1.0, 0.0);
    Random random = with_draws({u64_max, u64_max - 1023, u64_max - 1024, 0});
    EXPECT_EQ(uniform_real(random), below_one);
    EXPECT_EQ(uniform_real(random), below_one);  // 2^64 - 1024: halfway, rounds to even, that is to 1
    EXPECT_EQ(uniform_real(random), below_one);  // 2^64 - 1025: rounds down
    EXPECT_EQ(uniform_real(random), 0.0);
}

// Draws around the places where 64 bits are cut to 53: ties, just below and just above, at every magnitude.
TEST(UniformReal, DrawsAtEveryRoundingBoundary_RoundOnceAndHalfToEven) {
    std::vector<std::uint64_t> draws;
    for (unsigned bit = 52; bit < 64; ++bit) {
        const std::uint64_t top = std::uint64_t{1} << bit;
        const std::uint64_t unit = bit > 52 ? std::uint64_t{1} << (bit - 52) : 1;
        for (std::uint64_t k = 0; k < 4; ++k) {
            const std::uint64_t tie = top + k * unit + unit / 2;
            draws.insert(draws.end(), {tie - 1, tie, tie + 1});
        }
    }
    ASSERT_LE(draws.size(), Random::state_words);
    Random random = with_draws(draws);
    for (const std::uint64_t draw : draws) {
        EXPECT_EQ(uniform_real(random), std::ldexp(static_cast<double>(draw), -64)) << draw;
    }
}

TEST(ChanceThreshold, EveryChanceTheMarketUses_SplitsTheDrawsWhereTheComparisonDoes) {
    for (const double limit : {0.04, 0.08, 0.16, 0.3, 0.5}) {
        const std::uint64_t threshold = chance_threshold(limit);
        Random random = with_draws({threshold - 1, threshold});
        EXPECT_LT(uniform_real(random), limit);
        EXPECT_GE(uniform_real(random), limit);
    }
}

TEST(NormalDeviates, TwoFromOnePair_TheSecondCoordinateFirst) {
    Random random;
    seed_random(random, 7);
    Random same;
    seed_random(same, 7);
    NormalDeviates deviates;
    for (int i = 0; i < 500; ++i) {
        double x = 0;
        double y = 0;
        double s = 0;
        do {
            const double u1 = uniform_real(same);
            const double u2 = uniform_real(same);
            x = 2 * u1 - 1;
            y = 2 * u2 - 1;
            s = x * x + y * y;
        } while (s <= 0 || s > 1);
        const double factor = std::sqrt((-2 * natural_log(s)) / s);
        ASSERT_EQ(normal_deviate(deviates, random), y * factor) << "pair " << i;
        ASSERT_TRUE(deviates.has_saved);
        ASSERT_EQ(normal_deviate(deviates, random), x * factor) << "pair " << i;
        ASSERT_FALSE(deviates.has_saved);
    }
}

TEST(NormalDeviates, SavedOneWaits_NoDrawIsTaken) {
    Random random;
    seed_random(random, 7);
    NormalDeviates deviates{1.25, true};
    EXPECT_EQ(normal_deviate(deviates, random), 1.25);
    std::mt19937_64 standard(7);
    EXPECT_EQ(next_u64(random), standard());
}

TEST(NormalDeviates, PointOutsideTheCircle_IsDrawnAgain) {
    // (0, 0) is the corner (-1, -1); the second pair, (3/4, 1/2), is (0.5, 0).
    Random random = with_draws({0, 0, std::uint64_t{3} << 62, std::uint64_t{1} << 63});
    NormalDeviates deviates;
    EXPECT_EQ(normal_deviate(deviates, random), 0.0);
    EXPECT_EQ(normal_deviate(deviates, random), 0.5 * std::sqrt((-2 * natural_log(0.25)) / 0.25));
}

TEST(NormalDeviates, CenterOfTheCircle_IsDrawnAgain) {
    const std::uint64_t half = std::uint64_t{1} << 63;
    Random random = with_draws({half, half, half, std::uint64_t{3} << 62});
    NormalDeviates deviates;
    EXPECT_EQ(normal_deviate(deviates, random), 0.5 * std::sqrt((-2 * natural_log(0.25)) / 0.25));
}

TEST(NormalDeviates, HundredThousand_HaveMeanZeroAndDeviationOne) {
    Random random;
    seed_random(random, 7);
    NormalDeviates deviates;
    constexpr int count = 100'000;
    double sum = 0;
    double squares = 0;
    for (int i = 0; i < count; ++i) {
        const double z = normal_deviate(deviates, random);
        sum += z;
        squares += z * z;
    }
    EXPECT_NEAR(sum / count, 0, 0.015);
    EXPECT_NEAR(squares / count, 1, 0.02);
}

}  // namespace
}  // namespace tessel
