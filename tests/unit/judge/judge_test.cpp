#include "judge/judge.h"

#include "judge/report.h"
#include "judge/report_chart.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {
namespace {

// Two files in a folder of their own, and a judge over them.
struct Bench {
    std::filesystem::path folder;
    Options options;
    Result result;
    std::string error;

    Bench() {
        std::string name = std::filesystem::temp_directory_path() / "judge_test.XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        folder = name;
        options.truth_path = folder / "truth.jsonl";
        options.output_path = folder / "output.jsonl";
    }
    ~Bench() {
        std::filesystem::remove_all(folder);
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    bool run(std::string_view truth, std::string_view output) {
        std::ofstream(options.truth_path) << truth;
        std::ofstream(options.output_path) << output;
        result = Result{};
        return judge(options, result, &error);
    }
};

std::string line(std::uint64_t seq, std::string_view status = "T") {
    return "{\"seq\":" + std::to_string(seq) + ",\"symbol\":\"AAPL\",\"status\":\"" + std::string(status) +
           "\"}\n";
}

std::string lines(const std::vector<std::uint64_t>& numbers, std::string_view status = "T") {
    std::string text;
    for (const std::uint64_t seq : numbers) {
        text += line(seq, status);
    }
    return text;
}

std::string stretch(std::uint64_t first, std::uint64_t last, std::string_view status = "T") {
    std::string text;
    for (std::uint64_t seq = first; seq <= last; ++seq) {
        text += line(seq, status);
    }
    return text;
}

void expect_figures(const Result& result, std::uint64_t matched, std::uint64_t mismatched,
                    std::uint64_t missing, std::uint64_t unexpected) {
    EXPECT_EQ(result.figures.matched, matched);
    EXPECT_EQ(result.figures.mismatched, mismatched);
    EXPECT_EQ(result.figures.missing, missing);
    EXPECT_EQ(result.figures.unexpected, unexpected);
    EXPECT_EQ(agrees(result), mismatched + missing + unexpected == 0);
}

TEST(Judge, SameFilesAgree) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(6, 30), stretch(6, 30))) << bench.error;
    expect_figures(bench.result, 25, 0, 0, 0);
    EXPECT_EQ(bench.result.figures.truth_lines, 25U);
    EXPECT_EQ(bench.result.figures.output_lines, 25U);
    EXPECT_EQ(bench.result.members[static_cast<std::size_t>(Member::status)].compared, 25U);
}

TEST(Judge, OnlyMembersGivenAreCompared) {
    Bench bench;
    const std::string truth = R"({"seq":8,"symbol":"A","nbbo":[190.0100,300,190.0300,200],"status":"T"})"
                              "\n";
    ASSERT_TRUE(bench.run(truth, R"({"nbbo":[190.01,300,1.9003e2,200],"seq":8})"
                                 "\n"));
    expect_figures(bench.result, 1, 0, 0, 0);
    EXPECT_EQ(bench.result.members[static_cast<std::size_t>(Member::nbbo)].compared, 1U);
    EXPECT_EQ(bench.result.members[static_cast<std::size_t>(Member::status)].compared, 0U);
    ASSERT_TRUE(bench.run(truth, R"({"seq":8,"nbbo":[190.02,300,190.03,200],"status":"H"})"
                                 "\n"));
    expect_figures(bench.result, 0, 1, 0, 0);
    ASSERT_EQ(bench.result.differences.size(), 1U);
    EXPECT_EQ(member_list(bench.result.differences[0].members), "nbbo, status");
}

TEST(Judge, MemberThatTheTruthLineLacksIsAMismatchUnlessNull) {
    Bench bench;
    ASSERT_TRUE(bench.run(line(8), R"({"seq":8,"band":[1,2]})"
                                   "\n"));
    expect_figures(bench.result, 0, 1, 0, 0);
    ASSERT_TRUE(bench.run(line(8), R"({"seq":8,"band":null})"
                                   "\n"));
    expect_figures(bench.result, 1, 0, 0, 0);
    ASSERT_TRUE(bench.run(line(8), R"({"seq":8,"status":null})"
                                   "\n"));
    expect_figures(bench.result, 0, 1, 0, 0);
}

