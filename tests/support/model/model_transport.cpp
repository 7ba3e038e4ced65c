// Sequence numbers, packets, heartbeats and the faults done to packets.

#include "support/model/model.h"
#include "support/model/model_wire.h"

namespace tessel::model {

namespace {

constexpr std::size_t packet_bytes_max = 1500;
constexpr std::size_t packet_header_bytes = 20;

bool multiple(std::uint64_t number, std::uint32_t period) {
    return period != 0 && number % period == 0;
}

unsigned long long ull(std::uint64_t v) {
    return v;
}

}  // namespace

std::uint64_t Model::append(const std::string& message) {
    messages.push_back(message);
    auto fits = [&] {
        return packet_header_bytes + open_packet.size() + 2 + message.size() <= packet_bytes_max &&
               open_count != 65534;
    };
    if (!fits()) {
        flush();
    }
    if (fits()) {
        open_packet += Bytes().num(message.size(), 2).bytes + message;
        ++open_count;
    }
    return next_sequence++;
}

std::string Model::header_of(std::uint64_t sequence, std::uint16_t count) const {
    return options.session + Bytes().num(sequence, 8).num(count, 2).bytes;
}

void Model::flush() {
    if (open_count == 0) {
        return;
    }
    ++packets_flushed;
    send_or_damage(packets_flushed, header_of(open_first, open_count) + open_packet, open_count);
    open_packet.clear();
    open_count = 0;
    open_first = next_sequence;
    last_flush_ms = static_cast<std::int64_t>(steady_ms);
}

void Model::send_or_damage(std::uint64_t number, const std::string& packet, std::size_t count) {
    const unsigned long long first = ull(next_sequence - count);
    const bool in_burst = faults.drop_burst_length != 0 && number >= faults.drop_burst_start &&
                          number < faults.drop_burst_start + faults.drop_burst_length;
    if (multiple(number, faults.drop_every) || in_burst || faults.pending_drops != 0) {
        if (faults.pending_drops != 0) {
            --faults.pending_drops;
        }
        ++dropped;
        say("tessel fault: dropped seq %llu (packet %llu, %u message(s))\n", first, ull(number),
            static_cast<unsigned>(count));
        return;
    }
    bool twice = multiple(number, faults.dup_every);
    if (faults.pending_dups != 0) {
        --faults.pending_dups;
        twice = true;
    }
    if (multiple(number, faults.reorder_every) || faults.pending_reorders != 0) {
        if (faults.pending_reorders != 0) {
            --faults.pending_reorders;
        }
        held = packet;
        ++reordered;
        say("tessel fault: reordered seq %llu (held behind the next packet)\n", first);
        return;
    }
    packets.push_back(packet);
    if (twice) {
        packets.push_back(packet);
        ++duplicated;
        say("tessel fault: duplicated seq %llu\n", first);
    }
    if (!held.empty()) {
        packets.push_back(held);
        held.clear();
    }
}

void Model::heartbeat(std::uint64_t now_ms) {
    if (static_cast<std::int64_t>(now_ms) - last_flush_ms < 1000) {
        return;
    }
    flush();
    packets.push_back(header_of(next_sequence, 0));
    open_first = next_sequence;
    last_flush_ms = static_cast<std::int64_t>(steady_ms);
}

}  // namespace tessel::model
