#pragma once

#include "wire/message_decoder.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tessel::testing {

// The book of one instrument worked out once more, from decoded messages alone and as plainly as can be:
// every answer goes over all quotes again. Shares no code with the feed's NBBO or with the listener's.

// One market center's quote as its last message reported it. Prices are millionths of a dollar, sizes shares.
struct PlainQuote {
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    char condition = ' ';
    std::uint64_t time_ns = 0;  // the participant's time stamp
};

// The national best bid and offer; a side that nobody quotes is 0, 0 and a blank.
struct PlainNbbo {
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint64_t bid_size = 0;
    std::uint64_t ask_size = 0;
    char bid_center = ' ';
    char ask_center = ' ';

    bool operator==(const PlainNbbo&) const = default;
};

struct PlainBook {
    std::map<unsigned char, PlainQuote> quotes;  // by market center
    char band_indicator = ' ';
    std::int64_t band_lower = 0;
    std::int64_t band_upper = 0;
    PlainNbbo nbbo;             // the state after the last quote: a band alone does not change it
    std::uint64_t changes = 0;  // how often a quote changed it
};

// Takes a short or long quote: replaces the center's quote and works out the NBBO anew.
void take_quote(PlainBook& book, const receiver::Message& quote);

// Takes a price band.
void take_band(PlainBook& book, const receiver::Message& band);

// The NBBO of the present quotes and band.
PlainNbbo independent_nbbo(const PlainBook& book);

// Price and aggregate size of every level of a side ('B' or 'A'), best first.
std::vector<std::pair<std::int64_t, std::uint64_t>> independent_levels(const PlainBook& book, char side);

// What a truth line has to say of the book: "bid":[[190.0100,300]],"ask":[],"nbbo":[190.0100,300,0.0000,0]
std::string book_text(const PlainBook& book);

}  // namespace tessel::testing
