#include "listen/live.h"

#include "listen/report.h"
#include "listen/stop_signals.h"
#include "listen/terminal_view.h"

#include <fmt/format.h>

#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>

namespace tessel::listen {

using receiver::MulticastSocket;
using receiver::PacketArrival;
using receiver::PacketSource;
using receiver::Sequencer;
using receiver::SnapshotClient;
using receiver::SnapshotSettings;
using receiver::SnapshotState;
using receiver::WaitingPacket;

namespace {

constexpr std::size_t datagrams_a_pass = 1024;
constexpr std::int64_t wait_max_ms = 50;
constexpr std::int64_t flush_interval_ms = 200;
constexpr std::int64_t view_interval_ms = 250;
// For what is still missing at the end: after a signal, which a second one cuts short, and after --seconds.
constexpr std::int64_t finish_max_ms = 60'000;
constexpr std::int64_t finish_after_limit_ms = 1'000;
constexpr std::int64_t stall_notice_ms = 5'000;     // without a step of the Snap-Shot service
constexpr std::size_t held_bytes_max = 256u << 20;  // packets that come while the Snap-Shot is read
constexpr int reply_buffer_bytes = 4 << 20;

// With --latency: what is handed out from here on is taken now.
void note_taken(Live& live) {
    if (live.listener.latency) {
        live.listener.taken_ns = wall_ns(live.clock);
    }
}

void take_multicast(Live& live, const unsigned char* bytes, std::size_t length,
                    const PacketArrival& arrival) {
    if (!live.joining) {
        note_taken(live);
        on_packet(live.listener.sequencer, bytes, length, arrival);
    } else if (live.held_bytes + length <= held_bytes_max) {
        live.held.push_back({{bytes, bytes + length}, arrival});
        live.held_bytes += length;
    }
}

void read_lines(Live& live, std::int64_t now_ms) {
    live.listener.kernel_drops = 0;
    for (std::size_t line = 0; line < live.lines.size(); ++line) {
        MulticastSocket& socket = live.lines[line];
        receive_multicast(socket, datagrams_a_pass, [&](const unsigned char* bytes, std::size_t length) {
            take_multicast(live, bytes, length, {now_ms, PacketSource::multicast, line, socket.stamp_ns});
        });
        live.listener.kernel_drops += socket.kernel_drops;
    }
}

void read_replies(Live& live, std::int64_t now_ms) {
    unsigned char bytes[2048];
    for (std::size_t i = 0; live.replies_fd >= 0 && i < datagrams_a_pass; ++i) {
        const ssize_t count = recv(live.replies_fd, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count < 0) {
            return;  // nothing waits, or the service is not there: then its replies time out
        }
        on_packet(live.listener.sequencer, bytes, static_cast<std::size_t>(count), now_ms,
                  PacketSource::retransmission);
    }
}

// Replies to requests of the old run that wait in the socket must not fill gaps of the new one.
void discard_replies(int fd) {
    unsigned char bytes[2048];
    while (fd >= 0 && recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) >= 0) {}
}

// The Snap-Shot is complete: go on after what it covers, with the packets held first.
void leave_snapshot(Live& live, std::int64_t now_ms) {
    live.joining = false;
    report(fmt::format("Snap-Shot of {} messages covers everything up to {}", live.snapshot.messages,
                       live.snapshot.snapshot_sequence));
    receiver::start_at(live.listener.sequencer, live.snapshot.snapshot_sequence + 1);
    note_taken(live);
    for (WaitingPacket& packet : live.held) {
        packet.arrival.now_ms = now_ms;
        on_packet(live.listener.sequencer, packet.bytes.data(), packet.bytes.size(), packet.arrival);
    }
    live.held.clear();
    live.held_bytes = 0;
}

void step_joining(Live& live, std::int64_t now_ms) {
    step_snapshot(live.snapshot, now_ms);
    if (live.snapshot.state == SnapshotState::done) {
        leave_snapshot(live, now_ms);
    } else if (live.snapshot.state == SnapshotState::failed) {
        report("Snap-Shot: " + live.snapshot.error);
    } else if (!live.stall_reported && snapshot_stall_ms(live.snapshot, now_ms) >= stall_notice_ms) {
        live.stall_reported = true;
        report(fmt::format("Snap-Shot: waiting for {} since {} s, at most {} s (--snapshot-timeout)",
                           snapshot_awaited(live.snapshot), stall_notice_ms / 1000,
                           live.listener.options.snapshot_timeout_seconds));
    }
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

bool open_sockets(Live& live, const Options& options) {
    std::string error;
    const std::vector<LineOption> lines = lines_of(options);
    for (const LineOption& line : lines) {
        MulticastSocket socket;
        if (!receiver::open_multicast(socket, line.group, line.port,
                                      line.iface.empty() ? options.iface : line.iface,
                                      options.receive_buffer_bytes, error)) {
            report(error);
            return false;
        }
        live.lines.push_back(socket);
        if ((lines.size() > 1 || options.latency) && !stamp_datagrams(socket)) {
            report("the kernel does not stamp datagrams (SO_TIMESTAMPNS): no --latency, no --line");
            return false;
        }
    }
    live.listener.socket_buffer_bytes = live.lines.front().buffer_bytes;
    if (!options.retrans.empty()) {
        live.replies_fd = receiver::open_retransmission(options.retrans_address, reply_buffer_bytes, error);
        if (live.replies_fd < 0) {
            report(error);
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
    settings.timeout_ms = options.snapshot_timeout_seconds * 1000;
    live.snapshot.message = [&live](const unsigned char* bytes, std::size_t length) {
        take_spin_message(live.listener, bytes, length);
    };
    live.snapshot.restarted = [&live] {
        report(
            fmt::format("Snap-Shot broke off after {} messages; it is fetched anew", live.snapshot.messages));
        live.listener.market = {};
    };
}

}  // namespace

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
    live.listener.after_restart = [&live] { discard_replies(live.replies_fd); };
    prepare_snapshot(live, options);
    return true;
}

std::int64_t add_wait(const Live& live, std::vector<pollfd>& entries, std::int64_t now_ms) {
    for (const MulticastSocket& line : live.lines) {
        entries.push_back({line.fd, POLLIN, 0});
    }
    if (live.replies_fd >= 0) {
        entries.push_back({live.replies_fd, POLLIN, 0});
    }
    if (live.joining && snapshot_events(live.snapshot) != 0) {
        entries.push_back({live.snapshot.fd, snapshot_events(live.snapshot), 0});
    }
    const std::int64_t sequencer_ms = next_timer_ms(live.listener.sequencer, now_ms);
    return sequencer_ms >= 0 ? std::min(wait_max_ms, sequencer_ms + 1) : wait_max_ms;
}

void on_input(Live& live) {
    const auto now_ms = static_cast<std::int64_t>(steady_ms());
    read_lines(live, now_ms);
    note_taken(live);
    read_replies(live, now_ms);
    if (live.joining) {
        step_joining(live, now_ms);
    } else {
        // After the reads: what waits in the sockets must not be asked for.
        on_timer(live.listener.sequencer, now_ms);
    }
    if (live.listener.latency) {
        report_latency_second(*live.listener.latency, live.listener.taken_ns);
    }
    if (live.listener.kernel_drops != 0 && !live.drops_reported && !live.listener.options.view) {
        live.drops_reported = true;
        report_kernel_drops(live.listener);
    }
    if (now_ms - live.last_flush_ms >= flush_interval_ms) {
        live.last_flush_ms = now_ms;
        for (Output* output : {&live.listener.output, &live.listener.times}) {
            flush_output(*output);
            check_output(*output);
        }
    }
    update_view(live, now_ms);
}

bool is_finished(const Live& live) {
    return live.listener.finished || live.snapshot.state == SnapshotState::failed ||
           !live.listener.output.error.empty() || !live.listener.times.error.empty();
}

bool is_complete(const Live& live) {
    return live.joining || is_finished(live) || live.listener.sequencer.next >= live.listener.end_sequence ||
           live.listener.restarts != live.restarts_before_end;
}

void begin_end(Live& live) {
    live.listener.snapshot_failed = live.joining;
    if (live.joining || live.listener.finished || !live.listener.output.error.empty()) {
        return;
    }
    live.restarts_before_end = live.listener.restarts;
    on_input(live);  // what came before the end may still wait in the socket
    live.listener.end_sequence = live.listener.sequencer.highest;
}

void complete_end(Live& live) {
    if (live.listener.end_sequence != UINT64_MAX) {
        abandon_gaps(live.listener.sequencer);
    }
}

std::int64_t end_wait_ms(int signals) {
    return signals != 0 ? finish_max_ms : finish_after_limit_ms;
}

void close_live(Live& live) {
    close_snapshot(live.snapshot);
    for (const MulticastSocket& line : live.lines) {
        close(line.fd);
    }
    if (live.replies_fd >= 0) {
        close(live.replies_fd);
    }
}

}  // namespace tessel::listen
