#include "market/nbbo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace tessel {
namespace {

// An instrument with quotes of its own, one a letter from 'A' on.
struct Book {
    std::vector<ParticipantQuote> quotes;
    Instrument instrument;

    explicit Book(std::size_t centers) : quotes(centers) {
        for (std::size_t at = 0; at < centers; ++at) {
            quotes[at].mc = static_cast<char>('A' + at);
            quotes[at].present = true;
            quotes[at].condition = 'R';
        }
        instrument.quotes = quotes.data();
        instrument.quote_slots = centers;
    }
    void set_bid(std::size_t at, std::int64_t cents, std::uint32_t size, std::uint64_t time = 0) {
        quotes[at].bid = cents * cent;
        quotes[at].bid_size = size;
        quotes[at].time = time;
    }
    void set_ask(std::size_t at, std::int64_t cents, std::uint32_t size, std::uint64_t time = 0) {
        quotes[at].ask = cents * cent;
        quotes[at].ask_size = size;
        quotes[at].time = time;
    }
    void set_band(std::int64_t lower_cents, std::int64_t upper_cents, char indicator = 'A') {
        instrument.luld_lower = lower_cents * cent;
        instrument.luld_upper = upper_cents * cent;
        instrument.band_indicator = indicator;
    }
};

std::string show(const Nbbo& nbbo) {
    return std::to_string(nbbo.bid) + "x" + std::to_string(nbbo.bid_size) + nbbo.bid_mc + " " +
           std::to_string(nbbo.ask) + "x" + std::to_string(nbbo.ask_size) + nbbo.ask_mc;
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
    char mc;
};

void naive_side(std::vector<Candidate> all, bool bids, std::int64_t& price, std::uint32_t& size, char& mc) {
    if (all.empty()) {
        return;
    }
    std::stable_sort(all.begin(), all.end(), [bids](const Candidate& left, const Candidate& right) {
        if (left.price != right.price) {
            return bids ? left.price > right.price : left.price < right.price;
        }
        return left.size != right.size   ? left.size > right.size
               : left.time != right.time ? left.time < right.time
                                         : left.mc < right.mc;
    });
    price = all[0].price;
    mc = all[0].mc;
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
            bids.push_back({quote.bid, quote.bid_size, quote.time, quote.mc});
        }
        if (quote.ask > 0 && quote.ask_size > 99 && !(banded && quote.ask < instrument.luld_lower)) {
            asks.push_back({quote.ask, quote.ask_size, quote.time, quote.mc});
        }
    }
    Nbbo nbbo;
    naive_side(bids, true, nbbo.bid, nbbo.bid_size, nbbo.bid_mc);
    naive_side(asks, false, nbbo.ask, nbbo.ask_size, nbbo.ask_mc);
    return nbbo;
}

