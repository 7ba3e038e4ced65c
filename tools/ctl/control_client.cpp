#include "ctl/control_client.h"

#include "receiver/sockets.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace tessel::ctl {

bool open_control(const std::string& endpoint, int timeout_ms, ControlClient& client, std::string& error) {
    sockaddr_in address{};
    if (!receiver::parse_endpoint(address, endpoint, error)) {
        return false;
    }
    client.endpoint = endpoint;
    client.timeout_ms = timeout_ms;
    client.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (client.fd < 0 ||
        connect(client.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = "'" + endpoint + "': " + std::strerror(errno);
        return false;
    }
    return true;
}

std::string nobody_text(const ControlClient& client) {
    return "nobody answers at " + client.endpoint + "; is a feed running with --control-port " +
           client.endpoint.substr(client.endpoint.rfind(':') + 1) + "?";
}

bool send_command(ControlClient& client, std::string_view command, std::string& error) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (send(client.fd, command.data(), command.size(), MSG_NOSIGNAL) >= 0) {
            return true;
        }
        if (errno != ECONNREFUSED) {
            error = client.endpoint + ": " + std::strerror(errno);
            return false;
        }
        // The refusal is that of an earlier datagram; this one has not been sent.
    }
    error = nobody_text(client);
    return false;
}

bool receive_reply(ControlClient& client, int wait_ms, std::string& reply, bool& gone) {
    gone = false;
    pollfd waited{client.fd, POLLIN, 0};
    if (poll(&waited, 1, wait_ms) <= 0) {
        return false;
    }
    char bytes[65536];
    const ssize_t length = recv(client.fd, bytes, sizeof bytes, 0);
    if (length < 0) {
        gone = errno == ECONNREFUSED;
        return false;
    }
    reply.assign(bytes, static_cast<std::size_t>(length));
    reply.erase(reply.find_last_not_of('\n') + 1);
    return true;
}

Answer ask(ControlClient& client, std::string_view command, std::string& reply, std::string& error) {
    bool gone = false;
    if (!send_command(client, command, error)) {
        return Answer::nobody;
    }
    if (!receive_reply(client, client.timeout_ms, reply, gone)) {
        error = nobody_text(client);
        return Answer::nobody;
    }
    return Answer::reply;
}

}  // namespace tessel::ctl