TEST(Judge, MemberThatNoTruthLineHasIsNotedAndNotCompared) {
    Bench bench;
    ASSERT_TRUE(bench.run(line(8), R"({"seq":8,"statsu":"H"})"
                                   "\n"));
    expect_figures(bench.result, 1, 0, 0, 0);
    EXPECT_EQ(bench.result.foreign, std::vector<std::string>{"statsu"});
    EXPECT_NE(text_report(bench.options, bench.result).find("'statsu'"), std::string::npos);
}

TEST(Judge, MissingLinesInARowAreOneDifferenceAndTheLongestRowIsTold) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 20), lines({1, 2, 5, 6, 7, 8, 9, 14, 15, 16, 17, 18, 19, 20})));
    expect_figures(bench.result, 14, 0, 6, 0);
    ASSERT_EQ(bench.result.differences.size(), 2U);
    EXPECT_EQ(bench.result.differences[0].seq, 3U);
    EXPECT_EQ(bench.result.differences[0].seq_last, 4U);
    EXPECT_EQ(bench.result.figures.longest_missing, 4U);
    EXPECT_EQ(bench.result.figures.longest_missing_first, 10U);
    EXPECT_EQ(bench.result.figures.longest_missing_last, 13U);
}

TEST(Judge, SequenceWithoutTruthLinesDoesNotBreakARowOfMissingOnes) {
    Bench bench;
    ASSERT_TRUE(bench.run(lines({1, 2, 9, 10, 30}), lines({1, 30})));
    EXPECT_EQ(bench.result.figures.longest_missing, 3U);
}

TEST(Judge, LinesOutOfOrderWithinTheWindowAgree) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 8), lines({3, 1, 2, 8, 4, 7, 6, 5})));
    expect_figures(bench.result, 8, 0, 0, 0);
    // A whole recovered gap of the window's size behind the line that showed it.
    ASSERT_TRUE(bench.run(stretch(1, window_lines_max + 10),
                          line(1) + stretch(12, window_lines_max + 10) + stretch(2, 11)));
    expect_figures(bench.result, window_lines_max + 10, 0, 0, 0);
}

TEST(Judge, LineBeyondTheWindowIsTooLateAndItsTruthLineMissing) {
    Bench bench;
    const std::uint64_t last = 2 * window_lines_max;
    ASSERT_TRUE(bench.run(stretch(1, last), stretch(2, last) + line(1)));
    expect_figures(bench.result, last - 1, 0, 1, 1);
    EXPECT_EQ(bench.result.figures.too_late, 1U);
}

TEST(Judge, RepeatedLineIsUnexpected) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 5), lines({1, 2, 2, 3, 5, 5, 4, 1})));
    expect_figures(bench.result, 5, 0, 0, 3);
    EXPECT_EQ(bench.result.figures.repeated, 3U);
}

TEST(Judge, LineWithoutATruthLineIsUnexpected) {
    Bench bench;
    ASSERT_TRUE(bench.run(lines({6, 8, 9}), lines({1, 6, 7, 8, 9, 4000})));
    expect_figures(bench.result, 3, 0, 0, 3);
    EXPECT_EQ(bench.result.figures.unknown, 3U);
}

