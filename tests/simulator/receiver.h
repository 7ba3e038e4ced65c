#pragma once

#include "mold/sequencer.h"
#include "receiver/market_state.h"
#include "simulator/packet_audit.h"

#include <cstdint>
#include <deque>
#include <vector>

namespace tessel::simulator {

// A receiver that loses packets on both ways in. It requests what it misses until it has everything, and
// holds each message against what was appended. A late joiner also keeps a market, begun by a spin.
struct Receiver {
    receiver::Sequencer sequencer;
    MoldPublisher* publisher = nullptr;
    const std::vector<Bytes>* appended = nullptr;
    Violations* violations = nullptr;
    std::string session;
    SplitMix random;
    unsigned loss_percent = 0;
    bool is_joiner = false;
    receiver::Market market;
    std::uint64_t first = 1;  // number that it began with
    std::uint64_t next = 1;   // number of the message that must come next
    std::uint64_t taken = 0;
    bool hides_next = false;  // planted: drops one message that the sequencer passed on
    std::deque<Bytes> requests;
};

// Makes it ready to take packets, beginning with number first. It must stay where it is from then on.
void start_receiver(Receiver& receiver, std::uint64_t first);

// A multicast packet, unless it is lost on the way.
void offer_packet(Receiver& receiver, const Bytes& packet, std::int64_t now_ms);

// Lets time pass: what is missing is asked for and the answers are taken. Returns the requests that were
// made.
std::uint64_t pass_time(Receiver& receiver, std::int64_t now_ms);

// After the run's last packet: asks on until nothing is missing, then everything must be there. now_ms goes
// on.
std::uint64_t finish_receiver(Receiver& receiver, std::int64_t now_ms);

}  // namespace tessel::simulator
