#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessel::judge {

// A number of a line, exact to the millionth: the feed's own price unit. Zero is never negative.
struct Number {
    bool negative = false;
    std::uint64_t whole = 0;
    std::uint32_t millionths = 0;

    bool operator==(const Number&) const = default;
};

// Reads the JSON number at the start of `text` and takes it off the front. Further decimals round half up, so
// 190.00999999999999 (a double's 190.01) is 190.01. False when there is no number or its whole part needs
// over 64 bits.
bool take_number(std::string_view& text, Number& out);

// Whether the JSON texts `truth` and `output` of one member (an index into member_names) say the same:
// numbers by value, strings letter by letter, arrays element by element; white space does not count. Three
// members allow for what the wire cannot carry or the truth log leaves out:
//   asof    the truth log prints this one price with six significant digits, so it counts as equal when
//   OUTPUT's price
//           prints the same way
//   mwcb    the message carries no level above 3; a truth level above 3 equals 3
//   symbol  the longest symbol field has 11 letters; a longer truth symbol equals its first 11
bool same_value(std::size_t member, std::string_view truth, std::string_view output);

}  // namespace tessel::judge
