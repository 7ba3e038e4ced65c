#include "app/feed.h"

#include "mold/packet.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <memory>

namespace tessel {
namespace {

using testing::Bytes;
using testing::packet_messages;

// A feed without sockets whose passes are run by hand, on a clock that starts at one second.
struct OfflineFeed {
    explicit OfflineFeed(const std::string& symbols = "AAPL:190.00") {
        feed->offline = true;
        feed->config.symbols = symbols;
        feed->config.quiet = true;
        feed->clock = {true, 1'700'000'000'000'000'000u, 10, 1000};
        feed->publisher.sink = {keep_packet, this};
        feed->engine.truth.sink = {keep_line, this};
        feed->engine.truth.enabled = true;
    }
    static void keep_packet(void* context, const unsigned char* bytes, std::size_t length) {
        static_cast<OfflineFeed*>(context)->packets.emplace_back(bytes, bytes + length);
    }
    static void keep_line(void* context, const char* line, std::size_t length) {
        static_cast<OfflineFeed*>(context)->truth.append(line, length);
    }
    bool start() {
        ExitStatus status = ExitStatus::stopped;
        return start_feed(*feed, status, error);
    }
    void pass_at(std::uint64_t now_ms) {
        feed->clock.simulated_steady_ms = now_ms;
        run_one_pass(*feed, now_ms);
    }
    std::uint64_t ticks() const {
        return feed->engine.tick;
    }

    std::unique_ptr<Feed> feed = std::make_unique<Feed>();
    std::vector<Bytes> packets;
    std::string truth;
    std::string error;
    testing::StderrCapture log;
};

TEST(OfflineFeed, Started_NoSocketsAndNoBanner) {
    OfflineFeed offline;
    ASSERT_TRUE(offline.start()) << offline.error;
    EXPECT_EQ(offline.feed->publisher.feed_socket, -1);
    EXPECT_EQ(offline.feed->publisher.retrans_socket, -1);
    EXPECT_EQ(offline.feed->snapshot.listener, -1);
    ASSERT_FALSE(offline.packets.empty()) << "the start of day";
    EXPECT_EQ(read_big_endian(offline.packets[0].data() + 10, 8), 1u);
    EXPECT_EQ(offline.log.take().find("participants"), std::string::npos);
}

TEST(OfflineFeed, TickDue_FallsOnItsTimeAndWritesThroughTheSink) {
    OfflineFeed offline;
    ASSERT_TRUE(offline.start());
    EXPECT_EQ(next_due_ms(*offline.feed), 1100u);
    offline.truth.clear();
    offline.pass_at(1099);
    EXPECT_EQ(offline.ticks(), 0u);
    offline.pass_at(1100);
    EXPECT_EQ(offline.ticks(), 1u);
    EXPECT_EQ(next_due_ms(*offline.feed), 1200u);
    EXPECT_EQ(offline.truth.substr(0, 7), "{\"seq\":");
    EXPECT_EQ(offline.truth.back(), '\n');
}

TEST(OfflineFeed, FrozenModel_IsDueForItsHeartbeatAlone) {
    OfflineFeed offline;
    offline.feed->config.interval_ms = -1;
    ASSERT_TRUE(offline.start());
    const std::size_t before = offline.packets.size();
    EXPECT_EQ(next_due_ms(*offline.feed), 2000u);
    offline.pass_at(1999);
    EXPECT_EQ(offline.packets.size(), before);
    offline.pass_at(2000);
    ASSERT_EQ(offline.packets.size(), before + 1);
    EXPECT_EQ(offline.packets.back().size(), mold_header_bytes);
    EXPECT_EQ(next_due_ms(*offline.feed), 3000u);
}

TEST(OfflineFeed, ScriptedEvent_IsDueBeforeTheHeartbeat) {
    OfflineFeed offline;
    offline.feed->config.interval_ms = 30'000;
    ASSERT_TRUE(offline.start());
    offline.feed->publisher.last_flush_ms = 100'000;
    offline.feed->scenario.halt_after = 4;
    EXPECT_EQ(next_due_ms(*offline.feed), 5000u);
    offline.pass_at(5000);
    EXPECT_EQ(offline.feed->scenario.stats.halts, 1u);
    EXPECT_EQ(next_due_ms(*offline.feed), 6000u) << "a heartbeat, a second after the halt was sent";
}

TEST(OfflineFeed, TwentySeconds_NoPeriodicReports) {
    OfflineFeed offline;
    ASSERT_TRUE(offline.start());
    offline.feed->scenario.trf_every = 1;  // which asks for the two-second line
    offline.log.take();
    offline.pass_at(20'000);
    const std::string printed = offline.log.take();
    EXPECT_EQ(printed.find("bench: stats"), std::string::npos);
    EXPECT_EQ(printed.find("[tessel] msgs"), std::string::npos);
}

TEST(OfflineFeed, BadPrice_IsReportedAsByTheProgram) {
    OfflineFeed offline("AAPL:x");
    EXPECT_FALSE(offline.start());
    EXPECT_EQ(offline.error.find("tessel: --symbols: "), 0u);
}

}  // namespace
}  // namespace tessel
