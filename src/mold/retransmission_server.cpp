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

// Where the replies of one request go, and from where.
struct Requester {
    int socket = -1;
    sockaddr_in address{};
    socklen_t address_bytes = sizeof(sockaddr_in);
    in_addr asked_address{};      // the local address that the request was sent to
    bool is_asked_known = false;  // whether the system said which
    std::size_t reply_bytes = 0;  // sent in this call, to all requesters
};

// Room for the one control message that carries an in_pktinfo.
struct PacketInfoBuffer {
    alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(sizeof(in_pktinfo))> bytes{};
};

// Reads one datagram, its sender and the address that it was sent to. The result is recvmsg's, which writes
// the request. NOLINTNEXTLINE(readability-non-const-parameter)
ssize_t receive_request(Requester& requester, unsigned char* request, std::size_t room) {
    PacketInfoBuffer info;
    iovec data{request, room};
    msghdr message{};
    message.msg_name = &requester.address;
    message.msg_namelen = sizeof requester.address;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = info.bytes.data();
    message.msg_controllen = info.bytes.size();
    const ssize_t received = recvmsg(requester.socket, &message, 0);
    requester.address_bytes = message.msg_namelen;
    requester.is_asked_known = false;
    if (received < 0) {
        return received;
    }
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_level == IPPROTO_IP && header->cmsg_type == IP_PKTINFO) {
        in_pktinfo asked{};
        std::memcpy(&asked, CMSG_DATA(header), sizeof asked);
        requester.asked_address = asked.ipi_spec_dst;
        requester.is_asked_known = true;
    }
    return received;
}

// Replies are as lossy as the feed: the requester asks again for what did not come.
void send_to_requester(void* context, const unsigned char* packet, std::size_t length) {
    Requester& requester = *static_cast<Requester*>(context);
    requester.reply_bytes += length;
    if (!requester.is_asked_known) {
        (void)sendto(requester.socket, packet, length, 0,
                     reinterpret_cast<const sockaddr*>(&requester.address), requester.address_bytes);
        return;
    }
    PacketInfoBuffer info;
    iovec data{const_cast<unsigned char*>(packet), length};  // sendmsg only reads it
    msghdr message{};
    message.msg_name = &requester.address;
    message.msg_namelen = requester.address_bytes;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = info.bytes.data();
    message.msg_controllen = info.bytes.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo from{};
    from.ipi_spec_dst = requester.asked_address;
    std::memcpy(CMSG_DATA(header), &from, sizeof from);
    (void)sendmsg(requester.socket, &message, 0);
}

// Sends the messages first to end - 1, which the history holds, as packets like those of the feed.
void send_replies(const MoldPublisher& publisher, std::uint64_t first, std::uint64_t end, PacketSink send) {
    std::array<unsigned char, packet_bytes_max> reply;
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
        put_mold_header(reply.data(), publisher.session.data(), first, copied);
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
    const std::uint64_t wanted = mold_sequence(request);
    const std::uint64_t count = mold_count(request);
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
    while (requester.reply_bytes < retrans_reply_bytes_max) {
        const ssize_t received = receive_request(requester, request.data(), request.size());
        // Nothing waiting, an error or a datagram too short to be a request: each ends this call.
        const std::size_t length = received > 0 ? static_cast<std::size_t>(received) : 0;
        if (!answer_request(publisher, request.data(), length, to_requester)) {
            return;
        }
    }
}

}  // namespace tessel
