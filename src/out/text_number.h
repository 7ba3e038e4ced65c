#pragma once

#include <cstdint>

namespace tessel {

// Room that any of these needs at most.
constexpr int text_number_bytes_max = 32;

// Each writes at out and returns the end; nothing is terminated.
char* put_unsigned(char* out, std::uint64_t value);
char* put_signed(char* out, std::int64_t value);

// A price in millionths, whole cents, as dollars with four decimals: 190010000 is "190.0100".
char* put_price4(char* out, std::int64_t price);

// A price in millionths as dollars with up to six significant digits, no trailing zeros: "190.01", "1234.57", "0". What
// an output stream prints by default.
char* put_price_general(char* out, std::int64_t price);

} // namespace tessel
