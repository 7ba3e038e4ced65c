#include "judge/runs.h"

#include "judge/report.h"
#include "support/judge_bench.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {
namespace {

TEST(JudgeRuns, RunsInBothFiles_ArePairedInOrder) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(6, 40) + stretch(6, 60, "H"), stretch(6, 40) + stretch(6, 60, "H")));
    expect_totals(bench.result, 90, 0, 0, 0);
    EXPECT_EQ(bench.result.truth_runs, 2U);
    EXPECT_EQ(bench.result.output_runs, 2U);
}

TEST(JudgeRuns, OutputOfTheLastRunAlone_IsJudgedAgainstThatRun) {
    Bench bench;
    const std::string truth = stretch(6, 40) + stretch(6, 60) + stretch(6, 50, "H");
    ASSERT_TRUE(bench.run(truth, stretch(6, 50, "H")));
    expect_totals(bench.result, 45, 0, 0, 0);
    ASSERT_EQ(bench.result.runs.size(), 1U);
    EXPECT_EQ(bench.result.runs[0].truth_run, 3U);
    ASSERT_TRUE(bench.run(truth, stretch(6, 60) + stretch(6, 50, "H")));
    expect_totals(bench.result, 100, 0, 0, 0);
}

TEST(JudgeRuns, OneRun_CanBeSelected) {
    Bench bench;
    bench.options.run = 1;
    ASSERT_TRUE(bench.run(stretch(6, 40) + stretch(6, 60, "H"), stretch(6, 40)));
    expect_totals(bench.result, 35, 0, 0, 0);
    bench.options.run = 3;
    EXPECT_FALSE(bench.run(stretch(6, 40) + stretch(6, 60, "H"), stretch(6, 40)));
    EXPECT_EQ(bench.error, bench.options.truth_path + ": no run 3, the file has 2");
}

TEST(JudgeRuns, OutputsOutOfOrderStart_IsNoNewRun) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(6, 400) + stretch(6, 500),
                          lines({8, 6, 7}) + stretch(9, 400) + lines({7, 6}) + stretch(8, 500)));
    expect_totals(bench.result, 890, 0, 0, 0);
    EXPECT_EQ(bench.result.output_runs, 2U);
}

