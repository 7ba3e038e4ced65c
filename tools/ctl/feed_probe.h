#pragma once

#include <netinet/in.h>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Joins a group as a receiver would and counts what comes, on the wire as well as at the socket.
namespace tessel::ctl {

// One sender of MoldUDP64 packets. Sources beyond the sixteenth are not distinguished.
struct ProbeSource {
    std::string address;  // HOST:PORT
    std::string session;
    std::uint64_t packets = 0;
};

struct Probe {
    std::string error;  // why it could not join; empty when it could
    int buffer_bytes = 0;
    std::uint64_t packets = 0;  // well-formed MoldUDP64 packets
    std::uint64_t heartbeats = 0;
    std::uint64_t messages = 0;
    std::uint64_t missing = 0;    // numbers skipped by a source's packets
    std::uint64_t malformed = 0;  // datagrams that are no MoldUDP64 packets
    std::uint64_t kernel_drops = 0;
    std::vector<ProbeSource> sources;
    bool saw_wire = false;      // whether this process may look at the interface itself
    std::uint64_t on_wire = 0;  // datagrams for the group and port that reached the interface
    std::string wire_source;    // where the last of them came from
    // Packets of this host that failed the reverse-path check meanwhile.
    std::uint64_t reverse_path_drops = 0;
};

struct ProbeSettings {
    std::string group;
    std::uint16_t port = 0;
    std::string iface;           // its address
    std::string interface_name;  // empty: the wire is not looked at
    double seconds = 3;
};

// Counts for settings.seconds. `progress` is called a few times a second with the seconds passed.
Probe probe_feed(const ProbeSettings& settings, const std::function<void(double, const Probe&)>& progress);

// A source's packet: its first sequence number and message count; false when the bytes are no MoldUDP64
// packet whose blocks fill it exactly.
bool parse_mold_packet(const unsigned char* bytes, std::size_t length, std::uint64_t& sequence,
                       std::uint16_t& count);

}  // namespace tessel::ctl
