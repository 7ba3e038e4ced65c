#include "judge/judge.h"

#include "judge/report.h"
#include "judge/report_chart.h"
#include "support/judge_bench.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {
namespace {

TEST(Judge, SameFiles_Agree) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(6, 30), stretch(6, 30))) << bench.error;
    expect_totals(bench.result, 25, 0, 0, 0);
    EXPECT_EQ(bench.result.totals.truth_lines, 25U);
    EXPECT_EQ(bench.result.totals.output_lines, 25U);
    EXPECT_EQ(bench.result.members[static_cast<std::size_t>(Member::status)].compared, 25U);
}

TEST(Judge, OnlyMembersGiven_AreCompared) {
    Bench bench;
    const std::string truth = R"({"seq":8,"symbol":"A","nbbo":[190.0100,300,190.0300,200],"status":"T"})"
                              "\n";
    ASSERT_TRUE(bench.run(truth, R"({"nbbo":[190.01,300,1.9003e2,200],"seq":8})"
                                 "\n"));
    expect_totals(bench.result, 1, 0, 0, 0);
    EXPECT_EQ(bench.result.members[static_cast<std::size_t>(Member::nbbo)].compared, 1U);
    EXPECT_EQ(bench.result.members[static_cast<std::size_t>(Member::status)].compared, 0U);
    ASSERT_TRUE(bench.run(truth, R"({"seq":8,"nbbo":[190.02,300,190.03,200],"status":"H"})"
                                 "\n"));
    expect_totals(bench.result, 0, 1, 0, 0);
    ASSERT_EQ(bench.result.differences.size(), 1U);
    EXPECT_EQ(member_list(bench.result.differences[0].members), "nbbo, status");
}

TEST(Judge, MemberThatTheTruthLineLacks_IsAMismatchUnlessNull) {
    Bench bench;
    ASSERT_TRUE(bench.run(line(8), R"({"seq":8,"band":[1,2]})"
                                   "\n"));
    expect_totals(bench.result, 0, 1, 0, 0);
    ASSERT_TRUE(bench.run(line(8), R"({"seq":8,"band":null})"
                                   "\n"));
    expect_totals(bench.result, 1, 0, 0, 0);
    ASSERT_TRUE(bench.run(line(8), R"({"seq":8,"status":null})"
                                   "\n"));
    expect_totals(bench.result, 0, 1, 0, 0);
}

TEST(Judge, MembersThatNoTruthLineHas_AreAllNamedAtTheTop) {
    Bench bench;
    ASSERT_TRUE(bench.run(line(8), R"({"seq":8,"time_ns":7,"statsu":"H","symbol":"AAPL"})"
                                   "\n"));
    expect_totals(bench.result, 1, 0, 0, 0);
    const std::vector<std::string> expected = {"time_ns", "statsu"};
    EXPECT_EQ(bench.result.unknown_members, expected);
    const std::string text = text_report(bench.options, bench.result);
    const std::size_t place =
        text.find("not compared: member 'statsu', which no truth line has; did you mean 'status'?\n");
    EXPECT_LT(place, text.find("truth lines  ")) << text;
}

TEST(Judge, LinesThatGiveOnlyUnknownMembers_AreNothingCompared) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 9), "{\"seq\":1,\"statsu\":\"T\"}\n{\"seq\":2}\n"));
    EXPECT_EQ(verdict(bench.result), Verdict::nothing_compared);
    EXPECT_EQ(text_report(bench.options, bench.result).substr(0, 18), "NOTHING COMPARED: ");
    ASSERT_TRUE(bench.run(stretch(1, 2), "{\"seq\":1}\n{\"seq\":2}\n"));
    EXPECT_EQ(verdict(bench.result), Verdict::agrees) << "lines without members are compared by number";
    ASSERT_TRUE(bench.run(stretch(1, 2), "{\"seq\":1,\"statsu\":\"T\"}\n{\"seq\":7,\"status\":\"T\"}\n"));
    EXPECT_EQ(verdict(bench.result), Verdict::differs) << "a line without a truth line gives a known member";
}

