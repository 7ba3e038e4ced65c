#include "judge/line_reader.h"

#include "judge/value.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {
namespace {

constexpr std::string_view quote_line =
    R"({"seq":812,"secid":1,"symbol":"AAPL","bid":[[190.0100,300],[190.0000,500]],"ask":[[190.0300,200]],)"
    R"("nbbo":[190.0100,300,190.0300,200],"band":[180.5000,199.5000],"status":"T"})";

const std::vector<std::string_view> truth_lines = {
    quote_line,
    R"({"seq":1,"secid":2,"symbol":"X","bid":[],"ask":[],"nbbo":[0,0,0,0],"status":"H",)"
    R"("ah":"H","reason":"T1"})",
    R"({"seq":2,"secid":2,"symbol":"X","bid":[],"ask":[],"nbbo":[0.0000,0,0.0000,0],"status":"P","ap":"B"})",
    R"({"seq":3,"secid":1,"symbol":"AAPL","trade":[190.0100,100,"Q","@   "],"kind":0,"id":17})",
    R"({"seq":4,"secid":1,"symbol":"AAPL","cancel_error":[17,190.0100,100,"Q","C"]})",
    R"({"seq":5,"secid":1,"symbol":"AAPL","correction":[17,18,-0.0100,100,"Q"]})",
    R"({"seq":6,"secid":1,"symbol":"AAPL","asof":[189.97,300,"D","@   "]})",
    R"({"seq":18446744073709551615,"mwcb":2})",
};

std::string value(const Line& line, std::string_view text, Member member) {
    return std::string(member_text(line, text, static_cast<std::size_t>(member)));
}

std::vector<std::string> unknown_names(const Line& line, std::string_view text) {
    std::vector<std::string> names;
    for (const UnknownMember& member : line.unknown_members) {
        names.emplace_back(span_text(line, text, member.name));
    }
    return names;
}

std::string reason_for(std::string_view text) {
    Line line;
    std::string error;
    EXPECT_FALSE(read_line(text, line, error)) << text;
    return error;
}

// Both ways of reading must see the same line.
void expect_same_reading(std::string_view text) {
    Line quick;
    Line full;
    ASSERT_TRUE(read_line_quickly(text, quick)) << text;
    std::string error;
    ASSERT_TRUE(read_line_fully(text, full, error)) << text << ": " << error;
    EXPECT_EQ(quick.seq, full.seq);
    for (std::size_t member = 0; member != member_count; ++member) {
        const std::string_view one = member_text(quick, text, member);
        const std::string_view other = member_text(full, text, member);
        EXPECT_EQ(one.empty(), other.empty()) << member_names[member] << " in " << text;
        EXPECT_TRUE(same_value(member, one, other)) << one << " and " << other;
    }
}

TEST(LineReader, EveryKindOfTruthLine_IsReadTheQuickWay) {
    for (const std::string_view text : truth_lines) {
        expect_same_reading(text);
    }
    Line line;
    std::string error;
    ASSERT_TRUE(read_line(quote_line, line, error));
    EXPECT_EQ(line.seq, 812U);
    EXPECT_FALSE(line.mark);
    EXPECT_EQ(value(line, quote_line, Member::bid), "[[190.0100,300],[190.0000,500]]");
    EXPECT_EQ(value(line, quote_line, Member::status), "\"T\"");
    EXPECT_EQ(value(line, quote_line, Member::trade), "");
}

TEST(LineReader, SpacesAndOrderOfMembers_DoNotMatter) {
    const std::string_view text =
        "  { \"status\" : \"T\", \"nbbo\" : [ 190.01, 300 , 0, 0 ] ,\t\"seq\": 7 }\r";
    expect_same_reading(text);
    Line line;
    std::string error;
    ASSERT_TRUE(read_line(text, line, error));
    EXPECT_EQ(line.seq, 7U);
    EXPECT_EQ(value(line, text, Member::nbbo), "[ 190.01, 300 , 0, 0 ]");
}

TEST(LineReader, OddLines_GoTheLongWay) {
    Line line;
    const std::string_view escaped = R"({"s\u0065q":9,"symbol":"A\u0042C","note":{"deep":[true,null]}})";
    EXPECT_FALSE(read_line_quickly(escaped, line));
    std::string error;
    ASSERT_TRUE(read_line(escaped, line, error));
    EXPECT_EQ(line.seq, 9U);
    EXPECT_EQ(value(line, escaped, Member::symbol), "\"ABC\"");
    EXPECT_EQ(unknown_names(line, escaped), std::vector<std::string>{"note"});
}

TEST(LineReader, MembersThatNoTruthLineHas_AreAllNamed) {
    const std::string_view text = R"({"seq":1,"latency_ns":5,"statsu":"T","latency_ns":6,"x":true})";
    Line line;
    ASSERT_TRUE(read_line_quickly(text, line));
    const std::vector<std::string> expected = {"latency_ns", "statsu", "latency_ns", "x"};
    EXPECT_EQ(unknown_names(line, text), expected);
    EXPECT_EQ(span_text(line, text, line.unknown_members[1].value), "\"T\"");
    expect_same_reading(R"({"seq":1,"latency_ns":5,"latency_ns":6,"status":null})");
}

TEST(LineReader, Mark_IsKnownByItsEndsWhateverItsLabel) {
    for (const std::string_view text : {R"({"mark":"open","seq":41})", R"({"mark":"","seq":41})",
                                        R"({"mark":"a"b\","seq":1}","seq":41})"}) {
        Line line;
        std::string error;
        ASSERT_TRUE(read_line(text, line, error)) << text << ": " << error;
        EXPECT_TRUE(line.mark) << text;
        EXPECT_EQ(line.seq, 41U) << text;
    }
    Line line;
    std::string error;
    ASSERT_TRUE(read_line(R"({"seq":41, "mark":"open"})", line, error));
    EXPECT_TRUE(line.mark);
}

