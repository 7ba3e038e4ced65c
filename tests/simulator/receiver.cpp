#include "simulator/receiver.h"

#include "mold/retransmission_server.h"

#include <algorithm>
#include <limits>

namespace tessel::simulator {

namespace {

constexpr std::int64_t finish_step_ms = 300;  // beyond the sequencer's time-out
constexpr int finish_steps_max = 2000;

void collect(void* context, const unsigned char* packet, std::size_t length) {
    static_cast<std::vector<Bytes>*>(context)->emplace_back(packet, packet + length);
}

void take_message(Receiver& receiver, std::uint64_t sequence, const unsigned char* bytes,
                  std::size_t length) {
    if (receiver.hides_next) {
        receiver.hides_next = false;
        ++receiver.next;
        return;
    }
    const Bytes& message = receiver.appended->at(sequence - 1);
    if (sequence != receiver.next || !std::equal(message.begin(), message.end(), bytes, bytes + length)) {
        receiver.violations->report("receivers", "got number " + std::to_string(sequence) + ", " +
                                                     std::to_string(receiver.next) + " was next, or changed");
    }
    receiver.next = sequence + 1;
    ++receiver.taken;
    if (receiver.is_joiner) {
        receiver::apply_message(receiver.market, bytes, length, sequence);
    }
}

std::uint64_t serve_requests(Receiver& receiver, std::int64_t now_ms) {
    std::uint64_t served = 0;
    for (; !receiver.requests.empty(); receiver.requests.pop_front()) {
        const Bytes& request = receiver.requests.front();
        std::vector<Bytes> replies;
        answer_request(*receiver.publisher, request.data(), request.size(), {collect, &replies});
        audit_replies(request, replies, receiver.session, *receiver.appended, *receiver.violations);
        ++served;
        for (const Bytes& reply : replies) {
            if (receiver.random.below(100) >= receiver.loss_percent) {
                on_packet(receiver.sequencer, reply.data(), reply.size(), now_ms,
                          receiver::PacketSource::retransmission);
            }
        }
    }
    return served;
}

}  // namespace

void start_receiver(Receiver& receiver, std::uint64_t first) {
    Receiver* const self = &receiver;
    receiver::SequencerSettings settings;
    settings.session = receiver.session;
    settings.can_request = true;
    settings.retries = std::numeric_limits<unsigned>::max();
    settings.first_sequence = first;
    receiver::SequencerSinks sinks;
    sinks.message = [self](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
        take_message(*self, sequence, bytes, length);
    };
    sinks.lost = [self](std::uint64_t lost, std::uint64_t count) {
        self->violations->report("receivers",
                                 "abandoned " + std::to_string(count) + " from " + std::to_string(lost));
    };
    sinks.request = [self](const unsigned char* bytes, std::size_t length) {
        self->requests.emplace_back(bytes, bytes + length);
    };
    receiver.first = first;
    receiver.next = first;
    receiver.sequencer = receiver::make_sequencer(std::move(settings), std::move(sinks));
}

void offer_packet(Receiver& receiver, const Bytes& packet, std::int64_t now_ms) {
    if (receiver.random.below(100) >= receiver.loss_percent) {
        on_packet(receiver.sequencer, packet.data(), packet.size(), now_ms,
                  receiver::PacketSource::multicast);
    }
}

std::uint64_t pass_time(Receiver& receiver, std::int64_t now_ms) {
    receiver::on_timer(receiver.sequencer, now_ms);
    return serve_requests(receiver, now_ms);
}

std::uint64_t finish_receiver(Receiver& receiver, std::int64_t now_ms) {
    std::uint64_t requests = 0;
    for (int step = 0; step < finish_steps_max && !nothing_missing(receiver.sequencer); ++step) {
        now_ms += finish_step_ms;
        requests += pass_time(receiver, now_ms);
    }
    const std::uint64_t expected = receiver.appended->size() + 1 - receiver.first;
    if (receiver.taken != expected || receiver.sequencer.counters.lost != 0) {
        receiver.violations->report("receivers", "a recovered receiver holds " +
                                                     std::to_string(receiver.taken) + " of " +
                                                     std::to_string(expected) + " messages");
    }
    return requests;
}

}  // namespace tessel::simulator
