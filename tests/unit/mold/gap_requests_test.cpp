#include "mold/gap_requests.h"

#include "unit/mold/sequencer_bench.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

namespace tessel::receiver {
namespace {

TEST(GapRequests, HeldPacket_ClosesItsGapWithoutARequest) {
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

TEST(GapRequests, NextTimer_IsTheRestOfTheWaitForAGap) {
    Bench bench;
    bench.now_ms = 1000;
    bench.take(4, 7);
    EXPECT_EQ(next_timer_ms(bench.sequencer, 1000), bench.sequencer.settings.settle_ms);
    EXPECT_EQ(next_timer_ms(bench.sequencer, 1002), bench.sequencer.settings.settle_ms - 2);
}

TEST(GapRequests, FullBuffer_OnlyTheFirstGapIsRequested) {
    Bench bench;
    bench.sequencer.settings.buffer_bytes_max = bench.numbers(3, 4).size() + bench.numbers(5, 6).size();
    bench.take(3, 4);
    bench.take(5, 6);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 2}}));
}

TEST(GapRequests, Gap_IsRequestedOnceWithItsExactCount_AndRepliesAreNotRequestedAgain) {
    Bench bench;
    bench.take(1, 3);
    bench.take(103, 104);
    bench.wait(4);
    EXPECT_TRUE(bench.requests.empty());
    bench.wait(1);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{3, 100}}));
    for (std::uint64_t first = 3; first < 103; first += 10) {
        bench.wait(200);  // slow, but each answer shows that the service is busy
        bench.reply(first, first + 10);
    }
    bench.wait(10'000);
    EXPECT_EQ(bench.requests.size(), 1u);
    EXPECT_EQ(bench.out, bench.upto(103));
    EXPECT_EQ(bench.sequencer.counters.recovered, 100u);
}

TEST(GapRequests, LostReply_IsRequestedAfterTheTimeOut_JustWhatIsMissing) {
    Bench bench;
    bench.take(31, 32);
    bench.wait(5);
    bench.reply(1, 11);
    bench.reply(21, 31);
    bench.wait(249);
    EXPECT_EQ(bench.requests.size(), 1u);
    bench.wait(1);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 30}, {11, 10}}));
    bench.reply(11, 21);
    EXPECT_EQ(bench.out, bench.upto(31));
}

TEST(GapRequests, UnrepliedRequest_IsRepeatedUpToTheLimit_ThenAbandoned) {
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
    bench.reply(3, 5);  // too late
    EXPECT_EQ(bench.out.size(), 3u);
}

TEST(GapRequests, WithoutAService_GapsAreAbandonedAfterAWhile_InOrder) {
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

TEST(GapRequests, LostLastPacket_IsFoundByTheHeartbeat) {
    Bench bench;
    bench.take(1, 5);
    bench.take(8, 8);
    EXPECT_FALSE(nothing_missing(bench.sequencer));
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{5, 3}}));
    bench.reply(5, 8);
    EXPECT_TRUE(nothing_missing(bench.sequencer));
    EXPECT_EQ(bench.out, bench.upto(7));
}

TEST(GapRequests, StartAtOne_RequestsWhatWasSentBeforeTheFirstPacket) {
    Bench bench;
    bench.take(2000, 2001);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 1024}, {1025, 975}}));
}

TEST(GapRequests, LargeGap_IsRequestedInPiecesWithinTheLimit) {
    SequencerSettings settings;
    settings.request_messages_max = 100;
    settings.outstanding_messages_max = 250;
    Bench bench(true, 1, settings);
    bench.take(1001, 1002);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 100}, {101, 100}, {201, 50}}));
    bench.reply(1, 101);
    bench.wait(1);
    EXPECT_EQ(bench.requests.back(), (Request{251, 100}));
    EXPECT_EQ(bench.requests.size(), 4u);
}

