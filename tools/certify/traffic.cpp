#include "certify/traffic.h"

#include "certify/traffic_kinds.h"
#include "certify/traffic_packets.h"
#include "certify/traffic_retrans.h"
#include "certify/traffic_snapshot.h"
#include "receiver/sockets.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>

namespace tessel::certify {

namespace {

constexpr int group_buffer_bytes = 32 << 20;
constexpr std::size_t packets_a_pass_max = 1000;
constexpr std::size_t waiting_max = 65'536;     // late packets; more are lost
constexpr std::size_t packet_bytes_max = 2048;  // the feed's have 1,500 at most
constexpr std::int64_t nanoseconds_a_second = 1'000'000'000;

struct Run {
    GroupTraffic group;
    RetransTraffic retrans;
    SnapshotTraffic snapshot;
    receiver::MulticastSocket feed;
    int to_handler = -1;
    sockaddr_in own{};     // where to_handler sends from
    int stop = -1;         // readable when SIGTERM or SIGINT has come
    bool between = false;  // then the services are passed through here
    std::map<std::pair<std::int64_t, std::uint64_t>, Packet> waiting;
    std::uint64_t arrivals = 0;
    std::uint64_t failed = 0;  // datagrams that the system refused
};

std::int64_t steady_ns() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

bool read_all(const std::vector<Traffic>& traffic, std::vector<TrafficSettings>& settings,
              std::string& error) {
    for (const Traffic& each : traffic) {
        if (!read_traffic_settings(each, settings.emplace_back(), error)) {
            return false;
        }
    }
    return true;
}

bool open_to_handler(Run& run, const Endpoints& handler, std::string& error) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(handler.port);
    in_addr iface{};
    if (inet_pton(AF_INET, handler.group.c_str(), &address.sin_addr) != 1 ||
        inet_pton(AF_INET, handler.iface.c_str(), &iface) != 1) {
        error = handler.group + " on " + handler.iface + ": no address";
        return false;
    }
    const unsigned char on = 1;
    run.to_handler = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (run.to_handler < 0 ||
        setsockopt(run.to_handler, IPPROTO_IP, IP_MULTICAST_IF, &iface, sizeof iface) != 0 ||
        setsockopt(run.to_handler, IPPROTO_IP, IP_MULTICAST_TTL, &on, sizeof on) != 0 ||
        setsockopt(run.to_handler, IPPROTO_IP, IP_MULTICAST_LOOP, &on, sizeof on) != 0 ||
        connect(run.to_handler, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = "send to " + handler.group + ": " + std::strerror(errno);
        return false;
    }
    socklen_t own_bytes = sizeof run.own;
    getsockname(run.to_handler, reinterpret_cast<sockaddr*>(&run.own), &own_bytes);
    return true;
}

bool open_run(Run& run, const Endpoints& feed, const Endpoints& handler, std::string& error) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    run.stop = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (run.stop < 0) {
        error = std::string("signalfd: ") + std::strerror(errno);
        return false;
    }
    return open_to_handler(run, handler, error) &&
           (!run.between || (open_retrans(run.retrans, handler.retrans, feed.retrans, error) &&
                             open_snapshot(run.snapshot, handler.snapshot, feed.snapshot, error))) &&
           receiver::open_multicast(run.feed, feed.group, feed.port, feed.iface, group_buffer_bytes, error);
}

void send_datagram(Run& run, const Packet& packet) {
    if (send(run.to_handler, packet.data(), packet.size(), 0) < 0) {
        ++run.failed;
    }
}

// Our own additions come back when the handler's group is the feed's.
bool is_own(const Run& run, const sockaddr_in& from) {
    return from.sin_port == run.own.sin_port && from.sin_addr.s_addr == run.own.sin_addr.s_addr;
}

void take_packet(Run& run, const unsigned char* bytes, std::size_t length, std::int64_t now_ns) {
    std::vector<OutgoingPacket> out;
    on_feed_packet(run.group, bytes, length, out);
    for (OutgoingPacket& each : out) {
        if (each.delay_ns == 0) {
            send_datagram(run, each.bytes);
        } else if (run.waiting.size() == waiting_max) {
            ++run.failed;
        } else {
            run.waiting[{now_ns + each.delay_ns, run.arrivals++}] = std::move(each.bytes);
        }
    }
}

void take_packets(Run& run, std::int64_t now_ns) {
    for (std::size_t taken = 0; taken < packets_a_pass_max; ++taken) {
        unsigned char bytes[packet_bytes_max];
        sockaddr_in from{};
        socklen_t from_bytes = sizeof from;
        const ssize_t length = recvfrom(run.feed.fd, bytes, sizeof bytes, MSG_DONTWAIT,
                                        reinterpret_cast<sockaddr*>(&from), &from_bytes);
        if (length < 0) {
            break;
        }
        if (!is_own(run, from)) {
            take_packet(run, bytes, static_cast<std::size_t>(length), now_ns);
        }
    }
    while (!run.waiting.empty() && run.waiting.begin()->first.first <= now_ns) {
        send_datagram(run, run.waiting.begin()->second);
        run.waiting.erase(run.waiting.begin());
    }
}

// Waits for the next thing to do. False when the end was asked for.
bool wait(const Run& run, std::int64_t now_ns) {
    std::vector<pollfd> entries = {{run.stop, POLLIN, 0}, {run.feed.fd, POLLIN, 0}};
    std::int64_t due_ns = now_ns + nanoseconds_a_second;
    if (!run.waiting.empty()) {
        due_ns = std::min(due_ns, run.waiting.begin()->first.first);
    }
    if (run.between) {
        add_poll_entries(run.retrans, entries);
        add_poll_entries(run.snapshot, entries, now_ns);
        due_ns = std::min({due_ns, next_due_ns(run.retrans), next_due_ns(run.snapshot, now_ns)});
    }
    const std::int64_t wait_ns = std::max<std::int64_t>(due_ns - now_ns, 0);
    const timespec limit{wait_ns / nanoseconds_a_second, wait_ns % nanoseconds_a_second};
    ppoll(entries.data(), entries.size(), &limit, nullptr);
    return (entries[0].revents & POLLIN) == 0;
}

void report(const Run& run) {
    std::fprintf(
        stderr, "traffic: %llu packets of the feed, %llu changed, %llu datagrams added, %llu refused\n",
        static_cast<unsigned long long>(run.group.packets),
        static_cast<unsigned long long>(run.group.changed), static_cast<unsigned long long>(run.group.added),
        static_cast<unsigned long long>(run.failed));
    if (run.between) {
        const RetransCounters& retrans = run.retrans.counters;
        std::fprintf(stderr, "traffic: %llu requests, %llu not passed on; %llu replies, %llu lost\n",
                     static_cast<unsigned long long>(retrans.requests),
                     static_cast<unsigned long long>(retrans.ignored),
                     static_cast<unsigned long long>(retrans.replies),
                     static_cast<unsigned long long>(retrans.lost));
        std::fprintf(stderr, "traffic: %llu Snap-Shot connections, %llu rejected, %llu closed, %llu cut\n",
                     static_cast<unsigned long long>(run.snapshot.connections),
                     static_cast<unsigned long long>(run.snapshot.rejected),
                     static_cast<unsigned long long>(run.snapshot.closed),
                     static_cast<unsigned long long>(run.snapshot.cut));
    }
}

void close_run(Run& run) {
    close_retrans(run.retrans);
    close_snapshot(run.snapshot);
    for (const int fd : {run.feed.fd, run.to_handler, run.stop}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

}  // namespace

bool check_traffic(const std::vector<Traffic>& traffic, std::string& error) {
    std::vector<TrafficSettings> settings;
    return read_all(traffic, settings, error);
}

bool is_between(const std::vector<Traffic>& traffic) {
    return std::any_of(traffic.begin(), traffic.end(), [](const Traffic& each) {
        TrafficSettings settings;
        std::string error;
        return read_traffic_settings(each, settings, error) && stands_between(settings.kind);
    });
}

int run_traffic(const std::vector<Traffic>& traffic, const Endpoints& feed, const Endpoints& handler,
                int ready_fd) {
    Run run;
    std::vector<TrafficSettings> settings;
    std::string error;
    run.between = is_between(traffic);
    bool good = read_all(traffic, settings, error);
    if (good) {
        run.group = make_group_traffic(settings, run.between);
        run.retrans.settings = settings;
        run.snapshot.settings = settings;
        good = open_run(run, feed, handler, error);
    }
    if (!good) {
        std::fprintf(stderr, "traffic: %s\n", error.c_str());
        close_run(run);
        close(ready_fd);
        return 1;
    }
    const char ready = 'r';
    const bool told = write(ready_fd, &ready, 1) == 1;
    close(ready_fd);
    std::int64_t now_ns = steady_ns();
    while (told && wait(run, now_ns)) {
        now_ns = steady_ns();
        take_packets(run, now_ns);
        if (run.between) {
            serve(run.retrans, now_ns);
            serve(run.snapshot, now_ns);
        }
    }
    report(run);
    close_run(run);
    return told ? 0 : 1;
}

}  // namespace tessel::certify
