#include "engine/trades.h"

#include "engine/publication.h"
#include "engine/trade_revisions.h"
#include "market/trade_statistics.h"
#include "wire/trade_messages.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace tessel {

namespace {

constexpr std::string_view trf_letters = " NQB";  // the TRFs take turns
constexpr char cross_market_center = 'Q';
constexpr std::int64_t exchange_lots_max = 5;
constexpr std::int64_t trf_lots_max = 20;
constexpr std::uint64_t reopening_shares = 3000;
constexpr std::uint64_t closing_shares = 8000;
constexpr std::uint64_t opening_shares = 5000;
constexpr std::uint64_t odd_lot_threshold = chance_threshold(0.08);
constexpr std::uint64_t sweep_threshold = chance_threshold(0.16);

// '0' to '7': 1 last, 2 low, 4 high changed.
char change_indicator(const StatisticsRecord& before, const StatisticsRecord& after) {
    const int changes = (before.last != after.last ? 1 : 0) + (before.low != after.low ? 2 : 0) +
                        (before.high != after.high ? 4 : 0);
    return static_cast<char>('0' + changes);
}

StatisticsRecord statistics_of(const ParticipantTradeStats* stats) {
    return stats == nullptr ? StatisticsRecord{}
                            : StatisticsRecord{stats->high, stats->low, stats->last, stats->volume};
}

// Keeps the trade, and evicts the oldest half of a history that has grown too long.
void keep_trade(Instrument& instrument, const TradeRecord& trade) {
    instrument.trades.push_back(trade);
    constexpr std::size_t trades_max = trade_history_bytes_max / trade_history_record_bytes;
    if (instrument.trades.size() > trades_max) [[unlikely]] {
        constexpr auto erased =
            static_cast<std::ptrdiff_t>(trade_history_bytes_erased / trade_history_record_bytes);
        instrument.trades.erase(instrument.trades.begin(), instrument.trades.begin() + erased);
    }
}

bool divides(std::uint32_t every, std::uint64_t count) {
    return every != 0 && count % every == 0;
}

// What falls due with a trade: as-of trades immediately, then at most one cancel, then at most one
// correction.
void revise_after_trade(SipEngine& engine, Instrument& instrument, std::uint64_t participant_time) {
    const Scenario& scenario = *engine.scenario;
    const std::uint64_t trades = scenario.stats.trades;
    if (divides(scenario.cancel_every, trades)) {
        ++engine.pending_cancels;
    }
    if (divides(scenario.correct_every, trades)) {
        ++engine.pending_corrections;
    }
    if (divides(scenario.asof_every, trades)) {
        emit_asof(engine, instrument);
    }
    if (engine.pending_cancels > 0) {
        --engine.pending_cancels;
        cancel_trade(engine, instrument, participant_time);
    }
    if (engine.pending_corrections > 0) {
        --engine.pending_corrections;
        correct_trade(engine, instrument, participant_time);
    }
}

}  // namespace

// Flattened as publish_quote is.
[[gnu::flatten]] void record_trade(SipEngine& engine, Instrument& instrument, char market_center,
                                   char sub_market_center, std::int64_t price, std::uint64_t shares,
                                   const char* conditions, char trade_through_exempt,
                                   std::uint64_t participant_time, TradeKind kind) {
    FeedStats& counters = engine.scenario->stats;
    const std::int16_t slot = engine.trade_slot[static_cast<unsigned char>(market_center)];
    ParticipantTradeStats* const stats = slot < 0 ? nullptr : instrument.trade_stats + slot;
    const std::uint64_t size = shares * size_unit;

    TradeReport report;
    report.trade_id = next_trade_id(instrument, stats, market_center, sub_market_center);
    const StatisticsRecord before = consolidated_statistics(instrument);
    const StatisticsRecord participant_before = statistics_of(stats);
    const Eligibility eligible = eligibility(conditions);
    apply_trade(instrument, stats, eligible, market_center, price, size);
    if (eligible.last) {
        instrument.last_trade_price = price;
    }
    instrument.share_volume += shares;

    report.header.market_center = market_center;
    report.header.sub_market_center = sub_market_center;
    report.header.sip_time = wall_ns(*engine.clock);
    report.header.participant_time = participant_time;
    report.trf_time = market_center == adf_market_center ? participant_time : 0;
    report.symbol = wire_symbol(instrument);
    report.price = price;
    report.size = size;
    report.conditions = conditions;
    report.trade_through_exempt = trade_through_exempt;
    report.consolidated_change = change_indicator(before, consolidated_statistics(instrument));
    report.participant_change = change_indicator(participant_before, statistics_of(stats));
    const bool short_form =
        has_short_symbol(instrument) && price >= 0 && price <= short_price_max && conditions[0] != 'R';
    build_trade(engine.writer, report, short_form);
    const std::uint64_t sequence = publish_message(engine);
    ++counters.trades;

    TradeRecord trade;
    trade.market_center = market_center;
    trade.sub_market_center = sub_market_center;
    trade.trade_through_exempt = trade_through_exempt;
    std::memcpy(trade.conditions.data(), conditions, trade.conditions.size());
    trade.trade_id = report.trade_id;
    trade.price = price;
    trade.size = size;
    keep_trade(instrument, trade);
    write_trade_line(engine.truth, instrument, sequence, price, shares, market_center, conditions,
                     static_cast<int>(kind), report.trade_id);
    if (kind == TradeKind::cross) {
        ++counters.cross_prints;
    }
    revise_after_trade(engine, instrument, participant_time);
}

