#include "simulator/packet_audit.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>

namespace tessel::simulator {

namespace {

constexpr std::size_t header_bytes = 20;
constexpr std::size_t packet_max = 1500;

std::uint64_t field(const unsigned char* bytes, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value = value * 256 + bytes[i];
    }
    return value;
}

// Whether the packet's blocks are the messages of its numbers.
bool holds_its_messages(const PacketView& view, const std::vector<Bytes>& appended) {
    for (std::size_t i = 0; i < view.count; ++i) {
        const std::uint64_t sequence = view.first + i;
        if (sequence == 0 || sequence > appended.size()) {
            return false;
        }
        const Bytes& message = appended[sequence - 1];
        const auto& [bytes, length] = view.messages[i];
        if (!std::equal(message.begin(), message.end(), bytes, bytes + length)) {
            return false;
        }
    }
    return true;
}

// What should have become of every packet.
struct Replay {
    FaultInjector settings;
    std::uint64_t held = 0;  // first number of the packet held back, 0: none
    std::vector<std::uint64_t> sent;
    std::vector<std::string> lines;
    std::uint64_t dropped = 0;
    std::uint64_t duplicated = 0;
    std::uint64_t held_back = 0;
};

void apply_command(FaultInjector& settings, const FaultCommand& command) {
    std::uint32_t& target = command.word == "drop"         ? settings.pending_drops
                            : command.word == "dup"        ? settings.pending_dups
                            : command.word == "reorder"    ? settings.pending_reorders
                            : command.word == "drop_every" ? settings.drop_every
                            : command.word == "dup_every"  ? settings.dup_every
                                                           : settings.reorder_every;
    target = command.value;
}

bool due(std::uint32_t every, std::uint64_t number) {
    return every != 0 && number % every == 0;
}

void replay_packet(Replay& replay, std::uint64_t number, std::uint64_t first, std::uint64_t end) {
    FaultInjector& set = replay.settings;
    const bool in_burst = set.drop_burst_length != 0 && number >= set.drop_burst_start &&
                          number < set.drop_burst_start + set.drop_burst_length;
    const std::string seq = "seq " + std::to_string(first);
    if (due(set.drop_every, number) || in_burst || set.pending_drops != 0) {
        set.pending_drops -= set.pending_drops != 0 ? 1 : 0;
        ++replay.dropped;
        replay.lines.push_back("tessel fault: dropped " + seq + " (packet " + std::to_string(number) + ", " +
                               std::to_string(end - first) + " message(s))");
        return;
    }
    bool twice = due(set.dup_every, number);
    if (set.pending_dups != 0) {
        --set.pending_dups;
        twice = true;
    }
    if (due(set.reorder_every, number) || set.pending_reorders != 0) {
        set.pending_reorders -= set.pending_reorders != 0 ? 1 : 0;
        replay.held = first;
        ++replay.held_back;
        replay.lines.push_back("tessel fault: reordered " + seq + " (held behind the next packet)");
        return;
    }
    replay.sent.push_back(first);
    if (twice) {
        replay.sent.push_back(first);
        ++replay.duplicated;
        replay.lines.push_back("tessel fault: duplicated " + seq);
    }
    if (replay.held != 0) {
        replay.sent.push_back(replay.held);
        replay.held = 0;
    }
}

std::vector<std::string> fault_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.starts_with("tessel fault: ")) {
            lines.push_back(line);
        }
    }
    return lines;
}

// First numbers of all packets ever flushed: a packet is seen on the wire or in a line.
std::set<std::uint64_t> all_packets(const std::vector<std::uint64_t>& sent,
                                    const std::vector<std::string>& lines) {
    std::set<std::uint64_t> firsts(sent.begin(), sent.end());
    for (const std::string& line : lines) {
        const std::size_t at = line.find(" seq ");
        firsts.insert(at == std::string::npos ? 0 : std::stoull(line.substr(at + 5)));
    }
    return firsts;
}

template <class Entry>
std::string first_difference(const std::vector<Entry>& expected, const std::vector<Entry>& got) {
    const auto [left, right] = std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
    std::ostringstream text;
    text << "at " << left - expected.begin() << " of " << expected.size() << ": expected ";
    left == expected.end() ? text << "no more" : text << *left;
    right == got.end() ? text << ", got no more" : text << ", got " << *right;
    return text.str();
}

}  // namespace

bool read_packet(const Bytes& packet, const std::string& session, PacketView& view) {
    if (packet.size() < header_bytes || packet.size() > packet_max ||
        !std::equal(session.begin(), session.end(), packet.begin())) {
        return false;
    }
    view.first = field(packet.data() + 10, 8);
    view.count = field(packet.data() + 18, 2);
    view.messages.clear();
    std::size_t at = header_bytes;
    for (std::uint64_t i = 0; i < view.count; ++i) {
        if (packet.size() - at < 2 || packet.size() - at - 2 < field(packet.data() + at, 2)) {
            return false;
        }
        const std::size_t length = field(packet.data() + at, 2);
        view.messages.emplace_back(packet.data() + at + 2, length);
        at += 2 + length;
    }
    return at == packet.size();
}

