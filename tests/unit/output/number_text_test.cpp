#include "output/number_text.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <limits>
#include <random>
#include <sstream>
#include <string>

namespace tessel {
namespace {

constexpr std::int64_t cent = 10'000;
constexpr std::int64_t most_cents = 1'000'000'000'100;  // a little beyond what a price is held to

// What a function writes; nothing may be written after the end that it returns.
template <typename Put, typename Value>
std::string written(Put put, Value value) {
    std::array<char, 48> room;
    room.fill('#');
    const char* const end = put(room.data(), value);
    const auto length = static_cast<std::size_t>(end - room.data());
    EXPECT_LE(length, static_cast<std::size_t>(text_number_bytes_max));
    for (std::size_t at = static_cast<std::size_t>(text_number_bytes_max); at < room.size(); ++at) {
        EXPECT_EQ(room[at], '#') << "beyond the room";
    }
    return {room.data(), length};
}

std::string streamed(std::int64_t price) {
    std::ostringstream out;
    out << static_cast<double>(price) / 1e6;
    return out.str();
}

std::string formatted4(std::int64_t price) {
    std::array<char, 64> text;
    const int length = std::snprintf(text.data(), text.size(), "%.4f", static_cast<double>(price) / 1e6);
    return {text.data(), static_cast<std::size_t>(length)};
}

TEST(PutUnsigned, EveryDigitCountAndItsNeighbors_AreDecimal) {
    std::uint64_t power = 1;
    for (int digits = 0; digits < 20; ++digits, power *= 10) {
        for (const std::uint64_t value : {power - 1, power, power + 1, power * 9, power + power / 2}) {
            EXPECT_EQ(written(put_unsigned, value), std::to_string(value));
        }
    }
    for (std::uint64_t value = 0; value < 20'000; ++value) {
        ASSERT_EQ(written(put_unsigned, value), std::to_string(value));
    }
    for (std::uint64_t value = 20'000; value < 100'000'000; value += 997) {
        ASSERT_EQ(written(put_unsigned, value), std::to_string(value));
    }
    EXPECT_EQ(written(put_unsigned, std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
}

TEST(PutShares, RoundLotsAndOthers_AreTheSameText) {
    for (std::uint64_t shares = 0; shares < 20'000; ++shares) {
        ASSERT_EQ(written(put_shares, shares), std::to_string(shares));
    }
    for (const std::uint64_t shares : {std::uint64_t{1'000'000}, std::uint64_t{4'294'967'200},
                                       std::numeric_limits<std::uint64_t>::max()}) {
        EXPECT_EQ(written(put_shares, shares), std::to_string(shares));
    }
}

TEST(PutSigned, NegativeZeroAndLimits_ArePrintedExactly) {
    for (const std::int64_t value :
         {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1}, std::int64_t{-10'000},
          std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
        EXPECT_EQ(written(put_signed, value), std::to_string(value));
    }
}

// The one of the two functions of this name that a table can call.
char* put_alone(char* out, std::int64_t price) {
    return put_price4(out, price);
}

// Whole cents of every scale on both sides of zero.
template <typename Check>
void for_many_prices(Check check) {
    for (std::int64_t cents = -12'000; cents <= 12'000; ++cents) {
        check(cents * cent);
    }
    for (std::int64_t power = 1; power <= 1'000'000'000'000; power *= 10) {
        for (const std::int64_t base : {power, power * 5, power * 9}) {
            for (std::int64_t near = -11; near <= 11; ++near) {
                check((base + near) * cent);
                check(-(base + near) * cent);
            }
        }
    }
    std::mt19937_64 raw(5);
    for (int at = 0; at < 40'000; ++at) {
        const auto cents = static_cast<std::int64_t>(raw() >> (24 + raw() % 40)) % most_cents;
        check(cents * cent);
        check(-cents * cent);
    }
}

TEST(PutPrice4, WholeCentsOfEveryScale_EqualTheFormattedDollars) {
    for_many_prices([](std::int64_t price) { ASSERT_EQ(written(put_alone, price), formatted4(price)); });
    EXPECT_EQ(written(put_alone, std::int64_t{0}), "0.0000");
    EXPECT_EQ(written(put_alone, 190'010'000), "190.0100");
    EXPECT_EQ(written(put_alone, -10'000), "-0.0100");
    EXPECT_EQ(written(put_alone, 10'000'000'000'000'000), "10000000000.0000");
}

TEST(PutCents4, EveryCentAroundTheTablesEnds_EqualsTheFormattedDollarsAndAComma) {
    for (std::int64_t cents = 0; cents < 250'000; ++cents) {
        std::array<char, 64> text{};
        const char* const end = put_cents4(text.data(), static_cast<std::uint64_t>(cents));
        ASSERT_EQ(std::string(text.data(), static_cast<std::size_t>(end - text.data())),
                  formatted4(cents * cent) + ",");
    }
    std::array<char, 64> text{};
    const char* const end = put_cents4(text.data(), 1'000'000'000'001);
    EXPECT_EQ(std::string(text.data(), static_cast<std::size_t>(end - text.data())), "10000000000.0100,");
}

TEST(PutPriceGeneral, WholeCentsOfEveryScale_EqualAnOutputStream) {
    for_many_prices(
        [](std::int64_t price) { ASSERT_EQ(written(put_price_general, price), streamed(price)); });
}

TEST(PutPriceGeneral, AroundSixDigits_RoundsAndTurnsToExponents) {
    for (const auto& [price, expected] : {std::pair<std::int64_t, const char*>{189'970'000, "189.97"},
                                          {1'234'570'000, "1234.57"},
                                          {190'000'000, "190"},
                                          {190'100'000, "190.1"},
                                          {0, "0"},
                                          {10'000, "0.01"},
                                          {9'999'990'000, "9999.99"},
                                          {10'000'010'000, "10000"},
                                          {12'345'670'000, "12345.7"},
                                          {999'999'500'000, "1e+06"},
                                          {-20'000, "-0.02"},
                                          {-189'970'000, "-189.97"}}) {
        EXPECT_EQ(written(put_price_general, price), expected);
        EXPECT_EQ(streamed(price), expected);
    }
}

}  // namespace
}  // namespace tessel
