#pragma once

#include "market/instrument.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace tessel::testing {

// An instrument with its quotes, one a letter from 'A' on.
struct Book {
    std::vector<ParticipantQuote> quotes;
    Instrument instrument;

    explicit Book(std::size_t centers) : quotes(centers) {
        for (std::size_t at = 0; at < centers; ++at) {
            quotes[at].market_center = static_cast<char>('A' + at);
            quotes[at].present = true;
            quotes[at].condition = 'R';
        }
        instrument.quotes = quotes.data();
        instrument.quote_slots = centers;
    }
    void set_bid(std::size_t at, std::int64_t cents, std::uint32_t size, std::uint64_t time = 0) {
        quotes[at].bid = cents * cent;
        quotes[at].bid_size = size;
        quotes[at].time = time;
    }
    void set_ask(std::size_t at, std::int64_t cents, std::uint32_t size, std::uint64_t time = 0) {
        quotes[at].ask = cents * cent;
        quotes[at].ask_size = size;
        quotes[at].time = time;
    }
    void set_band(std::int64_t lower_cents, std::int64_t upper_cents, char indicator = 'A') {
        instrument.luld_lower = lower_cents * cent;
        instrument.luld_upper = upper_cents * cent;
        instrument.band_indicator = indicator;
    }
};

// Few prices, sizes and times, so that ties are frequent.
inline void scramble(Book& book, std::mt19937_64& raw) {
    const auto pick = [&raw](std::uint64_t count) { return static_cast<std::int64_t>(raw() % count); };
    for (ParticipantQuote& quote : book.quotes) {
        quote.present = pick(8) != 0;
        quote.condition = "RRRRYNLABHO "[pick(12)];
        quote.time = static_cast<std::uint64_t>(pick(3));
        quote.bid = (pick(12) - 2) * cent;
        quote.ask = (pick(12) - 2) * cent;
        quote.bid_size = static_cast<std::uint32_t>(pick(5) * 99 + pick(2));
        quote.ask_size = static_cast<std::uint32_t>(pick(5) * 99 + pick(2));
    }
    book.set_band(pick(6), pick(12), "ABCDEG "[pick(7)]);
}

}  // namespace tessel::testing
