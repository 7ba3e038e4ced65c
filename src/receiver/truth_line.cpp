#include "receiver/truth_line.h"

#include <charconv>
#include <cstdio>
#include <cstring>

namespace tessel::receiver {

namespace {

constexpr std::size_t levels_max = 10;
constexpr std::uint64_t millionths_per_share = 1'000'000;

// The longest line: two sides of 10 levels, each level at most 1 + 1 + 21 + 1 + 20 + 1 bytes, and below 400
// bytes around them.
constexpr std::size_t line_bytes_max = 2048;

// Writes into a buffer that is known to be large enough. Prices and sizes are whole numbers, so none of this
// goes through the stream or printf formatting: that is most of the cost of a line.
struct LineWriter {
    char bytes[line_bytes_max];
    char* end = bytes;

    void text(std::string_view part) {
        std::memcpy(end, part.data(), part.size());
        end += part.size();
    }

    void letter(char c) {
        *end++ = c;
    }

    void number(std::uint64_t value) {
        end = std::to_chars(end, bytes + sizeof bytes, value).ptr;
    }

    void two_digits(unsigned value) {
        end[0] = static_cast<char>('0' + value / 10);
        end[1] = static_cast<char>('0' + value % 10);
        end += 2;
    }

    // Dollars with four decimals. Finer prices are not made by the feed and take the slow way.
    void price(std::int64_t millionths) {
        if (millionths % 100 != 0) {
            end += std::snprintf(end, 32, "%.4f", static_cast<double>(millionths) / 1e6);
            return;
        }
        auto magnitude = static_cast<std::uint64_t>(millionths);
        if (millionths < 0) {
            letter('-');
            magnitude = 0 - magnitude;
        }
        number(magnitude / 1'000'000);
        const auto decimals = static_cast<unsigned>(magnitude % 1'000'000 / 100);
        letter('.');
        two_digits(decimals / 100);
        two_digits(decimals % 100);
    }
};

void open_line(LineWriter& line, const Market& market, const Message& message, std::uint64_t sequence,
               const Instrument** instrument) {
    *instrument = find_instrument(market, message.symbol);
    line.text("{\"seq\":");
    line.number(sequence);
    if (*instrument != nullptr && (*instrument)->secid != 0) {
        line.text(",\"secid\":");
        line.number((*instrument)->secid);
    }
    line.text(",\"symbol\":\"");
    line.text(message.symbol);
    line.letter('"');
}

void put_levels(LineWriter& line, const Instrument& instrument, char side) {
    Level levels[levels_max];
    const std::size_t count = build_levels(instrument, side, levels, levels_max);
    for (std::size_t i = 0; i < count; ++i) {
        line.text(i == 0 ? "[" : ",[");
        line.price(levels[i].price);
        line.letter(',');
        line.number(static_cast<std::uint64_t>(levels[i].size));
        line.letter(']');
    }
}

// The line of quotes, trading actions and price bands: the book after the message, and what the message said.
void put_book(LineWriter& line, const Instrument& instrument, const Message& message) {
    line.text(",\"bid\":[");
    put_levels(line, instrument, 'B');
    line.text("],\"ask\":[");
    put_levels(line, instrument, 'A');
    line.text("],\"nbbo\":[");
    line.price(instrument.nbbo.bid);
    line.letter(',');
    line.number(instrument.nbbo.bid_size);
    line.letter(',');
    line.price(instrument.nbbo.ask);
    line.letter(',');
    line.number(instrument.nbbo.ask_size);
    if (band_in_force(instrument.band)) {
        line.text("],\"band\":[");
        line.price(instrument.band.lower);
        line.letter(',');
        line.price(instrument.band.upper);
    }
    line.text("],\"status\":\"");
    line.letter(instrument.status);
    line.letter('"');
    if (message.kind == MessageKind::trading_action) {
        line.text(",\"ah\":\"");
        line.letter(message.action.action);
        line.text("\",\"reason\":\"");
        line.text(message.action.reason);
        line.letter('"');
    } else if (message.kind == MessageKind::price_band) {
        line.text(",\"ap\":\"");
        line.letter(message.band.indicator);
        line.letter('"');
    }
    line.text("}\n");
}

// 2 for crosses and the official close, known by their sale conditions; 1 for other prints of "D", which are
// TRF prints; 0 for the rest, exchange prints.
char trade_kind(const Message& message) {
    const std::string_view conditions = message.report.trade.conditions;
    if (conditions[1] == 'O' || conditions[1] == '5' || conditions[1] == '6' || conditions[3] == 'M') {
        return '2';
    }
    return message.header.market_center == 'D' ? '1' : '0';
}

void put_trade(LineWriter& line, const Message& message) {
    const TradeFields& trade = message.report.trade;
    line.text(",\"trade\":[");
    line.price(trade.price);
    line.letter(',');
    line.number(trade.size / millionths_per_share);
    line.text(",\"");
    line.letter(message.header.market_center);
    line.text("\",\"");
    line.text(trade.conditions);
    line.text("\"],\"kind\":");
    line.letter(trade_kind(message));
    line.text(",\"id\":");
    line.number(trade.id);
    line.text("}\n");
}

void put_cancel_error(LineWriter& line, const Message& message) {
    const TradeFields& trade = message.report.trade;
    line.text(",\"cancel_error\":[");
    line.number(trade.id);
    line.letter(',');
    line.price(trade.price);
    line.letter(',');
    line.number(trade.size / millionths_per_share);
    line.text(",\"");
    line.letter(message.header.market_center);
    line.text("\",\"");
    line.letter(message.report.function);
    line.text("\"]}\n");
}

void put_correction(LineWriter& line, const Message& message) {
    line.text(",\"correction\":[");
    line.number(message.report.trade.id);
    line.letter(',');
    line.number(message.report.corrected.id);
    line.letter(',');
    line.price(message.report.corrected.price);
    line.letter(',');
    line.number(message.report.corrected.size / millionths_per_share);
    line.text(",\"");
    line.letter(message.header.market_center);
    line.text("\"]}\n");
}

// The one line whose price has six significant digits and no trailing zeros.
void put_as_of(LineWriter& line, const Message& message) {
    const TradeFields& trade = message.report.trade;
    line.text(",\"asof\":[");
    line.end += std::snprintf(line.end, 32, "%g", static_cast<double>(trade.price) / 1e6);
    line.letter(',');
    line.number(trade.size / millionths_per_share);
    line.text(",\"");
    line.letter(message.header.market_center);
    line.text("\",\"");
    line.text(trade.conditions);
    line.text("\"]}\n");
}

bool has_line(MessageKind kind) {
    switch (kind) {
        case MessageKind::quote_short:
        case MessageKind::quote_long:
        case MessageKind::trading_action:
        case MessageKind::price_band:
        case MessageKind::trade_short:
        case MessageKind::trade_long:
        case MessageKind::cancel_error:
        case MessageKind::correction:
        case MessageKind::as_of:
        case MessageKind::mwcb_status: return true;
        default: return false;
    }
}

}  // namespace

bool append_truth_line(std::string& out, const Market& market, const Message& message,
                       std::uint64_t sequence) {
    if (!has_line(message.kind)) {
        return false;
    }
    LineWriter line;
    if (message.kind == MessageKind::mwcb_status) {
        line.text("{\"seq\":");
        line.number(sequence);
        line.text(",\"mwcb\":");
        line.letter(message.mwcb_level);
        line.text("}\n");
        out.append(line.bytes, line.end);
        return true;
    }
    const Instrument* instrument = nullptr;
    open_line(line, market, message, sequence, &instrument);
    static const Instrument nothing_known;
    switch (message.kind) {
        case MessageKind::trade_short:
        case MessageKind::trade_long: put_trade(line, message); break;
        case MessageKind::cancel_error: put_cancel_error(line, message); break;
        case MessageKind::correction: put_correction(line, message); break;
        case MessageKind::as_of: put_as_of(line, message); break;
        default: put_book(line, instrument != nullptr ? *instrument : nothing_known, message); break;
    }
    out.append(line.bytes, line.end);
    return true;
}

bool append_truth_line(std::string& out, const Market& market, const unsigned char* bytes, std::size_t length,
                       std::uint64_t sequence) {
    Message message;
    return decode_message(message, bytes, length, nullptr) &&
           append_truth_line(out, market, message, sequence);
}

}  // namespace tessel::receiver
