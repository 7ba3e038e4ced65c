#include "certify/traffic_packets.h"

#include "mold/packet.h"

#include <algorithm>
#include <cstring>

namespace tessel::certify {

namespace {

constexpr std::size_t category_at = 1;
constexpr std::size_t market_center_at = 3;
constexpr std::uint64_t foreign_heartbeat_ahead = 1000;
constexpr std::uint64_t promised_messages = 100;
constexpr std::size_t recent_packets_max = 10'000;
constexpr std::int64_t nanoseconds_a_millisecond = 1'000'000;

// Offsets of the messages of a whole packet.
std::vector<std::size_t> blocks_of(const Packet& packet) {
    std::vector<std::size_t> blocks;
    std::size_t at = mold_header_bytes;
    for (std::size_t left = mold_count(packet.data()); left > 0; --left) {
        blocks.push_back(at + block_prefix_bytes);
        at += block_prefix_bytes + read_big_endian(packet.data() + at, block_prefix_bytes);
    }
    return blocks;
}

std::size_t block_bytes(const Packet& packet, std::size_t message) {
    return static_cast<std::size_t>(
        read_big_endian(packet.data() + message - block_prefix_bytes, block_prefix_bytes));
}

void set_sequence(Packet& packet, std::uint64_t sequence) {
    write_big_endian(packet.data() + mold_sequence_at, sequence, 8);
}

std::uint64_t next_sequence(const Packet& packet) {
    return mold_sequence(packet.data()) + mold_count(packet.data());
}

Packet oversize(const Packet& packet) {
    Packet large(datagram_bytes_max, 'x');
    std::copy_n(packet.begin(), mold_header_bytes, large.begin());
    std::fill_n(large.begin(), mold_session_bytes, 'X');
    return large;
}

Packet random_bytes(Random& random) {
    constexpr std::int64_t noise_bytes_max = 1500;
    Packet bytes(static_cast<std::size_t>(uniform_int(random, 1, noise_bytes_max)));
    for (unsigned char& each : bytes) {
        each = static_cast<unsigned char>(next_u64(random));
    }
    return bytes;
}

void add(GroupTraffic& traffic, std::vector<OutgoingPacket>& out, Packet bytes) {
    ++traffic.added;
    out.push_back({0, std::move(bytes)});
}

bool is_turn(const GroupTraffic& traffic, const TrafficSettings& settings) {
    return traffic.packets % number_of(settings, "every") == 0;
}

void add_late_heartbeat(GroupTraffic& traffic, const TrafficSettings& settings,
                        std::vector<OutgoingPacket>& out) {
    const std::uint64_t back = number_of(settings, "back");
    if (traffic.packets == number_of(settings, "after") && traffic.recent.size() > back) {
        const Packet& old = traffic.recent[traffic.recent.size() - 1 - back];
        Packet heartbeat(old.begin(), old.begin() + mold_header_bytes);
        write_big_endian(heartbeat.data() + mold_count_at, 0, 2);
        add(traffic, out, std::move(heartbeat));
    }
}

// What a kind adds after a packet with messages.
void add_beside(GroupTraffic& traffic, const TrafficSettings& settings, const Packet& packet,
                std::vector<OutgoingPacket>& out) {
    if (settings.kind == TrafficKind::late_heartbeat) {
        add_late_heartbeat(traffic, settings, out);
        return;
    }
    if (stands_between(settings.kind) || !is_turn(traffic, settings)) {
        return;
    }
    switch (settings.kind) {
        case TrafficKind::foreign_session:
            add(traffic, out, foreign_copy(packet, text_of(settings, "change") == "last"));
            break;
        case TrafficKind::malformed:
            add(traffic, out, malformed_copy(packet, text_of(settings, "how"), traffic.packets));
            break;
        case TrafficKind::empty: add(traffic, out, {}); break;
        case TrafficKind::oversize: add(traffic, out, oversize(packet)); break;
        case TrafficKind::noise: add(traffic, out, random_bytes(traffic.random)); break;
        case TrafficKind::replay:
            if (traffic.recent.size() > number_of(settings, "back")) {
                add(traffic, out, traffic.recent[traffic.recent.size() - 1 - number_of(settings, "back")]);
            }
            break;
        default: break;
    }
}

// The packet on its way through: changed, cut into pieces, late.
void forward(GroupTraffic& traffic, Packet packet, std::vector<OutgoingPacket>& out) {
    std::int64_t delay_ns = 0;
    bool splits = false;
    for (const TrafficSettings& settings : traffic.settings) {
        if (settings.kind == TrafficKind::unknown_type) {
            traffic.changed += replace_types(packet, text_of(settings, "from"), text_of(settings, "to"));
        } else if (settings.kind == TrafficKind::delay && mold_count(packet.data()) != 0 &&
                   is_turn(traffic, settings)) {
            delay_ns = static_cast<std::int64_t>(number_of(settings, "ms")) * nanoseconds_a_millisecond;
            ++traffic.changed;
        } else if (settings.kind == TrafficKind::split) {
            splits = true;
        }
    }
    if (!splits) {
        out.push_back({delay_ns, std::move(packet)});
        return;
    }
    ++traffic.changed;
    for (Packet& piece : split_packet(packet)) {
        out.push_back({delay_ns, std::move(piece)});
    }
}

}  // namespace

bool is_whole_packet(const Packet& packet) {
    if (packet.size() < mold_header_bytes) {
        return false;
    }
    std::size_t at = mold_header_bytes;
    for (std::size_t left = mold_count(packet.data()); left > 0; --left) {
        if (packet.size() - at < block_prefix_bytes) {
            return false;
        }
        const std::size_t length =
            static_cast<std::size_t>(read_big_endian(packet.data() + at, block_prefix_bytes));
        if (packet.size() - at - block_prefix_bytes < length) {
            return false;
        }
        at += block_prefix_bytes + length;
    }
    return true;
}

Packet foreign_copy(const Packet& packet, bool last) {
    Packet copy = packet;
    unsigned char& differs = copy[mold_session_bytes - 1];
    differs = differs == 'Z' ? 'Y' : 'Z';
    if (!last) {
        std::memcpy(copy.data(), "OTHERFEED", mold_session_bytes - 1);
    }
    if (mold_count(packet.data()) == 0) {
        set_sequence(copy, mold_sequence(packet.data()) + foreign_heartbeat_ahead);
        return copy;
    }
    set_sequence(copy, next_sequence(packet));
    for (const std::size_t message : blocks_of(packet)) {
        if (block_bytes(packet, message) > market_center_at) {
            unsigned char& center = copy[message + market_center_at];
            center = center == 'Q' ? 'N' : 'Q';
        }
    }
    return copy;
}

Packet malformed_copy(const Packet& packet, std::string_view how, std::uint64_t turn) {
    constexpr std::uint64_t header_turns = mold_header_bytes - 1;
    Packet copy = packet;
    if (how == "header") {
        copy.resize(turn % header_turns + 1);
    } else if (how == "count") {
        write_big_endian(copy.data() + mold_count_at, mold_count(packet.data()) + promised_messages, 2);
    } else if (how == "length") {
        set_sequence(copy, next_sequence(packet));
        write_big_endian(copy.data() + mold_header_bytes, 0xffff, block_prefix_bytes);
    } else {
        const std::size_t message = mold_header_bytes + block_prefix_bytes;
        set_sequence(copy, next_sequence(packet));
        copy.resize(message + block_bytes(packet, message) / 2);
    }
    return copy;
}

std::size_t replace_types(Packet& packet, std::string_view from, std::string_view to) {
    std::size_t replaced = 0;
    for (const std::size_t message : blocks_of(packet)) {
        if (block_bytes(packet, message) > market_center_at &&
            std::memcmp(packet.data() + message + category_at, from.data(), 2) == 0) {
            std::memcpy(packet.data() + message + category_at, to.data(), 2);
            ++replaced;
        }
    }
    return replaced;
}

std::vector<Packet> split_packet(const Packet& packet) {
    std::vector<Packet> pieces;
    std::uint64_t sequence = mold_sequence(packet.data());
    for (const std::size_t message : blocks_of(packet)) {
        Packet& piece = pieces.emplace_back(packet.begin(), packet.begin() + mold_header_bytes);
        set_sequence(piece, sequence++);
        write_big_endian(piece.data() + mold_count_at, 1, 2);
        const auto block = packet.begin() + static_cast<std::ptrdiff_t>(message - block_prefix_bytes);
        piece.insert(piece.end(), block,
                     block + static_cast<std::ptrdiff_t>(block_prefix_bytes + block_bytes(packet, message)));
    }
    if (pieces.empty()) {
        pieces.push_back(packet);
    }
    return pieces;
}

GroupTraffic make_group_traffic(const std::vector<TrafficSettings>& settings, bool forwards) {
    GroupTraffic traffic;
    traffic.settings = settings;
    traffic.forwards = forwards;
    for (const TrafficSettings& each : settings) {
        if (each.kind == TrafficKind::noise) {
            seed_random(traffic.random, number_of(each, "seed"));
        } else if (each.kind == TrafficKind::replay || each.kind == TrafficKind::late_heartbeat) {
            const auto back = static_cast<std::size_t>(number_of(each, "back"));
            traffic.recent_max = std::min(std::max(traffic.recent_max, back + 1), recent_packets_max);
        }
    }
    return traffic;
}

void on_feed_packet(GroupTraffic& traffic, const unsigned char* bytes, std::size_t length,
                    std::vector<OutgoingPacket>& out) {
    Packet packet(bytes, bytes + length);
    if (!is_whole_packet(packet)) {
        if (traffic.forwards) {
            out.push_back({0, std::move(packet)});
        }
        return;
    }
    const bool is_heartbeat = mold_count(packet.data()) == 0;
    traffic.packets += is_heartbeat ? 0 : 1;
    if (traffic.forwards) {
        forward(traffic, packet, out);
    }
    if (!is_heartbeat && traffic.recent_max != 0) {
        traffic.recent.push_back(packet);
        if (traffic.recent.size() > traffic.recent_max) {
            traffic.recent.pop_front();
        }
    }
    for (const TrafficSettings& settings : traffic.settings) {
        if (!is_heartbeat) {
            add_beside(traffic, settings, packet, out);
        } else if (settings.kind == TrafficKind::foreign_session) {
            add(traffic, out, foreign_copy(packet, text_of(settings, "change") == "last"));
        }
    }
}

}  // namespace tessel::certify
