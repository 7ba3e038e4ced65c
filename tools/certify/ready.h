#pragma once

#include <cstdint>
#include <set>
#include <string>

// How a handler shows that it is ready to receive.
namespace tessel::certify {

enum class ReadyKind : std::uint8_t {
    membership,  // the kernel lists one more member of the group than before
    file,        // a file is there
    port,        // a TCP or UDP port is open
    line,        // a line with that text on its output
    delay,       // time has passed
};

struct Ready {
    ReadyKind kind = ReadyKind::membership;
    std::string text;  // of file, port and line; placeholders in it are filled
    double seconds = 0;
};

// Reads "file:PATH", "port:N", "line:TEXT" or "delay:S". False with a reason in `error`.
bool parse_ready(const std::string& text, Ready& ready, std::string& error);

// The members of a group on all interfaces, from the text of /proc/net/igmp. `group` is an IPv4 address.
unsigned group_members(const std::string& igmp, const std::string& group);

// The sockets that have a port open, a listening one of TCP or any of UDP: their inodes, from the text of
// /proc/net/tcp, tcp6, udp or udp6.
std::set<std::string> sockets_of_port(const std::string& sockets, bool tcp, std::uint16_t port);

}  // namespace tessel::certify
