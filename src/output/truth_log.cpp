#include "output/truth_log.h"

#include "market/instrument.h"
#include "output/number_text.h"

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

// The same with the text cut to what a buffer of this size holds beside its end.
void end_cut_line(TruthLog& truth, const char* end, std::size_t buffer_bytes) {
    const char* limit = truth.line.data() + buffer_bytes - 1;
    end_line(truth, end < limit ? end : limit);
}

}  // namespace

char* begin_line(TruthLog& truth, std::size_t text_length) {
    if (truth.line.size() < line_bytes + text_length) {
        truth.line.resize(line_bytes + text_length);
    }
    return truth.line.data();
}

void end_line(TruthLog& truth, const char* end) {
    const auto length = static_cast<std::size_t>(end - truth.line.data());
    if (truth.sink.write != nullptr) [[unlikely]] {
        truth.sink.write(truth.sink.context, truth.line.data(), length);
        return;
    }
    if (write(truth.fd, truth.line.data(), length) != static_cast<ssize_t>(length)) {
        truth.enabled = false;
    }
}

char* begin_instrument_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                            std::size_t text_length) {
    char* out =
        begin_line(truth, instrument.symbol_length == UINT8_MAX ? instrument.symbol.size() + text_length
                                                                : UINT8_MAX + text_length);
    out = put_text(out, "{\"seq\":");
    out = put_unsigned(out, sequence);
    out = put_text(out, ",\"secid\":");
    out = put_unsigned(out, instrument.secid);
    out = put_text(out, ",\"symbol\":\"");
    if (instrument.symbol_length <= wire_symbol(instrument).size()) [[likely]] {
        // At one width: the record's symbol is in the cache, the text itself mostly is not.
        std::memcpy(out, instrument.padded_symbol.data(), instrument.padded_symbol.size());
        out += instrument.symbol_length;
    } else {
        out = put_text(out, instrument.symbol);
    }
    return put_char(out, '"');
}

void open_truth_log(TruthLog& truth, const std::string& path) {
    truth.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    truth.enabled = truth.fd >= 0;
}

void close_truth_log(TruthLog& truth) {
    if (truth.fd >= 0) {
        close(truth.fd);
    }
    truth.fd = -1;
    truth.enabled = false;
}

void write_trade_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                      std::int64_t price, std::uint64_t shares, char market_center, const char* conditions,
                      int kind, std::uint64_t trade_id) {
    if (!truth.enabled) {
        return;
    }
    char* out = begin_instrument_line(truth, instrument, sequence, 0);
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
    if (!truth.enabled) {
        return;
    }
    char* out = begin_instrument_line(truth, instrument, sequence, 0);
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
    if (!truth.enabled) {
        return;
    }
    char* out = begin_instrument_line(truth, instrument, sequence, 0);
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
    if (!truth.enabled) {
        return;
    }
    char* out = begin_instrument_line(truth, instrument, sequence, 0);
    out = put_text(out, ",\"asof\":[");
    out = put_price_general(out, price);
    out = put_text(out, ",300,\"D\",\"@   \"]}\n");
    end_line(truth, out);
}

void write_mwcb_line(TruthLog& truth, std::uint64_t sequence, std::uint32_t level) {
    if (!truth.enabled) {
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
    if (!truth.enabled) {
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
