#include "relay/udp_output.h"

#include <arpa/inet.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace tessel::relay {

namespace {

constexpr std::size_t batch_bytes_max = std::size_t{256} << 10;
constexpr int send_buffer_bytes = 4 << 20;

bool fail(UdpOutput& output, const LineOptions& line, const char* call, std::string& error) {
    error = "line " + line.name + ": " + line.destination + ": " + call + ": " + std::strerror(errno);
    if (output.fd >= 0) {
        close(output.fd);
    }
    output.fd = -1;
    return false;
}

}  // namespace

bool open_output(UdpOutput& output, const LineOptions& line, std::string& error) {
    output.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (output.fd < 0) {
        return fail(output, line, "socket", error);
    }
    setsockopt(output.fd, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
    if ((ntohl(line.address.sin_addr.s_addr) >> 28) == 0xE) {
        in_addr iface{};
        inet_pton(AF_INET, line.iface.empty() ? "127.0.0.1" : line.iface.c_str(), &iface);
        const unsigned char on = 1;
        if (setsockopt(output.fd, IPPROTO_IP, IP_MULTICAST_IF, &iface, sizeof iface) != 0) {
            return fail(output, line, "IP_MULTICAST_IF", error);
        }
        setsockopt(output.fd, IPPROTO_IP, IP_MULTICAST_TTL, &on, sizeof on);
        setsockopt(output.fd, IPPROTO_IP, IP_MULTICAST_LOOP, &on, sizeof on);
    }
    const auto* address = reinterpret_cast<const sockaddr*>(&line.address);
    if (connect(output.fd, address, sizeof line.address) != 0) {
        return fail(output, line, "connect", error);
    }
    output.bytes.resize(batch_bytes_max);
    return true;
}

void add_packet(UdpOutput& output, const unsigned char* bytes, std::size_t length) {
    if (output.count == batch_packets_max || output.used + length > output.bytes.size()) {
        flush_output(output);
    }
    unsigned char* place = output.bytes.data() + output.used;
    std::memcpy(place, bytes, length);
    output.parts[output.count] = {place, length};
    output.messages[output.count].msg_hdr = {};
    output.messages[output.count].msg_hdr.msg_iov = &output.parts[output.count];
    output.messages[output.count].msg_hdr.msg_iovlen = 1;
    output.used += length;
    ++output.count;
}

void flush_output(UdpOutput& output) {
    std::size_t sent = 0;
    bool tried_again = false;
    while (sent < output.count) {
        const int now =
            sendmmsg(output.fd, output.messages + sent, static_cast<unsigned>(output.count - sent), 0);
        if (now > 0) {
            sent += static_cast<std::size_t>(now);
            tried_again = false;
        } else if (now < 0 && errno == EINTR) {
            continue;
        } else if (now < 0 && errno == ECONNREFUSED && !tried_again) {
            tried_again = true;  // the report of an earlier packet to a host where nobody listens
        } else {
            ++output.failed;
            ++sent;
            tried_again = false;
        }
    }
    output.count = 0;
    output.used = 0;
}

}  // namespace tessel::relay