void maybe_exchange_print(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns) {
    Random& rng = *engine.rng;
    FeedStats& counters = engine.scenario->stats;
    const std::uint64_t trades = next_u64(rng);
    if (trades >= half_chance || instrument.nbbo.bid == 0 || instrument.nbbo.ask == 0) {
        return;
    }
    const std::uint64_t side = next_u64(rng);
    const bool hits_bid = side < half_chance;
    const char market_center =
        hits_bid ? instrument.nbbo.bid_market_center : instrument.nbbo.ask_market_center;
    const std::int64_t price = hits_bid ? instrument.nbbo.bid : instrument.nbbo.ask;
    if (market_center == adf_market_center || market_center == ' ') {
        return;
    }
    const std::uint64_t kind = next_u64(rng);
    if (kind < odd_lot_threshold) {
        const std::int64_t shares = uniform_int(rng, 1, odd_lot_max);
        record_trade(engine, instrument, market_center, ' ', price, static_cast<std::uint64_t>(shares),
                     "@  I", ' ', now_ns, TradeKind::exchange);
        ++counters.odd_lot_prints;
    } else {
        const bool sweep = kind < sweep_threshold;
        const std::int64_t lots = uniform_int(rng, 1, exchange_lots_max);
        record_trade(engine, instrument, market_center, ' ', price,
                     static_cast<std::uint64_t>(lots * round_lot), sweep ? "@F  " : "@   ", sweep ? 'X' : ' ',
                     now_ns, TradeKind::exchange);
        if (sweep) {
            ++counters.sweeps;
        }
    }
    ++counters.exchange_prints;
}

void trf_print(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns) {
    Random& rng = *engine.rng;
    FeedStats& counters = engine.scenario->stats;
    std::int64_t price = reference_price(instrument);
    if (instrument.nbbo.bid != 0 && instrument.nbbo.ask != 0) {
        // Stale quotes can cross the market; the print then lies between the two all the same.
        const std::int64_t bid_cents = instrument.nbbo.bid / cent;
        const std::int64_t ask_cents = instrument.nbbo.ask / cent;
        price = uniform_int(rng, std::min(bid_cents, ask_cents), std::max(bid_cents, ask_cents)) * cent;
    }
    const std::int64_t lots = uniform_int(rng, 1, trf_lots_max);
    const char sub_market_center = trf_letters[counters.trf_prints % trf_letters.size()];
    record_trade(engine, instrument, adf_market_center, sub_market_center, price,
                 static_cast<std::uint64_t>(lots * round_lot), "@   ", ' ', now_ns, TradeKind::trf);
    ++counters.trf_prints;
}

void reopening_cross(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns) {
    record_trade(engine, instrument, cross_market_center, ' ', cross_price(instrument), reopening_shares,
                 "@5  ", ' ', now_ns, TradeKind::cross);
}

void closing_cross(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns) {
    const std::int64_t price = cross_price(instrument);
    record_trade(engine, instrument, cross_market_center, ' ', price, closing_shares, "@6  ", ' ', now_ns,
                 TradeKind::cross);
    record_trade(engine, instrument, cross_market_center, ' ', price, 0, "@  M", ' ', now_ns,
                 TradeKind::cross);
}

void opening_cross(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns) {
    // Only the bid is asked for: with a bid and no ask the "midpoint" is half the bid.
    const std::int64_t price = instrument.nbbo.bid != 0
                                   ? (instrument.nbbo.bid + instrument.nbbo.ask) / (2 * cent) * cent
                                   : reference_price(instrument);
    record_trade(engine, instrument, cross_market_center, ' ', price, opening_shares, "@O  ", ' ', now_ns,
                 TradeKind::cross);
}

}  // namespace tessel
