#pragma once

#include "capture/wire.h"
#include "mold/publisher.h"
#include "mold/sequencer.h"

#include <cstdint>
#include <string>
#include <vector>

// A second receiver: it receives what the capture records, and requests the rest from the retransmission
// service.
namespace tessel::capture {

struct Repair {
    bool wanted = false;
    Wire* wire = nullptr;
    MoldPublisher* publisher = nullptr;
    receiver::Sequencer sequencer;
    std::vector<std::vector<unsigned char>> requests;  // made and not yet sent
    std::int64_t now_ms = 0;                           // since the start
};

// Sets the receiver up; it begins with number 1. The repair must stay where it is.
void begin_repair(Repair& repair, Wire& wire, MoldPublisher& publisher, const std::string& session);

// Takes a multicast packet that was just recorded.
void hear_multicast(Repair& repair, std::span<const unsigned char> packet);

// Sends the requests that are due and records the replies. Called after each pass; now_ms since the start.
void step_repair(Repair& repair, std::int64_t now_ms);

// When step_repair has something to do, milliseconds since the start; INT64_MAX when nothing is missing.
std::int64_t next_repair_ms(const Repair& repair);

}  // namespace tessel::capture
