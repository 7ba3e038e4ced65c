#include "support/test_market.h"
#include "unit/snapshot/spin_views.h"
#include "wire/quote_messages.h"

#include <gtest/gtest.h>

namespace tessel {
namespace {

using testing::Bytes;
using testing::get_text;
using testing::get_u16;
using testing::get_u32;
using testing::get_u64;
using testing::quote_of;
using testing::spin_of;
using testing::TestMarket;

// Two centers whose quotes a test sets; the NBBO is what the test says it is.
struct TwoCenters {
    TwoCenters() : market({.symbols = "A:10", .participants = "DQ"}) {
        for (const char market_center : {'D', 'Q'}) {
            ParticipantQuote& quote = *find_quote(market.at(0), market_center);
            quote.market_center = market_center;
            quote.quoted = true;
            quote.present = true;
            quote.condition = 'R';
            quote.has_mpids = market_center == 'D';
        }
    }
    ParticipantQuote& quote(char market_center) {
        return *find_quote(market.at(0), market_center);
    }
    void set_nbbo(std::int64_t bid, std::int64_t ask, char bid_market_center, char ask_market_center) {
        Instrument& instrument = market.at(0);
        instrument.nbbo.bid = bid;
        instrument.nbbo.ask = ask;
        instrument.nbbo.bid_size = bid == 0 ? 0 : 300;
        instrument.nbbo.ask_size = ask == 0 ? 0 : 70'000;
        instrument.nbbo.bid_market_center = bid_market_center;
        instrument.nbbo.ask_market_center = ask_market_center;
        instrument.has_nbbo = true;
    }
    TestMarket market;
};

TEST(SpinQuote, NoNationalPrice_IndicatorIs1) {
    TwoCenters centers;
    const Bytes quote = quote_of(spin_of(centers.market), 'Q');
    EXPECT_EQ(quote.at(76), '1');
    EXPECT_EQ(quote.size(), long_quote_bytes);
}

TEST(SpinQuote, EveryQuote_CarriesTheStoredNationalBestInALongAppendage) {
    TwoCenters centers;
    centers.set_nbbo(9'990'000, 10'010'000, 'Q', 'D');
    const std::vector<Bytes> messages = spin_of(centers.market);
    for (const char market_center : {'D', 'Q'}) {
        const Bytes quote = quote_of(messages, market_center);
        EXPECT_EQ(quote.at(76), '3');
        EXPECT_EQ(quote.at(83), 'R');
        EXPECT_EQ(quote.at(84), 'Q');
        EXPECT_EQ(get_u64(quote, 85), 9'990'000u);
        EXPECT_EQ(get_u32(quote, 93), 300u);
        EXPECT_EQ(quote.at(97), 'D');
        EXPECT_EQ(get_u64(quote, 98), 10'010'000u);
        EXPECT_EQ(get_u32(quote, 106), 70'000u);
    }
}

TEST(SpinQuote, OneSidedNationalBest_HasConditionY) {
    TwoCenters centers;
    centers.set_nbbo(9'990'000, 0, 'Q', ' ');
    const Bytes quote = quote_of(spin_of(centers.market), 'Q');
    EXPECT_EQ(quote.at(76), '3');
    EXPECT_EQ(quote.at(83), 'Y');
}

TEST(SpinQuote, QuoteThatIsTheWholeNationalBest_HasIndicator4) {
    TwoCenters centers;
    centers.set_nbbo(9'990'000, 10'010'000, 'Q', 'Q');
    ParticipantQuote& quote = centers.quote('Q');
    quote.bid = 9'990'000;
    quote.ask = 10'010'000;
    quote.bid_size = 300;
    quote.ask_size = 70'000;
    const std::vector<Bytes> messages = spin_of(centers.market);
    EXPECT_EQ(quote_of(messages, 'Q').at(76), '4');
    EXPECT_EQ(quote_of(messages, 'Q').size(), long_quote_bytes);
    EXPECT_EQ(quote_of(messages, 'D').at(76), '3') << "the other center's carries it";
    quote.ask_size = 69'999;
    EXPECT_EQ(quote_of(spin_of(centers.market), 'Q').at(76), '3');
}

TEST(SpinQuote, NoActiveBand_LuldIndicatorsAreBlank) {
    TwoCenters centers;
    centers.set_nbbo(9'990'000, 10'010'000, 'Q', 'D');
    centers.quote('Q').bid = 12'000'000;
    Instrument& instrument = centers.market.at(0);
    instrument.luld_lower = 9'500'000;
    instrument.luld_upper = 10'500'000;
    instrument.band_indicator = 'D';
    Bytes quote = quote_of(spin_of(centers.market), 'Q');
    EXPECT_EQ(quote.at(74), ' ');
    EXPECT_EQ(quote.at(77), ' ');
    instrument.band_indicator = 'A';
    quote = quote_of(spin_of(centers.market), 'Q');
    EXPECT_EQ(quote.at(74), 'A') << "its bid is above the upper price";
    EXPECT_EQ(quote.at(77), 'A');
}

TEST(SpinQuote, AdfQuote_CarriesItsMpids) {
    TwoCenters centers;
    const std::vector<Bytes> messages = spin_of(centers.market);
    const Bytes adf = quote_of(messages, 'D');
    EXPECT_EQ(adf.at(78), '2');
    EXPECT_EQ(get_text(adf, 83, 8), "NITEGSCO");
    EXPECT_EQ(quote_of(messages, 'Q').at(78), ' ');
}

TEST(SpinQuote, EveryQuote_CarriesTheStoredBestOddLot) {
    TwoCenters centers;
    Instrument& instrument = centers.market.at(0);
    instrument.has_best_odd_lot = true;
    instrument.best_odd_lot.bid_market_center = 'Q';
    instrument.best_odd_lot.ask_market_center = 'Z';
    instrument.best_odd_lot.bid = 10'000'000;
    instrument.best_odd_lot.ask = 10'020'000;
    instrument.best_odd_lot.bid_size = 17;
    instrument.best_odd_lot.ask_size = 99;
    Bytes quote = quote_of(spin_of(centers.market), 'Q');
    EXPECT_EQ(quote.at(79), '3');
    ASSERT_EQ(quote.size(), long_quote_bytes + long_best_odd_lot_bytes);
    EXPECT_EQ(quote.at(83), 'Q');
    EXPECT_EQ(get_u64(quote, 84), 10'000'000u);
    EXPECT_EQ(get_u16(quote, 92), 17u);
    EXPECT_EQ(quote.at(94), 'Z');
    EXPECT_EQ(get_u64(quote, 95), 10'020'000u);
    EXPECT_EQ(get_u16(quote, 103), 99u);

    instrument.best_odd_lot.ask_market_center = 'D';
    quote = quote_of(spin_of(centers.market), 'Q');
    EXPECT_EQ(quote.at(79), '5');
    EXPECT_EQ(get_text(quote, 105, 8), "    GSCO") << "only the ADF's side has an MPID";

    instrument.has_best_odd_lot = false;
    EXPECT_EQ(quote_of(spin_of(centers.market), 'Q').at(79), '0') << "one that has gone is not reported";
}

TEST(SpinQuote, Quote_CarriesItsOwnOddLotList) {
    TwoCenters centers;
    for (const char market_center : {'D', 'Q'}) {
        ParticipantQuote& quote = centers.quote(market_center);
        quote.has_odd_lots = true;
        quote.odd_bid = 10'000'000;
        quote.odd_ask = 10'020'000;
        quote.odd_bid_size = 17;
        quote.odd_ask_size = 99;
    }
    const std::vector<Bytes> messages = spin_of(centers.market);
    const Bytes exchange = quote_of(messages, 'Q');
    EXPECT_EQ(exchange.at(80), '3');
    EXPECT_EQ(get_u16(exchange, 81), 2u);
    ASSERT_EQ(exchange.size(), long_quote_bytes + 2 * long_odd_lot_bytes);
    EXPECT_EQ(get_text(exchange, 83, 2), "QB");
    EXPECT_EQ(get_u64(exchange, 85), 10'000'000u);
    EXPECT_EQ(get_u16(exchange, 93), 17u);
    EXPECT_EQ(get_text(exchange, 95, 2), "QA");
    EXPECT_EQ(get_u64(exchange, 97), 10'020'000u);
    EXPECT_EQ(get_u16(exchange, 105), 99u);
    const Bytes adf = quote_of(messages, 'D');
    EXPECT_EQ(adf.at(80), '5');
    ASSERT_EQ(adf.size(), long_quote_bytes + adf_mpid_bytes + 2 * mpid_odd_lot_bytes);
    EXPECT_EQ(get_text(adf, 103, 4), "NITE");
    EXPECT_EQ(get_text(adf, 119, 4), "GSCO");
    centers.quote('Q').has_odd_lots = false;
    EXPECT_EQ(quote_of(spin_of(centers.market), 'Q').at(80), '0');
}
}  // namespace
}  // namespace tessel
