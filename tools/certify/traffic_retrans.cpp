#include "certify/traffic_retrans.h"

#include "mold/packet.h"
#include "receiver/sockets.h"

#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace tessel::certify {

namespace {

constexpr std::size_t datagrams_a_pass_max = 256;
constexpr int buffer_bytes = 8 << 20;
constexpr std::int64_t nanoseconds_a_millisecond = 1'000'000;

bool is_same(const sockaddr_in& left, const sockaddr_in& right) {
    return left.sin_port == right.sin_port && left.sin_addr.s_addr == right.sin_addr.s_addr;
}

// The client's place in the list; clients.size() when there is no room for it.
std::size_t client_of(RetransTraffic& traffic, const sockaddr_in& from) {
    const auto known = std::find_if(traffic.clients.begin(), traffic.clients.end(),
                                    [&](const auto& each) { return is_same(each.first, from); });
    if (known != traffic.clients.end() || traffic.clients.size() == retrans_clients_max) {
        return static_cast<std::size_t>(known - traffic.clients.begin());
    }
    std::string error;
    const int fd = receiver::open_retransmission(traffic.upstream, buffer_bytes, error);
    if (fd < 0) {
        return traffic.clients.size();
    }
    traffic.clients.emplace_back(from, fd);
    return traffic.clients.size() - 1;
}

void send_to(const RetransTraffic& traffic, std::size_t client, const Packet& bytes) {
    const auto* address = reinterpret_cast<const sockaddr*>(&traffic.clients[client].first);
    sendto(traffic.fd, bytes.data(), bytes.size(), MSG_DONTWAIT, address, sizeof(sockaddr_in));
}

void read_requests(RetransTraffic& traffic) {
    for (std::size_t taken = 0; taken < datagrams_a_pass_max; ++taken) {
        unsigned char bytes[mold_header_bytes * 2];
        sockaddr_in from{};
        socklen_t from_bytes = sizeof from;
        const ssize_t length =
            recvfrom(traffic.fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &from_bytes);
        if (length < 0) {
            return;
        }
        Packet request(bytes, bytes + length);
        const std::size_t client = client_of(traffic, from);
        if (client < traffic.clients.size() && on_request(traffic, request)) {
            send(traffic.clients[client].second, request.data(), request.size(), MSG_DONTWAIT);
        }
    }
}

void read_replies(RetransTraffic& traffic, std::int64_t now_ns) {
    std::vector<OutgoingPacket> out;
    for (std::size_t client = 0; client < traffic.clients.size(); ++client) {
        for (std::size_t taken = 0; taken < datagrams_a_pass_max; ++taken) {
            unsigned char bytes[2048];
            const ssize_t length = recv(traffic.clients[client].second, bytes, sizeof bytes, 0);
            if (length < 0) {
                break;
            }
            out.clear();
            on_reply(traffic, Packet(bytes, bytes + length), out);
            for (OutgoingPacket& each : out) {
                if (traffic.waiting.size() == retrans_waiting_max) {
                    ++traffic.counters.lost;
                    continue;
                }
                traffic.waiting[{now_ns + each.delay_ns, traffic.arrivals++}] = {client,
                                                                                 std::move(each.bytes)};
            }
        }
    }
}

}  // namespace

bool on_request(RetransTraffic& traffic, Packet& request) {
    const std::uint64_t number = ++traffic.counters.requests;
    for (const TrafficSettings& settings : traffic.settings) {
        if (settings.kind == TrafficKind::retrans_silent) {
            const std::uint64_t unanswered = number_of(settings, "requests");
            if (unanswered == 0 || number <= unanswered) {
                ++traffic.counters.ignored;
                return false;
            }
        } else if (settings.kind == TrafficKind::retrans_partial && request.size() >= mold_header_bytes) {
            const std::uint64_t most = number_of(settings, "messages");
            const std::uint64_t count = mold_count(request.data());
            write_big_endian(request.data() + mold_count_at, std::min(count, most), 2);
        }
    }
    return true;
}

void on_reply(RetransTraffic& traffic, Packet reply, std::vector<OutgoingPacket>& out) {
    const std::uint64_t number = ++traffic.counters.replies;
    std::int64_t delay_ns = 0;
    std::size_t copies = 1;
    bool foreign = false;
    for (const TrafficSettings& settings : traffic.settings) {
        if (settings.kind == TrafficKind::retrans_lossy && number % number_of(settings, "every") == 0) {
            ++traffic.counters.lost;
            return;
        }
        if (settings.kind == TrafficKind::retrans_slow) {
            delay_ns = static_cast<std::int64_t>(number_of(settings, "ms")) * nanoseconds_a_millisecond;
        } else if (settings.kind == TrafficKind::unknown_type && is_whole_packet(reply)) {
            replace_types(reply, text_of(settings, "from"), text_of(settings, "to"));
        }
        copies += settings.kind == TrafficKind::retrans_twice ? 1 : 0;
        foreign = foreign || settings.kind == TrafficKind::retrans_foreign;
    }
    if (foreign && is_whole_packet(reply)) {
        Packet other = foreign_copy(reply, false);
        // The numbers that were asked for.
        std::copy_n(reply.begin() + mold_sequence_at, mold_count_at - mold_sequence_at,
                    other.begin() + mold_sequence_at);
        out.push_back({delay_ns, std::move(other)});
    }
    for (; copies > 0; --copies) {
        out.push_back({delay_ns, reply});
    }
}

bool open_retrans(RetransTraffic& traffic, const std::string& listen, const std::string& upstream,
                  std::string& error) {
    sockaddr_in address{};
    if (!receiver::parse_endpoint(address, listen, error) ||
        !receiver::parse_endpoint(traffic.upstream, upstream, error)) {
        return false;
    }
    traffic.fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    setsockopt(traffic.fd, SOL_SOCKET, SO_RCVBUF, &buffer_bytes, sizeof buffer_bytes);
    if (traffic.fd < 0 ||
        bind(traffic.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = "bind " + listen + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void add_poll_entries(const RetransTraffic& traffic, std::vector<pollfd>& entries) {
    entries.push_back({traffic.fd, POLLIN, 0});
    for (const auto& [address, fd] : traffic.clients) {
        entries.push_back({fd, POLLIN, 0});
    }
}

void serve(RetransTraffic& traffic, std::int64_t now_ns) {
    read_requests(traffic);
    read_replies(traffic, now_ns);
    while (!traffic.waiting.empty() && traffic.waiting.begin()->first.first <= now_ns) {
        const auto first = traffic.waiting.begin();
        send_to(traffic, first->second.first, first->second.second);
        traffic.waiting.erase(first);
    }
}

std::int64_t next_due_ns(const RetransTraffic& traffic) {
    return traffic.waiting.empty() ? std::numeric_limits<std::int64_t>::max()
                                   : traffic.waiting.begin()->first.first;
}

void close_retrans(RetransTraffic& traffic) {
    for (const auto& [address, fd] : traffic.clients) {
        close(fd);
    }
    traffic.clients.clear();
    if (traffic.fd >= 0) {
        close(traffic.fd);
    }
    traffic.fd = -1;
}

}  // namespace tessel::certify
