#pragma once

#include "ctl/doctor.h"
#include "ctl/feed_probe.h"
#include "ctl/firewall.h"
#include "ctl/host.h"
#include "ctl/json_text.h"

#include <netinet/in.h>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The checks of `tesselctl doctor`: facts come in, a finding goes out. Nothing here asks the system.
namespace tessel::ctl {

// What was found out about one of the ports.
struct PortFact {
    std::string name;  // "feed", "retransmission", "Snap-Shot"
    std::uint16_t port = 0;
    Transport transport = Transport::udp;
    bool local = true;  // its address is one of this host
    bool taken = false;
    PortHolder holder;
    std::string address;  // of one that is not local
};

// Everything that the checks look at.
struct Facts {
    DoctorOptions options;
    std::optional<in_addr> address;  // of --iface, when it is one
    std::optional<in_addr> group;
    std::vector<Interface> interfaces;
    std::vector<PortFact> ports;
    bool has_route = false;
    std::string route_interface;
    std::vector<std::string> members;  // interfaces on which somebody has joined the group
    int rp_filter = 0;                 // the interface's or that of all, whichever is larger
    long rmem_max = 0;                 // bytes; 0: could not be read
    bool ruleset_known = false;
    FirewallFinding ruleset;
    Probe probe;
};

// A packet of 1,500 bytes with its UDP and IP headers.
constexpr int mtu_wanted = 1528;
// Below Ethernet's own the path is a tunnel or an overlay, where fragments are often dropped.
constexpr int mtu_ethernet = 1500;

// The kernel's default of net.core.rmem_max, and what holds the burst of a large tick.
constexpr long rmem_default_bytes = 212'992;
constexpr long rmem_wanted_bytes = 4 << 20;

// One finding a check, in the order of the page: interface, group, ports, route, membership, rp_filter,
// firewall, buffer, mtu, session, traffic.
std::vector<Check> all_checks(const Facts& facts);

// The interface that --iface names, or null.
const Interface* chosen_interface(const Facts& facts);

}  // namespace tessel::ctl
