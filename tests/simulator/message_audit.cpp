#include "simulator/message_audit.h"

#include "app/reports.h"

#include <algorithm>
#include <sstream>

namespace tessel::simulator {

namespace {

using receiver::Message;
using receiver::MessageKind;

constexpr std::uint64_t millionths_per_share = 1'000'000;
constexpr std::uint64_t mpid_quote_every = 7;
constexpr std::int64_t one_cent = 10'000;
constexpr std::uint64_t hundred_shares = 100 * millionths_per_share;

// Sale conditions under which a trade counts; a blank always does.
constexpr std::string_view high_low_set = " @ABDFGKLOPSXYZ14569";
constexpr std::string_view last_set = " @ABDFKLOSXY1569";
constexpr std::string_view volume_set = " @ABCDFGHIKLOPRSTUVWXYZ14567";

bool counts_for(const std::array<char, 4>& conditions, std::string_view set) {
    return std::all_of(conditions.begin(), conditions.end(),
                       [set](char letter) { return set.find(letter) != std::string_view::npos; });
}

// One message under audit.
struct Case {
    MessageAudit& audit;
    const Message& message;
    AuditedInstrument& instrument;
    std::uint64_t sequence;
    Violations& violations;

    void fail(const char* invariant, const std::string& what) const {
        violations.report(invariant, "sequence " + std::to_string(sequence) + ": " + what);
    }

