#pragma once

#include "wire/message_decoder.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What a receiver knows of the market from the messages alone.
//
// Plain records, changed only by apply_message. A market that was built from a Snap-Shot spin and one that
// saw every message are equal in quotes, NBBO, best odd-lot quotes, status and bands; trades, statistics and
// the reasons and action numbers of instruments that trade normally are not in a spin.
namespace tessel::receiver {

struct OddLot {
    char center = ' ';
    char side = ' ';         // "B" or "A"
    std::int64_t price = 0;  // millionths of a dollar
    std::uint16_t size = 0;
    std::string mpid;

    bool operator==(const OddLot&) const = default;
};

// One market center's quote in one instrument.
struct CenterQuote {
    char center = ' ';
    // Whether a side has a price. A quote that was wiped out looks on the wire like one that was
    // emptied by a halt, so both count as not present.
    bool present = false;
    char condition = ' ';
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    std::string bid_mpid;
    std::string ask_mpid;
    std::vector<OddLot> odd_lots;

    bool operator==(const CenterQuote&) const = default;
};

// The national best bid and offer as the feed reports it. A side without a price has size 0 and center blank.
struct Nbbo {
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    char bid_center = ' ';
    char ask_center = ' ';

    bool operator==(const Nbbo&) const = default;
};

// The best odd-lot quote as the feed reports it; the other members count only while `present`.
struct BestOddLot {
    bool present = false;
    char bid_center = ' ';
    char ask_center = ' ';
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint16_t bid_size = 0;
    std::uint16_t ask_size = 0;
    std::string bid_mpid;
    std::string ask_mpid;

    bool operator==(const BestOddLot&) const = default;
};

// The Limit Up-Limit Down band as last received, whether it is in force or not.
struct Band {
    char indicator = ' ';
    std::int64_t lower = 0;
    std::int64_t upper = 0;

    bool operator==(const Band&) const = default;
};

struct Trade {
    char center = ' ';
    char sub_center = ' ';
    bool live = true;  // false once canceled or replaced by a correction
    std::array<char, 4> conditions = {' ', ' ', ' ', ' '};
    std::uint64_t id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;  // millionths of a share

    bool operator==(const Trade&) const = default;
};

struct CenterStatistics {
    char center = ' ';
    SaleStatistics sales;

    bool operator==(const CenterStatistics&) const = default;
};

struct Instrument {
    std::string symbol;  // at most 11 letters: more are not on the wire
    unsigned secid = 0;  // position in the directory, from 1, in 16 bits; 0 when no directory named it
    char indicator = '0';
    std::vector<CenterQuote> quotes;  // in letter order, one for each center received
    Nbbo nbbo;
    BestOddLot best_odd_lot;
    char status = 'T';
    std::string reason;
    std::uint32_t action_sequence = 0;
    Band band;
    std::vector<Trade> trades;  // oldest first, the latest ones only: see trades_kept_max
    // Consolidated; from change indicators and conditions, replaced by what a cancel or correction reports.
    SaleStatistics sales;
    char last_center = ' ';
    std::vector<CenterStatistics> center_sales;  // in letter order
    std::uint64_t trade_count = 0;
    std::uint64_t share_volume = 0;  // whole shares of every trade reported, never taken back
};

// Trades kept of one instrument: enough for the cancels and corrections of a feed, which reach for the newest
// eligible trade, and 160 MB for 8,000 instruments.
constexpr std::size_t trades_kept_max = 512;

struct Market {
    // In directory order; those that no directory entry named are added when first received.
    std::vector<Instrument> instruments;
    unsigned directory_count = 0;    // directory entries seen
    std::vector<char> open_centers;  // centers whose session-open message was seen, in that order
    bool day_started = false;
    std::array<std::int64_t, 3> decline_levels = {0, 0, 0};
    char mwcb_level = ' ';                // the level breached last
    std::uint64_t last_sequence = 0;      // of the last message applied that had a number
    std::uint64_t snapshot_sequence = 0;  // from an end-of-snapshot message
    std::uint64_t messages = 0;
    std::uint64_t undecoded = 0;  // messages that could not be decoded
    std::string last_error;       // why the last of them could not

    Message message;  // the message applied last, for callers that look at it before its bytes go

    // Open addressing: position + 1 in `instruments`, 0 for a free slot; its size is a power of two.
    std::vector<std::uint32_t> slots;
    // The instrument of the message applied last: the next question is mostly about it.
    std::size_t latest = 0;
};

// Decodes a message and brings the market up to date with it. `sequence` is its number on the multicast
// stream, 0 for a message of a spin. Bytes that cannot be decoded change nothing but `undecoded` and
// `last_error`. Messages must be applied in order. A spin is applied to an empty market.
void apply_message(Market& market, const unsigned char* bytes, std::size_t length, std::uint64_t sequence);

// The same for a message that is decoded already.
void apply_decoded(Market& market, const Message& message, std::uint64_t sequence);

// The instrument of that name: the first one, should the directory hold the name twice. Two instruments of
// one name (and of one name in its first 11 letters) cannot be distinguished on the wire. Null when unknown.
const Instrument* find_instrument(const Market& market, std::string_view symbol);

// The center's quote, or null.
const CenterQuote* find_quote(const Instrument& instrument, char center);

// True while the band counts: both prices above 0 and an indicator in "ABCEG".
bool band_in_force(const Band& band);

struct Level {
    std::int64_t price = 0;
    std::int64_t size = 0;  // of all centers at the price

    bool operator==(const Level&) const = default;
};

// Fills `levels` with at most `most` price levels of one side ("B" or "A"), best first, and returns how many.
// Every quote with a price and a size above 0 counts, whatever its condition.
std::size_t build_levels(const Instrument& instrument, char side, Level* levels, std::size_t most);

}  // namespace tessel::receiver
