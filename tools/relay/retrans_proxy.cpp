#include "relay/retrans_proxy.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace tessel::relay {

namespace {

constexpr std::size_t datagram_bytes_max = 2048;
constexpr std::size_t datagrams_a_pass_max = 256;
constexpr int buffer_bytes = 8 << 20;

std::uint64_t key_of(const sockaddr_in& address) {
    return static_cast<std::uint64_t>(ntohl(address.sin_addr.s_addr)) << 16 | ntohs(address.sin_port);
}

sockaddr_in address_of(std::uint64_t key) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(static_cast<std::uint32_t>(key >> 16));
    address.sin_port = htons(static_cast<std::uint16_t>(key));
    return address;
}

int open_socket() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer_bytes, sizeof buffer_bytes);
    }
    return fd;
}

// The client's record, made when it is new. Null when no socket could be opened.
RetransClient* client_of(RetransProxy& proxy, std::uint64_t key, std::int64_t now_ns) {
    const auto known = proxy.clients.find(key);
    if (known != proxy.clients.end()) {
        known->second.last_ns = now_ns;
        return &known->second;
    }
    if (proxy.clients.size() >= retrans_clients_max) {
        const auto silent = std::min_element(
            proxy.clients.begin(), proxy.clients.end(),
            [](const auto& left, const auto& right) { return left.second.last_ns < right.second.last_ns; });
        close(silent->second.fd);
        proxy.clients.erase(silent);
    }
    RetransClient client;
    client.fd = open_socket();
    const auto* upstream = reinterpret_cast<const sockaddr*>(&proxy.options.upstream);
    if (client.fd < 0 || connect(client.fd, upstream, sizeof proxy.options.upstream) != 0) {
        if (client.fd >= 0) {
            close(client.fd);
        }
        return nullptr;
    }
    client.last_ns = now_ns;
    client.allowance = std::max(1.0, proxy.options.limit);
    client.allowance_ns = now_ns;
    return &(proxy.clients[key] = client);
}

// A second's worth of requests may come in a burst.
bool is_allowed(RetransClient& client, double limit, std::int64_t now_ns) {
    if (limit <= 0) {
        return true;
    }
    const double seconds = static_cast<double>(now_ns - client.allowance_ns) / 1e9;
    client.allowance = std::min(std::max(1.0, limit), client.allowance + seconds * limit);
    client.allowance_ns = now_ns;
    if (client.allowance < 1) {
        return false;
    }
    client.allowance -= 1;
    return true;
}

void pass(RetransProxy& proxy, const DelayedDatagram& datagram) {
    const auto client = proxy.clients.find(datagram.client);
    if (client == proxy.clients.end()) {
        return;
    }
    if (datagram.to_client) {
        const sockaddr_in to = address_of(datagram.client);
        sendto(proxy.fd, datagram.bytes.data(), datagram.bytes.size(), MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&to), sizeof to);
        ++proxy.counters.replies;
    } else {
        send(client->second.fd, datagram.bytes.data(), datagram.bytes.size(), MSG_DONTWAIT);
    }
}

// Loses, delays or passes one datagram.
void take(RetransProxy& proxy, DelayedDatagram datagram, std::int64_t now_ns) {
    if (proxy.options.drop > 0) {
        const double draw = uniform_real(proxy.random);
        if (draw < proxy.options.drop) {
            ++proxy.counters.dropped;
            return;
        }
    }
    if (proxy.options.delay_ns == 0) {
        pass(proxy, datagram);
        return;
    }
    if (proxy.waiting_bytes + datagram.bytes.size() > retrans_waiting_bytes_max) {
        ++proxy.counters.dropped;
        return;
    }
    proxy.waiting_bytes += datagram.bytes.size();
    proxy.waiting.emplace(std::pair{now_ns + proxy.options.delay_ns, proxy.arrivals++}, std::move(datagram));
}

void read_requests(RetransProxy& proxy, std::int64_t now_ns) {
    for (std::size_t taken = 0; taken < datagrams_a_pass_max; ++taken) {
        unsigned char bytes[datagram_bytes_max];
        sockaddr_in from{};
        socklen_t from_bytes = sizeof from;
        const ssize_t length =
            recvfrom(proxy.fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &from_bytes);
        if (length < 0) {
            return;
        }
        ++proxy.counters.requests;
        RetransClient* client = client_of(proxy, key_of(from), now_ns);
        if (client == nullptr) {
            ++proxy.counters.dropped;
        } else if (!is_allowed(*client, proxy.options.limit, now_ns)) {
            ++proxy.counters.limited;
        } else {
            take(proxy, {{bytes, bytes + length}, key_of(from), false}, now_ns);
        }
    }
}

void read_replies(RetransProxy& proxy, std::int64_t now_ns) {
    for (auto& [key, client] : proxy.clients) {
        for (std::size_t taken = 0; taken < datagrams_a_pass_max; ++taken) {
            unsigned char bytes[datagram_bytes_max];
            const ssize_t length = recv(client.fd, bytes, sizeof bytes, 0);
            if (length < 0) {
                break;
            }
            take(proxy, {{bytes, bytes + length}, key, true}, now_ns);
        }
    }
}

}  // namespace

bool open_retrans_proxy(RetransProxy& proxy, const RetransOptions& options, std::uint64_t seed,
                        std::string& error) {
    proxy.options = options;
    seed_random(proxy.random, seed ^ key_of(options.listen));
    proxy.fd = open_socket();
    const auto* listen = reinterpret_cast<const sockaddr*>(&proxy.options.listen);
    if (proxy.fd < 0 || bind(proxy.fd, listen, sizeof proxy.options.listen) != 0) {
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &options.listen.sin_addr, text, sizeof text);
        error = "--retrans: bind " + std::string(text) + ":" +
                std::to_string(ntohs(options.listen.sin_port)) + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void add_poll_entries(const RetransProxy& proxy, std::vector<pollfd>& entries) {
    entries.push_back({proxy.fd, POLLIN, 0});
    for (const auto& [key, client] : proxy.clients) {
        entries.push_back({client.fd, POLLIN, 0});
    }
}

void serve_retrans_proxy(RetransProxy& proxy, std::int64_t now_ns) {
    read_requests(proxy, now_ns);
    read_replies(proxy, now_ns);
    while (!proxy.waiting.empty() && proxy.waiting.begin()->first.first <= now_ns) {
        const auto first = proxy.waiting.begin();
        const DelayedDatagram datagram = std::move(first->second);
        proxy.waiting_bytes -= datagram.bytes.size();
        proxy.waiting.erase(first);
        pass(proxy, datagram);
    }
}

std::int64_t next_due_ns(const RetransProxy& proxy) {
    return proxy.waiting.empty() ? std::numeric_limits<std::int64_t>::max()
                                 : proxy.waiting.begin()->first.first;
}

void close_retrans_proxy(RetransProxy& proxy) {
    for (const auto& [key, client] : proxy.clients) {
        close(client.fd);
    }
    proxy.clients.clear();
    if (proxy.fd >= 0) {
        close(proxy.fd);
    }
    proxy.fd = -1;
}

}  // namespace tessel::relay
