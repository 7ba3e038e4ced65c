#include "output/quote_line.h"

#include "engine/halts.h"
#include "market/instrument.h"
#include "market/quote_index.h"
#include "support/test_market.h"
#include "unit/output/log_in_file.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::cut_format;
using testing::dollars;
using testing::Log;

TEST(QuoteLine, NoQuotes_EmptyListsAndZeroNbbo) {
    Log log("IBM");
    EXPECT_EQ(log.quote_line(7),
              "{\"seq\":7,\"secid\":1,\"symbol\":\"IBM\",\"bid\":[],\"ask\":[],"
              "\"nbbo\":[0.0000,0,0.0000,0],\"status\":\"T\"}\n");
}

TEST(QuoteLine, LevelsNbboBandAndStatus_StandInTheirOrder) {
    Log log("AAPL:190", 3);
    log.quotes[0].bid = 190'000'000;
    log.quotes[0].bid_size = 500;
    log.quotes[1].bid = 190'010'000;
    log.quotes[1].bid_size = 300;
    log.quotes[2].ask = 190'030'000;
    log.quotes[2].ask_size = 200;
    Instrument& instrument = log.instrument();
    instrument.nbbo.bid = 190'010'000;
    instrument.nbbo.bid_size = 300;
    instrument.nbbo.ask = 190'030'000;
    instrument.nbbo.ask_size = 200;
    instrument.luld_lower = 180'500'000;
    instrument.luld_upper = 199'500'000;
    instrument.band_indicator = 'A';
    EXPECT_EQ(log.quote_line(812),
              "{\"seq\":812,\"secid\":1,\"symbol\":\"AAPL\",\"bid\":[[190.0100,300],[190.0000,500]],"
              "\"ask\":[[190.0300,200]],\"nbbo\":[190.0100,300,190.0300,200],\"band\":[180.5000,199.5000],"
              "\"status\":\"T\"}\n");
    instrument.status = 'H';
    instrument.band_indicator = 'D';
    EXPECT_EQ(log.action_line(813, 'H', "T1"),
              "{\"seq\":813,\"secid\":1,\"symbol\":\"AAPL\",\"bid\":[[190.0100,300],[190.0000,500]],"
              "\"ask\":[[190.0300,200]],\"nbbo\":[190.0100,300,190.0300,200],"
              "\"status\":\"H\",\"ah\":\"H\",\"reason\":\"T1\"}\n");
}

TEST(QuoteLine, TwelveBidPrices_TheBestTenAppear) {
    Log log("A", 12);
    std::string expected;
    for (int at = 0; at < 12; ++at) {
        log.quotes[static_cast<std::size_t>(at)].bid = (at + 1) * 10'000;
        log.quotes[static_cast<std::size_t>(at)].bid_size = 100;
    }
    for (int cents = 12; cents > 2; --cents) {
        expected += cut_format<40>("%s[%.4f,%lld]", cents == 12 ? "" : ",", cents / 100.0, 100LL);
    }
    EXPECT_NE(log.quote_line(1).find("\"bid\":[" + expected + "],\"ask\":[]"), std::string::npos);
}

// One side's list from the quotes: added up by price, best first, ten at most.
std::string formatted_levels(const std::vector<ParticipantQuote>& quotes, bool bids) {
    std::map<std::int64_t, long long> sizes;
    for (const ParticipantQuote& quote : quotes) {
        const std::int64_t price = bids ? quote.bid : quote.ask;
        const std::uint32_t size = bids ? quote.bid_size : quote.ask_size;
        if (quote.present && price > 0 && size > 0) {
            sizes[bids ? -price : price] += size;
        }
    }
    std::string text;
    int count = 0;
    for (const auto& [key, size] : sizes) {
        if (++count > 10) {
            break;
        }
        text += cut_format<80>("%s[%.4f,%lld]", count == 1 ? "" : ",", dollars(bids ? -key : key), size);
    }
    return text;
}

