#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel {

// Room that any of these needs at most.
constexpr int text_number_bytes_max = 32;

// Each writes at out and returns the end; nothing is terminated. Up to three bytes behind the end may be
// overwritten, so there must always be room for text_number_bytes_max.
char* put_unsigned(char* out, std::uint64_t value);
char* put_signed(char* out, std::int64_t value);

// A price in millionths, whole cents, as dollars with four decimals: 190010000 is "190.0100".
char* put_price4(char* out, std::int64_t price);

// The same for many prices in a row, which mostly have their dollars in common: their text is kept from price
// to price.
struct DollarText {
    std::int64_t dollars = -1;  // whose text this is; -1: none yet
    std::size_t length = 0;
    std::array<char, 16> text;  // dollars and point
};

char* put_price4(char* out, std::int64_t price, DollarText& kept);

// A price in millionths as dollars with up to six significant digits, no trailing zeros: "190.01", "1234.57",
// "0". What an output stream prints by default.
char* put_price_general(char* out, std::int64_t price);

}  // namespace tessel
