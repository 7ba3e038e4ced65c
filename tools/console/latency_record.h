#pragma once

#include "base/latency_histogram.h"
#include "console/picture.h"

#include <cstdint>

// One stage's latencies since the beginning.
namespace tessel::console {

struct LatencyRecord {
    LatencyHistogram histogram;
    std::uint64_t sum_ns = 0;
};

// From one moment to another, both since the epoch; 0 when the second is before the first, since clocks of
// two machines may differ.
void note_latency(LatencyRecord& record, std::uint64_t from_ns, std::uint64_t to_ns);

// Percentiles and buckets. A bucket's bound is as exact as the histogram: within 0.1 %.
LatencyPicture make_latency_picture(const LatencyRecord& record);

}  // namespace tessel::console
