#include "certify/judging.h"

#include "certify/file_text.h"
#include "certify/line_differences.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>

namespace tessel::certify {
namespace {

std::string line(int seq, const char* bid) {
    return "{\"seq\":" + std::to_string(seq) + ",\"symbol\":\"AAPL\",\"bid\":" + bid + "}\n";
}

struct JudgingTest : testing::Test {
    std::string folder = testing::TempDir() + "tessel-judging-" + std::to_string(getpid());
    JudgeInput input;

    void SetUp() override {
        std::filesystem::create_directories(folder);
        input.truth_path = folder + "/truth.jsonl";
        input.out_path = folder + "/out.jsonl";
        input.folder = folder;
    }
    void TearDown() override {
        std::filesystem::remove_all(folder);
    }
    void truth(const std::string& text) const {
        std::ofstream(input.truth_path) << text;
    }
    void output(const std::string& text) const {
        std::ofstream(input.out_path) << text;
    }
    std::string reason() const {
        const Judgment judgment = judge_output(input);
        EXPECT_EQ(judgment.good, judgment.reason.empty());
        return judgment.reason;
    }
};

TEST_F(JudgingTest, OutputThatAgrees_IsGood) {
    truth(line(1, "[[1,2]]") + line(2, "[]"));
    output(line(1, "[[1.00,2]]") + line(2, "[]"));
    EXPECT_EQ(reason(), "");
}

TEST_F(JudgingTest, AReason_CountsAndNamesWhatDiffers) {
    truth(line(1, "[]") + line(2, "[]") + line(3, "[]"));
    output(line(1, "[[1,2]]") + line(3, "[]") + line(9, "[]"));
    EXPECT_EQ(reason(), "1 line missing, 1 line mismatched (bid), 1 line unexpected; the first is seq 1");
}

TEST_F(JudgingTest, NothingOrNonsense_IsSaidSo) {
    truth(line(1, "[]"));
    EXPECT_EQ(reason(), "no line was written");
    output("");
    EXPECT_EQ(reason(), "no line was written");
    output(line(1, "[]") + "nonsense\n");
    EXPECT_EQ(reason(), "line 2 is not JSON");
    output("{\"seq\":1,\"price\":5}\n");
    EXPECT_EQ(reason(), "nothing was compared: no line has a member of a truth line");
}

TEST_F(JudgingTest, AMemberThatMustBeCompared_HasToBeThere) {
    truth(line(1, "[]"));
    output(line(1, "[]"));
    input.expect.members = {"bid", "nbbo"};
    EXPECT_EQ(reason(), "member 'nbbo' was compared in no line");
}

TEST_F(JudgingTest, WithCompare_OtherMembersDoNotCount) {
    truth(line(1, "[]"));
    output("\n{\"seq\":1,\"symbol\":\"MSFT\",\"bid\":[]}\nnonsense\n");
    input.expect.compare = {"bid"};
    EXPECT_EQ(reason(), "line 3 is not JSON");
    output("{\"seq\":1,\"symbol\":\"MSFT\",\"bid\":[]}\n");
    EXPECT_EQ(reason(), "");
    input.expect.compare = {"symbol"};
    EXPECT_EQ(reason(), "1 line mismatched (symbol); the first is seq 1");
}

TEST_F(JudgingTest, WhatTheFeedDropped_MayBeMissing) {
    truth(line(1, "[]") + line(2, "[]") + line(3, "[]") + line(4, "[]"));
    output(line(1, "[]") + line(4, "[]"));
    input.dropped = {{{2, 2}}};
    EXPECT_EQ(reason(), "2 lines missing; the first is seq 2");
    input.expect.missing = Missing::dropped;
    EXPECT_EQ(reason(), "");
    output(line(1, "[]") + line(3, "[[1,1]]") + line(4, "[]"));
    EXPECT_EQ(reason(), "1 line mismatched (bid); the first is seq 3");
    output(line(1, "[]"));
    EXPECT_EQ(reason(), "1 line missing; the first is seq 4");
}

TEST_F(JudgingTest, AfterTheFirstLoss_MembersMayDiffer) {
    truth(line(1, "[]") + line(2, "[]") + line(3, "[]"));
    output(line(1, "[]") + line(2, "[]") + line(3, "[[1,1]]"));
    input.dropped = {{{2, 1}}};
    input.expect.mismatched = Mismatched::after_loss;
    EXPECT_EQ(reason(), "");
    output(line(1, "[[1,1]]") + line(2, "[]") + line(3, "[]"));
    EXPECT_EQ(reason(), "1 line mismatched (bid); the first is seq 1");
}

TEST_F(JudgingTest, DifferingLines_AreAllOfThemWithWhatIsInAGap) {
    truth(line(1, "[]") + line(2, "[]") + line(3, "[]") + line(4, "[]"));
    output(line(2, "[[1,1]]") + line(1, "[]") + line(4, "[[2,2]]") + line(4, "[]") + line(7, "[]"));
    const std::vector<LineDifference> found = differing_lines(judge_output(input), false);
    ASSERT_EQ(found.size(), 5U);
    EXPECT_EQ(found[0].seq, 2U);
    EXPECT_TRUE(found[0].in_gap);
    EXPECT_EQ(found[0].symbol, "AAPL");
    EXPECT_EQ(found[0].members, 1U << static_cast<unsigned>(judge::Member::bid));
    EXPECT_EQ(found[0].truth + "\n", line(2, "[]"));
    EXPECT_EQ(found[0].output + "\n", line(2, "[[1,1]]"));
    EXPECT_EQ(found[1].kind, judge::DifferenceKind::missing);
    EXPECT_EQ(found[1].seq, 3U);
    EXPECT_EQ(found[2].seq, 4U);
    EXPECT_TRUE(found[2].in_gap);  // 3 never came
    EXPECT_EQ(found[3].kind, judge::DifferenceKind::unexpected);
    EXPECT_EQ(found[3].run, 1U);  // a repeated line
    EXPECT_EQ(found[4].seq, 7U);
    EXPECT_EQ(found[4].run, 0U);
}

TEST_F(JudgingTest, WithoutTheLinesBeforeTheFirst_TheyAreNotMissing) {
    truth(line(1, "[]") + line(2, "[]") + line(3, "[]"));
    output(line(2, "[]"));
    input.expect.from_first = true;
    EXPECT_EQ(reason(), "1 line missing; the first is seq 3");
    EXPECT_EQ(differing_lines(judge_output(input), true).size(), 1U);
}

}  // namespace
}  // namespace tessel::certify
