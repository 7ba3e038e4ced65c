#include "listen/listener.h"
#include "listen/pcap_file.h"
#include "listen/report.h"
#include "soup/soup_packet.h"

#include <fmt/format.h>

#include <arpa/inet.h>
#include <map>

namespace tessel::listen {

using receiver::PacketSource;
using receiver::SoupPacket;
using receiver::SoupReader;

namespace {

constexpr std::int64_t ns_per_ms = 1'000'000;

std::uint16_t port_of(const sockaddr_in& address) {
    return ntohs(address.sin_port);
}

// The messages inside the Snap-Shot sessions of a capture, written as they come.
void take_stream(Listener& listener, SoupReader& reader, const unsigned char* bytes, std::size_t length) {
    soup_append(reader, bytes, length);
    SoupPacket packet;
    bool broken = false;
    while (soup_next(reader, packet, &broken)) {
        if (packet.type == receiver::soup_sequenced_data) {
            take_captured_spin_message(listener, packet.payload, packet.length);
        }
    }
}

}  // namespace

ExitStatus run_replay(const Options& options) {
    Listener listener;
    in_addr group{};
    if (inet_pton(AF_INET, options.group.c_str(), &group) != 1) {
        report(fmt::format("--mcast: '{}' is not an IPv4 address", options.group));
        return ExitStatus::bad_options;
    }
    if (!prepare_listener(listener, options, nullptr)) {
        return ExitStatus::bad_options;
    }
    PcapSinks sinks;
    sinks.datagram = [&](const PcapFlow& flow, std::int64_t time_ns, const unsigned char* bytes,
                         std::size_t length) {
        const std::int64_t now_ms = time_ns / ns_per_ms;
        if (flow.destination == ntohl(group.s_addr) && flow.destination_port == options.port) {
            on_packet(listener.sequencer, bytes, length, now_ms, PacketSource::multicast);
        } else if (!options.retrans.empty() && flow.source_port == port_of(options.retrans_address)) {
            on_packet(listener.sequencer, bytes, length, now_ms, PacketSource::retransmission);
        }
        on_timer(listener.sequencer, now_ms);
    };
    std::map<PcapFlow, SoupReader> sessions;
    sinks.stream = [&](const PcapFlow& flow, std::int64_t, const unsigned char* bytes, std::size_t length) {
        if (options.decode && !options.snapshot.empty() &&
            flow.source_port == port_of(options.snapshot_address)) {
            take_stream(listener, sessions[flow], bytes, length);
        }
    };
    PcapCounters counters;
    std::string error;
    const bool complete = read_pcap(options.from_pcap, sinks, counters, &error);
    abandon_gaps(listener.sequencer);
    if (counters.cut_short != 0) {
        report(fmt::format("{} records of the capture are cut short and left out", counters.cut_short));
    }
    const ExitStatus status = finish_listener(listener);
    if (!complete) {
        report(error);
        return ExitStatus::bad_options;
    }
    return status;
}

}  // namespace tessel::listen
