#include "engine/luld.h"

#include "engine/publication.h"
#include "engine/quotes.h"
#include "engine/trading_action.h"
#include "output/quote_line.h"
#include "wire/admin_messages.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace tessel {

namespace {

constexpr std::uint64_t ms_per_second = 1000;
constexpr std::int64_t band_divisor = 20;    // 5 %
constexpr std::int64_t stale_divisor = 100;  // 1 %

std::int64_t cut_to_cents(std::int64_t price) {
    return price / cent * cent;
}

double to_dollars(std::int64_t price) {
    return static_cast<double>(price) / 1'000'000.0;
}

// What follows the sequence number in the pause's "bench:" line.
std::string collar_text(const Band& collar, std::uint32_t seconds) {
    std::array<char, 96> text;  // a price has at most 14 characters
    std::snprintf(text.data(), text.size(), " (collar %.2f / %.2f), resuming in %u s",
                  to_dollars(collar.lower), to_dollars(collar.upper), seconds);
    return text.data();
}

void send_collar(SipEngine& engine, Instrument& instrument, const Band& collar, std::uint64_t time_ns) {
    const AdminTimes times{wall_ns(*engine.clock), time_ns};
    build_collar(engine.writer, times, wire_symbol(instrument), instrument.action_seq, collar.reference,
                 collar.upper, collar.lower);
    publish_message(engine);
    ++engine.scenario->stats.collars;
}

}  // namespace

Band band_around(std::int64_t reference) {
    const std::int64_t width = reference / band_divisor;
    return {reference, cut_to_cents(reference - width), cut_to_cents(reference + width)};
}

void send_band(SipEngine& engine, Instrument& instrument, char indicator, std::uint64_t time_ns) {
    if (indicator != 'D') {
        const Band band = band_around(reference_price(instrument));
        instrument.luld_ref = band.reference;
        instrument.luld_lower = band.lower;
        instrument.luld_upper = band.upper;
    }
    instrument.band_indicator = indicator;
    const AdminTimes times{wall_ns(*engine.clock), time_ns};
    build_price_band(engine.writer, times, wire_symbol(instrument), indicator, time_ns, instrument.luld_lower,
                     instrument.luld_upper);
    const std::uint64_t sequence = publish_message(engine);
    ++engine.scenario->stats.bands;
    if (engine.scenario->band_every != 0) {
        instrument.band_due_ms = steady_ms(*engine.clock) + engine.scenario->band_every * ms_per_second;
    }
    write_band_line(engine.truth, instrument, sequence, indicator);
}

bool band_is_stale(const Instrument& instrument) {
    return instrument.luld_ref != 0 &&
           instrument.luld_ref <= stale_divisor * std::abs(reference_price(instrument) - instrument.luld_ref);
}

void luld_pause(SipEngine& engine, Instrument& instrument, std::uint32_t seconds) {
    const std::uint64_t now_ns = wall_ns(*engine.clock);
    send_trading_action(engine, instrument, 'P', "LUDP", now_ns);
    empty_all_quotes(engine, instrument, now_ns);
    ++engine.scenario->stats.pauses;
    send_band(engine, instrument, 'D', now_ns);
    const Band collar = band_around(reference_price(instrument));
    send_collar(engine, instrument, collar, now_ns);
    instrument.quote_resume_ms = seconds == 0 ? 0 : steady_ms(*engine.clock) + seconds * ms_per_second;
    instrument.trade_resume_ms = 0;
    announce(engine, instrument.symbol + " LULD pause", collar_text(collar, seconds));
    flush_messages(engine);
}

}  // namespace tessel
