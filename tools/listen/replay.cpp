#include "listen/capture_join.h"
#include "listen/listener.h"
#include "listen/pcap_file.h"
#include "listen/report.h"
#include "listen/stop_signals.h"
#include "mold/packet.h"
#include "soup/soup_packet.h"

#include <fmt/format.h>

#include <arpa/inet.h>
#include <algorithm>
#include <map>

namespace tessel::listen {

using receiver::PacketSource;
using receiver::SoupPacket;
using receiver::SoupReader;

namespace {

constexpr std::int64_t ns_per_ms = 1'000'000;
constexpr std::int64_t begin_wait_ms = 1'500;  // of the capture's time, for replies about what came first
constexpr std::int64_t reply_wait_ms = 1'000;  // beyond the last attempt of a receiver
constexpr std::size_t decoded_sessions_max = 64;

// Kept of a capture's destinations beside the feed's: enough to name the one that was probably meant.
constexpr std::size_t destinations_max = 64;

// How far a receiver is that reads the capture.
enum class Stage : std::uint8_t {
    receiving,
    beginning,  // with --retrans: replies may hold numbers before the first multicast packet
    joining,    // with --snapshot: until a session is whole
};

struct Replay {
    Options options;
    Listener listener;
    std::vector<PcapFlow> lines;  // the destination of each
    Stage stage = Stage::receiving;
    HeldPackets held;
    CapturedSessions sessions;
    std::map<PcapFlow, SoupReader> decoded;  // with --decode: every session's messages, as they come
    std::map<std::pair<std::uint32_t, std::uint16_t>, std::uint64_t> others;  // datagrams to other groups
};

bool is_from(const PcapFlow& flow, const sockaddr_in& address) {
    return flow.source == ntohl(address.sin_addr.s_addr) && flow.source_port == ntohs(address.sin_port);
}

// Hands the held packets to the sequencer, each at its time.
void release_packets(Replay& replay) {
    replay.stage = Stage::receiving;
    const HeldPackets held = std::move(replay.held);
    replay.held = {};
    for (const HeldPacket& packet : held.packets) {
        on_packet(replay.listener.sequencer, packet.bytes.data(), packet.bytes.size(),
                  {packet.now_ms, packet.source, packet.line, packet.stamp_ns});
        on_timer(replay.listener.sequencer, packet.now_ms);
    }
}

void begin_receiving(Replay& replay) {
    const std::uint64_t first = first_number(replay.held, receiver::padded_session(replay.options.session));
    if (first != 0) {
        start_at(replay.listener.sequencer, first);
    }
    release_packets(replay);
}

// The line that the datagram came on; their number when it came on none. In a capture the interface
// does not distinguish lines.
std::size_t line_of(const Replay& replay, const PcapFlow& flow) {
    std::size_t line = 0;
    while (line < replay.lines.size() && (flow.destination != replay.lines[line].destination ||
                                          flow.destination_port != replay.lines[line].destination_port)) {
        ++line;
    }
    return line;
}

void count_other(Replay& replay, const PcapFlow& flow) {
    const std::pair destination{flow.destination, flow.destination_port};
    if (replay.others.size() < destinations_max || replay.others.contains(destination)) {
        ++replay.others[destination];
    }
}

// Where nothing came for the feed's group, the group that the options probably meant to name.
void report_others(const Replay& replay) {
    const auto most = std::max_element(replay.others.begin(), replay.others.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    if (replay.listener.sequencer.counters.packets != 0 || most == replay.others.end()) {
        return;
    }
    const auto& [address, port] = most->first;
    const in_addr network{htonl(address)};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &network, text, sizeof text);
    report(fmt::format("the capture has {} packets to {}:{}; --mcast and --port name the feed's",
                       most->second, text, port));
}

void take_datagram(Replay& replay, const PcapFlow& flow, std::int64_t time_ns, const unsigned char* bytes,
                   std::size_t length) {
    const Options& options = replay.options;
    const std::int64_t now_ms = time_ns / ns_per_ms;
    PacketSource source = PacketSource::multicast;
    std::size_t line = line_of(replay, flow);
    if (line == replay.lines.size()) {
        if (options.retrans.empty() || !is_from(flow, options.retrans_address)) {
            count_other(replay, flow);
            return;
        }
        source = PacketSource::retransmission;
        line = 0;
    }
    if (replay.stage == Stage::receiving) {
        on_packet(replay.listener.sequencer, bytes, length, {now_ms, source, line, time_ns});
        on_timer(replay.listener.sequencer, now_ms);
        return;
    }
    if (replay.stage == Stage::beginning && !replay.held.packets.empty() &&
        now_ms - replay.held.packets.front().now_ms > begin_wait_ms) {
        begin_receiving(replay);
        take_datagram(replay, flow, time_ns, bytes, length);
        return;
    }
    hold_packet(replay.held, {source, now_ms, {bytes, bytes + length}, line, time_ns});
}

// Whether a held packet brings nothing beyond what the Snap-Shot covers.
bool is_covered(const HeldPacket& packet, std::uint64_t covered) {
    if (packet.bytes.size() < mold_header_bytes) {
        return true;
    }
    const unsigned char* bytes = packet.bytes.data();
    const std::uint64_t count = mold_count(bytes);
    return mold_sequence(bytes) + (count == mold_end_of_session_count ? 0 : count) <= covered + 1;
}

// With --decode: the messages inside every Snap-Shot session, written as they come.
void decode_stream(Replay& replay, const PcapFlow& flow, const unsigned char* bytes, std::size_t length) {
    if (replay.decoded.find(flow) == replay.decoded.end() && replay.decoded.size() == decoded_sessions_max) {
        replay.decoded.erase(replay.decoded.begin());
    }
    SoupReader& reader = replay.decoded[flow];
    soup_append(reader, bytes, length);
    SoupPacket packet;
    bool broken = false;
    while (soup_next(reader, packet, &broken)) {
        if (packet.type == soup_sequenced_data) {
            take_captured_spin_message(replay.listener, packet.payload, packet.length);
        }
    }
}

// Without: the first whole session is where a late receiver begins.
void join_by_stream(Replay& replay, const PcapFlow& flow, const unsigned char* bytes, std::size_t length) {
    std::uint64_t covered = 0;
    const std::uint64_t before = replay.listener.spin_messages;
    const auto message = [&replay](const unsigned char* text, std::size_t text_length) {
        take_spin_message(replay.listener, text, text_length);
    };
    if (!add_session_bytes(replay.sessions, flow, bytes, length, message, covered)) {
        return;
    }
    report(fmt::format("Snap-Shot of {} messages covers everything up to {}",
                       replay.listener.spin_messages - before, covered));
    start_at(replay.listener.sequencer, covered + 1);
    std::erase_if(replay.held.packets,
                  [covered](const HeldPacket& packet) { return is_covered(packet, covered); });
    release_packets(replay);
}

PcapSinks make_sinks(Replay& replay) {
    PcapSinks sinks;
    sinks.datagram = [&replay](const PcapFlow& flow, std::int64_t time_ns, const unsigned char* bytes,
                               std::size_t length) { take_datagram(replay, flow, time_ns, bytes, length); };
    sinks.wants_stream = [&replay](const PcapFlow& flow) {
        return !replay.options.snapshot.empty() && is_from(flow, replay.options.snapshot_address) &&
               (replay.options.decode || replay.stage == Stage::joining);
    };
    sinks.stream = [&replay](const PcapFlow& flow, std::int64_t, const unsigned char* bytes,
                             std::size_t length) {
        if (replay.options.decode) {
            decode_stream(replay, flow, bytes, length);
        } else if (replay.stage == Stage::joining) {
            join_by_stream(replay, flow, bytes, length);
        }
    };
    sinks.stops = [] { return stop_signals() != 0; };
    return sinks;
}

// Says what the capture did not hold whole; true when there was such a thing.
bool report_losses(const PcapCounters& counters) {
    if (counters.cut != 0) {
        report(fmt::format("{} packets cut", counters.cut));
    }
    if (counters.incomplete != 0) {
        report(fmt::format("{} packets whose fragments never completed", counters.incomplete));
    }
    return counters.cut != 0 || counters.incomplete != 0;
}

}  // namespace

ExitStatus run_replay(const Options& options) {
    Replay replay;
    replay.options = options;
    for (const LineOption& line : lines_of(options)) {
        in_addr group{};
        inet_pton(AF_INET, line.group.c_str(), &group);
        replay.lines.push_back({0, ntohl(group.s_addr), 0, line.port});
    }
    Listener& listener = replay.listener;
    if (!prepare_listener(listener, options, nullptr)) {
        return ExitStatus::bad_options;
    }
    if (!options.retrans.empty()) {
        // As long as a live receiver would have asked for a reply.
        receiver::SequencerSettings& settings = listener.sequencer.settings;
        settings.abandon_ms = std::max(
            settings.abandon_ms, (std::int64_t{options.retries} + 1) * options.timeout_ms + reply_wait_ms);
    }
    if (!options.snapshot.empty() && !options.decode) {
        replay.stage = Stage::joining;
    } else if (!options.retrans.empty() && options.first_sequence == 0) {
        replay.stage = Stage::beginning;
    }
    catch_stop_signals();
    PcapCounters counters;
    std::string error;
    const PcapResult result = read_pcap(options.from_pcap, make_sinks(replay), counters, error);
    if (result == PcapResult::refused) {
        report(error);
        close_output(listener.output);
        return ExitStatus::bad_options;
    }
    if (replay.stage == Stage::joining) {
        report(fmt::format("no whole Snap-Shot session of {} in the capture", options.snapshot));
        listener.snapshot_failed = true;
    } else if (replay.stage == Stage::beginning) {
        begin_receiving(replay);
    }
    abandon_gaps(listener.sequencer);
    listener.capture_damaged = report_losses(counters) || result == PcapResult::broken;
    if (result == PcapResult::broken) {
        report(error);
    }
    report_others(replay);
    return finish_listener(listener);
}

}  // namespace tessel::listen
