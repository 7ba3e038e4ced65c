#pragma once

#include "listen/tcp_streams.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

// Reads a capture file and hands out what IPv4 packets in it carry. The only place of tessel-listen that uses
// libpcap.
namespace tessel::listen {

struct PcapSinks {
    // A whole UDP datagram; `time_ns` is the capture's time.
    std::function<void(const PcapFlow&, std::int64_t time_ns, const unsigned char*, std::size_t)> datagram;
    // The next bytes of one direction of a TCP connection whose beginning is in the capture: in order, each
    // once.
    std::function<void(const PcapFlow&, std::int64_t time_ns, const unsigned char*, std::size_t)> stream;
    // Which directions `stream` is wanted for; others cost no memory.
    std::function<bool(const PcapFlow&)> wants_stream;
    // May be empty. Asked before each packet and when a read fails: true ends the reading there, as at the
    // end of the file.
    std::function<bool()> stops;
};

struct PcapCounters {
    std::uint64_t packets = 0;
    std::uint64_t cut = 0;         // captured with less than their length: left out
    std::uint64_t incomplete = 0;  // whose fragments never completed
    std::uint64_t other = 0;       // not IPv4 with UDP or TCP
};

enum class PcapResult : std::uint8_t {
    whole,
    broken,   // ends inside a record, or a record is damaged: what is before it has been handed out
    refused,  // cannot be opened, is no capture, or has a link type that is not known
};

// Reads the whole file: classic pcap of either byte order and precision, or pcapng; "-" is standard input;
// compressed with zstd or not. Link types 0, 1, 12, 101, 108, 113, 228 and 276, with any VLAN tags. `error`
// says in one line why the result is not `whole`.
PcapResult read_pcap(const std::string& path, const PcapSinks& sinks, PcapCounters& counters,
                     std::string& error);

// The same from a stream, which is closed; `name` is for messages.
PcapResult read_pcap(std::FILE* file, const std::string& name, const PcapSinks& sinks, PcapCounters& counters,
                     std::string& error);

}  // namespace tessel::listen
