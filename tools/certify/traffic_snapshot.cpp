#include "certify/traffic_snapshot.h"

#include "receiver/sockets.h"
#include "soup/soup_packet.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace tessel::certify {

namespace {

constexpr int listen_backlog = 8;
constexpr std::size_t piece_bytes_max = std::size_t{16} << 10;
// Between pieces, so that the system does not send two of them as one.
constexpr std::int64_t piece_pause_ns = 100'000;
constexpr std::size_t pieces_a_second = 50;  // of a slow Snap-Shot
constexpr std::int64_t nanoseconds_a_second = 1'000'000'000;

void end(SnapshotPassage& passage) {
    for (int* fd : {&passage.client, &passage.upstream}) {
        if (*fd >= 0) {
            close(*fd);
        }
        *fd = -1;
    }
}

bool is_over(const SnapshotPassage& passage) {
    return passage.client < 0;
}

void accept_clients(SnapshotTraffic& traffic) {
    while (traffic.passages.size() < snapshot_connections_max) {
        const int client = accept4(traffic.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client < 0) {
            return;
        }
        const int on = 1;
        setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        SnapshotPassage& passage = traffic.passages.emplace_back();
        passage.client = client;
        decide_passage(traffic, ++traffic.connections, passage);
        std::string error;
        if (passage.role == SnapshotRole::close) {
            ++traffic.closed;
            end(passage);
        } else if (passage.role == SnapshotRole::pass) {
            passage.upstream = receiver::begin_connection(traffic.upstream, error);
            if (passage.upstream < 0) {
                end(passage);
            }
        }
    }
}

// Reads what has come. False when the connection has ended.
template <typename Bytes>
bool read_into(Bytes& bytes, int from) {
    while (bytes.size() < snapshot_buffer_bytes_max) {
        unsigned char block[4096];
        const ssize_t length = recv(from, block, sizeof block, 0);
        if (length <= 0) {
            return length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
        }
        bytes.insert(bytes.end(), block, block + length);
    }
    return true;
}

// Rejects the login once it is there whole.
void reject(SnapshotTraffic& traffic, SnapshotPassage& passage) {
    if (!read_into(passage.to_service, passage.client)) {
        end(passage);
        return;
    }
    if (passage.to_service.size() >= soup_header_bytes + soup_login_request_bytes) {
        constexpr unsigned char busy[] = {0, 2, soup_login_rejected, 'A'};
        send(passage.client, busy, sizeof busy, MSG_NOSIGNAL);
        ++traffic.rejected;
        end(passage);
    }
}

bool write_to_service(SnapshotPassage& passage) {
    if (passage.to_service.empty()) {
        return true;
    }
    const ssize_t sent =
        send(passage.upstream, passage.to_service.data(), passage.to_service.size(), MSG_NOSIGNAL);
    if (sent < 0) {
        // ENOTCONN: the connection is still being made.
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ENOTCONN;
    }
    passage.to_service.erase(passage.to_service.begin(), passage.to_service.begin() + sent);
    return true;
}

// The size of the next piece, and how long the one after it has to wait.
std::size_t next_piece(const SnapshotTraffic& traffic, std::int64_t& pause_ns) {
    std::size_t most = piece_bytes_max;
    pause_ns = 0;
    for (const TrafficSettings& settings : traffic.settings) {
        if (settings.kind == TrafficKind::snapshot_pieces) {
            most = std::min<std::size_t>(most, number_of(settings, "bytes"));
            pause_ns = std::max(pause_ns, piece_pause_ns);
        } else if (settings.kind == TrafficKind::snapshot_slow) {
            const std::uint64_t rate = number_of(settings, "bytes_a_second");
            most = std::min<std::size_t>(most, std::max<std::size_t>(rate / pieces_a_second, 1));
            const auto bytes = static_cast<std::int64_t>(most);
            pause_ns = std::max(pause_ns, bytes * nanoseconds_a_second / static_cast<std::int64_t>(rate));
        }
    }
    return most;
}

bool write_to_client(SnapshotTraffic& traffic, SnapshotPassage& passage, std::int64_t now_ns) {
    while (!passage.to_client.empty() && passage.free_ns <= now_ns) {
        std::int64_t pause_ns = 0;
        std::size_t length = std::min(next_piece(traffic, pause_ns), passage.to_client.size());
        if (passage.cut_after != 0) {
            length = std::min<std::size_t>(length, passage.cut_after - passage.sent);
        }
        const std::vector<unsigned char> piece(
            passage.to_client.begin(), passage.to_client.begin() + static_cast<std::ptrdiff_t>(length));
        const ssize_t sent = send(passage.client, piece.data(), piece.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
        passage.to_client.erase(passage.to_client.begin(), passage.to_client.begin() + sent);
        passage.sent += static_cast<std::uint64_t>(sent);
        passage.free_ns = now_ns + pause_ns;
        if (passage.cut_after != 0 && passage.sent >= passage.cut_after) {
            ++traffic.cut;
            return false;
        }
        if (pause_ns != 0) {
            return true;
        }
    }
    return true;
}

void serve_passage(SnapshotTraffic& traffic, SnapshotPassage& passage, std::int64_t now_ns) {
    if (passage.role == SnapshotRole::reject) {
        reject(traffic, passage);
        return;
    }
    const int problem = receiver::connection_error(passage.upstream);
    if (problem != 0 || !read_into(passage.to_service, passage.client) || !write_to_service(passage)) {
        end(passage);
        return;
    }
    pollfd connected{passage.upstream, POLLOUT, 0};
    const bool is_connected = poll(&connected, 1, 0) > 0;
    if (is_connected && !passage.service_ended && !read_into(passage.to_client, passage.upstream)) {
        passage.service_ended = true;
    }
    if (!write_to_client(traffic, passage, now_ns) || (passage.service_ended && passage.to_client.empty())) {
        end(passage);
    }
}

}  // namespace

void decide_passage(const SnapshotTraffic& traffic, std::uint64_t number, SnapshotPassage& passage) {
    for (const TrafficSettings& settings : traffic.settings) {
        const bool limited = settings.kind == TrafficKind::snapshot_half ||
                             settings.kind == TrafficKind::snapshot_busy ||
                             settings.kind == TrafficKind::snapshot_closed;
        if (!limited || number > number_of(settings, "times")) {
            continue;
        }
        if (settings.kind == TrafficKind::snapshot_half) {
            passage.cut_after = number_of(settings, "bytes");
        } else {
            passage.role =
                settings.kind == TrafficKind::snapshot_busy ? SnapshotRole::reject : SnapshotRole::close;
        }
    }
}

bool open_snapshot(SnapshotTraffic& traffic, const std::string& listen_at, const std::string& upstream,
                   std::string& error) {
    sockaddr_in address{};
    if (!receiver::parse_endpoint(address, listen_at, error) ||
        !receiver::parse_endpoint(traffic.upstream, upstream, error)) {
        return false;
    }
    traffic.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(traffic.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (traffic.fd < 0 ||
        bind(traffic.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(traffic.fd, listen_backlog) != 0) {
        error = "listen on " + listen_at + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void add_poll_entries(const SnapshotTraffic& traffic, std::vector<pollfd>& entries, std::int64_t now_ns) {
    if (traffic.passages.size() < snapshot_connections_max) {
        entries.push_back({traffic.fd, POLLIN, 0});
    }
    for (const SnapshotPassage& passage : traffic.passages) {
        const bool waits = !passage.to_client.empty() && passage.free_ns <= now_ns;
        const bool has_room = passage.to_service.size() < snapshot_buffer_bytes_max;
        entries.push_back(
            {passage.client, static_cast<short>((has_room ? POLLIN : 0) | (waits ? POLLOUT : 0)), 0});
        if (passage.upstream >= 0 && !passage.service_ended) {
            const bool reads = passage.to_client.size() < snapshot_buffer_bytes_max;
            const bool writes = !passage.to_service.empty();
            entries.push_back(
                {passage.upstream, static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)), 0});
        }
    }
}

void serve(SnapshotTraffic& traffic, std::int64_t now_ns) {
    accept_clients(traffic);
    for (SnapshotPassage& passage : traffic.passages) {
        if (!is_over(passage)) {
            serve_passage(traffic, passage, now_ns);
        }
    }
    traffic.passages.remove_if(is_over);
}

std::int64_t next_due_ns(const SnapshotTraffic& traffic, std::int64_t now_ns) {
    std::int64_t due_ns = std::numeric_limits<std::int64_t>::max();
    for (const SnapshotPassage& passage : traffic.passages) {
        if (!passage.to_client.empty() && passage.free_ns > now_ns) {
            due_ns = std::min(due_ns, passage.free_ns);
        }
    }
    return due_ns;
}

void close_snapshot(SnapshotTraffic& traffic) {
    for (SnapshotPassage& passage : traffic.passages) {
        end(passage);
    }
    traffic.passages.clear();
    if (traffic.fd >= 0) {
        close(traffic.fd);
    }
    traffic.fd = -1;
}

}  // namespace tessel::certify
