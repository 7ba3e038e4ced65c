#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tessel {

// The strict string-to-number conversions, named after their functions because their error texts carry the
// name. Each skips leading white space, takes a sign, stops at the first character that is no part of a
// number and ignores the rest ("12abc" is 12), and leaves errno as it was on success. On failure: false and a
// text such as "stoi: not a number: 'abc'" or "stoi: out of range: '99999999999'".
bool to_stoi(const std::string& text, std::int32_t& value, std::string& error);
bool to_stoul(const std::string& text, std::uint64_t& value, std::string& error);
bool to_stoull(const std::string& text, std::uint64_t& value, std::string& error);
bool to_stod(const std::string& text, double& value, std::string& error);

// The lenient conversion: strtoul's reading, low 32 bits kept; the fallback for an empty, non-numeric or
// out-of-range (beyond 64 bits) text. "-1" is 4294967295.
std::uint32_t parse_count(const std::string& text, std::uint32_t fallback);

}  // namespace tessel
