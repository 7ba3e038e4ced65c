#include "receiver/snapshot_client.h"

#include "receiver/sockets.h"
#include "wire/message_decoder.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace tessel::receiver {

namespace {

constexpr std::size_t receive_bytes = 256 * 1024;
constexpr unsigned receives_a_step = 64;

void abandon_snapshot(SnapshotClient& client, std::string error) {
    close_snapshot(client);
    client.state = SnapshotState::failed;
    client.error = std::move(error);
}

// Another attempt later, while there are attempts left. After the first message of a spin only when the
// caller can forget what it brought: the market would hold half a state otherwise.
void try_again(SnapshotClient& client, const std::string& why, std::int64_t now_ms) {
    close_snapshot(client);
    if (client.attempts > client.settings.retries || (client.messages != 0 && !client.restarted)) {
        abandon_snapshot(client, why);
        return;
    }
    if (client.messages != 0) {
        client.restarted();
        client.messages = 0;
    }
    client.state = SnapshotState::idle;
    client.error = why;
    client.next_attempt_ms = now_ms + client.settings.retry_ms;
}

// What is sent is a few bytes on an idle connection, so it fits the socket's buffer.
bool send_packet(SnapshotClient& client, const std::string& packet, std::int64_t now_ms) {
    client.last_send_ms = now_ms;
    return send(client.fd, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

void begin(SnapshotClient& client, std::int64_t now_ms) {
    ++client.attempts;
    client.input = {};
    std::string error;
    client.fd = begin_connection(client.settings.server, error);
    if (client.fd < 0) {
        try_again(client, error, now_ms);
        return;
    }
    client.state = SnapshotState::connecting;
    client.last_progress_ms = now_ms;
}

void finish_connecting(SnapshotClient& client, std::int64_t now_ms) {
    pollfd entry{client.fd, POLLOUT, 0};
    if (poll(&entry, 1, 0) <= 0) {
        return;
    }
    const int error = connection_error(client.fd);
    if (error != 0) {
        try_again(client, std::string("connect: ") + std::strerror(error), now_ms);
        return;
    }
    const SnapshotSettings& settings = client.settings;
    if (!send_packet(client, soup_login(settings.user, settings.password, settings.session), now_ms)) {
        try_again(client, std::string("send: ") + std::strerror(errno), now_ms);
        return;
    }
    client.state = SnapshotState::logged_out;
    client.last_progress_ms = now_ms;
}

// Category A, type S, the number at offset 29.
bool is_end_of_snapshot(const SoupPacket& packet) {
    return packet.length >= 3 && packet.payload[1] == 'A' && packet.payload[2] == 'S';
}

void take_message(SnapshotClient& client, const SoupPacket& packet, std::int64_t now_ms) {
    ++client.messages;
    client.last_progress_ms = now_ms;
    client.message(packet.payload, packet.length);
    if (!is_end_of_snapshot(packet)) {
        return;
    }
    Message end;
    std::string error;
    if (!decode_message(end, packet.payload, packet.length, &error)) {
        abandon_snapshot(client, error);
        return;
    }
    client.snapshot_sequence = end.snapshot_sequence;
    send_packet(client, soup_empty_packet(soup_logout_request), now_ms);
    close_snapshot(client);
    client.state = SnapshotState::done;
}

void take_rejection(SnapshotClient& client, const SoupPacket& packet, std::int64_t now_ms) {
    const char code = packet.length > 0 ? static_cast<char>(packet.payload[0]) : '?';
    if (code == 'A') {
        // The service has one client at a time, so this may pass.
        try_again(client, "login rejected (A: not authorized, or another client is logged in)", now_ms);
    } else {
        abandon_snapshot(client, std::string("login rejected (") + code + ": session not available)");
    }
}

void take_packets(SnapshotClient& client, std::int64_t now_ms) {
    SoupPacket packet;
    bool broken = false;
    while (client.fd >= 0 && soup_next(client.input, packet, &broken)) {
        if (packet.type == soup_login_accepted && client.state == SnapshotState::logged_out) {
            client.state = SnapshotState::waiting;
            client.last_progress_ms = now_ms;
        } else if (packet.type == soup_login_rejected) {
            take_rejection(client, packet, now_ms);
        } else if (packet.type == soup_sequenced_data && client.state == SnapshotState::waiting) {
            take_message(client, packet, now_ms);
        }
    }
    if (broken) {
        abandon_snapshot(client, "the service sent a packet of length 0");
    }
}

void receive(SnapshotClient& client, std::int64_t now_ms) {
    thread_local unsigned char buffer[receive_bytes];
    for (unsigned i = 0; i < receives_a_step && client.fd >= 0; ++i) {
        const ssize_t count = recv(client.fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count > 0) {
            soup_append(client.input, buffer, static_cast<std::size_t>(count));
            take_packets(client, now_ms);
        } else if (count == 0) {
            try_again(client, "the service closed the connection", now_ms);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return;
        } else if (errno != EINTR) {
            try_again(client, std::string("recv: ") + std::strerror(errno), now_ms);
        }
    }
}

}  // namespace

void step_snapshot(SnapshotClient& client, std::int64_t now_ms) {
    if (client.state == SnapshotState::idle && now_ms >= client.next_attempt_ms) {
        begin(client, now_ms);
    }
    if (client.state == SnapshotState::connecting) {
        finish_connecting(client, now_ms);
    }
    if (client.state == SnapshotState::logged_out || client.state == SnapshotState::waiting) {
        receive(client, now_ms);
    }
    if (client.fd < 0) {
        return;
    }
    if (snapshot_stall_ms(client, now_ms) >= client.settings.timeout_ms) {
        // Another attempt would stall the same way, and the caller was promised this limit.
        abandon_snapshot(client, std::string("waited ") + std::to_string(client.settings.timeout_ms / 1000) +
                                     " s for " + snapshot_awaited(client));
    } else if (client.state != SnapshotState::connecting &&
               now_ms - client.last_send_ms >= client.settings.heartbeat_ms) {
        send_packet(client, soup_empty_packet(soup_client_heartbeat), now_ms);
    }
}

short snapshot_events(const SnapshotClient& client) {
    switch (client.state) {
        case SnapshotState::connecting: return POLLOUT;
        case SnapshotState::logged_out:
        case SnapshotState::waiting: return POLLIN;
        default: return 0;
    }
}

std::int64_t snapshot_stall_ms(const SnapshotClient& client, std::int64_t now_ms) {
    return client.fd < 0 ? 0 : now_ms - client.last_progress_ms;
}

const char* snapshot_awaited(const SnapshotClient& client) {
    switch (client.state) {
        case SnapshotState::logged_out: return "the reply to the login";
        case SnapshotState::waiting: return client.messages == 0 ? "the spin" : "the rest of the spin";
        default: return "the connection";
    }
}

bool snapshot_pending(const SnapshotClient& client) {
    return client.state != SnapshotState::done && client.state != SnapshotState::failed;
}

void close_snapshot(SnapshotClient& client) {
    if (client.fd >= 0) {
        close(client.fd);
        client.fd = -1;
    }
}

}  // namespace tessel::receiver
