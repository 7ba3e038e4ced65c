#include "app/scenario_events.h"

#include "engine/circuit_breaker.h"
#include "engine/halts.h"
#include "engine/luld.h"

#include <algorithm>

namespace tessel {

namespace {

bool is_due(std::uint32_t after_seconds, bool fired, std::uint64_t elapsed_seconds) {
    return !fired && after_seconds <= elapsed_seconds;
}

}  // namespace

void fire_scenario_events(SipEngine& engine, ScenarioMarks& marks, std::uint64_t start_ms,
                          std::uint64_t now_ms) {
    const Scenario& scenario = *engine.scenario;
    const std::uint64_t elapsed = (now_ms - start_ms) / 1000;
    InstrumentList& instruments = engine.instruments;
    if (scenario.halt_after != 0 && is_due(scenario.halt_after, marks.halt_fired, elapsed)) {
        marks.halt_fired = true;
        if (!instruments.empty()) {
            halt_instrument(engine, instruments[0], "T1", scenario.halt_secs);
        }
    }
    if (scenario.pause_after != 0 && is_due(scenario.pause_after, marks.pause_fired, elapsed)) {
        marks.pause_fired = true;
        // Not the instrument of the halt, as long as there is another.
        if (!instruments.empty()) {
            luld_pause(engine, instruments[instruments.size() > 1 ? 1 : 0], scenario.pause_secs);
        }
    }
    if (scenario.mwcb_level != 0 && is_due(scenario.mwcb_after, marks.mwcb_fired, elapsed)) {
        marks.mwcb_fired = true;
        breach_mwcb(engine, scenario.mwcb_level);
    }
    if (scenario.band_every != 0) {
        for (Instrument& instrument : instruments) {
            if (instrument.band_due_ms == 0) {
                instrument.band_due_ms = now_ms + std::uint64_t{scenario.band_every} * 1000;
            }
        }
    }
}

std::uint64_t next_scenario_event_ms(const Scenario& scenario, const ScenarioMarks& marks,
                                     std::uint64_t start_ms) {
    std::uint64_t due = UINT64_MAX;
    const auto consider = [&due, start_ms](bool wanted, bool fired, std::uint32_t after_seconds) {
        if (wanted && !fired) {
            due = std::min(due, start_ms + std::uint64_t{after_seconds} * 1000);
        }
    };
    consider(scenario.halt_after != 0, marks.halt_fired, scenario.halt_after);
    consider(scenario.pause_after != 0, marks.pause_fired, scenario.pause_after);
    consider(scenario.mwcb_level != 0, marks.mwcb_fired, scenario.mwcb_after);
    return due;
}

}  // namespace tessel
