#include "output/truth_log.h"

#include "market/instrument.h"
#include "market/nbbo.h"
#include "output/number_text.h"

#include <fcntl.h>
#include <unistd.h>
#include <array>
#include <bit>
#include <cstring>

namespace tessel {

namespace {

// What one line needs beside texts of unknown length: twenty levels of at most 50 characters and the fixed
// members.
constexpr std::size_t line_bytes = 2048;

// The trade, cancel and correction lines are cut as a formatting call into a buffer of these sizes cuts them.
constexpr std::size_t trade_line_bytes = 160;
constexpr std::size_t cancel_line_bytes = 200;
constexpr std::size_t correction_line_bytes = 220;

char* put_text(char* out, std::string_view text) {
    if (!text.empty()) {  // an empty one may have no address
        std::memcpy(out, text.data(), text.size());
    }
    return out + text.size();
}

char* put_char(char* out, char letter) {
    *out = letter;
    return out + 1;
}

// Start of a line, with room for everything that follows and for text of the given length.
char* begin_line(TruthLog& truth, std::size_t text_length) {
    if (truth.line.size() < line_bytes + text_length) {
        truth.line.resize(line_bytes + text_length);
    }
    return truth.line.data();
}

// One write a line: a line is in the file before the next message is made. A short write is a failure like
// any other.
void end_line(TruthLog& truth, const char* end) {
    const auto length = static_cast<std::size_t>(end - truth.line.data());
    if (truth.sink.take != nullptr) [[unlikely]] {
        truth.sink.take(truth.sink.context, truth.line.data(), length);
        return;
    }
    if (write(truth.fd, truth.line.data(), length) != static_cast<ssize_t>(length)) {
        truth.good = false;
    }
}

// The same with the text cut to what a buffer of this size holds beside its end.
void end_cut_line(TruthLog& truth, const char* end, std::size_t buffer_bytes) {
    const char* limit = truth.line.data() + buffer_bytes - 1;
    end_line(truth, end < limit ? end : limit);
}

char* put_head(char* out, TruthLog& truth, const Instrument& instrument, std::uint64_t sequence) {
    out = put_text(out, "{\"seq\":");
    out = put_count(out, sequence, truth.sequence);
    const std::string& head = instrument.truth_head;
    if (instrument.truth_head_length <= truth_head_bytes) [[likely]] {
        std::memcpy(out, head.data(), truth_head_bytes);
    } else {
        std::memcpy(out, head.data(), instrument.truth_head_length);
    }
    return out + instrument.truth_head_length;
}

// "100],[" to "9600],[": a level's lots with what leads to the next level.
constexpr std::array<ShortText, level_lots_max + 1> make_lots_endings() {
    static_assert(level_lots_max < 100);
    std::array<ShortText, level_lots_max + 1> endings{};
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

constexpr std::array<ShortText, level_lots_max + 1> lots_endings = make_lots_endings();

// Levels end with what leads to the next one, "],[", of which this much is taken back behind the last.
constexpr std::ptrdiff_t leading_bytes = 2;
constexpr std::ptrdiff_t level_ending_bytes = 3;

// Where one side's levels stand, each with what leads to the next behind it.
struct LevelsText {
    char* start;
    char* first_end;  // of the first level; start when there is none
    char* end;
};

// Not checked indices, here and below: lots is a sum of at most eight centers' lots.
char* put_level(char* out, std::int64_t cents, std::uint8_t lots) {
    return put_short_text(put_cents4(out, static_cast<std::uint64_t>(cents)), lots_endings.data()[lots]);
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
        bucketed && is_first_level(bid_buckets, instrument.nbbo_bid, instrument.nbbo_bid_size);
    out = put_best(out, bids, first_bid, instrument.nbbo_bid, instrument.nbbo_bid_size);
    out = put_char(out, ',');
    const bool first_ask =
        bucketed && is_first_level(ask_buckets, instrument.nbbo_ask, instrument.nbbo_ask_size);
    return put_best(out, asks, first_ask, instrument.nbbo_ask, instrument.nbbo_ask_size);
}

// The band's member with what leads to the next: made anew when its prices are not the line's before.
char* put_band(char* out, TruthLog& truth, const Instrument& instrument) {
    BandText& band = truth.band;
    if (band.lower != instrument.luld_lower || band.upper != instrument.luld_upper) {
        band.lower = instrument.luld_lower;
        band.upper = instrument.luld_upper;
        char* end = put_text(band.text.data(), "],\"band\":[");
        end = put_price4(end, band.lower);
        end = put_char(end, ',');
        end = put_price4(end, band.upper);
        band.length = static_cast<std::size_t>(end - band.text.data());
    }
    std::memcpy(out, band.text.data(), band.text.size());
    return out + band.length;
}

}  // namespace

void open_truth_log(TruthLog& truth, const std::string& path) {
    truth.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    truth.good = truth.fd >= 0;
}

void close_truth_log(TruthLog& truth) {
    if (truth.fd >= 0) {
        close(truth.fd);
    }
    truth.fd = -1;
    truth.good = false;
}

void write_quote_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                      std::string_view extra) {
    if (!truth.good) {
        return;
    }
    char* out = begin_line(truth, instrument.truth_head_length + extra.size());
    out = put_head(out, truth, instrument, sequence);
    out = put_market(out, instrument);
    if (has_active_band(instrument)) {
        out = put_band(out, truth, instrument);
    }
    out = put_text(out, "],\"status\":\"");
    out = put_char(out, instrument.status);
    out = put_char(out, '"');
    out = put_text(out, extra);
    out = put_text(out, "}\n");
    end_line(truth, out);
}

void write_trade_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                      std::int64_t price, std::uint64_t shares, char market_center, const char* conditions,
                      int kind, std::uint64_t trade_id) {
    if (!truth.good) {
        return;
    }
    char* out = begin_line(truth, instrument.truth_head_length);
    out = put_head(out, truth, instrument, sequence);
    out = put_text(out, ",\"trade\":[");
    out = put_price4(out, price);
    out = put_char(out, ',');
    out = put_unsigned(out, shares);
    out = put_text(out, ",\"");
    out = put_char(out, market_center);
    out = put_text(out, "\",\"");
    out = put_text(out, {conditions, 4});
    out = put_text(out, "\"],\"kind\":");
    out = put_signed(out, kind);
    out = put_text(out, ",\"id\":");
    out = put_unsigned(out, trade_id);
    out = put_text(out, "}\n");
    end_cut_line(truth, out, trade_line_bytes);
}

