#include "engine/sip_engine.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace tessel {

namespace {

// The distinct letters of a text, in the order of their byte values.
std::string distinct_letters(std::string text) {
    const auto before = [](char left, char right) {
        return static_cast<unsigned char>(left) < static_cast<unsigned char>(right);
    };
    std::sort(text.begin(), text.end(), before);
    text.erase(std::unique(text.begin(), text.end()), text.end());
    return text;
}

// Gives every instrument its slots, all in two arrays, so that an instrument's quotes lie side by side.
void assign_slots(SipEngine& engine) {
    const std::string quoting = distinct_letters(engine.participants);
    // Crosses print on 'Q' and TRF prints on 'D' whoever quotes.
    const std::string trading = distinct_letters(engine.participants + "QD");
    engine.quotes.assign(engine.instruments.size() * quoting.size(), {});
    const std::size_t blocks = quote_blocks(quoting.size());
    engine.quote_blocks.assign(engine.instruments.size() * blocks, empty_quote_block());
    engine.trade_stats.assign(engine.instruments.size() * trading.size(), {});
    for (std::size_t at = 0; at < engine.instruments.size(); ++at) {
        Instrument& instrument = engine.instruments[at];
        instrument.quotes = engine.quotes.data() + at * quoting.size();
        instrument.quote_slots = quoting.size();
        instrument.blocks = engine.quote_blocks.data() + at * blocks;
        instrument.trade_stats = engine.trade_stats.data() + at * trading.size();
        instrument.trade_slots = trading.size();
        for (std::size_t slot = 0; slot < quoting.size(); ++slot) {
            instrument.quotes[slot].market_center = quoting[slot];
        }
        for (std::size_t slot = 0; slot < trading.size(); ++slot) {
            instrument.trade_stats[slot].market_center = trading[slot];
        }
    }
    engine.slot_letters = quoting;
    engine.participant_slots.clear();
    for (const char letter : engine.participants) {
        engine.participant_slots.push_back(static_cast<std::uint16_t>(quoting.find(letter)));
    }
    engine.trade_slot.fill(-1);
    for (std::size_t slot = 0; slot < trading.size(); ++slot) {
        engine.trade_slot[static_cast<unsigned char>(trading[slot])] = static_cast<std::int16_t>(slot);
    }
}

}  // namespace

void init_engine(SipEngine& engine, MoldPublisher& publisher, Random& rng, Scenario& scenario, Clock& clock,
                 const std::string& participants, double step_bps, bool quiet) {
    engine.publisher = &publisher;
    engine.rng = &rng;
    engine.scenario = &scenario;
    engine.clock = &clock;
    engine.participants = participants;
    engine.step_bps = step_bps;
    engine.quiet = quiet;
}

bool add_instruments(SipEngine& engine, const std::string& symbols_text, std::string& error) {
    // Reserves space for all of them: the array would otherwise be moved, and the kernel's large pages with
    // it.
    engine.instruments.reserve(
        static_cast<std::size_t>(std::count(symbols_text.begin(), symbols_text.end(), ',')) + 1);
    if (!build_instruments(symbols_text, engine.instruments, error)) {
        return false;
    }
    assign_slots(engine);
    return true;
}

Instrument* find_instrument(SipEngine& engine, std::string_view symbol) {
    for (Instrument& instrument : engine.instruments) {
        if (instrument.symbol == symbol) {
            return &instrument;
        }
    }
    std::fprintf(stderr, "bench: unknown symbol '%.*s'\n", static_cast<int>(symbol.size()), symbol.data());
    return nullptr;
}

std::uint16_t draw_participant(SipEngine& engine) {
    const auto last = static_cast<std::int64_t>(engine.participant_slots.size()) - 1;
    const std::int64_t index = uniform_int(*engine.rng, 0, last);
    return engine.participant_slots[static_cast<std::size_t>(index)];
}

}  // namespace tessel