TEST(GapRequests, FullBuffer_DropsPackets_AndFetchesThemLater) {
    SequencerSettings settings;
    settings.buffer_bytes_max = 100;
    Bench bench(true, 1, settings);
    for (std::uint64_t i = 2; i <= 50; ++i) {
        bench.take(i, i + 1);
        ASSERT_LE(bench.sequencer.waiting_bytes, 100u);
    }
    EXPECT_GT(bench.sequencer.counters.buffer_full, 0u);
    for (int round = 0; round < 100 && !nothing_missing(bench.sequencer); ++round) {
        const std::size_t replied = bench.requests.size();
        bench.wait(250);
        for (std::size_t i = replied; i < bench.requests.size(); ++i) {
            const Request request = bench.requests[i];
            for (std::uint64_t number = request.first; number < request.first + request.count; ++number) {
                bench.reply(number, number + 1);
            }
        }
    }
    EXPECT_EQ(bench.out, bench.upto(50));
    EXPECT_TRUE(bench.lost.empty());
}

// Goal: whatever is lost, duplicated or reordered, everything comes out once and in order.
// Method: a generator with a fixed seed damages a stream; a service replies to each request, losing some
// replies.
TEST(GapRequests, RandomLossDuplicationAndReordering_Seeds1To20) {
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
        std::size_t replied = 0;
        std::pair<std::uint64_t, std::uint64_t> held{0, 0};
        const auto reply_to_requests = [&] {
            for (; replied < bench.requests.size(); ++replied) {
                const Request request = bench.requests[replied];
                for (std::uint64_t i = request.first; i < std::min(next, request.first + request.count);
                     ++i) {
                    if (draw(4) != 0) {
                        bench.reply(i, i + 1);
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
            reply_to_requests();
        }
        for (int i = 0; i < 2000 && bench.out.size() + 1 < next; ++i) {
            bench.take(next, next);
            bench.wait(50);
            reply_to_requests();
        }
        EXPECT_EQ(bench.out, bench.upto(next - 1)) << "seed " << seed;
        EXPECT_TRUE(bench.sequencer.waiting.empty()) << "seed " << seed;
        EXPECT_EQ(bench.sequencer.waiting_bytes, 0u) << "seed " << seed;
    }
}

// Goal: a receiver that starts late finds out quickly where the history begins, whatever its length.
TEST(GapRequests, HistoryThatBeginsLate_IsFoundInASecond_AndTheRestIsFetched) {
    for (const std::uint64_t oldest : {2u, 1025u, 99'001u, 199'999u}) {
        SequencerSettings settings;
        settings.buffer_bytes_max = 1u << 30;
        Bench bench(true, 1, settings);
        bench.take(200'000, 200'010);
        std::size_t served = 0;
        while (bench.requests.empty() || bench.now_ms < 1000) {
            bench.wait(5);
            const std::size_t end = bench.requests.size();
            bench.serve(served, oldest, 200'000);
            served = end;
        }
        for (int i = 0; i < 2000 && !nothing_missing(bench.sequencer); ++i) {
            bench.wait(5);
            const std::size_t end = bench.requests.size();
            bench.serve(served, oldest, 200'000);
            served = end;
        }
        EXPECT_EQ(bench.lost, (std::vector<Request>{{1, oldest - 1}}));
        ASSERT_FALSE(bench.out.empty());
        EXPECT_EQ(bench.out.front(), oldest);
        EXPECT_EQ(bench.out.size(), 200'010 - oldest);
        // When only the first request brought nothing no search is needed.
        EXPECT_EQ(bench.expired.size(), oldest > 1025 ? 1u : 0u) << oldest;
    }
}

TEST(GapRequests, LongGapThatNobodyAnswers_IsAbandonedAsOne) {
    Bench bench;
    bench.take(1'000'000, 1'000'010);
    for (int i = 0; i < 20; ++i) {
        bench.wait(250);
    }
    EXPECT_EQ(bench.lost, (std::vector<Request>{{1, 999'999}}));
    EXPECT_EQ(bench.out.size(), 10u);
    EXPECT_TRUE(bench.expired.empty());
    EXPECT_LT(bench.requests.size(), 200u);
}

}  // namespace
}  // namespace tessel::receiver
