#include "support/independent_nbbo.h"

#include <cstdio>
#include <string_view>

namespace tessel::testing {

namespace {

constexpr std::uint32_t round_lot = 100;
constexpr std::size_t levels_shown = 10;

bool one_of(char letter, std::string_view letters) {
    return letters.find(letter) != std::string_view::npos;
}

// One side of the NBBO: the best counting price, all the shares there, and the center with most of them.
struct PlainSide {
    std::int64_t price = 0;
    std::uint64_t size = 0;
    char center = ' ';
    std::uint32_t center_size = 0;
    std::uint64_t center_time_ns = 0;
};

void consider(PlainSide& side, bool better, std::int64_t price, std::uint32_t size, char center,
              std::uint64_t time_ns) {
    if (side.price == 0 || better) {
        side = {price, size, center, size, time_ns};
    } else if (price == side.price) {
        side.size += size;
        // The largest; of equally large ones the earliest; of equally early ones the first letter, which came
        // first.
        if (size > side.center_size || (size == side.center_size && time_ns < side.center_time_ns)) {
            side.center = center;
            side.center_size = size;
            side.center_time_ns = time_ns;
        }
    }
}

void put_price(std::string& text, std::int64_t millionths) {
    char number[32];
    std::snprintf(number, sizeof number, "%.4f", static_cast<double>(millionths) / 1e6);
    text += number;
}

void put_levels(std::string& text, const PlainBook& book, char side) {
    std::size_t shown = 0;
    for (const auto& [price, size] : independent_levels(book, side)) {
        if (shown == levels_shown) {
            break;
        }
        text += shown == 0 ? "[" : ",[";
        put_price(text, price);
        text += ',' + std::to_string(size) + ']';
        ++shown;
    }
}

}  // namespace

void take_quote(PlainBook& book, const receiver::Message& quote) {
    book.quotes[static_cast<unsigned char>(quote.header.market_center)] = {
        quote.quote.bid,      quote.quote.ask,       quote.quote.bid_size,
        quote.quote.ask_size, quote.quote.condition, quote.header.participant_time_ns};
    const PlainNbbo nbbo = independent_nbbo(book);
    book.changes += nbbo == book.nbbo ? 0 : 1;
    book.nbbo = nbbo;
}

void take_band(PlainBook& book, const receiver::Message& band) {
    book.band_indicator = band.band.indicator;
    book.band_lower = band.band.lower;
    book.band_upper = band.band.upper;
}

PlainNbbo independent_nbbo(const PlainBook& book) {
    const bool banded = book.band_lower > 0 && book.band_upper > 0 && one_of(book.band_indicator, "ABCEG");
    PlainSide bid;
    PlainSide ask;
    for (const auto& [letter, quote] : book.quotes) {
        if (!one_of(quote.condition, "ABHORY")) {
            continue;
        }
        const auto center = static_cast<char>(letter);
        if (quote.bid >= 1 && quote.bid_size >= round_lot && (!banded || quote.bid <= book.band_upper)) {
            consider(bid, quote.bid > bid.price, quote.bid, quote.bid_size, center, quote.time_ns);
        }
        if (quote.ask >= 1 && quote.ask_size >= round_lot && (!banded || quote.ask >= book.band_lower)) {
            consider(ask, quote.ask < ask.price, quote.ask, quote.ask_size, center, quote.time_ns);
        }
    }
    return {bid.price, ask.price, bid.size, ask.size, bid.center, ask.center};
}

std::vector<std::pair<std::int64_t, std::uint64_t>> independent_levels(const PlainBook& book, char side) {
    std::map<std::int64_t, std::uint64_t> by_price;
    for (const auto& [letter, quote] : book.quotes) {
        const std::int64_t price = side == 'B' ? quote.bid : quote.ask;
        const std::uint32_t size = side == 'B' ? quote.bid_size : quote.ask_size;
        if (price > 0 && size > 0) {
            by_price[price] += size;
        }
    }
    if (side == 'B') {
        return {by_price.rbegin(), by_price.rend()};
    }
    return {by_price.begin(), by_price.end()};
}

std::string book_text(const PlainBook& book) {
    std::string text = "\"bid\":[";
    put_levels(text, book, 'B');
    text += "],\"ask\":[";
    put_levels(text, book, 'A');
    text += "],\"nbbo\":[";
    put_price(text, book.nbbo.bid);
    text += ',' + std::to_string(book.nbbo.bid_size) + ',';
    put_price(text, book.nbbo.ask);
    text += ',' + std::to_string(book.nbbo.ask_size) + ']';
    return text;
}

}  // namespace tessel::testing
