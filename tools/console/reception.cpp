#include "console/reception.h"

#include "base/clock.h"
#include "console/report.h"
#include "mold/packet.h"

#include <fmt/format.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

namespace tessel::console {

using receiver::PacketArrival;
using receiver::PacketSource;
using receiver::SnapshotState;

namespace {

constexpr int receive_buffer_bytes = 32 << 20;
constexpr int reply_buffer_bytes = 4 << 20;
constexpr std::size_t datagrams_a_pass = 1024;
constexpr std::int64_t wait_max_ms = 50;
constexpr std::int64_t measure_interval_ms = 1'000;
constexpr std::size_t held_bytes_max = 256u << 20;
constexpr std::int64_t snapshot_timeout_ms = 15'000;

std::int64_t now_steady_ms() {
    return static_cast<std::int64_t>(steady_ms());
}

std::uint64_t now_wall_ns() {
    Clock clock;
    return wall_ns(clock);
}

// A retransmitted message says nothing about a packet's transit; of a packet the first message is measured,
// which has waited longest.
void measure_latency(Reception& reception) {
    reception.packet_is_new = false;
    const PacketArrival& arrival = reception.sequencer.delivering;
    if (arrival.source != PacketSource::multicast || arrival.stamp_ns <= 0) {
        return;
    }
    const std::uint64_t sip_ns = reception.book.market.message.header.sip_time_ns;
    const auto kernel_ns = static_cast<std::uint64_t>(arrival.stamp_ns);
    const auto record = [&reception](LatencyStage stage) -> LatencyRecord& {
        return reception.latency[static_cast<std::size_t>(stage)];
    };
    note_latency(record(LatencyStage::sip_to_kernel), sip_ns, kernel_ns);
    note_latency(record(LatencyStage::kernel_to_taken), kernel_ns, reception.taken_ns);
    note_latency(record(LatencyStage::sip_to_taken), sip_ns, reception.taken_ns);
}

void take_message(Reception& reception, std::uint64_t sequence, const unsigned char* bytes,
                  std::size_t length) {
    if (reception.phase == ReceptionPhase::joining) {
        return;  // the rest of a packet that began a new run: the Snap-Shot will have it
    }
    apply_to_book(reception.book, bytes, length, sequence,
                  [&reception](MarketEvent&& event) { reception.events.push_back(std::move(event)); });
    if (reception.packet_is_new) {
        measure_latency(reception);
    }
}

void begin_joining(Reception& reception) {
    receiver::SnapshotSettings settings;
    settings.server = reception.settings.snapshot;
    settings.user = "CONSOL";
    settings.session = reception.settings.session;
    settings.timeout_ms = snapshot_timeout_ms;
    close_snapshot(reception.snapshot);
    reception.snapshot = {};
    reception.snapshot.settings = std::move(settings);
    reception.snapshot.message = [&reception](const unsigned char* bytes, std::size_t length) {
        apply_to_book(reception.book, bytes, length, 0, [](MarketEvent&&) {});
    };
    reception.book = {};
    reception.phase = ReceptionPhase::joining;
}

// Replies to requests of the old run that wait in the socket must not fill gaps of the new one.
void discard_replies(int fd) {
    unsigned char bytes[2048];
    while (fd >= 0 && recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) >= 0) {}
}

void on_restart(Reception& reception, std::uint64_t first) {
    report("the feed was started again under the same session: the market begins anew");
    ++reception.runs;
    reception.book = {};
    discard_replies(reception.replies_fd);
    // With a retransmission service the sequencer asks for what is missing from number 1 on.
    if (reception.settings.has_snapshot && !reception.settings.has_retrans && first > 1) {
        begin_joining(reception);
    }
}

void deliver(Reception& reception, const unsigned char* bytes, std::size_t length,
             const PacketArrival& arrival) {
    reception.packet_is_new = true;
    on_packet(reception.sequencer, bytes, length, arrival);
    reception.packet_is_new = false;
}

bool is_of_session(const Reception& reception, const unsigned char* bytes, std::size_t length) {
    return length >= mold_header_bytes &&
           std::memcmp(bytes, reception.session.data(), reception.session.size()) == 0;
}

void take_packet(Reception& reception, const unsigned char* bytes, std::size_t length,
                 const PacketArrival& arrival) {
    if (is_of_session(reception, bytes, length)) {
        reception.heard_ms = arrival.now_ms;
        if (reception.phase == ReceptionPhase::waiting) {
            begin_joining(reception);
        }
    }
    if (reception.phase != ReceptionPhase::joining) {
        reception.taken_ns = now_wall_ns();
        deliver(reception, bytes, length, arrival);
    } else if (reception.held_bytes + length <= held_bytes_max) {
        reception.held.push_back({{bytes, bytes + length}, arrival});
        reception.held_bytes += length;
    } else {
        ++reception.held_lost;
    }
}

// The Snap-Shot is complete or cannot be had: go on with the packets held.
void end_joining(Reception& reception, std::int64_t now_ms) {
    if (reception.snapshot.state == SnapshotState::done) {
        report(fmt::format("Snap-Shot of {} messages covers everything up to {}", reception.snapshot.messages,
                           reception.snapshot.snapshot_sequence));
        receiver::start_at(reception.sequencer, reception.snapshot.snapshot_sequence + 1);
    } else {
        report("Snap-Shot: " + reception.snapshot.error + "; going on without it");
    }
    close_snapshot(reception.snapshot);
    reception.phase = ReceptionPhase::live;
    reception.taken_ns = now_wall_ns();
    std::deque<receiver::WaitingPacket> held = std::exchange(reception.held, {});
    reception.held_bytes = 0;
    for (receiver::WaitingPacket& packet : held) {
        packet.arrival.now_ms = now_ms;
        packet.arrival.stamp_ns = 0;  // it waited for the Snap-Shot: no latency of the feed
        on_packet(reception.sequencer, packet.bytes.data(), packet.bytes.size(), packet.arrival);
    }
}

void read_replies(Reception& reception, std::int64_t now_ms) {
    unsigned char bytes[2048];
    for (std::size_t i = 0; reception.replies_fd >= 0 && i < datagrams_a_pass; ++i) {
        const ssize_t count = recv(reception.replies_fd, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count < 0) {
            return;  // nothing waits, or the service is not there: then its replies time out
        }
        on_packet(reception.sequencer, bytes, static_cast<std::size_t>(count), now_ms,
                  PacketSource::retransmission);
    }
}

void wait_for_input(Reception& reception, std::int64_t now_ms) {
    pollfd entries[4];
    nfds_t count = 0;
    entries[count++] = {reception.socket.fd, POLLIN, 0};
    entries[count++] = {reception.board->wake_fd, POLLIN, 0};
    if (reception.replies_fd >= 0) {
        entries[count++] = {reception.replies_fd, POLLIN, 0};
    }
    if (reception.phase == ReceptionPhase::joining && snapshot_events(reception.snapshot) != 0) {
        entries[count++] = {reception.snapshot.fd, snapshot_events(reception.snapshot), 0};
    }
    std::int64_t timeout_ms = wait_max_ms;
    const std::int64_t sequencer_ms = next_timer_ms(reception.sequencer, now_ms);
    if (sequencer_ms >= 0) {
        timeout_ms = std::min(timeout_ms, sequencer_ms + 1);
    }
    poll(entries, count, static_cast<int>(timeout_ms));
}

void answer_requests(Reception& reception) {
    const auto requests = take_requests(*reception.board);
    for (const auto& request : requests) {
        request->found = make_detail(reception.book, request->symbol, request->detail);
    }
    if (!requests.empty()) {
        finish_requests(*reception.board, requests);
    }
}

ReceiverPicture make_receiver_picture(const Reception& reception) {
    const receiver::SequencerCounters& counters = reception.sequencer.counters;
    ReceiverPicture picture;
    picture.messages = counters.delivered;
    picture.packets = counters.packets;
    picture.gaps = counters.gaps;
    picture.recovered = counters.recovered;
    picture.lost = counters.lost;
    picture.requests = counters.requests;
    picture.duplicates = counters.duplicate_packets;
    picture.reordered = counters.reordered_packets;
    picture.kernel_drops = reception.socket.kernel_drops + reception.held_lost;
    picture.undecoded = reception.book.market.undecoded;
    picture.ignored = reception.book.ignored;
    return picture;
}

// Rates over the last second, and once a second what is expensive to make.
void measure(Reception& reception, std::int64_t now_ms) {
    const receiver::SequencerCounters& counters = reception.sequencer.counters;
    std::deque<RateMark>& marks = reception.rate_marks;
    marks.push_back({now_ms, counters.delivered, counters.packets});
    while (marks.size() > 2 && now_ms - marks[1].at_ms >= 1'000) {
        marks.pop_front();
    }
    const RateMark& first = marks.front();
    if (now_ms > first.at_ms) {
        const double seconds = static_cast<double>(now_ms - first.at_ms) / 1000.0;
        reception.messages_a_second = static_cast<double>(counters.delivered - first.messages) / seconds;
        reception.packets_a_second = static_cast<double>(counters.packets - first.packets) / seconds;
    }
    if (now_ms - reception.measured_ms >= measure_interval_ms) {
        reception.measured_ms = now_ms;
        for (std::size_t stage = 0; stage < latency_stages; ++stage) {
            if (reception.latency_pictures[stage].total != reception.latency[stage].histogram.total) {
                reception.latency_pictures[stage] = make_latency_picture(reception.latency[stage]);
            }
        }
    }
}

void publish(Reception& reception, std::int64_t now_ms) {
    measure(reception, now_ms);
    auto picture = std::make_shared<Picture>();
    picture->up = reception.heard_ms >= 0 && now_ms - reception.heard_ms < silence_max_ms;
    picture->next_sequence = reception.sequencer.started ? reception.sequencer.highest : 0;
    picture->runs = reception.runs;
    picture->receiver = make_receiver_picture(reception);
    picture->messages_a_second = reception.messages_a_second;
    picture->packets_a_second = reception.packets_a_second;
    picture->latency = reception.latency_pictures;
    picture->rows = std::make_shared<const std::vector<Row>>(make_rows(reception.book));
    publish_picture(*reception.board, std::move(picture));
}

}  // namespace

