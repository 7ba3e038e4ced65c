// Any messages: what the console keeps of a market is bounded, its rows are in order, and what it says of
// them is JSON.
//
// The input is messages one after the other, each after its length in two bytes, as in a packet.

#include "console/api_json.h"
#include "console/market_book.h"
#include "fuzz_check.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace {

using namespace tessel::console;
using tessel::fuzz::check;

constexpr std::size_t messages_max = 400;

void check_histories(const MarketBook& book) {
    for (const InstrumentHistory& history : book.histories) {
        check(history.tape.size() <= tape_trades_max + tape_trades_max / 2, "a tape is bounded");
        check(history.halts.size() <= halts_max, "a history of halts is bounded");
    }
    check(book.histories.size() <= book.market.instruments.size(), "histories belong to instruments");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, unsigned long size) {
    MarketBook book;
    std::uint64_t sequence = 0;
    std::size_t at = 0;
    while (at + 2 <= size && sequence < messages_max) {
        const std::size_t length =
            std::min<std::size_t>(std::size_t{data[at]} << 8 | data[at + 1], size - at - 2);
        ++sequence;
        std::size_t events = 0;
        apply_to_book(book, data + at + 2, length, sequence, [&](MarketEvent&& event) {
            ++events;
            check(event.sequence == sequence, "an event has its message's number");
            const std::string text = event_json(event);
            check(text.starts_with("{\"kind\":\"") && text.find('\n') == std::string::npos,
                  "an event is one line");
        });
        check(events <= 1, "a message makes one event at most");
        at += 2 + length;
    }
    check_histories(book);
    const std::vector<Row> rows = make_rows(book);
    check(rows.size() == book.market.instruments.size(), "every instrument has a row");
    check(std::is_sorted(rows.begin(), rows.end(),
                         [](const Row& one, const Row& other) { return one.symbol < other.symbol; }),
          "rows are in order");
    for (const Row& row : rows) {
        Detail detail;
        check(make_detail(book, row.symbol, detail), "a row's symbol is known");
        check(detail.trades.size() <= tape_trades_max, "the tape that is shown is bounded");
        check(instrument_json(detail).find('\n') == std::string::npos, "an instrument is one line");
    }
    return 0;
}
