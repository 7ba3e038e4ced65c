#include "engine/start_of_day.h"

#include "support/message_views.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::get_text;
using testing::get_u16;
using testing::get_u64;
using testing::letters;
using testing::read_quote;
using testing::read_trade;
using testing::TestMarket;
using testing::TradeView;

using List = std::vector<std::string>;

TEST(StartOfDay, Messages_StandInTheirOrder) {
    TestMarket market({.symbols = "A:100,B:700", .participants = "QDN"});
    market.start_of_day();
    EXPECT_EQ(
        market.letters_of(1, market.last()),
        (List{"CIE ", "ACE ",                                  // 1 and 2, always
              "ABQ ", "AFQ ", "AVQ ", "APE ",                  // the first instrument: 3 and 4
              "ABQ ", "AFQ ", "AVQ ", "APE ",                  // the second
              "COQ ", "COD ", "CON ",                          // sessions in participant order
              "QCQ ", "QDD ", "QCN ", "QDQ ", "QDD ", "QDN ",  // opening quotes, instrument by instrument
              "TMQ ", "TNQ "}));                               // opening trades
    EXPECT_EQ(market.publisher.packet_count, 0);               // flushed
    std::size_t sent = 0;
    for (const testing::Bytes& packet : market.packets) {
        sent += testing::packet_messages(packet).size();
    }
    EXPECT_EQ(sent, market.last());
}

TEST(StartOfDay, RepeatedLetters_OpenAndQuoteAgain) {
    TestMarket market({.symbols = "A:100", .participants = "NQN"});
    market.start_of_day();
    EXPECT_EQ(market.letters_of(7, market.last()),
              (List{"CON ", "COQ ", "CON ", "QCN ", "QCQ ", "QCN ", "TMQ "}));
}

TEST(StartOfDay, NoInstruments_SessionsOnly_AndNothingAtAll_TwoMessages) {
    TestMarket no_instruments({.symbols = "", .participants = "QN"});
    no_instruments.start_of_day();
    EXPECT_EQ(no_instruments.letters_of(1, no_instruments.last()), (List{"CIE ", "ACE ", "COQ ", "CON "}));
    TestMarket nothing({.symbols = "", .participants = ""});
    nothing.start_of_day();
    EXPECT_EQ(nothing.letters_of(1, nothing.last()), (List{"CIE ", "ACE "}));
    EXPECT_EQ(nothing.packets.size(), 1u);
}

TEST(StartOfDay, NoParticipants_OpensAtTheReferenceRoundedToTheCent) {
    TestMarket market({.symbols = "A:100.006,B:655.364,C:-1", .participants = ""});
    market.start_of_day();
    const std::uint64_t first = market.last() - 2;
    EXPECT_EQ(read_trade(market.message(first)).price, 100'010'000);
    EXPECT_EQ(read_trade(market.message(first + 1)).price, 655'360'000);
    EXPECT_EQ(read_trade(market.message(first + 1)).type, 'N');
    EXPECT_EQ(read_trade(market.message(first + 2)).price, -1'000'000);
}

TEST(StartOfDay, OpeningTrades_AreAtTheMidpointOfTheOpeningQuotes) {
    TestMarket market({.symbols = "A:100,B:50,C:20"});
    market.start_of_day();
    for (std::size_t at = 0; at < 3; ++at) {
        const Instrument& instrument = market.at(at);
        ASSERT_NE(instrument.nbbo.bid, 0);
        const TradeView view = read_trade(market.message(market.last() - 2 + at));
        EXPECT_EQ(view.price, (instrument.nbbo.bid + instrument.nbbo.ask) / 20000 * 10000);
        EXPECT_EQ(view.size, 5000 * size_unit);
        EXPECT_EQ(view.conditions, "@O  ");
        EXPECT_EQ(view.center, "Q ");
        EXPECT_EQ(view.exempt, ' ');
        EXPECT_EQ(view.id, 1u);
        EXPECT_EQ(view.changes, "77");
        EXPECT_NE(market.truth_lines().at(market.truth_lines().size() - 3 + at).find("\"kind\":2,\"id\":1}"),
                  std::string::npos);
    }
    EXPECT_EQ(market.scenario.stats.cross_prints, 3u);
    EXPECT_EQ(market.scenario.stats.trades, 3u);
    EXPECT_EQ(market.scenario.stats.quotes, 21u);
    EXPECT_EQ(market.scenario.stats.bands, 3u);
}

