#pragma once
// A market of one instrument whose quotes a test sets or draws itself.

#include "engine/quotes.h"
#include "support/message_views.h"
#include "support/scripted_draws.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::testing {

// One instrument at $100 whose quotes a test sets itself.
struct OneInstrument {
    TestMarket market;
    std::vector<QuoteView> sent;  // the views of what the last call sent

    explicit OneInstrument(const std::string& participants = "ABC", const std::string& symbols = "IBM:100",
                           const std::string& scenario = "odd_lot_every=0")
        : market({.symbols = symbols, .participants = participants, .scenario = scenario}) {}

    Instrument& instrument() {
        return market.at(0);
    }
    FeedStats& stats() {
        return market.scenario.stats;
    }
    ParticipantQuote& quote(char market_center) {
        return *find_quote(instrument(), market_center);
    }
    std::uint16_t slot(char market_center) {
        return static_cast<std::uint16_t>(&quote(market_center) - instrument().quotes);
    }
    // Sends the center's quote unchanged.
    const QuoteView& publish(char market_center, char sip_flag = ' ', std::uint64_t now_ns = 5) {
        return collect(
            [&] { publish_quote(market.engine, instrument(), quote(market_center), sip_flag, now_ns); });
    }
    // Sets a quote, prices in cents, and sends it.
    const QuoteView& set(char market_center, std::int64_t bid, std::uint32_t bid_size, std::int64_t ask,
                         std::uint32_t ask_size, char condition = 'R') {
        ParticipantQuote& stored = quote(market_center);
        stored.quoted = true;
        stored.present = true;
        stored.bid = bid * cent;
        stored.ask = ask * cent;
        stored.bid_size = bid_size;
        stored.ask_size = ask_size;
        stored.condition = condition;
        return publish(market_center);
    }
    // Gives a center odd-lot orders; they go out with the next quote.
    void set_odd_lots(char market_center, std::int64_t bid, std::uint8_t bid_size, std::int64_t ask,
                      std::uint8_t ask_size) {
        ParticipantQuote& stored = quote(market_center);
        stored.has_odd_lots = true;
        stored.odd_bid = bid * cent;
        stored.odd_ask = ask * cent;
        stored.odd_bid_size = bid_size;
        stored.odd_ask_size = ask_size;
    }
    // A fresh quote from these draws, of which none may be left.
    const QuoteView& draw(char market_center, const std::vector<std::uint64_t>& draws, char condition = ' ',
                          std::uint64_t now_ns = 5) {
        script_draws(market.rng, draws);
        const QuoteView& view = collect([&] {
            update_participant_quote(market.engine, instrument(), slot(market_center), now_ns, condition);
        });
        EXPECT_EQ(draws_left(market.rng), 0u);
        return view;
    }
    template <typename Action>
    const QuoteView& collect(Action action) {
        const std::uint64_t before = market.last();
        action();
        sent.clear();
        for (std::uint64_t sequence = before + 1; sequence <= market.last(); ++sequence) {
            sent.push_back(read_quote(market.message(sequence)));
        }
        return sent.at(0);
    }
};

}  // namespace tessel::testing
