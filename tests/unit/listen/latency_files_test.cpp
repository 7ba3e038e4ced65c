#include "listen/latency_files.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::listen {
namespace {

TEST(LatencyFiles, PercentilesText_NamesFiveLevelsInMicroseconds) {
    LatencyHistogram histogram;
    for (std::uint64_t value = 1; value <= 1'000; ++value) {
        record_latency(histogram, value);
    }
    EXPECT_EQ(percentiles_text(histogram),
              "1000 messages, p50 0.5 us, p90 0.9 us, p99 1.0 us, p99.9 1.0 us, max 1.0 us");
}

TEST(LatencyFiles, PercentileFile_OfFourValues_HasItsHeadingLevelsAndFooter) {
    LatencyHistogram histogram;
    for (const std::uint64_t value : {1'000u, 1'500u, 2'000u, 2'001u}) {
        record_latency(histogram, value);
    }
    EXPECT_EQ(percentile_file_text(histogram),
              "       Value     Percentile TotalCount 1/(1-Percentile)\n"
              "\n"
              "       1.000 0.000000000000          1           1.00\n"
              "       1.000 0.100000000000          1           1.11\n"
              "       1.000 0.200000000000          1           1.25\n"
              "       1.500 0.300000000000          2           1.43\n"
              "       1.500 0.400000000000          2           1.67\n"
              "       1.500 0.500000000000          2           2.00\n"
              "       2.000 0.550000000000          3           2.22\n"
              "       2.000 0.600000000000          3           2.50\n"
              "       2.000 0.650000000000          3           2.86\n"
              "       2.000 0.700000000000          3           3.33\n"
              "       2.000 0.750000000000          3           4.00\n"
              "       2.001 0.775000000000          4           4.44\n"
              "       2.001 1.000000000000          4\n"
              "#[Mean    =        1.625, StdDeviation   =        0.415]\n"
              "#[Max     =        2.001, Total count    =            4]\n"
              "#[Buckets =           32, SubBuckets     =         2048]\n");
}

TEST(LatencyFiles, EmptyHistogram_HasNoLevels) {
    const LatencyHistogram histogram;
    const std::string text = percentile_file_text(histogram);
    EXPECT_EQ(text.find("0.000000000000"), std::string::npos);
    EXPECT_NE(text.find("Total count    =            0]"), std::string::npos);
}

TEST(LatencyFiles, IntervalLine_IsATaggedLineOfTheSecondVersion) {
    LatencyHistogram histogram;
    record_latency(histogram, 2'500'000);
    const std::string line = interval_log_line("sip-to-kernel", 1'500'000'000, 1'000'000'000, histogram);
    EXPECT_EQ(line.substr(0, 45), "Tag=sip-to-kernel,1.500,1.000,2.500,HISTFAAAA");
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(interval_log_heading(1'700'000'000'123'000'000),
              "#[Histogram log format version 1.3]\n"
              "#[BaseTime: 1700000000.123 (seconds since epoch)]\n"
              "#[StartTime: 1700000000.123 (seconds since epoch)]\n"
              "\"StartTimestamp\",\"Interval_Length\",\"Interval_Max\",\"Interval_Compressed_Histogram\"\n");
}

}  // namespace
}  // namespace tessel::listen
