#pragma once

#include "market/sip_engine.h"
#include "msg/message_writer.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace tessel {

// In front of every message of a spin: a SoupBinTCP Sequenced Data packet's length (2 bytes, big-endian,
// counting the type) and type.
constexpr std::size_t sequenced_header_bytes = 3;
constexpr char sequenced_data_type = 'S';

// A spin as it goes over the wire: one flat run of Sequenced Data packets. It is kept from spin to spin and
// takes its memory anew only when a spin may need more than any before: its size follows from the market, not
// from the number of logins.
struct SpinBuffer {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t size = 0;
    std::size_t capacity = 0;
    MessageWriter writer;  // each message is built here
};

// Builds the messages that put a receiver, who applies them in order, where one stands who saw everything:
// retained control messages as they were published; then, stamped with spin_time_ns throughout, directory,
// trading status, decline levels, price bands, collars and every centre's quote. Counts the snapshot. The
// market is not touched and no sequence number is used. O(instruments x centres). The end-of-snapshot message
// is not in it yet.
void build_spin(SpinBuffer& spin, SipEngine& engine, std::uint64_t spin_time_ns);

// Closes the spin by the message that tells the number of the last message published before it.
void append_end_of_snapshot(SpinBuffer& spin, std::uint64_t spin_time_ns, std::uint64_t last_sequence);

// The messages without their framing, in order, as views into the buffer: how a test reads a spin.
//
//     build_spin(spin, engine, now_ns);
//     for (std::span<const unsigned char> message : spin_messages(spin)) { ... }
std::vector<std::span<const unsigned char>> spin_messages(const SpinBuffer& spin);

}  // namespace tessel
