#include "wire/quote_messages.h"

#include <cassert>

namespace tessel {

namespace {

std::size_t nbbo_bytes(char indicator) {
    switch (indicator) {
        case '2': return short_nbbo_bytes;
        case '3': return long_nbbo_bytes;
        default:  // '0' no change, '1' no NBBO, '4' the quote is the NBBO: nothing follows
            return 0;
    }
}

std::size_t best_odd_lot_bytes(char indicator) {
    switch (indicator) {
        case '2': return short_best_odd_lot_bytes;
        case '3': return long_best_odd_lot_bytes;
        case '5': return mpid_best_odd_lot_bytes;
        default: return 0;
    }
}

std::size_t odd_lot_bytes(char indicator) {
    switch (indicator) {
        case '2': return short_odd_lot_bytes;
        case '3': return long_odd_lot_bytes;
        case '5': return mpid_odd_lot_bytes;
        default: return 0;
    }
}

std::uint16_t odd_lot_count(const QuoteRecord& record) {
    return static_cast<std::uint16_t>(record.odd_lot_count);
}

// Short quote, type C.
void put_short_quote(unsigned char* out, const QuoteRecord& record) {
    static_assert(50 + 2 == short_quote_bytes);
    put_alpha(out, 29, record.symbol, 5);
    put_price_short(out, 34, record.bid);
    put_size_short(out, 36, record.bid_size);
    put_price_short(out, 38, record.ask);
    put_size_short(out, 40, record.ask_size);
    put_u8(out, 42, record.condition);
    put_u8(out, 43, record.sip_flag);
    put_u8(out, 44, record.luld_bbo);
    put_u8(out, 45, record.retail);
    put_u8(out, 46, record.nbbo_ind);
    put_u8(out, 47, record.luld_nbbo);
    put_u8(out, 48, record.odd_best_ind);
    put_u8(out, 49, record.odd_list_ind);
    put_u16(out, 50, odd_lot_count(record));
}

// Long quote, type D.
void put_long_quote(unsigned char* out, const QuoteRecord& record) {
    static_assert(81 + 2 == long_quote_bytes);
    put_u64(out, 29, record.adf_time);
    put_alpha(out, 37, record.symbol, 11);
    put_price_long(out, 48, record.bid);
    put_size_long(out, 56, record.bid_size);
    put_price_long(out, 60, record.ask);
    put_size_long(out, 68, record.ask_size);
    put_u8(out, 72, record.condition);
    put_u8(out, 73, record.sip_flag);
    put_u8(out, 74, record.luld_bbo);
    put_u8(out, 75, record.retail);
    put_u8(out, 76, record.nbbo_ind);
    put_u8(out, 77, record.luld_nbbo);
    put_u8(out, 78, record.adf_mpid_ind);
    put_u8(out, 79, record.odd_best_ind);
    put_u8(out, 80, record.odd_list_ind);
    put_u16(out, 81, odd_lot_count(record));
}

// MPID quote of the ADF, type M, without appendages.
void put_mpid_quote(unsigned char* out, const QuoteRecord& record) {
    static_assert(73 + 4 == mpid_quote_bytes);
    put_u64(out, 29, record.adf_time);
    put_alpha(out, 37, record.symbol, 11);
    put_price_long(out, 48, record.bid);
    put_size_long(out, 56, record.bid_size);
    put_price_long(out, 60, record.ask);
    put_size_long(out, 68, record.ask_size);
    put_u8(out, 72, record.condition);
    put_alpha(out, 73, record.bid_mpid, 4);
}

// Short odd-lot update, type A.
void put_short_odd_lot_update(unsigned char* out, const QuoteRecord& record) {
    static_assert(37 + 2 == short_odd_lot_update_bytes);
    put_alpha(out, 29, record.symbol, 5);
    put_u8(out, 34, record.sip_flag);
    put_u8(out, 35, record.odd_best_ind);
    put_u8(out, 36, record.odd_list_ind);
    put_u16(out, 37, odd_lot_count(record));
}

// Long odd-lot update, type B.
void put_long_odd_lot_update(unsigned char* out, const QuoteRecord& record) {
    static_assert(51 + 2 == long_odd_lot_update_bytes);
    put_u64(out, 29, record.adf_time);
    put_alpha(out, 37, record.symbol, 11);
    put_u8(out, 48, record.sip_flag);
    put_u8(out, 49, record.odd_best_ind);
    put_u8(out, 50, record.odd_list_ind);
    put_u16(out, 51, odd_lot_count(record));
}

// NBBO appendage at offset `at`; returns the offset after it.
std::size_t put_nbbo(unsigned char* out, std::size_t at, const QuoteRecord& record) {
    static_assert(9 + 2 == short_nbbo_bytes);
    static_assert(23 + 4 == long_nbbo_bytes);
    if (record.nbbo_ind == '2') {
        put_u8(out, at + 0, record.nbbo_condition);
        put_u8(out, at + 1, record.nbbo_bid_market_center);
        put_price_short(out, at + 2, record.nbbo_bid);
        put_size_short(out, at + 4, record.nbbo_bid_size);
        put_u8(out, at + 6, record.nbbo_ask_market_center);
        put_price_short(out, at + 7, record.nbbo_ask);
        put_size_short(out, at + 9, record.nbbo_ask_size);
        return at + short_nbbo_bytes;
    }
    if (record.nbbo_ind == '3') {
        put_u8(out, at + 0, record.nbbo_condition);
        put_u8(out, at + 1, record.nbbo_bid_market_center);
        put_price_long(out, at + 2, record.nbbo_bid);
        put_size_long(out, at + 10, record.nbbo_bid_size);
        put_u8(out, at + 14, record.nbbo_ask_market_center);
        put_price_long(out, at + 15, record.nbbo_ask);
        put_size_long(out, at + 23, record.nbbo_ask_size);
        return at + long_nbbo_bytes;
    }
    return at;
}

std::size_t put_adf_mpids(unsigned char* out, std::size_t at, const QuoteRecord& record) {
    static_assert(4 + 4 == adf_mpid_bytes);
    if (record.adf_mpid_ind != '2') {
        return at;
    }
    put_alpha(out, at + 0, record.bid_mpid, 4);
    put_alpha(out, at + 4, record.ask_mpid, 4);
    return at + adf_mpid_bytes;
}

// Best odd-lot appendage. Sizes have 16 bits in the long layouts too: they never exceed 99.
std::size_t put_best_odd_lot(unsigned char* out, std::size_t at, const QuoteRecord& record) {
    static_assert(8 + 2 == short_best_odd_lot_bytes);
    static_assert(20 + 2 == long_best_odd_lot_bytes);
    static_assert(26 + 4 == mpid_best_odd_lot_bytes);
    const char indicator = record.odd_best_ind;
    if (indicator == '2') {
        put_u8(out, at + 0, record.odd_bid_market_center);
        put_price_short(out, at + 1, record.odd_bid);
        put_u16(out, at + 3, record.odd_bid_size);
        put_u8(out, at + 5, record.odd_ask_market_center);
        put_price_short(out, at + 6, record.odd_ask);
        put_u16(out, at + 8, record.odd_ask_size);
        return at + short_best_odd_lot_bytes;
    }
    if (indicator != '3' && indicator != '5') {
        return at;
    }
    put_u8(out, at + 0, record.odd_bid_market_center);
    put_price_long(out, at + 1, record.odd_bid);
    put_u16(out, at + 9, record.odd_bid_size);
    put_u8(out, at + 11, record.odd_ask_market_center);
    put_price_long(out, at + 12, record.odd_ask);
    put_u16(out, at + 20, record.odd_ask_size);
    if (indicator == '3') {
        return at + long_best_odd_lot_bytes;
    }
    put_alpha(out, at + 22, record.odd_bid_mpid, 4);
    put_alpha(out, at + 26, record.odd_ask_mpid, 4);
    return at + mpid_best_odd_lot_bytes;
}

// Odd-lot list, one entry an order.
std::size_t put_odd_lots(unsigned char* out, std::size_t at, const QuoteRecord& record) {
    static_assert(4 + 2 == short_odd_lot_bytes);
    static_assert(10 + 2 == long_odd_lot_bytes);
    static_assert(12 + 4 == mpid_odd_lot_bytes);
    const std::size_t entry_bytes = odd_lot_bytes(record.odd_list_ind);
    if (entry_bytes == 0) {
        return at;
    }
    for (std::size_t index = 0; index < record.odd_lot_count; ++index, at += entry_bytes) {
        const OddLotQuote& order = record.odd_lots[index];
        put_u8(out, at + 0, order.market_center);
        put_u8(out, at + 1, order.side);
        if (entry_bytes == short_odd_lot_bytes) {
            put_price_short(out, at + 2, order.price);
            put_size_short(out, at + 4, order.size);
            continue;
        }
        put_price_long(out, at + 2, order.price);
        put_size_short(out, at + 10, order.size);
        if (entry_bytes == mpid_odd_lot_bytes) {
            put_alpha(out, at + 12, order.mpid, 4);
        }
    }
    return at;
}

// Starts the message with room for everything that will follow the fixed body: one size, one look at the
// capacity. Returns the message's first byte.
unsigned char* begin_quote(MessageWriter& writer, const QuoteRecord& record, char type, std::size_t bytes) {
    begin_message(writer, record.header, bytes - common_header_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u8(out, 1, 'Q');
    put_u8(out, 2, type);
    return out;
}

// A long quote without its odd-lot parts; returns the offset after it.
std::size_t put_long_body(unsigned char* out, const QuoteRecord& record) {
    put_long_quote(out, record);
    const std::size_t at = put_nbbo(out, long_quote_bytes, record);
    return put_adf_mpids(out, at, record);
}

}  // namespace

std::size_t put_long_quote_message(unsigned char* out, const QuoteRecord& record) {
    put_header(out, record.header);
    put_u8(out, 1, 'Q');
    put_u8(out, 2, 'D');
    std::size_t at = put_long_body(out, record);
    at = put_best_odd_lot(out, at, record);
    return put_odd_lots(out, at, record);
}

void build_quote(MessageWriter& writer, const QuoteRecord& record, char type) {
    const std::size_t odd_lots =
        best_odd_lot_bytes(record.odd_best_ind) + odd_lot_bytes(record.odd_list_ind) * record.odd_lot_count;
    unsigned char* out = nullptr;
    std::size_t at = 0;
    switch (type) {
        case 'C':
            out =
                begin_quote(writer, record, type, short_quote_bytes + nbbo_bytes(record.nbbo_ind) + odd_lots);
            put_short_quote(out, record);
            at = put_nbbo(out, short_quote_bytes, record);
            break;
        case 'D':
            out = begin_quote(writer, record, type,
                              long_quote_bytes + nbbo_bytes(record.nbbo_ind) +
                                  (record.adf_mpid_ind == '2' ? adf_mpid_bytes : 0) + odd_lots);
            at = put_long_body(out, record);
            break;
        case 'M':
            out = begin_quote(writer, record, type, mpid_quote_bytes);
            put_mpid_quote(out, record);
            return;
        case 'A':
            out = begin_quote(writer, record, type, short_odd_lot_update_bytes + odd_lots);
            put_short_odd_lot_update(out, record);
            at = short_odd_lot_update_bytes;
            break;
        case 'B':
            out = begin_quote(writer, record, type, long_odd_lot_update_bytes + odd_lots);
            put_long_odd_lot_update(out, record);
            at = long_odd_lot_update_bytes;
            break;
        default: writer.size = 0; return;
    }
    at = put_best_odd_lot(out, at, record);
    at = put_odd_lots(out, at, record);
    assert(at == writer.size);  // the body was not zeroed: every byte must have been written
}

}  // namespace tessel
