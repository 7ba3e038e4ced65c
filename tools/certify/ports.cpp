#include "certify/ports.h"

#include "certify/file_text.h"
#include "certify/ready.h"

#include <netinet/in.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstddef>
#include <cstdlib>

namespace tessel::certify {

namespace {

// Below the range from which the system takes ports by itself, so that no outgoing connection takes one. The
// Python package leases from the same range by the same names.
constexpr unsigned port_first = 20'000;
constexpr unsigned port_last = 32'000;
constexpr int tries_max = 1'000;

// Any number from first to last. Two runs must not choose alike, so this is no draw from a seed.
unsigned any_number(unsigned first, unsigned last) {
    std::uint32_t bits = 0;
    if (getrandom(&bits, sizeof bits, 0) != static_cast<ssize_t>(sizeof bits)) {
        std::abort();  // a request this small is never cut
    }
    return first + bits % (last - first + 1);
}

// A socket that holds the name, or -1 when somebody else does.
int hold_name(const std::string& name) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool can_bind(int type, std::uint16_t port) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const bool good = fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return good;
}

}  // namespace

std::uint16_t lease_port(Leases& leases) {
    for (int attempt = 0; attempt != tries_max; ++attempt) {
        const auto port = static_cast<std::uint16_t>(any_number(port_first, port_last));
        const int fd = hold_name("tessel-test-port-" + std::to_string(port));
        if (fd < 0) {
            continue;
        }
        if (can_bind(SOCK_DGRAM, port) && can_bind(SOCK_STREAM, port)) {
            leases.sockets.push_back(fd);
            return port;
        }
        close(fd);
    }
    return 0;
}

std::string lease_group(Leases& leases) {
    constexpr unsigned part_last = 254;
    for (int attempt = 0; attempt != tries_max; ++attempt) {
        std::string group = "239.255." + std::to_string(any_number(1, part_last)) + "." +
                            std::to_string(any_number(1, part_last));
        const int fd = hold_name("tessel-test-group-" + group);
        if (fd < 0) {
            continue;
        }
        if (group_members(file_text("/proc/net/igmp"), group) == 0) {
            leases.sockets.push_back(fd);
            return group;
        }
        close(fd);
    }
    return "";
}

void release(Leases& leases) {
    for (const int fd : leases.sockets) {
        close(fd);
    }
    leases.sockets.clear();
}

}  // namespace tessel::certify
