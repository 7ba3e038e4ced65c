#include "relay/line.h"

#include <gtest/gtest.h>

#include <cmath>

// What a line does to packets is checked on whole histories: which packets left, in which order, at which
// time.
namespace tessel::relay {
namespace {

constexpr std::int64_t ms = 1'000'000;

using Bytes = std::vector<unsigned char>;

Bytes packet(std::uint64_t first, unsigned messages, std::size_t message_bytes = 4) {
    Bytes bytes{'S', 'E', 'S', 'S', 'I', 'O', 'N', ' ', ' ', ' '};
    for (int at = 7; at >= 0; --at) {
        bytes.push_back(static_cast<unsigned char>(first >> (8 * at)));
    }
    bytes.push_back(static_cast<unsigned char>(messages >> 8));
    bytes.push_back(static_cast<unsigned char>(messages));
    for (unsigned message = 0; message < messages; ++message) {
        bytes.push_back(static_cast<unsigned char>(message_bytes >> 8));
        bytes.push_back(static_cast<unsigned char>(message_bytes));
        bytes.insert(bytes.end(), message_bytes, static_cast<unsigned char>(first + message));
    }
    return bytes;
}

std::uint64_t number_of(const Bytes& bytes) {
    std::uint64_t number = 0;
    for (std::size_t at = 10; at < 18; ++at) {
        number = number << 8 | bytes.at(at);
    }
    return number;
}

unsigned count_of(const Bytes& bytes) {
    return static_cast<unsigned>(bytes.at(18) << 8 | bytes.at(19));
}

struct Sent {
    std::int64_t due_ns;
    Bytes bytes;
    bool operator==(const Sent&) const = default;
};

// A line and what became of what it was offered.
struct Fixture {
    std::vector<Sent> sent;
    std::vector<std::string> faults;
    Line line;

    explicit Fixture(std::initializer_list<const char*> assignments, std::uint64_t seed = 7,
                     const char* name = "A") {
        Impairments impairments;
        std::string error;
        for (const char* assignment : assignments) {
            EXPECT_TRUE(set_impairment(impairments, assignment, true, error)) << error;
        }
        LineSinks sinks;
        sinks.send = [this](std::int64_t due_ns, const unsigned char* bytes, std::size_t length) {
            sent.push_back({due_ns, Bytes(bytes, bytes + length)});
        };
        sinks.fault = [this](std::string_view kind, std::uint64_t first, const std::string& detail) {
            faults.push_back(std::string(kind) + " " + std::to_string(first) + " (" + detail + ")");
        };
        line = make_line(name, impairments, seed, sinks);
    }
    Fixture(const Fixture&) = delete;
    Fixture& operator=(const Fixture&) = delete;

    void give(std::uint64_t first, std::int64_t now_ns, unsigned messages = 1) {
        const Bytes bytes = packet(first, messages);
        offer(line, bytes.data(), bytes.size(), now_ns);
    }

    // `count` packets of one message, a millisecond apart.
    void give_many(std::uint64_t count) {
        for (std::uint64_t number = 1; number <= count; ++number) {
            give(number, static_cast<std::int64_t>(number) * ms);
        }
    }

