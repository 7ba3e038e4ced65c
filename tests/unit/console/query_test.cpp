#include "console/query.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel::console {
namespace {

std::vector<Row> three_rows() {
    std::vector<Row> rows(3);
    rows[0].symbol = "AAPL";
    rows[1].symbol = "MSFT";
    rows[2].symbol = "TSLA";
    rows[0].bid = 3;
    rows[1].bid = 1;
    rows[2].bid = 3;
    rows[0].volume = 5;
    rows[1].volume = UINT64_MAX;
    rows[1].status = 'H';
    return rows;
}

std::string symbols_of(const std::vector<Row>& rows, const QueryParameters& parameters) {
    StateQuery query;
    std::string error;
    EXPECT_TRUE(parse_state_query(parameters, query, error)) << error;
    std::string text;
    for (const std::size_t at : select_rows(rows, query).rows) {
        text += rows[at].symbol + " ";
    }
    return text;
}

TEST(ConsoleQuery, NothingAsked_FirstHundredBySymbol) {
    StateQuery query;
    std::string error;
    ASSERT_TRUE(parse_state_query({{"token", "x"}}, query, error));
    EXPECT_EQ(query.offset, 0u);
    EXPECT_EQ(query.limit, 100u);
    EXPECT_EQ(query.sort, SortKey::symbol);
    EXPECT_EQ(symbols_of(three_rows(), {}), "AAPL MSFT TSLA ");
}

TEST(ConsoleQuery, LimitTooLarge_CutToTheMost) {
    StateQuery query;
    std::string error;
    ASSERT_TRUE(parse_state_query({{"limit", "100000"}}, query, error));
    EXPECT_EQ(query.limit, rows_max);
}

TEST(ConsoleQuery, RepeatedParameter_LastCounts) {
    StateQuery query;
    std::string error;
    ASSERT_TRUE(parse_state_query({{"limit", "7"}, {"limit", "9"}}, query, error));
    EXPECT_EQ(query.limit, 9u);
}

TEST(ConsoleQuery, WrongValues_EachRefusedByName) {
    const QueryParameters wrong = {{"offset", "-1"},  {"offset", "x"},
                                   {"offset", ""},    {"offset", "99999999999999999999999"},
                                   {"limit", "1.5"},  {"limit", " 1"},
                                   {"limit", "+1"},   {"sort", "color"},
                                   {"sort", "--bid"}, {"search", std::string(65, 'A')}};
    for (const auto& each : wrong) {
        StateQuery query;
        std::string error;
        EXPECT_FALSE(parse_state_query({each}, query, error)) << each.first << "=" << each.second;
        EXPECT_EQ(error.substr(0, each.first.size()), each.first);
    }
}

TEST(ConsoleQuery, Search_PartOfSymbolInAnyCase) {
    EXPECT_EQ(symbols_of(three_rows(), {{"search", "s"}}), "MSFT TSLA ");
    EXPECT_EQ(symbols_of(three_rows(), {{"search", "aPl"}}), "AAPL ");
    EXPECT_EQ(symbols_of(three_rows(), {{"search", "AAPLX"}}), "");
}

TEST(ConsoleQuery, SortedByValue_EqualOnesInOrderOfSymbols) {
    EXPECT_EQ(symbols_of(three_rows(), {{"sort", "bid"}}), "MSFT AAPL TSLA ");
    EXPECT_EQ(symbols_of(three_rows(), {{"sort", "-bid"}}), "AAPL TSLA MSFT ");
    EXPECT_EQ(symbols_of(three_rows(), {{"sort", "-volume"}}), "MSFT AAPL TSLA ");
    EXPECT_EQ(symbols_of(three_rows(), {{"sort", "-symbol"}}), "TSLA MSFT AAPL ");
    EXPECT_EQ(symbols_of(three_rows(), {{"sort", "status"}}), "MSFT AAPL TSLA ");
}

TEST(ConsoleQuery, OffsetAndLimit_WindowOfWhatMatches) {
    const std::vector<Row> rows = three_rows();
    EXPECT_EQ(symbols_of(rows, {{"offset", "1"}, {"limit", "1"}}), "MSFT ");
    EXPECT_EQ(symbols_of(rows, {{"offset", "2"}, {"limit", "500"}}), "TSLA ");
    EXPECT_EQ(symbols_of(rows, {{"offset", "3"}}), "");
    EXPECT_EQ(symbols_of(rows, {{"offset", "1000000000"}, {"sort", "bid"}}), "");
    EXPECT_EQ(symbols_of(rows, {{"limit", "0"}}), "");
    StateQuery query;
    query.search = "s";
    query.limit = 1;
    EXPECT_EQ(select_rows(rows, query).total, 2u);
}

}  // namespace
}  // namespace tessel::console
