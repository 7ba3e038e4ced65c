#include "console/latency_record.h"

#include <cstddef>

namespace tessel::console {

void note_latency(LatencyRecord& record, std::uint64_t from_ns, std::uint64_t to_ns) {
    const std::uint64_t value_ns = to_ns > from_ns ? to_ns - from_ns : 0;
    record_latency(record.histogram, value_ns);
    record.sum_ns += value_ns;
}

LatencyPicture make_latency_picture(const LatencyRecord& record) {
    const LatencyHistogram& histogram = record.histogram;
    LatencyPicture picture;
    picture.total = histogram.total;
    if (histogram.total == 0) {
        return picture;
    }
    picture.sum_ns = record.sum_ns;
    picture.p50_ns = latency_percentile(histogram, 50);
    picture.p90_ns = latency_percentile(histogram, 90);
    picture.p99_ns = latency_percentile(histogram, 99);
    picture.p999_ns = latency_percentile(histogram, 99.9);
    picture.max_ns = histogram.max;
    std::uint64_t sum = 0;
    std::size_t bound = 0;
    for (std::size_t at = 0; at < histogram.counts.size() && bound < latency_bounds_ns.size(); ++at) {
        while (bound < latency_bounds_ns.size() && lowest_value_at(at) > latency_bounds_ns[bound]) {
            picture.within[bound++] = sum;
        }
        sum += histogram.counts[at];
    }
    for (; bound < latency_bounds_ns.size(); ++bound) {
        picture.within[bound] = sum;
    }
    return picture;
}

}  // namespace tessel::console
