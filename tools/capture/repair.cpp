#include "capture/repair.h"

#include "mold/retransmission_server.h"

namespace tessel::capture {

namespace {

void take_reply(void* context, const unsigned char* packet, std::size_t length) {
    Repair& repair = *static_cast<Repair*>(context);
    Wire& wire = *repair.wire;
    record_udp(wire, wire.retransmission, wire.client, {packet, length});
    on_packet(repair.sequencer, packet, length, repair.now_ms, receiver::PacketSource::retransmission);
}

}  // namespace

void begin_repair(Repair& repair, Wire& wire, MoldPublisher& publisher, const std::string& session) {
    repair.wanted = true;
    repair.wire = &wire;
    repair.publisher = &publisher;
    receiver::SequencerSettings settings;
    settings.session = session;
    settings.first_sequence = 1;
    settings.can_request = true;
    receiver::SequencerSinks sinks;
    sinks.message = [](std::uint64_t, const unsigned char*, std::size_t) {};
    sinks.lost = [](std::uint64_t, std::uint64_t) {};
    sinks.request = [&repair](const unsigned char* bytes, std::size_t length) {
        repair.requests.emplace_back(bytes, bytes + length);
    };
    repair.sequencer = make_sequencer(std::move(settings), std::move(sinks));
}

void hear_multicast(Repair& repair, std::span<const unsigned char> packet) {
    on_packet(repair.sequencer, packet.data(), packet.size(), repair.now_ms,
              receiver::PacketSource::multicast);
}

void step_repair(Repair& repair, std::int64_t now_ms) {
    repair.now_ms = now_ms;
    on_timer(repair.sequencer, now_ms);
    // The replies come only now: the sequencer is not to be entered from inside itself.
    for (const std::vector<unsigned char>& request : repair.requests) {
        Wire& wire = *repair.wire;
        record_udp(wire, wire.client, wire.retransmission, request);
        answer_request(*repair.publisher, request.data(), request.size(), {take_reply, &repair});
    }
    repair.requests.clear();
}

std::int64_t next_repair_ms(const Repair& repair) {
    const std::int64_t wait_ms = repair.wanted ? next_timer_ms(repair.sequencer, repair.now_ms) : -1;
    return wait_ms < 0 ? INT64_MAX : repair.now_ms + wait_ms;
}

}  // namespace tessel::capture
