#include "judge/workers.h"

#include "judge/judge.h"
#include "judge/report.h"
#include "support/judge_bench.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {
namespace {

// Everything that a judgment leads to, as text.
std::string reports(Bench& bench, std::size_t jobs) {
    bench.options.jobs = jobs;
    bench.result = Result{};
    bench.error.clear();
    if (!judge(bench.options, bench.result, bench.error)) {
        return bench.error;
    }
    return text_report(bench.options, bench.result) + json_report(bench.options, bench.result) +
           html_report(bench.options, bench.result) + junit_report(bench.options, bench.result);
}

// What one job finds.
std::string one_job(Bench& bench, std::string_view truth, std::string_view output) {
    bench.options.jobs = 1;
    bench.run(truth, output);
    return reports(bench, 1);
}

void expect_same_for_all_jobs(Bench& bench, std::string_view truth, std::string_view output,
                              const std::string& what) {
    const std::string wanted = one_job(bench, truth, output);
    for (const std::size_t jobs : {2U, 3U, 8U}) {
        ASSERT_EQ(reports(bench, jobs), wanted) << what << " with " << jobs << " jobs";
    }
}

// One run of a handler that loses, repeats, mistakes and reorders lines.
std::string damaged_run(std::mt19937_64& random, std::uint64_t last, std::string_view status) {
    std::vector<std::string> output;
    for (std::uint64_t seq = 6; seq <= last; ++seq) {
        const std::uint64_t fate = random() % 400;
        if (fate == 0) {
            continue;
        }
        output.push_back(line(seq, fate < 4 ? "X" : status));
        if (fate == 5) {
            output.push_back(output[random() % output.size()]);
        }
        if (fate == 6) {
            output.push_back("{\"seq\":" + std::to_string(seq + last) + ",\"time\":1}\n");
        }
    }
    // Lines move by any distance up to more than a piece's lines.
    for (std::size_t moves = last / 50; moves != 0; --moves) {
        const std::size_t from = random() % output.size();
        const std::size_t to = std::min(output.size() - 1, from + random() % 3'000);
        std::swap(output[from], output[to]);
    }
    std::string text;
    for (const std::string& each : output) {
        text += each;
    }
    return text;
}

TEST(JudgeWorkers, DamagedRuns_GiveTheSameReportsForAnyNumberOfJobs) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        std::mt19937_64 random(seed);
        std::string truth;
        std::string output;
        for (std::uint64_t run = 0; run <= seed % 3; ++run) {
            const std::uint64_t last = 5'000 + random() % 5'000;
            const std::string_view status = run % 2 == 0 ? "T" : "P";
            truth += stretch(6, last, status);
            output += damaged_run(random, last, status);
        }
        Bench bench;
        expect_same_for_all_jobs(bench, truth, output, "seed " + std::to_string(seed));
        EXPECT_EQ(bench.result.truth_runs, 1 + seed % 3);
        EXPECT_EQ(verdict(bench.result), Verdict::differs);
    }
}

TEST(JudgeWorkers, InvalidLines_AreTheSameErrorForAnyNumberOfJobs) {
    Bench bench;
    const std::string good = stretch(1, 4'000) + stretch(4'001, 9'000);
    const std::string damaged = stretch(1, 3'000) + "{\"seq\":3001,\"status\":}\n" + stretch(3'002, 9'000);
    const std::string later = stretch(1, 8'000) + "rubbish\n" + stretch(8'002, 9'000);
    const std::string both = stretch(1, 3'000) + "{\"seq\":3001,\"status\":}\n" + stretch(3'002, 5'000) +
                             "{\"seq\":5001,\"id\":1,\"id\":2}\n";
    expect_same_for_all_jobs(bench, damaged, good, "truth");
    EXPECT_EQ(bench.error, bench.options.truth_path + ":3001: not JSON: broken at byte 22");
    expect_same_for_all_jobs(bench, good, damaged, "output");
    EXPECT_EQ(bench.error, bench.options.output_path + ":3001: not JSON: broken at byte 22");
    expect_same_for_all_jobs(bench, later, damaged, "truth in its scan");
    expect_same_for_all_jobs(bench, good, later, "output in its scan");
    expect_same_for_all_jobs(bench, both, both, "both");
}

TEST(JudgeWorkers, RunsOfOutput_AreToldApartTheSameWayForAnyNumberOfJobs) {
    Bench bench;
    const std::string one = stretch(6, 400);
    const std::string other = stretch(6, 300, "H");
    expect_same_for_all_jobs(bench, one, other + one, "the one that belongs");
    expect_same_for_all_jobs(bench, one + other, one + other, "two runs");
    expect_same_for_all_jobs(bench, lines({1, 2, 3, 4}), lines({1, 2, 3, 4, 1, 2, 3, 4}), "a short run");
    expect_same_for_all_jobs(bench, one, lines({5'000'000}) + one, "a wild number");
    expect_same_for_all_jobs(bench, one, stretch(7, 400) + line(6), "the first line last");
    expect_same_for_all_jobs(bench, stretch(1, 40'000), stretch(2, 40'000) + line(1), "a line too late");
    expect_same_for_all_jobs(bench, one, "", "no output");
}

}  // namespace
}  // namespace tessel::judge
