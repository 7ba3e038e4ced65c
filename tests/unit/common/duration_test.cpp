#include "common/duration.h"

#include <gtest/gtest.h>

namespace tessel::common {
namespace {

constexpr std::int64_t second = 1'000'000'000;

std::int64_t ns(std::string_view text) {
    std::int64_t value = -1;
    std::string error;
    EXPECT_TRUE(parse_duration(text, value, error)) << error;
    return value;
}

std::string refusal(std::string_view text) {
    std::int64_t value = -1;
    std::string error;
    EXPECT_FALSE(parse_duration(text, value, error)) << text;
    EXPECT_EQ(value, -1) << text;
    return error;
}

TEST(Duration, SumOfUnits_IsAdded) {
    EXPECT_EQ(ns("6h30m"), (6 * 3600 + 30 * 60) * second);
    EXPECT_EQ(ns("1h2m3s4ms"), (3600 + 120 + 3) * second + 4'000'000);
    EXPECT_EQ(ns("1.5s"), 3 * second / 2);
    EXPECT_EQ(ns("0.25h"), 900 * second);
    EXPECT_EQ(ns("250ms"), second / 4);
    EXPECT_EQ(ns("1m1ms"), 60 * second + 1'000'000);
}

TEST(Duration, BareNumber_IsSeconds) {
    EXPECT_EQ(ns("0"), 0);
    EXPECT_EQ(ns("90"), 90 * second);
    EXPECT_EQ(ns("2.5"), 5 * second / 2);
    EXPECT_EQ(ns(".5"), second / 2);
}

TEST(Duration, DecimalsAreExact_DownToTheNanosecond) {
    EXPECT_EQ(ns("0.000000001"), 1);
    EXPECT_EQ(ns("1.0000000009"), second);
    EXPECT_EQ(ns("0.1ms"), 100'000);
    EXPECT_EQ(ns("0.000000000001h"), 3);
    EXPECT_EQ(ns("0.0000000000001234567890123456789h"), 0);
}

TEST(Duration, AnythingElse_IsRefused) {
    for (const char* text :
         {"", "s", "-1s", "+1s", "1x", "1 s", "1h30", "30 ", "1..5s", ".", ".s", "1e3", "0x10", "1sm"}) {
        EXPECT_NE(refusal(text).find("is no duration"), std::string::npos) << text;
    }
}

TEST(Duration, TenYears_IsTheLongest) {
    EXPECT_EQ(ns("87600h"), duration_max_ns);
    EXPECT_NE(refusal("87600h1ms").find("ten years"), std::string::npos);
    EXPECT_NE(refusal("99999999h").find("ten years"), std::string::npos);
    EXPECT_NE(refusal("99999999999999999999999").find("is no duration"), std::string::npos);
}

TEST(Duration, Text_ReadsBack) {
    EXPECT_EQ(duration_text(0), "0s");
    EXPECT_EQ(duration_text(ns("6h30m")), "6h30m");
    EXPECT_EQ(duration_text(ns("1.5s")), "1.5s");
    EXPECT_EQ(duration_text(ns("1h0.25s")), "1h0.25s");
    for (const std::int64_t value :
         {std::int64_t{1}, 59 * second, 60 * second, 3600 * second + 1, duration_max_ns}) {
        EXPECT_EQ(ns(duration_text(value)), value);
    }
}

}  // namespace
}  // namespace tessel::common
