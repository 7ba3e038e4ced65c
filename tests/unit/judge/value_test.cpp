#include "judge/value.h"

#include "judge/line_reader.h"

#include <gtest/gtest.h>

#include <string_view>

namespace tessel::judge {
namespace {

constexpr std::size_t index_of(Member member) {
    return static_cast<std::size_t>(member);
}

bool same(std::string_view truth, std::string_view output, Member member = Member::nbbo) {
    return same_value(index_of(member), truth, output);
}

Number number(std::string_view text) {
    Number value;
    EXPECT_TRUE(take_number(text, value)) << text;
    EXPECT_TRUE(text.empty()) << "left over: " << text;
    return value;
}

TEST(Value, Number_IsKeptToTheMillionth) {
    EXPECT_EQ(number("190.01"), (Number{false, 190, 10000}));
    EXPECT_EQ(number("1.9001e2"), (Number{false, 190, 10000}));
    EXPECT_EQ(number("19001E-2"), (Number{false, 190, 10000}));
    EXPECT_EQ(number("0.000001"), (Number{false, 0, 1}));
    EXPECT_EQ(number("1e-6"), (Number{false, 0, 1}));
    EXPECT_EQ(number("-0.03"), (Number{true, 0, 30000}));
    EXPECT_EQ(number("18446744073709551615"), (Number{false, UINT64_MAX, 0}));
}

TEST(Value, DecimalsBeyondTheMillionth_RoundHalfUp) {
    EXPECT_EQ(number("190.00999999999999"), (Number{false, 190, 10000}));
    EXPECT_EQ(number("1.0000005"), (Number{false, 1, 1}));
    EXPECT_EQ(number("1.00000049"), (Number{false, 1, 0}));
    EXPECT_EQ(number("1.9999996"), (Number{false, 2, 0}));
}

TEST(Value, Zero_IsNeverNegative) {
    for (const std::string_view text : {"-0", "-0.0000", "-0e9", "-0.00000001", "0"}) {
        EXPECT_EQ(number(text), Number{}) << text;
    }
}

TEST(Value, NumberBeyondSixtyFourBits_IsRefused) {
    for (std::string_view text :
         {"18446744073709551616", "1e20", "1e999999999999", "18446744073709551615.9999999"}) {
        Number value;
        EXPECT_FALSE(take_number(text, value)) << text;
    }
    EXPECT_EQ(number("1e-999999999999"), Number{});
}

TEST(Value, Prices_AreTheSameByValueNotByText) {
    EXPECT_TRUE(same("190.01", "190.0100"));
    EXPECT_TRUE(same("190.0100", "1.9001e2"));
    EXPECT_TRUE(same("190.0000", "190"));
    EXPECT_TRUE(same("[190.0100,300,190.0300,200]", "[190.01, 3e2, 190.03, 200.0]"));
    EXPECT_TRUE(same("[[1.0000,100],[0.9900,200]]", "[ [ 1 , 100 ] , [ 0.99 , 200 ] ]"));
    EXPECT_TRUE(same("[]", "[ ]"));
}

TEST(Value, OtherValues_AreNotTheSame) {
    EXPECT_FALSE(same("190.0100", "190.011"));
    EXPECT_FALSE(same("190", "1900"));
    EXPECT_FALSE(same("1900", "190"));
    EXPECT_FALSE(same("0.5", "0.50000e1"));
    EXPECT_FALSE(same("1", "-1"));
    EXPECT_FALSE(same("1", R"("1")"));
    EXPECT_FALSE(same("[1,2]", "[1,2,3]"));
    EXPECT_FALSE(same("[1,2]", "[1]"));
    EXPECT_FALSE(same("[1,2]", "[[1,2]]"));
    EXPECT_FALSE(same("[]", "[0]"));
    EXPECT_FALSE(same("[1,2]", "null"));
    EXPECT_FALSE(same(R"("T")", R"("H")", Member::status));
    EXPECT_FALSE(same(R"("T1")", R"("T1  ")", Member::reason));
}

TEST(Value, AsofPrice_CountsAsPrintedWithSixDigits) {
    EXPECT_TRUE(same(R"([12345.7,300,"D","@   "])", R"([12345.67,300,"D","@   "])", Member::asof));
    EXPECT_TRUE(same(R"([1e+06,300,"D","@   "])", R"([1000000.03,300,"D","@   "])", Member::asof));
    EXPECT_FALSE(same(R"([12345.7,300,"D","@   "])", R"([12345.57,300,"D","@   "])", Member::asof));
    EXPECT_FALSE(same("[189.97,1234567]", "[189.97,1234568]", Member::asof))
        << "only the price is printed so";
    EXPECT_FALSE(same("[12345.7,300]", "[12345.67,300]", Member::trade)) << "only an as-of line is";
}

TEST(Value, BreakerLevelAboveThree_IsThreeOnTheWire) {
    EXPECT_TRUE(same("7", "3", Member::mwcb));
    EXPECT_TRUE(same("7", "7", Member::mwcb));
    EXPECT_FALSE(same("2", "3", Member::mwcb));
    EXPECT_FALSE(same("7", "2", Member::mwcb));
    EXPECT_FALSE(same("7", "3", Member::kind));
}

TEST(Value, SymbolBeyondElevenLetters_IsItsFirstEleven) {
    EXPECT_TRUE(same(R"("ABCDEFGHIJKLM")", R"("ABCDEFGHIJK")", Member::symbol));
    EXPECT_FALSE(same(R"("ABCDEFGHIJKLM")", R"("ABCDEFGHIJX")", Member::symbol));
    EXPECT_FALSE(same(R"("ABCDEFGHIJKLM")", R"("ABCDEFGHIJ")", Member::symbol));
    EXPECT_FALSE(same(R"("ABCDEFGHIJK")", R"("ABCDEFGHIJ")", Member::symbol));
}

}  // namespace
}  // namespace tessel::judge
