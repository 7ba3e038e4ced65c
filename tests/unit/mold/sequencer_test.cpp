#include "mold/sequencer.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

namespace tessel::receiver {
namespace {

using hand_made::packet;
using hand_made::raw;

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
    std::int64_t now_ms = 0;

    explicit Bench(bool can_request = true, std::uint64_t first = 1, SequencerSettings settings = {}) {
        settings.can_request = can_request;
        settings.first_sequence = first;
        SequencerSinks sinks;
        sinks.message = [this](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), length), std::to_string(sequence));
            out.push_back(sequence);
        };
        sinks.lost = [this](std::uint64_t from, std::uint64_t count) { lost.push_back({from, count}); };
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

    static std::string numbers(std::uint64_t first, std::uint64_t end) {
        std::vector<std::string> blocks;
        for (std::uint64_t i = first; i < end; ++i) {
            blocks.push_back(std::to_string(i));
        }
        return packet(first, blocks);
    }

    // A packet with the messages [first, end); a heartbeat when they are equal.
    void take(std::uint64_t first, std::uint64_t end, PacketSource source = PacketSource::multicast) {
        const std::string data = numbers(first, end);
        on_packet(sequencer, raw(data), data.size(), now_ms, source);
    }

    void answer(std::uint64_t first, std::uint64_t end) {
        take(first, end, PacketSource::retransmission);
    }

    void wait(std::int64_t ms) {
        now_ms += ms;
        on_timer(sequencer, now_ms);
    }

    std::vector<std::uint64_t> upto(std::uint64_t last) const {
        std::vector<std::uint64_t> all;
        for (std::uint64_t i = 1; i <= last; ++i) {
            all.push_back(i);
        }
        return all;
    }
};

TEST(Sequencer, PacketsInOrder_GoStraightThrough) {
    Bench bench;
    bench.take(1, 4);
    bench.take(4, 5);
    bench.take(5, 5);
    EXPECT_EQ(bench.out, bench.upto(4));
    EXPECT_EQ(bench.sequencer.counters.heartbeats, 1u);
    EXPECT_TRUE(nothing_missing(bench.sequencer));
    EXPECT_EQ(next_timer_ms(bench.sequencer, 0), -1);
}

TEST(Sequencer, DuplicatesAndOverlaps_AreHandedOutOnce) {
    Bench bench;
    bench.take(1, 4);
    bench.take(1, 4);
    bench.take(2, 6);
    bench.take(8, 10);
    bench.take(8, 10);
    bench.take(6, 9);
    EXPECT_EQ(bench.out, bench.upto(9));
    EXPECT_EQ(bench.sequencer.counters.duplicate_packets, 2u);
}

TEST(Sequencer, HeldPacket_ClosesItsGapWithoutARequest) {
    Bench bench;
    bench.take(4, 7);
    EXPECT_TRUE(bench.out.empty());
    bench.wait(1);
    bench.take(1, 4);
    bench.wait(1000);
    EXPECT_EQ(bench.out, bench.upto(6));
    EXPECT_TRUE(bench.requests.empty());
    EXPECT_EQ(bench.sequencer.counters.reordered_packets, 1u);
    EXPECT_EQ(bench.sequencer.counters.gaps, 1u);
}

TEST(Sequencer, Gap_IsAskedForOnceWithItsExactCount_AndAnswersAreNotAskedForAgain) {
    Bench bench;
    bench.take(1, 3);
    bench.take(103, 104);
    bench.wait(4);
    EXPECT_TRUE(bench.requests.empty());
    bench.wait(1);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{3, 100}}));
    for (std::uint64_t first = 3; first < 103; first += 10) {
        bench.wait(200);  // slow, but each answer shows that the service is at it
        bench.answer(first, first + 10);
    }
    bench.wait(10'000);
    EXPECT_EQ(bench.requests.size(), 1u);
    EXPECT_EQ(bench.out, bench.upto(103));
    EXPECT_EQ(bench.sequencer.counters.recovered, 100u);
}

TEST(Sequencer, LostAnswer_IsAskedForAfterTheTimeOut_JustWhatIsMissing) {
    Bench bench;
    bench.take(31, 32);
    bench.wait(5);
    bench.answer(1, 11);
    bench.answer(21, 31);
    bench.wait(249);
    EXPECT_EQ(bench.requests.size(), 1u);
    bench.wait(1);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 30}, {11, 10}}));
    bench.answer(11, 21);
    EXPECT_EQ(bench.out, bench.upto(31));
}

