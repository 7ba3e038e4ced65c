#include "support/message_views.h"

#include <stdexcept>

namespace tessel::testing {

namespace {

constexpr std::int64_t millionths_per_cent = 10'000;

std::int64_t price_at(const Bytes& message, std::size_t offset, bool long_form) {
    return long_form ? static_cast<std::int64_t>(get_u64(message, offset))
                     : get_u16(message, offset) * millionths_per_cent;
}

char letter_at(const Bytes& message, std::size_t offset) {
    return static_cast<char>(message.at(offset));
}

std::size_t read_nbbo(const Bytes& message, std::size_t at, QuoteView& view) {
    if (view.nbbo_ind == '2') {
        view.nbbo = {letter_at(message, at),           letter_at(message, at + 1),
                     letter_at(message, at + 6),       price_at(message, at + 2, false),
                     price_at(message, at + 7, false), get_u16(message, at + 4),
                     get_u16(message, at + 9)};
        return at + 11;
    }
    if (view.nbbo_ind == '3') {
        view.nbbo = {letter_at(message, at),           letter_at(message, at + 1),
                     letter_at(message, at + 14),      price_at(message, at + 2, true),
                     price_at(message, at + 15, true), get_u32(message, at + 10),
                     get_u32(message, at + 23)};
        return at + 27;
    }
    return at;
}

std::size_t read_best(const Bytes& message, std::size_t at, QuoteView& view) {
    if (view.best_ind == '2') {
        view.best = {letter_at(message, at),
                     letter_at(message, at + 5),
                     price_at(message, at + 1, false),
                     price_at(message, at + 6, false),
                     get_u16(message, at + 3),
                     get_u16(message, at + 8),
                     {}};
        return at + 10;
    }
    if (view.best_ind == '3' || view.best_ind == '5') {
        view.best = {letter_at(message, at),
                     letter_at(message, at + 11),
                     price_at(message, at + 1, true),
                     price_at(message, at + 12, true),
                     get_u16(message, at + 9),
                     get_u16(message, at + 20),
                     {}};
        if (view.best_ind == '3') {
            return at + 22;
        }
        view.best.mpids = get_text(message, at + 22, 8);
        return at + 30;
    }
    return at;
}

std::size_t read_list(const Bytes& message, std::size_t at, QuoteView& view) {
    if (view.list_ind == '0') {
        return at;
    }
    for (unsigned entry = 0; entry < view.entries; ++entry) {
        const bool long_form = view.list_ind != '2';
        OddLotPart order{letter_at(message, at),
                         letter_at(message, at + 1),
                         price_at(message, at + 2, long_form),
                         get_u16(message, at + (long_form ? 10 : 4)),
                         {}};
        at += long_form ? 12 : 6;
        if (view.list_ind == '5') {
            order.mpid = get_text(message, at, 4);
            at += 4;
        }
        view.odd_lots.push_back(order);
    }
    return at;
}

void read_indicators(const Bytes& message, std::size_t at, QuoteView& view) {
    view.condition = letter_at(message, at);
    view.sip_flag = letter_at(message, at + 1);
    view.luld_bbo = letter_at(message, at + 2);
    view.nbbo_ind = letter_at(message, at + 4);
    view.luld_nbbo = letter_at(message, at + 5);
    if (view.type == 'D') {
        view.mpid_ind = letter_at(message, at + 6);
        ++at;
    }
    view.best_ind = letter_at(message, at + 6);
    view.list_ind = letter_at(message, at + 7);
    view.entries = get_u16(message, at + 8);
}

StatisticsView read_statistics(const Bytes& message, std::size_t at) {
    return {price_at(message, at, true), price_at(message, at + 8, true), price_at(message, at + 16, true),
            get_u64(message, at + 24)};
}

void read_revision(const Bytes& message, TradeView& view, std::size_t trade, std::size_t statistics) {
    view.id = get_u64(message, trade);
    view.price = price_at(message, trade + 8, true);
    view.size = get_u64(message, trade + 16);
    view.conditions = get_text(message, trade + 24, 4);
    view.exempt = letter_at(message, trade + 28);
    view.consolidated = read_statistics(message, statistics);
    view.changes = get_text(message, statistics + 32, 1);
    view.last_center = letter_at(message, statistics + 33);
    view.participant = read_statistics(message, statistics + 34);
}

void expect_length(const Bytes& message, std::size_t length) {
    if (message.size() != length) {
        throw std::runtime_error(letters(message) + " has " + std::to_string(message.size()) +
                                 " bytes, not " + std::to_string(length));
    }
}

}  // namespace

QuoteView read_quote(const Bytes& message) {
    const bool is_short = letter_at(message, 2) == 'C';
    if (letter_at(message, 1) != 'Q') {
        throw std::runtime_error("no quote: " + letters(message));
    }
    QuoteView view;
    view.type = letter_at(message, 2);
    view.mc = letter_at(message, 3);
    view.sip_time = get_u64(message, 5);
    view.participant_time = get_u64(message, 13);
    if (is_short) {
        view.symbol = get_text(message, 29, 5);
        view.bid = price_at(message, 34, false);
        view.bid_size = get_u16(message, 36);
        view.ask = price_at(message, 38, false);
        view.ask_size = get_u16(message, 40);
    } else {
        view.adf_time = get_u64(message, 29);
        view.symbol = get_text(message, 37, 11);
        view.bid = price_at(message, 48, true);
        view.bid_size = get_u32(message, 56);
        view.ask = price_at(message, 60, true);
        view.ask_size = get_u32(message, 68);
    }
    if (view.type == 'M') {
        view.condition = letter_at(message, 72);
        view.mpids = get_text(message, 73, 4);
        expect_length(message, 77);
        return view;
    }
    read_indicators(message, is_short ? 42 : 72, view);
    std::size_t at = read_nbbo(message, is_short ? 52 : 83, view);
    if (view.mpid_ind == '2') {
        view.mpids = get_text(message, at, 8);
        at += 8;
    }
    at = read_best(message, at, view);
    expect_length(message, read_list(message, at, view));
    return view;
}

TradeView read_trade(const Bytes& message) {
    TradeView view;
    view.type = letter_at(message, 2);
    view.center = get_text(message, 3, 2);
    view.sip_time = get_u64(message, 5);
    view.participant_time = get_u64(message, 13);
    view.trf_time = get_u64(message, 29);
    view.symbol = get_text(message, 37, view.type == 'M' ? 5 : 11);
    switch (view.type) {
        case 'M':
            view.id = get_u64(message, 42);
            view.price = price_at(message, 50, false);
            view.size = get_u64(message, 52);
            view.conditions = get_text(message, 60, 4);
            view.exempt = letter_at(message, 64);
            view.changes = get_text(message, 65, 2);
            expect_length(message, 67);
            break;
        case 'N':
        case 'Q':
            view.id = get_u64(message, 48);
            view.price = price_at(message, 56, true);
            view.size = get_u64(message, 64);
            view.conditions = get_text(message, 72, 4);
            view.exempt = letter_at(message, 76);
            if (view.type == 'N') {
                view.changes = get_text(message, 79, 2);
                expect_length(message, 81);
            } else {
                view.function = letter_at(message, 79);
                view.execution_time = get_u64(message, 80);
                expect_length(message, 88);
            }
            break;
        case 'O':
            view.function = letter_at(message, 48);
            read_revision(message, view, 49, 80);
            expect_length(message, 146);
            break;
        case 'P':
            read_revision(message, view, 48, 110);
            view.new_id = get_u64(message, 79);
            view.new_price = price_at(message, 87, true);
            view.new_size = get_u64(message, 95);
            expect_length(message, 176);
            break;
        default: throw std::runtime_error("no trade: " + letters(message));
    }
    return view;
}

std::string brief(const Bytes& message) {
    const std::string kind = letters(message).substr(0, 2);
    const std::string center(1, letter_at(message, 3));
    if (kind == "AH") {
        std::string reason = get_text(message, 53, 6);
        reason.erase(reason.find_last_not_of(' ') + 1);
        return "action " + get_text(message, 40, 1) + " " + reason + " " +
               std::to_string(get_u32(message, 41));
    }
    if (kind == "AP") {
        return "band " + get_text(message, 40, 1);
    }
    if (kind == "AE") {
        return "collar";
    }
    if (kind == "AD") {
        return "breaker " + get_text(message, 29, 1);
    }
    if (kind == "CP") {
        return "wipe-out " + center;
    }
    if (kind == "QM") {
        return "mpid quote";
    }
    if (kind[0] == 'Q') {
        const QuoteView view = read_quote(message);
        return "quote " + center + " " + view.condition + (view.sip_flag == 'E' ? " E" : "");
    }
    if (kind == "TM" || kind == "TN") {
        return "trade " + center + " " + read_trade(message).conditions;
    }
    return letters(message);
}

std::vector<std::string> briefs(const TestMarket& market, std::uint64_t first, std::uint64_t last) {
    std::vector<std::string> result;
    for (std::uint64_t sequence = first; sequence <= last; ++sequence) {
        result.push_back(brief(market.message(sequence)));
    }
    return result;
}

}  // namespace tessel::testing
