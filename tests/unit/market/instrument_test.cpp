#include "market/instrument.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace tessel {
namespace {

// The rule written with the library's rounding.
std::int64_t rounded_cents(double price) {
    const double cents = 100 * price;
    if (std::isnan(cents)) {
        return 0;
    }
    return std::llround(std::fmin(std::fmax(cents, -1e12), 1e12));
}

TEST(PriceToCents, HalvesLimitsAndNoNumbers_AreRoundedAwayFromZeroAndHeld) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const double tiny = std::numeric_limits<double>::denorm_min();
    for (const double price : {0.0,
                               -0.0,
                               tiny,
                               0.004,
                               0.005,
                               0.0049999999999999999,
                               0.015,
                               0.025,
                               0.125,
                               0.375,
                               1.005,
                               2.675,
                               190.0,
                               189.995,
                               655.35,
                               655.355,
                               1e9 + 0.125,
                               9999999999.99,
                               1e10,
                               1.0000001e10,
                               1e15,
                               1e300,
                               std::numeric_limits<double>::max(),
                               infinity,
                               std::numeric_limits<double>::quiet_NaN()}) {
        for (const double near : {price, std::nextafter(price, infinity), std::nextafter(price, -infinity)}) {
            EXPECT_EQ(price_to_cents(near), rounded_cents(near)) << near;
            EXPECT_EQ(price_to_cents(-near), rounded_cents(-near)) << -near;
        }
    }
    EXPECT_EQ(price_to_cents(0.005), 1);
    EXPECT_EQ(price_to_cents(-0.005), -1);
    EXPECT_EQ(price_to_cents(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(price_to_cents(infinity), 1'000'000'000'000);
    EXPECT_EQ(price_to_cents(-1e300), -1'000'000'000'000);
    EXPECT_EQ(price_to_cents(9'999'999'999.99), 999'999'999'999);
}

TEST(PriceToCents, RandomPricesOfEveryScale_EqualTheLibrarysRounding) {
    std::mt19937_64 raw(20);
    for (int at = 0; at < 200'000; ++at) {
        const double mantissa = static_cast<double>(static_cast<std::int64_t>(raw())) * 0x1p-63;
        const double price = std::ldexp(mantissa, static_cast<int>(raw() % 44) - 8);
        ASSERT_EQ(price_to_cents(price), rounded_cents(price)) << price;
    }
    for (std::int64_t half = -200'001; half < 200'000;
         half += 2) {  // x.xx5 as a double: on both sides of the half
        const double price = static_cast<double>(half) / 200.0;
        ASSERT_EQ(price_to_cents(price), rounded_cents(price)) << price;
    }
}

struct Built {
    std::string symbol;
    double price;
    unsigned secid;

    bool operator==(const Built&) const = default;
};

std::vector<Built> build(const std::string& text) {
    InstrumentList list;
    std::string error;
    EXPECT_TRUE(build_instruments(text, list, error)) << error;
    std::vector<Built> result;
    for (const Instrument& instrument : list) {
        result.push_back({instrument.symbol, instrument.price, instrument.secid});
    }
    return result;
}

TEST(BuildInstruments, Texts_GiveSymbolsPricesAndSecids) {
    using List = std::vector<Built>;
    EXPECT_EQ(build(""), List());
    EXPECT_EQ(build("X"), (List{{"X", 100.0, 1}}));
    EXPECT_EQ(build("A:10,"), (List{{"A", 10.0, 1}}));
    EXPECT_EQ(build(","), (List{{"", 100.0, 1}}));
    EXPECT_EQ(build(",B:2"), (List{{"", 100.0, 1}, {"B", 2.0, 2}}));
    EXPECT_EQ(build("A:10,,B:20"), (List{{"A", 10.0, 1}, {"", 100.0, 2}, {"B", 20.0, 3}}));
    EXPECT_EQ(build("AAPL:1,AAPL:2"), (List{{"AAPL", 1.0, 1}, {"AAPL", 2.0, 2}}));
    EXPECT_EQ(build(":5"), (List{{"", 5.0, 1}}));
    EXPECT_EQ(build("A:7.5x:9"), (List{{"A", 7.5, 1}}));
    EXPECT_EQ(build("A:-3,B: 4"), (List{{"A", -3.0, 1}, {"B", 4.0, 2}}));
    EXPECT_EQ(build("a b:1"), (List{{"a b", 1.0, 1}}));
}

TEST(BuildInstruments, PriceThatIsNoNumber_FailsWithTheConversionsText) {
    for (const auto& [text, message] :
         {std::pair("A:", "stod: not a number: ''"), std::pair("B:1,A:abc", "stod: not a number: 'abc'"),
          std::pair("A:1e999", "stod: out of range: '1e999'")}) {
        InstrumentList list;
        std::string error;
        EXPECT_FALSE(build_instruments(text, list, error)) << text;
        EXPECT_EQ(error, message);
    }
}

TEST(BuildInstruments, MoreThan65535Items_SecidWrapsTo16Bits) {
    InstrumentList list;
    std::string error;
    ASSERT_TRUE(build_instruments(std::string(65537, ','), list, error));
    ASSERT_EQ(list.size(), 65537u);
    EXPECT_EQ(list[65534].secid, 65535);
    EXPECT_EQ(list[65535].secid, 0);
    EXPECT_EQ(list[65536].secid, 1);
}

TEST(BuildInstruments, InitialValues_AreTradingWithoutNbboBandOrHistory) {
    InstrumentList list;
    std::string error;
    ASSERT_TRUE(build_instruments("A", list, error));
    const Instrument& instrument = list[0];
    EXPECT_EQ(instrument.status, 'T');
    EXPECT_EQ(instrument.band_indicator, ' ');
    EXPECT_EQ(instrument.indicator, '0');
    EXPECT_EQ(instrument.nbbo.bid_market_center, ' ');
    EXPECT_EQ(instrument.nbbo.ask_market_center, ' ');
    EXPECT_EQ(instrument.best_odd_lot.bid_market_center, ' ');
    EXPECT_EQ(instrument.last_market_center, ' ');
    EXPECT_FALSE(instrument.has_nbbo);
    EXPECT_EQ(instrument.nbbo.bid | instrument.nbbo.ask | instrument.luld_lower | instrument.luld_upper |
                  instrument.luld_ref | instrument.high | instrument.low | instrument.last,
              0);
    EXPECT_EQ(instrument.quote_resume_ms | instrument.trade_resume_ms | instrument.band_due_ms, 0u);
    EXPECT_EQ(instrument.action_seq, 0u);
    EXPECT_TRUE(instrument.trades.empty());
    EXPECT_TRUE(instrument.halt_reason.empty());
}

TEST(WireSymbol, ShortExactAndLong_IsElevenCharactersPaddedOrCut) {
    InstrumentList list;
    std::string error;
    ASSERT_TRUE(build_instruments(",ABCDE,ABCDEF,ABCDEFGHIJK,ABCDEFGHIJKLMNOP", list, error));
    EXPECT_EQ(wire_symbol(list[0]), "           ");
    EXPECT_EQ(wire_symbol(list[1]), "ABCDE      ");
    EXPECT_EQ(wire_symbol(list[3]), "ABCDEFGHIJK");
    EXPECT_EQ(wire_symbol(list[4]), "ABCDEFGHIJK");
    EXPECT_TRUE(has_short_symbol(list[0]));
    EXPECT_TRUE(has_short_symbol(list[1]));
    EXPECT_FALSE(has_short_symbol(list[2]));
    EXPECT_EQ(list[4].symbol, "ABCDEFGHIJKLMNOP");
}

TEST(ActiveBand, AnyBand_NeedsBothPricesAboveZeroAndACheckedLetter) {
    Instrument instrument;
    for (int letter = 0; letter < 256; ++letter) {
        instrument.band_indicator = static_cast<char>(letter);
        const bool checked =
            letter != 0 && std::string("ABCEG").find(static_cast<char>(letter)) != std::string::npos;
        instrument.luld_lower = 1;
        instrument.luld_upper = 1;
        EXPECT_EQ(has_active_band(instrument), checked) << letter;
        instrument.luld_lower = 0;
        EXPECT_FALSE(has_active_band(instrument));
        instrument.luld_lower = -1;
        EXPECT_FALSE(has_active_band(instrument));
        instrument.luld_lower = 1;
        instrument.luld_upper = 0;
        EXPECT_FALSE(has_active_band(instrument));
    }
}

TEST(IsStopped, EveryStatus_OnlyHAndPAreStopped) {
    Instrument instrument;
    for (const char status : {'H', 'P', 'Q', 'T'}) {
        instrument.status = status;
        EXPECT_EQ(is_stopped(instrument), status == 'H' || status == 'P') << status;
    }
}

TEST(FindQuote, Letter_FoundOnlyWithASlot) {
    std::array<ParticipantQuote, 2> quotes;
    quotes[0].market_center = 'N';
    quotes[1].market_center = 'Q';
    Instrument instrument;
    EXPECT_EQ(find_quote(instrument, 'Q'), nullptr);
    instrument.quotes = quotes.data();
    instrument.quote_slots = quotes.size();
    EXPECT_EQ(find_quote(instrument, 'N'), &quotes[0]);
    EXPECT_EQ(find_quote(instrument, 'Q'), &quotes[1]);
    EXPECT_EQ(find_quote(instrument, 'q'), nullptr);
}

TEST(CrossPrice, MidpointCutToCents_OrReferenceRounded) {
    struct Row {
        std::int64_t bid, ask;
        double price;
        std::int64_t expected;
    };
    for (const Row& row :
         std::vector<Row>{{190'010'000, 190'030'000, 1.0, 190'020'000},
                          {190'010'000, 190'040'000, 1.0, 190'020'000},  // .025 is cut to .02
                          {190'010'000, 0, 189.995, 190'000'000},
                          {0, 190'010'000, 189.994, 189'990'000},
                          {0, 0, -0.015, -20'000},
                          {-30'000, 20'000, 1.0, 0},  // toward zero
                          {-40'000, -10'000, 1.0, -20'000}}) {
        Instrument instrument;
        instrument.nbbo.bid = row.bid;
        instrument.nbbo.ask = row.ask;
        instrument.price = row.price;
        EXPECT_EQ(cross_price(instrument), row.expected) << row.bid << ' ' << row.ask;
    }
}

TEST(ReferencePrice, LargestPrice_IsHeldBelowOverflow) {
    Instrument instrument;
    instrument.price = 1e300;
    EXPECT_EQ(reference_price(instrument), 10'000'000'000'000'000);
    instrument.price = 189.995;
    EXPECT_EQ(reference_price(instrument), 190'000'000);
}

}  // namespace
}  // namespace tessel
