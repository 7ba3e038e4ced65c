// Goal: what a receiver works out from the messages alone is what the truth log says, message by message.
// Method: every message of a run goes through the listener's decoder; the truth line rebuilt from it, and the
// book recomputed from the decoded quotes, are held against the feed's own line of the same number.

#include "support/feed_follower.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <ostream>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::Bytes;
using testing::FeedFollower;
using testing::MarketOptions;
using testing::TestMarket;

struct Case {
    const char* name;
    MarketOptions options;
    std::uint64_t lines_a_tick_min;  // so that a run that sends nothing cannot pass
};

// Sanitized runs take ten times as long.
#ifdef __clang__
constexpr bool sanitized = __has_feature(address_sanitizer);
#else
constexpr bool sanitized = false;
#endif
constexpr std::size_t ticks = sanitized ? 1000 : 10'000;

void PrintTo(const Case& shown, std::ostream* out) {
    *out << shown.name;
}

MarketOptions with_symbols(const char* symbols) {
    MarketOptions options;
    options.symbols = symbols;
    return options;
}

MarketOptions with_participants(const char* participants) {
    MarketOptions options;
    options.participants = participants;
    return options;
}

MarketOptions with_scenario(const char* scenario) {
    MarketOptions options;
    options.scenario = scenario;
    return options;
}

MarketOptions with_step(double step_bps) {
    MarketOptions options;
    options.step_bps = step_bps;
    return options;
}

MarketOptions with_seed(std::uint64_t seed) {
    MarketOptions options;
    options.seed = seed;
    return options;
}

const std::array<Case, 14> cases{{
    {"Defaults", {}, 8},
    {"LongFormPrices", with_symbols("BRKA:540000.00,NVR:7400.00,AZO:656.00"), 8},
    {"PricesAroundTheShortFormsLimit", with_symbols("LIM:655.34,LIN:655.36"), 5},
    {"PricesOfAFewCents", with_symbols("ONE:0.01,TWO:0.02,FIVE:0.05"), 5},
    {"NegativeAndZeroPrices", with_symbols("NEG:-12.50,NIL:0,POS:3"), 4},
    {"OneInstrument", with_symbols("IBM:100"), 2},
    {"TwelveInstruments", with_symbols("A:1,B:2,C:3,D:5,E:8,F:13,G:21,H:34,I:55,J:89,K:144,L:233"), 32},
    {"AdfOnly", with_participants("D"), 6},
    {"RepeatedLetters", with_participants("QQNDDD"), 8},
    {"SixteenCenters_MoreThanTenLevels", with_participants("QNPZKVDABCEFGHIJ"), 8},
    {"SymbolsOfOneToTwelveLetters",
     with_symbols("A:10,BB:20,CCC:30,DDDD:40,EEEEE:50,FFFFFF:60,GGGGGGG:70,HHHHHHHH:80,IIIIIIIII:90,"
                  "JJJJJJJJJJ:100,KKKKKKKKKKK:110,LLLLLLLLLLLL:120"),
     32},
    {"OddLotsEveryQuote", with_scenario("odd_lot_every=1"), 8},
    {"LargeSteps_BandsAllTheTime", with_step(300.0), 8},
    {"Revisions_Halts_Breaker_Seed99",
     with_scenario(
         "halt_after=2,pause_after=4,trf_every=2,cancel_every=3,correct_every=5,asof_every=7,band_every=1,"
         "odd_lot_every=2"),
     8},
}};

class Receiver : public ::testing::TestWithParam<Case> {};

// Follows the whole history against the whole truth log; returns the lines held against each other.
std::uint64_t follow_run(const TestMarket& market, const std::string& symbols) {
    std::vector<Bytes> messages;
    testing::read_history(market.publisher.history, 1, messages);
    EXPECT_EQ(messages.size(), market.last());
    const std::string truth = market.truth_text();
    testing::TruthReader reader{truth};
    FeedFollower follower = testing::make_follower(symbols);
    std::uint64_t lines = 0;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const std::uint64_t sequence = i + 1;
        const std::string wrong = testing::follow(follower, sequence, messages[i].data(), messages[i].size());
        if (!wrong.empty()) {
            ADD_FAILURE() << "sequence " << sequence << ": " << wrong;
            return lines;
        }
        if (!testing::has_line(follower)) {
            continue;
        }
        std::string_view line;
        if (!testing::next_line(reader, line)) {
            ADD_FAILURE() << "sequence " << sequence << ": the truth log ends before " << follower.line;
            return lines;
        }
        const std::string difference = testing::line_difference(follower, line);
        if (!difference.empty()) {
            ADD_FAILURE() << "sequence " << sequence << ": " << difference;
            return lines;
        }
        ++lines;
    }
    EXPECT_EQ(reader.at, truth.size()) << "lines without a message";
    return lines;
}

