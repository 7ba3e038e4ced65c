#include "base/latency_histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace tessel {

namespace {

// Values of 11 bits are counted one by one; of each further bit's range the upper half, in steps that double.
constexpr unsigned exact_bits = 11;
constexpr std::size_t exact_values = 1U << exact_bits;
constexpr std::size_t steps_per_bit = exact_values / 2;
constexpr std::size_t count_size = exact_values + (64 - exact_bits) * steps_per_bit;

std::size_t index_of(std::uint64_t value) {
    if (value < exact_values) {
        return static_cast<std::size_t>(value);
    }
    const auto shift = static_cast<unsigned>(std::bit_width(value)) - exact_bits;
    const auto step = static_cast<std::size_t>(value >> shift) - steps_per_bit;
    return exact_values + (shift - 1) * steps_per_bit + step;
}

}  // namespace

LatencyHistogram::LatencyHistogram() : counts(count_size) {}

void record_latency(LatencyHistogram& histogram, std::uint64_t value_ns) {
    ++histogram.counts[index_of(value_ns)];
    histogram.min = histogram.total == 0 ? value_ns : std::min(histogram.min, value_ns);
    histogram.max = std::max(histogram.max, value_ns);
    ++histogram.total;
}

void add_histogram(LatencyHistogram& histogram, const LatencyHistogram& other) {
    if (other.total == 0) {
        return;
    }
    for (std::size_t index = 0; index != count_size; ++index) {
        histogram.counts[index] += other.counts[index];
    }
    histogram.min = histogram.total == 0 ? other.min : std::min(histogram.min, other.min);
    histogram.max = std::max(histogram.max, other.max);
    histogram.total += other.total;
}

std::uint64_t latency_percentile(const LatencyHistogram& histogram, double percent) {
    // A whole rank must not be rounded up for its last bit: 99.9 % of 2,000 are 1,998.
    const double below = std::nextafter(percent, 0.0);
    const double share = std::ceil(below / 100 * static_cast<double>(histogram.total));
    const std::uint64_t wanted = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(share));
    std::uint64_t passed = 0;
    for (std::size_t index = 0; index != count_size; ++index) {
        passed += histogram.counts[index];
        if (passed >= wanted) {
            return std::clamp(highest_value_at(index), histogram.min, histogram.max);
        }
    }
    return histogram.max;
}

std::uint64_t lowest_value_at(std::size_t index) {
    if (index < exact_values) {
        return index;
    }
    const std::size_t shift = (index - exact_values) / steps_per_bit + 1;
    const std::size_t step = (index - exact_values) % steps_per_bit + steps_per_bit;
    return static_cast<std::uint64_t>(step) << shift;
}

std::uint64_t highest_value_at(std::size_t index) {
    if (index < exact_values) {
        return index;
    }
    const std::size_t shift = (index - exact_values) / steps_per_bit + 1;
    return lowest_value_at(index) + ((std::uint64_t{1} << shift) - 1);
}

}  // namespace tessel
