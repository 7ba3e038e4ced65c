#include "console/latency_record.h"

#include <gtest/gtest.h>

namespace tessel::console {
namespace {

TEST(ConsoleLatency, NothingRecorded_TotalIsZero) {
    EXPECT_EQ(make_latency_picture(LatencyRecord{}).total, 0u);
}

TEST(ConsoleLatency, ValuesRecorded_BucketsCountUpToTheirBounds) {
    LatencyRecord record;
    note_latency(record, 1'000, 1'500);       // 500 ns
    note_latency(record, 0, 30'000);          // 30 us
    note_latency(record, 0, 2'000'000);       // 2 ms
    note_latency(record, 0, 20'000'000'000);  // 20 s: beyond every bound
    note_latency(record, 5'000, 1'000);       // the clocks differ: 0
    const LatencyPicture picture = make_latency_picture(record);
    EXPECT_EQ(picture.total, 5u);
    EXPECT_EQ(picture.sum_ns, 20'002'030'500u);
    EXPECT_EQ(picture.max_ns, 20'000'000'000u);
    EXPECT_EQ(picture.within.front(), 2u);
    EXPECT_EQ(picture.within.back(), 4u);
    for (std::size_t at = 0; at < latency_bounds_ns.size(); ++at) {
        const std::uint64_t bound = latency_bounds_ns[at];
        EXPECT_EQ(picture.within[at], 2u + (bound >= 30'000 ? 1 : 0) + (bound >= 2'000'000 ? 1 : 0)) << bound;
    }
    EXPECT_NEAR(static_cast<double>(picture.p50_ns), 30'000, 50);
}

}  // namespace
}  // namespace tessel::console
