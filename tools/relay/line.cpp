#include "relay/line.h"

#include "relay/repack.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace tessel::relay {

namespace {

constexpr std::size_t header_bytes = 20;
constexpr std::size_t session_bytes = 10;
constexpr unsigned end_of_session_count = 0xFFFF;
constexpr unsigned char foreign_session[session_bytes + 1] = "FOREIGN000";

bool happens(Line& line, double chance) {
    if (chance <= 0) {
        return false;
    }
    const double draw = uniform_real(line.random);
    return draw < chance;
}

std::string messages_text(unsigned messages) {
    return messages == 0 ? "heartbeat"
                         : std::to_string(messages) + (messages == 1 ? " message" : " messages");
}

void report(Line& line, std::string_view kind, const WaitingPacket& packet, const std::string& detail = {}) {
    if (line.sinks.fault) {
        line.sinks.fault(kind, packet.first, detail.empty() ? messages_text(packet.messages) : detail);
    }
}

// A standard normal deviate by the polar method; the second of the pair is not kept.
double normal_deviate(Line& line) {
    for (;;) {
        const double u = uniform_real(line.random);
        const double v = uniform_real(line.random);
        const double x = (2 * u) - 1;
        const double y = (2 * v) - 1;
        const double s = (x * x) + (y * y);
        if (s > 0 && s < 1) {
            return x * std::sqrt(-2 * std::log(s) / s);
        }
    }
}

std::int64_t draw_delay(Line& line) {
    std::int64_t sum = 0;
    for (const Delay& delay : line.impairments.delays) {
        switch (delay.kind) {
            case DelayKind::fixed: sum += delay.first_ns; break;
            case DelayKind::uniform: sum += uniform_int(line.random, delay.first_ns, delay.second_ns); break;
            case DelayKind::normal: {
                const double deviate = normal_deviate(line);
                const double drawn =
                    static_cast<double>(delay.first_ns) + deviate * static_cast<double>(delay.second_ns);
                sum += std::llround(std::max(0.0, drawn));
                break;
            }
            case DelayKind::spike:
                if (happens(line, delay.chance)) {
                    sum += delay.first_ns;
                }
                break;
        }
    }
    return sum;
}

bool is_dark(const Line& line, std::int64_t now_ns) {
    const std::int64_t since = now_ns - line.begun_ns;
    return line.begun && since >= line.impairments.dark_begin_ns && since < line.impairments.dark_end_ns;
}

bool holds_listed_number(const Line& line, const WaitingPacket& packet) {
    const std::uint64_t last = packet.first + packet.messages - 1;
    return packet.messages != 0 && std::any_of(line.impairments.sequences.begin(),
                                               line.impairments.sequences.end(), [&](const auto& range) {
                                                   return range.first <= last && range.second >= packet.first;
                                               });
}

// The chain steps before the packet is looked at, so that a burst begins with the packet that begins it.
bool lost_in_burst(Line& line) {
    if (line.impairments.burst_begin <= 0) {
        line.in_burst = false;
        return false;
    }
    if (happens(line, line.in_burst ? line.impairments.burst_end : line.impairments.burst_begin)) {
        line.in_burst = !line.in_burst;
    }
    return line.in_burst;
}

bool is_lost(Line& line, const WaitingPacket& packet, std::int64_t now_ns) {
    if (is_dark(line, now_ns)) {
        report(line, "dark", packet);
        return true;
    }
    const bool is_every =
        packet.messages != 0 && line.impairments.every != 0 && line.packets % line.impairments.every == 0;
    const bool random_loss = happens(line, line.impairments.drop);
    const bool burst_loss = lost_in_burst(line);
    if (is_every || random_loss || burst_loss || holds_listed_number(line, packet)) {
        report(line, "dropped", packet);
        return true;
    }
    return false;
}

// The first number that is held back; the number itself when none below it is.
std::uint64_t first_held_back(const Line& line, std::uint64_t number) {
    for (const auto& [key, packet] : line.waiting) {
        if (packet.messages != 0) {
            number = std::min(number, packet.first);
        }
    }
    for (const HeldPacket& held : line.held) {
        number = std::min(number, held.packet.first);
    }
    return number;
}

void write_number(unsigned char* bytes, std::uint64_t number) {
    for (std::size_t at = 0; at < 8; ++at) {
        bytes[session_bytes + at] = static_cast<unsigned char>(number >> (8 * (7 - at)));
    }
}

void hand_out(Line& line, std::int64_t due_ns, const unsigned char* bytes, std::size_t length) {
    ++line.counters.sent;
    line.last_sent_ns = due_ns;
    line.sinks.send(due_ns, bytes, length);
}

void hand_out_waiting(Line& line, std::int64_t due_ns, WaitingPacket& packet) {
    if (packet.messages == 0 && packet.bytes.size() == header_bytes) {
        // A heartbeat with the number of a message that comes later would show a loss that is none.
        write_number(packet.bytes.data(), first_held_back(line, packet.first));
    }
    hand_out(line, due_ns, packet.bytes.data(), packet.bytes.size());
}

// Sends the packet at its time: immediately when that has come and nothing waits before it.
void schedule(Line& line, WaitingPacket packet, std::int64_t due_ns, std::int64_t now_ns) {
    if (due_ns <= now_ns && line.waiting.empty()) {
        hand_out_waiting(line, due_ns, packet);
        return;
    }
    if (line.waiting_bytes + packet.bytes.size() > waiting_bytes_max) {
        ++line.counters.queue_drops;
        report(line, "queue full", packet);
        return;
    }
    line.waiting_bytes += packet.bytes.size();
    line.waiting.emplace(std::pair{due_ns, line.arrivals++}, std::move(packet));
}

// When the rate limit lets the packet go; false when its queue is full.
bool pass_rate_limit(Line& line, std::size_t bytes, std::int64_t now_ns, std::int64_t& leaves_ns) {
    leaves_ns = now_ns;
    if (line.impairments.rate_bits <= 0) {
        return true;
    }
    while (!line.departures.empty() && line.departures.front() <= now_ns) {
        line.departures.pop_front();
    }
    if (line.departures.size() > line.impairments.queue_packets) {
        return false;
    }
    const double seconds = static_cast<double>(bytes) * 8 / line.impairments.rate_bits;
    line.free_ns = std::max(line.free_ns, now_ns) + std::llround(seconds * 1e9);
    line.departures.push_back(line.free_ns);
    leaves_ns = line.free_ns;
    return true;
}

// Counts a packet that goes for those that wait for it.
void count_for_held(Line& line, std::int64_t due_ns, std::int64_t now_ns) {
    for (std::size_t at = 0; at < line.held.size();) {
        HeldPacket& held = line.held[at];
        if (--held.later_packets > 0) {
            ++at;
            continue;
        }
        WaitingPacket packet = std::move(held.packet);
        const std::int64_t delayed = std::max(due_ns, now_ns + held.delay_ns);
        line.held.erase(line.held.begin() + static_cast<std::ptrdiff_t>(at));
        schedule(line, std::move(packet), delayed, now_ns);
    }
}

void flip_bit(Line& line, WaitingPacket& packet) {
    const auto bits = static_cast<std::int64_t>(packet.bytes.size() * 8);
    const auto bit = static_cast<std::size_t>(uniform_int(line.random, 0, bits - 1));
    packet.bytes[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
    ++line.counters.corrupted;
    report(line, "corrupted", packet, "bit " + std::to_string(bit) + " flipped");
}

void truncate(Line& line, WaitingPacket& packet) {
    const auto left = uniform_int(line.random, 0, static_cast<std::int64_t>(packet.bytes.size()) - 1);
    const std::size_t whole = packet.bytes.size();
    packet.bytes.resize(static_cast<std::size_t>(left));
    ++line.counters.truncated;
    report(line, "truncated", packet, std::to_string(left) + " of " + std::to_string(whole) + " bytes left");
}

void add_foreign(Line& line, const WaitingPacket& packet, std::int64_t due_ns, std::int64_t now_ns) {
    WaitingPacket copy = packet;
    std::memcpy(copy.bytes.data(), foreign_session, std::min(copy.bytes.size(), session_bytes));
    ++line.counters.foreign;
    report(line, "foreign", packet);
    schedule(line, std::move(copy), due_ns, now_ns);
}

// A packet with messages that is not lost.
void pass_on(Line& line, WaitingPacket packet, std::int64_t now_ns) {
    std::int64_t leaves_ns = now_ns;
    if (!pass_rate_limit(line, packet.bytes.size(), now_ns, leaves_ns)) {
        ++line.counters.queue_drops;
        report(line, "queue full", packet);
        return;
    }
    const std::int64_t delay_ns = draw_delay(line);
    const std::int64_t due_ns = leaves_ns + delay_ns;
    const WaitingPacket original = packet;
    if (happens(line, line.impairments.flip_bit)) {
        flip_bit(line, packet);
    }
    if (happens(line, line.impairments.truncate)) {
        truncate(line, packet);
    }
    if (happens(line, line.impairments.foreign)) {
        add_foreign(line, original, due_ns, now_ns);
    }
    const bool twice = happens(line, line.impairments.duplicate);
    if (happens(line, line.impairments.reorder)) {
        ++line.counters.reordered;
        report(line, "reordered", original,
               "held for " + std::to_string(line.impairments.reorder_distance) + " later");
        line.held.push_back({std::move(packet), due_ns - now_ns, line.impairments.reorder_distance + 1});
    } else {
        if (twice) {
            schedule(line, packet, due_ns, now_ns);
            ++line.counters.duplicated;
            report(line, "duplicated", original);
        }
        schedule(line, std::move(packet), due_ns, now_ns);
    }
    count_for_held(line, due_ns, now_ns);
}

void take_packet(Line& line, WaitingPacket packet, std::int64_t now_ns) {
    if (packet.messages != 0) {
        ++line.packets;
        line.next_sequence = std::max(line.next_sequence, packet.first + packet.messages);
    }
    if (is_lost(line, packet, now_ns)) {
        ++line.counters.dropped;
        return;
    }
    if (packet.messages == 0) {
        line.next_sequence = std::max(line.next_sequence, packet.first);
        const std::int64_t delay_ns = draw_delay(line);
        schedule(line, std::move(packet), now_ns + delay_ns, now_ns);
        return;
    }
    pass_on(line, std::move(packet), now_ns);
}

}  // namespace

Line make_line(std::string name, Impairments impairments, std::uint64_t seed, LineSinks sinks) {
    Line line;
    // FNV-1a: two lines of one seed draw differently, and the same name draws the same in every run.
    std::uint64_t hash = 0xcbf29ce484222325u;
    for (const char letter : name) {
        hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001b3u;
    }
    seed_random(line.random, seed ^ hash);
    line.name = std::move(name);
    line.impairments = std::move(impairments);
    line.sinks = std::move(sinks);
    return line;
}

void offer(Line& line, const unsigned char* bytes, std::size_t length, std::int64_t now_ns) {
    ++line.counters.received;
    if (!line.begun) {
        line.begun = true;
        line.begun_ns = now_ns;
        line.last_sent_ns = now_ns;
    }
    send_due(line, now_ns);
    PacketHead head;
    if (!read_head(bytes, length, head)) {
        // Not a packet of this protocol: it passes as it is.
        hand_out(line, now_ns, bytes, length);
        return;
    }
    std::memcpy(line.session, bytes, session_bytes);
    if (is_clean(line.impairments) && line.waiting.empty() && line.held.empty()) {
        line.next_sequence = std::max(line.next_sequence, head.first + head.messages);
        hand_out(line, now_ns, bytes, length);
        return;
    }
    for_each_part(
        bytes, length, line.impairments.payload_bytes_max,
        [&](const unsigned char* part, std::size_t part_length) {
            PacketHead part_head;
            read_head(part, part_length, part_head);
            take_packet(line, {{part, part + part_length}, part_head.first, part_head.messages}, now_ns);
        });
}

void send_due(Line& line, std::int64_t now_ns) {
    while (true) {
        const std::int64_t due_ns = next_due_ns(line);
        if (due_ns > now_ns) {
            return;
        }
        if (line.waiting.empty() || line.waiting.begin()->first.first > due_ns) {
            unsigned char heartbeat[header_bytes] = {};
            std::memcpy(heartbeat, line.session, session_bytes);
            write_number(heartbeat, first_held_back(line, line.next_sequence));
            if (is_dark(line, due_ns)) {
                line.last_sent_ns = due_ns;
            } else {
                hand_out(line, due_ns, heartbeat, sizeof heartbeat);
            }
            continue;
        }
        const auto first = line.waiting.begin();
        WaitingPacket packet = std::move(first->second);
        line.waiting_bytes -= packet.bytes.size();
        line.waiting.erase(first);
        hand_out_waiting(line, due_ns, packet);
    }
}

std::int64_t next_due_ns(const Line& line) {
    std::int64_t due_ns = std::numeric_limits<std::int64_t>::max();
    if (!line.waiting.empty()) {
        due_ns = line.waiting.begin()->first.first;
    }
    if (!line.waiting.empty() || !line.held.empty()) {
        due_ns = std::min(due_ns, line.last_sent_ns + heartbeat_ns);
    }
    return due_ns;
}

void release_held(Line& line, std::int64_t now_ns) {
    std::deque<HeldPacket> held;
    held.swap(line.held);
    for (HeldPacket& each : held) {
        schedule(line, std::move(each.packet), now_ns + each.delay_ns, now_ns);
    }
}

void send_end_of_session(Line& line, std::int64_t now_ns) {
    unsigned char packet[header_bytes] = {};
    std::memcpy(packet, line.session, session_bytes);
    write_number(packet, line.next_sequence);
    packet[18] = static_cast<unsigned char>(end_of_session_count >> 8);
    packet[19] = static_cast<unsigned char>(end_of_session_count & 0xFF);
    hand_out(line, now_ns, packet, sizeof packet);
}

std::string counters_text(const LineCounters& counters) {
    std::string text;
    for (const auto& [name, value] : {std::pair<const char*, std::uint64_t>{"received", counters.received},
                                      {"sent", counters.sent},
                                      {"dropped", counters.dropped},
                                      {"duplicated", counters.duplicated},
                                      {"reordered", counters.reordered},
                                      {"corrupted", counters.corrupted},
                                      {"truncated", counters.truncated},
                                      {"foreign", counters.foreign},
                                      {"queue_drops", counters.queue_drops}}) {
        text += (text.empty() ? "" : " ") + std::string(name) + "=" + std::to_string(value);
    }
    return text;
}

}  // namespace tessel::relay
