#pragma once

#include "base/latency_histogram.h"

#include <cstdint>
#include <string>
#include <string_view>

// Latencies as text: percentiles for people, and the two file formats of HdrHistogram that its tools read.
namespace tessel::listen {

// "N messages, p50 X us, p90 X us, p99 X us, p99.9 X us, max X us".
std::string percentiles_text(const LatencyHistogram& histogram);

// The percentile distribution, five lines for each halving of the rest; values in microseconds.
std::string percentile_file_text(const LatencyHistogram& histogram);

// The heading of an interval log that begins at `start_ns` (nanoseconds since the epoch).
std::string interval_log_heading(std::uint64_t start_ns);

// One interval of the log: `start_ns` since the heading's time, `length_ns` long; values in nanoseconds.
std::string interval_log_line(std::string_view tag, std::uint64_t start_ns, std::uint64_t length_ns,
                              const LatencyHistogram& histogram);

}  // namespace tessel::listen