// Few prices, sizes and times, so that ties are frequent.
void scramble(Book& book, std::mt19937_64& raw) {
    const auto pick = [&raw](std::uint64_t count) { return static_cast<std::int64_t>(raw() % count); };
    for (ParticipantQuote& quote : book.quotes) {
        quote.present = pick(8) != 0;
        quote.condition = "RRRRYNLABHO "[pick(12)];
        quote.time = static_cast<std::uint64_t>(pick(3));
        quote.bid = (pick(12) - 2) * cent;
        quote.ask = (pick(12) - 2) * cent;
        quote.bid_size = static_cast<std::uint32_t>(pick(5) * 99 + pick(2));
        quote.ask_size = static_cast<std::uint32_t>(pick(5) * 99 + pick(2));
    }
    book.set_band(pick(6), pick(12), "ABCDEG "[pick(7)]);
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

TEST(StoredNbbo, Fields_AreTheInstruments) {
    Instrument instrument;
    instrument.nbbo_bid = 1;
    instrument.nbbo_ask = 2;
    instrument.nbbo_bid_size = 3;
    instrument.nbbo_ask_size = 4;
    instrument.nbbo_bid_mc = 'X';
    instrument.nbbo_ask_mc = 'Y';
    EXPECT_EQ(show(stored_nbbo(instrument)), "1x3X 2x4Y");
}

std::string show(const PriceLevels& levels) {
    std::string text;
    for (std::size_t at = 0; at < levels.count; ++at) {
        text += std::to_string(levels.level[at].price) + "x" + std::to_string(levels.level[at].size) + " ";
    }
    return text;
}

std::string levels_of(const Instrument& instrument, char side, std::size_t most) {
    PriceLevels levels;
    levels.count = 99;  // what stands there before is of no importance
    build_levels(instrument, side, most, levels);
    return show(levels);
}

std::string naive_levels(const Instrument& instrument, char side, std::size_t most) {
    std::map<std::int64_t, std::uint64_t> sizes;
    for (std::size_t at = 0; at < instrument.quote_slots; ++at) {
        const ParticipantQuote& quote = instrument.quotes[at];
        const std::int64_t price = side == 'B' ? quote.bid : quote.ask;
        const std::uint32_t size = side == 'B' ? quote.bid_size : quote.ask_size;
        if (quote.present && price > 0 && size > 0) {
            sizes[side == 'B' ? -price : price] += size;  // best first
        }
    }
    std::string text;
    for (const auto& [key, size] : sizes) {
        if (most-- == 0) {
            break;
        }
        text += std::to_string(side == 'B' ? -key : key) + "x" + std::to_string(size) + " ";
    }
    return text;
}

TEST(BuildLevels, TwelvePrices_TheBestTenOnly) {
    Book book(12);
    std::string expected;
    for (std::size_t at = 0; at < 12; ++at) {
        const std::size_t shuffled = (at * 5) % 12;  // neither rising nor falling
        book.set_bid(shuffled, 100 + static_cast<std::int64_t>(at), 1);
        book.set_ask(shuffled, 200 - static_cast<std::int64_t>(at), 1);
    }
    EXPECT_EQ(levels_of(book.instrument, 'B', 10),
              "1110000x1 1100000x1 1090000x1 1080000x1 1070000x1 1060000x1 1050000x1 1040000x1 1030000x1 "
              "1020000x1 ");
    EXPECT_EQ(levels_of(book.instrument, 'A', 5), "1890000x1 1900000x1 1910000x1 1920000x1 1930000x1 ");
}

TEST(BuildLevels, EveryCondition_PresentWithPriceAndSizeCounts_OddLotsDoNot) {
    Book book(6);
    book.set_bid(0, 10, 50);
    book.quotes[0].condition = 'N';
    book.set_bid(1, 10, 1);
    book.quotes[1].condition = 'L';
    book.set_bid(2, 11, 0);
    book.set_bid(3, 12, 100);
    book.quotes[3].present = false;
    book.set_bid(4, -5, 100);
    book.quotes[5].has_odd_lots = true;
    book.quotes[5].odd_bid = 20 * cent;
    book.quotes[5].odd_bid_size = 9;
    EXPECT_EQ(levels_of(book.instrument, 'B', 10), "100000x51 ");
    EXPECT_EQ(levels_of(book.instrument, 'A', 10), "");
}

TEST(BuildLevels, LargeSizes_AddUp) {
    Book book(3);
    for (std::size_t at = 0; at < 3; ++at) {
        book.set_ask(at, 10, 1'400'000'000u);
    }
    EXPECT_EQ(levels_of(book.instrument, 'A', 5), "100000x4200000000 ");
}

TEST(BuildLevels, Seed4_RandomBooksOfUpTo60Centers_EqualAMapOfSizes) {
    std::mt19937_64 raw(4);
    for (int round = 0; round < 4'000; ++round) {
        Book book(round % 4 == 0 ? 60 : 1 + raw() % 12);
        scramble(book, raw);
        // More prices than levels; now and then some lie dollars away, on either side of the best.
        const std::int64_t away = round % 3 == 0 ? 90 : 0;
        for (ParticipantQuote& quote : book.quotes) {
            quote.bid += static_cast<std::int64_t>(raw() % 20) * cent +
                         static_cast<std::int64_t>(raw() % 2) * away * cent;
            quote.ask += static_cast<std::int64_t>(raw() % 2) * away * cent;
        }
        for (const char side : {'B', 'A'}) {
            for (const std::size_t most : {std::size_t{1}, book_levels_max, truth_levels_max}) {
                ASSERT_EQ(levels_of(book.instrument, side, most), naive_levels(book.instrument, side, most))
                    << "round " << round << " side " << side << " most " << most;
            }
        }
    }
}

TEST(LuldBboIndicator, BidAboveAndAskBelowTheBand) {
    struct Row {
        std::int64_t bid, ask;
        char expected;
    };
    Book book(1);
    for (const Row& row : {Row{200, 201, ' '},
                           {201, 201, 'A'},
                           {201, 100, 'A'},
                           {201, 99, 'C'},
                           {201, 0, 'A'},
                           {200, 99, 'B'},
                           {200, 100, ' '},
                           {0, 99, 'B'},
                           {0, 0, ' '},
                           {0, -1, ' '},
                           {300, -1, 'A'}}) {
        book.set_band(100, 200);
        EXPECT_EQ(luld_bbo_indicator(book.instrument, row.bid * cent, row.ask * cent), row.expected)
            << row.bid << ' ' << row.ask;
        book.instrument.band_indicator = 'D';
        EXPECT_EQ(luld_bbo_indicator(book.instrument, row.bid * cent, row.ask * cent), ' ');
    }
}

TEST(LuldNbboIndicator, EachRowOfTheTable_FirstMatchWins) {
    struct Row {
        std::int64_t bid, ask;
        char expected;
    };
    Book book(1);
    for (const Row& row : {Row{200, 100, 'I'},
                           {200, 201, 'G'},
                           {99, 100, 'H'},
                           {200, 200, 'E'},
                           {200, 0, 'E'},
                           {100, 100, 'F'},
                           {0, 100, 'F'},
                           {99, 201, 'D'},
                           {150, 201, 'C'},
                           {0, 201, 'C'},
                           {99, 150, 'B'},
                           {99, 0, 'B'},
                           {150, 160, 'A'},
                           {0, 0, 'A'},
                           {100, 200, 'A'}}) {
        Nbbo nbbo;
        nbbo.bid = row.bid * cent;
        nbbo.ask = row.ask * cent;
        book.set_band(100, 200);
        EXPECT_EQ(luld_nbbo_indicator(book.instrument, nbbo), row.expected) << row.bid << ' ' << row.ask;
        book.set_band(100, 0);
        EXPECT_EQ(luld_nbbo_indicator(book.instrument, nbbo), ' ');
    }
}

}  // namespace
}  // namespace tessel
