#include "output/quote_line.h"

#include "market/quote_index.h"
#include "output/number_text.h"

#include <array>
#include <bit>
#include <cstring>
#include <string>

namespace tessel {

namespace {

// "100],[" to "9600],[": a level's lots with what leads to the next level.
constexpr std::array<PackedText, level_lots_max + 1> make_level_endings() {
    static_assert(level_lots_max < 100);
    std::array<PackedText, level_lots_max + 1> endings{};
    for (std::size_t lots = 0; lots < endings.size(); ++lots) {
        if (lots >= 10) {
            endings[lots] = append_letter(endings[lots], static_cast<char>('0' + lots / 10));
        }
        for (const char letter : {static_cast<char>('0' + lots % 10), '0', '0', ']', ',', '['}) {
            endings[lots] = append_letter(endings[lots], letter);
        }
    }
    return endings;
}

constexpr std::array<PackedText, level_lots_max + 1> level_endings = make_level_endings();

// Levels end with what leads to the next one, "],[", of which this much is removed after the last.
constexpr std::ptrdiff_t leading_bytes = 2;
constexpr std::ptrdiff_t level_ending_bytes = 3;

// Where one side's levels are, each followed by what leads to the next.
struct LevelsText {
    char* start;
    char* first_end;  // of the first level; start when there is none
    char* end;
};

// Not checked indices, here and below: lots is a sum of at most eight centers' lots.
char* put_level(char* out, std::int64_t cents, std::uint8_t lots) {
    return put_packed_text(put_cents4(out, static_cast<std::uint64_t>(cents)), level_endings.data()[lots]);
}

// "190.0100,300],[190.0000,500],[", best first; step is from bucket to bucket, in cents.
LevelsText put_bucket_levels(char* out, const LevelBuckets& side, std::int64_t step) {
    static_assert(QuoteBlock::centers <= truth_levels_max);
    if (side.used == 0) {
        return {out, out, out};
    }
    char* const first_end = put_level(out, side.best, side.lots[0]);
    char* end = first_end;
    for (std::uint64_t used = side.used & (side.used - 1); used != 0; used &= used - 1) {
        const int bucket = std::countr_zero(used);
        end = put_level(end, side.best + step * bucket, side.lots.data()[bucket]);
    }
    return {out, first_end, end};
}

// The same for any prices and sizes.
LevelsText put_any_levels(char* out, const Instrument& instrument, char side) {
    PriceLevels levels;
    build_levels(instrument, side, truth_levels_max, levels);
    char* first_end = out;
    char* end = out;
    for (std::size_t at = 0; at < levels.count; ++at) {
        end = put_char(put_price4(end, levels.level[at].price), ',');
        end = put_unsigned(end, levels.level[at].size);
        end = put_text(end, "],[");
        first_end = at == 0 ? end : first_end;
    }
    return {out, first_end, end};
}

// Behind the last level, without what would lead to a next one.
char* end_levels(const LevelsText& text) {
    return text.end - (text.end == text.start ? 1 : leading_bytes);
}

// The national best of a side, "190.0100,300": mostly the first level.
char* put_best(char* out, const LevelsText& levels, bool is_first_level, std::int64_t price,
               std::uint32_t shares) {
    // At one width, through registers: what is copied too much can reach into where it goes.
    std::array<char, 32> copy;
    const std::ptrdiff_t length = levels.first_end - levels.start - level_ending_bytes;
    if (is_first_level && length <= static_cast<std::ptrdiff_t>(copy.size())) [[likely]] {
        std::memcpy(copy.data(), levels.start, copy.size());
        std::memcpy(out, copy.data(), copy.size());
        return out + length;
    }
    out = put_char(put_price4(out, price), ',');
    return put_shares(out, shares);
}

bool is_first_level(const LevelBuckets& side, std::int64_t price, std::uint32_t shares) {
    return side.used != 0 && side.best * cent == price && side.lots[0] * 100u == shares;
}

// Both sides' levels and the NBBO: what changes with every quote.
char* put_market(char* out, const Instrument& instrument) {
    LevelBuckets bid_buckets;
    LevelBuckets ask_buckets;
    const bool bucketed = fill_level_buckets(instrument, bid_buckets, ask_buckets);
    out = put_text(out, ",\"bid\":[[");
    const LevelsText bids =
        bucketed ? put_bucket_levels(out, bid_buckets, -1) : put_any_levels(out, instrument, 'B');
    out = put_text(end_levels(bids), "],\"ask\":[[");
    const LevelsText asks =
        bucketed ? put_bucket_levels(out, ask_buckets, 1) : put_any_levels(out, instrument, 'A');
    out = put_text(end_levels(asks), "],\"nbbo\":[");
    const bool first_bid =
        bucketed && is_first_level(bid_buckets, instrument.nbbo.bid, instrument.nbbo.bid_size);
    out = put_best(out, bids, first_bid, instrument.nbbo.bid, instrument.nbbo.bid_size);
    out = put_char(out, ',');
    const bool first_ask =
        bucketed && is_first_level(ask_buckets, instrument.nbbo.ask, instrument.nbbo.ask_size);
    return put_best(out, asks, first_ask, instrument.nbbo.ask, instrument.nbbo.ask_size);
}

// The band's member with what leads to the next. An active band's prices are above 0.
char* put_band(char* out, const Instrument& instrument) {
    out = put_text(out, "],\"band\":[");
    out = put_cents4(out, static_cast<std::uint64_t>(instrument.luld_lower / cent));
    return put_cents4(out, static_cast<std::uint64_t>(instrument.luld_upper / cent)) - 1;
}

void write_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                std::string_view extra) {
    if (!truth.enabled) {
        return;
    }
    char* out = begin_instrument_line(truth, instrument, sequence, extra.size());
    out = put_market(out, instrument);
    if (has_active_band(instrument)) {
        out = put_band(out, instrument);
    }
    out = put_text(out, "],\"status\":\"");
    out = put_char(out, instrument.status);
    out = put_char(out, '"');
    out = put_text(out, extra);
    out = put_text(out, "}\n");
    end_line(truth, out);
}

}  // namespace

void write_quote_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence) {
    write_line(truth, instrument, sequence, {});
}

void write_band_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence, char indicator) {
    const std::array<char, 9> extra{',', '"', 'a', 'p', '"', ':', '"', indicator, '"'};
    write_line(truth, instrument, sequence, {extra.data(), extra.size()});
}

void write_action_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence, char action,
                       std::string_view reason) {
    const std::string extra =
        std::string(",\"ah\":\"") + action + "\",\"reason\":\"" + std::string(reason) + "\"";
    write_line(truth, instrument, sequence, extra);
}

}  // namespace tessel
