#include "engine/wipe_out.h"

#include "engine/halts.h"
#include "engine/quotes.h"
#include "support/message_views.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::briefs;
using testing::get_text;
using testing::get_u64;
using testing::NbboPart;
using testing::QuoteView;
using testing::read_quote;
using testing::StderrCapture;
using testing::TestMarket;

using List = std::vector<std::string>;

void set_quote(TestMarket& market, std::size_t at, char market_center, std::int64_t bid, std::int64_t ask) {
    ParticipantQuote& quote = *find_quote(market.at(at), market_center);
    quote.quoted = true;
    quote.present = true;
    quote.bid = bid * cent;
    quote.ask = ask * cent;
    quote.bid_size = 100;
    quote.ask_size = 100;
    quote.condition = 'R';
    quote.time = 42;
    publish_quote(market.engine, market.at(at), quote, ' ', 42);
}

TEST(WipeOut, Messages_AreTheWipeOutThenTheLettersQuotesInListOrder) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100,B:100,C:100", .participants = "QN"});
    set_quote(market, 0, 'Q', 9999, 10001);
    set_quote(market, 2, 'Q', 9999, 10001);
    set_quote(market, 1, 'N', 9999, 10001);
    const std::uint64_t mark = market.last();
    const std::uint64_t now = market.clock.simulated_wall_ns;
    wipe_out(market.engine, 'Q');
    EXPECT_EQ(briefs(market, mark + 1, market.last()), (List{"wipe-out Q", "quote Q R E", "quote Q R E"}));
    const testing::Bytes message = market.message(mark + 1);
    EXPECT_EQ(message.size(), 29u);
    EXPECT_EQ(get_text(message, 0, 5), "1CPQ ");
    EXPECT_EQ(get_u64(message, 13), now);     // the first reading, which the quotes carry too
    EXPECT_EQ(get_u64(message, 5), now + 1);  // the second
    EXPECT_EQ(get_u64(message, 21), 0u);
    for (const std::uint64_t sequence : {mark + 2, mark + 3}) {
        const QuoteView view = read_quote(market.message(sequence));
        EXPECT_EQ(view.participant_time, now);
        EXPECT_EQ(view.bid | view.ask | view.bid_size | view.ask_size, 0);
    }
    EXPECT_EQ(read_quote(market.message(mark + 2)).symbol, "A    ");
    EXPECT_EQ(read_quote(market.message(mark + 3)).symbol, "C    ");
    EXPECT_EQ(errors.take(),
              "bench: quote wipe-out of participant Q at seq " + std::to_string(market.last()) + "\n");
    EXPECT_EQ(market.scenario.stats.wipeouts, 1u);
    EXPECT_EQ(market.scenario.stats.sip_generated, 2u);
    EXPECT_EQ(market.scenario.stats.quotes, 5u);
    EXPECT_EQ(market.publisher.packet_count, 0);
    EXPECT_EQ(market.packets.size(), 1u);
    EXPECT_FALSE(find_quote(market.at(0), 'Q')->present);
    EXPECT_EQ(find_quote(market.at(0), 'Q')->time, 42u);  // its own, kept
}

TEST(WipeOut, LetterThatQuotesNowhere_IsSentAndChangesNoQuote) {
    for (const char letter : {'N', 'X', ' '}) {
        StderrCapture errors;
        TestMarket market({.symbols = "A:100", .participants = "QN"});
        set_quote(market, 0, 'Q', 9999, 10001);
        wipe_out(market.engine, letter);
        EXPECT_EQ(briefs(market, 2, market.last()), (List{std::string("wipe-out ") + letter}));
        EXPECT_EQ(market.scenario.stats.wipeouts, 1u);
        EXPECT_EQ(market.scenario.stats.sip_generated, 0u);
        EXPECT_EQ(market.packets.size(), 1u);
        EXPECT_EQ(market.at(0).nbbo.bid, 99'990'000);
    }
}

TEST(WipeOut, CenterAtTheNbbo_TheNextQuotesAndTruthLinesTellTheNewOne) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "QN"});
    set_quote(market, 0, 'N', 9998, 10002);
    set_quote(market, 0, 'Q', 9999, 10001);
    wipe_out(market.engine, 'Q');
    const QuoteView view = read_quote(market.message(market.last()));
    EXPECT_EQ(view.nbbo, (NbboPart{'R', 'N', 'N', 99'980'000, 100'020'000, 100, 100}));
    EXPECT_NE(market.truth_lines().back().find("\"bid\":[[99.9800,100]],\"ask\":[[100.0200,100]],"
                                               "\"nbbo\":[99.9800,100,100.0200,100]"),
              std::string::npos);
    wipe_out(market.engine, 'N');
    EXPECT_EQ(read_quote(market.message(market.last())).nbbo_ind, '1');
    EXPECT_NE(market.truth_lines().back().find("\"bid\":[],\"ask\":[],\"nbbo\":[0.0000,0,0.0000,0]"),
              std::string::npos);
}

TEST(WipeOut, SecondOfTheSameLetter_FindsNoQuote) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "QN"});
    set_quote(market, 0, 'Q', 9999, 10001);
    wipe_out(market.engine, 'Q');
    const std::uint64_t mark = market.last();
    wipe_out(market.engine, 'Q');
    EXPECT_EQ(briefs(market, mark + 1, market.last()), (List{"wipe-out Q"}));
    EXPECT_EQ(market.scenario.stats.wipeouts, 2u);
}

TEST(WipeOut, OddLotsAndMpids_GoOutWithTheQuoteAndStay) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "DN", .scenario = "odd_lot_every=1"});
    update_participant_quote(market.engine, market.at(0), 0, 1, ' ');
    ASSERT_EQ(market.at(0).quotes[0].market_center, 'D');
    const QuoteView quoted = read_quote(market.message(1));
    wipe_out(market.engine, 'D');
    const QuoteView gone = read_quote(market.message(market.last()));
    EXPECT_EQ(gone.sip_flag, 'E');
    EXPECT_EQ(gone.mpids, "NITEGSCO");
    EXPECT_EQ(gone.odd_lots, quoted.odd_lots);
    EXPECT_EQ(gone.odd_lots.size(), 2u);
    EXPECT_EQ(gone.condition, quoted.condition);
    EXPECT_EQ(gone.best_ind, '0');  // the orders are still the best there are
    EXPECT_EQ(market.at(0).has_best_odd_lot, true);
}

TEST(WipeOut, LetterQuotesAgain_OnItsNextRandomQuote) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "QN"});
    market.start_of_day();
    wipe_out(market.engine, 'Q');
    EXPECT_FALSE(find_quote(market.at(0), 'Q')->present);
    market.run_ticks(20);
    EXPECT_TRUE(find_quote(market.at(0), 'Q')->present);
}

TEST(WipeOut, HaltedInstrument_ItsEmptiedQuoteIsPresentAndGoesToo) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100", .participants = "QN"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 0);
    const std::uint64_t mark = market.last();
    wipe_out(market.engine, 'N');
    EXPECT_EQ(briefs(market, mark + 1, market.last()), (List{"wipe-out N", "quote N L E"}));
}

}  // namespace
}  // namespace tessel