    std::vector<std::uint64_t> numbers() const {
        std::vector<std::uint64_t> found;
        for (const Sent& each : sent) {
            found.push_back(number_of(each.bytes));
        }
        return found;
    }
};

using Numbers = std::vector<std::uint64_t>;

TEST(RelayLine, CleanLine_PassesEverythingUnchangedAndImmediately) {
    Fixture f({});
    f.give(1, 5 * ms, 3);
    f.give(4, 6 * ms, 0);
    ASSERT_EQ(f.sent, (std::vector<Sent>{{5 * ms, packet(1, 3)}, {6 * ms, packet(4, 0)}}));
    EXPECT_TRUE(f.faults.empty());
    EXPECT_EQ(counters_text(f.line.counters),
              "received=2 sent=2 dropped=0 duplicated=0 reordered=0 corrupted=0 truncated=0 foreign=0 "
              "queue_drops=0");
}

TEST(RelayLine, EveryAndSequences_LoseExactlyWhatTheyName_AndNoHeartbeat) {
    Fixture f({"every=3", "seq=5-5"});
    f.give(1, 0, 0);
    f.give_many(7);
    EXPECT_EQ(f.numbers(), (Numbers{1, 1, 2, 4, 7}));
    EXPECT_EQ(f.faults, (std::vector<std::string>{"dropped 3 (1 message)", "dropped 5 (1 message)",
                                                  "dropped 6 (1 message)"}));
    EXPECT_EQ(f.line.counters.dropped, 3u);
}

TEST(RelayLine, SequenceInTheMiddleOfAPacket_LosesThePacket) {
    Fixture f({"seq=5"});
    f.give(1, 0, 4);
    f.give(5, 1, 4);
    f.give(9, 2, 4);
    EXPECT_EQ(f.numbers(), (Numbers{1, 9}));
}

TEST(RelayLine, RandomLoss_ComesOutWithinStatistics) {
    Fixture f({"drop=5%"});
    constexpr std::uint64_t packets = 100'000;
    f.give_many(packets);
    const double share = static_cast<double>(f.line.counters.dropped) / packets;
    EXPECT_NEAR(share, 0.05, 4 * std::sqrt(0.05 * 0.95 / packets));
    EXPECT_EQ(f.line.counters.sent + f.line.counters.dropped, packets);
}

TEST(RelayLine, BurstyLoss_HasTheShareAndTheLengthOfItsChances) {
    Fixture f({"burst=1%:20%"});
    constexpr std::uint64_t packets = 200'000;
    f.give_many(packets);
    // Of a Gilbert-Elliott chain: share P / (P + R), mean length 1 / R.
    EXPECT_NEAR(static_cast<double>(f.line.counters.dropped) / packets, 0.01 / 0.21, 0.004);
    std::uint64_t bursts = 0;
    std::uint64_t before = 0;
    for (const std::uint64_t number : f.numbers()) {
        bursts += number > before + 1 ? 1 : 0;
        before = number;
    }
    EXPECT_NEAR(static_cast<double>(f.line.counters.dropped) / static_cast<double>(bursts), 5.0, 0.3);
}

TEST(RelayLine, Duplicate_FollowsDirectly) {
    Fixture f({"dup=100%"});
    f.give_many(2);
    EXPECT_EQ(f.numbers(), (Numbers{1, 1, 2, 2}));
    EXPECT_EQ(f.line.counters.duplicated, 2u);
}

TEST(RelayLine, Reordered_IsSentBehindTheNthLaterPacket) {
    Fixture f({"reorder=100%:2"});
    f.give(1, 1 * ms);
    std::string error;
    ASSERT_TRUE(set_impairment(f.line.impairments, "reorder=0%", false, error));
    for (std::uint64_t number = 2; number <= 4; ++number) {
        f.give(number, static_cast<std::int64_t>(number) * ms);
    }
    EXPECT_EQ(f.numbers(), (Numbers{2, 3, 1, 4}));
    EXPECT_EQ(f.line.counters.reordered, 1u);
}

TEST(RelayLine, ReorderedAtTheEnd_IsReleased) {
    Fixture f({"reorder=100%:5"});
    f.give(1, 1 * ms);
    EXPECT_TRUE(f.sent.empty());
    release_held(f.line, 2 * ms);
    EXPECT_EQ(f.numbers(), (Numbers{1}));
}

TEST(RelayLine, FixedDelay_MovesTheTimeAndKeepsTheOrder) {
    Fixture f({"delay=5ms"});
    f.give(1, 1 * ms);
    f.give(2, 2 * ms);
    EXPECT_TRUE(f.sent.empty());
    EXPECT_EQ(next_due_ns(f.line), 6 * ms);
    send_due(f.line, 6 * ms);
    EXPECT_EQ(f.numbers(), (Numbers{1}));
    send_due(f.line, 100 * ms);
    ASSERT_EQ(f.numbers(), (Numbers{1, 2}));
    EXPECT_EQ(f.sent[0].due_ns, 6 * ms);
    EXPECT_EQ(f.sent[1].due_ns, 7 * ms);
}

TEST(RelayLine, RandomDelays_HaveTheirMeansAndLeaveInOrderOfTime) {
    Fixture f({"delay=1ms..3ms", "delay=normal:10ms:1ms", "delay=spike:10%:20ms"});
    constexpr int packets = 20'000;
    double sum = 0;
    std::int64_t before = 0;
    for (int number = 1; number <= packets; ++number) {
        f.give(static_cast<std::uint64_t>(number), number * 100 * ms);
    }
    send_due(f.line, (packets + 10) * 100 * ms);
    ASSERT_EQ(f.sent.size(), static_cast<std::size_t>(packets));
    for (const Sent& each : f.sent) {
        sum += static_cast<double>(each.due_ns - static_cast<std::int64_t>(number_of(each.bytes)) * 100 * ms);
        EXPECT_GE(each.due_ns, before);
        before = each.due_ns;
    }
    EXPECT_NEAR(sum / packets / ms, 2 + 10 + 2, 0.15);
}

TEST(RelayLine, RateLimit_SpacesPackets_AndAFullQueueDropsTheTail) {
    // 26 bytes a packet, 1 Mbit a second: 208 us each.
    Fixture f({"rate=1Mbit", "queue=2"});
    for (std::uint64_t number = 1; number <= 5; ++number) {
        f.give(number, 0);
    }
    EXPECT_EQ(f.line.counters.queue_drops, 2u);
    EXPECT_EQ(f.faults.back(), "queue full 5 (1 message)");
    send_due(f.line, 10 * ms);
    ASSERT_EQ(f.numbers(), (Numbers{1, 2, 3}));
    EXPECT_EQ(f.sent[0].due_ns, 208'000);
    EXPECT_EQ(f.sent[2].due_ns, 624'000);
}

TEST(RelayLine, FlippedBit_IsOneBit) {
    Fixture f({"bits=100%"});
    f.give(1, 0, 2);
    const Bytes whole = packet(1, 2);
    ASSERT_EQ(f.sent.size(), 1u);
    ASSERT_EQ(f.sent[0].bytes.size(), whole.size());
    int bits = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        bits += __builtin_popcount(static_cast<unsigned>(whole[at] ^ f.sent[0].bytes[at]));
    }
    EXPECT_EQ(bits, 1);
    EXPECT_EQ(f.line.counters.corrupted, 1u);
}

TEST(RelayLine, TruncatedPacket_IsAPrefix) {
    Fixture f({"truncate=100%"});
    f.give(1, 0, 2);
    const Bytes whole = packet(1, 2);
    ASSERT_EQ(f.sent.size(), 1u);
    EXPECT_LT(f.sent[0].bytes.size(), whole.size());
    EXPECT_TRUE(std::equal(f.sent[0].bytes.begin(), f.sent[0].bytes.end(), whole.begin()));
    EXPECT_EQ(f.line.counters.truncated, 1u);
}

TEST(RelayLine, ForeignPacket_IsAddedAndChangesNothingElse) {
    Fixture f({"foreign=100%"});
    f.give(1, 0);
    ASSERT_EQ(f.sent.size(), 2u);
    EXPECT_NE(Bytes(f.sent[0].bytes.begin(), f.sent[0].bytes.begin() + 10),
              Bytes(f.sent[1].bytes.begin(), f.sent[1].bytes.begin() + 10));
    EXPECT_EQ(f.sent[1].bytes, packet(1, 1));
    EXPECT_EQ(f.line.counters.foreign, 1u);
}

TEST(RelayLine, DarkTime_LosesEverythingHeartbeatsIncluded) {
    Fixture f({"dark=2ms..4ms"});
    f.give(1, 10 * ms);
    f.give(2, 12 * ms);
    f.give(3, 13 * ms, 0);
    f.give(3, 14 * ms);
    EXPECT_EQ(f.numbers(), (Numbers{1, 3}));
    EXPECT_EQ(f.faults, (std::vector<std::string>{"dark 2 (1 message)", "dark 3 (heartbeat)"}));
}

TEST(RelayLine, Payload_SplitsPacketsUnderTheSameNumbers) {
    Fixture f({"payload=200"});
    const Bytes whole = packet(100, 6, 70);
    offer(f.line, whole.data(), whole.size(), 0);
    ASSERT_EQ(f.numbers(), (Numbers{100, 102, 104}));
    for (const Sent& each : f.sent) {
        EXPECT_LE(each.bytes.size(), 200u);
        EXPECT_EQ(each.bytes, packet(number_of(each.bytes), count_of(each.bytes), 70));
    }
}

TEST(RelayLine, HeartbeatThatOvertakes_CarriesTheNumberThatIsHeldBack) {
    Fixture f({"delay=5ms"});
    f.give(1, 1 * ms);
    std::string error;
    ASSERT_TRUE(set_impairment(f.line.impairments, "delay=1us", false, error));
    f.give(2, 2 * ms, 0);
    send_due(f.line, 3 * ms);
    ASSERT_EQ(f.sent.size(), 1u);
    EXPECT_EQ(count_of(f.sent[0].bytes), 0u);
    EXPECT_EQ(number_of(f.sent[0].bytes), 1u) << "2 would show a loss that is none";
}

TEST(RelayLine, MessagesHeldBackForLong_MakeHeartbeatsMeanwhile) {
    Fixture f({"delay=2500ms"});
    f.give(7, 0);
    send_due(f.line, 3000 * ms);
    ASSERT_EQ(f.sent.size(), 3u);
    EXPECT_EQ(f.sent[0].due_ns, 1000 * ms);
    EXPECT_EQ(count_of(f.sent[0].bytes), 0u);
    EXPECT_EQ(number_of(f.sent[0].bytes), 7u);
    EXPECT_EQ(f.sent[1].due_ns, 2000 * ms);
    EXPECT_EQ(f.sent[2].bytes, packet(7, 1));
}

TEST(RelayLine, EndOfSession_CarriesTheNextNumber) {
    Fixture f({});
    f.give(1, 0, 4);
    send_end_of_session(f.line, 1);
    EXPECT_EQ(number_of(f.sent.back().bytes), 5u);
    EXPECT_EQ(count_of(f.sent.back().bytes), 0xFFFFu);
}

TEST(RelayLine, SameSeedAndName_DoTheSame_AndAnotherNameOrSeedDoesNot) {
    const auto history = [](std::uint64_t seed, const char* name) {
        Fixture f({"drop=10%", "dup=10%", "reorder=10%:3", "delay=0..5ms", "bits=5%"}, seed, name);
        f.give_many(500);
        release_held(f.line, 600 * ms);
        send_due(f.line, 700 * ms);
        return f.sent;
    };
    EXPECT_EQ(history(7, "A"), history(7, "A"));
    EXPECT_NE(history(7, "A"), history(8, "A"));
    EXPECT_NE(history(7, "A"), history(7, "B"));
}

TEST(RelayLine, DelayWithoutEnd_IsBoundedInMemory) {
    Fixture f({"delay=1h"});
    const Bytes big = packet(1, 40, 1500);
    for (int number = 0; number < 2000; ++number) {
        offer(f.line, big.data(), big.size(), number);
    }
    EXPECT_LE(f.line.waiting_bytes, waiting_bytes_max);
    EXPECT_GT(f.line.counters.queue_drops, 0u);
}

TEST(RelayLine, PacketThatIsNone_PassesAsItIs) {
    Fixture f({"drop=100%"});
    const Bytes rubbish{1, 2, 3};
    offer(f.line, rubbish.data(), rubbish.size(), 0);
    offer(f.line, nullptr, 0, 0);
    ASSERT_EQ(f.sent.size(), 2u);
    EXPECT_EQ(f.sent[0].bytes, rubbish);
}

}  // namespace
}  // namespace tessel::relay
