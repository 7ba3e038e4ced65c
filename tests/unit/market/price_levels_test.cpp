#include "market/price_levels.h"

#include "unit/market/book.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

namespace tessel {
namespace {

using testing::Book;
using testing::scramble;

std::string show(const PriceLevels& levels) {
    std::string text;
    for (std::size_t at = 0; at < levels.count; ++at) {
        text += std::to_string(levels.level[at].price) + "x" + std::to_string(levels.level[at].size) + " ";
    }
    return text;
}

std::string levels_of(const Instrument& instrument, char side, std::size_t most) {
    PriceLevels levels;
    levels.count = 99;  // what was there before does not matter
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

}  // namespace
}  // namespace tessel
