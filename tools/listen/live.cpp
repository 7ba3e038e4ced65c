#include "base/clock.h"
#include "listen/listener.h"
#include "listen/terminal_view.h"
#include "receiver/snapshot_client.h"
#include "receiver/sockets.h"

#include <fmt/format.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <deque>
#include <vector>

namespace tessel::listen {

using receiver::MulticastSocket;
using receiver::PacketSource;
using receiver::Sequencer;
using receiver::SnapshotClient;
using receiver::SnapshotSettings;
using receiver::SnapshotState;

namespace {

constexpr std::size_t datagrams_a_pass = 1024;
constexpr std::int64_t wait_max_ms = 50;
constexpr std::int64_t flush_interval_ms = 200;
constexpr std::int64_t view_interval_ms = 250;
constexpr std::int64_t finish_max_ms = 60'000;      // for what is still missing at the end
constexpr std::size_t held_bytes_max = 256u << 20;  // packets that come while the Snap-Shot is read
constexpr int reply_buffer_bytes = 4 << 20;

volatile std::sig_atomic_t stop_signals = 0;

void on_stop_signal(int) {
    stop_signals = stop_signals + 1;
}

void catch_signals() {
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

// Everything that one run from the network holds.
struct Live {
    Listener listener;
    MulticastSocket multicast;
    int replies_fd = -1;
    SnapshotClient snapshot;
    bool joining = false;  // the Snap-Shot is not complete: packets are held
    std::deque<std::vector<unsigned char>> held;
    std::size_t held_bytes = 0;
    bool drops_reported = false;
    std::int64_t last_flush_ms = 0;
    std::int64_t last_view_ms = 0;
    std::uint64_t view_messages = 0;
};

void take_multicast(Live& live, const unsigned char* bytes, std::size_t length, std::int64_t now_ms) {
    if (!live.joining) {
        on_packet(live.listener.sequencer, bytes, length, now_ms, PacketSource::multicast);
    } else if (live.held_bytes + length <= held_bytes_max) {
        live.held.emplace_back(bytes, bytes + length);
        live.held_bytes += length;
    }
}

void read_replies(Live& live, std::int64_t now_ms) {
    unsigned char bytes[2048];
    for (std::size_t i = 0; live.replies_fd >= 0 && i < datagrams_a_pass; ++i) {
        const ssize_t count = recv(live.replies_fd, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count < 0) {
            return;  // nothing waits, or the service is not there: then its answers time out
        }
        on_packet(live.listener.sequencer, bytes, static_cast<std::size_t>(count), now_ms,
                  PacketSource::retransmission);
    }
}

// The Snap-Shot is complete: go on behind what it covers, with the packets held first.
void leave_snapshot(Live& live, std::int64_t now_ms) {
    live.joining = false;
    fmt::print(stderr, "tessel-listen: Snap-Shot of {} messages covers everything up to {}\n",
               live.snapshot.messages, live.snapshot.snapshot_sequence);
    receiver::start_at(live.listener.sequencer, live.snapshot.snapshot_sequence + 1);
    for (const std::vector<unsigned char>& packet : live.held) {
        on_packet(live.listener.sequencer, packet.data(), packet.size(), now_ms, PacketSource::multicast);
    }
    live.held.clear();
    live.held_bytes = 0;
}

void step_joining(Live& live, std::int64_t now_ms) {
    step_snapshot(live.snapshot, now_ms);
    if (live.snapshot.state == SnapshotState::done) {
        leave_snapshot(live, now_ms);
    } else if (live.snapshot.state == SnapshotState::failed) {
        fmt::print(stderr, "tessel-listen: Snap-Shot: {}\n", live.snapshot.error);
    }
}

void wait_for_input(Live& live, std::int64_t now_ms) {
    pollfd entries[3];
    nfds_t count = 0;
    entries[count++] = {live.multicast.fd, POLLIN, 0};
    if (live.replies_fd >= 0) {
        entries[count++] = {live.replies_fd, POLLIN, 0};
    }
    if (live.joining && snapshot_events(live.snapshot) != 0) {
        entries[count++] = {live.snapshot.fd, snapshot_events(live.snapshot), 0};
    }
    std::int64_t timeout_ms = wait_max_ms;
    const std::int64_t sequencer_ms = next_timer_ms(live.listener.sequencer, now_ms);
    if (sequencer_ms >= 0) {
        timeout_ms = std::min(timeout_ms, sequencer_ms + 1);
    }
    poll(entries, count, static_cast<int>(timeout_ms));
}

void update_view(Live& live, std::int64_t now_ms) {
    if (!live.listener.options.view || now_ms - live.last_view_ms < view_interval_ms) {
        return;
    }
    ViewStatus status;
    if (live.last_view_ms != 0) {
        status.messages_a_second = static_cast<double>(live.listener.messages - live.view_messages) * 1000.0 /
                                   static_cast<double>(now_ms - live.last_view_ms);
    }
    status.kernel_drops = live.listener.kernel_drops;
    status.note = live.joining ? "reading the Snap-Shot" : "";
    live.last_view_ms = now_ms;
    live.view_messages = live.listener.messages;
    show_view(render_view(live.listener.market, live.listener.sequencer.counters, status, terminal_size()));
}

// One pass: wait, take everything that came, ask or give up, write.
void run_one_pass(Live& live) {
    wait_for_input(live, static_cast<std::int64_t>(steady_ms()));
    const auto now_ms = static_cast<std::int64_t>(steady_ms());
    receive_multicast(live.multicast, datagrams_a_pass, [&](const unsigned char* bytes, std::size_t length) {
        take_multicast(live, bytes, length, now_ms);
    });
    read_replies(live, now_ms);
    if (live.joining) {
        step_joining(live, now_ms);
    } else {
        // Behind the reads: what waits in the sockets must not be asked for.
        on_timer(live.listener.sequencer, now_ms);
    }
    live.listener.kernel_drops = live.multicast.kernel_drops;
    if (live.listener.kernel_drops != 0 && !live.drops_reported && !live.listener.options.view) {
        live.drops_reported = true;
        report_kernel_drops(live.listener);
    }
    if (now_ms - live.last_flush_ms >= flush_interval_ms) {
        live.last_flush_ms = now_ms;
        flush_output(live.listener.output);
    }
    update_view(live, now_ms);
}

// The end has come, and no packet of the feed will say so: what is known to exist by now is still fetched.
void fetch_missing(Live& live) {
    Sequencer& sequencer = live.listener.sequencer;
    run_one_pass(live);  // what came before the signal may still wait in the socket
    live.listener.end_sequence = sequencer.highest;
    const auto begin_ms = static_cast<std::int64_t>(steady_ms());
    const int signals = stop_signals;
    while (sequencer.next < live.listener.end_sequence && stop_signals == signals &&
           static_cast<std::int64_t>(steady_ms()) - begin_ms < finish_max_ms) {
        run_one_pass(live);
    }
    abandon_gaps(sequencer);
}

bool open_sockets(Live& live, const Options& options) {
    std::string error;
    if (!receiver::open_multicast(live.multicast, options.group, options.port, options.iface,
                                  options.receive_buffer_bytes, error)) {
        fmt::print(stderr, "tessel-listen: {}\n", error);
        return false;
    }
    live.listener.socket_buffer_bytes = live.multicast.buffer_bytes;
    if (!options.retrans.empty()) {
        live.replies_fd = receiver::open_retransmission(options.retrans_address, reply_buffer_bytes, error);
        if (live.replies_fd < 0) {
            fmt::print(stderr, "tessel-listen: {}\n", error);
            return false;
        }
    }
    return true;
}

void prepare_snapshot(Live& live, const Options& options) {
    live.joining = !options.snapshot.empty();
    SnapshotSettings& settings = live.snapshot.settings;
    settings.server = options.snapshot_address;
    settings.user = options.user;
    settings.password = options.password;
    settings.session = options.session;
    settings.retries = options.retries;
    live.snapshot.message = [&live](const unsigned char* bytes, std::size_t length) {
        take_spin_message(live.listener, bytes, length);
    };
}

bool prepare_live(Live& live, const Options& options) {
    if (!open_sockets(live, options)) {
        return false;
    }
    std::function<void(const unsigned char*, std::size_t)> request;
    if (live.replies_fd >= 0) {
        // A request that cannot be sent is like one that was lost: it times out and is made again.
        request = [&live](const unsigned char* bytes, std::size_t length) {
            const ssize_t sent = send(live.replies_fd, bytes, length, MSG_NOSIGNAL);
            static_cast<void>(sent);
        };
    }
    if (!prepare_listener(live.listener, options, std::move(request))) {
        return false;
    }
    prepare_snapshot(live, options);
    return true;
}

}  // namespace

ExitStatus run_live(const Options& options) {
    if (options.view && isatty(STDOUT_FILENO) == 0) {
        fmt::print(stderr, "tessel-listen: --view needs a terminal on standard output\n");
        return ExitStatus::bad_options;
    }
    Live live;
    if (!prepare_live(live, options)) {
        return ExitStatus::bad_options;
    }
    catch_signals();
    fmt::print(stderr, "tessel-listen: joined {}:{} on {}, session {}, socket buffer {} bytes\n",
               options.group, options.port, options.iface, options.session, live.multicast.buffer_bytes);
    if (options.view) {
        open_view();
    }
    const auto begin_ms = static_cast<std::int64_t>(steady_ms());
    const auto limit_ms = static_cast<std::int64_t>(options.seconds * 1000.0);
    while (stop_signals == 0 && !live.listener.finished && live.snapshot.state != SnapshotState::failed &&
           (limit_ms == 0 || static_cast<std::int64_t>(steady_ms()) - begin_ms < limit_ms)) {
        run_one_pass(live);
    }
    live.listener.snapshot_failed = live.joining;
    if (!live.joining && !live.listener.finished) {
        fetch_missing(live);
    }
    if (options.view) {
        close_view();
    }
    close_snapshot(live.snapshot);
    close(live.multicast.fd);
    if (live.replies_fd >= 0) {
        close(live.replies_fd);
    }
    return finish_listener(live.listener);
}

}  // namespace tessel::listen
