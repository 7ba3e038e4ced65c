#include "wire/message_decoder.h"

#include "base/byte_order.h"

#include <cstring>

namespace tessel::receiver {

namespace {

constexpr std::size_t header_bytes = 29;

// The length of each kind that appendages may follow, without them.
constexpr std::size_t odd_lots_short_bytes = 39;
constexpr std::size_t odd_lots_long_bytes = 53;
constexpr std::size_t quote_short_bytes = 52;
constexpr std::size_t quote_long_bytes = 83;

constexpr std::size_t symbol_short_width = 5;
constexpr std::size_t symbol_long_width = 11;
constexpr std::size_t mpid_width = 4;

constexpr std::int64_t millionths_per_cent = 10'000;

// Big-endian reads. The callers have checked that the bytes are there.
std::uint16_t u16_at(const unsigned char* p, std::size_t offset) {
    std::uint16_t value;
    std::memcpy(&value, p + offset, sizeof value);
    return big_endian(value);
}

std::uint32_t u32_at(const unsigned char* p, std::size_t offset) {
    std::uint32_t value;
    std::memcpy(&value, p + offset, sizeof value);
    return big_endian(value);
}

std::uint64_t u64_at(const unsigned char* p, std::size_t offset) {
    std::uint64_t value;
    std::memcpy(&value, p + offset, sizeof value);
    return big_endian(value);
}

char char_at(const unsigned char* p, std::size_t offset) {
    return static_cast<char>(p[offset]);
}

std::int64_t price_short_at(const unsigned char* p, std::size_t offset) {
    return u16_at(p, offset) * millionths_per_cent;
}

// A long price is the 64 bits of a signed number.
std::int64_t price_long_at(const unsigned char* p, std::size_t offset) {
    return static_cast<std::int64_t>(u64_at(p, offset));
}

std::string_view raw_text_at(const unsigned char* p, std::size_t offset, std::size_t width) {
    return {reinterpret_cast<const char*>(p) + offset, width};
}

// Text without the blanks on its right.
std::string_view text_at(const unsigned char* p, std::size_t offset, std::size_t width) {
    while (width > 0 && p[offset + width - 1] == ' ') {
        --width;
    }
    return raw_text_at(p, offset, width);
}

void read_header(Header& header, const unsigned char* p) {
    header.version = char_at(p, 0);
    header.category = char_at(p, 1);
    header.type = char_at(p, 2);
    header.market_center = char_at(p, 3);
    header.sub_market_center = char_at(p, 4);
    header.sip_time_ns = u64_at(p, 5);
    header.participant_time_ns = u64_at(p, 13);
    header.participant_token = u64_at(p, 21);
}

struct KindRow {
    char category;
    char type;
    MessageKind kind;
    const char* name;
    std::size_t bytes;  // the length, or the shortest one
    bool exact;         // false when appendages may follow
};

constexpr KindRow kind_rows[] = {
    {'Q', 'C', MessageKind::quote_short, "quote_short", quote_short_bytes, false},
    {'Q', 'D', MessageKind::quote_long, "quote_long", quote_long_bytes, false},
    {'T', 'M', MessageKind::trade_short, "trade_short", 67, true},
    {'T', 'N', MessageKind::trade_long, "trade_long", 81, true},
    {'Q', 'M', MessageKind::mpid_quote, "mpid_quote", 77, true},
    {'Q', 'A', MessageKind::odd_lots_short, "odd_lots_short", odd_lots_short_bytes, false},
    {'Q', 'B', MessageKind::odd_lots_long, "odd_lots_long", odd_lots_long_bytes, false},
    {'T', 'O', MessageKind::cancel_error, "cancel_error", 146, true},
    {'T', 'P', MessageKind::correction, "correction", 176, true},
    {'T', 'Q', MessageKind::as_of, "as_of", 88, true},
    {'A', 'H', MessageKind::trading_action, "trading_action", 59, true},
    {'A', 'P', MessageKind::price_band, "price_band", 65, true},
    {'A', 'E', MessageKind::collar, "collar", 69, true},
    {'A', 'D', MessageKind::mwcb_status, "mwcb_status", 30, true},
    {'A', 'S', MessageKind::end_of_snapshot, "end_of_snapshot", 37, true},
    {'A', 'C', MessageKind::decline_levels, "decline_levels", 53, true},
    {'A', 'B', MessageKind::directory_short, "directory_short", 90, true},
    {'A', 'F', MessageKind::directory_long, "directory_long", 117, true},
    {'A', 'V', MessageKind::indicator, "indicator", 41, true},
    {'C', 'I', MessageKind::start_of_day, "start_of_day", header_bytes, true},
    {'C', 'O', MessageKind::session_open, "session_open", header_bytes, true},
    {'C', 'P', MessageKind::wipe_out, "wipe_out", header_bytes, true},
};

const KindRow* find_kind(char category, char type) {
    for (const KindRow& row : kind_rows) {
        if (row.category == category && row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

// The rest of a message after its fixed part: every appendage takes its bytes from here.
struct Tail {
    const unsigned char* bytes;
    std::size_t offset;
    std::size_t length;

    // The next `count` bytes, or null when the message ends before.
    const unsigned char* take(std::size_t count) {
        if (length - offset < count) {
            return nullptr;
        }
        const unsigned char* start = bytes + offset;
        offset += count;
        return start;
    }
};

bool read_nbbo(NbboFields& nbbo, char indicator, Tail& tail) {
    if (indicator == '2') {
        const unsigned char* p = tail.take(11);
        if (p == nullptr) {
            return false;
        }
        nbbo = {char_at(p, 0),        char_at(p, 1), char_at(p, 6), price_short_at(p, 2),
                price_short_at(p, 7), u16_at(p, 4),  u16_at(p, 9)};
    } else if (indicator == '3') {
        const unsigned char* p = tail.take(27);
        if (p == nullptr) {
            return false;
        }
        nbbo = {char_at(p, 0),        char_at(p, 1), char_at(p, 14), price_long_at(p, 2),
                price_long_at(p, 15), u32_at(p, 10), u32_at(p, 23)};
    }
    return true;
}

bool read_best_odd_lot(BestOddLotFields& best, char indicator, Tail& tail) {
    if (indicator == '2') {
        const unsigned char* p = tail.take(10);
        if (p == nullptr) {
            return false;
        }
        best = {char_at(p, 0),
                char_at(p, 5),
                price_short_at(p, 1),
                price_short_at(p, 6),
                u16_at(p, 3),
                u16_at(p, 8),
                {},
                {}};
    } else if (indicator == '3' || indicator == '5') {
        const unsigned char* p = tail.take(indicator == '5' ? 30 : 22);
        if (p == nullptr) {
            return false;
        }
        best = {char_at(p, 0),
                char_at(p, 11),
                price_long_at(p, 1),
                price_long_at(p, 12),
                u16_at(p, 9),
                u16_at(p, 20),
                {},
                {}};
        if (indicator == '5') {
            best.bid_mpid = text_at(p, 22, mpid_width);
            best.ask_mpid = text_at(p, 26, mpid_width);
        }
    }
    return true;
}

// The odd-lot list's entries: center 1, side 1, price 2 ("2") or 8 ("3", "5"), size 2, MPID 4 ("5" only).
bool read_odd_lots(std::vector<OddLotFields>& list, char indicator, std::size_t count, Tail& tail) {
    list.clear();
    const std::size_t entry_bytes = indicator == '2' ? 6 : indicator == '3' ? 12 : indicator == '5' ? 16 : 0;
    if (entry_bytes == 0) {
        return true;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned char* p = tail.take(entry_bytes);
        if (p == nullptr) {
            return false;
        }
        OddLotFields entry{char_at(p, 0), char_at(p, 1), 0, 0, {}};
        entry.price = indicator == '2' ? price_short_at(p, 2) : price_long_at(p, 2);
        entry.size = u16_at(p, indicator == '2' ? 4 : 10);
        if (indicator == '5') {
            entry.mpid = text_at(p, 12, mpid_width);
        }
        list.push_back(entry);
    }
    return true;
}

// What may follow the fixed part of a quotation, in this order.
bool read_appendages(Message& m, Tail& tail) {
    QuoteFields& q = m.quote;
    if (!read_nbbo(m.nbbo, q.nbbo_indicator, tail)) {
        return false;
    }
    if (q.adf_mpid_indicator == '2') {
        const unsigned char* p = tail.take(2 * mpid_width);
        if (p == nullptr) {
            return false;
        }
        q.bid_mpid = text_at(p, 0, mpid_width);
        q.ask_mpid = text_at(p, 4, mpid_width);
    }
    return read_best_odd_lot(m.best_odd_lot, q.best_odd_lot_indicator, tail) &&
           read_odd_lots(m.odd_lots, q.odd_lot_list_indicator, q.odd_lot_count, tail) &&
           tail.offset == tail.length;
}

bool read_quote_short(Message& m, const unsigned char* p, std::size_t length) {
    m.symbol = text_at(p, 29, symbol_short_width);
    QuoteFields& q = m.quote;
    q = {};
    q.bid = price_short_at(p, 34);
    q.bid_size = u16_at(p, 36);
    q.ask = price_short_at(p, 38);
    q.ask_size = u16_at(p, 40);
    q.condition = char_at(p, 42);
    q.sip_flag = char_at(p, 43);
    q.luld_bbo = char_at(p, 44);
    q.retail = char_at(p, 45);
    q.nbbo_indicator = char_at(p, 46);
    q.luld_nbbo = char_at(p, 47);
    q.best_odd_lot_indicator = char_at(p, 48);
    q.odd_lot_list_indicator = char_at(p, 49);
    q.odd_lot_count = u16_at(p, 50);
    Tail tail{p, quote_short_bytes, length};
    return read_appendages(m, tail);
}

bool read_quote_long(Message& m, const unsigned char* p, std::size_t length) {
    m.symbol = text_at(p, 37, symbol_long_width);
    QuoteFields& q = m.quote;
    q = {};
    q.adf_time_ns = u64_at(p, 29);
    q.bid = price_long_at(p, 48);
    q.bid_size = u32_at(p, 56);
    q.ask = price_long_at(p, 60);
    q.ask_size = u32_at(p, 68);
    q.condition = char_at(p, 72);
    q.sip_flag = char_at(p, 73);
    q.luld_bbo = char_at(p, 74);
    q.retail = char_at(p, 75);
    q.nbbo_indicator = char_at(p, 76);
    q.luld_nbbo = char_at(p, 77);
    q.adf_mpid_indicator = char_at(p, 78);
    q.best_odd_lot_indicator = char_at(p, 79);
    q.odd_lot_list_indicator = char_at(p, 80);
    q.odd_lot_count = u16_at(p, 81);
    Tail tail{p, quote_long_bytes, length};
    return read_appendages(m, tail);
}

void read_mpid_quote(Message& m, const unsigned char* p) {
    m.symbol = text_at(p, 37, symbol_long_width);
    m.odd_lots.clear();
    QuoteFields& q = m.quote;
    q = {};
    q.adf_time_ns = u64_at(p, 29);
    q.bid = price_long_at(p, 48);
    q.bid_size = u32_at(p, 56);
    q.ask = price_long_at(p, 60);
    q.ask_size = u32_at(p, 68);
    q.condition = char_at(p, 72);
    q.bid_mpid = text_at(p, 73, mpid_width);
}

// The quotation kinds without prices: odd lots only.
bool read_odd_lots_short(Message& m, const unsigned char* p, std::size_t length) {
    m.symbol = text_at(p, 29, symbol_short_width);
    QuoteFields& q = m.quote;
    q = {};
    q.sip_flag = char_at(p, 34);
    q.best_odd_lot_indicator = char_at(p, 35);
    q.odd_lot_list_indicator = char_at(p, 36);
    q.odd_lot_count = u16_at(p, 37);
    Tail tail{p, odd_lots_short_bytes, length};
    return read_appendages(m, tail);
}

bool read_odd_lots_long(Message& m, const unsigned char* p, std::size_t length) {
    m.symbol = text_at(p, 37, symbol_long_width);
    QuoteFields& q = m.quote;
    q = {};
    q.adf_time_ns = u64_at(p, 29);
    q.sip_flag = char_at(p, 48);
    q.best_odd_lot_indicator = char_at(p, 49);
    q.odd_lot_list_indicator = char_at(p, 50);
    q.odd_lot_count = u16_at(p, 51);
    Tail tail{p, odd_lots_long_bytes, length};
    return read_appendages(m, tail);
}

void read_trade_short(Message& m, const unsigned char* p) {
    TradeReportFields& r = m.report;
    r.trf_time_ns = u64_at(p, 29);
    m.symbol = text_at(p, 37, symbol_short_width);
    r.trade.id = u64_at(p, 42);
    r.trade.price = price_short_at(p, 50);
    r.trade.size = u64_at(p, 52);
    r.trade.conditions = raw_text_at(p, 60, 4);
    r.trade.trade_through_exempt = char_at(p, 64);
    r.trade.sale_days = 0;
    r.consolidated_change = char_at(p, 65);
    r.participant_change = char_at(p, 66);
}

// The 31 bytes of a trade in the long form: id 8, price 8, size 8, conditions 4, exempt flag 1, sale days 2.
void read_trade_at(TradeFields& trade, const unsigned char* p, std::size_t offset) {
    trade.id = u64_at(p, offset);
    trade.price = price_long_at(p, offset + 8);
    trade.size = u64_at(p, offset + 16);
    trade.conditions = raw_text_at(p, offset + 24, 4);
    trade.trade_through_exempt = char_at(p, offset + 28);
    trade.sale_days = u16_at(p, offset + 29);
}

SaleStatistics statistics_at(const unsigned char* p, std::size_t offset) {
    return {price_long_at(p, offset), price_long_at(p, offset + 8), price_long_at(p, offset + 16),
            u64_at(p, offset + 24)};
}

void read_trade_long(Message& m, const unsigned char* p) {
    TradeReportFields& r = m.report;
    r.trf_time_ns = u64_at(p, 29);
    m.symbol = text_at(p, 37, symbol_long_width);
    read_trade_at(r.trade, p, 48);
    r.consolidated_change = char_at(p, 79);
    r.participant_change = char_at(p, 80);
}

void read_cancel_error(Message& m, const unsigned char* p) {
    TradeReportFields& r = m.report;
    r.trf_time_ns = u64_at(p, 29);
    m.symbol = text_at(p, 37, symbol_long_width);
    r.function = char_at(p, 48);
    read_trade_at(r.trade, p, 49);
    r.consolidated = statistics_at(p, 80);
    r.consolidated_change = char_at(p, 112);
    r.last_center = char_at(p, 113);
    r.participant = statistics_at(p, 114);
}

void read_correction(Message& m, const unsigned char* p) {
    TradeReportFields& r = m.report;
    r.trf_time_ns = u64_at(p, 29);
    m.symbol = text_at(p, 37, symbol_long_width);
    read_trade_at(r.trade, p, 48);
    read_trade_at(r.corrected, p, 79);
    r.consolidated = statistics_at(p, 110);
    r.consolidated_change = char_at(p, 142);
    r.last_center = char_at(p, 143);
    r.participant = statistics_at(p, 144);
}

void read_as_of(Message& m, const unsigned char* p) {
    TradeReportFields& r = m.report;
    r.trf_time_ns = u64_at(p, 29);
    m.symbol = text_at(p, 37, symbol_long_width);
    read_trade_at(r.trade, p, 48);
    r.as_of_action = char_at(p, 79);
    r.execution_time_ns = u64_at(p, 80);
}

void read_directory(Message& m, const unsigned char* p, bool long_form) {
    m.symbol = text_at(p, 29, symbol_long_width);
    DirectoryFields& d = m.directory;
    d = {};
    d.old_symbol = text_at(p, 40, symbol_long_width);
    d.issue_name = text_at(p, 51, 30);
    d.issue_type = char_at(p, 81);
    d.issue_sub_type = text_at(p, 82, 2);
    d.flag_84 = char_at(p, 84);
    d.flag_85 = char_at(p, 85);
    d.flag_86 = char_at(p, 86);
    d.round_lot = u16_at(p, 87);
    d.flag_89 = char_at(p, 89);
    if (long_form) {
        d.flag_90 = char_at(p, 90);
        d.flag_91 = char_at(p, 91);
        d.flag_92 = char_at(p, 92);
        d.state = char_at(p, 93);
        d.reason = text_at(p, 94, 6);
        d.indicator = char_at(p, 100);
        d.reserved_101 = u64_at(p, 101);
        d.reserved_109 = u64_at(p, 109);
    }
}

void read_indicator(Message& m, const unsigned char* p) {
    m.symbol = text_at(p, 29, symbol_long_width);
    m.directory = {};
    m.directory.indicator = char_at(p, 40);
}

void read_trading_action(Message& m, const unsigned char* p) {
    m.symbol = text_at(p, 29, symbol_long_width);
    m.action = {char_at(p, 40), u32_at(p, 41), u64_at(p, 45), text_at(p, 53, 6)};
}

void read_price_band(Message& m, const unsigned char* p) {
    m.symbol = text_at(p, 29, symbol_long_width);
    m.band = {char_at(p, 40), u64_at(p, 41), price_long_at(p, 49), price_long_at(p, 57)};
}

void read_collar(Message& m, const unsigned char* p) {
    m.symbol = text_at(p, 29, symbol_long_width);
    m.collar = {u32_at(p, 40), price_long_at(p, 44), price_long_at(p, 52), price_long_at(p, 60), p[68]};
}

void read_decline_levels(Message& m, const unsigned char* p) {
    m.decline_level[0] = price_long_at(p, 29);
    m.decline_level[1] = price_long_at(p, 37);
    m.decline_level[2] = price_long_at(p, 45);
}

// Reads the body. False when the appendages do not end where the message ends.
bool read_body(Message& m, MessageKind kind, const unsigned char* p, std::size_t length) {
    switch (kind) {
        case MessageKind::quote_short: return read_quote_short(m, p, length);
        case MessageKind::quote_long: return read_quote_long(m, p, length);
        case MessageKind::odd_lots_short: return read_odd_lots_short(m, p, length);
        case MessageKind::odd_lots_long: return read_odd_lots_long(m, p, length);
        case MessageKind::mpid_quote: read_mpid_quote(m, p); break;
        case MessageKind::trade_short: read_trade_short(m, p); break;
        case MessageKind::trade_long: read_trade_long(m, p); break;
        case MessageKind::cancel_error: read_cancel_error(m, p); break;
        case MessageKind::correction: read_correction(m, p); break;
        case MessageKind::as_of: read_as_of(m, p); break;
        case MessageKind::directory_short: read_directory(m, p, false); break;
        case MessageKind::directory_long: read_directory(m, p, true); break;
        case MessageKind::indicator: read_indicator(m, p); break;
        case MessageKind::trading_action: read_trading_action(m, p); break;
        case MessageKind::price_band: read_price_band(m, p); break;
        case MessageKind::collar: read_collar(m, p); break;
        case MessageKind::decline_levels: read_decline_levels(m, p); break;
        case MessageKind::mwcb_status: m.mwcb_level = char_at(p, 29); break;
        case MessageKind::end_of_snapshot: m.snapshot_sequence = u64_at(p, 29); break;
        case MessageKind::start_of_day:
        case MessageKind::session_open:
        case MessageKind::wipe_out:
        case MessageKind::unknown: break;
    }
    return true;
}

// A byte as "0x51".
std::string hexadecimal(unsigned char byte) {
    constexpr char digits[] = "0123456789abcdef";
    return {'0', 'x', digits[byte >> 4], digits[byte & 15]};
}

bool refuse(std::string* error, std::string text) {
    if (error != nullptr) {
        *error = std::move(text);
    }
    return false;
}

}  // namespace

const char* kind_name(MessageKind kind) {
    for (const KindRow& row : kind_rows) {
        if (row.kind == kind) {
            return row.name;
        }
    }
    return "unknown";
}

bool decode_message(Message& message, const unsigned char* bytes, std::size_t length, std::string* error) {
    message.kind = MessageKind::unknown;
    message.symbol = {};
    if (length < header_bytes) {
        message.header = {};
        return refuse(error, std::to_string(length) + " bytes are less than a header");
    }
    read_header(message.header, bytes);
    const KindRow* row = find_kind(message.header.category, message.header.type);
    if (row == nullptr) {
        return refuse(error, "unknown message: category " + hexadecimal(bytes[1]) + " type " +
                                 hexadecimal(bytes[2]) + ", " + std::to_string(length) + " bytes");
    }
    if (row->exact ? length != row->bytes : length < row->bytes) {
        return refuse(error, std::string(row->name) + ": " + std::to_string(length) + " bytes, expected " +
                                 (row->exact ? "" : "at least ") + std::to_string(row->bytes));
    }
    if (!read_body(message, row->kind, bytes, length)) {
        return refuse(error, std::string(row->name) + ": " + std::to_string(length) +
                                 " bytes do not fit its indicators");
    }
    message.kind = row->kind;
    return true;
}

}  // namespace tessel::receiver
