#include "ctl/feed_probe.h"

#include "ctl/host.h"
#include "mold/packet.h"
#include "receiver/sockets.h"

#include <netpacket/packet.h>

#include <arpa/inet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace tessel::ctl {

namespace {

constexpr int buffer_wanted_bytes = 4 << 20;
constexpr std::size_t sources_max = 16;
constexpr std::size_t mold_header_length = 20;  // session 10, sequence 8, count 2
constexpr std::size_t mold_session_length = 10;
constexpr std::uint16_t end_of_session = 0xffff;
constexpr int turn_ms = 100;

// What is expected next from a source and a session; a number beyond it means that some are missing.
using Expected = std::map<std::string, std::uint64_t>;

double now_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The kernel's count of packets that failed the reverse-path check, of this network namespace.
std::uint64_t reverse_path_drops() {
    std::ifstream file("/proc/net/netstat");
    std::string names;
    std::string values;
    while (std::getline(file, names) && std::getline(file, values)) {
        std::istringstream name_words(names);
        std::istringstream value_words(values);
        std::string name;
        std::string value;
        while (name_words >> name && value_words >> value) {
            if (name == "IPReversePathFilter") {
                return std::stoull(value);
            }
        }
    }
    return 0;
}

int open_wire(const std::string& interface_name) {
    const unsigned index = interface_name.empty() ? 0 : if_nametoindex(interface_name.c_str());
    if (index == 0) {
        return -1;
    }
    // Cooked: the network header comes first on every kind of interface.
    const int fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETHERTYPE_IP));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETHERTYPE_IP);
    address.sll_ifindex = static_cast<int>(index);
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Counts a packet of the wire when it is for the group and port. Of a datagram in fragments the first one
// counts.
void take_wire(Probe& probe, const unsigned char* bytes, std::size_t length, in_addr group,
               std::uint16_t port) {
    constexpr std::size_t address_end = 20;
    if (length < address_end || bytes[0] >> 4 != 4 || bytes[9] != IPPROTO_UDP ||
        std::memcmp(bytes + 16, &group, sizeof group) != 0) {
        return;
    }
    const std::size_t header = std::size_t{4} * (bytes[0] & 0x0fU);
    const bool first_fragment = ((bytes[6] & 0x1fU) | bytes[7]) == 0;
    if (!first_fragment || length < header + 4 || read_big_endian(bytes + header + 2, 2) != port) {
        return;
    }
    ++probe.on_wire;
    in_addr source{};
    std::memcpy(&source, bytes + 12, sizeof source);
    probe.wire_source = address_text(source);
}

void drain_wire(Probe& probe, int fd, in_addr group, std::uint16_t port) {
    unsigned char bytes[2048];
    sockaddr_ll from{};
    socklen_t from_length = sizeof from;
    for (int turn = 0; turn < 1000; ++turn) {
        const ssize_t length =
            recvfrom(fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &from_length);
        if (length < 0) {
            return;
        }
        // What this host sends is looped back as a separate packet.
        if (from.sll_pkttype != PACKET_OUTGOING) {
            take_wire(probe, bytes, static_cast<std::size_t>(length), group, port);
        }
        from_length = sizeof from;
    }
}

ProbeSource* source_of(Probe& probe, const std::string& address, const std::string& session) {
    for (ProbeSource& source : probe.sources) {
        if (source.address == address && source.session == session) {
            return &source;
        }
    }
    if (probe.sources.size() == sources_max) {
        return nullptr;
    }
    probe.sources.push_back({address, session, 0});
    return &probe.sources.back();
}

