#include "mold/retransmission_server.h"

#include "mold/packet.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>

namespace tessel {

namespace {

// Where the replies of one request go.
struct Requester {
    int socket = -1;
    sockaddr_in address{};
    socklen_t address_bytes = sizeof(sockaddr_in);
};

// Replies are as lossy as the feed: the requester asks again for what did not come.
void send_to_requester(void* context, const unsigned char* packet, std::size_t length) {
    const Requester& requester = *static_cast<const Requester*>(context);
    (void)sendto(requester.socket, packet, length, 0, reinterpret_cast<const sockaddr*>(&requester.address),
                 requester.address_bytes);
}

// Sends the messages first to end - 1, which the history holds, as packets like those of the feed.
void send_replies(const MoldPublisher& publisher, std::uint64_t first, std::uint64_t end, PacketSink send) {
    std::array<unsigned char, packet_bytes_max> reply;
    std::memcpy(reply.data(), publisher.session.data(), mold_session_bytes);
    RetransCursor cursor = find_message(publisher.history, first - 1);
    while (first < end) {
        std::size_t bytes = 0;
        const std::size_t copied =
            copy_blocks(publisher.history, cursor, end - 1, packet_messages_max,
                        reply.data() + mold_header_bytes, packet_bytes_max - mold_header_bytes, bytes);
        if (copied == 0) {
            // A message too long for any packet is kept but never sent: pass over it, or this would go on for
            // ever.
            skip_block(publisher.history, cursor);
            ++first;
            continue;
        }
        write_big_endian(reply.data() + 10, first, 8);
        write_big_endian(reply.data() + 18, copied, 2);
        send.send(send.context, reply.data(), mold_header_bytes + bytes);
        first += copied;
    }
}

}  // namespace

bool answer_request(MoldPublisher& publisher, const unsigned char* request, std::size_t length,
                    PacketSink send) {
    if (length < retrans_request_bytes) {
        return false;
    }
    if (std::memcmp(request, publisher.session.data(), mold_session_bytes) != 0) {
        ++publisher.retrans_rejected;
        return true;
    }
    const std::uint64_t wanted = read_big_endian(request + 10, 8);
    const std::uint64_t count = read_big_endian(request + 18, 2);
    const std::uint64_t next = publisher.next_sequence;
    const std::uint64_t oldest = next - message_count(publisher.history);
    assert(publisher.history.end_index == next - 1);
    // wanted + count may wrap past 2^64: the end is then small, the first huge, and nothing is sent.
    const std::uint64_t first = std::max(oldest, wanted);
    const std::uint64_t end = std::min(wanted + count, next);
    if (first < end) {
        send_replies(publisher, first, end, send);
    }
    ++publisher.retrans_served;
    return true;
}

void serve_retransmissions(MoldPublisher& publisher) {
    if (publisher.retrans_socket == -1) {
        return;
    }
    Requester requester;
    requester.socket = publisher.retrans_socket;
    const PacketSink to_requester{send_to_requester, &requester};
    std::array<unsigned char, retrans_request_bytes_read> request;
    while (true) {
        requester.address_bytes = sizeof requester.address;
        const ssize_t received =
            recvfrom(requester.socket, request.data(), request.size(), 0,
                     reinterpret_cast<sockaddr*>(&requester.address), &requester.address_bytes);
        // Nothing waiting, an error or a datagram too short to be a request: each ends this call.
        const std::size_t length = received > 0 ? static_cast<std::size_t>(received) : 0;
        if (!answer_request(publisher, request.data(), length, to_requester)) {
            return;
        }
    }
}

}  // namespace tessel
