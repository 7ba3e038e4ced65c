#pragma once

#include "engine/sip_engine.h"

#include <cstdint>
#include <string>

namespace tessel {

// The engine's way out: everything that it hands to the publisher.

// Appends the message that is in the engine's writer; returns its sequence number.
std::uint64_t publish_message(SipEngine& engine);

// Closes and sends the open packet, if there is one.
void flush_messages(SipEngine& engine);

// The sequence number of the last message, 0 before the first.
std::uint64_t last_sequence(const SipEngine& engine);

// "bench: EVENT at seq N" and what follows it, as one line on standard error; N is the last sequence number.
void announce(const SipEngine& engine, const std::string& event, const std::string& rest = {});

}  // namespace tessel
