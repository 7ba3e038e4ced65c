#include "engine/halts.h"

#include "engine/luld.h"
#include "engine/tick.h"
#include "support/message_views.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::briefs;
using testing::get_u64;
using testing::MarketOptions;
using testing::read_quote;
using testing::read_trade;
using testing::StderrCapture;
using testing::TestMarket;

using List = std::vector<std::string>;

// Quotes of these draws are drawn one after the other: the conditions are whatever they are, so only the
// centers count.
List without_conditions(List list) {
    for (std::string& text : list) {
        if (text.starts_with("quote ") && !text.ends_with(" L")) {
            text.resize(7);
        }
    }
    return list;
}

struct Session {
    StderrCapture errors;
    TestMarket market;
    std::uint64_t mark = 0;

    explicit Session(const MarketOptions& options = {.symbols = "IBM:100", .participants = "QZN"})
        : market(options) {
        market.start_of_day();
        mark = market.last();
        market.packets.clear();
    }
    Instrument& instrument() {
        return market.at(0);
    }
    // What was sent since the last call.
    List sent() {
        List list = without_conditions(briefs(market, mark + 1, market.last()));
        mark = market.last();
        return list;
    }
};

TEST(Halt, Messages_AreActionEmptiedQuotesInParticipantOrderAndBandD) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    EXPECT_EQ(session.sent(), (List{"action H T1 1", "quote Q L", "quote Z L", "quote N L", "band D"}));
    EXPECT_EQ(session.market.packets.size(), 1u);  // flushed
    EXPECT_EQ(session.market.publisher.packet_count, 0);
    EXPECT_EQ(session.market.scenario.stats.halts, 1u);
    EXPECT_EQ(session.instrument().status, 'H');
    EXPECT_EQ(session.instrument().band_indicator, 'D');
    EXPECT_EQ(session.instrument().quote_resume_ms, 0u);
    EXPECT_EQ(session.instrument().nbbo.bid, 0);
}

TEST(Halt, RepeatedLetters_QuoteAgainEachTime) {
    Session session({.symbols = "IBM:100", .participants = "QQN"});
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    EXPECT_EQ(session.sent(), (List{"action H T1 1", "quote Q L", "quote Q L", "quote N L", "band D"}));
    resume_quotation(session.market.engine, session.instrument(), 5);
    EXPECT_EQ(session.sent(), (List{"action Q T3 2", "quote Q", "quote Q", "quote N", "band E"}));
}

TEST(Halt, NoParticipants_ActionAndBandOnly) {
    Session session({.symbols = "IBM:100", .participants = ""});
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    EXPECT_EQ(session.sent(), (List{"action H T1 1", "band D"}));
}

TEST(Halt, InstrumentWithoutALowerBand_SendsNoBand) {
    StderrCapture errors;
    TestMarket fresh({.symbols = "IBM:100", .participants = "Q"});  // no start of day: no band yet
    halt_instrument(fresh.engine, fresh.at(0), "T1", 0);
    EXPECT_EQ(briefs(fresh, 1, fresh.last()), (List{"action H T1 1", "quote Q L"}));
    Session cheap({.symbols = "P:0.01", .participants = "Q"});
    EXPECT_EQ(cheap.instrument().luld_lower, 0);
    halt_instrument(cheap.market.engine, cheap.instrument(), "T1", 0);
    EXPECT_EQ(cheap.sent(), (List{"action H T1 1", "quote Q L"}));
    EXPECT_EQ(cheap.instrument().band_indicator, 'A');
    resume_quotation(cheap.market.engine, cheap.instrument(), 5);
    EXPECT_EQ(cheap.sent(), (List{"action Q T3 2", "quote Q"}));  // and none comes back
}

TEST(Halt, OneReading_ServesActionQuotesAndBand) {
    Session session;
    const std::uint64_t now = session.market.clock.simulated_wall_ns;
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    for (std::uint64_t sequence = session.mark + 1; sequence <= session.market.last(); ++sequence) {
        EXPECT_EQ(get_u64(session.market.message(sequence), 13), now) << sequence;
        EXPECT_EQ(get_u64(session.market.message(sequence), 5), now + sequence - session.mark)
            << "own SIP time";
    }
    EXPECT_EQ(get_u64(session.market.message(session.mark + 1), 45), now);       // action time
    EXPECT_EQ(get_u64(session.market.message(session.market.last()), 41), now);  // effective time
}

