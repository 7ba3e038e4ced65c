#pragma once

#include "engine/sip_engine.h"

#include <cstdint>

namespace tessel {

// Which of the scripted one-time events have fired; never reset.
struct ScenarioMarks {
    bool halt_fired = false;
    bool pause_fired = false;
    bool mwcb_fired = false;
};

// Fires what the scenario has due now: the halt of the first instrument, the LULD pause of the second (the
// first when there is only one) and the circuit breaker, each once; then gives every instrument without a
// band time its first one. Both times are steady milliseconds; start_ms is the moment from which the scenario
// counts. Without instruments a halt or pause only sets its mark.
void fire_scenario_events(SipEngine& engine, ScenarioMarks& marks, std::uint64_t start_ms,
                          std::uint64_t now_ms);

// The steady time of the next event that fire_scenario_events would fire, UINT64_MAX when there is none left.
// Bands are not among them: a tick publishes those.
std::uint64_t next_scenario_event_ms(const Scenario& scenario, const ScenarioMarks& marks,
                                     std::uint64_t start_ms);

}  // namespace tessel
