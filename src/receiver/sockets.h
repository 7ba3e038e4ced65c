#pragma once

#include <netinet/in.h>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// The sockets of a receiver. Every function that opens something returns the descriptor, or -1 with the
// failing call in `error`. All sockets are non-blocking.
namespace tessel::receiver {

// "HOST:PORT" as an IPv4 address; a name is looked up. False with the reason in `error`.
bool parse_endpoint(sockaddr_in& address, const std::string& text, std::string& error);

struct MulticastSocket {
    int fd = -1;
    int buffer_bytes = 0;            // what the system granted
    std::uint64_t kernel_drops = 0;  // datagrams the kernel had no room for (SO_RXQ_OVFL)
    std::uint64_t truncated = 0;     // datagrams longer than any packet of the feed
    // When the datagram that is being handed out reached the kernel, in nanoseconds since the epoch; 0
    // without stamp_datagrams.
    std::int64_t stamp_ns = 0;
};

// Joins `group` on the interface with address `iface`. The socket is bound to the group itself, so that
// datagrams of other groups on the same port stay out. `buffer_bytes` is what is asked for; the system may
// grant less.
bool open_multicast(MulticastSocket& out, const std::string& group, std::uint16_t port,
                    const std::string& iface, int buffer_bytes, std::string& error);

// Has the kernel stamp every datagram that arrives from now on (SO_TIMESTAMPNS). False when it refuses.
bool stamp_datagrams(const MulticastSocket& socket);

// Receives what is waiting, at most `most` datagrams, and calls `take` for each. Returns how many came.
std::size_t receive_multicast(MulticastSocket& from, std::size_t most,
                              const std::function<void(const unsigned char*, std::size_t)>& take);

// A UDP socket that is connected to the retransmission service: only its answers come in.
int open_retransmission(const sockaddr_in& server, int buffer_bytes, std::string& error);

// Begins a TCP connection; it is there when the descriptor becomes writable and connection_error gives 0.
int begin_connection(const sockaddr_in& server, std::string& error);
int connection_error(int fd);

}  // namespace tessel::receiver
