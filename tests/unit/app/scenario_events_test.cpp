#include "app/scenario_events.h"

#include "engine/tick.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

namespace tessel {
namespace {

using testing::MarketOptions;
using testing::TestMarket;

// A market after its start of day, with the loop's part of the scenario: each pass is 100 ms, fires what is
// due and runs a tick.
struct Script {
    explicit Script(const MarketOptions& options) : market(options) {
        market.start_of_day();
        start_ms = market.clock.simulated_steady_ms;
    }
    void fire() {
        fire_scenario_events(market.engine, marks, start_ms, market.clock.simulated_steady_ms);
    }
    void pass() {
        market.advance_ms(100);
        fire();
        run_tick(market.engine, market.clock.simulated_steady_ms);
    }
    void passes(int count) {
        for (int done = 0; done < count; ++done) {
            pass();
        }
    }
    testing::StderrCapture log;
    TestMarket market;
    ScenarioMarks marks;
    std::uint64_t start_ms = 0;
};

TEST(ScenarioEvents, HaltAfter_ComesAfterItsSecondsAndLastsTheDefaultEight) {
    Script script({.scenario = "halt_after=3"});
    script.passes(29);
    EXPECT_EQ(script.market.at(0).status, 'T');
    script.pass();
    EXPECT_EQ(script.market.at(0).status, 'H');
    EXPECT_EQ(script.market.at(0).halt_reason, "T1");
    EXPECT_EQ(script.market.at(1).status, 'T');
    EXPECT_NE(script.log.take().find(", resuming in 8 s\n"), std::string::npos);
    script.passes(79);
    EXPECT_EQ(script.market.at(0).status, 'H');
    script.pass();
    EXPECT_EQ(script.market.at(0).status, 'Q');
    script.passes(20);
    EXPECT_EQ(script.market.at(0).status, 'T');
    EXPECT_EQ(script.market.scenario.stats.halts, 1u);
}

TEST(ScenarioEvents, LateLoop_SecondsCountFromItsStart) {
    Script script({.scenario = "halt_after=3"});
    script.start_ms += 1;  // the loop was entered a millisecond later
    script.market.advance_ms(3000);
    script.fire();
    EXPECT_EQ(script.market.at(0).status, 'T') << "2,999 ms are two whole seconds";
    script.market.advance_ms(1);
    script.fire();
    EXPECT_EQ(script.market.at(0).status, 'H');
}

TEST(ScenarioEvents, PauseWithThreeInstruments_TakesTheSecond) {
    Script script({.scenario = "pause_after=2,pause_secs=1"});
    script.passes(20);
    EXPECT_EQ(script.market.at(0).status, 'T');
    EXPECT_EQ(script.market.at(1).status, 'P');
    EXPECT_EQ(script.market.at(2).status, 'T');
    script.passes(10);
    EXPECT_EQ(script.market.at(1).status, 'Q');
}

TEST(ScenarioEvents, PauseWithExactlyTwoInstruments_TakesTheSecond) {
    Script script({.symbols = "A:10,B:20", .scenario = "pause_after=1"});
    script.passes(10);
    EXPECT_EQ(script.market.at(0).status, 'T');
    EXPECT_EQ(script.market.at(1).status, 'P');
}

TEST(ScenarioEvents, PauseWithASingleInstrument_TakesThatOne) {
    Script script({.symbols = "IBM:100", .scenario = "pause_after=2"});
    script.passes(20);
    EXPECT_EQ(script.market.at(0).status, 'P');
}

TEST(ScenarioEvents, ZeroSeconds_NoAutomaticEnd) {
    Script script({.scenario = "halt_after=1,halt_secs=0,pause_after=1,pause_secs=0"});
    script.passes(600);
    EXPECT_EQ(script.market.at(0).status, 'H');
    EXPECT_EQ(script.market.at(1).status, 'P');
}

TEST(ScenarioEvents, BreakerTimeWithoutALevel_ArmsNothing) {
    Script script({.scenario = "mwcb_after=1"});
    script.passes(50);
    EXPECT_EQ(script.market.scenario.stats.mwcb, 0u);
    EXPECT_FALSE(script.marks.mwcb_fired);
}

TEST(ScenarioEvents, BreakerLevelAlone_ComesAfterTenSeconds) {
    Script script({.scenario = "mwcb_level=2"});
    script.passes(99);
    EXPECT_EQ(script.market.scenario.stats.mwcb, 0u);
    script.pass();
    EXPECT_EQ(script.market.scenario.stats.mwcb, 1u);
    for (const Instrument& instrument : script.market.engine.instruments) {
        EXPECT_EQ(instrument.status, 'H');
        EXPECT_EQ(instrument.halt_reason, "MWC2");
    }
}

TEST(ScenarioEvents, BreakerAfterZeroSeconds_ComesInTheFirstPass) {
    Script script({.scenario = "mwcb_level=3,mwcb_after=0"});
    script.fire();
    EXPECT_EQ(script.market.scenario.stats.mwcb, 1u);
}

TEST(ScenarioEvents, SixtySeconds_EachEventFiresOnce) {
    Script script(
        {.scenario = "halt_after=1,halt_secs=1,pause_after=1,pause_secs=1,mwcb_level=1,mwcb_after=20"});
    script.passes(600);
    EXPECT_EQ(script.market.scenario.stats.pauses, 1u);
    EXPECT_EQ(script.market.scenario.stats.mwcb, 1u);
    EXPECT_EQ(script.market.scenario.stats.halts, 4u) << "one scripted, three by the breaker";
    EXPECT_EQ(script.market.scenario.stats.quote_resumes, 5u);
    EXPECT_EQ(script.market.scenario.stats.trade_resumes, 5u);
}

TEST(ScenarioEvents, BandEvery_FirstTimeIsSetOnceAndThenByTheBands) {
    Script script({.scenario = "band_every=2"});
    // The start of day published a band for each instrument, which set its next time.
    for (Instrument& instrument : script.market.engine.instruments) {
        EXPECT_EQ(instrument.band_due_ms, script.start_ms + 2000);
        instrument.band_due_ms = 0;
    }
    script.market.advance_ms(100);
    script.fire();
    EXPECT_EQ(script.market.at(0).band_due_ms, script.start_ms + 2100);
    script.market.at(1).band_due_ms = 5;
    script.market.advance_ms(100);
    script.fire();
    EXPECT_EQ(script.market.at(0).band_due_ms, script.start_ms + 2100) << "no second seeding";
    EXPECT_EQ(script.market.at(1).band_due_ms, 5u);
    const std::uint64_t before = script.market.scenario.stats.bands;
    script.passes(45);
    EXPECT_GE(script.market.scenario.stats.bands, before + 6) << "two periods, three instruments";
}

TEST(ScenarioEvents, NoInstruments_HaltAndPauseOnlySetTheirMarks) {
    Script script(
        {.symbols = "", .scenario = "halt_after=1,pause_after=1,mwcb_level=1,mwcb_after=1,band_every=1"});
    const std::uint64_t before = script.market.last();
    script.market.advance_ms(1000);
    script.fire();
    EXPECT_TRUE(script.marks.halt_fired);
    EXPECT_TRUE(script.marks.pause_fired);
    EXPECT_EQ(script.market.scenario.stats.halts, 0u);
    EXPECT_EQ(script.market.scenario.stats.pauses, 0u);
    EXPECT_EQ(script.market.letters_of(before + 1, script.market.last()), std::vector<std::string>{"ADE "});
}

TEST(ScenarioEvents, SeveralEventsToCome_NextTimeIsTheEarliest) {
    const Scenario none;
    ScenarioMarks marks;
    EXPECT_EQ(next_scenario_event_ms(none, marks, 500), UINT64_MAX);
    const Scenario set = parse_scenario("halt_after=7,pause_after=3,mwcb_level=2,mwcb_after=0,band_every=1");
    EXPECT_EQ(next_scenario_event_ms(set, marks, 500), 500u);
    marks.mwcb_fired = true;
    EXPECT_EQ(next_scenario_event_ms(set, marks, 500), 3500u);
    marks.pause_fired = true;
    EXPECT_EQ(next_scenario_event_ms(set, marks, 500), 7500u);
    marks.halt_fired = true;
    EXPECT_EQ(next_scenario_event_ms(set, marks, 500), UINT64_MAX);
}

}  // namespace
}  // namespace tessel