TEST_P(Receiver, EveryTruthLine_IsRebuiltFromTheMessages) {
    const Case& given = GetParam();
    TestMarket market(given.options);
    market.start_of_day();
    market.run_ticks(ticks);
    EXPECT_GE(follow_run(market, given.options.symbols), given.lines_a_tick_min * ticks);
}

INSTANTIATE_TEST_SUITE_P(Runs, Receiver, ::testing::ValuesIn(cases),
                         [](const ::testing::TestParamInfo<Case>& shown) {
                             return std::string(shown.param.name);
                         });

// The comparison finds what it is there for: each of these differences is planted into a line or a message.

struct Planted : public ::testing::Test {
    Planted() : market(with_seed(11)) {
        market.start_of_day();
        market.run_ticks(5);
        testing::read_history(market.publisher.history, 1, messages);
        for (const std::string& line : market.truth_lines()) {
            lines.push_back(line);
        }
    }

    // The first difference of the run with these messages and lines, or none.
    std::string first_difference() const {
        FeedFollower follower = testing::make_follower(MarketOptions().symbols);
        std::size_t at = 0;
        for (std::size_t i = 0; i < messages.size(); ++i) {
            std::string found = testing::follow(follower, i + 1, messages[i].data(), messages[i].size());
            if (found.empty() && testing::has_line(follower)) {
                found = testing::line_difference(follower, lines.at(at++));
            }
            if (!found.empty()) {
                return found;
            }
        }
        return {};
    }

    // Position of the last message of a category and type.
    std::size_t last_of(const std::string& kind) const {
        for (std::size_t i = messages.size(); i-- > 0;) {
            if (testing::get_text(messages[i], 1, 2) == kind) {
                return i;
            }
        }
        ADD_FAILURE() << "no message " << kind;
        return 0;
    }

    TestMarket market;
    std::vector<Bytes> messages;
    std::vector<std::string> lines;
};

TEST_F(Planted, NothingChanged_NothingFound) {
    EXPECT_EQ(first_difference(), "");
}

TEST_F(Planted, QuoteSizeChangedOnTheWire_IsFound) {
    messages[last_of("QC")][37] ^= 1;
    EXPECT_NE(first_difference(), "");
}

TEST_F(Planted, QuoteConditionChangedOnTheWire_IsFoundByTheRecomputedNbbo) {
    // Some quote of the run sets the NBBO; taken out of it, the NBBO reported is no longer the recomputed
    // one.
    const std::vector<Bytes> whole = messages;
    std::size_t found = 0;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        if (testing::get_text(whole[i], 1, 2) == "QC" && whole[i][42] == 'R') {
            messages = whole;
            messages[i][42] = 'N';
            found += first_difference().find("NBBO") != std::string::npos ? 1 : 0;
        }
    }
    EXPECT_GT(found, 0u);
}

TEST_F(Planted, SizeInATruthLineAltered_IsFound) {
    std::string& line = lines.back();
    const std::size_t digit = line.find_last_of("0123456789");
    line[digit] = line[digit] == '9' ? '8' : '9';
    EXPECT_NE(first_difference(), "");
}

TEST_F(Planted, TruthLineMissing_IsFound) {
    lines.erase(lines.begin() + 3);
    lines.emplace_back();
    EXPECT_NE(first_difference(), "");
}

TEST_F(Planted, MessageCutShort_IsFound) {
    messages[last_of("TM")].pop_back();
    EXPECT_NE(first_difference().find("does not decode"), std::string::npos);
}

}  // namespace
}  // namespace tessel
