#pragma once

#include "wire/codes.h"

#include <cstdint>
#include <span>
#include <string_view>

// The fields of every message and appendage, in the order of their bytes. wire/layout.h puts them together.
namespace tessel::layout {

// What the bytes of a field hold. Integers are big-endian.
enum class Kind : std::uint8_t {
    letter,      // one character
    text,        // characters, padded with blanks on the right
    conditions,  // four characters, each of which means something, blanks included
    integer,     // unsigned
    cents,       // price: unsigned, cents
    millionths,  // price: signed, millionths of a dollar
    shares,      // unsigned, millionths of a share
    time,        // unsigned, nanoseconds since 1970-01-01 00:00 UTC
};

struct Field {
    std::uint16_t offset = 0;  // from the start of its block
    std::uint16_t width = 0;   // bytes
    Kind kind = Kind::letter;
    std::string_view name;
    std::string_view title;
    std::span<const Code> codes = {};
    std::string_view note = {};  // a constant value or a unit that the title does not say
};

// clang-format off
inline constexpr Field header_fields[] = {
    {0, 1, Kind::letter, "version", "Version", {}, "always 1"},
    {1, 1, Kind::letter, "category", "Message Category", category_codes},
    {2, 1, Kind::letter, "type", "Message Type"},
    {3, 1, Kind::letter, "market_center", "Market Center Originator", {}, "D: ADF or TRF; E: the SIP"},
    {4, 1, Kind::letter, "sub_market_center", "Sub-Market Center", trf_codes},
    {5, 8, Kind::time, "sip_time", "SIP Timestamp", {}, "when the message was made"},
    {13, 8, Kind::time, "participant_time", "Participant Timestamp", {}, "when the event happened"},
    {21, 8, Kind::integer, "participant_token", "Participant Token", {}, "always 0"},
};

inline constexpr Field quote_short_fields[] = {
    {29, 5, Kind::text, "symbol", "Symbol"},
    {34, 2, Kind::cents, "bid", "Bid Price", {}, "0: no bid"},
    {36, 2, Kind::integer, "bid_size", "Bid Size", {}, "shares"},
    {38, 2, Kind::cents, "ask", "Ask Price", {}, "0: no ask"},
    {40, 2, Kind::integer, "ask_size", "Ask Size", {}, "shares"},
    {42, 1, Kind::letter, "condition", "Quote Condition", quote_condition_codes},
    {43, 1, Kind::letter, "sip_flag", "SIP-Generated Message Identifier", sip_flag_codes},
    {44, 1, Kind::letter, "luld_bbo", "LULD BBO Indicator", luld_bbo_codes},
    {45, 1, Kind::letter, "retail", "Retail Interest Indicator", retail_codes},
    {46, 1, Kind::letter, "nbbo_indicator", "NBBO Appendage Indicator", nbbo_indicator_codes},
    {47, 1, Kind::letter, "luld_nbbo", "LULD National BBO Indicator", luld_nbbo_codes},
    {48, 1, Kind::letter, "best_odd_lot_indicator", "Best Odd-Lot Appendage Indicator", best_odd_lot_codes},
    {49, 1, Kind::letter, "odd_lot_list_indicator", "Odd-Lot List Indicator", odd_lot_list_codes},
    {50, 2, Kind::integer, "odd_lot_count", "Odd-Lot List Entries"},
};

inline constexpr Field quote_long_fields[] = {
    {29, 8, Kind::time, "adf_time", "ADF Timestamp", {}, "0 unless the market center is D"},
    {37, 11, Kind::text, "symbol", "Symbol"},
    {48, 8, Kind::millionths, "bid", "Bid Price", {}, "0: no bid"},
    {56, 4, Kind::integer, "bid_size", "Bid Size", {}, "shares"},
    {60, 8, Kind::millionths, "ask", "Ask Price", {}, "0: no ask"},
    {68, 4, Kind::integer, "ask_size", "Ask Size", {}, "shares"},
    {72, 1, Kind::letter, "condition", "Quote Condition", quote_condition_codes},
    {73, 1, Kind::letter, "sip_flag", "SIP-Generated Message Identifier", sip_flag_codes},
    {74, 1, Kind::letter, "luld_bbo", "LULD BBO Indicator", luld_bbo_codes},
    {75, 1, Kind::letter, "retail", "Retail Interest Indicator", retail_codes},
    {76, 1, Kind::letter, "nbbo_indicator", "NBBO Appendage Indicator", nbbo_indicator_codes},
    {77, 1, Kind::letter, "luld_nbbo", "LULD National BBO Indicator", luld_nbbo_codes},
    {78, 1, Kind::letter, "adf_mpid_indicator", "ADF MPID Appendage Indicator", adf_mpid_codes},
    {79, 1, Kind::letter, "best_odd_lot_indicator", "Best Odd-Lot Appendage Indicator", best_odd_lot_codes},
    {80, 1, Kind::letter, "odd_lot_list_indicator", "Odd-Lot List Indicator", odd_lot_list_codes},
    {81, 2, Kind::integer, "odd_lot_count", "Odd-Lot List Entries"},
};

inline constexpr Field mpid_quote_fields[] = {
    {29, 8, Kind::time, "adf_time", "ADF Timestamp"},
    {37, 11, Kind::text, "symbol", "Symbol"},
    {48, 8, Kind::millionths, "bid", "Bid Price"},
    {56, 4, Kind::integer, "bid_size", "Bid Size", {}, "shares"},
    {60, 8, Kind::millionths, "ask", "Ask Price"},
    {68, 4, Kind::integer, "ask_size", "Ask Size", {}, "shares"},
    {72, 1, Kind::letter, "condition", "Quote Condition", quote_condition_codes},
    {73, 4, Kind::text, "mpid", "MPID"},
};

inline constexpr Field odd_lots_short_fields[] = {
    {29, 5, Kind::text, "symbol", "Symbol"},
    {34, 1, Kind::letter, "sip_flag", "SIP-Generated Message Identifier", sip_flag_codes},
    {35, 1, Kind::letter, "best_odd_lot_indicator", "Best Odd-Lot Appendage Indicator", best_odd_lot_codes},
    {36, 1, Kind::letter, "odd_lot_list_indicator", "Odd-Lot List Indicator", odd_lot_list_codes},
    {37, 2, Kind::integer, "odd_lot_count", "Odd-Lot List Entries"},
};

inline constexpr Field odd_lots_long_fields[] = {
    {29, 8, Kind::time, "adf_time", "ADF Timestamp", {}, "0 unless the market center is D"},
    {37, 11, Kind::text, "symbol", "Symbol"},
    {48, 1, Kind::letter, "sip_flag", "SIP-Generated Message Identifier", sip_flag_codes},
    {49, 1, Kind::letter, "best_odd_lot_indicator", "Best Odd-Lot Appendage Indicator", best_odd_lot_codes},
    {50, 1, Kind::letter, "odd_lot_list_indicator", "Odd-Lot List Indicator", odd_lot_list_codes},
    {51, 2, Kind::integer, "odd_lot_count", "Odd-Lot List Entries"},
};

inline constexpr Field nbbo_short_fields[] = {
    {0, 1, Kind::letter, "condition", "NBBO Quote Condition", nbbo_condition_codes},
    {1, 1, Kind::letter, "bid_center", "Best Bid Market Center", {}, "blank: no bid"},
    {2, 2, Kind::cents, "bid", "Best Bid Price"},
    {4, 2, Kind::integer, "bid_size", "Best Bid Size", {}, "shares, of all centers at that price"},
    {6, 1, Kind::letter, "ask_center", "Best Offer Market Center", {}, "blank: no offer"},
    {7, 2, Kind::cents, "ask", "Best Offer Price"},
    {9, 2, Kind::integer, "ask_size", "Best Offer Size", {}, "shares, of all centers at that price"},
};

inline constexpr Field nbbo_long_fields[] = {
    {0, 1, Kind::letter, "condition", "NBBO Quote Condition", nbbo_condition_codes},
    {1, 1, Kind::letter, "bid_center", "Best Bid Market Center", {}, "blank: no bid"},
    {2, 8, Kind::millionths, "bid", "Best Bid Price"},
    {10, 4, Kind::integer, "bid_size", "Best Bid Size", {}, "shares, of all centers at that price"},
    {14, 1, Kind::letter, "ask_center", "Best Offer Market Center", {}, "blank: no offer"},
    {15, 8, Kind::millionths, "ask", "Best Offer Price"},
    {23, 4, Kind::integer, "ask_size", "Best Offer Size", {}, "shares, of all centers at that price"},
};

inline constexpr Field adf_mpid_fields[] = {
    {0, 4, Kind::text, "bid_mpid", "Bid MPID"},
    {4, 4, Kind::text, "ask_mpid", "Ask MPID"},
};

inline constexpr Field best_odd_lot_short_fields[] = {
    {0, 1, Kind::letter, "bid_center", "Bid Market Center", {}, "blank: no bid"},
    {1, 2, Kind::cents, "bid", "Bid Price"},
    {3, 2, Kind::integer, "bid_size", "Bid Size", {}, "shares"},
    {5, 1, Kind::letter, "ask_center", "Ask Market Center", {}, "blank: no ask"},
    {6, 2, Kind::cents, "ask", "Ask Price"},
    {8, 2, Kind::integer, "ask_size", "Ask Size", {}, "shares"},
};

// The last two with indicator "5" only.
inline constexpr Field best_odd_lot_long_fields[] = {
    {0, 1, Kind::letter, "bid_center", "Bid Market Center", {}, "blank: no bid"},
    {1, 8, Kind::millionths, "bid", "Bid Price"},
    {9, 2, Kind::integer, "bid_size", "Bid Size", {}, "shares"},
    {11, 1, Kind::letter, "ask_center", "Ask Market Center", {}, "blank: no ask"},
    {12, 8, Kind::millionths, "ask", "Ask Price"},
    {20, 2, Kind::integer, "ask_size", "Ask Size", {}, "shares"},
    {22, 4, Kind::text, "bid_mpid", "Bid MPID"},
    {26, 4, Kind::text, "ask_mpid", "Ask MPID"},
};

inline constexpr Field odd_lot_short_fields[] = {
    {0, 1, Kind::letter, "center", "Market Center"},
    {1, 1, Kind::letter, "side", "Side", side_codes},
    {2, 2, Kind::cents, "price", "Price"},
    {4, 2, Kind::integer, "size", "Size", {}, "shares, 1 to 99"},
};

// The last one with indicator "5" only.
inline constexpr Field odd_lot_long_fields[] = {
    {0, 1, Kind::letter, "center", "Market Center"},
    {1, 1, Kind::letter, "side", "Side", side_codes},
    {2, 8, Kind::millionths, "price", "Price"},
    {10, 2, Kind::integer, "size", "Size", {}, "shares, 1 to 99"},
    {12, 4, Kind::text, "mpid", "MPID"},
};

inline constexpr Field trade_short_fields[] = {
    {29, 8, Kind::time, "trf_time", "FINRA/TRF Timestamp", {}, "0 unless the market center is D"},
    {37, 5, Kind::text, "symbol", "Symbol"},
    {42, 8, Kind::integer, "id", "Trade ID", {}, "counts for each market center"},
    {50, 2, Kind::cents, "price", "Trade Price"},
    {52, 8, Kind::shares, "size", "Trade Size"},
    {60, 4, Kind::conditions, "conditions", "Sale Conditions", sale_condition_codes},
    {64, 1, Kind::letter, "trade_through_exempt", "Trade-Through-Exempt Flag", exempt_codes},
    {65, 1, Kind::letter, "consolidated_change", "Consolidated Price Change Indicator", change_codes},
    {66, 1, Kind::letter, "participant_change", "Participant Price Change Indicator", change_codes},
};

inline constexpr Field report_head_fields[] = {
    {29, 8, Kind::time, "trf_time", "FINRA/TRF Timestamp", {}, "0 unless the market center is D"},
    {37, 11, Kind::text, "symbol", "Symbol"},
};

inline constexpr Field trade_fields[] = {
    {0, 8, Kind::integer, "id", "Trade ID", {}, "0 in an as-of trade"},
    {8, 8, Kind::millionths, "price", "Trade Price"},
    {16, 8, Kind::shares, "size", "Trade Size"},
    {24, 4, Kind::conditions, "conditions", "Sale Conditions", sale_condition_codes},
    {28, 1, Kind::letter, "trade_through_exempt", "Trade-Through-Exempt Flag", exempt_codes},
    {29, 2, Kind::integer, "sale_days", "Seller's Sale Days", {}, "always 0"},
};

inline constexpr Field statistics_fields[] = {
    {0, 8, Kind::millionths, "high", "High", {}, "0: none yet"},
    {8, 8, Kind::millionths, "low", "Low", {}, "0: none yet"},
    {16, 8, Kind::millionths, "last", "Last", {}, "0: none yet"},
    {24, 8, Kind::shares, "volume", "Volume"},
};

inline constexpr Field changes_fields[] = {
    {0, 1, Kind::letter, "consolidated_change", "Consolidated Price Change Indicator", change_codes},
    {1, 1, Kind::letter, "participant_change", "Participant Price Change Indicator", change_codes},
};

inline constexpr Field function_fields[] = {
    {48, 1, Kind::letter, "function", "Function", function_codes},
};

inline constexpr Field revision_fields[] = {
    {0, 1, Kind::letter, "consolidated_change", "Consolidated Price Change Indicator", change_codes,
     "always 7"},
    {1, 1, Kind::letter, "last_center", "Consolidated Last-Sale Market Center", {}, "blank: none"},
};

inline constexpr Field as_of_fields[] = {
    {79, 1, Kind::letter, "as_of_action", "As-Of Action", as_of_codes},
    {80, 8, Kind::time, "execution_time", "Execution Time", {}, "one day before the message"},
};

inline constexpr Field decline_level_fields[] = {
    {29, 8, Kind::millionths, "level_1", "Decline Level 1 Price"},
    {37, 8, Kind::millionths, "level_2", "Decline Level 2 Price"},
    {45, 8, Kind::millionths, "level_3", "Decline Level 3 Price"},
};

inline constexpr Field directory_fields[] = {
    {29, 11, Kind::text, "symbol", "Symbol"},
    {40, 11, Kind::text, "old_symbol", "Old Symbol", {}, "always blank"},
    {51, 30, Kind::text, "issue_name", "Issue Name"},
    {81, 1, Kind::letter, "issue_type", "Issue Type", {}, "always C"},
    {82, 2, Kind::text, "issue_sub_type", "Issue Sub-Type", {}, "always C"},
    {84, 1, Kind::letter, "flag_84", "Market Tier", {}, "always Q"},
    {85, 1, Kind::letter, "flag_85", "Authenticity", {}, "always P"},
    {86, 1, Kind::letter, "flag_86", "Short Sale Threshold Indicator", {}, "always N"},
    {87, 2, Kind::integer, "round_lot", "Round Lot Size", {}, "shares, always 100"},
    {89, 1, Kind::letter, "flag_89", "Financial Status Indicator", {}, "always N"},
};

inline constexpr Field directory_more_fields[] = {
    {90, 1, Kind::letter, "flag_90", "Flag at 90", {}, "always N"},
    {91, 1, Kind::letter, "flag_91", "Flag at 91", {}, "always 0"},
    {92, 1, Kind::letter, "flag_92", "Flag at 92", {}, "always 3"},
    {93, 1, Kind::letter, "state", "Trading State", trading_state_codes},
    {94, 6, Kind::text, "reason", "Reason", reason_codes, "blank while trading"},
    {100, 1, Kind::letter, "indicator", "Indicator", {}, "always 0"},
    {101, 8, Kind::integer, "reserved_101", "Reserved at 101", {}, "always 0"},
    {109, 8, Kind::integer, "reserved_109", "Reserved at 109", {}, "always 0"},
};

inline constexpr Field indicator_fields[] = {
    {29, 11, Kind::text, "symbol", "Symbol"},
    {40, 1, Kind::letter, "indicator", "Indicator", {}, "always 0"},
};

inline constexpr Field trading_action_fields[] = {
    {29, 11, Kind::text, "symbol", "Symbol"},
    {40, 1, Kind::letter, "action", "Trading Action", action_codes},
    {41, 4, Kind::integer, "action_sequence", "Action Sequence Number", {}, "counts for each instrument"},
    {45, 8, Kind::time, "action_time", "Action Time"},
    {53, 6, Kind::text, "reason", "Reason", reason_codes},
};

inline constexpr Field price_band_fields[] = {
    {29, 11, Kind::text, "symbol", "Symbol"},
    {40, 1, Kind::letter, "indicator", "Band Indicator", band_codes},
    {41, 8, Kind::time, "effective_time", "Effective Time"},
    {49, 8, Kind::millionths, "lower", "Lower Price"},
    {57, 8, Kind::millionths, "upper", "Upper Price"},
};

inline constexpr Field collar_fields[] = {
    {29, 11, Kind::text, "symbol", "Symbol"},
    {40, 4, Kind::integer, "action_sequence", "Action Sequence Number", {}, "of the pause"},
    {44, 8, Kind::millionths, "reference", "Collar Reference Price"},
    {52, 8, Kind::millionths, "upper", "Upper Price"},
    {60, 8, Kind::millionths, "lower", "Lower Price"},
    {68, 1, Kind::integer, "extension", "Collar Extension Indicator", {}, "always 0"},
};

inline constexpr Field mwcb_status_fields[] = {
    {29, 1, Kind::letter, "level", "Breached Level", level_codes},
};

inline constexpr Field end_of_snapshot_fields[] = {
    {29, 8, Kind::integer, "snapshot_sequence", "Snapshot Sequence Number", {}, "of the last message before"},
};
// clang-format on

}  // namespace tessel::layout
