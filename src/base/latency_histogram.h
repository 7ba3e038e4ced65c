#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tessel {

// Times in nanoseconds, counted with three significant digits in fixed memory (440 KiB): values below 2,048
// are exact, a larger one is at most 0.1 % from the value that a percentile reports for it.
struct LatencyHistogram {
    LatencyHistogram();

    std::vector<std::uint64_t> counts;
    std::uint64_t total = 0;
    std::uint64_t min = 0;  // exact, 0 when nothing was recorded
    std::uint64_t max = 0;
};

// Counts one value.
void record_latency(LatencyHistogram& histogram, std::uint64_t value_ns);

// Counts all values of another histogram.
void add_histogram(LatencyHistogram& histogram, const LatencyHistogram& other);

// The smallest recorded value, as far as the digits go (rounded up), that at least `percent` of all values do
// not exceed; percent from 0 to 100. 0 when nothing was recorded.
std::uint64_t latency_percentile(const LatencyHistogram& histogram, double percent);

// The first and last value that are counted together, by their index in `counts`.
std::uint64_t lowest_value_at(std::size_t index);
std::uint64_t highest_value_at(std::size_t index);

}  // namespace tessel
