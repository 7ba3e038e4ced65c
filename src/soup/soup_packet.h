#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The client's side of SoupBinTCP: a stream of packets, each a 2-byte length, a type letter and a payload.
namespace tessel::receiver {

constexpr char soup_login_request = 'L';
constexpr char soup_logout_request = 'O';
constexpr char soup_client_heartbeat = 'R';
constexpr char soup_login_accepted = 'A';
constexpr char soup_login_rejected = 'J';
constexpr char soup_sequenced_data = 'S';
constexpr char soup_server_heartbeat = 'H';

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