TEST(StartOfDay, OneReading_IsTheParticipantTimeOfEverything) {
    TestMarket market;
    const std::uint64_t opening = market.clock.simulated_wall_ns;
    market.start_of_day();
    std::uint64_t before = opening;
    for (std::uint64_t sequence = 1; sequence <= market.last(); ++sequence) {
        const testing::Bytes message = market.message(sequence);
        EXPECT_EQ(get_u64(message, 13), opening) << sequence;
        EXPECT_EQ(get_u64(message, 21), 0u);
        // A reading each; the long directory form shares the short one's.
        const std::uint64_t reading = get_u64(message, 5);
        EXPECT_EQ(reading, letters(message) == "AFQ " ? before : before + 1) << sequence;
        before = reading;
    }
}

TEST(StartOfDay, DirectoryIndicatorAndBand_TellTheInstrument) {
    TestMarket market({.symbols = "ABCDEFGHIJKLMNOPQRSTUVWXYZ:190", .participants = "Q"});
    market.start_of_day();
    const testing::Bytes brief_form = market.message(3);
    const testing::Bytes long_form = market.message(4);
    EXPECT_EQ(brief_form.size(), 90u);
    EXPECT_EQ(long_form.size(), 117u);
    EXPECT_TRUE(std::equal(brief_form.begin() + 3, brief_form.end(), long_form.begin() + 3));
    EXPECT_EQ(get_text(long_form, 29, 22), "ABCDEFGHIJK           ");
    EXPECT_EQ(get_text(long_form, 51, 30), "ABCDEFGHIJKLMNOPQRSTUVWXYZ COM");
    EXPECT_EQ(get_text(long_form, 81, 6), "CC QPN");
    EXPECT_EQ(get_u16(long_form, 87), 100);
    EXPECT_EQ(get_text(long_form, 89, 12), "NN03T      0");
    EXPECT_EQ(get_u64(long_form, 101), 0u);
    EXPECT_EQ(get_u64(long_form, 109), 0u);
    const testing::Bytes indicator = market.message(5);
    EXPECT_EQ(indicator.size(), 41u);
    EXPECT_EQ(get_text(indicator, 29, 12), "ABCDEFGHIJK0");
    const testing::Bytes band = market.message(6);
    EXPECT_EQ(get_text(band, 29, 12), "ABCDEFGHIJKA");
    EXPECT_EQ(get_u64(band, 49), 180'500'000u);
    EXPECT_EQ(get_u64(band, 57), 199'500'000u);
    for (std::uint64_t sequence = 8; sequence <= market.last(); ++sequence) {
        EXPECT_EQ(get_text(market.message(sequence), 37, 11), "ABCDEFGHIJK");  // quotes and trades, all long
    }
}

TEST(StartOfDay, DeclineLevels_AreTheFixedThree) {
    TestMarket market;
    market.start_of_day();
    const testing::Bytes levels = market.message(2);
    EXPECT_EQ(levels.size(), 53u);
    EXPECT_EQ(get_u64(levels, 29), 4'650'000'000u);
    EXPECT_EQ(get_u64(levels, 37), 4'350'000'000u);
    EXPECT_EQ(get_u64(levels, 45), 4'000'000'000u);
}

TEST(StartOfDay, RetainedMessages_AreTheStartOfDayAndTheSessionOpens) {
    TestMarket market({.symbols = "A:100,B:100", .participants = "QN"});
    market.start_of_day();
    ASSERT_EQ(market.engine.retained_messages.size(), 3u);
    EXPECT_EQ(market.engine.retained_messages[0], market.message(1));
    EXPECT_EQ(market.engine.retained_messages[1], market.message(11));
    EXPECT_EQ(market.engine.retained_messages[2], market.message(12));
    EXPECT_EQ(letters(market.message(11)), "COQ ");
    EXPECT_EQ(market.message(11).size(), 29u);
}

TEST(StartOfDay, OpeningQuotes_AreDrawnWithTheirUsualConditions) {
    TestMarket market({.symbols = "A:100", .participants = std::string(200, 'Q')});
    market.start_of_day();
    int one_sided = 0;
    for (std::uint64_t sequence = 207; sequence < market.last(); ++sequence) {
        const testing::QuoteView view = read_quote(market.message(sequence));
        ASSERT_TRUE(view.condition == 'R' || view.condition == 'Y');
        one_sided += view.condition == 'Y' ? 1 : 0;
    }
    EXPECT_GT(one_sided, 0);
    EXPECT_LT(one_sided, 30);  // 4 in 100
}

}  // namespace
}  // namespace tessel
