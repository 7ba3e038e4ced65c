// Any line option and any packets: what a line hands out is bounded, in order of time and counted, and the
// same input has the same fate twice.
//
// The first line of the input is a --line option. Each further line is a packet, whose first letter is the
// time that passes before it, in units of 100 us; the rest are its bytes, '~' in them a line feed.

#include "fuzz_check.h"
#include "relay/line.h"
#include "relay/options.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using namespace tessel::relay;
using tessel::fuzz::check;

constexpr std::size_t packets_max = 60;
constexpr std::int64_t unit_ns = 100'000;

struct History {
    std::vector<std::string> sent;
    std::string counters;
    bool operator==(const History&) const = default;
};

History run(const LineOptions& options, const std::vector<std::string>& packets) {
    History history;
    std::int64_t last_ns = 0;
    std::size_t longest = 0;
    LineSinks sinks;
    sinks.send = [&](std::int64_t due_ns, const unsigned char* bytes, std::size_t length) {
        check(due_ns >= last_ns, "packets leave in order of time");
        check(length <= std::max<std::size_t>(longest, 20), "no packet grows");
        last_ns = due_ns;
        history.sent.emplace_back(bytes, bytes + length);
    };
    Line line = make_line(options.name, options.impairments, 7, sinks);
    std::int64_t now_ns = 0;
    for (const std::string& packet : packets) {
        now_ns += packet.empty() ? 0 : unit_ns * static_cast<unsigned char>(packet[0]);
        std::string bytes = packet.empty() ? packet : packet.substr(1);
        std::replace(bytes.begin(), bytes.end(), '~', '\n');
        longest = std::max(longest, bytes.size());
        const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
        offer(line, data, bytes.size(), now_ns);
        check(line.waiting_bytes <= waiting_bytes_max, "what waits is bounded");
    }
    release_held(line, now_ns);
    check(line.held.empty(), "nothing is held at the end");
    // Ten years of delay are allowed; heartbeats for all of them are not waited for.
    send_due(line, std::max(now_ns, line.last_sent_ns) + 20 * heartbeat_ns);
    check(line.counters.sent == history.sent.size(), "what is sent is counted");
    check(line.counters.dropped + line.counters.queue_drops <= packets.size() * 4000,
          "losses are counted once");
    history.counters = counters_text(line.counters);
    return history;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(data, data + size);
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin <= text.size() && lines.size() <= packets_max;) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    const std::string option = lines.empty() ? "" : lines[0];
    std::string error;
    LineOptions options;
    // A name in the destination would be looked up: only what is surely an address or a file is parsed whole.
    if (option.find_first_of("ghijklmnopqrstuvwxyzGHIJKLMNOPQRSTUVWXYZ") < option.find(',') &&
        option.find(".pcap") == std::string::npos) {
        return 0;
    }
    if (!parse_line_option(option, options, error)) {
        check(!error.empty(), "a refusal says why");
        return 0;
    }
    const std::vector<std::string> packets(lines.begin() + 1, lines.end());
    check(run(options, packets) == run(options, packets), "the same twice");
    return 0;
}
