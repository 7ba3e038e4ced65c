#include "engine/tick.h"

#include "app/scenario_events.h"
#include "engine/halts.h"
#include "engine/luld.h"
#include "engine/publication.h"
#include "support/message_views.h"
#include "support/model/logarithm.h"
#include "support/scripted_draws.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::brief;
using testing::briefs;
using testing::draws_left;
using testing::get_text;
using testing::get_u64;
using testing::int_draw;
using testing::joined_draws;
using testing::letters;
using testing::MarketOptions;
using testing::quote_draws;
using testing::read_quote;
using testing::read_trade;
using testing::real_draw;
using testing::script_draws;
using testing::StderrCapture;
using testing::TestMarket;

using List = std::vector<std::string>;
using Draws = std::vector<std::uint64_t>;

// The two uniforms of a pair of deviates: x = 0.5 and y = 0.25. The first is y times the factor, the second x
// times it.
const Draws deviate_pair = {real_draw(0.75), real_draw(0.625)};
const double deviate_factor = std::sqrt((-2 * model::logarithm(0.3125)) / 0.3125);

constexpr double no_trade = 0.5;  // the first draw of the exchange print

// One tick from these draws, of which none may be left; returns what it sent.
List scripted_tick(TestMarket& market, const Draws& draws) {
    const std::uint64_t before = market.last();
    script_draws(market.rng, draws);
    market.run_ticks(1);
    EXPECT_EQ(draws_left(market.rng), 0u);
    return briefs(market, before + 1, market.last());
}

// One quote update of a participant text with that many letters.
Draws update(int letters, int index, int below = 1, int above = 1) {
    return joined_draws({{int_draw(0, letters - 1, index)}, quote_draws(below, above, 1, 1)});
}

TestMarket& still(TestMarket& market) {
    market.engine.step_bps = 0;
    return market;
}

TEST(Tick, EveryDraw_IsTakenInItsOrder) {
    TestMarket market({.symbols = "A:100", .participants = "NQ", .scenario = "trf_every=1"});
    const List sent = scripted_tick(
        still(market),
        joined_draws({deviate_pair,
                      {real_draw(0.49)},  // three quotes
                      update(2, 1),
                      update(2, 0, 2, 2),
                      update(2, 1, 1, 1),
                      {real_draw(0.49), real_draw(0.1), real_draw(0.9), int_draw(1, 5, 4)},  // a trade
                      {int_draw(9999, 10001, 10000), int_draw(1, 20, 7)}}));                 // a TRF print
    EXPECT_EQ(sent, (List{"quote Q R", "quote N R", "quote Q R", "trade Q @   ", "trade D @   "}));
    EXPECT_EQ(read_trade(market.message(4)).price, 99'990'000);
    EXPECT_EQ(read_trade(market.message(4)).size, 400 * size_unit);
    EXPECT_EQ(read_trade(market.message(5)).price, 100'000'000);
    EXPECT_EQ(market.engine.tick, 1u);
    EXPECT_EQ(market.packets.size(), 1u);  // one flush at the end
    EXPECT_EQ(market.publisher.packet_count, 0);
}

TEST(Tick, NumberOfQuotes_IsThreeBelowOneHalfElseTwo_AndALetterMayComeTwice) {
    for (const auto& [u, count] : {std::pair<double, int>{0.0, 3}, {0.5 - 0x1p-50, 3}, {0.5, 2}, {0.99, 2}}) {
        TestMarket market({.symbols = "A:100", .participants = "NQ"});
        Draws draws = joined_draws({deviate_pair, {real_draw(u)}});
        List expected;
        for (int at = 0; at < count; ++at) {
            draws = joined_draws({draws, update(2, 1)});
            expected.push_back("quote Q R");
        }
        draws.push_back(real_draw(no_trade));
        EXPECT_EQ(scripted_tick(still(market), draws), expected) << u;
    }
}

TEST(Tick, RepeatedLetter_OwnsTwoIndexes) {
    TestMarket market({.symbols = "A:100", .participants = "QQN"});
    EXPECT_EQ(scripted_tick(still(market), joined_draws({deviate_pair,
                                                         {real_draw(0.1)},
                                                         update(3, 0),
                                                         update(3, 1),
                                                         update(3, 2),
                                                         {real_draw(no_trade)}})),
              (List{"quote Q R", "quote Q R", "quote N R"}));
}