TEST(JudgeRuns, FirstLinesOfARunThatComeLate_AreNoNewRun) {
    Bench bench;
    const std::string truth = stretch(6, 1'000) + stretch(6, 900, "H");
    for (const std::uint64_t late : {256U, 300U, 700U}) {
        const std::string first = stretch(6 + late, 900) + stretch(6, 5 + late) + stretch(901, 1'000);
        ASSERT_TRUE(bench.run(truth, first + stretch(6, 900, "H"))) << bench.error;
        EXPECT_EQ(bench.result.output_runs, 2U) << late;
        expect_totals(bench.result, 1'890, 0, 0, 0);
        // At the end of the first run, and of the only one.
        ASSERT_TRUE(bench.run(truth, stretch(6 + late, 1'000) + stretch(6, 5 + late) + stretch(6, 900, "H")));
        EXPECT_EQ(bench.result.output_runs, 2U) << late;
        expect_totals(bench.result, 1'890, 0, 0, 0);
        ASSERT_TRUE(bench.run(truth, stretch(6 + late, 900, "H") + stretch(6, 5 + late, "H")));
        EXPECT_EQ(bench.result.output_runs, 1U) << late;
        expect_totals(bench.result, 895, 0, 0, 0);
    }
}

TEST(JudgeRuns, RunsOfOutputThatAreCutShort_AreToldApart) {
    Bench bench;
    // Joined the first run late; the second run is shorter than what was seen of the first.
    bench.options.from_first = true;
    ASSERT_TRUE(bench.run(stretch(6, 400) + stretch(6, 250, "H"), stretch(300, 400) + stretch(6, 250, "H")));
    EXPECT_EQ(bench.result.output_runs, 2U);
    expect_totals(bench.result, 346, 0, 0, 0);
    ASSERT_TRUE(bench.run(stretch(6, 400) + stretch(6, 700, "H"), stretch(300, 400) + stretch(6, 700, "H")));
    expect_totals(bench.result, 796, 0, 0, 0);
    ASSERT_TRUE(bench.run(stretch(6, 1'000) + stretch(6, 300, "H") + stretch(6, 900),
                          stretch(6, 1'000) + stretch(6, 300, "H") + stretch(6, 900)));
    EXPECT_EQ(bench.result.output_runs, 3U);
    expect_totals(bench.result, 2'185, 0, 0, 0);
}

TEST(JudgeRuns, OneRunInTheTruthAndSeveralInOutput_TheOneThatBelongsIsJudged) {
    Bench bench;
    const std::string mine = stretch(6, 400);
    const std::string other = stretch(6, 300, "H");
    const std::string third = stretch(6, 500, "P");
    ASSERT_TRUE(bench.run(mine, other + mine)) << bench.error;
    expect_totals(bench.result, 395, 0, 0, 0);
    EXPECT_EQ(bench.result.output_run, 2U);
    EXPECT_EQ(bench.result.output_runs_not_judged, 1U);
    EXPECT_NE(
        text_report(bench.options, bench.result)
            .find("TRUTH holds 1 run, OUTPUT 2; judged run 1, which is run 2 of OUTPUT, 1 of OUTPUT not "
                  "judged"),
        std::string::npos);
    ASSERT_TRUE(bench.run(mine, mine + third));
    expect_totals(bench.result, 395, 0, 0, 0);
    ASSERT_TRUE(bench.run(mine, other + mine + third));
    expect_totals(bench.result, 395, 0, 0, 0);
    EXPECT_EQ(bench.result.output_run, 2U);
    // The run asked for is the only one, too.
    bench.options.run = 1;
    ASSERT_TRUE(bench.run(mine + other, mine + other));
    expect_totals(bench.result, 395, 0, 0, 0);
}

TEST(JudgeRuns, TheSameRunAgainInOutput_IsUnexpected) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(6, 400), stretch(6, 400) + stretch(6, 400)));
    expect_totals(bench.result, 395, 0, 0, 395);
    EXPECT_EQ(bench.result.totals.repeated, 395U);
    // A handler that began again in the middle of the run.
    ASSERT_TRUE(bench.run(stretch(6, 400), stretch(6, 200) + stretch(6, 400)));
    expect_totals(bench.result, 395, 0, 0, 195);
}

TEST(JudgeRuns, TornLineContinuedByAnotherRun_IsNamedAndLeftOut) {
    Bench bench;
    const std::string whole = line(41, "H");
    for (const std::size_t torn : {1U, 8U, 9U, 20U, 38U}) {
        const std::string truth = stretch(6, 40) + whole.substr(0, torn) + stretch(6, 60, "P");
        ASSERT_TRUE(bench.run(truth, stretch(6, 40) + stretch(6, 60, "P"))) << torn << ": " << bench.error;
        expect_totals(bench.result, 90, 0, 0, 0);
        EXPECT_EQ(bench.result.truth_runs, 2U);
        ASSERT_EQ(bench.result.torn_lines.size(), 1U);
        EXPECT_EQ(bench.result.torn_lines[0].line.line_number, 36U);
        EXPECT_EQ(bench.result.torn_lines[0].line.bytes, torn);
        EXPECT_NE(text_report(bench.options, bench.result)
                      .find("torn: " + bench.options.truth_path + ":36: " + std::to_string(torn) + " bytes"),
                  std::string::npos);
    }
    // The handler received the torn line's message: its line is neither right nor wrong.
    const std::string truth = stretch(6, 40) + whole.substr(0, 20) + stretch(6, 60, "P");
    ASSERT_TRUE(bench.run(truth, stretch(6, 40) + whole + stretch(6, 60, "P")));
    expect_totals(bench.result, 90, 0, 0, 0);
    EXPECT_EQ(bench.result.totals.torn, 1U);
    // A handler's own torn line, continued in the same run.
    ASSERT_TRUE(bench.run(stretch(6, 40), stretch(6, 20) + line(21).substr(0, 15) + stretch(22, 40)));
    expect_totals(bench.result, 34, 0, 1, 0);
}

TEST(JudgeRuns, RunOfOutputThatTheTruthDoesNotHave_IsUnexpectedLineByLine) {
    Bench bench;
    ASSERT_TRUE(
        bench.run(stretch(6, 400) + stretch(6, 500), stretch(6, 300) + stretch(6, 400) + stretch(6, 500)));
    expect_totals(bench.result, 890, 0, 0, 295);
    EXPECT_NE(text_report(bench.options, bench.result).find("1 of OUTPUT without a run in TRUTH"),
              std::string::npos);
}

}  // namespace
}  // namespace tessel::judge
