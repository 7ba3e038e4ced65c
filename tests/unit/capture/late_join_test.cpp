#include "capture/late_join.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

namespace tessel::capture {
namespace {

using testing::MarketOptions;
using testing::TestMarket;

// A market whose clients are receivers that join late.
struct Market {
    explicit Market(const MarketOptions& options = {.symbols = "AAPL:190", .participants = "QN"})
        : market(options) {
        std::string error;
        open_capture(wire.file, "", error);
        wire.clock = &market.clock;
        wire.snapshot = {0x7f000001, 25'179, {}};
        join.wire = &wire;
        join.client = {0x7f000001, 50'001, {}};
        market.start_of_day();
    }
    void pass(std::int64_t now_ms) {
        service_snapshots(server, market.engine, now_ms);
        step_join(join);
    }
    testing::StderrCapture log;
    TestMarket market;
    Wire wire;
    SnapshotServer server;
    LateJoin join;
};

TEST(LateJoin, Session_GoesFromHandshakeToCloseInTwoPasses) {
    Market m;
    begin_join(m.join, m.server, "UTPBENCH01", 0);
    EXPECT_EQ(m.wire.file.frames, 4u) << "three of the handshake, the login";
    m.pass(0);
    EXPECT_EQ(m.join.state, LateJoin::State::logged_out);
    EXPECT_EQ(m.market.scenario.stats.snapshots, 1u);
    const std::uint64_t after_spin = m.wire.file.frames;
    EXPECT_GE(after_spin, 4u + 2 + 1) << "Login Accepted, the spin, the logout";
    m.pass(1);
    EXPECT_EQ(m.join.state, LateJoin::State::closed);
    EXPECT_EQ(m.wire.file.frames, after_spin + 3) << "both ends close";
    EXPECT_TRUE(m.server.connections.empty());
    m.pass(2);
    EXPECT_EQ(m.wire.file.frames, after_spin + 3);
}

TEST(LateJoin, LargeSpin_IsCutIntoSegmentsWithAcknowledgments) {
    std::string symbols;
    for (int at = 0; at < 400; ++at) {
        symbols += (at == 0 ? "S" : ",S") + std::to_string(at) + ":20";
    }
    Market m({.symbols = symbols, .participants = "QNPZKVD"});
    m.market.run_ticks(20);
    begin_join(m.join, m.server, "UTPBENCH01", 0);
    m.pass(0);
    EXPECT_EQ(m.join.state, LateJoin::State::logged_out);
    const std::size_t spin = m.server.spin.bytes_flushed;
    ASSERT_GT(spin, 300'000u);
    // A piece of the spin ends in a segment that may be short.
    const std::size_t pieces = spin / (spin_buffer_bytes - 256) + 1;
    const std::size_t segments = spin / tcp_segment_bytes_max;
    EXPECT_GE(m.wire.file.frames, 4 + segments + segments / 2);
    EXPECT_LE(m.wire.file.frames, 8 + (segments + pieces) * 3 / 2);
    m.pass(1);
    EXPECT_EQ(m.join.state, LateJoin::State::closed);
}

TEST(LateJoin, RejectedLogin_IsClosedByTheService) {
    Market m;
    begin_join(m.join, m.server, "YESTERDAY", 0);
    m.pass(0);
    EXPECT_EQ(m.join.state, LateJoin::State::closed);
    EXPECT_EQ(m.market.scenario.stats.snapshot_rejects, 1u);
    EXPECT_FALSE(m.join.spin_complete);
}

}  // namespace
}  // namespace tessel::capture
