#include "engine/halts.h"

#include "engine/luld.h"
#include "engine/publication.h"
#include "engine/quotes.h"
#include "engine/trades.h"
#include "engine/trading_action.h"

#include <string>

namespace tessel {

namespace {

constexpr std::uint64_t ms_per_second = 1000;

std::string_view resumption_reason(const Instrument& instrument) {
    if (instrument.halt_reason == "LUDP") {
        return "LUDP";
    }
    return instrument.halt_reason.starts_with("MWC") ? "MWCQ" : "T3";
}

}  // namespace

void halt_instrument(SipEngine& engine, Instrument& instrument, std::string_view reason,
                     std::uint32_t seconds) {
    const std::uint64_t now_ns = wall_ns(*engine.clock);
    send_trading_action(engine, instrument, 'H', reason, now_ns);
    empty_all_quotes(engine, instrument, now_ns);
    ++engine.scenario->stats.halts;
    instrument.trade_resume_ms = 0;
    instrument.quote_resume_ms = seconds == 0 ? 0 : steady_ms(*engine.clock) + seconds * ms_per_second;
    if (instrument.luld_lower != 0) {
        send_band(engine, instrument, 'D', now_ns);
    }
    const std::string suffix =
        seconds == 0 ? std::string() : ", resuming in " + std::to_string(seconds) + " s";
    announce(engine, instrument.symbol + " halted (" + std::string(reason) + ")", suffix);
    flush_messages(engine);
}

void resume_quotation(SipEngine& engine, Instrument& instrument, std::uint64_t time_ns) {
    send_trading_action(engine, instrument, 'Q', resumption_reason(instrument), time_ns);
    ++engine.scenario->stats.quote_resumes;
    for (const std::uint16_t slot : engine.participant_slots) {
        update_participant_quote(engine, instrument, slot, time_ns, ' ');
    }
    if (instrument.band_indicator == 'D') {
        send_band(engine, instrument, 'E', time_ns);
    }
    instrument.quote_resume_ms = 0;
    instrument.trade_resume_ms = steady_ms(*engine.clock) + trade_resume_after_ms;
    announce(engine, instrument.symbol + " quotation resumption");
}

void resume_trading(SipEngine& engine, Instrument& instrument, std::uint64_t time_ns) {
    send_trading_action(engine, instrument, 'T', instrument.halt_reason, time_ns);
    ++engine.scenario->stats.trade_resumes;
    instrument.trade_resume_ms = 0;
    reopening_cross(engine, instrument, time_ns);
    announce(engine, instrument.symbol + " trading resumption");
}

}  // namespace tessel
