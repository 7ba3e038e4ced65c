#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Messages and packets put together byte by byte, in the order of their layouts.
#include "wire/message_decoder.h"

namespace tessel::receiver::hand_made {

struct Bytes {
    std::string data;

    Bytes& text(std::string_view value, std::size_t width) {
        std::string field(value.substr(0, width));
        field.resize(width, ' ');
        data += field;
        return *this;
    }

    Bytes& number(std::uint64_t value, std::size_t width) {
        for (std::size_t i = width; i-- > 0;) {
            data += static_cast<char>((value >> (8 * i)) & 0xff);
        }
        return *this;
    }

    Bytes& price(std::int64_t millionths) {
        return number(static_cast<std::uint64_t>(millionths), 8);
    }

    Bytes& bytes(std::string_view more) {
        data += more;
        return *this;
    }
};

inline const unsigned char* raw(const std::string& data) {
    return reinterpret_cast<const unsigned char*>(data.data());
}

// The 29 bytes of the header: letters, SIP time 1, participant time 2, token 3.
inline Bytes header(char category, char type, char center, char sub_center = ' ') {
    Bytes b;
    b.data = {'1', category, type, center, sub_center};
    return b.number(1, 8).number(2, 8).number(3, 8);
}

struct QuoteHand {
    char center = 'Q';
    std::string symbol = "AAPL";
    std::int64_t bid = 190'010'000;  // millionths of a dollar
    std::uint32_t bid_size = 300;
    std::int64_t ask = 190'030'000;
    std::uint32_t ask_size = 200;
    char condition = 'R';
    char sip_flag = ' ';
    char nbbo = '0';
    char best_odd_lot = '0';
    char odd_lot_list = '0';
    std::uint16_t odd_lot_count = 0;
    std::string appendages;  // after the fixed part; MPIDs of "D" included
};

inline std::string quote_short(const QuoteHand& q) {
    Bytes b = header('Q', 'C', q.center);
    b.text(q.symbol, 5);
    b.number(static_cast<std::uint64_t>(q.bid / 10'000), 2).number(q.bid_size, 2);
    b.number(static_cast<std::uint64_t>(q.ask / 10'000), 2).number(q.ask_size, 2);
    b.data += {q.condition, q.sip_flag, ' ', ' ', q.nbbo, 'A', q.best_odd_lot, q.odd_lot_list};
    return b.number(q.odd_lot_count, 2).bytes(q.appendages).data;
}

inline std::string quote_long(const QuoteHand& q) {
    Bytes b = header('Q', 'D', q.center);
    b.number(q.center == 'D' ? 2 : 0, 8).text(q.symbol, 11);
    b.price(q.bid).number(q.bid_size, 4).price(q.ask).number(q.ask_size, 4);
    b.data += {q.condition,    q.sip_flag,    ' ', ' ', q.nbbo, 'A', q.center == 'D' ? '2' : ' ',
               q.best_odd_lot, q.odd_lot_list};
    return b.number(q.odd_lot_count, 2).bytes(q.appendages).data;
}

inline std::string nbbo_short(char bid_center, std::uint16_t bid_cents, std::uint16_t bid_size,
                              char ask_center, std::uint16_t ask_cents, std::uint16_t ask_size) {
    Bytes b;
    b.data = {'R', bid_center};
    b.number(bid_cents, 2).number(bid_size, 2).data += ask_center;
    return b.number(ask_cents, 2).number(ask_size, 2).data;
}

inline std::string nbbo_long(char bid_center, std::int64_t bid, std::uint32_t bid_size, char ask_center,
                             std::int64_t ask, std::uint32_t ask_size) {
    Bytes b;
    b.data = {'R', bid_center};
    b.price(bid).number(bid_size, 4).data += ask_center;
    return b.price(ask).number(ask_size, 4).data;
}

inline std::string trade_short(char center, char sub_center, std::uint64_t id, std::uint16_t cents,
                               std::uint64_t shares, std::string_view conditions, char change = '7') {
    Bytes b = header('T', 'M', center, sub_center);
    b.number(center == 'D' ? 2 : 0, 8)
        .text("AAPL", 5)
        .number(id, 8)
        .number(cents, 2)
        .number(shares * 1'000'000, 8);
    b.text(conditions, 4).data += {' ', change, change};
    return b.data;
}

inline std::string trade_long(char center, std::string_view symbol, std::uint64_t id, std::int64_t price,
                              std::uint64_t shares, std::string_view conditions, char change = '7') {
    Bytes b = header('T', 'N', center);
    b.number(0, 8).text(symbol, 11).number(id, 8).price(price).number(shares * 1'000'000, 8);
    b.text(conditions, 4).text(" ", 1).number(0, 2).data += {change, change};
    return b.data;
}

inline std::string cancel_error(char center, char function, std::uint64_t id, std::int64_t price,
                                std::uint64_t shares) {
    Bytes b = header('T', 'O', center);
    b.number(0, 8).text("AAPL", 11).data += function;
    b.number(id, 8).price(price).number(shares * 1'000'000, 8).text("@   ", 4).text(" ", 1).number(0, 2);
    b.price(11).price(12).price(13).number(14, 8).data += {'7', 'Q'};
    return b.price(21).price(22).price(23).number(24, 8).data;
}

inline std::string correction(char center, std::uint64_t old_id, std::uint64_t new_id, std::int64_t old_price,
                              std::int64_t price, std::uint64_t shares) {
    Bytes b = header('T', 'P', center);
    b.number(0, 8).text("AAPL", 11);
    b.number(old_id, 8).price(old_price).number(100'000'000, 8).text("@   ", 4).text(" ", 1).number(0, 2);
    b.number(new_id, 8).price(price).number(shares * 1'000'000, 8).text("@   ", 4).text(" ", 1).number(0, 2);
    b.price(11).price(12).price(13).number(14, 8).data += {'7', 'Q'};
    return b.price(21).price(22).price(23).number(24, 8).data;
}

inline std::string as_of(std::int64_t price) {
    Bytes b = header('T', 'Q', 'D', 'Q');
    b.number(2, 8).text("AAPL", 11).number(0, 8).price(price).number(300'000'000, 8);
    return b.text("@   ", 4).text(" ", 1).number(0, 2).text("A", 1).number(7, 8).data;
}

inline std::string trading_action(std::string_view symbol, char action, std::uint32_t sequence,
                                  std::string_view reason) {
    Bytes b = header('A', 'H', 'Q');
    b.text(symbol, 11).data += action;
    return b.number(sequence, 4).number(2, 8).text(reason, 6).data;
}

inline std::string price_band(std::string_view symbol, char indicator, std::int64_t lower,
                              std::int64_t upper) {
    Bytes b = header('A', 'P', 'E');
    b.text(symbol, 11).data += indicator;
    return b.number(2, 8).price(lower).price(upper).data;
}

inline std::string collar() {
    return header('A', 'E', 'Q')
        .text("AAPL", 11)
        .number(4, 4)
        .price(100)
        .price(105)
        .price(95)
        .number(0, 1)
        .data;
}

inline std::string directory_short(std::string_view symbol) {
    const std::string name = std::string(symbol) + " COMMON STOCK";
    return header('A', 'B', 'Q')
        .text(symbol, 11)
        .text("", 11)
        .text(name, 30)
        .text("CC QPN", 6)
        .number(100, 2)
        .text("N", 1)
        .data;
}

inline std::string directory_long(std::string_view symbol) {
    const std::string name = std::string(symbol) + " COMMON STOCK";
    return header('A', 'F', 'Q')
        .text(symbol, 11)
        .text("", 11)
        .text(name, 30)
        .text("CC QPN", 6)
        .number(100, 2)
        .text("NN03H", 5)
        .text("T1", 6)
        .text("0", 1)
        .number(0, 8)
        .number(0, 8)
        .data;
}

inline std::string indicator(std::string_view symbol) {
    return header('A', 'V', 'Q').text(symbol, 11).text("0", 1).data;
}

inline std::string mpid_quote() {
    return header('Q', 'M', 'D')
        .number(2, 8)
        .text("AAPL", 11)
        .price(190'000'000)
        .number(100, 4)
        .price(190'040'000)
        .number(100, 4)
        .text("RVIRT", 5)
        .data;
}

inline std::string decline_levels() {
    return header('A', 'C', 'E').price(4'650'000'000).price(4'350'000'000).price(4'000'000'000).data;
}

inline std::string mwcb_status(char level) {
    return header('A', 'D', 'E').text(std::string_view(&level, 1), 1).data;
}

inline std::string end_of_snapshot(std::uint64_t sequence) {
    return header('A', 'S', 'E').number(sequence, 8).data;
}

// A MoldUDP64 packet with these message blocks. A heartbeat has none.
template <class Blocks>
std::string packet(std::uint64_t first, const Blocks& blocks, std::string_view session = "UTPBENCH01") {
    Bytes b;
    b.text(session, 10).number(first, 8).number(blocks.size(), 2);
    for (const auto& block : blocks) {
        b.number(std::string_view(block).size(), 2).bytes(block);
    }
    return b.data;
}

// The record's texts are views into the bytes, which are kept here until the next call.
inline bool decode(Message& message, const std::string& bytes, std::string* error = nullptr) {
    static std::string data;
    data = bytes;
    return decode_message(message, raw(data), data.size(), error);
}

// One message of every kind and form, with the kind that it must decode to.
inline std::vector<std::pair<MessageKind, std::string>> one_of_each() {
    QuoteHand adf;
    adf.center = 'D';
    adf.nbbo = '3';
    adf.best_odd_lot = '5';
    adf.odd_lot_list = '5';
    adf.odd_lot_count = 1;
    adf.appendages = nbbo_long('Q', 190'010'000, 300, 'D', 190'030'000, 200) + "NITEGSCO" +
                     Bytes{}
                         .text("D", 1)
                         .price(190'020'000)
                         .number(7, 2)
                         .text(" ", 1)
                         .price(0)
                         .number(0, 2)
                         .text("NITE", 4)
                         .text("", 4)
                         .data +
                     Bytes{}.text("DB", 2).price(190'020'000).number(7, 2).text("NITE", 4).data;
    QuoteHand exchange;
    exchange.nbbo = '2';
    exchange.best_odd_lot = '2';
    exchange.odd_lot_list = '2';
    exchange.odd_lot_count = 2;
    exchange.appendages =
        nbbo_short('Q', 19001, 300, 'N', 19003, 400) +
        Bytes{}.text("Q", 1).number(19002, 2).number(9, 2).text("N", 1).number(19002, 2).number(11, 2).data +
        Bytes{}.text("QB", 2).number(19002, 2).number(9, 2).data +
        Bytes{}.text("QA", 2).number(19002, 2).number(8, 2).data;
    return {
        {MessageKind::start_of_day, header('C', 'I', 'E').data},
        {MessageKind::session_open, header('C', 'O', 'N').data},
        {MessageKind::wipe_out, header('C', 'P', 'Q').data},
        {MessageKind::decline_levels, decline_levels()},
        {MessageKind::directory_short, directory_short("AAPL")},
        {MessageKind::directory_long, directory_long("AAPL")},
        {MessageKind::indicator, indicator("AAPL")},
        {MessageKind::trading_action, trading_action("AAPL", 'H', 3, "T1")},
        {MessageKind::price_band, price_band("AAPL", 'A', 180'500'000, 199'500'000)},
        {MessageKind::collar, collar()},
        {MessageKind::mwcb_status, mwcb_status('2')},
        {MessageKind::end_of_snapshot, end_of_snapshot(77)},
        {MessageKind::odd_lots_short, header('Q', 'A', 'Q').text("AAPL", 5).text(" 04", 3).number(2, 2).data},
        {MessageKind::odd_lots_long,
         header('Q', 'B', 'Q').number(0, 8).text("AAPL", 11).text(" 10", 3).number(0, 2).data},
        {MessageKind::quote_short, quote_short(exchange)},
        {MessageKind::quote_long, quote_long(adf)},
        {MessageKind::mpid_quote, mpid_quote()},
        {MessageKind::trade_short, trade_short('N', ' ', 5, 19001, 200, "@F  ")},
        {MessageKind::trade_long, trade_long('N', "LONGSYMBOL", 5, 700'000'000, 200, "@   ")},
        {MessageKind::cancel_error, cancel_error('N', 'C', 5, 190'010'000, 200)},
        {MessageKind::correction, correction('N', 5, 6, 190'010'000, 190'020'000, 200)},
        {MessageKind::as_of, as_of(189'970'000)},
    };
}

}  // namespace tessel::receiver::hand_made
