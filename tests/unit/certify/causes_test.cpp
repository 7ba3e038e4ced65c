#include "certify/causes.h"

#include <gtest/gtest.h>

namespace tessel::certify {

namespace {

CaseResult failed(std::string name, std::string reason = "lines differ") {
    CaseResult result;
    result.handler = "handler";
    result.group = name.substr(0, name.find('/'));
    result.name = std::move(name);
    result.verdict = Verdict::fail;
    result.reason = std::move(reason);
    return result;
}

Finding mismatch(std::string symbol, std::string member, std::string indicator, std::uint64_t lines) {
    return {.kind = "mismatched",
            .member = std::move(member),
            .symbol = std::move(symbol),
            .message = "quote_short",
            .facts = {{"nbbo_indicator", std::move(indicator)}, {"in_gap", "false"}, {"sip_time", "17"}},
            .lines = lines};
}

Certificate with(std::vector<CaseResult> cases) {
    Certificate certificate;
    certificate.handlers = {{"handler", "./handler"}};
    certificate.cases = std::move(cases);
    return certificate;
}

}  // namespace

TEST(Causes, SharedIndicator_IsNamedWithTheNumberOfLines) {
    CaseResult result = failed("book/indicators");
    result.mismatched = 14;
    result.findings = {mismatch("AAPL", "nbbo", "4", 9), mismatch("MSFT", "bid", "4", 5)};
    const std::vector<Cause> causes = likely_causes(with({result}));
    ASSERT_EQ(causes.size(), 1U);
    EXPECT_EQ(causes[0].text,
              "all 14 mismatches are in messages with NBBO indicator 4, in quote_short messages");
    EXPECT_EQ(causes[0].cases, std::vector<std::string>{"book/indicators"});
}

TEST(Causes, LinesWithTwoDifferingMembers_AreCountedOnce) {
    CaseResult result = failed("book/indicators");
    result.mismatched = 5;
    result.findings = {mismatch("AAPL", "nbbo", "4", 5), mismatch("AAPL", "bid", "4", 5)};
    const std::vector<Cause> causes = likely_causes(with({result}));
    ASSERT_EQ(causes.size(), 1U);
    EXPECT_TRUE(causes[0].text.starts_with("all 5 mismatches are in messages with NBBO indicator 4"))
        << causes[0].text;
}

TEST(Causes, TwoBugsInDifferentCases_AreTwoCausesOfTheseCases) {
    CaseResult one = failed("book/one");
    one.findings = {mismatch("A", "nbbo", "4", 4), mismatch("B", "bid", "4", 2)};
    CaseResult two = failed("book/two");
    two.findings = {mismatch("A", "nbbo", "2", 7), mismatch("B", "ask", "2", 1)};
    // All are in short quotes, too, which would hide that there are two.
    const std::vector<Cause> apart = likely_causes(with({one, two}));
    ASSERT_EQ(apart.size(), 2U);
    EXPECT_TRUE(
        apart[0].text.starts_with("all 8 mismatches of these cases are in messages with NBBO indicator 2"))
        << apart[0].text;
    EXPECT_EQ(apart[0].cases, std::vector<std::string>{"book/two"});
    EXPECT_TRUE(
        apart[1].text.starts_with("all 6 mismatches of these cases are in messages with NBBO indicator 4"))
        << apart[1].text;
}

TEST(Causes, MissingLinesBeforeSilence_AreNamedSo) {
    CaseResult result = failed("loss/last_packet");
    result.missing = 5;
    for (const char* symbol : {"A", "B", "C", "D", "E"}) {
        result.findings.push_back({.kind = "missing",
                                   .member = "",
                                   .symbol = symbol,
                                   .message = symbol[0] < 'C' ? "trade_short" : "quote_short",
                                   .facts = {{"last_before_silence", "true"}},
                                   .lines = 1});
    }
    const std::vector<Cause> causes = likely_causes(with({result}));
    ASSERT_EQ(causes.size(), 1U);
    EXPECT_EQ(causes[0].text, "all 5 missing lines are the last before silence");
}

TEST(Causes, MostLines_AreNamedAsAShare) {
    CaseResult result = failed("book/one");
    result.findings = {mismatch("A", "nbbo", "4", 9), mismatch("B", "bid", "1", 1)};
    result.findings[1].message = "quote_long";
    const std::vector<Cause> causes = likely_causes(with({result}));
    ASSERT_EQ(causes.size(), 1U);
    EXPECT_EQ(causes[0].text, "9 of 10 differing values are in messages with NBBO indicator 4");
}

TEST(Causes, FewLinesOrNothingInCommon_AreNoCause) {
    CaseResult few = failed("book/one");
    few.findings = {mismatch("A", "nbbo", "4", 2)};
    EXPECT_TRUE(likely_causes(with({few})).empty());
    CaseResult mixed = failed("book/one");
    mixed.findings = {mismatch("A", "nbbo", "4", 5), mismatch("B", "bid", "1", 5)};
    mixed.findings[1].message = "quote_long";
    EXPECT_TRUE(likely_causes(with({mixed})).empty());
    CaseResult passed = failed("book/one");
    passed.verdict = Verdict::pass;
    passed.findings = {mismatch("A", "nbbo", "4", 50)};
    EXPECT_TRUE(likely_causes(with({passed})).empty());
}

TEST(Causes, SameReasonWithoutDifferences_IsOneCause) {
    CaseResult passed = failed("join/fine");
    passed.verdict = Verdict::pass;
    const std::vector<Cause> causes =
        likely_causes(with({failed("robust/a", "handler was killed by signal 11"),
                            failed("join/b", "handler was killed by signal 11"),
                            failed("join/c", "no line was written"), passed}));
    ASSERT_EQ(causes.size(), 1U);
    EXPECT_EQ(causes[0].text, "2 cases: handler was killed by signal 11");
    EXPECT_EQ(causes[0].cases, (std::vector<std::string>{"robust/a", "join/b"}));
}

TEST(Causes, ReasonsThatDifferInANumber_AreAlike) {
    EXPECT_EQ(reason_pattern("line 1,204 is not JSON"), "line N is not JSON");
    EXPECT_EQ(reason_pattern("14 lines of 2"), "N lines of N");
    const std::vector<Cause> causes =
        likely_causes(with({failed("a/one", "line 7 is not JSON"), failed("b/two", "line 812 is not JSON")}));
    ASSERT_EQ(causes.size(), 1U);
    EXPECT_EQ(causes[0].text, "2 cases: line N is not JSON");
}

TEST(Causes, WholeGroupAndNothingElse_IsNamed) {
    CaseResult passed = failed("loss/fine");
    passed.verdict = Verdict::pass;
    const std::vector<Cause> causes = likely_causes(
        with({failed("join/a", "one"), failed("join/b", "two"), failed("join/c", "three"), passed}));
    ASSERT_EQ(causes.size(), 1U);
    EXPECT_EQ(causes[0].text, "every case of group join fails, and no other case");
}

TEST(Causes, SeveralHandlers_HaveTheirOwnCauses) {
    CaseResult one = failed("book/one");
    one.handler = "mine";
    one.findings = {mismatch("A", "nbbo", "4", 4)};
    CaseResult other = failed("book/one");
    other.handler = "theirs";
    other.findings = {mismatch("A", "nbbo", "1", 4)};
    Certificate certificate = with({one, other});
    certificate.handlers = {{"mine", "a"}, {"theirs", "b"}};
    const std::vector<Cause> causes = likely_causes(certificate);
    ASSERT_EQ(causes.size(), 2U);
    EXPECT_EQ(causes[0].cases, std::vector<std::string>{"mine: book/one"});
    EXPECT_EQ(causes[1].cases, std::vector<std::string>{"theirs: book/one"});
}

TEST(Causes, ThousandsOfFindings_AreExplainedQuickly) {
    std::vector<CaseResult> results;
    for (int number = 0; number != 60; ++number) {
        CaseResult result = failed("book/" + std::to_string(number));
        for (int each = 0; each != 1'000; ++each) {
            result.findings.push_back(mismatch("S" + std::to_string(each), "nbbo", "4", 1));
        }
        results.push_back(std::move(result));
    }
    const std::vector<Cause> causes = likely_causes(with(std::move(results)));
    ASSERT_FALSE(causes.empty());
    EXPECT_TRUE(causes[0].text.starts_with("all 60,000 mismatches are in messages with NBBO indicator 4"));
}

}  // namespace tessel::certify