bool open_reception(Reception& reception, const ReceptionSettings& settings, Board& board,
                    std::string& error) {
    reception.settings = settings;
    reception.session = receiver::padded_session(settings.session);
    reception.board = &board;
    if (!receiver::open_multicast(reception.socket, settings.group, settings.port, settings.iface,
                                  receive_buffer_bytes, error)) {
        return false;
    }
    // Without stamps there are no latencies; everything else goes on.
    stamp_datagrams(reception.socket);
    receiver::SequencerSinks sinks;
    if (settings.has_retrans) {
        reception.replies_fd = receiver::open_retransmission(settings.retrans, reply_buffer_bytes, error);
        if (reception.replies_fd < 0) {
            return false;
        }
        // A request that cannot be sent is like one that was lost: it times out and is made again.
        sinks.request = [&reception](const unsigned char* bytes, std::size_t length) {
            const ssize_t sent = send(reception.replies_fd, bytes, length, MSG_NOSIGNAL);
            static_cast<void>(sent);
        };
    }
    sinks.message = [&reception](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
        take_message(reception, sequence, bytes, length);
    };
    sinks.lost = [](std::uint64_t, std::uint64_t) {};  // the sequencer counts
    sinks.restarted = [&reception](std::uint64_t first) { on_restart(reception, first); };
    receiver::SequencerSettings sequencing;
    sequencing.session = settings.session;
    sequencing.can_request = settings.has_retrans;
    reception.sequencer = receiver::make_sequencer(std::move(sequencing), std::move(sinks));
    reception.phase = settings.has_snapshot ? ReceptionPhase::waiting : ReceptionPhase::live;
    return true;
}