TEST(Tick, Price_MovesByTheDeviateInBasisPoints_TheSecondInstrumentByTheSavedOne) {
    TestMarket market({.symbols = "A:100,B:200,C:300", .participants = "", .step_bps = 3.5});
    const double first = 0.25 * deviate_factor;
    const double second = 0.5 * deviate_factor;
    scripted_tick(market, joined_draws({deviate_pair, {1, 2}, {1, 2}, deviate_pair, {1, 2}}));
    EXPECT_EQ(market.at(0).price, 100 * (1 + ((first * 3.5) * 0.0001)));
    EXPECT_EQ(market.at(1).price, 200 * (1 + ((second * 3.5) * 0.0001)));
    EXPECT_EQ(market.at(2).price, 300 * (1 + ((first * 3.5) * 0.0001)));
}

TEST(Tick, SavedDeviate_DoesNotLiveOnToTheNextTick) {
    TestMarket market({.symbols = "A:100", .participants = "", .step_bps = 1});
    const Draws draws = joined_draws({deviate_pair, {1, 2}});
    scripted_tick(market, draws);
    const double once = market.at(0).price;
    scripted_tick(market, draws);
    EXPECT_EQ(market.at(0).price, once * (once / 100));
}

TEST(Tick, PairOutsideTheCircle_IsDrawnAgain) {
    TestMarket market({.symbols = "A:100", .participants = "", .step_bps = 1});
    // x = y = 0.998 is outside; x = y = 0 has no logarithm.
    scripted_tick(
        market,
        joined_draws(
            {{real_draw(0.999), real_draw(0.999)}, {real_draw(0.5), real_draw(0.5)}, deviate_pair, {1, 2}}));
    EXPECT_EQ(market.at(0).price, 100 * (1 + ((0.25 * deviate_factor * 1) * 0.0001)));
}

TEST(Tick, NoStep_PriceNeverMovesButQuotesAndTradesGoOn) {
    TestMarket market({.symbols = "A:100,B:0.02"});
    market.start_of_day();
    const std::uint64_t trades = market.scenario.stats.trades;
    still(market).run_ticks(200);
    EXPECT_EQ(market.at(0).price, 100.0);
    EXPECT_EQ(market.at(1).price, 0.02);
    EXPECT_GT(market.scenario.stats.quotes, 800u);
    EXPECT_GT(market.scenario.stats.trades, trades + 50);
    EXPECT_EQ(market.scenario.stats.bands, 2u);  // those of the start
}

TEST(Tick, NoInstruments_CountsAndFlushes) {
    TestMarket market({.symbols = ""});
    MessageHeader header;
    begin_message(market.engine.writer, header, 0);
    publish_message(market.engine);
    market.run_ticks(1);
    EXPECT_EQ(market.engine.tick, 1u);
    EXPECT_EQ(market.packets.size(), 1u);
    market.engine.pending_trf = 2;
    market.run_ticks(3);
    EXPECT_EQ(market.engine.pending_trf, 2u);  // there is no first instrument to ask
    EXPECT_EQ(market.engine.tick, 4u);
}

TEST(Tick, NoParticipants_NumberOfQuotesIsDrawnAndNothingQuotes) {
    TestMarket market({.symbols = "A:100", .participants = ""});
    EXPECT_EQ(scripted_tick(market, joined_draws({deviate_pair, {real_draw(0.1)}, {real_draw(0.1)}})),
              List());
    StderrCapture errors;
    halt_instrument(market.engine, market.at(0), "T1", 0);
    EXPECT_EQ(scripted_tick(market, {real_draw(0.0)}), List());  // its u and nothing more
}

TEST(Tick, OneReading_StampsEveryQuoteTradeAndBand) {
    TestMarket market({.symbols = "A:100,B:100", .scenario = "trf_every=1,band_every=1"});
    market.start_of_day();
    market.advance_ms(5000);
    const std::uint64_t mark = market.last();
    const std::uint64_t now = market.clock.simulated_wall_ns;
    run_tick(market.engine, market.clock.simulated_steady_ms);
    std::map<std::string, int> kinds;
    for (std::uint64_t sequence = mark + 1; sequence <= market.last(); ++sequence) {
        EXPECT_EQ(get_u64(market.message(sequence), 13), now);
        ++kinds[letters(market.message(sequence)).substr(0, 1)];
    }
    EXPECT_GT(kinds["Q"], 0);
    EXPECT_GT(kinds["T"], 0);
    EXPECT_EQ(kinds["A"], 2);  // both bands were due
}

// ------------------------------------------------------------------ trades of the tick

