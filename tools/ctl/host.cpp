#include "ctl/host.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace tessel::ctl {

namespace {

constexpr std::size_t listed_max = 8;
constexpr int tcp_listening = 0x0A;  // the kernel's state of a listening socket

int mtu_of(int fd, const std::string& name) {
    ifreq request{};
    std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    return ioctl(fd, SIOCGIFMTU, &request) == 0 ? request.ifr_mtu : 0;
}

// Adds the inodes of the sockets in one of the kernel's tables that are bound to the port.
void add_inodes(const char* table, Transport transport, std::uint16_t port, std::set<std::string>& inodes) {
    std::ifstream file(table);
    std::string line;
    std::getline(file, line);  // the heading
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string slot;
        std::string local;
        std::string remote;
        std::string state;
        std::string skipped;
        std::string inode;
        words >> slot >> local >> remote >> state;
        for (int column = 0; column < 5; ++column) {
            words >> skipped;  // queues, timer, retransmissions, user, timeout
        }
        words >> inode;
        const std::size_t colon = local.rfind(':');
        if (colon == std::string::npos || std::stoul(local.substr(colon + 1), nullptr, 16) != port ||
            (transport == Transport::tcp && std::stoi(state, nullptr, 16) != tcp_listening)) {
            continue;
        }
        inodes.insert("socket:[" + inode + "]");
    }
}

// Whether the process has one of these sockets open.
bool holds(const std::string& process, const std::set<std::string>& inodes) {
    const std::string folder = "/proc/" + process + "/fd";
    DIR* const descriptors = opendir(folder.c_str());
    if (descriptors == nullptr) {
        return false;
    }
    bool found = false;
    while (const dirent* entry = found ? nullptr : readdir(descriptors)) {
        char target[64];
        const ssize_t length = readlink((folder + "/" + entry->d_name).c_str(), target, sizeof target);
        found = length > 0 && inodes.contains(std::string(target, static_cast<std::size_t>(length)));
    }
    closedir(descriptors);
    return found;
}

}  // namespace

std::string address_text(in_addr address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

std::vector<Interface> interfaces() {
    std::vector<Interface> found;
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return found;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (const ifaddrs* each = first; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        Interface one;
        one.name = each->ifa_name;
        sockaddr_in address{};
        std::memcpy(&address, each->ifa_addr, sizeof address);
        one.address = address.sin_addr;
        one.up = (each->ifa_flags & IFF_UP) != 0 && (each->ifa_flags & IFF_RUNNING) != 0;
        one.loopback = (each->ifa_flags & IFF_LOOPBACK) != 0;
        one.multicast = (each->ifa_flags & IFF_MULTICAST) != 0;
        one.mtu = mtu_of(fd, one.name);
        found.push_back(one);
    }
    close(fd);
    freeifaddrs(first);
    return found;
}

const Interface* interface_with(const std::vector<Interface>& all, in_addr address) {
    for (const Interface& each : all) {
        if (each.address.s_addr == address.s_addr) {
            return &each;
        }
    }
    // All of 127/8 is the loopback interface's.
    for (const Interface& each : all) {
        if (each.loopback && ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET) {
            return &each;
        }
    }
    return nullptr;
}

std::string interface_list(const std::vector<Interface>& all) {
    std::string text;
    for (std::size_t at = 0; at < all.size() && at < listed_max; ++at) {
        text += (text.empty() ? "" : ", ") + all[at].name + " " + address_text(all[at].address);
    }
    return text + (all.size() > listed_max ? ", ..." : text.empty() ? "none" : "");
}

int port_error(Transport transport, in_addr address, std::uint16_t port) {
    const int type = transport == Transport::udp ? SOCK_DGRAM : SOCK_STREAM;
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    const int on = 1;
    if (transport ==
        Transport::tcp) {  // a port whose connections have just ended is free; with UDP it would share
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    sockaddr_in wanted{};
    wanted.sin_family = AF_INET;
    wanted.sin_addr = address;
    wanted.sin_port = htons(port);
    int error = 0;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&wanted), sizeof wanted) != 0 ||
        (transport == Transport::tcp && listen(fd, 1) != 0)) {
        error = errno;
    }
    close(fd);
    return error;
}

PortHolder port_holder(Transport transport, std::uint16_t port) {
    std::set<std::string> inodes;
    PortHolder holder;
    add_inodes(transport == Transport::udp ? "/proc/net/udp" : "/proc/net/tcp", transport, port, inodes);
    add_inodes(transport == Transport::udp ? "/proc/net/udp6" : "/proc/net/tcp6", transport, port, inodes);
    DIR* const processes = inodes.empty() ? nullptr : opendir("/proc");
    if (processes == nullptr) {
        return holder;
    }
    while (const dirent* entry = readdir(processes)) {
        const std::string name = entry->d_name;
        if (name.find_first_not_of("0123456789") == std::string::npos && holds(name, inodes)) {
            holder.found = true;
            holder.pid = std::stoi(name);
            std::ifstream command("/proc/" + name + "/comm");
            std::getline(command, holder.program);
            break;
        }
    }
    closedir(processes);
    return holder;
}

std::string holder_text(const PortHolder& holder) {
    return holder.found ? holder.program + " (pid " + std::to_string(holder.pid) + ")"
                        : "a process that cannot be seen from here";
}

}  // namespace tessel::ctl
