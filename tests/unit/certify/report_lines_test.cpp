#include "certify/report_lines.h"

#include <gtest/gtest.h>

namespace tessel::certify {

namespace {

std::vector<std::string> texts_of(std::string_view line) {
    std::vector<std::string> texts;
    for (const MemberSpan& span : member_spans(line)) {
        texts.emplace_back(line.substr(span.begin, span.end - span.begin));
    }
    return texts;
}

}  // namespace

TEST(ReportLines, Members_AreFoundOnTheOutermostLevelAlone) {
    EXPECT_EQ(texts_of(R"({"seq":7, "nbbo" : [1,{"seq":2},"],}"] ,"s":"a\"b,"})"),
              (std::vector<std::string>{R"("seq":7)", R"("nbbo" : [1,{"seq":2},"],}"])", R"("s":"a\"b,")"}));
    EXPECT_TRUE(texts_of("").empty());
    EXPECT_TRUE(texts_of("[1,2]").empty());
    EXPECT_TRUE(texts_of("no JSON").empty());
}

TEST(ReportLines, LineThatIsCut_IsReadAsFarAsItGoes) {
    const std::string line = R"({"seq":7,"nbbo":[1,2],"bid":[[3,"Q"]],"s":"a\"b"})";
    for (std::size_t size = 0; size <= line.size(); ++size) {
        for (const MemberSpan& span : member_spans(std::string_view(line).substr(0, size))) {
            EXPECT_LE(span.end, size);
            EXPECT_LT(span.begin, span.end);
        }
    }
    EXPECT_EQ(texts_of(R"({"seq":7,"nbbo":[1,)"), (std::vector<std::string>{R"("seq":7)", R"("nbbo":[1,)"}));
}

TEST(ReportLines, DifferingMembers_AreMarkedAndEverythingIsEscaped) {
    EXPECT_EQ(marked_line(R"({"a":1,"b<":"<i>","c":[2]})", "b<, c"),
              "{&quot;a&quot;:1,<mark>&quot;b&lt;&quot;:&quot;&lt;i&gt;&quot;</mark>,"
              "<mark>&quot;c&quot;:[2]</mark>}");
    EXPECT_EQ(marked_line("<script>", "a"), "&lt;script&gt;");
    EXPECT_EQ(marked_line(R"({"bid":1})", "bi"), "{&quot;bid&quot;:1}");
}

TEST(ReportLines, Hexadecimal_BecomesRowsOfSixteenBytes) {
    EXPECT_EQ(hex_rows("3C41"),
              "<i>0000</i>  3c 41                                             <i>&lt;A</i>\n");
    const std::string rows = hex_rows(std::string(34 * 2, '0'));
    EXPECT_EQ(std::count(rows.begin(), rows.end(), '\n'), 3);
    EXPECT_NE(rows.find("<i>0020</i>  00 00 "), std::string::npos);
    EXPECT_EQ(hex_rows("4<1"), "4&lt;1");
    EXPECT_EQ(hex_rows(""), "");
    EXPECT_LT(hex_rows(std::string(1'000'000, 'a')).size(), 20'000U);
}

TEST(ReportLines, Fields_AreRowsInTheirOrder) {
    EXPECT_EQ(field_rows(R"({"z":"<b>","a":[1,2]})"),
              "<tr><th scope=\"row\">z</th><td>&lt;b&gt;</td></tr>"
              "<tr><th scope=\"row\">a</th><td>[1,2]</td></tr>");
    EXPECT_EQ(field_rows("[1]"), "");
    EXPECT_EQ(field_rows("{\"a\":"), "");
}

}  // namespace tessel::certify
