#include "market/nbbo.h"

#include "unit/market/book.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::Book;
using testing::scramble;

std::string show(const Nbbo& nbbo) {
    return std::to_string(nbbo.bid) + "x" + std::to_string(nbbo.bid_size) + nbbo.bid_market_center + " " +
           std::to_string(nbbo.ask) + "x" + std::to_string(nbbo.ask_size) + nbbo.ask_market_center;
}

TEST(ComputeNbbo, NoCenters_NothingOnEitherSide) {
    EXPECT_EQ(show(compute_nbbo(Instrument{})), "0x0  0x0 ");
    EXPECT_EQ(show(compute_nbbo(Book(3).instrument)), "0x0  0x0 ");
}

TEST(ComputeNbbo, SizeBelowARoundLot_NeverSetsItsSide) {
    Book book(2);
    book.set_bid(0, 19002, 50);
    book.set_ask(0, 19003, 99);
    EXPECT_EQ(show(compute_nbbo(book.instrument)), "0x0  0x0 ");
    book.set_bid(1, 19001, 100);
    EXPECT_EQ(show(compute_nbbo(book.instrument)), "190010000x100B 0x0 ");
}

TEST(ComputeNbbo, TwoCentersAtTheBestBid_SizesAddUpAndTheLargestIsTheCenter) {
    Book book(2);
    book.set_bid(0, 19001, 300);
    book.set_bid(1, 19001, 500);
    EXPECT_EQ(show(compute_nbbo(book.instrument)), "190010000x800B 0x0 ");
}

TEST(ComputeNbbo, EqualSizes_EarlierTimeThenFirstLetter) {
    Book book(3);
    book.set_ask(0, 5, 100, 9);
    book.set_ask(1, 5, 200, 8);
    book.set_ask(2, 5, 200, 7);
    EXPECT_EQ(show(compute_nbbo(book.instrument)), "0x0  50000x500C");
    book.quotes[2].time = 8;
    EXPECT_EQ(show(compute_nbbo(book.instrument)), "0x0  50000x500B");
}

TEST(ComputeNbbo, EveryCondition_OnlyABHORYCount) {
    for (int letter = 0; letter < 256; ++letter) {
        Book book(1);
        book.set_bid(0, 1, 100);
        book.quotes[0].condition = static_cast<char>(letter);
        const bool counts =
            letter != 0 && std::string("ABHORY").find(static_cast<char>(letter)) != std::string::npos;
        EXPECT_EQ(compute_nbbo(book.instrument).bid, counts ? cent : 0) << letter;
    }
}

TEST(ComputeNbbo, ActiveBand_BidsAboveItsUpperAndAsksBelowItsLowerDoNotCount) {
    Book book(3);
    book.set_band(100, 200);
    book.set_bid(0, 201, 100);
    book.set_bid(1, 200, 100);
    book.set_ask(1, 99, 100);
    book.set_ask(2, 100, 100);
    EXPECT_EQ(show(compute_nbbo(book.instrument)), "2000000x100B 1000000x100C");
    book.instrument.band_indicator = 'D';  // not checked any more
    EXPECT_EQ(show(compute_nbbo(book.instrument)), "2010000x100A 990000x100B");
}

TEST(ComputeNbbo, NegativePrice_NeverCounts) {
    Book book(1);
    book.set_bid(0, -1, 100);
    book.set_ask(0, -1, 100);
    EXPECT_EQ(show(compute_nbbo(book.instrument)), "0x0  0x0 ");
}

// The rules once more, by sorting.
struct Candidate {
    std::int64_t price;
    std::uint32_t size;
    std::uint64_t time;
    char market_center;
};

void naive_side(std::vector<Candidate> all, bool bids, std::int64_t& price, std::uint32_t& size,
                char& market_center) {
    if (all.empty()) {
        return;
    }
    std::stable_sort(all.begin(), all.end(), [bids](const Candidate& left, const Candidate& right) {
        if (left.price != right.price) {
            return bids ? left.price > right.price : left.price < right.price;
        }
        return left.size != right.size   ? left.size > right.size
               : left.time != right.time ? left.time < right.time
                                         : left.market_center < right.market_center;
    });
    price = all[0].price;
    market_center = all[0].market_center;
    for (const Candidate& one : all) {
        size += one.price == price ? one.size : 0;
    }
}

Nbbo naive_nbbo(const Instrument& instrument) {
    const std::string conditions = "ABHORY";
    const bool banded = instrument.luld_lower > 0 && instrument.luld_upper > 0 &&
                        std::string("ABCEG").find(instrument.band_indicator) != std::string::npos;
    std::vector<Candidate> bids;
    std::vector<Candidate> asks;
    for (std::size_t at = 0; at < instrument.quote_slots; ++at) {
        const ParticipantQuote& quote = instrument.quotes[at];
        if (!quote.present || conditions.find(quote.condition) == std::string::npos) {
            continue;
        }
        if (quote.bid > 0 && quote.bid_size > 99 && !(banded && quote.bid > instrument.luld_upper)) {
            bids.push_back({quote.bid, quote.bid_size, quote.time, quote.market_center});
        }
        if (quote.ask > 0 && quote.ask_size > 99 && !(banded && quote.ask < instrument.luld_lower)) {
            asks.push_back({quote.ask, quote.ask_size, quote.time, quote.market_center});
        }
    }
    Nbbo nbbo;
    naive_side(bids, true, nbbo.bid, nbbo.bid_size, nbbo.bid_market_center);
    naive_side(asks, false, nbbo.ask, nbbo.ask_size, nbbo.ask_market_center);
    return nbbo;
}

TEST(ComputeNbbo, Seed3_TwentyThousandRandomBooks_EqualASortOfTheCandidates) {
    std::mt19937_64 raw(3);
    for (int round = 0; round < 20'000; ++round) {
        Book book(1 + raw() % 12);
        scramble(book, raw);
        ASSERT_EQ(show(compute_nbbo(book.instrument)), show(naive_nbbo(book.instrument)))
            << "round " << round;
    }
}

}  // namespace
}  // namespace tessel