void take_datagram(Probe& probe, Expected& expected, const unsigned char* bytes, std::size_t length,
                   const sockaddr_in& from) {
    std::uint64_t sequence = 0;
    std::uint16_t count = 0;
    if (!parse_mold_packet(bytes, length, sequence, count)) {
        ++probe.malformed;
        return;
    }
    ++probe.packets;
    const bool is_heartbeat = count == 0 || count == end_of_session;
    probe.heartbeats += is_heartbeat ? 1 : 0;
    probe.messages += is_heartbeat ? 0 : count;
    const std::string address = address_text(from.sin_addr) + ":" + std::to_string(ntohs(from.sin_port));
    std::string session(reinterpret_cast<const char*>(bytes), mold_session_length);
    session.erase(session.find_last_not_of(' ') + 1);
    ProbeSource* source = source_of(probe, address, session);
    if (source == nullptr) {
        return;
    }
    ++source->packets;
    std::uint64_t& next = expected[address + " " + session];
    if (next != 0 && sequence > next) {
        probe.missing += sequence - next;
    }
    next = std::max(next, sequence + (is_heartbeat ? 0 : count));
}

void drain_socket(Probe& probe, Expected& expected, int fd) {
    unsigned char bytes[2048];
    for (int turn = 0; turn < 1000; ++turn) {
        sockaddr_in from{};
        iovec part{bytes, sizeof bytes};
        alignas(cmsghdr) char control[64];
        msghdr header{};
        header.msg_name = &from;
        header.msg_namelen = sizeof from;
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        const ssize_t length = recvmsg(fd, &header, 0);
        if (length < 0) {
            return;
        }
        for (cmsghdr* each = CMSG_FIRSTHDR(&header); each != nullptr; each = CMSG_NXTHDR(&header, each)) {
            if (each->cmsg_level == SOL_SOCKET && each->cmsg_type == SO_RXQ_OVFL) {
                std::uint32_t drops = 0;
                std::memcpy(&drops, CMSG_DATA(each), sizeof drops);
                probe.kernel_drops = drops;
            }
        }
        take_datagram(probe, expected, bytes, static_cast<std::size_t>(length), from);
    }
}

}  // namespace

bool parse_mold_packet(const unsigned char* bytes, std::size_t length, std::uint64_t& sequence,
                       std::uint16_t& count) {
    if (length < mold_header_length) {
        return false;
    }
    sequence = read_big_endian(bytes + mold_session_length, 8);
    count = static_cast<std::uint16_t>(read_big_endian(bytes + mold_session_length + 8, 2));
    std::size_t at = mold_header_length;
    for (unsigned block = 0; count != end_of_session && block < count; ++block) {
        if (length - at < block_prefix_bytes) {
            return false;
        }
        const std::size_t size = read_big_endian(bytes + at, block_prefix_bytes);
        at += block_prefix_bytes;
        if (length - at < size) {
            return false;
        }
        at += size;
    }
    return at == length;
}

Probe probe_feed(const ProbeSettings& settings, const std::function<void(double, const Probe&)>& progress) {
    Probe probe;
    Expected expected;
    receiver::MulticastSocket socket;
    in_addr group{};
    if (inet_pton(AF_INET, settings.group.c_str(), &group) != 1 ||
        !receiver::open_multicast(socket, settings.group, settings.port, settings.iface, buffer_wanted_bytes,
                                  probe.error)) {
        probe.error = probe.error.empty() ? "'" + settings.group + "' is no IPv4 address" : probe.error;
        return probe;
    }
    probe.buffer_bytes = socket.buffer_bytes;
    const int wire = open_wire(settings.interface_name);
    probe.saw_wire = wire >= 0;
    const std::uint64_t drops_before = reverse_path_drops();
    const double start = now_seconds();
    double passed = 0;
    while (passed < settings.seconds) {
        pollfd waited[2] = {{socket.fd, POLLIN, 0}, {wire, POLLIN, 0}};
        poll(waited, 2, turn_ms);
        drain_socket(probe, expected, socket.fd);
        if (wire >= 0) {
            drain_wire(probe, wire, group, settings.port);
        }
        progress(passed, probe);
        passed = now_seconds() - start;
    }
    probe.reverse_path_drops = reverse_path_drops() - drops_before;
    close(socket.fd);
    if (wire >= 0) {
        close(wire);
    }
    return probe;
}

}  // namespace tessel::ctl
