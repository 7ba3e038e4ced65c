#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessel::ctl {

// What the feed answers to "stats": counters in its order, the next number to be given, and what became of
// packets.
struct FeedCounters {
    std::vector<std::pair<std::string, std::uint64_t>> counters;
    std::uint64_t next_sequence = 0;
    std::uint64_t sent = 0;
    std::uint64_t dropped = 0;
    std::uint64_t duplicated = 0;
    std::uint64_t reordered = 0;
};

// Reads "ok quotes=165 ... next_seq=218 tessel faults: sent 22 dropped 0 duplicated 0 reordered 0". False
// when it is anything else.
bool parse_stats(std::string_view reply, FeedCounters& stats);

// The counter of that name; 0 when there is none.
std::uint64_t counter(const FeedCounters& stats, std::string_view name);

}  // namespace tessel::ctl
