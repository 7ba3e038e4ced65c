#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Reads the bytes of one UQDF or UTDF message into a plain record.
//
// Written from the layouts alone, with no code of the feed: what the feed encodes wrongly is not decoded
// wrongly in the same way here. Integers are big-endian. Prices are millionths of a dollar in the record
// whatever the form of the message; sizes are what the message carries (shares in quotes, millionths of a
// share in trades).
namespace tessel::receiver {

enum class MessageKind : std::uint8_t {
    unknown,
    start_of_day,     // C I
    session_open,     // C O
    wipe_out,         // C P
    decline_levels,   // A C
    directory_short,  // A B
    directory_long,   // A F
    indicator,        // A V
    trading_action,   // A H
    price_band,       // A P
    collar,           // A E
    mwcb_status,      // A D
    end_of_snapshot,  // A S, in a Snap-Shot session only
    odd_lots_short,   // Q A
    odd_lots_long,    // Q B
    quote_short,      // Q C
    quote_long,       // Q D
    mpid_quote,       // Q M
    trade_short,      // T M
    trade_long,       // T N
    cancel_error,     // T O
    correction,       // T P
    as_of,            // T Q
};

// The kind's name as `--decode` writes it, such as "quote_short".
const char* kind_name(MessageKind kind);

// The 29 bytes that every message begins with. Times are nanoseconds since the epoch.
struct Header {
    char version = ' ';
    char category = ' ';
    char type = ' ';
    char market_center = ' ';
    char sub_market_center = ' ';
    std::uint64_t sip_time_ns = 0;
    std::uint64_t participant_time_ns = 0;
    std::uint64_t participant_token = 0;
};

// The fixed part of a quote. A form that lacks a field leaves it at the value below.
struct QuoteFields {
    std::uint64_t adf_time_ns = 0;
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    char condition = ' ';
    char sip_flag = ' ';
    char luld_bbo = ' ';
    char retail = ' ';
    char nbbo_indicator = '0';
    char luld_nbbo = ' ';
    char adf_mpid_indicator = ' ';
    char best_odd_lot_indicator = '0';
    char odd_lot_list_indicator = '0';
    // As the message says; the list may hold fewer when the indicator has none.
    std::uint16_t odd_lot_count = 0;
    std::string_view bid_mpid;  // of "D"; the one MPID of an MPID quote
    std::string_view ask_mpid;
};

// Read when the NBBO indicator is "2" or "3".
struct NbboFields {
    char condition = ' ';
    char bid_center = ' ';
    char ask_center = ' ';
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
};

// Read when the best odd-lot indicator is "2", "3" or "5".
struct BestOddLotFields {
    char bid_center = ' ';
    char ask_center = ' ';
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint16_t bid_size = 0;
    std::uint16_t ask_size = 0;
    std::string_view bid_mpid;
    std::string_view ask_mpid;
};

struct OddLotFields {
    char center = ' ';
    char side = ' ';
    std::int64_t price = 0;
    std::uint16_t size = 0;
    std::string_view mpid;
};

// One trade, in trade reports and inside cancels, corrections and as-of trades.
struct TradeFields {
    std::uint64_t id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;       // millionths of a share
    std::string_view conditions;  // always four characters
    char trade_through_exempt = ' ';
    std::uint16_t sale_days = 0;
};

struct SaleStatistics {
    std::int64_t high = 0;
    std::int64_t low = 0;
    std::int64_t last = 0;
    std::uint64_t volume = 0;  // millionths of a share

    bool operator==(const SaleStatistics&) const = default;
};

// Everything a trade report, cancel/error, correction or as-of trade carries beside the trade itself.
struct TradeReportFields {
    std::uint64_t trf_time_ns = 0;
    TradeFields trade;               // the reported, canceled or replaced trade
    TradeFields corrected;           // of a correction
    char function = ' ';             // of a cancel/error: "C" or "E"
    char consolidated_change = ' ';  // price change indicator, "0" to "7"
    char participant_change = ' ';   // of a trade report
    SaleStatistics consolidated;     // of a cancel/error or correction
    SaleStatistics participant;
    char last_center = ' ';
    char as_of_action = ' ';
    std::uint64_t execution_time_ns = 0;
};

struct DirectoryFields {
    std::string_view old_symbol;
    std::string_view issue_name;
    std::string_view issue_sub_type;
    std::string_view reason;
    char issue_type = ' ';
    char flag_84 = ' ';  // letters whose meaning the feed does not use, named by their offset
    char flag_85 = ' ';
    char flag_86 = ' ';
    char flag_89 = ' ';
    char flag_90 = ' ';
    char flag_91 = ' ';
    char flag_92 = ' ';
    char state = ' ';
    char indicator = ' ';
    std::uint16_t round_lot = 0;
    std::uint64_t reserved_101 = 0;
    std::uint64_t reserved_109 = 0;
};

struct ActionFields {
    char action = ' ';
    std::uint32_t sequence = 0;
    std::uint64_t time_ns = 0;
    std::string_view reason;
};

struct BandFields {
    char indicator = ' ';
    std::uint64_t effective_time_ns = 0;
    std::int64_t lower = 0;
    std::int64_t upper = 0;
};

struct CollarFields {
    std::uint32_t action_sequence = 0;
    std::int64_t reference = 0;
    std::int64_t upper = 0;
    std::int64_t lower = 0;
    std::uint8_t extension = 0;
};

// One decoded message. `kind` says which members hold its fields; the others hold leftovers of earlier
// messages. Text members are views into the message's bytes, without the blanks that pad them on the right:
// they last as long as the bytes do. One record is meant to be used again and again, so that the list keeps
// its memory.
struct Message {
    MessageKind kind = MessageKind::unknown;
    Header header;
    std::string_view symbol;  // empty for messages without one
    QuoteFields quote;        // the five quotation kinds
    NbboFields nbbo;
    BestOddLotFields best_odd_lot;
    std::vector<OddLotFields> odd_lots;
    TradeReportFields report;   // the five trade kinds
    DirectoryFields directory;  // directory_short, directory_long, indicator
    ActionFields action;
    BandFields band;
    CollarFields collar;
    std::int64_t decline_level[3] = {0, 0, 0};
    char mwcb_level = ' ';
    std::uint64_t snapshot_sequence = 0;  // of an end-of-snapshot message
};

// Decodes `length` bytes into `message`. Returns false, with the reason in `error` when that is not null, for
// a message of unknown category and type and for one whose length is not the one its layout and indicators
// say; the record is then partly filled and its kind is `unknown`. Never reads past `bytes + length`.
bool decode_message(Message& message, const unsigned char* bytes, std::size_t length, std::string* error);

}  // namespace tessel::receiver
