#pragma once

#include "mold/message_history.h"
#include "receiver/market_state.h"
#include "support/independent_nbbo.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::testing {

// Reads a truth log line by line.
struct TruthReader {
    std::string_view text;
    std::size_t at = 0;
};

// The next line without its line feed; false at the end.
bool next_line(TruthReader& reader, std::string_view& line);

bool is_mark(std::string_view line);

// A receiver that saw every message from number 1 on and holds the truth log against each: through the
// listener's decoder and line writer, and through a book worked out independently.
struct FeedFollower {
    std::vector<std::string> symbols;  // as configured: the letters after the eleventh are not on the wire
    receiver::Market market;
    std::vector<PlainBook> books;  // of market.instruments, by position
    std::string line;              // the line rebuilt last, line feed included; empty for a kind without
};

FeedFollower make_follower(const std::string& symbols_text);

// Takes the next message and rebuilds its truth line. Returns what is wrong with the message by itself: bytes
// that do not decode, an NBBO reported that is not the recomputed one; empty when all is well.
std::string follow(FeedFollower& follower, std::uint64_t sequence, const unsigned char* bytes,
                   std::size_t length);

// Whether the message taken last has a truth line.
inline bool has_line(const FeedFollower& follower) {
    return !follower.line.empty();
}

// Holds the feed's own line (without line feed) for the message taken last against the rebuilt one and
// against the recomputed book. Empty when equal, else what differs.
std::string line_difference(const FeedFollower& follower, std::string_view feed_line);

// Appends the messages of a store from number first to the last one kept, in order.
void read_history(const RetransStore& store, std::uint64_t first,
                  std::vector<std::vector<unsigned char>>& out);

}  // namespace tessel::testing
