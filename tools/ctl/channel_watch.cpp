#include "ctl/channel_watch.h"

#include "ctl/control_client.h"
#include "ctl/feed_probe.h"
#include "mold/packet.h"
#include "receiver/sockets.h"

#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstring>

namespace tessel::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int buffer_wanted_bytes = 4 << 20;
constexpr std::size_t datagrams_a_turn = 1024;

// A receiver of one group that only looks at sequence numbers.
struct Watch {
    receiver::MulticastSocket socket;
    std::string session;     // padded, as it is on the wire
    std::uint64_t next = 0;  // 0: nothing has come yet
    std::int64_t gaps = 0;
};

int left_ms(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left + 1, 0));
}

void take_packet(Watch& watch, const unsigned char* bytes, std::size_t length) {
    std::uint64_t sequence = 0;
    std::uint16_t count = 0;
    if (!parse_mold_packet(bytes, length, sequence, count) || count == mold_end_of_session_count ||
        std::memcmp(bytes, watch.session.data(), mold_session_bytes) != 0) {
        return;
    }
    watch.gaps += watch.next != 0 && sequence > watch.next ? 1 : 0;
    watch.next = std::max(watch.next, sequence + count);
}

std::vector<Watch> join(const channels::ChannelList& list) {
    std::vector<Watch> watches;
    for (const channels::Channel& channel : list) {
        Watch watch;
        std::string error;
        watch.session = channel.session;
        watch.session.resize(mold_session_bytes, ' ');
        if (!receiver::open_multicast(watch.socket, channel.group, channel.port, channel.iface,
                                      buffer_wanted_bytes, error)) {
            watch.socket.fd = -1;
        }
        watches.push_back(std::move(watch));
    }
    return watches;
}

void receive_until(std::vector<Watch>& watches, Clock::time_point end) {
    std::vector<pollfd> entries;
    entries.reserve(watches.size());
    for (const Watch& watch : watches) {
        entries.push_back({watch.socket.fd, POLLIN, 0});  // a negative descriptor is ignored
    }
    while (Clock::now() < end) {
        if (poll(entries.data(), entries.size(), left_ms(end)) <= 0) {
            continue;
        }
        for (std::size_t at = 0; at < watches.size(); ++at) {
            if (entries[at].revents != 0) {
                receive_multicast(watches[at].socket, datagrams_a_turn,
                                  [&watch = watches[at]](const unsigned char* bytes, std::size_t length) {
                                      take_packet(watch, bytes, length);
                                  });
            }
        }
    }
}

}  // namespace

std::vector<ChannelStatus> ask_channels(const channels::ChannelList& list, int timeout_ms) {
    std::vector<ControlClient> clients(list.size());
    std::vector<ChannelStatus> all;
    std::string error;
    for (std::size_t at = 0; at < list.size(); ++at) {
        all.push_back({});
        all.back().name = list[at].name;
        all.back().up = open_control(list[at].control, timeout_ms, clients[at], error) &&
                        send_command(clients[at], "stats", error);
    }
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (std::size_t at = 0; at < list.size(); ++at) {
        std::string reply;
        bool gone = false;
        all[at].up = all[at].up && receive_reply(clients[at], left_ms(end), reply, gone) &&
                     parse_stats(reply, all[at].counters);
        if (clients[at].fd >= 0) {
            close(clients[at].fd);
        }
    }
    return all;
}

std::vector<ChannelStatus> watch_channels(const channels::ChannelList& list, int timeout_ms, double seconds) {
    std::vector<Watch> watches = join(list);
    const std::vector<ChannelStatus> before = ask_channels(list, timeout_ms);
    const Clock::time_point begin = Clock::now();
    receive_until(
        watches, begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
    std::vector<ChannelStatus> all = ask_channels(list, timeout_ms);
    const double passed = std::chrono::duration<double>(Clock::now() - begin).count();
    for (std::size_t at = 0; at < all.size(); ++at) {
        const std::uint64_t earlier = before[at].counters.next_sequence;
        const std::uint64_t later = all[at].counters.next_sequence;
        // A feed that was started again meanwhile has no rate.
        all[at].rate = before[at].up && later > earlier ? static_cast<double>(later - earlier) / passed : 0.0;
        const receiver::MulticastSocket& socket = watches[at].socket;
        all[at].gaps = socket.fd < 0 || socket.kernel_drops != 0 ? -1 : watches[at].gaps;
        if (socket.fd >= 0) {
            close(socket.fd);
        }
    }
    return all;
}

}  // namespace tessel::ctl
