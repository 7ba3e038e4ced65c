#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessel {

struct Instrument;

// Takes a truth log's lines in place of a file, each whole with its line feed.
struct TruthSink {
    void (*write)(void* context, const char* line, std::size_t length) = nullptr;
    void* context = nullptr;
};

// The ground truth of what was published: one JSON object a line, each tied to a message's sequence number,
// each written immediately with one write. After the first failure no further line is ever written.
//
// {"seq":812,"secid":1,"symbol":"AAPL","bid":[[190.0100,300],[190.0000,500]],"ask":[[190.0300,200]],
//  "nbbo":[190.0100,300,190.0300,200],"band":[180.5000,199.5000],"status":"T"}       (one line)
// {"seq":813,"secid":1,"symbol":"AAPL","trade":[190.0300,200,"Q","@   "],"kind":0,"id":12}
// {"seq":814,"secid":1,"symbol":"AAPL","cancel_error":[12,190.0300,200,"Q","C"]}
// {"seq":815,"secid":1,"symbol":"AAPL","correction":[11,13,190.0400,100,"N"]}
// {"seq":816,"secid":1,"symbol":"AAPL","asof":[189.97,300,"D","@   "]}
// {"seq":817,"mwcb":2}
// {"mark":"here","seq":817}
struct TruthLog {
    int fd = -1;
    bool enabled = false;    // until the first failure
    TruthSink sink;          // set together with `enabled`; lines then go here and not to fd
    std::vector<char> line;  // reused for every line
};

// Opens path for appending; on failure the log stays silent, and nothing is reported.
void open_truth_log(TruthLog& truth, const std::string& path);

// Closes the file, if one is open.
void close_truth_log(TruthLog& truth);

// What every kind of line is made of: a line begins, is filled through the returned pointer, and ends.

// The start of a line, with room for everything that follows and for text of the given length.
char* begin_line(TruthLog& truth, std::size_t text_length);

// The same with the members that every line of an instrument begins with:
// {"seq":812,"secid":1,"symbol":"AAPL"
char* begin_instrument_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                            std::size_t text_length);

// One write a line: a line is in the file before the next message is made. A short write is a failure like
// any other.
void end_line(TruthLog& truth, const char* end);

// The lines of the rarer kinds; the quote line is in output/quote_line.
//
// Prices in millionths of a dollar, shares whole. The texts are cut at 160, 200 and 220 bytes (line feed and
// end included), which only a symbol of a hundred letters reaches.
void write_trade_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                      std::int64_t price, std::uint64_t shares, char market_center, const char* conditions,
                      int kind, std::uint64_t trade_id);
void write_cancel_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                       std::uint64_t trade_id, std::int64_t price, std::uint64_t shares, char market_center,
                       char function);
void write_correction_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                           std::uint64_t old_id, std::uint64_t new_id, std::int64_t price,
                           std::uint64_t shares, char market_center);
void write_as_of_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence,
                      std::int64_t price);
void write_mwcb_line(TruthLog& truth, std::uint64_t sequence, std::uint32_t level);
void write_mark_line(TruthLog& truth, std::string_view label, std::uint64_t last_sequence);

}  // namespace tessel