TEST(Sequencer, UnansweredRequest_IsRepeatedUpToTheLimit_ThenGivenUp) {
    SequencerSettings settings;
    settings.retries = 2;
    Bench bench(true, 1, settings);
    bench.take(1, 3);
    bench.take(5, 6);
    for (int i = 0; i < 20; ++i) {
        bench.wait(250);
    }
    EXPECT_EQ(bench.requests, (std::vector<Request>{{3, 2}, {3, 2}, {3, 2}}));
    EXPECT_EQ(bench.lost, (std::vector<Request>{{3, 2}}));
    EXPECT_EQ(bench.out, (std::vector<std::uint64_t>{1, 2, 5}));
    EXPECT_EQ(bench.sequencer.counters.lost, 2u);
    bench.answer(3, 5);  // too late
    EXPECT_EQ(bench.out.size(), 3u);
}

TEST(Sequencer, WithoutAService_GapsAreGivenUpAfterAWhile_InOrder) {
    Bench bench(false);
    bench.take(1, 2);
    bench.take(3, 4);
    bench.take(5, 6);
    bench.wait(499);
    EXPECT_EQ(bench.out, bench.upto(1));
    bench.wait(1);
    EXPECT_EQ(bench.out, (std::vector<std::uint64_t>{1, 3, 5}));
    EXPECT_EQ(bench.lost, (std::vector<Request>{{2, 1}, {4, 1}}));
    EXPECT_TRUE(bench.requests.empty());
}

TEST(Sequencer, LostLastPacket_IsFoundByTheHeartbeat) {
    Bench bench;
    bench.take(1, 5);
    bench.take(8, 8);
    EXPECT_FALSE(nothing_missing(bench.sequencer));
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{5, 3}}));
    bench.answer(5, 8);
    EXPECT_TRUE(nothing_missing(bench.sequencer));
    EXPECT_EQ(bench.out, bench.upto(7));
}

TEST(Sequencer, FirstSequenceZero_BeginsWithTheFirstPacketHeard) {
    Bench bench(true, 0);
    bench.take(50, 50);
    bench.take(50, 52);
    EXPECT_EQ(bench.out, (std::vector<std::uint64_t>{50, 51}));
    EXPECT_TRUE(nothing_missing(bench.sequencer));
}

TEST(Sequencer, StartAtOne_AsksForWhatWasBeforeItHeardAnything) {
    Bench bench;
    bench.take(2000, 2001);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 1024}, {1025, 975}}));
}

TEST(Sequencer, LargeGap_IsAskedForInPiecesWithinTheLimit) {
    SequencerSettings settings;
    settings.request_messages_max = 100;
    settings.outstanding_messages_max = 250;
    Bench bench(true, 1, settings);
    bench.take(1001, 1002);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 100}, {101, 100}, {201, 50}}));
    bench.answer(1, 101);
    bench.wait(1);
    EXPECT_EQ(bench.requests.back(), (Request{251, 100}));
    EXPECT_EQ(bench.requests.size(), 4u);
}

TEST(Sequencer, AfterASnapshot_CoveredMessagesAreDropped_AndAGapBehindItIsFound) {
    Bench bench(true, 0);
    start_at(bench.sequencer, 41);
    bench.take(30, 41);
    EXPECT_TRUE(bench.out.empty());
    bench.take(39, 44);
    EXPECT_EQ(bench.out, (std::vector<std::uint64_t>{41, 42, 43}));
    bench.take(46, 47);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{44, 2}}));
}

TEST(Sequencer, OtherSessionsAndMalformedPackets_ChangeNothing) {
    Bench bench;
    const std::string other = packet(1, std::vector<std::string>{"1"}, "OTHER");
    on_packet(bench.sequencer, raw(other), other.size(), 0, PacketSource::multicast);
    EXPECT_EQ(bench.sequencer.counters.other_session, 1u);
    const std::string whole = Bench::numbers(1, 3);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const std::vector<unsigned char> cut(whole.begin(),
                                             whole.begin() + static_cast<std::ptrdiff_t>(length));
        on_packet(bench.sequencer, cut.data(), length, 0, PacketSource::multicast);
    }
    const std::string zero = packet(0, std::vector<std::string>{"x"});
    on_packet(bench.sequencer, raw(zero), zero.size(), 0, PacketSource::multicast);
    EXPECT_EQ(bench.sequencer.counters.malformed, whole.size() + 1);
    EXPECT_TRUE(bench.out.empty());
    EXPECT_TRUE(nothing_missing(bench.sequencer));
}

