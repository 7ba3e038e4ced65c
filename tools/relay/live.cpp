#include "relay/live.h"

#include "base/clock.h"
#include "receiver/sockets.h"
#include "relay/relay.h"

#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <limits>

namespace tessel::relay {

namespace {

constexpr int receive_buffer_bytes = 32 << 20;
constexpr std::size_t packets_a_pass_max = 1024;
constexpr std::int64_t wait_max_ns = 100'000'000;
// At the end packets that a delay holds may still go, for so long.
constexpr std::int64_t finish_ns = 2'000'000'000;

volatile std::sig_atomic_t stop_signal = 0;

void on_signal(int number) {
    stop_signal = number;
}

// Waits for a packet, a service or the time of the next packet.
void wait_for_work(const Relay& relay, int feed, std::vector<pollfd>& entries) {
    const std::int64_t now_ns = steady_now_ns();
    entries.clear();
    entries.push_back({feed, POLLIN, 0});
    add_poll_entries(relay, entries, now_ns);
    const std::int64_t wait_ns =
        std::clamp<std::int64_t>(next_due_ns(relay, now_ns) - now_ns, 0, wait_max_ns);
    const timespec wait{wait_ns / 1'000'000'000, wait_ns % 1'000'000'000};
    ppoll(entries.data(), entries.size(), &wait, nullptr);
}

std::int64_t wall_now_ns() {
    Clock clock;
    return static_cast<std::int64_t>(wall_ns(clock));
}

}  // namespace

void catch_stop_signals() {
    struct sigaction action {};
    action.sa_handler = on_signal;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
}

bool stop_asked() {
    return stop_signal != 0;
}

std::int64_t steady_now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

int run_live(const Options& options) {
    catch_stop_signals();
    std::string error;
    receiver::MulticastSocket feed;
    Relay relay;
    relay.now_ns = steady_now_ns;
    relay.stamp_offset_ns = wall_now_ns() - steady_now_ns();
    if (!receiver::open_multicast(feed, options.group, static_cast<std::uint16_t>(options.port),
                                  options.iface, receive_buffer_bytes, error) ||
        !open_relay(relay, options, error)) {
        std::fprintf(stderr, "tessel-relay: %.180s\n", error.c_str());
        close_relay(relay);
        return 1;
    }
    std::fprintf(stderr, "tessel-relay: joined %s:%u on %s, %zu lines\n", options.group.c_str(), options.port,
                 options.iface.c_str(), options.lines.size());
    std::vector<pollfd> entries;
    while (!stop_asked() && !relay.stopping) {
        wait_for_work(relay, feed.fd, entries);
        const std::int64_t now_ns = steady_now_ns();
        receiver::receive_multicast(feed, packets_a_pass_max,
                                    [&](const unsigned char* bytes, std::size_t length) {
                                        offer_packet(relay, bytes, length, now_ns);
                                    });
        send_due(relay, steady_now_ns());
        flush_outputs(relay);
        serve(relay, steady_now_ns());
    }
    const bool good = finish_relay(relay, steady_now_ns(), finish_ns);
    if (!good) {
        std::fprintf(stderr, "tessel-relay: %.180s\n", relay.error.c_str());
    }
    if (feed.kernel_drops != 0) {
        std::fprintf(stderr, "tessel-relay: the system dropped %llu packets before they could be read\n",
                     static_cast<unsigned long long>(feed.kernel_drops));
    }
    print_summary(relay);
    close_relay(relay);
    close(feed.fd);
    return good ? 0 : 1;
}

}  // namespace tessel::relay
