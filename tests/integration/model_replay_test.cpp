// Goal: the program does what the model does, byte for byte, in ordinary runs and in odd ones. Method: both
// run in memory under one simulated clock whose every reading differs from the last; after each step all that
// came out is compared: messages, datagrams, truth lines, standard error, counters, the clock readings used.

#include "support/model/replay.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace tessel::model {
namespace {

struct Run {
    std::string name;
    Options options;
    int ticks = 1000;
    bool commands = false;  // random control commands between the ticks
};

// Fails on the first difference, or passes `ticks` ticks.
void replay(const Run& run) {
    std::uint64_t steps_seed = run.options.seed;
    for (const char c : run.name) {
        steps_seed =
            steps_seed * 31 + static_cast<unsigned char>(c);  // every run has its own order of events
    }
    std::mt19937_64 random(steps_seed);
    Replay both(run.options);
    both.start_of_day();
    ASSERT_EQ(both.first_difference(), "");
    for (int i = 0; i < run.ticks; ++i) {
        both.advance_ms(random() % 50 == 0 ? random() % 2500 : 100);
        if (run.commands && random() % 8 == 0) {
            both.command(random_command(random, run.options));
        }
        both.scenario_events();
        ASSERT_EQ(both.first_difference(), "");
        if (random() % 64 != 0) {
            both.tick();
        }
        both.heartbeat();
        if (random() % 32 == 0) {
            both.compare_spin();
        }
        if (random() % 8 == 0) {
            both.compare_files();
        }
        ASSERT_EQ(both.first_difference(), "");
    }
    both.compare_spin();
    both.compare_files();
    ASSERT_EQ(both.first_difference(), "");
    ASSERT_GT(both.model.messages.size(), 0u);
}

Run with(std::string name, int ticks, bool commands, void (*change)(Options&)) {
    Run run{std::move(name), {}, ticks, commands};
    change(run.options);
    return run;
}

std::string many_letters(std::size_t count) {
    std::string letters;
    for (std::size_t i = 0; i < count; ++i) {
        letters += static_cast<char>('A' + i);  // 'A' to '|': letters, brackets, lower case
    }
    return letters;
}

constexpr char letter_ladder[] =
    "A:10,BC:20,DEF:30,GHIJ:40,KLMNO:50,PQRSTU:60,VWXYZAB:70,CDEFGHIJ:80,KLMNOPQRS:90,TUVWXYZABC:100,"
    "DEFGHIJKLMN:110,OPQRSTUVWXYZ:120";

class OrdinaryRuns : public ::testing::TestWithParam<Run> {};
class OddRuns : public ::testing::TestWithParam<Run> {};
class BusyRuns : public ::testing::TestWithParam<Run> {};

TEST_P(OrdinaryRuns, EveryByte_IsTheModels) {
    replay(GetParam());
}
TEST_P(OddRuns, EveryByte_IsTheModels) {
    replay(GetParam());
}
TEST_P(BusyRuns, EveryByte_IsTheModels) {
    replay(GetParam());
}

std::string run_name(const ::testing::TestParamInfo<Run>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    Replay, OrdinaryRuns,
    ::testing::Values(
        with("Default", 10000, false, [](Options&) {}),
        with("LongFormPrices", 2000, false,
             [](Options& o) { o.symbols = "BRKA:700000,MSFT:655.33,NVR:8000"; }),
        with("OneInstrument", 2000, false, [](Options& o) { o.symbols = "IBM"; }),
        with("TwelveInstruments", 600, false,
             [](Options& o) {
                 o.symbols = "A:1,B:2,C:4,D:8,E:16,F:32,G:64,H:128,I:256,J:512,K:1024,L:2048";
             }),
        with("AdfOnly", 2000, false, [](Options& o) { o.participants = "D"; }),
        with("RepeatedLetters", 2000, false, [](Options& o) { o.participants = "QQN"; }),
        with("OneToTwelveLetterSymbols", 600, false, [](Options& o) { o.symbols = letter_ladder; }),
        with("OddLotsEveryQuote", 2000, false, [](Options& o) { o.scenario.odd_lot_every = 1; }),
        with("LargeStep", 2000, false, [](Options& o) { o.step_bps = 150; })),
    run_name);

INSTANTIATE_TEST_SUITE_P(Replay, BusyRuns,
                         ::testing::Values(with("CommandsSeed1", 2500, true, [](Options& o) { o.seed = 1; }),
                                           with("CommandsSeed2_FullScenario", 2500, true,
                                                [](Options& o) {
                                                    o.seed = 2;
                                                    o.scenario = {2, 3, 4, 3, 1, 3, 4, 5, 2, 20, 3, 6};
                                                }),
                                           with("CommandsSeed3_EveryTradeRevised", 1000, true,
                                                [](Options& o) {
                                                    o.seed = 3;
                                                    o.scenario.cancel_every = 1;
                                                    o.scenario.correct_every = 1;
                                                    o.scenario.asof_every = 1;
                                                    o.scenario.trf_every = 1;
                                                }),
                                           with("CommandsSeed4_LongForm", 1500, true,
                                                [](Options& o) {
                                                    o.seed = 4;
                                                    o.symbols = "BRKA:700000,LONGNAMES:12.5,X:655.34";
                                                    o.scenario.odd_lot_every = 2;
                                                }),
                                           with("CommandsSeed5_AdfOnly", 1500, true,
                                                [](Options& o) {
                                                    o.seed = 5;
                                                    o.participants = "D";
                                                    o.scenario.odd_lot_every = 3;
                                                }),
                                           with("CommandsSeed6_RepeatedLetters", 1500, true,
                                                [](Options& o) {
                                                    o.seed = 6;
                                                    o.participants = "QDQND";
                                                    o.scenario.odd_lot_every = 4;
                                                }),
                                           with("CommandsSeed7_LargeStep", 1500, true,
                                                [](Options& o) {
                                                    o.step_bps = 120;
                                                    o.scenario.band_every = 2;
                                                }),
                                           with("CommandsSeed8_Faults", 1500, true,
                                                [](Options& o) {
                                                    o.seed = 8;
                                                    o.session = "SHORT";
                                                    o.faults = {7, 150, 5, 4, 0, 0, 0, 200};
                                                }),
                                           with("CommandsSeed9_ScriptedBreakerLevel3", 1500, true,
                                                [](Options& o) {
                                                    o.seed = 9;
                                                    o.scenario.mwcb_level = 3;
                                                    o.scenario.mwcb_after = 5;
                                                    o.scenario.pause_after = 1;
                                                    o.scenario.pause_secs = 0;
                                                    o.symbols = "ONE:50";
                                                }),
                                           with("CommandsSeed10_NoTruthLog", 800, true,
                                                [](Options& o) {
                                                    o.seed = 10;
                                                    o.truth = false;
                                                }),
                                           with("CommandsSeedMax_LetterLadder", 800, true,
                                                [](Options& o) {
                                                    o.seed = std::numeric_limits<std::uint64_t>::max();
                                                    o.symbols = letter_ladder;
                                                })),
                         run_name);

INSTANTIATE_TEST_SUITE_P(
    Replay, OddRuns,
    ::testing::Values(
        with("PriceNan", 300, true, [](Options& o) { o.symbols = "N:nan,A:10"; }),
        with("PriceInfinite", 300, true, [](Options& o) { o.symbols = "I:inf,J:-inf"; }),
        with("PriceHuge", 300, true, [](Options& o) { o.symbols = "H:1e300,M:9.99e9,L:1e10,S:-1e300"; }),
        with("PriceZero", 300, true, [](Options& o) { o.symbols = "Z:0,W:-0.0"; }),
        with("PriceNegative", 400, true, [](Options& o) { o.symbols = "N:-50,M:-0.01,L:-700"; }),
        with("PriceOneToThreeCents", 600, true,
             [](Options& o) {
                 o.symbols = "ONE:0.01,TWO:0.02,THREE:0.03";
                 o.scenario.odd_lot_every = 2;
             }),
        with("PriceOneToThreeCents_LargeStep", 600, true,
             [](Options& o) {
                 o.symbols = "ONE:0.01,TWO:0.02,THREE:0.03,TEN:0.1";
                 o.step_bps = 2000;
                 o.scenario.trf_every = 2;
                 o.scenario.correct_every = 2;
             }),
        with("PriceAroundTheShortFormLimit", 800, true,
             [](Options& o) {
                 o.symbols = "A:655.35,B:655.36,C:655.30,SIXLET:655.35";
                 o.scenario.odd_lot_every = 2;
             }),
        with("NoParticipants", 500, true, [](Options& o) { o.participants = ""; }),
        with("NoInstruments", 200, true,
             [](Options& o) {
                 o.symbols = "";
                 o.scenario = {1, 3, 1, 3, 1, 3, 4, 5, 2, 2, 3, 6};
             }),
        // One center and 400 openings: some have a bid only, some an ask only.
        with("OneParticipant_OneSidedOpenings", 20, true,
             [](Options& o) {
                 o.participants = "Z";
                 o.symbols = "A:10";
                 for (int i = 1; i < 400; ++i) {
                     o.symbols += ",B" + std::to_string(i) + ":" + std::to_string(i);
                 }
             }),
        with("EmptyAndTwinSymbols", 300, true, [](Options& o) { o.symbols = ",A:1,,A:2,B:30,"; }),
        with("StepZero", 300, true, [](Options& o) { o.step_bps = 0; }),
        with("StepNegative", 300, true, [](Options& o) { o.step_bps = -30; }),
        with("StepBillion", 300, true, [](Options& o) { o.step_bps = 1e9; }),
        with("StepNan", 300, true, [](Options& o) { o.step_bps = std::nan(""); }),
        with("StepInfinite", 300, true,
             [](Options& o) { o.step_bps = std::numeric_limits<double>::infinity(); }),
        with("SixtyParticipants", 400, true,
             [](Options& o) {
                 o.participants = many_letters(60);
                 o.scenario.odd_lot_every = 3;
             }),
        // A blank names a center like any other, and bytes above 127 come after the letters.
        with("ParticipantsOfOddBytes", 600, true,
             [](Options& o) {
                 o.participants = "q \xe9Q\x01";
                 o.scenario.odd_lot_every = 3;
             }),
        with("BlankParticipantOnly", 400, true, [](Options& o) { o.participants = " "; }),
        with("SymbolOfTwoHundredLetters", 200, true,
             [](Options& o) {
                 o.symbols =
                     std::string(200, 'S') + ":20," + std::string(110, 'T') + ":30," + std::string(70, 'U');
                 o.scenario.cancel_every = 2;
                 o.scenario.correct_every = 2;
             }),
        with("SessionLongerThanItsField", 200, true, [](Options& o) { o.session = "ABCDEFGHIJKLMN"; })),
    run_name);

// The oldest half of a trade history goes in one step, and what is recomputed afterwards knows only the rest.
// Around that step every trade is followed by a cancel, which carries the recomputed volume, so that one
// trade too early or too late is seen.
TEST(LongRuns, HundredThousandTrades_HistoryIsTrimmedOnTimeAndRecomputedAlike) {
    Options options;
    options.symbols = "IBM:100";
    options.truth = false;
    Replay both(options);
    const std::vector<Trade>& history = both.model.instruments[0].trades;
    both.start_of_day();
    for (int i = 0; history.size() < 99'990; ++i) {
        both.command("close IBM");
        if (i % 1000 == 0) {
            both.advance_ms(100);
            both.tick();
            ASSERT_EQ(both.first_difference(), "");
        }
    }
    for (int i = 0; i < 16; ++i) {
        both.advance_ms(100);
        both.command("trf 1");
        both.command("cancel 2");
        both.tick();
        ASSERT_EQ(both.first_difference(), "");
    }
    EXPECT_LT(history.size(), 60'000u);
    EXPECT_GE(both.model.counters.cancels, 10u);
    both.command("correct 2");
    for (int i = 0; i < 8; ++i) {
        both.advance_ms(100);
        both.command("trf 1");
        both.tick();
        ASSERT_EQ(both.first_difference(), "");
    }
    EXPECT_EQ(both.model.counters.corrections, 2u);
}

// The comparison itself: one changed number in the program's state is found.
TEST(PlantedDifference, OneCentInTheProgram_IsFoundAndTold) {
    Replay both(Options{});
    both.start_of_day();
    ASSERT_EQ(both.first_difference(), "");
    both.market.at(1).price += 0.01;
    both.advance_ms(100);
    both.tick();
    const std::string found = both.first_difference();
    EXPECT_NE(found.find("last step: tick"), std::string::npos) << found;
    EXPECT_NE(found.find("quote-short"), std::string::npos) << found;
}

}  // namespace
}  // namespace tessel::model
