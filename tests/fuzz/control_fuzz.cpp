// Any datagrams on the control port of a live market, with time between them: every one is answered, and the
// market, its messages and its truth log stay of one mind.
//
// A line of the input is a datagram, '~' in it a line feed, '^' a NUL; after each the market ticks once. A
// line "+N" lets N seconds pass instead, a tick each.

#include "app/control_channel.h"
#include "base/parse_number.h"
#include "fuzz_check.h"
#include "support/feed_follower.h"
#include "support/market_difference.h"
#include "support/test_market.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace tessel;
using fuzz::check;

constexpr std::size_t datagrams_max = 40;
constexpr std::uint32_t seconds_max = 12;  // of one "+N"
constexpr const char* symbols = "AAPL:190.00,LONGNAMES:700,BRK:0.02";
constexpr std::size_t answer_bytes_max = 2048;  // a command line back, or all counters

void send_datagram(testing::TestMarket& market, std::int32_t& interval_ms, const std::string& bytes) {
    const std::uint64_t before = market.last();
    const ControlReply reply = handle_command({&market.engine, &interval_ms}, bytes.data(), bytes.size());
    check(reply.text.starts_with("ok ") || reply.text.starts_with("err "), reply.text);
    check(reply.stop ? reply.text == "ok stopping" : reply.text.ends_with('\n'), reply.text);
    check(reply.text.size() <= answer_bytes_max, "an answer is no longer than it can have to be");
    check(market.last() >= before, "numbers rise");
    check(!reply.text.starts_with("err ") || market.last() == before, "a refused command does nothing");
    check(interval_ms != 0, "no command asks for a tick in every pass");
}

// Every message has its place and its truth line; the feed's market is the one that they describe.
void check_run(const testing::TestMarket& market, const std::vector<testing::Bytes>& messages) {
    testing::FeedFollower follower = testing::make_follower(symbols);
    check(messages.size() == market.last(), "every message is kept");
    const std::string truth = market.truth_text();
    testing::TruthReader reader{truth};
    std::string_view line;
    const auto next = [&] {
        while (testing::next_line(reader, line)) {
            if (!testing::is_mark(line)) {
                return true;
            }
        }
        return false;
    };
    for (std::size_t at = 0; at < messages.size(); ++at) {
        const std::string wrong = testing::follow(follower, at + 1, messages[at].data(), messages[at].size());
        check(wrong.empty(), wrong);
        if (testing::has_line(follower)) {
            check(next(), "a message without its truth line");
            const std::string difference = testing::line_difference(follower, line);
            check(difference.empty(), difference);
        }
    }
    check(!next(), "a truth line without a message");
    const std::string difference = testing::engine_difference(market.engine, follower.market);
    check(difference.empty(), difference);
}

void check_packets(const testing::TestMarket& market, const std::vector<testing::Bytes>& messages) {
    for (const testing::Bytes& packet : market.packets) {
        check(packet.size() <= packet_bytes_max, "a packet is too long");
        const std::uint64_t first = testing::get_u64(packet, 10);
        const std::vector<testing::Bytes> blocks = testing::packet_messages(packet);
        check(first - 1 + blocks.size() <= messages.size(), "a packet of messages that are not there");
        check(std::equal(blocks.begin(), blocks.end(),
                         messages.begin() + static_cast<std::ptrdiff_t>(first - 1)),
              "a packet's messages are those of its numbers");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    testing::TestMarket market({.symbols = symbols, .participants = "QNDQ"});
    std::int32_t interval_ms = 100;
    market.start_of_day();
    for (std::size_t sent = 0; sent < datagrams_max && !text.empty(); ++sent) {
        std::string bytes = fuzz::take_piece(text, '\n');
        if (bytes.starts_with('+')) {
            market.run_ticks(std::min(parse_count(bytes.substr(1), 1), seconds_max), 1000);
            continue;
        }
        std::replace(bytes.begin(), bytes.end(), '~', '\n');
        std::replace(bytes.begin(), bytes.end(), '^', '\0');
        send_datagram(market, interval_ms, bytes);
        market.run_ticks(1);
    }
    std::vector<testing::Bytes> messages;
    testing::read_history(market.publisher.history, 1, messages);
    check_run(market, messages);
    check_packets(market, messages);
    return 0;
}
