#include "console/market_book.h"

#include "engine/circuit_breaker.h"
#include "engine/halts.h"
#include "engine/luld.h"
#include "engine/trade_revisions.h"
#include "engine/trades.h"
#include "engine/wipe_out.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tessel::console {
namespace {

using tessel::testing::Bytes;
using tessel::testing::TestMarket;

// A market in memory and the console's book of it.
struct FollowedMarket {
    tessel::testing::StderrCapture announcements;  // of the feed
    TestMarket market;
    MarketBook book;
    std::vector<MarketEvent> events;
    std::uint64_t next = 1;

    explicit FollowedMarket(const tessel::testing::MarketOptions& options = {}) : market(options) {
        market.start_of_day();
        follow();
    }

    void follow() {
        for (; next <= market.last(); ++next) {
            const Bytes message = market.message(next);
            apply_to_book(book, message.data(), message.size(), next,
                          [this](MarketEvent&& event) { events.push_back(std::move(event)); });
        }
    }

    Detail detail(const std::string& symbol) const {
        Detail made;
        EXPECT_TRUE(make_detail(book, symbol, made));
        return made;
    }
};

TEST(ConsoleMarketBook, StartOfDay_RowsInOrderOfSymbolsAndNoHalt) {
    FollowedMarket followed({.symbols = "ZZ:10,AA:20,MM:30"});
    const std::vector<Row> rows = make_rows(followed.book);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].symbol, "AA");
    EXPECT_EQ(rows[2].symbol, "ZZ");
    for (const MarketEvent& event : followed.events) {
        EXPECT_EQ(event.kind, EventKind::band);
    }
    EXPECT_TRUE(followed.detail("AA").halts.empty());
}

TEST(ConsoleMarketBook, NewInstrument_TakesItsPlaceInTheOrder) {
    FollowedMarket followed({.symbols = "ZZ:10"});
    EXPECT_EQ(make_rows(followed.book).size(), 1u);
    TestMarket other({.symbols = "AA:10"});
    other.start_of_day();
    for (std::uint64_t at = 1; at <= other.last(); ++at) {
        const Bytes message = other.message(at);
        apply_to_book(followed.book, message.data(), message.size(), at, [](MarketEvent&&) {});
    }
    ASSERT_EQ(make_rows(followed.book).size(), 2u);
    EXPECT_EQ(make_rows(followed.book)[0].symbol, "AA");
}

TEST(ConsoleMarketBook, HaltAndResumption_HistoryAndEventsWithTheirNumbers) {
    FollowedMarket followed;
    followed.events.clear();
    halt_instrument(followed.market.engine, followed.market.at(0), "T1", 0);
    const std::uint64_t halted = followed.market.last();
    resume_quotation(followed.market.engine, followed.market.at(0), 5);
    resume_trading(followed.market.engine, followed.market.at(0), 6);
    followed.follow();
    const std::vector<HaltRecord> halts = followed.detail("AAPL").halts;
    ASSERT_EQ(halts.size(), 3u);
    EXPECT_EQ(halts[0].action, 'H');
    EXPECT_EQ(halts[0].reason, "T1");
    EXPECT_LE(halts[0].sequence, halted);
    EXPECT_EQ(halts[1].action, 'Q');
    EXPECT_EQ(halts[2].action, 'T');
    std::string kinds;
    for (const MarketEvent& event : followed.events) {
        if (event.kind != EventKind::band) {
            kinds += event.kind == EventKind::halt ? 'H' : event.kind == EventKind::resume ? 'R' : '?';
            EXPECT_EQ(event.symbol, "AAPL");
        }
    }
    EXPECT_EQ(kinds, "HRR");
    EXPECT_EQ(followed.detail("AAPL").row.status, 'T');
    EXPECT_EQ(followed.detail("MSFT").halts.size(), 0u);
}

TEST(ConsoleMarketBook, PauseBreakerAndWipeOut_OneEventEach) {
    FollowedMarket followed;
    followed.market.run_ticks(5);
    followed.follow();
    followed.events.clear();
    luld_pause(followed.market.engine, followed.market.at(1), 0);
    breach_mwcb(followed.market.engine, 2);
    wipe_out(followed.market.engine, 'Q');
    followed.follow();
    const auto count = [&followed](EventKind kind) {
        return std::count_if(followed.events.begin(), followed.events.end(),
                             [kind](const MarketEvent& event) { return event.kind == kind; });
    };
    EXPECT_EQ(count(EventKind::pause), 1);
    EXPECT_EQ(count(EventKind::mwcb), 1);
    EXPECT_EQ(count(EventKind::wipeout), 1);
    for (const MarketEvent& event : followed.events) {
        if (event.kind == EventKind::mwcb) {
            EXPECT_EQ(event.level, '2');
            EXPECT_EQ(event.symbol, "");
        } else if (event.kind == EventKind::wipeout) {
            EXPECT_EQ(event.center, 'Q');
            EXPECT_EQ(event.symbol, "");
        }
    }
}

