#include "listen/pcap_file.h"

#include "files/zstd_file.h"
#include "listen/ip_fragments.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <memory>
#include <string_view>

namespace tessel::listen {

namespace {

constexpr unsigned char protocol_tcp = 6;
constexpr unsigned char protocol_udp = 17;
constexpr std::uint16_t ether_type_ipv4 = 0x0800;
constexpr std::size_t ip_header_bytes_min = 20;
constexpr std::size_t udp_header_bytes = 8;
constexpr std::uint16_t more_fragments = 0x2000;
constexpr std::uint16_t fragment_offset_mask = 0x1fff;

std::uint16_t big16(const unsigned char* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

std::uint32_t big32(const unsigned char* p) {
    return (static_cast<std::uint32_t>(big16(p)) << 16) | big16(p + 2);
}

struct Reader {
    const PcapSinks& sinks;
    PcapCounters& counters;
    int link_type = 0;
    std::int64_t time_ns = 0;  // of the packet at hand
    FragmentTable fragments;
    TcpStreams streams;
};

// The bytes of a packet from some layer on. `whole` is the length that it had on the network.
struct Layer {
    const unsigned char* bytes = nullptr;
    std::size_t length = 0;
    std::size_t whole = 0;
};

bool is_known(int link_type) {
    for (const int known : {0, 1, 12, 101, 108, 113, 228, 276}) {
        if (link_type == known) {
            return true;
        }
    }
    return false;
}

bool is_vlan_tag(std::uint16_t type) {
    return type == 0x8100 || type == 0x88a8 || type == 0x9100;
}

// Where the IPv4 header begins after a link header of `offset` bytes whose protocol is at `type_at`; the
// packet's length when it holds none.
std::size_t after_link_header(const Layer& packet, std::size_t type_at, std::size_t offset) {
    if (packet.length < offset) {
        return packet.length;
    }
    std::uint16_t type = big16(packet.bytes + type_at);
    while (is_vlan_tag(type) && packet.length >= offset + 4) {
        type = big16(packet.bytes + offset + 2);
        offset += 4;
    }
    return type == ether_type_ipv4 ? offset : packet.length;
}

std::size_t ip_offset(int link_type, const Layer& packet) {
    switch (link_type) {
        case 0:
        case 108: {  // loopback: the family in the byte order of the machine or of the network
            const bool internet = packet.length >= 4 && ((packet.bytes[0] == 2 && packet.bytes[3] == 0) ||
                                                         (packet.bytes[0] == 0 && packet.bytes[3] == 2));
            return internet ? 4 : packet.length;
        }
        case 1: return after_link_header(packet, 12, 14);
        case 113: return after_link_header(packet, 14, 16);  // Linux cooked
        case 276: return after_link_header(packet, 0, 20);   // Linux cooked, second version
        default: return 0;                                   // raw IP
    }
}

void take_body(Reader& reader, PcapFlow flow, unsigned char protocol, const unsigned char* body,
               std::size_t length) {
    if (length < udp_header_bytes || (protocol != protocol_udp && protocol != protocol_tcp)) {
        ++reader.counters.other;
        return;
    }
    flow.source_port = big16(body);
    flow.destination_port = big16(body + 2);
    if (protocol == protocol_tcp) {
        const auto sink = [&reader](const PcapFlow& from, const unsigned char* bytes, std::size_t count) {
            reader.sinks.stream(from, reader.time_ns, bytes, count);
        };
        const bool wanted =
            reader.sinks.stream && reader.sinks.wants_stream && reader.sinks.wants_stream(flow);
        if (!wanted || !add_segment(reader.streams, flow, body, length, sink)) {
            ++reader.counters.other;
        }
        return;
    }
    const std::size_t datagram = big16(body + 4);
    if (datagram < udp_header_bytes || datagram > length || !reader.sinks.datagram) {
        ++reader.counters.other;
        return;
    }
    reader.sinks.datagram(flow, reader.time_ns, body + udp_header_bytes, datagram - udp_header_bytes);
}

void take_ip(Reader& reader, const Layer& packet) {
    const unsigned char* const p = packet.bytes;
    const std::size_t header = packet.length >= ip_header_bytes_min && (p[0] >> 4) == 4
                                   ? static_cast<std::size_t>(p[0] & 0x0f) * 4
                                   : 0;
    if (header < ip_header_bytes_min) {
        ++(packet.length < packet.whole ? reader.counters.cut : reader.counters.other);
        return;
    }
    // The total length is 0 in captures of packets that the network card was to cut up.
    const std::size_t total = big16(p + 2) != 0 ? big16(p + 2) : packet.whole;
    if (total < header || total > packet.whole) {
        ++reader.counters.other;
        return;
    }
    if (total > packet.length) {
        ++reader.counters.cut;
        return;
    }
    PcapFlow flow;
    flow.source = big32(p + 12);
    flow.destination = big32(p + 16);
    const std::uint16_t fragment = big16(p + 6);
    if ((fragment & (more_fragments | fragment_offset_mask)) == 0) {
        take_body(reader, flow, p[9], p + header, total - header);
        return;
    }
    const FragmentKey key{flow.source, flow.destination, big16(p + 4), p[9]};
    const std::vector<unsigned char> body =
        add_fragment(reader.fragments, key, reader.time_ns, std::size_t{fragment} % 0x2000 * 8,
                     (fragment & more_fragments) != 0, p + header, total - header);
    if (!body.empty()) {
        take_body(reader, flow, p[9], body.data(), body.size());
    }
}

void take_record(Reader& reader, const pcap_pkthdr& header, const unsigned char* bytes) {
    ++reader.counters.packets;
    reader.time_ns = std::int64_t{header.ts.tv_sec} * 1'000'000'000 + std::int64_t{header.ts.tv_usec};
    Layer packet{bytes, header.caplen, std::max(header.len, header.caplen)};
    const std::size_t offset = ip_offset(reader.link_type, packet);
    if (offset >= packet.length) {
        // What is cut inside its link header may have been anything.
        const bool unreadable = packet.length < packet.whole && packet.length < 24;
        ++(unreadable ? reader.counters.cut : reader.counters.other);
        return;
    }
    take_ip(reader, {bytes + offset, packet.length - offset, packet.whole - offset});
}

// Why reading ended early, in words that hold whatever the format is.
std::string breakage(const std::string& name, pcap_t* handle, int fault, std::uint64_t packets) {
    const std::string reason = pcap_geterr(handle);
    const bool truncated = reason.find("truncated") != std::string::npos || fault == EPIPE;
    return name + (truncated ? ": truncated" : ": broken") + " after " + std::to_string(packets) +
           " packets" + (truncated ? "" : " (" + reason + ")");
}

}  // namespace

PcapResult read_pcap(const std::string& path, const PcapSinks& sinks, PcapCounters& counters,
                     std::string& error) {
    std::FILE* const file = files::open_for_reading(path, error);
    return file == nullptr ? PcapResult::refused
                           : read_pcap(file, path == "-" ? "standard input" : path, sinks, counters, error);
}

PcapResult read_pcap(std::FILE* file, const std::string& name, const PcapSinks& sinks, PcapCounters& counters,
                     std::string& error) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    errno = 0;
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> handle(
        pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, reason), pcap_close);
    if (!handle) {
        const bool cut = errno == EPIPE;  // a compressed file that ends before its first bytes
        std::fclose(file);
        if (cut) {
            error = name + ": truncated after 0 packets";
            return PcapResult::broken;
        }
        error = name + ": no capture that can be read (" + reason + ")";
        return PcapResult::refused;
    }
    Reader reader{sinks, counters, pcap_datalink(handle.get()), 0, {}, {}};
    if (!is_known(reader.link_type)) {
        error = name + ": link type " + std::to_string(reader.link_type) +
                " is not known (0, 1, 12, 101, 108, 113, 228 and 276 are)";
        return PcapResult::refused;
    }
    pcap_pkthdr* header = nullptr;
    const unsigned char* bytes = nullptr;
    int got = 0;
    errno = 0;
    const auto stopped = [&sinks] { return sinks.stops && sinks.stops(); };
    while (!stopped() && (got = pcap_next_ex(handle.get(), &header, &bytes)) == 1) {
        take_record(reader, *header, bytes);
        errno = 0;
    }
    const int fault = errno;
    abandon_fragments(reader.fragments);
    counters.incomplete = reader.fragments.never_completed;
    if (got != PCAP_ERROR_BREAK && !stopped()) {  // which is how the end of a file is reported
        error = breakage(name, handle.get(), fault, counters.packets);
        return PcapResult::broken;
    }
    return PcapResult::whole;
}

}  // namespace tessel::listen
