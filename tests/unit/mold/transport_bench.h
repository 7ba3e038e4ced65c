#pragma once

#include "mold/publisher.h"
#include "support/test_market.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tessel::testing {

// A publisher in memory: a simulated clock, and every packet it sends kept in order.
struct TestPublisher {
    Clock clock;
    MoldPublisher publisher;
    std::vector<Bytes> packets;

    explicit TestPublisher(const std::string& session = "UTPBENCH01") {
        clock.simulated = true;
        clock.simulated_steady_ms = 5000;
        reset_publisher(publisher, clock, session);
        publisher.sink = {collect, this};
    }
    TestPublisher(const TestPublisher&) = delete;
    TestPublisher& operator=(const TestPublisher&) = delete;

    static void collect(void* context, const unsigned char* packet, std::size_t length) {
        static_cast<TestPublisher*>(context)->packets.emplace_back(packet, packet + length);
    }

    // Appends a message of this length whose bytes show its sequence number; returns that number.
    std::uint64_t add(std::size_t length = 22) {
        const Bytes message = message_with(publisher.next_sequence, length);
        return append_message(publisher, message.data(), message.size());
    }

    void add_many(std::size_t count, std::size_t length = 22) {
        for (std::size_t added = 0; added < count; ++added) {
            add(length);
        }
    }

    // One message, one packet: the packet numbered n then carries sequence number n.
    void flush_packets(std::size_t count) {
        for (std::size_t flushed = 0; flushed < count; ++flushed) {
            add();
            flush_packet(publisher);
        }
    }

    static Bytes message_with(std::uint64_t sequence, std::size_t length) {
        Bytes message(length);
        for (std::size_t at = 0; at < length; ++at) {
            message[at] = static_cast<unsigned char>(sequence >> (8 * (at % 4)));
        }
        return message;
    }

    // Sequence numbers and message counts of the packets sent so far, as "first+count first+count".
    std::string sent() const {
        return summary(packets);
    }

    static std::string summary(const std::vector<Bytes>& all) {
        std::string text;
        for (const Bytes& packet : all) {
            text += text.empty() ? "" : " ";
            text += std::to_string(get_u64(packet, 10)) + "+" + std::to_string(get_u16(packet, 18));
        }
        return text;
    }
};

}  // namespace tessel::testing
