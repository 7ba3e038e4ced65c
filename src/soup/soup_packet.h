#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tessel {

// SoupBinTCP, both directions: Packet Length (2 bytes, big-endian, counting the type), Packet Type, payload.
constexpr std::size_t soup_length_bytes = 2;
constexpr std::size_t soup_header_bytes = 3;  // with the type

// From the client.
constexpr char soup_login_request = 'L';
constexpr char soup_logout_request = 'O';
constexpr char soup_client_heartbeat = 'R';
// To the client.
constexpr char soup_login_accepted = 'A';
constexpr char soup_login_rejected = 'J';
constexpr char soup_sequenced_data = 'S';
constexpr char soup_server_heartbeat = 'H';

// Fields of a Login Request in their order; a Login Accepted has the last two.
constexpr std::size_t soup_username_bytes = 6;
constexpr std::size_t soup_password_bytes = 10;
constexpr std::size_t soup_session_bytes = 10;
constexpr std::size_t soup_sequence_bytes = 20;
constexpr std::size_t soup_login_request_bytes =
    soup_username_bytes + soup_password_bytes + soup_session_bytes + soup_sequence_bytes;

}  // namespace tessel

// The client's side: a stream of packets that is received, and the packets that a client sends.
namespace tessel::receiver {

// The bytes received that are not yet taken as packets. Never holds more than one packet's worth (64 KiB)
// plus what was received last.
struct SoupReader {
    std::vector<unsigned char> bytes;
    std::size_t taken = 0;
};

struct SoupPacket {
    char type = ' ';
    const unsigned char* payload = nullptr;  // until the reader is changed again
    std::size_t length = 0;
};

void soup_append(SoupReader& reader, const unsigned char* bytes, std::size_t length);

// Takes the next complete packet; false when there is none. A length of 0 cannot be a packet: `broken` is
// set.
bool soup_next(SoupReader& reader, SoupPacket& packet, bool* broken);

// A login request: texts are cut to their width and padded with blanks on the right. Sequence number 1.
std::string soup_login(const std::string& user, const std::string& password, const std::string& session);

// A packet of a type without payload.
std::string soup_empty_packet(char type);

}  // namespace tessel::receiver
