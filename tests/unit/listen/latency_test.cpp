#include "listen/latency.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

namespace tessel::listen {
namespace {

constexpr std::uint64_t day_ns = 1'700'000'000'000'000'000;

const LatencyHistogram& whole(const Latency& latency, LatencyStage stage) {
    return latency.stages[static_cast<std::size_t>(stage)].whole;
}

std::string text_of(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(Latency, InjectedDelays_ComeOutOfThePercentilesWithinFivePercent) {
    for (const std::uint64_t delay_ns : {900u, 250'000u, 2'000'000u, 750'000'000u}) {
        Latency latency;
        std::mt19937_64 random(delay_ns);
        for (std::uint64_t message = 0; message < 10'000; ++message) {
            // Of ten messages nine have the delay and one ten times as much, each with 2 % of noise.
            const std::uint64_t most_ns = message % 10 == 9 ? 10 * delay_ns : delay_ns;
            const std::uint64_t sip_ns = day_ns + message * 100'000;
            const std::uint64_t kernel_ns = sip_ns + most_ns + random() % (most_ns / 50);
            note_latency(latency, sip_ns, kernel_ns, kernel_ns + 2 * delay_ns);
        }
        const LatencyHistogram& first = whole(latency, LatencyStage::sip_to_kernel);
        const auto delay = static_cast<double>(delay_ns);
        EXPECT_NEAR(static_cast<double>(latency_percentile(first, 50)), delay, 0.05 * delay);
        EXPECT_NEAR(static_cast<double>(latency_percentile(first, 99)), 10 * delay, 0.5 * delay);
        const LatencyHistogram& second = whole(latency, LatencyStage::kernel_to_taken);
        EXPECT_NEAR(static_cast<double>(latency_percentile(second, 50)), 2 * delay, 0.05 * delay);
    }
}

TEST(Latency, MessageOfACapture_HasNoSecondStage) {
    Latency latency;
    note_latency(latency, day_ns, day_ns + 5, 0);
    EXPECT_EQ(whole(latency, LatencyStage::sip_to_kernel).total, 1u);
    EXPECT_EQ(whole(latency, LatencyStage::kernel_to_taken).total, 0u);
}

TEST(Latency, ArrivalBeforeTheSipTime_CountsAsZeroAndIsReported) {
    Latency latency;
    note_latency(latency, day_ns, day_ns - 1'000, day_ns);
    EXPECT_EQ(latency.negative, 1u);
    EXPECT_EQ(whole(latency, LatencyStage::sip_to_kernel).max, 0u);
    testing::internal::CaptureStderr();
    finish_latency(latency, day_ns);
    EXPECT_NE(
        testing::internal::GetCapturedStderr().find(
            "tessel-listen: 1 messages arrived before their SIP time, counted as 0: the clocks differ\n"),
        std::string::npos);
}

TEST(Latency, EachSecond_IsReportedOnceAndIsALineOfTheLog) {
    const std::string folder = testing::TempDir() + "tessel_latency_test";
    std::filesystem::create_directories(folder);
    Latency latency;
    ASSERT_TRUE(prepare_latency(latency, folder)) << latency.error;
    testing::internal::CaptureStderr();
    for (std::uint64_t at_ms = 0; at_ms < 2'500; at_ms += 10) {
        const std::uint64_t sip_ns = day_ns + at_ms * 1'000'000;
        note_latency(latency, sip_ns, sip_ns + 1'000, sip_ns + 3'000);
        report_latency_second(latency, sip_ns + 3'000);
    }
    finish_latency(latency, day_ns + 2'500'000'000);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("latency of the last second, sip-to-kernel: 101 messages, p50 1.0 us"),
              std::string::npos)
        << said;
    EXPECT_NE(said.find("tessel-listen: latency sip-to-kernel: 250 messages, p50 1.0 us"), std::string::npos);
    EXPECT_NE(said.find("tessel-listen: latency kernel-to-taken: 250 messages, p50 2.0 us"),
              std::string::npos);
    const std::string log = text_of(folder + "/latency.hlog");
    std::size_t tagged = 0;
    for (std::size_t at = log.find("Tag="); at != std::string::npos; at = log.find("Tag=", at + 1)) {
        ++tagged;
    }
    EXPECT_EQ(tagged, 6u) << log;  // three intervals of two stages
    EXPECT_NE(text_of(folder + "/sip-to-kernel.hgrm").find("Total count    =          250]"),
              std::string::npos);
    EXPECT_NE(text_of(folder + "/kernel-to-taken.hgrm").find("#[Max     =        2.000"), std::string::npos);
    std::filesystem::remove_all(folder);
}

TEST(Latency, DirectoryThatCannotBeWritten_IsNamed) {
    Latency latency;
    EXPECT_FALSE(prepare_latency(latency, "/nowhere/at/all"));
    EXPECT_EQ(latency.error, "--latency-out: '/nowhere/at/all/latency.hlog': No such file or directory");
}

}  // namespace
}  // namespace tessel::listen
