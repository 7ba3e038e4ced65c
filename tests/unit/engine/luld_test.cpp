#include "engine/luld.h"

#include "support/message_views.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::briefs;
using testing::get_text;
using testing::get_u32;
using testing::get_u64;
using testing::StderrCapture;
using testing::TestMarket;

using List = std::vector<std::string>;

std::int64_t price_at(const testing::Bytes& message, std::size_t offset) {
    return static_cast<std::int64_t>(get_u64(message, offset));
}

TEST(BandAround, FivePercentOnEachSide_CutTowardZeroToCents) {
    struct Row {
        std::int64_t reference, lower, upper;
    };
    for (const Row& row : {Row{190'000'000, 180'500'000, 199'500'000},
                           {100'000, 90'000, 100'000},
                           {10'000, 0, 10'000},
                           {20'000, 10'000, 20'000},
                           {200'000, 190'000, 210'000},
                           {190'010'000, 180'500'000, 199'510'000},
                           {0, 0, 0},
                           {-10'000, 0, -10'000},
                           {-1'000'000, -950'000, -1'050'000},
                           {10'000'000'000'000'000, 9'500'000'000'000'000, 10'500'000'000'000'000}}) {
        const Band band = band_around(row.reference);
        EXPECT_EQ(band.reference, row.reference);
        EXPECT_EQ(band.lower, row.lower) << row.reference;
        EXPECT_EQ(band.upper, row.upper) << row.reference;
    }
}

TEST(SendBand, EveryField_AndTheTruthLine) {
    TestMarket market({.symbols = "IBM:190.004"});
    const std::uint64_t now = market.clock.simulated_wall_ns;
    send_band(market.engine, market.at(0), 'A', 4'242);
    const testing::Bytes message = market.message(1);
    EXPECT_EQ(message.size(), 65u);
    EXPECT_EQ(get_text(message, 0, 5), "1APE ");
    EXPECT_EQ(get_u64(message, 5), now);
    EXPECT_EQ(get_u64(message, 13), 4'242u);
    EXPECT_EQ(get_u64(message, 21), 0u);
    EXPECT_EQ(get_text(message, 29, 11), "IBM        ");
    EXPECT_EQ(get_text(message, 40, 1), "A");
    EXPECT_EQ(get_u64(message, 41), 4'242u);
    EXPECT_EQ(price_at(message, 49), 180'500'000);
    EXPECT_EQ(price_at(message, 57), 199'500'000);
    EXPECT_EQ(market.at(0).luld_ref, 190'000'000);
    EXPECT_EQ(market.at(0).band_indicator, 'A');
    EXPECT_EQ(market.at(0).band_due_ms, 0u);
    EXPECT_EQ(market.scenario.stats.bands, 1u);
    EXPECT_EQ(market.truth_text(),
              "{\"seq\":1,\"secid\":1,\"symbol\":\"IBM\",\"bid\":[],\"ask\":[],"
              "\"nbbo\":[0.0000,0,0.0000,0],\"band\":[180.5000,199.5000],\"status\":\"T\","
              "\"ap\":\"A\"}\n");
    EXPECT_TRUE(market.packets.empty());
}

TEST(SendBand, Deactivation_SendsTheStoredValuesAndTheTruthLineHasNoBand) {
    TestMarket market({.symbols = "IBM:190"});
    send_band(market.engine, market.at(0), 'A', 1);
    market.at(0).price = 50;
    send_band(market.engine, market.at(0), 'D', 2);
    EXPECT_EQ(price_at(market.message(2), 49), 180'500'000);
    EXPECT_EQ(price_at(market.message(2), 57), 199'500'000);
    EXPECT_EQ(market.at(0).luld_ref, 190'000'000);
    const std::string line = market.truth_lines().back();
    EXPECT_EQ(line.find("band"), std::string::npos);
    EXPECT_TRUE(line.ends_with(",\"status\":\"T\",\"ap\":\"D\"}"));
}

TEST(SendBand, NegativeReference_IsSentAsItIs) {
    TestMarket market({.symbols = "IBM:-1"});
    send_band(market.engine, market.at(0), 'B', 1);
    EXPECT_EQ(price_at(market.message(1), 49), -950'000);
    EXPECT_EQ(price_at(market.message(1), 57), -1'050'000);
    EXPECT_EQ(market.truth_text().find("band"), std::string::npos);
}

TEST(SendBand, Period_SetsWhenTheNextIsDue) {
    TestMarket market({.symbols = "IBM:190", .scenario = "band_every=30"});
    send_band(market.engine, market.at(0), 'A', 1);
    EXPECT_EQ(market.at(0).band_due_ms, 1'030'000u);
    market.advance_ms(500);
    send_band(market.engine, market.at(0), 'D', 1);  // any indicator does
    EXPECT_EQ(market.at(0).band_due_ms, 1'030'500u);
    market.scenario.band_every = 4'294'967'295u;
    send_band(market.engine, market.at(0), 'B', 1);
    EXPECT_EQ(market.at(0).band_due_ms, 1'000'500u + 4'294'967'295'000u);
}

TEST(BandIsStale, OnePercentExactly_OrMore) {
    struct Row {
        std::int64_t reference;
        double price;
        bool stale;
    };
    for (const Row& row : {Row{100'000'000, 101.0, true},
                           {100'000'000, 100.99, false},
                           {100'000'000, 99.0, true},
                           {100'990'000, 101.99, false},
                           {100'000'000, 99.01, false},
                           {100'000'000, 100.995, true},
                           {100'000'000, 100.9949, false},
                           {0, 500.0, false},
                           {10'000, 0.01, false},
                           {10'000, 0.02, true},
                           {50'000, 0.05, false},
                           {-10'000, -0.01, true},
                           {-1'000'000, -1.0, true},
                           {10'000'000'000'000'000, 1e300, false},
                           {10'000'000'000'000'000, -1e300, true}}) {
        Instrument instrument;
        instrument.luld_ref = row.reference;
        instrument.price = row.price;
        EXPECT_EQ(band_is_stale(instrument), row.stale) << row.reference << ' ' << row.price;
    }
}

TEST(LuldPause, Messages_AreActionEmptiedQuotesBandDAndCollar) {
    StderrCapture errors;
    TestMarket market({.symbols = "IBM:190", .participants = "QQN"});
    market.start_of_day();
    const std::uint64_t mark = market.last();
    const std::uint64_t now = market.clock.simulated_wall_ns;
    market.packets.clear();
    errors.take();
    luld_pause(market.engine, market.at(0), 0);
    EXPECT_EQ(briefs(market, mark + 1, market.last()),
              (List{"action P LUDP 1", "quote Q L", "quote Q L", "quote N L", "band D", "collar"}));
    for (std::uint64_t sequence = mark + 1; sequence <= market.last(); ++sequence) {
        EXPECT_EQ(get_u64(market.message(sequence), 13), now);
        EXPECT_EQ(get_u64(market.message(sequence), 5), now + sequence - mark);
    }
    EXPECT_EQ(errors.take(), "bench: IBM LULD pause at seq " + std::to_string(market.last()) +
                                 " (collar 180.50 / 199.50), resuming in 0 s\n");
    EXPECT_EQ(market.at(0).status, 'P');
    EXPECT_EQ(market.at(0).quote_resume_ms, 0u);
    EXPECT_EQ(market.scenario.stats.pauses, 1u);
    EXPECT_EQ(market.scenario.stats.collars, 1u);
    EXPECT_EQ(market.scenario.stats.halts, 0u);
    EXPECT_EQ(market.packets.size(), 1u);
    EXPECT_EQ(market.publisher.packet_count, 0);
}

TEST(LuldPause, Collar_IsAroundThePriceOfNowWithThePausesNumber) {
    StderrCapture errors;
    TestMarket market({.symbols = "IBM:190", .participants = "Q"});
    market.start_of_day();
    market.at(0).action_seq = 6;
    market.at(0).price = 100.01;
    luld_pause(market.engine, market.at(0), 9);
    const testing::Bytes collar = market.message(market.last());
    EXPECT_EQ(collar.size(), 69u);
    EXPECT_EQ(get_text(collar, 0, 5), "1AEQ ");
    EXPECT_EQ(get_text(collar, 29, 11), "IBM        ");
    EXPECT_EQ(get_u32(collar, 40), 7u);
    EXPECT_EQ(price_at(collar, 44), 100'010'000);
    EXPECT_EQ(price_at(collar, 52), 105'010'000);
    EXPECT_EQ(price_at(collar, 60), 95'000'000);
    EXPECT_EQ(collar[68], 0);
    const testing::Bytes band = market.message(market.last() - 1);  // unchanged
    EXPECT_EQ(price_at(band, 49), 180'500'000);
    EXPECT_EQ(price_at(band, 57), 199'500'000);
    EXPECT_EQ(market.at(0).quote_resume_ms, 1'009'000u);
    EXPECT_NE(errors.take().find("(collar 95.00 / 105.01), resuming in 9 s\n"), std::string::npos);
}

TEST(LuldPause, InstrumentWithoutABand_SendsBandDAllTheSame) {
    StderrCapture errors;
    TestMarket market({.symbols = "P:0.01", .participants = "Q"});
    luld_pause(market.engine, market.at(0), 0);
    EXPECT_EQ(briefs(market, 1, market.last()), (List{"action P LUDP 1", "quote Q L", "band D", "collar"}));
    EXPECT_EQ(price_at(market.message(3), 57), 0);
    EXPECT_EQ(price_at(market.message(4), 52), 10'000);
    EXPECT_EQ(price_at(market.message(4), 60), 0);
}

TEST(LuldPause, WithoutALength_StaysUntilItIsResumed) {
    StderrCapture errors;
    TestMarket market({.symbols = "IBM:190"});
    market.start_of_day();
    luld_pause(market.engine, market.at(0), 0);
    market.run_ticks(600);
    EXPECT_EQ(market.at(0).status, 'P');
}

}  // namespace
}  // namespace tessel
