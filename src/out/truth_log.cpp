#include "out/truth_log.h"

#include "market/instrument.h"
#include "market/nbbo.h"
#include "out/text_number.h"

#include <fcntl.h>
#include <unistd.h>
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
    if (write(truth.fd, truth.line.data(), length) != static_cast<ssize_t>(length)) {
        truth.good = false;
    }
}

// The same with the text cut to what a buffer of this size holds beside its end.
void end_cut_line(TruthLog& truth, const char* end, std::size_t buffer_bytes) {
    const char* limit = truth.line.data() + buffer_bytes - 1;
    end_line(truth, end < limit ? end : limit);
}

char* put_head(char* out, const Instrument& instrument, std::uint64_t sequence) {
    out = put_text(out, "{\"seq\":");
    out = put_unsigned(out, sequence);
    return put_text(out, instrument.truth_head);
}

// "[190.0100,300],", its comma to be taken back behind the last level.
char* put_level(char* out, const PriceLevel& level, DollarText& dollars) {
    *out = '[';
    out = put_price4(out + 1, level.price, dollars);
    *out = ',';
    out = put_shares(out + 1, level.size);
    return put_text(out, "],");
}

char* put_levels(char* out, const Instrument& instrument, char side, DollarText& dollars) {
    char* const start = out;
    LevelBuckets buckets;
    if (fill_buckets(instrument, side, buckets)) {
        for (std::size_t left = truth_levels_max; left != 0 && buckets.used != 0; --left) {
            out = put_level(out, take_level(buckets), dollars);
        }
    } else {
        PriceLevels levels;
        build_levels(instrument, side, truth_levels_max, levels);
        for (std::size_t at = 0; at < levels.count; ++at) {
            out = put_level(out, levels.level[at], dollars);
        }
    }
    return out == start ? out : out - 1;
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
    char* out = begin_line(truth, instrument.truth_head.size() + extra.size());
    out = put_head(out, instrument, sequence);
    out = put_text(out, ",\"bid\":[");
    out = put_levels(out, instrument, 'B', truth.bid_dollars);
    out = put_text(out, "],\"ask\":[");
    out = put_levels(out, instrument, 'A', truth.ask_dollars);
    out = put_text(out, "],\"nbbo\":[");
    out = put_price4(out, instrument.nbbo_bid, truth.bid_dollars);
    out = put_char(out, ',');
    out = put_shares(out, instrument.nbbo_bid_size);
    out = put_char(out, ',');
    out = put_price4(out, instrument.nbbo_ask, truth.ask_dollars);
    out = put_char(out, ',');
    out = put_shares(out, instrument.nbbo_ask_size);
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
    char* out = begin_line(truth, instrument.truth_head.size());
    out = put_head(out, instrument, sequence);
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
    char* out = begin_line(truth, instrument.truth_head.size());
    out = put_head(out, instrument, sequence);
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
    char* out = begin_line(truth, instrument.truth_head.size());
    out = put_head(out, instrument, sequence);
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
    char* out = begin_line(truth, instrument.truth_head.size());
    out = put_head(out, instrument, sequence);
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
