#include "market/trade_statistics.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace tessel {
namespace {

using testing::TestMarket;

constexpr std::string_view high_low_set = "@ABDFGKLOPSXYZ14569";
constexpr std::string_view last_set = "@ABDFKLOSXY1569";
constexpr std::string_view volume_set = "@ABCDFGHIKLOPRSTUVWXYZ14567";

bool all_in(std::string_view conditions, std::string_view set) {
    for (const char letter : conditions) {
        if (letter != ' ' && set.find(letter) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

void expect_sets(const std::string& conditions) {
    const Eligibility eligible = eligibility(conditions.data());
    EXPECT_EQ(eligible.high_low, all_in(conditions, high_low_set)) << conditions;
    EXPECT_EQ(eligible.last, all_in(conditions, last_set)) << conditions;
    EXPECT_EQ(eligible.volume, all_in(conditions, volume_set)) << conditions;
}

TEST(Eligibility, EveryCharacterInEveryPlace_MustBeInTheSet) {
    for (int letter = 0; letter < 256; ++letter) {
        for (std::size_t place = 0; place < 4; ++place) {
            std::string conditions = "    ";
            conditions[place] = static_cast<char>(letter);
            expect_sets(conditions);
            conditions = "@@@@";
            conditions[place] = static_cast<char>(letter);
            expect_sets(conditions);
        }
    }
}

TEST(Eligibility, ConditionsOfTheFeed_UpdateWhatTheyShould) {
    struct Row {
        const char* conditions;
        bool high_low, last, volume;
    };
    for (const Row& row : {Row{"@   ", true, true, true},
                           {"@  I", false, false, true},
                           {"@F  ", true, true, true},
                           {"@O  ", true, true, true},
                           {"@5  ", true, true, true},
                           {"@6  ", true, true, true},
                           {"@  M", false, false, false},
                           {"    ", true, true, true},
                           {"@4  ", true, false, true},
                           {"C   ", false, false, true},
                           {"@7  ", false, false, true}}) {
        const Eligibility eligible = eligibility(row.conditions);
        EXPECT_EQ(eligible.high_low, row.high_low) << row.conditions;
        EXPECT_EQ(eligible.last, row.last) << row.conditions;
        EXPECT_EQ(eligible.volume, row.volume) << row.conditions;
    }
}

std::string show(const StatisticsRecord& record) {
    return std::to_string(record.high) + " " + std::to_string(record.low) + " " +
           std::to_string(record.last) + " " + std::to_string(record.volume);
}

TEST(ApplyTrade, FirstHigherLowerAndNegativePrices_CompareSigned) {
    TestMarket market({.symbols = "A"});
    Instrument& instrument = market.at(0);
    ParticipantTradeStats* const stats = find_trade_stats(instrument, 'N');
    const Eligibility all{true, true, true};
    struct Row {
        std::int64_t price;
        const char* expected;
    };
    for (const Row& row : {Row{500, "500 500 500 10"},
                           {600, "600 500 600 20"},
                           {400, "600 400 400 30"},
                           {-100, "600 -100 -100 40"},
                           {0, "600 -100 0 50"},
                           {-50, "600 -100 -50 60"}}) {
        apply_trade(instrument, stats, all, 'N', row.price, 10);
        EXPECT_EQ(show(consolidated_statistics(instrument)), row.expected);
        EXPECT_EQ(show(participant_statistics(instrument, 'N')), row.expected);
    }
    EXPECT_EQ(instrument.last_market_center, 'N');
    EXPECT_EQ(stats->last_market_center, 'N');
}

TEST(ApplyTrade, HighOrLowOfZero_CountsAsNoneYet) {
    TestMarket market({.symbols = "A"});
    Instrument& instrument = market.at(0);
    apply_trade(instrument, nullptr, {true, true, true}, 'N', 0, 1);
    apply_trade(instrument, nullptr, {true, true, true}, 'N', -5, 1);
    EXPECT_EQ(show(consolidated_statistics(instrument)), "-5 -5 -5 2");
}

TEST(ApplyTrade, EachEligibility_UpdatesItsOwnFieldsOnly) {
    struct Row {
        Eligibility eligible;
        const char* expected;
        char last_center;
    };
    for (const Row& row : {Row{{true, false, false}, "7 7 0 0", ' '},
                           {{false, true, false}, "0 0 7 0", 'Z'},
                           {{false, false, true}, "0 0 0 3", ' '},
                           {{false, false, false}, "0 0 0 0", ' '}}) {
        TestMarket market({.symbols = "A"});
        Instrument& instrument = market.at(0);
        apply_trade(instrument, find_trade_stats(instrument, 'Z'), row.eligible, 'Z', 7, 3);
        EXPECT_EQ(show(consolidated_statistics(instrument)), row.expected);
        EXPECT_EQ(show(participant_statistics(instrument, 'Z')), row.expected);
        EXPECT_EQ(instrument.last_market_center, row.last_center);
        EXPECT_EQ(show(participant_statistics(instrument, 'N')), "0 0 0 0");
    }
}

TEST(FindTradeStats, ListedCentersCrossAndTrf_AndNoOther) {
    TestMarket market({.symbols = "A", .participants = "NZ"});
    for (const char letter : std::string("NZQD")) {
        ASSERT_NE(find_trade_stats(market.at(0), letter), nullptr);
        EXPECT_EQ(find_trade_stats(market.at(0), letter)->market_center, letter);
    }
    EXPECT_EQ(find_trade_stats(market.at(0), 'V'), nullptr);
    EXPECT_EQ(show(participant_statistics(market.at(0), 'V')), "0 0 0 0");
}

TEST(NextTradeId, EveryKey_CountsFromOneForItself) {
    TestMarket market({.symbols = "A,B"});
    struct Row {
        std::size_t instrument;
        char center, sub;
        std::uint64_t id;
    };
    for (const Row& row : {Row{0, 'D', ' ', 1},
                           {0, 'D', ' ', 2},
                           {0, 'D', 'N', 1},
                           {0, 'D', ' ', 3},
                           {0, 'D', 'B', 1},
                           {0, 'D', 'N', 2},
                           {1, 'D', 'N', 1},
                           {0, 'Q', ' ', 1},
                           {0, 'N', ' ', 1},
                           {0, 'Q', ' ', 2},
                           {0, 'x', ' ', 1},
                           {0, 'x', ' ', 2},
                           {0, 'Q', 'Q', 1}}) {
        Instrument& instrument = market.at(row.instrument);
        EXPECT_EQ(next_trade_id(instrument, find_trade_stats(instrument, row.center), row.center, row.sub),
                  row.id)
            << row.center << row.sub;
    }
}

TEST(RecomputeStatistics, DeadTrades_AreLeftOutAndIdsAndSharesStay) {
    TestMarket market({.symbols = "A"});
    Instrument& instrument = market.at(0);
    instrument.share_volume = 77;
    instrument.last_trade_price = 88;
    next_trade_id(instrument, find_trade_stats(instrument, 'N'), 'N', ' ');
    std::mt19937_64 raw(9);
    for (int round = 0; round < 300; ++round) {
        TradeRecord trade;
        trade.market_center = "QNPZKVD"[raw() % 7];
        trade.price = static_cast<std::int64_t>(raw() % 9) * 10'000;
        trade.size = raw() % 5 * size_unit;
        const std::string conditions =
            std::vector<std::string>{"@   ", "@  I", "@F  ", "@  M", "@O  "}[raw() % 5];
        conditions.copy(trade.conditions.data(), 4);
        trade.live = raw() % 3 != 0;
        instrument.trades.push_back(trade);
        recompute_statistics(instrument);

        // The same from the live trades, one center (or all) at a time.
        for (const char center : std::string("*QNPZKVD")) {
            StatisticsRecord expected;
            char last_center = ' ';
            for (const TradeRecord& one : instrument.trades) {
                const std::string_view letters(one.conditions.data(), 4);
                if (!one.live || (center != '*' && one.market_center != center)) {
                    continue;
                }
                if (all_in(letters, high_low_set)) {
                    expected.high = expected.high == 0 ? one.price : std::max(expected.high, one.price);
                    expected.low = expected.low == 0 ? one.price : std::min(expected.low, one.price);
                }
                if (all_in(letters, last_set)) {
                    expected.last = one.price;
                    last_center = one.market_center;
                }
                expected.volume += all_in(letters, volume_set) ? one.size : 0;
            }
            const StatisticsRecord got = center == '*' ? consolidated_statistics(instrument)
                                                       : participant_statistics(instrument, center);
            ASSERT_EQ(show(got), show(expected)) << "round " << round << " center " << center;
            if (center == '*') {
                ASSERT_EQ(instrument.last_market_center, last_center);
            }
        }
    }
    EXPECT_EQ(instrument.share_volume, 77u);
    EXPECT_EQ(instrument.last_trade_price, 88);
    EXPECT_EQ(next_trade_id(instrument, find_trade_stats(instrument, 'N'), 'N', ' '), 2u);
}

}  // namespace
}  // namespace tessel
