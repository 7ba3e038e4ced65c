#include "engine/scenario.h"

#include "base/parse_number.h"

#include <cstddef>
#include <cstdio>

namespace tessel {

namespace {

struct Key {
    std::string_view word;
    std::uint32_t Scenario::*field;
};

constexpr Key keys[] = {
    {"halt_after", &Scenario::halt_after},       {"halt_secs", &Scenario::halt_secs},
    {"pause_after", &Scenario::pause_after},     {"pause_secs", &Scenario::pause_secs},
    {"band_every", &Scenario::band_every},       {"trf_every", &Scenario::trf_every},
    {"cancel_every", &Scenario::cancel_every},   {"correct_every", &Scenario::correct_every},
    {"mwcb_level", &Scenario::mwcb_level},       {"mwcb_after", &Scenario::mwcb_after},
    {"odd_lot_every", &Scenario::odd_lot_every}, {"asof_every", &Scenario::asof_every},
};

void apply_entry(Scenario& scenario, std::string_view entry) {
    const std::size_t equals = entry.find('=');
    if (equals == std::string_view::npos) {
        return;
    }
    const std::string_view word = entry.substr(0, equals);
    const std::string value(entry.substr(equals + 1));
    if (word == "name") {
        scenario.name = value;
        return;
    }
    for (const Key& key : keys) {
        if (key.word == word) {
            scenario.*key.field = parse_count(value, 0);
            return;
        }
    }
}

}  // namespace

Scenario parse_scenario(std::string_view text) {
    Scenario scenario;
    while (!text.empty()) {
        const std::size_t comma = text.find(',');
        apply_entry(scenario, text.substr(0, comma));
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    return scenario;
}

std::string armed_line(const Scenario& scenario) {
    const auto number = [](std::uint32_t value) { return std::to_string(value); };
    return "bench: scenario '" + scenario.name + "' armed (halt after " + number(scenario.halt_after) +
           " s for " + number(scenario.halt_secs) + " s, LULD pause after " + number(scenario.pause_after) +
           " s for " + number(scenario.pause_secs) + " s, band every " + number(scenario.band_every) +
           " s, TRF print every " + number(scenario.trf_every) + " ticks, cancel every " +
           number(scenario.cancel_every) + " trades, correct every " + number(scenario.correct_every) +
           " trades, MWCB level " + number(scenario.mwcb_level) + " after " + number(scenario.mwcb_after) +
           " s, odd lot every " + number(scenario.odd_lot_every) + " quotes, as-of every " +
           number(scenario.asof_every) + " trades)\n";
}

Scenario arm_scenario(const char* text) {
    if (text == nullptr || *text == '\0') {
        return {};
    }
    Scenario scenario = parse_scenario(text);
    std::fputs(armed_line(scenario).c_str(), stderr);
    return scenario;
}

}  // namespace tessel