TEST(Judge, WildSequenceNumbersDoNotSpoilTheRest) {
    Bench bench;
    std::string output = line(1);
    for (std::uint64_t wild = 0; wild != window_lines_max + 100; ++wild) {
        output += line(1'000'000'000 + wild);
    }
    ASSERT_TRUE(bench.run(stretch(1, 9), output + stretch(2, 9)));
    expect_figures(bench.result, 9, 0, 0, window_lines_max + 100);
}

TEST(Judge, MarksAreSkippedInBothFiles) {
    Bench bench;
    const std::string mark = "{\"mark\":\"half\",\"seq\":2}\n";
    ASSERT_TRUE(bench.run(line(1) + line(2) + mark + mark + line(3), lines({1, 2, 3})));
    expect_figures(bench.result, 3, 0, 0, 0);
    EXPECT_EQ(bench.result.truth_marks, 2U);
    EXPECT_EQ(bench.result.truth_runs, 1U);
    ASSERT_TRUE(bench.run(lines({1, 2, 3}), line(1) + mark + line(2) + line(3)));
    expect_figures(bench.result, 3, 0, 0, 0);
    EXPECT_EQ(bench.result.figures.output_lines, 3U);
}

TEST(Judge, LateHandlerMissesTheBeginningUnlessJudgedFromItsFirst) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 20), lines({11, 10}) + stretch(12, 18)));
    expect_figures(bench.result, 9, 0, 11, 0);
    bench.options.from_first = true;
    ASSERT_TRUE(bench.run(stretch(1, 20), lines({11, 10}) + stretch(12, 18)));
    expect_figures(bench.result, 9, 0, 2, 0);
    EXPECT_EQ(bench.result.figures.left_out, 9U);
    bench.options.to_last = true;
    ASSERT_TRUE(bench.run(stretch(1, 20), lines({11, 10}) + stretch(12, 18)));
    expect_figures(bench.result, 9, 0, 0, 0);
    EXPECT_EQ(bench.result.figures.left_out, 11U);
}

TEST(Judge, EmptyOutputMissesEverythingEvenWhenJudgedFromItsFirst) {
    Bench bench;
    bench.options.from_first = true;
    ASSERT_TRUE(bench.run(stretch(1, 20), ""));
    expect_figures(bench.result, 0, 0, 20, 0);
}

TEST(Judge, RunsInBothFilesArePairedInOrder) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(6, 40) + stretch(6, 60, "H"), stretch(6, 40) + stretch(6, 60, "H")));
    expect_figures(bench.result, 90, 0, 0, 0);
    EXPECT_EQ(bench.result.truth_runs, 2U);
    EXPECT_EQ(bench.result.output_runs, 2U);
}

TEST(Judge, OutputOfTheLastRunAloneIsJudgedAgainstThatRun) {
    Bench bench;
    const std::string truth = stretch(6, 40) + stretch(6, 60) + stretch(6, 50, "H");
    ASSERT_TRUE(bench.run(truth, stretch(6, 50, "H")));
    expect_figures(bench.result, 45, 0, 0, 0);
    ASSERT_EQ(bench.result.runs.size(), 1U);
    EXPECT_EQ(bench.result.runs[0].truth_run, 3U);
    ASSERT_TRUE(bench.run(truth, stretch(6, 60) + stretch(6, 50, "H")));
    expect_figures(bench.result, 100, 0, 0, 0);
}

TEST(Judge, OneRunCanBeAskedFor) {
    Bench bench;
    bench.options.run = 1;
    ASSERT_TRUE(bench.run(stretch(6, 40) + stretch(6, 60, "H"), stretch(6, 40)));
    expect_figures(bench.result, 35, 0, 0, 0);
    bench.options.run = 3;
    EXPECT_FALSE(bench.run(stretch(6, 40) + stretch(6, 60, "H"), stretch(6, 40)));
    EXPECT_EQ(bench.error, bench.options.truth_path + ": no run 3, the file has 2");
}

TEST(Judge, OutputsOutOfOrderStartIsNoNewRun) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(6, 400) + stretch(6, 500),
                          lines({8, 6, 7}) + stretch(9, 400) + lines({7, 6}) + stretch(8, 500)));
    expect_figures(bench.result, 890, 0, 0, 0);
    EXPECT_EQ(bench.result.output_runs, 2U);
}

TEST(Judge, RunOfOutputThatTheTruthDoesNotHaveIsUnexpectedLineByLine) {
    Bench bench;
    ASSERT_TRUE(
        bench.run(stretch(6, 400) + stretch(6, 500), stretch(6, 300) + stretch(6, 400) + stretch(6, 500)));
    expect_figures(bench.result, 890, 0, 0, 295);
    EXPECT_NE(text_report(bench.options, bench.result).find("1 of OUTPUT without a run in TRUTH"),
              std::string::npos);
}

