#pragma once

#include "wire/layout.h"
#include "wire/message_writer.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessel {

// Sizes of the fixed bodies, header included, and of what may follow them.
constexpr std::size_t short_quote_bytes = layout::message_bytes('Q', 'C');
constexpr std::size_t long_quote_bytes = layout::message_bytes('Q', 'D');
constexpr std::size_t mpid_quote_bytes = layout::message_bytes('Q', 'M');
constexpr std::size_t short_odd_lot_update_bytes = layout::message_bytes('Q', 'A');  // type A
constexpr std::size_t long_odd_lot_update_bytes = layout::message_bytes('Q', 'B');   // type B
constexpr std::size_t short_nbbo_bytes = layout::appendage_bytes("nbbo_indicator", '2');
constexpr std::size_t long_nbbo_bytes = layout::appendage_bytes("nbbo_indicator", '3');
constexpr std::size_t adf_mpid_bytes = layout::appendage_bytes("adf_mpid_indicator", '2');
constexpr std::size_t short_best_odd_lot_bytes = layout::appendage_bytes("best_odd_lot_indicator", '2');
constexpr std::size_t long_best_odd_lot_bytes = layout::appendage_bytes("best_odd_lot_indicator", '3');
constexpr std::size_t mpid_best_odd_lot_bytes = layout::appendage_bytes("best_odd_lot_indicator", '5');
constexpr std::size_t short_odd_lot_bytes = layout::appendage_bytes("odd_lot_list_indicator", '2');
constexpr std::size_t long_odd_lot_bytes = layout::appendage_bytes("odd_lot_list_indicator", '3');
constexpr std::size_t mpid_odd_lot_bytes = layout::appendage_bytes("odd_lot_list_indicator", '5');

// One odd-lot order shown inside a market center's quote.
struct OddLotQuote {
    char market_center = ' ';
    char side = ' ';         // 'B' bid or 'A' ask
    std::int64_t price = 0;  // millionths of a dollar
    std::uint32_t size = 0;  // shares, 1 to 99
    std::string_view mpid;   // empty but for the ADF
};

// Everything a quote message can say. Prices are millionths of a dollar, sizes shares.
struct QuoteRecord {
    MessageHeader header;
    std::uint64_t adf_time = 0;  // participant time for market center 'D', else 0
    std::string_view symbol;
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    char condition = ' ';
    char sip_flag = ' ';
    char luld_bbo = ' ';
    char retail = ' ';
    char nbbo_ind = '0';
    char luld_nbbo = ' ';
    char adf_mpid_ind = ' ';
    char odd_best_ind = '0';
    char odd_list_ind = '0';
    // NBBO appendage
    char nbbo_condition = ' ';
    char nbbo_bid_market_center = ' ';
    char nbbo_ask_market_center = ' ';
    std::int64_t nbbo_bid = 0;
    std::int64_t nbbo_ask = 0;
    std::uint32_t nbbo_bid_size = 0;
    std::uint32_t nbbo_ask_size = 0;
    // MPIDs of the quote; type 'M' sends bid_mpid
    std::string_view bid_mpid;
    std::string_view ask_mpid;
    // best odd-lot appendage
    char odd_bid_market_center = ' ';
    char odd_ask_market_center = ' ';
    std::int64_t odd_bid = 0;
    std::int64_t odd_ask = 0;
    std::uint16_t odd_bid_size = 0;
    std::uint16_t odd_ask_size = 0;
    std::string_view odd_bid_mpid;
    std::string_view odd_ask_mpid;
    // odd-lot list
    const OddLotQuote* odd_lots = nullptr;
    std::size_t odd_lot_count = 0;
};

// Builds the message of type 'A', 'B', 'C', 'D' or 'M' in writer; any other letter leaves it empty. The
// header's category ("Q") and type are set here. Nothing is checked: what does not fit a short field is cut
// to its width.
void build_quote(MessageWriter& writer, const QuoteRecord& record, char type);

// The longest long quote: the ADF's, with every appendage and two odd-lot orders.
constexpr std::size_t long_quote_bytes_max =
    long_quote_bytes + long_nbbo_bytes + adf_mpid_bytes + mpid_best_odd_lot_bytes + 2 * mpid_odd_lot_bytes;

// The same message of type 'D', encoded directly into the caller's buffer (used by snapshot spins): out must
// have room for long_quote_bytes_max, and the record no more than two odd-lot orders. Returns the message's
// length.
std::size_t put_long_quote_message(unsigned char* out, const QuoteRecord& record);

}  // namespace tessel
