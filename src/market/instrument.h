#pragma once

#include "base/block_pool.h"
#include "base/huge_pages.h"
#include "market/best_quotes.h"
#include "market/constants.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace tessel {

// Prices are millionths of a dollar, always whole cents, 0 meaning none; sizes are shares unless a comment
// says otherwise. Times that end in _ms are steady milliseconds, 0 meaning none.

// llround(100 * price), a NaN taken as 0, held to +-price_cents_max so that no later arithmetic can overflow.
std::int64_t price_to_cents(double price);

// One market center's quote of one instrument: one cache line, which its update writes as a whole. A center
// shows either no odd-lot orders or two, a bid and an ask, which are here too. MPIDs are the ADF's two or
// empty.
struct alignas(64) ParticipantQuote {
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint64_t time = 0;  // wall-clock ns of the last update
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    std::int64_t odd_bid = 0;  // the odd-lot orders, while has_odd_lots
    std::int64_t odd_ask = 0;
    std::uint8_t odd_bid_size = 0;  // 1 to 99
    std::uint8_t odd_ask_size = 0;
    char market_center = ' ';
    char condition = ' ';
    bool quoted = false;   // the center has quoted the instrument before
    bool present = false;  // it has a live quote
    bool has_mpids = false;
    bool has_odd_lots = false;
};
static_assert(sizeof(ParticipantQuote) == 64);

// One trade of an instrument's history, from which trades are canceled and corrected.
struct TradeRecord {
    char market_center = ' ';
    char sub_market_center = ' ';
    char trade_through_exempt = ' ';
    bool live = true;  // until canceled or replaced
    std::array<char, 4> conditions{' ', ' ', ' ', ' '};
    std::uint64_t trade_id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;  // millionths of a share
};
static_assert(sizeof(TradeRecord) == 32);

using TradeHistory = std::deque<TradeRecord, BlockAllocator<TradeRecord>>;

// High, low, last and volume of one market center in one instrument, and the last trade id that it issued
// with a blank sub-market center (which no recomputation touches).
struct alignas(64) ParticipantTradeStats {
    std::int64_t high = 0;
    std::int64_t low = 0;
    std::int64_t last = 0;
    std::uint64_t volume = 0;  // millionths of a share
    std::uint64_t last_trade_id = 0;
    char market_center = ' ';
    char last_market_center = ' ';
    bool traded = false;  // the center has statistics
};
static_assert(sizeof(ParticipantTradeStats) == 64);

struct QuoteBlock;  // market/quote_index

// One symbol. The order of the fields is the order of their use: a quote touches the first two cache lines, a
// trade the next three, and the rest is for events.
struct alignas(64) Instrument {
    double price = 100.0;  // reference price in dollars, moved by the random walk
    Nbbo nbbo;             // as last published
    std::int64_t luld_lower = 0;
    std::int64_t luld_upper = 0;
    bool has_nbbo = false;           // set by the first NBBO, which may be none
    bool has_best_odd_lot = false;   // while a best odd-lot quote is published
    char status = 'T';               // T trading, H halted, P LULD paused, Q quotation only
    char band_indicator = ' ';       // quotes are checked against the band while it is one of ABCEG
    char indicator = '0';            // of the directory and the indicator message
    std::uint8_t symbol_length = 0;  // 255 for longer ones
    std::uint16_t secid = 0;         // position in the list + 1

    BestOddLot best_odd_lot;               // as last published; its MPIDs follow from the centers
    std::array<char, 16> padded_symbol{};  // the symbol's first 11 characters, padded with blanks
    QuoteBlock* blocks = nullptr;          // the quotes' index, eight slots a block
    ParticipantQuote* quotes = nullptr;    // one slot for each distinct market center, in letter order
    std::size_t quote_slots = 0;

    std::int64_t luld_ref = 0;
    std::uint64_t quote_resume_ms = 0;
    std::int64_t high = 0;  // consolidated statistics
    std::int64_t low = 0;
    std::int64_t last = 0;
    std::uint64_t volume = 0;        // millionths of a share
    std::uint64_t share_volume = 0;  // shares of every trade, never recomputed
    std::int64_t last_trade_price = 0;

    // One slot for each market center that quotes, 'Q' and 'D', in letter order.
    ParticipantTradeStats* trade_stats = nullptr;
    std::size_t trade_slots = 0;
    std::uint64_t trade_resume_ms = 0;
    std::uint64_t band_due_ms = 0;
    char last_market_center = ' ';
    std::uint32_t action_seq = 0;  // trading actions sent
    TradeHistory trades;           // oldest first
    std::string symbol;
    std::string halt_reason;  // of the latest trading action
    // Last ids issued for keys other than a listed center with a blank sub-market center (the TRFs), in order
    // of use.
    struct TradeIdCounter {
        char market_center;
        char sub_market_center;
        std::uint64_t last_trade_id;
    };
    std::vector<TradeIdCounter> other_trade_ids;
};
static_assert(offsetof(Instrument, best_odd_lot) == 64);
static_assert(offsetof(Instrument, luld_ref) == 128);

using InstrumentList = std::vector<Instrument, HugePageAllocator<Instrument>>;

// The instruments of a --symbols text ("AAPL:190.00,MSFT"), in order, without quote slots. False and a text
// such as "stod: not a number: 'abc'" when a price cannot be read.
bool build_instruments(std::string_view symbols_text, InstrumentList& instruments, std::string& error);

// Whether the band's letter is one under which quotes are checked: A B C E G.
inline bool is_checked_band(char indicator) {
    constexpr std::uint32_t checked =
        1u << 0 | 1u << 1 | 1u << 2 | 1u << 4 | 1u << 6;  // letters counted from 'A'
    const unsigned letter = static_cast<unsigned char>(indicator) - unsigned{'A'};
    return letter < 32 && (checked >> letter & 1) != 0;
}

// Whether quotes are checked against the band now: both prices above 0 and the indicator one of ABCEG.
inline bool has_active_band(const Instrument& instrument) {
    return instrument.luld_lower > 0 && instrument.luld_upper > 0 &&
           is_checked_band(instrument.band_indicator);
}

inline bool is_stopped(const Instrument& instrument) {
    return instrument.status == 'H' || instrument.status == 'P';
}

// Symbol as the long forms carry it: exactly 11 characters, so that a writer copies a fixed width.
inline std::string_view wire_symbol(const Instrument& instrument) {
    return {instrument.padded_symbol.data(), 11};
}

// Whether short forms can carry the symbol: at most 5 characters.
inline bool has_short_symbol(const Instrument& instrument) {
    return instrument.symbol_length <= 5;
}

// Center's quote or null when the letter has no slot; a slot whose quoted is false has never quoted.
ParticipantQuote* find_quote(Instrument& instrument, char market_center);
const ParticipantQuote* find_quote(const Instrument& instrument, char market_center);

// NBBO midpoint cut to whole cents, or the reference price rounded to cents when a side is missing: where
// crosses print.
std::int64_t cross_price(const Instrument& instrument);

// The reference price rounded to cents, in millionths.
std::int64_t reference_price(const Instrument& instrument);

}  // namespace tessel