TEST(Judge, MismatchWhileASmallerNumberIsStillToCome_IsInAGap) {
    Bench bench;
    const std::string bad5 = line(5, "H");
    const auto in_gap = [&](const std::string& output) {
        EXPECT_TRUE(bench.run(stretch(1, 9), output)) << bench.error;
        return bench.result.examples.size() == 1 && bench.result.examples[0].in_gap;
    };
    EXPECT_FALSE(in_gap(stretch(1, 4) + bad5 + stretch(6, 9)));
    EXPECT_TRUE(in_gap(stretch(1, 3) + bad5 + line(4) + stretch(6, 9))) << "4 comes after it";
    EXPECT_TRUE(in_gap(stretch(1, 3) + bad5 + stretch(6, 9))) << "4 never comes";
    EXPECT_FALSE(in_gap(stretch(1, 3) + line(6) + line(4) + bad5 + stretch(7, 9))) << "the gap is closed";
    EXPECT_FALSE(in_gap(stretch(1, 4) + bad5 + stretch(7, 9))) << "only a larger number is missing";
    EXPECT_NE(text_report(bench.options, bench.result).find("seq 5: mismatched in status\n"),
              std::string::npos);
    EXPECT_TRUE(in_gap(stretch(2, 4) + bad5 + stretch(6, 9)));
    EXPECT_NE(text_report(bench.options, bench.result).find("mismatched in status (inside an open gap)"),
              std::string::npos);
}

TEST(Judge, MissingLinesInARow_AreOneDifferenceAndTheLongestRowIsReported) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 20), lines({1, 2, 5, 6, 7, 8, 9, 14, 15, 16, 17, 18, 19, 20})));
    expect_totals(bench.result, 14, 0, 6, 0);
    ASSERT_EQ(bench.result.differences.size(), 2U);
    EXPECT_EQ(bench.result.differences[0].seq, 3U);
    EXPECT_EQ(bench.result.differences[0].seq_last, 4U);
    EXPECT_EQ(bench.result.totals.longest_missing, 4U);
    EXPECT_EQ(bench.result.totals.longest_missing_first, 10U);
    EXPECT_EQ(bench.result.totals.longest_missing_last, 13U);
}

TEST(Judge, SequenceWithoutTruthLines_DoesNotBreakARowOfMissingOnes) {
    Bench bench;
    ASSERT_TRUE(bench.run(lines({1, 2, 9, 10, 30}), lines({1, 30})));
    EXPECT_EQ(bench.result.totals.longest_missing, 3U);
}

TEST(Judge, LinesOutOfOrderWithinTheWindow_Agree) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 8), lines({3, 1, 2, 8, 4, 7, 6, 5})));
    expect_totals(bench.result, 8, 0, 0, 0);
    // A whole recovered gap of the window's size after the line that showed it.
    ASSERT_TRUE(bench.run(stretch(1, window_lines_max + 10),
                          line(1) + stretch(12, window_lines_max + 10) + stretch(2, 11)));
    expect_totals(bench.result, window_lines_max + 10, 0, 0, 0);
}

TEST(Judge, LineExactlyTheWindowLate_IsInTime) {
    Bench bench;
    const std::uint64_t last = window_lines_max + 20;
    // Line 1 comes after exactly as many others as the window holds; then after one more.
    ASSERT_TRUE(bench.run(stretch(1, last),
                          stretch(2, window_lines_max + 1) + line(1) + stretch(window_lines_max + 2, last)));
    expect_totals(bench.result, last, 0, 0, 0);
    ASSERT_TRUE(bench.run(stretch(1, last),
                          stretch(2, window_lines_max + 2) + line(1) + stretch(window_lines_max + 3, last)));
    expect_totals(bench.result, last - 1, 0, 1, 1);
}

TEST(Judge, LineBeyondTheWindow_IsTooLateAndItsTruthLineMissing) {
    Bench bench;
    const std::uint64_t last = 2 * window_lines_max;
    ASSERT_TRUE(bench.run(stretch(1, last), stretch(2, last) + line(1)));
    expect_totals(bench.result, last - 1, 0, 1, 1);
    EXPECT_EQ(bench.result.totals.too_late, 1U);
}

