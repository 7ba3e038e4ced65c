#include "market/price_levels.h"

#include <algorithm>

namespace tessel {

namespace {

// A quote's price and size on one side, 0 when it makes no level.
struct SideQuote {
    std::int64_t price;
    std::uint32_t size;
};

template <char side>
SideQuote side_of(const ParticipantQuote& quote) {
    const std::int64_t price = side == 'B' ? quote.bid : quote.ask;
    const std::uint32_t size = side == 'B' ? quote.bid_size : quote.ask_size;
    return {quote.present && size != 0 && price > 0 ? price : 0, size};
}

template <char side>
bool is_better(std::int64_t left, std::int64_t right) {
    return side == 'B' ? left > right : left < right;
}

template <char side>
void insert_levels(const Instrument& instrument, std::size_t most, PriceLevels& levels) {
    const ParticipantQuote* const end = instrument.quotes + instrument.quote_slots;
    for (const ParticipantQuote* quote = instrument.quotes; quote != end; ++quote) {
        const auto [price, size] = side_of<side>(*quote);
        if (price == 0) {
            continue;
        }
        std::size_t at = 0;
        while (at < levels.count && is_better<side>(levels.level[at].price, price)) {
            ++at;
        }
        if (at < levels.count && levels.level[at].price == price) {
            levels.level[at].size += size;
            continue;
        }
        if (at == most) {
            continue;
        }
        // One level more; the worst falls off when there are enough.
        levels.count = std::min(levels.count + 1, most);
        for (std::size_t next = levels.count - 1; next > at; --next) {
            levels.level[next] = levels.level[next - 1];
        }
        levels.level[at] = {price, size};
    }
}

}  // namespace

void build_levels(const Instrument& instrument, char side, std::size_t most, PriceLevels& levels) {
    levels.count = 0;
    if (side == 'B') {
        insert_levels<'B'>(instrument, most, levels);
    } else {
        insert_levels<'A'>(instrument, most, levels);
    }
}

}  // namespace tessel
