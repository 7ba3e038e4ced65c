#pragma once

#include "mold/sequencer.h"
#include "support/hand_made.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A sequencer in memory, for the tests of its parts.
namespace tessel::receiver {

struct Request {
    std::uint64_t first = 0;
    std::uint64_t count = 0;

    bool operator==(const Request&) const = default;
};

// A sequencer with its sinks as lists, and packets whose messages are their numbers as text.
struct Bench {
    Sequencer sequencer;
    std::vector<std::uint64_t> out;
    std::vector<Request> lost;
    std::vector<Request> requests;
    std::vector<Request> expired;
    std::vector<std::uint64_t> restarts;  // the first number known of each new run
    std::string run;                      // precedes the numbers in the messages of the packets made
    std::string last_text;                // of the last message delivered
    std::int64_t now_ms = 0;

    explicit Bench(bool can_request = true, std::uint64_t first = 1, SequencerSettings settings = {}) {
        settings.can_request = can_request;
        settings.first_sequence = first;
        SequencerSinks sinks;
        sinks.message = [this](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
            last_text.assign(reinterpret_cast<const char*>(bytes), length);
            EXPECT_TRUE(last_text.ends_with(std::to_string(sequence))) << last_text;
            out.push_back(sequence);
        };
        sinks.lost = [this](std::uint64_t from, std::uint64_t count) { lost.push_back({from, count}); };
        sinks.expired = [this](std::uint64_t from, std::uint64_t count) { expired.push_back({from, count}); };
        sinks.restarted = [this](std::uint64_t from) {
            restarts.push_back(from);
            out.clear();
        };
        sinks.request = [this](const unsigned char* bytes, std::size_t length) {
            EXPECT_EQ(length, 20u);
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), 10), sequencer.settings.session);
            Request request;
            for (int i = 10; i < 18; ++i) {
                request.first = (request.first << 8) | bytes[i];
            }
            request.count = static_cast<std::uint64_t>((bytes[18] << 8) | bytes[19]);
            requests.push_back(request);
        };
        sequencer = make_sequencer(settings, sinks);
    }

    std::string numbers(std::uint64_t first, std::uint64_t end) const {
        std::vector<std::string> blocks;
        for (std::uint64_t i = first; i < end; ++i) {
            blocks.push_back(run + std::to_string(i));
        }
        return hand_made::packet(first, blocks);
    }

    // A packet with the messages [first, end); a heartbeat when they are equal.
    void take(std::uint64_t first, std::uint64_t end, PacketSource source = PacketSource::multicast) {
        const std::string data = numbers(first, end);
        on_packet(sequencer, hand_made::raw(data), data.size(), now_ms, source);
    }

    void reply(std::uint64_t first, std::uint64_t end) {
        take(first, end, PacketSource::retransmission);
    }

    void wait(std::int64_t ms) {
        now_ms += ms;
        on_timer(sequencer, now_ms);
    }

    // Replies to the requests from number `at` of the list on, as a service whose history is [oldest, end).
    void serve(std::size_t at, std::uint64_t oldest, std::uint64_t end) {
        for (; at < requests.size(); ++at) {
            const Request request = requests[at];
            const std::uint64_t last = std::min(end, request.first + request.count);
            for (std::uint64_t i = std::max(oldest, request.first); i < last; i += 20) {
                reply(i, std::min(i + 20, last));
            }
        }
    }

    std::vector<std::uint64_t> upto(std::uint64_t last) const {
        std::vector<std::uint64_t> all;
        for (std::uint64_t i = 1; i <= last; ++i) {
            all.push_back(i);
        }
        return all;
    }
};

}  // namespace tessel::receiver
