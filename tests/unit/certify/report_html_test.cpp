#include "certify/report_case.h"
#include "certify/report_chart.h"
#include "certify/report_style.h"
#include "certify/reports.h"

#include <gtest/gtest.h>

#include <array>
#include <set>

namespace tessel::certify {

namespace {

constexpr std::string_view hostile = "\"><script>alert(1)</script>&\x1b[31m\x01\xff'";

CaseResult result(std::string name, Verdict verdict, std::string handler = "handler") {
    CaseResult made;
    made.handler = std::move(handler);
    made.group = name.substr(0, name.find('/'));
    made.name = std::move(name);
    made.title = "A title";
    made.verdict = verdict;
    made.reason = verdict == Verdict::pass ? "" : "lines differ";
    made.matched = 100;
    made.truth_lines = 100;
    return made;
}

Certificate certificate_of(std::vector<CaseResult> cases) {
    Certificate certificate;
    certificate.tool = "tessel-certify 1.0.0";
    certificate.handlers = {{"handler", "./handler"}};
    certificate.cases = std::move(cases);
    return certificate;
}

std::size_t count(std::string_view text, std::string_view part) {
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

// Every text that comes from outside is hostile.
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
    bad.examples.push_back(bad.examples.front());
    bad.examples.back().message_decoded = R"({"<script>":"<script>"})";
    bad.curve = {{10, 0}};
    Certificate certificate = certificate_of({bad, result("loss/b", Verdict::pass, "other")});
    certificate.tool = text;
    certificate.about = {text};
    certificate.handlers = {{text, text}, {"other", text}};
    certificate.causes = {{text, {text + ": loss/" + text, "nobody"}}};
    return certificate;
}

}  // namespace

TEST(ReportHtml, HostileTexts_AreEscapedEverywhere) {
    const std::string page = html_report(hostile_certificate());
    EXPECT_EQ(count(page, "<script"), 0U);
    EXPECT_EQ(count(page, "\x1b"), 0U);
    EXPECT_EQ(count(page, "\x01"), 0U);
    EXPECT_EQ(count(page, "\xff"), 0U);
    EXPECT_GT(count(page, "&lt;script&gt;alert(1)&lt;/script&gt;"), 10U);
}

TEST(ReportHtml, Page_LoadsNothingAndRunsNothing) {
    const std::string page = html_report(hostile_certificate());
    for (const std::string_view loader : {"src=", "@import", "url(", "<link", "http:", "https:", "<iframe",
                                          "<img", "onload", "javascript:"}) {
        EXPECT_EQ(count(page, loader), 0U) << loader;
    }
    EXPECT_NE(report_style.find("prefers-color-scheme: dark"), std::string_view::npos);
    EXPECT_NE(report_style.find("@media print"), std::string_view::npos);
}

TEST(ReportHtml, Links_LeadToASectionOfThePage) {
    std::vector<CaseResult> cases;
    for (const char* handler : {"one", "two"}) {
        cases.push_back(result("loss/one", Verdict::fail, handler));
        cases.push_back(result("loss/two", Verdict::pass, handler));
        cases.push_back(result("join/a b", Verdict::error, handler));
    }
    Certificate certificate = certificate_of(std::move(cases));
    certificate.handlers = {{"one", "./one"}, {"two", "./two"}};
    certificate.causes = {{"a cause", {"one: loss/one", "two: join/a b"}}};
    const std::string page = html_report(certificate);
    std::size_t links = 0;
    std::set<std::string> anchors;
    for (std::size_t at = page.find("href=\"#"); at != std::string::npos;
         at = page.find("href=\"#", at + 1)) {
        const std::size_t begin = at + 7;
        const std::string anchor = page.substr(begin, page.find('"', begin) - begin);
        EXPECT_EQ(count(page, "id=\"" + anchor + "\""), 1U) << anchor;
        anchors.insert(anchor);
        ++links;
    }
    EXPECT_EQ(anchors.size(), 7U);        // six sections and the list of cases
    EXPECT_EQ(links, 6U + 6U + 2U + 1U);  // squares, matrix, causes, the way past the head
}

TEST(ReportHtml, CausesAndWhatDoesNotPass_ComeFirst) {
    Certificate certificate =
        certificate_of({result("book/a", Verdict::pass), result("book/b", Verdict::fail),
                        result("loss/c", Verdict::skipped)});
    certificate.causes = {{"all 14 mismatches are in messages with NBBO indicator 4", {"book/b"}}};
    const std::string page = html_report(certificate);
    EXPECT_LT(page.find("NBBO indicator 4"), page.find("By group"));
    EXPECT_LT(page.find("id=\"case-handler-book-2fb\" open"), page.find("id=\"case-handler-book-2fa\""));
    EXPECT_NE(page.find("1 of 3 cases passes, 1 fail, 1 skipped"), std::string::npos) << page.substr(0, 200);
    EXPECT_EQ(count(page, "id=\"case-handler-book-2fa\" open"), 0U);
}

TEST(ReportHtml, Difference_ShowsBothLinesTheBytesAndTheFields) {
    CaseResult bad = result("book/b", Verdict::fail);
    bad.mismatched = 3;
    bad.examples.push_back({.seq = 1'204,
                            .kind = "mismatched",
                            .symbol = "AAPL",
                            .members = "nbbo",
                            .truth = R"({"seq":1204,"nbbo":[1,2]})",
                            .output = R"({"seq":1204,"nbbo":[3,4]})",
                            .message_hex = "3151",
                            .message_decoded = R"({"kind":"quote_short","bid":190030000})",
                            .in_gap = true});
    const std::string page = html_report(certificate_of({bad}));
    EXPECT_NE(page.find("Sequence 1,204, AAPL: mismatched in <b>nbbo</b>"), std::string::npos);
    EXPECT_NE(page.find("<mark>&quot;nbbo&quot;:[1,2]</mark>"), std::string::npos);
    EXPECT_NE(page.find("<mark>&quot;nbbo&quot;:[3,4]</mark>"), std::string::npos);
    EXPECT_NE(page.find("<th scope=\"row\">bid</th><td>190030000</td>"), std::string::npos);
    EXPECT_NE(page.find("31 51 "), std::string::npos);
    EXPECT_NE(page.find("inside an open gap"), std::string::npos);
}

TEST(ReportHtml, CaseOfManySeeds_IsOneSectionThatNamesThoseThatFail) {
    std::vector<CaseResult> cases;
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        cases.push_back(result("loss/one", seed % 10 == 7 ? Verdict::fail : Verdict::pass));
        cases.back().seed = seed;
    }
    const std::string page = html_report(certificate_of(std::move(cases)));
    EXPECT_EQ(count(page, "class=\"case "), 1U);
    EXPECT_NE(page.find("100 runs: 90 pass, 10 fail (seeds 7, 17, 27 and 7 more)."), std::string::npos);
    EXPECT_NE(page.find("<h4>Seed 17: fail</h4>"), std::string::npos);
    EXPECT_EQ(page.find("<h4>Seed 37"), std::string::npos);
    EXPECT_NE(page.find("90 of 100 runs of 1 case pass, 10 fail"), std::string::npos);
}

