#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Durations as people write them: "6h30m", "1.5s", "250ms", "2.5" (seconds).
namespace tessel::common {

// Ten years: far beyond any run, and small enough that sums of a few of them fit into 64 bits.
constexpr std::int64_t duration_max_ns = std::int64_t{3650} * 24 * 3600 * 1'000'000'000;

// Reads a sum of decimal numbers with the units h, m, s and ms, or one bare number of seconds. Decimals
// beyond the nanosecond are cut. False with the reason in `error` for anything else, a sign included, and
// beyond the maximum.
bool parse_duration(std::string_view text, std::int64_t& ns, std::string& error);

// The same duration in one form: "6h30m", "1.5s", "0s". parse_duration reads it back to the same value, down
// to the nanosecond.
std::string duration_text(std::int64_t ns);

}  // namespace tessel::common
