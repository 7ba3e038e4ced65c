#include "certify/busy_client.h"

#include "certify/time_limits.h"
#include "receiver/sockets.h"
#include "soup/soup_packet.h"

#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace tessel::certify {

namespace {

// The login is in force when the service has begun to answer it.
bool wait_for_answer(int fd, std::string& error) {
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(scaled(5));
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char byte = 0;
    if (recv(fd, &byte, 1, 0) != 1) {
        error = "the Snap-Shot service does not answer the client that is to hold it";
        return false;
    }
    return true;
}

}  // namespace

bool hold_service(BusyClient& client, const std::string& service, double seconds, std::string& error) {
    sockaddr_in address{};
    if (!receiver::parse_endpoint(address, service, error)) {
        return false;
    }
    client.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client.fd < 0 ||
        connect(client.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = service + ": " + std::strerror(errno);
        return false;
    }
    const std::string login = receiver::soup_login("busy", "", "");
    client.until = steady_seconds() + seconds;
    return send(client.fd, login.data(), login.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(login.size()) &&
           wait_for_answer(client.fd, error);
}

void step_busy_client(BusyClient& client) {
    char block[65536];
    while (client.fd >= 0 && recv(client.fd, block, sizeof block, MSG_DONTWAIT) > 0) {}
    if (client.fd >= 0 && steady_seconds() >= client.until) {
        close(client.fd);
        client.fd = -1;
    }
}

}  // namespace tessel::certify
