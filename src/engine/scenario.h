#pragma once

#include "engine/feed_stats.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tessel {

// The settings of the scripted run, read once from TESSEL_SCENARIO. 0 turns an item off, except where said.
struct Scenario {
    std::string name;                 // free text, shown in the armed line only
    std::uint32_t halt_after = 0;     // seconds after start until the scripted halt
    std::uint32_t halt_secs = 8;      // seconds the halt lasts; 0: no automatic end
    std::uint32_t pause_after = 0;    // seconds after start until the scripted LULD pause
    std::uint32_t pause_secs = 8;     // seconds the pause lasts; 0: no automatic end
    std::uint32_t band_every = 0;     // seconds between LULD price bands of an instrument
    std::uint32_t trf_every = 0;      // ticks between periodic TRF prints
    std::uint32_t cancel_every = 0;   // trades between scripted cancels
    std::uint32_t correct_every = 0;  // trades between scripted corrections
    std::uint32_t mwcb_level = 0;     // circuit-breaker level 1 to 3
    std::uint32_t mwcb_after = 10;    // seconds after start until the breaker is declared
    std::uint32_t odd_lot_every = 9;  // quotes between odd-lot quotes
    std::uint32_t asof_every = 0;     // trades between scripted as-of trades
    FeedStats stats;
};

// Fills a record from the text of TESSEL_SCENARIO ("key=value,key=value"). Never fails: entries without '='
// and unknown keys are ignored, a bad number is 0. An empty text leaves the defaults.
Scenario parse_scenario(std::string_view text);

// The line that reports what was understood: "bench: scenario '...' armed
// (...)\n".
std::string armed_line(const Scenario& scenario);

// The scenario of a text that may be null: null or empty gives the defaults; any other text also prints the
// armed line to standard error.
Scenario arm_scenario(const char* text);

}  // namespace tessel