void audit_packet(PacketAudit& audit, const Bytes& packet, const std::vector<Bytes>& appended,
                  std::uint64_t next_sequence, Violations& violations) {
    PacketView view;
    if (!read_packet(packet, audit.session, view)) {
        violations.report("packets", "a packet that is not well formed, after number " +
                                         std::to_string(audit.sent.empty() ? 0 : audit.sent.back()));
        return;
    }
    if (view.count == 0) {
        if (view.first != next_sequence) {
            violations.report("heartbeats", "a heartbeat says " + std::to_string(view.first) + ", next is " +
                                                std::to_string(next_sequence));
        }
        return;
    }
    audit.sent.push_back(view.first);
    if (!holds_its_messages(view, appended)) {
        violations.report("packets", "the packet of number " + std::to_string(view.first) +
                                         " does not hold the messages of its numbers");
    }
}

void audit_replies(const Bytes& request, const std::vector<Bytes>& replies, const std::string& session,
                   const std::vector<Bytes>& appended, Violations& violations) {
    std::uint64_t next = 1;
    std::uint64_t end = 1;
    if (request.size() >= header_bytes && std::equal(session.begin(), session.end(), request.begin())) {
        const std::uint64_t wanted = field(request.data() + 10, 8);
        const std::uint64_t most = field(request.data() + 18, 2);
        next = std::max<std::uint64_t>(wanted, 1);
        // Numbers that wrap around ask for nothing.
        end = std::min<std::uint64_t>(wanted + most, appended.size() + 1);
    }
    PacketView view;
    for (const Bytes& reply : replies) {
        const bool fits = read_packet(reply, session, view) && view.count > 0 && view.first == next &&
                          view.first + view.count <= end && holds_its_messages(view, appended);
        if (!fits) {
            violations.report("retransmission",
                              "a reply that is not what was asked for, at " + std::to_string(next));
            return;
        }
        next += view.count;
        if (next < end && reply.size() + 2 + appended[next - 1].size() <= packet_max) {
            violations.report("retransmission", "a reply with room for more, before " + std::to_string(next));
        }
    }
    if (next < end) {
        violations.report("retransmission",
                          "replies end at " + std::to_string(next) + " of " + std::to_string(end));
    }
}

void audit_faults(const PacketAudit& audit, const FaultInjector& initial, const std::string& error_text,
                  const MoldPublisher& publisher, Violations& violations) {
    const std::vector<std::string> lines = fault_lines(error_text);
    const std::set<std::uint64_t> firsts = all_packets(audit.sent, lines);
    if (firsts.size() != publisher.packets_flushed || (!firsts.empty() && *firsts.begin() != 1)) {
        violations.report("faults", std::to_string(publisher.packets_flushed) + " packets flushed, " +
                                        std::to_string(firsts.size()) + " seen or reported as lost");
    }
    Replay replay;
    replay.settings = initial;
    std::size_t command = 0;
    std::uint64_t number = 0;
    for (auto first = firsts.begin(); first != firsts.end(); ++first) {
        ++number;
        for (; command < audit.commands.size() && audit.commands[command].after_packet < number; ++command) {
            apply_command(replay.settings, audit.commands[command]);
        }
        const auto following = std::next(first);
        const std::uint64_t end =
            following == firsts.end() ? publisher.next_sequence - publisher.packet_count : *following;
        replay_packet(replay, number, *first, end);
    }
    for (; command < audit.commands.size(); ++command) {
        apply_command(replay.settings, audit.commands[command]);
    }
    if (replay.sent != audit.sent) {
        violations.report("faults", "packets sent differ " + first_difference(replay.sent, audit.sent));
    }
    if (replay.lines != lines) {
        violations.report("faults", "fault lines differ " + first_difference(replay.lines, lines));
    }
    const FaultInjector& left = publisher.faults;
    const FaultInjector& expected = replay.settings;
    if (left.drop_every != expected.drop_every || left.dup_every != expected.dup_every ||
        left.reorder_every != expected.reorder_every || left.pending_drops != expected.pending_drops ||
        left.pending_dups != expected.pending_dups || left.pending_reorders != expected.pending_reorders) {
        violations.report("faults", "settings or pending counts are not what the commands leave");
    }
    if (replay.dropped != publisher.faults_dropped || replay.duplicated != publisher.faults_duplicated ||
        replay.held_back != publisher.faults_reordered ||
        (replay.held != 0) == publisher.held_packet.empty()) {
        violations.report("faults", "fault counters are not the faults counted");
    }
}

}  // namespace tessel::simulator
