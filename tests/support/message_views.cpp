#include "support/message_views.h"

#include "wire/message_decoder.h"

#include <stdexcept>

namespace tessel::testing {

namespace {

using receiver::Message;
using receiver::MessageKind;

// The record's texts are views into `message`.
Message decoded(const Bytes& message) {
    Message record;
    std::string error;
    if (!receiver::decode_message(record, message.data(), message.size(), &error)) {
        throw std::runtime_error(letters(message) + ": " + error);
    }
    return record;
}

std::string padded(std::string_view text, std::size_t width) {
    std::string result(text);
    result.resize(width, ' ');
    return result;
}

void read_indicators(const receiver::QuoteFields& quote, QuoteView& view) {
    view.sip_flag = quote.sip_flag;
    view.luld_bbo = quote.luld_bbo;
    view.nbbo_ind = quote.nbbo_indicator;
    view.luld_nbbo = quote.luld_nbbo;
    view.mpid_ind = view.type == 'D' ? quote.adf_mpid_indicator : '-';
    view.best_ind = quote.best_odd_lot_indicator;
    view.list_ind = quote.odd_lot_list_indicator;
    view.entries = quote.odd_lot_count;
}

void read_appendages(const Message& record, QuoteView& view) {
    if (view.nbbo_ind == '2' || view.nbbo_ind == '3') {
        const receiver::NbboFields& nbbo = record.nbbo;
        view.nbbo = {nbbo.condition, nbbo.bid_center, nbbo.ask_center, nbbo.bid,
                     nbbo.ask,       nbbo.bid_size,   nbbo.ask_size};
    }
    if (view.mpid_ind == '2') {
        view.mpids = padded(record.quote.bid_mpid, 4) + padded(record.quote.ask_mpid, 4);
    }
    if (view.best_ind == '2' || view.best_ind == '3' || view.best_ind == '5') {
        const receiver::BestOddLotFields& best = record.best_odd_lot;
        view.best = {best.bid_center, best.ask_center, best.bid, best.ask, best.bid_size, best.ask_size, {}};
        if (view.best_ind == '5') {
            view.best.mpids = padded(best.bid_mpid, 4) + padded(best.ask_mpid, 4);
        }
    }
    for (const receiver::OddLotFields& order : record.odd_lots) {
        view.odd_lots.push_back({order.center, order.side, order.price, order.size, std::string(order.mpid)});
    }
}

StatisticsView statistics_view(const receiver::SaleStatistics& sales) {
    return {sales.high, sales.low, sales.last, sales.volume};
}

}  // namespace

QuoteView read_quote(const Bytes& message) {
    const Message record = decoded(message);
    if (record.header.category != 'Q') {
        throw std::runtime_error("no quote: " + letters(message));
    }
    const receiver::QuoteFields& quote = record.quote;
    QuoteView view;
    view.type = record.header.type;
    view.market_center = record.header.market_center;
    view.sip_time = record.header.sip_time_ns;
    view.participant_time = record.header.participant_time_ns;
    view.adf_time = quote.adf_time_ns;
    view.symbol = padded(record.symbol, view.type == 'C' ? 5 : 11);
    view.bid = quote.bid;
    view.bid_size = quote.bid_size;
    view.ask = quote.ask;
    view.ask_size = quote.ask_size;
    view.condition = quote.condition;
    if (view.type == 'M') {
        view.mpids = padded(quote.bid_mpid, 4);
        return view;
    }
    read_indicators(quote, view);
    read_appendages(record, view);
    return view;
}

TradeView read_trade(const Bytes& message) {
    const Message record = decoded(message);
    if (record.header.category != 'T') {
        throw std::runtime_error("no trade: " + letters(message));
    }
    const receiver::TradeReportFields& report = record.report;
    TradeView view;
    view.type = record.header.type;
    view.center = {record.header.market_center, record.header.sub_market_center};
    view.sip_time = record.header.sip_time_ns;
    view.participant_time = record.header.participant_time_ns;
    view.trf_time = report.trf_time_ns;
    view.symbol = padded(record.symbol, view.type == 'M' ? 5 : 11);
    view.id = report.trade.id;
    view.price = report.trade.price;
    view.size = report.trade.size;
    view.conditions = report.trade.conditions;
    view.exempt = report.trade.trade_through_exempt;
    if (view.type == 'Q') {
        view.function = report.as_of_action;
        view.execution_time = report.execution_time_ns;
        return view;
    }
    view.changes = report.consolidated_change;
    if (view.type == 'M' || view.type == 'N') {
        view.changes += report.participant_change;
        return view;
    }
    view.function = view.type == 'O' ? report.function : '-';
    if (view.type == 'P') {
        view.new_id = report.corrected.id;
        view.new_price = report.corrected.price;
        view.new_size = report.corrected.size;
    }
    view.consolidated = statistics_view(report.consolidated);
    view.last_center = report.last_center;
    view.participant = statistics_view(report.participant);
    return view;
}

std::string brief(const Bytes& message) {
    const Message record = decoded(message);
    const std::string center(1, record.header.market_center);
    switch (record.kind) {
        case MessageKind::trading_action:
            return std::string("action ") + record.action.action + " " + std::string(record.action.reason) +
                   " " + std::to_string(record.action.sequence);
        case MessageKind::price_band: return std::string("band ") + record.band.indicator;
        case MessageKind::collar: return "collar";
        case MessageKind::mwcb_status: return std::string("breaker ") + record.mwcb_level;
        case MessageKind::wipe_out: return "wipe-out " + center;
        case MessageKind::mpid_quote: return "mpid quote";
        case MessageKind::quote_short:
        case MessageKind::quote_long:
            return "quote " + center + " " + record.quote.condition +
                   (record.quote.sip_flag == 'E' ? " E" : "");
        case MessageKind::trade_short:
        case MessageKind::trade_long:
            return "trade " + center + " " + std::string(record.report.trade.conditions);
        default: return letters(message);
    }
}

std::vector<std::string> briefs(const TestMarket& market, std::uint64_t first, std::uint64_t last) {
    std::vector<std::string> result;
    for (std::uint64_t sequence = first; sequence <= last; ++sequence) {
        result.push_back(brief(market.message(sequence)));
    }
    return result;
}

}  // namespace tessel::testing