TEST(Judge, RepeatedLine_IsUnexpected) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 5), lines({1, 2, 2, 3, 5, 5, 4, 1})));
    expect_totals(bench.result, 5, 0, 0, 3);
    EXPECT_EQ(bench.result.totals.repeated, 3U);
}

TEST(Judge, LineWithoutATruthLine_IsUnexpected) {
    Bench bench;
    ASSERT_TRUE(bench.run(lines({6, 8, 9}), lines({1, 6, 7, 8, 9, 4000})));
    expect_totals(bench.result, 3, 0, 0, 3);
    EXPECT_EQ(bench.result.totals.unknown, 3U);
}

TEST(Judge, WildSequenceNumbers_DoNotSpoilTheRest) {
    Bench bench;
    std::string output = line(1);
    for (std::uint64_t wild = 0; wild != window_lines_max + 100; ++wild) {
        output += line(1'000'000'000 + wild);
    }
    ASSERT_TRUE(bench.run(stretch(1, 9), output + stretch(2, 9)));
    expect_totals(bench.result, 9, 0, 0, window_lines_max + 100);
}

TEST(Judge, Marks_AreSkippedInBothFiles) {
    Bench bench;
    const std::string mark = "{\"mark\":\"half\",\"seq\":2}\n";
    ASSERT_TRUE(bench.run(line(1) + line(2) + mark + mark + line(3), lines({1, 2, 3})));
    expect_totals(bench.result, 3, 0, 0, 0);
    EXPECT_EQ(bench.result.truth_marks, 2U);
    EXPECT_EQ(bench.result.truth_runs, 1U);
    ASSERT_TRUE(bench.run(lines({1, 2, 3}), line(1) + mark + line(2) + line(3)));
    expect_totals(bench.result, 3, 0, 0, 0);
    EXPECT_EQ(bench.result.totals.output_lines, 3U);
}

TEST(Judge, LateHandler_MissesTheBeginningUnlessJudgedFromItsFirst) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 20), lines({11, 10}) + stretch(12, 18)));
    expect_totals(bench.result, 9, 0, 11, 0);
    bench.options.from_first = true;
    ASSERT_TRUE(bench.run(stretch(1, 20), lines({11, 10}) + stretch(12, 18)));
    expect_totals(bench.result, 9, 0, 2, 0);
    EXPECT_EQ(bench.result.totals.left_out, 9U);
    bench.options.to_last = true;
    ASSERT_TRUE(bench.run(stretch(1, 20), lines({11, 10}) + stretch(12, 18)));
    expect_totals(bench.result, 9, 0, 0, 0);
    EXPECT_EQ(bench.result.totals.left_out, 11U);
}

TEST(Judge, EmptyOutput_MissesEverythingEvenWhenJudgedFromItsFirst) {
    Bench bench;
    bench.options.from_first = true;
    ASSERT_TRUE(bench.run(stretch(1, 20), ""));
    expect_totals(bench.result, 0, 0, 20, 0);
}

