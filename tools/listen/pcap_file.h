#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// Reads a capture file in the classic pcap format and hands out what IPv4 packets in it carry.
namespace tessel::listen {

// Where a datagram or a piece of a TCP stream came from and went to. Addresses and ports in host order.
struct PcapFlow {
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint16_t source_port = 0;
    std::uint16_t destination_port = 0;

    auto operator<=>(const PcapFlow&) const = default;
};

struct PcapSinks {
    // A whole UDP datagram; `time_ns` is the capture's time.
    std::function<void(const PcapFlow&, std::int64_t time_ns, const unsigned char*, std::size_t)> datagram;
    // The next bytes of one direction of a TCP connection whose beginning is in the capture: in order, each
    // once.
    std::function<void(const PcapFlow&, std::int64_t time_ns, const unsigned char*, std::size_t)> stream;
};

struct PcapCounters {
    std::uint64_t records = 0;
    std::uint64_t cut_short = 0;  // captured with less than their length: left out
    std::uint64_t other = 0;      // not IPv4 UDP or TCP, or fragments
};

// Reads the whole file. False with the reason in `error` when it cannot be opened, is no classic pcap file,
// has a link type other than Ethernet, loopback, raw IP or Linux cooked, or ends inside a record; what was
// read until then has been handed out.
bool read_pcap(const std::string& path, const PcapSinks& sinks, PcapCounters& counters, std::string* error);

}  // namespace tessel::listen