TEST(Halt, TruthLines_ShowTheEmptiedSidesTheStatusAndNoBandAtTheEnd) {
    Session session({.symbols = "IBM:100", .participants = "Q"});
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    const List lines = session.market.truth_lines();
    const auto seq = std::to_string(session.market.last());
    EXPECT_EQ(lines.back(), "{\"seq\":" + seq +
                                ",\"secid\":1,\"symbol\":\"IBM\",\"bid\":[],\"ask\":[],"
                                "\"nbbo\":[0.0000,0,0.0000,0],\"status\":\"H\",\"ap\":\"D\"}");
    EXPECT_NE(lines.at(lines.size() - 2)
                  .find("\"bid\":[],\"ask\":[],\"nbbo\":[0.0000,0,0.0000,0],"
                        "\"band\":[95.0000,105.0000],\"status\":\"H\"}"),
              std::string::npos);
    EXPECT_NE(lines.at(lines.size() - 3).find("\"status\":\"H\",\"ah\":\"H\",\"reason\":\"T1\"}"),
              std::string::npos);
}

TEST(Halt, StandardError_NamesSymbolReasonNumberAndLength) {
    Session session;
    session.errors.take();
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    EXPECT_EQ(session.errors.take(),
              "bench: IBM halted (T1) at seq " + std::to_string(session.market.last()) + "\n");
    halt_instrument(session.market.engine, session.instrument(), "MWC1", 5);
    EXPECT_EQ(session.errors.take(), "bench: IBM halted (MWC1) at seq " +
                                         std::to_string(session.market.last()) + ", resuming in 5 s\n");
}

TEST(Halt, Twice_SendsAndCountsTwice_AndTheSecondOneDecidesTheTimer) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 7);
    EXPECT_EQ(session.instrument().quote_resume_ms, 1'007'000u);
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    EXPECT_EQ(session.sent(), (List{"action H T1 1", "quote Q L", "quote Z L", "quote N L", "band D",
                                    "action H T1 2", "quote Q L", "quote Z L", "quote N L", "band D"}));
    EXPECT_EQ(session.market.scenario.stats.halts, 2u);
    EXPECT_EQ(session.instrument().quote_resume_ms, 0u);
}

TEST(Halt, WhileTradingWasToResume_TakesThatTimerAway) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    resume_quotation(session.market.engine, session.instrument(), 5);
    EXPECT_EQ(session.instrument().trade_resume_ms, 1'002'000u);
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    EXPECT_EQ(session.instrument().trade_resume_ms, 0u);
}

TEST(Halt, LongestHalt_DoesNotOverflow) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 4'294'967'295u);
    EXPECT_EQ(session.instrument().quote_resume_ms, 1'000'000u + 4'294'967'295'000u);
}

TEST(Resume, TwiceAfterAHalt_QuotesThenTradesWithTheSameReason) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 5);
    session.sent();
    session.errors.take();
    resume_quotation(session.market.engine, session.instrument(), 77);
    EXPECT_EQ(session.sent(), (List{"action Q T3 2", "quote Q", "quote Z", "quote N", "band E"}));
    EXPECT_EQ(session.errors.take(),
              "bench: IBM quotation resumption at seq " + std::to_string(session.market.last()) + "\n");
    EXPECT_EQ(session.instrument().status, 'Q');
    EXPECT_EQ(session.instrument().quote_resume_ms, 0u);
    EXPECT_EQ(session.instrument().trade_resume_ms, session.market.clock.simulated_steady_ms + 2000);
    EXPECT_GT(session.instrument().nbbo.bid, 0);
    resume_trading(session.market.engine, session.instrument(), 78);
    EXPECT_EQ(session.sent(), (List{"action T T3 3", "trade Q @5  "}));
    EXPECT_EQ(session.errors.take(),
              "bench: IBM trading resumption at seq " + std::to_string(session.market.last()) + "\n");
    const testing::TradeView trade = read_trade(session.market.message(session.market.last()));
    EXPECT_EQ(trade.size, 3000 * size_unit);
    EXPECT_EQ(trade.price, cross_price(session.instrument()));
    EXPECT_EQ(trade.participant_time, 78u);
    EXPECT_EQ(session.instrument().status, 'T');
    EXPECT_EQ(session.instrument().trade_resume_ms, 0u);
    EXPECT_EQ(session.market.scenario.stats.quote_resumes, 1u);
    EXPECT_EQ(session.market.scenario.stats.trade_resumes, 1u);
}