TEST(LineReader, Reason_SaysWhatIsWrong) {
    EXPECT_EQ(reason_for(R"({"seq":1,"bid":[[1.0,2})"), "not JSON: broken at byte 23");
    EXPECT_EQ(reason_for(R"({"seq":1})"
                         " x"),
              "not JSON: broken at byte 11");
    EXPECT_EQ(reason_for("[1]"), "not a JSON object");
    EXPECT_EQ(reason_for("{}"), "no member 'seq'");
    EXPECT_EQ(reason_for(R"({"seq":-1})"), "member 'seq' is not a whole number from 0 up");
    EXPECT_EQ(reason_for(R"({"seq":1.0})"), "member 'seq' is not a whole number from 0 up");
    EXPECT_EQ(reason_for(R"({"seq":"1"})"), "member 'seq' is not a whole number from 0 up");
    EXPECT_EQ(reason_for(R"({"seq":18446744073709551616})"), "member 'seq' is not a whole number from 0 up");
    EXPECT_EQ(reason_for(R"({"seq":1,"seq":2})"), "member 'seq' is given twice");
    EXPECT_EQ(reason_for(R"({"seq":1,"status":"T","status":"T"})"), "member 'status' is given twice");
    EXPECT_EQ(reason_for(std::string(100'000, '[')), "nested deeper than 16");
    EXPECT_EQ(reason_for(std::string(line_bytes_max + 1, ' ')), "line longer than 1048576 bytes");
    EXPECT_NE(reason_for("{\"seq\":1,\"symbol\":\"\xff\"}").find("not JSON"), std::string::npos);
    EXPECT_NE(reason_for(R"({"seq":1,"id":01})").find("not JSON"), std::string::npos);
}

TEST(LineReader, BytesAfterANul_AreAnError) {
    using namespace std::literals;
    EXPECT_EQ(reason_for("{\"seq\":1}\0"sv), "not JSON: broken at byte 10");
    EXPECT_EQ(reason_for("{\"seq\":1,\"status\":\"T\"}\0{\"seq\":2}"sv), "not JSON: broken at byte 23");
    EXPECT_EQ(reason_for("\0{\"seq\":1}"sv), "not JSON: broken at byte 1");
}

TEST(LineReader, WholeLineAfterATornOne_IsFound) {
    const std::string whole = R"({"seq":6,"symbol":"AAPL","status":"T"})";
    const std::string before = R"({"seq":812,"symbol":"AA)";
    for (std::size_t torn = 1; torn != before.size(); ++torn) {
        EXPECT_EQ(find_line_after_torn(before.substr(0, torn) + whole), torn) << torn;
    }
    EXPECT_EQ(find_line_after_torn(before + R"({"mark":"x","seq":5})"), before.size());
    EXPECT_EQ(find_line_after_torn(before + R"({"seq":6,"sym{"seq":7})"), before.size() + 13);
    EXPECT_EQ(find_line_after_torn(before), 0U);
    EXPECT_EQ(find_line_after_torn(""), 0U);
}

TEST(LineReader, Sequence_IsPeekedOnlyWhereItIsPlain) {
    std::uint64_t seq = 0;
    EXPECT_TRUE(peek_sequence(quote_line, seq));
    EXPECT_EQ(seq, 812U);
    EXPECT_TRUE(peek_sequence(R"({"seq": 5})", seq));
    EXPECT_EQ(seq, 5U);
    for (const std::string_view text : {R"({"seq":1.5,)", R"({"seq":-1,)", R"({"seq":01,)", R"({"seq":)",
                                        R"({"seq":1)", R"({"mark":"x","seq":1})", ""}) {
        EXPECT_FALSE(peek_sequence(text, seq)) << text;
    }
}

// Damages good lines in every way a byte can be damaged: nothing may crash, and where the quick way accepts a
// line the long way accepts it too. The seed is fixed, so a failure repeats.
TEST(LineReader, DamagedLines_Seed11_QuickNeverAcceptsWhatFullRefuses) {
    std::mt19937_64 random(11);
    constexpr std::string_view letters = "{}[]\",:.-+eE0123456789 \\nulltrue\x01\xc3\xa9";
    std::size_t accepted = 0;
    for (int round = 0; round != 20'000; ++round) {
        std::string text(truth_lines[random() % truth_lines.size()]);
        for (std::uint64_t changes = 1 + random() % 3; changes != 0; --changes) {
            const std::size_t place = random() % text.size();
            switch (random() % 3) {
                case 0: text[place] = letters[random() % letters.size()]; break;
                case 1: text.insert(place, 1, letters[random() % letters.size()]); break;
                default: text.erase(place, 1);
            }
        }
        Line line;
        std::string error;
        const bool read = read_line(text, line, error);
        EXPECT_EQ(read, error.empty()) << text;
        Line quick;
        // A number too large for a double is JSON by its grammar, but not for the library.
        if (read_line_quickly(text, quick) && text.find_first_of("eE", 8) == std::string::npos) {
            expect_same_reading(text);
            ++accepted;
        }
    }
    EXPECT_GT(accepted, 100U) << "the damage leaves nothing to compare";
}

}  // namespace
}  // namespace tessel::judge