TEST(ConsoleMarketBook, TradesCanceledAndCorrected_StateOnTheTape) {
    FollowedMarket followed(
        {.symbols = "AAPL:190.00", .scenario = "cancel_every=4,correct_every=5,asof_every=6"});
    followed.market.run_ticks(120);
    followed.follow();
    const std::vector<TapeTrade> tape = followed.detail("AAPL").trades;
    std::size_t states[4] = {};
    std::size_t kinds[3] = {};
    std::uint64_t last = 0;
    for (const TapeTrade& trade : tape) {
        ++states[static_cast<std::size_t>(trade.state)];
        ++kinds[static_cast<std::size_t>(trade.kind)];
        EXPECT_GT(trade.sequence, last);
        last = trade.sequence;
    }
    EXPECT_LE(tape.size(), tape_trades_max);
    EXPECT_GT(states[static_cast<std::size_t>(TradeState::live)], 0u);
    EXPECT_GT(states[static_cast<std::size_t>(TradeState::corrected)], 0u);
    EXPECT_GT(states[static_cast<std::size_t>(TradeState::canceled)] +
                  states[static_cast<std::size_t>(TradeState::error)],
              0u);
    EXPECT_GT(kinds[static_cast<std::size_t>(TradeKind::correction)], 0u);
    EXPECT_GT(kinds[static_cast<std::size_t>(TradeKind::as_of)], 0u);
    const auto count = [&followed](EventKind kind) {
        return std::count_if(followed.events.begin(), followed.events.end(),
                             [kind](const MarketEvent& event) { return event.kind == kind; });
    };
    EXPECT_EQ(static_cast<std::uint64_t>(count(EventKind::correction)),
              followed.market.scenario.stats.corrections);
    EXPECT_EQ(static_cast<std::uint64_t>(count(EventKind::cancel)),
              followed.market.scenario.stats.cancels + followed.market.scenario.stats.errors);
}

TEST(ConsoleMarketBook, ManyTradesAndHalts_OnlyTheLatestKept) {
    FollowedMarket followed({.symbols = "AAPL:190.00"});
    for (int at = 0; at < 100; ++at) {
        halt_instrument(followed.market.engine, followed.market.at(0), "T1", 0);
        resume_quotation(followed.market.engine, followed.market.at(0), 5);
        resume_trading(followed.market.engine, followed.market.at(0), 6);
        followed.market.run_ticks(20);
        followed.follow();
    }
    const Detail detail = followed.detail("AAPL");
    EXPECT_EQ(detail.halts.size(), halts_max);
    EXPECT_EQ(detail.trades.size(), tape_trades_max);
    EXPECT_LE(followed.book.histories[0].tape.size(), tape_trades_max + tape_trades_max / 2);
    EXPECT_EQ(detail.halts.back().action, 'T');
}

TEST(ConsoleMarketBook, RowsAndQuotes_AreThoseOfTheMarket) {
    FollowedMarket followed;
    followed.market.run_ticks(50);
    followed.follow();
    const Detail detail = followed.detail("TSLA");
    const tessel::Instrument& instrument = followed.market.at(2);
    EXPECT_EQ(detail.row.bid, instrument.nbbo.bid);
    EXPECT_EQ(detail.row.ask, instrument.nbbo.ask);
    EXPECT_TRUE(detail.row.has_band);
    EXPECT_EQ(detail.quotes.size(), 7u);
    EXPECT_TRUE(std::is_sorted(detail.quotes.begin(), detail.quotes.end(),
                               [](const CenterRow& a, const CenterRow& b) { return a.center < b.center; }));
}

TEST(ConsoleMarketBook, Rubbish_CountedAndNothingElse) {
    FollowedMarket followed;
    const std::size_t before = followed.events.size();
    const unsigned char bytes[40] = {'1', 'Q', 'Z'};
    for (std::size_t length = 0; length <= sizeof bytes; ++length) {
        apply_to_book(followed.book, bytes, length, 7, [](MarketEvent&&) { FAIL(); });
    }
    EXPECT_EQ(followed.book.market.undecoded, sizeof bytes + 1);
    EXPECT_EQ(followed.events.size(), before);
    Detail detail;
    EXPECT_FALSE(make_detail(followed.book, "", detail));
    EXPECT_FALSE(make_detail(MarketBook{}, "AAPL", detail));
}

}  // namespace
}  // namespace tessel::console