TEST(Judge, BadInputNamesFileAndLine) {
    Bench bench;
    EXPECT_FALSE(bench.run(line(1) + "nonsense\n", line(1)));
    EXPECT_EQ(bench.error, bench.options.truth_path + ":2: not JSON: broken at byte 2");
    EXPECT_FALSE(bench.run(stretch(1, 3), line(1) + "\n\r\n" + line(2) + R"({"seq":3,"status":)"));
    EXPECT_EQ(bench.error, bench.options.output_path + ":5: not JSON: broken at byte 19");
    // A line that nothing is compared with has to be one all the same.
    EXPECT_FALSE(bench.run(stretch(1, 3), line(1) + "{\"seq\":99,\"status\":}\n"));
    EXPECT_EQ(bench.error, bench.options.output_path + ":2: not JSON: broken at byte 20");
    EXPECT_FALSE(bench.run("", line(1)));
    EXPECT_EQ(bench.error, bench.options.truth_path + ":1: no truth line in the file");
    EXPECT_FALSE(bench.run(line(1) + std::string(line_bytes_max + 5, 'x') + std::string(line_bytes_max, 'x'),
                           line(1)));
    EXPECT_EQ(bench.error, bench.options.truth_path + ":2: line longer than 1048576 bytes");
}

TEST(Judge, LastLineNeedsNoLineFeed) {
    Bench bench;
    ASSERT_TRUE(bench.run(R"({"seq":1,"status":"T"})", R"({"seq":1,"status":"T"})"));
    expect_figures(bench.result, 1, 0, 0, 0);
}

TEST(Judge, OnlyTheFirstDifferencesAreKeptButAllAreCounted) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 500), stretch(1, 500, "H")));
    EXPECT_EQ(bench.result.differences.size(), differences_kept_max);
    EXPECT_EQ(bench.result.differences_found, 500U);
    const std::string text = text_report(bench.options, bench.result);
    EXPECT_NE(text.find("10 of 500 differences:"), std::string::npos) << text;
    EXPECT_NE(text.find("10. run 1 seq 10: mismatched in status"), std::string::npos) << text;
    EXPECT_EQ(text.find("11. run 1"), std::string::npos) << text;
    EXPECT_NE(text.find("status: truth \"T\", output \"H\""), std::string::npos) << text;
}

TEST(Judge, ChartCountsEachLineWhereItStands) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 600), stretch(11, 599) + line(600, "H") + line(300)));
    const std::vector<Bucket>& buckets = bench.result.runs[0].buckets;
    ASSERT_EQ(buckets.size(), buckets_per_run);
    EXPECT_EQ(buckets[0].missing, 10U);
    EXPECT_EQ(buckets[1].missing, 0U);
    EXPECT_EQ(buckets[29].unexpected, 1U);
    EXPECT_EQ(buckets.back().mismatched, 1U);
}

TEST(Judge, AxisEndsOnARoundNumber) {
    EXPECT_EQ(axis_top(0), 4U);
    EXPECT_EQ(axis_top(4), 4U);
    EXPECT_EQ(axis_top(5), 8U);
    EXPECT_EQ(axis_top(9), 12U);
    EXPECT_EQ(axis_top(10), 20U);
    EXPECT_EQ(axis_top(95), 120U);
    EXPECT_EQ(axis_top(16'700), 20'000U);
}

TEST(Judge, PageEscapesWhatComesFromTheFiles) {
    Bench bench;
    ASSERT_TRUE(bench.run(R"({"seq":1,"symbol":"<b>&'x"})"
                          "\n",
                          R"({"seq":1,"symbol":"<script>alert(1)</script>","<i>":1})"
                          "\n"));
    const std::string page = html_report(bench.options, bench.result);
    EXPECT_EQ(page.find("<script"), std::string::npos);
    EXPECT_EQ(page.find("<b>&"), std::string::npos);
    EXPECT_EQ(page.find("<i>"), std::string::npos);
    EXPECT_NE(page.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
    EXPECT_NE(page.find("&lt;b&gt;&amp;&#39;x"), std::string::npos);
    EXPECT_EQ(page.find("http"), std::string::npos) << "the page asks the network for something";
}

}  // namespace
}  // namespace tessel::judge