void step_reception(Reception& reception) {
    wait_for_input(reception, now_steady_ms());
    const std::int64_t now_ms = now_steady_ms();
    receive_multicast(reception.socket, datagrams_a_pass,
                      [&](const unsigned char* bytes, std::size_t length) {
                          take_packet(reception, bytes, length,
                                      {now_ms, PacketSource::multicast, 0, reception.socket.stamp_ns});
                      });
    read_replies(reception, now_ms);
    if (reception.phase == ReceptionPhase::joining) {
        step_snapshot(reception.snapshot, now_ms);
        if (!snapshot_pending(reception.snapshot)) {
            end_joining(reception, now_ms);
        }
    } else {
        // After the reads: what waits in the sockets must not be asked for.
        on_timer(reception.sequencer, now_ms);
    }
    add_events(*reception.board, reception.events);
    answer_requests(reception);
    if (now_ms - reception.published_ms >= publish_interval_ms) {
        reception.published_ms = now_ms;
        publish(reception, now_ms);
    }
}

void run_reception(Reception& reception, const std::atomic<bool>& stop) {
    while (!stop) {
        step_reception(reception);
    }
}

void close_reception(Reception& reception) {
    close_snapshot(reception.snapshot);
    for (int* const fd : {&reception.socket.fd, &reception.replies_fd}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}

}  // namespace tessel::console
