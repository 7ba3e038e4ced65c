// Any packets and messages to a receiver: numbers come out in order, each once, and every message is decoded
// or counted as undecoded, with well-formed lines for what is.
//
// The input is a row of pieces: a kind byte, a length (2 bytes, big-endian), the piece. A kind that divides
// by 4 is a bare message, by 4 with a rest of 1 a multicast packet, of 2 an answer to a request; with a rest
// of 3 as many milliseconds pass as the length says. A piece that begins with "@" gets the session's header.

#include "fuzz_check.h"
#include "mold/sequencer.h"
#include "receiver/market_state.h"
#include "receiver/truth_line.h"
#include "wire/layout.h"
#include "wire/message_decoder.h"
#include "wire/message_json.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using namespace tessel::receiver;
using tessel::fuzz::check;

constexpr std::size_t pieces_max = 300;
constexpr std::size_t levels_max = 10;

struct Receiver {
    Market market;
    std::uint64_t next = 0;  // the number that has to come out next; 0: any
    std::uint64_t lost = 0;
    std::uint64_t delivered = 0;
    std::string text;
};

// One JSON object and one line feed, at the end.
void check_json_line(const std::string& line) {
    check(line.ends_with('\n') && line.find('\n') == line.size() - 1, "a line is one line: " + line);
    check(nlohmann::json::accept(line), "a line that is no JSON: " + line);
}

// The rules of a market state that no message may break.
void check_instrument(const Instrument& instrument) {
    check(instrument.trades.size() <= trades_kept_max, "too many trades are kept");
    check(std::is_sorted(instrument.quotes.begin(), instrument.quotes.end(),
                         [](const CenterQuote& a, const CenterQuote& b) {
                             return static_cast<unsigned char>(a.center) <
                                    static_cast<unsigned char>(b.center);
                         }),
          "quotes are in letter order");
    for (const char side : {'B', 'A'}) {
        Level levels[levels_max];
        const std::size_t count = build_levels(instrument, side, levels, levels_max);
        check(count <= levels_max, "too many levels");
        for (std::size_t at = 1; at < count; ++at) {
            check(side == 'B' ? levels[at - 1].price > levels[at].price
                              : levels[at - 1].price < levels[at].price,
                  "levels are in order");
        }
    }
}

void take_message(Receiver& receiver, std::uint64_t sequence, const unsigned char* bytes,
                  std::size_t length) {
    Market& market = receiver.market;
    // The heap block is sized to the byte, so that reading past the end shows.
    const std::vector<unsigned char> message(bytes, bytes + length);
    const std::uint64_t messages = market.messages;
    const std::uint64_t undecoded = market.undecoded;
    std::string error;
    Message decoded;
    const bool good = decode_message(decoded, message.data(), message.size(), &error);
    check(good == error.empty(), "a reason, if and only if it does not decode");
    std::vector<tessel::layout::LocatedField> fields;
    const bool fits = tessel::layout::locate_fields(fields, message.data(), length) == length &&
                      tessel::layout::find_message(decoded.header.category, decoded.header.type) != nullptr;
    check(good == fits, "the decoder and the layout table agree on which lengths fit");
    apply_message(market, message.data(), message.size(), sequence);
    check(market.messages == messages + 1, "a message is counted");
    check(market.undecoded == undecoded + (good ? 0 : 1), "a message that does not decode is counted");
    receiver.text.clear();
    if (!good) {
        check(decoded.kind == MessageKind::unknown, "what does not decode is of no kind");
        tessel::layout::append_undecoded_json(receiver.text, message.data(), message.size(), sequence, error);
        check_json_line(receiver.text);
        return;
    }
    tessel::layout::append_message_json(receiver.text, message.data(), message.size(), sequence);
    check_json_line(receiver.text);
    receiver.text.clear();
    if (append_truth_line(receiver.text, market, decoded, sequence)) {
        check(receiver.text.ends_with('\n'), "a truth line ends in a line feed");
    } else {
        check(receiver.text.empty(), "nothing for a message without a line");
    }
    if (const Instrument* instrument = find_instrument(market, decoded.symbol)) {
        check_instrument(*instrument);
    }
}

Sequencer make_fuzzed(Receiver& receiver) {
    SequencerSettings settings;
    settings.can_request = true;
    settings.buffer_bytes_max = 4096;
    SequencerSinks sinks;
    sinks.message = [&receiver](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
        check(receiver.next == 0 || sequence == receiver.next, "numbers come out in order, each once");
        receiver.next = sequence + 1;
        ++receiver.delivered;
        take_message(receiver, sequence, bytes, length);
    };
    sinks.lost = [&receiver](std::uint64_t first, std::uint64_t count) {
        check(count > 0 && (receiver.next == 0 || first == receiver.next), "losses come out in order");
        receiver.next = first + count;
        receiver.lost += count;
    };
    sinks.request = [](const unsigned char* bytes, std::size_t length) {
        check(length == tessel::mold_header_bytes && (bytes[18] | bytes[19]) != 0,
              "a request asks for something");
    };
    return make_sequencer(settings, sinks);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    Receiver receiver;
    Sequencer sequencer = make_fuzzed(receiver);
    std::int64_t now_ms = 1000;
    std::size_t at = 0;
    for (std::size_t piece = 0; piece < pieces_max && size - at >= 3; ++piece) {
        const unsigned kind = data[at] % 4;
        const std::size_t said = static_cast<std::size_t>(data[at + 1]) << 8 | data[at + 2];
        at += 3;
        if (kind == 3) {
            now_ms += static_cast<std::int64_t>(said);
            on_timer(sequencer, now_ms);
            continue;
        }
        const std::size_t length = std::min(said, size - at);
        std::vector<unsigned char> bytes(data + at, data + at + length);
        at += length;
        if (kind == 0) {
            take_message(receiver, 0, bytes.data(), bytes.size());
            continue;
        }
        if (!bytes.empty() && bytes[0] == '@') {
            const std::string& session = sequencer.settings.session;
            bytes.erase(bytes.begin());
            bytes.insert(bytes.begin(), session.begin(), session.end());
        }
        on_packet(sequencer, bytes.data(), bytes.size(), now_ms,
                  kind == 1 ? PacketSource::multicast : PacketSource::retransmission);
        check(sequencer.waiting_bytes <= sequencer.settings.buffer_bytes_max, "too much is kept");
        check(nothing_missing(sequencer) || next_timer_ms(sequencer, now_ms) >= 0, "a gap is waited for");
    }
    abandon_gaps(sequencer);
    check(nothing_missing(sequencer), "nothing is missing once every gap is abandoned");
    check(sequencer.waiting.empty() && sequencer.waiting_bytes == 0, "nothing is left waiting");
    check(sequencer.next == sequencer.highest, "everything has come out");
    check(receiver.delivered == sequencer.counters.delivered && receiver.lost == sequencer.counters.lost,
          "counters equal counts");
    return 0;
}