    // For what needs no more words than a literal: a text that nobody reads costs nothing then.
    void require(bool holds, const char* invariant, const char* what) const {
        if (!holds) {
            fail(invariant, what);
        }
    }
};

// Adds a trade to statistics; returns the price change indicator: 1 last, 2 low, 4 high.
char add_sale(AuditedSales& to, const AuditedTrade& trade) {
    const receiver::SaleStatistics before = to.sales;
    receiver::SaleStatistics& sales = to.sales;
    if (counts_for(trade.conditions, high_low_set)) {
        sales.high = sales.high == 0 || sales.high < trade.price ? trade.price : sales.high;
        sales.low = sales.low == 0 || sales.low > trade.price ? trade.price : sales.low;
    }
    if (counts_for(trade.conditions, last_set)) {
        sales.last = trade.price;
        to.last_center = trade.center;
    }
    if (counts_for(trade.conditions, volume_set)) {
        sales.volume += trade.size;
    }
    return static_cast<char>('0' + (sales.last != before.last ? 1 : 0) + (sales.low != before.low ? 2 : 0) +
                             (sales.high != before.high ? 4 : 0));
}

void replay_live_trades(AuditedInstrument& instrument) {
    instrument.consolidated = {};
    instrument.centers.clear();
    for (const AuditedTrade& trade : instrument.trades) {
        if (trade.live) {
            add_sale(instrument.consolidated, trade);
            add_sale(instrument.centers[trade.center], trade);
        }
    }
}

AuditedTrade reported_trade(const Message& message, const receiver::TradeFields& fields) {
    AuditedTrade trade;
    trade.center = message.header.market_center;
    trade.sub_center = message.header.sub_market_center;
    std::copy_n(fields.conditions.begin(), trade.conditions.size(), trade.conditions.begin());
    trade.id = fields.id;
    trade.price = fields.price;
    trade.size = fields.size;
    return trade;
}

void take_trade_id(const Case& c, std::uint64_t id) {
    std::uint64_t& last =
        c.instrument.trade_ids[{c.message.header.market_center, c.message.header.sub_market_center}];
    ++last;
    if (id != last) {
        c.fail("trade ids", "id " + std::to_string(id) + " where " + std::to_string(last) + " is next");
    }
}

void audit_quote(const Case& c) {
    const receiver::QuoteFields& quote = c.message.quote;
    FeedStats& counted = c.audit.counted;
    const bool is_adf = c.message.header.market_center == 'D';
    ++counted.quotes;
    counted.adf_quotes += is_adf ? 1 : 0;
    counted.sip_generated += quote.sip_flag == 'E' ? 1 : 0;
    if (c.instrument.status == 'H' || c.instrument.status == 'P') {
        c.require(quote.condition == 'N' || quote.condition == 'L', "status", "a firm quote while stopped");
    }
    if (is_adf && counted.quotes % mpid_quote_every == 0 && quote.bid != 0) {
        c.audit.mpid_due = true;
        c.audit.mpid_symbol = c.message.symbol;
        c.audit.mpid_bid = quote.bid - one_cent;
        c.audit.mpid_ask = quote.ask + one_cent;
    }
}

void audit_mpid_quote(const Case& c, bool due) {
    const receiver::QuoteFields& quote = c.message.quote;
    c.require(due, "mpid quotes", "an MPID quote that is not due");
    c.require(c.message.symbol == c.audit.mpid_symbol && quote.bid == c.audit.mpid_bid &&
                  quote.ask == c.audit.mpid_ask && quote.bid_size == 100 && quote.ask_size == 100 &&
                  quote.condition == 'R' && quote.bid_mpid == "VIRT",
              "mpid quotes", "an MPID quote that is not one cent outside the ADF's");
}

void audit_trade(const Case& c) {
    const AuditedTrade trade = reported_trade(c.message, c.message.report.trade);
    const std::string_view conditions = c.message.report.trade.conditions;
    FeedStats& counted = c.audit.counted;
    const bool is_cross =
        conditions == "@O  " || conditions == "@5  " || conditions == "@6  " || conditions == "@  M";
    const bool is_trf = !is_cross && trade.center == 'D';
    ++counted.trades;
    counted.cross_prints += is_cross ? 1 : 0;
    counted.trf_prints += is_trf ? 1 : 0;
    counted.exchange_prints += !is_cross && !is_trf ? 1 : 0;
    counted.odd_lot_prints += conditions == "@  I" ? 1 : 0;
    counted.sweeps += conditions == "@F  " ? 1 : 0;
    c.require(is_cross || (c.instrument.status != 'H' && c.instrument.status != 'P'), "status",
              "a print while stopped");
    take_trade_id(c, trade.id);
    const char consolidated = add_sale(c.instrument.consolidated, trade);
    const char center = add_sale(c.instrument.centers[trade.center], trade);
    const receiver::TradeReportFields& report = c.message.report;
    c.require(report.consolidated_change == consolidated && report.participant_change == center, "statistics",
              "price change indicators that a replay does not give");
    c.instrument.trades.push_back(trade);
    c.instrument.shares += trade.size / millionths_per_share;
    if (counts_for(trade.conditions, last_set)) {
        c.instrument.last_trade_price = trade.price;
    }
}

// The trade that a cancel (regular, odd lot or TRF) or a correction (no odd lot) has to take: the newest live
// one.
AuditedTrade* newest_eligible(AuditedInstrument& instrument, bool odd_lots_too) {
    for (auto trade = instrument.trades.rbegin(); trade != instrument.trades.rend(); ++trade) {
        const char detail = trade->conditions[3];
        if (trade->live && trade->conditions[1] == ' ' && (odd_lots_too ? detail != 'M' : detail == ' ')) {
            return &*trade;
        }
    }
    return nullptr;
}

bool same_trade(const AuditedTrade& left, const AuditedTrade& right) {
    return left.center == right.center && left.sub_center == right.sub_center && left.id == right.id &&
           left.price == right.price && left.size == right.size && left.conditions == right.conditions;
}

void audit_statistics_reported(const Case& c, char center) {
    const receiver::TradeReportFields& report = c.message.report;
    c.require(report.consolidated == c.instrument.consolidated.sales &&
                  report.last_center == c.instrument.consolidated.last_center,
              "statistics", "consolidated statistics reported are not a replay of the live trades");
    c.require(report.participant == c.instrument.centers[center].sales, "statistics",
              "the center's statistics reported are not a replay of its live trades");
}

void audit_cancel(const Case& c) {
    FeedStats& counted = c.audit.counted;
    const AuditedTrade reported = reported_trade(c.message, c.message.report.trade);
    AuditedTrade* const trade = newest_eligible(c.instrument, true);
    const char function = (counted.cancels + counted.errors) % 4 < 3 ? 'C' : 'E';
    c.require(c.message.report.function == function, "revisions", "every fourth cancel is an error");
    (c.message.report.function == 'E' ? counted.errors : counted.cancels) += 1;
    c.require(trade != nullptr && same_trade(*trade, reported), "revisions",
              "not the newest trade to cancel");
    if (trade != nullptr) {
        trade->live = false;
    }
    replay_live_trades(c.instrument);
    audit_statistics_reported(c, reported.center);
}

void audit_correction(const Case& c) {
    ++c.audit.counted.corrections;
    const AuditedTrade old = reported_trade(c.message, c.message.report.trade);
    const AuditedTrade corrected = reported_trade(c.message, c.message.report.corrected);
    AuditedTrade* const trade = newest_eligible(c.instrument, false);
    c.require(trade != nullptr && same_trade(*trade, old), "revisions", "not the newest trade to correct");
    const std::int64_t moved = corrected.price - old.price;
    const bool new_price = (moved == one_cent || moved == -one_cent) && corrected.size == old.size;
    const bool new_size = moved == 0 && corrected.size == old.size + hundred_shares;
    c.require(new_price || new_size, "revisions", "a correction by other than a cent or a hundred shares");
    take_trade_id(c, corrected.id);
    if (trade != nullptr) {
        trade->live = false;
    }
    c.instrument.trades.push_back(corrected);
    replay_live_trades(c.instrument);
    audit_statistics_reported(c, old.center);
}

bool may_move(char from, char to) {
    switch (to) {
        case 'H':
        case 'P': return true;  // from trading, from quotation, and once more while stopped
        case 'Q': return from == 'H' || from == 'P';
        case 'T': return from == 'Q';
        default: return false;
    }
}

bool may_give(char action, const std::string& before, std::string_view reason) {
    switch (action) {
        case 'H': return reason == "T1" || reason == "MWC1" || reason == "MWC2" || reason == "MWC3";
        case 'P': return reason == "LUDP";
        case 'Q': return reason == (before == "LUDP" ? "LUDP" : before.starts_with("MWC") ? "MWCQ" : "T3");
        default: return reason == before;
    }
}

void audit_action(const Case& c) {
    AuditedInstrument& instrument = c.instrument;
    const receiver::ActionFields& reported = c.message.action;
    FeedStats& counted = c.audit.counted;
    if (!may_move(instrument.status, reported.action)) {
        std::string moved = "from  to ";
        moved.insert(5, 1, instrument.status);
        moved.push_back(reported.action);
        c.fail("status", moved);
    }
    c.require(may_give(reported.action, instrument.reason, reported.reason), "status",
              "a reason that does not belong there");
    c.require(reported.sequence == instrument.actions + 1, "status",
              "an action number that is not the next one");
    instrument.status = reported.action;
    instrument.reason = reported.reason;
    instrument.actions = reported.sequence;
    counted.halts += reported.action == 'H' ? 1 : 0;
    counted.pauses += reported.action == 'P' ? 1 : 0;
    counted.quote_resumes += reported.action == 'Q' ? 1 : 0;
    counted.trade_resumes += reported.action == 'T' ? 1 : 0;
}

void audit_trade_ids(const AuditedInstrument& reported, const Instrument& own, Violations& violations) {
    for (const auto& [key, id] : reported.trade_ids) {
        std::uint64_t own_id = 0;
        for (const Instrument::TradeIdCounter& each : own.other_trade_ids) {
            own_id = each.market_center == key.first && each.sub_market_center == key.second
                         ? each.last_trade_id
                         : own_id;
        }
        for (std::size_t slot = 0; key.second == ' ' && slot < own.trade_slots; ++slot) {
            const ParticipantTradeStats& stats = own.trade_stats[slot];
            own_id = stats.market_center == key.first ? stats.last_trade_id : own_id;
        }
        if (own_id != id) {
            violations.report("trade ids", own.symbol + ": the feed has " + std::to_string(own_id) +
                                               ", its messages at " + std::to_string(id));
        }
    }
}

void audit_sales(const AuditedInstrument& reported, const Instrument& own, Violations& violations) {
    const receiver::SaleStatistics& sales = reported.consolidated.sales;
    bool equal = own.high == sales.high && own.low == sales.low && own.last == sales.last &&
                 own.volume == sales.volume && own.last_market_center == reported.consolidated.last_center &&
                 own.share_volume == reported.shares && own.last_trade_price == reported.last_trade_price;
    for (std::size_t slot = 0; slot < own.trade_slots; ++slot) {
        const ParticipantTradeStats& stats = own.trade_stats[slot];
        const auto center = reported.centers.find(stats.market_center);
        const receiver::SaleStatistics expected =
            center == reported.centers.end() ? receiver::SaleStatistics{} : center->second.sales;
        equal =
            equal && expected == receiver::SaleStatistics{stats.high, stats.low, stats.last, stats.volume};
    }
    if (!equal) {
        violations.report("statistics",
                          own.symbol + ": the feed's statistics are not a replay of the live trades");
    }
}

// Both lines are "quotes=1 adf_quotes=0 ...": reports the counters that differ.
void audit_counters(const std::string& counted, const std::string& reported, Violations& violations) {
    std::istringstream left(counted);
    std::istringstream right(reported);
    std::string expected;
    std::string got;
    while (left >> expected && right >> got) {
        if (expected != got) {
            violations.report("counters", "counted " + expected + ", reported " + got);
        }
    }
}

}  // namespace

void audit_message(MessageAudit& audit, const Message& message, std::ptrdiff_t position,
                   std::uint64_t sequence, Violations& violations) {
    static AuditedInstrument nobody;
    if (position >= static_cast<std::ptrdiff_t>(audit.instruments.size())) {
        audit.instruments.resize(static_cast<std::size_t>(position) + 1);
    }
    AuditedInstrument& instrument =
        position < 0 ? nobody : audit.instruments[static_cast<std::size_t>(position)];
    const Case c{audit, message, instrument, sequence, violations};
    const bool mpid_due = audit.mpid_due;
    audit.mpid_due = false;
    c.require(!mpid_due || message.kind == MessageKind::mpid_quote, "mpid quotes",
              "an MPID quote is missing");
    switch (message.kind) {
        case MessageKind::quote_short:
        case MessageKind::quote_long: audit_quote(c); break;
        case MessageKind::mpid_quote: audit_mpid_quote(c, mpid_due); break;
        case MessageKind::trade_short:
        case MessageKind::trade_long: audit_trade(c); break;
        case MessageKind::cancel_error: audit_cancel(c); break;
        case MessageKind::correction: audit_correction(c); break;
        case MessageKind::trading_action: audit_action(c); break;
        case MessageKind::as_of: ++audit.counted.asofs; break;
        case MessageKind::price_band: ++audit.counted.bands; break;
        case MessageKind::collar: ++audit.counted.collars; break;
        case MessageKind::mwcb_status: ++audit.counted.mwcb; break;
        case MessageKind::wipe_out: ++audit.counted.wipeouts; break;
        default: break;
    }
}

void audit_engine(const MessageAudit& audit, const SipEngine& engine, Violations& violations) {
    audit_counters(stats_line(audit.counted), stats_line(engine.scenario->stats), violations);
    for (std::size_t i = 0; i < engine.instruments.size() && i < audit.instruments.size(); ++i) {
        const Instrument& own = engine.instruments[i];
        const AuditedInstrument& messages = audit.instruments[i];
        if (own.status != messages.status || own.action_seq != messages.actions) {
            violations.report("status", own.symbol + ": the feed has " + own.status + ", its messages at " +
                                            messages.status);
        }
        audit_trade_ids(messages, own, violations);
        audit_sales(messages, own, violations);
    }
}

}  // namespace tessel::simulator