TEST(Sequencer, ShortSession_IsPaddedWithBlanks) {
    SequencerSettings settings;
    settings.session = "ABC";
    Bench bench(true, 1, settings);
    const std::string data = packet(1, std::vector<std::string>{"1"}, "ABC       ");
    on_packet(bench.sequencer, raw(data), data.size(), 0, PacketSource::multicast);
    EXPECT_EQ(bench.out, bench.upto(1));
    EXPECT_EQ(padded_session("ABCDEFGHIJKLM"), "ABCDEFGHIJ");
}

TEST(Sequencer, HeartbeatBelowANumberSeen_TellsOfARestart) {
    Bench bench;
    bench.take(1, 9);
    bench.take(3, 3);
    EXPECT_EQ(bench.sequencer.counters.sequence_resets, 1u);
    EXPECT_TRUE(nothing_missing(bench.sequencer));
}

TEST(Sequencer, FullBuffer_PutsPacketsAway_AndFetchesThemLater) {
    SequencerSettings settings;
    settings.buffer_bytes_max = 100;
    Bench bench(true, 1, settings);
    for (std::uint64_t i = 2; i <= 50; ++i) {
        bench.take(i, i + 1);
        ASSERT_LE(bench.sequencer.waiting_bytes, 100u);
    }
    EXPECT_GT(bench.sequencer.counters.buffer_full, 0u);
    for (int round = 0; round < 100 && !nothing_missing(bench.sequencer); ++round) {
        const std::size_t answered = bench.requests.size();
        bench.wait(250);
        for (std::size_t i = answered; i < bench.requests.size(); ++i) {
            const Request request = bench.requests[i];
            for (std::uint64_t number = request.first; number < request.first + request.count; ++number) {
                bench.answer(number, number + 1);
            }
        }
    }
    EXPECT_EQ(bench.out, bench.upto(50));
    EXPECT_TRUE(bench.lost.empty());
}

TEST(Sequencer, GiveUpAll_HandsOutEverythingThatIsThere) {
    Bench bench;
    bench.take(3, 4);
    bench.take(6, 7);
    abandon_gaps(bench.sequencer);
    EXPECT_EQ(bench.out, (std::vector<std::uint64_t>{3, 6}));
    EXPECT_EQ(bench.lost, (std::vector<Request>{{1, 2}, {4, 2}}));
    EXPECT_TRUE(nothing_missing(bench.sequencer));
}

// Goal: whatever is lost, duplicated or reordered, everything comes out once and in order.
// Method: a generator with a fixed seed damages a stream; a service answers each request, losing some
// answers.
TEST(Sequencer, RandomLossDuplicationAndReordering_Seeds1To20) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        SequencerSettings settings;
        settings.retries = 50;
        settings.request_messages_max = 7;
        settings.outstanding_messages_max = 40;
        Bench bench(true, 1, settings);
        std::uint64_t state = seed;
        const auto draw = [&state](std::uint64_t below) {
            state = state * 6364136223846793005u + 1442695040888963407u;
            return (state >> 33) % below;
        };
        std::uint64_t next = 1;
        std::size_t answered = 0;
        std::pair<std::uint64_t, std::uint64_t> held{0, 0};
        const auto answer_requests = [&] {
            for (; answered < bench.requests.size(); ++answered) {
                const Request request = bench.requests[answered];
                for (std::uint64_t i = request.first; i < std::min(next, request.first + request.count);
                     ++i) {
                    if (draw(4) != 0) {
                        bench.answer(i, i + 1);
                    }
                }
            }
        };
        while (next < 2000) {
            const std::uint64_t end = next + 1 + draw(5);
            switch (draw(6)) {
                case 0: break;
                case 1:
                    bench.take(next, end);
                    bench.take(next, end);
                    break;
                case 2: held = {next, end}; break;
                default: bench.take(next, end); break;
            }
            if (held.first != 0 && held.first != next) {
                bench.take(held.first, held.second);
                held = {0, 0};
            }
            next = end;
            bench.wait(static_cast<std::int64_t>(draw(4)));
            answer_requests();
        }
        for (int i = 0; i < 2000 && bench.out.size() + 1 < next; ++i) {
            bench.take(next, next);
            bench.wait(50);
            answer_requests();
        }
        EXPECT_EQ(bench.out, bench.upto(next - 1)) << "seed " << seed;
        EXPECT_TRUE(bench.sequencer.waiting.empty()) << "seed " << seed;
        EXPECT_EQ(bench.sequencer.waiting_bytes, 0u) << "seed " << seed;
    }
}

}  // namespace
}  // namespace tessel::receiver
