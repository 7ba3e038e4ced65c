#include "engine/trades.h"

#include "support/message_views.h"
#include "support/scripted_draws.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::draws_left;
using testing::int_draw;
using testing::joined_draws;
using testing::letters;
using testing::read_trade;
using testing::real_draw;
using testing::script_draws;
using testing::TestMarket;
using testing::TradeView;

constexpr std::uint64_t trade_time = 4'321;

// A market of one instrument at $100 whose NBBO a test sets.
struct TradeFixture {
    TestMarket market;

    explicit TradeFixture(const std::string& scenario = "", const std::string& symbols = "IBM:100",
                          bool truth = true)
        : market({.symbols = symbols, .scenario = scenario, .truth = truth}) {}

    Instrument& instrument() {
        return market.at(0);
    }
    FeedStats& stats() {
        return market.scenario.stats;
    }
    // Records a trade; price in cents. Returns its report.
    TradeView record(char center, std::int64_t cents, std::uint64_t shares, const char* conditions,
                     char sub = ' ', TradeKind kind = TradeKind::exchange) {
        const std::uint64_t sequence = market.last() + 1;
        record_trade(market.engine, instrument(), center, sub, cents * cent, shares, conditions, ' ',
                     trade_time, kind);
        return read_trade(market.message(sequence));
    }
    void set_nbbo(std::int64_t bid, char bid_market_center, std::int64_t ask, char ask_market_center) {
        instrument().nbbo.bid = bid * cent;
        instrument().nbbo.ask = ask * cent;
        instrument().nbbo.bid_market_center = bid_market_center;
        instrument().nbbo.ask_market_center = ask_market_center;
    }
    // Runs the exchange print from these draws, all of which it must take; "" or the trade in short.
    std::string exchange_print(const std::vector<std::uint64_t>& draws) {
        const std::uint64_t before = market.last();
        script_draws(market.rng, draws);
        maybe_exchange_print(market.engine, instrument(), trade_time);
        EXPECT_EQ(draws_left(market.rng), 0u);
        return before == market.last() ? "" : in_short(read_trade(market.message(market.last())));
    }
    static std::string in_short(const TradeView& view) {
        return view.center + std::to_string(view.price / cent) + "x" + std::to_string(view.size / size_unit) +
               "[" + view.conditions + view.exempt + "]";
    }
};

// ------------------------------------------------------------------ recording a trade

TEST(RecordTrade, EveryField_IsInTheShortReport) {
    TradeFixture fixture;
    record_trade(fixture.market.engine, fixture.instrument(), 'N', ' ', 100'010'000, 300, "@F  ", 'X',
                 trade_time, TradeKind::exchange);
    const TradeView view = read_trade(fixture.market.message(1));
    EXPECT_EQ(letters(fixture.market.message(1)), "TMN ");
    EXPECT_EQ(view.symbol, "IBM  ");
    EXPECT_EQ(view.id, 1u);
    EXPECT_EQ(view.price, 100'010'000);
    EXPECT_EQ(view.size, 300'000'000u);
    EXPECT_EQ(view.conditions, "@F  ");
    EXPECT_EQ(view.exempt, 'X');
    EXPECT_EQ(view.changes, "77");  // the first trade sets high, low and last together
    EXPECT_EQ(view.participant_time, trade_time);
    EXPECT_EQ(view.trf_time, 0u);
    EXPECT_EQ(view.sip_time, 1'700'000'000'000'000'000u);
    EXPECT_EQ(fixture.stats().trades, 1u);
    EXPECT_EQ(fixture.market.truth_lines().back(),
              "{\"seq\":1,\"secid\":1,\"symbol\":\"IBM\",\"trade\":[100.0100,300,\"N\","
              "\"@F  \"],\"kind\":0,\"id\":1}");
    ASSERT_EQ(fixture.instrument().trades.size(), 1u);
    EXPECT_TRUE(fixture.instrument().trades[0].live);
    EXPECT_EQ(fixture.instrument().share_volume, 300u);
    EXPECT_EQ(fixture.instrument().last_trade_price, 100'010'000);
}