TEST(TickTrade, NbboWithAnEmptySide_NeverTrades) {
    TestMarket market({.symbols = "A:100", .participants = "Q", .scenario = "odd_lot_every=0"});
    for (int round = 0; round < 50; ++round) {
        // Every quote is one-sided: u below 0.04, then the side.
        Draws quotes;
        for (int at = 0; at < 2; ++at) {
            quotes = joined_draws({quotes,
                                   {int_draw(0, 0, 0)},
                                   quote_draws(1, 1, 1, 1, 0.01),
                                   {real_draw(round % 2 == 0 ? 0.1 : 0.9)}});
        }
        EXPECT_EQ(scripted_tick(still(market),
                                joined_draws({deviate_pair, {real_draw(0.9)}, quotes, {real_draw(0.1)}})),
                  (List{"quote Q Y", "quote Q Y"}));
    }
}

TEST(TickTrade, ChosenSideOfTheAdf_IsSkipped) {
    TestMarket market({.symbols = "A:100", .participants = "DN"});
    const auto quotes =
        joined_draws({deviate_pair, {real_draw(0.9)}, update(2, 0, 1, 2), update(2, 1, 2, 1)});
    // D has the best bid, N the best ask.
    EXPECT_EQ(scripted_tick(still(market), joined_draws({quotes, {real_draw(0.1), real_draw(0.1)}})),
              (List{"quote D R", "quote N R"}));
    EXPECT_EQ(scripted_tick(
                  market, joined_draws(
                              {quotes, {real_draw(0.1), real_draw(0.9), real_draw(0.5), int_draw(1, 5, 1)}})),
              (List{"quote D R", "quote N R", "trade N @   "}));
}

