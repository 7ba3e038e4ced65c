#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tessel {

// One counter for each kind of market event, all 0 at start, only ever incremented. The order here is the
// stored order; the printed order (app/reports) puts nbbo_changes and sip_generated third and fourth.
struct FeedStats {
    std::uint64_t quotes = 0;
    std::uint64_t adf_quotes = 0;
    std::uint64_t trades = 0;
    std::uint64_t exchange_prints = 0;
    std::uint64_t trf_prints = 0;
    std::uint64_t cross_prints = 0;
    std::uint64_t odd_lot_prints = 0;
    std::uint64_t sweeps = 0;
    std::uint64_t cancels = 0;
    std::uint64_t errors = 0;
    std::uint64_t corrections = 0;
    std::uint64_t asofs = 0;
    std::uint64_t bands = 0;
    std::uint64_t halts = 0;
    std::uint64_t pauses = 0;
    std::uint64_t quote_resumes = 0;
    std::uint64_t trade_resumes = 0;
    std::uint64_t mwcb = 0;
    std::uint64_t collars = 0;
    std::uint64_t wipeouts = 0;
    std::uint64_t snapshots = 0;
    std::uint64_t snapshot_rejects = 0;
    std::uint64_t nbbo_changes = 0;
    std::uint64_t sip_generated = 0;
};

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

// The line that tells what was understood, without its prefix handling: "bench: scenario '...' armed
// (...)\n".
std::string armed_line(const Scenario& scenario);

// Reads TESSEL_SCENARIO and, when it is set and not empty, prints the armed line to standard error.
Scenario read_scenario();

}  // namespace tessel
