#include "market/trade_statistics.h"

#include <array>
#include <string_view>

namespace tessel {

namespace {

constexpr std::string_view high_low_conditions = "@ABDFGKLOPSXYZ14569";
constexpr std::string_view last_conditions = "@ABDFKLOSXY1569";
constexpr std::string_view volume_conditions = "@ABCDFGHIKLOPRSTUVWXYZ14567";

constexpr unsigned char high_low_bit = 1;
constexpr unsigned char last_bit = 2;
constexpr unsigned char volume_bit = 4;

// For each character the sets that it belongs to; a blank belongs to all.
constexpr std::array<unsigned char, 256> make_membership() {
    std::array<unsigned char, 256> sets{};
    sets[' '] = high_low_bit | last_bit | volume_bit;
    for (const char letter : high_low_conditions) {
        sets[static_cast<unsigned char>(letter)] |= high_low_bit;
    }
    for (const char letter : last_conditions) {
        sets[static_cast<unsigned char>(letter)] |= last_bit;
    }
    for (const char letter : volume_conditions) {
        sets[static_cast<unsigned char>(letter)] |= volume_bit;
    }
    return sets;
}

constexpr std::array<unsigned char, 256> membership = make_membership();

}  // namespace

Eligibility eligibility(const char* conditions) {
    unsigned sets = high_low_bit | last_bit | volume_bit;
    for (int at = 0; at < 4; ++at) {
        sets &= membership[static_cast<unsigned char>(conditions[at])];
    }
    return {(sets & high_low_bit) != 0, (sets & last_bit) != 0, (sets & volume_bit) != 0};
}

ParticipantTradeStats* find_trade_stats(Instrument& instrument, char market_center) {
    for (std::size_t slot = 0; slot < instrument.trade_slots; ++slot) {
        if (instrument.trade_stats[slot].market_center == market_center) {
            return &instrument.trade_stats[slot];
        }
    }
    return nullptr;
}

void apply_trade(Instrument& instrument, ParticipantTradeStats* stats, const Eligibility& eligible,
                 char market_center, std::int64_t price, std::uint64_t size) {
    if (stats != nullptr) {
        stats->traded = true;
    }
    if (eligible.high_low) {
        if (instrument.high == 0 || instrument.high < price) {
            instrument.high = price;
        }
        if (instrument.low == 0 || instrument.low > price) {
            instrument.low = price;
        }
        if (stats != nullptr && (stats->high == 0 || stats->high < price)) {
            stats->high = price;
        }
        if (stats != nullptr && (stats->low == 0 || stats->low > price)) {
            stats->low = price;
        }
    }
    if (eligible.last) {
        instrument.last = price;
        instrument.last_market_center = market_center;
        if (stats != nullptr) {
            stats->last = price;
            stats->last_market_center = market_center;
        }
    }
    if (eligible.volume) {
        instrument.volume += size;
        if (stats != nullptr) {
            stats->volume += size;
        }
    }
}

void recompute_statistics(Instrument& instrument) {
    instrument.high = 0;
    instrument.low = 0;
    instrument.last = 0;
    instrument.volume = 0;
    instrument.last_market_center = ' ';
    for (std::size_t slot = 0; slot < instrument.trade_slots; ++slot) {
        ParticipantTradeStats& stats = instrument.trade_stats[slot];
        ParticipantTradeStats cleared;
        cleared.market_center = stats.market_center;
        cleared.last_trade_id = stats.last_trade_id;
        stats = cleared;
    }
    for (const TradeRecord& trade : instrument.trades) {
        if (trade.live) {
            apply_trade(instrument, find_trade_stats(instrument, trade.market_center),
                        eligibility(trade.conditions.data()), trade.market_center, trade.price, trade.size);
        }
    }
}

std::uint64_t next_trade_id(Instrument& instrument, ParticipantTradeStats* stats, char market_center,
                            char sub_market_center) {
    if (stats != nullptr && sub_market_center == ' ') {
        return ++stats->last_trade_id;
    }
    for (Instrument::TradeIdCounter& counter : instrument.other_trade_ids) {
        if (counter.market_center == market_center && counter.sub_market_center == sub_market_center) {
            return ++counter.last_trade_id;
        }
    }
    instrument.other_trade_ids.push_back({market_center, sub_market_center, 1});
    return 1;
}

StatisticsRecord consolidated_statistics(const Instrument& instrument) {
    return {instrument.high, instrument.low, instrument.last, instrument.volume};
}

StatisticsRecord participant_statistics(const Instrument& instrument, char market_center) {
    for (std::size_t slot = 0; slot < instrument.trade_slots; ++slot) {
        const ParticipantTradeStats& stats = instrument.trade_stats[slot];
        if (stats.market_center == market_center && stats.traded) {
            return {stats.high, stats.low, stats.last, stats.volume};
        }
    }
    return {};
}

}  // namespace tessel
