#include "ctl/doctor.h"

#include "ctl/doctor_checks.h"
#include "receiver/sockets.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tessel::ctl {

namespace {

constexpr int status_problem = 1;
constexpr int status_asked_wrongly = 2;

std::optional<in_addr> address_of(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 ? std::optional(address) : std::nullopt;
}

long number_of_file(const std::string& path) {
    std::ifstream file(path);
    long number = 0;
    return file >> number ? number : 0;
}

// Whether a receiver could bind the group's port beside others: 0, or the errno.
int shared_port_error(in_addr group, std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = group;
    address.sin_port = htons(port);
    const int error = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    close(fd);
    return error;
}

PortFact feed_port(const Facts& facts) {
    PortFact fact{"feed", facts.options.port, Transport::udp, true, false, {}, ""};
    fact.taken = facts.group && shared_port_error(*facts.group, fact.port) == EADDRINUSE;
    if (fact.taken) {
        fact.holder = port_holder(Transport::udp, fact.port);
    }
    return fact;
}

PortFact service_port(const Facts& facts, const char* name, Transport transport, const sockaddr_in& at) {
    PortFact fact{name, ntohs(at.sin_port), transport, true, false, {}, address_text(at.sin_addr)};
    fact.local = interface_with(facts.interfaces, at.sin_addr) != nullptr;
    if (fact.local && port_error(transport, {htonl(INADDR_ANY)}, fact.port) == EADDRINUSE) {
        fact.taken = true;
        fact.holder = port_holder(transport, fact.port);
    }
    return fact;
}

// Which interface the routing table sends the group's packets to, when nobody names one.
void find_route(Facts& facts) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr = *facts.group;
    address.sin_port = htons(facts.options.port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        const Interface* found = interface_with(facts.interfaces, address.sin_addr);
        facts.has_route = true;
        facts.route_interface = found == nullptr ? address_text(address.sin_addr) : found->name;
    }
    close(fd);
}

// The interfaces on which the group is joined, from the kernel's list: a line an interface, then its groups.
void find_members(Facts& facts) {
    std::ifstream file("/proc/net/igmp");
    std::string line;
    std::string name;
    std::getline(file, line);  // the heading
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (!line.empty() && line[0] != '\t' && line[0] != ' ') {
            words >> name;
            name.erase(std::min(name.find(':'), name.size()));
        } else if (std::strtoul(first.c_str(), nullptr, 16) == facts.group->s_addr) {
            facts.members.push_back(name);
        }
    }
}

void show_progress(double passed, const Probe& probe, double seconds) {
    constexpr int width = 30;
    const int done = std::min(width, static_cast<int>(width * passed / seconds));
    std::fprintf(stderr, "\r[%.*s%*s] %llu packets\x1b[K", done, "##############################",
                 width - done, "", static_cast<unsigned long long>(probe.packets));
    std::fflush(stderr);
}

Facts gather(const DoctorOptions& options, const sockaddr_in& retrans, const sockaddr_in& snapshot) {
    Facts facts;
    facts.options = options;
    facts.address = address_of(options.iface);
    facts.group = address_of(options.group);
    facts.interfaces = interfaces();
    facts.ports = {feed_port(facts), service_port(facts, "retransmission", Transport::udp, retrans),
                   service_port(facts, "Snap-Shot", Transport::tcp, snapshot)};
    if (facts.group) {
        find_route(facts);
        find_members(facts);  // before this program joins
    }
    const Interface* chosen = chosen_interface(facts);
    const std::string name = chosen == nullptr ? "" : chosen->name;
    const std::string conf = "/proc/sys/net/ipv4/conf/";
    facts.rp_filter = static_cast<int>(
        std::max(number_of_file(conf + "all/rp_filter"), number_of_file(conf + name + "/rp_filter")));
    facts.rmem_max = number_of_file("/proc/sys/net/core/rmem_max");
    std::string ruleset;
    facts.ruleset_known = list_ruleset(ruleset);
    facts.ruleset = read_ruleset(ruleset, options.group, options.port);
    const bool terminal = !options.json && isatty(STDERR_FILENO) != 0;
    facts.probe = probe_feed({options.group, options.port, options.iface, name, options.seconds},
                             [&](double passed, const Probe& probe) {
                                 if (terminal) {
                                     show_progress(passed, probe, options.seconds);
                                 }
                             });
    if (terminal) {
        std::fprintf(stderr, "\r\x1b[K");
    }
    return facts;
}

// The result's word, in color on a terminal unless NO_COLOR asks for none.
std::string painted(const std::string& result) {
    const char* no_color = std::getenv("NO_COLOR");
    const bool plain = isatty(STDOUT_FILENO) == 0 || (no_color != nullptr && *no_color != '\0');
    const std::string padded = result + std::string(9 - std::min<std::size_t>(8, result.size()), ' ');
    const char* color = result == "ok" ? "\x1b[32m" : result == "warning" ? "\x1b[33m" : "\x1b[31m";
    return plain ? padded : color + padded + "\x1b[0m";
}

}  // namespace

int doctor(const DoctorOptions& options) {
    sockaddr_in retrans{};
    sockaddr_in snapshot{};
    std::string error;
    if (!receiver::parse_endpoint(retrans, options.retrans, error)) {
        std::fprintf(stderr, "tesselctl: --retrans: %s\n", error.c_str());
        return status_asked_wrongly;
    }
    if (!receiver::parse_endpoint(snapshot, options.snapshot, error)) {
        std::fprintf(stderr, "tesselctl: --snapshot: %s\n", error.c_str());
        return status_asked_wrongly;
    }
    const std::vector<Check> checks = all_checks(gather(options, retrans, snapshot));
    if (options.json) {
        std::printf("%s\n", checks_json(checks).c_str());
    }
    bool found = false;
    for (const Check& check : checks) {
        found = found || check.result == "problem";
        if (!options.json) {
            std::printf("%s%-11s %s%s%s\n", painted(check.result).c_str(), check.name.c_str(),
                        check.text.c_str(), check.fix.empty() ? "" : "; fix: ", check.fix.c_str());
        }
    }
    return found ? status_problem : 0;
}

}  // namespace tessel::ctl
