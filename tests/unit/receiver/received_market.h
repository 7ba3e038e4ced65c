#pragma once

#include "receiver/market_state.h"
#include "receiver/truth_line.h"
#include "support/hand_made.h"

#include <gtest/gtest.h>

#include <string>

// A market that has received hand-made messages, and the truth lines that they cause.
namespace tessel::receiver::hand_made {

struct ReceivedMarket {
    Market market;
    std::uint64_t sequence = 0;

    // Applies the message under the next number and returns its line, empty when it has none.
    std::string take(const std::string& data) {
        ++sequence;
        apply_message(market, raw(data), data.size(), sequence);
        std::string line;
        const bool has_line = append_truth_line(line, market, raw(data), data.size(), sequence);
        EXPECT_EQ(has_line, !line.empty());
        return line;
    }
};

inline QuoteHand quote_of(char center, std::int64_t bid_cents, std::uint32_t bid_size, std::int64_t ask_cents,
                          std::uint32_t ask_size) {
    QuoteHand quote;
    quote.center = center;
    quote.bid = bid_cents * 10'000;
    quote.bid_size = bid_size;
    quote.ask = ask_cents * 10'000;
    quote.ask_size = ask_size;
    return quote;
}

}  // namespace tessel::receiver::hand_made
