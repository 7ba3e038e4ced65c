// Any text of TESSEL_SCENARIO: what is understood can be written down and understood again, and a market
// plays it.

#include "app/scenario.h"
#include "app/scenario_events.h"
#include "fuzz_check.h"
#include "support/feed_follower.h"
#include "support/market_difference.h"
#include "support/test_market.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace tessel;
using fuzz::check;

constexpr std::size_t steps = 24;
constexpr std::uint64_t step_ms = 700;

// The keys by themselves: what the text means must not depend on the order of reading.
std::string written(const Scenario& scenario) {
    const std::pair<const char*, std::uint32_t> numbers[] = {
        {"halt_after", scenario.halt_after},       {"halt_secs", scenario.halt_secs},
        {"pause_after", scenario.pause_after},     {"pause_secs", scenario.pause_secs},
        {"band_every", scenario.band_every},       {"trf_every", scenario.trf_every},
        {"cancel_every", scenario.cancel_every},   {"correct_every", scenario.correct_every},
        {"mwcb_level", scenario.mwcb_level},       {"mwcb_after", scenario.mwcb_after},
        {"odd_lot_every", scenario.odd_lot_every}, {"asof_every", scenario.asof_every}};
    std::string text = "name=" + scenario.name;
    for (const auto& [key, value] : numbers) {
        text.append(",").append(key).append("=").append(std::to_string(value));
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Scenario scenario = parse_scenario(text);
    const std::string again = written(scenario);
    check(written(parse_scenario(again)) == again, "what is understood is understood again");
    check(armed_line(scenario).ends_with(" trades)\n"), "the line tells all of it");

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
