#include "mold/sequencer.h"

#include "support/hand_made.h"
#include "unit/mold/sequencer_bench.h"

#include <gtest/gtest.h>

namespace tessel::receiver {
namespace {

using hand_made::packet;
using hand_made::raw;

TEST(Sequencer, PacketsInOrder_AreDeliveredImmediately) {
    Bench bench;
    bench.take(1, 4);
    bench.take(4, 5);
    bench.take(5, 5);
    EXPECT_EQ(bench.out, bench.upto(4));
    EXPECT_EQ(bench.sequencer.counters.heartbeats, 1u);
    EXPECT_TRUE(nothing_missing(bench.sequencer));
    EXPECT_EQ(next_timer_ms(bench.sequencer, 0), -1);
}

TEST(Sequencer, DuplicatesAndOverlaps_AreDeliveredOnce) {
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

TEST(Sequencer, FirstSequenceZero_BeginsWithTheFirstPacketReceived) {
    Bench bench(true, 0);
    bench.take(50, 50);
    bench.take(50, 52);
    EXPECT_EQ(bench.out, (std::vector<std::uint64_t>{50, 51}));
    EXPECT_TRUE(nothing_missing(bench.sequencer));
}

TEST(Sequencer, AfterASnapshot_CoveredMessagesAreDropped_AndAGapAfterItIsFound) {
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
    const std::string whole = bench.numbers(1, 3);
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

TEST(Sequencer, EndOfSession_ReportsTheNextNumberAsAHeartbeatDoes) {
    Bench bench;
    std::string data = bench.numbers(4, 4);
    data[18] = data[19] = '\xff';
    on_packet(bench.sequencer, raw(data), data.size(), 0, PacketSource::multicast);
    EXPECT_EQ(bench.sequencer.counters.malformed, 0u);
    EXPECT_EQ(bench.sequencer.counters.heartbeats, 1u);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 3}}));
}

TEST(Sequencer, LongerPacketAfterAGap_ReplacesTheShorterOneThatWaits) {
    Bench bench;
    bench.take(5, 6);
    bench.take(5, 8);
    EXPECT_EQ(bench.sequencer.waiting_bytes, bench.numbers(5, 8).size());
    bench.take(1, 5);
    EXPECT_EQ(bench.out, bench.upto(7));
    EXPECT_EQ(bench.sequencer.waiting_bytes, 0u);
}

TEST(Sequencer, ReplyThatOverlaps_CountsOnlyWhatWasMissingAsRecovered) {
    Bench bench;
    bench.take(1, 2);
    bench.take(4, 5);
    bench.reply(1, 5);
    EXPECT_EQ(bench.out, bench.upto(4));
    EXPECT_EQ(bench.sequencer.counters.recovered, 2u);
}

TEST(Sequencer, RequestsOfNoMessages_AreOfOneEach) {
    SequencerSettings settings;
    settings.request_messages_max = 0;
    Bench bench(true, 1, settings);
    bench.take(3, 4);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 1}, {2, 1}}));
}

TEST(Sequencer, StartDuringASearch_EndsIt) {
    Bench bench;
    begin_search(bench.sequencer.search, 1, 1000, 0);
    start_at(bench.sequencer, 41);
    EXPECT_FALSE(bench.sequencer.search.active);
}

TEST(Sequencer, SilenceOfExactlyTheLimit_RequestsTheLastMessageAgain) {
    SequencerSettings settings;
    settings.silence_ms = 1000;
    Bench bench(true, 1, settings);
    bench.take(1, 4);
    bench.now_ms += 999;
    bench.take(4, 5);
    EXPECT_TRUE(bench.requests.empty());
    bench.now_ms += 1000;
    bench.take(5, 6);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{4, 1}}));
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

TEST(Sequencer, HeartbeatBelowANumberReceived_IsASequenceReset) {
    Bench bench;
    bench.take(1, 9);
    bench.take(3, 3);
    EXPECT_EQ(bench.sequencer.counters.sequence_resets, 1u);
    EXPECT_TRUE(nothing_missing(bench.sequencer));
}

TEST(Sequencer, AbandonGaps_DeliversEverythingThatIsThere) {
    Bench bench;
    bench.take(3, 4);
    bench.take(6, 7);
    abandon_gaps(bench.sequencer);
    EXPECT_EQ(bench.out, (std::vector<std::uint64_t>{3, 6}));
    EXPECT_EQ(bench.lost, (std::vector<Request>{{1, 2}, {4, 2}}));
    EXPECT_TRUE(nothing_missing(bench.sequencer));
}

TEST(Sequencer, OtherBytesUnderAKnownNumber_BeginANewRun) {
    Bench bench(false);
    bench.take(1, 40);
    bench.run = "new";
    bench.take(10, 12);
    EXPECT_EQ(bench.restarts, (std::vector<std::uint64_t>{10}));
    EXPECT_EQ(bench.last_text, "39");
    bench.take(12, 50);
    bench.wait(500);
    EXPECT_EQ(bench.out.front(), 10u);
    EXPECT_EQ(bench.out.back(), 49u);
    EXPECT_EQ(bench.last_text, "new49");
    EXPECT_EQ(bench.sequencer.counters.restarts, 1u);
}

