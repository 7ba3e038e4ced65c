#include "mold/publisher.h"

#include "mold/packet.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <algorithm>
#include <cassert>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace tessel {

namespace {

// A lost send is a lost packet, as on any network: receivers ask for it again. So the result is not looked
// at.
void send_packet(MoldPublisher& publisher, const unsigned char* packet, std::size_t length) {
    if (publisher.sink.send != nullptr) [[unlikely]] {
        publisher.sink.send(publisher.sink.context, packet, length);
        return;
    }
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_port = publisher.group_port;
    destination.sin_addr.s_addr = publisher.group_address;
    (void)sendto(publisher.feed_socket, packet, length, 0, reinterpret_cast<const sockaddr*>(&destination),
                 sizeof destination);
}

void write_header(MoldPublisher& publisher, std::uint64_t sequence, std::uint16_t count) {
    put_mold_header(publisher.packet.data(), publisher.session.data(), sequence, count);
}

void reset_open_packet(MoldPublisher& publisher) {
    publisher.packet_length = mold_header_bytes;
    publisher.packet_count = 0;
    publisher.packet_first_sequence = publisher.next_sequence;
    publisher.last_flush_ms = static_cast<std::int64_t>(steady_ms(*publisher.clock));
}

// The open packet as it is, then the one held back earlier: a held packet is sent immediately after the next
// one.
void send_open_packet(MoldPublisher& publisher, bool twice, std::uint64_t first) {
    send_packet(publisher, publisher.packet.data(), publisher.packet_length);
    if (twice) {
        send_packet(publisher, publisher.packet.data(), publisher.packet_length);
        ++publisher.faults_duplicated;
        std::fprintf(stderr, "tessel fault: duplicated seq %" PRIu64 "\n", first);
    }
    if (!publisher.held_packet.empty()) {
        send_packet(publisher, publisher.held_packet.data(), publisher.held_packet.size());
        publisher.held_packet.clear();
    }
}

void drop_open_packet(MoldPublisher& publisher, std::uint64_t first) {
    ++publisher.faults_dropped;
    std::fprintf(stderr, "tessel fault: dropped seq %" PRIu64 " (packet %" PRIu64 ", %u message(s))\n", first,
                 publisher.packets_flushed, static_cast<unsigned>(publisher.packet_count));
}

// A packet held earlier and not yet released is lost: the assignment replaces it.
void hold_open_packet(MoldPublisher& publisher, std::uint64_t first) {
    const unsigned char* const packet = publisher.packet.data();
    publisher.held_packet.assign(packet, packet + publisher.packet_length);
    ++publisher.faults_reordered;
    std::fprintf(stderr, "tessel fault: reordered seq %" PRIu64 " (held behind the next packet)\n", first);
}

bool fits(const MoldPublisher& publisher, std::size_t length) {
    return publisher.packet_length + block_prefix_bytes + length <= packet_bytes_max &&
           publisher.packet_count != packet_messages_max;
}

void place(MoldPublisher& publisher, const unsigned char* message, std::size_t length) {
    write_block(publisher.packet.data() + publisher.packet_length, message, length);
    publisher.packet_length += block_prefix_bytes + length;
    ++publisher.packet_count;
}

// An address that does not parse stays zero: the feed then reaches nobody.
in_addr parse_address(const std::string& text) {
    in_addr address{};
    (void)inet_pton(AF_INET, text.c_str(), &address);
    return address;
}

int open_feed_socket(const std::string& interface) {
    const int opened = socket(AF_INET, SOCK_DGRAM, 0);
    const in_addr from = parse_address(interface);
    const unsigned char ttl = 1;   // stays on the local network
    const unsigned char loop = 1;  // receivers on this machine hear it too
    (void)setsockopt(opened, IPPROTO_IP, IP_MULTICAST_IF, &from, sizeof from);
    (void)setsockopt(opened, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
    (void)setsockopt(opened, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop);
    return opened;
}

int open_retrans_socket(std::uint16_t port) {
    const int opened = socket(AF_INET, SOCK_DGRAM, 0);
    const int reuse = 1;
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    any.sin_port = htons(port);
    (void)setsockopt(opened, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    // Each request then comes with the address that it was sent to, from which its replies are to leave.
    const int note_asked_address = 1;
    (void)setsockopt(opened, IPPROTO_IP, IP_PKTINFO, &note_asked_address, sizeof note_asked_address);
    (void)bind(opened, reinterpret_cast<const sockaddr*>(&any), sizeof any);
    (void)fcntl(opened, F_SETFL, O_NONBLOCK);
    return opened;
}

}  // namespace

void reset_publisher(MoldPublisher& publisher, Clock& clock, const std::string& session) {
    const PacketSink sink = publisher.sink;
    publisher = MoldPublisher{};
    publisher.sink = sink;
    publisher.clock = &clock;
    publisher.session.fill(' ');
    std::copy_n(session.begin(), std::min(session.size(), mold_session_bytes), publisher.session.begin());
    publisher.session_name = session;
    publisher.held_packet.reserve(packet_bytes_max);
}

void open_publisher(MoldPublisher& publisher, Clock& clock, const std::string& group, std::uint16_t port,
                    const std::string& interface, std::uint16_t retrans_port, const std::string& session) {
    reset_publisher(publisher, clock, session);
    publisher.feed_socket = open_feed_socket(interface);
    publisher.group_port = htons(port);
    publisher.group_address = parse_address(group).s_addr;
    if (retrans_port != 0) {
        publisher.retrans_socket = open_retrans_socket(retrans_port);
    }
    publisher.packet_first_sequence = publisher.next_sequence;
}

std::uint64_t append_message(MoldPublisher& publisher, const unsigned char* message, std::size_t length) {
    store_message(publisher.history, message, length, history_messages_max);
    if (fits(publisher, length)) [[likely]] {
        place(publisher, message, length);
    } else {
        flush_packet(publisher);
        // A message too long for any packet uses up its number unsent. The next packet's header then carries
        // that number, one below its first message's: receivers see a gap that only the retransmission
        // service fills.
        if (fits(publisher, length)) {
            place(publisher, message, length);
        }
    }
    ++publisher.messages_sequenced;
    assert(publisher.history.end_index == publisher.next_sequence);
    return publisher.next_sequence++;
}

void flush_packet(MoldPublisher& publisher) {
    if (publisher.packet_count == 0) {
        return;
    }
    assert(publisher.packet_length > mold_header_bytes);
    assert(publisher.packet_length <= packet_bytes_max);
    assert(publisher.packet_first_sequence + publisher.packet_count <= publisher.next_sequence);
    ++publisher.packets_flushed;
    const std::uint64_t first = publisher.next_sequence - publisher.packet_count;
    write_header(publisher, publisher.packet_first_sequence, publisher.packet_count);
    switch (decide_fault(publisher.faults, publisher.packets_flushed)) {
        case FaultDecision::send: send_open_packet(publisher, false, first); break;
        case FaultDecision::send_twice: send_open_packet(publisher, true, first); break;
        case FaultDecision::drop: drop_open_packet(publisher, first); break;
        case FaultDecision::hold: hold_open_packet(publisher, first); break;
    }
    reset_open_packet(publisher);
}

// Heartbeats have no packet number and no fault ever meets one: a receiver must be able to trust that silence
// means loss.
void send_heartbeat(MoldPublisher& publisher) {
    flush_packet(publisher);
    write_header(publisher, publisher.next_sequence, 0);
    send_packet(publisher, publisher.packet.data(), mold_header_bytes);
    reset_open_packet(publisher);
}

}  // namespace tessel