TEST(RecordTrade, LimitsOfTheShortForm_LargestThatFitsAndNextThatDoesNot) {
    struct Row {
        const char* symbol;
        std::int64_t price;
        const char* conditions;
        char type;
    };
    for (const Row& row : {Row{"ABCDE", 655'350'000, "@   ", 'M'},
                           {"ABCDE", 655'360'000, "@   ", 'N'},
                           {"ABCDEF", 1'000'000, "@   ", 'N'},
                           {"ABCDE", 1'000'000, "R   ", 'N'},
                           {"ABCDE", 1'000'000, " R  ", 'M'},
                           {"ABCDE", 0, "@   ", 'M'},
                           {"ABCDE", -10'000, "@   ", 'N'},
                           {"", 10'000, "    ", 'M'}}) {
        TradeFixture fixture("", row.symbol[0] != '\0' ? row.symbol : ",");
        record_trade(fixture.market.engine, fixture.instrument(), 'N', ' ', row.price, 100, row.conditions,
                     ' ', trade_time, TradeKind::exchange);
        const TradeView view = read_trade(fixture.market.message(1));
        EXPECT_EQ(view.type, row.type) << row.symbol << ' ' << row.price << row.conditions;
        EXPECT_EQ(view.price, row.price);
        EXPECT_EQ(view.conditions, row.conditions);
    }
}

TEST(RecordTrade, ChangeIndicators_FollowLastLowAndHighForTheMarketAndTheCenter) {
    TradeFixture fixture;
    EXPECT_EQ(fixture.record('N', 100, 100, "@   ").changes, "77");
    EXPECT_EQ(fixture.record('N', 100, 100, "@   ").changes, "00");
    EXPECT_EQ(fixture.record('N', 101, 100, "@   ").changes, "55");  // last and high
    EXPECT_EQ(fixture.record('Q', 100, 100, "@   ").changes, "17");  // the center's first
    EXPECT_EQ(fixture.record('N', 99, 100, "@   ").changes, "33");   // last and low
    EXPECT_EQ(fixture.record('Q', 105, 100, "@4  ").changes, "44");  // no last
    EXPECT_EQ(fixture.record('Q', 100, 100, "@   ").changes, "10");
    EXPECT_EQ(fixture.instrument().high, 105 * cent);
    EXPECT_EQ(fixture.instrument().low, 99 * cent);
    EXPECT_EQ(fixture.instrument().last_market_center, 'Q');
}

TEST(RecordTrade, OddLot_AddsVolumeOnly) {
    TradeFixture fixture;
    fixture.record('N', 100, 100, "@   ");
    EXPECT_EQ(fixture.record('N', 200, 7, "@  I").changes, "00");
    EXPECT_EQ(fixture.instrument().high, 100 * cent);
    EXPECT_EQ(fixture.instrument().last, 100 * cent);
    EXPECT_EQ(fixture.instrument().volume, 107 * size_unit);
    EXPECT_EQ(fixture.instrument().share_volume, 107u);
    EXPECT_EQ(fixture.instrument().last_trade_price, 100 * cent);
}

TEST(RecordTrade, OfficialClose_ChangesNothing) {
    TradeFixture fixture;
    fixture.record('Q', 100, 100, "@   ");
    const TradeView view = fixture.record('Q', 200, 0, "@  M", ' ', TradeKind::cross);
    EXPECT_EQ(view.changes, "00");
    EXPECT_EQ(view.size, 0u);
    EXPECT_EQ(view.id, 2u);
    EXPECT_EQ(fixture.instrument().volume, 100 * size_unit);
    EXPECT_EQ(fixture.stats().cross_prints, 1u);
}

TEST(RecordTrade, TrfPrints_CountIdsForEachLetterAndCarryTheTrfTime) {
    TradeFixture fixture;
    for (int at = 0; at < 5; ++at) {
        EXPECT_EQ(fixture.record('D', 100, 100, "@   ", ' ', TradeKind::trf).id,
                  static_cast<std::uint64_t>(at + 1));
    }
    const TradeView view = fixture.record('D', 100, 100, "@   ", 'N', TradeKind::trf);
    EXPECT_EQ(view.id, 1u);
    EXPECT_EQ(view.center, "DN");
    EXPECT_EQ(view.trf_time, trade_time);
    EXPECT_EQ(fixture.record('D', 100, 100, "@   ", ' ', TradeKind::trf).id, 6u);
    EXPECT_NE(fixture.market.truth_lines().back().find("\"kind\":1,\"id\":6}"), std::string::npos);
}

TEST(RecordTrade, HistoryBeyond100000_LosesItsOldestHalfInOneStep) {
    TradeFixture fixture("", "IBM:100", false);
    Instrument& instrument = fixture.instrument();
    instrument.trades.resize(99'999);
    instrument.trades[50'000].price = 123;
    fixture.record('N', 100, 100, "@   ");
    EXPECT_EQ(instrument.trades.size(), 100'000u);
    fixture.record('N', 101, 100, "@   ");
    ASSERT_EQ(instrument.trades.size(), 50'001u);
    EXPECT_EQ(instrument.trades[0].price, 123);
    EXPECT_EQ(instrument.trades.back().price, 101 * cent);
}

// ------------------------------------------------------------------ what falls due with a trade

TEST(RecordTrade, EverythingDueAtOnce_ComesAsAsOfThenCancelThenCorrection) {
    TradeFixture fixture("cancel_every=2,correct_every=2,asof_every=2");
    fixture.record('N', 100, 100, "@   ");
    EXPECT_EQ(fixture.market.last(), 1u);
    EXPECT_EQ(fixture.market.packets.size(), 0u);
    fixture.record('Q', 101, 100, "@6  ", ' ', TradeKind::cross);
    EXPECT_EQ(fixture.market.letters_of(2, fixture.market.last()),
              (std::vector<std::string>{"TMQ ", "TQDQ", "TON "}));
    EXPECT_EQ(fixture.market.packets.size(), 1u);  // the as-of trade went out with everything before it
    EXPECT_EQ(testing::packet_messages(fixture.market.packets[0]).size(), 3u);
    EXPECT_EQ(fixture.stats().corrections, 0u);  // the only regular trade was just canceled
    EXPECT_EQ(fixture.market.engine.pending_corrections, 0u);
    fixture.record('N', 100, 100, "@   ");
    fixture.record('P', 102, 100, "@   ");
    EXPECT_EQ(fixture.market.letters_of(6, fixture.market.last()),
              (std::vector<std::string>{"TMP ", "TQDQ", "TOP ", "TPN "}));
}

TEST(RecordTrade, CancelEveryOne_EachTradeIsFollowedByTheCancelOfTheNewest) {
    TradeFixture fixture("cancel_every=1");
    for (int at = 0; at < 12; ++at) {
        const std::uint64_t sequence = fixture.market.last() + 1;
        const TradeView trade = fixture.record('N', 100 + at, 100, "@   ");
        const TradeView cancel = read_trade(fixture.market.message(sequence + 1));
        EXPECT_EQ(cancel.type, 'O');
        EXPECT_EQ(cancel.id, trade.id);
        EXPECT_EQ(cancel.participant_time, trade_time);
        EXPECT_EQ(cancel.function, at % 4 == 3 ? 'E' : 'C');
    }
    EXPECT_EQ(fixture.stats().cancels, 9u);
    EXPECT_EQ(fixture.stats().errors, 3u);
}

TEST(RecordTrade, DueCancel_IsAddedToThePendingOnes) {
    TradeFixture fixture("cancel_every=1,correct_every=1");
    fixture.market.engine.pending_cancels = 2;
    fixture.market.engine.pending_corrections = 4;
    fixture.record('Q', 100, 5000, "@O  ", ' ', TradeKind::cross);
    EXPECT_EQ(fixture.market.engine.pending_cancels, 2u);
    EXPECT_EQ(fixture.market.engine.pending_corrections, 4u);
}

TEST(RecordTrade, PendingRequests_OneOfEachATradeOfAnyKind_EvenWithoutAnEligibleTrade) {
    TradeFixture fixture;
    fixture.market.engine.pending_cancels = 2;
    fixture.market.engine.pending_corrections = 3;
    fixture.record('Q', 100, 5000, "@O  ", ' ', TradeKind::cross);
    EXPECT_EQ(fixture.market.last(), 1u);
    EXPECT_EQ(fixture.market.engine.pending_cancels, 1u);
    EXPECT_EQ(fixture.market.engine.pending_corrections, 2u);
    fixture.record('D', 100, 100, "@   ", 'B', TradeKind::trf);
    EXPECT_EQ(fixture.market.letters_of(2, fixture.market.last()),
              (std::vector<std::string>{"TMDB", "TODB"}));
    EXPECT_EQ(fixture.market.engine.pending_cancels, 0u);
    EXPECT_EQ(fixture.market.engine.pending_corrections, 1u);
    fixture.record('D', 100, 100, "@   ", 'B', TradeKind::trf);
    EXPECT_EQ(fixture.market.engine.pending_corrections, 0u);
    EXPECT_EQ(letters(fixture.market.message(fixture.market.last())), "TPDB");
}

TEST(RecordTrade, Periods_CountTradesOfAllInstruments) {
    TestMarket market({.symbols = "A:100,B:100", .scenario = "asof_every=3"});
    for (int at = 0; at < 9; ++at) {
        record_trade(market.engine, market.at(static_cast<std::size_t>(at % 2)), 'N', ' ', 100 * cent, 100,
                     "@   ", ' ', trade_time, TradeKind::exchange);
    }
    std::string symbols;
    for (std::uint64_t sequence = 1; sequence <= market.last(); ++sequence) {
        const TradeView view = read_trade(market.message(sequence));
        symbols += view.type == 'Q' ? view.symbol.substr(0, 1) : std::string();
    }
    EXPECT_EQ(symbols, "ABA");  // of the third, sixth and ninth trade
}

// ------------------------------------------------------------------ exchange prints

constexpr double just_below_half = 0.5 - 0x1p-50;

TEST(ExchangePrint, DrawsAndSides_DecideTheTrade) {
    const std::uint64_t yes = real_draw(just_below_half);
    const std::uint64_t bid = real_draw(just_below_half);
    const std::uint64_t ask = real_draw(0.5);
    TradeFixture fixture;
    fixture.set_nbbo(9999, 'N', 10001, 'P');
    EXPECT_EQ(fixture.exchange_print({real_draw(0.5)}), "");
    EXPECT_EQ(fixture.exchange_print({yes, bid, real_draw(0.08 - 0x1p-50), int_draw(1, 99, 1)}),
              "N 9999x1[@  I ]");
    EXPECT_EQ(fixture.exchange_print({yes, ask, real_draw(0.0), int_draw(1, 99, 99)}), "P 10001x99[@  I ]");
    EXPECT_EQ(fixture.exchange_print({yes, bid, real_draw(0.08), int_draw(1, 5, 5)}), "N 9999x500[@F  X]");
    EXPECT_EQ(fixture.exchange_print({yes, ask, real_draw(0.16 - 0x1p-50), int_draw(1, 5, 1)}),
              "P 10001x100[@F  X]");
    EXPECT_EQ(fixture.exchange_print({yes, bid, real_draw(0.16), int_draw(1, 5, 2)}), "N 9999x200[@    ]");
    EXPECT_EQ(fixture.exchange_print({yes, ask, real_draw(0.999), int_draw(1, 5, 3)}), "P 10001x300[@    ]");
    EXPECT_EQ(fixture.stats().exchange_prints, 6u);
    EXPECT_EQ(fixture.stats().odd_lot_prints, 2u);
    EXPECT_EQ(fixture.stats().sweeps, 2u);
    EXPECT_EQ(fixture.stats().trades, 6u);
}

TEST(ExchangePrint, EmptySide_NoTradeAndNoFurtherDraw) {
    TradeFixture fixture;
    fixture.set_nbbo(0, ' ', 10001, 'P');
    EXPECT_EQ(fixture.exchange_print({real_draw(0.1)}), "");
    fixture.set_nbbo(9999, 'N', 0, ' ');
    EXPECT_EQ(fixture.exchange_print({real_draw(0.1)}), "");
}

TEST(ExchangePrint, ChosenSideOfTheAdf_IsSkippedAndNotMovedToTheOther) {
    TradeFixture fixture;
    fixture.set_nbbo(9999, 'D', 10001, 'P');
    EXPECT_EQ(fixture.exchange_print({real_draw(0.1), real_draw(0.1)}), "");
    EXPECT_EQ(fixture.exchange_print({real_draw(0.1), real_draw(0.9), real_draw(0.5), int_draw(1, 5, 1)}),
              "P 10001x100[@    ]");
    fixture.set_nbbo(9999, 'N', 10001, ' ');
    EXPECT_EQ(fixture.exchange_print({real_draw(0.1), real_draw(0.9)}), "");
    EXPECT_EQ(fixture.stats().exchange_prints, 1u);
}

// ------------------------------------------------------------------ TRF prints

TEST(TrfPrint, Prints_RotateThroughTheTrfsInsideTheNbbo) {
    TradeFixture fixture;
    fixture.set_nbbo(9999, 'N', 10002, 'P');
    std::string subs;
    for (int at = 0; at < 8; ++at) {
        script_draws(fixture.market.rng, {int_draw(9999, 10002, 9999 + at % 4), int_draw(1, 20, at + 1)});
        trf_print(fixture.market.engine, fixture.instrument(), trade_time);
        EXPECT_EQ(draws_left(fixture.market.rng), 0u);
        const TradeView view = read_trade(fixture.market.message(fixture.market.last()));
        EXPECT_EQ(view.price, (9999 + at % 4) * cent);
        EXPECT_EQ(view.size, static_cast<std::uint64_t>(at + 1) * 100 * size_unit);
        EXPECT_EQ(view.conditions, "@   ");
        EXPECT_EQ(view.exempt, ' ');
        EXPECT_EQ(view.trf_time, trade_time);
        EXPECT_EQ(view.center[0], 'D');
        EXPECT_EQ(view.id, at < 4 ? 1u : 2u);
        subs += view.center[1];
    }
    EXPECT_EQ(subs, " NQB NQB");
    EXPECT_EQ(fixture.stats().trf_prints, 8u);
    EXPECT_EQ(fixture.stats().exchange_prints, 0u);
}

TEST(TrfPrint, CrossedMarket_DrawsBetweenTheSmallerAndTheLarger) {
    TradeFixture fixture;
    fixture.set_nbbo(10002, 'N', 9999, 'P');
    for (const std::int64_t cents : {9999, 10002}) {
        script_draws(fixture.market.rng, {int_draw(9999, 10002, cents), int_draw(1, 20, 1)});
        trf_print(fixture.market.engine, fixture.instrument(), trade_time);
        EXPECT_EQ(read_trade(fixture.market.message(fixture.market.last())).price, cents * cent);
    }
}

TEST(TrfPrint, LockedMarket_StillDrawsThePrice_EmptySideDoesNot) {
    TradeFixture fixture;
    fixture.set_nbbo(10001, 'N', 10001, 'P');
    script_draws(fixture.market.rng, {12345, int_draw(1, 20, 20)});
    trf_print(fixture.market.engine, fixture.instrument(), trade_time);
    EXPECT_EQ(draws_left(fixture.market.rng), 0u);
    EXPECT_EQ(read_trade(fixture.market.message(1)).price, 10001 * cent);
    fixture.set_nbbo(0, ' ', 10001, 'P');
    fixture.instrument().price = 99.995;
    script_draws(fixture.market.rng, {int_draw(1, 20, 20)});
    trf_print(fixture.market.engine, fixture.instrument(), trade_time);
    EXPECT_EQ(read_trade(fixture.market.message(2)).price, 10000 * cent);
    EXPECT_EQ(read_trade(fixture.market.message(2)).size, 2000 * size_unit);
}

// ------------------------------------------------------------------ crosses

TEST(Crosses, ReopeningClosingAndOpening_AtTheMidpointCutToCents) {
    TradeFixture fixture;
    fixture.set_nbbo(9999, 'N', 10002, 'P');  // midpoint 100.005
    reopening_cross(fixture.market.engine, fixture.instrument(), trade_time);
    closing_cross(fixture.market.engine, fixture.instrument(), trade_time);
    opening_cross(fixture.market.engine, fixture.instrument(), trade_time);
    std::vector<std::string> prints;
    for (std::uint64_t sequence = 1; sequence <= fixture.market.last(); ++sequence) {
        const TradeView view = read_trade(fixture.market.message(sequence));
        prints.push_back(TradeFixture::in_short(view));
        EXPECT_EQ(view.id, sequence);
        EXPECT_EQ(view.participant_time, trade_time);
        EXPECT_NE(fixture.market.truth_lines().at(sequence - 1).find("\"kind\":2,"), std::string::npos);
    }
    EXPECT_EQ(prints, (std::vector<std::string>{"Q 10000x3000[@5   ]", "Q 10000x8000[@6   ]",
                                                "Q 10000x0[@  M ]", "Q 10000x5000[@O   ]"}));
    EXPECT_EQ(fixture.stats().cross_prints, 4u);
    EXPECT_EQ(fixture.stats().exchange_prints, 0u);
}

TEST(Crosses, SideMissing_TheReferenceRounded_ButTheOpeningAsksForABidOnly) {
    TradeFixture fixture("", "IBM:100.005");
    fixture.set_nbbo(9999, 'N', 0, ' ');
    reopening_cross(fixture.market.engine, fixture.instrument(), trade_time);
    opening_cross(fixture.market.engine, fixture.instrument(), trade_time);
    fixture.set_nbbo(0, ' ', 9999, 'N');
    opening_cross(fixture.market.engine, fixture.instrument(), trade_time);
    const std::int64_t rounded = price_to_cents(100.005) * cent;
    EXPECT_EQ(read_trade(fixture.market.message(1)).price, rounded);
    EXPECT_EQ(read_trade(fixture.market.message(2)).price, 4999 * cent);  // half the bid
    EXPECT_EQ(read_trade(fixture.market.message(3)).price, rounded);
}

TEST(Crosses, CancelBetweenTheTwoClosingPrints_LeavesTheirPriceAlone) {
    TradeFixture fixture("cancel_every=2");
    fixture.set_nbbo(9999, 'N', 10001, 'P');
    fixture.record('N', 9000, 100, "@   ");
    closing_cross(fixture.market.engine, fixture.instrument(), trade_time);
    EXPECT_EQ(fixture.market.letters_of(1, fixture.market.last()),
              (std::vector<std::string>{"TMN ", "TMQ ", "TON ", "TMQ "}));
    EXPECT_EQ(read_trade(fixture.market.message(4)).price, 10000 * cent);
    EXPECT_EQ(read_trade(fixture.market.message(4)).conditions, "@  M");
}

}  // namespace
}  // namespace tessel
