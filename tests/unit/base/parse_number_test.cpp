#include "base/parse_number.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>

namespace tessel {
namespace {

TEST(StrictNumbers, LeadingNumber_IsReadAndTheRestIgnored) {
    std::string error;
    std::int32_t small = 0;
    std::uint64_t large = 0;
    double real = 0;
    EXPECT_TRUE(to_stoi("12abc", small, error));
    EXPECT_EQ(small, 12);
    EXPECT_TRUE(to_stoi(" \t\n-7", small, error));
    EXPECT_EQ(small, -7);
    EXPECT_TRUE(to_stoi("+5", small, error));
    EXPECT_EQ(small, 5);
    EXPECT_TRUE(to_stoi("0x10", small, error));
    EXPECT_EQ(small, 0) << "base 10 only";
    EXPECT_TRUE(to_stoul("18446744073709551615", large, error));
    EXPECT_EQ(large, 18446744073709551615u);
    EXPECT_TRUE(to_stoull("-1", large, error));
    EXPECT_EQ(large, 18446744073709551615u) << "a minus wraps round, as strtoull has it";
    EXPECT_TRUE(to_stod("190.25 dollars", real, error));
    EXPECT_EQ(real, 190.25);
    EXPECT_TRUE(to_stod("1e300", real, error));
    EXPECT_EQ(real, 1e300);
    EXPECT_TRUE(to_stod("inf", real, error));
    EXPECT_TRUE(std::isinf(real));
    EXPECT_TRUE(to_stod("nan", real, error));
    EXPECT_TRUE(std::isnan(real));
    EXPECT_EQ(error, "");
}

TEST(StrictNumbers, NoNumber_ErrorNamesTheOption) {
    std::string error;
    std::int32_t small = 3;
    std::uint64_t large = 4;
    double real = 5;
    EXPECT_FALSE(to_stoi("abc", small, error));
    EXPECT_EQ(error, "stoi: not a number: 'abc'");
    EXPECT_FALSE(to_stoul("", large, error));
    EXPECT_EQ(error, "stoul: not a number: ''");
    EXPECT_FALSE(to_stoull(" - 1", large, error));
    EXPECT_EQ(error, "stoull: not a number: ' - 1'");
    EXPECT_FALSE(to_stod("x1", real, error));
    EXPECT_EQ(error, "stod: not a number: 'x1'");
    EXPECT_EQ(small, 3);
    EXPECT_EQ(large, 4u);
    EXPECT_EQ(real, 5.0);
}

TEST(StrictNumbers, NumberOutOfRange_ErrorNamesTheOption) {
    std::string error;
    std::int32_t small = 0;
    std::uint64_t large = 0;
    double real = 0;
    EXPECT_TRUE(to_stoi("2147483647", small, error));
    EXPECT_FALSE(to_stoi("2147483648", small, error));
    EXPECT_EQ(error, "stoi: out of range: '2147483648'");
    EXPECT_TRUE(to_stoi("-2147483648", small, error));
    EXPECT_FALSE(to_stoi("-2147483649", small, error));
    EXPECT_FALSE(to_stoi("99999999999999999999", small, error));
    EXPECT_EQ(error, "stoi: out of range: '99999999999999999999'");
    EXPECT_FALSE(to_stoul("18446744073709551616", large, error));
    EXPECT_EQ(error, "stoul: out of range: '18446744073709551616'");
    EXPECT_FALSE(to_stoull("18446744073709551616", large, error));
    EXPECT_EQ(error, "stoull: out of range: '18446744073709551616'");
    EXPECT_FALSE(to_stod("1e400", real, error));
    EXPECT_EQ(error, "stod: out of range: '1e400'");
    EXPECT_FALSE(to_stod("1e-400", real, error)) << "too small is out of range too";
}

TEST(StrictNumbers, Success_LeavesErrnoAsItWas) {
    std::string error;
    std::int32_t small = 0;
    std::uint64_t large = 0;
    double real = 0;
    errno = ENOENT;
    EXPECT_TRUE(to_stoi("1", small, error));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(to_stoul("1", large, error));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(to_stoull("1", large, error));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(to_stod("1", real, error));
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_TRUE(to_stoi("1", small, error));
    EXPECT_EQ(errno, 0);
}

TEST(ParseCount, AnyText_IsReadAsStrtoulReadsIt_Low32BitsKept) {
    EXPECT_EQ(parse_count("12", 7), 12u);
    EXPECT_EQ(parse_count("  3x", 7), 3u);
    EXPECT_EQ(parse_count("0", 7), 0u);
    EXPECT_EQ(parse_count("-1", 7), 4294967295u);
    EXPECT_EQ(parse_count("4294967295", 7), 4294967295u);
    EXPECT_EQ(parse_count("4294967297", 7), 1u);
    EXPECT_EQ(parse_count("18446744073709551615", 7), 4294967295u);
}

TEST(ParseCount, NoNumber_GivesTheFallback) {
    EXPECT_EQ(parse_count("", 7), 7u);
    EXPECT_EQ(parse_count("abc", 7), 7u);
    EXPECT_EQ(parse_count("-", 0), 0u);
    EXPECT_EQ(parse_count("18446744073709551616", 7), 7u);
}

}  // namespace
}  // namespace tessel
