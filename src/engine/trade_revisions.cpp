#include "engine/trade_revisions.h"

#include "engine/publication.h"
#include "market/trade_statistics.h"
#include "wire/trade_messages.h"

namespace tessel {

namespace {

constexpr std::uint64_t correction_size_step = round_lot * size_unit;
constexpr std::uint64_t as_of_shares = 300;
constexpr std::int64_t as_of_below_reference = 3 * cent;
constexpr std::uint64_t day_ns = 86'400'000'000'000;
constexpr std::uint64_t error_every = 4;  // every fourth cancel is reported as an error

// Crosses, sweeps and the official close are never canceled; odd lots can be.
bool can_cancel(const TradeRecord& trade) {
    return trade.live && trade.conditions[1] == ' ' && trade.conditions[3] != 'M';
}

// Regular trades only.
bool can_correct(const TradeRecord& trade) {
    return trade.live && trade.conditions[1] == ' ' && trade.conditions[3] == ' ';
}

// Newest trade of the history that passes; null when none does. O(trades) at worst, at most 100,000.
TradeRecord* newest_trade(Instrument& instrument, bool (*passes)(const TradeRecord&)) {
    for (auto trade = instrument.trades.rbegin(); trade != instrument.trades.rend(); ++trade) {
        if (passes(*trade)) {
            return &*trade;
        }
    }
    return nullptr;
}

MessageHeader revision_header(SipEngine& engine, const TradeRecord& trade, std::uint64_t participant_time) {
    MessageHeader header;
    header.market_center = trade.market_center;
    header.sub_market_center = trade.sub_market_center;
    header.sip_time = wall_ns(*engine.clock);
    header.participant_time = participant_time;
    return header;
}

}  // namespace

void cancel_trade(SipEngine& engine, Instrument& instrument, std::uint64_t participant_time) {
    TradeRecord* const trade = newest_trade(instrument, can_cancel);
    if (trade == nullptr) {
        return;
    }
    trade->live = false;
    recompute_statistics(instrument);
    FeedStats& counters = engine.scenario->stats;
    const bool is_error = (counters.cancels + counters.errors) % error_every == error_every - 1;

    CancelRecord record;
    record.header = revision_header(engine, *trade, participant_time);
    record.trf_time = trade->market_center == adf_market_center ? participant_time : 0;
    record.symbol = wire_symbol(instrument);
    record.function = is_error ? 'E' : 'C';
    record.trade_id = trade->trade_id;
    record.price = trade->price;
    record.size = trade->size;
    record.conditions = trade->conditions.data();
    record.trade_through_exempt = trade->trade_through_exempt;
    record.consolidated = consolidated_statistics(instrument);
    record.last_market_center = instrument.last_market_center;
    record.participant = participant_statistics(instrument, trade->market_center);
    build_cancel(engine.writer, record);
    const std::uint64_t sequence = publish_message(engine);
    ++(is_error ? counters.errors : counters.cancels);
    write_cancel_line(engine.truth, instrument, sequence, trade->trade_id, trade->price,
                      trade->size / size_unit, trade->market_center, record.function);
}

void correct_trade(SipEngine& engine, Instrument& instrument, std::uint64_t participant_time) {
    TradeRecord* const found = newest_trade(instrument, can_correct);
    if (found == nullptr) {
        return;
    }
    const TradeRecord old_trade = *found;
    TradeRecord new_trade = old_trade;
    new_trade.trade_id = next_trade_id(instrument, find_trade_stats(instrument, old_trade.market_center),
                                       old_trade.market_center, old_trade.sub_market_center);
    Random& rng = *engine.rng;
    const std::uint64_t what = next_u64(rng);
    if (what < half_chance) {
        const std::uint64_t direction = next_u64(rng);
        new_trade.price += direction < half_chance ? cent : -cent;
    } else {
        new_trade.size += correction_size_step;
    }
    found->live = false;
    instrument.trades.push_back(new_trade);
    recompute_statistics(instrument);

    CorrectionRecord record;
    record.header = revision_header(engine, old_trade, participant_time);
    record.trf_time = old_trade.market_center == adf_market_center ? participant_time : 0;
    record.symbol = wire_symbol(instrument);
    record.old_trade_id = old_trade.trade_id;
    record.old_price = old_trade.price;
    record.old_size = old_trade.size;
    record.new_trade_id = new_trade.trade_id;
    record.new_price = new_trade.price;
    record.new_size = new_trade.size;
    record.conditions = old_trade.conditions.data();
    record.trade_through_exempt = old_trade.trade_through_exempt;
    record.consolidated = consolidated_statistics(instrument);
    record.last_market_center = instrument.last_market_center;
    record.participant = participant_statistics(instrument, old_trade.market_center);
    build_correction(engine.writer, record);
    const std::uint64_t sequence = publish_message(engine);
    write_correction_line(engine.truth, instrument, sequence, old_trade.trade_id, new_trade.trade_id,
                          new_trade.price, new_trade.size / size_unit, old_trade.market_center);
    ++engine.scenario->stats.corrections;
}

void emit_asof(SipEngine& engine, Instrument& instrument) {
    const std::uint64_t now_ns = wall_ns(*engine.clock);
    AsOfRecord record;
    record.header.market_center = adf_market_center;
    record.header.sub_market_center = 'Q';
    record.header.sip_time = wall_ns(*engine.clock);
    record.header.participant_time = now_ns;
    record.trf_time = now_ns;
    record.symbol = wire_symbol(instrument);
    record.price = reference_price(instrument) - as_of_below_reference;
    record.size = as_of_shares * size_unit;
    record.execution_time_ns = now_ns - day_ns;
    build_as_of(engine.writer, record);
    const std::uint64_t sequence = publish_message(engine);
    ++engine.scenario->stats.asofs;
    write_as_of_line(engine.truth, instrument, sequence, record.price);
    flush_messages(engine);
}

}  // namespace tessel
