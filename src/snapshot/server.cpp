#include "snapshot/server.h"

#include "base/byte_order.h"
#include "mold/publisher.h"
#include "wire/message_writer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace tessel {

namespace {

constexpr int listen_backlog = 8;

bool is_open(const SnapshotConnection& connection) {
    return connection.fd >= 0 || connection.peer != nullptr;
}

void close_connection(SnapshotConnection& connection) {
    if (connection.peer != nullptr) {
        connection.peer->closed = true;
        connection.peer = nullptr;
        return;
    }
    close(connection.fd);
    connection.fd = -1;
}

// A packet that may be lost: only the spin is worth waiting for.
template <std::size_t size>
void send_packet(const SnapshotConnection& connection, const std::array<char, size>& packet) {
    if (connection.peer != nullptr) {
        const SpinSink& sink = connection.peer->sink;
        sink.write(sink.context, reinterpret_cast<const unsigned char*>(packet.data()), packet.size());
        return;
    }
    static_cast<void>(send(connection.fd, packet.data(), packet.size(), MSG_NOSIGNAL));
}

void send_server_heartbeat(const SnapshotConnection& connection) {
    send_packet(connection, std::array<char, 3>{0, 1, soup_server_heartbeat});
}

void send_login_rejected(const SnapshotConnection& connection, char code) {
    send_packet(connection, std::array<char, 4>{0, 2, soup_login_rejected, code});
}

void send_login_accepted(const SnapshotConnection& connection,
                         const std::array<char, mold_session_bytes>& session) {
    static_assert(mold_session_bytes == soup_session_bytes);
    constexpr std::size_t packet_bytes = soup_header_bytes + soup_session_bytes + soup_sequence_bytes;
    std::array<char, packet_bytes> packet;
    packet.fill(' ');
    packet[0] = 0;
    packet[1] = static_cast<char>(packet.size() - soup_length_bytes);
    packet[2] = soup_login_accepted;
    std::copy(session.begin(), session.end(), packet.begin() + soup_header_bytes);
    packet[soup_header_bytes + soup_session_bytes] = '1';  // the spin always starts at sequence number 1
    send_packet(connection, packet);
}

// The spin on its way to one client. The limit on waits is the whole spin's.
struct SpinSender {
    int fd = -1;
    WaitForReader wait = nullptr;
    int waits = 0;
    bool given_up = false;
};

// Hands all of a piece to the socket, waiting for a slow reader within the limits; what then is left, and
// every later piece, stays unsent.
void send_patiently(void* context, const unsigned char* bytes, std::size_t size) {
    auto& sender = *static_cast<SpinSender*>(context);
    std::size_t sent = 0;
    while (sent < size && !sender.given_up) {
        const ssize_t count = send(sender.fd, bytes + sent, size - sent, MSG_NOSIGNAL);
        if (count > 0) {
            sent += static_cast<std::size_t>(count);
            continue;
        }
        if (count == 0 || errno != EAGAIN || sender.waits == spin_waits_max) {
            sender.given_up = true;
            return;
        }
        ++sender.waits;
        sender.wait(sender.fd, spin_wait_ms);
    }
}

// Enters a connection that has its socket or its peer.
void add_connection(SnapshotServer& server, SnapshotConnection connection, std::int64_t now_ms) {
    connection.connected_ms = now_ms;
    connection.last_receive_ms = now_ms;
    connection.last_send_ms = now_ms;
    server.connections.push_back(std::move(connection));
    ++server.connections_accepted;
}

void accept_connections(SnapshotServer& server, bool quiet, std::int64_t now_ms) {
    if (server.listener < 0) {
        return;
    }
    for (std::size_t accepted = 0; accepted < snapshot_accepts_max; ++accepted) {
        const int fd = accept4(server.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            server.accept_failing = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            return;
        }
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        SnapshotConnection connection;
        connection.fd = fd;
        add_connection(server, std::move(connection), now_ms);
        if (!quiet) {
            std::fprintf(stderr, "[tessel] Snap-Shot connection %u (fd %d)\n", server.connections_accepted,
                         fd);
        }
    }
    server.accept_failing = false;
}

enum class Received { nothing, bytes, end };

// What a client in memory has sent since the last pass, after what is kept from earlier.
Received receive_from_peer(SnapshotConnection& connection, std::vector<unsigned char>& gathered,
                           std::int64_t now_ms) {
    std::vector<unsigned char>& sent = connection.peer->input;
    if (sent.empty()) {
        return Received::nothing;
    }
    connection.last_receive_ms = now_ms;
    if (!connection.blocked) {
        gathered.assign(connection.input.begin(), connection.input.end());
        gathered.insert(gathered.end(), sent.begin(), sent.end());
    }
    sent.clear();
    return gathered.empty() ? Received::nothing : Received::bytes;
}

// Receives what waits, up to the limit; gathered then holds what was kept from earlier, followed by this.
// The end of the stream or an error counts before any byte that came with it.
Received receive_input(SnapshotConnection& connection, std::vector<unsigned char>& gathered,
                       std::int64_t now_ms) {
    gathered.clear();
    if (connection.deferred) {
        // These came before whatever waits in the socket, the end of the stream among it. A sign of life may
        // wait there, too: silence counts from here.
        connection.last_receive_ms = now_ms;
        gathered.assign(connection.input.begin(), connection.input.end());
        return Received::bytes;
    }
    if (connection.peer != nullptr) {
        return receive_from_peer(connection, gathered, now_ms);
    }
    std::size_t room = soup_input_bytes_max - connection.input.size();
    bool any = false;
    while (room > 0) {
        std::array<unsigned char, soup_receive_bytes> chunk;
        const ssize_t count = recv(connection.fd, chunk.data(), std::min(chunk.size(), room), 0);
        if (count == 0 || (count < 0 && errno != EAGAIN)) {
            return Received::end;
        }
        if (count < 0) {
            break;
        }
        if (!any) {
            any = true;
            gathered.assign(connection.input.begin(), connection.input.end());
        }
        connection.last_receive_ms = now_ms;
        room -= static_cast<std::size_t>(count);
        if (!connection.blocked) {
            gathered.insert(gathered.end(), chunk.data(), chunk.data() + count);
        }
    }
    return gathered.empty() ? Received::nothing : Received::bytes;
}

bool is_other_logged_in(const SnapshotServer& server, const SnapshotConnection& own) {
    return std::any_of(
        server.connections.begin(), server.connections.end(),
        [&own](const SnapshotConnection& each) { return &each != &own && is_open(each) && each.logged_in; });
}

void serve_spin(SnapshotServer& server, SipEngine& engine, SnapshotConnection& connection,
                const LoginRequest& login, std::int64_t now_ms) {
    MoldPublisher& publisher = *engine.publisher;
    connection.logged_in = true;
    send_login_accepted(connection, publisher.session);
    flush_packet(publisher);  // the spin carries the state after messages that everyone can have by now
    const std::uint64_t spin_time_ns = wall_ns(*engine.clock);
    SpinSender sender;
    sender.fd = connection.fd;
    sender.wait = server.wait_for_reader;
    server.spin.sink = connection.peer != nullptr ? connection.peer->sink : SpinSink{send_patiently, &sender};
    build_spin(server.spin, engine, spin_time_ns);
    append_end_of_snapshot(server.spin, spin_time_ns, last_sequence(publisher));
    server.spin.sink = {};
    connection.last_send_ms = now_ms;
    std::fprintf(stderr, "bench: Snap-Shot spin to '%s': %zu bytes, snapshot sequence %llu\n",
                 login.username.c_str(), server.spin.bytes_flushed,
                 static_cast<unsigned long long>(last_sequence(publisher)));
}

void handle_login(SnapshotServer& server, SipEngine& engine, SnapshotConnection& connection,
                  std::span<const unsigned char> payload, std::int64_t now_ms) {
    const LoginRequest login = read_login(payload);
    char code = ' ';
    const char* reason = "";
    if (login.username.empty() || server.connections_accepted > snapshot_connections_max ||
        is_other_logged_in(server, connection)) {
        code = 'A';
        reason = "not authorized / another connection open / attempts exhausted";
    } else if ((!login.session.empty() && login.session != engine.publisher->session_name) ||
               login.sequence > 1) {
        code = 'S';
        reason = "session unavailable: not today's session or a sequence other than 1";
    }
    if (code == ' ') {
        serve_spin(server, engine, connection, login, now_ms);
        return;
    }
    ++engine.scenario->stats.snapshot_rejects;
    std::fprintf(stderr, "bench: Snap-Shot login '%s' session '%s' seq %llu rejected (%c: %s)\n",
                 login.username.c_str(), login.session.c_str(),
                 static_cast<unsigned long long>(login.sequence), code, reason);
    send_login_rejected(connection, code);
    close_connection(connection);
}

// Handles every complete packet; keeps the rest for later. A second login ends the connection's turn, so that
// a client which sends many of them does not hold the loop: it waits for the next pass, with everything after
// it.
void handle_input(SnapshotServer& server, SipEngine& engine, SnapshotConnection& connection,
                  std::int64_t now_ms) {
    const std::span<const unsigned char> input(server.gathered);
    std::size_t at = 0;
    bool had_login = false;
    SoupPacket packet;
    std::size_t consumed = 0;
    while (is_open(connection) && next_soup_packet(input.subspan(at), packet, consumed)) {
        if (packet.type == soup_login_request) {
            if (had_login) {
                break;
            }
            had_login = true;
            handle_login(server, engine, connection, packet.payload, now_ms);
        } else if (packet.type == soup_logout_request) {
            if (!engine.quiet) {
                std::fprintf(stderr, "[tessel] Snap-Shot client logged out\n");
            }
            close_connection(connection);
        }
        // Every other type, client heartbeats among them, only proves that the client is alive.
        at += consumed;
    }
    const std::span<const unsigned char> rest = input.subspan(at);
    connection.deferred = next_soup_packet(rest, packet, consumed);
    if (is_blocked(rest)) {
        connection.blocked = true;
        connection.input = {};
        return;
    }
    // As many bytes as there are and no more: a thousand connections keep no buffers that they do not need.
    connection.input = std::vector<unsigned char>(rest.begin(), rest.end());
    assert(connection.input.size() <= soup_input_bytes_max);
}

void serve_connection(SnapshotServer& server, SipEngine& engine, SnapshotConnection& connection,
                      std::int64_t now_ms) {
    const Received received = receive_input(connection, server.gathered, now_ms);
    if (received == Received::end) {
        close_connection(connection);
        return;
    }
    if (received == Received::bytes) {
        handle_input(server, engine, connection, now_ms);
        if (!is_open(connection)) {
            return;
        }
    }
    if (now_ms - connection.last_send_ms >= soup_heartbeat_after_ms) {
        send_server_heartbeat(connection);
        connection.last_send_ms = now_ms;
    }
    if (now_ms - connection.last_receive_ms >= soup_silence_max_ms) {
        std::fprintf(stderr, "[tessel] Snap-Shot client timed out\n");
        close_connection(connection);
    }
}

// Cuts a field out of a payload and strips trailing blanks and zero bytes.
std::string cut_field(std::span<const unsigned char> payload, std::size_t offset, std::size_t width) {
    std::string text(payload.begin() + static_cast<std::ptrdiff_t>(offset),
                     payload.begin() + static_cast<std::ptrdiff_t>(offset + width));
    const std::size_t last = text.find_last_not_of(std::string_view(" \0", 2));
    text.resize(last == std::string::npos ? 0 : last + 1);
    return text;
}

}  // namespace

