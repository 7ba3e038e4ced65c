#include "listen/pcap_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

namespace tessel::listen {

namespace {

constexpr std::uint32_t magic_microseconds = 0xa1b2c3d4;
constexpr std::uint32_t magic_nanoseconds = 0xa1b23c4d;
constexpr std::uint32_t magic_pcapng = 0x0a0d0d0a;
constexpr std::size_t file_header_bytes = 24;
constexpr std::size_t record_header_bytes = 16;
constexpr std::size_t record_bytes_max = 1u << 20;
constexpr std::size_t pending_bytes_max = 64u << 20;  // of one TCP direction, waiting for earlier bytes
constexpr unsigned char protocol_tcp = 6;
constexpr unsigned char protocol_udp = 17;

std::uint32_t little32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

std::uint16_t big16(const unsigned char* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

std::uint32_t big32(const unsigned char* p) {
    return (static_cast<std::uint32_t>(big16(p)) << 16) | big16(p + 2);
}

// One direction of a TCP connection.
struct Stream {
    std::uint32_t next = 0;                                       // the sequence number of the next byte
    std::map<std::uint64_t, std::vector<unsigned char>> pending;  // by distance from the first byte
    std::uint64_t position = 0;                                   // bytes handed out
    std::size_t pending_bytes = 0;
};

struct Reader {
    const PcapSinks& sinks;
    PcapCounters& counters;
    std::uint32_t link_type = 0;
    std::map<PcapFlow, Stream> streams;
};

// Where the IPv4 header begins in a record of this link type; `length` when the record holds none.
std::size_t ip_offset(std::uint32_t link_type, const unsigned char* p, std::size_t length) {
    const auto behind = [&](std::size_t type_at, std::size_t offset) {
        return length >= offset && big16(p + type_at) == 0x0800 ? offset : length;
    };
    switch (link_type) {
        case 0: return length >= 4 && little32(p) == 2 ? 4 : length;  // loopback: protocol family
        case 1:                                                       // Ethernet, perhaps with one tag
            return length >= 18 && big16(p + 12) == 0x8100 ? behind(16, 18) : behind(12, 14);
        case 12:
        case 101:
        case 228: return 0;               // raw IP
        case 113: return behind(14, 16);  // Linux cooked
        case 276: return behind(0, 20);   // Linux cooked, second version
        default: return length;
    }
}

bool known_link_type(std::uint32_t type) {
    return type == 0 || type == 1 || type == 12 || type == 101 || type == 228 || type == 113 || type == 276;
}

void hand_out(Reader& reader, const PcapFlow& flow, Stream& stream, std::int64_t time_ns,
              const unsigned char* bytes, std::size_t length) {
    stream.next += static_cast<std::uint32_t>(length);
    stream.position += length;
    reader.sinks.stream(flow, time_ns, bytes, length);
}

void take_segment(Reader& reader, const PcapFlow& flow, std::int64_t time_ns, const unsigned char* p,
                  std::size_t length) {
    const std::size_t header = length >= 20 ? static_cast<std::size_t>(p[12] >> 4) * 4 : 0;
    if (header < 20 || header > length || !reader.sinks.stream) {
        ++reader.counters.other;
        return;
    }
    const std::uint32_t sequence = big32(p + 4);
    if ((p[13] & 0x02) != 0) {  // SYN: the first byte of data has the next number
        reader.streams[flow] = {};
        reader.streams[flow].next = sequence + 1;
        return;
    }
    const auto found = reader.streams.find(flow);
    const std::size_t data_bytes = length - header;
    if (found == reader.streams.end() || data_bytes == 0) {
        return;
    }
    Stream& stream = found->second;
    // The distance from what comes next, as a signed number: a segment that was sent again lies behind.
    const auto ahead = static_cast<std::int32_t>(sequence - stream.next);
    const std::int64_t at = static_cast<std::int64_t>(stream.position) + ahead;
    if (at < 0 || stream.pending_bytes + data_bytes > pending_bytes_max) {
        return;
    }
    std::vector<unsigned char>& kept = stream.pending[static_cast<std::uint64_t>(at)];
    if (kept.size() < data_bytes) {
        stream.pending_bytes += data_bytes - kept.size();
        kept.assign(p + header, p + length);
    }
    while (!stream.pending.empty() && stream.pending.begin()->first <= stream.position) {
        const auto first = stream.pending.begin();
        const std::uint64_t skip = stream.position - first->first;
        if (skip < first->second.size()) {
            hand_out(reader, flow, stream, time_ns, first->second.data() + skip, first->second.size() - skip);
        }
        stream.pending_bytes -= first->second.size();
        stream.pending.erase(first);
    }
}

void take_ip(Reader& reader, std::int64_t time_ns, const unsigned char* p, std::size_t length) {
    const std::size_t header =
        length >= 20 && (p[0] >> 4) == 4 ? static_cast<std::size_t>(p[0] & 0x0f) * 4 : 0;
    // The total length is 0 in captures of packets that the network card was to cut up.
    const std::size_t total = header != 0 && big16(p + 2) != 0 ? big16(p + 2) : length;
    if (header < 20 || total < header || total > length || (big16(p + 6) & 0x3fff) != 0) {
        ++reader.counters.other;
        return;
    }
    PcapFlow flow;
    flow.source = big32(p + 12);
    flow.destination = big32(p + 16);
    const unsigned char* body = p + header;
    const std::size_t body_bytes = total - header;
    if (body_bytes < 8 || (p[9] != protocol_udp && p[9] != protocol_tcp)) {
        ++reader.counters.other;
        return;
    }
    flow.source_port = big16(body);
    flow.destination_port = big16(body + 2);
    if (p[9] == protocol_tcp) {
        take_segment(reader, flow, time_ns, body, body_bytes);
        return;
    }
    const std::size_t datagram = big16(body + 4);
    if (datagram < 8 || datagram > body_bytes || !reader.sinks.datagram) {
        ++reader.counters.other;
        return;
    }
    reader.sinks.datagram(flow, time_ns, body + 8, datagram - 8);
}

bool refuse(std::string* error, const std::string& text) {
    *error = text;
    return false;
}

}  // namespace

bool read_pcap(const std::string& path, const PcapSinks& sinks, PcapCounters& counters, std::string* error) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
    if (!file) {
        return refuse(error, path + ": " + std::strerror(errno));
    }
    unsigned char head[file_header_bytes];
    const std::size_t head_bytes = std::fread(head, 1, sizeof head, file.get());
    if (head_bytes >= 4 && little32(head) == magic_pcapng) {
        return refuse(error, path + ": a pcapng file; write classic pcap (with -F pcap, say)");
    }
    if (head_bytes < sizeof head ||
        (little32(head) != magic_microseconds && little32(head) != magic_nanoseconds)) {
        return refuse(error, path + ": not a little-endian pcap file");
    }
    const std::int64_t unit_ns = little32(head) == magic_nanoseconds ? 1 : 1000;
    Reader reader{sinks, counters, little32(head + 20) & 0xffffu, {}};
    if (!known_link_type(reader.link_type)) {
        return refuse(error, path + ": link type " + std::to_string(reader.link_type) + " is not known");
    }
    std::vector<unsigned char> record;
    for (;;) {
        unsigned char fields[record_header_bytes];
        const std::size_t got = std::fread(fields, 1, sizeof fields, file.get());
        if (got == 0) {
            return true;
        }
        const std::size_t captured = got == sizeof fields ? little32(fields + 8) : 0;
        if (got < sizeof fields || captured > record_bytes_max) {
            return refuse(error, path + ": broken record after " + std::to_string(counters.records));
        }
        record.resize(captured);
        if (std::fread(record.data(), 1, captured, file.get()) != captured) {
            return refuse(error, path + ": ends inside record " + std::to_string(counters.records + 1));
        }
        ++counters.records;
        if (captured < little32(fields + 12)) {
            ++counters.cut_short;
            continue;
        }
        const std::int64_t time_ns = static_cast<std::int64_t>(little32(fields)) * 1'000'000'000 +
                                     static_cast<std::int64_t>(little32(fields + 4)) * unit_ns;
        const std::size_t offset = ip_offset(reader.link_type, record.data(), captured);
        if (offset >= captured) {
            ++counters.other;
            continue;
        }
        take_ip(reader, time_ns, record.data() + offset, captured - offset);
    }
}

}  // namespace tessel::listen