TEST(QuoteLine, Seed8_RandomBooksAroundWholeDollars_EqualTheFormattedPieces) {
    std::mt19937_64 raw(8);
    Log log("A", 14);
    Instrument& instrument = log.instrument();
    constexpr std::int64_t bases[] = {0, 97, 998, 9'997, 99'999, 1'000'003, 999'999'999'990};
    for (int round = 0; round < 1'500; ++round) {
        const std::int64_t base = bases[raw() % 7];
        const auto price = [&] { return (base + static_cast<std::int64_t>(raw() % 9)) * 10'000; };
        for (ParticipantQuote& quote : log.quotes) {
            quote.present = raw() % 6 != 0;
            quote.bid = raw() % 5 == 0 ? 0 : price();
            quote.ask = raw() % 5 == 0 ? -price() : price();
            quote.bid_size = static_cast<std::uint32_t>(raw() % 4 * 1'234);
            quote.ask_size = static_cast<std::uint32_t>(raw() % 4 * 99);
        }
        instrument.nbbo.bid = price();
        instrument.nbbo.ask = raw() % 4 == 0 ? 0 : price();
        instrument.nbbo.bid_size = static_cast<std::uint32_t>(raw());
        instrument.nbbo.ask_size = static_cast<std::uint32_t>(raw() % 2'000);
        const auto expected =
            cut_format<200>("],\"nbbo\":[%.4f,%u,%.4f,%u],\"status\":\"T\"}\n", dollars(instrument.nbbo.bid),
                            instrument.nbbo.bid_size, dollars(instrument.nbbo.ask), instrument.nbbo.ask_size);
        ASSERT_EQ(log.quote_line(5), "{\"seq\":5,\"secid\":1,\"symbol\":\"A\",\"bid\":[" +
                                         formatted_levels(log.quotes, true) + "],\"ask\":[" +
                                         formatted_levels(log.quotes, false) + expected)
            << "round " << round;
    }
}

TEST(QuoteLine, Band_IsLeftOutWhenAPriceIsNotAboveZeroOrTheLetterIsNotChecked) {
    Log log;
    Instrument& instrument = log.instrument();
    for (const char letter : std::string(" ABCDEFGHI")) {
        instrument.luld_lower = 10'000;
        instrument.luld_upper = 20'000;
        instrument.band_indicator = letter;
        const bool checked = std::string("ABCEG").find(letter) != std::string::npos;
        EXPECT_EQ(log.quote_line(1).find(",\"band\":[0.0100,0.0200],") != std::string::npos, checked)
            << letter;
        instrument.luld_lower = 0;
        EXPECT_EQ(log.quote_line(1).find("band"), std::string::npos);
        instrument.luld_lower = 10'000;
        instrument.luld_upper = -1;
        EXPECT_EQ(log.quote_line(1).find("band"), std::string::npos);
    }
}

// The same line whether the levels come from the index or from the quotes themselves.
TEST(QuoteLine, MarketInMotion_TheIndexAndTheQuotesGiveTheSameLine) {
    testing::TestMarket market({.symbols = "A:0.05,B:19.99,C:999.97,D:1234.56,E:167772.00,F:3000000,G:-1",
                                .participants = "ABCDEFGD",
                                .scenario = "odd_lot_every=3",
                                .step_bps = 2,
                                .truth = false});
    testing::StderrCapture messages;
    Log log;
    market.start_of_day();
    int from_index = 0;
    int lines = 0;
    for (int round = 0; round < 400; ++round) {
        market.run_ticks(1);
        if (round % 50 == 20) {
            halt_instrument(market.engine, market.at(1), "T1", 5);
        }
        if (round % 50 == 40) {
            resume_quotation(market.engine, market.at(1), 1);
        }
        for (Instrument& instrument : market.engine.instruments) {
            LevelBuckets bids;
            LevelBuckets asks;
            from_index += fill_level_buckets(instrument, bids, asks) ? 1 : 0;
            ++lines;
            write_quote_line(log.truth, instrument, 1);
            const std::string indexed = log.take();
            QuoteBlock* const blocks = instrument.blocks;
            instrument.blocks = nullptr;
            write_quote_line(log.truth, instrument, 1);
            instrument.blocks = blocks;
            ASSERT_EQ(log.take(), indexed) << instrument.symbol << " round " << round;
        }
    }
    EXPECT_GT(from_index, lines / 2);
    EXPECT_LT(from_index, lines);
}

TEST(QuoteLine, LargestPricesSizesAndALongSymbol_FitTheLine) {
    const std::string symbol(5'000, 'S');
    Log log(symbol, 20);
    for (ParticipantQuote& quote : log.quotes) {
        quote.bid = 10'000'000'000'000'000 - quote.market_center * 10'000;
        quote.ask = quote.bid;
        quote.bid_size = 4'294'967'295u;
        quote.ask_size = quote.bid_size;
    }
    const std::string line = log.action_line(18'446'744'073'709'551'615u, 'H', std::string(3'000, 'x'));
    EXPECT_EQ(line.find("{\"seq\":18446744073709551615,\"secid\":1,\"symbol\":\"" + symbol + "\""), 0u);
    EXPECT_NE(line.find("[9999999999.3500,4294967295],"), std::string::npos);
    EXPECT_EQ(line.substr(line.size() - 3'003), std::string(3'000, 'x') + "\"}\n");
}

TEST(QuoteLine, SymbolsOfEveryLength_AreWritten) {
    for (const std::size_t length : {0u, 1u, 10u, 11u, 12u, 16u, 17u, 254u, 255u, 256u, 3'000u}) {
        const std::string symbol(length, 'S');
        Log log(symbol.empty() ? ":1" : symbol);
        EXPECT_EQ(log.quote_line(9).find("{\"seq\":9,\"secid\":1,\"symbol\":\"" + symbol + "\",\"bid\""), 0u)
            << length;
    }
}

TEST(BandLine, Letter_IsTheLastMember) {
    Log log;
    write_band_line(log.truth, log.instrument(), 2, 'B');
    EXPECT_EQ(log.take(),
              "{\"seq\":2,\"secid\":1,\"symbol\":\"AAPL\",\"bid\":[],\"ask\":[],\"nbbo\":[0.0000,0,0.0000,0],"
              "\"status\":\"T\",\"ap\":\"B\"}\n");
}

}  // namespace
}  // namespace tessel
