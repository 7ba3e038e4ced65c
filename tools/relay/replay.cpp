#include "relay/replay.h"

#include "base/clock.h"
#include "listen/pcap_file.h"
#include "relay/live.h"
#include "relay/pacer.h"
#include "relay/relay.h"
#include "relay/repack.h"

#include <arpa/inet.h>
#include <poll.h>
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <limits>

namespace tessel::relay {

namespace {

// The last stretch before a packet is due is spent looking at the clock: a sleep is late by some 50 us.
constexpr std::int64_t spin_ns = 150'000;
constexpr std::int64_t wait_max_ns = 50'000'000;
constexpr std::int64_t finish_offline_ns = std::numeric_limits<std::int64_t>::max();

struct Replay {
    const Options* options = nullptr;
    Relay relay;
    Pacer pacer;
    std::uint32_t group = 0;  // host order
    std::uint64_t packets = 0;
    std::int64_t last_ns = 0;  // when the last packet was offered
    std::vector<pollfd> entries;
};

void sleep_until(Replay& replay, std::int64_t due_ns) {
    const std::int64_t now_ns = steady_now_ns();
    const std::int64_t wait_ns = std::min(due_ns - now_ns - spin_ns, wait_max_ns);
    if (wait_ns <= 0) {
        return;
    }
    replay.entries.clear();
    add_poll_entries(replay.relay, replay.entries, now_ns);
    const timespec wait{wait_ns / 1'000'000'000, wait_ns % 1'000'000'000};
    ppoll(replay.entries.data(), replay.entries.size(), &wait, nullptr);
}

// Waits until `due_ns`, sending what is due meanwhile.
void wait_until_due(Replay& replay, std::int64_t due_ns) {
    std::int64_t now_ns = steady_now_ns();
    while (now_ns < due_ns && !stop_asked() && !replay.relay.stopping) {
        send_due(replay.relay, now_ns);
        flush_outputs(replay.relay);
        serve(replay.relay, now_ns);
        sleep_until(replay, std::min(due_ns, next_due_ns(replay.relay, now_ns)));
        now_ns = steady_now_ns();
    }
}

void take_datagram(Replay& replay, const listen::PcapFlow& flow, std::int64_t stamp_ns,
                   const unsigned char* bytes, std::size_t length) {
    if (stop_asked() || replay.relay.stopping || flow.destination != replay.group ||
        flow.destination_port != replay.options->port) {
        return;
    }
    PacketHead head;
    const unsigned messages = read_head(bytes, length, head) ? head.messages : 0;
    ++replay.packets;
    if (replay.relay.now_ns == nullptr) {
        replay.last_ns = std::max(replay.last_ns, stamp_ns);
        offer_packet(replay.relay, bytes, length, replay.last_ns);
        return;
    }
    const std::int64_t due_ns = next_packet_ns(replay.pacer, stamp_ns, messages, steady_now_ns());
    wait_until_due(replay, due_ns);
    replay.last_ns = std::max(replay.last_ns, due_ns);
    offer_packet(replay.relay, bytes, length, replay.last_ns);
}

// Reads the capture once. False when it could not be read whole, which has been said.
bool play_once(Replay& replay) {
    listen::PcapSinks sinks;
    sinks.datagram = [&replay](const listen::PcapFlow& flow, std::int64_t stamp_ns,
                               const unsigned char* bytes,
                               std::size_t length) { take_datagram(replay, flow, stamp_ns, bytes, length); };
    sinks.stream = [](const listen::PcapFlow&, std::int64_t, const unsigned char*, std::size_t) {};
    sinks.wants_stream = [](const listen::PcapFlow&) { return false; };
    listen::PcapCounters counters;
    std::string error;
    const listen::PcapResult result = listen::read_pcap(replay.options->from_pcap, sinks, counters, error);
    if (result != listen::PcapResult::whole) {
        std::fprintf(stderr, "tessel-relay: %.180s\n", error.c_str());
    }
    if (counters.cut != 0 || counters.incomplete != 0) {
        std::fprintf(stderr,
                     "tessel-relay: %" PRIu64 " packets cut, %" PRIu64
                     " packets whose fragments never completed\n",
                     counters.cut, counters.incomplete);
    }
    return result == listen::PcapResult::whole && counters.cut == 0 && counters.incomplete == 0;
}

}  // namespace

int run_replay(const Options& options) {
    catch_stop_signals();
    Replay replay;
    replay.options = &options;
    in_addr address{};
    inet_pton(AF_INET, options.group.c_str(), &address);
    replay.group = ntohl(address.s_addr);
    const bool offline = is_offline(options);
    if (!offline) {
        replay.relay.now_ns = steady_now_ns;
        replay.relay.timed = true;
        Clock clock;
        replay.relay.stamp_offset_ns = static_cast<std::int64_t>(wall_ns(clock)) - steady_now_ns();
    }
    std::string error;
    if (!open_relay(replay.relay, options, error)) {
        std::fprintf(stderr, "tessel-relay: %.180s\n", error.c_str());
        close_relay(replay.relay);
        return 1;
    }
    bool good = true;
    for (std::uint64_t round = 0; round < options.loops && good && !stop_asked() && !replay.relay.stopping;
         ++round) {
        replay.pacer = make_pacer(options);
        good = play_once(replay);
    }
    if (!finish_relay(replay.relay, offline ? replay.last_ns : steady_now_ns(), finish_offline_ns)) {
        std::fprintf(stderr, "tessel-relay: %.180s\n", replay.relay.error.c_str());
        good = false;
    }
    if (good && replay.packets == 0) {
        std::fprintf(stderr, "tessel-relay: %s has no packet to %s:%u; see --mcast and --port\n",
                     options.from_pcap.c_str(), options.group.c_str(), options.port);
    }
    print_summary(replay.relay);
    close_relay(replay.relay);
    return good ? 0 : 1;
}

}  // namespace tessel::relay