TEST(Judge, BadInput_NamesFileAndLine) {
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

TEST(Judge, LastLine_NeedsNoLineFeed) {
    Bench bench;
    ASSERT_TRUE(bench.run(R"({"seq":1,"status":"T"})", R"({"seq":1,"status":"T"})"));
    expect_totals(bench.result, 1, 0, 0, 0);
}

TEST(Judge, ManyMismatchesOfOneMemberAndSymbol_AreOneExample) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 5'000), stretch(1, 5'000, "H")));
    EXPECT_EQ(bench.result.differences_found, 5'000U);
    ASSERT_EQ(bench.result.differences.size(), 1U);
    EXPECT_EQ(bench.result.differences[0].seq, 1U);
    ASSERT_EQ(bench.result.examples.size(), 1U);
    const MemberDifference& example = bench.result.examples[0];
    EXPECT_EQ(example.symbol, "\"AAPL\"");
    EXPECT_EQ(example.truth, "\"T\"");
    EXPECT_EQ(example.output, "\"H\"");
    EXPECT_EQ(example.lines, 5'000U);
    EXPECT_EQ(example.member, static_cast<std::size_t>(Member::status));
}

TEST(Judge, EachSymbolAndMember_HasItsOwnExample) {
    Bench bench;
    std::string truth;
    std::string output;
    for (int seq = 1; seq <= 3'000; ++seq) {
        const std::string head =
            "{\"seq\":" + std::to_string(seq) + ",\"symbol\":\"S" + std::to_string(seq % 40) + "\",";
        truth += head + "\"status\":\"T\",\"id\":1}\n";
        // The id is only wrong in the second half of the file.
        output += head + "\"status\":\"H\",\"id\":" + (seq > 1'500 ? "2" : "1") + "}\n";
    }
    ASSERT_TRUE(bench.run(truth, output));
    EXPECT_EQ(bench.result.examples.size(), 80U);
    EXPECT_EQ(bench.result.differences.size(), 80U);
    EXPECT_EQ(bench.result.differences[40].seq, 1'501U);
    EXPECT_EQ(bench.result.differences[40].members,
              1U << static_cast<unsigned>(Member::status) | 1U << static_cast<unsigned>(Member::id));
    EXPECT_EQ(bench.result.examples[0].lines, 75U);
}

TEST(Judge, OnlyTheFirstDifferencesAreKept_ButAllAreCounted) {
    Bench bench;
    std::string output;
    for (std::uint64_t seq = 1; seq <= 500; seq += 2) {
        output += line(seq);
    }
    ASSERT_TRUE(bench.run(stretch(1, 500), output));
    EXPECT_EQ(bench.result.differences.size(), differences_kept_max);
    EXPECT_EQ(bench.result.differences_found, 250U);
    const std::string text = text_report(bench.options, bench.result);
    EXPECT_NE(text.find("10 of 250 differences:"), std::string::npos) << text;
    EXPECT_NE(text.find("10. run 1 seq 20: missing"), std::string::npos) << text;
    EXPECT_EQ(text.find("11. run 1"), std::string::npos) << text;
}

TEST(Judge, Chart_CountsEachLineAtItsPlace) {
    Bench bench;
    ASSERT_TRUE(bench.run(stretch(1, 600), stretch(11, 599) + line(600, "H") + line(300)));
    const std::vector<Bucket>& buckets = bench.result.runs[0].buckets;
    ASSERT_EQ(buckets.size(), buckets_per_run);
    EXPECT_EQ(buckets[0].missing, 10U);
    EXPECT_EQ(buckets[1].missing, 0U);
    EXPECT_EQ(buckets[29].unexpected, 1U);
    EXPECT_EQ(buckets.back().mismatched, 1U);
}

TEST(Judge, Axis_EndsOnARoundNumber) {
    EXPECT_EQ(axis_top(0), 4U);
    EXPECT_EQ(axis_top(4), 4U);
    EXPECT_EQ(axis_top(5), 8U);
    EXPECT_EQ(axis_top(9), 12U);
    EXPECT_EQ(axis_top(10), 20U);
    EXPECT_EQ(axis_top(95), 120U);
    EXPECT_EQ(axis_top(16'700), 20'000U);
}

TEST(Judge, ChartAtTheLargestNumbers_HasItsLabels) {
    Bench bench;
    const std::uint64_t last = UINT64_MAX;
    ASSERT_TRUE(bench.run(line(0) + line(last - 1) + line(last), line(0) + line(last, "H")));
    expect_totals(bench.result, 1, 1, 1, 0);
    const std::string chart = run_chart(bench.result.runs[0]);
    EXPECT_NE(chart.find(">18,446,744,073,709,551,615<"), std::string::npos);
    EXPECT_NE(chart.find(">3,689,348,814,741,910,323<"), std::string::npos) << chart;
    EXPECT_EQ(axis_top(last), last - last % 4);
}

TEST(Judge, Page_EscapesWhatComesFromTheFiles) {
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
