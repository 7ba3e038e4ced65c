#include "judge/channels.h"

#include "judge/report.h"
#include "support/judge_bench.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace tessel::judge {
namespace {

TEST(JudgeChannels, Channels_AreJudgedEachAndAddedUp) {
    const Bench bench;
    Options options;
    options.truth_path = bench.folder / "truth";
    options.output_path = bench.folder / "out";
    std::filesystem::create_directories(options.truth_path);
    std::filesystem::create_directories(options.output_path);
    std::vector<std::string> names;
    for (int channel = 1; channel <= 7; ++channel) {
        names.push_back("ch" + std::to_string(channel));
        const std::uint64_t last = 100U * static_cast<unsigned>(channel);
        std::ofstream(options.truth_path + "/" + names.back() + ".jsonl") << stretch(1, last);
        std::ofstream(options.output_path + "/" + names.back() + ".jsonl")
            << stretch(channel == 5 ? 4 : 1, last, channel == 3 ? "H" : "T");
    }
    std::string wanted;
    for (const std::size_t jobs : {1U, 3U, 20U}) {
        options.jobs = jobs;
        std::vector<Channel> channels;
        std::string error;
        ASSERT_TRUE(judge_channels(options, names, channels, error)) << error;
        const Totals sum = add_up(channels).totals;
        EXPECT_EQ(sum.truth_lines, 2'800U);
        EXPECT_EQ(sum.mismatched, 300U);
        EXPECT_EQ(sum.missing, 3U);
        EXPECT_EQ(verdict(channels), Verdict::differs);
        EXPECT_EQ(verdict(channels[0].result), Verdict::agrees);
        const std::string report = text_report(options, channels) + json_report(options, channels);
        EXPECT_EQ(wanted.empty() ? report : wanted, report);
        wanted = report;
    }
    std::filesystem::remove(options.output_path + "/ch4.jsonl");
    std::vector<Channel> channels;
    std::string error;
    EXPECT_FALSE(judge_channels(options, names, channels, error));
    EXPECT_EQ(error, options.output_path + "/ch4.jsonl: open: No such file or directory");
}

TEST(JudgeChannels, VerdictOfAll_IsAgreesOnlyWhenAllDo) {
    std::vector<Channel> channels(2);
    EXPECT_EQ(verdict(channels), Verdict::agrees);
    channels[1].result.unknown_members = {"x"};
    EXPECT_EQ(verdict(channels), Verdict::nothing_compared);
    channels[0].result.totals.missing = 1;
    EXPECT_EQ(verdict(channels), Verdict::differs);
}

}  // namespace
}  // namespace tessel::judge
