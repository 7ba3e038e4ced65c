#include "capture/start_time.h"

#include <gtest/gtest.h>

#include <ctime>

namespace tessel::capture {
namespace {

std::int64_t parsed(std::string_view text) {
    std::int64_t ns = -1;
    std::string error;
    EXPECT_TRUE(parse_start_time(text, ns, error)) << error;
    return ns;
}

TEST(StartTime, OffsetsAndFractions_AreCounted) {
    EXPECT_EQ(parsed("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(parsed("2026-01-05T09:30:00-05:00"), 1'767'623'400'000'000'000);
    EXPECT_EQ(parsed("2026-01-05T14:30:00Z"), parsed("2026-01-05T09:30:00-05:00"));
    EXPECT_EQ(parsed("2026-01-05t20:00:00.25+05:30"), parsed("2026-01-05T14:30:00z") + 250'000'000);
    EXPECT_EQ(parsed("1970-01-01T00:00:00.1234567899Z"), 123'456'789);
    EXPECT_EQ(parsed("1969-12-31T23:30:00-00:30"), 0);
}

TEST(StartTime, EveryDayOfTheRange_IsTheSystemsDay) {
    for (std::int64_t day = 0; day < 49'710; ++day) {
        const std::time_t seconds = day * 86'400 + 3'661;
        std::tm parts{};
        gmtime_r(&seconds, &parts);
        char text[40];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
        ASSERT_EQ(parsed(text), seconds * 1'000'000'000) << text;
    }
}

TEST(StartTime, WhatIsNoTime_IsRefused) {
    for (const char* text : {"",
                             "2026-01-05",
                             "2026-01-05T09:30:00",
                             "2026-01-05 09:30:00Z",
                             "2026-1-05T09:30:00Z",
                             "2026-01-05T09:30:00.Z",
                             "2026-01-05T09:30:00-0500",
                             "2026-01-05T09:30:00Zx",
                             "2026-13-05T09:30:00Z",
                             "2026-02-29T09:30:00Z",
                             "2026-01-00T09:30:00Z",
                             "2026-01-05T24:00:00Z",
                             "2026-01-05T09:60:00Z",
                             "2026-01-05T09:30:60Z",
                             "2026-01-05T09:30:00+24:00",
                             "1969-12-31T23:59:59Z",
                             "2106-02-07T06:28:16Z",
                             "0000-01-01T00:00:00Z",
                             "9999-12-31T23:59:59Z",
                             "-026-01-05T09:30:00Z"}) {
        std::int64_t ns = 0;
        std::string error;
        EXPECT_FALSE(parse_start_time(text, ns, error)) << text;
        EXPECT_EQ(error.find("'" + std::string(text) + "' "), 0u) << error;
    }
    EXPECT_EQ(parsed("2106-02-07T06:28:15Z"), 4'294'967'295 * 1'000'000'000);
}

}  // namespace
}  // namespace tessel::capture