bool next_soup_packet(std::span<const unsigned char> input, SoupPacket& packet, std::size_t& consumed) {
    if (input.size() < soup_length_bytes) {
        return false;
    }
    const auto length = static_cast<std::size_t>(read_big_endian(input.data(), soup_length_bytes));
    if (length == 0 || input.size() < soup_length_bytes + length) {
        return false;
    }
    packet.type = static_cast<char>(input[soup_length_bytes]);
    packet.payload = input.subspan(soup_header_bytes, length - 1);
    consumed = soup_length_bytes + length;
    return true;
}

bool is_blocked(std::span<const unsigned char> input) {
    return input.size() >= soup_length_bytes && read_big_endian(input.data(), soup_length_bytes) == 0;
}

LoginRequest read_login(std::span<const unsigned char> payload) {
    LoginRequest login;
    if (payload.size() < soup_login_request_bytes) {
        return login;
    }
    constexpr std::size_t session_at = soup_username_bytes + soup_password_bytes;
    constexpr std::size_t sequence_at = session_at + soup_session_bytes;
    login.username = cut_field(payload, 0, soup_username_bytes);
    login.session = cut_field(payload, session_at, soup_session_bytes);
    login.sequence = std::strtoull(cut_field(payload, sequence_at, soup_sequence_bytes).c_str(), nullptr, 10);
    return login;
}

