#include "ctl/doctor_checks.h"

#include <algorithm>

namespace tessel::ctl {

namespace {

constexpr const char* ok = "ok";
constexpr const char* warning = "warning";
constexpr const char* problem = "problem";

bool arrives(const Facts& facts) {
    return facts.probe.packets != 0;
}

std::string name_of(const Facts& facts) {
    const Interface* chosen = chosen_interface(facts);
    return chosen == nullptr ? "IFACE" : chosen->name;
}

std::string group_text(const Facts& facts) {
    return facts.options.group + ":" + std::to_string(facts.options.port);
}

Check check_interface(const Facts& facts) {
    const std::string& text = facts.options.iface;
    if (!facts.address) {
        std::string right = "127.0.0.1";
        for (const Interface& each : facts.interfaces) {
            right =
                each.name == text ? address_text(each.address) : right;  // a name where its address is wanted
        }
        return {"interface", problem,
                "'" + text + "' is no IPv4 address; this host has " + interface_list(facts.interfaces),
                "tesselctl doctor --iface " + right};
    }
    const Interface* chosen = chosen_interface(facts);
    if (chosen == nullptr) {
        const auto other = std::find_if(facts.interfaces.begin(), facts.interfaces.end(),
                                        [](const Interface& each) { return !each.loopback; });
        const std::string name = other == facts.interfaces.end() ? "lo" : other->name;
        return {"interface", problem,
                text + " is no address of this host, which has " + interface_list(facts.interfaces),
                "ip address add " + text + "/24 dev " + name};
    }
    if (!chosen->up) {
        return {"interface", problem, chosen->name + " with " + text + " is down",
                "ip link set dev " + chosen->name + " up"};
    }
    if (!chosen->multicast && !chosen->loopback) {
        return {"interface", problem, chosen->name + " with " + text + " has multicast switched off",
                "ip link set dev " + chosen->name + " multicast on"};
    }
    return {"interface", ok, text + " is " + chosen->name, ""};
}

Check check_group(const Facts& facts) {
    const std::string& text = facts.options.group;
    if (!facts.group || !IN_MULTICAST(ntohl(facts.group->s_addr))) {
        return {"group", problem, text + " is no multicast group: those are 224.0.0.0 to 239.255.255.255",
                "tesselctl doctor --mcast 239.255.25.177"};
    }
    if (ntohl(facts.group->s_addr) >> 8 == 0xE00000) {
        return {"group", warning,
                text + " is kept for routing protocols: 224.0.0.x is flooded and never snooped",
                "tesselctl doctor --mcast 239.255.25.177"};
    }
    return {"group", ok, text + " is a multicast group", ""};
}

Check check_ports(const Facts& facts) {
    std::string text;
    for (const PortFact& port : facts.ports) {
        const std::string what = port.name + " port " + std::to_string(port.port) +
                                 (port.transport == Transport::udp ? "/udp" : "/tcp");
        if (!port.local) {
            text += (text.empty() ? "" : ", ") + what + " at " + port.address;
            continue;
        }
        const bool foreign = port.taken && !(port.holder.found && port.holder.program.starts_with("tessel"));
        if (foreign) {
            const std::string fix = port.holder.found ? "kill " + std::to_string(port.holder.pid)
                                                      : std::string("ss -lpn ") +
                                                            (port.transport == Transport::udp ? "-u" : "-t") +
                                                            " 'sport = :" + std::to_string(port.port) + "'";
            return {"ports", port.holder.found || port.name == "feed" ? problem : warning,
                    what + " is taken by " + holder_text(port.holder), fix};
        }
        text +=
            (text.empty() ? "" : ", ") + what + (port.taken ? " is " + holder_text(port.holder) : " is free");
    }
    return {"ports", ok, text, ""};
}

Check check_route(const Facts& facts) {
    const Interface* chosen = chosen_interface(facts);
    const bool loopback = chosen != nullptr && chosen->loopback;
    const std::string fix = "ip route add 224.0.0.0/4 dev " + name_of(facts);
    if (!facts.has_route) {
        return {"route", loopback ? warning : problem,
                "there is no route to " + facts.options.group +
                    ": programs that name no interface cannot join or send",
                fix};
    }
    if (chosen != nullptr && facts.route_interface != chosen->name) {
        return {"route", loopback ? ok : warning,
                "the route to " + facts.options.group + " leads to " + facts.route_interface +
                    ": programs that name no interface join there, not on " + chosen->name,
                loopback ? "" : "ip route add " + facts.options.group + "/32 dev " + chosen->name};
    }
    return {"route", ok, "the route to " + facts.options.group + " leads to " + facts.route_interface, ""};
}

Check check_membership(const Facts& facts) {
    const Interface* chosen = chosen_interface(facts);
    std::string list;
    bool here = false;
    for (const std::string& each : facts.members) {
        list += (list.empty() ? "" : ", ") + each;
        here = here || (chosen != nullptr && each == chosen->name);
    }
    if (facts.members.empty()) {
        return {"membership", ok, "no program of this host has joined " + facts.options.group + " yet", ""};
    }
    if (!here && chosen != nullptr) {
        return {"membership", problem,
                facts.options.group + " is joined on " + list + ", not on " + chosen->name + ", which has " +
                    facts.options.iface,
                "tessel-listen --mcast " + facts.options.group + " --port " +
                    std::to_string(facts.options.port) + " --iface " + facts.options.iface};
    }
    return {"membership", ok, facts.options.group + " is joined on " + list, ""};
}

Check check_rp_filter(const Facts& facts) {
    const std::string name = name_of(facts);
    const std::string fix = "sysctl -w net.ipv4.conf." + name + ".rp_filter=2";
    const Interface* chosen = chosen_interface(facts);
    if (facts.rp_filter != 1 || (chosen != nullptr && chosen->loopback)) {
        return {"rp_filter", ok, "packets are taken from any source that has a route", ""};
    }
    if (arrives(facts)) {
        return {"rp_filter", ok, "strict on " + name + ", and the feed's source is routed there", ""};
    }
    if (facts.probe.reverse_path_drops != 0) {
        return {"rp_filter", problem,
                std::to_string(facts.probe.reverse_path_drops) + " packets on " + name +
                    " were dropped, as no route to " +
                    (facts.probe.wire_source.empty() ? "their source" : facts.probe.wire_source) +
                    " leads back there",
                fix};
    }
    return {"rp_filter", warning,
            "strict on " + name + ": a feed whose source is not routed there is dropped unseen", fix};
}

Check check_firewall(const Facts& facts) {
    const Probe& probe = facts.probe;
    if (arrives(facts)) {
        return {"firewall", ok, "packets of the feed get through", ""};
    }
    if (facts.ruleset.drops) {
        return {"firewall", problem, facts.ruleset.text, facts.ruleset.fix};
    }
    if (probe.on_wire != 0 && probe.reverse_path_drops == 0 && probe.error.empty()) {
        return {"firewall", problem,
                std::to_string(probe.on_wire) + " packets for " + group_text(facts) + " reached " +
                    name_of(facts) + " and none the socket: something on this host drops them",
                "iptables -I INPUT -d " + facts.options.group + " -p udp --dport " +
                    std::to_string(facts.options.port) + " -j ACCEPT"};
    }
    if (!facts.ruleset_known && !probe.saw_wire) {
        return {"firewall", warning, "neither the rules nor the interface may be looked at by this user",
                "sudo tesselctl doctor"};
    }
    return {"firewall", ok, "no rule is known that drops the feed", ""};
}

Check check_buffer(const Facts& facts) {
    if (facts.rmem_max == 0 || facts.rmem_max >= rmem_wanted_bytes) {
        return {"buffer", ok, "a receiver may ask for " + std::to_string(facts.rmem_max) + " bytes", ""};
    }
    return {"buffer", facts.rmem_max < rmem_default_bytes ? problem : warning,
            "a receiver gets " + std::to_string(facts.rmem_max) +
                " bytes of socket buffer at most: a burst of the feed overruns it",
            "sysctl -w net.core.rmem_max=33554432"};
}

Check check_mtu(const Facts& facts) {
    const Interface* chosen = chosen_interface(facts);
    if (chosen == nullptr || chosen->mtu == 0) {
        return {"mtu", warning, "the interface is not known", "ip link"};
    }
    const std::string text = chosen->name + " has an MTU of " + std::to_string(chosen->mtu);
    if (chosen->mtu >= mtu_wanted) {
        return {"mtu", ok, text, ""};
    }
    return {
        "mtu", chosen->mtu < mtu_ethernet ? problem : warning,
        text + ", below " + std::to_string(mtu_wanted) + ": full packets arrive in fragments, or not at all",
        "ip link set dev " + chosen->name + " mtu " + std::to_string(mtu_wanted)};
}

Check check_session(const Facts& facts) {
    const std::vector<ProbeSource>& sources = facts.probe.sources;
    for (std::size_t at = 0; at < sources.size(); ++at) {
        for (std::size_t other = 0; other < at; ++other) {
            if (sources[at].session == sources[other].session) {
                return {"session", problem,
                        "two feeds send session " + sources[at].session + " to " + group_text(facts) + ": " +
                            sources[other].address + " and " + sources[at].address,
                        "tesselctl run -- --session UTPBENCH02"};
            }
        }
    }
    if (sources.size() > 1) {
        return {"session", warning, std::to_string(sources.size()) + " sessions share " + group_text(facts),
                "tesselctl run -- --port " +
                    std::to_string(facts.options.port == 65535 ? 1 : facts.options.port + 1)};
    }
    return {"session", ok,
            sources.empty() ? "no feed to ask"
                            : "one feed, session " + sources[0].session + " from " + sources[0].address,
            ""};
}

Check check_traffic(const Facts& facts) {
    const Probe& probe = facts.probe;
    const std::string start = "tesselctl run -- --mcast " + facts.options.group + " --port " +
                              std::to_string(facts.options.port) + " --iface " + facts.options.iface;
    const std::string seconds = std::to_string(facts.options.seconds).substr(0, 4) + " s";
    if (!probe.error.empty()) {
        return {"traffic", problem, "nothing can be received: " + probe.error, start};
    }
    if (probe.packets == 0 && probe.malformed != 0) {
        return {"traffic", problem,
                std::to_string(probe.malformed) + " datagrams in " + seconds + ", none of a feed", start};
    }
    if (probe.packets == 0) {
        const std::string where =
            probe.on_wire != 0 ? ", though " + std::to_string(probe.on_wire) + " reached the interface"
            : probe.saw_wire
                ? ", and none reached the interface: the feed is not running or the network keeps it back"
                : "";
        return {"traffic", problem, "no packet in " + seconds + where, start};
    }
    const std::string text = std::to_string(probe.packets) + " packets with " +
                             std::to_string(probe.messages) + " messages in " + seconds;
    if (probe.kernel_drops != 0) {
        return {"traffic", problem,
                text + ", " + std::to_string(probe.kernel_drops) + " dropped for want of buffer",
                "sysctl -w net.core.rmem_max=33554432"};
    }
    if (probe.missing != 0) {
        return {"traffic", warning, text + ", " + std::to_string(probe.missing) + " messages missing",
                "tesselctl stats --json"};
    }
    return {"traffic", ok, text, ""};
}

}  // namespace

const Interface* chosen_interface(const Facts& facts) {
    return facts.address ? interface_with(facts.interfaces, *facts.address) : nullptr;
}

std::vector<Check> all_checks(const Facts& facts) {
    return {check_interface(facts),  check_group(facts),     check_ports(facts),    check_route(facts),
            check_membership(facts), check_rp_filter(facts), check_firewall(facts), check_buffer(facts),
            check_mtu(facts),        check_session(facts),   check_traffic(facts)};
}

}  // namespace tessel::ctl
