#pragma once

#include "mold/publisher.h"

#include <cstddef>

namespace tessel {

constexpr std::size_t retrans_request_bytes = 20;       // session 10, sequence 8, count 2
constexpr std::size_t retrans_request_bytes_read = 64;  // what is read of a datagram

// Answers every waiting request on the publisher's retransmission socket, by unicast to the one who asked.
// Never waits.
void serve_retransmissions(MoldPublisher& publisher);

// Handles one request datagram: counts it and hands each reply packet to send. False when it is shorter than
// a request, which ends the current call's draining.
bool answer_request(MoldPublisher& publisher, const unsigned char* request, std::size_t length,
                    PacketSink send);

}  // namespace tessel