void wait_until_writable(int fd, int at_most_ms) {
    pollfd writable{fd, POLLOUT, 0};
    poll(&writable, 1, at_most_ms);
}

bool open_listener(SnapshotServer& server, std::uint16_t port, std::string& error) {
    server.listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // Each call only when those before it succeeded, so that errno is that of the first failure.
    bool listening = server.listener >= 0;
    if (listening) {
        const int on = 1;
        setsockopt(server.listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        listening = bind(server.listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                    listen(server.listener, listen_backlog) == 0;
    }
    if (!listening) {
        error = "tessel: cannot listen on Snap-Shot port " + std::to_string(port) + ": " +
                std::strerror(errno) + "\n";
        return false;
    }
    fcntl(server.listener, F_SETFL, O_NONBLOCK);
    return true;
}

void connect_in_memory(SnapshotServer& server, SnapshotPeer& peer, std::int64_t now_ms) {
    SnapshotConnection connection;
    connection.peer = &peer;
    add_connection(server, std::move(connection), now_ms);
}

std::uint64_t next_snapshot_due_ms(const SnapshotServer& server) {
    std::int64_t due = INT64_MAX;
    for (const SnapshotConnection& connection : server.connections) {
        const bool has_input =
            connection.deferred || (connection.peer != nullptr && !connection.peer->input.empty());
        due = std::min({due, connection.last_send_ms + soup_heartbeat_after_ms,
                        connection.last_receive_ms + soup_silence_max_ms, has_input ? 0 : INT64_MAX});
    }
    return due == INT64_MAX ? UINT64_MAX : static_cast<std::uint64_t>(due);
}

void service_snapshots(SnapshotServer& server, SipEngine& engine, std::int64_t now_ms) {
    accept_connections(server, engine.quiet, now_ms);
    bool any_closed = false;
    for (SnapshotConnection& connection : server.connections) {
        serve_connection(server, engine, connection, now_ms);
        any_closed = any_closed || !is_open(connection);
    }
    if (any_closed) {
        std::erase_if(server.connections,
                      [](const SnapshotConnection& connection) { return !is_open(connection); });
    }
}

}  // namespace tessel