void write_cancel_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                       std::uint64_t trade_id, std::int64_t price, std::uint64_t shares, char market_center,
                       char function) {
    if (!truth.good) {
        return;
    }
    char* out = begin_line(truth, instrument.truth_head_length);
    out = put_head(out, truth, instrument, sequence);
    out = put_text(out, ",\"cancel_error\":[");
    out = put_unsigned(out, trade_id);
    out = put_char(out, ',');
    out = put_price4(out, price);
    out = put_char(out, ',');
    out = put_unsigned(out, shares);
    out = put_text(out, ",\"");
    out = put_char(out, market_center);
    out = put_text(out, "\",\"");
    out = put_char(out, function);
    out = put_text(out, "\"]}\n");
    end_cut_line(truth, out, cancel_line_bytes);
}

void write_correction_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                           std::uint64_t old_id, std::uint64_t new_id, std::int64_t price,
                           std::uint64_t shares, char market_center) {
    if (!truth.good) {
        return;
    }
    char* out = begin_line(truth, instrument.truth_head_length);
    out = put_head(out, truth, instrument, sequence);
    out = put_text(out, ",\"correction\":[");
    out = put_unsigned(out, old_id);
    out = put_char(out, ',');
    out = put_unsigned(out, new_id);
    out = put_char(out, ',');
    out = put_price4(out, price);
    out = put_char(out, ',');
    out = put_unsigned(out, shares);
    out = put_text(out, ",\"");
    out = put_char(out, market_center);
    out = put_text(out, "\"]}\n");
    end_cut_line(truth, out, correction_line_bytes);
}

void write_as_of_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                      std::int64_t price) {
    if (!truth.good) {
        return;
    }
    char* out = begin_line(truth, instrument.truth_head_length);
    out = put_head(out, truth, instrument, sequence);
    out = put_text(out, ",\"asof\":[");
    out = put_price_general(out, price);
    out = put_text(out, ",300,\"D\",\"@   \"]}\n");
    end_line(truth, out);
}

void write_mwcb_line(TruthLog& truth, std::uint64_t sequence, std::uint32_t level) {
    if (!truth.good) {
        return;
    }
    char* out = begin_line(truth, 0);
    out = put_text(out, "{\"seq\":");
    out = put_unsigned(out, sequence);
    out = put_text(out, ",\"mwcb\":");
    out = put_unsigned(out, level);
    out = put_text(out, "}\n");
    end_line(truth, out);
}

void write_mark_line(TruthLog& truth, std::string_view label, std::uint64_t last_sequence) {
    if (!truth.good) {
        return;
    }
    char* out = begin_line(truth, label.size());
    out = put_text(out, "{\"mark\":\"");
    out = put_text(out, label);
    out = put_text(out, "\",\"seq\":");
    out = put_unsigned(out, last_sequence);
    out = put_text(out, "}\n");
    end_line(truth, out);
}

}  // namespace tessel
