#include "capture/late_join.h"

#include <algorithm>

namespace tessel::capture {

using receiver::SoupPacket;

namespace {

constexpr std::uint32_t client_first_sequence = 1'000;
constexpr std::uint32_t server_first_sequence = 500'000;
constexpr std::uint64_t segments_per_acknowledgment = 2;
constexpr char user_name[] = "LATE";

void send_from_client(LateJoin& join, unsigned char flags, std::span<const unsigned char> payload = {}) {
    Wire& wire = *join.wire;
    const std::uint32_t acknowledged = (flags & tcp_ack) != 0 ? join.server_sequence : 0;
    write_frame(wire.file, wire.clock->simulated_wall_ns,
                build_tcp(wire.builder, join.client, wire.snapshot, join.client_sequence, acknowledged, flags,
                          payload));
    join.client_sequence += static_cast<std::uint32_t>(payload.size());
    join.client_sequence += (flags & (tcp_syn | tcp_fin)) != 0 ? 1 : 0;
    join.unacknowledged = 0;
}

void send_from_server(LateJoin& join, unsigned char flags, std::span<const unsigned char> payload = {}) {
    Wire& wire = *join.wire;
    write_frame(wire.file, wire.clock->simulated_wall_ns,
                build_tcp(wire.builder, wire.snapshot, join.client, join.server_sequence,
                          join.client_sequence, flags, payload));
    join.server_sequence += static_cast<std::uint32_t>(payload.size());
    join.server_sequence += (flags & (tcp_syn | tcp_fin)) != 0 ? 1 : 0;
    if (!payload.empty() && ++join.unacknowledged == segments_per_acknowledgment) {
        send_from_client(join, tcp_ack);
    }
}

void send_text(LateJoin& join, const std::string& packet) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(packet.data());
    send_from_client(join, tcp_push | tcp_ack, {bytes, packet.size()});
    join.peer.input.insert(join.peer.input.end(), bytes, bytes + packet.size());
}

// Category A, type S: the last message of a spin.
bool is_end_of_snapshot(const SoupPacket& packet) {
    return packet.type == soup_sequenced_data && packet.length >= 3 && packet.payload[1] == 'A' &&
           packet.payload[2] == 'S';
}

// What the service sends, as segments.
void take_from_service(void* context, const unsigned char* bytes, std::size_t size) {
    LateJoin& join = *static_cast<LateJoin*>(context);
    for (std::size_t at = 0; at < size; at += tcp_segment_bytes_max) {
        const std::size_t length = std::min(tcp_segment_bytes_max, size - at);
        const auto flags = static_cast<unsigned char>(at + length == size ? tcp_push | tcp_ack : tcp_ack);
        send_from_server(join, flags, {bytes + at, length});
    }
    soup_append(join.input, bytes, size);
    SoupPacket packet;
    bool broken = false;
    while (soup_next(join.input, packet, &broken)) {
        join.spin_complete = join.spin_complete || is_end_of_snapshot(packet);
    }
}

}  // namespace

void begin_join(LateJoin& join, SnapshotServer& server, const std::string& session, std::int64_t now_ms) {
    join.client_sequence = client_first_sequence;
    join.server_sequence = server_first_sequence;
    send_from_client(join, tcp_syn);
    send_from_server(join, tcp_syn | tcp_ack);
    send_from_client(join, tcp_ack);
    join.peer.sink = {take_from_service, &join};
    connect_in_memory(server, join.peer, now_ms);
    send_text(join, receiver::soup_login(user_name, "", session));
    join.state = LateJoin::State::logged_in;
}

void step_join(LateJoin& join) {
    const bool is_open =
        join.state == LateJoin::State::logged_in || join.state == LateJoin::State::logged_out;
    if (is_open && join.peer.closed) {
        send_from_server(join, tcp_fin | tcp_ack);
        send_from_client(join, tcp_fin | tcp_ack);
        send_from_server(join, tcp_ack);
        join.state = LateJoin::State::closed;
    } else if (join.state == LateJoin::State::logged_in && join.spin_complete) {
        send_text(join, receiver::soup_empty_packet(soup_logout_request));
        join.state = LateJoin::State::logged_out;
    }
}

}  // namespace tessel::capture
