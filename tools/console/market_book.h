#pragma once

#include "console/picture.h"
#include "receiver/market_state.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

// The market as the receiver rebuilds it, with what the page shows beyond it: a tape of trades and a history
// of halts for each instrument.
namespace tessel::console {

constexpr std::size_t tape_trades_max = 100;
constexpr std::size_t halts_max = 50;
// The feed itself numbers at most 65,535 instruments; a stranger on the group could name more.
constexpr std::size_t instruments_max = 65'536;

struct InstrumentHistory {
    std::vector<TapeTrade> tape;  // oldest first, at most half as many again as tape_trades_max
    std::vector<HaltRecord> halts;
};

struct MarketBook {
    receiver::Market market;
    std::vector<InstrumentHistory> histories;  // by position in market.instruments; may be shorter
    std::vector<std::uint32_t> order;          // positions in the order of symbols, made by make_rows
    std::uint64_t ignored = 0;                 // messages of instruments beyond instruments_max
};

// Applies one message; `sequence` is 0 for a message of a spin. `event` is called when it is one for the
// market's event stream.
void apply_to_book(MarketBook& book, const unsigned char* bytes, std::size_t length, std::uint64_t sequence,
                   const std::function<void(MarketEvent&&)>& event);

// All instruments in the order of their symbols.
std::vector<Row> make_rows(MarketBook& book);

// False when the symbol is unknown.
bool make_detail(const MarketBook& book, std::string_view symbol, Detail& detail);

}  // namespace tessel::console
