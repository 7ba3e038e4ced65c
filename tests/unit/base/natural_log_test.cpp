#include "base/natural_log.h"

#include "base/random.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>

namespace tessel {
namespace {

// The error of got against nearest + rest, in units of nearest's last place.
double error_in_units(double got, double nearest, double rest) {
    const double magnitude = std::fabs(nearest);
    const double unit = std::nextafter(magnitude, std::numeric_limits<double>::infinity()) - magnitude;
    return std::fabs((got - nearest) - rest) / unit;
}

TEST(NaturalLog, PointsOfEveryMagnitude_AreWithinOneUnitOfTheExactValue) {
    std::ifstream file(TESSEL_SOURCE_DIR "/tests/golden/natural_log.txt");
    int points = 0;
    double worst = 0;
    for (std::string line; std::getline(file, line); ++points) {
        std::istringstream words(line);
        std::string x, nearest, rest;
        words >> x >> nearest >> rest;
        const double got = natural_log(std::strtod(x.c_str(), nullptr));
        const double expected = std::strtod(nearest.c_str(), nullptr);
        if (expected == 0) {
            EXPECT_EQ(got, 0.0);
            continue;
        }
        const double error = error_in_units(got, expected, std::strtod(rest.c_str(), nullptr));
        EXPECT_LT(error, 1) << "log " << x;
        worst = std::max(worst, error);
    }
    EXPECT_GT(points, 1500);
    EXPECT_LT(worst, 0.6);
}

// Where long double has more digits, the C library's logarithm of it is a reference for as many points as we
// like.
TEST(NaturalLog, MillionDraws_AreWithinOneUnitOfTheLongLogarithm) {
    if (std::numeric_limits<long double>::digits < 64) {
        GTEST_SKIP() << "long double is no longer than double here";
    }
    Random random;
    seed_random(random, 7);
    for (int at = 0; at < 1'000'000; ++at) {
        const double x = uniform_real(random) + std::numeric_limits<double>::min();
        const long double exact = std::log(static_cast<long double>(x));
        const auto nearest = static_cast<double>(exact);
        if (nearest != 0) {
            ASSERT_LT(error_in_units(natural_log(x), nearest, static_cast<double>(exact - nearest)), 1) << x;
        }
    }
}

// The same bits on every machine and from every compiler.
TEST(NaturalLog, MillionDraws_HaveTheBitsOfEveryOtherMachine) {
    Random random;
    seed_random(random, 11);
    std::uint64_t sum = 0;
    for (int at = 0; at < 1'000'000; ++at) {
        const double x = uniform_real(random) + std::numeric_limits<double>::min();
        sum = std::rotl(sum, 1) ^ std::bit_cast<std::uint64_t>(natural_log(x));
    }
    EXPECT_EQ(sum, 5019375903244030646u);
}

TEST(NaturalLog, One_IsZero) {
    EXPECT_EQ(natural_log(1.0), 0.0);
    EXPECT_FALSE(std::signbit(natural_log(1.0)));
}

}  // namespace
}  // namespace tessel
