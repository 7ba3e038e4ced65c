#include "engine/trade_revisions.h"

#include "engine/trades.h"
#include "support/message_views.h"
#include "support/scripted_draws.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tessel {
namespace {

using testing::draws_left;
using testing::letters;
using testing::read_trade;
using testing::real_draw;
using testing::script_draws;
using testing::StatisticsView;
using testing::TestMarket;
using testing::TradeView;

constexpr std::uint64_t trade_time = 4'321;
constexpr std::uint64_t revision_time = 9'876;

// A market of one instrument and a record of its trades.
struct TradeFixture {
    TestMarket market;

    explicit TradeFixture(const std::string& symbols = "IBM:100") : market({.symbols = symbols}) {}

    Instrument& instrument() {
        return market.at(0);
    }
    FeedStats& stats() {
        return market.scenario.stats;
    }
    void record(char center, std::int64_t cents, std::uint64_t shares, const char* conditions,
                char sub = ' ') {
        record_trade(market.engine, instrument(), center, sub, cents * cent, shares, conditions,
                     conditions[1] == 'F' ? 'X' : ' ', trade_time, TradeKind::exchange);
    }
    // Cancels the newest trade that can be; a view of type '-' when nothing was sent.
    TradeView cancel() {
        const std::uint64_t before = market.last();
        cancel_trade(market.engine, instrument(), revision_time);
        return market.last() == before ? TradeView() : read_trade(market.message(market.last()));
    }
    // Corrects with these draws, all of which must be taken.
    TradeView correct(const std::vector<double>& draws) {
        std::vector<std::uint64_t> raw;
        for (const double draw : draws) {
            raw.push_back(real_draw(draw));
        }
        script_draws(market.rng, raw);
        const std::uint64_t before = market.last();
        correct_trade(market.engine, instrument(), revision_time);
        EXPECT_EQ(draws_left(market.rng), 0u);
        return market.last() == before ? TradeView() : read_trade(market.message(market.last()));
    }
};

TEST(Cancel, EveryField_IsOfTheCanceledTradeAndTheRecomputedStatistics) {
    TradeFixture fixture;
    fixture.record('N', 10000, 100, "@   ");
    fixture.record('Q', 10100, 200, "@O  ");
    fixture.record('N', 10200, 300, "@   ");
    const TradeView view = fixture.cancel();
    EXPECT_EQ(view.type, 'O');
    EXPECT_EQ(view.center, "N ");
    EXPECT_EQ(view.symbol, "IBM        ");
    EXPECT_EQ(view.function, 'C');
    EXPECT_EQ(view.id, 2u);
    EXPECT_EQ(view.price, 10200 * cent);
    EXPECT_EQ(view.size, 300 * size_unit);
    EXPECT_EQ(view.conditions, "@   ");
    EXPECT_EQ(view.exempt, ' ');
    EXPECT_EQ(view.changes, "7");
    EXPECT_EQ(view.consolidated, (StatisticsView{10100 * cent, 10000 * cent, 10100 * cent, 300 * size_unit}));
    EXPECT_EQ(view.last_center, 'Q');
    EXPECT_EQ(view.participant, (StatisticsView{10000 * cent, 10000 * cent, 10000 * cent, 100 * size_unit}));
    EXPECT_EQ(view.participant_time, revision_time);
    EXPECT_EQ(view.trf_time, 0u);
    EXPECT_EQ(fixture.market.truth_lines().back(),
              "{\"seq\":4,\"secid\":1,\"symbol\":\"IBM\",\"cancel_error\":[2,102.0000,300,\"N\",\"C\"]}");
    EXPECT_EQ(fixture.instrument().share_volume, 600u);              // never taken back
    EXPECT_EQ(fixture.instrument().last_trade_price, 10200 * cent);  // nor this
}

TEST(Cancel, FourInARow_AreThreeCancelsAndAnError_OnTheSumOfBothCounters) {
    TradeFixture fixture;
    fixture.stats().cancels = 5;
    fixture.stats().errors = 2;
    std::string functions;
    for (int at = 0; at < 9; ++at) {
        fixture.record('N', 10000, 100, "@   ");
        functions += fixture.cancel().function;
    }
    EXPECT_EQ(functions, "ECCCECCCE");
    EXPECT_EQ(fixture.stats().cancels, 11u);
    EXPECT_EQ(fixture.stats().errors, 5u);
}

TEST(Cancel, OnlyTrade_LeavesNothingBehind) {
    TradeFixture fixture;
    fixture.record('N', 10000, 100, "@   ");
    const TradeView view = fixture.cancel();
    EXPECT_EQ(view.consolidated, StatisticsView());
    EXPECT_EQ(view.participant, StatisticsView());
    EXPECT_EQ(view.last_center, ' ');
    EXPECT_EQ(fixture.instrument().high, 0);
    EXPECT_EQ(fixture.instrument().low, 0);
    EXPECT_EQ(fixture.instrument().last, 0);
    EXPECT_EQ(fixture.instrument().volume, 0u);
    EXPECT_EQ(fixture.cancel().type, '-');
}

TEST(Cancel, NewestEligible_CrossesSweepsAndOfficialClosesArePassedOver) {
    TradeFixture fixture;
    fixture.record('N', 1, 100, "@   ");
    fixture.record('N', 2, 7, "@  I");
    fixture.record('N', 3, 100, "@F  ");
    fixture.record('Q', 4, 100, "@O  ");
    fixture.record('Q', 5, 100, "@6  ");
    fixture.record('Q', 6, 0, "@  M");
    EXPECT_EQ(fixture.cancel().price, 2 * cent);
    EXPECT_EQ(fixture.cancel().price, 1 * cent);
    EXPECT_EQ(fixture.cancel().type, '-');
    EXPECT_EQ(fixture.stats().cancels, 2u);
}

TEST(Cancel, TrfTrade_KeepsItsTrfLetterAndTime) {
    TradeFixture fixture;
    fixture.record('D', 10000, 100, "@   ", 'B');
    const TradeView view = fixture.cancel();
    EXPECT_EQ(view.center, "DB");
    EXPECT_EQ(view.trf_time, revision_time);
}

TEST(Cancel, CenterWithAnOddLotLeft_HasStatisticsOfItsVolumeOnly) {
    TradeFixture fixture;
    fixture.record('N', 1, 7, "@  I");
    fixture.record('N', 2, 100, "@   ");
    EXPECT_EQ(fixture.cancel().participant, (StatisticsView{0, 0, 0, 7 * size_unit}));
}

TEST(Correction, Draws_DecidePriceUpPriceDownOrSize) {
    struct Row {
        std::vector<double> draws;
        std::int64_t cents;
        std::uint64_t shares;
    };
    for (const Row& row : {Row{{0.0, 0.0}, 10001, 100},
                           {{0.5 - 0x1p-50, 0.5 - 0x1p-50}, 10001, 100},
                           {{0.0, 0.5}, 9999, 100},
                           {{0.5}, 10000, 200},
                           {{0.999}, 10000, 200}}) {
        TradeFixture fixture;
        fixture.record('N', 10000, 100, "@   ");
        const TradeView view = fixture.correct(row.draws);
        EXPECT_EQ(view.type, 'P');
        EXPECT_EQ(view.id, 1u);
        EXPECT_EQ(view.price, 10000 * cent);
        EXPECT_EQ(view.size, 100 * size_unit);
        EXPECT_EQ(view.new_id, 2u);
        EXPECT_EQ(view.new_price, row.cents * cent);
        EXPECT_EQ(view.new_size, row.shares * size_unit);
        EXPECT_EQ(view.conditions, "@   ");
        EXPECT_EQ(view.changes, "7");
        EXPECT_EQ(view.participant_time, revision_time);
        const StatisticsView expected{row.cents * cent, row.cents * cent, row.cents * cent,
                                      row.shares * size_unit};
        EXPECT_EQ(view.consolidated, expected);
        EXPECT_EQ(view.participant, expected);
        EXPECT_EQ(view.last_center, 'N');
    }
}

TEST(Correction, SecondCopyOfTheTradeData_IsTheSameInTheMessageAndTheTruth) {
    TradeFixture fixture;
    fixture.record('D', 10000, 100, "@   ", 'Q');
    const TradeView view = fixture.correct({0.7});
    const testing::Bytes message = fixture.market.message(2);
    EXPECT_EQ(view.center, "DQ");
    EXPECT_EQ(view.trf_time, revision_time);
    EXPECT_EQ(testing::get_text(message, 103, 4), "@   ");
    EXPECT_EQ(testing::get_text(message, 107, 1), " ");
    EXPECT_EQ(testing::get_u16(message, 77), 0);
    EXPECT_EQ(testing::get_u16(message, 108), 0);
    EXPECT_EQ(fixture.market.truth_lines().back(),
              "{\"seq\":2,\"secid\":1,\"symbol\":\"IBM\",\"correction\":[1,2,100.0000,200,\"D\"]}");
    EXPECT_EQ(fixture.stats().corrections, 1u);
}

TEST(Correction, OddLotsSweepsAndCrosses_AreNeverPicked) {
    TradeFixture fixture;
    fixture.record('N', 1, 7, "@  I");
    fixture.record('N', 3, 100, "@F  ");
    fixture.record('Q', 4, 100, "@O  ");
    fixture.record('Q', 6, 0, "@  M");
    EXPECT_EQ(fixture.correct({}).type, '-');  // and no draw is made
    EXPECT_EQ(fixture.stats().corrections, 0u);
}

TEST(Correction, CorrectedTrade_CanBeCorrectedAndCanceled_TheReplacedOneCannot) {
    TradeFixture fixture;
    fixture.record('N', 10000, 100, "@   ");
    fixture.correct({0.0, 0.0});
    const TradeView again = fixture.correct({0.0, 0.0});
    EXPECT_EQ(again.id, 2u);
    EXPECT_EQ(again.new_id, 3u);
    const TradeView canceled = fixture.cancel();
    EXPECT_EQ(canceled.id, 3u);
    EXPECT_EQ(canceled.price, 10002 * cent);
    EXPECT_EQ(fixture.cancel().type, '-');
    fixture.record('N', 10000, 100, "@   ");
    EXPECT_EQ(fixture.instrument().trades.back().trade_id, 4u);
}

TEST(Correction, OfAnOlderTrade_MovesItToTheEndOfTheTape) {
    TradeFixture fixture;
    fixture.record('N', 10000, 100, "@   ");
    fixture.record('Q', 10100, 100, "@F  ");
    const TradeView view = fixture.correct({0.0, 0.9});
    EXPECT_EQ(view.consolidated, (StatisticsView{10100 * cent, 9999 * cent, 9999 * cent, 200 * size_unit}));
    EXPECT_EQ(view.last_center, 'N');
}

TEST(Correction, OneCentDown_GivesPriceZero) {
    TradeFixture fixture;
    fixture.record('N', 1, 100, "@   ");
    const TradeView view = fixture.correct({0.1, 0.9});
    EXPECT_EQ(view.new_price, 0);
    EXPECT_EQ(view.consolidated, (StatisticsView{0, 0, 0, 100 * size_unit}));
    EXPECT_EQ(view.last_center, 'N');
    EXPECT_EQ(fixture.correct({0.1, 0.9}).new_price, -10'000);
}

TEST(Correction, FullHistory_IsNotTrimmedByIt) {
    TestMarket market({.symbols = "IBM:100", .truth = false});
    Instrument& instrument = market.at(0);
    TradeRecord regular;
    regular.market_center = 'N';
    regular.conditions = {'@', ' ', ' ', ' '};
    instrument.trades.assign(100'000, regular);
    correct_trade(market.engine, instrument, revision_time);
    EXPECT_EQ(instrument.trades.size(), 100'001u);
    record_trade(market.engine, instrument, 'N', ' ', cent, 1, "@   ", ' ', 1, TradeKind::exchange);
    EXPECT_EQ(instrument.trades.size(), 50'002u);
}

TEST(AsOf, EveryField_AndTheOpenPacketGoesOut) {
    for (const bool truth : {true, false}) {
        TestMarket market({.symbols = "IBM:189.995", .truth = truth});
        record_trade(market.engine, market.at(0), 'N', ' ', cent, 1, "@   ", ' ', 1, TradeKind::exchange);
        const StatisticsView before{market.at(0).high, market.at(0).low, market.at(0).last,
                                    market.at(0).volume};
        const std::uint64_t now = market.clock.simulated_wall_ns;
        emit_asof(market.engine, market.at(0));
        const TradeView view = read_trade(market.message(2));
        EXPECT_EQ(letters(market.message(2)), "TQDQ");
        EXPECT_EQ(view.id, 0u);
        EXPECT_EQ(view.price, 189'970'000);
        EXPECT_EQ(view.size, 300'000'000u);
        EXPECT_EQ(view.conditions, "@   ");
        EXPECT_EQ(view.function, 'A');
        EXPECT_EQ(view.participant_time, now);
        EXPECT_EQ(view.trf_time, now);
        EXPECT_EQ(view.sip_time, now + 1);
        EXPECT_EQ(view.execution_time, now - 86'400'000'000'000);
        EXPECT_EQ(view.symbol, "IBM        ");
        EXPECT_EQ(market.scenario.stats.asofs, 1u);
        EXPECT_EQ(market.packets.size(), 1u);
        EXPECT_EQ(market.at(0).trades.size(), 1u);
        EXPECT_EQ(
            (StatisticsView{market.at(0).high, market.at(0).low, market.at(0).last, market.at(0).volume}),
            before);
        if (truth) {
            EXPECT_EQ(market.truth_lines().back(),
                      "{\"seq\":2,\"secid\":1,\"symbol\":\"IBM\",\"asof\":[189.97,300,\"D\",\"@   \"]}");
        }
    }
}

// ------------------------------------------------------------------ thousands of trades, judged from their
// messages

constexpr std::string_view high_low_set = " @ABDFGKLOPSXYZ14569";
constexpr std::string_view last_set = " @ABDFKLOSXY1569";
constexpr std::string_view volume_set = " @ABCDFGHIKLOPRSTUVWXYZ14567";

bool all_in(const std::string& conditions, std::string_view set) {
    return std::all_of(conditions.begin(), conditions.end(),
                       [set](char letter) { return set.find(letter) != std::string_view::npos; });
}

// A receiver that keeps the live trades of one symbol from the messages alone.
struct LiveTape {
    struct Trade {
        std::string center, conditions;
        std::uint64_t id;
        std::int64_t price;
        std::uint64_t size;
    };
    std::vector<Trade> trades;  // oldest first

    // Takes the trade of this center and id away; false when it is not there or not as reported.
    bool remove(const TradeView& view) {
        const auto found = std::find_if(trades.rbegin(), trades.rend(), [&view](const Trade& trade) {
            return trade.center == view.center && trade.id == view.id;
        });
        if (found == trades.rend() || found->price != view.price || found->size != view.size ||
            found->conditions != view.conditions) {
            return false;
        }
        trades.erase(std::next(found).base());
        return true;
    }
    // Statistics of one center, or of all with '*'.
    StatisticsView statistics(char center, char& last_center) const {
        StatisticsView view;
        last_center = ' ';
        for (const Trade& trade : trades) {
            if (center != '*' && trade.center[0] != center) {
                continue;
            }
            if (all_in(trade.conditions, high_low_set)) {
                view.high = view.high == 0 ? trade.price : std::max(view.high, trade.price);
                view.low = view.low == 0 ? trade.price : std::min(view.low, trade.price);
            }
            if (all_in(trade.conditions, last_set)) {
                view.last = trade.price;
                last_center = trade.center[0];
            }
            view.volume += all_in(trade.conditions, volume_set) ? trade.size : 0;
        }
        return view;
    }
};

TEST(Revisions_Seed21, ThousandsOfTrades_EveryMessageTellsTheStatisticsOfTheLiveTrades) {
    TestMarket market({.symbols = "AAPL:190,TOOLONG:700,P:0.05",
                       .scenario = "cancel_every=3,correct_every=4,asof_every=5,"
                                   "trf_every=2",
                       .seed = 21});
    market.start_of_day();
    market.run_ticks(1000);
    std::map<std::string, LiveTape> tapes;
    std::map<char, std::uint64_t> seen;
    std::uint64_t errors = 0;
    std::uint64_t trades_before_revision = 0;
    for (std::uint64_t sequence = 1; sequence <= market.last(); ++sequence) {
        const testing::Bytes message = market.message(sequence);
        if (letters(message)[0] != 'T') {
            continue;
        }
        const TradeView view = read_trade(message);
        LiveTape& fixture = tapes[view.symbol.substr(0, 5)];
        ++seen[view.type];
        if (view.type == 'M' || view.type == 'N') {
            fixture.trades.push_back({view.center, view.conditions, view.id, view.price, view.size});
            ++trades_before_revision;
            continue;
        }
        if (view.type == 'Q') {
            ASSERT_EQ(trades_before_revision % 5, 0u);
            continue;
        }
        ASSERT_TRUE(fixture.remove(view)) << "message " << sequence;
        if (view.type == 'P') {
            ASSERT_EQ(trades_before_revision % 4, 0u);
            fixture.trades.push_back(
                {view.center, view.conditions, view.new_id, view.new_price, view.new_size});
        } else {
            ASSERT_EQ(trades_before_revision % 3, 0u);
            ++errors;
            ASSERT_EQ(view.function, errors % 4 == 0 ? 'E' : 'C');
        }
        char last_center = '?';
        char unused = '?';
        ASSERT_EQ(view.consolidated, fixture.statistics('*', last_center)) << "message " << sequence;
        ASSERT_EQ(view.last_center, last_center);
        ASSERT_EQ(view.participant, fixture.statistics(view.center[0], unused)) << "message " << sequence;
    }
    const FeedStats& stats = market.scenario.stats;
    EXPECT_EQ(seen['M'] + seen['N'], stats.trades);
    EXPECT_EQ(seen['O'], stats.cancels + stats.errors);
    EXPECT_EQ(seen['P'], stats.corrections);
    EXPECT_EQ(seen['Q'], stats.asofs);
    EXPECT_EQ(stats.asofs, stats.trades / 5);
    EXPECT_EQ(stats.errors, (stats.cancels + stats.errors) / 4);
    EXPECT_GT(stats.trades, 2000u);
    EXPECT_GT(seen['N'], 100u);
    // Nearly every request finds a trade; the few made before the first regular one are lost.
    EXPECT_GT(stats.cancels + stats.errors + 10, stats.trades / 3);
    EXPECT_GT(stats.corrections + 10, stats.trades / 4);
    EXPECT_EQ(market.engine.pending_cancels, 0u);
    EXPECT_EQ(market.engine.pending_corrections, 0u);
}

}  // namespace
}  // namespace tessel
