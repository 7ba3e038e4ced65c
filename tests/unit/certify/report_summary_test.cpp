#include "certify/report_summary.h"

#include "certify/reports.h"

#include <gtest/gtest.h>

namespace tessel::certify {

namespace {

CaseResult result(std::string name, Verdict verdict, std::string handler = "handler",
                  std::uint64_t seed = 1) {
    CaseResult made;
    made.handler = std::move(handler);
    made.group = name.substr(0, name.find('/'));
    made.name = std::move(name);
    made.verdict = verdict;
    made.reason = verdict == Verdict::pass ? "" : "because";
    made.seed = seed;
    made.seconds = 1.5;
    return made;
}

Certificate certificate_of(std::vector<CaseResult> cases) {
    Certificate certificate;
    certificate.tool = "tessel-certify 1.0.0";
    certificate.handlers = {{"handler", "./handler --out {out}"}};
    certificate.cases = std::move(cases);
    return certificate;
}

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

constexpr std::string_view hostile = "]]>\"<b>&\x1b[31m\x01\xff' | `x` ```` _y_ <!--";

Certificate hostile_certificate() {
    const std::string text(hostile);
    CaseResult bad = result("loss/" + text, Verdict::fail, text);
    bad.group = bad.title = bad.reason = bad.command = bad.folder = bad.log_tail = text;
    bad.examples.push_back({.seq = 1,
                            .kind = text,
                            .symbol = text,
                            .members = text,
                            .truth = text,
                            .output = text,
                            .message_hex = text,
                            .message_decoded = text,
                            .in_gap = true});
    CaseResult skipped = bad;
    skipped.verdict = Verdict::skipped;
    Certificate certificate = certificate_of({bad, skipped});
    certificate.tool = text;
    certificate.about = {text};
    certificate.handlers = {{text, text}};
    certificate.causes = {{text, {text}}};
    return certificate;
}

}  // namespace

TEST(ReportSummary, WorstResult_IsTheVerdictOfACase) {
    const Certificate certificate = certificate_of(
        {result("a/x", Verdict::pass), result("a/y", Verdict::skipped),
         result("a/x", Verdict::fail, "handler", 2), result("a/y", Verdict::pass, "handler", 2),
         result("a/x", Verdict::error, "handler", 3)});
    const std::vector<CaseSummary> found = summaries(certificate);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].verdict, Verdict::fail);
    EXPECT_EQ(found[0].results.size(), 3U);
    EXPECT_EQ(found[1].verdict, Verdict::pass);
}

TEST(ReportSummary, HandlersOfACase_AreSideBySide) {
    const Certificate certificate =
        certificate_of({result("a/x", Verdict::pass, "one"), result("a/y", Verdict::pass, "one"),
                        result("a/x", Verdict::fail, "two"), result("a/y", Verdict::fail, "two")});
    const std::vector<CaseSummary> found = summaries(certificate);
    ASSERT_EQ(found.size(), 4U);
    EXPECT_EQ(found[1].first().name, "a/x");
    EXPECT_EQ(found[1].first().handler, "two");
}

TEST(ReportSummary, Headline_CountsCasesOrRuns) {
    EXPECT_EQ(headline(certificate_of({result("a/x", Verdict::pass), result("a/y", Verdict::pass)})),
              "2 of 2 cases pass");
    EXPECT_EQ(headline(certificate_of({result("a/x", Verdict::pass), result("a/y", Verdict::error)})),
              "1 of 2 cases passes, 1 could not be run");
    EXPECT_EQ(headline(certificate_of({result("a/x", Verdict::pass), result("a/x", Verdict::skipped)})),
              "1 of 2 runs of 1 case passes, 1 skipped");
    EXPECT_EQ(headline(certificate_of({})), "0 of 0 cases pass");
}

TEST(ReportSummary, Line_IsCutBetweenCharacters) {
    EXPECT_EQ(one_line("a\nb\x1b", 10), "a b ");
    EXPECT_EQ(one_line("a\xc3\xa4z", 2), "a ...");
    EXPECT_EQ(one_line("abc", 3), "abc");
}

TEST(ReportJunit, Groups_AreSuitesAndVerdictsTheirElements) {
    const std::string xml =
        junit_report(certificate_of({result("a/x", Verdict::pass), result("a/y", Verdict::fail),
                                     result("b/z", Verdict::skipped), result("b/w", Verdict::error)}));
    EXPECT_TRUE(contains(xml, R"(tests="4" failures="1" errors="1" skipped="1">)"));
    EXPECT_TRUE(
        contains(xml, R"(<testsuite name="a" tests="2" failures="1" errors="0" skipped="0" time="3.000">)"));
    EXPECT_TRUE(contains(xml, R"(<testcase classname="tessel-certify.a" name="a/x" time="1.500"/>)"));
    EXPECT_TRUE(contains(xml, R"(<failure message="because">)"));
    EXPECT_TRUE(contains(xml, R"(<skipped message="because"/>)"));
    EXPECT_TRUE(contains(xml, R"(<error message="because">)"));
}

