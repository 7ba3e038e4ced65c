#include "engine/tick.h"

#include "engine/halts.h"
#include "engine/luld.h"
#include "engine/publication.h"
#include "engine/quotes.h"
#include "engine/trades.h"

namespace tessel {

namespace {

constexpr std::uint64_t halt_quote_threshold = chance_threshold(0.3);
constexpr double basis_point = 0.0001;

// A stopped instrument now and then shows a non-firm quote; the ADF does not.
void maybe_halt_quote(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns) {
    const std::uint64_t quotes = next_u64(*engine.rng);
    if (quotes >= halt_quote_threshold || engine.participant_slots.empty()) {
        return;
    }
    const std::uint16_t slot = draw_participant(engine);
    if (instrument.quotes[slot].market_center != adf_market_center) {
        update_participant_quote(engine, instrument, slot, now_ns, 'N');
    }
}

// Runs a resumption that is due. False when the instrument stays stopped.
bool run_due_resumptions(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns,
                         std::uint64_t now_ms) {
    if (is_stopped(instrument)) {
        if (instrument.quote_resume_ms == 0 || instrument.quote_resume_ms > now_ms) {
            return false;
        }
        resume_quotation(engine, instrument, now_ns);
    }
    if (instrument.status == 'Q' && instrument.trade_resume_ms != 0 && instrument.trade_resume_ms <= now_ms) {
        resume_trading(engine, instrument, now_ns);
    }
    return true;
}

void update_quotes(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns) {
    const std::uint64_t draw = next_u64(*engine.rng);
    const int updates = draw < half_chance ? 3 : 2;
    if (engine.participant_slots.empty()) {
        return;
    }
    for (int at = 0; at < updates; ++at) {
        const std::uint16_t slot = draw_participant(engine);
        update_participant_quote(engine, instrument, slot, now_ns, ' ');
    }
}

void print_trf(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns, bool is_first) {
    const std::uint32_t every = engine.scenario->trf_every;
    if (every != 0 && engine.tick % every == 0) {
        trf_print(engine, instrument, now_ns);
    }
    if (is_first && engine.pending_trf != 0) {
        --engine.pending_trf;
        trf_print(engine, instrument, now_ns);
    }
}

void renew_band(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns, std::uint64_t now_ms) {
    const bool is_due =
        engine.scenario->band_every != 0 && instrument.band_due_ms != 0 && instrument.band_due_ms <= now_ms;
    if (band_is_stale(instrument) || is_due) {
        send_band(engine, instrument, 'B', now_ns);
    }
}

// Asks for what the step of an instrument will touch, some way ahead of it: with thousands of instruments
// none of it is in the cache any more, and the processor cannot guess the stride across two arrays.
void prefetch_instrument(const Instrument& instrument) {
    constexpr std::size_t line = 64;
    constexpr std::size_t touched_lines = 5;  // of a record
    const auto* const record = reinterpret_cast<const char*>(&instrument);
    for (std::size_t at = 0; at < touched_lines; ++at) {
        __builtin_prefetch(record + at * line, 1);
    }
}

void prefetch_index(const Instrument& instrument) {
    constexpr std::size_t line = 64;
    const auto* const block = reinterpret_cast<const char*>(instrument.blocks);
    // Without participants there is no block.
    for (std::size_t at = 0; block != nullptr && at < sizeof(QuoteBlock) / line; ++at) {
        __builtin_prefetch(block + at * line, 1);
    }
}

void step_instrument(SipEngine& engine, Instrument& instrument, NormalDeviates& deviates,
                     std::uint64_t now_ns, std::uint64_t now_ms, bool is_first) {
    if (!run_due_resumptions(engine, instrument, now_ns, now_ms)) {
        // A forced TRF print asked of a stopped instrument is lost.
        if (is_first && engine.pending_trf != 0) {
            --engine.pending_trf;
        }
        maybe_halt_quote(engine, instrument, now_ns);
        return;
    }
    if (engine.paused) {
        return;
    }
    const double deviate = normal_deviate(deviates, *engine.rng);
    instrument.price = instrument.price * (1 + ((deviate * engine.step_bps) * basis_point));
    update_quotes(engine, instrument, now_ns);
    maybe_exchange_print(engine, instrument, now_ns);
    print_trf(engine, instrument, now_ns, is_first);
    renew_band(engine, instrument, now_ns, now_ms);
}

}  // namespace

void run_tick(SipEngine& engine, std::uint64_t now_ms) {
    ++engine.tick;
    const std::uint64_t now_ns = wall_ns(*engine.clock);
    NormalDeviates deviates;
    const std::size_t count = engine.instruments.size();
    for (std::size_t at = 0; at < count; ++at) {
        if (at + 2 < count) {
            prefetch_instrument(engine.instruments[at + 2]);
        }
        if (at + 1 < count) {
            prefetch_index(engine.instruments[at + 1]);
        }
        step_instrument(engine, engine.instruments[at], deviates, now_ns, now_ms, at == 0);
    }
    flush_messages(engine);
}

}  // namespace tessel