TEST(Sequencer, NewRunWithAService_IsFetchedFromItsFirstMessage) {
    Bench bench;
    bench.take(1, 40);
    bench.run = "new";
    bench.take(31, 35);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 30}}));
    bench.serve(0, 1, 35);
    EXPECT_EQ(bench.out, bench.upto(34));
    EXPECT_TRUE(bench.lost.empty());
}

TEST(Sequencer, NewRun_EndsTheOldOneWithWhatIsThereOfIt) {
    Bench bench;
    bench.take(1, 10);
    bench.take(15, 20);
    bench.run = "new";
    bench.take(1, 3);
    EXPECT_EQ(bench.lost, (std::vector<Request>{{10, 5}}));
    EXPECT_EQ(bench.restarts, (std::vector<std::uint64_t>{1}));
    EXPECT_EQ(bench.out, bench.upto(2));
    EXPECT_TRUE(nothing_missing(bench.sequencer));
}

TEST(Sequencer, NumberOneFarBelow_BeginsANewRun) {
    Bench bench(false, 0);
    bench.take(5000, 5010);
    bench.run = "new";
    bench.take(1, 5);
    EXPECT_EQ(bench.restarts, (std::vector<std::uint64_t>{1}));
    EXPECT_EQ(bench.out, bench.upto(4));
}

TEST(Sequencer, TwoPacketsInSuccessionBelowTheBeginning_BeginANewRun) {
    Bench bench(false, 0);
    bench.take(5000, 5010);
    bench.run = "new";
    bench.take(100, 110);
    EXPECT_TRUE(bench.restarts.empty());
    bench.take(110, 120);
    EXPECT_EQ(bench.restarts, (std::vector<std::uint64_t>{100}));
    bench.take(120, 130);
    bench.wait(500);
    EXPECT_EQ(bench.lost, (std::vector<Request>{{100, 10}}));
    EXPECT_EQ(bench.out.front(), 110u);
}

TEST(Sequencer, LatePacketsOfOneRun_BeginNoNewRun) {
    Bench bench(false, 0);
    bench.take(21, 30);
    bench.take(11, 21);  // held back since before reception began
    bench.take(30, 40);
    bench.take(21, 30);
    bench.take(1, 11);
    bench.take(45, 50);
    bench.wait(500);
    bench.take(40, 43);  // for numbers abandoned
    bench.take(43, 45);
    EXPECT_TRUE(bench.restarts.empty());
    EXPECT_EQ(bench.sequencer.counters.sequence_resets, 0u);
}

TEST(Sequencer, AfterASnapshot_PacketsAndHeartbeatsThatItCovers_BeginNoNewRun) {
    Bench bench(true, 0);
    start_at(bench.sequencer, 5001);
    bench.take(1, 20);
    bench.take(20, 40);
    bench.take(40, 40);
    bench.take(40, 40);
    bench.take(4990, 5010);
    EXPECT_TRUE(bench.restarts.empty());
    EXPECT_EQ(bench.sequencer.counters.sequence_resets, 0u);
    EXPECT_EQ(bench.out.front(), 5001u);
}

TEST(Sequencer, SecondHeartbeatBelowANumberReceived_BeginsANewRun) {
    Bench bench;
    bench.take(1, 100);
    bench.run = "new";
    bench.take(30, 30);
    EXPECT_TRUE(bench.restarts.empty());
    bench.take(30, 30);
    EXPECT_EQ(bench.restarts, (std::vector<std::uint64_t>{30}));
    EXPECT_EQ(bench.sequencer.counters.sequence_resets, 2u);
    bench.wait(5);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{1, 29}}));
}

TEST(Sequencer, FirstPacketAfterASilence_IsHeldAgainstTheLastMessage) {
    Bench bench;
    bench.take(1, 40);
    bench.now_ms += 3000;
    bench.run = "new";
    bench.take(60, 70);
    EXPECT_EQ(bench.requests, (std::vector<Request>{{39, 1}}));
    bench.wait(10);
    EXPECT_EQ(bench.requests.size(), 1u);  // the gap may be of another run
    bench.reply(39, 40);
    EXPECT_EQ(bench.restarts, (std::vector<std::uint64_t>{1}));
    EXPECT_TRUE(bench.lost.empty());
    bench.take(70, 72);
    bench.wait(5);
    bench.serve(1, 1, 72);
    EXPECT_EQ(bench.out, bench.upto(71));
    EXPECT_EQ(bench.last_text, "new71");
}

TEST(Sequencer, SilenceOfOneRun_EndsWithItsGapFetched) {
    Bench bench;
    bench.take(1, 40);
    bench.now_ms += 3000;
    bench.take(60, 70);
    bench.serve(0, 1, 70);
    bench.wait(5);
    bench.serve(1, 1, 70);
    EXPECT_EQ(bench.out, bench.upto(69));
    EXPECT_TRUE(bench.restarts.empty());
}

}  // namespace
}  // namespace tessel::receiver