TEST(Resume, QuotesAndBand_CarryTheTimeGiven) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    session.mark = session.market.last();
    resume_quotation(session.market.engine, session.instrument(), 77);
    for (std::uint64_t sequence = session.mark + 1; sequence <= session.market.last(); ++sequence) {
        EXPECT_EQ(get_u64(session.market.message(sequence), 13), 77u);
    }
    EXPECT_NE(read_quote(session.market.message(session.mark + 2)).condition, 'L');
}

TEST(Resume, ReasonOfTheHalt_DecidesTheReasonOfTheResumption) {
    struct Row {
        const char* halted;
        const char* resumed;
    };
    for (const Row& row : {Row{"T1", "T3"},
                           {"LUDP", "LUDP"},
                           {"LUDPX", "T3"},
                           {"MWC1", "MWCQ"},
                           {"MWC3", "MWCQ"},
                           {"MWC", "MWCQ"},
                           {"MW", "T3"},
                           {"", "T3"},
                           {"T3", "T3"},
                           {"MWCQ", "MWCQ"}}) {
        Session session;
        halt_instrument(session.market.engine, session.instrument(), row.halted, 0);
        resume_quotation(session.market.engine, session.instrument(), 5);
        EXPECT_EQ(session.instrument().halt_reason, row.resumed) << row.halted;
        resume_trading(session.market.engine, session.instrument(), 5);
        EXPECT_EQ(session.instrument().halt_reason, row.resumed) << row.halted;
    }
}

TEST(Resume, Pause_RepeatsItsReasonInBothActions) {
    Session session;
    luld_pause(session.market.engine, session.instrument(), 0);
    session.sent();
    resume_quotation(session.market.engine, session.instrument(), 5);
    resume_trading(session.market.engine, session.instrument(), 5);
    EXPECT_EQ(session.sent(), (List{"action Q LUDP 2", "quote Q", "quote Z", "quote N", "band E",
                                    "action T LUDP 3", "trade Q @5  "}));
}

TEST(Resume, BandNotDeactivated_IsNotPublishedAgain) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    send_band(session.market.engine, session.instrument(), 'B', 5);
    session.sent();
    resume_quotation(session.market.engine, session.instrument(), 5);
    EXPECT_EQ(session.sent(), (List{"action Q T3 2", "quote Q", "quote Z", "quote N"}));
}

TEST(Resume, PriceMovedSinceTheHalt_BandEIsComputedAnew) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    EXPECT_EQ(session.instrument().luld_upper, 105'000'000);
    session.instrument().price = 200;
    resume_quotation(session.market.engine, session.instrument(), 5);
    EXPECT_EQ(session.instrument().luld_ref, 200'000'000);
    EXPECT_EQ(session.instrument().luld_lower, 190'000'000);
    EXPECT_EQ(session.instrument().luld_upper, 210'000'000);
}

// ------------------------------------------------------------------ timers

// The statuses of the first instrument over time, a change each: "12000 Q". Milliseconds count from the first
// call.
List status_changes(TestMarket& market, std::size_t ticks) {
    const std::uint64_t start = market.clock.simulated_steady_ms;
    List changes;
    char status = market.at(0).status;
    for (std::size_t done = 0; done < ticks; ++done) {
        market.run_ticks(1);
        if (market.at(0).status != status) {
            status = market.at(0).status;
            changes.push_back(std::to_string(market.clock.simulated_steady_ms - start) + " " + status);
        }
    }
    return changes;
}

TEST(HaltTimers, SixtySeconds_QuotesAfterItsLengthAndTradesTwoSecondsLater) {
    for (const auto& [seconds, expected] : {std::pair<unsigned, List>{0, {}},
                                            {8, {"8000 Q", "10000 T"}},
                                            {1, {"1000 Q", "3000 T"}},
                                            {58, {"58000 Q", "60000 T"}},
                                            {60, {"60000 Q"}},
                                            {61, {}}}) {
        Session session;
        halt_instrument(session.market.engine, session.instrument(), "T1", seconds);
        EXPECT_EQ(status_changes(session.market, 600), expected) << seconds;
    }
}

