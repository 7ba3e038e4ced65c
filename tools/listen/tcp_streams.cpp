#include "listen/tcp_streams.h"

namespace tessel::listen {

namespace {

constexpr std::size_t header_bytes_min = 20;
constexpr unsigned char flag_fin = 0x01;
constexpr unsigned char flag_syn = 0x02;
constexpr unsigned char flag_reset = 0x04;

std::uint32_t big32(const unsigned char* p) {
    return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

void forget(TcpStreams& streams, const PcapFlow& flow) {
    const auto found = streams.streams.find(flow);
    if (found != streams.streams.end()) {
        for (const auto& [at, bytes] : found->second.pending) {
            streams.pending_bytes -= bytes.size();
        }
        streams.streams.erase(found);
    }
}

void hand_out(TcpStream& stream, const PcapFlow& flow, const unsigned char* bytes, std::size_t length,
              const TcpSink& sink) {
    stream.next += static_cast<std::uint32_t>(length);
    stream.position += length;
    sink(flow, bytes, length);
}

// Hands out what is no longer after a gap.
void drain(TcpStreams& streams, TcpStream& stream, const PcapFlow& flow, const TcpSink& sink) {
    while (!stream.pending.empty() && stream.pending.begin()->first <= stream.position) {
        const auto first = stream.pending.begin();
        const std::uint64_t skip = stream.position - first->first;
        if (skip < first->second.size()) {
            hand_out(stream, flow, first->second.data() + skip, first->second.size() - skip, sink);
        }
        streams.pending_bytes -= first->second.size();
        stream.pending.erase(first);
    }
}

void add_data(TcpStreams& streams, TcpStream& stream, const PcapFlow& flow, std::uint32_t sequence,
              const unsigned char* bytes, std::size_t length, const TcpSink& sink) {
    // The distance from what comes next, as a signed number: a segment that was sent again lies before it.
    const auto ahead = static_cast<std::int32_t>(sequence - stream.next);
    if (ahead == 0 && stream.pending.empty()) {
        hand_out(stream, flow, bytes, length, sink);
        return;
    }
    const std::int64_t at = static_cast<std::int64_t>(stream.position) + ahead;
    if (at < 0 || streams.pending_bytes + length > tcp_pending_bytes_max) {
        return;
    }
    std::vector<unsigned char>& kept = stream.pending[static_cast<std::uint64_t>(at)];
    if (kept.size() < length) {
        streams.pending_bytes += length - kept.size();
        kept.assign(bytes, bytes + length);
    }
    drain(streams, stream, flow, sink);
}

}  // namespace

bool add_segment(TcpStreams& streams, const PcapFlow& flow, const unsigned char* segment, std::size_t length,
                 const TcpSink& sink) {
    const std::size_t header =
        length >= header_bytes_min ? static_cast<std::size_t>(segment[12] >> 4) * 4 : 0;
    if (header < header_bytes_min || header > length) {
        return false;
    }
    const std::uint32_t sequence = big32(segment + 4);
    const unsigned char flags = segment[13];
    if ((flags & flag_syn) != 0) {  // the first byte of data has the next number
        forget(streams, flow);
        if (streams.streams.size() < tcp_streams_max) {
            streams.streams[flow].next = sequence + 1;
        }
        return true;
    }
    const auto found = streams.streams.find(flow);
    if (found == streams.streams.end()) {
        return true;
    }
    if (length > header) {
        add_data(streams, found->second, flow, sequence, segment + header, length - header, sink);
    }
    const bool at_end = (flags & flag_fin) != 0 && found->second.pending.empty();
    if (at_end || (flags & flag_reset) != 0) {
        forget(streams, flow);
    }
    return true;
}

}  // namespace tessel::listen
