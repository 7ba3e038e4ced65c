#pragma once

#include "engine/sip_engine.h"
#include "soup/soup_packet.h"
#include "wire/message_writer.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tessel {

// Takes a spin piece by piece while it is built.
struct SpinSink {
    void (*write)(void* context, const unsigned char* bytes, std::size_t size) = nullptr;
    void* context = nullptr;
};

// A spin as it goes over the wire: one flat run of Sequenced Data packets. With a sink the run goes through a
// buffer of this size, which is handed to the sink each time it is full: it stays in the processor's cache
// between building and sending, and takes no more memory for more instruments or more logins. Without a sink
// the whole spin is kept, for callers that look at it.
constexpr std::size_t spin_buffer_bytes = std::size_t{128} << 10;

struct SpinBuffer {
    std::vector<unsigned char> bytes;
    std::size_t size = 0;           // bytes in use
    std::size_t bytes_flushed = 0;  // handed to the sink before
    SpinSink sink;
    MessageWriter writer;  // the rarer messages are built here
};

// Builds the messages after which a receiver that applies them in order has the state of one that received
// everything: retained control messages as they were published; then, stamped with spin_time_ns throughout,
// directory, trading status, decline levels, price bands, collars and every center's quote. Counts the
// snapshot. The market is not touched and no sequence number is used. O(instruments x centers). The
// end-of-snapshot message is not in it yet.
void build_spin(SpinBuffer& spin, SipEngine& engine, std::uint64_t spin_time_ns);

// Closes the spin by the message that carries the number of the last message published before it, and hands
// the rest to the sink, if there is one.
void append_end_of_snapshot(SpinBuffer& spin, std::uint64_t spin_time_ns, std::uint64_t last_sequence);

// The messages without their framing, in order, as views into the buffer: how a test reads a spin.
//
//     build_spin(spin, engine, now_ns);
//     for (std::span<const unsigned char> message : spin_messages(spin)) { ... }
std::vector<std::span<const unsigned char>> spin_messages(const SpinBuffer& spin);

}  // namespace tessel
