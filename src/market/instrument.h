#pragma once

#include "base/block_pool.h"
#include "base/huge_pages.h"

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

constexpr std::int64_t cent = 10'000;                          // millionths
constexpr std::int64_t price_cents_max = 1'000'000'000'000;    // price_to_cents holds to this
constexpr std::int64_t short_price_max = 655'350'000;          // $655.35: what 16 bits of cents hold
constexpr std::uint64_t size_unit = 1'000'000;                 // trade sizes are millionths of a share
constexpr std::size_t trade_history_bytes_max = 4'000'000;     // counted in records of 40 bytes
constexpr std::size_t trade_history_bytes_erased = 2'000'000;  // in one step, the oldest
constexpr std::size_t trade_history_record_bytes = 40;

// llround(100 * price), a NaN taken as 0, held to +-price_cents_max so that no later arithmetic can overflow.
std::int64_t price_to_cents(double price);

constexpr std::size_t truth_head_bytes = 48;

// The MPIDs that every ADF quote and odd-lot order carries.
constexpr std::string_view adf_bid_mpid = "NITE";
constexpr std::string_view adf_ask_mpid = "GSCO";

// One market center's quote of one instrument: one cache line, which its update writes as a whole. A center
// shows either no odd-lot orders or two, a bid and an ask, which stand here too. MPIDs are the ADF's two or
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
    char mc = ' ';
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
    std::int64_t nbbo_bid = 0;
    std::int64_t nbbo_ask = 0;
    std::int64_t luld_lower = 0;
    std::int64_t luld_upper = 0;
    std::int64_t luld_ref = 0;
    std::uint32_t nbbo_bid_size = 0;
    std::uint32_t nbbo_ask_size = 0;
    char nbbo_bid_mc = ' ';
    char nbbo_ask_mc = ' ';
    bool nbbo_valid = false;       // set by the first NBBO
    std::uint8_t adf_present = 0;  // 1 while a best odd-lot quote is published
    char status = 'T';             // T trading, H halted, P LULD paused, Q quotation only
    char band_indicator = ' ';     // quotes are checked against the band while it is one of ABCEG
    char adf_bid_mc = ' ';         // the best odd-lot quote last published; its MPIDs follow from the centers
    char adf_ask_mc = ' ';

    std::int64_t adf_bid = 0;
    std::int64_t adf_ask = 0;
    std::uint32_t adf_sizes = 0;           // bid size in the upper 16 bits, ask size in the lower
    std::uint16_t secid = 0;               // position in the list + 1
    bool short_symbol = true;              // at most 5 characters: short forms can carry it
    char indicator = '0';                  // of the directory and the indicator message
    std::array<char, 16> padded_symbol{};  // the symbol's first 11 characters, padded with blanks
    QuoteBlock* blocks = nullptr;          // the quotes' index, eight slots a block
    ParticipantQuote* quotes = nullptr;    // one slot for each distinct participant letter, in letter order
    std::size_t quote_slots = 0;
    std::uint64_t quote_resume_ms = 0;

    std::int64_t high = 0;  // consolidated statistics
    std::int64_t low = 0;
    std::int64_t last = 0;
    std::uint64_t volume = 0;        // millionths of a share
    std::uint64_t share_volume = 0;  // shares of every trade, never recomputed
    std::int64_t last_trade_price = 0;
    ParticipantTradeStats* trade_stats =
        nullptr;  // one slot for each participant letter, 'Q' and 'D', in letter order
    char last_market_center = ' ';

    std::uint64_t trade_resume_ms = 0;
    std::uint64_t band_due_ms = 0;
    // ,"secid":1,"symbol":"AAPL" : what every truth line of the instrument has, and zero bytes up to
    // truth_head_bytes, so that nearly all are copied at one width.
    std::string truth_head;
    std::size_t truth_head_length = 0;
    TradeHistory trades;  // oldest first
    std::size_t trade_slots = 0;
    std::string symbol;
    std::string halt_reason;       // of the latest trading action
    std::uint32_t action_seq = 0;  // trading actions sent
    // Last ids issued for keys other than a listed center with a blank sub-market center (the TRFs), in order
    // of use.
    struct TradeIdCounter {
        char market_center;
        char sub_market_center;
        std::uint64_t last_trade_id;
    };
    std::vector<TradeIdCounter> other_trade_ids;
};

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

// Makes truth_head from the instrument's secid and symbol.
void make_truth_head(Instrument& instrument);

// Center's quote or null when the letter has no slot; a slot whose quoted is false has never quoted.
ParticipantQuote* find_quote(Instrument& instrument, char mc);
const ParticipantQuote* find_quote(const Instrument& instrument, char mc);

// NBBO midpoint cut to whole cents, or the reference price rounded to cents when a side is missing: where
// crosses print.
std::int64_t cross_price(const Instrument& instrument);

// The reference price rounded to cents, in millionths.
std::int64_t reference_price(const Instrument& instrument);

}  // namespace tessel
