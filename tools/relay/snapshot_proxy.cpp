#include "relay/snapshot_proxy.h"

#include "receiver/sockets.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

namespace tessel::relay {

namespace {

constexpr std::size_t piece_bytes = std::size_t{16} << 10;
// With a bandwidth limit pieces are small, so that it is even.
constexpr std::size_t limited_piece_bytes = 1400;
constexpr int listen_backlog = 8;

bool has_room(const Stream& stream) {
    return !stream.ended && stream.waiting_bytes < snapshot_buffer_bytes_max;
}

bool is_over(const SnapshotConnection& connection) {
    return connection.client < 0;
}

void end(SnapshotConnection& connection) {
    if (connection.client >= 0) {
        close(connection.client);
    }
    if (connection.upstream >= 0) {
        close(connection.upstream);
    }
    connection.client = -1;
    connection.upstream = -1;
}

// Closes with a reset, as a service that dies does.
void cut(SnapshotConnection& connection) {
    const linger now{1, 0};
    setsockopt(connection.client, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    end(connection);
}

void accept_clients(SnapshotProxy& proxy) {
    for (std::size_t taken = 0; taken < snapshot_connections_max; ++taken) {
        const int client = accept4(proxy.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client < 0) {
            return;
        }
        std::string error;
        const int upstream = proxy.connections.size() < snapshot_connections_max
                                 ? receiver::begin_connection(proxy.options.upstream, error)
                                 : -1;
        if (upstream < 0) {
            ++proxy.counters.refused;
            close(client);
            continue;
        }
        ++proxy.counters.connections;
        SnapshotConnection& connection = proxy.connections.emplace_back();
        connection.client = client;
        connection.upstream = upstream;
    }
}

// Reads what has come into the stream. False when the connection has failed.
bool read_into(Stream& stream, int from, std::int64_t due_ns, std::size_t most) {
    while (has_room(stream)) {
        std::vector<unsigned char> bytes(most);
        const ssize_t length = recv(from, bytes.data(), bytes.size(), 0);
        if (length == 0) {
            stream.ended = true;
            return true;
        }
        if (length < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
        bytes.resize(static_cast<std::size_t>(length));
        stream.waiting_bytes += bytes.size();
        stream.waiting.push_back({std::move(bytes), 0, due_ns});
    }
    return true;
}

// Sends what is due. False when the connection has failed or is to be cut.
bool write_from(Stream& stream, int to, std::int64_t now_ns, SnapshotProxy& proxy,
                SnapshotConnection* limited) {
    while (!stream.waiting.empty() && stream.waiting.front().due_ns <= now_ns) {
        if (limited != nullptr && limited->free_ns > now_ns) {
            return true;
        }
        DelayedBytes& piece = stream.waiting.front();
        std::size_t length = piece.bytes.size() - piece.sent;
        if (limited != nullptr && proxy.options.close_bytes != 0) {
            length = std::min<std::size_t>(length, proxy.options.close_bytes - limited->client_bytes);
        }
        const ssize_t sent = send(to, piece.bytes.data() + piece.sent, length, MSG_NOSIGNAL);
        if (sent < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
        piece.sent += static_cast<std::size_t>(sent);
        stream.waiting_bytes -= static_cast<std::size_t>(sent);
        if (piece.sent == piece.bytes.size()) {
            stream.waiting.pop_front();
        }
        if (limited == nullptr) {
            continue;
        }
        limited->client_bytes += static_cast<std::uint64_t>(sent);
        if (proxy.options.rate_bits > 0) {
            const double seconds = static_cast<double>(sent) * 8 / proxy.options.rate_bits;
            limited->free_ns = std::max(limited->free_ns, now_ns) + std::llround(seconds * 1e9);
        }
        if (proxy.options.close_bytes != 0 && limited->client_bytes >= proxy.options.close_bytes) {
            ++proxy.counters.cut;
            return false;
        }
    }
    return true;
}

void serve(SnapshotProxy& proxy, SnapshotConnection& connection, std::int64_t now_ns) {
    if (!connection.connected) {
        pollfd ready{connection.upstream, POLLOUT, 0};
        if (poll(&ready, 1, 0) == 0) {
            return;
        }
        if (receiver::connection_error(connection.upstream) != 0) {
            ++proxy.counters.refused;
            end(connection);
            return;
        }
        connection.connected = true;
    }
    const std::int64_t due_ns = now_ns + proxy.options.delay_ns;
    const std::size_t most = proxy.options.rate_bits > 0 ? limited_piece_bytes : piece_bytes;
    if (!read_into(connection.to_service, connection.client, due_ns, most) ||
        !read_into(connection.to_client, connection.upstream, due_ns, most) ||
        !write_from(connection.to_service, connection.upstream, now_ns, proxy, nullptr) ||
        !write_from(connection.to_client, connection.client, now_ns, proxy, &connection)) {
        cut(connection);
        return;
    }
    // A side that has ended ends the other when everything has arrived there.
    if ((connection.to_client.ended && connection.to_client.waiting.empty()) ||
        (connection.to_service.ended && connection.to_service.waiting.empty())) {
        end(connection);
    }
}

}  // namespace

bool open_snapshot_proxy(SnapshotProxy& proxy, const SnapshotOptions& options, std::string& error) {
    proxy.options = options;
    proxy.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(proxy.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto* address = reinterpret_cast<const sockaddr*>(&proxy.options.listen);
    if (proxy.fd < 0 || bind(proxy.fd, address, sizeof proxy.options.listen) != 0 ||
        listen(proxy.fd, listen_backlog) != 0) {
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &options.listen.sin_addr, text, sizeof text);
        error = "--snapshot: listen on " + std::string(text) + ":" +
                std::to_string(ntohs(options.listen.sin_port)) + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void add_poll_entries(const SnapshotProxy& proxy, std::vector<pollfd>& entries, std::int64_t now_ns) {
    entries.push_back({proxy.fd, POLLIN, 0});
    for (const SnapshotConnection& connection : proxy.connections) {
        short client = 0;
        short upstream = 0;
        if (!connection.connected) {
            entries.push_back({connection.upstream, POLLOUT, 0});
            continue;
        }
        client = static_cast<short>(has_room(connection.to_service) ? POLLIN : 0);
        upstream = static_cast<short>(has_room(connection.to_client) ? POLLIN : 0);
        const std::deque<DelayedBytes>& out = connection.to_client.waiting;
        if (!out.empty() && out.front().due_ns <= now_ns && connection.free_ns <= now_ns) {
            client = static_cast<short>(client | POLLOUT);
        }
        const std::deque<DelayedBytes>& in = connection.to_service.waiting;
        if (!in.empty() && in.front().due_ns <= now_ns) {
            upstream = static_cast<short>(upstream | POLLOUT);
        }
        entries.push_back({connection.client, client, 0});
        entries.push_back({connection.upstream, upstream, 0});
    }
}

void serve_snapshot_proxy(SnapshotProxy& proxy, std::int64_t now_ns) {
    accept_clients(proxy);
    for (SnapshotConnection& connection : proxy.connections) {
        serve(proxy, connection, now_ns);
    }
    proxy.connections.remove_if(is_over);
}

std::int64_t next_due_ns(const SnapshotProxy& proxy, std::int64_t now_ns) {
    std::int64_t due_ns = std::numeric_limits<std::int64_t>::max();
    for (const SnapshotConnection& connection : proxy.connections) {
        if (!connection.to_client.waiting.empty()) {
            const std::int64_t wanted =
                std::max(connection.to_client.waiting.front().due_ns, connection.free_ns);
            if (wanted > now_ns) {
                due_ns = std::min(due_ns, wanted);
            }
        }
        if (!connection.to_service.waiting.empty() && connection.to_service.waiting.front().due_ns > now_ns) {
            due_ns = std::min(due_ns, connection.to_service.waiting.front().due_ns);
        }
    }
    return due_ns;
}

void close_snapshot_proxy(SnapshotProxy& proxy) {
    for (SnapshotConnection& connection : proxy.connections) {
        end(connection);
    }
    proxy.connections.clear();
    if (proxy.fd >= 0) {
        close(proxy.fd);
    }
    proxy.fd = -1;
}

}  // namespace tessel::relay
