#include "base/latency_histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace tessel {
namespace {

// The percentile of values themselves: the smallest that at least this share does not exceed.
std::uint64_t exact_percentile(std::vector<std::uint64_t> values, double percent) {
    std::sort(values.begin(), values.end());
    const double share = std::ceil(std::nextafter(percent, 0.0) / 100 * static_cast<double>(values.size()));
    return values[static_cast<std::size_t>(std::max(1.0, share)) - 1];
}

TEST(LatencyHistogram, PercentilesOfManyScales_AreExactToThreeDigits) {
    std::mt19937_64 random(17);
    for (const unsigned bits : {8U, 11U, 20U, 34U, 63U}) {
        LatencyHistogram histogram;
        std::vector<std::uint64_t> values;
        for (int count = 0; count != 20'000; ++count) {
            values.push_back(random() >> (64 - bits) >> (random() % 8));
            record_latency(histogram, values.back());
        }
        for (const double percent : {0.0, 1.0, 50.0, 90.0, 99.0, 99.9, 99.99, 100.0}) {
            const auto exact = static_cast<double>(exact_percentile(values, percent));
            const auto found = static_cast<double>(latency_percentile(histogram, percent));
            EXPECT_GE(found, exact) << bits << " bits, " << percent;
            EXPECT_LE(found, exact * 1.001) << bits << " bits, " << percent;
        }
        EXPECT_EQ(latency_percentile(histogram, 100), exact_percentile(values, 100));
    }
}

TEST(LatencyHistogram, SmallValues_AreExact) {
    LatencyHistogram histogram;
    for (std::uint64_t value = 0; value != 2'048; ++value) {
        record_latency(histogram, value);
    }
    EXPECT_EQ(latency_percentile(histogram, 50), 1'023U);
    EXPECT_EQ(latency_percentile(histogram, 0), 0U);
    EXPECT_EQ(latency_percentile(histogram, 100), 2'047U);
}

TEST(LatencyHistogram, ShareThatIsAWholeRank_IsNotRoundedUp) {
    LatencyHistogram histogram;
    for (std::uint64_t value = 1; value <= 2'000; ++value) {
        record_latency(histogram, value);
    }
    EXPECT_EQ(latency_percentile(histogram, 99.9), 1'998U);
    EXPECT_EQ(latency_percentile(histogram, 100), 2'000U);
}

TEST(LatencyHistogram, NothingRecorded_IsZero) {
    const LatencyHistogram histogram;
    EXPECT_EQ(latency_percentile(histogram, 99), 0U);
    EXPECT_EQ(histogram.max, 0U);
}

TEST(LatencyHistogram, LargestValue_HasItsPlace) {
    LatencyHistogram histogram;
    record_latency(histogram, UINT64_MAX);
    EXPECT_EQ(latency_percentile(histogram, 50), UINT64_MAX);
    EXPECT_EQ(histogram.counts.back(), 1U);
    EXPECT_EQ(highest_value_at(histogram.counts.size() - 1), UINT64_MAX);
}

TEST(LatencyHistogram, Ranges_FollowOneAnotherWithoutGaps) {
    const LatencyHistogram histogram;
    for (std::size_t index = 1; index != histogram.counts.size(); ++index) {
        ASSERT_EQ(lowest_value_at(index), highest_value_at(index - 1) + 1) << index;
        ASSERT_LE(lowest_value_at(index), highest_value_at(index)) << index;
    }
}

TEST(LatencyHistogram, SumOfTwo_EqualsOneOfAllValues) {
    LatencyHistogram whole;
    LatencyHistogram first;
    LatencyHistogram second;
    for (std::uint64_t value = 5; value < 1'000'000; value += 997) {
        record_latency(whole, value);
        record_latency(value % 2 == 0 ? first : second, value);
    }
    add_histogram(first, second);
    add_histogram(first, LatencyHistogram());
    EXPECT_EQ(first.counts, whole.counts);
    EXPECT_EQ(first.total, whole.total);
    EXPECT_EQ(first.min, whole.min);
    EXPECT_EQ(first.max, whole.max);
}

TEST(LatencyHistogram, SumWithALargerValue_HasItAsItsMaximum) {
    LatencyHistogram first;
    LatencyHistogram second;
    record_latency(first, 100);
    record_latency(second, 5'000'001);
    add_histogram(first, second);
    EXPECT_EQ(first.max, 5'000'001U);
    EXPECT_EQ(latency_percentile(first, 100), 5'000'001U);
}

TEST(LatencyHistogram, PercentileZero_IsTheSmallestValueRoundedUp) {
    LatencyHistogram histogram;
    record_latency(histogram, 5'000);
    record_latency(histogram, 9'000);
    // 5,000 to 5,003 are counted together.
    EXPECT_EQ(latency_percentile(histogram, 0), 5'003U);
    EXPECT_EQ(latency_percentile(histogram, 50), 5'003U);
}

}  // namespace
}  // namespace tessel
