#pragma once

#include <netinet/in.h>
#include <cstdint>
#include <string>
#include <vector>

// What this host says about itself: its interfaces, and who holds a port.
namespace tessel::ctl {

struct Interface {
    std::string name;
    in_addr address{};
    bool up = false;
    bool loopback = false;
    bool multicast = false;
    int mtu = 0;
};

// Every IPv4 address of this host with its interface; an interface with two addresses is there twice.
std::vector<Interface> interfaces();

// The one with that address, or null.
const Interface* interface_with(const std::vector<Interface>& all, in_addr address);

// "lo 127.0.0.1, eth0 172.17.0.2": at most eight of them.
std::string interface_list(const std::vector<Interface>& all);

enum class Transport { udp, tcp };

// Whether a service could open that port on `address`: 0, or the errno of what failed.
int port_error(Transport transport, in_addr address, std::uint16_t port);

struct PortHolder {
    bool found = false;
    int pid = 0;
    std::string program;
};

// Who holds the port, as far as this process may see the descriptors of others.
PortHolder port_holder(Transport transport, std::uint16_t port);

// "nc (pid 123)", or words for a holder that cannot be seen.
std::string holder_text(const PortHolder& holder);

std::string address_text(in_addr address);

}  // namespace tessel::ctl