TEST(TickTrade, MixOverManyTicks_IsAsDrawn) {
    TestMarket market({.symbols = "A:100", .participants = "NQ", .truth = false});
    still(market).run_ticks(20'000);
    const FeedStats& stats = market.scenario.stats;
    // Half the ticks trade, but for those with a one-sided best (4 % each of two centers, mostly covered by
    // the other).
    EXPECT_NEAR(static_cast<double>(stats.exchange_prints), 10'000, 400);
    EXPECT_NEAR(static_cast<double>(stats.odd_lot_prints), 800, 150);
    EXPECT_NEAR(static_cast<double>(stats.sweeps), 800, 150);
    EXPECT_NEAR(static_cast<double>(stats.quotes), 50'000, 500);
    EXPECT_EQ(stats.trades, stats.exchange_prints);
}

// ------------------------------------------------------------------ TRF prints

TEST(TickTrf, EveryTick_OnePrintAnInstrumentAndTheLettersTakeTurns) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100,B:100,C:100", .participants = "Q", .scenario = "trf_every=1"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(1), "T1", 0);
    const std::uint64_t mark = market.last();
    market.run_ticks(4);
    std::string prints;
    for (std::uint64_t sequence = mark + 1; sequence <= market.last(); ++sequence) {
        const testing::Bytes message = market.message(sequence);
        if (letters(message)[0] == 'T' && letters(message)[2] == 'D') {
            prints += letters(message)[3];
            prints += read_trade(message).symbol[0];
        }
    }
    EXPECT_EQ(prints, " ANCQABC ANCQABC");
    EXPECT_EQ(market.scenario.stats.trf_prints, 8u);
}

TEST(TickTrf, EveryThirdTick_CountsTheEnginesTicks) {
    TestMarket market({.symbols = "A:100", .scenario = "trf_every=3"});
    List counts;
    for (int at = 0; at < 9; ++at) {
        const std::uint64_t before = market.scenario.stats.trf_prints;
        market.run_ticks(1);
        if (market.scenario.stats.trf_prints != before) {
            counts.push_back(std::to_string(market.engine.tick));
        }
    }
    EXPECT_EQ(counts, (List{"3", "6", "9"}));
}

TEST(TickTrf, ForcedPrint_IsOfTheFirstInstrument_OneATick_BesidesThePeriodicOne) {
    TestMarket market({.symbols = "A:100,B:100", .scenario = "trf_every=2"});
    market.engine.pending_trf = 3;
    List prints;
    for (int at = 0; at < 4; ++at) {
        const std::uint64_t mark = market.last();
        market.run_ticks(1);
        std::string of_tick;
        for (std::uint64_t sequence = mark + 1; sequence <= market.last(); ++sequence) {
            const testing::Bytes message = market.message(sequence);
            if (letters(message)[0] == 'T' && letters(message)[2] == 'D') {
                of_tick += read_trade(message).symbol[0];
            }
        }
        prints.push_back(of_tick);
    }
    EXPECT_EQ(prints, (List{"A", "AAB", "A", "AB"}));
    EXPECT_EQ(market.engine.pending_trf, 0u);
}

TEST(TickTrf, ForcedPrint_HaltedFirstInstrumentLosesOneATick_PausedEngineKeepsThem) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100,B:100"});
    market.start_of_day();
    market.engine.paused = true;
    market.engine.pending_trf = 5;
    market.run_ticks(3);
    EXPECT_EQ(market.engine.pending_trf, 5u);
    halt_instrument(market.engine, market.at(0), "T1", 0);
    market.run_ticks(2);  // still paused, and halted now
    EXPECT_EQ(market.engine.pending_trf, 3u);
    market.engine.paused = false;
    market.run_ticks(1);
    EXPECT_EQ(market.engine.pending_trf, 2u);
    EXPECT_EQ(market.scenario.stats.trf_prints, 0u);
    resume_quotation(market.engine, market.at(0), 5);
    market.run_ticks(1);  // quoting only is enough
    EXPECT_EQ(market.engine.pending_trf, 1u);
    EXPECT_EQ(market.scenario.stats.trf_prints, 1u);
}

// ------------------------------------------------------------------ the paused engine

TEST(PausedEngine, TradingInstruments_GenerateAndDrawNothing) {
    TestMarket market({.symbols = "A:100,B:100", .scenario = "trf_every=1,band_every=1"});
    market.start_of_day();
    market.engine.paused = true;
    const std::uint64_t mark = market.last();
    script_draws(market.rng, {1, 2, 3});
    market.run_ticks(50);
    EXPECT_EQ(draws_left(market.rng), 3u);
    EXPECT_EQ(market.last(), mark);
    EXPECT_EQ(market.engine.tick, 50u);
    market.engine.paused = false;
    market.run_ticks(1);
    EXPECT_GT(market.last(), mark);
}

TEST(PausedEngine, DueResumptions_FireWithTheirCross_AndNothingFollowsThem) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "QN"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 1);
    market.engine.paused = true;
    List sent;
    for (int at = 0; at < 40; ++at) {
        const std::uint64_t before = market.last();
        market.run_ticks(1);
        if (market.at(0).status != 'H') {
            for (std::uint64_t sequence = before + 1; sequence <= market.last(); ++sequence) {
                sent.push_back(brief(market.message(sequence)).substr(0, 7));
            }
        }
    }
    EXPECT_EQ(sent, (List{"action ", "quote Q", "quote N", "band E", "action ", "trade Q"}));
    EXPECT_EQ(market.at(0).status, 'T');
    EXPECT_EQ(market.scenario.stats.trade_resumes, 1u);
}

TEST(PausedEngine, HaltedInstrument_StillShowsNonFirmQuotes) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "QN"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 0);
    market.engine.paused = true;
    std::vector<std::uint64_t> draws =
        joined_draws({{real_draw(0.1), int_draw(0, 1, 1)}, quote_draws(1, 1, 1, 1)});
    draws.pop_back();  // the override takes the draw of a side's place
    EXPECT_EQ(scripted_tick(market, draws), (List{"quote N N"}));
}

// ------------------------------------------------------------------ stopped instruments and resumptions

TEST(StoppedInstrument, Draws_AreUThenALetter_TheAdfQuotesNothing) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "DQ"});
    market.start_of_day();
    luld_pause(market.engine, market.at(0), 0);
    std::vector<std::uint64_t> quote = quote_draws(1, 1, 1, 1);
    quote.pop_back();
    EXPECT_EQ(scripted_tick(market, {real_draw(0.3)}), List());
    EXPECT_EQ(scripted_tick(market, {real_draw(0.3 - 0x1p-50), int_draw(0, 1, 0)}), List());
    EXPECT_EQ(scripted_tick(market, joined_draws({{real_draw(0.0), int_draw(0, 1, 1)}, quote})),
              (List{"quote Q N"}));
}

