// Any traffic and any packets: what is sent for a packet is bounded, whatever its header says, and the same
// input is sent the same twice.
//
// The first line of the input is a kind and its values, "malformed how=cut every=2". Then packets follow,
// each after its length in two bytes. All go through the group's traffic, beside and between, and through the
// retransmission service's as requests and replies.

#include "certify/traffic_retrans.h"
#include "fuzz_check.h"

#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace tessel::certify;
using tessel::fuzz::check;

constexpr std::size_t packets_max = 200;
constexpr std::size_t sent_for_one_max = 70'000;  // a packet of empty messages, split

bool read_first_line(const std::string& line, TrafficSettings& settings) {
    std::istringstream words(line);
    Traffic traffic;
    words >> traffic.kind;
    for (std::string word; words >> word;) {
        const std::size_t equals = word.find('=');
        traffic.values[word.substr(0, equals)] = equals == std::string::npos ? "" : word.substr(equals + 1);
    }
    std::string error;
    const bool good = read_traffic_settings(traffic, settings, error);
    check(good == error.empty(), "a reason exactly when it is refused");
    return good;
}

std::vector<Packet> run(const TrafficSettings& settings, const std::vector<Packet>& packets, bool forwards) {
    GroupTraffic group = make_group_traffic({settings}, forwards);
    RetransTraffic retrans;
    retrans.settings = {settings};
    std::vector<Packet> sent;
    for (const Packet& each : packets) {
        std::vector<OutgoingPacket> out;
        on_feed_packet(group, each.data(), each.size(), out);
        check(out.size() <= sent_for_one_max, "a packet makes no flood");
        check(group.recent.size() <= group.recent_max, "what is kept is bounded");
        on_reply(retrans, each, out);
        Packet request = each;
        on_request(retrans, request);
        check(request.size() == each.size(), "a request keeps its size");
        for (OutgoingPacket& packet : out) {
            check(packet.bytes.size() <= datagram_bytes_max || packet.bytes.size() <= each.size(),
                  "a datagram that can be sent");
            check(packet.delay_ns >= 0, "nothing is sent before its time");
            sent.push_back(std::move(packet.bytes));
        }
    }
    return sent;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::size_t line = text.find('\n');
    TrafficSettings settings;
    if (line == std::string::npos || !read_first_line(text.substr(0, line), settings)) {
        return 0;
    }
    std::vector<Packet> packets;
    for (std::size_t at = line + 1; at + 2 <= size && packets.size() < packets_max;) {
        const std::size_t length = static_cast<std::size_t>(data[at]) << 8 | data[at + 1];
        at += 2;
        const std::size_t here = length < size - at ? length : size - at;
        packets.emplace_back(data + at, data + at + here);
        at += here;
    }
    for (const bool forwards : {false, true}) {
        check(run(settings, packets, forwards) == run(settings, packets, forwards), "the same twice");
    }
    return 0;
}
