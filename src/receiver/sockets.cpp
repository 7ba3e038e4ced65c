#include "receiver/sockets.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>

namespace tessel::receiver {

namespace {

constexpr std::size_t batch_max = 64;
constexpr std::size_t datagram_bytes_max = 2048;  // the feed's packets end at 1,500

int fail(int fd, const std::string& what, std::string& error) {
    error = what + ": " + std::strerror(errno);
    if (fd >= 0) {
        close(fd);
    }
    return -1;
}

// As much room as is allowed: a privileged process may go past net.core.rmem_max.
int set_receive_buffer(int fd, int bytes) {
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
    int granted = 0;
    socklen_t length = sizeof granted;
    getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &length);
    return granted / 2;  // the system counts its own overhead in and reports twice what was granted
}

// What the system attaches to a datagram: the count of those dropped so far, and when this one arrived.
void read_attachments(MulticastSocket& from, msghdr& header) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SO_RXQ_OVFL) {
            std::uint32_t drops = 0;
            std::memcpy(&drops, CMSG_DATA(part), sizeof drops);
            from.kernel_drops = drops;
        } else if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp{};
            std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
            from.stamp_ns = std::int64_t{stamp.tv_sec} * 1'000'000'000 + stamp.tv_nsec;
        }
    }
}

}  // namespace

bool parse_endpoint(sockaddr_in& address, const std::string& text, std::string& error) {
    const std::size_t colon = text.rfind(':');
    unsigned port = 0;
    const char* end = text.data() + text.size();
    if (colon == std::string::npos || colon == 0 ||
        std::from_chars(text.data() + colon + 1, end, port).ptr != end || port == 0 || port > 65535) {
        error = "'" + text + "' is not HOST:PORT with a port from 1 to 65535";
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int status = getaddrinfo(text.substr(0, colon).c_str(), nullptr, &hints, &found);
    if (status != 0) {
        error = "'" + text + "': " + gai_strerror(status);
        return false;
    }
    std::memcpy(&address, found->ai_addr, sizeof address);
    freeaddrinfo(found);
    if (address.sin_addr.s_addr == 0) {
        error = "'" + text + "' has the address 0.0.0.0, which is no destination";
        return false;
    }
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return true;
}

bool open_multicast(MulticastSocket& out, const std::string& group, std::uint16_t port,
                    const std::string& iface, int buffer_bytes, std::string& error) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ip_mreq membership{};
    if (inet_pton(AF_INET, group.c_str(), &address.sin_addr) != 1) {
        error = "--mcast: '" + group + "' is not an IPv4 address";
        return false;
    }
    if (inet_pton(AF_INET, iface.c_str(), &membership.imr_interface) != 1) {
        error = "--iface: '" + iface + "' is not an IPv4 address";
        return false;
    }
    membership.imr_multiaddr = address.sin_addr;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        fail(fd, "socket", error);
        return false;
    }
    const int on = 1;
    const int off = 0;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    const int granted = set_receive_buffer(fd, buffer_bytes);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail(fd, "bind " + group + ":" + std::to_string(port), error);
        return false;
    }
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
        fail(fd, "join " + group + " on " + iface, error);
        return false;
    }
    out = {};
    out.fd = fd;
    out.buffer_bytes = granted;
    return true;
}

bool stamp_datagrams(const MulticastSocket& socket) {
    const int on = 1;
    return setsockopt(socket.fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0;
}

std::size_t receive_multicast(MulticastSocket& from, std::size_t most,
                              const std::function<void(const unsigned char*, std::size_t)>& take) {
    thread_local unsigned char packets[batch_max][datagram_bytes_max];
    thread_local unsigned char controls[batch_max][64];
    iovec parts[batch_max];
    mmsghdr headers[batch_max];
    std::size_t sum = 0;
    while (sum < most) {
        const std::size_t wanted = std::min(batch_max, most - sum);
        std::memset(headers, 0, sizeof headers);
        for (std::size_t i = 0; i < wanted; ++i) {
            parts[i] = {packets[i], datagram_bytes_max};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
            headers[i].msg_hdr.msg_control = controls[i];
            headers[i].msg_hdr.msg_controllen = sizeof controls[i];
        }
        const int received = recvmmsg(from.fd, headers, static_cast<unsigned>(wanted), MSG_DONTWAIT, nullptr);
        if (received <= 0) {
            break;
        }
        for (int i = 0; i < received; ++i) {
            read_attachments(from, headers[i].msg_hdr);
            if ((headers[i].msg_hdr.msg_flags & MSG_TRUNC) != 0) {
                ++from.truncated;
                continue;
            }
            take(packets[i], headers[i].msg_len);
        }
        sum += static_cast<std::size_t>(received);
        if (static_cast<std::size_t>(received) < wanted) {
            break;
        }
    }
    return sum;
}

int open_retransmission(const sockaddr_in& server, int buffer_bytes, std::string& error) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return fail(fd, "socket", error);
    }
    set_receive_buffer(fd, buffer_bytes);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
        return fail(fd, "connect to the retransmission service", error);
    }
    return fd;
}

int begin_connection(const sockaddr_in& server, std::string& error) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return fail(fd, "socket", error);
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0 && errno != EINPROGRESS) {
        return fail(fd, "connect", error);
    }
    return fd;
}

int connection_error(int fd) {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

}  // namespace tessel::receiver
