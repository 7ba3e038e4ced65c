#include "judge/times_file.h"

#include "support/judge_bench.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {
namespace {

std::string time_line(std::uint64_t seq, std::uint64_t sip) {
    return "{\"seq\":" + std::to_string(seq) + ",\"sip\":" + std::to_string(sip) + "}\n";
}

Run truth_run(std::uint64_t lowest, std::uint64_t highest) {
    Run run;
    run.lines = highest - lowest + 1;
    run.first = lowest;
    run.lowest = lowest;
    run.highest = highest;
    return run;
}

TEST(TimesFile, TimesOfSeveralRunsOutOfOrder_AreFoundByNumber) {
    const Bench bench;
    const std::string path = bench.folder / "times";
    std::string text;
    for (std::uint64_t seq = 1; seq <= 1'000; ++seq) {
        text += time_line(seq, 5'000 + seq);
    }
    text += time_line(1, 7'001) + time_line(5, 7'005) + time_line(4, 7'004) + time_line(2, 7'002);
    for (std::uint64_t seq = 6; seq <= 600; ++seq) {
        text += time_line(seq, 7'000 + seq);
    }
    std::ofstream(path) << text;
    TimesFile times;
    std::string error;
    ASSERT_TRUE(open_times(times, path, {truth_run(1, 1'000), truth_run(1, 600)}, error)) << error;
    for (const std::uint64_t run : {0U, 1U}) {
        ASSERT_TRUE(begin_times(times, 1 - run, error)) << error;
        for (const std::uint64_t seq : {1U, 2U, 3U, 4U, 5U, 600U}) {
            std::uint64_t sip = 0;
            ASSERT_TRUE(find_time(times, seq, sip, error)) << error;
            EXPECT_EQ(sip, run == 1 && seq == 3 ? 0 : 5'000 + 2'000 * run + seq) << run << " " << seq;
        }
    }
    ASSERT_TRUE(begin_times(times, 2, error));
    std::uint64_t sip = 9;
    ASSERT_TRUE(find_time(times, 1, sip, error));
    EXPECT_EQ(sip, 0U) << "the file has no third run";
}

TEST(TimesFile, LineWithoutATime_IsAnError) {
    const Bench bench;
    const std::string path = bench.folder / "times";
    for (const std::string_view bad : {R"({"seq":2})", R"({"seq":2,"sip":1.5})", R"({"seq":2,"sip":-1})"}) {
        std::ofstream(path) << time_line(1, 1) << bad << "\n";
        TimesFile times;
        std::string error;
        ASSERT_TRUE(open_times(times, path, {truth_run(1, 9)}, error) && begin_times(times, 0, error))
            << error;
        std::uint64_t sip = 0;
        EXPECT_FALSE(find_time(times, 1, sip, error));
        EXPECT_EQ(error, path + ":2: no member 'sip' in nanoseconds");
    }
}

}  // namespace
}  // namespace tessel::judge