TEST(ReportJunit, CaseWithSeveralSeeds_HasTheSeedInItsName) {
    const std::string xml =
        junit_report(certificate_of({result("a/x", Verdict::pass), result("a/x", Verdict::pass, "handler", 2),
                                     result("a/y", Verdict::pass)}));
    EXPECT_TRUE(contains(xml, R"(name="a/x seed 2")"));
    EXPECT_TRUE(contains(xml, R"(name="a/y" )"));
}

TEST(ReportJunit, HostileTexts_StayTextThatXmlAllows) {
    const std::string xml = junit_report(hostile_certificate());
    EXPECT_FALSE(contains(xml, "<b>"));
    EXPECT_FALSE(contains(xml, "]]>"));
    EXPECT_FALSE(contains(xml, "<!--"));
    for (const char c : xml) {
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << static_cast<int>(c);
        EXPECT_LT(static_cast<unsigned char>(c), 0x80);
    }
}

TEST(ReportMarkdown, Failures_AreNamedWithReasonAndCommand) {
    CaseResult bad = result("a/y_z", Verdict::fail);
    bad.command = "tessel-certify --only a/y_z";
    const std::string text = markdown_report(certificate_of({result("a/x", Verdict::pass), bad}));
    EXPECT_TRUE(contains(text, "## ❌ 1 of 2 cases passes, 1 fail\n")) << text;
    EXPECT_TRUE(contains(text, "| a | 1 | 1 | 0 | 0 |\n"));
    EXPECT_TRUE(contains(text, "<summary>❌ fail <b>a/y_z</b>: because</summary>"));
    EXPECT_TRUE(contains(text, "```\ntessel-certify --only a/y_z\n```\n"));
}

TEST(ReportMarkdown, HostileTexts_OpenAndCloseNothing) {
    const std::string text = markdown_report(hostile_certificate());
    std::string fence;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.starts_with("```")) {
            fence = fence.empty() ? line : line == fence ? "" : fence;
        } else if (fence.empty()) {
            EXPECT_FALSE(contains(line, "<b>&")) << line;
            EXPECT_FALSE(contains(line, "<!--")) << line;
        }
        EXPECT_FALSE(contains(line, "\x1b"));
    }
    EXPECT_EQ(fence, "");
}

TEST(ReportMarkdown, ManyFailures_AreCutAndCounted) {
    std::vector<CaseResult> cases;
    for (int number = 0; number != 500; ++number) {
        cases.push_back(result("a/" + std::to_string(number), Verdict::fail));
    }
    const std::string text = markdown_report(certificate_of(std::move(cases)));
    EXPECT_TRUE(contains(text, "470 more that do not pass."));
    EXPECT_LT(text.size(), 20'000U);
}

TEST(ReportText, CasesCausesAndTotals_AreLines) {
    Certificate certificate =
        certificate_of({result("a/x", Verdict::pass), result("a/long_name", Verdict::fail)});
    certificate.causes = {{"all 3 missing lines are the last before silence", {"a/long_name"}}};
    const std::string text = text_report(certificate, false);
    EXPECT_TRUE(text.starts_with("PASS   a/x             1.5 s\nFAIL   a/long_name     1.5 s  because\n"))
        << text;
    EXPECT_TRUE(contains(text, "  all 3 missing lines are the last before silence (a/long_name)\n"));
    EXPECT_TRUE(text.ends_with("\n1 of 2 cases passes, 1 fail\n")) << text;
    EXPECT_FALSE(contains(text, "\x1b"));
    EXPECT_TRUE(contains(text_report(certificate, true), "\x1b[32mPASS"));
}

TEST(ReportText, SeveralHandlers_AreColumns) {
    Certificate certificate =
        certificate_of({result("a/x", Verdict::pass, "one"), result("a/y", Verdict::pass, "one"),
                        result("a/x", Verdict::fail, "two")});
    certificate.handlers = {{"one", "1"}, {"two", "2"}};
    EXPECT_TRUE(text_report(certificate, false)
                    .starts_with("case  one    two  \na/x   PASS   FAIL \na/y   PASS   -    \n"))
        << text_report(certificate, false);
}

TEST(ReportText, HostileTexts_CannotSteerTheTerminal) {
    const std::string text = text_report(hostile_certificate(), false);
    for (const char c : text) {
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << static_cast<int>(c);
    }
}

}  // namespace tessel::certify