TEST(ReportChart, LoadCurves_AreDrawnWithTheirRates) {
    const std::string chart =
        load_chart({{"load/a", {{10'000, 0}, {200'000, 17}, {50'000, 0}}, 140'000}, {"none", {}, 0}});
    EXPECT_EQ(count(chart, "<circle"), 3U);
    EXPECT_EQ(count(chart, "<polyline"), 1U);
    EXPECT_NE(chart.find("200,000 a second, 17 missing"), std::string::npos);
    EXPECT_NE(chart.find("load/a: <b>140,000</b> without loss"), std::string::npos);
    EXPECT_EQ(load_chart({{"none", {}, 0}}), "");
    EXPECT_EQ(load_chart({}), "");
}

TEST(ReportChart, ExtremeRates_GiveFiniteNumbers) {
    for (const std::uint64_t rate : {std::uint64_t{0}, std::uint64_t{1}, UINT64_MAX}) {
        const std::string chart = load_chart({{"a", {{rate, rate}, {0, 0}}, rate}});
        EXPECT_EQ(chart.find("nan"), std::string::npos);
        EXPECT_EQ(chart.find("inf"), std::string::npos);
        EXPECT_LT(chart.size(), 40'000U);
    }
}

TEST(ReportChart, Anchors_AreOfPlainLettersAndDifferent) {
    const std::string one = anchor_of(result("loss/a b", Verdict::pass));
    EXPECT_EQ(one.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-_."), std::string::npos);
    EXPECT_NE(one, anchor_of(result("loss/a_b", Verdict::pass)));
}

}  // namespace tessel::certify
