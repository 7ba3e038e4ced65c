#pragma once

#include "mold/publisher.h"

#include <cstddef>

namespace tessel {

constexpr std::size_t retrans_request_bytes = mold_header_bytes;
constexpr std::size_t retrans_request_bytes_read = 64;  // what is read of a datagram
// Once a call has sent this much, further requests wait for the next: a request of 20 bytes can ask for 5 MB,
// and the loop must go on however many of them come.
constexpr std::size_t retrans_reply_bytes_max = 8 * 1024 * 1024;

// Answers the waiting requests on the publisher's retransmission socket, in order, by unicast to the one who
// asked and from the address that was asked. Requests beyond retrans_reply_bytes_max of replies stay in the
// socket. Never waits.
void serve_retransmissions(MoldPublisher& publisher);

// Handles one request datagram: counts it and hands each reply packet to send. False when it is shorter than
// a request, which ends the current call's draining.
bool answer_request(MoldPublisher& publisher, const unsigned char* request, std::size_t length,
                    PacketSink send);

}  // namespace tessel
