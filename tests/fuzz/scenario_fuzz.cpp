// Any text of TESSEL_SCENARIO: it is understood as its entries say, and a market plays it.

#include "app/scenario_events.h"
#include "engine/scenario.h"
#include "fuzz_check.h"
#include "support/feed_follower.h"
#include "support/market_difference.h"
#include "support/test_market.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace tessel;
using fuzz::check;

constexpr std::size_t steps = 24;
constexpr std::uint64_t step_ms = 700;

struct Key {
    const char* word;
    std::uint32_t by_default;
    std::uint32_t Scenario::*field;
};

constexpr Key keys[] = {
    {"halt_after", 0, &Scenario::halt_after},       {"halt_secs", 8, &Scenario::halt_secs},
    {"pause_after", 0, &Scenario::pause_after},     {"pause_secs", 8, &Scenario::pause_secs},
    {"band_every", 0, &Scenario::band_every},       {"trf_every", 0, &Scenario::trf_every},
    {"cancel_every", 0, &Scenario::cancel_every},   {"correct_every", 0, &Scenario::correct_every},
    {"mwcb_level", 0, &Scenario::mwcb_level},       {"mwcb_after", 10, &Scenario::mwcb_after},
    {"odd_lot_every", 9, &Scenario::odd_lot_every}, {"asof_every", 0, &Scenario::asof_every}};

// A number as the standard library reads it, its low 32 bits kept; 0 for what is none.
std::uint32_t number_of(const std::string& text) {
    try {
        return static_cast<std::uint32_t>(std::stoul(text));
    } catch (const std::logic_error&) {
        return 0;
    }
}

// Holds what was understood against the text, read a second time: the last entry of a key counts.
void check_understood(const Scenario& scenario, std::string_view text) {
    std::map<std::string, std::string> entries;
    while (!text.empty()) {
        const std::string entry = fuzz::take_piece(text, ',');
        const std::size_t equals = entry.find('=');
        if (equals != std::string::npos) {
            entries[entry.substr(0, equals)] = entry.substr(equals + 1);
        }
    }
    check(scenario.name == entries["name"], "the name");
    for (const Key& key : keys) {
        const auto found = entries.find(key.word);
        const std::uint32_t expected = found == entries.end() ? key.by_default : number_of(found->second);
        check(scenario.*key.field == expected, key.word);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Scenario scenario = parse_scenario(text);
    check_understood(scenario, text);
    check(armed_line(scenario).ends_with(" trades)\n"), "the line reports all of it");

    testing::TestMarket market(
        {.symbols = "AAPL:190.00,LONGNAMES:700", .participants = "QND", .scenario = text});
    testing::FeedFollower follower = testing::make_follower("AAPL:190.00,LONGNAMES:700");
    ScenarioMarks marks;
    const std::uint64_t start_ms = market.clock.simulated_steady_ms;
    market.start_of_day();
    for (std::size_t step = 0; step < steps; ++step) {
        fire_scenario_events(market.engine, marks, start_ms, market.clock.simulated_steady_ms + step_ms);
        market.run_ticks(1, step_ms);
    }
    std::vector<testing::Bytes> messages;
    testing::read_history(market.publisher.history, 1, messages);
    const std::string truth = market.truth_text();
    testing::TruthReader reader{truth};
    std::string_view line;
    for (std::size_t at = 0; at < messages.size(); ++at) {
        const std::string wrong = testing::follow(follower, at + 1, messages[at].data(), messages[at].size());
        check(wrong.empty(), wrong);
        if (testing::has_line(follower)) {
            check(testing::next_line(reader, line), "a message without its truth line");
            const std::string difference = testing::line_difference(follower, line);
            check(difference.empty(), difference);
        }
    }
    check(!testing::next_line(reader, line), "a truth line without a message");
    const std::string difference = testing::engine_difference(market.engine, follower.market);
    check(difference.empty(), difference);
    return 0;
}