TEST(HaltTimers, Pause_RunsOnTheSameTimers) {
    Session session;
    luld_pause(session.market.engine, session.instrument(), 3);
    EXPECT_EQ(status_changes(session.market, 600), (List{"3000 Q", "5000 T"}));
    EXPECT_EQ(session.market.scenario.stats.quote_resumes, 1u);
    EXPECT_EQ(session.market.scenario.stats.trade_resumes, 1u);
}

TEST(HaltTimers, ResumedByHandBeforeTheTimer_TheTimerIsGone) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 8);
    session.market.run_ticks(10);
    resume_quotation(session.market.engine, session.instrument(), 5);
    EXPECT_EQ(status_changes(session.market, 600), (List{"2000 T"}));
    EXPECT_EQ(session.market.scenario.stats.quote_resumes, 1u);
}

TEST(HaltTimers, TradingResumedByHand_IsNotResumedAgain) {
    Session session;
    halt_instrument(session.market.engine, session.instrument(), "T1", 0);
    resume_quotation(session.market.engine, session.instrument(), 5);
    resume_trading(session.market.engine, session.instrument(), 5);
    EXPECT_EQ(status_changes(session.market, 100), List());
    EXPECT_EQ(session.market.scenario.stats.trade_resumes, 1u);
}

TEST(HaltTimers, EveryStatus_ResumedByHandGoesItsWay) {
    // Trading: halted, paused, halted while paused, paused while halted, halted while quoting.
    struct Row {
        std::string events;  // h halt, p pause, q resume quotation
        char status;
        std::string first_resumption;
    };
    for (const Row& row : {Row{"h", 'H', "action Q T3 2"},
                           {"p", 'P', "action Q LUDP 2"},
                           {"ph", 'H', "action Q T3 3"},
                           {"hp", 'P', "action Q LUDP 3"},
                           {"hqh", 'H', "action Q T3 4"},
                           {"hqp", 'P', "action Q LUDP 4"}}) {
        Session session;
        for (const char event : row.events) {
            if (event == 'h') {
                halt_instrument(session.market.engine, session.instrument(), "T1", 0);
            } else if (event == 'p') {
                luld_pause(session.market.engine, session.instrument(), 0);
            } else {
                resume_quotation(session.market.engine, session.instrument(), 5);
            }
        }
        EXPECT_EQ(session.instrument().status, row.status) << row.events;
        session.sent();
        resume_quotation(session.market.engine, session.instrument(), 5);
        EXPECT_EQ(session.sent().at(0), row.first_resumption);
        EXPECT_EQ(session.instrument().status, 'Q');
        EXPECT_EQ(status_changes(session.market, 30), (List{"2000 T"}));
    }
}

TEST(HaltTimers, StoppedInstrument_OnlyNonFirmQuotesAndNoTrades) {
    for (const bool pause : {false, true}) {
        Session session({.symbols = "IBM:100", .participants = "QZND", .scenario = "trf_every=1"});
        if (pause) {
            luld_pause(session.market.engine, session.instrument(), 0);
        } else {
            halt_instrument(session.market.engine, session.instrument(), "T1", 0);
        }
        session.mark = session.market.last();
        const double price = session.instrument().price;
        session.market.run_ticks(400);
        EXPECT_EQ(session.instrument().price, price);
        EXPECT_EQ(session.market.scenario.stats.trf_prints, 0u);
        EXPECT_EQ(session.instrument().nbbo.bid, 0);
        int quotes = 0;
        for (std::uint64_t sequence = session.mark + 1; sequence <= session.market.last(); ++sequence) {
            const testing::QuoteView view =
                read_quote(session.market.message(sequence));  // nothing but quotes
            ASSERT_EQ(view.condition, 'N');
            ASSERT_NE(view.market_center, 'D');
            ++quotes;
        }
        EXPECT_GT(quotes, 50);
        EXPECT_LT(quotes, 150);  // three in ten, the ADF's among them left out: about 90
    }
}

}  // namespace
}  // namespace tessel