TEST(Resumption, InsideATick_IsFollowedByTheRestOfTheStep) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "Q", .scenario = "odd_lot_every=0"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 1);
    market.advance_ms(900);
    const List sent = scripted_tick(still(market), joined_draws({quote_draws(1, 1, 1, 1),
                                                                 deviate_pair,
                                                                 {real_draw(0.9)},
                                                                 update(1, 0),
                                                                 update(1, 0),
                                                                 {real_draw(no_trade)}}));
    EXPECT_EQ(sent, (List{"action Q T3 2", "quote Q R", "band E", "quote Q R", "quote Q R"}));
    EXPECT_EQ(market.at(0).trade_resume_ms, 1'003'000u);
    market.advance_ms(1'800);
    const Draws step =
        joined_draws({deviate_pair, {real_draw(0.9)}, update(1, 0), update(1, 0), {real_draw(no_trade)}});
    EXPECT_EQ(scripted_tick(market, step), (List{"quote Q R", "quote Q R"}));  // 1.9 s: not yet
    EXPECT_EQ(scripted_tick(market, step), (List{"action T T3 3", "trade Q @5  ", "quote Q R", "quote Q R"}));
}

TEST(Resumption, BothDueInOneTick_RunOneAfterTheOther) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "Q"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 1);
    const std::uint64_t mark = market.last();
    // The loop's time is far ahead of the reading inside the event, so trading is due as soon as it is set.
    run_tick(market.engine, market.clock.simulated_steady_ms + 60'000);
    const List sent = briefs(market, mark + 1, market.last());
    EXPECT_EQ(sent.at(0), "action Q T3 2");
    EXPECT_EQ(sent.at(2), "band E");
    EXPECT_EQ(sent.at(3), "action T T3 3");
    EXPECT_EQ(sent.at(4), "trade Q @5  ");
    EXPECT_EQ(market.at(0).status, 'T');
}

TEST(Resumption, Actions_CarryTheTicksReading) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "Q"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 1);
    market.advance_ms(1000);
    const std::uint64_t mark = market.last();
    const std::uint64_t now = market.clock.simulated_wall_ns;
    run_tick(market.engine, market.clock.simulated_steady_ms);
    EXPECT_EQ(get_u64(market.message(mark + 1), 45), now);
    EXPECT_EQ(get_u64(market.message(mark + 2), 13), now);
    EXPECT_EQ(get_u64(market.message(mark + 3), 41), now);
}

// ------------------------------------------------------------------ bands

TEST(TickBand, PriceMovedOnePercentExactly_IsRenewedWithB) {
    for (const auto& [price, renewed] :
         {std::pair<double, bool>{101.0, true}, {100.99, false}, {99.0, true}}) {
        TestMarket market({.symbols = "A:100", .participants = ""});
        market.start_of_day();
        market.at(0).price = price;
        const List sent = scripted_tick(still(market), joined_draws({deviate_pair, {1, 2}}));
        EXPECT_EQ(sent, renewed ? List{"band B"} : List());
        EXPECT_EQ(market.at(0).luld_ref, renewed ? std::llround(price) * 1'000'000 : 100'000'000);
        EXPECT_EQ(market.at(0).band_indicator, renewed ? 'B' : 'A');
    }
}

TEST(TickBand, Period_RenewsWhenItIsDue_AndAStaleBandOnlyOnce) {
    TestMarket market({.symbols = "A:100", .participants = "", .scenario = "band_every=2"});
    market.start_of_day();
    List times;
    for (int at = 1; at <= 100; ++at) {
        const std::uint64_t bands = market.scenario.stats.bands;
        if (at == 30) {
            market.at(0).price = 102;  // stale 1 s after the last: the period starts again
        }
        still(market).run_ticks(1);
        if (market.scenario.stats.bands != bands) {
            times.push_back(std::to_string(at * 100) + "x" +
                            std::to_string(market.scenario.stats.bands - bands));
        }
    }
    EXPECT_EQ(times, (List{"2000x1", "3000x1", "5000x1", "7000x1", "9000x1"}));
}

TEST(TickBand, NeverPublished_IsNotRenewed) {
    TestMarket market({.symbols = "A:100", .participants = ""});
    market.at(0).price = 500;
    EXPECT_EQ(scripted_tick(still(market), joined_draws({deviate_pair, {1, 2}})), List());
}

TEST(TickBand, HaltedInstrument_KeepsItsDeactivatedBand) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .scenario = "band_every=1"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 0);
    const std::uint64_t bands = market.scenario.stats.bands;
    market.at(0).price = 200;
    market.run_ticks(100);
    EXPECT_EQ(market.scenario.stats.bands, bands);
    EXPECT_EQ(market.at(0).band_indicator, 'D');
}

}  // namespace
}  // namespace tessel
