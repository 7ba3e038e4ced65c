#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tessel::capture {

// Seconds since the epoch have 32 bits in a classic capture file: nothing from 2106-02-07T06:28:16Z on.
constexpr std::int64_t time_end_ns = (std::int64_t{1} << 32) * 1'000'000'000;

// Reads an RFC 3339 time with its offset, "2026-01-05T09:30:00-05:00" or "2026-01-05T14:30:00.25Z", as
// nanoseconds since the epoch. False with the reason in `error` for anything else, for a date that does not
// exist, and before 1970 or from time_end_ns on. Digits beyond the nanosecond are cut; a leap second is
// refused.
bool parse_start_time(std::string_view text, std::int64_t& ns, std::string& error);

}  // namespace tessel::capture
