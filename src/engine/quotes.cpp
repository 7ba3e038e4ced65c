#include "engine/quotes.h"

#include "engine/publication.h"
#include "engine/quote_record.h"
#include "market/luld_indicator.h"
#include "market/quote_index.h"
#include "output/quote_line.h"

namespace tessel {

namespace {

constexpr std::int64_t spread_cents_max = 3;  // a side lies 1 to 3 cents from the reference price
constexpr std::int64_t quote_lots_max = 8;    // of 100 shares
constexpr std::uint64_t one_sided_threshold = chance_threshold(0.04);
constexpr std::uint32_t short_size_max = 65534;
constexpr std::uint64_t mpid_quote_every = 7;
constexpr std::string_view mpid_quote_mpid = "VIRT";

bool fits_short(std::int64_t price) {
    // In one comparison: 0 to 655350000. Prices are whole cents always.
    return static_cast<std::uint64_t>(price) <= static_cast<std::uint64_t>(short_price_max);
}

void draw_condition(SipEngine& engine, ParticipantQuote& quote) {
    Random& rng = *engine.rng;
    quote.condition = 'R';
    const std::uint64_t one_sided = next_u64(rng);
    if (one_sided < one_sided_threshold) [[unlikely]] {
        quote.condition = 'Y';
        const std::uint64_t side = next_u64(rng);
        if (side < half_chance) {
            quote.ask = 0;
            quote.ask_size = 0;
        } else {
            quote.bid = 0;
            quote.bid_size = 0;
        }
    }
}

void draw_odd_lots(SipEngine& engine, ParticipantQuote& quote, std::int64_t cents) {
    Random& rng = *engine.rng;
    quote.has_odd_lots = true;
    quote.odd_bid = quote.bid != 0 ? quote.bid + cent : cents * cent;
    const std::int64_t bid_shares = uniform_int(rng, 1, odd_lot_max);
    quote.odd_bid_size = static_cast<std::uint8_t>(bid_shares);
    quote.odd_ask = quote.ask != 0 ? quote.ask - cent : cents * cent;
    const std::int64_t ask_shares = uniform_int(rng, 1, odd_lot_max);
    quote.odd_ask_size = static_cast<std::uint8_t>(ask_shares);
}

// The NBBO appendage indicator: "0" unchanged, "1" none, "4" this quote is the whole of it, "2"/"3" by
// appendage.
char choose_nbbo_indicator(const ParticipantQuote& quote, const Nbbo& nbbo) {
    if (is_none(nbbo)) {
        return '1';
    }
    if (is_whole_nbbo(quote, nbbo)) {
        return '4';
    }
    const bool is_short = fits_short(nbbo.bid) && fits_short(nbbo.ask) && nbbo.bid_size <= short_size_max &&
                          nbbo.ask_size <= short_size_max;
    return is_short ? '2' : '3';
}

// Counts and stores a change of the NBBO, and returns its indicator.
char refresh_nbbo(SipEngine& engine, Instrument& instrument, const ParticipantQuote& quote,
                  const Nbbo& nbbo) {
    const bool same = instrument.nbbo == nbbo;
    if (same && instrument.has_nbbo) {
        return '0';
    }
    if (!same) {
        ++engine.scenario->stats.nbbo_changes;
        instrument.nbbo = nbbo;
    }
    instrument.has_nbbo = true;
    return choose_nbbo_indicator(quote, nbbo);
}

// Stores the best odd-lot quote when it has changed, and returns its indicator: "0" unchanged or none, "1"
// gone, "5" with MPIDs, "2"/"3" without.
char refresh_best_odd_lot(Instrument& instrument, const BestOddLot& best) {
    if (is_none(best)) {
        const bool had = instrument.has_best_odd_lot;
        instrument.has_best_odd_lot = false;
        return had ? '1' : '0';
    }
    if (instrument.has_best_odd_lot && instrument.best_odd_lot == best) {
        return '0';
    }
    instrument.best_odd_lot = best;
    instrument.has_best_odd_lot = true;
    if (has_mpids(best)) {
        return '5';
    }
    return fits_short(best.bid) && fits_short(best.ask) ? '2' : '3';
}

// Whether everything that the quote carries fits the short form.
bool is_short_form(const Instrument& instrument, const ParticipantQuote& quote, const QuoteRecord& record) {
    return quote.market_center != adf_market_center && has_short_symbol(instrument) &&
           fits_short(quote.bid) && fits_short(quote.ask) && quote.bid_size <= short_size_max &&
           quote.ask_size <= short_size_max && record.nbbo_ind != '3' && record.odd_best_ind != '3' &&
           record.odd_best_ind != '5' &&
           (!quote.has_odd_lots || (fits_short(quote.odd_bid) && fits_short(quote.odd_ask)));
}

// Sets the form's indicators: in the long form every "2" becomes "3". Returns the type letter.
char choose_form(const Instrument& instrument, const ParticipantQuote& quote, QuoteRecord& record) {
    if (is_short_form(instrument, quote, record)) {
        record.odd_list_ind = record.odd_lot_count != 0 ? '2' : '0';
        return 'C';
    }
    record.nbbo_ind = record.nbbo_ind == '2' ? '3' : record.nbbo_ind;
    record.odd_best_ind = record.odd_best_ind == '2' ? '3' : record.odd_best_ind;
    record.odd_list_ind = record.odd_lot_count == 0                  ? '0'
                          : quote.market_center == adf_market_center ? '5'
                                                                     : '3';
    return 'D';
}

// A print may follow, at one of the NBBO's two centers: its statistics are asked for ahead.
void prefetch_statistics(const SipEngine& engine, const Instrument& instrument, char market_center) {
    const std::int16_t slot = engine.trade_slot[static_cast<unsigned char>(market_center)];
    if (slot >= 0) [[likely]] {
        __builtin_prefetch(instrument.trade_stats + slot, 1);
    }
}

// The firm's own quote after an ADF quote, a cent away on each side.
void publish_mpid_quote(SipEngine& engine, const Instrument& instrument, const ParticipantQuote& quote) {
    QuoteRecord record;
    record.header.market_center = adf_market_center;
    record.header.sip_time = wall_ns(*engine.clock);
    record.header.participant_time = quote.time;
    record.adf_time = quote.time;
    record.symbol = wire_symbol(instrument);
    record.bid = quote.bid - cent;
    record.ask = quote.ask + cent;
    record.bid_size = round_lot;
    record.ask_size = round_lot;
    record.condition = 'R';
    record.bid_mpid = mpid_quote_mpid;
    build_quote(engine.writer, record, 'M');
    publish_message(engine);
}

}  // namespace

void update_participant_quote(SipEngine& engine, Instrument& instrument, std::uint16_t slot,
                              std::uint64_t now_ns, char condition_override) {
    Random& rng = *engine.rng;
    ParticipantQuote& quote = instrument.quotes[slot];
    const std::int64_t cents = price_to_cents(instrument.price);
    const std::int64_t below = uniform_int(rng, 1, spread_cents_max);
    const std::int64_t above = uniform_int(rng, 1, spread_cents_max);
    const std::int64_t bid_lots = uniform_int(rng, 1, quote_lots_max);
    const std::int64_t ask_lots = uniform_int(rng, 1, quote_lots_max);
    // Every field is written, the center too, so that none has to be waited for: the line is in nobody's
    // cache.
    quote.market_center = engine.slot_letters[slot];
    quote.quoted = true;
    quote.present = true;
    quote.time = now_ns;
    quote.bid = (cents - below) * cent;
    quote.ask = (cents + above) * cent;
    quote.bid_size = static_cast<std::uint32_t>(bid_lots) * round_lot;
    quote.ask_size = static_cast<std::uint32_t>(ask_lots) * round_lot;
    if (condition_override != ' ') {
        quote.condition = condition_override;
    } else {
        draw_condition(engine, quote);
    }
    quote.has_mpids = quote.market_center == adf_market_center;
    quote.has_odd_lots = false;
    const std::uint32_t every = engine.scenario->odd_lot_every;
    if (every != 0 && (engine.scenario->stats.quotes + 1) % every == 0) {
        draw_odd_lots(engine, quote, cents);
    }
    publish_quote(engine, instrument, quote, ' ', now_ns);
}

// Flattened, the truth line and the publisher included: without inlining, calls cost 4 % of the quote path.
[[gnu::flatten]] void publish_quote(SipEngine& engine, Instrument& instrument, ParticipantQuote& quote,
                                    char sip_flag, std::uint64_t now_ns) {
    FeedStats& stats = engine.scenario->stats;
    // The engine's record is used again and again: what is not set here keeps its first value, or is read
    // only when an indicator asks for it.
    QuoteRecord& record = engine.quote_record;
    record.header.sip_time = wall_ns(*engine.clock);
    set_quote_part(record, instrument, quote, now_ns);
    record.sip_flag = sip_flag;

    index_quote(quote, instrument.blocks, static_cast<std::size_t>(&quote - instrument.quotes));
    const BestQuotes best = find_best_quotes(instrument);
    const Nbbo& nbbo = best.nbbo;
    record.nbbo_ind = refresh_nbbo(engine, instrument, quote, nbbo);
    prefetch_statistics(engine, instrument, nbbo.bid_market_center);
    prefetch_statistics(engine, instrument, nbbo.ask_market_center);
    set_nbbo_part(record, nbbo);
    record.luld_nbbo = luld_nbbo_indicator(instrument, nbbo);
    record.odd_best_ind = refresh_best_odd_lot(instrument, best.odd_lot);
    if (record.odd_best_ind > '1') {
        set_best_odd_lot_part(record, best.odd_lot);
    }
    OddLotList odd_lots;
    record.odd_lots = odd_lots.data();
    record.odd_lot_count = quote.has_odd_lots ? list_odd_lots(quote, odd_lots) : 0;

    const char type = choose_form(instrument, quote, record);
    build_quote(engine.writer, record, type);
    record.odd_lots = nullptr;
    const std::uint64_t sequence = publish_message(engine);
    ++stats.quotes;
    if (sip_flag == 'E') {
        ++stats.sip_generated;
    }
    if (engine.truth.enabled) {
        write_quote_line(engine.truth, instrument, sequence);
    }
    if (quote.market_center == adf_market_center) {
        ++stats.adf_quotes;
        if (stats.quotes % mpid_quote_every == 0 && quote.bid != 0) {
            publish_mpid_quote(engine, instrument, quote);
        }
    }
}

void empty_all_quotes(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns) {
    for (const std::uint16_t slot : engine.participant_slots) {
        ParticipantQuote& quote = instrument.quotes[slot];
        quote.quoted = true;
        quote.present = true;
        quote.bid = 0;
        quote.ask = 0;
        quote.bid_size = 0;
        quote.ask_size = 0;
        quote.condition = 'L';
        quote.time = now_ns;
        quote.has_odd_lots = false;
        publish_quote(engine, instrument, quote, ' ', now_ns);
    }
}

}  // namespace tessel
