#pragma once

#include "mold/publisher.h"
#include "simulator/plan.h"
#include "simulator/violations.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::simulator {

// The rules of the packets: each is well formed and holds the messages of its numbers, and what was dropped,
// duplicated or held is what the settings ask for, reported line by line.

// A control command that set a fault, and the last packet that went before it.
struct FaultCommand {
    std::uint64_t after_packet = 0;
    std::string word;  // "drop", "dup_every", ...
    std::uint32_t value = 0;
};

struct PacketAudit {
    std::string session;              // as ten characters
    std::vector<std::uint64_t> sent;  // first number of every data packet, in sending order
    std::vector<FaultCommand> commands;
};

// A downstream packet's header and where its blocks lie.
struct PacketView {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    std::vector<std::pair<const unsigned char*, std::size_t>> messages;
};

// False when the packet is not well formed: too long, another session, blocks that do not fill it.
bool read_packet(const Bytes& packet, const std::string& session, PacketView& view);

// Checks one multicast packet against every message that was appended; a heartbeat must carry next_sequence.
void audit_packet(PacketAudit& audit, const Bytes& packet, const std::vector<Bytes>& appended,
                  std::uint64_t next_sequence, Violations& violations);

// Checks one request's replies: all messages wanted that there are, in order, as few packets as they fit in.
void audit_replies(const Bytes& request, const std::vector<Bytes>& replies, const std::string& session,
                   const std::vector<Bytes>& appended, Violations& violations);

// At the end of a run: works out anew what should have happened to every packet and compares it with the
// packets sent, the fault lines on standard error and the counters. `initial` are the settings at start.
void audit_faults(const PacketAudit& audit, const FaultInjector& initial, const std::string& error_text,
                  const MoldPublisher& publisher, Violations& violations);

}  // namespace tessel::simulator
